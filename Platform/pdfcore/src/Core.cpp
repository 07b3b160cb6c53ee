// Handles, texts and small object helpers shared by all pdfcore sources.
#include "Core.h"

#include "AddressSpace.h"

#include <atomic>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace pdfcore {

// ---- handles ------------------------------------------------------------------------

PDHandleRec& checked(PDHandle h, Kind kind) {
    if (!h) fail(PD_ERR_MISSING_OBJECT);
    if (h->magic != PDHandleRec::kMagic || h->kind != kind) fail(PD_ERR_WRONG_HANDLE);
    return *h;
}

Document& checkedDoc(PDHandle h) { return *checked(h, Kind::Document).doc; }

PDHandleRec& checkedWidget(PDHandle h) {
    PDHandleRec& rec = checked(h, Kind::Annot);
    if (!isWidget(rec.obj)) fail(PD_ERR_NOT_WIDGET);
    return rec;
}

void sameDoc(const PDHandleRec& a, const PDHandleRec& b) {
    if (a.doc != b.doc) fail(PD_ERR_OTHER_DOCUMENT);
}

static void destroyDocument(Document* doc) { delete doc; }

static void releaseDocRef(Document* doc) {
    if (doc->self.refs.fetch_sub(1) == 1) destroyDocument(doc);
}

namespace {

// Handle records come from one range of addresses, each at a higher address than every
// record made before it, so that handles compare in the order their objects were first
// reached (a radio grouping numbers its buttons in the order of their handles) whatever the
// allocator does with freed memory. A page of records goes back to the system once none of
// them is alive and the arena has moved past it. When the range cannot be reserved or is
// used up, records come from the heap, and their order is the allocator's.
class HandleArena {
public:
    static constexpr size_t kSlot = 64;
    static constexpr size_t kReserved = size_t(1) << 34;  // 268 million records

    // Room for one record; null when the arena has none.
    void* allocate() {
        std::lock_guard lock(mutex_);
        if (!tried_) {
            tried_ = true;
            base_.store(static_cast<char*>(addressSpace::reserve(kReserved)));
        }
        char* base = base_.load();
        if (!base || next_ + kSlot > kReserved) return nullptr;
        const size_t page = addressSpace::pageSize();
        if (next_ + kSlot > committed_) {
            if (!addressSpace::commit(base + committed_, page)) return nullptr;
            committed_ += page;
            live_.push_back(0);
        }
        void* slot = base + next_;
        ++live_[next_ / page];
        next_ += kSlot;
        if (next_ % page == 0) release(next_ / page - 1);
        return slot;
    }

    // Any thread, without the lock: the range is set once.
    bool owns(const void* p) const {
        const char* base = base_.load();
        return base && p >= base && p < base + kReserved;
    }

    void free(void* p) {
        std::lock_guard lock(mutex_);
        const size_t page = static_cast<size_t>(static_cast<char*>(p) - base_.load()) /
                            addressSpace::pageSize();
        --live_[page];
        release(page);
    }

private:
    // Gives page back when nothing on it is alive and no record will be made there.
    void release(size_t page) {
        const size_t size = addressSpace::pageSize();
        if (live_[page] == 0 && (page + 1) * size <= next_)
            addressSpace::discard(base_.load() + page * size, size);
    }

    std::mutex mutex_;
    bool tried_ = false;
    std::atomic<char*> base_{nullptr};
    size_t next_ = 0;       // offset of the next record
    size_t committed_ = 0;  // bytes usable from base_
    std::vector<uint32_t> live_;  // records alive, per page
};
static_assert(sizeof(PDHandleRec) <= HandleArena::kSlot);

// Never destroyed: handles may be released while the process ends.
HandleArena& handleArena() {
    static HandleArena* arena = new HandleArena;
    return *arena;
}

PDHandleRec* newHandleRec() {
    if (void* slot = handleArena().allocate()) return new (slot) PDHandleRec;
    return new PDHandleRec;
}

void deleteHandleRec(PDHandleRec* rec) {
    HandleArena& arena = handleArena();
    if (!arena.owns(rec)) {
        delete rec;
        return;
    }
    rec->~PDHandleRec();
    arena.free(rec);
}

}  // namespace

PDHandle handleFor(Document& doc, QPDFObjectHandle obj, Kind kind) {
    if (!obj.isIndirect()) fail(PD_ERR_INTERNAL);
    std::lock_guard lock(doc.registryMutex);
    auto key = std::make_pair(obj.getObjGen(), kind);
    auto it = doc.handles.find(key);
    if (it != doc.handles.end()) {
        // A handle whose count already reached zero is being freed by another thread and
        // is never revived; it is replaced below.
        int32_t r = it->second->refs.load();
        while (r > 0) {
            if (it->second->refs.compare_exchange_weak(r, r + 1)) return it->second;
        }
    }
    auto* rec = newHandleRec();
    rec->kind = kind;
    rec->doc = &doc;
    rec->obj = obj;
    doc.self.refs.fetch_add(1);
    doc.handles[key] = rec;
    return rec;
}

PDHandle anyHandle(Document& doc, QPDFObjectHandle obj, Kind kind) {
    if (obj.isIndirect()) return handleFor(doc, obj, kind);
    auto* rec = newHandleRec();
    rec->kind = kind;
    rec->doc = &doc;
    rec->obj = obj;
    doc.self.refs.fetch_add(1);
    std::lock_guard lock(doc.registryMutex);
    doc.directHandles.insert(rec);
    return rec;
}

void rekeyHandle(Document& doc, QPDFObjGen from, QPDFObjectHandle to, Kind kind) {
    std::lock_guard lock(doc.registryMutex);
    auto it = doc.handles.find({from, kind});
    if (it == doc.handles.end()) return;
    PDHandleRec* rec = it->second;
    doc.handles.erase(it);
    rec->obj = to;
    doc.handles[{to.getObjGen(), kind}] = rec;
}

void makeHandleIndirect(Document& doc, PDHandleRec& rec) {
    if (rec.obj.isIndirect()) return;
    QPDFObjectHandle made = makeIndirect(doc, rec.obj.shallowCopy());
    std::lock_guard lock(doc.registryMutex);
    doc.directHandles.erase(&rec);
    rec.obj = made;
    doc.handles[{made.getObjGen(), rec.kind}] = &rec;
}

static void freeObjectHandle(PDHandleRec* rec) {
    Document* doc = rec->doc;
    if (rec->obj.isIndirect()) {
        std::lock_guard lock(doc->registryMutex);
        auto it = doc->handles.find({rec->obj.getObjGen(), rec->kind});
        if (it != doc->handles.end() && it->second == rec) doc->handles.erase(it);
    } else {
        std::lock_guard lock(doc->registryMutex);
        doc->directHandles.erase(rec);
    }
    rec->magic = 0;
    deleteHandleRec(rec);
    releaseDocRef(doc);
}

namespace {
std::mutex warningMutex;
std::pair<PDWarningProc, void*> warningHandler{nullptr, nullptr};
}  // namespace

void warn(const std::u16string& text) {
    std::pair<PDWarningProc, void*> handler;
    {
        std::lock_guard<std::mutex> lock(warningMutex);
        handler = warningHandler;
    }
    if (handler.first)
        handler.first(text.data(), static_cast<uint32_t>(text.size()), handler.second);
}

}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDHandleAcquire(PDHandle handle) {
    if (!handle) return PD_ERR_MISSING_OBJECT;
    if (handle->magic != PDHandleRec::kMagic) return PD_ERR_WRONG_HANDLE;
    handle->refs.fetch_add(1);
    return PD_OK;
}

PDResult PDHandleRelease(PDHandle handle) {
    if (!handle) return PD_OK;
    if (handle->magic != PDHandleRec::kMagic) return PD_ERR_WRONG_HANDLE;
    if (handle->kind == Kind::Document) {
        releaseDocRef(handle->doc);
    } else if (handle->refs.fetch_sub(1) == 1) {
        freeObjectHandle(handle);
    }
    return PD_OK;
}

PDResult PDObjectRelease(PDHandle handle) { return PDHandleRelease(handle); }

PDResult PDHandleGetDoc(PDHandle handle, PDDoc* outDoc) {
    if (outDoc) *outDoc = nullptr;
    return guard([&] {
        if (!handle) fail(PD_ERR_MISSING_OBJECT);
        if (handle->magic != PDHandleRec::kMagic) fail(PD_ERR_WRONG_HANDLE);
        checkOut(outDoc);
        handle->doc->self.refs.fetch_add(1);
        *outDoc = &handle->doc->self;
    });
}

void PDSetWarningHandler(PDWarningProc proc, void* clientData) {
    std::lock_guard<std::mutex> lock(warningMutex);
    warningHandler = {proc, clientData};
}

static_assert(PD_MAX_TREE_DEPTH == 1000, "the text of PD_ERR_TOO_DEEP names the limit");

const char16_t* PDGetErrMessage(PDResult result) {
    switch (result) {
    case PD_ERR_INTERNAL: return u"Internal error in the PDF library";
    case PD_OK: return u"No error";
    case PD_ERR_MISSING_OBJECT: return u"Missing object";
    case PD_ERR_BAD_ARGUMENT: return u"Bad argument";
    case PD_ERR_NO_VALUE: return u"No value is stored";
    case PD_ERR_WRONG_HANDLE: return u"The handle is of the wrong kind";
    case PD_ERR_RANGE: return u"Index out of range";
    case PD_ERR_NAME_IN_USE: return u"The field name is already in use";
    case PD_ERR_NOT_FOUND: return u"Not found";
    case PD_ERR_BUFFER_SMALL: return u"The buffer is too small";
    case PD_ERR_IO: return u"The file could not be read or written";
    case PD_ERR_DAMAGED: return u"The file is damaged or is not a PDF file";
    case PD_ERR_PASSWORD: return u"The file is encrypted and the password is missing or wrong";
    case PD_ERR_NOT_WIDGET: return u"The annotation is not a widget";
    case PD_ERR_FIELD_KIND: return u"The operation does not apply to this field";
    case PD_ERR_NOT_ON_PAGE: return u"The annotation is not on the page";
    case PD_ERR_ALREADY: return u"Already present";
    case PD_ERR_NOT_KID: return u"The widget does not belong to the field";
    case PD_ERR_OTHER_DOCUMENT: return u"The objects belong to different documents";
    case PD_ERR_BAD_NAME: return u"The field name has an empty part";
    case PD_ERR_UNSUPPORTED: return u"Not supported";
    case PD_ERR_NOT_A_FILE: return u"The target is not a regular file";
    case PD_ERR_READ_ONLY: return u"The file is read-only";
    case PD_ERR_ACCESS: return u"No permission to write in the file's folder";
    case PD_ERR_FILE_LIMIT: return u"The file would exceed the size limit for files";
    case PD_ERR_DISK_FULL: return u"No space left on the disk";
    case PD_ERR_CYCLE: return u"The object structure loops";
    case PD_ERR_TOO_LARGE: return u"Too large";
    case PD_ERR_OUT_OF_MEMORY: return u"Out of memory";
    case PD_ERR_TOO_DEEP: return u"A page tree or field tree is nested deeper than 1,000 levels";
    default: return u"Unknown error";
    }
}

}  // extern "C"

namespace pdfcore {

// ---- texts --------------------------------------------------------------------------

static bool decodeUtf8(const std::string& s, std::u16string& out) {
    out.clear();
    size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        uint32_t cp;
        size_t n;
        if (c < 0x80) {
            cp = c;
            n = 1;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            n = 2;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            n = 3;
        } else if ((c & 0xF8) == 0xF0) {
            cp = c & 0x07;
            n = 4;
        } else {
            return false;
        }
        if (i + n > s.size()) return false;
        for (size_t k = 1; k < n; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += n;
    }
    return true;
}

std::u16string toU16(const std::string& utf8) {
    std::u16string out;
    if (decodeUtf8(utf8, out)) return out;
    // Not UTF-8: take the bytes as Latin-1, which keeps every byte visible.
    out.clear();
    for (unsigned char c : utf8) out.push_back(c);
    return out;
}

std::string toUtf8(const std::u16string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t cp = s[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
            s[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

std::u16string textArg(const char16_t* s, uint32_t len) {
    if (len == 0) return {};
    if (!s) fail(PD_ERR_BAD_ARGUMENT);
    return std::u16string(s, len);
}

PDResult putText(const std::u16string& value, char16_t* buf, uint32_t bufLen,
                 uint32_t* outLen) {
    if (!outLen) return PD_ERR_BAD_ARGUMENT;
    if (value.size() > UINT32_MAX - 1) return PD_ERR_TOO_LARGE;
    auto len = static_cast<uint32_t>(value.size());
    *outLen = len;
    if (!buf) return PD_OK;
    if (bufLen < len) return PD_ERR_BUFFER_SMALL;
    std::copy(value.begin(), value.end(), buf);
    if (bufLen > len) buf[len] = 0;
    return PD_OK;
}

std::u16string textOf(QPDFObjectHandle obj) {
    if (obj.isName()) return toU16(obj.getName().substr(1));
    if (obj.isString()) return toU16(obj.getUTF8Value());
    if (obj.isStream()) {
        // Long texts (/V, /JS) may be streams holding a text string's bytes.
        try {
            auto data = obj.getStreamData(qpdf_dl_generalized);
            std::string bytes(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
            return toU16(QPDFObjectHandle::newString(bytes).getUTF8Value());
        } catch (const std::exception&) {
            return {};
        }
    }
    return {};
}

QPDFObjectHandle textString(const std::u16string& s) {
    return QPDFObjectHandle::newUnicodeString(toUtf8(s));
}

// ---- values many objects hold alike -----------------------------------------------------

namespace {

// The value made for key, made now while there is room; past it, a new one, or with
// onlyShared an empty handle.
template <class Key, class Make>
QPDFObjectHandle shared(std::unordered_map<Key, QPDFObjectHandle>& made, const Key& key,
                        Make&& make, bool onlyShared = false) {
    auto it = made.find(key);
    if (it != made.end()) return it->second;
    if (made.size() >= kSharedValues) return onlyShared ? QPDFObjectHandle() : make();
    return made.emplace(key, make()).first->second;
}

QPDFObjectHandle nameIn(SharedValues& v, const std::string& name, bool onlyShared = false) {
    return shared(v.names, name, [&] { return QPDFObjectHandle::newName(name); }, onlyShared);
}

QPDFObjectHandle realIn(SharedValues& v, const std::string& written, bool onlyShared = false) {
    return shared(v.reals, written, [&] { return QPDFObjectHandle::newReal(written); },
                  onlyShared);
}

QPDFObjectHandle integerIn(SharedValues& v, long long value, bool onlyShared = false) {
    return shared(v.integers, value, [&] { return QPDFObjectHandle::newInteger(value); },
                  onlyShared);
}

// The shared value that stands for value (direct), if any. Strings are left out: a file's
// strings are mostly its fields' names and values, each one of its own.
QPDFObjectHandle sharedFor(SharedValues& v, QPDFObjectHandle value) {
    switch (value.getTypeCode()) {
    case ::ot_name: return nameIn(v, value.getName(), true);
    case ::ot_integer: return integerIn(v, value.getIntValue(), true);
    case ::ot_real: return realIn(v, value.getRealValue(), true);
    default: return {};
    }
}

void shareIn(SharedValues& v, QPDFObjectHandle container, int depth) {
    auto share = [&](QPDFObjectHandle value, auto&& put) {
        if (value.isIndirect()) return;
        if (value.isArray() || value.isDictionary()) {
            if (depth < kSharedDepth) shareIn(v, value, depth + 1);
            return;
        }
        QPDFObjectHandle one = sharedFor(v, value);
        if (one.isInitialized() && !one.isSameObjectAs(value)) put(one);
    };
    if (container.isArray()) {
        const int n = container.getArrayNItems();
        for (int i = 0; i < n; ++i)
            share(container.getArrayItem(i),
                  [&](QPDFObjectHandle one) { container.setArrayItem(i, one); });
    } else {
        // getDictAsMap: qpdf's getKeys and ditems read every value, to leave out nulls.
        for (const auto& entry : container.getDictAsMap()) {
            const std::string& key = entry.first;
            share(entry.second, [&](QPDFObjectHandle one) { container.replaceKey(key, one); });
        }
    }
}

} // namespace

QPDFObjectHandle sharedName(Document& doc, const std::string& name) {
    return nameIn(doc.sharedValues, name);
}

QPDFObjectHandle sharedReal(Document& doc, const std::string& written) {
    return realIn(doc.sharedValues, written);
}

QPDFObjectHandle sharedInteger(Document& doc, long long value) {
    return integerIn(doc.sharedValues, value);
}

QPDFObjectHandle sharedString(Document& doc, const std::string& bytes) {
    return shared(doc.sharedValues.strings, bytes,
                  [&] { return QPDFObjectHandle::newString(bytes); });
}

void shareValues(Document& doc, QPDFObjectHandle dict) {
    if (dict.isDictionary()) shareIn(doc.sharedValues, dict, 1);
}

// ---- object helpers -------------------------------------------------------------------

bool isWidget(QPDFObjectHandle annot) {
    if (!annot.isDictionary()) return false;
    auto st = annot.getKey("/Subtype");
    return st.isName() && st.getName() == "/Widget";
}

QPDFObjectHandle inherited(QPDFObjectHandle dict, const std::string& key) {
    std::set<QPDFObjGen> seen;
    // A page or a widget lies one level below the deepest node of its tree.
    for (int depth = 0; depth <= PD_MAX_TREE_DEPTH && dict.isDictionary(); ++depth) {
        if (dict.isIndirect() && !seen.insert(dict.getObjGen()).second) break;
        if (dict.hasKey(key)) return dict.getKey(key);
        dict = dict.getKey("/Parent");
    }
    return QPDFObjectHandle::newNull();
}

bool holdsDirect(QPDFObjectHandle value, QPDFObjectHandle target, int depth) {
    if (value.isIndirect()) return false;
    if (depth > kMaxDirectNesting || value.isSameObjectAs(target)) return true;
    if (value.isArray()) {
        for (auto& item : value.aitems()) {
            if (holdsDirect(item, target, depth + 1)) return true;
        }
    } else if (value.isDictionary()) {
        for (auto& entry : value.ditems()) {
            if (holdsDirect(entry.second, target, depth + 1)) return true;
        }
    }
    return false;
}

QPDFObjectHandle acroForm(Document& doc, bool create) {
    auto root = doc.qpdf->getRoot();
    auto form = root.getKey("/AcroForm");
    if (form.isDictionary()) {
        if (create && !form.getKey("/Fields").isArray()) {
            form.replaceKey("/Fields", QPDFObjectHandle::newArray());
        }
        return form;
    }
    if (!create) return QPDFObjectHandle::newNull();
    auto helv = QPDFObjectHandle::parse(
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>");
    auto zadb = QPDFObjectHandle::parse("<< /Type /Font /Subtype /Type1 /BaseFont /ZapfDingbats >>");
    auto fonts = QPDFObjectHandle::newDictionary();
    fonts.replaceKey("/Helv", makeIndirect(doc, helv));
    fonts.replaceKey("/ZaDb", makeIndirect(doc, zadb));
    auto dr = QPDFObjectHandle::newDictionary();
    dr.replaceKey("/Font", fonts);
    form = QPDFObjectHandle::newDictionary();
    form.replaceKey("/Fields", QPDFObjectHandle::newArray());
    form.replaceKey("/DR", dr);
    form.replaceKey("/DA", QPDFObjectHandle::newString("/Helv 0 Tf 0 g"));
    form = makeIndirect(doc, form);
    root.replaceKey("/AcroForm", form);
    // Widgets already on the pages keep belonging to the form that is made now.
    auto fields = form.getKey("/Fields");
    for (auto& field : formRoots(doc)) fields.appendItem(field);
    return form;
}

QPDFObjectHandle pageOf(Document& doc, uint32_t index) {
    const auto& pages = doc.qpdf->getAllPages();
    if (index >= pages.size()) fail(PD_ERR_RANGE);
    return pages[index];
}

}  // namespace pdfcore
