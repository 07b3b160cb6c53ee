// The field-property rows of the selected widgets and the command that changes them. Each
// property is a row of the table below: which kinds of field it applies to, whether it
// belongs to the field (set once per field) or to each widget, how it is read, checked and
// written. A change runs as one "Widget_SetProperty" command whose undo restores the saved
// states of every field it touched (PDFieldRestoreState), so that undo gives back the
// dictionaries and drawings exactly, for one widget or many.
#include "qfhost/FieldProperties.h"

#include "qfhost/Document.h"
#include "qfhost/Host.h"
#include "qfhost/UiServices.h"

#include "HeldHandle.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <utility>

namespace qfhost {

namespace {

using detail::Held;
using Value = FieldProperties::Value;
using Type = FieldProperties::Type;

constexpr uint32_t kSetPropertyCommandImplId = 0x51480303;

// Slots of the "QFDocument" table used here.
enum : size_t {
    kGetPageSlot = 1,
    kInvalidateRectSlot = 4,
    kIsValidSlot = 8,
};

QF::DocumentTable& documentTable(ServiceObject* document) {
    return *SODetails::methods<QF::DocumentTable>(document);
}

bool documentOpen(ServiceObject* document) {
    if (!document || !SODetails::hasMethod(document, kIsValidSlot)) return false;
    uint32_t valid = 0;
    return documentTable(document).IsValid(document, &valid) == codes::kOk && valid != 0;
}

// ---- kinds of field ----------------------------------------------------------------------

enum Kind : uint32_t {
    kText = 1,
    kCheck = 2,
    kRadio = 4,
    kCombo = 8,
    kList = 16,
    kButton = 32,
    kSignature = 64,
};
constexpr uint32_t kAll = 127;
constexpr uint32_t kValued = kText | kCheck | kRadio | kCombo | kList;
constexpr uint32_t kBoxes = kCheck | kRadio;
constexpr uint32_t kTextual = kText | kCombo | kList;

const char* kindName(uint32_t kind) {
    switch (kind) {
    case kText: return "text";
    case kCheck: return "check";
    case kRadio: return "radio";
    case kCombo: return "combo";
    case kList: return "list";
    case kButton: return "button";
    case kSignature: return "signature";
    }
    return "mixed";
}

// One selected widget with its field.
struct Target {
    uint64_t page = 0;
    PDAnnot widget = nullptr;  // the selection's reference
    Held field;
    uint32_t kind = 0;
    uint32_t flags = 0;
};

std::optional<Target> targetOf(const AnnotSelection::Selected& s) {
    Target t;
    t.page = s.pageIndex;
    t.widget = s.annot;
    PDAtom type = 0;
    if (PDWidgetAnnotGetParent(s.annot, t.field.put()) != PD_OK || !t.field.get() ||
        PDFieldGetType(t.field.get(), &type) != PD_OK ||
        PDFieldGetFlags(t.field.get(), &t.flags) != PD_OK)
        return std::nullopt;
    switch (type) {
    case PD_ATOM_Tx: t.kind = kText; break;
    case PD_ATOM_Ch: t.kind = (t.flags & PD_FIELD_COMBO) ? kCombo : kList; break;
    case PD_ATOM_Sig: t.kind = kSignature; break;
    case PD_ATOM_Btn:
        t.kind = (t.flags & PD_FIELD_PUSHBUTTON) ? kButton
                 : (t.flags & PD_FIELD_RADIO)    ? kRadio
                                                 : kCheck;
        break;
    default: return std::nullopt;
    }
    return t;
}

// ---- reading and writing values ----------------------------------------------------------

template <typename Get>
std::optional<std::u16string> readText(Get&& get) {
    uint32_t length = 0;
    if (get(nullptr, 0, &length) != PD_OK) return std::nullopt;
    std::u16string text(length + 1, u'\0');
    if (get(text.data(), length + 1, &length) != PD_OK) return std::nullopt;
    text.resize(length);
    return text;
}

PDResult writeText(PDResult (*set)(PDHandle, const char16_t*, uint32_t), PDHandle h,
                   const std::u16string& text) {
    return set(h, text.data(), static_cast<uint32_t>(text.size()));
}

std::u16string ascii(std::string_view s) { return {s.begin(), s.end()}; }

std::string narrow(const std::u16string& s) {
    std::string out;
    for (char16_t c : s) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

std::u16string colourText(uint32_t argb) {
    if ((argb >> 24) == 0) return u"none";
    char buf[8];
    std::snprintf(buf, sizeof buf, "#%06x", argb & 0xFFFFFFu);
    return ascii(buf);
}

std::optional<uint32_t> colourOf(const std::u16string& text) {
    if (text == u"none") return 0u;
    const std::string s = narrow(text);
    if (s.size() != 7 || s[0] != '#') return std::nullopt;
    uint32_t rgb = 0;
    auto [end, ec] = std::from_chars(s.data() + 1, s.data() + 7, rgb, 16);
    if (ec != std::errc() || end != s.data() + 7) return std::nullopt;
    return 0xFF000000u | rgb;
}

std::optional<std::u16string> fieldValue(PDField f, bool defaultValue) {
    auto get = defaultValue ? PDFieldGetDefaultValue : PDFieldGetValue;
    uint32_t length = 0;
    const PDResult r = get(f, nullptr, 0, &length);
    if (r == PD_ERR_NO_VALUE) return std::u16string();
    if (r != PD_OK) return std::nullopt;
    return readText([&](char16_t* b, uint32_t n, uint32_t* len) { return get(f, b, n, len); });
}

std::optional<std::u16string> onState(PDAnnot w) {
    return readText([&](char16_t* b, uint32_t n, uint32_t* len) {
        return PDButtonWidgetAnnotGetChoice(w, b, n, len);
    });
}

// The widgets of a field.
std::vector<Held> widgetsOf(PDField f) {
    std::vector<Held> out;
    uint32_t count = 0;
    if (PDFieldGetNumWidgets(f, &count) != PD_OK) return out;
    for (uint32_t i = 0; i < count; ++i) {
        Held w;
        if (PDFieldGetWidget(f, i, w.put()) == PD_OK && w.get()) out.push_back(std::move(w));
    }
    return out;
}

// What a value row of a check box or radio button field offers: Off and the on states of
// its widgets; of a choice field: no value and the options' export values.
std::vector<std::u16string> valueChoices(const Target& t) {
    std::vector<std::u16string> out;
    if (t.kind & kBoxes) {
        out.push_back(u"Off");
        for (const Held& w : widgetsOf(t.field.get())) {
            auto on = onState(w.get());
            if (on && !on->empty() && std::find(out.begin(), out.end(), *on) == out.end())
                out.push_back(*on);
        }
    } else {
        out.push_back(u"");
        uint32_t count = 0;
        PDChoiceFieldGetNumOptions(t.field.get(), &count);
        for (uint32_t i = 0; i < count; ++i) {
            auto v = readText([&](char16_t* b, uint32_t n, uint32_t* len) {
                return PDChoiceFieldGetOptionExportValue(t.field.get(), i, b, n, len);
            });
            if (v && std::find(out.begin(), out.end(), *v) == out.end()) out.push_back(*v);
        }
    }
    return out;
}

// ---- refusals ------------------------------------------------------------------------------

// An English sentence of the catalog, with %1% standing for arg.
struct Refusal {
    std::u16string sentence;
    std::u16string arg;
};
using Check = std::optional<Refusal>;

const char16_t* const kCombNeedsLength = u"A comb field needs a maximum length.";
const char16_t* const kCombExcludes =
    u"A comb field cannot be multiline, a password or a field that does not scroll.";

// ---- the table of properties -----------------------------------------------------------------

struct Property {
    const char* id;
    const char* group;
    Type type;
    bool ofField;   // set once per field
    uint32_t kinds;
    std::vector<const char16_t*> choices;
    const char* unit = "";
    double min = 0, max = 0;
    const char16_t* rangeSentence = nullptr;  // a number outside min..max
    std::function<std::optional<Value>(const Target&)> read = {};
    std::function<PDResult(const Target&, const Value&)> write = {};
    // Checks beyond the type, range and choices: the targets, then the value.
    std::function<Check(const std::vector<Target>&, const Value&)> check = {};
};

const std::u16string& text(const Value& v) { return std::get<std::u16string>(v); }

uint32_t currentFlags(PDField f) {
    uint32_t flags = 0;
    PDFieldGetFlags(f, &flags);
    return flags;
}

Property flagRow(const char* id, const char* group, uint32_t kinds, uint32_t bit) {
    Property p{id, group, Type::Bool, true, kinds, {}};
    p.read = [bit](const Target& t) -> std::optional<Value> {
        return (currentFlags(t.field.get()) & bit) != 0;
    };
    p.write = [bit](const Target& t, const Value& v) {
        const uint32_t flags = currentFlags(t.field.get());
        return PDFieldSetFlags(t.field.get(), std::get<bool>(v) ? flags | bit : flags & ~bit);
    };
    return p;
}

uint32_t maxLengthOf(PDField f) {
    uint32_t n = 0;
    PDTextFieldGetMaxLen(f, &n);
    return n;
}

// Multiline, password and do-not-scroll are refused while Comb is on.
Property combExcluded(const char* id, uint32_t bit) {
    Property p = flagRow(id, "text", kText, bit);
    p.check = [](const std::vector<Target>& targets, const Value& v) -> Check {
        if (!std::get<bool>(v)) return std::nullopt;
        for (const Target& t : targets)
            if (currentFlags(t.field.get()) & PD_FIELD_COMB) return Refusal{kCombExcludes, {}};
        return std::nullopt;
    };
    return p;
}

Property widgetColour(const char* id, PDResult (*get)(PDAnnot, uint32_t*),
                      PDResult (*set)(PDAnnot, uint32_t), bool noneAllowed) {
    Property p{id, "appearance", Type::Colour, false, kAll, {}};
    p.read = [get](const Target& t) -> std::optional<Value> {
        uint32_t argb = 0;
        if (get(t.widget, &argb) != PD_OK) return std::nullopt;
        return colourText(argb);
    };
    p.write = [set](const Target& t, const Value& v) { return set(t.widget, *colourOf(text(v))); };
    if (!noneAllowed) {
        p.kinds = kAll & ~kSignature;
        p.check = [](const std::vector<Target>&, const Value& v) -> Check {
            if (text(v) == u"none") return Refusal{u"The text needs a colour: none is not one.", {}};
            return std::nullopt;
        };
    }
    return p;
}

Property caption(const char* id, PDResult (*get)(PDAnnot, char16_t*, uint32_t, uint32_t*),
                 PDResult (*set)(PDAnnot, const char16_t*, uint32_t)) {
    Property p{id, "button", Type::Text, false, kButton, {}};
    p.read = [get](const Target& t) -> std::optional<Value> {
        uint32_t length = 0;
        if (get(t.widget, nullptr, 0, &length) == PD_ERR_NO_VALUE) return std::u16string();
        auto s = readText(
            [&](char16_t* b, uint32_t n, uint32_t* len) { return get(t.widget, b, n, len); });
        if (!s) return std::nullopt;
        return *s;
    };
    p.write = [set](const Target& t, const Value& v) { return writeText(set, t.widget, text(v)); };
    return p;
}

std::optional<PDBorderStyle> borderOf(PDAnnot w) {
    PDBorderStyle b{};
    if (PDWidgetAnnotGetBorderStyle(w, &b) != PD_OK) return std::nullopt;
    return b;
}

// The ZapfDingbats characters of the glyph styles, in the order of their ids.
constexpr const char16_t* kGlyphIds[] = {u"check", u"circle", u"cross",
                                         u"diamond", u"square", u"star"};
constexpr char16_t kGlyphChars[] = {u'4', u'l', u'8', u'u', u'n', u'H'};

const std::vector<Property>& properties() {
    static const std::vector<Property> table = [] {
        std::vector<Property> t;
        // general
        t.push_back(flagRow("required", "general", kValued, PD_FIELD_REQUIRED));
        t.push_back(flagRow("readOnly", "general", kAll, PD_FIELD_READONLY));
        t.push_back(flagRow("noExport", "general", kValued | kSignature, PD_FIELD_NO_EXPORT));
        {
            Property p{"tooltip", "general", Type::Text, true, kAll, {}};
            p.read = [](const Target& t) -> std::optional<Value> {
                uint32_t length = 0;
                if (PDFieldGetUIName(t.field.get(), nullptr, 0, &length) == PD_ERR_NO_VALUE)
                    return std::u16string();
                auto s = readText([&](char16_t* b, uint32_t n, uint32_t* len) {
                    return PDFieldGetUIName(t.field.get(), b, n, len);
                });
                if (!s) return std::nullopt;
                return *s;
            };
            p.write = [](const Target& t, const Value& v) {
                return writeText(PDFieldSetUIName, t.field.get(), text(v));
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"visibility", "general", Type::Choice, false, kAll,
                       {u"visible", u"hidden", u"noPrint", u"printOnly"}};
            p.read = [](const Target& t) -> std::optional<Value> {
                uint32_t f = 0;
                if (PDAnnotGetFlags(t.widget, &f) != PD_OK) return std::nullopt;
                const bool print = f & PD_ANNOT_PRINT;
                if (f & PD_ANNOT_HIDDEN) return std::u16string(u"hidden");
                if (f & PD_ANNOT_NOVIEW)
                    return std::u16string(print ? u"printOnly" : u"hidden");
                return std::u16string(print ? u"visible" : u"noPrint");
            };
            p.write = [](const Target& t, const Value& v) {
                uint32_t f = 0;
                if (PDResult r = PDAnnotGetFlags(t.widget, &f); r != PD_OK) return r;
                f &= ~uint32_t(PD_ANNOT_HIDDEN | PD_ANNOT_PRINT | PD_ANNOT_NOVIEW |
                               PD_ANNOT_INVISIBLE);
                const std::u16string& s = text(v);
                if (s == u"visible") f |= PD_ANNOT_PRINT;
                if (s == u"hidden") f |= PD_ANNOT_HIDDEN;
                if (s == u"printOnly") f |= PD_ANNOT_PRINT | PD_ANNOT_NOVIEW;
                return PDAnnotSetFlags(t.widget, f);
            };
            t.push_back(std::move(p));
        }
        // text
        t.push_back(combExcluded("multiline", PD_FIELD_MULTILINE));
        t.push_back(combExcluded("password", PD_FIELD_PASSWORD));
        t.push_back(combExcluded("doNotScroll", PD_FIELD_DO_NOT_SCROLL));
        t.push_back(flagRow("doNotSpellCheck", "text", kText, PD_FIELD_DO_NOT_SPELL_CHECK));
        {
            Property p{"maxLength", "text", Type::Number, true, kText, {}, "", 0, 32767,
                       u"The maximum length must be a whole number from 0 to 32767."};
            p.read = [](const Target& t) -> std::optional<Value> {
                return static_cast<double>(maxLengthOf(t.field.get()));
            };
            p.write = [](const Target& t, const Value& v) {
                return PDTextFieldSetMaxLen(t.field.get(),
                                            static_cast<uint32_t>(std::get<double>(v)));
            };
            p.check = [](const std::vector<Target>& targets, const Value& v) -> Check {
                const double n = std::get<double>(v);
                if (n != std::floor(n))
                    return Refusal{u"The maximum length must be a whole number from 0 to 32767.",
                                   {}};
                for (const Target& t : targets) {
                    if (n == 0 && (currentFlags(t.field.get()) & PD_FIELD_COMB))
                        return Refusal{kCombNeedsLength, {}};
                    const auto value = fieldValue(t.field.get(), false);
                    if (n > 0 && value && value->size() > n)
                        return Refusal{u"The maximum length cannot be shorter than the field's "
                                       u"value (%1% characters).",
                                       ascii(std::to_string(value->size()))};
                }
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        {
            Property p = flagRow("comb", "text", kText, PD_FIELD_COMB);
            p.check = [](const std::vector<Target>& targets, const Value& v) -> Check {
                if (!std::get<bool>(v)) return std::nullopt;
                for (const Target& t : targets) {
                    if (maxLengthOf(t.field.get()) == 0) return Refusal{kCombNeedsLength, {}};
                    if (currentFlags(t.field.get()) &
                        (PD_FIELD_MULTILINE | PD_FIELD_PASSWORD | PD_FIELD_DO_NOT_SCROLL))
                        return Refusal{kCombExcludes, {}};
                }
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        // choice
        t.push_back(flagRow("editable", "choice", kCombo, PD_FIELD_EDIT));
        t.push_back(flagRow("multiSelect", "choice", kList, PD_FIELD_MULTISELECT));
        t.push_back(flagRow("sort", "choice", kCombo | kList, PD_FIELD_SORT));
        t.push_back(
            flagRow("commitOnChange", "choice", kCombo | kList, PD_FIELD_COMMIT_ON_SEL_CHANGE));
        // button
        {
            Property p{"exportValue", "button", Type::Text, false, kBoxes, {}};
            p.read = [](const Target& t) -> std::optional<Value> {
                uint32_t length = 0;
                if (PDButtonWidgetAnnotGetChoice(t.widget, nullptr, 0, &length) == PD_ERR_NO_VALUE)
                    return std::u16string();
                auto s = onState(t.widget);
                if (!s) return std::nullopt;
                return *s;
            };
            p.write = [](const Target& t, const Value& v) {
                return writeText(PDButtonWidgetAnnotSetChoice, t.widget, text(v));
            };
            p.check = [](const std::vector<Target>& targets, const Value& v) -> Check {
                const std::u16string& name = text(v);
                if (name.empty()) return Refusal{u"An export value cannot be empty.", {}};
                if (name == u"Off")
                    return Refusal{u"\"Off\" names the state of a button that is off: it "
                                   u"cannot be an export value.",
                                   {}};
                for (const Target& t : targets) {
                    // Radio buttons in unison share their export values on purpose.
                    if ((t.kind & kRadio) && (t.flags & PD_FIELD_RADIOS_IN_UNISON)) continue;
                    for (const Held& w : widgetsOf(t.field.get())) {
                        bool selected = false, self = w.get() == t.widget;
                        for (const Target& other : targets)
                            selected = selected || (other.widget == w.get() && !self);
                        if (self) continue;
                        auto on = onState(w.get());
                        if (selected || (on && *on == name))
                            return Refusal{u"Another widget of this field has the export value "
                                           u"\"%1%\".",
                                           name};
                    }
                }
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"glyph", "button", Type::Choice, false, kBoxes, {}};
            for (const char16_t* id : kGlyphIds) p.choices.push_back(id);
            p.read = [](const Target& t) -> std::optional<Value> {
                uint32_t length = 0;
                std::u16string caption;
                if (PDButtonWidgetAnnotGetCaption(t.widget, nullptr, 0, &length) == PD_OK) {
                    auto s = readText([&](char16_t* b, uint32_t n, uint32_t* len) {
                        return PDButtonWidgetAnnotGetCaption(t.widget, b, n, len);
                    });
                    if (s) caption = *s;
                }
                // Drawn as a check (a circle in a radio button) without a character.
                if (caption.empty()) return std::u16string((t.kind & kRadio) ? u"circle" : u"check");
                for (size_t i = 0; i < std::size(kGlyphChars); ++i)
                    if (caption[0] == kGlyphChars[i]) return std::u16string(kGlyphIds[i]);
                return std::nullopt;  // a character of the author's own
            };
            p.write = [](const Target& t, const Value& v) -> PDResult {
                for (size_t i = 0; i < std::size(kGlyphIds); ++i)
                    if (text(v) == kGlyphIds[i])
                        return PDButtonWidgetAnnotSetCaption(t.widget, &kGlyphChars[i], 1);
                return PD_ERR_BAD_ARGUMENT;
            };
            t.push_back(std::move(p));
        }
        t.push_back(flagRow("radiosInUnison", "button", kRadio, PD_FIELD_RADIOS_IN_UNISON));
        t.push_back(flagRow("noToggleToOff", "button", kRadio, PD_FIELD_NO_TOGGLE_TO_OFF));
        t.push_back(caption("caption", PDButtonWidgetAnnotGetCaption, PDButtonWidgetAnnotSetCaption));
        t.push_back(caption("rolloverCaption", PDButtonWidgetAnnotGetRolloverCaption,
                            PDButtonWidgetAnnotSetRolloverCaption));
        t.push_back(caption("downCaption", PDButtonWidgetAnnotGetDownCaption,
                            PDButtonWidgetAnnotSetDownCaption));
        // appearance
        {
            Property p{"alignment", "appearance", Type::Choice, true, kTextual,
                       {u"left", u"center", u"right"}};
            p.read = [](const Target& t) -> std::optional<Value> {
                int32_t q = 0;
                if (PDTextWidgetAnnotGetQuadding(t.widget, &q) != PD_OK || q < 0 || q > 2)
                    return std::nullopt;
                return std::u16string(q == 0 ? u"left" : q == 1 ? u"center" : u"right");
            };
            p.write = [](const Target& t, const Value& v) {
                const std::u16string& s = text(v);
                return PDTextWidgetAnnotSetQuadding(t.widget, s == u"left" ? 0 : s == u"center" ? 1 : 2);
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"font", "appearance", Type::Text, false, kTextual | kButton, {}};
            p.read = [](const Target& t) -> std::optional<Value> {
                PDFontInfo info{};
                const char* family = nullptr;
                const PDResult r = PDWidgetAnnotGetFontInfo(t.widget, &info);
                if (r == PD_ERR_NO_VALUE) return std::u16string();
                if (r != PD_OK || PDAtomGetString(info.family, &family) != PD_OK || !family)
                    return std::nullopt;
                size_t n = 0;
                if (KRConvertUTF8ToUTF16(family, std::strlen(family), nullptr, 0, &n) != KR_OK)
                    return std::nullopt;
                std::u16string out(n, u'\0');
                if (n && KRConvertUTF8ToUTF16(family, std::strlen(family), out.data(), n, &n) != KR_OK)
                    return std::nullopt;
                return out;
            };
            p.write = [](const Target& t, const Value& v) -> PDResult {
                PDFontInfo info{};
                if (PDWidgetAnnotGetFontInfo(t.widget, &info) != PD_OK) info = PDFontInfo{};
                size_t n = 0;
                const std::u16string& name = text(v);
                if (KRConvertUTF16ToUTF8(name.data(), name.size(), nullptr, 0, &n) != KR_OK)
                    return PD_ERR_BAD_ARGUMENT;
                std::string family(n, '\0');
                if (KRConvertUTF16ToUTF8(name.data(), name.size(), family.data(), n, &n) != KR_OK)
                    return PD_ERR_BAD_ARGUMENT;
                if (PDResult r = PDAtomPutString(family.c_str(), &info.family); r != PD_OK) return r;
                if (info.format < 0 || info.format > 1) info.format = 0;
                if (info.style < 0 || info.style > 3) info.style = 0;
                return PDWidgetAnnotSetFontInfo(t.widget, &info);
            };
            p.check = [](const std::vector<Target>&, const Value& v) -> Check {
                const std::u16string& name = text(v);
                const bool blank = name.empty() || name.front() == u' ' || name.back() == u' ';
                if (blank || std::any_of(name.begin(), name.end(), [](char16_t c) { return c < 0x20; }))
                    return Refusal{u"A font needs a name.", {}};
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"fontSize", "appearance", Type::Number, false, kAll & ~kSignature, {},
                       "pt", 0, 144,
                       u"The font size must be from 0 to 144 points (0 sizes the text to fit)."};
            p.read = [](const Target& t) -> std::optional<Value> {
                float size = 0;
                const PDResult r = PDWidgetAnnotGetFontSize(t.widget, &size);
                if (r == PD_ERR_NO_VALUE) return 0.0;
                if (r != PD_OK) return std::nullopt;
                return std::round(double(size) * 100) / 100;
            };
            p.write = [](const Target& t, const Value& v) {
                return PDWidgetAnnotSetFontSize(t.widget, static_cast<float>(std::get<double>(v)));
            };
            t.push_back(std::move(p));
        }
        t.push_back(widgetColour("fontColor", PDWidgetAnnotGetFontColor, PDWidgetAnnotSetFontColor,
                                 false));
        t.push_back(widgetColour("backgroundColor", PDWidgetAnnotGetBgColor,
                                 PDWidgetAnnotSetBgColor, true));
        t.push_back(widgetColour("borderColor", PDWidgetAnnotGetBorderColor,
                                 PDWidgetAnnotSetBorderColor, true));
        {
            Property p{"borderWidth", "appearance", Type::Number, false, kAll, {}, "pt", 0, 12,
                       u"The border width must be from 0 to 12 points."};
            p.read = [](const Target& t) -> std::optional<Value> {
                auto b = borderOf(t.widget);
                if (!b) return std::nullopt;
                return std::round(double(b->width) * 100) / 100;
            };
            p.write = [](const Target& t, const Value& v) {
                auto b = borderOf(t.widget);
                if (!b) b = PDBorderStyle{};
                b->width = static_cast<float>(std::get<double>(v));
                return PDWidgetAnnotSetBorderStyle(t.widget, &*b);
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"borderStyle", "appearance", Type::Choice, false, kAll,
                       {u"solid", u"dashed", u"beveled", u"inset", u"underline"}};
            p.read = [choices = p.choices](const Target& t) -> std::optional<Value> {
                auto b = borderOf(t.widget);
                if (!b || b->style < 0 || b->style > 4) return std::nullopt;
                return std::u16string(choices[static_cast<size_t>(b->style)]);
            };
            p.write = [choices = p.choices](const Target& t, const Value& v) {
                auto b = borderOf(t.widget);
                if (!b) b = PDBorderStyle{0, 1, 0, {}};
                for (size_t i = 0; i < choices.size(); ++i)
                    if (text(v) == choices[i]) b->style = static_cast<int32_t>(i);
                // A dashed border without dashes of its own gets the usual 3 on, 3 off.
                if (b->style == 1 && b->dashCount == 0) {
                    b->dashCount = 1;
                    b->dash[0] = 3;
                }
                return PDWidgetAnnotSetBorderStyle(t.widget, &*b);
            };
            t.push_back(std::move(p));
        }
        {
            Property p{"rotation", "appearance", Type::Number, false, kAll, {}, "\xC2\xB0", 0,
                       270, u"The rotation must be 0, 90, 180 or 270 degrees."};
            p.read = [](const Target& t) -> std::optional<Value> {
                int32_t degrees = 0;
                if (PDWidgetAnnotGetRotate(t.widget, &degrees) != PD_OK) return std::nullopt;
                return static_cast<double>(degrees);
            };
            p.write = [](const Target& t, const Value& v) {
                return PDWidgetAnnotSetRotate(t.widget, static_cast<int32_t>(std::get<double>(v)));
            };
            p.check = [](const std::vector<Target>&, const Value& v) -> Check {
                if (std::fmod(std::get<double>(v), 90) != 0)
                    return Refusal{u"The rotation must be 0, 90, 180 or 270 degrees.", {}};
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        // value: its type and choices depend on the fields (valueRow)
        for (const bool isDefault : {false, true}) {
            Property p{isDefault ? "defaultValue" : "value", "value", Type::Text, true, kValued,
                       {}};
            p.read = [isDefault](const Target& t) -> std::optional<Value> {
                auto v = fieldValue(t.field.get(), isDefault);
                if (!v) return std::nullopt;
                if ((t.kind & kBoxes) && v->empty()) return std::u16string(u"Off");
                return *v;
            };
            p.write = [isDefault](const Target& t, const Value& v) {
                return writeText(isDefault ? PDFieldSetDefaultValue : PDFieldSetValue,
                                 t.field.get(), text(v));
            };
            p.check = [](const std::vector<Target>& targets, const Value& v) -> Check {
                for (const Target& t : targets) {
                    const uint32_t n = t.kind == kText ? maxLengthOf(t.field.get()) : 0;
                    if (n > 0 && text(v).size() > n)
                        return Refusal{u"The value is longer than the field's maximum length "
                                       u"(%1% characters).",
                                       ascii(std::to_string(n))};
                }
                return std::nullopt;
            };
            t.push_back(std::move(p));
        }
        return t;
    }();
    return table;
}

const Property* find(const std::string& id) {
    for (const Property& p : properties())
        if (id == p.id) return &p;
    return nullptr;
}

// Whether targets are all of one field.
bool oneField(const std::vector<Target>& targets) {
    for (const Target& t : targets)
        if (t.field.get() != targets.front().field.get()) return false;
    return true;
}

// The type a property has for targets, or nothing when it does not apply to all of them.
std::optional<Type> typeFor(const Property& p, const std::vector<Target>& targets,
                            uint32_t kinds) {
    if (targets.empty() || (kinds & ~p.kinds) != 0) return std::nullopt;
    if (p.group != std::string("value")) return p.type;
    // Texts of any number of fields; the values a check box, radio button or list offers
    // are those of one field. An editable combo box takes any text.
    const bool texts = std::all_of(targets.begin(), targets.end(), [](const Target& t) {
        return t.kind == kText || (t.kind == kCombo && (t.flags & PD_FIELD_EDIT));
    });
    if (texts) return Type::Text;
    if (oneField(targets)) return Type::Choice;
    return std::nullopt;
}

std::vector<std::u16string> choicesFor(const Property& p, const std::vector<Target>& targets) {
    if (p.group == std::string("value")) return valueChoices(targets.front());
    return {p.choices.begin(), p.choices.end()};
}

bool locked(const Target& t) {
    uint32_t f = 0;
    return PDAnnotGetFlags(t.widget, &f) == PD_OK && (f & PD_ANNOT_LOCKED);
}

// One target per field for a property of the field, else every target.
std::vector<const Target*> writeTargets(const Property& p, const std::vector<Target>& targets) {
    std::vector<const Target*> out;
    std::set<PDField> fields;
    for (const Target& t : targets)
        if (!p.ofField || fields.insert(t.field.get()).second) out.push_back(&t);
    return out;
}

// ---- the command -------------------------------------------------------------------------

struct StateDeleter {
    void operator()(PDFieldStateRec* s) const { PDFieldStateFree(s); }
};
using SavedState = std::unique_ptr<PDFieldStateRec, StateDeleter>;

// Writes one property to its targets. DO saves the state of every field it touches and
// writes; UNDO restores those states. Both hold the locks of every page that shows a
// widget of those fields, set the pages' changed flags (UNDO puts back what they were),
// notify the document (kind 0) of every such widget and invalidate its rectangle. A write
// that fails puts back what was written before it: the command then did nothing.
struct SetPropertyCommand {
    ObjectPtr document;
    std::vector<Target> targets;
    const Property* property;
    Value value;
    uint32_t uniqueId;
    std::vector<Held> fields;
    std::vector<std::pair<uint64_t, Held>> shown;  // every widget of the fields, by page
    std::vector<SavedState> before;
    std::map<uint64_t, bool> changedBefore;

    SetPropertyCommand(ObjectPtr doc, std::vector<Target> t, const Property* p, Value v)
        : document(std::move(doc)), targets(std::move(t)), property(p), value(std::move(v)),
          uniqueId(nextUniqueId()) {
        std::set<PDField> seen;
        for (const Target& target : targets) {
            if (!seen.insert(target.field.get()).second) continue;
            fields.push_back(Held::share(target.field.get()));
            for (Held& w : widgetsOf(target.field.get())) {
                Held page;
                uint32_t index = 0;
                if (PDAnnotGetPage(w.get(), page.put()) == PD_OK &&
                    PDPageGetIndex(page.get(), &index) == PD_OK)
                    shown.emplace_back(index, std::move(w));
            }
        }
    }

    static uint32_t nextUniqueId() {
        static std::atomic<uint32_t> counter{0};
        return ++counter;
    }
    static uint32_t nameAtom() {
        static const uint32_t id = [] {
            uint32_t atom = 0;
            return KRGetAtomFromString("Widget_SetProperty", &atom) == KR_OK ? atom : 0;
        }();
        return id;
    }

    uint32_t apply(bool undo) {
        ServiceObject* doc = document.get();
        if (!documentOpen(doc)) return codes::kDocumentClosed;
        if (!SODetails::hasMethod(doc, kInvalidateRectSlot)) return codes::kNotInitialized;
        QF::DocumentTable& table = documentTable(doc);
        // Every page first, so that a busy one stops the command before it wrote anything.
        std::set<uint64_t> pageIndices;
        for (const auto& s : shown) pageIndices.insert(s.first);
        struct Locked {
            uint64_t index;
            ObjectPtr page;
            uint64_t token;
        };
        std::vector<Locked> pages;
        auto unlockAll = [&] {
            for (Locked& l : pages)
                SODetails::methods<QF::PageTable>(l.page.get())->Unlock(l.page.get(), l.token);
        };
        for (uint64_t index : pageIndices) {
            Locked l{index, {}, 0};
            uint32_t rc = table.GetPage(doc, index, l.page.put());
            if (rc == codes::kOk)
                rc = SODetails::methods<QF::PageTable>(l.page.get())
                         ->Lock(l.page.get(), Document::kExclusiveLock, &l.token);
            if (rc != codes::kOk) {
                unlockAll();
                return rc;
            }
            pages.push_back(std::move(l));
        }
        const uint32_t rc = undo ? restore() : write();
        unlockAll();
        if (rc != codes::kOk) return rc;
        for (Locked& l : pages) {
            auto& pageTable = *SODetails::methods<QF::PageTable>(l.page.get());
            if (!undo) {
                uint8_t changed = 0;
                pageTable.GetChanged(l.page.get(), &changed);
                changedBefore[l.index] = changed != 0;
                pageTable.SetChanged(l.page.get(), 1);
            } else {
                pageTable.SetChanged(l.page.get(), changedBefore[l.index] ? 1 : 0);
            }
        }
        for (const auto& [index, widget] : shown) {
            table.NotifyAnnotChanged(doc, 0, index, widget.get());
            PDRect r{};
            if (PDAnnotGetRect(widget.get(), &r) == PD_OK) {
                const float rect[4] = {r.left, r.top, r.right, r.bottom};
                table.InvalidateRect(doc, index, rect, 0);
            }
        }
        return codes::kOk;
    }

    uint32_t write() {
        before.clear();
        for (const Held& f : fields) {
            PDFieldState s = nullptr;
            if (PDFieldSaveState(f.get(), &s) != PD_OK) {
                before.clear();
                return codes::kPdfFailure;
            }
            before.emplace_back(s);
        }
        for (const Target* t : writeTargets(*property, targets)) {
            if (property->write(*t, value) != PD_OK) {
                restore();
                return codes::kPdfFailure;
            }
        }
        return codes::kOk;
    }

    uint32_t restore() {
        for (auto it = before.rbegin(); it != before.rend(); ++it)
            if (PDFieldRestoreState(it->get()) != PD_OK) return codes::kPdfFailure;
        return codes::kOk;
    }
};

SetPropertyCommand& commandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, SetPropertyCommand>(so);
}

uint32_t putName(uint32_t* out) {
    if (!out) return codes::kBadArgument;
    *out = SetPropertyCommand::nameAtom();
    return codes::kOk;
}

const QF::CommandTable kCommandTable = {
    [](ServiceObject*, uint32_t* out) -> uint32_t { return putName(out); },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).uniqueId;
        return codes::kOk;
    },
    [](ServiceObject*, uint32_t* out) -> uint32_t { return putName(out); },
    [](ServiceObject*, uint32_t* out) -> uint32_t { return putName(out); },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(true); });
    },
};

std::vector<Target> targetsOf(const std::vector<AnnotSelection::Selected>& widgets) {
    std::vector<Target> out;
    for (const auto& s : widgets)
        if (auto t = targetOf(s)) out.push_back(std::move(*t));
    return out;
}

uint32_t kindsOf(const std::vector<Target>& targets) {
    uint32_t kinds = 0;
    for (const Target& t : targets) kinds |= t.kind;
    return kinds;
}

}  // namespace

FieldProperties::Sheet FieldProperties::sheet(
    const std::vector<AnnotSelection::Selected>& widgets) const {
    Sheet sheet;
    const std::vector<Target> targets = targetsOf(widgets);
    sheet.count = targets.size();
    if (targets.empty()) return sheet;
    const uint32_t kinds = kindsOf(targets);
    sheet.kind = kindName(kinds);
    Document* doc = host_->currentDocument();
    const bool open = doc && documentOpen(doc->object());
    const bool anyLocked = std::any_of(targets.begin(), targets.end(), locked);
    for (const Property& p : properties()) {
        const auto type = typeFor(p, targets, kinds);
        if (!type) continue;
        Row row;
        row.id = p.id;
        row.group = p.group;
        row.type = *type;
        if (*type == Type::Choice) row.choices = choicesFor(p, targets);
        if (*type == Type::Number) {
            row.unit = p.unit;
            row.min = p.min;
            row.max = p.max;
        }
        row.readOnly = !open || anyLocked;
        const auto from = writeTargets(p, targets);
        for (const Target* t : from) {
            const auto v = p.read(*t);
            if (!v || (t != from.front() && row.value != v)) {
                row.value.reset();
                break;
            }
            row.value = v;
        }
        sheet.rows.push_back(std::move(row));
    }
    return sheet;
}

uint32_t FieldProperties::set(const std::vector<AnnotSelection::Selected>& widgets,
                              const std::string& id, const Value& value,
                              std::u16string* reason) {
    auto refuse = [&](const Refusal& r) {
        if (reason) {
            *reason = host_->strings().translate(r.sentence).value_or(r.sentence);
            if (const size_t at = reason->find(u"%1%"); at != std::u16string::npos)
                reason->replace(at, 3, r.arg);
        }
        return codes::kBadArgument;
    };
    Document* doc = host_->currentDocument();
    if (!doc || !documentOpen(doc->object())) return codes::kDocumentClosed;
    const std::vector<Target> targets = targetsOf(widgets);
    if (targets.empty()) return refuse({u"No field is selected.", {}});
    const Property* p = find(id);
    const auto type = p ? typeFor(*p, targets, kindsOf(targets)) : std::nullopt;
    if (!type) return refuse({u"The selected widgets have no property \"%1%\".", ascii(id)});
    if (std::any_of(targets.begin(), targets.end(), locked))
        return refuse({u"A locked widget cannot be changed: unlock it first.", {}});

    switch (*type) {
    case Type::Bool:
        if (!std::holds_alternative<bool>(value))
            return refuse({u"This property is on or off (true or false).", {}});
        break;
    case Type::Number: {
        if (!std::holds_alternative<double>(value))
            return refuse({u"This property takes a number.", {}});
        const double n = std::get<double>(value);
        if (!std::isfinite(n) || n < p->min || n > p->max) return refuse({p->rangeSentence, {}});
        break;
    }
    case Type::Text:
    case Type::Choice:
    case Type::Colour:
        if (!std::holds_alternative<std::u16string>(value))
            return refuse({u"This property takes a text.", {}});
        if (*type == Type::Colour && !colourOf(text(value)))
            return refuse({u"A colour is written #rrggbb, or none.", {}});
        if (*type == Type::Choice) {
            const auto choices = choicesFor(*p, targets);
            if (std::find(choices.begin(), choices.end(), text(value)) == choices.end())
                return refuse({u"\"%1%\" is not one of the choices.", text(value)});
        }
        break;
    }
    if (p->check)
        if (auto refusal = p->check(targets, value)) return refuse(*refusal);

    // A colour is compared as the colour it is ("#FF0000" is "#ff0000").
    Value wanted = value;
    if (*type == Type::Colour) wanted = colourText(*colourOf(text(value)));
    const auto unchanged = [&](const Target* t) { return p->read(*t) == wanted; };
    const auto to = writeTargets(*p, targets);
    if (std::all_of(to.begin(), to.end(), unchanged)) return codes::kOk;

    ObjectPtr command = ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandTable, SetPropertyCommand, HostTraits>(
            QF::kCommandId, "Command", kSetPropertyCommandImplId, kCommandTable,
            ObjectPtr::share(doc->object()), targetsOf(widgets), p, wanted));
    return host_->commands().run(command.get());
}

}  // namespace qfhost
