// The host's annotation selection ("QFAnnotEditService") and its composite edit objects
// ("QFCompositeEditObjectFactory"). Single-threaded like the rest of the user interface.
#pragma once

#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"

#include <boost/signals2/connection.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace qfhost {

class Host;
class View;

// "QFAnnotEditService": what is selected in the current document. Selecting asks the
// "QFAnnotEditSelectFactory" registered for the annotation's subtype (QFService) for the
// selection object, which is shown (Init) in the current view.
class QFHOST_API AnnotSelection {
public:
    static constexpr const char* kName = "QFAnnotEditService";
    static ServiceObject* create(Host& host);
    static AnnotSelection& of(ServiceObject* so);

    explicit AnnotSelection(Host& host) : host_(&host) {}
    ~AnnotSelection();
    AnnotSelection(const AnnotSelection&) = delete;
    AnnotSelection& operator=(const AnnotSelection&) = delete;

    // Makes annot (of page pageIndex of the current document) the selection, of edit type
    // typeAtom. 3 for a null annotation, no current document or view, or a page past its
    // pages; 0x10005 when no factory is registered for the subtype; otherwise the
    // factory's result (the selection is then left empty).
    uint32_t select(uint32_t typeAtom, uint64_t pageIndex, PDAnnot annot);
    // Adds annot (of page pageIndex of the current document) to a selection that holds one
    // or more already, as a click with Shift does: the selection object, and the edit tool
    // working on it, stay with the first. 1 when nothing is selected or annot is already;
    // 3 for a null annotation or one that page pageIndex does not list.
    uint32_t add(uint64_t pageIndex, PDAnnot annot);
    // Takes annot out of the selection: 1 when it is not selected. The last one out
    // empties the selection. An annotation removed from the document leaves it by itself.
    uint32_t deselect(uint64_t pageIndex, PDAnnot annot);
    // What a click with the host's selection arrow does: asks the edit-object factory of
    // "WidgetEdit" for the top-most widget at page point (x, y) of the current view's page
    // pageIndex, selects it through the "WidgetEdit" select-edit-object service, and makes
    // the module's edit tool "WidgetEdit" the view's tool, working on the selection. 1 when no
    // widget is there (the selection is then empty); 0x10005 when the module registered no
    // factory, service or tool; otherwise the first failing call's result.
    uint32_t selectAt(uint64_t pageIndex, float x, float y);
    // The same for widget (of page pageIndex of the current document), as a paste selects
    // what it made. 3 for a null widget or a page past the pages.
    uint32_t selectWidget(uint64_t pageIndex, PDAnnot widget);

    // Where a paste takes its widget text: the system clipboard ("KRWinServices"), or the
    // forms module's private clipboard (what a duplicate copies).
    enum class Source { System, Private };
    // Which field a pasted widget belongs to.
    enum class Naming {
        // A field of its own: the record's name when no field of the document bears it,
        // else the first free "<name>_2", "<name>_3" ... (a record without a name, or a
        // name pdfcore refuses, keeps the name pdfcore gave the new field).
        NewField,
        // The field of the record's name, which the widget joins (one value, several
        // widgets). The field must be there (else 0x10010), hold widgets rather than fields
        // and be of the same kind: the same type and, for buttons and choices, the same
        // radio, push-button or combo flag, the rule the module applies to typed names
        // (else 0x10011).
        Join,
    };
    // The widget text source holds, as paste reads it (UTF-8; empty when it holds none).
    std::string sourceText(Source source);
    // Pastes the widget text of source onto page pageIndex of the current document; see
    // pasteText. 1 when the clipboard holds no text.
    uint32_t paste(uint64_t pageIndex, Source source, Naming naming,
                   PDAnnot* outWidget = nullptr);
    // Pastes a widget record (JSON text, UTF-8) through the "PasteAnnot" of the module's
    // widget factory onto page pageIndex, at the record's rectangle, with the field naming
    // chooses. A widget that would lie exactly over an annotation of that page (the copied
    // widget, pasted on its own page, or an earlier paste of it) moves 10 points right and
    // 10 down as the page is shown, until it lies over none, so that it can be seen and
    // grabbed. The widget lands through the undoable "AddWidget" command and becomes the
    // selection, with the edit tool active (as selectWidget; a selection that fails leaves
    // the selection empty and the paste done). On any failure whatever the paste made is
    // taken off again (the document's fields and pages are as before) and the failing
    // call's result is returned (1 when the record made nothing). outWidget (may be null)
    // gets one reference to the widget.
    uint32_t pasteText(uint64_t pageIndex, const std::string& text, Naming naming,
                       PDAnnot* outWidget = nullptr);
    // Drops the selection (object and annotations).
    void clear();

    uint32_t type() const { return type_; }
    struct Selected {
        uint64_t pageIndex;
        PDAnnot annot;  // one pdfcore reference, held by the selection
    };
    const std::vector<Selected>& selected() const { return selected_; }
    // The "QFSelection" object (null: nothing selected or the factory made none).
    ObjectPtr selection() const { return selection_; }
    // The view the selection is shown in (null: nothing selected). Closing it drops the
    // selection.
    const View* view() const { return view_; }

private:
    // Selects object (an edit object of the "WidgetEdit" factory) through service and
    // activates the edit tool on the selection.
    uint32_t selectEditObject(ServiceObject* service, ServiceObject* object);

    Host* host_;
    const View* view_ = nullptr;
    uint32_t type_ = 0;
    std::vector<Selected> selected_;
    ObjectPtr selection_;
    boost::signals2::scoped_connection removals_;
};

// "QFCompositeEditObjectFactory": makes "QFCompositeEditObject" groups, ordered lists of
// edit objects that keep one reference each.
class QFHOST_API CompositeEditObjectFactory {
public:
    static constexpr const char* kName = "QFCompositeEditObjectFactory";
    static constexpr const char* kCompositeName = "QFCompositeEditObject";
    static ServiceObject* create();
    static CompositeEditObjectFactory& of(ServiceObject* so);

    // A new empty composite, one reference.
    static ObjectPtr makeComposite();
    // The children of a composite made here (empty for any other object).
    static std::vector<ObjectPtr> children(ServiceObject* composite);
};

}  // namespace qfhost
