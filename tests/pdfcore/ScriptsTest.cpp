// Text in other scripts, read back by text extraction of a flattened copy (pdftotext):
// Latin text costs no embedding, right-to-left text is drawn right to left, what no font
// draws is said once.
#include "TestSupport.h"

#include <mutex>

using namespace pdtest;

namespace {

PDAtom atom(const char* name) {
    PDAtom a = 0;
    EXPECT_EQ(PDAtomPutString(name, &a), PD_OK);
    return a;
}

// A text field of the font the creation tool gives text fields, with a value.
Owned textField(PDDoc doc, PDPage pg, const std::string& name, float top,
                const std::u16string& value) {
    auto made = addField(doc, pg, name, PD_ATOM_Tx, rect(40, top - 20, 400, top));
    PDFontInfo gothic{atom("MS Gothic"), 1, 0};
    EXPECT_EQ(PDWidgetAnnotSetFontInfo(made.widget.get(), &gothic), PD_OK);
    EXPECT_EQ(setValue(made.field.get(), value), PD_OK);
    return std::move(made.widget);
}

// What pdftotext reads of page 0 of a copy whose widgets are flattened into the page.
std::string flattenedText(const std::string& pdf, const std::string& scratch) {
    run("qpdf --flatten-annotations=all '" + pdf + "' '" + scratch + "' 2>&1");
    return run("pdftotext -enc UTF-8 -layout '" + scratch + "' - 2>&1");
}

std::vector<std::string> warnings;
std::mutex warningsMutex;
void collect(const char16_t* text, uint32_t len, void*) {
    std::lock_guard<std::mutex> lock(warningsMutex);
    warnings.push_back(utf8(std::u16string(text, len)));
}

class Scripts : public ::testing::Test {
  protected:
    void SetUp() override {
        warnings.clear();
        PDSetWarningHandler(collect, nullptr);
    }
    void TearDown() override { PDSetWarningHandler(nullptr, nullptr); }
    ScratchDir dir;
};

} // namespace

// Japanese and other scripts embedded once per document across sessions, drawn and read
// back by five readers: tests/tools/reader_matrix.py (scripts).
TEST_F(Scripts, LatinTextEmbedsNothing) {
    const std::string out = dir.file("latin.pdf");
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    textField(doc.get(), pg.get(), "A", 700, u"Caf\u00e9 \u201cquoted\u201d \u20ac 12");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    EXPECT_EQ(run("qpdf --qdf --object-streams=disable '" + out + "' - | grep -ac /FontFile"),
              "0\n");
    EXPECT_NE(flattenedText(out, dir.file("flat.pdf")).find("Café “quoted” € 12"),
              std::string::npos);
}

// Right-to-left words are drawn in the order they are read, and a reader that extracts
// text gives them back in logical order.
TEST_F(Scripts, RightToLeftTextIsDrawnRightToLeft) {
    const std::string out = dir.file("rtl.pdf");
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    textField(doc.get(), pg.get(), "Hebrew", 700, utf16("שלום עולם"));
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    std::string flat = dir.file("flat.pdf");
    std::string text = flattenedText(out, flat);
    EXPECT_NE(text.find("שלום עולם"), std::string::npos) << text;
    // Drawn right to left: the first word read (שלום) stands right of the second. pdftotext
    // gives each word's box with its letters in the order they stand, left to right.
    std::string boxes = run("pdftotext -bbox '" + flat + "' - 2>&1");
    size_t first = boxes.find(">םולש<"), second = boxes.find(">םלוע<");
    ASSERT_NE(first, std::string::npos) << boxes;
    ASSERT_NE(second, std::string::npos) << boxes;
    auto xMin = [&](size_t at) {
        size_t open = boxes.rfind("xMin=\"", at);
        return std::stod(boxes.substr(open + 6));
    };
    EXPECT_GT(xMin(first), xMin(second));
}

TEST_F(Scripts, WhatNoFontDrawsIsSaidOnce) {
    const std::string out = dir.file("tofu.pdf");
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    const std::u16string hieroglyph = utf16("\xF0\x93\x80\x80"); // U+13000
    textField(doc.get(), pg.get(), "A", 700, u"x " + hieroglyph);
    textField(doc.get(), pg.get(), "B", 650, hieroglyph + hieroglyph);
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(out), 0);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("U+13000"), std::string::npos) << warnings[0];
}
