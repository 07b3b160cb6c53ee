// Actions: making the action types that forms use, reading and changing them, their /Next
// chains, and the trigger actions of widgets (/AA, a button's /A) and fields (/AA, with the
// form's calculation order). New actions are indirect objects so that several triggers and
// /Next entries can share one.
#include "Core.h"

#include <qpdf/QPDFNameTreeObjectHelper.hh>
#include <set>

namespace pdfcore {
namespace {

// Holds one reference to a handle made through the public calls.
struct Release {
    void operator()(PDHandleRec* h) const { PDHandleRelease(h); }
};
using Held = std::unique_ptr<PDHandleRec, Release>;

void check(PDResult r) {
    if (r != PD_OK) fail(r);
}

std::string nameOf(QPDFObjectHandle obj) {
    return obj.isName() ? obj.getName() : std::string();
}

// An entry of obj when it is a dictionary; null otherwise (damaged files put other
// objects where dictionaries belong).
QPDFObjectHandle entry(QPDFObjectHandle obj, const char* key) {
    return obj.isDictionary() ? obj.getKey(key) : QPDFObjectHandle::newNull();
}

// An action handle; with type, one whose /S is that type (else PD_ERR_WRONG_HANDLE).
PDHandleRec& checkedAction(PDAction h, const char* type = nullptr) {
    auto& a = checked(h, Kind::Action);
    if (!a.obj.isDictionary()) fail(PD_ERR_WRONG_HANDLE);
    if (type && nameOf(a.obj.getKey("/S")) != type) fail(PD_ERR_WRONG_HANDLE);
    return a;
}

// A handle that stands for a plain PDF object: Kind::Object and the roles after it.
PDHandleRec& checkedObject(PDHandle h) {
    if (!h) fail(PD_ERR_MISSING_OBJECT);
    if (h->magic != PDHandleRec::kMagic || h->kind < Kind::Object) fail(PD_ERR_WRONG_HANDLE);
    return *h;
}

// Identity of objects: indirect ones by number, direct ones by their shared storage.
bool sameObject(QPDFObjectHandle a, QPDFObjectHandle b) {
    if (a.isIndirect() || b.isIndirect()) {
        return a.isIndirect() && b.isIndirect() && a.getObjGen() == b.getObjGen();
    }
    return a.isSameObjectAs(b);
}

// A destination to store in an action: an indirect one by reference, a direct array or
// dictionary as a copy of its own (no setter changes destinations in place).
QPDFObjectHandle storable(QPDFObjectHandle obj) {
    if (obj.isIndirect() || !(obj.isArray() || obj.isDictionary())) return obj;
    return obj.shallowCopy();
}

// The dictionaries of /Next: a single action or an array of them.
std::vector<QPDFObjectHandle> nextActions(QPDFObjectHandle action) {
    std::vector<QPDFObjectHandle> out;
    auto next = action.getKey("/Next");
    if (next.isDictionary()) {
        out.push_back(next);
    } else if (next.isArray()) {
        for (auto& item : next.aitems()) {
            if (item.isDictionary()) out.push_back(item);
        }
    }
    return out;
}

// Whether target is the action from, or one of the actions that follow it through /Next.
bool chainReaches(QPDFObjectHandle from, QPDFObjectHandle target) {
    std::vector<QPDFObjectHandle> todo{from};
    std::set<QPDFObjGen> seen;
    for (size_t steps = 0; !todo.empty(); ++steps) {
        if (steps > 100000) return true; // a chain no one can run; refuse to extend it
        auto action = todo.back();
        todo.pop_back();
        if (sameObject(action, target)) return true;
        if (action.isIndirect() && !seen.insert(action.getObjGen()).second) continue;
        for (auto& next : nextActions(action))
            todo.push_back(next);
    }
    return false;
}

// ---- destinations --------------------------------------------------------------------

// The destination that a name or string stands for, through the catalog's /Dests (names,
// the older form) and the /Dests name tree of /Names (strings); either key form is tried
// in both. The explicit array, or null when the name is not defined.
QPDFObjectHandle namedDest(Document& doc, QPDFObjectHandle name) {
    std::string key = name.isName() ? name.getName().substr(1) : name.getUTF8Value();
    auto root = doc.qpdf->getRoot();
    QPDFObjectHandle found = QPDFObjectHandle::newNull();
    auto dests = entry(root, "/Dests");
    if (dests.isDictionary() && dests.hasKey("/" + key)) found = dests.getKey("/" + key);
    auto tree = entry(entry(root, "/Names"), "/Dests");
    if (found.isNull() && tree.isDictionary()) {
        try {
            QPDFNameTreeObjectHelper names(tree, *doc.qpdf, false);
            QPDFObjectHandle value;
            if (names.findObject(key, value)) found = value;
        } catch (const std::exception&) {
            // A broken tree defines nothing.
        }
    }
    if (found.isDictionary()) found = found.getKey("/D");
    return found.isArray() ? found : QPDFObjectHandle::newNull();
}

// The destination /D of an action as it is handed out: an explicit array, a destination
// dictionary unwrapped, a name resolved when resolveNames is set (a name that resolves to
// nothing stays, and names no page). Null for values that are no destination.
QPDFObjectHandle destToHandOut(Document& doc, QPDFObjectHandle d, bool resolveNames) {
    if (d.isDictionary()) d = d.getKey("/D");
    if (d.isArray()) return d;
    if (d.isName() || d.isString()) {
        if (!resolveNames) return d;
        auto resolved = namedDest(doc, d);
        return resolved.isArray() ? resolved : d;
    }
    return QPDFObjectHandle::newNull();
}

// A destination for another document (GoToE): pages are given by number there, so a page
// of this document is written as its index.
QPDFObjectHandle remoteDest(Document& doc, QPDFObjectHandle dest) {
    auto arr = dest.isDictionary() ? dest.getKey("/D") : dest;
    if (!arr.isArray() || arr.getArrayNItems() == 0) return storable(dest);
    auto page = arr.getArrayItem(0);
    if (!page.isDictionary() || !page.isIndirect()) return storable(dest);
    int index = -1;
    try {
        index = doc.qpdf->findPage(page.getObjGen());
    } catch (const std::exception&) {
        return storable(dest); // not a page of this document
    }
    auto copy = arr.shallowCopy();
    copy.setArrayItem(0, QPDFObjectHandle::newInteger(index));
    return copy;
}

// ---- per-type helpers ------------------------------------------------------------------

// The targets of a Hide action: /T holds one or an array of field names and annotations.
std::vector<QPDFObjectHandle> hideItems(QPDFObjectHandle action) {
    std::vector<QPDFObjectHandle> out;
    auto take = [&](QPDFObjectHandle item) {
        if (item.isString() || item.isDictionary()) out.push_back(item);
    };
    auto t = action.getKey("/T");
    if (t.isArray()) {
        for (auto& item : t.aitems())
            take(item);
    } else {
        take(t);
    }
    return out;
}

QPDFObjectHandle hideItem(PDAction action, uint32_t index) {
    auto items = hideItems(checkedAction(action, "/Hide").obj);
    if (index >= items.size()) fail(PD_ERR_RANGE);
    return items[index];
}

PDResult getFlags(PDAction action, const char* type, uint32_t* outFlags) {
    return guard([&] {
        auto& a = checkedAction(action, type);
        checkOut(outFlags);
        auto f = a.obj.getKey("/Flags");
        *outFlags = f.isInteger() ? static_cast<uint32_t>(f.getIntValue()) : 0;
    });
}

PDResult setFlags(PDAction action, const char* type, uint32_t flags) {
    return guard([&] {
        auto& a = checkedAction(action, type);
        if (flags == 0) {
            a.obj.removeKey("/Flags");
        } else {
            a.obj.replaceKey("/Flags", QPDFObjectHandle::newInteger(flags));
        }
    });
}

// The live /Fields array, so that fields added through the handle go into the action; a
// new empty list when there is none.
PDResult getFieldsData(PDAction action, const char* type, PDActionFieldsData* outData) {
    if (outData) *outData = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, type);
        checkOut(outData);
        auto fields = a.obj.getKey("/Fields");
        if (!fields.isArray()) fields = QPDFObjectHandle::newArray();
        *outData = anyHandle(*a.doc, fields, Kind::FieldsData);
    });
}

PDResult setFieldsData(PDAction action, const char* type, PDActionFieldsData data) {
    return guard([&] {
        auto& a = checkedAction(action, type);
        std::vector<QPDFObjectHandle> items;
        if (data) {
            auto& d = checked(data, Kind::FieldsData);
            sameDoc(a, d);
            if (d.obj.isArray()) items = d.obj.getArrayAsVector();
        }
        if (items.empty()) {
            a.obj.removeKey("/Fields");
        } else {
            a.obj.replaceKey("/Fields", QPDFObjectHandle::newArray(items));
        }
    });
}

// ---- triggers --------------------------------------------------------------------------

// The value to store for an action argument of a trigger setter: null for NULL.
QPDFObjectHandle actionValue(const PDHandleRec& owner, PDAction action) {
    if (!action) return QPDFObjectHandle::newNull();
    auto& a = checkedAction(action);
    sameDoc(owner, a);
    return a.obj;
}

void handOutAction(Document& doc, QPDFObjectHandle value, PDAction* outAction) {
    if (value.isDictionary()) *outAction = anyHandle(doc, value, Kind::Action);
}

QPDFObjectHandle triggerOf(QPDFObjectHandle owner, const char* key) {
    return entry(entry(owner, "/AA"), key);
}

// Sets or (for a null value) removes one entry of owner's /AA; an /AA left empty goes.
void setTrigger(QPDFObjectHandle owner, const char* key, QPDFObjectHandle value) {
    auto aa = owner.getKey("/AA");
    if (value.isNull()) {
        if (!aa.isDictionary()) return;
        aa.removeKey(key);
        if (aa.getKeys().empty()) owner.removeKey("/AA");
        return;
    }
    if (!aa.isDictionary()) {
        aa = QPDFObjectHandle::newDictionary();
        owner.replaceKey("/AA", aa);
    }
    aa.replaceKey(key, value);
}

PDResult getWidgetTrigger(PDAnnot widget, const char* key, PDAction* outAction) {
    if (outAction) *outAction = nullptr;
    return guard([&] {
        auto& w = checkedWidget(widget);
        checkOut(outAction);
        handOutAction(*w.doc, triggerOf(w.obj, key), outAction);
    });
}

PDResult setWidgetTrigger(PDAnnot widget, const char* key, PDAction action) {
    return guard([&] {
        auto& w = checkedWidget(widget);
        setTrigger(w.obj, key, actionValue(w, action));
    });
}

PDResult getFieldTrigger(PDField field, const char* key, PDAction* outAction) {
    if (outAction) *outAction = nullptr;
    return guard([&] {
        auto& f = checked(field, Kind::Field);
        checkOut(outAction);
        handOutAction(*f.doc, triggerOf(f.obj, key), outAction);
    });
}

// The calculate trigger also keeps the field's place in /AcroForm /CO: listed (once,
// at the end) while it has a calculate action, out of the list once it has none.
void updateCalculationOrder(Document& doc, QPDFObjectHandle field, bool calculated) {
    auto form = acroForm(doc, calculated);
    if (!form.isDictionary()) return;
    auto co = form.getKey("/CO");
    bool listed = false;
    if (co.isArray()) {
        for (int i = co.getArrayNItems() - 1; i >= 0; --i) {
            if (!sameObject(co.getArrayItem(i), field)) continue;
            if (calculated) {
                listed = true;
            } else {
                co.eraseItem(i);
            }
        }
    }
    if (calculated && !listed) {
        if (!co.isArray()) {
            co = QPDFObjectHandle::newArray();
            form.replaceKey("/CO", co);
        }
        co.appendItem(field);
    } else if (!calculated && co.isArray() && co.getArrayNItems() == 0) {
        form.removeKey("/CO");
    }
}

// The field dictionaries of /AcroForm /CO, in its order.
std::vector<QPDFObjectHandle> calculatedFields(Document& doc) {
    std::vector<QPDFObjectHandle> fields;
    auto form = acroForm(doc, false);
    auto co = form.isDictionary() ? form.getKey("/CO") : QPDFObjectHandle::newNull();
    if (!co.isArray()) return fields;
    for (int i = 0; i < co.getArrayNItems(); ++i) {
        auto item = co.getArrayItem(i);
        if (item.isDictionary() && item.isIndirect()) fields.push_back(item);
    }
    return fields;
}

PDResult setFieldTrigger(PDField field, const char* key, PDAction action) {
    return guard([&] {
        auto& f = checked(field, Kind::Field);
        auto value = actionValue(f, action);
        setTrigger(f.obj, key, value);
        if (std::string(key) == "/C") updateCalculationOrder(*f.doc, f.obj, !value.isNull());
    });
}

} // namespace
} // namespace pdfcore

using namespace pdfcore;

extern "C" {

// ---- making and chaining ----------------------------------------------------------------

PDResult PDActionCreate(PDDoc doc, PDAtom type, const PDActionArg* arg, PDAction* outAction) {
    if (outAction) *outAction = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outAction);
        static const std::set<std::string> kTypes = {"GoTo",       "GoToE",      "Hide",
                                                     "JavaScript", "Launch",     "Named",
                                                     "ResetForm",  "SubmitForm", "URI"};
        std::string s = atomName(type);
        if (!kTypes.count(s)) fail(PD_ERR_UNSUPPORTED);
        // The text argument; required says that it must not be empty.
        auto text = [&](bool required) {
            if (!arg) fail(PD_ERR_BAD_ARGUMENT);
            auto t = textArg(arg->text, arg->textLen);
            if (required && t.empty()) fail(PD_ERR_BAD_ARGUMENT);
            return t;
        };
        auto action = QPDFObjectHandle::newDictionary();
        action.replaceKey("/Type", sharedName(d, "/Action"));
        action.replaceKey("/S", sharedName(d, "/" + s));
        if (s == "GoTo") {
            if (!arg || !arg->dest) fail(PD_ERR_BAD_ARGUMENT);
            auto& dest = checked(arg->dest, Kind::Dest);
            sameDoc(d.self, dest);
            action.replaceKey("/D", storable(dest.obj));
        } else if (s == "JavaScript") {
            action.replaceKey("/JS", textString(text(false)));
        } else if (s == "URI") {
            if (!arg || (!arg->bytes && arg->bytesLen != 0)) fail(PD_ERR_BAD_ARGUMENT);
            action.replaceKey("/URI", QPDFObjectHandle::newString(
                                          std::string(arg->bytes ? arg->bytes : "", arg->bytesLen)));
        } else if (s == "Launch" || s == "SubmitForm") {
            auto path = text(false);
            PDAtom kind = s == "Launch" ? PDAtom{PD_ATOM_Filespec} : atomOf("URL");
            PDFileSpec made = nullptr;
            check(PDFileSpecCreate(doc, kind, path.data(), static_cast<uint32_t>(path.size()),
                                   &made));
            Held spec(made);
            action.replaceKey("/F", spec->obj);
        } else if (s == "Named") {
            const std::string name = "/" + toUtf8(text(true));
            noteName(name);
            action.replaceKey("/N", QPDFObjectHandle::newName(name));
        }
        *outAction = handleFor(d, makeIndirect(d, action), Kind::Action);
    });
}

PDResult PDCreateActionFromObject(PDDoc doc, PDObject dict, PDAction* outAction) {
    if (outAction) *outAction = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        auto& o = checkedObject(dict);
        sameDoc(d.self, o);
        checkOut(outAction);
        if (!o.obj.isDictionary() || !o.obj.getKey("/S").isName()) fail(PD_ERR_BAD_ARGUMENT);
        *outAction = anyHandle(d, o.obj, Kind::Action);
    });
}

PDResult PDActionGetType(PDAction action, PDAtom* outType) {
    return guard([&] {
        auto& a = checkedAction(action);
        checkOut(outType);
        auto s = a.obj.getKey("/S");
        if (!s.isName()) fail(PD_ERR_NO_VALUE);
        *outType = atomOf(s.getName().substr(1));
    });
}

PDResult PDActionGetNextLength(PDAction action, uint32_t* outCount) {
    return guard([&] {
        auto& a = checkedAction(action);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(nextActions(a.obj).size());
    });
}

PDResult PDActionGetNext(PDAction action, uint32_t index, PDAction* outNext) {
    if (outNext) *outNext = nullptr;
    return guard([&] {
        auto& a = checkedAction(action);
        checkOut(outNext);
        auto next = nextActions(a.obj);
        if (index >= next.size()) fail(PD_ERR_RANGE);
        *outNext = anyHandle(*a.doc, next[index], Kind::Action);
    });
}

PDResult PDActionSetNext(PDAction action, PDAction next) {
    return guard([&] {
        auto& a = checkedAction(action);
        if (!next) {
            a.obj.removeKey("/Next");
            return;
        }
        auto& n = checkedAction(next);
        sameDoc(a, n);
        if (chainReaches(n.obj, a.obj)) fail(PD_ERR_CYCLE);
        // A direct action (one made from a generic dictionary) would sit inside this one,
        // and a chain of them would nest as deep as it is long, which qpdf's writer (one
        // call per level) cannot write: it is kept as an object of its own.
        makeHandleIndirect(*n.doc, n);
        a.obj.replaceKey("/Next", n.obj);
    });
}

// ---- GoTo and GoToE --------------------------------------------------------------------------

PDResult PDActionGoToGetDest(PDAction action, PDDest* outDest) {
    if (outDest) *outDest = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, "/GoTo");
        checkOut(outDest);
        auto dest = destToHandOut(*a.doc, a.obj.getKey("/D"), true);
        if (!dest.isNull()) *outDest = anyHandle(*a.doc, dest, Kind::Dest);
    });
}

PDResult PDActionGoToEGetDest(PDAction action, PDDest* outDest) {
    if (outDest) *outDest = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        checkOut(outDest);
        // Names here are names of the target document, not of this one.
        auto dest = destToHandOut(*a.doc, a.obj.getKey("/D"), false);
        if (!dest.isNull()) *outDest = anyHandle(*a.doc, dest, Kind::Dest);
    });
}

PDResult PDActionGoToESetDest(PDAction action, PDDest dest) {
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        if (!dest) {
            a.obj.removeKey("/D");
            return;
        }
        auto& dst = checked(dest, Kind::Dest);
        sameDoc(a, dst);
        a.obj.replaceKey("/D", remoteDest(*a.doc, dst.obj));
    });
}

PDResult PDActionGoToEGetNewWindow(PDAction action, PDBool* outNewWindow) {
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        checkOut(outNewWindow);
        auto nw = a.obj.getKey("/NewWindow");
        if (nw.isNull()) fail(PD_ERR_NO_VALUE);
        if (!nw.isBool()) fail(PD_ERR_RANGE);
        *outNewWindow = nw.getBoolValue() ? 1 : 0;
    });
}

PDResult PDActionGoToESetNewWindow(PDAction action, PDBool newWindow) {
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        a.obj.replaceKey("/NewWindow", QPDFObjectHandle::newBool(newWindow != 0));
    });
}

PDResult PDActionGoToEGetTarget(PDAction action, PDObject* outTarget) {
    if (outTarget) *outTarget = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        checkOut(outTarget);
        auto t = a.obj.getKey("/T");
        if (t.isDictionary()) *outTarget = anyHandle(*a.doc, t, Kind::Object);
    });
}

PDResult PDActionGoToESetTarget(PDAction action, PDObject target) {
    return guard([&] {
        auto& a = checkedAction(action, "/GoToE");
        if (!target) {
            a.obj.removeKey("/T");
            return;
        }
        auto& t = checkedObject(target);
        sameDoc(a, t);
        if (!t.obj.isDictionary()) fail(PD_ERR_BAD_ARGUMENT);
        if (sameObject(t.obj, a.obj) || (!a.obj.isIndirect() && holdsDirect(t.obj, a.obj)))
            fail(PD_ERR_CYCLE);
        a.obj.replaceKey("/T", t.obj);
    });
}

// ---- Hide ------------------------------------------------------------------------------------

PDResult PDActionHideIsHiding(PDAction action, PDBool* outHiding) {
    return guard([&] {
        auto& a = checkedAction(action, "/Hide");
        checkOut(outHiding);
        auto h = a.obj.getKey("/H");
        *outHiding = h.isBool() && !h.getBoolValue() ? 0 : 1;
    });
}

PDResult PDActionHideSetHiding(PDAction action, PDBool hiding) {
    return guard([&] {
        auto& a = checkedAction(action, "/Hide");
        a.obj.replaceKey("/H", QPDFObjectHandle::newBool(hiding != 0));
    });
}

PDResult PDActionHideGetNumItems(PDAction action, uint32_t* outCount) {
    return guard([&] {
        auto& a = checkedAction(action, "/Hide");
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(hideItems(a.obj).size());
    });
}

PDResult PDActionHideGetItemType(PDAction action, uint32_t index, int32_t* outType) {
    return guard([&] {
        auto item = hideItem(action, index);
        checkOut(outType);
        *outType = item.isString() ? PD_HIDE_ITEM_FIELD_NAME : PD_HIDE_ITEM_ANNOT;
    });
}

PDResult PDActionHideGetItemFieldName(PDAction action, uint32_t index, char16_t* buf,
                                      uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto item = hideItem(action, index);
        if (!item.isString()) fail(PD_ERR_WRONG_HANDLE);
        value = textOf(item);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDActionHideAddItemFieldName(PDAction action, const char16_t* name, uint32_t len) {
    return guard([&] {
        auto& a = checkedAction(action, "/Hide");
        auto n = textArg(name, len);
        if (n.empty()) fail(PD_ERR_BAD_ARGUMENT);
        auto t = a.obj.getKey("/T");
        if (!t.isArray()) {
            // A single target becomes the first of a list.
            auto list = QPDFObjectHandle::newArray();
            if (t.isString() || t.isDictionary()) list.appendItem(t);
            a.obj.replaceKey("/T", list);
            t = list;
        }
        t.appendItem(textString(n));
    });
}

// ---- JavaScript, Launch, URI, Named ------------------------------------------------------------

PDResult PDActionJavaScriptGetScript(PDAction action, char16_t* buf, uint32_t bufLen,
                                     uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto js = checkedAction(action, "/JavaScript").obj.getKey("/JS");
        if (!js.isString() && !js.isStream()) fail(PD_ERR_NO_VALUE);
        value = textOf(js);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDActionLaunchGetFileSpec(PDAction action, PDFileSpec* outFileSpec) {
    if (outFileSpec) *outFileSpec = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, "/Launch");
        checkOut(outFileSpec);
        auto f = a.obj.getKey("/F");
        if (!f.isString() && !f.isDictionary()) f = entry(a.obj.getKey("/Win"), "/F");
        if (f.isString() || f.isDictionary()) *outFileSpec = anyHandle(*a.doc, f, Kind::FileSpec);
    });
}

PDResult PDActionURIGetURI(PDAction action, char* buf, uint32_t bufLen, uint32_t* outLen) {
    return guard([&] {
        auto uri = checkedAction(action, "/URI").obj.getKey("/URI");
        checkOut(outLen);
        if (!uri.isString()) fail(PD_ERR_NO_VALUE);
        std::string bytes = uri.getStringValue();
        if (bytes.size() > UINT32_MAX - 1) fail(PD_ERR_TOO_LARGE);
        auto len = static_cast<uint32_t>(bytes.size());
        *outLen = len;
        if (!buf) return;
        if (bufLen < len) fail(PD_ERR_BUFFER_SMALL);
        std::copy(bytes.begin(), bytes.end(), buf);
        if (bufLen > len) buf[len] = 0;
    });
}

PDResult PDActionNamedGetName(PDAction action, PDAtom* outName) {
    return guard([&] {
        auto n = checkedAction(action, "/Named").obj.getKey("/N");
        checkOut(outName);
        if (!n.isName()) fail(PD_ERR_NO_VALUE);
        *outName = atomOf(n.getName().substr(1));
    });
}

// ---- ResetForm and SubmitForm -------------------------------------------------------------------

PDResult PDActionResetFormGetFlags(PDAction action, uint32_t* outFlags) {
    return getFlags(action, "/ResetForm", outFlags);
}
PDResult PDActionResetFormSetFlags(PDAction action, uint32_t flags) {
    return setFlags(action, "/ResetForm", flags);
}
PDResult PDActionResetFormGetFieldsData(PDAction action, PDActionFieldsData* outData) {
    return getFieldsData(action, "/ResetForm", outData);
}
PDResult PDActionResetFormSetFieldsData(PDAction action, PDActionFieldsData data) {
    return setFieldsData(action, "/ResetForm", data);
}
PDResult PDActionSubmitFormGetFlags(PDAction action, uint32_t* outFlags) {
    return getFlags(action, "/SubmitForm", outFlags);
}
PDResult PDActionSubmitFormSetFlags(PDAction action, uint32_t flags) {
    return setFlags(action, "/SubmitForm", flags);
}
PDResult PDActionSubmitFormGetFieldsData(PDAction action, PDActionFieldsData* outData) {
    return getFieldsData(action, "/SubmitForm", outData);
}
PDResult PDActionSubmitFormSetFieldsData(PDAction action, PDActionFieldsData data) {
    return setFieldsData(action, "/SubmitForm", data);
}

PDResult PDActionSubmitFormGetServerURL(PDAction action, PDFileSpec* outFileSpec) {
    if (outFileSpec) *outFileSpec = nullptr;
    return guard([&] {
        auto& a = checkedAction(action, "/SubmitForm");
        checkOut(outFileSpec);
        auto f = a.obj.getKey("/F");
        if (f.isString() || f.isDictionary()) *outFileSpec = anyHandle(*a.doc, f, Kind::FileSpec);
    });
}

// ---- trigger actions ---------------------------------------------------------------------------

#define PD_WIDGET_TRIGGER(Name, Key)                                                               \
    PDResult PDWidgetAnnotGet##Name##Action(PDAnnot widget, PDAction* outAction) {                 \
        return getWidgetTrigger(widget, Key, outAction);                                           \
    }                                                                                              \
    PDResult PDWidgetAnnotSet##Name##Action(PDAnnot widget, PDAction action) {                     \
        return setWidgetTrigger(widget, Key, action);                                              \
    }
PD_WIDGET_TRIGGER(MouseEnter, "/E")
PD_WIDGET_TRIGGER(MouseExit, "/X")
PD_WIDGET_TRIGGER(MouseDown, "/D")
PD_WIDGET_TRIGGER(MouseUp, "/U")
PD_WIDGET_TRIGGER(Focus, "/Fo")
PD_WIDGET_TRIGGER(Blur, "/Bl")
#undef PD_WIDGET_TRIGGER

PDResult PDButtonWidgetAnnotGetAction(PDAnnot widget, PDAction* outAction) {
    if (outAction) *outAction = nullptr;
    return guard([&] {
        auto& w = checkedWidget(widget);
        checkOut(outAction);
        handOutAction(*w.doc, w.obj.getKey("/A"), outAction);
    });
}

PDResult PDButtonWidgetAnnotSetAction(PDAnnot widget, PDAction action) {
    return guard([&] {
        auto& w = checkedWidget(widget);
        auto value = actionValue(w, action);
        if (value.isNull()) {
            w.obj.removeKey("/A");
        } else {
            w.obj.replaceKey("/A", value);
        }
    });
}

#define PD_FIELD_TRIGGER(Name, Key)                                                                \
    PDResult PDFieldGet##Name##Action(PDField field, PDAction* outAction) {                        \
        return getFieldTrigger(field, Key, outAction);                                             \
    }                                                                                              \
    PDResult PDFieldSet##Name##Action(PDField field, PDAction action) {                            \
        return setFieldTrigger(field, Key, action);                                                \
    }
PD_FIELD_TRIGGER(Format, "/F")
PD_FIELD_TRIGGER(Validate, "/V")
PD_FIELD_TRIGGER(Calculate, "/C")
PD_FIELD_TRIGGER(Modify, "/K")
#undef PD_FIELD_TRIGGER

// ---- the calculation order --------------------------------------------------------------

PDResult PDDocGetNumCalculatedFields(PDDoc doc, uint32_t* outCount) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(calculatedFields(d).size());
    });
}

PDResult PDDocGetCalculatedField(PDDoc doc, uint32_t index, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outField);
        auto fields = calculatedFields(d);
        if (index >= fields.size()) fail(PD_ERR_RANGE);
        *outField = handleFor(d, fields[index], Kind::Field);
    });
}

PDResult PDDocSetCalculationOrder(PDDoc doc, const PDField* fields, uint32_t count) {
    return guard([&] {
        Document& d = checkedDoc(doc);
        if (count > 0 && !fields) fail(PD_ERR_BAD_ARGUMENT);
        auto current = calculatedFields(d);
        if (count != current.size()) fail(PD_ERR_BAD_ARGUMENT);
        std::vector<QPDFObjectHandle> order;
        std::vector<bool> taken(current.size(), false);
        for (uint32_t i = 0; i < count; ++i) {
            auto& f = checked(fields[i], Kind::Field);
            sameDoc(d.self, f);
            size_t at = 0;
            while (at < current.size() && !sameObject(current[at], f.obj)) ++at;
            if (at == current.size() || taken[at]) fail(PD_ERR_BAD_ARGUMENT);
            taken[at] = true;
            order.push_back(current[at]);
        }
        if (order.empty()) return;
        acroForm(d, false).replaceKey("/CO", QPDFObjectHandle::newArray(order));
    });
}

} // extern "C"
