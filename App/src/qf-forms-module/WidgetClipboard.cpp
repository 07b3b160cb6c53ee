#include "WidgetClipboard.h"

#include "DocumentView.h"
#include "WidgetEditObject.h"

#include "qf/internal/ServiceObjectException.h"
#include "qf/internal/TextConversion.h"
#include "service-common/ServiceProvider"
#include "support-proxy/Clipboard"

#include <limits>
#include <map>
#include <stdexcept>

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace AS = JsonUtility::ActionSerialization;

namespace Qf_WidgetClipboard {

namespace {

constexpr int64_t kWidgetAtom = 577;
constexpr const char* kFunction = "Qf_WidgetClipboard::BaseWidgetSeializer";

void check(PDResult result, const char* function = kFunction) {
    CheckPDResult(result, function);
}

// A pdfcore text, or empty when the getter fails (optional values of a copied widget).
template <typename Getter> std::string optionalText(Getter&& get) {
    uint32_t length = 0;
    if (get(nullptr, 0, &length) != PD_OK) return {};
    std::u16string text(length + 1, u'\0');
    if (get(text.data(), static_cast<uint32_t>(text.size()), &length) != PD_OK) return {};
    text.resize(length);
    return SOImpl::Utf16ToUtf8(text);
}

std::u16string wide(const Json& record, const char* key) {
    return AS::getWideStringOr(record, key, u"");
}

PDDoc documentOf(ServiceObject* service, PDHandlePtr& holder) {
    if (SODetails::hasMethod(service, 0) &&
        SODetails::methods<QF::DocumentTable>(service)->GetPDDoc(service, holder.put()) != 0)
        holder.reset();
    if (!holder) ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kFunction);
    return holder.get();
}

// The widget and field triggers, in the order they are written and read.
struct WidgetTrigger {
    const char* key;
    PDResult (*get)(PDAnnot, PDAction*);
    PDResult (*set)(PDAnnot, PDAction);
};
const WidgetTrigger kWidgetTriggers[] = {
    {"mouse-enter", &PDWidgetAnnotGetMouseEnterAction, &PDWidgetAnnotSetMouseEnterAction},
    {"mouse-exit", &PDWidgetAnnotGetMouseExitAction, &PDWidgetAnnotSetMouseExitAction},
    {"mouse-down", &PDWidgetAnnotGetMouseDownAction, &PDWidgetAnnotSetMouseDownAction},
    {"mouse-up", &PDWidgetAnnotGetMouseUpAction, &PDWidgetAnnotSetMouseUpAction},
    {"focus", &PDWidgetAnnotGetFocusAction, &PDWidgetAnnotSetFocusAction},
    {"blur", &PDWidgetAnnotGetBlurAction, &PDWidgetAnnotSetBlurAction},
};
const WidgetTrigger kFieldTriggers[] = {
    {"format", &PDFieldGetFormatAction, &PDFieldSetFormatAction},
    {"validate", &PDFieldGetValidateAction, &PDFieldSetValidateAction},
    {"calcuate", &PDFieldGetCalculateAction, &PDFieldSetCalculateAction},
    {"modify", &PDFieldGetModifyAction, &PDFieldSetModifyAction},
};

// A trigger's record; {} when the getter fails or there is no action.
Json triggerRecord(PDDoc doc, PDResult (*get)(PDHandle, PDAction*), PDHandle owner) {
    PDHandlePtr action;
    if (get(owner, action.put()) != PD_OK || !action) return Json::object();
    return AS::pdActionToJson(doc, action.get());
}

PDHandlePtr parentOf(PDAnnot widget) {
    PDHandlePtr field;
    if (PDWidgetAnnotGetParent(widget, field.put()) != PD_OK) field.reset();
    return field;
}

// The default and current values of a field, as every type but choice writes them.
void writeValues(Json& record, PDField field) {
    record["default-field-value"] = optionalText([field](char16_t* b, uint32_t n, uint32_t* l) {
        return PDFieldGetDefaultValue(field, b, n, l);
    });
    record["field-value"] = optionalText(
        [field](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetValue(field, b, n, l); });
}

void readValue(PDResult (*set)(PDField, const char16_t*, uint32_t), PDField field,
               const std::u16string& value) {
    check(set(field, value.data(), static_cast<uint32_t>(value.size())));
}

// ---- the four field types ---------------------------------------------------------------

class ButtonWidgetSerializer : public BaseWidgetSeializer {
  public:
    bool HasButtonAction() const override { return true; }

    void ReadButtonAction(PDDoc doc, const Json& record, PDAnnot widget) override {
        const PDHandlePtr action = AS::jsonToPDAction(doc, AS::required(record, "button-action"));
        _SetWidgetAction(&PDButtonWidgetAnnotSetAction, widget, action.get());
    }

    void WriteButtonAction(PDDoc doc, Json& record, PDAnnot widget) override {
        record["button-action"] = triggerRecord(doc, &PDButtonWidgetAnnotGetAction, widget);
    }

    void CreateWidget(PDDoc doc, uint32_t flags, const PDRect& rect, PDHandlePtr& widget,
                      PDHandlePtr& field) override {
        check(PDCreateButtonField(doc, nullptr, 0, flags, field.put()));
        check(PDCreateButtonWidgetAnnot(doc, field.get(), nullptr, &rect, widget.put()));
    }

    void ReadTypeSpecific(PDDoc, const Json& record, PDAnnot widget, PDField field) override {
        auto caption = [&](PDResult (*set)(PDAnnot, const char16_t*, uint32_t), const char* key) {
            const std::u16string text = wide(record, key);
            check(set(widget, text.data(), static_cast<uint32_t>(text.size())));
        };
        caption(&PDButtonWidgetAnnotSetCaption, "caption");
        caption(&PDButtonWidgetAnnotSetDownCaption, "down-caption");
        caption(&PDButtonWidgetAnnotSetRolloverCaption, "rollover-caption");
        if (record.contains("icon-fit")) {
            const Json& fit = record["icon-fit"];
            const PDIconFit iconFit{
                static_cast<int32_t>(AS::getIntOr(fit, "scale-when", 0)),
                static_cast<int32_t>(AS::getIntOr(fit, "scale-how", 0)),
                static_cast<float>(AS::getDoubleOr(fit, "alloc-left", 0.0)),
                static_cast<float>(AS::getDoubleOr(fit, "alloc-bottom", 0.0)),
                AS::getBoolOr(fit, "fit-bound", false) ? 1 : 0};
            check(PDButtonWidgetAnnotSetIconFit(widget, &iconFit));
        }
        // A push button has no on state: an empty choice is none to set.
        const std::u16string choice = wide(record, "option-value");
        if (!choice.empty())
            check(PDButtonWidgetAnnotSetChoice(widget, choice.data(),
                                               static_cast<uint32_t>(choice.size())));
        // The copied field's value may be the state of another of its widgets (a radio
        // button that was off): the new field, whose only widget this is, is then off.
        auto ownValue = [&](std::u16string value) {
            return choice.empty() || value == choice || value == u"Off" ? value : u"";
        };
        readValue(&PDFieldSetDefaultValue, field, ownValue(wide(record, "default-field-value")));
        readValue(&PDFieldSetValue, field, ownValue(wide(record, "field-value")));
    }

    void WriteTypeSpecific(PDDoc, Json& record, PDAnnot widget, PDField field) override {
        record["caption"] = optionalText([widget](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetCaption(widget, b, n, l);
        });
        record["down-caption"] = optionalText([widget](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetDownCaption(widget, b, n, l);
        });
        record["rollover-caption"] = optionalText([widget](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetRolloverCaption(widget, b, n, l);
        });
        PDIconFit fit{};
        PDButtonWidgetAnnotGetIconFit(widget, &fit);
        record["icon-fit"] = Json{{"alloc-bottom", static_cast<double>(fit.bottom)},
                                  {"alloc-left", static_cast<double>(fit.left)},
                                  {"fit-bound", fit.fitBounds != 0},
                                  {"scale-how", fit.scaleHow},
                                  {"scale-when", fit.scaleWhen}};
        record["option-value"] = optionalText([widget](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetChoice(widget, b, n, l);
        });
        writeValues(record, field);
    }
};

class TextFieldWidgetSerializer : public BaseWidgetSeializer {
  public:
    void CreateWidget(PDDoc doc, uint32_t flags, const PDRect& rect, PDHandlePtr& widget,
                      PDHandlePtr& field) override {
        check(PDCreateTextField(doc, nullptr, 0, flags, field.put()));
        check(PDCreateTextWidgetAnnot(doc, field.get(), nullptr, &rect, widget.put()));
    }

    void ReadTypeSpecific(PDDoc, const Json& record, PDAnnot widget, PDField field) override {
        check(PDTextWidgetAnnotSetQuadding(
            widget, static_cast<int32_t>(AS::getIntOr(record, "field-quadding", 0))));
        check(PDTextFieldSetMaxLen(
            field, static_cast<uint32_t>(AS::getIntOr(record, "max-field-length", 0))));
        readValue(&PDFieldSetDefaultValue, field, wide(record, "default-field-value"));
        readValue(&PDFieldSetValue, field, wide(record, "field-value"));
    }

    void WriteTypeSpecific(PDDoc, Json& record, PDAnnot widget, PDField field) override {
        int32_t quadding = 0;
        uint32_t maxLength = 0;
        PDTextWidgetAnnotGetQuadding(widget, &quadding);
        PDTextFieldGetMaxLen(field, &maxLength);
        record["field-quadding"] = quadding;
        record["max-field-length"] = static_cast<int64_t>(maxLength);
        writeValues(record, field);
    }
};

class ChoiceFieldWidgetSerializer : public BaseWidgetSeializer {
  public:
    void CreateWidget(PDDoc doc, uint32_t flags, const PDRect& rect, PDHandlePtr& widget,
                      PDHandlePtr& field) override {
        check(PDCreateChoiceField(doc, nullptr, 0, flags, field.put()));
        check(PDCreateChoiceWidgetAnnot(doc, field.get(), nullptr, &rect, widget.put()));
    }

    void ReadTypeSpecific(PDDoc, const Json& record, PDAnnot widget, PDField field) override {
        (void)AS::getIntOr(record, "options-count", 0);
        if (record.contains("options") && record["options"].is_array()) {
            uint32_t index = 0;
            for (const Json& option : record["options"]) {
                if (!option.is_object()) break;
                const std::u16string display = wide(option, "option-value");
                const std::u16string exportValue = wide(option, "option-export-value");
                check(PDChoiceFieldInsertOption(field, index++, display.data(),
                                                static_cast<uint32_t>(display.size()),
                                                exportValue.data(),
                                                static_cast<uint32_t>(exportValue.size())));
            }
        }
        readValue(&PDFieldSetDefaultValue, field, wide(record, "default-field-value"));
        // The selection is text on purpose; anything else (or none) selects nothing.
        const auto it = record.find("choise-selection-index");
        if (it == record.end() || !it->is_string()) return;
        check(PDChoiceWidgetAnnotSetSelection(widget, selectionIndex(it->get<std::string>())));
    }

    void WriteTypeSpecific(PDDoc, Json& record, PDAnnot widget, PDField field) override {
        uint32_t count = 0;
        PDChoiceFieldGetNumOptions(field, &count);
        record["options-count"] = static_cast<int64_t>(count);
        Json options = Json::array();
        for (uint32_t k = 0; k < count; ++k) {
            options.push_back(Json{
                {"option-export-value",
                 optionalText([field, k](char16_t* b, uint32_t n, uint32_t* l) {
                     return PDChoiceFieldGetOptionExportValue(field, k, b, n, l);
                 })},
                {"option-value", optionalText([field, k](char16_t* b, uint32_t n, uint32_t* l) {
                     return PDChoiceFieldGetOptionValue(field, k, b, n, l);
                 })}});
        }
        record["options"] = std::move(options);
        record["default-field-value"] = optionalText(
            [field](char16_t* b, uint32_t n, uint32_t* l) {
                return PDFieldGetDefaultValue(field, b, n, l);
            });
        uint32_t selection = PD_NO_SELECTION;
        PDChoiceWidgetAnnotGetSelection(widget, &selection);
        record["choise-selection-index"] = std::to_string(selection);
    }

  private:
    // The decimal text as an index, with the conversion's own failures.
    static uint32_t selectionIndex(const std::string& text) {
        unsigned long long value = 0;
        try {
            value = std::stoull(text);
        } catch (const std::invalid_argument&) {
            throw std::invalid_argument("invalid stoull argument");
        } catch (const std::out_of_range&) {
            throw std::out_of_range("stoull argument out of range");
        }
        if (value > std::numeric_limits<uint32_t>::max())
            throw std::out_of_range("stoull argument out of range");
        return static_cast<uint32_t>(value);
    }
};

class SignFieldWidgetSerializer : public BaseWidgetSeializer {
  public:
    void CreateWidget(PDDoc doc, uint32_t flags, const PDRect& rect, PDHandlePtr& widget,
                      PDHandlePtr& field) override {
        check(PDCreateSignField(doc, flags, field.put()));
        check(PDCreateSignWidgetAnnot(doc, field.get(), nullptr, &rect, widget.put()));
    }
    void ReadTypeSpecific(PDDoc, const Json&, PDAnnot, PDField) override {}
    void WriteTypeSpecific(PDDoc, Json&, PDAnnot, PDField) override {}
};

} // namespace

// ---- BaseWidgetSeializer ------------------------------------------------------------------

void BaseWidgetSeializer::_SetWidgetAction(PDResult (*setter)(PDHandle, PDAction),
                                           PDHandle target, PDAction action) {
    CheckPDResult(setter(target, action), "Qf_WidgetClipboard::BaseWidgetSeializer::_SetWidgetAction");
}

void BaseWidgetSeializer::Serialize(ServiceObject* documentService, PDAnnot widget, Json& record) {
    const auto service = BasicServiceObjectPtr<>::share(documentService);
    PDHandlePtr docHolder;
    const PDDoc doc = documentOf(service.get(), docHolder);

    record["atom"] = kWidgetAtom;
    PDAtom type = 0;
    int64_t fieldType = -1;
    uint32_t flags = 0;
    PDHandlePtr field = parentOf(widget);
    if (field && PDFieldGetType(field.get(), &type) == PD_OK) fieldType = type;
    if (field) PDFieldGetFlags(field.get(), &flags);
    record["field-type"] = fieldType;
    record["widget-flags"] = static_cast<int64_t>(flags);
    record["name"] = field ? SOImpl::Utf16ToUtf8(QF::GetFieldFullName(field.get(), kFunction))
                           : std::string();

    PDRect r{};
    PDAnnotGetRect(widget, &r);
    record["Rect"] = Json{{"bottom", static_cast<double>(r.bottom)},
                          {"left", static_cast<double>(r.left)},
                          {"right", static_cast<double>(r.right)},
                          {"top", static_cast<double>(r.top)}};
    uint32_t annotFlags = 0;
    int32_t rotation = 0;
    uint32_t borderColor = 0, background = 0, fontColor = 0;
    PDAnnotGetFlags(widget, &annotFlags);
    PDWidgetAnnotGetRotate(widget, &rotation);
    PDWidgetAnnotGetBorderColor(widget, &borderColor);
    record["annot-flags"] = static_cast<int64_t>(annotFlags);
    record["rotation"] = rotation;
    record["border-color"] = static_cast<int64_t>(static_cast<int32_t>(borderColor));
    PDBorderStyle border{};
    PDWidgetAnnotGetBorderStyle(widget, &border);
    Json dash = Json::array();
    for (uint32_t i = 0; i < border.dashCount && i < PD_MAX_DASH; ++i)
        dash.push_back(static_cast<double>(border.dash[i]));
    record["border-style"] = Json{{"border-style", border.style},
                                  {"border-width", static_cast<double>(border.width)},
                                  {"dash-array", std::move(dash)}};
    PDWidgetAnnotGetBgColor(widget, &background);
    record["background-color"] = static_cast<int64_t>(static_cast<int32_t>(background));

    record["tooltip"] = field ? optionalText([f = field.get()](char16_t* b, uint32_t n, uint32_t* l) {
        return PDFieldGetUIName(f, b, n, l);
    }) : std::string();
    PDFontInfo font{};
    float fontSize = 0;
    PDWidgetAnnotGetFontInfo(widget, &font);
    PDWidgetAnnotGetFontSize(widget, &fontSize);
    PDWidgetAnnotGetFontColor(widget, &fontColor);
    record["font-family"] = static_cast<int64_t>(font.family);
    record["font-format"] = font.format;
    record["font-style"] = font.style;
    record["font-size"] = static_cast<double>(fontSize);
    record["font-color"] = static_cast<int64_t>(static_cast<int32_t>(fontColor));
    int32_t highlight = 0;
    PDWidgetAnnotGetHighlight(widget, &highlight);
    record["highlight-mode"] = highlight;

    WriteTypeSpecific(doc, record, widget, field.get());

    if (field)
        for (const WidgetTrigger& t : kFieldTriggers)
            record[t.key] = triggerRecord(doc, t.get, field.get());
    for (const WidgetTrigger& t : kWidgetTriggers) record[t.key] = triggerRecord(doc, t.get, widget);
    if (HasButtonAction()) WriteButtonAction(doc, record, widget);
}

PDHandlePtr BaseWidgetSeializer::Deserialize(ServiceObject* documentService, const Json& record) {
    const auto service = BasicServiceObjectPtr<>::share(documentService);
    const auto flags = static_cast<uint32_t>(AS::getIntOr(record, "widget-flags", 0));
    const Json& rect = AS::required(record, "Rect");
    const PDRect r{static_cast<float>(AS::getDoubleOr(rect, "left", 0.0)),
                   static_cast<float>(AS::getDoubleOr(rect, "top", 0.0)),
                   static_cast<float>(AS::getDoubleOr(rect, "right", 0.0)),
                   static_cast<float>(AS::getDoubleOr(rect, "bottom", 0.0))};
    PDHandlePtr docHolder;
    const PDDoc doc = documentOf(service.get(), docHolder);

    PDHandlePtr widget, field;
    CreateWidget(doc, flags, r, widget, field);
    const PDAnnot w = widget.get();
    ReadTypeSpecific(doc, record, w, field.get());

    check(PDAnnotSetFlags(w, static_cast<uint32_t>(AS::getIntOr(record, "annot-flags", 0))));
    check(PDWidgetAnnotSetRotate(w, static_cast<int32_t>(AS::getIntOr(record, "rotation", 0))));
    check(PDWidgetAnnotSetBorderColor(
        w, static_cast<uint32_t>(AS::getIntOr(record, "border-color", 0))));
    const Json& borderRecord = AS::required(record, "border-style");
    PDBorderStyle border{};
    border.style = static_cast<int32_t>(AS::getIntOr(borderRecord, "border-style", 0));
    border.width = static_cast<float>(AS::getDoubleOr(borderRecord, "border-width", 0.0));
    if (borderRecord.contains("dash-array")) {
        for (const Json& length : borderRecord["dash-array"]) {
            const float value = length.get<float>();
            if (border.dashCount < PD_MAX_DASH) border.dash[border.dashCount++] = value;
        }
    }
    check(PDWidgetAnnotSetBorderStyle(w, &border));
    check(PDWidgetAnnotSetBgColor(
        w, static_cast<uint32_t>(AS::getIntOr(record, "background-color", 0))));

    {
        const PDHandlePtr parent = parentOf(w);
        const std::u16string tooltip = wide(record, "tooltip");
        if (parent)
            check(PDFieldSetUIName(parent.get(), tooltip.data(), static_cast<uint32_t>(tooltip.size())));
    }
    // No family (-1 when missing, 0 when the copied /DA named no font), or one this
    // process has no atom for (the number of another process's name), keeps the
    // widget's default font.
    const int64_t family = AS::getIntOr(record, "font-family", -1);
    const char* familyName = nullptr;
    if (family > 0 && family <= std::numeric_limits<PDAtom>::max() &&
        PDAtomGetString(static_cast<PDAtom>(family), &familyName) == PD_OK) {
        const PDFontInfo font{static_cast<PDAtom>(family),
                              static_cast<int32_t>(AS::getIntOr(record, "font-format", 0)),
                              static_cast<int32_t>(AS::getIntOr(record, "font-style", 0))};
        check(PDWidgetAnnotSetFontInfo(w, &font));
    }
    check(PDWidgetAnnotSetFontSize(w, static_cast<float>(AS::getDoubleOr(record, "font-size", 0.0))));
    check(PDWidgetAnnotSetFontColor(w, static_cast<uint32_t>(AS::getIntOr(record, "font-color", 0))));
    check(PDWidgetAnnotSetHighlight(
        w, static_cast<int32_t>(AS::getIntOr(record, "highlight-mode", 0))));

    const PDHandlePtr parent = parentOf(w);
    if (parent) {
        for (const WidgetTrigger& t : kFieldTriggers) {
            const PDHandlePtr action = AS::jsonToPDAction(doc, AS::required(record, t.key));
            _SetWidgetAction(t.set, parent.get(), action.get());
        }
    }
    for (const WidgetTrigger& t : kWidgetTriggers) {
        const PDHandlePtr action = AS::jsonToPDAction(doc, AS::required(record, t.key));
        _SetWidgetAction(t.set, w, action.get());
    }
    if (HasButtonAction()) ReadButtonAction(doc, record, w);
    return widget;
}

std::shared_ptr<IWidgetSerializer> SerializerFor(int64_t fieldType) {
    static const std::map<int64_t, std::shared_ptr<IWidgetSerializer>> table = {
        {PD_ATOM_Btn, std::make_shared<ButtonWidgetSerializer>()},
        {PD_ATOM_Tx, std::make_shared<TextFieldWidgetSerializer>()},
        {PD_ATOM_Ch, std::make_shared<ChoiceFieldWidgetSerializer>()},
        {PD_ATOM_Sig, std::make_shared<SignFieldWidgetSerializer>()},
    };
    const auto it = table.find(fieldType);
    return it == table.end() ? nullptr : it->second;
}

} // namespace Qf_WidgetClipboard

// ---- WidgetClipboard ------------------------------------------------------------------------

namespace WidgetClipboard {

namespace {

constexpr uint64_t kNoPage = ~uint64_t{0};

BasicServiceObjectPtr<> documentOfView(ServiceObject* view) {
    return QF::DocumentViewRef(view).Document();
}

} // namespace

bool Copy(ServiceObject* documentService, PDAnnot widget, std::string* out) {
    if (!out) ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", "WidgetClipboard::Copy");
    PDAtom subtype = 0;
    if (PDAnnotGetSubtype(widget, &subtype) != PD_OK || subtype != PD_ATOM_Widget) return false;
    PDHandlePtr field;
    PDAtom type = 0;
    if (PDWidgetAnnotGetParent(widget, field.put()) != PD_OK || !field ||
        PDFieldGetType(field.get(), &type) != PD_OK)
        return false;
    const auto serializer = Qf_WidgetClipboard::SerializerFor(type);
    if (!serializer) return false;
    Qf_WidgetClipboard::Json record = Qf_WidgetClipboard::Json::object();
    serializer->Serialize(documentService, widget, record);
    // A record that no paste would read back (a chain of actions tens of thousands long).
    if (AS::nestingOf(record) > AS::kMaxRecordNesting)
        ThrowServiceObjectException(SOImpl::kGenericFailure,
                                    u"The widget's actions nest deeper than a record may "
                                    u"(50,000 levels).",
                                    "WidgetClipboard::Copy");
    *out = AS::recordText(record);
    return true;
}

PDHandlePtr Paste(ServiceObject* documentService, const std::string& text) {
    const auto record = AS::parseRecord(text);
    // Anything but an object is refused with the JSON library's type error (a value that is
    // no object is not copied by asking).
    if (!record.is_object()) (void)record.get<Qf_WidgetClipboard::Json::object_t>();
    const auto serializer =
        Qf_WidgetClipboard::SerializerFor(AS::getIntOr(record, "field-type", -1));
    if (!serializer) return {};
    return serializer->Deserialize(documentService, record);
}

void Copy(const std::shared_ptr<WidgetEditObject>& widget, Target target) {
    std::string text;
    if (!Copy(widget->Document(), widget->Annot(), &text)) return;
    const std::u16string unicode = SOImpl::Utf8ToUtf16(text);
    if (target == Target::System) {
        SystemClipboard().PutUnicodeText(unicode);
    } else {
        PrivateClipboard().PutUnicodeText(unicode);
    }
}

uint32_t CopyToData(ServiceObject* view, uint64_t pageIndex, PDAnnot annot,
                    ServiceObject** outData) {
    static constexpr const char* kCopy = "WidgetEditSelectFactory::CopyAnnot";
    static const uint32_t kAnnotEditServiceAtom = SP::ResolveAtom("QFAnnotEditService");
    if (!view || !annot || !outData || pageIndex == kNoPage) return SOImpl::kBadArgument;
    const auto document = documentOfView(view);
    if (!document) ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kCopy);
    const PDHandlePtr held = PDHandlePtr::share(annot);
    std::string text;
    if (!Copy(document.get(), held.get(), &text)) return SOImpl::kNegativeAnswer;

    const auto service = SP::TryGetServiceObject(kAnnotEditServiceAtom);
    BasicServiceObjectPtr<> data;
    if (SODetails::hasMethod(service.get(), 6))
        SODetails::methods<QF::AnnotEditServiceTable>(service.get())
            ->CreateDataObject(service.get(), data.put());
    if (!data) ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kCopy);
    if (SODetails::hasMethod(data.get(), 0)) {
        const uint32_t code = SODetails::methods<QF::DataObjectTable>(data.get())
                                  ->PutData(data.get(), text.data(), text.size());
        if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", kCopy);
    }
    *outData = data.detach();
    return 0;
}

uint32_t PasteFromData(ServiceObject* view, uint64_t pageIndex, ServiceObject* data,
                       PDAnnot* outAnnot) {
    static constexpr const char* kPaste = "WidgetEditSelectFactory::PasteAnnot";
    if (!view || !data || !outAnnot || pageIndex == kNoPage) return SOImpl::kBadArgument;
    if (!SODetails::hasMethod(data, 1)) return SOImpl::kBadArgument;
    const auto document = documentOfView(view);
    if (!document) return SOImpl::kNotInitialized;
    auto& ops = *SODetails::methods<QF::DataObjectTable>(data);
    uint64_t length = 0;
    uint32_t code = ops.GetData(data, nullptr, 0, &length);
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", kPaste);
    std::string text(length, '\0');
    code = ops.GetData(data, text.data(), length, &length);
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", kPaste);
    text.resize(length);
    *outAnnot = Paste(document.get(), text).detach();
    return 0;
}

} // namespace WidgetClipboard
