// The field tree: names and the name index, creating and renaming fields, widget
// membership (including splitting fields that share their dictionary with their widget),
// values and options.
#include "Core.h"

#include <qpdf/QUtil.hh>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

namespace pdfcore {

namespace {

// The levels of a field tree that pdfcore follows; a walk that finds more answers
// PD_ERR_TOO_DEEP instead of running on through a hostile file.
constexpr int kMaxDepth = PD_MAX_TREE_DEPTH;

// Keys that move to the field when a merged field/widget dictionary is split; the rest are
// the widget annotation's. /DA and /Q go to the field so that every widget the field gains
// follows them.
const char* const kFieldKeys[] = {"/FT", "/Ff",     "/V",  "/DV", "/T",  "/TU", "/TM", "/Opt",
                                  "/TI", "/I", "/MaxLen", "/DS", "/RV", "/DA", "/Q"};
// Trigger keys of a field's /AA; the others are the widget's.
const char* const kFieldTriggers[] = {"/K", "/F", "/V", "/C"};

bool hasName(QPDFObjectHandle node) { return node.getKey("/T").isString(); }

// The /Parent of a field or widget when it is a field. Damaged files point /Parent at
// pages or at nothing; such links are not followed.
QPDFObjectHandle fieldParent(QPDFObjectHandle node) {
    auto parent = node.getKey("/Parent");
    if (!parent.isDictionary()) return QPDFObjectHandle::newNull();
    auto type = parent.getKey("/Type");
    if (type.isName() && (type.getName() == "/Page" || type.getName() == "/Pages")) {
        return QPDFObjectHandle::newNull();
    }
    return parent;
}

// Whether node, reached as a kid of a field, is a field rather than a widget of it.
bool isFieldKid(QPDFObjectHandle node) {
    if (!node.isDictionary()) return false;
    if (hasName(node)) return true;
    return !isWidget(node) && node.getKey("/Kids").isArray();
}

bool isTerminal(QPDFObjectHandle field) {
    auto kids = field.getKey("/Kids");
    if (!kids.isArray()) return true;
    for (auto& kid : kids.aitems()) {
        if (isFieldKid(kid)) return false;
    }
    return true;
}

// A field that is also its own (only) widget.
bool isMerged(QPDFObjectHandle field) {
    return isWidget(field) && !field.getKey("/Kids").isArray();
}

std::vector<std::u16string> splitName(const std::u16string& name) {
    std::vector<std::u16string> parts;
    size_t start = 0;
    for (;;) {
        size_t dot = name.find(u'.', start);
        parts.push_back(name.substr(start, dot == std::u16string::npos ? dot : dot - start));
        if (parts.back().empty()) fail(PD_ERR_BAD_NAME);
        if (parts.size() > static_cast<size_t>(kMaxDepth)) fail(PD_ERR_TOO_DEEP);
        if (dot == std::u16string::npos) break;
        start = dot + 1;
    }
    return parts;
}

std::u16string join(const std::vector<std::u16string>& parts, size_t count) {
    std::u16string out;
    for (size_t i = 0; i < count; ++i) {
        if (i) out += u'.';
        out += parts[i];
    }
    return out;
}

std::u16string qualified(const std::u16string& parent, QPDFObjectHandle node) {
    if (!hasName(node)) return parent;
    auto t = textOf(node.getKey("/T"));
    return parent.empty() ? t : parent + u'.' + t;
}

// everySeen (when given) is cleared at a widget of the pages, or a field above one, that
// seen does not hold.
bool parentChainsWithinLimit(Document& doc, const std::set<QPDFObjGen>* seen = nullptr,
                             bool* everySeen = nullptr);

// A /Parent link given to a kid whose own is missing or broken (a field's widget, or a
// field, listed under a parent it does not point back to). In a damaged file such a link
// can make a chain of parents longer than a document may have when it opens, where the
// /Kids walked down and the /Parent links followed up disagree; the links are then taken
// back, so that what is saved opens again.
class MendedParents {
  public:
    explicit MendedParents(Document& doc) : doc_(doc) {}
    void link(QPDFObjectHandle kid, QPDFObjectHandle parent) {
        mended_.push_back({kid, kid.hasKey("/Parent") ? kid.getKey("/Parent")
                                                      : QPDFObjectHandle::newNull()});
        kid.replaceKey("/Parent", parent);
    }
    // Keeps the links if the chains stay within the limit, else takes them all back.
    void settle() {
        if (mended_.empty() || parentChainsWithinLimit(doc_)) return;
        for (auto& [kid, before] : mended_) {
            if (before.isNull()) {
                kid.removeKey("/Parent");
            } else {
                kid.replaceKey("/Parent", before);
            }
        }
        mended_.clear();
    }

  private:
    Document& doc_;
    std::vector<std::pair<QPDFObjectHandle, QPDFObjectHandle>> mended_;  // kid, before
};

// Walks the field tree below root (whose qualified name is name, at level of the tree),
// visiting each field node once, a node before its kids and the kids in their order. A
// field below level kMaxDepth: PD_ERR_TOO_DEEP, before it is visited. A kid whose /Parent
// is missing or broken gets the parent it is listed under (see MendedParents).
template <typename Visit>
void walkFields(Document& doc, QPDFObjectHandle root, std::u16string name, int level,
                std::set<QPDFObjGen>& seen, Visit& visit) {
    struct Pending {
        QPDFObjectHandle node;
        std::u16string name;
        int level;
    };
    MendedParents mended(doc);
    std::vector<Pending> pending;
    pending.push_back({std::move(root), std::move(name), level});
    std::vector<Pending> kids;
    try {
        while (!pending.empty()) {
            Pending p = std::move(pending.back());
            pending.pop_back();
            if (!p.node.isDictionary()) continue;
            if (p.node.isIndirect() && !seen.insert(p.node.getObjGen()).second) continue;
            bool terminal = isTerminal(p.node);
            visit(p.node, p.name, terminal);
            if (terminal) continue;
            kids.clear();
            for (auto& kid : p.node.getKey("/Kids").aitems()) {
                if (!kid.isDictionary()) continue;
                if (p.node.isIndirect() && fieldParent(kid).isNull()) mended.link(kid, p.node);
                if (isFieldKid(kid)) kids.push_back({kid, qualified(p.name, kid), p.level + 1});
            }
            if (!kids.empty() && p.level >= kMaxDepth) fail(PD_ERR_TOO_DEEP);
            pending.insert(pending.end(), std::make_move_iterator(kids.rbegin()),
                           std::make_move_iterator(kids.rend()));
        }
    } catch (...) {
        mended.settle();
        throw;
    }
    mended.settle();
}

}  // namespace

// Read only: unlike the walks that index the form, it repairs nothing, so that asking
// leaves the document as it was.
bool anySignedField(Document& doc) {
    if (!doc.signaturesPossible) return false;
    // ft and v: the values the node inherits, down the /Kids it was reached through.
    struct Pending {
        QPDFObjectHandle node, ft, v;
        int level;
    };
    std::set<QPDFObjGen> seen;
    std::vector<Pending> pending;
    for (auto& root : formRoots(doc)) {
        pending.push_back({root, inherited(root, "/FT"), inherited(root, "/V"), 1});
        while (!pending.empty()) {
            Pending p = std::move(pending.back());
            pending.pop_back();
            if (!p.node.isDictionary()) continue;
            if (p.node.isIndirect() && !seen.insert(p.node.getObjGen()).second) continue;
            if (p.node.hasKey("/FT")) p.ft = p.node.getKey("/FT");
            if (p.node.hasKey("/V")) p.v = p.node.getKey("/V");
            if (isTerminal(p.node)) {
                if (p.ft.isName() && p.ft.getName() == "/Sig" && p.v.isDictionary()) return true;
                continue;
            }
            for (auto& kid : p.node.getKey("/Kids").aitems()) {
                if (!kid.isDictionary() || !isFieldKid(kid)) continue;
                if (p.level >= kMaxDepth) fail(PD_ERR_TOO_DEEP);
                pending.push_back({kid, p.ft, p.v, p.level + 1});
            }
        }
    }
    return false;
}

void checkFormDepth(Document& doc) {
    // Down /Kids from the roots of /Fields, as the walks that index the form go. This reads
    // every field and widget of the form, each for the first time: their names and numbers
    // become shared values here (shareValues). A widget no field lists keeps its own.
    std::set<QPDFObjGen> seen;
    std::vector<std::pair<QPDFObjectHandle, int>> pending;
    bool valueDict = false;
    auto read = [&](QPDFObjectHandle node) {
        shareValues(doc, node);
        if (!valueDict) valueDict = node.getKey("/V").isDictionary();
    };
    auto form = acroForm(doc, false);
    if (form.isDictionary() && form.getKey("/Fields").isArray()) {
        for (auto& root : form.getKey("/Fields").aitems()) {
            pending.emplace_back(root, 1);
            if (!valueDict) valueDict = inherited(root, "/V").isDictionary();
        }
    }
    while (!pending.empty()) {
        auto [node, level] = std::move(pending.back());
        pending.pop_back();
        if (!node.isDictionary()) continue;
        if (node.isIndirect() && !seen.insert(node.getObjGen()).second) continue;
        read(node);
        auto kids = node.getKey("/Kids");
        if (!kids.isArray()) continue;
        for (auto& kid : kids.aitems()) {
            if (!isFieldKid(kid)) {
                // A widget, read just now.
                if (kid.isDictionary() &&
                    (!kid.isIndirect() || seen.insert(kid.getObjGen()).second))
                    read(kid);
                continue;
            }
            if (level >= kMaxDepth) fail(PD_ERR_TOO_DEEP);
            pending.emplace_back(kid, level + 1);
        }
    }
    // A widget of the pages that the walk down /Kids did not reach, or reached under
    // another field than its /Parent, may lie under fields it did not read.
    bool everyWidgetSeen = true;
    if (!parentChainsWithinLimit(doc, &seen, &everyWidgetSeen)) fail(PD_ERR_TOO_DEEP);
    doc.signaturesPossible = valueDict || !everyWidgetSeen;
}

namespace {

// Up /Parent from the widgets of the pages, as the search for roots that /Fields misses
// goes: whether at most kMaxDepth fields lie above each field (itself included), each
// counted once.
bool parentChainsWithinLimit(Document& doc, const std::set<QPDFObjGen>* seen, bool* everySeen) {
    std::map<QPDFObjGen, size_t> above;
    for (QPDFObjectHandle page : doc.qpdf->getAllPages()) {
        auto annots = page.getKey("/Annots");
        if (!annots.isArray()) continue;
        for (auto& annot : annots.aitems()) {
            if (!isWidget(annot)) continue;
            if (everySeen && (!annot.isIndirect() || !seen->count(annot.getObjGen())))
                *everySeen = false;
            std::vector<QPDFObjGen> path;
            std::set<QPDFObjGen> onPath;
            size_t known = 0;
            for (auto node = fieldParent(annot); node.isDictionary(); node = fieldParent(node)) {
                const QPDFObjGen og = node.getObjGen();
                if (node.isIndirect()) {
                    auto it = above.find(og);
                    if (it != above.end()) {
                        known = it->second;
                        break;
                    }
                    if (!onPath.insert(og).second) break;  // a loop: followed once
                }
                path.push_back(og);
                if (everySeen && !seen->count(og)) *everySeen = false;
                if (known + path.size() > static_cast<size_t>(kMaxDepth)) return false;
            }
            for (size_t i = 0; i < path.size(); ++i) {
                if (path[i].isIndirect()) above[path[i]] = known + path.size() - i;
            }
        }
    }
    return true;
}

}  // namespace

std::vector<QPDFObjectHandle> formRoots(Document& doc, size_t* listed) {
    std::vector<QPDFObjectHandle> roots;
    std::set<QPDFObjGen> known;
    auto form = acroForm(doc, false);
    if (form.isDictionary() && form.getKey("/Fields").isArray()) {
        for (auto& f : form.getKey("/Fields").aitems()) {
            // Some writers list the widgets of a field in /Fields as well.
            bool widgetOfAnother = !hasName(f) && isWidget(f) && fieldParent(f).isDictionary();
            if (f.isDictionary() && !widgetOfAnother) {
                roots.push_back(f);
                if (f.isIndirect()) known.insert(f.getObjGen());
            }
        }
    }
    if (listed) *listed = roots.size();
    flushAnnotLists(doc);
    for (auto page : doc.qpdf->getAllPages()) {
        auto annots = page.getKey("/Annots");
        if (!annots.isArray()) continue;
        for (auto& a : annots.aitems()) {
            if (!isWidget(a)) continue;
            // Most widgets are kids of a root that is known already.
            auto parent = fieldParent(a);
            if (parent.isIndirect() && known.count(parent.getObjGen()) &&
                !fieldParent(parent).isDictionary())
                continue;
            auto node = a;
            std::set<QPDFObjGen> chain;
            for (int d = 0; fieldParent(node).isDictionary(); ++d) {
                if (node.isIndirect() && !chain.insert(node.getObjGen()).second) break;
                if (d == kMaxDepth) fail(PD_ERR_TOO_DEEP);
                node = fieldParent(node);
            }
            if (!node.isIndirect() || !node.isDictionary()) continue;
            if (!hasName(node) && !node.getKey("/FT").isName() && !node.getKey("/Kids").isArray()) {
                continue;  // a widget with no field at all
            }
            if (known.insert(node.getObjGen()).second) roots.push_back(node);
        }
    }
    return roots;
}

namespace {

// One walk of the whole form; fills the name index, the list of terminal fields, or both.
void walkForm(Document& doc, bool names, bool terminals) {
    if (names) doc.nameIndex.clear();
    if (terminals) doc.terminalFields.clear();
    std::set<QPDFObjGen> seen;
    auto visit = [&](QPDFObjectHandle node, const std::u16string& name, bool terminal) {
        if (!node.isIndirect()) return;
        if (names && !name.empty()) doc.nameIndex.emplace(name, node.getObjGen());
        if (terminals && terminal) doc.terminalFields.push_back(node);
    };
    size_t listed = 0;
    auto roots = formRoots(doc, &listed);
    for (size_t i = 0; i < roots.size(); ++i) {
        if (i == listed && terminals) doc.listedTerminals = doc.terminalFields.size();
        walkFields(doc, roots[i], hasName(roots[i]) ? textOf(roots[i].getKey("/T")) : u"", 1, seen,
                   visit);
    }
    if (listed == roots.size() && terminals) doc.listedTerminals = doc.terminalFields.size();
    if (names) doc.nameIndexBuilt = true;
    if (terminals) doc.formChanged = false;
}

// The name index is built once and then kept up to date by every change of names.
void ensureIndex(Document& doc) {
    if (!doc.nameIndexBuilt) walkForm(doc, true, doc.formChanged);
}

// The list of terminal fields is rebuilt after any change of the tree.
void ensureTerminals(Document& doc) {
    if (!doc.nameIndexBuilt || doc.formChanged) walkForm(doc, !doc.nameIndexBuilt, true);
}

QPDFObjectHandle findByName(Document& doc, const std::u16string& name) {
    ensureIndex(doc);
    auto it = doc.nameIndex.find(name);
    if (it == doc.nameIndex.end()) return QPDFObjectHandle::newNull();
    auto obj = doc.qpdf->getObject(it->second);
    return obj.isDictionary() ? obj : QPDFObjectHandle::newNull();
}

// The array that holds node: its parent's /Kids, or /AcroForm /Fields for a root.
QPDFObjectHandle containerOf(Document& doc, QPDFObjectHandle node) {
    auto parent = fieldParent(node);
    if (parent.isDictionary()) return parent.getKey("/Kids");
    return acroForm(doc, true).getKey("/Fields");
}

void replaceIn(QPDFObjectHandle arr, QPDFObjGen og, QPDFObjectHandle with) {
    if (!arr.isArray()) return;
    int n = arr.getArrayNItems();
    for (int i = 0; i < n; ++i) {
        if (arr.getArrayItem(i).getObjGen() == og) {
            arr.setArrayItem(i, with);
            return;
        }
    }
    arr.appendItem(with);
}

void removeFrom(QPDFObjectHandle arr, QPDFObjGen og) {
    if (!arr.isArray()) return;
    for (int i = arr.getArrayNItems() - 1; i >= 0; --i) {
        if (arr.getArrayItem(i).getObjGen() == og) arr.eraseItem(i);
    }
}

// Splits a field that shares its dictionary with its widget: the field moves to a new
// object that takes the field keys and the widget as its one kid; the widget keeps its
// object (so page /Annots stay valid). Live field handles follow the field.
QPDFObjectHandle splitMerged(Document& doc, QPDFObjectHandle widget) {
    auto field = QPDFObjectHandle::newDictionary();
    for (const char* key : kFieldKeys) {
        if (widget.hasKey(key)) {
            field.replaceKey(key, widget.getKey(key));
            widget.removeKey(key);
        }
    }
    auto aa = widget.getKey("/AA");
    if (aa.isDictionary()) {
        auto fieldAA = QPDFObjectHandle::newDictionary();
        for (const char* key : kFieldTriggers) {
            if (aa.hasKey(key)) {
                fieldAA.replaceKey(key, aa.getKey(key));
                aa.removeKey(key);
            }
        }
        if (!fieldAA.getKeys().empty()) field.replaceKey("/AA", fieldAA);
        if (aa.getKeys().empty()) widget.removeKey("/AA");
    }
    auto parent = fieldParent(widget);
    if (parent.isDictionary()) field.replaceKey("/Parent", parent);
    field.replaceKey("/Kids", QPDFObjectHandle::newArray());
    field = makeIndirect(doc, field);
    field.getKey("/Kids").appendItem(widget);

    QPDFObjGen old = widget.getObjGen();
    if (parent.isDictionary()) {
        replaceIn(parent.getKey("/Kids"), old, field);
    } else {
        replaceIn(acroForm(doc, true).getKey("/Fields"), old, field);
    }
    widget.replaceKey("/Parent", field);
    // The calculation order lists fields, so it follows the field to its new object.
    auto form = acroForm(doc, false);
    if (form.isDictionary()) {
        auto order = form.getKey("/CO");
        if (order.isArray()) {
            int n = order.getArrayNItems();
            for (int i = 0; i < n; ++i) {
                if (order.getArrayItem(i).getObjGen() == old) order.setArrayItem(i, field);
            }
        }
    }
    rekeyHandle(doc, old, field, Kind::Field);
    if (doc.nameIndexBuilt) {
        auto it = doc.nameIndex.find(fullNameOf(field));
        if (it != doc.nameIndex.end() && it->second == old) it->second = field.getObjGen();
    }
    doc.formChanged = true;
    return field;
}

const char* typeName(PDAtom type) {
    switch (type) {
    case PD_ATOM_Btn: return "/Btn";
    case PD_ATOM_Ch: return "/Ch";
    case PD_ATOM_Tx: return "/Tx";
    case PD_ATOM_Sig: return "/Sig";
    default: return nullptr;
    }
}

std::u16string freshName(Document& doc, PDAtom type) {
    const char16_t* word = type == PD_ATOM_Btn  ? u"Button"
                           : type == PD_ATOM_Ch ? u"Choice"
                           : type == PD_ATOM_Tx ? u"Text"
                                                : u"Signature";
    ensureIndex(doc);
    for (;;) {
        std::u16string name = word + toU16(std::to_string(++doc.freshNameCounter));
        if (!doc.nameIndex.count(name)) return name;
    }
}

// Finds or makes the non-terminal parent of parts[0..count) and returns it (null for the
// form's root). A part that is a terminal field with a type cannot take kids.
QPDFObjectHandle parentFor(Document& doc, const std::vector<std::u16string>& parts,
                           size_t count, bool create) {
    QPDFObjectHandle parent = QPDFObjectHandle::newNull();
    for (size_t i = 1; i <= count; ++i) {
        auto name = join(parts, i);
        auto node = findByName(doc, name);
        if (node.isDictionary()) {
            if (isTerminal(node) && (node.getKey("/FT").isName() || isMerged(node))) {
                fail(PD_ERR_NAME_IN_USE);
            }
            parent = node;
            continue;
        }
        if (!create) return QPDFObjectHandle::newNull();
        auto made = QPDFObjectHandle::newDictionary();
        made.replaceKey("/T", textString(parts[i - 1]));
        made.replaceKey("/Kids", QPDFObjectHandle::newArray());
        if (parent.isDictionary()) made.replaceKey("/Parent", parent);
        made = makeIndirect(doc, made);
        containerOf(doc, made).appendItem(made);
        doc.nameIndex.emplace(name, made.getObjGen());
        parent = made;
    }
    return parent;
}

PDResult createField(PDDoc doc, std::u16string name, bool freshIfEmpty, PDAtom type,
                     uint32_t flags, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        collectWhenDue(d);
        checkOut(outField);
        const char* ft = typeName(type);
        if (!ft) fail(PD_ERR_BAD_ARGUMENT);
        if (name.empty()) {
            if (!freshIfEmpty) fail(PD_ERR_BAD_ARGUMENT);
            name = freshName(d, type);
        }
        auto parts = splitName(name);
        if (findByName(d, name).isDictionary()) fail(PD_ERR_NAME_IN_USE);
        auto parent = parentFor(d, parts, parts.size() - 1, true);
        auto field = QPDFObjectHandle::newDictionary();
        field.replaceKey("/FT", sharedName(d, ft));
        field.replaceKey("/T", textString(parts.back()));
        if (flags) field.replaceKey("/Ff", sharedInteger(d, flags));
        if (type == PD_ATOM_Tx || type == PD_ATOM_Ch) {
            field.replaceKey("/DA", sharedString(d, "/Helv 0 Tf 0 g"));
        }
        if (parent.isDictionary()) field.replaceKey("/Parent", parent);
        field = makeIndirect(d, field);
        containerOf(d, field).appendItem(field);
        d.nameIndex.emplace(name, field.getObjGen());
        d.fieldsMade.push_back(field.getObjGen());
        if (parent.isDictionary() || d.formChanged) {
            d.formChanged = true;
        } else {
            // The last of the listed roots: after their terminals, before the others'.
            d.terminalFields.insert(d.terminalFields.begin() + d.listedTerminals++, field);
        }
        *outField = handleFor(d, field, Kind::Field);
    });
}

PDHandleRec& checkedField(PDField h) { return checked(h, Kind::Field); }

// A terminal field of the given type (nullptr: any type).
PDHandleRec& checkedTyped(PDField h, const char* ft) {
    auto& f = checkedField(h);
    if (!isTerminal(f.obj)) fail(PD_ERR_FIELD_KIND);
    if (ft) {
        auto t = inherited(f.obj, "/FT");
        if (!t.isName() || t.getName() != ft) fail(PD_ERR_FIELD_KIND);
    }
    return f;
}

// A field that widgets may join: a terminal one, or one of a damaged tree that holds
// widgets of its own beside its field kids (they are its widgets: a widget taken out of it
// can go back).
PDHandleRec& checkedHolder(PDField h) {
    auto& f = checkedField(h);
    if (!isTerminal(f.obj) && widgetsOf(f.obj).empty()) fail(PD_ERR_FIELD_KIND);
    return f;
}

void eraseSubtreeNames(Document& doc, QPDFObjectHandle node, const std::u16string& name) {
    std::set<QPDFObjGen> seen;
    auto visit = [&](QPDFObjectHandle n, const std::u16string& nm, bool) {
        auto it = doc.nameIndex.find(nm);
        if (it != doc.nameIndex.end() && it->second == n.getObjGen()) doc.nameIndex.erase(it);
    };
    walkFields(doc, node, name, 1, seen, visit);
}

// node at level of the tree.
void addSubtreeNames(Document& doc, QPDFObjectHandle node, const std::u16string& name,
                     int level) {
    std::set<QPDFObjGen> seen;
    auto visit = [&](QPDFObjectHandle n, const std::u16string& nm, bool) {
        if (n.isIndirect() && !nm.empty()) doc.nameIndex[nm] = n.getObjGen();
    };
    walkFields(doc, node, name, level, seen, visit);
}

QPDFObjectHandle valueObject(QPDFObjectHandle field, const std::u16string& text) {
    auto ft = inherited(field, "/FT");
    if (ft.isName() && ft.getName() == "/Btn") {
        return QPDFObjectHandle::newName(buttonStateName(field, text));
    }
    return textString(text);
}

// The first value of /V or /DV; an array selecting nothing holds no value.
std::u16string firstValue(QPDFObjectHandle v) {
    if (v.isArray()) {
        for (auto& item : v.aitems()) {
            if (item.isString() || item.isName()) return textOf(item);
        }
        fail(PD_ERR_NO_VALUE);
    }
    return textOf(v);
}

QPDFObjectHandle optionAt(PDHandleRec& f, uint32_t index) {
    auto opt = inherited(f.obj, "/Opt");
    if (!opt.isArray() || index >= static_cast<uint32_t>(opt.getArrayNItems())) {
        fail(PD_ERR_RANGE);
    }
    return opt.getArrayItem(static_cast<int>(index));
}

// Whether widget, just put into a field, reads from it what it read from the field it was
// taken out of last: then its drawing shows the field's value already. (A drawing made
// since, or one still due, was made in its own right.)
bool drawsAsBefore(Document& doc, QPDFObjectHandle widget) {
    auto it = doc.detachedInputs.find(widget.getObjGen());
    if (it == doc.detachedInputs.end()) return false;
    const bool same = it->second == drawingInputs(widget);
    doc.detachedInputs.erase(it);
    return same;
}

}  // namespace

// ---- shared with the other sources ------------------------------------------------------

QPDFObjectHandle fieldOfWidget(QPDFObjectHandle widget) {
    if (!widget.isDictionary()) return QPDFObjectHandle::newNull();
    if (hasName(widget)) return widget;
    auto parent = fieldParent(widget);
    if (parent.isDictionary()) return parent;
    if (widget.getKey("/FT").isName()) return widget;
    return QPDFObjectHandle::newNull();
}

std::vector<QPDFObjectHandle> widgetsOf(QPDFObjectHandle field) {
    std::vector<QPDFObjectHandle> out;
    if (isMerged(field)) {
        out.push_back(field);
        return out;
    }
    auto kids = field.getKey("/Kids");
    if (!kids.isArray()) return out;
    for (auto& kid : kids.aitems()) {
        if (isWidget(kid) && !hasName(kid)) out.push_back(kid);
    }
    return out;
}

std::u16string fullNameOf(QPDFObjectHandle field) {
    std::vector<std::u16string> parts;
    std::set<QPDFObjGen> seen;
    for (int d = 0; field.isDictionary(); ++d) {
        if (field.isIndirect() && !seen.insert(field.getObjGen()).second) break;
        if (d == kMaxDepth) fail(PD_ERR_TOO_DEEP);
        if (hasName(field)) parts.push_back(textOf(field.getKey("/T")));
        field = fieldParent(field);
    }
    std::u16string out;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
        if (!out.empty()) out += u'.';
        out += *it;
    }
    return out;
}

UnusedFieldsDetached::UnusedFieldsDetached(Document& doc) {
    auto form = acroForm(doc, false);
    auto fields = form.isDictionary() ? form.getKey("/Fields") : QPDFObjectHandle::newNull();
    auto order = form.isDictionary() ? form.getKey("/CO") : QPDFObjectHandle::newNull();
    std::vector<QPDFObjectHandle> round;
    for (const auto& og : doc.emptiedFields) round.push_back(doc.qpdf->getObject(og));
    // Rounds up the tree: the fields of a round that hold no kids leave the arrays that
    // list them, each array rewritten once; their parents are looked at in the next
    // round, and go too when that left them without kids.
    std::set<QPDFObjGen> gone;
    while (!round.empty()) {
        // The array listing each field, by the object of its parent (none: /Fields).
        std::map<QPDFObjGen, std::pair<QPDFObjectHandle, std::set<QPDFObjGen>>> lists;
        for (auto& field : round) {
            if (!field.isDictionary() || !field.isIndirect() || isMerged(field)) continue;
            if (gone.count(field.getObjGen())) continue;
            auto kids = field.getKey("/Kids");
            if (kids.isArray() && kids.getArrayNItems() > 0) continue;
            auto parent = fieldParent(field);
            if (parent.isDictionary() && !parent.isIndirect()) continue;
            auto& entry = lists[parent.isDictionary() ? parent.getObjGen() : QPDFObjGen()];
            entry.first = parent.isDictionary() ? parent.getKey("/Kids") : fields;
            entry.second.insert(field.getObjGen());
        }
        round.clear();
        for (auto& [parentOg, entry] : lists) {
            const auto taken = detach(entry.first, entry.second);
            gone.insert(taken.begin(), taken.end());
            if (!taken.empty() && parentOg.isIndirect()) {
                round.push_back(doc.qpdf->getObject(parentOg));
            }
        }
    }
    if (!gone.empty()) detach(order, gone);
}

std::set<QPDFObjGen> UnusedFieldsDetached::detach(QPDFObjectHandle list,
                                                   const std::set<QPDFObjGen>& fields) {
    std::set<QPDFObjGen> taken;
    if (!list.isArray()) return taken;
    auto items = list.getArrayAsVector();
    std::vector<QPDFObjectHandle> kept;
    kept.reserve(items.size());
    for (auto& item : items) {
        if (item.isIndirect() && fields.count(item.getObjGen())) {
            taken.insert(item.getObjGen());
        } else {
            kept.push_back(item);
        }
    }
    if (!taken.empty()) {
        list.setArrayFromVector(kept);
        detached_.push_back({list, std::move(items)});
    }
    return taken;
}

void UnusedFieldsDetached::forget(const std::function<bool(QPDFObjGen)>& dead) {
    for (auto& d : detached_) {
        auto end = std::remove_if(d.items.begin(), d.items.end(), [&](const QPDFObjectHandle& item) {
            return item.isIndirect() && dead(item.getObjGen());
        });
        d.items.erase(end, d.items.end());
    }
}

UnusedFieldsDetached::~UnusedFieldsDetached() {
    for (auto it = detached_.rbegin(); it != detached_.rend(); ++it) {
        it->list.setArrayFromVector(it->items);
    }
}

// Adds widget to the terminal field (splitting a merged field first), before the widget
// that is at position index among the field's widgets; an index past the last widget
// appends. Used by PDFieldAppendWidget, PDFieldInsertWidget and the widget creators.
void attachWidget(Document& doc, PDHandleRec& field, QPDFObjectHandle widget,
                  size_t index = SIZE_MAX) {
    auto fieldObj = isMerged(field.obj) ? splitMerged(doc, field.obj) : field.obj;
    auto kids = fieldObj.getKey("/Kids");
    if (!kids.isArray()) {
        kids = QPDFObjectHandle::newArray();
        fieldObj.replaceKey("/Kids", kids);
    }
    // /Kids may hold entries that are not widgets of the field (damaged files): the
    // position counts widgets only.
    int at = kids.getArrayNItems();
    size_t seen = 0;
    for (int i = 0; i < kids.getArrayNItems(); ++i) {
        auto kid = kids.getArrayItem(i);
        if (!isWidget(kid) || hasName(kid)) continue;
        if (seen++ == index) {
            at = i;
            break;
        }
    }
    kids.insertItem(at, widget);
    widget.replaceKey("/Parent", fieldObj);
}

}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDDocCreateField(PDDoc doc, const char16_t* name, uint32_t nameLen, PDAtom type,
                          uint32_t flags, PDField* outField) {
    if (outField) *outField = nullptr;
    std::u16string n;
    PDResult r = guard([&] { n = textArg(name, nameLen); });
    if (r != PD_OK) return r;
    return createField(doc, n, false, type, flags, outField);
}

#define PD_TYPED_CREATE(Func, Atom)                                                          \
    PDResult Func(PDDoc doc, const char16_t* name, uint32_t nameLen, uint32_t flags,        \
                  PDField* outField) {                                                       \
        if (outField) *outField = nullptr;                                                   \
        std::u16string n;                                                                    \
        PDResult r = guard([&] { n = textArg(name, nameLen); });                            \
        if (r != PD_OK) return r;                                                            \
        return createField(doc, n, true, Atom, flags, outField);                            \
    }
PD_TYPED_CREATE(PDCreateButtonField, PD_ATOM_Btn)
PD_TYPED_CREATE(PDCreateTextField, PD_ATOM_Tx)
PD_TYPED_CREATE(PDCreateChoiceField, PD_ATOM_Ch)
#undef PD_TYPED_CREATE

PDResult PDCreateSignField(PDDoc doc, uint32_t flags, PDField* outField) {
    return createField(doc, {}, true, PD_ATOM_Sig, flags, outField);
}

PDResult PDDocFindField(PDDoc doc, const char16_t* name, uint32_t nameLen, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outField);
        auto n = textArg(name, nameLen);
        if (n.empty()) fail(PD_ERR_BAD_ARGUMENT);
        auto field = findByName(d, n);
        if (field.isDictionary()) *outField = handleFor(d, field, Kind::Field);
    });
}

PDResult PDDocRenameField(PDDoc doc, PDField field, const char16_t* name, uint32_t nameLen) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        auto& f = checkedField(field);
        sameDoc(d.self, f);
        auto n = textArg(name, nameLen);
        if (n.empty()) fail(PD_ERR_BAD_ARGUMENT);
        auto parts = splitName(n);
        ensureIndex(d);
        auto oldName = fullNameOf(f.obj);
        if (oldName == n) return;
        auto existing = findByName(d, n);
        if (existing.isDictionary()) fail(PD_ERR_NAME_IN_USE);
        // The new parent chain must not run through the field itself or its subtree.
        for (size_t i = 1; i < parts.size(); ++i) {
            auto prefix = join(parts, i);
            if (prefix == oldName || prefix.rfind(oldName + u'.', 0) == 0) {
                fail(PD_ERR_BAD_NAME);
            }
        }
        auto newParent = parentFor(d, parts, parts.size() - 1, false);
        bool parentExists = parts.size() == 1 || newParent.isDictionary();
        auto oldParent = fieldParent(f.obj);
        bool sameParent =
            parentExists && ((parts.size() == 1 && !oldParent.isDictionary()) ||
                             (newParent.isDictionary() && oldParent.isDictionary() &&
                              newParent.getObjGen() == oldParent.getObjGen()));
        const int level = static_cast<int>(parts.size());
        if (!sameParent) {
            // The subtree keeps its shape under its new parent: one that would then reach
            // deeper than a tree may is refused before anything changes.
            std::set<QPDFObjGen> seen;
            auto none = [](QPDFObjectHandle, const std::u16string&, bool) {};
            walkFields(d, f.obj, n, level, seen, none);
        }
        eraseSubtreeNames(d, f.obj, oldName);
        if (!sameParent) {
            if (!parentExists) newParent = parentFor(d, parts, parts.size() - 1, true);
            const QPDFObjGen og = f.obj.getObjGen();
            auto ownerOf = [](QPDFObjectHandle parent) {
                return parent.isDictionary() ? parent.getObjGen() : QPDFObjGen();
            };
            auto from = containerOf(d, f.obj);
            Document::FieldPlace left{ownerOf(oldParent), QPDFObjGen()};
            if (from.isArray()) {
                const int n = from.getArrayNItems();
                for (int i = 0; i + 1 < n; ++i) {
                    if (from.getArrayItem(i).getObjGen() == og) {
                        left.next = from.getArrayItem(i + 1).getObjGen();
                        break;
                    }
                }
            }
            removeFrom(from, og);
            if (newParent.isDictionary()) {
                f.obj.replaceKey("/Parent", newParent);
            } else {
                f.obj.removeKey("/Parent");
            }
            // Back under the parent it was taken from: before the sibling it preceded.
            auto to = containerOf(d, f.obj);
            int at = -1;
            auto former = d.formerFieldPlaces.find(og);
            if (former != d.formerFieldPlaces.end() && former->second.owner == ownerOf(newParent) &&
                to.isArray()) {
                const int n = to.getArrayNItems();
                for (int i = 0; i < n && at < 0; ++i) {
                    if (to.getArrayItem(i).getObjGen() == former->second.next) at = i;
                }
            }
            if (at >= 0) {
                to.insertItem(at, f.obj);
            } else {
                to.appendItem(f.obj);
            }
            d.formerFieldPlaces[og] = left;
            d.formChanged = true;
        }
        // Under the same parent the field keeps its place in the tree, and so in the list
        // of terminal fields.
        f.obj.replaceKey("/T", textString(parts.back()));
        addSubtreeNames(d, f.obj, n, level);
    });
}

PDResult PDDocGetNumFields(PDDoc doc, uint32_t* outCount) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outCount);
        ensureTerminals(d);
        *outCount = static_cast<uint32_t>(d.terminalFields.size());
    });
}

PDResult PDDocGetField(PDDoc doc, uint32_t index, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outField);
        ensureTerminals(d);
        if (index >= d.terminalFields.size()) fail(PD_ERR_RANGE);
        *outField = handleFor(d, d.terminalFields[index], Kind::Field);
    });
}

PDResult PDDocGetNumFieldsMade(PDDoc doc, uint32_t* outCount) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(d.fieldsMade.size());
    });
}

PDResult PDDocGetFieldMade(PDDoc doc, uint32_t index, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outField);
        if (index >= d.fieldsMade.size()) fail(PD_ERR_RANGE);
        const QPDFObjGen og = d.fieldsMade[index];
        if (og.getObj() == 0) return;
        *outField = handleFor(d, d.qpdf->getObject(og), Kind::Field);
    });
}

PDResult PDFieldGetName(PDField field, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] { value = textOf(checkedField(field).obj.getKey("/T")); });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDFieldGetFullName(PDField field, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] { value = fullNameOf(checkedField(field).obj); });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDFieldGetType(PDField field, PDAtom* outType) {
    return guard([&] {
        auto& f = checkedField(field);
        checkOut(outType);
        auto ft = inherited(f.obj, "/FT");
        if (!ft.isName()) fail(PD_ERR_NO_VALUE);
        *outType = atomOf(ft.getName().substr(1));
    });
}

PDResult PDFieldGetFlags(PDField field, uint32_t* outFlags) {
    return guard([&] {
        auto& f = checkedField(field);
        checkOut(outFlags);
        auto ff = inherited(f.obj, "/Ff");
        *outFlags = ff.isInteger() ? static_cast<uint32_t>(ff.getIntValue()) : 0;
    });
}

PDResult PDFieldSetFlags(PDField field, uint32_t flags) {
    return guard([&] {
        auto& f = checkedField(field);
        f.obj.replaceKey("/Ff", QPDFObjectHandle::newInteger(flags));
        // A button's flags say which kind of button it is; a text or choice field's say
        // how its text is laid out.
        auto ft = inherited(f.obj, "/FT");
        bool button = ft.isName() && ft.getName() == "/Btn";
        if (isTerminal(f.obj))
            regenerateField(*f.doc, f.obj, button ? Redraw::kAll : Redraw::kText);
    });
}

PDResult PDFieldGetUIName(PDField field, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto tu = checkedField(field).obj.getKey("/TU");
        if (!tu.isString()) fail(PD_ERR_NO_VALUE);
        value = textOf(tu);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDFieldSetUIName(PDField field, const char16_t* text, uint32_t len) {
    return guard([&] {
        auto& f = checkedField(field);
        auto t = textArg(text, len);
        if (t.empty()) {
            f.obj.removeKey("/TU");
        } else {
            f.obj.replaceKey("/TU", textString(t));
        }
    });
}

static PDResult getValue(PDField field, const char* key, char16_t* buf, uint32_t bufLen,
                         uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto v = inherited(checkedField(field).obj, key);
        if (!(v.isString() || v.isName() || v.isArray() || v.isStream())) fail(PD_ERR_NO_VALUE);
        value = firstValue(v);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDFieldGetValue(PDField field, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    return getValue(field, "/V", buf, bufLen, outLen);
}

PDResult PDFieldGetDefaultValue(PDField field, char16_t* buf, uint32_t bufLen,
                                uint32_t* outLen) {
    return getValue(field, "/DV", buf, bufLen, outLen);
}

PDResult PDFieldSetValue(PDField field, const char16_t* text, uint32_t len) {
    return guard([&] {
        auto& f = checkedTyped(field, nullptr);
        auto t = textArg(text, len);
        auto ft = inherited(f.obj, "/FT");
        if (ft.isName() && ft.getName() == "/Sig") fail(PD_ERR_FIELD_KIND);
        if (t.empty()) {
            f.obj.removeKey("/V");
        } else {
            f.obj.replaceKey("/V", valueObject(f.obj, t));
        }
        if (ft.isName() && ft.getName() == "/Ch") {
            f.obj.removeKey("/I");
            auto opt = inherited(f.obj, "/Opt");
            if (opt.isArray() && !t.empty()) {
                int n = opt.getArrayNItems();
                for (int i = 0; i < n; ++i) {
                    auto o = opt.getArrayItem(i);
                    auto exportValue = o.isArray() ? o.getArrayItem(0) : o;
                    if (textOf(exportValue) == t) {
                        auto sel = QPDFObjectHandle::newArray();
                        sel.appendItem(QPDFObjectHandle::newInteger(i));
                        f.obj.replaceKey("/I", sel);
                        break;
                    }
                }
            }
        }
        regenerateField(*f.doc, f.obj, Redraw::kValue);
    });
}

PDResult PDFieldSetDefaultValue(PDField field, const char16_t* text, uint32_t len) {
    return guard([&] {
        auto& f = checkedTyped(field, nullptr);
        auto t = textArg(text, len);
        if (t.empty()) {
            f.obj.removeKey("/DV");
        } else {
            f.obj.replaceKey("/DV", valueObject(f.obj, t));
        }
    });
}

PDResult PDFieldGetNumWidgets(PDField field, uint32_t* outCount) {
    return guard([&] {
        auto& f = checkedField(field);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(widgetsOf(f.obj).size());
    });
}

PDResult PDFieldGetWidget(PDField field, uint32_t index, PDAnnot* outWidget) {
    if (outWidget) *outWidget = nullptr;
    return guard([&] {
        auto& f = checkedField(field);
        checkOut(outWidget);
        auto widgets = widgetsOf(f.obj);
        if (index >= widgets.size()) fail(PD_ERR_RANGE);
        auto w = widgets[index];
        if (!w.isIndirect()) fail(PD_ERR_DAMAGED);
        if (w.getObjGen() != f.obj.getObjGen() && fieldParent(w).isNull()) {
            MendedParents mended(*f.doc);
            mended.link(w, f.obj);
            mended.settle();
        }
        *outWidget = handleFor(*f.doc, w, Kind::Annot);
    });
}

PDResult PDFieldAppendWidget(PDField field, PDAnnot widget) {
    return guard([&] {
        auto& f = checkedHolder(field);
        auto& w = checkedWidget(widget);
        sameDoc(f, w);
        if (fieldOfWidget(w.obj).isDictionary()) fail(PD_ERR_ALREADY);
        attachWidget(*f.doc, f, w.obj);
        if (!drawsAsBefore(*f.doc, w.obj)) regenerateAppearance(*f.doc, w.obj, Redraw::kValue);
    });
}

PDResult PDFieldInsertWidget(PDField field, uint32_t index, PDAnnot widget) {
    return guard([&] {
        auto& f = checkedHolder(field);
        auto& w = checkedWidget(widget);
        sameDoc(f, w);
        if (fieldOfWidget(w.obj).isDictionary()) fail(PD_ERR_ALREADY);
        if (index > widgetsOf(f.obj).size()) fail(PD_ERR_RANGE);
        attachWidget(*f.doc, f, w.obj, index);
        if (!drawsAsBefore(*f.doc, w.obj)) regenerateAppearance(*f.doc, w.obj, Redraw::kValue);
    });
}

PDResult PDFieldGetWidgetIndex(PDField field, PDAnnot widget, uint32_t* outIndex) {
    return guard([&] {
        auto& f = checkedField(field);
        auto& w = checkedWidget(widget);
        sameDoc(f, w);
        checkOut(outIndex);
        auto widgets = widgetsOf(f.obj);
        for (size_t i = 0; i < widgets.size(); ++i) {
            if (widgets[i].getObjGen() == w.obj.getObjGen()) {
                *outIndex = static_cast<uint32_t>(i);
                return;
            }
        }
        fail(PD_ERR_NOT_KID);
    });
}

PDResult PDFieldRemoveWidget(PDField field, PDAnnot widget) {
    return guard([&] {
        auto& f = checkedField(field);
        auto& w = checkedWidget(widget);
        sameDoc(f, w);
        auto owner = fieldOfWidget(w.obj);
        if (!owner.isDictionary() || owner.getObjGen() != f.obj.getObjGen()) {
            fail(PD_ERR_NOT_KID);
        }
        // A merged field moves to a new object here (its handles follow it).
        auto fieldObj = isMerged(f.obj) ? splitMerged(*f.doc, f.obj) : f.obj;
        if (!f.doc->staleAppearances.count(w.obj.getObjGen()))
            f.doc->detachedInputs[w.obj.getObjGen()] = drawingInputs(w.obj);
        auto kids = fieldObj.getKey("/Kids");
        removeFrom(kids, w.obj.getObjGen());
        if (kids.isArray() && kids.getArrayNItems() == 0) fieldObj.removeKey("/Kids");
        // The text style and alignment the field gave the widget become its own: it draws
        // the same in the field it joins next, which may have none (a rename's new field).
        for (const char* key : {"/DA", "/Q"}) {
            if (w.obj.hasKey(key)) continue;
            QPDFObjectHandle given = inherited(fieldObj, key);
            if (given.isString())
                w.obj.replaceKey(key, QPDFObjectHandle::newString(given.getStringValue()));
            else if (given.isInteger())
                w.obj.replaceKey(key, QPDFObjectHandle::newInteger(given.getIntValue()));
        }
        w.obj.removeKey("/Parent");
        // Some writers repeat the field type on each widget; left there, it would make the
        // widget a field of its own, and of the wrong type for a field it joins later.
        w.obj.removeKey("/FT");
        // The widget is garbage once it leaves its page too (PDPageRemoveAnnot counts it);
        // moved to another field, as a rename does, it is not. An emptied field is.
        if (widgetsOf(fieldObj).empty()) {
            f.doc->emptiedFields.insert(fieldObj.getObjGen());
            f.doc->garbageOutlook += kOutlookPerObject;
        }
    });
}

PDResult PDFieldUpdateWidgets(PDField field) {
    return guard([&] {
        auto& f = checkedTyped(field, nullptr);
        regenerateField(*f.doc, f.obj, Redraw::kText);
    });
}

PDResult PDTextFieldGetMaxLen(PDField field, uint32_t* outMaxLen) {
    return guard([&] {
        auto& f = checkedTyped(field, "/Tx");
        checkOut(outMaxLen);
        auto m = inherited(f.obj, "/MaxLen");
        *outMaxLen = m.isInteger() && m.getIntValue() > 0 ? static_cast<uint32_t>(m.getIntValue())
                                                           : 0;
    });
}

PDResult PDTextFieldSetMaxLen(PDField field, uint32_t maxLen) {
    return guard([&] {
        auto& f = checkedTyped(field, "/Tx");
        if (maxLen == 0) {
            f.obj.removeKey("/MaxLen");
        } else {
            f.obj.replaceKey("/MaxLen", QPDFObjectHandle::newInteger(maxLen));
        }
        regenerateField(*f.doc, f.obj, Redraw::kText);
    });
}

PDResult PDChoiceFieldGetNumOptions(PDField field, uint32_t* outCount) {
    return guard([&] {
        auto& f = checkedTyped(field, "/Ch");
        checkOut(outCount);
        auto opt = inherited(f.obj, "/Opt");
        *outCount = opt.isArray() ? static_cast<uint32_t>(opt.getArrayNItems()) : 0;
    });
}

PDResult PDChoiceFieldGetOptionValue(PDField field, uint32_t index, char16_t* buf,
                                     uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto o = optionAt(checkedTyped(field, "/Ch"), index);
        value = textOf(o.isArray() ? o.getArrayItem(1) : o);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDChoiceFieldGetOptionExportValue(PDField field, uint32_t index, char16_t* buf,
                                           uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto o = optionAt(checkedTyped(field, "/Ch"), index);
        value = textOf(o.isArray() ? o.getArrayItem(0) : o);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDChoiceFieldInsertOption(PDField field, uint32_t index, const char16_t* display,
                                   uint32_t displayLen, const char16_t* exportValue,
                                   uint32_t exportLen) {
    return guard([&] {
        auto& f = checkedTyped(field, "/Ch");
        auto shown = textArg(display, displayLen);
        auto exported = textArg(exportValue, exportLen);
        auto opt = f.obj.getKey("/Opt");
        if (!opt.isArray()) {
            // An inherited list is copied down before it is changed.
            auto from = inherited(f.obj, "/Opt");
            opt = from.isArray() ? from.shallowCopy() : QPDFObjectHandle::newArray();
            f.obj.replaceKey("/Opt", opt);
        }
        if (index > static_cast<uint32_t>(opt.getArrayNItems())) fail(PD_ERR_RANGE);
        QPDFObjectHandle item;
        if (exported.empty() || exported == shown) {
            item = textString(shown);
        } else {
            item = QPDFObjectHandle::newArray();
            item.appendItem(textString(exported));
            item.appendItem(textString(shown));
        }
        opt.insertItem(static_cast<int>(index), item);
    });
}

PDResult PDChoiceFieldRemoveAllOptions(PDField field) {
    return guard([&] {
        auto& f = checkedTyped(field, "/Ch");
        f.obj.removeKey("/Opt");
        f.obj.removeKey("/I");
    });
}

// ---- widget creation and parent -------------------------------------------------------

static PDResult createWidget(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                             const char* ft, PDAnnot* outWidget) {
    if (outWidget) *outWidget = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        collectWhenDue(d);
        auto& f = checkedTyped(field, ft);
        sameDoc(d.self, f);
        PDHandleRec* p = page ? &checked(page, Kind::Page) : nullptr;
        if (p) sameDoc(d.self, *p);
        checkOut(outWidget);
        if (!rect || !std::isfinite(rect->left) || !std::isfinite(rect->right) ||
            !std::isfinite(rect->top) || !std::isfinite(rect->bottom)) {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        auto w = QPDFObjectHandle::newDictionary();
        w.replaceKey("/Type", sharedName(d, "/Annot"));
        w.replaceKey("/Subtype", sharedName(d, "/Widget"));
        // As qpdf writes the numbers of a QPDFObjectHandle::Rectangle.
        auto coordinate = [&](double v) { return sharedReal(d, QUtil::double_to_string(v)); };
        w.replaceKey("/Rect", QPDFObjectHandle::newArray(
                                  {coordinate(std::min(rect->left, rect->right)),
                                   coordinate(std::min(rect->top, rect->bottom)),
                                   coordinate(std::max(rect->left, rect->right)),
                                   coordinate(std::max(rect->top, rect->bottom))}));
        w.replaceKey("/F", sharedInteger(d, PD_ANNOT_PRINT));
        if (p) w.replaceKey("/P", p->obj);
        auto mk = QPDFObjectHandle::newDictionary();
        mk.replaceKey("/BC", QPDFObjectHandle::newArray(
                                 {sharedInteger(d, 0), sharedInteger(d, 0), sharedInteger(d, 0)}));
        auto bs = QPDFObjectHandle::newDictionary();
        bs.replaceKey("/W", sharedInteger(d, 1));
        bs.replaceKey("/S", sharedName(d, "/S"));
        w.replaceKey("/BS", bs);
        uint32_t flags = 0;
        auto ff = inherited(f.obj, "/Ff");
        if (ff.isInteger()) flags = static_cast<uint32_t>(ff.getIntValue());
        bool isButton = std::string(ft) == "/Btn";
        if (isButton && !(flags & PD_FIELD_PUSHBUTTON)) {
            bool radio = flags & PD_FIELD_RADIO;
            mk.replaceKey("/CA", sharedString(d, radio ? "l" : "4"));
            // The appearance names the on state "Yes"; /AS follows the field value.
            w.replaceKey("/AS", sharedName(d, "/Off"));
        } else if (isButton) {
            mk.replaceKey("/BG", QPDFObjectHandle::parse("[0.75 0.75 0.75]"));
        }
        w.replaceKey("/MK", mk);
        w = makeIndirect(d, w);
        attachWidget(d, f, w);
        regenerateAppearance(d, w, Redraw::kAll);
        *outWidget = handleFor(d, w, Kind::Annot);
    });
}

PDResult PDCreateButtonWidgetAnnot(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                                   PDAnnot* outWidget) {
    return createWidget(doc, field, page, rect, "/Btn", outWidget);
}
PDResult PDCreateTextWidgetAnnot(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                                 PDAnnot* outWidget) {
    return createWidget(doc, field, page, rect, "/Tx", outWidget);
}
PDResult PDCreateChoiceWidgetAnnot(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                                   PDAnnot* outWidget) {
    return createWidget(doc, field, page, rect, "/Ch", outWidget);
}
PDResult PDCreateSignWidgetAnnot(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                                 PDAnnot* outWidget) {
    return createWidget(doc, field, page, rect, "/Sig", outWidget);
}

PDResult PDWidgetAnnotGetParent(PDAnnot widget, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        auto& w = checkedWidget(widget);
        checkOut(outField);
        auto f = fieldOfWidget(w.obj);
        if (f.isDictionary() && f.isIndirect()) *outField = handleFor(*w.doc, f, Kind::Field);
    });
}

}  // extern "C"
