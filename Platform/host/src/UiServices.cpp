// The user-interface services: the properties context and its areas, the annotation
// properties factory, the string service and the user settings. Everything here runs on
// the user-interface thread; the method tables never let an exception out (guarded).
#include "qfhost/UiServices.h"

#include "qfhost/Host.h"
#include "qfhost/HostError.h"

#include "Thunks.h"

#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"
#include "qf/StringPairList.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#if defined(_WIN32)
#include <process.h>
#else
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>
#endif

namespace qfhost {

namespace {

namespace fs = std::filesystem;

// A value of the other type than the one asked for or stored.
constexpr uint32_t kWrongType = 13;
// The caller's text buffer cannot hold the text and its NUL.
constexpr uint32_t kBufferTooSmall = 8;

// ---- text ---------------------------------------------------------------------------------

// UTF-16 to UTF-8 and back through KR; ill-formed input becomes U+FFFD, never an error.
std::string toUtf8(std::u16string_view text) {
    size_t needed = 0;
    if (KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &needed) != KR_OK)
        throw HostError(codes::kHostFailure, "text conversion to UTF-8 failed");
    std::string out(needed, '\0');
    if (needed && KRConvertUTF16ToUTF8(text.data(), text.size(), out.data(), needed,
                                       &needed) != KR_OK)
        throw HostError(codes::kHostFailure, "text conversion to UTF-8 failed");
    return out;
}

std::u16string fromUtf8(std::string_view text) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(text.data(), text.size(), nullptr, 0, &needed) != KR_OK)
        throw HostError(codes::kHostFailure, "text conversion to UTF-16 failed");
    std::u16string out(needed, u'\0');
    if (needed && KRConvertUTF8ToUTF16(text.data(), text.size(), out.data(), needed,
                                       &needed) != KR_OK)
        throw HostError(codes::kHostFailure, "text conversion to UTF-16 failed");
    return out;
}

// File paths arrive as UTF-8 on every platform.
fs::path fsPath(const std::string& utf8) {
    return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

// ---- properties context and areas -----------------------------------------------------------

// Inside a "QFPropertyArea" block: one reference per property, in the order added.
struct PropertyArea {
    std::vector<ObjectPtr> properties;
};

using AreaTable = QF::PropertyAreaTable;
using ContextTable = QF::PropertiesContextTable;

std::vector<ObjectPtr>& propertiesOf(ServiceObject* area) {
    return SODetails::implOf<AreaTable, PropertyArea>(area).properties;
}

const AreaTable kAreaTable = {
    // AddProperty: 3 for null or for an object that is not a "QFProperty"; 1 (and no second
    // reference) when the property is in the area already.
    [](ServiceObject* self, ServiceObject* property) -> uint32_t {
        if (!self || !property || SODetails::header(property)->interfaceId != QF::kPropertyId)
            return codes::kBadArgument;
        return detail::guarded([&] {
            auto& list = propertiesOf(self);
            for (const ObjectPtr& held : list) {
                if (held.get() == property) return codes::kNegative;
            }
            list.push_back(ObjectPtr::share(property));
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!self || !out) return codes::kBadArgument;
        *out = propertiesOf(self).size();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t index, ServiceObject** out) -> uint32_t {
        if (!self || !out) return codes::kBadArgument;
        *out = nullptr;
        const auto& list = propertiesOf(self);
        if (index >= list.size()) return 5;
        ServiceObject* property = list[index].get();
        SODetails::addRef(property);
        *out = property;
        return codes::kOk;
    },
};

const ContextTable kContextTable = {
    // GetArea: name is NUL-terminated.
    [](ServiceObject* self, const char16_t* name, ServiceObject** outArea) -> uint32_t {
        if (outArea) *outArea = nullptr;
        if (!self || !name || !outArea) return codes::kBadArgument;
        return detail::guarded([&] {
            ServiceObject* area = PropertiesContext::of(self).area(name);
            SODetails::addRef(area);
            *outArea = area;
            return codes::kOk;
        });
    },
};

// ---- property access ---------------------------------------------------------------------

// Slots of the "QFProperty" table.
enum : size_t {
    kGetNameSlot = 0,
    kGetTypeSlot = 1,
    kIsReadOnlySlot = 6,
    kIsHiddenSlot = 7,
    kGetValueSlot = 8,
    kSetValueSlot = 9,
};

QF::PropertyTable& propertyTable(ServiceObject* property) {
    return *SODetails::methods<QF::PropertyTable>(property);
}

// What a property handed to one of our sinks. The sinks run inside the property's code, so
// they catch everything and record a failure instead.
struct Received {
    enum class Kind { Nothing, Text, List, Failed } kind = Kind::Nothing;
    std::u16string text;
    QF::StringPairs pairs;
};

void receiveText(void* context, const char16_t* text, uint64_t length) {
    auto& r = *static_cast<Received*>(context);
    try {
        r.text.assign(text ? text : u"", text ? length : 0);
        r.kind = Received::Kind::Text;
    } catch (...) {
        r.kind = Received::Kind::Failed;
    }
}

void receiveList(void* context, ServiceObject* list) {
    auto& r = *static_cast<Received*>(context);
    try {
        r.pairs = QF::ReadStringPairList(list);
        r.kind = Received::Kind::List;
    } catch (...) {
        r.kind = Received::Kind::Failed;
    }
}

// GetValue into r: the property's code, 4 when a sink could not store what it got.
uint32_t readValue(ServiceObject* property, Received& r) {
    if (!property) return codes::kBadArgument;
    if (!SODetails::hasMethod(property, kGetValueSlot)) return codes::kNotInitialized;
    const QF::PropertyValueSink sink{&r, &receiveText, &receiveList};
    uint32_t rc = propertyTable(property).GetValue(property, &sink);
    if (rc != codes::kOk) return rc;
    return r.kind == Received::Kind::Failed ? codes::kHostFailure : codes::kOk;
}

// IsReadOnly or IsHidden.
uint32_t readFlag(ServiceObject* property, size_t slot, bool* out) {
    if (!property || !out) return codes::kBadArgument;
    if (!SODetails::hasMethod(property, slot)) return codes::kNotInitialized;
    auto& table = propertyTable(property);
    uint8_t value = 0;
    uint32_t rc = slot == kIsReadOnlySlot ? table.IsReadOnly(property, &value)
                                          : table.IsHidden(property, &value);
    if (rc == codes::kOk) *out = value != 0;
    return rc;
}

uint32_t writeValue(ServiceObject* property, const QF::PropertyValue& value) {
    if (!property) return codes::kBadArgument;
    if (!SODetails::hasMethod(property, kSetValueSlot)) return codes::kNotInitialized;
    return propertyTable(property).SetValue(property, &value);
}

// ---- annotation properties factory --------------------------------------------------------

using AnnotPropertiesTable = QF::AnnotPropertiesFactoryTable;

const AnnotPropertiesTable kAnnotPropertiesTable = {
    [](ServiceObject* self, ServiceObject* document, uint64_t pageIndex,
       PDAnnot widget) -> uint32_t {
        return detail::guarded([&] {
            return AnnotPropertiesFactory::of(self).addWidget(document, pageIndex, widget);
        });
    },
    [](ServiceObject* self, const char16_t* subtype, ServiceObject* document, uint64_t pageIndex,
       PDAnnot annot, const PDRect* rect, ServiceObject* context) -> uint32_t {
        if (!subtype || !rect) return codes::kBadArgument;
        return detail::guarded([&] {
            return AnnotPropertiesFactory::of(self).addAnnotProperties(
                subtype, document, pageIndex, annot, *rect, context);
        });
    },
};

// ---- validation --------------------------------------------------------------------------

using ValidateTable = QF::AnnotPropertiesValidateTable;

const ValidateTable kValidateTable = {
    [](ServiceObject* self, ServiceObject* list, const QF::TextSink* problem) -> uint32_t {
        if (!list || SODetails::header(list)->interfaceId != QF::kStringPairListId)
            return codes::kBadArgument;
        return detail::guarded([&] {
            const auto reason =
                AnnotPropertiesValidate::of(self).checkOptionList(QF::ReadStringPairList(list));
            if (!reason) return codes::kOk;
            if (problem && problem->put) problem->put(problem->context, reason->data(), reason->size());
            return codes::kBadArgument;
        });
    },
};

// ---- string service ------------------------------------------------------------------------

using StringTable = QF::StringServiceTable;

const StringTable kStringTable = {
    [](ServiceObject* self, const char16_t* text, uint32_t len, char16_t* buf, uint32_t bufLen,
       uint32_t* outLen) -> uint32_t {
        if (!self || !outLen || (!text && len)) return codes::kBadArgument;
        return detail::guarded([&] {
            const auto translated =
                StringService::of(self).translate(std::u16string(text ? text : u"", len));
            if (!translated) return codes::kNegative;
            const auto needed = static_cast<uint32_t>(translated->size());
            *outLen = needed;
            if (!buf) return codes::kOk;
            if (bufLen <= needed) return kBufferTooSmall;
            std::copy(translated->begin(), translated->end(), buf);
            buf[needed] = u'\0';
            return codes::kOk;
        });
    },
};

// ---- user settings -------------------------------------------------------------------------

// One value of the settings tree: its path, its type and default, and what it accepts.
struct Setting {
    std::u16string_view path;
    bool isText;
    int64_t integer;                              // default of an integer setting
    int64_t min, max;                             // integers accepted
    std::u16string_view text;                     // default of a text setting
    std::span<const std::u16string_view> choices; // texts accepted; empty: any
};

struct Range {
    int64_t min, max;
};
constexpr Range kArgb{0, 0xFFFFFFFF};
// Points; no page is larger than 14400 in either direction.
constexpr Range kSize{1, 14400};
constexpr Range kFontSize{0, 14400};  // 0: automatic
constexpr Range kHighlight{0, 4};     // none, invert, outline, push, toggle
constexpr Range kUndoLevels{1, 100000};

constexpr std::u16string_view kSubmitFormats[] = {u"FDF", u"HTML", u"XFDF", u"PDF"};

constexpr Setting integer(std::u16string_view path, int64_t value, Range range) {
    return {path, false, value, range.min, range.max, {}, {}};
}
constexpr Setting text(std::u16string_view path, std::u16string_view value,
                       std::span<const std::u16string_view> choices = {}) {
    return {path, true, 0, 0, 0, value, choices};
}

// The whole tree.
constexpr Setting kSettings[] = {
    integer(u"Forms/Widget creation frame color", 0xFF0078D7, kArgb),
    integer(u"Forms/TextField/Width", 150, kSize),
    integer(u"Forms/TextField/Height", 22, kSize),
    integer(u"Forms/CheckBox/Width", 14, kSize),
    integer(u"Forms/CheckBox/Height", 14, kSize),
    integer(u"Forms/RadioGroup/Width", 14, kSize),
    integer(u"Forms/RadioGroup/Height", 14, kSize),
    integer(u"Forms/ComboBox/Width", 150, kSize),
    integer(u"Forms/ComboBox/Height", 22, kSize),
    integer(u"Forms/ListBox/Width", 150, kSize),
    integer(u"Forms/ListBox/Height", 66, kSize),
    integer(u"Forms/PushButton/Width", 72, kSize),
    integer(u"Forms/PushButton/Height", 24, kSize),
    integer(u"Forms/PushButton/Background color", 0xFFE6E6E6, kArgb),
    integer(u"Forms/PushButton/Highlight", 3, kHighlight),
    integer(u"Forms/PushButton/Font color", 0xFF000000, kArgb),
    integer(u"Forms/PushButton/Font size", 10, kFontSize),
    integer(u"Forms/PrintButton/Width", 72, kSize),
    integer(u"Forms/PrintButton/Height", 24, kSize),
    integer(u"Forms/PrintButton/Background color", 0xFFE6E6E6, kArgb),
    integer(u"Forms/PrintButton/Highlight", 3, kHighlight),
    integer(u"Forms/PrintButton/Font color", 0xFF000000, kArgb),
    integer(u"Forms/PrintButton/Font size", 10, kFontSize),
    integer(u"Forms/EmailButton/Width", 72, kSize),
    integer(u"Forms/EmailButton/Height", 24, kSize),
    integer(u"Forms/EmailButton/Background color", 0xFFE6E6E6, kArgb),
    integer(u"Forms/EmailButton/Highlight", 3, kHighlight),
    integer(u"Forms/EmailButton/Font color", 0xFF000000, kArgb),
    integer(u"Forms/EmailButton/Font size", 10, kFontSize),
    text(u"Forms/EmailButton/Recipient", u""),
    text(u"Forms/EmailButton/Subject", u""),
    integer(u"Forms/SaveButton/Width", 72, kSize),
    integer(u"Forms/SaveButton/Height", 24, kSize),
    integer(u"Forms/SaveButton/Background color", 0xFFE6E6E6, kArgb),
    integer(u"Forms/SaveButton/Highlight", 3, kHighlight),
    integer(u"Forms/SaveButton/Font color", 0xFF000000, kArgb),
    integer(u"Forms/SaveButton/Font size", 10, kFontSize),
    integer(u"Forms/SubmitButton/Width", 72, kSize),
    integer(u"Forms/SubmitButton/Height", 24, kSize),
    integer(u"Forms/SubmitButton/Background color", 0xFFE6E6E6, kArgb),
    integer(u"Forms/SubmitButton/Highlight", 3, kHighlight),
    integer(u"Forms/SubmitButton/Font color", 0xFF000000, kArgb),
    integer(u"Forms/SubmitButton/Font size", 10, kFontSize),
    text(u"Forms/SubmitButton/URL", u"https://example.com/submit"),
    text(u"Forms/SubmitButton/Format", u"PDF", kSubmitFormats),
    integer(u"Forms/DigitalSignatureField/Width", 150, kSize),
    integer(u"Forms/DigitalSignatureField/Height", 44, kSize),
    integer(u"Editing/Undo levels", 1000, kUndoLevels),
};

const Setting* findSetting(std::u16string_view path) {
    for (const Setting& s : kSettings) {
        if (s.path == path) return &s;
    }
    return nullptr;
}

// Whether path names a group of the tree ("Forms", "Forms/CheckBox").
bool isGroup(std::u16string_view path) {
    for (const Setting& s : kSettings) {
        if (s.path.size() > path.size() && s.path.starts_with(path) && s.path[path.size()] == u'/')
            return true;
    }
    return false;
}

UserSettings::Value defaultOf(const Setting& s) {
    if (s.isText) return std::u16string(s.text);
    return s.integer;
}

// 0 when s accepts value; 13 for the other type; 3 for a value outside its domain.
uint32_t check(const Setting& s, const UserSettings::Value& value) {
    if (s.isText != std::holds_alternative<std::u16string>(value)) return kWrongType;
    if (const auto* i = std::get_if<int64_t>(&value))
        return *i >= s.min && *i <= s.max ? codes::kOk : codes::kBadArgument;
    if (s.choices.empty()) return codes::kOk;
    const auto& t = std::get<std::u16string>(value);
    return std::find(s.choices.begin(), s.choices.end(), t) != s.choices.end()
               ? codes::kOk
               : codes::kBadArgument;
}

using SettingsTable = QF::UserSettingsTable;

const SettingsTable kSettingsTable = {
    [](ServiceObject* self, const char16_t* path, int64_t* out) -> uint32_t {
        if (!self || !path || !out) return codes::kBadArgument;
        return detail::guarded([&] {
            const auto value = UserSettings::of(self).get(path);
            if (!value) return codes::kNegative;
            const auto* i = std::get_if<int64_t>(&*value);
            if (!i) return kWrongType;
            *out = *i;
            return codes::kOk;
        });
    },
    [](ServiceObject* self, const char16_t* path, const QF::TextSink* out) -> uint32_t {
        if (!self || !path || !out || !out->put) return codes::kBadArgument;
        return detail::guarded([&] {
            const auto value = UserSettings::of(self).get(path);
            if (!value) return codes::kNegative;
            const auto* t = std::get_if<std::u16string>(&*value);
            if (!t) return kWrongType;
            out->put(out->context, t->data(), t->size());
            return codes::kOk;
        });
    },
    [](ServiceObject* self, const char16_t* path, int64_t value) -> uint32_t {
        if (!self || !path) return codes::kBadArgument;
        return detail::guarded(
            [&] { return UserSettings::of(self).set(path, UserSettings::Value(value)); });
    },
    [](ServiceObject* self, const char16_t* path, const char16_t* text,
       uint64_t length) -> uint32_t {
        if (!self || !path || (!text && length)) return codes::kBadArgument;
        return detail::guarded([&] {
            return UserSettings::of(self).set(
                path, UserSettings::Value(std::u16string(text ? text : u"", text ? length : 0)));
        });
    },
};

// Reads the JSON group at prefix ("" for the top level) into out, overrides only; calls
// fail (which throws) at the first problem.
template <typename Fail>
void readGroup(const nlohmann::json& group, const std::u16string& prefix,
               std::map<std::u16string, UserSettings::Value>& out, const Fail& fail) {
    for (const auto& [key, node] : group.items()) {
        const std::u16string name = fromUtf8(key);
        const std::u16string path = prefix.empty() ? name : prefix + u'/' + name;
        const std::string shown = toUtf8(path);
        if (name.empty() || name.find(u'/') != std::u16string::npos)
            fail("unknown setting \"" + shown + "\"");

        const Setting* s = findSetting(path);
        if (!s) {
            if (!isGroup(path)) fail("unknown setting \"" + shown + "\"");
            if (!node.is_object()) fail("\"" + shown + "\" is a group, not a value");
            readGroup(node, path, out, fail);
            continue;
        }

        const char* expected = s->isText ? "a text" : "an integer";
        UserSettings::Value value;
        if (node.is_string()) {
            value = fromUtf8(node.template get_ref<const std::string&>());
        } else if (node.is_number_unsigned()) {
            const auto u = node.template get<uint64_t>();
            if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
                fail("\"" + shown + "\" is out of range");
            value = static_cast<int64_t>(u);
        } else if (node.is_number_integer()) {
            value = node.template get<int64_t>();
        } else {
            fail("\"" + shown + "\" must be " + expected);
        }
        switch (check(*s, value)) {
        case codes::kOk:
            break;
        case kWrongType:
            fail("\"" + shown + "\" must be " + expected);
            break;
        default:
            fail("\"" + shown + "\" has a value it does not accept");
        }
        if (value != defaultOf(*s)) out[path] = std::move(value);
    }
}

#if defined(_WIN32)
int processId() { return _getpid(); }
#else
int processId() { return static_cast<int>(::getpid()); }
#endif

// Writes bytes to file, flushed to the disk before it is closed.
bool writeFile(const fs::path& file, const std::string& bytes) {
#if defined(_WIN32)
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
#else
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    bool ok = ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
#endif
}

}  // namespace

// ---- PropertiesContext --------------------------------------------------------------------

ServiceObject* PropertiesContext::create() {
    return detail::makeHostObject<ContextTable, PropertiesContext>(
        QF::kPropertiesContextId, kName, detail::kPropertiesContextImplId, kContextTable);
}

PropertiesContext& PropertiesContext::of(ServiceObject* so) {
    return SODetails::implOf<ContextTable, PropertiesContext>(so);
}

ServiceObject* PropertiesContext::area(const std::u16string& name) {
    auto it = areas_.find(name);
    if (it == areas_.end()) {
        ObjectPtr made = ObjectPtr::adopt(detail::makeHostObject<AreaTable, PropertyArea>(
            QF::kPropertyAreaId, kAreaName, detail::kPropertyAreaImplId, kAreaTable));
        it = areas_.emplace(name, std::move(made)).first;
    }
    return it->second.get();
}

std::vector<ObjectPtr> PropertiesContext::properties(const std::u16string& area) const {
    auto it = areas_.find(area);
    if (it == areas_.end()) return {};
    return propertiesOf(it->second.get());
}

ObjectPtr PropertiesContext::find(const std::u16string& area, const std::u16string& name) const {
    for (ObjectPtr& p : properties(area)) {
        if (property::name(p.get()) == name) return p;
    }
    return {};
}

// Each area's list is emptied before its properties are released, so that a property's
// destructor reaching back into the context sees the area empty.
void PropertiesContext::clear() {
    for (auto& [name, area] : areas_) {
        std::vector<ObjectPtr> dropped;
        dropped.swap(propertiesOf(area.get()));
    }
}

// ---- property ------------------------------------------------------------------------------

namespace property {

std::u16string name(ServiceObject* p) {
    if (!SODetails::hasMethod(p, kGetNameSlot)) return {};
    Received r;
    const QF::TextSink sink{&r, &receiveText};
    if (propertyTable(p).GetName(p, &sink) != codes::kOk || r.kind != Received::Kind::Text)
        return {};
    return std::move(r.text);
}

uint32_t type(ServiceObject* p) {
    uint32_t t = 0;
    if (!SODetails::hasMethod(p, kGetTypeSlot) || propertyTable(p).GetType(p, &t) != codes::kOk)
        return 0;
    return t;
}

uint32_t isReadOnly(ServiceObject* p, bool* out) { return readFlag(p, kIsReadOnlySlot, out); }

uint32_t isHidden(ServiceObject* p, bool* out) { return readFlag(p, kIsHiddenSlot, out); }

uint32_t getText(ServiceObject* p, std::u16string* out) {
    if (!out) return codes::kBadArgument;
    return detail::guarded([&] {
        Received r;
        uint32_t rc = readValue(p, r);
        if (rc != codes::kOk) return rc;
        if (r.kind == Received::Kind::List) return kWrongType;
        *out = std::move(r.text);
        return codes::kOk;
    });
}

uint32_t getPairs(ServiceObject* p, std::vector<std::pair<std::u16string, std::u16string>>* out) {
    if (!out) return codes::kBadArgument;
    return detail::guarded([&] {
        Received r;
        uint32_t rc = readValue(p, r);
        if (rc != codes::kOk) return rc;
        if (r.kind == Received::Kind::Text) return kWrongType;
        *out = std::move(r.pairs);
        return codes::kOk;
    });
}

uint32_t setText(ServiceObject* p, const std::u16string& value) {
    return detail::guarded(
        [&] { return writeValue(p, QF::PropertyValue{value.data(), value.size(), nullptr}); });
}

uint32_t setPairs(ServiceObject* p,
                  const std::vector<std::pair<std::u16string, std::u16string>>& value) {
    return detail::guarded([&] {
        if (!p) return codes::kBadArgument;
        const ObjectPtr list = ObjectPtr::adopt(
            QF::MakeStringPairList<HostTraits>(value, detail::kHostStringPairListImplId));
        return writeValue(p, QF::PropertyValue{nullptr, 0, list.get()});
    });
}

}  // namespace property

// ---- AnnotPropertiesFactory ----------------------------------------------------------------

ServiceObject* AnnotPropertiesFactory::create(Host& host) {
    return SODetails::makeServiceObject<AnnotPropertiesTable, AnnotPropertiesFactory,
                                        HostTraits>(QF::kAnnotPropertiesFactoryId, kName,
                                                    detail::kAnnotPropertiesFactoryImplId,
                                                    kAnnotPropertiesTable, host);
}

AnnotPropertiesFactory& AnnotPropertiesFactory::of(ServiceObject* so) {
    return SODetails::implOf<AnnotPropertiesTable, AnnotPropertiesFactory>(so);
}

// Each call that reaches the commands manager takes the next unique command id (from 1).
uint32_t AnnotPropertiesFactory::addWidget(ServiceObject* document, uint64_t pageIndex,
                                           PDAnnot widget) {
    if (!document || !widget) return codes::kBadArgument;
    uint32_t name = 0;
    if (KRGetAtomFromString("AddWidget", &name) != KR_OK) return codes::kHostFailure;
    QF::AddWidgetParams params{document, pageIndex, widget};
    const QF::CommandArgs args{++calls_, name, &params};
    return host_->commands().execute(&args);
}

// addAnnotProperties: WidgetProperties.cpp.

// ---- AnnotPropertiesValidate ---------------------------------------------------------------

ServiceObject* AnnotPropertiesValidate::create(Host& host) {
    return SODetails::makeServiceObject<ValidateTable, AnnotPropertiesValidate, HostTraits>(
        QF::kAnnotPropertiesValidateId, kName, detail::kAnnotPropertiesValidateImplId,
        kValidateTable, host);
}

AnnotPropertiesValidate& AnnotPropertiesValidate::of(ServiceObject* so) {
    return SODetails::implOf<ValidateTable, AnnotPropertiesValidate>(so);
}

// The first problem found, in list order: an option (display text, export value) without a
// display text, or with an export value that an earlier option has already (a reader could
// not tell them apart).
std::optional<std::u16string> AnnotPropertiesValidate::checkOptionList(
    const std::vector<std::pair<std::u16string, std::u16string>>& options) const {
    const StringService& strings = host_->strings();
    auto translated = [&](const std::u16string& text) {
        return strings.translate(text).value_or(text);
    };
    for (size_t i = 0; i < options.size(); ++i) {
        const auto& [display, exportValue] = options[i];
        if (display.empty()) return translated(u"Every option needs a display text.");
        for (size_t j = 0; j < i; ++j) {
            if (options[j].second != exportValue) continue;
            std::u16string text = translated(u"Two options have the export value \"%1%\".");
            text.replace(text.find(u"%1%"), 3, exportValue);
            return text;
        }
    }
    return std::nullopt;
}

// ---- StringService -------------------------------------------------------------------------

ServiceObject* StringService::create() {
    // The host's language is the one modules see through the runtime.
    KRSetUILanguage("en");
    return detail::makeHostObject<StringTable, StringService>(
        QF::kStringServiceId, kName, detail::kStringServiceImplId, kStringTable);
}

StringService& StringService::of(ServiceObject* so) {
    return SODetails::implOf<StringTable, StringService>(so);
}

bool StringService::setLanguage(const std::string& language) {
    if (language != "en" && language != "ja") return false;
    language_ = language;
    KRSetUILanguage(language.c_str());
    return true;
}

std::optional<std::u16string> StringService::translate(const std::u16string& text) const {
    if (language_ != "ja") return std::nullopt;
    for (const auto& [english, japanese] : japaneseCatalog()) {
        if (english == text) return japanese;
    }
    return std::nullopt;
}

// The field name words become field names with a number after them ("テキスト1"), so their
// translations hold no spaces and no dots.
const std::vector<std::pair<std::u16string, std::u16string>>& StringService::japaneseCatalog() {
    static const std::vector<std::pair<std::u16string, std::u16string>> catalog = {
        {u"The name cannot be empty.", u"名前を空にすることはできません。"},
        {u"This name is already set for a different field type.",
         u"この名前は、種類の異なるフィールドで既に使用されています。"},
        {u"This name is already set for a different field type. Please type another name.",
         u"この名前は、種類の異なるフィールドで既に使用されています。"
         u"別の名前を入力してください。"},
        {u"This name now belongs to another field; the rename cannot be undone.",
         u"この名前は別のフィールドで使用されているため、名前の変更を元に戻せません。"},
        {u"Text", u"テキスト"},
        {u"CheckBox", u"チェックボックス"},
        {u"RadioGroup", u"ラジオボタングループ"},
        {u"ComboBox", u"コンボボックス"},
        {u"ListBox", u"リストボックス"},
        {u"Button", u"ボタン"},
        {u"PrintButton", u"印刷ボタン"},
        {u"EmailButton", u"メール送信ボタン"},
        {u"SaveButton", u"保存ボタン"},
        {u"SubmitButton", u"送信ボタン"},
        {u"Signature", u"署名"},
        {u"Every option needs a display text.", u"すべての選択肢に表示テキストが必要です。"},
        {u"Two options have the export value \"%1%\".",
         u"2 つの選択肢のエクスポート値が同じ「%1%」です。"},
        // The field properties' refusals (FieldProperties.cpp).
        {u"No field is selected.", u"フィールドが選択されていません。"},
        {u"The selected widgets have no property \"%1%\".",
         u"選択したウィジェットにはプロパティ「%1%」がありません。"},
        {u"A locked widget cannot be changed: unlock it first.",
         u"ロックされたウィジェットは変更できません。先にロックを解除してください。"},
        {u"This property is on or off (true or false).",
         u"このプロパティはオンかオフ（true または false）で指定します。"},
        {u"This property takes a number.", u"このプロパティには数値を指定してください。"},
        {u"This property takes a text.", u"このプロパティにはテキストを指定してください。"},
        {u"A colour is written #rrggbb, or none.",
         u"色は #rrggbb または none で指定してください。"},
        {u"\"%1%\" is not one of the choices.", u"「%1%」は選択肢にありません。"},
        {u"A comb field needs a maximum length.",
         u"コーム形式のフィールドには最大文字数の指定が必要です。"},
        {u"A comb field cannot be multiline, a password or a field that does not scroll.",
         u"コーム形式のフィールドは、複数行、パスワード、スクロールしないフィールドには"
         u"できません。"},
        {u"The maximum length must be a whole number from 0 to 32767.",
         u"最大文字数は 0 から 32767 までの整数で指定してください。"},
        {u"The maximum length cannot be shorter than the field's value (%1% characters).",
         u"最大文字数をフィールドの値（%1% 文字）より短くすることはできません。"},
        {u"The value is longer than the field's maximum length (%1% characters).",
         u"値がフィールドの最大文字数（%1% 文字）を超えています。"},
        {u"An export value cannot be empty.", u"書き出し値を空にすることはできません。"},
        {u"\"Off\" names the state of a button that is off: it cannot be an export value.",
         u"「Off」はオフのボタンの状態名のため、書き出し値には使用できません。"},
        {u"Another widget of this field has the export value \"%1%\".",
         u"このフィールドの別のウィジェットが既に書き出し値「%1%」を使用しています。"},
        {u"A font needs a name.", u"フォント名を入力してください。"},
        {u"The font size must be from 0 to 144 points (0 sizes the text to fit).",
         u"フォントサイズは 0～144 ポイントで指定してください（0 は自動調整）。"},
        {u"The text needs a colour: none is not one.",
         u"テキストには色が必要です。「なし」は指定できません。"},
        {u"The border width must be from 0 to 12 points.",
         u"境界線の幅は 0～12 ポイントで指定してください。"},
        {u"The rotation must be 0, 90, 180 or 270 degrees.",
         u"回転は 0、90、180、270 度のいずれかで指定してください。"},
    };
    return catalog;
}

// ---- UserSettings --------------------------------------------------------------------------

ServiceObject* UserSettings::create() {
    return detail::makeHostObject<SettingsTable, UserSettings>(
        QF::kUserSettingsId, kName, detail::kUserSettingsImplId, kSettingsTable);
}

UserSettings& UserSettings::of(ServiceObject* so) {
    return SODetails::implOf<SettingsTable, UserSettings>(so);
}

std::optional<UserSettings::Value> UserSettings::get(const std::u16string& path) const {
    const Setting* s = findSetting(path);
    if (!s) return std::nullopt;
    auto it = values_.find(path);
    return it != values_.end() ? it->second : defaultOf(*s);
}

// Also 3 for a value outside the setting's domain (a size below 1, an unknown format).
uint32_t UserSettings::set(const std::u16string& path, const Value& value) {
    const Setting* s = findSetting(path);
    if (!s) return codes::kNegative;
    if (uint32_t rc = check(*s, value); rc != codes::kOk) return rc;
    if (value == defaultOf(*s)) {
        values_.erase(path);
    } else {
        values_[path] = value;
    }
    return codes::kOk;
}

void UserSettings::reset() { values_.clear(); }

// The file replaces the current values: what it does not name goes back to its default,
// and a missing file gives the defaults.
void UserSettings::load(const std::string& path) {
    const auto fail = [&](const std::string& problem) {
        throw HostError(codes::kBadArgument, "settings file " + path + ": " + problem);
    };
    const fs::path file = fsPath(path);
    std::error_code ec;
    const bool present = fs::exists(file, ec);
    if (ec) fail(ec.message());
    if (!present) {
        values_.clear();
        return;
    }

    if (!fs::is_regular_file(file, ec)) fail("is not a file");
    std::ifstream in(file, std::ios::binary);
    if (!in) fail("cannot be read");
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) fail("cannot be read");
    nlohmann::json root;
    try {
        root = nlohmann::json::parse(bytes);
    } catch (const nlohmann::json::exception& e) {
        fail(std::string("not valid JSON: ") + e.what());
    }
    if (!root.is_object()) fail("the top level is not a JSON object");

    std::map<std::u16string, Value> loaded;
    readGroup(root, u"", loaded, fail);
    values_ = std::move(loaded);
}

void UserSettings::save(const std::string& path) const {
    const auto fail = [&](const std::string& problem) {
        throw HostError(codes::kHostFailure, "cannot save the settings to " + path + ": " +
                                                 problem);
    };
    if (path.empty()) fail("no file name");

    nlohmann::json root = nlohmann::json::object();
    for (const auto& [key, value] : values_) {
        nlohmann::json* node = &root;
        std::u16string_view rest = key;
        for (size_t slash; (slash = rest.find(u'/')) != std::u16string_view::npos;) {
            node = &(*node)[toUtf8(rest.substr(0, slash))];
            rest.remove_prefix(slash + 1);
        }
        if (const auto* i = std::get_if<int64_t>(&value)) {
            (*node)[toUtf8(rest)] = *i;
        } else {
            (*node)[toUtf8(rest)] = toUtf8(std::get<std::u16string>(value));
        }
    }
    const std::string bytes = root.dump(4) + "\n";

    const fs::path file = fsPath(path);
    std::error_code ec;
    if (file.has_parent_path()) {
        fs::create_directories(file.parent_path(), ec);
        if (ec) fail(ec.message());
    }
    fs::path temp = file;
    temp += ".tmp-" + std::to_string(processId());
    if (!writeFile(temp, bytes)) {
        fs::remove(temp, ec);
        fail("cannot write " + temp.string());
    }
    fs::rename(temp, file, ec);
    if (ec) {
        const std::string why = ec.message();
        fs::remove(temp, ec);
        fail(why);
    }
}

std::string UserSettings::defaultPath() {
    const fs::path tail = fs::path("qf-forms") / "settings.json";
#if defined(_WIN32)
    const char* appData = std::getenv("APPDATA");
    if (!appData || !*appData) return {};
    return (fs::path(appData) / tail).string();
#else
    // Relative values of these variables are ignored, as the base-directory rules say.
    const auto absolute = [](const char* variable) -> std::string {
        const char* value = std::getenv(variable);
        return value && value[0] == '/' ? value : "";
    };
    std::string base = absolute("XDG_CONFIG_HOME");
    if (base.empty()) {
        std::string home = absolute("HOME");
        if (home.empty()) {
            long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
            std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
            passwd entry{};
            passwd* found = nullptr;
            if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
                found && found->pw_dir && found->pw_dir[0] == '/')
                home = found->pw_dir;
        }
        if (home.empty()) return {};
        base = (fs::path(home) / ".config").string();
    }
    return (fs::path(base) / tail).string();
#endif
}

}  // namespace qfhost
