// The host's annotation selection ("QFAnnotEditService") and its composite edit objects
// ("QFCompositeEditObjectFactory"). Single-threaded like the rest of the user interface.
#pragma once

#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"

#include <cstdint>
#include <vector>

namespace qfhost {

class Host;

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
    // Takes annot out of the selection: 1 when it is not selected. The last one out
    // empties the selection.
    uint32_t deselect(uint64_t pageIndex, PDAnnot annot);
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

private:
    Host* host_;
    uint32_t type_ = 0;
    std::vector<Selected> selected_;
    ObjectPtr selection_;
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
