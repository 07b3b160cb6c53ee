// The eleven creation tools, loaded with the module into the reference host and driven
// through its document view as a user drives them: presses, moves and releases in view
// pixels, the tool's property sheet, the undo stack. What they make is read back from the
// saved file as a fresh reader sees it.
#include "ModuleSession.h"

#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/internal/AnnotEditUtilities"
#include "qf/internal/TextConversion.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace pdreaders;
using QF::PDHandlePtr;
using qfhost::ObjectPtr;
using SODetails::ServiceObject;

// ---- pdfcore readers ------------------------------------------------------------------

std::string utf8(const std::u16string& s) {
    return SOImpl::Utf16ToUtf8(s);
}
PDHandlePtr makeField(PDDoc doc, std::u16string_view name, PDAtom type, uint32_t flags) {
    PDHandlePtr f;
    EXPECT_EQ(PDDocCreateField(doc, name.data(), uint32_t(name.size()), type, flags, f.put()),
              PD_OK);
    return f;
}
uint32_t widgetCount(PDField f) {
    uint32_t n = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(f, &n), PD_OK);
    return n;
}
int32_t rotationOf(PDAnnot widget) {
    int32_t degrees = -1;
    EXPECT_EQ(PDWidgetAnnotGetRotate(widget, &degrees), PD_OK);
    return degrees;
}
template <typename Getter> std::u16string text(Getter get) {
    uint32_t length = 0;
    if (get(nullptr, 0, &length) != PD_OK) return u"<none>";
    std::u16string s(length + 1, u'\0');
    EXPECT_EQ(get(s.data(), uint32_t(s.size()), &length), PD_OK);
    s.resize(length);
    return s;
}
// "JavaScript: <script>", "Named: <name>" or "" for a widget without a click action.
std::string actionOf(PDAnnot w) {
    PDHandlePtr action;
    if (PDButtonWidgetAnnotGetAction(w, action.put()) != PD_OK || !action) return "";
    PDAtom type = 0;
    EXPECT_EQ(PDActionGetType(action.get(), &type), PD_OK);
    if (type == PD_ATOM_JavaScript) {
        const PDAction a = action.get();
        return "JavaScript: " + utf8(text([a](char16_t* b, uint32_t n, uint32_t* l) {
                   return PDActionJavaScriptGetScript(a, b, n, l);
               }));
    }
    PDAtom name = 0;
    const char* named = "?";
    if (type == PD_ATOM_Named && PDActionNamedGetName(action.get(), &name) == PD_OK)
        PDAtomGetString(name, &named);
    return std::string("Named: ") + named;
}



// ---- the session ----------------------------------------------------------------------

class CreationTools : public ModuleSession {
  protected:
    qfhost::Document& doc() { return *document; }
    void activate(const char* tool) { ASSERT_EQ(view->activateTool(tool), 0u) << tool; }
    uint32_t sendAtPixel(uint32_t type, uint32_t button, int32_t x, int32_t y,
                         bool* handled = nullptr) {
        return view->sendEvent({type, button, x, y, 0}, handled);
    }
    uint32_t click(uint32_t page, float x, float y) { return drag(page, x, y, x, y); }
    // The newest annotation of a page.
    PDHandlePtr last(uint32_t page) { return annotAt(pd(), page, annotCount(pd(), page) - 1); }

    std::u16string nextName() {
        std::u16string value;
        EXPECT_EQ(qfhost::property::getText(sheet(u"FieldName").get(), &value), 0u);
        return value;
    }
    uint32_t setName(const std::u16string& name) {
        return qfhost::property::setText(sheet(u"FieldName").get(), name);
    }
};

// ---- the kinds -------------------------------------------------------------------------
// What each tool makes (type, flags, default size, caption, states, action) is read back by
// pypdf from the bundled example session in tests/tools/run_sessions.py, and drawn by three
// readers in tests/tools/reader_matrix.py.

const char* const kTools[] = {
    "TextFieldCreate",    "CheckBoxCreate",    "RadioGroupCreate", "ComboBoxCreate",
    "ListBoxCreate",      "PushButtonCreate",  "PrintButtonCreate", "EmailButtonCreate",
    "SaveButtonCreate",   "SubmitButtonCreate", "DigitalSignatureFieldCreate",
};

// The fixed looks of the four styling groups, and the button settings of the user.
TEST_F(CreationTools, StylingGroupsAndButtonSettings) {
    ASSERT_EQ(host.settings().set(u"Forms/PrintButton/Background color", int64_t(0xFF112233)), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/PrintButton/Font size", int64_t(14)), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/PrintButton/Highlight", int64_t(2)), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/EmailButton/Recipient", u"forms@example.com"), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/EmailButton/Subject", u"Order \"A\\B\"\n"), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/SubmitButton/URL", u"https://example.org/in"), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/SubmitButton/Format", u"XFDF"), 0u);
    for (const char* tool : {"CheckBoxCreate", "TextFieldCreate", "PrintButtonCreate",
                             "DigitalSignatureFieldCreate", "EmailButtonCreate",
                             "SubmitButtonCreate"}) {
        activate(tool);
        ASSERT_EQ(click(0, 40, 700 - 80.0f * annotCount(pd(), 0)), 0u) << tool;
    }
    struct Look {
        uint32_t background, border, fontColor;
        int32_t highlight;
        float fontSize;
        const char* font;
    };
    const Look looks[] = {
        {0xFFFFFFFF, 0xFFABADB3, 0xFF4183DD, 1, 0, "<none>"},
        {0xFFFFFFFF, 0xFFABADB3, 0xFF444444, 1, 0, "MS Gothic"},
        {0xFF112233, 0xFFF1BC56, 0xFF000000, 2, 14, "Helvetica"},
        {0, 0xFF000000, 0xFF000000, 1, 0, "<none>"}, // pdfcore's plain look
    };
    // Every group draws a solid border one point wide.
    const PDHandlePtr fresh = reopened(pd());
    for (uint32_t i = 0; i < std::size(looks); ++i) {
        SCOPED_TRACE(i);
        const PDHandlePtr w = annotAt(fresh.get(), 0, i);
        uint32_t background = 1, border = 1, fontColor = 1;
        int32_t highlight = -1;
        float size = -1;
        EXPECT_EQ(PDWidgetAnnotGetBgColor(w.get(), &background), PD_OK);
        EXPECT_EQ(PDWidgetAnnotGetBorderColor(w.get(), &border), PD_OK);
        EXPECT_EQ(PDWidgetAnnotGetFontColor(w.get(), &fontColor), PD_OK);
        EXPECT_EQ(PDWidgetAnnotGetHighlight(w.get(), &highlight), PD_OK);
        PDWidgetAnnotGetFontSize(w.get(), &size);
        EXPECT_EQ(background, looks[i].background);
        EXPECT_EQ(border, looks[i].border);
        EXPECT_EQ(fontColor, looks[i].fontColor);
        EXPECT_EQ(highlight, looks[i].highlight);
        EXPECT_EQ(size, looks[i].fontSize);
        PDBorderStyle borderStyle{};
        EXPECT_EQ(PDWidgetAnnotGetBorderStyle(w.get(), &borderStyle), PD_OK);
        EXPECT_EQ(std::tuple(borderStyle.style, borderStyle.width), std::tuple(0, 1.0f));
        if (std::string(looks[i].font) != "<none>") {
            PDFontInfo font{};
            const char* family = "?";
            EXPECT_EQ(PDWidgetAnnotGetFontInfo(w.get(), &font), PD_OK);
            PDAtomGetString(font.family, &family);
            EXPECT_STREQ(family, looks[i].font);
        }
    }
    EXPECT_EQ(actionOf(annotAt(fresh.get(), 0, 4).get()),
              "JavaScript: this.mailDoc(true, \"forms@example.com\", \"\", \"\", "
              "\"Order \\\"A\\\\B\\\"\\n\");");
    EXPECT_EQ(actionOf(annotAt(fresh.get(), 0, 5).get()),
              "JavaScript: this.submitForm({cURL: \"https://example.org/in\", cSubmitAs: "
              "\"XFDF\"});");
}

// ---- names --------------------------------------------------------------------------------

TEST_F(CreationTools, GeneratedNamesSkipTakenOnes) {
    makeField(pd(), u"CheckBox1", PD_ATOM_Btn, 0);
    makeField(pd(), u"CheckBox3", PD_ATOM_Btn, 0);
    activate("CheckBoxCreate");
    EXPECT_EQ(nextName(), u"CheckBox2");
    EXPECT_EQ(nextName(), u"CheckBox2"); // asked again: the same name until it is used
    for (float y : {700.f, 650.f, 600.f})
        ASSERT_EQ(click(0, 40, y), 0u);
    std::vector<std::u16string> made;
    for (uint32_t i = 0; i < 3; ++i)
        made.push_back(nameOf(annotAt(pd(), 0, i).get()));
    EXPECT_EQ(made, (std::vector<std::u16string>{u"CheckBox2", u"CheckBox4", u"CheckBox5"}));
    // An undone creation leaves its field in the document (without widgets): its name
    // stays taken, for this tool and for a new one, which starts counting at 1 again.
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(nextName(), u"CheckBox6");
    activate("CheckBoxCreate");
    EXPECT_EQ(nextName(), u"CheckBox6");
}

TEST_F(CreationTools, NameWordsAndRefusalsFollowTheUsersLanguage) {
    host.strings().setLanguage("ja");
    activate("CheckBoxCreate");
    EXPECT_EQ(nextName(), u"チェックボックス1");
    ASSERT_EQ(click(0, 40, 700), 0u);
    EXPECT_EQ(nameOf(last(0).get()), u"チェックボックス1");
    makeField(pd(), u"Customer", PD_ATOM_Tx, 0);
    EXPECT_EQ(setName(u"Customer"), 14u);
    EXPECT_EQ(failureText(), u"この名前は、種類の異なるフィールドで既に使用されています。");
}

// The rule of which fields may share a name, as the tools apply it when the user types one.
TEST_F(CreationTools, TypedNamesJoinOnlyFieldsOfTheSameKind) {
    makeField(pd(), u"text", PD_ATOM_Tx, PD_FIELD_MULTILINE | PD_FIELD_PASSWORD);
    makeField(pd(), u"check", PD_ATOM_Btn, PD_FIELD_NO_TOGGLE_TO_OFF);
    makeField(pd(), u"radio", PD_ATOM_Btn, 0x8000);
    makeField(pd(), u"push", PD_ATOM_Btn, 0x10000);
    makeField(pd(), u"combo", PD_ATOM_Ch, 0x20000 | 0x40000);
    makeField(pd(), u"list", PD_ATOM_Ch, PD_FIELD_MULTISELECT);
    makeField(pd(), u"sign", PD_ATOM_Sig, PD_FIELD_READONLY);
    // tool -> the one field of the list above whose name it may take
    const std::pair<const char*, const char16_t*> kinds[] = {
        {"TextFieldCreate", u"text"},    {"CheckBoxCreate", u"check"},
        {"RadioGroupCreate", u"radio"},  {"PushButtonCreate", u"push"},
        {"PrintButtonCreate", u"push"},  {"SubmitButtonCreate", u"push"},
        {"ComboBoxCreate", u"combo"},    {"ListBoxCreate", u"list"},
        {"DigitalSignatureFieldCreate", u"sign"},
    };
    const std::u16string clash = u"This name is already set for a different field type.";
    for (const auto& [tool, compatible] : kinds) {
        activate(tool);
        for (const char16_t* name :
             {u"text", u"check", u"radio", u"push", u"combo", u"list", u"sign"}) {
            SCOPED_TRACE(std::string(tool) + " / " + utf8(name));
            const bool same = std::u16string(name) == compatible;
            const std::u16string before = nextName();
            EXPECT_EQ(setName(name), same ? 0u : 14u);
            if (same) {
                EXPECT_EQ(nextName(), name);
                EXPECT_EQ(setName(u""), 0u); // back to generated names
            } else {
                EXPECT_EQ(failureText(), clash);
                EXPECT_EQ(nextName(), before); // unchanged
            }
        }
    }
}

// A typed name of a compatible field adds widgets to that field, as long as it stays typed;
// a field of another kind that takes the name meanwhile refuses the widget at creation.
TEST_F(CreationTools, TypedNameAddsWidgetsToItsFieldUntilCreationIsRefused) {
    const PDHandlePtr list = makeField(pd(), u"Choices", PD_ATOM_Ch, PD_FIELD_MULTISELECT);
    activate("ListBoxCreate");
    EXPECT_EQ(setName(u"Choices"), 0u);
    ASSERT_EQ(click(0, 40, 700), 0u);
    ASSERT_EQ(click(0, 40, 600), 0u);
    EXPECT_EQ(widgetCount(list.get()), 2u);
    EXPECT_EQ(fieldNames(pd()), std::vector<std::u16string>{u"Choices"});

    activate("TextFieldCreate");
    EXPECT_EQ(setName(u"Later"), 0u); // free when typed
    makeField(pd(), u"Later", PD_ATOM_Btn, 0);
    const size_t undoBefore = host.commands().depths().undo;
    EXPECT_EQ(click(0, 300, 700), 14u);
    EXPECT_EQ(failureText(),
              u"This name is already set for a different field type. Please type another name.");
    EXPECT_EQ(annotCount(pd(), 0), 2u);
    EXPECT_EQ(host.commands().depths().undo, undoBefore);
    // The tool keeps running: with another name the next click works.
    EXPECT_EQ(setName(u"Other"), 0u);
    ASSERT_EQ(click(0, 300, 700), 0u);
    EXPECT_EQ(nameOf(last(0).get()), u"Other");
    EXPECT_EQ(nextName(), u"Text1"); // a field was made: the typed name is used up
}

// ---- the frame ----------------------------------------------------------------------------

TEST_F(CreationTools, DragsUnderFivePixelsEitherWayAreClicks) {
    activate("TextFieldCreate");
    view->setZoom(2);
    // 2 points wide at zoom 2: 4 pixels, however tall.
    ASSERT_EQ(drag(0, 100, 600, 102, 500), 0u);
    expectRect(rectOf(last(0).get()), 100, 578, 250, 600, "4 x 200 pixels");
    // 2.5 points: 5 pixels each way, a frame.
    ASSERT_EQ(drag(0, 300, 600, 302.5f, 597.5f), 0u);
    expectRect(rectOf(last(0).get()), 300, 597.5f, 302.5f, 600, "5 x 5 pixels");
    // Any corner may start the frame; it is clipped to the page.
    ASSERT_EQ(drag(0, 500, 20, 700, -50), 0u);
    expectRect(rectOf(last(0).get()), 500, 0, 612, 20, "beyond the corner");
}

TEST_F(CreationTools, WidgetsKeepTheirOnScreenOrientationOnTurnedPages) {
    activate("TextFieldCreate");
    // Page 1 is turned by 90 degrees: the click's box is 22 wide and 150 tall in page space,
    // with its top left corner on screen at the click.
    ASSERT_EQ(click(1, 100, 300), 0u);
    PDHandlePtr w = last(1);
    expectRect(rectOf(w.get()), 100, 300, 122, 450, "page 90");
    EXPECT_EQ(rotationOf(w.get()), 90);
    const PDRect r = rectOf(w.get());
    const auto corner = view->pageToView(1, r.left, r.bottom); // top left on screen
    EXPECT_EQ(corner, view->pageToView(1, 100, 300));

    // View 180 plus page 270: 450 degrees, a widget turned by 90.
    ASSERT_EQ(PDPageSetRotate(pageOf(pd(), 0).get(), 270), PD_OK);
    view->setRotation(180);
    ASSERT_EQ(click(0, 300, 300), 0u);
    w = last(0);
    EXPECT_EQ(rotationOf(w.get()), 90);
    expectRect(rectOf(w.get()), 300, 300, 322, 450, "page 270 in a view of 180");
    // A drawn frame is taken as it is, and turned the same way.
    ASSERT_EQ(drag(0, 100, 100, 160, 200), 0u);
    expectRect(rectOf(last(0).get()), 100, 100, 160, 200, "frame");
    EXPECT_EQ(rotationOf(last(0).get()), 90);
}

TEST_F(CreationTools, PressesBesideThePagesAndTheRightButton) {
    activate("CheckBoxCreate");
    bool handled = true;
    const auto page = view->pageRect(0);
    EXPECT_EQ(sendAtPixel(QF::kEventButtonDown, QF::kButtonLeft, page.left - 5, page.top + 10,
                          &handled),
              0u);
    EXPECT_FALSE(handled);
    EXPECT_EQ(sendAtPixel(QF::kEventButtonUp, QF::kButtonLeft, page.left + 20, page.top + 20,
                          &handled),
              0u);
    EXPECT_FALSE(handled);
    EXPECT_EQ(annotCount(pd(), 0), 0u);
    // Moving beside the pages is not taken; over a page it shows the cross hair.
    EXPECT_EQ(sendAtPixel(QF::kEventMove, 0, page.left - 5, page.top + 10, &handled), 0u);
    EXPECT_FALSE(handled);
    EXPECT_EQ(sendAtPixel(QF::kEventMove, 0, page.left + 5, page.top + 10, &handled), 0u);
    EXPECT_TRUE(handled);
    EXPECT_EQ(view->cursor(), 5u);

    // During a drag the frame follows the pointer in the frame colour and keeps it.
    ASSERT_EQ(host.settings().set(u"Forms/Widget creation frame color", int64_t(0xFF00FF00)), 0u);
    activate("CheckBoxCreate");
    send(QF::kEventButtonDown, QF::kButtonLeft, 0, 100, 700, &handled);
    EXPECT_TRUE(handled);
    send(QF::kEventMove, 0, 0, 140, 650);
    ASSERT_TRUE(view->frame());
    EXPECT_EQ(view->frame()->argb, 0xFF00FF00u);
    expectRect(view->frame()->rect, 100, 650, 140, 700, "frame shown");
    EXPECT_TRUE(view->dragCaptured());
    send(QF::kEventButtonUp, QF::kButtonLeft, 0, 140, 650);
    EXPECT_FALSE(view->frame());
    EXPECT_FALSE(view->dragCaptured());
    EXPECT_EQ(annotCount(pd(), 0), 1u);

    // Releasing the right button ends the tool.
    EXPECT_EQ(send(QF::kEventButtonUp, QF::kButtonRight, 0, 300, 300, &handled), 0u);
    EXPECT_FALSE(handled);
    EXPECT_FALSE(view->activeTool());
}

// A click makes the kind's box, its top left corner at the click.
TEST_F(CreationTools, DefaultSizesComeFromTheUserSettings) {
    const std::tuple<const char*, float, float> sizes[] = {
        {kTools[0], 150, 22}, {kTools[1], 14, 14}, {kTools[2], 14, 14}, {kTools[3], 150, 22},
        {kTools[4], 150, 66}, {kTools[5], 72, 24}, {kTools[6], 72, 24}, {kTools[7], 72, 24},
        {kTools[8], 72, 24},  {kTools[9], 72, 24}, {kTools[10], 150, 44}};
    float top = 780;
    for (const auto& [tool, width, height] : sizes) {
        activate(tool);
        ASSERT_EQ(click(0, 40, top), 0u) << tool;
        expectRect(rectOf(last(0).get()), 40, top - height, 40 + width, top, tool);
        top -= height + 4;
    }
    ASSERT_EQ(host.settings().set(u"Forms/CheckBox/Width", int64_t(30)), 0u);
    ASSERT_EQ(host.settings().set(u"Forms/CheckBox/Height", int64_t(20)), 0u);
    activate("CheckBoxCreate");
    ASSERT_EQ(click(0, 300, 700), 0u);
    expectRect(rectOf(last(0).get()), 300, 680, 330, 700, "30 x 20");
}

// ---- the tool's sheet ------------------------------------------------------------------

TEST_F(CreationTools, TheSheetShowsTheFieldNameOnly) {
    activate("ComboBoxCreate");
    ASSERT_EQ(view->refreshToolProperties(), 0u);
    const auto rows = host.properties().properties(u"ToolArea");
    ASSERT_EQ(rows.size(), 3u);
    const char16_t* names[] = {u"FieldName", u"RadioChoice", u"ComboOptList"};
    const uint32_t types[] = {QF::kPropertyText, QF::kPropertyText, QF::kPropertyStringPairList};
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(qfhost::property::name(rows[i].get()), names[i]);
        EXPECT_EQ(qfhost::property::type(rows[i].get()), types[i]);
        bool readOnly = true, hidden = false;
        EXPECT_EQ(qfhost::property::isReadOnly(rows[i].get(), &readOnly), 0u);
        EXPECT_EQ(qfhost::property::isHidden(rows[i].get(), &hidden), 0u);
        EXPECT_FALSE(readOnly);
        EXPECT_EQ(hidden, i != 0);
    }
    // The hidden ones read empty and take no writes.
    EXPECT_EQ(qfhost::property::setText(rows[1].get(), u"x"), 0u);
    std::u16string choice = u"?";
    EXPECT_EQ(qfhost::property::getText(rows[1].get(), &choice), 0u);
    EXPECT_EQ(choice, u"");
    EXPECT_EQ(qfhost::property::setPairs(rows[2].get(), {{u"a", u"A"}}), 0u);
    std::vector<std::pair<std::u16string, std::u16string>> options{{u"?", u"?"}};
    EXPECT_EQ(qfhost::property::getPairs(rows[2].get(), &options), 0u);
    EXPECT_TRUE(options.empty());

    // A name typed or used up makes the host read the sheet again.
    const uint32_t changes = view->propertiesChangedCount();
    EXPECT_EQ(setName(u"Language"), 0u);
    EXPECT_EQ(view->propertiesChangedCount(), changes + 1);
    ASSERT_EQ(click(0, 40, 700), 0u);
    EXPECT_EQ(view->propertiesChangedCount(), changes + 2);

    // The sheet outlives the tool: it then reads empty and ignores writes.
    const ObjectPtr fieldName = sheet(u"FieldName");
    view->deactivateTool();
    std::u16string value = u"?";
    EXPECT_EQ(qfhost::property::getText(fieldName.get(), &value), 0u);
    EXPECT_EQ(value, u"");
    EXPECT_EQ(qfhost::property::setText(fieldName.get(), u"Late"), 0u);
}

TEST_F(CreationTools, ToolsNeedAViewToWork) {
    uint32_t atom = 0;
    ASSERT_EQ(KRGetAtomFromString("ListBoxCreate", &atom), 0u);
    ObjectPtr tool;
    ASSERT_EQ(host.tasks().createTool(atom, tool.put()), 0u);
    auto& ops = *SODetails::methods<QF::InputHandlerTable>(tool.get());
    uint32_t name = 0;
    EXPECT_EQ(ops.GetToolName(tool.get(), &name), 0u);
    EXPECT_EQ(name, atom);
    ObjectPtr context;
    EXPECT_EQ(ops.GetToolProperties(tool.get(), context.put()), 2u);
    EXPECT_EQ(failureText(), u"Not initialized");
    EXPECT_EQ(ops.Initialize(tool.get(), nullptr, nullptr), 2u);
    uint8_t finished = 9;
    EXPECT_EQ(ops.IsFinished(tool.get(), &finished), 0u);
    EXPECT_EQ(finished, 0);
    for (auto nothing : {ops.Removed, ops.RestoreSelection, ops.OnDeathrattle})
        EXPECT_EQ(nothing(tool.get()), 1u);
    EXPECT_EQ(ops.FocusAnnot(tool.get(), nullptr), 1u);
    EXPECT_EQ(ops.Terminate(tool.get()), 0u);
}

// ---- undo and redo ----------------------------------------------------------------------

TEST_F(CreationTools, UndoAndRedoOfEveryCreation) {
    for (const char* tool : kTools) {
        activate(tool);
        ASSERT_EQ(click(std::string(tool) == "DigitalSignatureFieldCreate" ? 1 : 0, 40, 700), 0u)
            << tool;
    }
    const auto names = fieldNames(reopened(pd()).get());
    ASSERT_EQ(names.size(), std::size(kTools));
    while (host.commands().depths().undo > 0)
        ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_FALSE(doc().pageChanged(0));
    EXPECT_FALSE(doc().pageChanged(1));
    {
        const PDHandlePtr fresh = reopened(pd());
        EXPECT_EQ(annotCount(fresh.get(), 0), 0u);
        EXPECT_EQ(annotCount(fresh.get(), 1), 0u);
        EXPECT_TRUE(fieldNames(fresh.get()).empty());
    }
    while (host.commands().depths().redo > 0)
        ASSERT_EQ(host.commands().redo(), 0u);
    const PDHandlePtr fresh = reopened(pd());
    EXPECT_EQ(fieldNames(fresh.get()), names);
    EXPECT_EQ(annotCount(fresh.get(), 0), std::size(kTools) - 1);
    EXPECT_EQ(nameOf(annotAt(fresh.get(), 1, 0).get()), u"Signature1");
    EXPECT_TRUE(doc().pageChanged(0));
}

} // namespace
