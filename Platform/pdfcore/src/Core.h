// Internal model shared by the pdfcore sources: documents, the handle registry, the
// entry-point wrapper that turns exceptions into results, and helpers over qpdf.
#pragma once

#include "FileSystem.h"
#include "pdfcore/pdfcore.h"

// qpdf 11: use std::shared_ptr throughout, without the transitional PointerHolder.
#ifndef POINTERHOLDER_TRANSITION
#define POINTERHOLDER_TRANSITION 4
#endif

#include <qpdf/QPDF.hh>
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFObjectHandle.hh>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace pdfcore {

// Thrown inside pdfcore to leave an entry point with a result code.
struct Failure {
    PDResult result;
};
[[noreturn]] inline void fail(PDResult r) { throw Failure{r}; }

// The role in which a PDF object is handed out. A merged field/widget dictionary has one
// handle per role. The roles from Object on may stand for direct objects.
enum class Kind : uint8_t {
    Document,
    Page,
    Annot,
    Field,
    OCConfig,
    Object,
    Action,
    Dest,
    FileSpec,
    FieldsData
};

struct Document;

// The system's faces a document's text is drawn with (Fonts.cpp).
struct FontStore;
struct FontStoreDeleter {
    void operator()(FontStore* store) const;
};

// What changed in a widget since its appearance was drawn, from the least to the most that
// the drawing has to redo; a widget changed twice before it is drawn keeps the larger.
// A drawing of pdfcore's own is drawn again whole for any of them; what stays of an
// author's drawing is said at regenerateAppearance.
enum class Redraw : uint8_t {
    kSize,   // the size of its rectangle (a move alone draws nothing)
    kValue,  // the value it shows: the field's value, selection or options, its on-state name
    kText,   // how its text is drawn: font, size, colour, alignment, text flags, maximum length
    kAll     // its frame (border, background, rotation), captions or icons; a new widget
};

}  // namespace pdfcore

// The object behind every PDHandle.
struct PDHandleRec {
    static constexpr uint32_t kMagic = 0x50444831;  // "PDH1"
    uint32_t magic = kMagic;
    pdfcore::Kind kind;
    std::atomic<int32_t> refs{1};
    pdfcore::Document* doc;  // the owning document; for Kind::Document, itself
    QPDFObjectHandle obj;    // indirect for pages, annotations, fields and OC configurations
};

namespace pdfcore {

struct ObjGenHash {
    size_t operator()(QPDFObjGen og) const noexcept {
        return std::hash<uint64_t>()((uint64_t(uint32_t(og.getObj())) << 32) |
                                     uint32_t(og.getGen()));
    }
};

// A page's /Annots as pdfcore reads and edits it. The annotations sit in slots with
// free slots between them, and a Fenwick tree counts the taken slots, so that finding an
// annotation's position, taking it out and putting one in at a position cost a logarithm
// of the list's length instead of a walk or a shift of it: reordering a page of thousands
// of annotations one remove and one insert at a time stays fast. The page's own array is
// rewritten from it (flush) before anything else reads that array.
class AnnotList {
public:
    explicit AnnotList(std::vector<QPDFObjectHandle> items);

    size_t size() const { return live_; }
    // The annotation at position index (< size()).
    QPDFObjectHandle at(size_t index) const;
    // The position of the annotation, or -1.
    int64_t indexOf(QPDFObjGen og) const;
    // Calls visit with every annotation in order: a walk of the slots, without a search of
    // the tree for each position.
    template <typename Visit>
    void forEach(Visit&& visit) const {
        for (const auto& annot : slots_)
            if (annot.isInitialized()) visit(annot);
    }
    // Calls visit with the annotations from position first on, in order, for as long as it
    // answers true.
    template <typename Visit>
    void forEachFrom(size_t first, Visit&& visit) const {
        if (first >= live_) return;
        for (size_t slot = slotOf(first); slot < slots_.size(); ++slot)
            if (slots_[slot].isInitialized() && !visit(slots_[slot])) return;
    }
    // Puts annot in at position index (<= size()); it must not be listed yet.
    void insert(size_t index, QPDFObjectHandle annot);
    // Takes the annotation out; false when it is not listed.
    bool remove(QPDFObjGen og);
    // Writes the list to the page's /Annots when it changed since the last write.
    void flush(QPDFObjectHandle page);
    bool dirty() const { return dirty_; }

private:
    void lay(std::vector<QPDFObjectHandle> items);  // one free slot after each annotation
    void add(size_t slot, int delta);
    size_t before(size_t slot) const;               // taken slots before slot
    size_t slotOf(size_t index) const;              // the slot of position index
    void take(size_t slot, QPDFObjectHandle annot);

    std::vector<QPDFObjectHandle> slots_;  // null in a free slot
    std::vector<int32_t> tree_;            // Fenwick tree over the slots, 1-based
    std::unordered_map<QPDFObjGen, size_t, ObjGenHash> slotByObject_;
    size_t live_ = 0;
    bool dirty_ = false;
};

struct Listener {
    uint32_t cookie;
    PDAnnotChangedProc proc;
    void* clientData;
};

// The file a document was read from, as the saves that append to it in place leave it.
// Shared by the document and its staged saves, which may commit after it closed and on
// another thread: lock guards the rest.
struct FileOnDisk {
    std::mutex lock;
    FileIdentity identity;    // what the next append in place expects to find
    std::string appended;     // what those saves appended after the bytes read
    int64_t lastSection = -1; // where the last of their cross-reference sections starts
};

// The offsets in a document's file at which qpdf began to read, through the input it
// reads the file by: among them the offset of every object it has read (qpdf reads an
// object, or the object stream holding it, from the offset its cross-reference entry
// gives), with others where it read something else. An object whose offset is not among
// them was never read, so it is still as the file has it. Used by one thread at a time.
//
// qpdf moves back and forth within what it reads (millions of times in a file of 50,000
// objects), so each offset is one bit, in pages of bits made as the reads reach them: at
// most an eighth of the file's size, and little where reads are few (a large attachment
// that nothing opens).
class ReadStarts {
  public:
    explicit ReadStarts(size_t fileSize) : pages_((fileSize >> kPageShift) + 1) {}
    void add(qpdf_offset_t at) {
        if (at < 0 || static_cast<uint64_t>(at >> kPageShift) >= pages_.size()) return;
        auto& page = pages_[size_t(at >> kPageShift)];
        if (!page) page = std::make_unique<Page>();
        (*page)[size_t(at & kPageMask) >> 6] |= uint64_t(1) << (at & 63);
    }
    // Offsets outside the file answer true: what is said to be there is compared.
    bool contains(qpdf_offset_t at) const {
        if (at < 0 || static_cast<uint64_t>(at >> kPageShift) >= pages_.size()) return true;
        const auto& page = pages_[size_t(at >> kPageShift)];
        return page && ((*page)[size_t(at & kPageMask) >> 6] >> (at & 63) & 1);
    }

  private:
    static constexpr int kPageShift = 15;  // a page of bits stands for 32 KiB of the file
    static constexpr qpdf_offset_t kPageMask = (qpdf_offset_t(1) << kPageShift) - 1;
    using Page = std::array<uint64_t, (size_t(1) << kPageShift) / 64>;
    std::vector<std::unique_ptr<Page>> pages_;
};

// Names, reals, strings and integers made once for a document and held by all its
// dictionaries and arrays that hold them (sharedName), by value.
struct SharedValues {
    std::unordered_map<std::string, QPDFObjectHandle> names, reals, strings;
    std::unordered_map<long long, QPDFObjectHandle> integers;
};

// One open document. Lives as long as its own handle or any handle of one of its
// objects holds a reference: every object handle adds one reference to the document
// handle and drops it when freed.
struct Document {
    PDHandleRec self;  // the PDDoc handle
    std::unique_ptr<QPDF> qpdf;
    std::string fileBytes;  // the opened file, read whole, so the source may be overwritten
    std::shared_ptr<FileOnDisk> onDisk;  // of a document read from a regular file
    std::shared_ptr<ReadStarts> reads;   // where qpdf read in fileBytes
    // Whether a field or widget may hold a dictionary as its /V, as a signature does. Known
    // false only for a new document, and for a file whose open walk read every field and
    // widget and found none; set again when a call puts one under /V. Never cleared:
    // anySignedField then walks the form.
    bool signaturesPossible = true;
    // Whether a name of the file may hold a '#', which qpdf reads only from "#23": false
    // for a new document and for a file whose bytes hold no "#23". The object streams of
    // such a file (by number) are looked into when it is first written whole.
    bool fileNamesMayHoldHash = true;
    std::vector<int> objectStreamsToLook;

    // Handle registry: (object, role) -> live handle. Guarded by registryMutex, as
    // handles may be released from any thread.
    std::mutex registryMutex;
    std::map<std::pair<QPDFObjGen, Kind>, PDHandleRec*> handles;
    // Live handles of direct objects (anyHandle), which may lead to indirect ones.
    std::set<const PDHandleRec*> directHandles;

    // Objects numbered from here on were made in this session (collectGarbage): the number
    // of the first object makeIndirect or makeStream made, as new objects are numbered
    // past the file's. How much garbage may have come since the last collection (see
    // collectWhenDue), and how many objects that collection found in use.
    int firstSessionObject = std::numeric_limits<int>::max();
    // The number the next object makeIndirect makes takes (0 until first asked; -1 when
    // the numbers ran out). Given out here because qpdf's own numbering
    // (makeIndirectObject, newStream) first reads every object of the file, and every
    // object read is one more for an incremental save to compare (SaveIncremental.cpp).
    int nextNumber = 0;
    // How many streams makeStream numbered itself.
    int streamsNumbered = 0;
    size_t garbageOutlook = 0;
    size_t liveAtCollect = 0;
    // What collections freed, for the next objects made here: object numbers (null now;
    // qpdf keeps every number it gave out) and streams, emptied.
    std::vector<int> spareNumbers;
    std::vector<QPDFObjectHandle> spareStreams;

    // Fully qualified field name -> field object. Built on first use by a walk of the
    // form, then kept up to date by every call that creates or renames fields.
    bool nameIndexBuilt = false;
    std::unordered_map<std::u16string, QPDFObjGen> nameIndex;
    // Terminal fields in tree order; rebuilt when formChanged is set. The first
    // listedTerminals of them lie under the roots in /AcroForm /Fields, the rest under
    // fields that only the pages' widgets lead to: a new root field appended to /Fields
    // goes in between, without a new walk of the form.
    std::vector<QPDFObjectHandle> terminalFields;
    size_t listedTerminals = 0;
    bool formChanged = true;
    uint32_t freshNameCounter = 0;
    // Every field createField made, in order (PDDocGetFieldMade); (0, 0) for one that a
    // collection freed.
    std::vector<QPDFObjGen> fieldsMade;
    // Fields whose last widget PDFieldRemoveWidget took out in this session (the new
    // object of a split merged field). Those still without widgets are not written
    // (UnusedFieldsDetached); entries stay when widgets come back.
    std::set<QPDFObjGen> emptiedFields;
    // Where a rename took a field out of its parent (the parent, or no object for the
    // form's /Fields, and the sibling that followed it): renamed back, it returns there.
    struct FieldPlace {
        QPDFObjGen owner;
        QPDFObjGen next;
    };
    std::map<QPDFObjGen, FieldPlace> formerFieldPlaces;

    std::vector<Listener> listeners;
    // Pages whose /Annots holds only indirect dictionaries, with its length when that was
    // last checked or kept so: a list of that length needs no new pass.
    std::map<QPDFObjGen, int> cleanAnnots;
    // What was read of annotations, by annotation object, so that a walk over a page of
    // thousands of annotations does not look each key up in each dictionary again.
    // pdfcore is the only writer once the document is open: PDAnnotSetRect forgets the
    // rectangle, PDPageAddAnnot records the page it points /P at, and nothing changes a
    // /Subtype.
    struct AnnotFacts {
        PDRect rect{};
        bool hasRect = false;
        PDAtom subtype = 0;   // 0: not read yet
        QPDFObjGen page;      // the page /P is known to name; (0, 0): not known
    };
    std::unordered_map<QPDFObjGen, AnnotFacts, ObjGenHash> annotFacts;
    // The pages' annotation lists as pdfcore edits them (AnnotList), by page object.
    std::map<QPDFObjGen, AnnotList> annotLists;
    // Widgets whose appearance is out of date, with what changed since it was drawn, drawn
    // when something reads or writes their /AP or /AS, or when the document is written: a
    // widget styled by several calls in a row is drawn once, not once per call.
    std::map<QPDFObjGen, Redraw> staleAppearances;
    // What the drawing of each widget taken out of its field read from the field
    // (drawingInputs), for the field it joins next: the same, and it is not drawn again.
    std::unordered_map<QPDFObjGen, std::string, ObjGenHash> detachedInputs;
    // The appearance streams of each widget's last drawing here, written again by its next
    // drawing. Only pdfcore's own drawings are listed: streams of the file are never reused.
    std::unordered_map<QPDFObjGen, std::vector<QPDFObjectHandle>, ObjGenHash> drawnStreams;
    // Streams of drawings that many widgets show alike, by a hash of their entries and data.
    // None is in drawnStreams: a shared stream is never written over.
    std::unordered_multimap<size_t, QPDFObjectHandle> sharedDrawings;
    // The saved states of fields that are alive (States.cpp): what they hold is kept by
    // collections, so that a restore finds it.
    std::set<PDFieldStateRec*> savedStates;
    uint32_t nextCookie = 1;
    // The names and numbers this document's objects hold alike, each one object (sharedName).
    SharedValues sharedValues;
    // The faces of the system's fonts that drew text here, embedded when it is written.
    std::unique_ptr<FontStore, FontStoreDeleter> fonts;
};

// ---- entry points ----------------------------------------------------------------

// Runs body, mapping Failure to its result, std::bad_alloc to PD_ERR_OUT_OF_MEMORY, qpdf's
// errors about the file's content to PD_ERR_DAMAGED and any other exception to
// PD_ERR_INTERNAL.
template <typename F>
PDResult guard(F&& body) noexcept;

// Handle checks: NULL -> PD_ERR_MISSING_OBJECT, bad magic or other kind ->
// PD_ERR_WRONG_HANDLE.
PDHandleRec& checked(PDHandle h, Kind kind);
Document& checkedDoc(PDHandle h);
// An annotation handle whose object is a widget (else PD_ERR_NOT_WIDGET).
PDHandleRec& checkedWidget(PDHandle h);
// Fails with PD_ERR_OTHER_DOCUMENT unless both belong to the same document.
void sameDoc(const PDHandleRec& a, const PDHandleRec& b);
template <typename T>
void checkOut(T* out) {
    if (!out) fail(PD_ERR_BAD_ARGUMENT);
}

// The handle of obj in role kind: the live one with one more reference, or a new one.
// obj must be indirect.
PDHandle handleFor(Document& doc, QPDFObjectHandle obj, Kind kind);
// A handle of a generic object, action, destination, file specification or fields list:
// registered (as handleFor) when obj is indirect, a new unregistered handle otherwise.
PDHandle anyHandle(Document& doc, QPDFObjectHandle obj, Kind kind);
// Makes rec (a handle of a direct object, as anyHandle hands them out) stand for a new
// indirect object holding the same entries, registered as handleFor registers handles.
// Other handles of the direct object keep standing for it. Nothing for an indirect one.
void makeHandleIndirect(Document& doc, PDHandleRec& rec);
// Points the live handle of (from, kind), if any, at object to instead (used when a
// merged field is split and the field moves to a new object).
void rekeyHandle(Document& doc, QPDFObjGen from, QPDFObjectHandle to, Kind kind);

// ---- texts -----------------------------------------------------------------------

std::u16string toU16(const std::string& utf8);
std::string toUtf8(const std::u16string& s);
std::u16string textArg(const char16_t* s, uint32_t len);  // NULL with len > 0: bad arg
// The two-call getter: copies value into buf per the header's rules.
PDResult putText(const std::u16string& value, char16_t* buf, uint32_t bufLen,
                 uint32_t* outLen);
// A PDF text string (PDFDocEncoding or UTF-16BE) as UTF-16; a name object gives its
// name without the slash, a stream the text its data holds.
std::u16string textOf(QPDFObjectHandle obj);
// A PDF text string for s: PDFDocEncoding when it fits, else UTF-16BE.
QPDFObjectHandle textString(const std::u16string& s);

// Hands a warning to the process's warning handler (PDSetWarningHandler), if any.
void warn(const std::u16string& text);

// ---- values many objects hold alike --------------------------------------------------

// A name (with its slash), a real as it is written ("0.5", "12"), an integer or a string,
// made once for doc and then held by every dictionary and array of it given it. qpdf writes
// a direct object wherever it is held, as if each holder had its own, and never changes
// one in place; a form of thousands of fields holds the same few hundred names and numbers
// tens of thousands of times, each an object of 100 to 200 bytes of its own. Only as
// values of doc's dictionaries and arrays: never made indirect, nor given to
// QPDF::replaceObject, either of which would make the one object indirect wherever it is
// held, nor put into another document (qpdf's destructor writes into the direct objects
// its document holds, which another thread may be reading). Past kSharedValues values of
// a kind, values are made anew.
constexpr size_t kSharedValues = 4096;
QPDFObjectHandle sharedName(Document& doc, const std::string& name);
QPDFObjectHandle sharedReal(Document& doc, const std::string& written);
QPDFObjectHandle sharedInteger(Document& doc, long long value);
QPDFObjectHandle sharedString(Document& doc, const std::string& bytes);
// Puts doc's shared values in place of the names and numbers that dict (of a file qpdf
// read, where each is an object of its own) holds directly, or in the dictionaries and
// arrays it holds directly, down to kSharedDepth levels; never reads what it refers to. A
// value no shared one stands for (past kSharedValues) stays as it is.
constexpr int kSharedDepth = 4;
void shareValues(Document& doc, QPDFObjectHandle dict);

// ---- names (Names.cpp) -------------------------------------------------------------

// The state name (with its slash) that text stands for as a value of the button field: the
// name of a state of its widgets whose text it is, so that a state written in another
// encoding than UTF-8 keeps its bytes; else text in UTF-8.
std::string buttonStateName(QPDFObjectHandle field, const std::u16string& text);
// Whether a button value (a name, or a text string as older files have it) is state.
bool isStateOf(QPDFObjectHandle value, const std::string& state);

// Notes a name made of text from outside the document's names (a caller's text or atom, a
// string of the file): one that holds a '#' makes every later write in this process look
// for such names (NamesEscapedForWriting). Any thread.
void noteName(std::string_view name);
// Whether a name of doc may hold a '#': one of its file's, or one noted.
bool namesMayHoldHash(const Document& doc);

// While it lives, every name that holds a '#' in what the trailer leads to (what the writer
// writes) is written "#23" in its place, when qpdf's writer would write the '#' as it is
// (which reads back as the start of an escape); the destructor puts the names back. Made
// around writing the file, after everything else that changes objects. It walks every
// object once per write, unless no name may hold a '#' (namesMayHoldHash); the second form
// only the objects given (those an update writes), without following their references.
class NamesEscapedForWriting {
public:
    explicit NamesEscapedForWriting(Document& doc);
    NamesEscapedForWriting(Document& doc, const std::vector<QPDFObjectHandle>& objects);
    ~NamesEscapedForWriting();
    NamesEscapedForWriting(const NamesEscapedForWriting&) = delete;
    NamesEscapedForWriting& operator=(const NamesEscapedForWriting&) = delete;

private:
    struct Change {
        enum Kind { Object, Key, Value, Item } kind;
        QPDFObjectHandle container;  // the dictionary, the array, or the indirect name
        std::string key;             // Key: the name as it was; Value: the key holding it
        std::string written;         // Key: the name as it is written
        int index;                   // Item: the position in the array
        QPDFObjectHandle original;   // Object, Value, Item: the name as it was
    };
    // Escapes an indirect name, or the names of an object (escapeIn).
    void escapeObject(QPDFObjectHandle obj, std::vector<bool>& seen,
                      std::vector<QPDFObjectHandle>& pending);
    // Escapes the names of a dictionary or array and the direct objects in it, and puts
    // the indirect objects it leads to and that are not seen yet on pending.
    void escapeIn(QPDFObjectHandle container, int depth, std::vector<bool>& seen,
                  std::vector<QPDFObjectHandle>& pending);
    Document& doc_;
    std::vector<Change> changes_;
};

// ---- atoms -----------------------------------------------------------------------

PDAtom atomOf(const std::string& nameWithoutSlash);
std::string atomName(PDAtom atom);  // "" for an unknown atom

// ---- object helpers --------------------------------------------------------------

bool isWidget(QPDFObjectHandle annot);
// A dictionary entry looked up through /Parent links (loop-safe, up to PD_MAX_TREE_DEPTH
// levels above dict).
QPDFObjectHandle inherited(QPDFObjectHandle dict, const std::string& key);
// Whether the direct parts of value (not crossing indirect references) include target.
// Putting such a value into target would make a direct object contain itself, which no
// writer could finish. Nesting past kMaxDirectNesting levels is treated as such a loop:
// direct objects read from files nest no deeper than qpdf's parser lets them (500), and
// qpdf's writer calls itself once per level of them.
inline constexpr int kMaxDirectNesting = 100;
bool holdsDirect(QPDFObjectHandle value, QPDFObjectHandle target, int depth = 0);
// /AcroForm of the catalog, made (with /Fields, /DR and /DA) when create is true.
// Returns a null handle when absent and not created, or when it is not a dictionary.
QPDFObjectHandle acroForm(Document& doc, bool create);
QPDFObjectHandle pageOf(Document& doc, uint32_t index);  // fails PD_ERR_RANGE

// ---- field tree (Fields.cpp) ------------------------------------------------------

// The root fields of the form: /AcroForm /Fields, then the roots of page widgets that
// /Fields misses (files with widgets but without /AcroForm, or with fields left out).
// The roots of the field tree: the fields in /AcroForm /Fields (their number in *listed
// when given), then the fields reached only from the pages' widgets.
std::vector<QPDFObjectHandle> formRoots(Document& doc, size_t* listed = nullptr);
// Fails with PD_ERR_TOO_DEEP when the field tree nests deeper than PD_MAX_TREE_DEPTH levels,
// down /Kids from the roots of /Fields or up /Parent from the widgets of the pages; reads
// only. When a document opens, so that such a form is refused at once. Clears
// doc.signaturesPossible when the walks met every field and widget and none holds a
// dictionary as /V.
void checkFormDepth(Document& doc);
// Whether a signature field of the form holds a signature (/V).
bool anySignedField(Document& doc);
// The field of a widget: the merged widget itself, its /Parent, or null.
QPDFObjectHandle fieldOfWidget(QPDFObjectHandle widget);
// Widgets of a terminal field (kids that are widgets, or itself when merged).
std::vector<QPDFObjectHandle> widgetsOf(QPDFObjectHandle field);
// Fully qualified name of a field.
std::u16string fullNameOf(QPDFObjectHandle field);

// While it lives, the fields that lost their last widget through PDFieldRemoveWidget in
// this session and still hold none (Document::emptiedFields), and every parent that is
// left without kids by taking them out, are out of the form (and of the calculation
// order), so that a file written meanwhile does not carry them. The destructor puts them
// back where they were. Fields that never lost a widget here are never touched.
class UnusedFieldsDetached {
public:
    explicit UnusedFieldsDetached(Document& doc);
    ~UnusedFieldsDetached();
    UnusedFieldsDetached(const UnusedFieldsDetached&) = delete;
    UnusedFieldsDetached& operator=(const UnusedFieldsDetached&) = delete;

private:
    struct Detached {
        QPDFObjectHandle list;  // a /Kids, /Fields or /CO array that held some of them
        std::vector<QPDFObjectHandle> items;  // what it held before
    };
  public:
    // The fields for which dead answers true stay out: the destructor leaves them out.
    void forget(const std::function<bool(QPDFObjGen)>& dead);

  private:
    // Takes the fields out of list (every occurrence) in one pass; those that were there.
    std::set<QPDFObjGen> detach(QPDFObjectHandle list, const std::set<QPDFObjGen>& fields);
    std::vector<Detached> detached_;
};

// ---- collection (Collect.cpp) -------------------------------------------------------

// Frees the objects made in this session that neither the trailer nor a live handle (nor
// a widget's last drawing) leads to, taking the emptied fields among them out of the form
// for good, and forgets them in the caches. Returns how many were freed. On the
// document's thread, at the start of a call: pdfcore must hold no object of its own then.
size_t collectGarbage(Document& doc);
// collectGarbage once the outlook for garbage, in sixteenths of an object, reaches 1,024
// objects and half of what the last collection found in use. Garbage comes of what is
// taken off a page (a widget and its drawings: 4 objects), of fields left without widgets
// (1 object) and, seldom, of objects replaced (a sixteenth for each object made): so
// garbage stays a share of the document, and a session that only adds (a form drawn from
// scratch) or moves widgets between fields (renames) is seldom walked.
inline constexpr size_t kDetachedWeight = 4 * 16;
inline constexpr size_t kOutlookPerObject = 16;
inline constexpr size_t kCollectAfterObjects = 1024;
void collectWhenDue(Document& doc);
// Calls mark with what the document's saved field states hold (States.cpp).
void markSavedStates(Document& doc, const std::function<void(QPDFObjectHandle)>& mark);
// Makes direct an indirect object of the document, under a number a collection freed when
// there is one: every object pdfcore makes goes through here.
QPDFObjectHandle makeIndirect(Document& doc, QPDFObjectHandle direct);
// A new stream of data, or a spare one filled with it (its dictionary empty).
QPDFObjectHandle makeStream(Document& doc, const std::string& data);

// ---- pages (Pages.cpp) ------------------------------------------------------------

// Writes every page's edited annotation list to its /Annots; before the pages' arrays
// are read directly (walks of the form, writing the file).
void flushAnnotLists(Document& doc);

// ---- appearances (Appearance.cpp) -------------------------------------------------

// Marks one widget's /AP out of date after a change of kind what: it is written (from its
// field's type, flags, value and options and from the widget's /MK, /BS, /DA, /Q and /Rect;
// buttons: /N and /D with an on and an Off state for check boxes and radio buttons, and /AS
// kept consistent with the field value) by flushAppearance or flushAppearances. A direct
// widget is drawn at once.
// A widget whose appearance streams were not all drawn by pdfcore shows its author's
// drawing, which is kept wherever pdfcore could not draw it as well: after a new size,
// buttons and signatures keep it (viewers fit its box into the rectangle), and text and
// choice fields keep its frame under newly drawn text; after a new value, check boxes and
// radio buttons only change /AS; any other change draws the widget anew, except a state
// that the new drawing would leave empty where the author's showed something.
void regenerateAppearance(Document& doc, QPDFObjectHandle widget, Redraw what);
// What a drawing of widget reads through its field (its type, flags, value, options and
// text style, as written): two widgets whose inputs are equal draw alike.
std::string drawingInputs(QPDFObjectHandle widget);
// Regenerates every widget of a terminal field.
void regenerateField(Document& doc, QPDFObjectHandle field, Redraw what);
// Draws widget's appearance now when it is out of date: before /AP or /AS is read or set.
void flushAppearance(Document& doc, QPDFObjectHandle widget);
// Draws every out-of-date appearance: before the document is written.
void flushAppearances(Document& doc);
// Of a check box or radio button: sets /AS as its drawing does, to its on state when the
// field's value names that state and to /Off otherwise, and answers the on state (the one
// its /AP holds, /Yes when none; with the slash).
std::string showValueState(QPDFObjectHandle widget, QPDFObjectHandle field);
// Of a widget still to be drawn whose drawing will show its field's value by /AS (a check
// box or radio button): sets /AS now as that drawing will (showValueState) and answers it,
// with the slash. Of any other widget: changes nothing and answers "".
std::string pendingValueState(Document& doc, QPDFObjectHandle widget);

// ---- implementation of guard --------------------------------------------------------

template <typename F>
PDResult guard(F&& body) noexcept {
    try {
        body();
        return PD_OK;
    } catch (const Failure& f) {
        return f.result;
    } catch (const std::bad_alloc&) {
        return PD_ERR_OUT_OF_MEMORY;
    } catch (const QPDFExc&) {
        return PD_ERR_DAMAGED;
    } catch (...) {
        return PD_ERR_INTERNAL;
    }
}

}  // namespace pdfcore
