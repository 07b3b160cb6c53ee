#include "qfhost/Document.h"

#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "PdfcoreText.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <optional>
#include <utility>

namespace qfhost {

namespace detail {

// Implementation ids of the document's blocks and of its annotation commands.
enum : uint32_t {
    kDocumentImplId = 0x51480201,
    kPageImplId = 0x51480202,
    kAnnotCommandImplId = 0x51480203,
};

// Inside a "QFPage" block. page is null once the document is closed.
struct PageState {
    PDPage page = nullptr;
    uint32_t index = 0;
    bool changed = false;
    bool locked = false;
    uint64_t token = 0;

    PageState(PDPage p, uint32_t i) : page(p), index(i) {}
    ~PageState() { PDHandleRelease(page); }
    PageState(const PageState&) = delete;
    PageState& operator=(const PageState&) = delete;
};

// Inside the "QFDocument" block. owner is null once the document is closed.
struct DocumentState {
    Document* owner = nullptr;
    Host* host = nullptr;
    PDDoc doc = nullptr;
    uint32_t pageCount = 0;
    std::vector<ObjectPtr> pages;  // pageCount slots, filled on demand
    std::vector<Document::Invalidation> invalidations;
    int32_t lastPdfResult = 0;
    // Subscriptions made through the service object, by connection id.
    std::map<uint64_t, boost::signals2::connection> connections;
    uint64_t nextConnection = 1;
    // The listener through which pdfcore's own change notifications reach OnAnnotChanged.
    uint32_t pdfcoreListener = 0;

    DocumentState() = default;
    ~DocumentState() { PDHandleRelease(doc); }
    DocumentState(const DocumentState&) = delete;
    DocumentState& operator=(const DocumentState&) = delete;
};

}  // namespace detail

namespace {

using detail::DocumentState;
using detail::Held;
using detail::PageState;

uint32_t atomOf(const char* name) {
    uint32_t id = 0;
    if (KRGetAtomFromString(name, &id) != KR_OK) return 0;
    return id;
}

// The annotation operations of PerformAnnotOperation.
enum class Operation {
    SetRect,
    Delete,
    Insert,
    Lock,
    Unlock,
    DeletePageAll,
    RangeDelete,
    ReplyTo,
    BringFront,
    BringBack,
    BringForward,
    BringBackward,
};

// The operation named by atom, from the names resolved once; nothing for any other atom.
std::optional<Operation> operationOf(uint32_t atom) {
    struct Named {
        const char* name;
        Operation operation;
    };
    static constexpr Named kNames[] = {
        {"Annot_SetRect", Operation::SetRect},
        {"Annot_Delete", Operation::Delete},
        {"Annot_Insert", Operation::Insert},
        {"Annot_Lock", Operation::Lock},
        {"Annot_Unlock", Operation::Unlock},
        {"Annot_Delete_PageAll", Operation::DeletePageAll},
        {"Annot_RangeDelete", Operation::RangeDelete},
        {"Annot_ReplyTo", Operation::ReplyTo},
        {"Annot_BringFront", Operation::BringFront},
        {"Annot_BringBack", Operation::BringBack},
        {"Annot_BringForward", Operation::BringForward},
        {"Annot_BringBackward", Operation::BringBackward},
    };
    static const std::vector<std::pair<uint32_t, Operation>> kAtoms = [] {
        std::vector<std::pair<uint32_t, Operation>> atoms;
        for (const Named& n : kNames) {
            if (uint32_t id = atomOf(n.name)) atoms.emplace_back(id, n.operation);
        }
        return atoms;
    }();
    if (atom == 0) return std::nullopt;
    for (const auto& [id, operation] : kAtoms) {
        if (id == atom) return operation;
    }
    return std::nullopt;
}

DocumentState& docState(ServiceObject* so) {
    return SODetails::implOf<QF::DocumentTable, DocumentState>(so);
}
PageState& pageState(ServiceObject* so) {
    return SODetails::implOf<QF::PageTable, PageState>(so);
}

uint64_t nextToken() {
    static std::atomic<uint64_t> counter{0};
    return ++counter;
}

// ---- QFPage ---------------------------------------------------------------------------

const QF::PageTable kPageTable = {
    [](ServiceObject* self, PDPage* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        auto& p = pageState(self);
        if (!p.page) return codes::kDocumentClosed;
        PDHandleAcquire(p.page);
        *out = p.page;
        return codes::kOk;
    },
    [](ServiceObject* self, uint8_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        auto& p = pageState(self);
        if (!p.page) return codes::kDocumentClosed;
        *out = p.changed ? 1 : 0;
        return codes::kOk;
    },
    [](ServiceObject* self, uint8_t changed) -> uint32_t {
        auto& p = pageState(self);
        if (!p.page) return codes::kDocumentClosed;
        p.changed = changed != 0;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t mode, uint64_t* outToken) -> uint32_t {
        if (!outToken || mode != Document::kExclusiveLock) return codes::kBadArgument;
        auto& p = pageState(self);
        if (!p.page) return codes::kDocumentClosed;
        if (p.locked) return codes::kPageBusy;
        p.locked = true;
        p.token = nextToken();
        *outToken = p.token;
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t token) -> uint32_t {
        auto& p = pageState(self);
        if (!p.locked || token == 0 || token != p.token) return codes::kBadArgument;
        p.locked = false;
        p.token = 0;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = pageState(self).page ? 1 : 0;
        return codes::kOk;
    },
};

// The page block of index, made on first use; null past the end or when pdfcore fails.
ServiceObject* pageOf(DocumentState& s, uint64_t index) {
    if (!s.doc || index >= s.pageCount) return nullptr;
    ObjectPtr& slot = s.pages[index];
    if (!slot) {
        PDPage page = nullptr;
        PDResult rc = PDDocGetPage(s.doc, static_cast<uint32_t>(index), &page);
        if (rc != PD_OK) {
            s.lastPdfResult = rc;
            return nullptr;
        }
        try {
            slot = ObjectPtr::adopt(SODetails::makeServiceObject<QF::PageTable, PageState,
                                                                 HostTraits>(
                QF::kPageId, Document::kPageName, detail::kPageImplId, kPageTable, page,
                static_cast<uint32_t>(index)));
        } catch (...) {
            PDHandleRelease(page);
            throw;
        }
    }
    return slot.get();
}

// ---- annotation operations -------------------------------------------------------------

PDRect toPDRect(const float* r) {
    // min x, min y, max x, max y -> left, top, right, bottom
    return PDRect{r[0], r[3], r[2], r[1]};
}

void invalidate(Document& doc, uint64_t page, const PDRect& r) {
    const float rect[4] = {r.left, r.top, r.right, r.bottom};
    doc.invalidateRect(page, rect, 0);
}

// pdfcore's refusal, kept for lastPdfResult, as a host code. A handle of another kind or
// of another document is the caller's mistake.
uint32_t pdfFailure(DocumentState& s, PDResult rc) {
    if (rc == PD_ERR_WRONG_HANDLE || rc == PD_ERR_OTHER_DOCUMENT || rc == PD_ERR_MISSING_OBJECT) {
        return codes::kBadArgument;
    }
    s.lastPdfResult = rc;
    return codes::kPdfFailure;
}

bool isWidget(PDAnnot annot) {
    PDAtom subtype = 0;
    return PDAnnotGetSubtype(annot, &subtype) == PD_OK && subtype == PD_ATOM_Widget;
}

// A widget that the user may not delete or change.
bool isLockedWidget(PDAnnot annot) {
    uint32_t flags = 0;
    return isWidget(annot) && PDAnnotGetFlags(annot, &flags) == PD_OK &&
           (flags & PD_ANNOT_LOCKED) != 0;
}

// The annotation's rectangle, normalised; false when it has none that can be read.
bool normalRect(PDAnnot annot, PDRect& out) {
    PDRect r{};
    if (PDAnnotGetRect(annot, &r) != PD_OK) return false;
    out = PDRect{std::min(r.left, r.right), std::max(r.top, r.bottom), std::max(r.left, r.right),
                 std::min(r.top, r.bottom)};
    return true;
}

// One annotation as a delete found it: its place on the page and, for a widget, in its
// field, so that UNDO puts it back in both.
struct Removal {
    Held annot;
    Held field;  // null: no field to go back to
    uint32_t position = 0;
    uint32_t widgetIndex = 0;
    PDRect rect{};
    bool hasRect = false;
};

// One annotation operation, undoable. Holds the document block and its own pdfcore
// references. prepare() checks the record and gathers what DO needs; DO records what UNDO
// needs, each time it runs.
struct AnnotCommand {
    ObjectPtr document;
    uint32_t operationAtom;
    Operation operation;
    uint32_t uniqueId;
    uint64_t pageIndex;
    Held annot;                           // the annotation operated on (ReplyTo: the reply)
    Held parent;                          // ReplyTo: the annotation replied to
    std::vector<Held> targets;            // deletes: the annotations, in page order
    std::vector<Removal> removed;         // deletes: what DO took away
    PDRect newRect{}, oldRect{};          // SetRect; else the rectangle to redraw
    uint32_t oldFlags = 0, newFlags = 0;  // Lock, Unlock
    uint32_t from = 0, to = 0;            // reorders: old and new place in /Annots
    bool changedBefore = false;           // the page's flag before DO

    AnnotCommand(ObjectPtr doc, uint32_t atom, Operation op, uint64_t page)
        : document(std::move(doc)), operationAtom(atom), operation(op),
          uniqueId(nextUniqueId()), pageIndex(page) {}
    AnnotCommand(const AnnotCommand&) = delete;
    AnnotCommand& operator=(const AnnotCommand&) = delete;

    static uint32_t nextUniqueId() {
        static std::atomic<uint32_t> counter{0};
        return ++counter;
    }

    // Checks the record against the page and gathers the operation's data: 0, or the
    // code to answer (no command is run then).
    uint32_t prepare(DocumentState& s, PageState& page, const QF::AnnotOperationRecord& record) {
        const bool wholePage =
            operation == Operation::DeletePageAll || operation == Operation::RangeDelete;
        const bool onPage = !wholePage && operation != Operation::Insert;
        if (!wholePage) {
            if (!record.annot) return codes::kBadArgument;
            annot = Held::share(record.annot);
        }
        uint32_t position = 0;
        if (onPage) {
            PDResult rc = PDPageGetAnnotIndex(page.page, record.annot, &position);
            if (rc == PD_ERR_NOT_FOUND) return codes::kBadArgument;  // not the page's
            if (rc != PD_OK) return pdfFailure(s, rc);
        }
        switch (operation) {
        case Operation::SetRect:
            newRect = toPDRect(record.rect);
            for (float v : record.rect) {
                if (!std::isfinite(v)) return codes::kBadArgument;
            }
            return codes::kOk;
        case Operation::Delete:
            if (isLockedWidget(record.annot)) return codes::kBadArgument;
            targets.push_back(Held::share(record.annot));
            return codes::kOk;
        case Operation::Insert:
            return prepareInsert(s, record.annot);
        case Operation::Lock:
        case Operation::Unlock: {
            PDResult rc = PDAnnotGetFlags(record.annot, &oldFlags);
            if (rc != PD_OK) return pdfFailure(s, rc);
            newFlags = operation == Operation::Lock ? oldFlags | PD_ANNOT_LOCKED
                                                    : oldFlags & ~uint32_t{PD_ANNOT_LOCKED};
            return newFlags == oldFlags ? codes::kNegative : codes::kOk;
        }
        case Operation::DeletePageAll:
        case Operation::RangeDelete:
            return prepareDeletes(s, page, record);
        case Operation::ReplyTo:
            return prepareReply(s, record);
        case Operation::BringFront:
        case Operation::BringBack:
        case Operation::BringForward:
        case Operation::BringBackward: {
            uint32_t count = 0;
            PDResult rc = PDPageGetNumAnnots(page.page, &count);
            if (rc != PD_OK) return pdfFailure(s, rc);
            from = position;
            to = operation == Operation::BringFront  ? count - 1
                 : operation == Operation::BringBack ? 0
                 : operation == Operation::BringForward
                     ? std::min(position + 1, count - 1)
                     : (position == 0 ? 0 : position - 1);
            return to == from ? codes::kNegative : codes::kOk;
        }
        }
        return codes::kUnknownOperation;
    }

    // An annotation of this document that no page lists yet.
    uint32_t prepareInsert(DocumentState& s, PDAnnot a) {
        Held owner;
        PDResult rc = PDHandleGetDoc(a, owner.put());
        if (rc != PD_OK) return pdfFailure(s, rc);
        if (owner.get() != s.doc) return codes::kBadArgument;
        uint32_t flags = 0;
        if (PDAnnotGetFlags(a, &flags) != PD_OK) return codes::kBadArgument;  // no annotation
        for (uint32_t i = 0; i < s.pageCount; ++i) {
            Held other;
            uint32_t at = 0;
            if (PDDocGetPage(s.doc, i, other.put()) == PD_OK &&
                PDPageGetAnnotIndex(other.get(), a, &at) == PD_OK) {
                return codes::kBadArgument;
            }
        }
        return codes::kOk;
    }

    // Every annotation of the page (PageAll) or every one lying wholly inside the record's
    // rectangle (RangeDelete), locked widgets excepted; nothing: a negative answer.
    uint32_t prepareDeletes(DocumentState& s, PageState& page,
                            const QF::AnnotOperationRecord& record) {
        PDRect range = toPDRect(record.rect);
        const float minX = std::min(range.left, range.right), maxX = std::max(range.left, range.right);
        const float minY = std::min(range.top, range.bottom), maxY = std::max(range.top, range.bottom);
        uint32_t count = 0;
        PDResult rc = PDPageGetNumAnnots(page.page, &count);
        if (rc != PD_OK) return pdfFailure(s, rc);
        for (uint32_t i = 0; i < count; ++i) {
            Held a;
            rc = PDPageGetAnnot(page.page, i, a.put());
            if (rc != PD_OK) return pdfFailure(s, rc);
            if (isLockedWidget(a.get())) continue;
            if (operation == Operation::RangeDelete) {
                PDRect r{};
                if (!normalRect(a.get(), r) || r.left < minX || r.right > maxX ||
                    r.bottom < minY || r.top > maxY) {
                    continue;
                }
            }
            targets.push_back(std::move(a));
        }
        return targets.empty() ? codes::kNegative : codes::kOk;
    }

    // A new note at the record's rectangle replying to a markup annotation of the page.
    uint32_t prepareReply(DocumentState& s, const QF::AnnotOperationRecord& record) {
        PDBool markup = 0;
        PDResult rc = PDAnnotIsMarkupAnnot(record.annot, &markup);
        if (rc != PD_OK) return pdfFailure(s, rc);
        if (!markup) return codes::kBadArgument;
        for (float v : record.rect) {
            if (!std::isfinite(v)) return codes::kBadArgument;
        }
        parent = std::move(annot);
        PDAtom text = 0;
        const PDRect r = toPDRect(record.rect);
        rc = PDAtomPutString("Text", &text);
        if (rc == PD_OK) rc = PDDocCreateAnnot(s.doc, text, &r, annot.put());
        if (rc == PD_OK) rc = PDMarkupAnnotSetInReplyTo(annot.get(), parent.get());
        return rc == PD_OK ? codes::kOk : pdfFailure(s, rc);
    }

    uint32_t apply(bool undo) {
        DocumentState& s = docState(document.get());
        if (!s.owner) return codes::kDocumentClosed;
        Document& doc = *s.owner;
        ServiceObject* pageObject = pageOf(s, pageIndex);
        if (!pageObject) return codes::kPdfFailure;
        PageState& page = pageState(pageObject);
        if (page.locked) return codes::kPageBusy;
        uint32_t rc = codes::kOk;
        switch (operation) {
        case Operation::SetRect: rc = setRect(s, doc, undo); break;
        case Operation::Delete:
        case Operation::DeletePageAll:
        case Operation::RangeDelete: rc = undo ? restore(s, doc, page) : remove(s, doc, page); break;
        case Operation::Insert:
        case Operation::ReplyTo: rc = place(s, doc, page, undo); break;
        case Operation::Lock:
        case Operation::Unlock: rc = setFlags(s, doc, undo); break;
        default: rc = move(s, doc, page, undo); break;
        }
        if (rc != codes::kOk) return rc;
        if (!undo) {
            changedBefore = page.changed;
            page.changed = true;
        } else {
            page.changed = changedBefore;
        }
        return codes::kOk;
    }

    uint32_t setRect(DocumentState& s, Document& doc, bool undo) {
        PDResult rc = PD_OK;
        if (!undo) {
            rc = PDAnnotGetRect(annot.get(), &oldRect);
            if (rc == PD_OK) rc = PDAnnotSetRect(annot.get(), &newRect);
        } else {
            rc = PDAnnotSetRect(annot.get(), &oldRect);
        }
        if (rc != PD_OK) return pdfFailure(s, rc);
        doc.notifyAnnotChanged(0, pageIndex, annot.get());
        invalidate(doc, pageIndex, undo ? newRect : oldRect);
        invalidate(doc, pageIndex, undo ? oldRect : newRect);
        return codes::kOk;
    }

    uint32_t setFlags(DocumentState& s, Document& doc, bool undo) {
        PDResult rc = PDAnnotSetFlags(annot.get(), undo ? oldFlags : newFlags);
        if (rc != PD_OK) return pdfFailure(s, rc);
        doc.notifyAnnotChanged(0, pageIndex, annot.get());
        if (normalRect(annot.get(), oldRect)) invalidate(doc, pageIndex, oldRect);
        return codes::kOk;
    }

    // Deletes: where each annotation is, on the page and in its field, is read before
    // anything changes; then each leaves its field and the page.
    uint32_t remove(DocumentState& s, Document& doc, PageState& page) {
        removed.clear();
        for (const Held& target : targets) {
            Removal r;
            r.annot = Held::share(target.get());
            PDResult rc = PDPageGetAnnotIndex(page.page, r.annot.get(), &r.position);
            if (rc != PD_OK) return pdfFailure(s, rc);
            r.hasRect = normalRect(r.annot.get(), r.rect);
            if (isWidget(r.annot.get()) &&
                PDWidgetAnnotGetParent(r.annot.get(), r.field.put()) == PD_OK && r.field.get() &&
                PDFieldGetWidgetIndex(r.field.get(), r.annot.get(), &r.widgetIndex) != PD_OK) {
                r.field = Held();  // a /Parent that does not list it: nothing to restore
            }
            removed.push_back(std::move(r));
        }
        for (const Removal& r : removed) {
            PDResult rc = r.field.get() ? PDFieldRemoveWidget(r.field.get(), r.annot.get()) : PD_OK;
            if (rc == PD_OK) rc = PDPageRemoveAnnot(page.page, r.annot.get());
            if (rc != PD_OK) return pdfFailure(s, rc);
        }
        announce(doc, 1);
        return codes::kOk;
    }

    // Back into the fields in ascending widget order and onto the page in ascending
    // position, so that every index refers to the list as it was.
    uint32_t restore(DocumentState& s, Document& doc, PageState& page) {
        std::vector<const Removal*> order;
        for (const Removal& r : removed) order.push_back(&r);
        std::stable_sort(order.begin(), order.end(), [](const Removal* a, const Removal* b) {
            return a->widgetIndex < b->widgetIndex;
        });
        for (const Removal* r : order) {
            if (!r->field.get()) continue;
            PDResult rc = PDFieldInsertWidget(r->field.get(), r->widgetIndex, r->annot.get());
            if (rc != PD_OK) return pdfFailure(s, rc);
        }
        std::stable_sort(order.begin(), order.end(), [](const Removal* a, const Removal* b) {
            return a->position < b->position;
        });
        for (const Removal* r : order) {
            PDResult rc = PDPageAddAnnot(page.page, r->position, r->annot.get());
            if (rc != PD_OK) return pdfFailure(s, rc);
        }
        announce(doc, 0);
        return codes::kOk;
    }

    // One event for one deleted annotation, one for the whole list otherwise, and the
    // rectangles redrawn.
    void announce(Document& doc, uint32_t kind) {
        if (operation == Operation::Delete) {
            doc.notifyAnnotChanged(kind, pageIndex, removed.front().annot.get());
        } else {
            std::vector<PDAnnot> annots;
            for (const Removal& r : removed) annots.push_back(r.annot.get());
            doc.notifyAnnotsChanged(kind, pageIndex, annots.data(), annots.size());
        }
        for (const Removal& r : removed) {
            if (r.hasRect) invalidate(doc, pageIndex, r.rect);
        }
    }

    // Insert appends the annotation, ReplyTo puts the reply right after the annotation it
    // answers; UNDO takes it off again.
    uint32_t place(DocumentState& s, Document& doc, PageState& page, bool undo) {
        PDResult rc = PD_OK;
        if (undo) {
            rc = PDPageRemoveAnnot(page.page, annot.get());
        } else if (operation == Operation::ReplyTo) {
            uint32_t at = 0;
            rc = PDPageGetAnnotIndex(page.page, parent.get(), &at);
            if (rc == PD_OK) rc = PDPageAddAnnot(page.page, at + 1, annot.get());
        } else {
            uint32_t count = 0;
            rc = PDPageGetNumAnnots(page.page, &count);
            if (rc == PD_OK) rc = PDPageAddAnnot(page.page, count, annot.get());
        }
        if (rc != PD_OK) return pdfFailure(s, rc);
        doc.notifyAnnotChanged(undo ? 1 : 0, pageIndex, annot.get());
        if (normalRect(annot.get(), oldRect)) invalidate(doc, pageIndex, oldRect);
        return codes::kOk;
    }

    // Reorders: from one place in /Annots to the other.
    uint32_t move(DocumentState& s, Document& doc, PageState& page, bool undo) {
        PDResult rc = PDPageRemoveAnnot(page.page, annot.get());
        if (rc == PD_OK) rc = PDPageAddAnnot(page.page, undo ? from : to, annot.get());
        if (rc != PD_OK) return pdfFailure(s, rc);
        doc.notifyAnnotChanged(undo ? 1 : 0, pageIndex, annot.get());
        if (normalRect(annot.get(), oldRect)) invalidate(doc, pageIndex, oldRect);
        return codes::kOk;
    }
};

AnnotCommand& commandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, AnnotCommand>(so);
}

const QF::CommandTable kCommandTable = {
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).operationAtom;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).uniqueId;
        return codes::kOk;
    },
    // The feature names are the operation's atom as well.
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).operationAtom;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).operationAtom;
        return codes::kOk;
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(true); });
    },
};

// ---- QFDocument -------------------------------------------------------------------------

// Drops a subscription made through the service object; 1 for an unknown one. Also after
// the document was closed (its signals are gone then, the connection is simply dropped).
uint32_t disconnect(DocumentState& s, uint64_t connection) {
    auto it = s.connections.find(connection);
    if (it == s.connections.end()) return codes::kNegative;
    it->second.disconnect();
    s.connections.erase(it);
    return codes::kOk;
}

// Runs f on the owner, or answers kDocumentClosed.
template <typename F>
uint32_t withOwner(ServiceObject* self, F&& f) {
    return detail::guarded([&]() -> uint32_t {
        DocumentState& s = docState(self);
        if (!s.owner) return codes::kDocumentClosed;
        return f(*s.owner, s);
    });
}

const QF::DocumentTable kDocumentTable = {
    [](ServiceObject* self, PDDoc* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return withOwner(self, [&](Document&, DocumentState& s) -> uint32_t {
            PDHandleAcquire(s.doc);
            *out = s.doc;
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t pageIndex, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return withOwner(self, [&](Document&, DocumentState& s) -> uint32_t {
            if (pageIndex >= s.pageCount) return codes::kBadArgument;
            ServiceObject* page = pageOf(s, pageIndex);
            if (!page) return codes::kPdfFailure;
            SODetails::addRef(page);
            *out = page;
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint32_t kind, uint64_t pageIndex, PDAnnot annot) -> uint32_t {
        return withOwner(self, [&](Document& d, DocumentState&) {
            return d.notifyAnnotChanged(kind, pageIndex, annot);
        });
    },
    [](ServiceObject* self, uint32_t kind, uint64_t pageIndex, const PDAnnot* annots,
       uint64_t count) -> uint32_t {
        return withOwner(self, [&](Document& d, DocumentState&) {
            return d.notifyAnnotsChanged(kind, pageIndex, annots, count);
        });
    },
    [](ServiceObject* self, uint64_t pageIndex, const float* rect, uint32_t flag) -> uint32_t {
        return withOwner(self, [&](Document& d, DocumentState&) {
            return d.invalidateRect(pageIndex, rect, flag);
        });
    },
    [](ServiceObject* self, uint32_t operationAtom, const void* record,
       uint64_t reserved) -> uint32_t {
        if (reserved != 0) return codes::kBadArgument;
        return withOwner(self, [&](Document& d, DocumentState&) {
            return d.performAnnotOperation(
                operationAtom, static_cast<const QF::AnnotOperationRecord*>(record));
        });
    },
    [](ServiceObject* self, PDOCConfig* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return withOwner(self, [&](Document&, DocumentState& s) -> uint32_t {
            PDResult rc = PDDocGetOCConfig(s.doc, out);
            if (rc != PD_OK) {
                s.lastPdfResult = rc;
                return codes::kPdfFailure;
            }
            return codes::kOk;
        });
    },
    [](ServiceObject* self, const QF::CommandArgs* args) -> uint32_t {
        return withOwner(self,
                         [&](Document& d, DocumentState&) { return d.executeCommand(args); });
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = docState(self).owner ? 1 : 0;
        return codes::kOk;
    },
    [](ServiceObject* self, QF::AnnotChangedProc proc, void* context,
       uint64_t* outConnection) -> uint32_t {
        if (!proc || !outConnection) return codes::kBadArgument;
        return withOwner(self, [&](Document& d, DocumentState& s) -> uint32_t {
            *outConnection = s.nextConnection++;
            s.connections[*outConnection] = d.OnAnnotChanged.connect(
                [proc, context](uint32_t kind, uint64_t page, PDAnnot annot) {
                    proc(context, kind, page, annot);
                });
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t connection) -> uint32_t {
        return disconnect(docState(self), connection);
    },
    [](ServiceObject* self, QF::AnnotsChangedProc proc, void* context,
       uint64_t* outConnection) -> uint32_t {
        if (!proc || !outConnection) return codes::kBadArgument;
        return withOwner(self, [&](Document& d, DocumentState& s) -> uint32_t {
            *outConnection = s.nextConnection++;
            s.connections[*outConnection] = d.OnAnnotsChanged.connect(
                [proc, context](uint32_t kind, uint64_t page, const std::vector<PDAnnot>& annots) {
                    proc(context, kind, page, annots.data(), annots.size());
                });
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t connection) -> uint32_t {
        return disconnect(docState(self), connection);
    },
};

PDDoc checked(PDResult rc, PDDoc doc, const std::string& what) {
    if (rc != PD_OK) {
        throw HostError(codes::kPdfFailure, detail::pdfcoreFailure(what, rc));
    }
    return doc;
}

}  // namespace

// ---- Document ---------------------------------------------------------------------------

Document::Document(PDDoc adopted, Host* host) {
    try {
        object_ = ObjectPtr::adopt(
            SODetails::makeServiceObject<QF::DocumentTable, DocumentState, HostTraits>(
                QF::kDocumentId, kName, detail::kDocumentImplId, kDocumentTable));
    } catch (...) {
        PDHandleRelease(adopted);
        throw;
    }
    DocumentState& s = state();
    s.doc = adopted;  // released by the state from here on
    uint32_t count = 0;
    PDResult rc = PDDocGetNumPages(adopted, &count);
    if (rc != PD_OK) throw HostError(codes::kPdfFailure, "cannot count the pages");
    s.pageCount = count;
    s.pages.resize(count);
    s.host = host;
    s.owner = this;
    // Changes notified to pdfcore directly (a rename through the module's helpers) are
    // this document's events as well.
    rc = PDDocAddAnnotChangedListener(
        adopted,
        [](void* data, PDDoc, int32_t kind, uint32_t pageIndex, PDAnnot annot) {
            static_cast<Document*>(data)->OnAnnotChanged(static_cast<uint32_t>(kind), pageIndex,
                                                         annot);
        },
        this, &s.pdfcoreListener);
    if (rc != PD_OK) throw HostError(codes::kPdfFailure, "cannot follow the document's changes");
}

std::unique_ptr<Document> Document::open(const std::string& path, Host* host,
                                         const std::u16string& password) {
    PDDoc doc = nullptr;
    const PDResult rc = PDDocOpenWithPassword(path.c_str(), password.data(),
                                              static_cast<uint32_t>(password.size()), &doc);
    if (rc == PD_ERR_PASSWORD)
        throw HostError(codes::kPasswordNeeded, detail::pdfcoreFailure("cannot open " + path, rc));
    checked(rc, doc, "cannot open " + path);
    return std::unique_ptr<Document>(new Document(doc, host));
}

std::unique_ptr<Document> Document::fromPDDoc(PDDoc doc, Host* host) {
    if (!doc) throw HostError(codes::kBadArgument, "no pdfcore document");
    checked(PDHandleAcquire(doc), doc, "not a pdfcore handle");
    return std::unique_ptr<Document>(new Document(doc, host));
}

std::unique_ptr<Document> Document::create(uint32_t pages, float width, float height,
                                           Host* host) {
    PDDoc doc = nullptr;
    checked(PDDocCreate(pages, width, height, &doc), doc, "cannot create a document");
    return std::unique_ptr<Document>(new Document(doc, host));
}

Document::~Document() { close(); }

detail::DocumentState& Document::state() const { return docState(object_.get()); }

ServiceObject* Document::object() const { return object_.get(); }
PDDoc Document::pdDoc() const { return state().doc; }
uint32_t Document::pageCount() const { return state().pageCount; }
bool Document::isOpen() const { return state().owner != nullptr; }
int32_t Document::lastPdfResult() const { return state().lastPdfResult; }

ServiceObject* Document::page(uint32_t index) {
    if (!isOpen()) return nullptr;
    return pageOf(state(), index);
}

bool Document::pageChanged(uint32_t index) const {
    const DocumentState& s = state();
    if (index >= s.pages.size() || !s.pages[index]) return false;
    return pageState(s.pages[index].get()).changed;
}

bool Document::pageLocked(uint32_t index) const {
    const DocumentState& s = state();
    if (index >= s.pages.size() || !s.pages[index]) return false;
    return pageState(s.pages[index].get()).locked;
}

bool Document::modified() const {
    for (const ObjectPtr& p : state().pages) {
        if (p && pageState(p.get()).changed) return true;
    }
    return false;
}

bool Document::encrypted() const {
    PDBool yes = 0;
    return isOpen() && PDDocIsEncrypted(state().doc, &yes) == PD_OK && yes;
}

bool Document::formEditable() const {
    if (!isOpen()) return false;
    PDDoc doc = state().doc;
    PDBool owner = 0;
    uint32_t granted = 0;
    if (PDDocOpenedWithOwnerPassword(doc, &owner) != PD_OK ||
        PDDocGetPermissions(doc, &granted) != PD_OK)
        return false;
    return owner || (granted & PD_PERM_EDIT_FORM) == PD_PERM_EDIT_FORM;
}

void Document::save(const std::string& path) {
    DocumentState& s = state();
    if (!s.owner) throw HostError(codes::kDocumentClosed, "the document is closed");
    PDResult rc = PDDocSave(s.doc, path.c_str());
    if (rc != PD_OK) {
        s.lastPdfResult = rc;
        throw HostError(codes::kPdfFailure, "cannot save " + path);
    }
    markSaved();
}

void Document::markSaved() {
    for (ObjectPtr& p : state().pages) {
        if (p) pageState(p.get()).changed = false;
    }
}

void Document::close() {
    DocumentState& s = state();
    if (!s.owner) return;
    s.owner = nullptr;
    for (ObjectPtr& p : s.pages) {
        if (!p) continue;
        PageState& page = pageState(p.get());
        PDHandleRelease(std::exchange(page.page, nullptr));
        page.locked = false;
    }
    s.pages.clear();
    for (auto& [id, connection] : s.connections) connection.disconnect();
    s.connections.clear();
    PDDocRemoveAnnotChangedListener(s.doc, s.pdfcoreListener);
    PDHandleRelease(std::exchange(s.doc, nullptr));
}

uint32_t Document::notifyAnnotChanged(uint32_t kind, uint64_t pageIndex, PDAnnot annot) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (pageIndex >= s.pageCount) return codes::kBadArgument;
    // pdfcore calls its listeners, this document's among them (OnAnnotChanged).
    PDResult rc = PDDocNotifyAnnotChanged(s.doc, static_cast<int32_t>(kind),
                                          static_cast<uint32_t>(pageIndex), annot);
    if (rc != PD_OK) s.lastPdfResult = rc;
    return rc == PD_OK ? codes::kOk : codes::kPdfFailure;
}

uint32_t Document::notifyAnnotsChanged(uint32_t kind, uint64_t pageIndex, const PDAnnot* annots,
                                       uint64_t count) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (pageIndex >= s.pageCount || (!annots && count != 0)) return codes::kBadArgument;
    std::vector<PDAnnot> list(annots, annots + count);
    OnAnnotsChanged(kind, pageIndex, list);
    return codes::kOk;
}

uint32_t Document::invalidateRect(uint64_t pageIndex, const float* rect, uint32_t flag) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (!rect || pageIndex >= s.pageCount) return codes::kBadArgument;
    Invalidation entry{pageIndex, PDRect{rect[0], rect[1], rect[2], rect[3]}, flag};
    s.invalidations.push_back(entry);
    OnInvalidateRect(entry);
    return codes::kOk;
}

const std::vector<Document::Invalidation>& Document::invalidations() const {
    return state().invalidations;
}
void Document::clearInvalidations() { state().invalidations.clear(); }

uint32_t Document::performAnnotOperation(uint32_t operationAtom,
                                         const QF::AnnotOperationRecord* record) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (!record) return codes::kBadArgument;
    const std::optional<Operation> operation = operationOf(operationAtom);
    if (!operation) return codes::kUnknownOperation;
    if ((record->document && record->document != object_.get()) ||
        record->pageIndex >= s.pageCount) {
        return codes::kBadArgument;
    }
    ServiceObject* pageObject = pageOf(s, record->pageIndex);
    if (!pageObject) return codes::kPdfFailure;
    PageState& page = pageState(pageObject);
    if (page.locked) return codes::kPageBusy;

    ObjectPtr command = ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandTable, AnnotCommand, HostTraits>(
            QF::kCommandId, "Command", detail::kAnnotCommandImplId, kCommandTable, object_,
            operationAtom, *operation, record->pageIndex));
    if (uint32_t rc = commandOf(command.get()).prepare(s, page, *record); rc != codes::kOk) {
        return rc;
    }
    if (s.host) return s.host->commands().run(command.get());
    return kCommandTable.DO(command.get());  // no host: applied without undo
}

uint32_t Document::executeCommand(const QF::CommandArgs* args) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (!args) return codes::kBadArgument;
    if (!s.host) return codes::kNotSupported;
    return s.host->commands().execute(args);
}

}  // namespace qfhost
