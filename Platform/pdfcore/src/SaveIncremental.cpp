// Saves that append an update: the bytes the document was read from stay as they were, and
// after them come the objects this session changed or made and a cross-reference section
// whose /Prev leads to the file's own. qpdf has no such writer; qpdf reads the result back
// before it is kept.
//
// What changed is found at the save, not recorded as it happens: each object of the file's
// cross-reference table is compared, as it would be written, with a second reading of the
// file's bytes. That cannot miss an object changed by a call nobody thought of, and costs a
// reading of the objects' dictionaries, never of stream data. Stream data of the file is
// never replaced here (drawings write only streams of their own, Appearance.cpp), so a
// stream of the file is compared by its dictionary.
#include "SaveIncremental.h"

#include "Fonts.h"

#include <qpdf/Pl_Buffer.hh>
#include <qpdf/Pl_Flate.hh>
#include <qpdf/QPDFXRefEntry.hh>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace pdfcore {
namespace {

// Streams without a filter at least this long are compressed when written.
constexpr size_t kCompressFrom = 64;

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

// The file's own objects as they were read, for the comparison.
struct Original {
    QPDF qpdf;
    explicit Original(const std::string& bytes) {
        qpdf.setSuppressWarnings(true);
        qpdf.processMemoryFile("original", bytes.data(), bytes.size());
    }
};

// The file's bytes and the update after them (none when nothing changed). Fails with
// PD_ERR_UNSUPPORTED when qpdf had to repair what it read, and PD_ERR_INTERNAL when it
// cannot read the result back as it was meant.
std::string appended(Document& doc, int64_t previous, bool table) {
    QPDF& live = *doc.qpdf;
    Original original(doc.fileBytes);
    const auto xref = live.getXRefTable();
    int maxId = 0;
    std::vector<QPDFObjGen> written;
    for (const auto& [og, entry] : xref) {
        maxId = std::max(maxId, og.getObj());
        if (entry.getType() == 0) continue;
        QPDFObjectHandle now = live.getObject(og);
        QPDFObjectHandle then = original.qpdf.getObject(og);
        bool same = now.isStream() == then.isStream();
        if (same && now.isStream()) {
            same = now.getDict().unparseBinary() == then.getDict().unparseBinary();
        } else if (same) {
            same = now.unparseResolved() == then.unparseResolved();
        }
        if (!same) written.push_back(og);
    }
    if (original.qpdf.anyWarnings() || live.anyWarnings()) fail(PD_ERR_UNSUPPORTED);

    // Objects made here that the changed ones or the trailer lead to; the file's unchanged
    // objects lead to none of them.
    QPDFObjectHandle trailer = live.getTrailer();
    std::set<QPDFObjGen> made;
    std::vector<QPDFObjectHandle> todo;
    auto reach = [&](QPDFObjectHandle ref) {
        const QPDFObjGen og = ref.getObjGen();
        if (xref.count(og) || !made.insert(og).second) return;
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
    if (written.empty() && made.empty()) return doc.fileBytes;
    written.insert(written.end(), made.begin(), made.end());
    std::sort(written.begin(), written.end());
    for (const auto& og : made) maxId = std::max(maxId, og.getObj());

    const int64_t base = int64_t(doc.fileBytes.size());
    std::string out;
    const char last = doc.fileBytes.empty() ? '\n' : doc.fileBytes.back();
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
    const std::string first = hasId ? id.getArrayItem(0).unparseBinary()
                                    : hexString(fnv1a(doc.fileBytes, 0xcbf29ce484222325ull), 0);
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
    QPDFObjectHandle fileSize = trailer.getKey("/Size");
    const int size = std::max(fileSize.isInteger() ? fileSize.getIntValueAsInt() : 0,
                              table ? maxId + 1 : maxId + 2);
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
    std::string whole = doc.fileBytes + out;
    QPDF check;
    check.setSuppressWarnings(true);
    check.processMemoryFile("update", whole.data(), whole.size());
    if (!check.getRoot().isDictionary()) fail(PD_ERR_INTERNAL);
    for (const auto& og : written) {
        QPDFObjectHandle back = check.getObject(og);
        if (back.isNull() != live.getObject(og).isNull() ||
            back.isStream() != live.getObject(og).isStream())
            fail(PD_ERR_INTERNAL);
    }
    if (check.anyWarnings()) fail(PD_ERR_INTERNAL);
    return whole;
}

}  // namespace

bool canAppend(Document& doc) {
    if (doc.fileBytes.empty() || doc.qpdf->isEncrypted() || doc.qpdf->anyWarnings()) return false;
    const int64_t previous = lastStartXref(doc.fileBytes);
    if (previous < 0) return false;
    const char* at = doc.fileBytes.data() + previous;
    return isTableAt(doc.fileBytes, previous) || (*at >= '0' && *at <= '9');
}

std::optional<std::string> appendedFile(Document& doc) {
    if (!canAppend(doc)) return std::nullopt;
    flushAnnotLists(doc);
    flushAppearances(doc);
    writeEmbeddedFaces(doc);
    const UnusedFieldsDetached unused(doc);
    const NamesEscapedForWriting names(doc);
    const int64_t previous = lastStartXref(doc.fileBytes);
    try {
        return appended(doc, previous, isTableAt(doc.fileBytes, previous));
    } catch (const Failure&) {
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return std::nullopt;  // qpdf could not read the file or the update back
    }
}

}  // namespace pdfcore
