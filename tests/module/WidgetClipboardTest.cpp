// Widgets copied to JSON records and pasted into other documents, with the module loaded
// into the reference host: the module's "CopyAnnot" and "PasteAnnot", the host's paste
// (naming, placing, undo), the edit tool's clipboard commands, and records that are wrong.
#include "ModuleSession.h"
#include "Portable.h"

#include "qf/Interfaces.h"
#include "qf/internal/AnnotEditUtilities"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace pdreaders;
using Json = nlohmann::json;
using QF::PDHandlePtr;
using qfhost::ObjectPtr;
using SODetails::ServiceObject;
using Naming = qfhost::AnnotSelection::Naming;

std::string corpus(const char* file) {
    return std::string(QF_CORPUS_DIR) + "/" + file;
}

// A host with the module loaded; the system clipboard is a file of the test's own.
class WidgetClipboard : public ModuleInHost {
  protected:
    static void SetUpTestSuite() {
        static const std::string file =
            (std::filesystem::temp_directory_path() /
             ("qf-clipboard-" + std::to_string(::getpid()) + ".json"))
                .string();
        qftest::setEnv("QF_CLIPBOARD", file.c_str());
        std::filesystem::remove(file);
    }

    // The record of widget k of field name in doc, through "CopyAnnot".
    std::string copy(qfhost::Document& doc, std::u16string_view name, uint32_t k = 0) {
        host.setCurrentDocument(&doc);
        const PDHandlePtr field = findField(doc.pdDoc(), name);
        PDHandlePtr widget;
        EXPECT_EQ(PDFieldGetWidget(field.get(), k, widget.put()), PD_OK);
        uint32_t page = 0;
        for (; page < doc.pageCount(); ++page) {
            uint32_t at = 0;
            if (PDPageGetAnnotIndex(pageOf(doc.pdDoc(), page).get(), widget.get(), &at) == PD_OK)
                break;
        }
        qfhost::View& view = host.openView(doc);
        ObjectPtr data;
        auto& ops = *SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory().get());
        EXPECT_EQ(ops.CopyAnnot(factory().get(), view.object(), page, widget.get(), data.put()), 0u);
        host.closeView(view);
        if (!data) return {};
        uint64_t length = 0;
        auto& bytes = *SODetails::methods<QF::DataObjectTable>(data.get());
        bytes.GetData(data.get(), nullptr, 0, &length);
        std::string text(length, '\0');
        bytes.GetData(data.get(), text.data(), length, &length);
        return text;
    }
    // Pastes text onto page 0 of doc (shown in a view): the host's result.
    uint32_t paste(qfhost::Document& doc, const std::string& text, PDHandlePtr* out = nullptr,
                   Naming naming = Naming::NewField) {
        host.openView(doc);
        PDAnnot widget = nullptr;
        const uint32_t rc = host.selection().pasteText(0, text, naming, &widget);
        if (out) *out = PDHandlePtr::adopt(widget);
        else PDHandleRelease(widget);
        return rc;
    }
    ObjectPtr factory() { return host.annotEdit().editSelectFactories().find(PD_ATOM_Widget); }
    std::u16string systemClipboardText() {
        ServiceObject* c = host.winServices().clipboard();
        auto& ops = *SODetails::methods<QF::ClipboardTable>(c);
        EXPECT_EQ(ops.Open(c), 0u);
        uint64_t n = 0;
        std::u16string text;
        if (ops.GetUnicodeText(c, nullptr, 0, &n) == 0) {
            text.resize(n);
            ops.GetUnicodeText(c, text.data(), n, &n);
        }
        ops.Close(c);
        return text;
    }
};

// Every key of a record, in the order the text lists them.
std::vector<std::string> keysOf(const std::string& text) {
    const Json record = Json::parse(text);
    std::vector<std::string> keys;
    for (auto it = record.begin(); it != record.end(); ++it) keys.push_back(it.key());
    return keys;
}

TEST_F(WidgetClipboard, RecordsHaveTheirKeysSortedAndSpelledAsTheFormatWants) {
    qfhost::Document& form = host.openDocument(corpus("qpdf-field-types.pdf"));
    const std::vector<std::string> common = {
        "Rect", "annot-flags", "atom", "background-color", "blur", "border-color",
        "border-style", "calcuate", "field-type", "focus", "font-color", "font-family",
        "font-format", "font-size", "font-style", "format", "highlight-mode", "modify",
        "mouse-down", "mouse-enter", "mouse-exit", "mouse-up", "name", "rotation", "tooltip",
        "validate", "widget-flags"};
    auto with = [&](std::vector<std::string> extra) {
        extra.insert(extra.end(), common.begin(), common.end());
        std::sort(extra.begin(), extra.end());
        return extra;
    };
    const std::string text = copy(form, u"text");
    EXPECT_EQ(keysOf(text), with({"default-field-value", "field-quadding", "field-value",
                                  "max-field-length"}));
    EXPECT_EQ(text.find('\n'), std::string::npos); // compact
    EXPECT_EQ(keysOf(copy(form, u"checkbox1")),
              with({"button-action", "caption", "default-field-value", "down-caption",
                    "field-value", "icon-fit", "option-value", "rollover-caption"}));
    EXPECT_EQ(keysOf(copy(form, u"list1")),
              with({"choise-selection-index", "default-field-value", "options",
                    "options-count"}));
    const Json record = Json::parse(text);
    EXPECT_EQ(record["atom"], 577);
    EXPECT_EQ(record["field-type"], 536);
    EXPECT_EQ(record["name"], "text");
    EXPECT_EQ(record["blur"], Json::object());
}

// Each field type of a real form, pasted into a new document, as a fresh reader sees it.
TEST_F(WidgetClipboard, EveryFieldTypeTravelsIntoAnotherDocument) {
    qfhost::Document& form = host.openDocument(corpus("qpdf-field-types.pdf"));
    qfhost::Document& target = host.newDocument(1, 612, 792);
    for (const char16_t* name : {u"text2", u"checkbox2", u"r1", u"list1", u"drop1", u"combolist1"}) {
        SCOPED_TRACE(std::string(name, name + std::char_traits<char16_t>::length(name)));
        const std::string text = copy(form, name);
        ASSERT_FALSE(text.empty());
        PDHandlePtr pasted;
        ASSERT_EQ(paste(target, text, &pasted), 0u) << std::string(failureText().begin(),
                                                                   failureText().end());
        // The copy of the copy is the same record: nothing was lost on the way.
        Json again = Json::parse(copy(target, name));
        Json first = Json::parse(text);
        EXPECT_EQ(again, first);
    }
    const PDHandlePtr fresh = reopened(target.pdDoc());
    EXPECT_EQ(annotCount(fresh.get(), 0), 6u);
    const PDHandlePtr text = findField(fresh.get(), u"text2");
    ASSERT_TRUE(text);
    uint32_t length = 0;
    ASSERT_EQ(PDFieldGetValue(text.get(), nullptr, 0, &length), PD_OK);
    std::u16string value(length + 1, u'\0');
    ASSERT_EQ(PDFieldGetValue(text.get(), value.data(), length + 1, &length), PD_OK);
    value.resize(length);
    EXPECT_EQ(value, u"salad \u03c0\u02ac");
    uint32_t options = 0;
    EXPECT_EQ(PDChoiceFieldGetNumOptions(findField(fresh.get(), u"list1").get(), &options), PD_OK);
    EXPECT_EQ(options, 4u);
}

// A radio button keeps its on state and its look: alone in a group of its own, it is on when
// the copied group had it on, and off otherwise. Pasted back into its own page it lands
// beside the original (and beside the last paste), becomes the selection, and joins the
// copied group only when asked.
TEST_F(WidgetClipboard, RadioButtonsKeepTheirStatesAndLandBesideTheOriginal) {
    qfhost::Document& form = host.openDocument(corpus("qpdf-field-types.pdf"));
    const std::string on = copy(form, u"r1", 0), off = copy(form, u"r1", 1);
    auto choiceOf = [](PDAnnot w) {
        uint32_t n = 0;
        EXPECT_EQ(PDButtonWidgetAnnotGetChoice(w, nullptr, 0, &n), PD_OK);
        std::u16string text(n, u'\0');
        EXPECT_EQ(PDButtonWidgetAnnotGetChoice(w, text.data(), n, &n), PD_OK);
        return text;
    };
    auto stateOf = [](PDAnnot w) {
        PDAtom state = 0;
        const char* name = "";
        EXPECT_EQ(PDAnnotGetAppearanceState(w, &state), PD_OK);
        EXPECT_EQ(PDAtomGetString(state, &name), PD_OK);
        return std::string(name);
    };

    qfhost::Document& target = host.newDocument(1, 612, 792);
    PDHandlePtr first, second;
    ASSERT_EQ(paste(target, off, &first), 0u);
    ASSERT_EQ(paste(target, on, &second), 0u);
    EXPECT_EQ(nameOf(first.get()), u"r1");
    EXPECT_EQ(nameOf(second.get()), u"r1_2");
    const PDHandlePtr fresh = reopened(target.pdDoc());
    const PDHandlePtr a = annotAt(fresh.get(), 0, 0), b = annotAt(fresh.get(), 0, 1);
    EXPECT_EQ(choiceOf(a.get()), u"2");
    EXPECT_EQ(stateOf(a.get()), "Off");
    EXPECT_EQ(choiceOf(b.get()), u"1");
    EXPECT_EQ(stateOf(b.get()), "1");
    uint32_t flags = 0;
    EXPECT_EQ(PDFieldGetFlags(parentOf(a.get()).get(), &flags), PD_OK);
    EXPECT_EQ(flags & (PD_FIELD_RADIO | PD_FIELD_PUSHBUTTON), PD_FIELD_RADIO);
    // The look travels whole: a copy of the paste is the copied record, but for the name
    // and the value of the group it left.
    Json again = Json::parse(copy(target, u"r1")), want = Json::parse(off);
    for (const char* key : {"name", "field-value", "default-field-value"}) {
        again.erase(key);
        want.erase(key);
    }
    EXPECT_EQ(again, want);

    const PDRect original = rectOf(annotAt(form.pdDoc(), 0, 1).get());
    PDHandlePtr pasted;
    for (int k = 1; k <= 2; ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(paste(form, on, &pasted), 0u);
        EXPECT_EQ(nameOf(pasted.get()), k == 1 ? u"r1_2" : u"r1_3");
        const PDRect r = rectOf(pasted.get());
        EXPECT_FLOAT_EQ(r.left, original.left + 10.0f * float(k));
        EXPECT_FLOAT_EQ(r.top, original.top - 10.0f * float(k));
        const auto& selected = host.selection().selected();
        ASSERT_EQ(selected.size(), 1u);
        EXPECT_EQ(selected[0].annot, pasted.get());
        EXPECT_EQ(host.currentView()->activeToolName(), "WidgetEdit");
    }
    ASSERT_EQ(paste(form, off, &pasted, Naming::Join), 0u);
    EXPECT_EQ(nameOf(pasted.get()), u"r1");
    EXPECT_EQ(choiceOf(pasted.get()), u"2");
    uint32_t widgets = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(findField(form.pdDoc(), u"r1").get(), &widgets), PD_OK);
    EXPECT_EQ(widgets, 4u);
    EXPECT_EQ(stateOf(annotAt(form.pdDoc(), 0, 1).get()), "1") << "the group keeps its value";
    // A check box record cannot join a radio group.
    Json box = Json::parse(copy(form, u"checkbox1"));
    box["name"] = "r1";
    EXPECT_EQ(paste(form, box.dump(), nullptr, Naming::Join), qfhost::codes::kCannotJoin);
}

// Push buttons with a chain of actions, and a signature field; names already taken.
TEST_F(WidgetClipboard, ActionsChainsAndNamesOnPaste) {
    qfhost::Document& doc = host.newDocument(1, 612, 792);
    PDHandlePtr field, widget, js, uri;
    ASSERT_EQ(PDCreateButtonField(doc.pdDoc(), u"Go", 2, PD_FIELD_PUSHBUTTON, field.put()), PD_OK);
    const PDRect rect{100, 720, 200, 700};
    ASSERT_EQ(PDCreateButtonWidgetAnnot(doc.pdDoc(), field.get(), pageOf(doc.pdDoc(), 0).get(),
                                        &rect, widget.put()),
              PD_OK);
    ASSERT_EQ(PDPageAddAnnot(pageOf(doc.pdDoc(), 0).get(), 0, widget.get()), PD_OK);
    const std::u16string script = u"app.alert(\"hi\");";
    PDActionArg jsArg{script.data(), uint32_t(script.size()), nullptr, 0, nullptr};
    ASSERT_EQ(PDActionCreate(doc.pdDoc(), PD_ATOM_JavaScript, &jsArg, js.put()), PD_OK);
    PDActionArg uriArg{nullptr, 0, "https://example.org/", 20, nullptr};
    ASSERT_EQ(PDActionCreate(doc.pdDoc(), 550, &uriArg, uri.put()), PD_OK);
    ASSERT_EQ(PDActionSetNext(js.get(), uri.get()), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotSetAction(widget.get(), js.get()), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetMouseEnterAction(widget.get(), uri.get()), PD_OK);

    const std::string text = copy(doc, u"Go");
    const Json record = Json::parse(text);
    EXPECT_EQ(record["button-action"]["script"], "app.alert(\"hi\");");
    EXPECT_EQ(record["button-action"]["next-action"]["url"], "https://example.org/");
    EXPECT_EQ(record["mouse-enter"]["action-type"], 550);

    // Pasted into the same document: a field of its own under the next free name, or, when
    // asked, a widget of the copied field; a text field of that name cannot be joined and
    // sends a new field to "Go_2" too.
    PDHandlePtr pasted;
    ASSERT_EQ(paste(doc, text, &pasted), 0u);
    EXPECT_EQ(nameOf(pasted.get()), u"Go_2");
    ASSERT_EQ(paste(doc, text, &pasted, Naming::Join), 0u);
    EXPECT_EQ(nameOf(pasted.get()), u"Go");
    uint32_t widgets = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(findField(doc.pdDoc(), u"Go").get(), &widgets), PD_OK);
    EXPECT_EQ(widgets, 2u);
    qfhost::Document& other = host.newDocument(1, 612, 792);
    EXPECT_EQ(paste(other, text, nullptr, Naming::Join), qfhost::codes::kNoFieldToJoin);
    PDHandlePtr clash;
    ASSERT_EQ(PDDocCreateField(other.pdDoc(), u"Go", 2, PD_ATOM_Tx, 0, clash.put()), PD_OK);
    EXPECT_EQ(paste(other, text, nullptr, Naming::Join), qfhost::codes::kCannotJoin);
    EXPECT_EQ(annotCount(other.pdDoc(), 0), 0u) << "a refused join leaves nothing";
    ASSERT_EQ(paste(other, text, &pasted), 0u);
    EXPECT_EQ(QF::GetFieldFullName(parentOf(pasted.get()).get(), "test"), u"Go_2");
    EXPECT_EQ(Json::parse(copy(other, u"Go_2"))["button-action"], record["button-action"]);

    // Undo takes the pasted widget and its field away again.
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(annotCount(other.pdDoc(), 0), 0u);
    EXPECT_FALSE(findField(reopened(other.pdDoc()).get(), u"Go_2"));
}

// Records that cannot be pasted fail through the boundary with the JSON library's texts,
// and leave nothing behind.
TEST_F(WidgetClipboard, BadRecordsFailCleanly) {
    qfhost::Document& form = host.openDocument(corpus("qpdf-field-types.pdf"));
    Json text = Json::parse(copy(form, u"text"));
    qfhost::Document& doc = host.newDocument(1, 612, 792);
    const auto before = fieldNames(doc.pdDoc());
    auto expectRefused = [&](const std::string& record, uint32_t code, const std::u16string& why) {
        SCOPED_TRACE(record.substr(0, 60));
        EXPECT_EQ(paste(doc, record), code);
        if (!why.empty()) {
            EXPECT_NE(failureText().find(why), std::u16string::npos)
                << std::string(failureText().begin(), failureText().end());
        }
        EXPECT_EQ(annotCount(doc.pdDoc(), 0), 0u);
        EXPECT_EQ(fieldNames(reopened(doc.pdDoc()).get()), before);
    };
    // Records that are no JSON object, lack a key or hold a wrong type: edit_sessions.py
    // (records), through the same paste, in qfforms paste and in a session.
    expectRefused("{}", 1, u""); // a record of no field type: nothing to paste
    Json badSelection = Json::parse(copy(form, u"list1"));
    badSelection["choise-selection-index"] = "first";
    expectRefused(badSelection.dump(), 4, u"invalid stoull argument");

    // What a record leaves out takes its default; a correctly spelled "calculate" is not
    // read, and a numeric selection index is no index.
    Json lean = text;
    lean.erase("widget-flags");
    lean.erase("font-family");
    lean["Rect"] = Json{{"left", 10}, {"right", 50}};
    lean["calculate"] = lean["calcuate"];
    PDHandlePtr pasted;
    ASSERT_EQ(paste(doc, lean.dump(), &pasted), 0u);
    uint32_t flags = 9;
    EXPECT_EQ(PDFieldGetFlags(parentOf(pasted.get()).get(), &flags), PD_OK);
    EXPECT_EQ(flags, 0u);
    PDRect r{};
    EXPECT_EQ(PDAnnotGetRect(pasted.get(), &r), PD_OK);
    EXPECT_EQ(r.top, 0.0f);
    EXPECT_EQ(r.right, 50.0f);
    Json list = Json::parse(copy(form, u"list1"));
    list["choise-selection-index"] = 2;
    ASSERT_EQ(paste(doc, list.dump(), &pasted), 0u);
    uint32_t selection = 0;
    EXPECT_EQ(PDChoiceWidgetAnnotGetSelection(pasted.get(), &selection), PD_OK);
    EXPECT_EQ(selection, PD_NO_SELECTION);
    list["choise-selection-index"] = "2";
    list["name"] = "another list"; // not joining the list pasted just before
    ASSERT_EQ(paste(doc, list.dump(), &pasted), 0u);
    EXPECT_EQ(PDChoiceWidgetAnnotGetSelection(pasted.get(), &selection), PD_OK);
    EXPECT_EQ(selection, 2u);
}

// A form whose text field "chain" has a mouse-up action chaining length URI actions, the
// last of which leads back to the first.
std::string chainForm(size_t length) {
    std::string pdf =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>"
        " endobj\n2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [4 0 R] >> endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Tx /T (chain) /Rect [10 10 110 30]"
        " /P 3 0 R /AA << /U 5 0 R >> >> endobj\n";
    for (size_t k = 0; k < length; ++k) {
        const size_t next = k + 1 < length ? k + 6 : 5;
        pdf += std::to_string(k + 5) + " 0 obj << /S /URI /URI (https://example.org/" +
               std::to_string(k) + ") /Next " + std::to_string(next) + " 0 R >> endobj\n";
    }
    return pdf + "trailer << /Root 1 0 R >>\n%%EOF\n";
}

// Hostile depth, end to end: a chain of 20,000 actions that loops was copied by a call per
// action until the stack ran out, and pasted in 73 s; a chain too long for a record is
// refused on copy, and a record nested 100,000 levels deep as text that does not parse.
TEST_F(WidgetClipboard, LongChainsAndDeepRecords) {
    auto open = [&](const std::string& pdf) -> qfhost::Document& {
        PDHandlePtr pd;
        EXPECT_EQ(PDDocOpenMem(pdf.data(), pdf.size(), pd.put()), PD_OK);
        return host.adoptDocument(pd.get());
    };
    const auto start = std::chrono::steady_clock::now();
    qfhost::Document& form = open(chainForm(20000));
    const std::string text = copy(form, u"chain");
    size_t links = 0;
    for (size_t at = 0; (at = text.find("\"next-action\"", at)) != std::string::npos; ++at) ++links;
    EXPECT_EQ(links, 19999u);
    qfhost::Document& doc = host.newDocument(1, 612, 792);
    PDHandlePtr pasted, action;
    ASSERT_EQ(paste(doc, text, &pasted), 0u);
    ASSERT_EQ(PDWidgetAnnotGetMouseUpAction(pasted.get(), action.put()), PD_OK);
    size_t length = 0;
    for (PDHandlePtr current = std::move(action); current; ++length) {
        uint32_t next = 0;
        ASSERT_EQ(PDActionGetNextLength(current.get(), &next), PD_OK);
        PDHandlePtr successor;
        if (next) {
            ASSERT_EQ(PDActionGetNext(current.get(), 0, successor.put()), PD_OK);
        }
        current = std::move(successor);
    }
    EXPECT_EQ(length, 20000u);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 30);

    qfhost::Document& tooLong = open(chainForm(50000));
    host.setCurrentDocument(&tooLong);
    qfhost::View& view = host.openView(tooLong);
    ObjectPtr data;
    const PDHandlePtr widget = annotAt(tooLong.pdDoc(), 0, 0);
    EXPECT_EQ(SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory().get())
                  ->CopyAnnot(factory().get(), view.object(), 0, widget.get(), data.put()),
              4u);
    EXPECT_FALSE(data);
    EXPECT_EQ(failureText(),
              u"The widget's actions nest deeper than a record may (50,000 levels).");
    host.closeView(view);

    Json record = Json::parse(text);
    record.erase("mouse-up");
    record["mouse-up"] = Json::object();
    const std::string plain = record.dump();
    ASSERT_EQ(paste(doc, plain), 0u);
    const std::string deep = plain.substr(0, plain.size() - 1) + ",\"z\":" +
                             std::string(100000, '[') + std::string(100000, ']') + "}";
    EXPECT_EQ(paste(doc, deep), 4u);
    EXPECT_NE(failureText().find(u"nested deeper than 50,000 levels"), std::u16string::npos);
    EXPECT_EQ(annotCount(doc.pdDoc(), 0), 2u);
}

// Copy and Cut go to the system clipboard, DuplicateCopy to the private one; a Locked
// widget is not cut.
TEST_F(WidgetClipboard, TheEditToolsClipboardCommands) {
    qfhost::Document& doc = host.newDocument(1, 612, 792);
    qfhost::View& view = host.openView(doc);
    ASSERT_EQ(view.activateTool("TextFieldCreate"), 0u);
    const auto a = view.pageToView(0, 100, 700), b = view.pageToView(0, 300, 678);
    view.sendEvent({QF::kEventButtonDown, QF::kButtonLeft, a[0], a[1], 0});
    view.sendEvent({QF::kEventButtonUp, QF::kButtonLeft, b[0], b[1], 0});
    ASSERT_EQ(annotCount(doc.pdDoc(), 0), 1u);
    auto command = [&](const char* name) {
        bool handled = false;
        EXPECT_EQ(view.sendEvent({QF::kEventCommand, atom(name), 0, 0, 0}, &handled), 0u);
        EXPECT_TRUE(handled) << name;
    };

    ASSERT_EQ(host.selection().selectAt(0, 150, 690), 0u);
    command("Copy");
    const std::u16string copied = systemClipboardText();
    EXPECT_EQ(Json::parse(std::string(copied.begin(), copied.end()))["name"], "Text1");
    command("DuplicateCopy");
    EXPECT_EQ(systemClipboardText(), copied); // the system clipboard is left alone
    EXPECT_EQ(annotCount(doc.pdDoc(), 0), 1u); // and the document too
    ASSERT_EQ(host.selection().paste(0, qfhost::AnnotSelection::Source::Private,
                                     Naming::NewField),
              0u);
    ASSERT_EQ(annotCount(doc.pdDoc(), 0), 2u);
    PDRect r{};
    EXPECT_EQ(PDAnnotGetRect(annotAt(doc.pdDoc(), 0, 1).get(), &r), PD_OK);
    EXPECT_EQ(r.left, 110.0f); // beside the original: 10 right, 10 down
    EXPECT_EQ(r.top, 690.0f);
    EXPECT_EQ(nameOf(annotAt(doc.pdDoc(), 0, 1).get()), u"Text1_2");

    const PDHandlePtr first = annotAt(doc.pdDoc(), 0, 0);
    ASSERT_EQ(PDAnnotSetFlags(first.get(), PD_ANNOT_PRINT | PD_ANNOT_LOCKED), PD_OK);
    ASSERT_EQ(host.selection().selectAt(0, 105, 695), 0u);
    command("Cut");
    EXPECT_EQ(annotCount(doc.pdDoc(), 0), 2u);
    ASSERT_EQ(PDAnnotSetFlags(first.get(), PD_ANNOT_PRINT), PD_OK);
    command("Cut");
    EXPECT_EQ(annotCount(doc.pdDoc(), 0), 1u);
    EXPECT_EQ(host.selection().paste(0, qfhost::AnnotSelection::Source::System,
                                     Naming::NewField),
              0u);
    EXPECT_EQ(annotCount(doc.pdDoc(), 0), 2u);

    // Another program's copy, of the same length, is what this one reads next.
    const std::u16string cut = systemClipboardText();
    std::u16string other = cut;
    other[other.find(u"Text")] = u'N';
    {
        std::ofstream out(std::getenv("QF_CLIPBOARD"), std::ios::binary | std::ios::trunc);
        out << Json{{"UnicodeText", {{"text", std::string(other.begin(), other.end())}}}}.dump();
    }
    EXPECT_EQ(systemClipboardText(), other);
}

} // namespace
