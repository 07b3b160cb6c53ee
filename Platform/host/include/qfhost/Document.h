// A host document: one pdfcore document behind a "QFDocument" service object and its
// pages behind "QFPage" service objects, as the module's commands and edit objects use
// them (qf/DocumentInterfaces.h). Single-threaded like the rest of the user interface.
//
// The service objects may outlive the Document (a command on the undo stack keeps its
// reference): after close() they answer IsValid with 0 and every other method with
// kDocumentClosed.
#pragma once

#include "qfhost/HostError.h"
#include "qfhost/HostObjects.h"

#include "qf/DocumentInterfaces.h"

#include <boost/signals2/signal.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qfhost {

class Host;

namespace codes {
inline constexpr uint32_t kPageBusy = 0x1000B;          // the page is locked already
inline constexpr uint32_t kUnknownOperation = 0x1000C;  // an annotation operation the host lacks
inline constexpr uint32_t kDocumentClosed = 0x1000D;    // the document was closed
inline constexpr uint32_t kPdfFailure = 0x1000E;        // pdfcore refused (see lastPdfResult)
inline constexpr uint32_t kPasswordNeeded = 0x1000F;    // encrypted: no password, or a wrong one
}  // namespace codes

namespace detail {
struct DocumentState;
}

class QFHOST_API Document {
public:
    static constexpr const char* kName = "QFDocument";
    static constexpr const char* kPageName = "QFPage";

    // A page's lock mode: the only one there is.
    static constexpr uint32_t kExclusiveLock = 1;

    // Opens path (UTF-8) with password (UTF-16, empty for none; PDDocOpenWithPassword);
    // throws HostError(kPasswordNeeded) when the file is encrypted and the password is
    // missing or wrong, HostError(kPdfFailure) when pdfcore cannot open it otherwise. host
    // (optional, must outlive the document) gives ExecuteCommand and undoable annotation
    // operations.
    static std::unique_ptr<Document> open(const std::string& path, Host* host = nullptr,
                                          const std::u16string& password = {});
    // Over a pdfcore document the caller has; the document takes a reference of its own.
    static std::unique_ptr<Document> fromPDDoc(PDDoc doc, Host* host = nullptr);
    // A new document of pages empty pages of width x height points.
    static std::unique_ptr<Document> create(uint32_t pages, float width, float height,
                                            Host* host = nullptr);

    ~Document();  // close()
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    // The "QFDocument" block (borrowed; the document keeps its reference).
    ServiceObject* object() const;
    // The pdfcore document (borrowed), null after close().
    PDDoc pdDoc() const;
    uint32_t pageCount() const;
    // The "QFPage" block of index (borrowed), made on first use and the same object for the
    // life of the document; null past the last page or after close().
    ServiceObject* page(uint32_t index);
    // The page's changed flag (false for a page not asked for yet).
    bool pageChanged(uint32_t index) const;
    bool pageLocked(uint32_t index) const;
    // Whether any page is marked changed.
    bool modified() const;
    // Whether the document is encrypted (and is saved so, with the same passwords).
    bool encrypted() const;
    // Whether its form may be changed here: it is not encrypted, it was opened with its
    // owner password, or its permissions allow making and changing form fields
    // (PD_PERM_EDIT_FORM). Hosts do not change a form that answers false; nothing in the
    // document stops them. False after close().
    bool formEditable() const;

    // Writes the document (PDDocSave: the target replaced whole or not at all, its
    // permissions kept, a read-only or odd target refused); throws HostError(kPdfFailure),
    // the pdfcore result kept as the last one, or (kDocumentClosed). Clears every page's
    // changed flag.
    void save(const std::string& path);
    // Clears every page's changed flag: the document as it is was written elsewhere (the
    // caller saved its bytes).
    void markSaved();
    // Marks the service objects invalid and drops the pdfcore handles. Idempotent.
    void close();
    bool isOpen() const;

    // The result of the last pdfcore call that failed (0 when none did).
    int32_t lastPdfResult() const;

    // The C++ side of the QFDocument methods (same results).
    uint32_t notifyAnnotChanged(uint32_t kind, uint64_t pageIndex, PDAnnot annot);
    uint32_t notifyAnnotsChanged(uint32_t kind, uint64_t pageIndex, const PDAnnot* annots,
                                 uint64_t count);
    uint32_t invalidateRect(uint64_t pageIndex, const float* rect, uint32_t flag);
    // The annotation operations, each an undoable command on the host's commands manager
    // (applied directly, without undo, for a document without a host). record->annot must
    // be on page record->pageIndex, except as noted; record->rect is min x, min y, max x,
    // max y. Every operation sets the page's changed flag (UNDO restores it), notifies
    // (kind 0 inserted, reordered or changed; 1 removed, or a reorder undone) and
    // invalidates the rectangles it touches.
    //   "Annot_SetRect"        the rectangle becomes record->rect
    //   "Annot_Delete"         off the page, and a widget out of its field; UNDO puts it
    //                          back at the same place in both. A Locked widget: kBadArgument
    //   "Annot_Insert"         appends record->annot, which no page may list yet
    //   "Annot_Lock", "Annot_Unlock"   sets / clears the Locked flag (kNegative: already so)
    //   "Annot_Delete_PageAll" deletes every annotation of the page (annot ignored), as
    //                          Annot_Delete does, Locked widgets excepted; one
    //                          notifyAnnotsChanged
    //   "Annot_RangeDelete"    the same for the annotations lying wholly inside record->rect
    //   "Annot_ReplyTo"        a new note (Text) at record->rect replying to record->annot
    //                          (a markup annotation, else kBadArgument), right after it
    //   "Annot_BringFront", "Annot_BringBack", "Annot_BringForward", "Annot_BringBackward"
    //                          to the end / start / one later / one earlier of /Annots
    // Results: kBadArgument (null record or annotation, another document's record, a page
    // past the pages, an annotation not on the page), kUnknownOperation, kPageBusy (the
    // page is locked), kNegative with no command when there is nothing to do (a deletion
    // that finds nothing, a reorder to where it is), kPdfFailure.
    uint32_t performAnnotOperation(uint32_t operationAtom, const QF::AnnotOperationRecord* record);
    uint32_t executeCommand(const QF::CommandArgs* args);

    // One InvalidateRect call: the rectangle in PDRect order (left, top, right, bottom).
    struct Invalidation {
        uint64_t pageIndex;
        PDRect rect;
        uint32_t flag;
    };
    const std::vector<Invalidation>& invalidations() const;
    void clearInvalidations();

    // Events, raised on the calling thread after the change was made. OnAnnotChanged also
    // follows what is notified to pdfcore directly (PDDocNotifyAnnotChanged).
    boost::signals2::signal<void(uint32_t kind, uint64_t pageIndex, PDAnnot annot)>
        OnAnnotChanged;
    boost::signals2::signal<void(uint32_t kind, uint64_t pageIndex,
                                 const std::vector<PDAnnot>& annots)>
        OnAnnotsChanged;
    boost::signals2::signal<void(const Invalidation&)> OnInvalidateRect;

private:
    Document(PDDoc adopted, Host* host);
    detail::DocumentState& state() const;

    ObjectPtr object_;
};

}  // namespace qfhost
