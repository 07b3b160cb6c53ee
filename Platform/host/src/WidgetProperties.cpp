// The property rows of a form widget on the host's annotation panel (the area "AnnotArea"
// of a properties context), and the undoable command that changes a widget's attributes.
// Rows are host-made "QFProperty" objects with text values. The rectangle and the Locked
// flag change through the document's annotation operations; every other row through a
// WidgetAttributeCommand on the host's commands manager. Everything runs on the
// user-interface thread; no exception leaves a method table (guarded).
#include "qfhost/UiServices.h"

#include "qfhost/Document.h"
#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qfhost {

namespace {

using detail::Held;

enum : uint32_t {
    kWidgetPropertyImplId = 0x51480301,
    kWidgetAttributeCommandImplId = 0x51480302,
};

// Slots of the "QFDocument" and "QFPropertiesContext" tables used here.
enum : size_t {
    kGetPageSlot = 1,
    kNotifyAnnotChangedSlot = 2,
    kInvalidateRectSlot = 4,
    kPerformAnnotOperationSlot = 5,
    kIsValidSlot = 8,
    kGetAreaSlot = 0,
    kAddPropertySlot = 0,
};

uint32_t atomOf(const char* name) {
    uint32_t id = 0;
    if (KRGetAtomFromString(name, &id) != KR_OK) return 0;
    return id;
}

QF::DocumentTable& documentTable(ServiceObject* document) {
    return *SODetails::methods<QF::DocumentTable>(document);
}

// Whether the "QFDocument" block still stands for an open document.
bool documentOpen(ServiceObject* document) {
    if (!SODetails::hasMethod(document, kIsValidSlot)) return false;
    uint32_t valid = 0;
    return documentTable(document).IsValid(document, &valid) == codes::kOk && valid != 0;
}

// ---- rows and their values ----------------------------------------------------------------

enum class Row {
    Rect,
    Locked,
    Hidden,
    Printed,
    BackgroundColor,
    BorderColor,
    BorderWidth,
    BorderStyle,
    FontName,
    FontSize,
    FontColor,
};

struct RowName {
    Row row;
    const char16_t* name;
};
constexpr RowName kRows[] = {
    {Row::Rect, u"Rect"},
    {Row::Locked, u"Locked"},
    {Row::Hidden, u"Hidden"},
    {Row::Printed, u"Printed"},
    {Row::BackgroundColor, u"BackgroundColor"},
    {Row::BorderColor, u"BorderColor"},
    {Row::BorderWidth, u"BorderWidth"},
    {Row::BorderStyle, u"BorderStyle"},
    {Row::FontName, u"FontName"},
    {Row::FontSize, u"FontSize"},
    {Row::FontColor, u"FontColor"},
};

const char16_t* nameOf(Row row) {
    for (const RowName& r : kRows) {
        if (r.row == row) return r.name;
    }
    return u"";
}

constexpr const char* kBorderStyles[] = {"solid", "dashed", "beveled", "inset", "underline"};

// One row's value in pdfcore's terms. Rows that are part of a larger value (a flag of /F,
// the width or style of the border, the family of the font) carry the whole of it, so
// that writing it back changes only the row's part.
struct Value {
    PDRect rect{};
    uint32_t word = 0;  // flags, or an ARGB colour
    float number = 0;   // font size
    PDBorderStyle border{};
    PDFontInfo font{};
};

uint32_t flagOf(Row row) {
    return row == Row::Locked   ? PD_ANNOT_LOCKED
           : row == Row::Hidden ? PD_ANNOT_HIDDEN
                                : PD_ANNOT_PRINT;
}

PDResult readValue(PDAnnot w, Row row, Value& v) {
    switch (row) {
    case Row::Rect: return PDAnnotGetRect(w, &v.rect);
    case Row::Locked:
    case Row::Hidden:
    case Row::Printed: return PDAnnotGetFlags(w, &v.word);
    case Row::BackgroundColor: return PDWidgetAnnotGetBgColor(w, &v.word);
    case Row::BorderColor: return PDWidgetAnnotGetBorderColor(w, &v.word);
    case Row::BorderWidth:
    case Row::BorderStyle: return PDWidgetAnnotGetBorderStyle(w, &v.border);
    case Row::FontName: return PDWidgetAnnotGetFontInfo(w, &v.font);
    case Row::FontSize: return PDWidgetAnnotGetFontSize(w, &v.number);
    case Row::FontColor: return PDWidgetAnnotGetFontColor(w, &v.word);
    }
    return PD_ERR_BAD_ARGUMENT;
}

// The rows that WidgetAttributeCommand writes (not Rect and Locked).
PDResult writeValue(PDAnnot w, Row row, const Value& v) {
    switch (row) {
    case Row::Hidden:
    case Row::Printed: return PDAnnotSetFlags(w, v.word);
    case Row::BackgroundColor: return PDWidgetAnnotSetBgColor(w, v.word);
    case Row::BorderColor: return PDWidgetAnnotSetBorderColor(w, v.word);
    case Row::BorderWidth:
    case Row::BorderStyle: return PDWidgetAnnotSetBorderStyle(w, &v.border);
    case Row::FontName: return PDWidgetAnnotSetFontInfo(w, &v.font);
    case Row::FontSize: return PDWidgetAnnotSetFontSize(w, v.number);
    case Row::FontColor: return PDWidgetAnnotSetFontColor(w, v.word);
    default: return PD_ERR_BAD_ARGUMENT;
    }
}

// ---- text ----------------------------------------------------------------------------------

std::u16string fromAscii(std::string_view s) { return {s.begin(), s.end()}; }

// The text as ASCII, or nothing when it holds anything else.
std::optional<std::string> toAscii(std::u16string_view s) {
    std::string out;
    for (char16_t c : s) {
        if (c >= 0x80) return std::nullopt;
        out.push_back(static_cast<char>(c));
    }
    return out;
}

std::string utf8Of(std::u16string_view s) {
    size_t needed = 0;
    if (KRConvertUTF16ToUTF8(s.data(), s.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::string out(needed, '\0');
    if (needed && KRConvertUTF16ToUTF8(s.data(), s.size(), out.data(), needed, &needed) != KR_OK)
        return {};
    return out;
}

std::u16string fromUtf8(std::string_view s) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(s.data(), s.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::u16string out(needed, u'\0');
    if (needed && KRConvertUTF8ToUTF16(s.data(), s.size(), out.data(), needed, &needed) != KR_OK)
        return {};
    return out;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// A finite decimal number making up the whole of s.
std::optional<double> number(std::string_view s) {
    double v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size() || !std::isfinite(v))
        return std::nullopt;
    return v;
}

// Up to two decimals, without trailing zeros: "1", "0.5", "12.25".
std::string shortNumber(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.2f", v);
    std::string s = buf;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s == "-0" ? "0" : s;
}

std::string colourText(uint32_t argb) {
    if ((argb >> 24) == 0) return "none";
    char buf[8];
    std::snprintf(buf, sizeof buf, "#%06X", argb & 0xFFFFFFu);
    return buf;
}

std::optional<uint32_t> colourOf(std::string_view s) {
    if (s == "none") return 0u;
    if (s.size() != 7 || s[0] != '#') return std::nullopt;
    uint32_t rgb = 0;
    auto [end, ec] = std::from_chars(s.data() + 1, s.data() + 7, rgb, 16);
    if (ec != std::errc() || end != s.data() + 7) return std::nullopt;
    return 0xFF000000u | rgb;
}

std::u16string format(Row row, const Value& v) {
    switch (row) {
    case Row::Rect: {
        const PDRect& r = v.rect;
        char buf[160];
        std::snprintf(buf, sizeof buf, "%.2f %.2f %.2f %.2f", std::min(r.left, r.right),
                      std::min(r.top, r.bottom), std::max(r.left, r.right),
                      std::max(r.top, r.bottom));
        return fromAscii(buf);
    }
    case Row::Locked:
    case Row::Hidden:
    case Row::Printed: return fromAscii((v.word & flagOf(row)) ? "true" : "false");
    case Row::BackgroundColor:
    case Row::BorderColor:
    case Row::FontColor: return fromAscii(colourText(v.word));
    case Row::BorderWidth: return fromAscii(shortNumber(v.border.width));
    case Row::BorderStyle:
        return v.border.style >= 0 && v.border.style <= 4 ? fromAscii(kBorderStyles[v.border.style])
                                                          : u"";
    case Row::FontName: {
        const char* family = nullptr;
        if (!v.font.family || PDAtomGetString(v.font.family, &family) != PD_OK || !family)
            return u"";
        return fromUtf8(family);
    }
    case Row::FontSize: return fromAscii(shortNumber(v.number));
    }
    return u"";
}

// The value text stands for, built on current for the parts the row does not show;
// nothing when text is malformed.
std::optional<Value> parse(Row row, std::u16string_view text, const Value& current) {
    Value v = current;
    if (row == Row::FontName) {
        const std::string family = utf8Of(text);
        if (trimmed(family).empty() || trimmed(family).size() != family.size()) return std::nullopt;
        if (PDAtomPutString(family.c_str(), &v.font.family) != PD_OK) return std::nullopt;
        if (v.font.format < 0 || v.font.format > 1) v.font.format = 0;
        if (v.font.style < 0 || v.font.style > 3) v.font.style = 0;
        return v;
    }
    const std::optional<std::string> ascii = toAscii(text);
    if (!ascii) return std::nullopt;
    const std::string_view s = trimmed(*ascii);
    switch (row) {
    case Row::Rect: {
        // Four numbers, left bottom right top, apart by spaces or commas.
        std::array<double, 4> n{};
        size_t count = 0, at = 0;
        while (at < s.size()) {
            size_t end = s.find_first_of(" \t,", at);
            if (end == std::string_view::npos) end = s.size();
            if (end > at) {
                auto value = number(s.substr(at, end - at));
                if (!value || count == 4) return std::nullopt;
                n[count++] = *value;
            }
            at = end + 1;
        }
        if (count != 4) return std::nullopt;
        v.rect = PDRect{static_cast<float>(n[0]), static_cast<float>(n[3]),
                        static_cast<float>(n[2]), static_cast<float>(n[1])};
        for (float f : {v.rect.left, v.rect.top, v.rect.right, v.rect.bottom}) {
            if (!std::isfinite(f)) return std::nullopt;  // beyond what a float holds
        }
        return v;
    }
    case Row::Locked:
    case Row::Hidden:
    case Row::Printed:
        if (s == "true") {
            v.word |= flagOf(row);
        } else if (s == "false") {
            v.word &= ~flagOf(row);
        } else {
            return std::nullopt;
        }
        return v;
    case Row::BackgroundColor:
    case Row::BorderColor:
    case Row::FontColor: {
        auto argb = colourOf(s);
        if (!argb) return std::nullopt;
        v.word = *argb;
        return v;
    }
    case Row::BorderWidth:
    case Row::FontSize: {
        auto n = number(s);
        if (!n || *n < 0 || *n > 14400) return std::nullopt;
        if (row == Row::FontSize) {
            v.number = static_cast<float>(*n);
        } else {
            v.border.width = static_cast<float>(*n);
        }
        return v;
    }
    case Row::BorderStyle:
        for (int i = 0; i < 5; ++i) {
            if (s == kBorderStyles[i]) {
                v.border.style = i;
                return v;
            }
        }
        return std::nullopt;
    case Row::FontName: break;
    }
    return std::nullopt;
}

// ---- the attribute command ----------------------------------------------------------------

// Changes one attribute of a widget, undoably: DO writes the new value, UNDO the old one.
// Each holds the page's lock while it writes (a page locked by someone else answers
// kPageBusy), notifies the document (kind 0), invalidates the widget's rectangle and sets
// the page's changed flag, which UNDO restores.
struct WidgetAttributeCommand {
    ObjectPtr document;
    uint64_t pageIndex;
    Held widget;
    Row row;
    Value oldValue, newValue;
    uint32_t uniqueId;
    bool changedBefore = false;

    WidgetAttributeCommand(ObjectPtr doc, uint64_t page, PDAnnot w, Row r, const Value& before,
                           const Value& after)
        : document(std::move(doc)), pageIndex(page), widget(Held::share(w)), row(r),
          oldValue(before), newValue(after), uniqueId(nextUniqueId()) {}

    static uint32_t nextUniqueId() {
        static std::atomic<uint32_t> counter{0};
        return ++counter;
    }
    static uint32_t nameAtom() {
        static const uint32_t id = atomOf("Widget_SetAttribute");
        return id;
    }

    uint32_t apply(bool undo) {
        ServiceObject* doc = document.get();
        if (!documentOpen(doc)) return codes::kDocumentClosed;
        if (!SODetails::hasMethod(doc, kInvalidateRectSlot)) return codes::kNotInitialized;
        QF::DocumentTable& table = documentTable(doc);
        ObjectPtr page;
        uint32_t rc = table.GetPage(doc, pageIndex, page.put());
        if (rc != codes::kOk) return rc;
        auto& pageTable = *SODetails::methods<QF::PageTable>(page.get());
        uint64_t token = 0;
        rc = pageTable.Lock(page.get(), Document::kExclusiveLock, &token);
        if (rc != codes::kOk) return rc;
        const PDResult written = writeValue(widget.get(), row, undo ? oldValue : newValue);
        pageTable.Unlock(page.get(), token);
        if (written != PD_OK) return codes::kPdfFailure;
        if (!undo) {
            uint8_t changed = 0;
            pageTable.GetChanged(page.get(), &changed);
            changedBefore = changed != 0;
            pageTable.SetChanged(page.get(), 1);
        } else {
            pageTable.SetChanged(page.get(), changedBefore ? 1 : 0);
        }
        table.NotifyAnnotChanged(doc, 0, pageIndex, widget.get());
        PDRect r{};
        if (PDAnnotGetRect(widget.get(), &r) == PD_OK) {
            const float rect[4] = {r.left, r.top, r.right, r.bottom};
            table.InvalidateRect(doc, pageIndex, rect, 0);
        }
        return codes::kOk;
    }
};

WidgetAttributeCommand& commandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, WidgetAttributeCommand>(so);
}

const QF::CommandTable kCommandTable = {
    [](ServiceObject*, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = WidgetAttributeCommand::nameAtom();
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).uniqueId;
        return codes::kOk;
    },
    [](ServiceObject*, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = WidgetAttributeCommand::nameAtom();
        return codes::kOk;
    },
    [](ServiceObject*, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = WidgetAttributeCommand::nameAtom();
        return codes::kOk;
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(true); });
    },
};

// ---- the property ----------------------------------------------------------------------------

// One row of one widget. Holds the document block and the widget; after the document is
// closed the row reads empty, is read-only and refuses values (kDocumentClosed).
struct WidgetProperty {
    Host* host;
    ObjectPtr document;
    uint64_t pageIndex;
    Held widget;
    Row row;
    std::vector<std::pair<QF::PropertyChangedProc, void*>> listeners;

    WidgetProperty(Host* h, ObjectPtr doc, uint64_t page, PDAnnot w, Row r)
        : host(h), document(std::move(doc)), pageIndex(page), widget(Held::share(w)), row(r) {}

    bool locked() const {
        uint32_t flags = 0;
        return PDAnnotGetFlags(widget.get(), &flags) == PD_OK && (flags & PD_ANNOT_LOCKED);
    }
    // Every row but Locked while the widget is locked; every row once the document is gone.
    bool readOnly() const {
        return !documentOpen(document.get()) || (row != Row::Locked && locked());
    }

    // The current value; an attribute the widget does not have (a /DA without a font) reads
    // as the row's empty form: zeroes, "none" or an empty name.
    Value current() const {
        Value v;
        if (row == Row::BorderWidth || row == Row::BorderStyle) v.border.width = 1;
        readValue(widget.get(), row, v);
        return v;
    }

    std::u16string text() const {
        if (!documentOpen(document.get())) return {};
        return format(row, current());
    }

    uint32_t set(std::u16string_view text) {
        if (!documentOpen(document.get())) return codes::kDocumentClosed;
        const Value before = current();
        const std::optional<Value> after = parse(row, text, before);
        if (!after || readOnly()) return codes::kBadArgument;
        ServiceObject* doc = document.get();
        if (row == Row::Rect || row == Row::Locked) {
            if (row == Row::Locked && after->word == before.word) return codes::kOk;
            if (!SODetails::hasMethod(doc, kPerformAnnotOperationSlot))
                return codes::kNotInitialized;
            const PDRect& r = after->rect;
            const QF::AnnotOperationRecord record{
                doc, pageIndex, widget.get(), {r.left, r.bottom, r.right, r.top}};
            const char* operation = row == Row::Rect                       ? "Annot_SetRect"
                                    : (after->word & PD_ANNOT_LOCKED) != 0 ? "Annot_Lock"
                                                                           : "Annot_Unlock";
            return documentTable(doc).PerformAnnotOperation(doc, atomOf(operation), &record, 0);
        }
        if (format(row, *after) == format(row, before)) return codes::kOk;  // nothing changes
        ObjectPtr command = ObjectPtr::adopt(
            SODetails::makeServiceObject<QF::CommandTable, WidgetAttributeCommand, HostTraits>(
                QF::kCommandId, "Command", kWidgetAttributeCommandImplId, kCommandTable, document,
                pageIndex, widget.get(), row, before, *after));
        return host->commands().run(command.get());
    }
};

WidgetProperty& propertyOf(ServiceObject* so) {
    return SODetails::implOf<QF::PropertyTable, WidgetProperty>(so);
}

using ListenerList = std::vector<std::pair<QF::PropertyChangedProc, void*>>;

ListenerList::iterator findListener(ListenerList& list, QF::PropertyChangedProc proc,
                                    void* context) {
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->first == proc && it->second == context) return it;
    }
    return list.end();
}

// The text of a PropertyValue: text (null only with length 0).
std::optional<std::u16string_view> textOf(const QF::PropertyValue* value) {
    if (!value || (!value->text && value->length != 0)) return std::nullopt;
    return value->text ? std::u16string_view(value->text, value->length) : std::u16string_view();
}

const QF::PropertyTable kPropertyTable = {
    [](ServiceObject* self, const QF::TextSink* out) -> uint32_t {
        if (!out || !out->put) return codes::kBadArgument;
        return detail::guarded([&] {
            const std::u16string_view name = nameOf(propertyOf(self).row);
            out->put(out->context, name.data(), name.size());
            return codes::kOk;
        });
    },
    [](ServiceObject*, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = QF::kPropertyText;
        return codes::kOk;
    },
    [](ServiceObject*, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = nullptr;
        return codes::kOk;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = static_cast<uint32_t>(propertyOf(self).listeners.size());
        return codes::kOk;
    },
    [](ServiceObject* self, QF::PropertyChangedProc proc, void* context) -> uint32_t {
        if (!proc) return codes::kBadArgument;
        return detail::guarded([&] {
            auto& list = propertyOf(self).listeners;
            if (findListener(list, proc, context) != list.end()) return codes::kNegative;
            list.emplace_back(proc, context);
            return codes::kOk;
        });
    },
    [](ServiceObject* self, QF::PropertyChangedProc proc, void* context) -> uint32_t {
        if (!proc) return codes::kBadArgument;
        auto& list = propertyOf(self).listeners;
        auto it = findListener(list, proc, context);
        if (it == list.end()) return codes::kNegative;
        list.erase(it);
        return codes::kOk;
    },
    [](ServiceObject* self, uint8_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return detail::guarded([&] {
            *out = propertyOf(self).readOnly() ? 1 : 0;
            return codes::kOk;
        });
    },
    [](ServiceObject*, uint8_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = 0;
        return codes::kOk;
    },
    [](ServiceObject* self, const QF::PropertyValueSink* out) -> uint32_t {
        if (!out || !out->putText) return codes::kBadArgument;
        return detail::guarded([&] {
            const std::u16string text = propertyOf(self).text();
            out->putText(out->context, text.data(), text.size());
            return codes::kOk;
        });
    },
    // Applies the value, then calls every change listener (a listener may drop its
    // reference to the property meanwhile).
    [](ServiceObject* self, const QF::PropertyValue* value) -> uint32_t {
        const auto text = textOf(value);
        if (!text) return codes::kBadArgument;
        return detail::guarded([&] {
            const ObjectPtr keepAlive = ObjectPtr::share(self);
            const uint32_t rc = propertyOf(self).set(*text);
            if (rc != codes::kOk) return rc;
            const ListenerList listeners = propertyOf(self).listeners;
            for (const auto& [proc, context] : listeners) proc(context, self);
            return codes::kOk;
        });
    },
    [](ServiceObject* self, const QF::PropertyValue* value, uint32_t,
       uint8_t* outOk) -> uint32_t {
        const auto text = textOf(value);
        if (!text || !outOk) return codes::kBadArgument;
        return detail::guarded([&] {
            WidgetProperty& p = propertyOf(self);
            *outOk = !p.readOnly() && parse(p.row, *text, p.current()) ? 1 : 0;
            return codes::kOk;
        });
    },
};

}  // namespace

// The widget must be on the given page of the document; the rows go to the end of the
// area, each once.
uint32_t AnnotPropertiesFactory::addAnnotProperties(const std::u16string& subtype,
                                                    ServiceObject* document, uint64_t pageIndex,
                                                    PDAnnot annot, const PDRect& rect,
                                                    ServiceObject* context) {
    (void)rect;  // the rows read the widget itself
    if (!context || !document || !annot) return codes::kBadArgument;
    if (SODetails::header(context)->interfaceId != QF::kPropertiesContextId ||
        SODetails::header(document)->interfaceId != QF::kDocumentId) {
        return codes::kBadArgument;
    }
    if (subtype != u"Widget") return codes::kNegative;
    PDAtom actual = 0;
    if (PDAnnotGetSubtype(annot, &actual) != PD_OK || actual != PD_ATOM_Widget)
        return codes::kBadArgument;
    if (!SODetails::hasMethod(document, kGetPageSlot)) return codes::kNotInitialized;
    ObjectPtr page;
    uint32_t rc = documentTable(document).GetPage(document, pageIndex, page.put());
    if (rc != codes::kOk) return rc;
    Held pdPage;
    uint32_t index = 0;
    rc = SODetails::methods<QF::PageTable>(page.get())->GetPDPage(page.get(), pdPage.put());
    if (rc != codes::kOk) return rc;
    if (PDPageGetAnnotIndex(pdPage.get(), annot, &index) != PD_OK) return codes::kBadArgument;

    if (!SODetails::hasMethod(context, kGetAreaSlot)) return codes::kNotInitialized;
    ObjectPtr area;
    rc = SODetails::methods<QF::PropertiesContextTable>(context)->GetArea(context, u"AnnotArea",
                                                                          area.put());
    if (rc != codes::kOk) return rc;
    if (!area || !SODetails::hasMethod(area.get(), kAddPropertySlot))
        return codes::kNotInitialized;
    auto& areaTable = *SODetails::methods<QF::PropertyAreaTable>(area.get());
    for (const RowName& r : kRows) {
        ObjectPtr property = ObjectPtr::adopt(
            SODetails::makeServiceObject<QF::PropertyTable, WidgetProperty, HostTraits>(
                QF::kPropertyId, "QFProperty", kWidgetPropertyImplId, kPropertyTable, host_,
                ObjectPtr::share(document), pageIndex, annot, r.row));
        rc = areaTable.AddProperty(area.get(), property.get());
        if (rc != codes::kOk) return rc;
    }
    return codes::kOk;
}

}  // namespace qfhost
