#include "WidgetEditSelection.h"

#include "HostLogger.h"

#include "qf/Selection"
#include "qf/SelectionFactory"

#include "qf/internal/SourceLocation.h"

#include <string>

namespace {

using SelectionBase = SOImpl::CppQFSelectionBase<WidgetEditSelection, SODetails::ServiceObjectTraits>;

const _AutoReg_QFSelection::Registration<WidgetEditSelection> kRegistration("WidgetEdit");

// The pen of a selection frame and of the date mark.
constexpr uint32_t kFrameColor = 0xFF0078D7;
constexpr uint32_t kLoggedWarning = 2;

} // namespace

uint32_t WidgetEditSelection::GetType(uint32_t* out) {
    static const uint32_t kWidgetAtom = SP::ResolveAtom("Widget");
    *out = kWidgetAtom;
    return 0;
}

uint32_t WidgetEditSelection::Draw(uint64_t pageIndex) {
    const auto& widget = Selected();
    auto* ops = Graphics();
    if (!widget || !ops || pageIndex != widget->PageIndex()) return 0;
    ServiceObject* g = GraphicsObject();
    const PDRect rect = QF::Normalized(widget->GetRect());
    ops->SaveState(g);
    ops->SetPen(g, kFrameColor, 0, 0);
    ops->SetBrush(g, 0);
    ops->DrawFrame(g, &rect, 1);

    QF::PDHandlePtr field;
    PDAtom type = 0;
    if (PDWidgetAnnotGetParent(widget->Annot(), field.put()) == PD_OK && field &&
        PDFieldGetType(field.get(), &type) == PD_OK && type == PD_ATOM_Tx &&
        IsDateFormat(field.get())) {
        // A small calendar leaf inside the right edge.
        float pixel = 1;
        ops->GetPixelSize(g, &pixel);
        const float size = 8 * pixel;
        const PDRect mark{rect.right - size - 2 * pixel, rect.top - 2 * pixel,
                          rect.right - 2 * pixel, rect.top - 2 * pixel - size};
        ops->SetBrush(g, kFrameColor);
        ops->DrawRect(g, &mark);
    }
    ops->RestoreState(g);
    return 0;
}

BasicServiceObjectPtr<> WidgetEditSelection::Create(ServiceObject* view, ServiceObject* document,
                                                    uint64_t pageIndex, PDAnnot widget) {
    auto object = std::make_shared<WidgetEditObject>(BasicServiceObjectPtr<>::share(document),
                                                     pageIndex, widget,
                                                     BasicServiceObjectPtr<>::share(view));
    return BasicServiceObjectPtr<>::adopt(SelectionBase::CreateServiceObject(std::move(object)));
}

std::shared_ptr<WidgetEditObject> WidgetEditSelection::SelectedOf(ServiceObject* selection) {
    if (!selection || SODetails::header(selection)->interfaceId != QF::kSelectionId ||
        SODetails::prefixOf<QF::SelectionTable>(selection)->implementationId !=
            SOImpl::ClassStamp<WidgetEditSelection>())
        return nullptr;
    return SOImpl::ImplOf<SelectionBase>(selection).Selected();
}

bool IsDateFormat(PDField field) {
    QF::PDHandlePtr action;
    if (PDFieldGetFormatAction(field, action.put()) != PD_OK || !action) return false;
    PDAtom type = 0;
    if (PDActionGetType(action.get(), &type) != PD_OK) return false;
    if (type != PD_ATOM_JavaScript) {
        const auto where = SOImpl::SourceLocation::current();
        HostLogger::Log(kLoggedWarning, u"Validate action must be of type JavaScript",
                        where.file_name(), where.line(), "`anonymous-namespace'::IsDateFormat");
        return false;
    }
    uint32_t length = 0;
    if (PDActionJavaScriptGetScript(action.get(), nullptr, 0, &length) != PD_OK) return false;
    std::u16string script(length + 1, u'\0');
    if (PDActionJavaScriptGetScript(action.get(), script.data(),
                                    static_cast<uint32_t>(script.size()), &length) != PD_OK)
        return false;
    script.resize(length);
    return script.find(u"AFDate_Format") != std::u16string::npos;
}
