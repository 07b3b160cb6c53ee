// The eleven field creation tools: one row of data per kind, the click actions of the four
// buttons with a purpose, and the static registration of every tool's factory.
#include "WidgetCreateInputHandler.h"

#include "qf/InputHandlerFactory"
#include "qf/internal/ServiceObjectException.h"

#include <cstdio>
#include <string>

using QF::PDHandlePtr;

namespace {

PDHandlePtr makeAction(PDDoc doc, PDAtom type, const std::u16string& text,
                       const char* function) {
    PDActionArg arg{};
    arg.text = text.data();
    arg.textLen = static_cast<uint32_t>(text.size());
    PDHandlePtr action;
    CheckPDResult(PDActionCreate(doc, type, &arg, action.put()), function);
    return action;
}

// text as a JavaScript string literal in double quotes.
std::u16string scriptString(const std::u16string& text) {
    std::u16string out = u"\"";
    for (const char16_t c : text) {
        switch (c) {
        case u'"':
            out += u"\\\"";
            break;
        case u'\\':
            out += u"\\\\";
            break;
        case u'\n':
            out += u"\\n";
            break;
        case u'\r':
            out += u"\\r";
            break;
        case u'\t':
            out += u"\\t";
            break;
        default:
            // Other controls, and the two line separators that end a JavaScript line.
            if (c < 0x20 || c == 0x2028 || c == 0x2029) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                out.append(escaped, escaped + 6);
            } else {
                out += c;
            }
        }
    }
    return out + u"\"";
}

PDHandlePtr printAction(PDDoc doc, const char* function) {
    return makeAction(doc, PD_ATOM_JavaScript, u"this.print(true);", function);
}

PDHandlePtr saveAsAction(PDDoc doc, const char* function) {
    return makeAction(doc, PD_ATOM_Named, u"SaveAs", function);
}

// mailDoc(bUI, cTo, cCc, cBcc, cSubject): the mail program opens with the recipient and
// subject of the user settings filled in.
PDHandlePtr emailAction(PDDoc doc, const char* function) {
    const std::u16string to = QF::UserSettings::Text(u"Forms/EmailButton/Recipient", u"");
    const std::u16string subject = QF::UserSettings::Text(u"Forms/EmailButton/Subject", u"");
    const std::u16string script = u"this.mailDoc(true, " + scriptString(to) + u", \"\", \"\", " +
                                  scriptString(subject) + u");";
    return makeAction(doc, PD_ATOM_JavaScript, script, function);
}

// submitForm with its object argument: the URL and the format (cSubmitAs: "FDF", "XFDF",
// "HTML" or "PDF") of the user settings.
PDHandlePtr submitAction(PDDoc doc, const char* function) {
    const std::u16string url =
        QF::UserSettings::Text(u"Forms/SubmitButton/URL", u"https://example.com/submit");
    const std::u16string format = QF::UserSettings::Text(u"Forms/SubmitButton/Format", u"PDF");
    const std::u16string script = u"this.submitForm({cURL: " + scriptString(url) +
                                  u", cSubmitAs: " + scriptString(format) + u"});";
    return makeAction(doc, PD_ATOM_JavaScript, script, function);
}

// The ZapfDingbats mark of new check boxes and radio buttons, and their on-state.
constexpr const char16_t* kBoxMark = u"6";
constexpr const char16_t* kOnState = u"Yes";

} // namespace

// ---- the kinds ----------------------------------------------------------------------------

#define QF_CREATION_TOOL(Kind)                                                                     \
    class Kind : public WidgetCreateInputHandlerBase<Kind> {                                       \
      public:                                                                                      \
        static const WidgetKind kKind;                                                             \
    }

QF_CREATION_TOOL(CheckBoxCreateInputHandler);
QF_CREATION_TOOL(ComboBoxCreateInputHandler);
QF_CREATION_TOOL(DigitalSignatureFieldCreateInputHandler);
QF_CREATION_TOOL(EmailButtonCreateInputHandler);
QF_CREATION_TOOL(ListBoxCreateInputHandler);
QF_CREATION_TOOL(PrintButtonCreateInputHandler);
QF_CREATION_TOOL(PushButtonCreateInputHandler);
QF_CREATION_TOOL(RadioGroupCreateInputHandler);
QF_CREATION_TOOL(SaveButtonCreateInputHandler);
QF_CREATION_TOOL(SubmitButtonCreateInputHandler);
QF_CREATION_TOOL(TextFieldCreateInputHandler);

#undef QF_CREATION_TOOL

namespace {

constexpr uint32_t kRadio = 0x8000;
constexpr uint32_t kPushButton = 0x10000;
constexpr uint32_t kCombo = 0x20000;

} // namespace

// The default sizes are the module's fallbacks; the user settings hold the sizes in use.
const WidgetKind CheckBoxCreateInputHandler::kKind{
    "CheckBoxCreate",     u"CheckBox", u"CheckBox", 14, 14, PD_ATOM_Btn, 0,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Box, CaptionSource::Fixed, kBoxMark,
    kOnState,             nullptr};
const WidgetKind ComboBoxCreateInputHandler::kKind{
    "ComboBoxCreate",     u"ComboBox", u"ComboBox", 150, 22, PD_ATOM_Ch, kCombo,
    &PDCreateChoiceWidgetAnnot, WidgetStyling::TextOrChoice, CaptionSource::None, nullptr,
    nullptr,              nullptr};
const WidgetKind DigitalSignatureFieldCreateInputHandler::kKind{
    "DigitalSignatureFieldCreate", u"Signature", u"DigitalSignatureField", 150, 44,
    PD_ATOM_Sig, 0, &PDCreateSignWidgetAnnot, WidgetStyling::Signature, CaptionSource::None,
    nullptr, nullptr, nullptr};
const WidgetKind EmailButtonCreateInputHandler::kKind{
    "EmailButtonCreate",  u"EmailButton", u"EmailButton", 72, 24, PD_ATOM_Btn, kPushButton,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Button, CaptionSource::Fixed, u"Email",
    nullptr,              &emailAction};
const WidgetKind ListBoxCreateInputHandler::kKind{
    "ListBoxCreate",      u"ListBox", u"ListBox", 150, 66, PD_ATOM_Ch, 0,
    &PDCreateChoiceWidgetAnnot, WidgetStyling::TextOrChoice, CaptionSource::None, nullptr,
    nullptr,              nullptr};
const WidgetKind PrintButtonCreateInputHandler::kKind{
    "PrintButtonCreate",  u"PrintButton", u"PrintButton", 72, 24, PD_ATOM_Btn, kPushButton,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Button, CaptionSource::Fixed, u"Print",
    nullptr,              &printAction};
const WidgetKind PushButtonCreateInputHandler::kKind{
    "PushButtonCreate",   u"Button", u"PushButton", 72, 24, PD_ATOM_Btn, kPushButton,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Button, CaptionSource::FieldName, nullptr,
    nullptr,              nullptr};
const WidgetKind RadioGroupCreateInputHandler::kKind{
    "RadioGroupCreate",   u"RadioGroup", u"RadioGroup", 14, 14, PD_ATOM_Btn, kRadio,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Box, CaptionSource::Fixed, kBoxMark,
    kOnState,             nullptr};
const WidgetKind SaveButtonCreateInputHandler::kKind{
    "SaveButtonCreate",   u"SaveButton", u"SaveButton", 72, 24, PD_ATOM_Btn, kPushButton,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Button, CaptionSource::Fixed, u"Save As",
    nullptr,              &saveAsAction};
const WidgetKind SubmitButtonCreateInputHandler::kKind{
    "SubmitButtonCreate", u"SubmitButton", u"SubmitButton", 72, 24, PD_ATOM_Btn, kPushButton,
    &PDCreateButtonWidgetAnnot, WidgetStyling::Button, CaptionSource::Fixed, u"Submit",
    nullptr,              &submitAction};
const WidgetKind TextFieldCreateInputHandler::kKind{
    "TextFieldCreate",    u"Text", u"TextField", 150, 22, PD_ATOM_Tx, 0,
    &PDCreateTextWidgetAnnot, WidgetStyling::TextOrChoice, CaptionSource::None, nullptr,
    nullptr,              nullptr};

// ---- registration -------------------------------------------------------------------------

namespace {

using _AutoReg_QFInputHandler::Registration;

const Registration<CheckBoxCreateInputHandler> kCheckBox(CheckBoxCreateInputHandler::kKind.toolName);
const Registration<ComboBoxCreateInputHandler> kComboBox(ComboBoxCreateInputHandler::kKind.toolName);
const Registration<DigitalSignatureFieldCreateInputHandler>
    kSignature(DigitalSignatureFieldCreateInputHandler::kKind.toolName);
const Registration<EmailButtonCreateInputHandler>
    kEmailButton(EmailButtonCreateInputHandler::kKind.toolName);
const Registration<ListBoxCreateInputHandler> kListBox(ListBoxCreateInputHandler::kKind.toolName);
const Registration<PrintButtonCreateInputHandler>
    kPrintButton(PrintButtonCreateInputHandler::kKind.toolName);
const Registration<PushButtonCreateInputHandler>
    kPushButtonTool(PushButtonCreateInputHandler::kKind.toolName);
const Registration<RadioGroupCreateInputHandler>
    kRadioGroup(RadioGroupCreateInputHandler::kKind.toolName);
const Registration<SaveButtonCreateInputHandler>
    kSaveButton(SaveButtonCreateInputHandler::kKind.toolName);
const Registration<SubmitButtonCreateInputHandler>
    kSubmitButton(SubmitButtonCreateInputHandler::kKind.toolName);
const Registration<TextFieldCreateInputHandler>
    kTextField(TextFieldCreateInputHandler::kKind.toolName);

} // namespace
