// PDF names as pdfcore writes them: the state name a button text stands for, and names made
// safe for qpdf's writer.
#include "Core.h"

#include <algorithm>
#include <atomic>
#include <qpdf/Buffer.hh>

namespace pdfcore {
namespace {

// Whether qpdf writes a '#' inside a name as "#23". qpdf 11.3 writes it as it is, so that
// a reader takes it for the start of an escape: the state "A#20B" comes back as "A B", and
// "A#B" as a name with a stray '#' that readers take differently.
const bool kWriterEscapesHash = QPDFObjectHandle::newName("/#").unparse() != "/#";

bool holdsHash(const std::string& name) {
    return name.find('#') != std::string::npos;
}

// name with each '#' written "#23", which qpdf's writer then leaves alone.
std::string escapedHash(const std::string& name) {
    std::string out;
    out.reserve(name.size() + 8);
    for (char c : name) {
        if (c == '#') {
            out += "#23";
        } else {
            out += c;
        }
    }
    return out;
}

// Direct objects nest no deeper than qpdf's parser lets them; this bounds the walk.
constexpr int kMaxNesting = 600;

// Whether a name noted in this process held a '#'.
std::atomic<bool> hashNoted{false};

}  // namespace

void noteName(std::string_view name) {
    if (name.find('#') != std::string_view::npos) hashNoted.store(true, std::memory_order_relaxed);
}

bool namesMayHoldHash(const Document& doc) {
    return doc.fileNamesMayHoldHash || !doc.objectStreamsToLook.empty() ||
           hashNoted.load(std::memory_order_relaxed);
}

namespace {

// Looks for "#23" in the file's object streams, unless names are looked through anyway.
// Made before the document is written whole, which reads them all as well.
void lookIntoObjectStreams(Document& doc) {
    if (doc.objectStreamsToLook.empty() || doc.fileNamesMayHoldHash ||
        hashNoted.load(std::memory_order_relaxed))
        return;
    for (int number : doc.objectStreamsToLook) {
        try {
            auto data = doc.qpdf->getObjectByID(number, 0).getStreamData(qpdf_dl_generalized);
            const std::string_view text(reinterpret_cast<const char*>(data->getBuffer()),
                                        data->getSize());
            if (text.find("#23") != std::string_view::npos) doc.fileNamesMayHoldHash = true;
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            doc.fileNamesMayHoldHash = true;  // not read here: its names are looked through
        }
        if (doc.fileNamesMayHoldHash) break;
    }
    doc.objectStreamsToLook.clear();
}

}  // namespace

std::string buttonStateName(QPDFObjectHandle field, const std::u16string& text) {
    if (text == u"Off") return "/Off";
    for (auto& widget : widgetsOf(field)) {
        QPDFObjectHandle ap = widget.getKeyIfDict("/AP");
        for (const char* which : {"/N", "/D"}) {
            QPDFObjectHandle states = ap.getKeyIfDict(which);
            if (!states.isDictionary()) continue;
            for (auto const& key : states.getKeys())
                if (toU16(key.substr(1)) == text) return key;
        }
    }
    std::string name = "/" + toUtf8(text);
    noteName(name);
    return name;
}

bool isStateOf(QPDFObjectHandle value, const std::string& state) {
    if (value.isName()) return value.getName() == state;
    return value.isString() && !state.empty() && textOf(value) == toU16(state.substr(1));
}

NamesEscapedForWriting::NamesEscapedForWriting(Document& doc) : doc_(doc) {
    if (kWriterEscapesHash) return;
    lookIntoObjectStreams(doc);
    if (!namesMayHoldHash(doc)) return;
    // What the writer writes: what the trailer leads to, each object once.
    // (By object number, grown as it goes: qpdf's object count walks every object.)
    std::vector<bool> seen;
    std::vector<QPDFObjectHandle> pending{doc.qpdf->getTrailer()};
    while (!pending.empty()) {
        QPDFObjectHandle obj = std::move(pending.back());
        pending.pop_back();
        escapeObject(obj, seen, pending);
    }
}

NamesEscapedForWriting::NamesEscapedForWriting(Document& doc,
                                               const std::vector<QPDFObjectHandle>& objects)
    : doc_(doc) {
    if (kWriterEscapesHash || !namesMayHoldHash(doc)) return;
    std::vector<bool> seen;
    std::vector<QPDFObjectHandle> notFollowed;
    for (const QPDFObjectHandle& obj : objects) escapeObject(obj, seen, notFollowed);
}

void NamesEscapedForWriting::escapeObject(QPDFObjectHandle obj, std::vector<bool>& seen,
                                          std::vector<QPDFObjectHandle>& pending) {
    if (obj.isName()) {
        // An indirect name, which the object table holds.
        if (!holdsHash(obj.getName())) return;
        changes_.push_back({Change::Object, obj, {}, {}, 0, obj.shallowCopy()});
        doc_.qpdf->replaceObject(obj.getObjGen(),
                                 QPDFObjectHandle::newName(escapedHash(obj.getName())));
    } else {
        escapeIn(obj.isStream() ? obj.getDict() : obj, 0, seen, pending);
    }
}

NamesEscapedForWriting::~NamesEscapedForWriting() {
    // Undone last to first, so that a key renamed inside a value escaped with it comes back.
    for (auto it = changes_.rbegin(); it != changes_.rend(); ++it) {
        try {
            switch (it->kind) {
            case Change::Object:
                doc_.qpdf->replaceObject(it->container.getObjGen(), it->original);
                break;
            case Change::Key: {
                QPDFObjectHandle value = it->container.getKey(it->written);
                it->container.removeKey(it->written);
                it->container.replaceKey(it->key, value);
                break;
            }
            case Change::Value:
                it->container.replaceKey(it->key, it->original);
                break;
            case Change::Item:
                it->container.setArrayItem(it->index, it->original);
                break;
            }
        } catch (...) {
            // A change that cannot be undone leaves an escaped name, which reads the same.
        }
    }
}

void NamesEscapedForWriting::escapeIn(QPDFObjectHandle container, int depth,
                                      std::vector<bool>& seen,
                                      std::vector<QPDFObjectHandle>& pending) {
    if (depth > kMaxNesting) return;
    // An indirect value is walked once, from pending; a direct one here.
    auto escaped = [&](QPDFObjectHandle value) {
        if (value.isIndirect()) {
            const auto id = static_cast<size_t>(value.getObjectID());
            if (id >= seen.size()) seen.resize(std::max(id + 1, 2 * seen.size()), false);
            if (!seen[id]) {
                seen[id] = true;
                pending.push_back(value);
            }
            return false;
        }
        switch (value.getTypeCode()) {
        case ::ot_name:
            return holdsHash(value.getName());
        case ::ot_dictionary:
        case ::ot_array:
            escapeIn(value, depth + 1, seen, pending);
            return false;
        default:
            return false;
        }
    };
    if (container.isDictionary()) {
        std::vector<std::string> values, keys;
        for (auto const& [key, value] : container.getDictAsMap()) {
            if (escaped(value)) values.push_back(key);
            if (holdsHash(key)) keys.push_back(key);
        }
        for (auto const& key : values) {
            QPDFObjectHandle value = container.getKey(key);
            changes_.push_back({Change::Value, container, key, {}, 0, value});
            container.replaceKey(key, QPDFObjectHandle::newName(escapedHash(value.getName())));
        }
        for (auto const& key : keys) {
            const std::string written = escapedHash(key);
            QPDFObjectHandle value = container.getKey(key);
            changes_.push_back({Change::Key, container, key, written, 0, {}});
            container.removeKey(key);
            container.replaceKey(written, value);
        }
    } else if (container.isArray()) {
        const int n = container.getArrayNItems();
        for (int i = 0; i < n; ++i) {
            QPDFObjectHandle item = container.getArrayItem(i);
            if (!escaped(item)) continue;
            changes_.push_back({Change::Item, container, {}, {}, i, item});
            container.setArrayItem(i, QPDFObjectHandle::newName(escapedHash(item.getName())));
        }
    }
}

}  // namespace pdfcore
