// Saves that append an update: the bytes the document was read from stay as they were, and
// after them come the objects this session changed or made and a cross-reference section
// whose /Prev leads to the file's own. qpdf has no such writer; qpdf reads the result back
// before it is kept.
//
// What changed is found at the save, not recorded as it happens: each object of the file's
// cross-reference table (with those of updates appended to the file in place since it was
// read) is compared, value for value as it would be written, with a second reading of those
// bytes. That cannot miss an object changed by a call nobody thought of, and costs a reading
// of the objects' dictionaries, never of stream data. An object that the file holds exactly
// as it would be written now (a file qpdf wrote) is known unchanged without that reading,
// and one qpdf never read in the session cannot have changed. Stream data of the file is
// never replaced here (drawings write only streams of their own, Appearance.cpp), so a
// stream of the file is compared by its dictionary.
#include "SaveIncremental.h"

#include "Fonts.h"

#include <qpdf/InputSource.hh>
#include <qpdf/Pl_Buffer.hh>
#include <qpdf/Pl_Flate.hh>
#include <qpdf/QPDFXRefEntry.hh>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

namespace pdfcore {
namespace {

// Streams without a filter at least this long are compressed when written.
constexpr size_t kCompressFrom = 64;
// Objects nested deeper than this are compared value for value (writtenAsIs).
constexpr int kWrittenDepth = 32;

// The offset that the file's last startxref names, or -1.
int64_t lastStartXref(const std::string& bytes) {
    const size_t at = bytes.rfind("startxref");
    if (at == std::string::npos) return -1;
    size_t i = at + 9;
    while (i < bytes.size() && std::strchr(" \t\r\n\f", bytes[i]) && bytes[i] != '\0') ++i;
    int64_t offset = 0;
    size_t digits = 0;
    for (; i < bytes.size() && bytes[i] >= '0' && bytes[i] <= '9' && digits < 16; ++i, ++digits)
        offset = offset * 10 + (bytes[i] - '0');
    if (digits == 0 || offset >= int64_t(at)) return -1;
    return offset;
}

// Whether the section at offset is a table ("xref") rather than a stream ("N G obj").
bool isTableAt(const std::string& bytes, int64_t offset) {
    return bytes.compare(size_t(offset), 4, "xref") == 0;
}

// Calls visit with every indirect object that obj refers to, directly or through the arrays
// and dictionaries it holds.
template <typename Visit>
void forEachReference(QPDFObjectHandle obj, Visit&& visit) {
    std::vector<QPDFObjectHandle> todo{obj.isStream() ? obj.getDict() : obj};
    while (!todo.empty()) {
        QPDFObjectHandle o = std::move(todo.back());
        todo.pop_back();
        if (o.isArray()) {
            for (auto& item : o.aitems()) {
                if (item.isIndirect()) {
                    visit(item);
                } else {
                    todo.push_back(item);
                }
            }
        } else if (o.isDictionary()) {
            for (auto& [key, value] : o.ditems()) {
                if (value.isIndirect()) {
                    visit(value);
                } else {
                    todo.push_back(value);
                }
            }
        }
    }
}

// The object as it is written in the update, between "N G obj" and "endobj".
std::string body(QPDFObjectHandle obj) {
    if (!obj.isStream()) return obj.unparseResolved();
    std::string data;
    {
        auto raw = obj.getRawStreamData();
        data.assign(reinterpret_cast<const char*>(raw->getBuffer()), raw->getSize());
    }
    QPDFObjectHandle dict = obj.getDict().shallowCopy();
    if (!dict.hasKey("/Filter") && data.size() >= kCompressFrom) {
        Pl_Buffer sink("update stream");
        Pl_Flate flate("update flate", &sink, Pl_Flate::a_deflate);
        flate.write(reinterpret_cast<const unsigned char*>(data.data()), data.size());
        flate.finish();
        auto packed = sink.getBufferSharedPointer();
        data.assign(reinterpret_cast<const char*>(packed->getBuffer()), packed->getSize());
        dict.replaceKey("/Filter", QPDFObjectHandle::newName("/FlateDecode"));
        dict.removeKey("/DecodeParms");
    }
    dict.replaceKey("/Length", QPDFObjectHandle::newInteger(int64_t(data.size())));
    std::string out = dict.unparseBinary();
    out.append("\nstream\n").append(data).append("\nendstream");
    return out;
}

uint64_t fnv1a(const std::string& bytes, uint64_t seed) {
    uint64_t h = seed;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

std::string hexString(uint64_t a, uint64_t b) {
    char text[40];
    std::snprintf(text, sizeof text, "<%016llx%016llx>", static_cast<unsigned long long>(a),
                  static_cast<unsigned long long>(b));
    return text;
}

// Pieces of bytes read as one file, none of them copied: the file as it was read, what
// saves appended to it in place since, and an update to come.
class JoinedInput : public InputSource {
  public:
    JoinedInput(std::string name, std::vector<std::string_view> pieces)
        : name_(std::move(name)), pieces_(std::move(pieces)) {
        for (const auto& piece : pieces_) size_ += qpdf_offset_t(piece.size());
    }
    qpdf_offset_t findAndSkipNextEOL() override {
        while (at_ < size_ && !isEol(byteAt(at_))) ++at_;
        const qpdf_offset_t found = at_;
        if (at_ < size_) ++at_;
        while (at_ < size_ && isEol(byteAt(at_))) ++at_;
        if (found == size_) last_offset = size_;
        return found;
    }
    std::string const& getName() const override { return name_; }
    qpdf_offset_t tell() override { return at_; }
    void seek(qpdf_offset_t offset, int whence) override {
        const qpdf_offset_t from = whence == SEEK_END ? size_ : whence == SEEK_CUR ? at_ : 0;
        if (offset < -from || (offset > 0 && from > INT64_MAX - offset))
            throw std::runtime_error(name_ + ": seek out of range");
        at_ = from + offset;
    }
    void rewind() override { at_ = 0; }
    size_t read(char* buffer, size_t length) override {
        if (at_ >= size_) {
            last_offset = size_;
            return 0;
        }
        last_offset = at_;
        size_t done = 0;
        qpdf_offset_t start = 0;
        for (const auto& piece : pieces_) {
            const qpdf_offset_t end = start + qpdf_offset_t(piece.size());
            if (at_ < end && done < length) {
                const size_t n = std::min(length - done, size_t(end - at_));
                std::memcpy(buffer + done, piece.data() + (at_ - start), n);
                done += n;
                at_ += qpdf_offset_t(n);
            }
            start = end;
        }
        return done;
    }
    void unreadCh(char) override {
        if (at_ > 0) --at_;
    }

  private:
    static bool isEol(char c) { return c == '\r' || c == '\n'; }
    char byteAt(qpdf_offset_t offset) const {
        for (const auto& piece : pieces_) {
            if (offset < qpdf_offset_t(piece.size())) return piece[size_t(offset)];
            offset -= qpdf_offset_t(piece.size());
        }
        return '\0';
    }
    std::string name_;
    std::vector<std::string_view> pieces_;
    qpdf_offset_t size_ = 0;
    qpdf_offset_t at_ = 0;
};

// A reading of the pieces as one file.
std::unique_ptr<QPDF> readJoined(const char* name, std::vector<std::string_view> pieces) {
    auto qpdf = std::make_unique<QPDF>();
    qpdf->setSuppressWarnings(true);
    qpdf->processInputSource(std::make_shared<JoinedInput>(name, std::move(pieces)));
    return qpdf;
}

// Whether obj is a stream of that /Type: /XRef for an update's section, which no other
// object refers to; /ObjStm for an object stream.
bool isStreamOf(QPDFObjectHandle obj, const char* type) {
    return obj.isStream() && obj.getDict().getKey("/Type").isNameAndEquals(type);
}

// Whether two objects would be written the same: the same values, references to the same
// objects (not followed), dictionary keys without a null value alike.
bool sameValue(QPDFObjectHandle a, QPDFObjectHandle b) {
    std::vector<std::pair<QPDFObjectHandle, QPDFObjectHandle>> todo{{a, b}};
    auto present = [](QPDFObjectHandle value) { return value.isIndirect() || !value.isNull(); };
    for (bool top = true; !todo.empty(); top = false) {
        auto [x, y] = std::move(todo.back());
        todo.pop_back();
        if (!top && (x.isIndirect() || y.isIndirect())) {
            if (!x.isIndirect() || !y.isIndirect() || x.getObjGen() != y.getObjGen())
                return false;
            continue;
        }
        const qpdf_object_type_e type = x.getTypeCode();
        if (type != y.getTypeCode()) return false;
        switch (type) {
        case ::ot_null: break;
        case ::ot_boolean:
            if (x.getBoolValue() != y.getBoolValue()) return false;
            break;
        case ::ot_integer:
            if (x.getIntValue() != y.getIntValue()) return false;
            break;
        case ::ot_real:
            if (x.getRealValue() != y.getRealValue()) return false;
            break;
        case ::ot_name:
            if (x.getName() != y.getName()) return false;
            break;
        case ::ot_string:
            if (x.getStringValue() != y.getStringValue()) return false;
            break;
        case ::ot_array: {
            const int n = x.getArrayNItems();
            if (n != y.getArrayNItems()) return false;
            for (int i = 0; i < n; ++i) todo.emplace_back(x.getArrayItem(i), y.getArrayItem(i));
            break;
        }
        case ::ot_dictionary: {
            // (The maps as they are: qpdf's key lists would read every object referred to,
            // to leave out those that are null.)
            const auto xs = x.getDictAsMap(), ys = y.getDictAsMap();
            auto i = xs.begin(), j = ys.begin();
            for (;;) {
                while (i != xs.end() && !present(i->second)) ++i;
                while (j != ys.end() && !present(j->second)) ++j;
                if (i == xs.end() || j == ys.end()) {
                    if (i != xs.end() || j != ys.end()) return false;
                    break;
                }
                if (i->first != j->first) return false;
                todo.emplace_back(i->second, j->second);
                ++i;
                ++j;
            }
            break;
        }
        default:
            if (x.unparseBinary() != y.unparseBinary()) return false;
        }
    }
    return true;
}

// An object of the file's cross-reference table: whether it is an object (not a free entry
// nor an update's section), and where it starts when it is not in an object stream.
struct Entry {
    bool kept;
    int64_t offset;
};

// Appends the value of obj as qpdf writes it ("<< /Key value >>", "[ item ]", what it
// holds of other objects as "N G R"), without reading the objects it refers to (qpdf's
// unparse reads them all, to leave out those that are null). False for what it does not
// write the way qpdf does: names with other than regular characters, or '#', which qpdf 11
// writes as it is, though it reads back as another name; nesting deeper than depth.
bool appendAsWritten(std::string& out, QPDFObjectHandle obj, int depth, bool held = false) {
    if (held && obj.isIndirect()) {
        out += std::to_string(obj.getObjectID()) + ' ' + std::to_string(obj.getGeneration()) +
               " R";
        return true;
    }
    auto appendName = [&](const std::string& name) {
        if (name.size() < 2 || name[0] != '/') return false;
        for (size_t i = 1; i < name.size(); ++i) {
            const char c = name[i];
            if (c <= ' ' || c > '~' || std::strchr("#()<>[]{}/%", c)) return false;
        }
        out += name;
        return true;
    };
    switch (obj.getTypeCode()) {
    case ::ot_array:
        if (depth == 0) return false;
        out += "[ ";
        for (auto& item : obj.aitems()) {
            if (!appendAsWritten(out, item, depth - 1, true)) return false;
            out += ' ';
        }
        out += ']';
        return true;
    case ::ot_dictionary:
        if (depth == 0) return false;
        out += "<< ";
        for (auto& [key, value] : obj.getDictAsMap()) {
            if (!value.isIndirect() && value.isNull()) continue;
            if (!appendName(key)) return false;
            out += ' ';
            if (!appendAsWritten(out, value, depth - 1, true)) return false;
            out += ' ';
        }
        out += ">>";
        return true;
    case ::ot_name: return appendName(obj.getName());
    case ::ot_null:
    case ::ot_boolean:
    case ::ot_integer:
    case ::ot_real:
    case ::ot_string: out += obj.unparse(); return true;
    default: return false;
    }
}

// Whether the file holds the object now, not a stream, at offset (of file and appended,
// read as one) exactly as qpdf writes it: "N G obj", the value, "endobj". Its value in the
// file is then the one it has now, and it needs no second reading. Files that other
// programs wrote space their objects otherwise and are compared value for value.
bool writtenAsIs(std::string_view file, std::string_view appended, int64_t offset,
                 QPDFObjGen og, QPDFObjectHandle now) {
    std::string_view bytes = uint64_t(offset) < file.size()
                                 ? file.substr(size_t(offset))
                                 : appended.substr(std::min(size_t(offset) - file.size(),
                                                            appended.size()));
    std::string text = std::to_string(og.getObj()) + ' ' + std::to_string(og.getGen()) + " obj\n";
    if (!appendAsWritten(text, now, kWrittenDepth)) return false;
    text += "\nendobj";
    return bytes.compare(0, text.size(), text) == 0;
}

// Identifies a file that has none from its size and its first and last 64 KiB.
std::string fileWord(const std::string& bytes) {
    const size_t part = std::min<size_t>(bytes.size(), 65536);
    const uint64_t h = fnv1a(bytes.substr(0, part), 0xcbf29ce484222325ull ^ bytes.size());
    return hexString(fnv1a(bytes.substr(bytes.size() - part), h), 0);
}

// The update that follows appended (after the file's bytes); empty when nothing changed
// since. Fails with PD_ERR_UNSUPPORTED when qpdf had to repair what it read, and
// PD_ERR_INTERNAL when it cannot read the result back as it was meant.
Update update(Document& doc, std::string_view appended, int64_t previous, bool table) {
    QPDF& live = *doc.qpdf;
    auto original = readJoined("original", {doc.fileBytes, appended});
    // Every object of the file, with those that earlier updates made but their sections
    // (numbered past the file's objects, as qpdf numbers what a session makes).
    const auto read = live.getXRefTable();
    std::map<QPDFObjGen, Entry> xref;
    for (const auto& [og, entry] : original->getXRefTable())
        xref.emplace(og, Entry{entry.getType() != 0 && (read.count(og) ||
                                                        !isStreamOf(original->getObject(og),
                                                                    "/XRef")),
                               entry.getType() == 1 ? entry.getOffset() : -1});
    // An object of the file that qpdf never read here is as the file has it.
    auto neverRead = [&](QPDFObjGen og) {
        if (!doc.reads) return false;
        const auto entry = read.find(og);
        if (entry == read.end()) return false;
        switch (entry->second.getType()) {
        case 1: return !doc.reads->contains(entry->second.getOffset());
        case 2: {
            const auto stream = read.find(QPDFObjGen(entry->second.getObjStreamNumber(), 0));
            return stream != read.end() && stream->second.getType() == 1 &&
                   !doc.reads->contains(stream->second.getOffset());
        }
        default: return false;
        }
    };
    int maxId = 0;
    std::vector<QPDFObjGen> written;
    for (const auto& [og, entry] : xref) {
        maxId = std::max(maxId, og.getObj());
        if (!entry.kept || neverRead(og)) continue;
        QPDFObjectHandle now = live.getObject(og);
        if (!now.isStream() && entry.offset >= 0 &&
            writtenAsIs(doc.fileBytes, appended, entry.offset, og, now))
            continue;
        QPDFObjectHandle then = original->getObject(og);
        const bool same = now.isStream() == then.isStream() &&
                          (now.isStream() ? sameValue(now.getDict(), then.getDict())
                                          : sameValue(now, then));
        if (!same) written.push_back(og);
        // The reading lets go of what it compared, so that it never holds the file's
        // objects all at once; but object streams, which hold objects still to be read.
        if (!isStreamOf(then, "/ObjStm")) original->replaceObject(og, QPDFObjectHandle::newNull());
    }
    if (original->anyWarnings() || live.anyWarnings()) fail(PD_ERR_UNSUPPORTED);
    // The reading is done with: what it holds goes before the update is written and read.
    QPDFObjectHandle sizeThen = original->getTrailer().getKey("/Size");
    const int sizeThenValue = sizeThen.isInteger() ? sizeThen.getIntValueAsInt() : 0;
    original.reset();

    // Objects made here that the changed ones or the trailer lead to; the file's unchanged
    // objects lead to none of them.
    QPDFObjectHandle trailer = live.getTrailer();
    std::set<QPDFObjGen> made;
    std::vector<QPDFObjectHandle> todo;
    auto reach = [&](QPDFObjectHandle ref) {
        const QPDFObjGen og = ref.getObjGen();
        const auto known = xref.find(og);
        if ((known != xref.end() && known->second.kept) || !made.insert(og).second) return;
        todo.push_back(live.getObject(og));
    };
    for (const auto& og : written) forEachReference(live.getObject(og), reach);
    for (const char* key : {"/Root", "/Info"})
        if (trailer.getKey(key).isIndirect()) reach(trailer.getKey(key));
    while (!todo.empty()) {
        QPDFObjectHandle obj = std::move(todo.back());
        todo.pop_back();
        forEachReference(obj, reach);
    }
    if (written.empty() && made.empty()) return {};
    written.insert(written.end(), made.begin(), made.end());
    std::sort(written.begin(), written.end());
    for (const auto& og : made) maxId = std::max(maxId, og.getObj());

    // Names are compared as they read and escaped as they are written.
    std::vector<QPDFObjectHandle> objects;
    for (const auto& og : written) objects.push_back(live.getObject(og));
    const NamesEscapedForWriting names(doc, objects);

    const int64_t base = int64_t(doc.fileBytes.size() + appended.size());
    std::string out;
    const char last = !appended.empty() ? appended.back()
                      : doc.fileBytes.empty() ? '\n' : doc.fileBytes.back();
    if (last != '\n' && last != '\r') out += '\n';
    std::vector<std::pair<QPDFObjGen, int64_t>> offsets;
    for (const auto& og : written) {
        offsets.emplace_back(og, base + int64_t(out.size()));
        out += std::to_string(og.getObj()) + ' ' + std::to_string(og.getGen()) + " obj\n";
        out += body(live.getObject(og));
        out += "\nendobj\n";
    }

    // The trailer's entries: what leads to the document, the file identifier with a new
    // second word, and the way back to the file's own section.
    QPDFObjectHandle next = QPDFObjectHandle::newDictionary();
    for (const char* key : {"/Root", "/Info"})
        if (!trailer.getKey(key).isNull()) next.replaceKey(key, trailer.getKey(key));
    QPDFObjectHandle id = trailer.getKey("/ID");
    const bool hasId = id.isArray() && id.getArrayNItems() == 2 && id.getArrayItem(0).isString();
    const std::string first = hasId ? id.getArrayItem(0).unparseBinary() : fileWord(doc.fileBytes);
    const std::string second = hexString(fnv1a(out, 0xcbf29ce484222325ull),
                                         fnv1a(out, 0x84222325cbf29ce4ull));
    next.replaceKey("/ID", QPDFObjectHandle::parse("[" + first + " " + second + "]"));
    next.replaceKey("/Prev", QPDFObjectHandle::newInteger(previous));

    // Runs of consecutive object numbers, each a subsection.
    const int64_t sectionAt = base + int64_t(out.size());
    if (!table) offsets.emplace_back(QPDFObjGen(maxId + 1, 0), sectionAt);
    std::vector<std::pair<int, int>> runs;
    for (const auto& [og, offset] : offsets) {
        if (!runs.empty() && runs.back().first + runs.back().second == og.getObj()) {
            ++runs.back().second;
        } else {
            runs.emplace_back(og.getObj(), 1);
        }
    }
    int size = std::max(table ? maxId + 1 : maxId + 2, sizeThenValue);
    if (trailer.getKey("/Size").isInteger())
        size = std::max(size, trailer.getKey("/Size").getIntValueAsInt());
    next.replaceKey("/Size", QPDFObjectHandle::newInteger(size));
    char line[64];
    if (table) {
        out += "xref\n";
        size_t k = 0;
        for (const auto& [start, count] : runs) {
            out += std::to_string(start) + ' ' + std::to_string(count) + '\n';
            for (int i = 0; i < count; ++i, ++k) {
                std::snprintf(line, sizeof line, "%010lld %05d n\r\n",
                              static_cast<long long>(offsets[k].second),
                              offsets[k].first.getGen());
                out += line;
            }
        }
        out += "trailer\n" + next.unparseBinary() + "\n";
    } else {
        // A cross-reference stream: type 1, an 8-byte offset, a 2-byte generation.
        std::string rows;
        for (const auto& [og, offset] : offsets) {
            rows += char(1);
            for (int shift = 56; shift >= 0; shift -= 8) rows += char((offset >> shift) & 0xff);
            rows += char((og.getGen() >> 8) & 0xff);
            rows += char(og.getGen() & 0xff);
        }
        std::string index = "[";
        for (const auto& [start, count] : runs)
            index += std::to_string(start) + ' ' + std::to_string(count) + ' ';
        index.back() = ']';
        next.replaceKey("/Type", QPDFObjectHandle::newName("/XRef"));
        next.replaceKey("/W", QPDFObjectHandle::parse("[1 8 2]"));
        next.replaceKey("/Index", QPDFObjectHandle::parse(index));
        next.replaceKey("/Length", QPDFObjectHandle::newInteger(int64_t(rows.size())));
        out += std::to_string(maxId + 1) + " 0 obj\n" + next.unparseBinary() + "\nstream\n";
        out += rows;
        out += "\nendstream\nendobj\n";
    }
    out += "startxref\n" + std::to_string(sectionAt) + "\n%%EOF\n";

    // qpdf reads back what changed, from the new section on.
    const auto check = readJoined("update", {doc.fileBytes, appended, out});
    if (!check->getRoot().isDictionary()) fail(PD_ERR_INTERNAL);
    for (const auto& og : written) {
        QPDFObjectHandle back = check->getObject(og);
        if (back.isNull() != live.getObject(og).isNull() ||
            back.isStream() != live.getObject(og).isStream())
            fail(PD_ERR_INTERNAL);
        // Let go of each as it is checked, as the comparison does.
        check->replaceObject(og, QPDFObjectHandle::newNull());
    }
    if (check->anyWarnings()) fail(PD_ERR_INTERNAL);
    return {std::move(out), sectionAt};
}

}  // namespace

bool canAppend(Document& doc) {
    if (doc.fileBytes.empty() || doc.qpdf->isEncrypted() || doc.qpdf->anyWarnings()) return false;
    const int64_t previous = lastStartXref(doc.fileBytes);
    if (previous < 0) return false;
    const char* at = doc.fileBytes.data() + previous;
    return isTableAt(doc.fileBytes, previous) || (*at >= '0' && *at <= '9');
}

std::optional<Update> updateAfter(Document& doc, std::string_view appended,
                                  int64_t lastSection) {
    if (!canAppend(doc)) return std::nullopt;
    flushAnnotLists(doc);
    flushAppearances(doc);
    writeEmbeddedFaces(doc);
    const UnusedFieldsDetached unused(doc);
    const int64_t previous = lastStartXref(doc.fileBytes);
    try {
        return update(doc, appended, appended.empty() ? previous : lastSection,
                      isTableAt(doc.fileBytes, previous));
    } catch (const Failure&) {
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return std::nullopt;  // qpdf could not read the file or the update back
    }
}

}  // namespace pdfcore
