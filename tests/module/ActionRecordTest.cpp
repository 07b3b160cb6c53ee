// PDF actions as JSON records and back (the module's action converters, compiled in): every
// action type, destinations and targets, field lists, chains (long, looping and branching
// ones among them), what the records deliberately lose, and the record text at any depth.
#include "qf/internal/AnnotClipboardUtils"
#include "qf/internal/ServiceObjectException.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

namespace {

using namespace JsonUtility::ActionSerialization;
using QF::PDHandlePtr;

constexpr PDAtom kXYZ = 597, kGoTo = 235, kGoToE = 237, kHide = 246, kLaunch = 289, kNamed = 337,
                 kResetForm = 445, kSubmitForm = 498, kURI = 550;

PDHandlePtr newDoc() {
    PDHandlePtr doc;
    EXPECT_EQ(PDDocCreate(3, 612, 792, doc.put()), PD_OK);
    return doc;
}
void addField(PDDoc doc, std::u16string_view name) {
    PDHandlePtr f;
    EXPECT_EQ(PDDocCreateField(doc, name.data(), uint32_t(name.size()), PD_ATOM_Tx, 0, f.put()),
              PD_OK);
}
PDHandlePtr make(PDDoc doc, PDAtom type, std::u16string_view text = u"", const char* bytes = "",
                 PDDest dest = nullptr) {
    PDActionArg arg{text.data(), uint32_t(text.size()), bytes, uint32_t(std::strlen(bytes)), dest};
    PDHandlePtr action;
    EXPECT_EQ(PDActionCreate(doc, type, &arg, action.put()), PD_OK);
    return action;
}
// The record of action, made again in another document from its record, recorded again.
Json roundTrip(PDDoc from, PDAction action, PDDoc to) {
    const Json record = pdActionToJson(from, action);
    const PDHandlePtr again = jsonToPDAction(to, record);
    return pdActionToJson(to, again.get());
}

class ActionRecords : public ::testing::Test {
  protected:
    void SetUp() override {
        for (PDDoc d : {a.get(), b.get()}) {
            addField(d, u"name");
            addField(d, u"address.city");
        }
        addField(a.get(), u"onlyHere");
    }
    PDHandlePtr a = newDoc(), b = newDoc();
};

TEST_F(ActionRecords, EveryTypeRoundTrips) {
    PDHandlePtr xyz;
    ASSERT_EQ(PDDestCreate(a.get(), kXYZ, 2, 72, 700, 1.5f, xyz.put()), PD_OK);
    const PDHandlePtr goTo = make(a.get(), kGoTo, u"", "", xyz.get());
    const Json goToRecord = pdActionToJson(a.get(), goTo.get());
    EXPECT_EQ(goToRecord["destination"]["page-index"], 2);
    EXPECT_EQ(goToRecord["destination"]["params"], Json::array({72.0, 700.0, 1.5}));
    EXPECT_EQ(roundTrip(a.get(), goTo.get(), b.get()), goToRecord);

    const PDHandlePtr script = make(a.get(), PD_ATOM_JavaScript, u"app.alert('é');");
    const PDHandlePtr uri = make(a.get(), kURI, u"", "https://example.org/a?b=c");
    const PDHandlePtr launch = make(a.get(), kLaunch, u"C:\\forms\\next.pdf");
    for (PDAction action : {script.get(), uri.get(), launch.get()})
        EXPECT_EQ(roundTrip(a.get(), action, b.get()), pdActionToJson(a.get(), action));
    EXPECT_EQ(pdActionToJson(a.get(), script.get())["script"], "app.alert('\xc3\xa9');");

    const PDHandlePtr hide = make(a.get(), kHide);
    ASSERT_EQ(PDActionHideSetHiding(hide.get(), 0), PD_OK);
    ASSERT_EQ(PDActionHideAddItemFieldName(hide.get(), u"name", 4), PD_OK);
    ASSERT_EQ(PDActionHideAddItemFieldName(hide.get(), u"address.city", 12), PD_OK);
    const Json hideRecord = pdActionToJson(a.get(), hide.get());
    EXPECT_EQ(hideRecord["is-hiding"], false);
    EXPECT_EQ(hideRecord["hiding-fields"][1],
              (Json{{"hide-item-name", "address.city"}, {"hide-item-type", 1}}));
    EXPECT_EQ(roundTrip(a.get(), hide.get(), b.get()), hideRecord);

    // Field lists: a name the destination lacks is dropped there.
    for (PDAtom type : {kResetForm, kSubmitForm}) {
        const PDHandlePtr action = make(a.get(), type, u"https://example.org/submit");
        PDHandlePtr fields, field;
        ASSERT_EQ(PDCreateActionFieldsData(a.get(), fields.put()), PD_OK);
        for (std::u16string_view n : {u"address.city", u"onlyHere"}) {
            ASSERT_EQ(PDDocFindField(a.get(), n.data(), uint32_t(n.size()), field.put()), PD_OK);
            ASSERT_EQ(PDActionFieldsDataAddField(fields.get(), field.get()), PD_OK);
        }
        if (type == kResetForm) {
            ASSERT_EQ(PDActionResetFormSetFieldsData(action.get(), fields.get()), PD_OK);
            ASSERT_EQ(PDActionResetFormSetFlags(action.get(), 1), PD_OK);
        } else {
            ASSERT_EQ(PDActionSubmitFormSetFieldsData(action.get(), fields.get()), PD_OK);
            ASSERT_EQ(PDActionSubmitFormSetFlags(action.get(), 4), PD_OK);
        }
        Json expected = pdActionToJson(a.get(), action.get());
        EXPECT_EQ(expected["fields-data"], Json::array({"address.city", "onlyHere"}));
        expected["fields-data"] = Json::array({"address.city"});
        EXPECT_EQ(roundTrip(a.get(), action.get(), b.get()), expected);
    }
    EXPECT_EQ(pdActionToJson(a.get(), make(a.get(), kSubmitForm, u"https://x.org/s").get())
                  ["submit-url"],
              (Json{{"file-path", "https://x.org/s"}}));
}

TEST_F(ActionRecords, GoToETargetsAndTheirDefaults) {
    Json record = {{"action-type", kGoToE},
                   {"destination", {{"page-index", 1}, {"type", kXYZ}, {"params", {10, 20, 0}}}},
                   {"go-to-e-action-target",
                    {{"relationship", 12345},
                     {"file-path", "attached.pdf"},
                     {"page-index", 3},
                     {"annotation-index", 1},
                     {"go-to-e-action-target", {{"relationship", 1}, {"page-index", 5}}}}}};
    const PDHandlePtr action = jsonToPDAction(a.get(), record);
    ASSERT_TRUE(action);
    const Json read = pdActionToJson(a.get(), action.get());
    EXPECT_EQ(read["new-window"], true); // unset reads back as the default
    const Json& target = read["go-to-e-action-target"];
    EXPECT_EQ(target["relationship"], 77); // /R is always /C
    EXPECT_EQ(target["file-path"], "attached.pdf");
    EXPECT_EQ(target["page-index"], 3u);
    EXPECT_EQ(target["annotation-index"], 1u);
    // A page index without an annotation index writes neither.
    EXPECT_EQ(target["go-to-e-action-target"], (Json{{"relationship", 77}}));
    EXPECT_EQ(read["destination"]["page-index"], 1);
}

TEST_F(ActionRecords, ChainsKeepOneSuccessorPerAction) {
    const PDHandlePtr first = make(a.get(), PD_ATOM_JavaScript, u"1");
    const PDHandlePtr second = make(a.get(), PD_ATOM_JavaScript, u"2");
    const PDHandlePtr third = make(a.get(), kURI, u"", "https://example.org/3");
    ASSERT_EQ(PDActionSetNext(second.get(), third.get()), PD_OK);
    ASSERT_EQ(PDActionSetNext(first.get(), second.get()), PD_OK);
    const Json chain = pdActionToJson(a.get(), first.get());
    EXPECT_EQ(chain["next-action"]["next-action"]["url"], "https://example.org/3");
    EXPECT_EQ(roundTrip(a.get(), first.get(), b.get()), chain);

    // Two next actions in one /Next array: the record keeps the last. A Hide item naming an
    // annotation (not a field) is left out.
    const char kFork[] =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>"
        " endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R] >>"
        " endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (go)"
        " /Rect [10 10 90 40] /P 3 0 R /A 5 0 R >> endobj\n"
        "5 0 obj << /S /JavaScript /JS (start) /Next [6 0 R 7 0 R] >> endobj\n"
        "6 0 obj << /S /JavaScript /JS (left) >> endobj\n"
        "7 0 obj << /S /Hide /T [(go) 4 0 R] /H false >> endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    PDHandlePtr raw, field, widget, action;
    ASSERT_EQ(PDDocOpenMem(kFork, sizeof kFork - 1, raw.put()), PD_OK);
    ASSERT_EQ(PDDocFindField(raw.get(), u"go", 2, field.put()), PD_OK);
    ASSERT_EQ(PDFieldGetWidget(field.get(), 0, widget.put()), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotGetAction(widget.get(), action.put()), PD_OK);
    const Json forked = pdActionToJson(raw.get(), action.get());
    EXPECT_EQ(forked["script"], "start");
    EXPECT_EQ(forked["next-action"],
              (Json{{"action-type", kHide},
                    {"hiding-fields", {{{"hide-item-name", "go"}, {"hide-item-type", 1}}}},
                    {"is-hiding", false}}));
}

// A file whose /Next leads back into the chain (found by the open fuzzer: the record
// recursed until the stack ran out): the chain ends before the action repeats, on every
// trigger that starts it.
TEST_F(ActionRecords, ALoopOfNextActionsEndsTheChain) {
    const char kLoop[] =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>"
        " endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R] >>"
        " endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (go)"
        " /Rect [10 10 90 40] /P 3 0 R /A 5 0 R /AA << /E 7 0 R >> >> endobj\n"
        "5 0 obj << /S /JavaScript /JS (start) /Next [6 0 R] >> endobj\n"
        "6 0 obj << /S /JavaScript /JS (left) /Next 5 0 R >> endobj\n"
        "7 0 obj << /S /JavaScript /JS (self) /Next 7 0 R >> endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    PDHandlePtr raw, field, widget, click, enter;
    ASSERT_EQ(PDDocOpenMem(kLoop, sizeof kLoop - 1, raw.put()), PD_OK);
    ASSERT_EQ(PDDocFindField(raw.get(), u"go", 2, field.put()), PD_OK);
    ASSERT_EQ(PDFieldGetWidget(field.get(), 0, widget.put()), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotGetAction(widget.get(), click.put()), PD_OK);
    EXPECT_EQ(pdActionToJson(raw.get(), click.get()),
              (Json{{"action-type", PD_ATOM_JavaScript},
                    {"script", "start"},
                    {"next-action", {{"action-type", PD_ATOM_JavaScript}, {"script", "left"}}}}));
    ASSERT_EQ(PDWidgetAnnotGetMouseEnterAction(widget.get(), enter.put()), PD_OK);
    EXPECT_EQ(pdActionToJson(raw.get(), enter.get()),
              (Json{{"action-type", PD_ATOM_JavaScript}, {"script", "self"}}));
    // The record makes a chain without the loop.
    const PDHandlePtr made = jsonToPDAction(b.get(), pdActionToJson(raw.get(), click.get()));
    EXPECT_EQ(pdActionToJson(b.get(), made.get()), pdActionToJson(raw.get(), click.get()));
}

// How many actions a record chains, and the last one's "url".
std::pair<size_t, std::string> chainOf(const Json& record) {
    size_t length = 0;
    const Json* last = &record;
    for (const Json* r = &record; r && !r->empty(); ++length) {
        last = r;
        const auto next = r->find("next-action");
        r = next == r->end() ? nullptr : &*next;
    }
    return {length, last->value("url", "")};
}

// Chains tens of thousands long were read and made by a call per action (a copy of a widget
// with one ran out of stack), and made from the last action back, each link looking for a
// loop through the whole rest of the chain (a paste took 73 s); /Next arrays that branch at
// every step were read branch by branch.
TEST_F(ActionRecords, LongAndBranchingChainsTakeLinearTime) {
    constexpr size_t kLength = 20000;
    const auto start = std::chrono::steady_clock::now();
    const PDHandlePtr first = make(a.get(), kURI, u"", "https://example.org/0");
    PDHandlePtr previous;
    for (size_t i = 1; i < kLength; ++i) {
        const std::string url = "https://example.org/" + std::to_string(i);
        PDHandlePtr action = make(a.get(), kURI, u"", url.c_str());
        ASSERT_EQ(PDActionSetNext(previous ? previous.get() : first.get(), action.get()), PD_OK);
        previous = std::move(action);
    }
    const Json record = pdActionToJson(a.get(), first.get());
    EXPECT_EQ(chainOf(record), std::make_pair(kLength, std::string("https://example.org/19999")));
    EXPECT_EQ(nestingOf(record), kLength);
    const std::string text = recordText(record);
    const PDHandlePtr made = jsonToPDAction(b.get(), parseRecord(text));
    EXPECT_EQ(recordText(pdActionToJson(b.get(), made.get())), text);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 20);

    // Forty actions, each with /Next [k+1 k+1]: a walk of every branch takes 2^40 steps.
    std::string pdf =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>"
        " endobj\n2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R] >> endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (go)"
        " /Rect [10 10 90 40] /P 3 0 R /A 5 0 R >> endobj\n";
    for (int k = 5; k < 45; ++k) {
        const std::string next = std::to_string(k + 1) + " 0 R";
        pdf += std::to_string(k) + " 0 obj << /S /URI /URI (" + std::to_string(k) + ")" +
               (k < 44 ? " /Next [" + next + " " + next + "]" : "") + " >> endobj\n";
    }
    pdf += "trailer << /Root 1 0 R >>\n%%EOF\n";
    PDHandlePtr raw, field, widget, action;
    ASSERT_EQ(PDDocOpenMem(pdf.data(), pdf.size(), raw.put()), PD_OK);
    ASSERT_EQ(PDDocFindField(raw.get(), u"go", 2, field.put()), PD_OK);
    ASSERT_EQ(PDFieldGetWidget(field.get(), 0, widget.put()), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotGetAction(widget.get(), action.put()), PD_OK);
    EXPECT_EQ(chainOf(pdActionToJson(raw.get(), action.get())),
              std::make_pair(size_t{40}, std::string("44")));
}

TEST(RecordText, WrittenAsTheLibraryWritesItAndReadToTheLimit) {
    const Json record = Json::parse(R"({"a":[1,-2,3.5,1e300,true,null,"\u00e9\"\\\n\u0001"],)"
                                    R"("b":{},"c":[],"d":{"\u65e5":[[{}]]},"e":"\ud83d\ude00"})");
    EXPECT_EQ(recordText(record), record.dump());
    EXPECT_EQ(recordText(Json("x")), "\"x\"");
    EXPECT_THROW(recordText(Json("\xff")), nlohmann::json::type_error);
    EXPECT_EQ(recordText(Json("\xff"), Json::error_handler_t::replace), "\"\xef\xbf\xbd\"");

    auto nest = [](size_t levels) {
        return std::string(levels, '[') + std::string(levels, ']');
    };
    const Json deepest = parseRecord(nest(kMaxRecordNesting));
    EXPECT_EQ(nestingOf(deepest), kMaxRecordNesting);
    EXPECT_EQ(recordText(deepest), nest(kMaxRecordNesting));
    for (size_t levels : {kMaxRecordNesting + 1, size_t{100000}}) {
        try {
            parseRecord("{\"x\":" + nest(levels) + "}");
            ADD_FAILURE() << "no exception";
        } catch (const Json::parse_error& e) {
            EXPECT_EQ(e.id, 101);
            EXPECT_STREQ(e.what(), "[json.exception.parse_error.101] parse error: objects and "
                                   "arrays nested deeper than 50,000 levels");
        }
    }
    EXPECT_THROW(parseRecord("{\"x\":"), Json::parse_error);
}

// A GoToE target whose /T leads back to itself ends there; a record of targets nested
// beyond what pdfcore lets a dictionary hold fails as other refused records do.
TEST_F(ActionRecords, NestedTargetsEndWhereTheyLoop) {
    const char kLoop[] =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>"
        " endobj\n2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R] >> endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (go)"
        " /Rect [10 10 90 40] /P 3 0 R /A 5 0 R >> endobj\n"
        "5 0 obj << /S /GoToE /D [0 /Fit] /T 6 0 R >> endobj\n"
        "6 0 obj << /R /C /N (a.pdf) /T 7 0 R >> endobj\n"
        "7 0 obj << /R /C /N (b.pdf) /T 6 0 R >> endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    PDHandlePtr raw, field, widget, action;
    ASSERT_EQ(PDDocOpenMem(kLoop, sizeof kLoop - 1, raw.put()), PD_OK);
    ASSERT_EQ(PDDocFindField(raw.get(), u"go", 2, field.put()), PD_OK);
    ASSERT_EQ(PDFieldGetWidget(field.get(), 0, widget.put()), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotGetAction(widget.get(), action.put()), PD_OK);
    const Json record = pdActionToJson(raw.get(), action.get());
    EXPECT_EQ(record["go-to-e-action-target"],
              (Json{{"file-path", "a.pdf"},
                    {"relationship", 77},
                    {"go-to-e-action-target", {{"file-path", "b.pdf"}, {"relationship", 77}}}}));

    Json deep = {{"file-path", "last.pdf"}};
    for (int level = 0; level < 200; ++level)
        deep = Json{{"file-path", std::to_string(level)},
                    {"go-to-e-action-target", std::move(deep)}};
    try {
        jsonToPDAction(a.get(), Json{{"action-type", kGoToE}, {"go-to-e-action-target", deep}});
        ADD_FAILURE() << "no exception";
    } catch (const ServiceObjectException& e) {
        EXPECT_STREQ(e.what(), "Unspecified Error!");
    }
}

TEST_F(ActionRecords, RecordsThatMakeNothingAndRecordsThatFail) {
    EXPECT_EQ(pdActionToJson(a.get(), nullptr), Json::object());
    EXPECT_FALSE(jsonToPDAction(a.get(), Json{{"action-type", kGoTo}}));
    EXPECT_FALSE(jsonToPDAction(a.get(), Json::object()));
    EXPECT_FALSE(jsonToPDAction(a.get(), Json{{"action-type", kHide}}));
    // A type the records do not know is written by its number and reads back as nothing.
    const PDHandlePtr named = make(a.get(), kNamed, u"SaveAs");
    EXPECT_EQ(pdActionToJson(a.get(), named.get()), (Json{{"action-type", kNamed}}));
    EXPECT_FALSE(jsonToPDAction(a.get(), Json{{"action-type", kNamed}}));
    // Empty scripts and addresses are actions all the same.
    const PDHandlePtr empty = jsonToPDAction(a.get(), Json{{"action-type", 275}});
    ASSERT_TRUE(empty);
    EXPECT_EQ(pdActionToJson(a.get(), empty.get())["script"], "");
    EXPECT_TRUE(jsonToPDAction(a.get(), Json{{"action-type", kURI}}));

    auto withParams = [&](Json params) {
        return Json{{"action-type", kGoTo},
                    {"destination", {{"page-index", 0}, {"type", kXYZ}, {"params", params}}}};
    };
    EXPECT_THROW(jsonToPDAction(a.get(), withParams({1, 2})), std::out_of_range);
    const PDHandlePtr four = jsonToPDAction(a.get(), withParams({1, 2, 3, 4}));
    EXPECT_EQ(pdActionToJson(a.get(), four.get())["destination"]["params"],
              Json::array({1.0, 2.0, 3.0}));
    const PDHandlePtr mixed = jsonToPDAction(a.get(), withParams({1, true, 2.5}));
    EXPECT_EQ(pdActionToJson(a.get(), mixed.get())["destination"]["params"],
              Json::array({1.0, 1.0, 2.5}));
    try {
        jsonToPDAction(a.get(), withParams({1, "x", 2}));
        ADD_FAILURE() << "no exception";
    } catch (const nlohmann::json::type_error& e) {
        EXPECT_EQ(e.id, 302);
        EXPECT_NE(std::string(e.what()).find("type must be number, but is string"),
                  std::string::npos);
    }
    try {
        jsonToPDAction(a.get(), Json{{"action-type", kSubmitForm}, {"fields-data", Json::array()}});
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid map<K, T> key");
    }
    try {
        jsonToPDAction(a.get(), Json{{"action-type", kResetForm}, {"fields-data", {7}}});
        ADD_FAILURE() << "no exception";
    } catch (const nlohmann::json::type_error& e) {
        EXPECT_EQ(e.id, 302);
    }
}

} // namespace
