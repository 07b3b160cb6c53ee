#include "qfhost/Selection.h"

#include "qfhost/Host.h"

#include "Thunks.h"

#include <utility>

namespace qfhost {

namespace {

// ---- QFAnnotEditService ------------------------------------------------------------------

using SelectionTable = QF::AnnotEditServiceTable;

const SelectionTable kSelectionTable = {
    [](ServiceObject* self, uint32_t typeAtom, uint64_t pageIndex, PDAnnot annot) -> uint32_t {
        return detail::guarded(
            [&] { return AnnotSelection::of(self).select(typeAtom, pageIndex, annot); });
    },
    [](ServiceObject* self, uint32_t* outType) -> uint32_t {
        if (!outType) return codes::kBadArgument;
        *outType = AnnotSelection::of(self).type();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = AnnotSelection::of(self).selected().size();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t index, uint64_t* outPageIndex, PDAnnot* outAnnot) -> uint32_t {
        if (outAnnot) *outAnnot = nullptr;
        if (!outPageIndex || !outAnnot) return codes::kBadArgument;
        const auto& selected = AnnotSelection::of(self).selected();
        if (index >= selected.size()) return codes::kOutOfRange;
        *outPageIndex = selected[index].pageIndex;
        PDHandleAcquire(selected[index].annot);
        *outAnnot = selected[index].annot;
        return codes::kOk;
    },
    [](ServiceObject* self, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = AnnotSelection::of(self).selection().detach();
        return codes::kOk;
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] {
            AnnotSelection::of(self).clear();
            return codes::kOk;
        });
    },
};

// The subtype atom of annot, 0 when it cannot be read.
PDAtom subtypeOf(PDAnnot annot) {
    PDAtom subtype = 0;
    return PDAnnotGetSubtype(annot, &subtype) == PD_OK ? subtype : 0;
}

// ---- QFCompositeEditObjectFactory and its composites ------------------------------------

struct Composite {
    std::vector<ObjectPtr> children;
};

using CompositeTable = QF::CompositeEditObjectTable;

const CompositeTable kCompositeTable = {
    [](ServiceObject* self, ServiceObject* child) -> uint32_t {
        if (!child || SODetails::header(child)->interfaceId != QF::kEditObjectId)
            return codes::kBadArgument;
        return detail::guarded([&] {
            SODetails::implOf<CompositeTable, Composite>(self).children.push_back(
                ObjectPtr::share(child));
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = SODetails::implOf<CompositeTable, Composite>(self).children.size();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t index, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = nullptr;
        const auto& children = SODetails::implOf<CompositeTable, Composite>(self).children;
        if (index >= children.size()) return codes::kOutOfRange;
        *out = ObjectPtr(children[index]).detach();
        return codes::kOk;
    },
};

using FactoryTable = QF::CompositeEditObjectFactoryTable;

const FactoryTable kFactoryTable = {
    [](ServiceObject*, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return detail::guarded([&] {
            *out = CompositeEditObjectFactory::makeComposite().detach();
            return codes::kOk;
        });
    },
};

}  // namespace

// ---- AnnotSelection ------------------------------------------------------------------------

ServiceObject* AnnotSelection::create(Host& host) {
    return SODetails::makeServiceObject<SelectionTable, AnnotSelection, HostTraits>(
        QF::kAnnotEditServiceId, kName, detail::kAnnotSelectionImplId, kSelectionTable, host);
}

AnnotSelection& AnnotSelection::of(ServiceObject* so) {
    return SODetails::implOf<SelectionTable, AnnotSelection>(so);
}

AnnotSelection::~AnnotSelection() { clear(); }

uint32_t AnnotSelection::select(uint32_t typeAtom, uint64_t pageIndex, PDAnnot annot) {
    Document* doc = host_->currentDocument();
    View* view = host_->currentView();
    if (!annot || !doc || !view || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    ObjectPtr factory = host_->annotEdit().editSelectFactories().find(subtypeOf(annot));
    if (!factory) return codes::kNotRegistered;
    clear();
    if (!SODetails::hasMethod(factory.get(), 0)) return codes::kNotInitialized;
    ObjectPtr made;
    auto& ops = *SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory.get());
    const uint32_t rc = ops.CreateSelection(factory.get(), view->object(), pageIndex, annot,
                                            made.put());
    if (rc != codes::kOk) return rc;
    if (made && SODetails::header(made.get())->interfaceId == QF::kSelectionId &&
        SODetails::hasMethod(made.get(), 1)) {
        SODetails::methods<QF::SelectionTable>(made.get())->Init(made.get(), view->object());
    }
    PDHandleAcquire(annot);
    selected_.push_back({pageIndex, annot});
    type_ = typeAtom;
    selection_ = std::move(made);
    return codes::kOk;
}

uint32_t AnnotSelection::deselect(uint64_t pageIndex, PDAnnot annot) {
    for (auto it = selected_.begin(); it != selected_.end(); ++it) {
        if (it->pageIndex != pageIndex || it->annot != annot) continue;
        PDHandleRelease(it->annot);
        selected_.erase(it);
        if (selected_.empty()) clear();
        return codes::kOk;
    }
    return codes::kNegative;
}

void AnnotSelection::clear() {
    ObjectPtr dropped = std::exchange(selection_, ObjectPtr());
    for (const Selected& s : selected_) PDHandleRelease(s.annot);
    selected_.clear();
    type_ = 0;
}

// ---- CompositeEditObjectFactory -----------------------------------------------------------

ServiceObject* CompositeEditObjectFactory::create() {
    return detail::makeHostObject<FactoryTable, CompositeEditObjectFactory>(
        QF::kCompositeEditObjectFactoryId, kName, detail::kCompositeFactoryImplId,
        kFactoryTable);
}

CompositeEditObjectFactory& CompositeEditObjectFactory::of(ServiceObject* so) {
    return SODetails::implOf<FactoryTable, CompositeEditObjectFactory>(so);
}

ObjectPtr CompositeEditObjectFactory::makeComposite() {
    return ObjectPtr::adopt(detail::makeHostObject<CompositeTable, Composite>(
        QF::kCompositeEditObjectId, kCompositeName, detail::kCompositeImplId, kCompositeTable));
}

std::vector<ObjectPtr> CompositeEditObjectFactory::children(ServiceObject* composite) {
    if (!composite || SODetails::header(composite)->interfaceId != QF::kCompositeEditObjectId ||
        SODetails::prefixOf<CompositeTable>(composite)->implementationId != detail::kCompositeImplId)
        return {};
    return SODetails::implOf<CompositeTable, Composite>(composite).children;
}

}  // namespace qfhost
