// Text in other scripts: drawn with the system's faces embedded as subsets, once per
// document however many widgets and sessions draw with them, read back by text extraction
// of a flattened copy (pdftotext), with the font a /DA asked for still reported; Latin
// text costs no embedding; what no font draws is said once.
#include "TestSupport.h"

#include <mutex>
#include <set>

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

// The composite fonts with an embedded program that the form's resources and the widgets'
// appearances name: "<BaseFont without subset tag> <program object> <has ToUnicode>".
std::set<std::string> embeddedFonts(const std::string& pdf) {
    std::string out = run(std::string(QF_PYTHON) + " - '" + pdf + "' <<'PY'\n" + R"PY(
import sys
from pypdf import PdfReader
r = PdfReader(sys.argv[1])
fonts = []
form = r.trailer['/Root'].get('/AcroForm')
if form:
    fonts += form.get_object().get('/DR', {}).get('/Font', {}).values()
for page in r.pages:
    for a in page.get('/Annots') or []:
        for entry in (a.get_object().get('/AP') or {}).values():
            entry = entry.get_object()
            for s in ([entry] if hasattr(entry, 'get_data') else entry.values()):
                fonts += s.get_object().get('/Resources', {}).get('/Font', {}).values()
for f in fonts:
    o = f.get_object()
    if o.get('/Subtype') != '/Type0':
        continue
    d = o['/DescendantFonts'][0].get_object()['/FontDescriptor'].get_object()
    if '/FontFile2' in d:
        print(o['/BaseFont'].split('+')[-1], d.raw_get('/FontFile2').idnum, '/ToUnicode' in o)
)PY" + "\nPY\n");
    std::set<std::string> fonts;
    size_t start = 0, end;
    while ((end = out.find('\n', start)) != std::string::npos) {
        fonts.insert(out.substr(start, end - start));
        start = end + 1;
    }
    return fonts;
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

TEST_F(Scripts, JapaneseIsEmbeddedOnceAndReadsBackAcrossSessions) {
    const std::string first = dir.file("first.pdf"), second = dir.file("second.pdf");
    const std::u16string names[] = {utf16("山田太郎"), utf16("東京都千代田区"),
                                    utf16("Order 注文 No. 42")};
    {
        Owned doc = createDoc();
        Owned pg = page(doc.get(), 0);
        for (int i = 0; i < 3; ++i)
            textField(doc.get(), pg.get(), "Name" + std::to_string(i), 700.0f - 40 * i, names[i]);
        textField(doc.get(), pg.get(), "Latin", 500, u"Plain Latin text");
        ASSERT_EQ(PDDocSave(doc.get(), first.c_str()), PD_OK);
    }
    EXPECT_EQ(qpdfCheck(first), 0);
    auto fonts = embeddedFonts(first);
    ASSERT_EQ(fonts.size(), 1u) << run("pdffonts '" + first + "'");
    EXPECT_EQ(fonts.begin()->substr(0, 10), "IPAGothic ");
    EXPECT_EQ(fonts.begin()->substr(fonts.begin()->size() - 4), "True");
    std::string text = flattenedText(first, dir.file("flat1.pdf"));
    for (const auto& n : names)
        EXPECT_NE(text.find(utf8(n)), std::string::npos) << text;
    EXPECT_NE(text.find("Plain Latin text"), std::string::npos) << text;

    // A later session draws on in the same font; the property sheet still shows the family
    // the field asked for.
    {
        Owned doc = openDoc(first);
        Owned pg = page(doc.get(), 0);
        textField(doc.get(), pg.get(), "Later", 400, utf16("大阪府 北海道"));
        Owned name0 = findField(doc.get(), "Name0");
        auto widgets = widgetsOf(name0.get());
        PDFontInfo info{};
        ASSERT_EQ(PDWidgetAnnotGetFontInfo(widgets[0].get(), &info), PD_OK);
        EXPECT_EQ(atomText(info.family), "MS Gothic");
        ASSERT_EQ(PDDocSave(doc.get(), second.c_str()), PD_OK);
    }
    fonts = embeddedFonts(second);
    EXPECT_EQ(fonts.size(), 1u) << run("pdffonts '" + second + "'");
    text = flattenedText(second, dir.file("flat2.pdf"));
    for (const auto& n : names)
        EXPECT_NE(text.find(utf8(n)), std::string::npos) << text;
    EXPECT_NE(text.find("大阪府 北海道"), std::string::npos) << text;
    EXPECT_TRUE(warnings.empty());
}

TEST_F(Scripts, LatinTextEmbedsNothing) {
    const std::string out = dir.file("latin.pdf");
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    textField(doc.get(), pg.get(), "A", 700, u"Caf\u00e9 \u201cquoted\u201d \u20ac 12");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    EXPECT_TRUE(embeddedFonts(out).empty());
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
