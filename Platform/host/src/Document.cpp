#include "qfhost/Document.h"

#include "qfhost/Host.h"

#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <atomic>
#include <map>
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

    DocumentState() = default;
    ~DocumentState() { PDHandleRelease(doc); }
    DocumentState(const DocumentState&) = delete;
    DocumentState& operator=(const DocumentState&) = delete;
};

}  // namespace detail

namespace {

using detail::DocumentState;
using detail::PageState;

uint32_t atomOf(const char* name) {
    uint32_t id = 0;
    if (KRGetAtomFromString(name, &id) != KR_OK) return 0;
    return id;
}

uint32_t setRectAtom() {
    static const uint32_t id = atomOf("Annot_SetRect");
    return id;
}
uint32_t deleteAtom() {
    static const uint32_t id = atomOf("Annot_Delete");
    return id;
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

// One annotation operation, undoable. Holds the document block and its own annotation
// reference.
struct AnnotCommand {
    ObjectPtr document;
    uint32_t operation;
    uint32_t uniqueId;
    uint64_t pageIndex;
    PDAnnot annot;
    PDRect newRect{};
    PDRect oldRect{};
    uint32_t position = 0;        // "Annot_Delete": where the annotation was
    bool changedBefore = false;   // the page's flag before DO

    AnnotCommand(ObjectPtr doc, uint32_t op, uint64_t page, PDAnnot a, const PDRect& r)
        : document(std::move(doc)), operation(op), uniqueId(nextUniqueId()), pageIndex(page),
          annot(a), newRect(r) {
        PDHandleAcquire(annot);
    }
    ~AnnotCommand() { PDHandleRelease(annot); }
    AnnotCommand(const AnnotCommand&) = delete;
    AnnotCommand& operator=(const AnnotCommand&) = delete;

    static uint32_t nextUniqueId() {
        static std::atomic<uint32_t> counter{0};
        return ++counter;
    }

    uint32_t apply(bool undo) {
        DocumentState& s = docState(document.get());
        if (!s.owner) return codes::kDocumentClosed;
        Document& doc = *s.owner;
        ServiceObject* pageObject = pageOf(s, pageIndex);
        if (!pageObject) return codes::kPdfFailure;
        PageState& page = pageState(pageObject);
        if (page.locked) return codes::kPageBusy;
        PDResult rc = PD_OK;
        if (operation == setRectAtom()) {
            if (!undo) {
                rc = PDAnnotGetRect(annot, &oldRect);
                if (rc == PD_OK) rc = PDAnnotSetRect(annot, &newRect);
            } else {
                rc = PDAnnotSetRect(annot, &oldRect);
            }
            if (rc != PD_OK) {
                s.lastPdfResult = rc;
                return codes::kPdfFailure;
            }
            doc.notifyAnnotChanged(0, pageIndex, annot);
            invalidate(doc, pageIndex, undo ? newRect : oldRect);
            invalidate(doc, pageIndex, undo ? oldRect : newRect);
        } else {
            if (!undo) {
                rc = PDPageGetAnnotIndex(page.page, annot, &position);
                if (rc == PD_OK) rc = PDAnnotGetRect(annot, &oldRect);
                if (rc == PD_OK) rc = PDPageRemoveAnnot(page.page, annot);
            } else {
                rc = PDPageAddAnnot(page.page, position, annot);
            }
            if (rc != PD_OK) {
                s.lastPdfResult = rc;
                return codes::kPdfFailure;
            }
            doc.notifyAnnotChanged(undo ? 0 : 1, pageIndex, annot);
            invalidate(doc, pageIndex, oldRect);
        }
        if (!undo) {
            changedBefore = page.changed;
            page.changed = true;
        } else {
            page.changed = changedBefore;
        }
        return codes::kOk;
    }
};

AnnotCommand& commandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, AnnotCommand>(so);
}

const QF::CommandTable kCommandTable = {
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).operation;
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
        *out = commandOf(self).operation;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).operation;
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
        throw HostError(codes::kPdfFailure,
                        what + ": pdfcore error " + std::to_string(rc));
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
}

std::unique_ptr<Document> Document::open(const std::string& path, Host* host) {
    PDDoc doc = nullptr;
    checked(PDDocOpen(path.c_str(), &doc), doc, "cannot open " + path);
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

void Document::save(const std::string& path) {
    DocumentState& s = state();
    if (!s.owner) throw HostError(codes::kDocumentClosed, "the document is closed");
    PDResult rc = PDDocSave(s.doc, path.c_str());
    if (rc != PD_OK) {
        s.lastPdfResult = rc;
        throw HostError(codes::kPdfFailure, "cannot save " + path);
    }
    for (ObjectPtr& p : s.pages) {
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
    PDHandleRelease(std::exchange(s.doc, nullptr));
}

uint32_t Document::notifyAnnotChanged(uint32_t kind, uint64_t pageIndex, PDAnnot annot) {
    DocumentState& s = state();
    if (!s.owner) return codes::kDocumentClosed;
    if (pageIndex >= s.pageCount) return codes::kBadArgument;
    PDResult rc = PDDocNotifyAnnotChanged(s.doc, static_cast<int32_t>(kind),
                                          static_cast<uint32_t>(pageIndex), annot);
    if (rc != PD_OK) s.lastPdfResult = rc;
    OnAnnotChanged(kind, pageIndex, annot);
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
    if (operationAtom == 0 || (operationAtom != setRectAtom() && operationAtom != deleteAtom())) {
        return codes::kUnknownOperation;
    }
    if ((record->document && record->document != object_.get()) || !record->annot ||
        record->pageIndex >= s.pageCount) {
        return codes::kBadArgument;
    }
    ServiceObject* pageObject = pageOf(s, record->pageIndex);
    if (!pageObject) return codes::kPdfFailure;
    PageState& page = pageState(pageObject);
    if (page.locked) return codes::kPageBusy;
    uint32_t position = 0;
    PDResult rc = PDPageGetAnnotIndex(page.page, record->annot, &position);
    if (rc == PD_ERR_NOT_FOUND) return codes::kBadArgument;  // not an annotation of the page
    if (rc != PD_OK) {
        s.lastPdfResult = rc;
        return codes::kPdfFailure;
    }

    PDRect rect{};
    if (operationAtom == setRectAtom()) rect = toPDRect(record->rect);
    ObjectPtr command = ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandTable, AnnotCommand, HostTraits>(
            QF::kCommandId, "Command", detail::kAnnotCommandImplId, kCommandTable, object_,
            operationAtom, record->pageIndex, record->annot, rect));
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
