#include "qf/internal/AnnotClipboardUtils"

#include "qf/internal/ServiceObjectException.h"
#include "qf/internal/TextConversion.h"

#include <algorithm>
#include <stdexcept>
#include <unordered_set>
#include <vector>

using QF::PDHandlePtr;

namespace JsonUtility::ActionSerialization {

namespace {

// pdfcore atoms used by value.
constexpr PDAtom kA = 13, kAction = 19, kC = 77, kFilespec = 140, kGoTo = 235, kGoToE = 237,
                 kHide = 246, kJavaScript = 275, kLaunch = 289, kN = 333, kP = 380, kR = 429,
                 kResetForm = 445, kS = 458, kSubmitForm = 498, kT = 504, kType = 537,
                 kURI = 550;
// pdfcore's "no value stored" and "not of the kind asked for".
constexpr PDResult kNoValue = PD_ERR_NO_VALUE, kNotOfKind = PD_ERR_RANGE;

constexpr const char* kToJson = "JsonUtility::ActionSerialization::pdActionToJson";
constexpr const char* kToAction = "JsonUtility::ActionSerialization::jsonToPDAction";
constexpr const char* kDestToJson = "JsonUtility::ActionSerialization::pdDestToJson";
constexpr const char* kToDest = "JsonUtility::ActionSerialization::jsonToPDdest";
constexpr const char* kToFields = "JsonUtility::ActionSerialization::jsonToActionFieldsData";

void check(PDResult result, const char* function) {
    CheckPDResult(result, function);
}

// A pdfcore text fetched in two calls.
template <typename Getter> std::u16string text(Getter&& get, const char* function) {
    uint32_t length = 0;
    check(get(nullptr, 0, &length), function);
    std::u16string s(length + 1, u'\0');
    check(get(s.data(), static_cast<uint32_t>(s.size()), &length), function);
    s.resize(length);
    return s;
}

std::string utf8(const std::u16string& s) {
    return SOImpl::Utf16ToUtf8(s);
}

PDActionArg textArg(const std::u16string& s) {
    PDActionArg arg{};
    arg.text = s.data();
    arg.textLen = static_cast<uint32_t>(s.size());
    return arg;
}

std::u16string pathOf(PDFileSpec spec, const char* function) {
    return text([spec](char16_t* b, uint32_t n,
                       uint32_t* l) { return PDFileSpecGetPath(spec, b, n, l); },
                function);
}

Json fieldsOf(PDDoc doc, PDResult (*get)(PDAction, PDActionFieldsData*), PDAction action) {
    PDHandlePtr data;
    check(get(action, data.put()), kToJson);
    return data ? actionFieldsDataToJson(doc, data.get()) : Json::array();
}

// The record of one action without its next actions.
Json actionToJson(PDDoc doc, PDAction action);
// One action of record without its next actions; null as jsonToPDAction.
PDHandlePtr jsonToOneAction(PDDoc doc, const Json& record);

// Nests a list of records, each under key of the one before it; the first.
Json nested(std::vector<Json>& records, const char* key) {
    for (size_t i = records.size(); i-- > 1;) records[i - 1][key] = std::move(records[i]);
    return records.empty() ? Json::object() : std::move(records.front());
}

} // namespace

// ---- record text ----------------------------------------------------------------------

std::string recordText(const Json& value, Json::error_handler_t notUtf8) {
    std::string out;
    struct Open {
        const Json* container;
        Json::const_iterator next;
    };
    std::vector<Open> open;
    // A scalar whole, an object or array up to its first member.
    auto begin = [&](const Json& v) {
        if (!v.is_structured() || v.empty()) {
            out += v.dump(-1, ' ', false, notUtf8);
        } else {
            out += v.is_object() ? '{' : '[';
            open.push_back({&v, v.cbegin()});
        }
    };
    begin(value);
    while (!open.empty()) {
        Open& top = open.back();
        if (top.next == top.container->cend()) {
            out += top.container->is_object() ? '}' : ']';
            open.pop_back();
            continue;
        }
        if (top.next != top.container->cbegin()) out += ',';
        const Json& member = *top.next;
        if (top.container->is_object()) {
            out += Json(top.next.key()).dump(-1, ' ', false, notUtf8);
            out += ':';
        }
        ++top.next;
        begin(member);
    }
    return out;
}

size_t nestingOf(const Json& value) {
    size_t deepest = 0;
    std::vector<std::pair<const Json*, size_t>> pending{{&value, 1}};
    while (!pending.empty()) {
        const auto [v, level] = pending.back();
        pending.pop_back();
        if (!v->is_structured()) continue;
        deepest = std::max(deepest, level);
        for (const Json& member : *v) pending.emplace_back(&member, level + 1);
    }
    return deepest;
}

// ---- read helpers ---------------------------------------------------------------------

const Json& required(const Json& record, const char* key) {
    if (record.is_object()) {
        const auto it = record.find(key);
        if (it != record.end()) return *it;
    }
    throw std::out_of_range("invalid map<K, T> key");
}

int64_t getIntOr(const Json& record, const char* key, int64_t fallback) {
    if (!record.is_object()) return fallback;
    const auto it = record.find(key);
    if (it == record.end()) return fallback;
    if (it->is_number_unsigned()) return static_cast<int64_t>(it->get<uint64_t>());
    if (it->is_number_integer()) return it->get<int64_t>();
    return fallback;
}

double getDoubleOr(const Json& record, const char* key, double fallback) {
    if (!record.is_object()) return fallback;
    const auto it = record.find(key);
    return it != record.end() && it->is_number() ? it->get<double>() : fallback;
}

bool getBoolOr(const Json& record, const char* key, bool fallback) {
    if (!record.is_object()) return fallback;
    const auto it = record.find(key);
    return it != record.end() && it->is_boolean() ? it->get<bool>() : fallback;
}

std::string getStringOr(const Json& record, const char* key, const std::string& fallback) {
    if (!record.is_object()) return fallback;
    const auto it = record.find(key);
    return it != record.end() && it->is_string() ? it->get<std::string>() : fallback;
}

std::u16string getWideStringOr(const Json& record, const char* key,
                               const std::u16string& fallback) {
    if (!record.is_object()) return fallback;
    const auto it = record.find(key);
    if (it == record.end() || !it->is_string()) return fallback;
    return SOImpl::Utf8ToUtf16(it->get_ref<const std::string&>());
}

// ---- actions --------------------------------------------------------------------------

// The chain is walked in a loop, each action once: a file's /Next may lead back to an
// action of the chain (actions in files are indirect objects, whose handles are the same
// while they are alive), and the chain ends before it repeats. Of several next actions the
// last one that is not already in the chain is the one the record keeps, and only it is
// read: /Next arrays of a file may branch at every step.
Json pdActionToJson(PDDoc doc, PDAction action) {
    std::vector<Json> records;
    std::vector<PDHandlePtr> chain;  // holds the handles that identify the actions
    std::unordered_set<PDAction> seen;
    PDAction current = action;
    while (current) {
        records.push_back(actionToJson(doc, current));
        seen.insert(current);
        uint32_t next = 0;
        check(PDActionGetNextLength(current, &next), kToJson);
        PDHandlePtr successor;
        for (uint32_t i = next; i-- > 0 && !successor;) {
            check(PDActionGetNext(current, i, successor.put()), kToJson);
            if (successor && seen.count(successor.get())) successor.reset();
        }
        current = successor.get();
        if (successor) chain.push_back(std::move(successor));
    }
    return nested(records, "next-action");
}

namespace {

Json actionToJson(PDDoc doc, PDAction action) {
    Json out = Json::object();
    if (!action) return out;
    PDAtom type = 0;
    check(PDActionGetType(action, &type), kToJson);
    out["action-type"] = static_cast<int64_t>(type);
    switch (type) {
    case kGoTo:
    case kGoToE: {
        PDHandlePtr dest;
        check(type == kGoTo ? PDActionGoToGetDest(action, dest.put())
                            : PDActionGoToEGetDest(action, dest.put()),
              kToJson);
        if (dest) {
            Json record = pdDestToJson(dest.get());
            if (!record.empty()) out["destination"] = std::move(record);
        }
        if (type == kGoTo) break;
        PDBool newWindow = 0;
        const PDResult flag = PDActionGoToEGetNewWindow(action, &newWindow);
        if (flag != kNoValue && flag != kNotOfKind) out["new-window"] = newWindow != 0;
        PDHandlePtr target;
        check(PDActionGoToEGetTarget(action, target.put()), kToJson);
        out["go-to-e-action-target"] =
            target ? goToETargetToJson(target.get()) : Json::object();
        break;
    }
    case kHide: {
        PDBool hiding = 0;
        check(PDActionHideIsHiding(action, &hiding), kToJson);
        out["is-hiding"] = hiding != 0;
        uint32_t count = 0;
        check(PDActionHideGetNumItems(action, &count), kToJson);
        Json items = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            int32_t itemType = 0;
            check(PDActionHideGetItemType(action, i, &itemType), kToJson);
            if (itemType != PD_HIDE_ITEM_FIELD_NAME) continue;
            const std::u16string name = text(
                [action, i](char16_t* b, uint32_t n, uint32_t* l) {
                    return PDActionHideGetItemFieldName(action, i, b, n, l);
                },
                kToJson);
            items.push_back(Json{{"hide-item-name", utf8(name)}, {"hide-item-type", 1}});
        }
        out["hiding-fields"] = std::move(items);
        break;
    }
    case kJavaScript:
        out["script"] = utf8(text(
            [action](char16_t* b, uint32_t n,
                     uint32_t* l) { return PDActionJavaScriptGetScript(action, b, n, l); },
            kToJson));
        break;
    case kLaunch: {
        PDHandlePtr spec;
        check(PDActionLaunchGetFileSpec(action, spec.put()), kToJson);
        out["file-spec"] = spec ? fileSpecToJson(spec.get()) : Json{{"file-path", ""}};
        break;
    }
    case kSubmitForm: {
        uint32_t flags = 0;
        check(PDActionSubmitFormGetFlags(action, &flags), kToJson);
        out["form-flags"] = static_cast<int64_t>(flags);
        PDHandlePtr url;
        check(PDActionSubmitFormGetServerURL(action, url.put()), kToJson);
        out["submit-url"] = url ? fileSpecToJson(url.get()) : Json{{"file-path", ""}};
        out["fields-data"] = fieldsOf(doc, &PDActionSubmitFormGetFieldsData, action);
        break;
    }
    case kURI: {
        uint32_t length = 0;
        check(PDActionURIGetURI(action, nullptr, 0, &length), kToJson);
        std::string bytes(length + 1, '\0');
        check(PDActionURIGetURI(action, bytes.data(), static_cast<uint32_t>(bytes.size()), &length),
              kToJson);
        bytes.resize(length);
        out["url"] = bytes;
        break;
    }
    case kResetForm: {
        uint32_t flags = 0;
        check(PDActionResetFormGetFlags(action, &flags), kToJson);
        out["form-flags"] = static_cast<int64_t>(flags);
        out["fields-data"] = fieldsOf(doc, &PDActionResetFormGetFieldsData, action);
        break;
    }
    default:
        break;
    }
    return out;
}

} // namespace

// The chain is made from its first action on, each linked to the one before it as it is
// made: the link's check for a loop then looks at an action without successors, where
// linking from the last one back would walk the whole rest of the chain for each link.
PDHandlePtr jsonToPDAction(PDDoc doc, const Json& record) {
    PDHandlePtr first, previous;
    for (const Json* current = &record; current;) {
        PDHandlePtr action = jsonToOneAction(doc, *current);
        if (previous) PDActionSetNext(previous.get(), action.get());
        if (!action) break;
        const auto next = current->find("next-action");
        current = next != current->end() && next->is_object() && !next->empty() ? &*next : nullptr;
        if (!current) PDActionSetNext(action.get(), nullptr);
        if (!first) first = action;
        previous = std::move(action);
    }
    return first;
}

namespace {

PDHandlePtr jsonToOneAction(PDDoc doc, const Json& record) {
    const int64_t type = getIntOr(record, "action-type", -1);
    PDHandlePtr action;
    switch (type) {
    case kGoTo: {
        if (!record.contains("destination")) return {};
        const PDHandlePtr dest = jsonToPDdest(doc, record["destination"]);
        PDActionArg arg{};
        arg.dest = dest.get();
        check(PDActionCreate(doc, kGoTo, &arg, action.put()), kToAction);
        break;
    }
    case kGoToE: {
        PDHandlePtr dict;
        check(PDDocCreateDictObject(doc, dict.put()), kToAction);
        check(PDObjectDictPutName(dict.get(), kType, kAction), kToAction);
        check(PDObjectDictPutName(dict.get(), kS, kGoToE), kToAction);
        PDCreateActionFromObject(doc, dict.get(), action.put());
        if (!action) return {};
        if (record.contains("destination")) {
            const PDHandlePtr dest = jsonToPDdest(doc, record["destination"]);
            PDActionGoToESetDest(action.get(), dest.get());
        }
        PDActionGoToESetNewWindow(action.get(), getBoolOr(record, "new-window", true) ? 1 : 0);
        if (record.contains("go-to-e-action-target")) {
            const PDHandlePtr target = jsonToGoToETarget(doc, record["go-to-e-action-target"]);
            if (target) PDActionGoToESetTarget(action.get(), target.get());
        }
        break;
    }
    case kHide: {
        if (!record.contains("hiding-fields")) return {};
        check(PDActionCreate(doc, kHide, nullptr, action.put()), kToAction);
        if (!action)
            ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kToAction);
        check(PDActionHideSetHiding(action.get(), getBoolOr(record, "is-hiding", false) ? 1 : 0),
              kToAction);
        for (const Json& item : record["hiding-fields"]) {
            const std::u16string name =
                SOImpl::Utf8ToUtf16(required(item, "hide-item-name").get<std::string>());
            check(PDActionHideAddItemFieldName(action.get(), name.data(),
                                               static_cast<uint32_t>(name.size())),
                  kToAction);
        }
        break;
    }
    case kJavaScript: {
        const std::u16string script = getWideStringOr(record, "script", u"");
        const PDActionArg arg = textArg(script);
        check(PDActionCreate(doc, kJavaScript, &arg, action.put()), kToAction);
        break;
    }
    case kLaunch: {
        if (!record.contains("file-spec")) return {};
        const PDHandlePtr spec = jsonToFileSpec(doc, record["file-spec"]);
        const std::u16string path = pathOf(spec.get(), kToAction);
        const PDActionArg arg = textArg(path);
        check(PDActionCreate(doc, kLaunch, &arg, action.put()), kToAction);
        break;
    }
    case kResetForm: {
        if (!record.contains("fields-data")) return {};
        check(PDActionCreate(doc, kResetForm, nullptr, action.put()), kToAction);
        const PDHandlePtr fields = jsonToActionFieldsData(doc, record["fields-data"]);
        check(PDActionResetFormSetFieldsData(action.get(), fields.get()), kToAction);
        PDActionResetFormSetFlags(action.get(),
                                  static_cast<uint32_t>(getIntOr(record, "form-flags", 0)));
        break;
    }
    case kSubmitForm: {
        const PDHandlePtr spec = jsonToFileSpec(doc, required(record, "submit-url"));
        const std::u16string url = pathOf(spec.get(), kToAction);
        const PDActionArg arg = textArg(url);
        check(PDActionCreate(doc, kSubmitForm, &arg, action.put()), kToAction);
        PDActionSubmitFormSetFlags(action.get(),
                                   static_cast<uint32_t>(getIntOr(record, "form-flags", 0)));
        const PDHandlePtr fields = jsonToActionFieldsData(doc, required(record, "fields-data"));
        check(PDActionSubmitFormSetFieldsData(action.get(), fields.get()), kToAction);
        break;
    }
    case kURI: {
        const std::string url = getStringOr(record, "url", "");
        PDActionArg arg{};
        arg.bytes = url.data();
        arg.bytesLen = static_cast<uint32_t>(url.size());
        check(PDActionCreate(doc, kURI, &arg, action.put()), kToAction);
        break;
    }
    default:
        return {};
    }
    return action;
}

} // namespace

// ---- destinations ---------------------------------------------------------------------

Json pdDestToJson(PDDest dest) {
    uint32_t page = 0;
    const PDResult found = PDDestGetPageIndex(dest, &page);
    if (found == kNoValue) return Json::object();
    check(found, kDestToJson);
    PDAtom type = 0;
    check(PDDestGetType(dest, &type), kDestToJson);
    float params[3] = {0, 0, 0};
    check(PDDestGetParams(dest, params), kDestToJson);
    Json out = Json::object();
    out["page-index"] = static_cast<int64_t>(page);
    out["type"] = static_cast<int64_t>(type);
    out["params"] = Json::array({static_cast<double>(params[0]), static_cast<double>(params[1]),
                                 static_cast<double>(params[2])});
    return out;
}

PDHandlePtr jsonToPDdest(PDDoc doc, const Json& record) {
    const int64_t type = getIntOr(record, "type", 0);
    const int64_t page = getIntOr(record, "page-index", 0);
    std::vector<const Json*> params;
    if (record.is_object()) {
        const auto it = record.find("params");
        if (it != record.end() && it->is_array())
            for (const Json& param : *it) params.push_back(&param);
    }
    // Exactly three, by position: booleans count as 0 or 1, other kinds are refused.
    float p[3];
    for (size_t i = 0; i < 3; ++i) p[i] = params.at(i)->get<float>();
    PDHandlePtr dest;
    check(PDDestCreate(doc, static_cast<PDAtom>(type), static_cast<uint32_t>(page), p[0], p[1],
                       p[2], dest.put()),
          kToDest);
    return dest;
}

// ---- field lists and file specifications ----------------------------------------------

Json actionFieldsDataToJson(PDDoc, PDActionFieldsData data) {
    Json names = Json::array();
    uint32_t count = 0;
    check(PDActionFieldsDataGetNumFields(data, &count), kToJson);
    for (uint32_t i = 0; i < count; ++i) {
        PDHandlePtr field;
        check(PDActionFieldsDataGetField(data, i, field.put()), kToJson);
        if (!field) continue;
        names.push_back(utf8(QF::GetFieldFullName(field.get(), kToJson)));
    }
    return names;
}

PDHandlePtr jsonToActionFieldsData(PDDoc doc, const Json& names) {
    PDHandlePtr data;
    check(PDCreateActionFieldsData(doc, data.put()), kToFields);
    for (const Json& element : names) {
        const std::u16string name = SOImpl::Utf8ToUtf16(element.get<std::string>());
        if (name.empty()) continue;
        PDHandlePtr field;
        check(PDDocFindField(doc, name.data(), static_cast<uint32_t>(name.size()), field.put()),
              kToFields);
        if (field) check(PDActionFieldsDataAddField(data.get(), field.get()), kToFields);
    }
    return data;
}

Json fileSpecToJson(PDFileSpec fileSpec) {
    return Json{{"file-path", utf8(pathOf(fileSpec, kToJson))}};
}

PDHandlePtr jsonToFileSpec(PDDoc doc, const Json& record) {
    const std::u16string path = SOImpl::Utf8ToUtf16(getStringOr(record, "file-path", ""));
    PDHandlePtr spec;
    check(PDFileSpecCreate(doc, kFilespec, path.data(), static_cast<uint32_t>(path.size()),
                           spec.put()),
          kToAction);
    return spec;
}

// ---- GoToE targets --------------------------------------------------------------------

namespace {

// The keys of one target dictionary, without the nested target.
Json targetLevelToJson(PDObject target, PDHandlePtr& nestedTarget) {
    Json out = Json::object();
    auto entry = [target](PDAtom key, int32_t kind) {
        PDHandlePtr value;
        int32_t type = PD_OBJ_NULL;
        check(PDObjectDictFind(target, key, value.put()), kToJson);
        if (value) check(PDObjectGetType(value.get(), &type), kToJson);
        return (value && (kind < 0 || type == kind)) ? value : PDHandlePtr();
    };
    if (const PDHandlePtr r = entry(kR, PD_OBJ_NAME)) {
        PDAtom relationship = 0;
        check(PDObjectGetName(r.get(), &relationship), kToJson);
        out["relationship"] = static_cast<int64_t>(relationship);
    }
    if (const PDHandlePtr n = entry(kN, PD_OBJ_STRING)) {
        const PDObject s = n.get();
        out["file-path"] = utf8(text(
            [s](char16_t* b, uint32_t len, uint32_t* l) {
                return PDObjectGetUnicodeString(s, b, len, l);
            },
            kToJson));
    }
    if (const PDHandlePtr p = entry(kP, PD_OBJ_INTEGER)) {
        int32_t page = 0;
        check(PDObjectGetInt(p.get(), &page), kToJson);
        out["page-index"] = static_cast<uint64_t>(static_cast<uint32_t>(page));
    }
    if (const PDHandlePtr a = entry(kA, PD_OBJ_INTEGER)) {
        int32_t annot = 0;
        check(PDObjectGetInt(a.get(), &annot), kToJson);
        out["annotation-index"] = static_cast<uint64_t>(static_cast<uint32_t>(annot));
    }
    nestedTarget = entry(kT, -1);
    return out;
}

// One target dictionary of record, without the nested target; null when it writes nothing.
PDHandlePtr targetLevelOf(PDDoc doc, const Json& record) {
    PDHandlePtr dict;
    auto target = [&]() -> PDObject {
        if (!dict) check(PDDocCreateDictObject(doc, dict.put()), kToAction);
        return dict.get();
    };
    if (record.contains("relationship")) {
        (void)getIntOr(record, "relationship", 0); // read, and not used: /R is always /C
        check(PDObjectDictPutName(target(), kR, kC), kToAction);
    }
    if (record.contains("file-path")) {
        const std::u16string name = SOImpl::Utf8ToUtf16(getStringOr(record, "file-path", ""));
        PDHandlePtr value;
        check(PDDocCreateStringObjectFromUnicode(doc, name.data(),
                                                 static_cast<uint32_t>(name.size()), value.put()),
              kToAction);
        check(PDObjectDictPut(target(), kN, value.get()), kToAction);
    }
    if (record.contains("page-index") && record.contains("annotation-index")) {
        PDHandlePtr page, annot;
        check(PDDocCreateIntObject(doc, static_cast<int32_t>(getIntOr(record, "page-index", 0)),
                                   page.put()),
              kToAction);
        check(PDDocCreateIntObject(
                  doc, static_cast<int32_t>(getIntOr(record, "annotation-index", 0)), annot.put()),
              kToAction);
        check(PDObjectDictPut(target(), kP, page.get()), kToAction);
        check(PDObjectDictPut(target(), kA, annot.get()), kToAction);
    }
    return dict;
}

} // namespace

// Nested targets are followed in a loop; a /T that leads back to a target already read (an
// indirect object of a file) ends the nesting there.
Json goToETargetToJson(PDObject target) {
    std::vector<Json> levels;
    std::vector<PDHandlePtr> held;  // keeps the handles that identify the targets
    std::unordered_set<PDObject> seen;
    for (PDObject current = target; current && seen.insert(current).second;) {
        PDHandlePtr nestedTarget;
        levels.push_back(targetLevelToJson(current, nestedTarget));
        current = nestedTarget.get();
        if (nestedTarget) held.push_back(std::move(nestedTarget));
    }
    return nested(levels, "go-to-e-action-target");
}

// Made from the innermost target out, each put as /T of the one around it.
PDHandlePtr jsonToGoToETarget(PDDoc doc, const Json& record) {
    std::vector<const Json*> levels{&record};
    while (levels.back()->contains("go-to-e-action-target"))
        levels.push_back(&(*levels.back())["go-to-e-action-target"]);
    PDHandlePtr inner;
    for (size_t i = levels.size(); i-- > 0;) {
        PDHandlePtr dict = targetLevelOf(doc, *levels[i]);
        if (inner) {
            if (!dict) check(PDDocCreateDictObject(doc, dict.put()), kToAction);
            check(PDObjectDictPut(dict.get(), kT, inner.get()), kToAction);
        }
        inner = std::move(dict);
    }
    return inner;
}

} // namespace JsonUtility::ActionSerialization
