#include "AnnotRibbonTab.h"

#include "qf/internal/ServiceObjectException.h"

namespace QF {

namespace {

// Whether widget belongs to a signature field; a widget without a readable field type is
// not one.
bool isSignatureWidget(PDAnnot widget) {
    PDField field = nullptr;
    if (PDWidgetAnnotGetParent(widget, &field) != PD_OK || !field) return false;
    PDAtom type = 0;
    const PDResult result = PDFieldGetType(field, &type);
    PDHandleRelease(field);
    return result == PD_OK && type == PD_ATOM_Sig;
}

} // namespace

std::u16string GetAnnotRibbonTabName(PDAnnot annot) {
    PDAtom subtype = 0;
    CheckPDResult(PDAnnotGetSubtype(annot, &subtype), "QF::GetAnnotRibbonTabName");
    if (subtype == PD_ATOM_Widget) return isSignatureWidget(annot) ? u"Secure" : u"Forms";
    return subtype == PD_ATOM_Link ? u"Insert" : u"Review";
}

} // namespace QF
