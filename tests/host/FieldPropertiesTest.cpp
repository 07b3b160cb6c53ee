// The field properties of selected widgets over a real form (qpdf-field-types.pdf: a text
// field, radio groups and check boxes drawn by another tool, list and combo boxes): the rows
// and their common values, changes of several widgets as one undo step that gives back the
// file byte for byte, and the refusals, which leave the document as it was.
#include "TestObjects.h"

#include "qfhost/FieldProperties.h"
#include "qfhost/Host.h"
#include "qfhost/UiServices.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>
#include <string>
#include <vector>

namespace {

using qfhost::AnnotSelection;
using qfhost::Document;
using qfhost::FieldProperties;
using qfhost::Host;
namespace codes = qfhost::codes;

// Positions in page 0's /Annots.
enum : uint32_t { kText = 0, kRadio1 = 1, kRadio2 = 2, kCheck1 = 4, kText2 = 10, kCombo = 13 };

class FieldPropertiesTest : public ::testing::Test {
protected:
    void SetUp() override {
        PDPage page = nullptr;
        ASSERT_EQ(PDDocGetPage(doc.pdDoc(), 0, &page), PD_OK);
        uint32_t count = 0;
        PDPageGetNumAnnots(page, &count);
        annots.resize(count);
        for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(PDPageGetAnnot(page, i, &annots[i]), PD_OK);
        // The first look-up of a page lets qpdf move what the pages inherit from the page
        // tree onto them; the file as it was is the file after that.
        uint32_t index = 0;
        ASSERT_EQ(PDPageGetIndex(page, &index), PD_OK);
        PDHandleRelease(page);
    }
    void TearDown() override {
        for (PDAnnot a : annots) PDHandleRelease(a);
    }

    std::vector<AnnotSelection::Selected> pick(std::initializer_list<uint32_t> indices) {
        std::vector<AnnotSelection::Selected> out;
        for (uint32_t i : indices) out.push_back({0, annots[i]});
        return out;
    }
    std::map<std::string, FieldProperties::Row> rows(std::initializer_list<uint32_t> indices,
                                                     std::string* kind = nullptr) {
        auto sheet = props.sheet(pick(indices));
        if (kind) *kind = sheet.kind;
        std::map<std::string, FieldProperties::Row> out;
        for (auto& r : sheet.rows) out[r.id] = r;
        return out;
    }
    std::string bytes() {
        void* data = nullptr;
        size_t size = 0;
        EXPECT_EQ(PDDocSaveMem(doc.pdDoc(), &data, &size), PD_OK);
        std::string out(static_cast<const char*>(data), size);
        PDFreeBuffer(data);
        return out;
    }
    // Sets and expects a refusal with sentence, the document unchanged and no command made.
    void refused(std::initializer_list<uint32_t> indices, const std::string& id,
                 const FieldProperties::Value& value, const std::u16string& sentence) {
        const std::string before = bytes();
        const auto depth = host.commands().depths().undo;
        std::u16string reason;
        EXPECT_EQ(props.set(pick(indices), id, value, &reason), codes::kBadArgument) << id;
        EXPECT_EQ(reason, sentence) << id;
        EXPECT_EQ(host.commands().depths().undo, depth) << id;
        EXPECT_EQ(bytes(), before) << id;
    }
    uint32_t set(std::initializer_list<uint32_t> indices, const std::string& id,
                 const FieldProperties::Value& value) {
        std::u16string reason;
        const uint32_t rc = props.set(pick(indices), id, value, &reason);
        EXPECT_TRUE(reason.empty()) << std::string(reason.begin(), reason.end());
        return rc;
    }

    Host host;
    Document& doc = host.openDocument(QF_CORPUS_DIR "/qpdf-field-types.pdf");
    FieldProperties props{host};
    std::vector<PDAnnot> annots;
};

TEST_F(FieldPropertiesTest, RowsApplyToEveryWidgetWithTheirCommonValue) {
    std::string kind;
    auto texts = rows({kText, kText2}, &kind);
    EXPECT_EQ(kind, "text");
    for (const char* id : {"required", "multiline", "comb", "maxLength", "value", "fontSize",
                           "borderStyle", "visibility", "alignment"})
        EXPECT_TRUE(texts.count(id)) << id;
    for (const char* id : {"exportValue", "glyph", "caption", "editable"})
        EXPECT_FALSE(texts.count(id)) << id;
    EXPECT_EQ(texts["multiline"].value, FieldProperties::Value(false));
    EXPECT_EQ(texts["borderStyle"].choices.size(), 5u);
    EXPECT_EQ(texts["fontSize"].unit, "pt");
    EXPECT_EQ(texts["value"].type, FieldProperties::Type::Text);

    auto mixed = rows({kText, kCheck1}, &kind);
    EXPECT_EQ(kind, "mixed");
    EXPECT_TRUE(mixed.count("readOnly") && mixed.count("borderColor"));
    EXPECT_FALSE(mixed.count("multiline") || mixed.count("value") || mixed.count("glyph"));

    // A radio button's value chooses among Off and the group's on states.
    auto radio = rows({kRadio1});
    EXPECT_EQ(radio["value"].type, FieldProperties::Type::Choice);
    EXPECT_EQ(radio["value"].choices, (std::vector<std::u16string>{u"Off", u"1", u"2", u"3"}));
    EXPECT_EQ(radio["exportValue"].value, FieldProperties::Value(std::u16string(u"1")));

    // Values that differ read as none.
    ASSERT_EQ(set({kText}, "fontSize", 9.0), 0u);
    EXPECT_EQ(rows({kText})["fontSize"].value, FieldProperties::Value(9.0));
    EXPECT_EQ(rows({kText, kText2})["fontSize"].value, std::nullopt);
}

TEST_F(FieldPropertiesTest, SeveralWidgetsChangeInOneStepThatUndoesExactly) {
    const std::string original = bytes();
    ASSERT_EQ(set({kText, kText2, kCheck1}, "borderColor", std::u16string(u"#FF0000")), 0u);
    EXPECT_EQ(host.commands().undoNames(), std::vector<std::string>{"Widget_SetProperty"});
    EXPECT_EQ(rows({kText, kText2, kCheck1})["borderColor"].value,
              FieldProperties::Value(std::u16string(u"#ff0000")));
    const std::string changed = bytes();
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(bytes(), original);
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(bytes(), changed);
    ASSERT_EQ(host.commands().undo(), 0u);

    // The same value again makes no command.
    EXPECT_EQ(set({kText}, "borderStyle", std::u16string(u"solid")), 0u);
    EXPECT_EQ(host.commands().depths().undo, 0u);
}

TEST_F(FieldPropertiesTest, AuthoredButtonsComeBackByteForByte) {
    const std::string original = bytes();
    // Each changes what another tool drew: the on state's name, the glyph, the field's flags.
    const std::vector<std::tuple<uint32_t, std::string, FieldProperties::Value>> changes = {
        {kRadio1, "exportValue", std::u16string(u"First")},
        {kCheck1, "glyph", std::u16string(u"star")},
        {kRadio2, "radiosInUnison", true},
        {kRadio1, "value", std::u16string(u"2")},
        {kText, "value", std::u16string(u"hello")},
        {kCombo, "rotation", 90.0},
        {kText, "visibility", std::u16string(u"printOnly")},
    };
    for (const auto& [index, id, value] : changes) {
        ASSERT_EQ(props.set(pick({index}), id, value, nullptr), 0u) << id;
        EXPECT_EQ(rows({index})[id].value, value) << id;
    }
    // The renamed on state shows in the value's choices and is the widget's drawing.
    EXPECT_EQ(rows({kRadio1})["value"].choices,
              (std::vector<std::u16string>{u"Off", u"First", u"2", u"3"}));
    for (size_t i = 0; i < changes.size(); ++i) ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(bytes(), original);
}

TEST_F(FieldPropertiesTest, BadValuesAreRefusedWithTheirReason) {
    ASSERT_EQ(set({kText}, "value", std::u16string(u"hello world")), 0u);
    refused({kText}, "maxLength", 5.0,
            u"The maximum length cannot be shorter than the field's value (11 characters).");
    refused({kText}, "comb", true, u"A comb field needs a maximum length.");
    ASSERT_EQ(set({kText}, "maxLength", 20.0), 0u);
    ASSERT_EQ(set({kText}, "multiline", true), 0u);
    refused({kText}, "comb", true,
            u"A comb field cannot be multiline, a password or a field that does not scroll.");
    ASSERT_EQ(set({kText}, "multiline", false), 0u);
    ASSERT_EQ(set({kText}, "comb", true), 0u);
    refused({kText}, "password", true,
            u"A comb field cannot be multiline, a password or a field that does not scroll.");
    refused({kText}, "maxLength", 0.0, u"A comb field needs a maximum length.");
    refused({kText}, "value", std::u16string(21, u'x'),
            u"The value is longer than the field's maximum length (20 characters).");
    refused({kRadio1}, "exportValue", std::u16string(u"2"),
            u"Another widget of this field has the export value \"2\".");
    refused({kRadio1, kRadio2}, "exportValue", std::u16string(u"A"),
            u"Another widget of this field has the export value \"A\".");
    refused({kRadio1}, "exportValue", std::u16string(u"Off"),
            u"\"Off\" names the state of a button that is off: it cannot be an export value.");
    refused({kText}, "fontSize", 145.0,
            u"The font size must be from 0 to 144 points (0 sizes the text to fit).");
    refused({kText}, "borderWidth", -1.0, u"The border width must be from 0 to 12 points.");
    refused({kText}, "rotation", 45.0, u"The rotation must be 0, 90, 180 or 270 degrees.");
    refused({kText}, "borderStyle", std::u16string(u"zigzag"),
            u"\"zigzag\" is not one of the choices.");
    refused({kRadio1}, "value", std::u16string(u"4"), u"\"4\" is not one of the choices.");
    refused({kText}, "fontColor", std::u16string(u"none"),
            u"The text needs a colour: none is not one.");
    refused({kText}, "borderColor", std::u16string(u"red"),
            u"A colour is written #rrggbb, or none.");
    refused({kText}, "required", 1.0, u"This property is on or off (true or false).");
    refused({kText, kCheck1}, "multiline", true,
            u"The selected widgets have no property \"multiline\".");

    // A locked widget takes nothing; the reasons come in the user's language.
    host.strings().setLanguage("ja");
    refused({kText}, "fontSize", 200.0,
            u"フォントサイズは 0～144 ポイントで指定してください（0 は自動調整）。");
    uint32_t flags = 0;
    PDAnnotGetFlags(annots[kText2], &flags);
    PDAnnotSetFlags(annots[kText2], flags | PD_ANNOT_LOCKED);
    EXPECT_TRUE(rows({kText2})["tooltip"].readOnly);
    refused({kText2}, "tooltip", std::u16string(u"x"),
            u"ロックされたウィジェットは変更できません。先にロックを解除してください。");
}

}  // namespace
