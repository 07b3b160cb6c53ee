// Opening, creating and saving documents; document-wide queries and notifications.
#include "Core.h"
#include "Fonts.h"
#include "Save.h"
#include "SaveIncremental.h"

#include <qpdf/BufferInputSource.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFWriter.hh>
#include <qpdf/QUtil.hh>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

namespace pdfcore {
namespace {

// The byte strings to try for a password typed as text, the likeliest first, without
// repeats: its UTF-8 form (what AES-256 files use, and what tools on UTF-8 systems wrote as
// bytes), then the same text in PDFDocEncoding, Windows-1252 and Mac Roman, which older
// handlers took their bytes from (qpdf's list of repairs).
std::vector<std::string> passwordCandidates(const std::u16string& password) {
    std::vector<std::string> out{toUtf8(password)};
    for (auto& bytes : QUtil::possible_repaired_encodings(out.front())) {
        if (std::find(out.begin(), out.end(), bytes) == out.end()) out.push_back(bytes);
    }
    return out;
}

// qpdf's walk of the page tree (getAllPages, and pushing inherited attributes down the
// tree) calls itself once per level, so a file nested deep enough runs it out of stack.
// This walks the tree as qpdf may, without recursion, and refuses one deeper than
// PD_MAX_TREE_DEPTH levels before qpdf's walk runs: from the catalog's /Pages and from
// the node its /Parent links lead up to (qpdf starts at one or the other, and a file it
// writes may start at the other), into every kid that has /Kids, each node once (qpdf
// reports a loop itself).
void checkPageTreeDepth(QPDF& qpdf) {
    QPDFObjectHandle pages = qpdf.getRoot().getKey("/Pages");
    QPDFObjectHandle top = pages;
    std::set<QPDFObjGen> climbed;
    while (top.isDictionary() && top.hasKey("/Parent")) {
        if (!climbed.insert(top.getObjGen()).second) break;
        top = top.getKey("/Parent");
    }
    for (QPDFObjectHandle root : {pages, top}) {
        if (!root.isDictionary() || !root.hasKey("/Kids")) continue;
        std::set<QPDFObjGen> seen;
        std::vector<std::pair<QPDFObjectHandle, int>> pending{{root, 1}};
        while (!pending.empty()) {
            auto [node, level] = std::move(pending.back());
            pending.pop_back();
            if (level > PD_MAX_TREE_DEPTH) fail(PD_ERR_TOO_DEEP);
            if (!seen.insert(node.getObjGen()).second) continue;
            QPDFObjectHandle kids = node.getKey("/Kids");
            if (!kids.isArray()) continue;
            for (auto& kid : kids.aitems()) {
                if (kid.isDictionary() && kid.hasKey("/Kids")) pending.emplace_back(kid, level + 1);
            }
        }
        if (top.isSameObjectAs(pages)) break;
    }
}

// The document's bytes, as qpdf reads them, noting where each read starts.
class RecordingInput : public BufferInputSource {
  public:
    RecordingInput(const char* description, std::string& bytes, std::shared_ptr<ReadStarts> reads)
        : BufferInputSource(description,
                            new Buffer(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size()),
                            true),  // (the Buffer object, not the bytes)
          reads_(std::move(reads)) {}
    void seek(qpdf_offset_t offset, int whence) override {
        if (whence == SEEK_SET) reads_->add(offset);
        BufferInputSource::seek(offset, whence);
    }

  private:
    std::shared_ptr<ReadStarts> reads_;
};

// identity: of the file the bytes were read from, or none (size -1).
PDResult openFrom(std::string bytes, const char* description, const FileIdentity& identity,
                  const char16_t* password, uint32_t passwordLen, PDDoc* outDoc) {
    if (outDoc) *outDoc = nullptr;
    return guard([&] {
        checkOut(outDoc);
        auto doc = std::make_unique<Document>();
        doc->self.kind = Kind::Document;
        doc->self.doc = doc.get();
        doc->fileBytes = std::move(bytes);
        if (identity.size >= 0) {
            doc->onDisk = std::make_shared<FileOnDisk>();
            doc->onDisk->identity = identity;
        }
        const auto candidates = passwordCandidates(textArg(password, passwordLen));
        for (size_t i = 0; i < candidates.size(); ++i) {
            doc->qpdf = std::make_unique<QPDF>();
            doc->qpdf->setSuppressWarnings(true);
            doc->reads = std::make_shared<ReadStarts>(doc->fileBytes.size());
            try {
                doc->qpdf->processInputSource(
                    std::make_shared<RecordingInput>(description, doc->fileBytes, doc->reads),
                    candidates[i].c_str());
                checkPageTreeDepth(*doc->qpdf);
                doc->qpdf->getAllPages();  // a page tree that cannot be read fails here
                // qpdf reads a '#' in a name only from "#23": in the bytes, or in object
                // streams, which are looked into later (NamesEscapedForWriting).
                doc->fileNamesMayHoldHash = doc->fileBytes.find("#23") != std::string::npos;
                if (!doc->fileNamesMayHoldHash) {
                    std::set<int> streams;
                    for (const auto& [og, entry] : doc->qpdf->getXRefTable())
                        if (entry.getType() == 2) streams.insert(entry.getObjStreamNumber());
                    doc->objectStreamsToLook.assign(streams.begin(), streams.end());
                }
                // Until a collection counts them, the file's objects stand for what is in
                // use: garbage is collected once it is a share of the document. (An object
                // takes 8 bytes of the file at least, whatever /Size claims.)
                QPDFObjectHandle size = doc->qpdf->getTrailer().getKey("/Size");
                if (size.isInteger() && size.getIntValue() > 0)
                    doc->liveAtCollect = std::min(static_cast<size_t>(size.getIntValue()),
                                                  doc->fileBytes.size() / 8);
                break;
            } catch (const QPDFExc& e) {
                if (e.getErrorCode() == qpdf_e_password && i + 1 < candidates.size()) continue;
                if (e.getErrorCode() == qpdf_e_password) fail(PD_ERR_PASSWORD);
                // Only the security handler answers this while a file opens: one that is not
                // the standard handler of passwords (certificates), or of a newer revision.
                if (e.getErrorCode() == qpdf_e_unsupported) fail(PD_ERR_UNSUPPORTED);
                fail(PD_ERR_DAMAGED);
            } catch (const std::bad_alloc&) {
                throw;
            } catch (const std::exception&) {
                fail(PD_ERR_DAMAGED);
            }
        }
        try {
            checkFormDepth(*doc);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            // A form that cannot be read is answered by the calls that read it.
        }
        *outDoc = &doc.release()->self;
    });
}

void writeTo(Document& doc, QPDFWriter& w, bool decrypted) {
    flushAnnotLists(doc);
    flushAppearances(doc);
    writeEmbeddedFaces(doc);
    const UnusedFieldsDetached unused(doc);
    const NamesEscapedForWriting names(doc);
    if (!decrypted && doc.qpdf->isEncrypted()) {
        // qpdf carries the encryption over as it was read (the handler's revision, method,
        // key length, permissions and the dictionary's /O, /U, /OE, /UE and /Perms, with
        // the file key and the first word of /ID they were made with), so the same user and
        // owner passwords open the file. The second word of /ID is then new each time, and
        // AES draws a new vector for each string and stream: such files differ byte for byte.
        w.setPreserveEncryption(true);
    } else {
        w.setPreserveEncryption(false);
        w.setDeterministicID(true);
    }
    w.write();
}

// What qpdf's writer writes, into a file being staged, in pieces of kPiece bytes: a file is
// never whole in memory. A failure of the file (a full disk, the size limit) stops the
// writer by a Failure from write; the writer may finish its pipelines while that unwinds,
// so after it the pipeline only keeps the failure (result()), and finish never throws.
class FilePipeline final : public Pipeline {
  public:
    explicit FilePipeline(NewFile& file) : Pipeline("pdfcore staged file", nullptr), file_(file) {
        piece_.reserve(kPiece);
    }
    void write(unsigned char const* data, size_t size) override {
        while (size > 0 && result_ == PD_OK) {
            const size_t n = std::min(size, kPiece - piece_.size());
            piece_.append(reinterpret_cast<const char*>(data), n);
            data += n;
            size -= n;
            if (piece_.size() == kPiece && !flush()) fail(result_);
        }
    }
    void finish() override { flush(); }
    PDResult result() const { return result_; }

  private:
    static constexpr size_t kPiece = size_t(1) << 18;
    bool flush() {
        if (result_ == PD_OK && !piece_.empty())
            result_ = writeFile(file_, piece_.data(), piece_.size());
        piece_.clear();
        return result_ == PD_OK;
    }
    NewFile& file_;
    std::string piece_;
    PDResult result_ = PD_OK;
};

// Whether target is the file the document was read from, as the document's last save left
// it; then what that file is now, and what saves appended to it in place.
bool appendsInPlace(Document& d, const SaveTarget& target, FileIdentity& now,
                    std::string& appended, int64_t& lastSection) {
    if (!d.onDisk || !target.exists || !target.writable || !identifyFile(target.path, now))
        return false;
    std::lock_guard<std::mutex> hold(d.onDisk->lock);
    if (!(now == d.onDisk->identity)) return false;
    appended = d.onDisk->appended;
    lastSection = d.onDisk->lastSection;
    return true;
}

// Stages the document for the checked target: when incremental and the document allows
// it, an update to append to the file it was read from in place, or the bytes read with
// the update after them in a new file; else the whole file in a new file.
void stageDocument(Document& d, const SaveTarget& target, bool incremental,
                   PDStagedFileRec& file) {
    std::optional<Update> update;
    if (incremental) {
        // After the bytes read (and what saves appended in place, when the target is that
        // file): an update after earlier ones that fails may still go after the bytes read.
        FileIdentity now;
        std::string appended;
        int64_t lastSection = -1;
        const bool inPlace = appendsInPlace(d, target, now, appended, lastSection);
        update = updateAfter(d, appended, lastSection);
        if (update && inPlace) {
            // The file's last 4 KiB, which its changes would be unlikely to leave as they
            // were.
            const size_t fromAppended = std::min<size_t>(4096, appended.size());
            const size_t fromRead = std::min(d.fileBytes.size(), 4096 - fromAppended);
            file.tail = d.fileBytes.substr(d.fileBytes.size() - fromRead) +
                        appended.substr(appended.size() - fromAppended);
            file.target = target;
            file.onDisk = d.onDisk;
            file.expected = now;
            file.update = std::move(update->bytes);
            file.section = update->section;
            return;
        }
        if (!update && !appended.empty()) update = updateAfter(d, {}, -1);
    }
    PDResult r = PD_OK;
    if (update) {
        r = stageWith(target, [&](NewFile& out) {
            const PDResult read = writeFile(out, d.fileBytes.data(), d.fileBytes.size());
            return read != PD_OK ? read
                                 : writeFile(out, update->bytes.data(), update->bytes.size());
        }, file);
    } else {
        r = stageWith(target, [&](NewFile& out) {
            FilePipeline pipe(out);
            try {
                QPDFWriter w(*d.qpdf);
                w.setOutputPipeline(&pipe);
                writeTo(d, w, false);
            } catch (const Failure&) {
                if (pipe.result() == PD_OK) throw;
            }
            pipe.finish();
            return pipe.result();
        }, file);
    }
    if (r != PD_OK) fail(r);
}

PDResult saveMem(PDDoc doc, bool decrypted, bool incremental, void** outData, size_t* outSize) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outData);
        checkOut(outSize);
        // The buffer of the caller's holds the pieces one after another.
        auto copy = [&](std::initializer_list<std::string_view> pieces) {
            size_t size = 0;
            for (const auto& piece : pieces) size += piece.size();
            auto* mem = static_cast<char*>(std::malloc(size ? size : 1));
            if (!mem) fail(PD_ERR_OUT_OF_MEMORY);
            size_t at = 0;
            for (const auto& piece : pieces) {
                std::memcpy(mem + at, piece.data(), piece.size());
                at += piece.size();
            }
            *outData = mem;
            *outSize = size;
        };
        if (incremental) {
            if (auto update = updateAfter(d, {}, -1)) return copy({d.fileBytes, update->bytes});
        }
        QPDFWriter w(*d.qpdf);
        w.setOutputMemory();
        writeTo(d, w, decrypted);
        auto buf = w.getBufferSharedPointer();
        copy({std::string_view(reinterpret_cast<const char*>(buf->getBuffer()), buf->getSize())});
    });
}

// qpdf sets up some process-wide state of its own the first time a document is closed.
// Doing that while pdfcore loads keeps it alive longer than any document a host may still
// close from its own static destructors.
const bool qpdfReady = [] {
    QPDF warmUp;
    warmUp.emptyPDF();
    return true;
}();

}  // namespace
}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDDocOpen(const char* path, PDDoc* outDoc) {
    return PDDocOpenWithPassword(path, nullptr, 0, outDoc);
}

PDResult PDDocOpenMem(const void* data, size_t size, PDDoc* outDoc) {
    return PDDocOpenMemWithPassword(data, size, nullptr, 0, outDoc);
}

PDResult PDDocOpenWithPassword(const char* path, const char16_t* password, uint32_t passwordLen,
                               PDDoc* outDoc) {
    if (outDoc) *outDoc = nullptr;
    if (!path || !outDoc || (!password && passwordLen)) return PD_ERR_BAD_ARGUMENT;
    std::string bytes;
    FileIdentity identity;
    if (PDResult r = readWholeFile(path, bytes, identity)) return r;
    return openFrom(std::move(bytes), path, identity, password, passwordLen, outDoc);
}

PDResult PDDocOpenMemWithPassword(const void* data, size_t size, const char16_t* password,
                                  uint32_t passwordLen, PDDoc* outDoc) {
    if (outDoc) *outDoc = nullptr;
    if (!data || !outDoc || (!password && passwordLen)) return PD_ERR_BAD_ARGUMENT;
    return openFrom(std::string(static_cast<const char*>(data), size), "memory",
                    FileIdentity{}, password, passwordLen, outDoc);
}

PDResult PDDocCreate(uint32_t pageCount, float width, float height, PDDoc* outDoc) {
    if (outDoc) *outDoc = nullptr;
    return guard([&] {
        checkOut(outDoc);
        if (pageCount < 1 || pageCount > 100000 || !(width > 0) || !(height > 0) ||
            width > 14400 || height > 14400) {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        auto doc = std::make_unique<Document>();
        doc->self.kind = Kind::Document;
        doc->self.doc = doc.get();
        doc->qpdf = std::make_unique<QPDF>();
        doc->qpdf->emptyPDF();
        doc->firstSessionObject = 1;
        doc->signaturesPossible = false;
        doc->fileNamesMayHoldHash = false;
        QPDFPageDocumentHelper pages(*doc->qpdf);
        auto box = QPDFObjectHandle::newArray(QPDFObjectHandle::Rectangle(0, 0, width, height));
        for (uint32_t i = 0; i < pageCount; ++i) {
            auto page = QPDFObjectHandle::newDictionary();
            page.replaceKey("/Type", QPDFObjectHandle::newName("/Page"));
            page.replaceKey("/MediaBox", box.shallowCopy());
            page.replaceKey("/Resources", QPDFObjectHandle::newDictionary());
            pages.addPage(makeIndirect(*doc, page), false);
        }
        *outDoc = &doc.release()->self;
    });
}

PDResult PDDocSave(PDDoc doc, const char* path) { return PDDocSaveEx(doc, path, 0); }

PDResult PDDocSaveEx(PDDoc doc, const char* path, uint32_t flags) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        // The target first: a folder or a read-only file is refused before the document is
        // written.
        SaveTarget target;
        if (PDResult r = checkTarget(path, flags, target)) fail(r);
        PDStagedFileRec file;
        stageDocument(d, target, flags & PD_SAVE_INCREMENTAL, file);
        if (PDResult r = commitFile(file)) fail(r);
    });
}

PDResult PDDocStage(PDDoc doc, const char* path, uint32_t flags, PDStagedFile* outFile) {
    if (outFile) *outFile = nullptr;
    if (!outFile || (flags & ~uint32_t(PD_SAVE_FORCE | PD_SAVE_INCREMENTAL)))
        return PD_ERR_BAD_ARGUMENT;
    return guard([&] {
        Document& d = checkedDoc(doc);
        SaveTarget target;
        if (PDResult r = checkTarget(path, flags, target)) fail(r);
        auto file = std::make_unique<PDStagedFileRec>();
        stageDocument(d, target, flags & PD_SAVE_INCREMENTAL, *file);
        *outFile = file.release();
    });
}

PDResult PDDocSaveMemEx(PDDoc doc, uint32_t flags, void** outData, size_t* outSize) {
    if (outData) *outData = nullptr;
    if (outSize) *outSize = 0;
    if (flags & ~uint32_t(PD_SAVE_INCREMENTAL)) return PD_ERR_BAD_ARGUMENT;
    return saveMem(doc, false, flags & PD_SAVE_INCREMENTAL, outData, outSize);
}

PDResult PDDocGetFileSize(PDDoc doc, uint64_t* outSize, uint64_t* outObjects) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        if (outSize) *outSize = d.fileBytes.size();
        if (outObjects) *outObjects = d.fileBytes.empty() ? 0 : d.qpdf->getXRefTable().size();
    });
}

PDResult PDDocCanSaveIncrementally(PDDoc doc, PDBool* outCan) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outCan);
        *outCan = canAppend(d) ? 1 : 0;
    });
}

PDResult PDDocSaveMem(PDDoc doc, void** outData, size_t* outSize) {
    return saveMem(doc, false, false, outData, outSize);
}

PDResult PDDocSaveMemDecrypted(PDDoc doc, void** outData, size_t* outSize) {
    return saveMem(doc, true, false, outData, outSize);
}

void PDFreeBuffer(void* data) { std::free(data); }

PDResult PDDocClose(PDDoc doc) {
    if (!doc) return PD_ERR_MISSING_OBJECT;
    if (doc->magic != PDHandleRec::kMagic || doc->kind != Kind::Document) {
        return PD_ERR_WRONG_HANDLE;
    }
    return PDHandleRelease(doc);
}

PDResult PDDocGetNumPages(PDDoc doc, uint32_t* outCount) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(d.qpdf->getAllPages().size());
    });
}

PDResult PDDocGetPage(PDDoc doc, uint32_t index, PDPage* outPage) {
    if (outPage) *outPage = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outPage);
        *outPage = handleFor(d, pageOf(d, index), Kind::Page);
    });
}

PDResult PDDocIsSigned(PDDoc doc, PDBool* outSigned) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outSigned);
        *outSigned = anySignedField(d) ? 1 : 0;
    });
}

PDResult PDDocIsEncrypted(PDDoc doc, PDBool* outEncrypted) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outEncrypted);
        *outEncrypted = d.qpdf->isEncrypted() ? 1 : 0;
    });
}

PDResult PDDocOpenedWithOwnerPassword(PDDoc doc, PDBool* outOwner) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outOwner);
        *outOwner = d.qpdf->isEncrypted() && d.qpdf->ownerPasswordMatched() ? 1 : 0;
    });
}

PDResult PDDocGetPermissions(PDDoc doc, uint32_t* outPermissions) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outPermissions);
        QPDF& q = *d.qpdf;
        const std::pair<uint32_t, bool> granted[] = {
            {PD_PERM_PRINT, q.allowPrintLowRes()},
            {PD_PERM_PRINT_HIGH, q.allowPrintHighRes()},
            {PD_PERM_COPY, q.allowExtractAll()},
            {PD_PERM_ACCESSIBILITY, q.allowAccessibility()},
            {PD_PERM_ASSEMBLE, q.allowModifyAssembly()},
            {PD_PERM_FILL_FORM, q.allowModifyForm()},
            {PD_PERM_ANNOTATE, q.allowModifyAnnotation()},
            {PD_PERM_MODIFY, q.allowModifyOther()},
        };
        uint32_t permissions = 0;
        for (const auto& [bit, allowed] : granted) {
            if (allowed) permissions |= bit;
        }
        *outPermissions = permissions;
    });
}

PDResult PDDocGetOCConfig(PDDoc doc, PDOCConfig* outConfig) {
    if (outConfig) *outConfig = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outConfig);
        // Asking a null for a key makes qpdf warn: look only into dictionaries.
        auto properties = d.qpdf->getRoot().getKey("/OCProperties");
        if (!properties.isDictionary()) return;
        auto config = properties.getKey("/D");
        if (!config.isDictionary()) return;
        if (!config.isIndirect()) {
            config = makeIndirect(d, config);
            properties.replaceKey("/D", config);
        }
        *outConfig = handleFor(d, config, Kind::OCConfig);
    });
}

PDResult PDDocNotifyAnnotChanged(PDDoc doc, int32_t kind, uint32_t pageIndex, PDAnnot annot) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        if (annot) sameDoc(d.self, checked(annot, Kind::Annot));
        for (const auto& l : d.listeners) l.proc(l.clientData, doc, kind, pageIndex, annot);
    });
}

PDResult PDDocAddAnnotChangedListener(PDDoc doc, PDAnnotChangedProc proc, void* clientData,
                                      uint32_t* outCookie) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        if (!proc) fail(PD_ERR_BAD_ARGUMENT);
        checkOut(outCookie);
        d.listeners.push_back({d.nextCookie, proc, clientData});
        *outCookie = d.nextCookie++;
    });
}

PDResult PDDocRemoveAnnotChangedListener(PDDoc doc, uint32_t cookie) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        for (auto it = d.listeners.begin(); it != d.listeners.end(); ++it) {
            if (it->cookie == cookie) {
                d.listeners.erase(it);
                return;
            }
        }
        fail(PD_ERR_NOT_FOUND);
    });
}

}  // extern "C"
