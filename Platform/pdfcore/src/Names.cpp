// PDF names as pdfcore writes them: the state name a button text stands for, and names made
// safe for qpdf's writer.
#include "Core.h"

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
    return "/" + toUtf8(text);
}

bool isStateOf(QPDFObjectHandle value, const std::string& state) {
    if (value.isName()) return value.getName() == state;
    return value.isString() && !state.empty() && textOf(value) == toU16(state.substr(1));
}

NamesEscapedForWriting::NamesEscapedForWriting(Document& doc) : doc_(doc) {
    if (kWriterEscapesHash) return;
    for (auto& obj : doc.qpdf->getAllObjects()) {
        if (obj.isName()) {
            if (!holdsHash(obj.getName())) continue;
            changes_.push_back({Change::Object, obj, {}, {}, 0, obj.shallowCopy()});
            doc.qpdf->replaceObject(obj.getObjGen(),
                                    QPDFObjectHandle::newName(escapedHash(obj.getName())));
        } else {
            escapeIn(obj.isStream() ? obj.getDict() : obj, 0);
        }
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

void NamesEscapedForWriting::escapeIn(QPDFObjectHandle container, int depth) {
    if (depth > kMaxNesting) return;
    if (container.isDictionary()) {
        for (auto const& key : container.getKeys()) {
            QPDFObjectHandle value = container.getKey(key);
            if (!value.isIndirect()) {
                if (value.isName() && holdsHash(value.getName())) {
                    changes_.push_back({Change::Value, container, key, {}, 0, value});
                    container.replaceKey(key,
                                         QPDFObjectHandle::newName(escapedHash(value.getName())));
                } else if (value.isDictionary() || value.isArray()) {
                    escapeIn(value, depth + 1);
                }
            }
            if (holdsHash(key)) {
                const std::string written = escapedHash(key);
                changes_.push_back({Change::Key, container, key, written, 0, {}});
                container.removeKey(key);
                container.replaceKey(written, value);
            }
        }
    } else if (container.isArray()) {
        const int n = container.getArrayNItems();
        for (int i = 0; i < n; ++i) {
            QPDFObjectHandle item = container.getArrayItem(i);
            if (item.isIndirect()) continue;
            if (item.isName() && holdsHash(item.getName())) {
                changes_.push_back({Change::Item, container, {}, {}, i, item});
                container.setArrayItem(i, QPDFObjectHandle::newName(escapedHash(item.getName())));
            } else if (item.isDictionary() || item.isArray()) {
                escapeIn(item, depth + 1);
            }
        }
    }
}

}  // namespace pdfcore
