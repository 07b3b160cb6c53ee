// The host's property rows of a form widget ("AnnotArea"): their values for a real form,
// setters as a fresh reader of the saved document sees them, undo and redo, malformed
// values and locked widgets.
#include "TestObjects.h"

#include "qfhost/Host.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace hosttest;
using qfhost::Document;
using qfhost::Host;
using qfhost::PropertiesContext;
namespace codes = qfhost::codes;
namespace property = qfhost::property;

std::string ascii(const std::u16string& s) { return std::string(s.begin(), s.end()); }

const std::vector<std::string> kRowNames = {
    "Rect",        "Locked",      "Hidden",   "Printed",  "BackgroundColor", "BorderColor",
    "BorderWidth", "BorderStyle", "FontName", "FontSize", "FontColor"};

// The rows of the first annotation of page 0 of doc (the widget of the field "text" in
// qpdf-field-types.pdf) in a context of their own.
struct Sheet {
    ObjectPtr context = ObjectPtr::adopt(PropertiesContext::create());
    std::map<std::string, ObjectPtr> rows;
    PDAnnot widget = nullptr;

    Sheet(Host& host, Document& doc) {
        PDPage page = nullptr;
        EXPECT_EQ(PDDocGetPage(doc.pdDoc(), 0, &page), PD_OK);
        EXPECT_EQ(PDPageGetAnnot(page, 0, &widget), PD_OK);
        PDHandleRelease(page);
        PDRect rect{};
        PDAnnotGetRect(widget, &rect);
        EXPECT_EQ(host.annotProperties().addAnnotProperties(u"Widget", doc.object(), 0, widget,
                                                            rect, context.get()),
                  0u);
        for (ObjectPtr& p : PropertiesContext::of(context.get()).properties(u"AnnotArea"))
            rows[ascii(property::name(p.get()))] = p;
    }
    ~Sheet() { PDHandleRelease(widget); }
    std::string get(const std::string& row) {
        std::u16string text;
        EXPECT_EQ(property::getText(rows.at(row).get(), &text), 0u) << row;
        return ascii(text);
    }
    uint32_t set(const std::string& row, const std::string& value) {
        return property::setText(rows.at(row).get(), std::u16string(value.begin(), value.end()));
    }
    bool readOnly(const std::string& row) {
        bool out = false;
        EXPECT_EQ(property::isReadOnly(rows.at(row).get(), &out), 0u);
        return out;
    }
    bool valid(const std::string& row, const std::string& value) {
        const std::u16string text(value.begin(), value.end());
        const QF::PropertyValue v{text.data(), text.size(), nullptr};
        uint8_t ok = 9;
        ServiceObject* p = rows.at(row).get();
        EXPECT_EQ(SODetails::methods<QF::PropertyTable>(p)->ValidateValue(p, &v, 0, &ok), 0u);
        return ok != 0;
    }
};

class WidgetPropertiesTest : public ::testing::Test {
protected:
    // Every row's value as a fresh reader of the document sees it.
    std::map<std::string, std::string> fresh() {
        void* data = nullptr;
        size_t size = 0;
        EXPECT_EQ(PDDocSaveMem(doc.pdDoc(), &data, &size), PD_OK);
        PDDoc pd = nullptr;
        EXPECT_EQ(PDDocOpenMem(data, size, &pd), PD_OK);
        PDFreeBuffer(data);
        auto reopened = Document::fromPDDoc(pd);
        PDHandleRelease(pd);
        Sheet sheet(host, *reopened);
        std::map<std::string, std::string> out;
        for (const auto& name : kRowNames) out[name] = sheet.get(name);
        return out;
    }

    Host host;
    Document& doc = host.openDocument(QF_CORPUS_DIR "/qpdf-field-types.pdf");
    Sheet sheet{host, doc};
};

TEST_F(WidgetPropertiesTest, RowsAndValuesOfARealWidget) {
    std::vector<std::string> names;
    for (ObjectPtr& p : PropertiesContext::of(sheet.context.get()).properties(u"AnnotArea"))
        names.push_back(ascii(property::name(p.get())));
    EXPECT_EQ(names, kRowNames);
    const std::map<std::string, std::string> expected = {
        {"Rect", "123.50 689.90 260.80 704.70"}, {"Locked", "false"}, {"Hidden", "false"},
        {"Printed", "true"}, {"BackgroundColor", "none"}, {"BorderColor", "none"},
        {"BorderWidth", "1"}, {"BorderStyle", "solid"}, {"FontName", "LiberationSans"},
        {"FontSize", "12"}, {"FontColor", "#2E3436"}};
    for (const auto& [row, value] : expected) {
        EXPECT_EQ(sheet.get(row), value) << row;
        EXPECT_FALSE(sheet.readOnly(row)) << row;
    }
    EXPECT_EQ(fresh(), expected);

    // Other subtypes have no rows.
    ServiceObject* context = sheet.context.get();
    EXPECT_EQ(host.annotProperties().addAnnotProperties(u"Text", doc.object(), 0, sheet.widget,
                                                        {}, context),
              codes::kNegative);
    EXPECT_EQ(PropertiesContext::of(context).properties(u"AnnotArea").size(), kRowNames.size());
}

TEST_F(WidgetPropertiesTest, EachSetterIsSavedUndoneAndRedone) {
    const auto original = fresh();
    const std::vector<std::pair<std::string, std::string>> changes = {
        {"Rect", "100.00 600.00 250.50 630.00"}, {"Hidden", "true"}, {"Printed", "false"},
        {"BackgroundColor", "#FFEE00"}, {"BorderColor", "#0000FF"}, {"BorderWidth", "2.5"},
        {"BorderStyle", "dashed"}, {"FontName", "Courier"}, {"FontSize", "0"},
        {"FontColor", "#FF0000"}, {"Locked", "true"}};
    std::vector<uint32_t> kinds;
    boost::signals2::scoped_connection c = doc.OnAnnotChanged.connect(
        [&](uint32_t kind, uint64_t, PDAnnot) { kinds.push_back(kind); });
    int calls = 0;
    auto listener = [](void* count, ServiceObject*) { ++*static_cast<int*>(count); };
    ServiceObject* fontSize = sheet.rows.at("FontSize").get();
    ASSERT_EQ(SODetails::methods<QF::PropertyTable>(fontSize)->AddChangeListener(fontSize, listener,
                                                                                 &calls),
              0u);
    for (const auto& [row, value] : changes) {
        SCOPED_TRACE(row);
        kinds.clear();
        ASSERT_EQ(sheet.set(row, value), 0u);
        EXPECT_EQ(host.commands().depths().undo, 1u);
        EXPECT_TRUE(doc.pageChanged(0));
        EXPECT_EQ(kinds, std::vector<uint32_t>{0});
        EXPECT_EQ(sheet.get(row), value);
        auto changed = original;
        changed[row] = value;
        const auto after = fresh();
        EXPECT_EQ(after, changed);
        ASSERT_EQ(host.commands().undo(), 0u);
        EXPECT_FALSE(doc.pageChanged(0));
        EXPECT_EQ(fresh(), original);
        ASSERT_EQ(host.commands().redo(), 0u);
        EXPECT_EQ(fresh(), after);
        ASSERT_EQ(host.commands().undo(), 0u);
        host.commands().clear();
    }
    EXPECT_EQ(calls, 1);
    // The value a row has already: nothing to undo.
    EXPECT_EQ(sheet.set("BorderStyle", "solid"), 0u);
    EXPECT_EQ(host.commands().depths().undo, 0u);
}

TEST_F(WidgetPropertiesTest, MalformedValuesChangeNothing) {
    const auto original = fresh();
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"Rect", "1 2 3"}, {"Rect", "1 2 3 4 5"}, {"Rect", "a b c d"}, {"Rect", "1 2 3 inf"},
        {"Locked", "yes"}, {"Hidden", "TRUE"}, {"Printed", ""}, {"BackgroundColor", "red"},
        {"BorderColor", "#12345"}, {"FontColor", "#GG0000"}, {"BorderWidth", "-1"},
        {"BorderWidth", "wide"}, {"BorderStyle", "dotted"}, {"FontName", ""},
        {"FontSize", "-2"}, {"FontSize", "12pt"}};
    for (const auto& [row, value] : bad) {
        EXPECT_EQ(sheet.set(row, value), codes::kBadArgument) << row << " " << value;
        EXPECT_FALSE(sheet.valid(row, value)) << row << " " << value;
    }
    EXPECT_TRUE(sheet.valid("BorderStyle", "inset"));
    EXPECT_EQ(host.commands().depths().undo, 0u);
    EXPECT_FALSE(doc.modified());
    EXPECT_EQ(fresh(), original);

    // A page locked by someone else refuses the change too.
    ServiceObject* page = doc.page(0);
    auto* pageTable = SODetails::methods<QF::PageTable>(page);
    uint64_t token = 0;
    ASSERT_EQ(pageTable->Lock(page, 1, &token), 0u);
    EXPECT_EQ(sheet.set("BorderColor", "#00FF00"), codes::kPageBusy);
    EXPECT_EQ(sheet.set("Rect", "1 2 3 4"), codes::kPageBusy);
    EXPECT_EQ(pageTable->Unlock(page, token), 0u);
    EXPECT_EQ(fresh(), original);
}

TEST_F(WidgetPropertiesTest, ALockedWidgetOnlyUnlocks) {
    ASSERT_EQ(sheet.set("Locked", "true"), 0u);
    for (const auto& row : kRowNames) EXPECT_EQ(sheet.readOnly(row), row != "Locked") << row;
    EXPECT_EQ(sheet.set("BackgroundColor", "#00FF00"), codes::kBadArgument);
    EXPECT_EQ(sheet.set("Rect", "1 2 3 4"), codes::kBadArgument);
    EXPECT_FALSE(sheet.valid("FontSize", "10"));
    EXPECT_EQ(sheet.get("BackgroundColor"), "none");
    EXPECT_EQ(host.commands().depths().undo, 1u);
    // Undoing the lock, or unlocking, makes the rows writable again.
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_FALSE(sheet.readOnly("FontSize"));
    ASSERT_EQ(host.commands().redo(), 0u);
    ASSERT_EQ(sheet.set("Locked", "false"), 0u);
    EXPECT_EQ(sheet.set("BackgroundColor", "#00FF00"), 0u);
    EXPECT_EQ(fresh().at("BackgroundColor"), "#00FF00");

    // Once the document is gone the rows read empty and take nothing.
    host.closeDocument(doc);
    EXPECT_EQ(sheet.get("FontSize"), "");
    EXPECT_TRUE(sheet.readOnly("Locked"));
    EXPECT_EQ(sheet.set("FontSize", "9"), codes::kDocumentClosed);
}

}  // namespace
