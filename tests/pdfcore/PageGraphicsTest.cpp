// What PDPageReadGraphics hands out: shapes and text in default user space through the
// transformations of the page and of its form XObjects, text decoded through /ToUnicode and
// simple encodings, and the caps.
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace pdtest;

namespace {

struct Seen {
    int32_t kind;
    uint32_t flags;
    float x0, y0, x1, y1;
    float fontSize;
    std::u16string text;
};

int32_t record(const PDGraphic* g, void* data) {
    static_cast<std::vector<Seen>*>(data)->push_back(
        {g->kind, g->flags, g->x0, g->y0, g->x1, g->y1, g->fontSize,
         std::u16string(g->text ? g->text : u"", g->textLen)});
    return 0;
}

std::string stream(const std::string& dict, const std::string& data) {
    return "<< " + dict + " /Length " + std::to_string(data.size()) + " >>\nstream\n" + data +
           "\nendstream";
}

// A one-page document drawing content, with fonts F1 (Helvetica, WinAnsi), F2 (a Type0
// font with a /ToUnicode map of two codes) and the form XObject X1 drawing formContent.
Owned pageDocument(const std::string& content, const std::string& formContent = "q Q") {
    const std::string cmap = "/CIDInit /ProcSet findresource begin 12 dict begin begincmap\n"
                             "1 begincodespacerange <0000> <FFFF> endcodespacerange\n"
                             "1 beginbfchar <0001> <6C0F> endbfchar\n"
                             "1 beginbfrange <0002> <0002> [<540D>] endbfrange\n"
                             "endcmap end end";
    return openBytes(makePdf({
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 600 800] /Contents 4 0 R"
        " /Resources << /Font << /F1 5 0 R /F2 6 0 R >> /XObject << /X1 8 0 R >> >> >>",
        stream("", content),
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding"
        " /FirstChar 32 /Widths [278 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 278] >>",
        "<< /Type /Font /Subtype /Type0 /BaseFont /Mincho /Encoding /Identity-H"
        " /DescendantFonts [<< /Type /Font /Subtype /CIDFontType2 /DW 1000 >>]"
        " /ToUnicode 7 0 R >>",
        stream("", cmap),
        stream("/Type /XObject /Subtype /Form /BBox [0 0 100 100] /Matrix [1 0 0 1 100 0]",
               formContent),
    }));
}

std::vector<Seen> read(PDDoc doc, uint32_t cap = 0, PDGraphicsSummary* summary = nullptr) {
    Owned pg = page(doc, 0);
    std::vector<Seen> seen;
    EXPECT_EQ(PDPageReadGraphics(pg.get(), cap, record, &seen, summary), PD_OK);
    return seen;
}

TEST(PageGraphics, ShapesComeInUserSpaceThroughTheTransformationsAndFormXObjects) {
    // A rectangle moved by cm, a closed path of four lines (a rectangle too), an open
    // polyline (its segments), a circle of curves (its box, closed), an unpainted clip, a
    // rectangle inside the form XObject scaled by the caller and moved by its /Matrix, and
    // an arc (a rounded corner: not closed).
    Owned doc =
        pageDocument("q 1 0 0 1 10 20 cm 0 0 50 10 re S Q "
                     "100 100 m 130 100 l 130 110 l 100 110 l h f "
                     "200 200 m 260 200 l 260 230 l S "
                     "300 300 m 300 305.5 304.5 310 310 310 c 315.5 310 320 305.5 320 300 c "
                     "320 294.5 315.5 290 310 290 c 304.5 290 300 294.5 300 300 c S "
                     "0 0 600 800 re W n "
                     "q 2 0 0 2 0 0 cm /X1 Do Q "
                     "400 400 m 400 405.5 404.5 410 410 410 c S",
                     "5 5 10 10 re B");
    const std::vector<Seen> g = read(doc.get());
    ASSERT_EQ(g.size(), 7u);
    EXPECT_EQ(g[0].kind, PD_GRAPHIC_RECT);
    EXPECT_EQ(g[0].flags, uint32_t(PD_GRAPHIC_STROKED));
    EXPECT_FLOAT_EQ(g[0].x0, 10);
    EXPECT_FLOAT_EQ(g[0].y0, 20);
    EXPECT_FLOAT_EQ(g[0].x1, 60);
    EXPECT_FLOAT_EQ(g[0].y1, 30);
    EXPECT_EQ(g[1].kind, PD_GRAPHIC_RECT);
    EXPECT_EQ(g[1].flags, uint32_t(PD_GRAPHIC_FILLED));
    EXPECT_EQ(g[2].kind, PD_GRAPHIC_LINE);
    EXPECT_FLOAT_EQ(g[2].x1, 260);
    EXPECT_EQ(g[3].kind, PD_GRAPHIC_LINE);
    EXPECT_FLOAT_EQ(g[3].y1, 230);
    EXPECT_EQ(g[4].kind, PD_GRAPHIC_CURVE);
    EXPECT_EQ(g[4].flags, uint32_t(PD_GRAPHIC_STROKED | PD_GRAPHIC_CLOSED));
    EXPECT_FLOAT_EQ(g[4].x0, 300);
    EXPECT_FLOAT_EQ(g[4].y1, 310);
    // (5, 5)-(15, 15) moved by (100, 0) then scaled by 2.
    EXPECT_EQ(g[5].kind, PD_GRAPHIC_RECT);
    EXPECT_EQ(g[5].flags, uint32_t(PD_GRAPHIC_STROKED | PD_GRAPHIC_FILLED));
    EXPECT_FLOAT_EQ(g[5].x0, 210);
    EXPECT_FLOAT_EQ(g[5].y0, 10);
    EXPECT_FLOAT_EQ(g[5].x1, 230);
    EXPECT_FLOAT_EQ(g[5].y1, 30);
    EXPECT_EQ(g[6].kind, PD_GRAPHIC_CURVE);
    EXPECT_EQ(g[6].flags, uint32_t(PD_GRAPHIC_STROKED));
}

TEST(PageGraphics, TextRunsCarryTheirUnicodeTextAndExtent) {
    // Two spaces of Helvetica at 10 points from (100, 700), a run split by a wide TJ
    // gap, and two codes of a CID font mapped by /ToUnicode (one a range of an array).
    Owned doc = pageDocument("BT /F1 10 Tf 100 700 Td (Name:) Tj ET "
                             "BT /F1 10 Tf 100 600 Td [(A) -2000 (B)] TJ ET "
                             "BT /F2 12 Tf 1 0 0 1 50 500 Tm <00010002> Tj ET");
    const std::vector<Seen> g = read(doc.get());
    ASSERT_EQ(g.size(), 4u);
    EXPECT_EQ(g[0].kind, PD_GRAPHIC_TEXT);
    EXPECT_EQ(g[0].text, u"Name:");
    EXPECT_FLOAT_EQ(g[0].x0, 100);
    EXPECT_NEAR(g[0].y0, 698, 0.01); // the descent below the baseline
    EXPECT_NEAR(g[0].fontSize, 10, 0.01);
    EXPECT_EQ(g[1].text, u"A");
    EXPECT_EQ(g[2].text, u"B");
    EXPECT_GT(g[2].x0, g[1].x1 + 15); // 2 ems of 10 points apart
    EXPECT_EQ(g[3].text, u"氏名");
    EXPECT_FLOAT_EQ(g[3].x0, 50);
    EXPECT_NEAR(g[3].x1, 74, 0.01); // two glyphs of the default width 1000
}

TEST(PageGraphics, CapsAndStopsAreAnswersNotFailures) {
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "0 " + std::to_string(i) + " m 10 " + std::to_string(i) + " l S ";
    Owned doc = pageDocument(many + "/X1 Do", "/X1 Do");
    PDGraphicsSummary summary{};
    const std::vector<Seen> capped = read(doc.get(), 300, &summary);
    EXPECT_EQ(summary.operators, 300u);
    EXPECT_EQ(summary.skippedOperators, 1u);
    EXPECT_EQ(capped.size(), 100u); // m, l, S per line

    // A form XObject drawing itself is read once and counted as skipped.
    read(doc.get(), 0, &summary);
    EXPECT_EQ(summary.skippedOperators, 0u);
    EXPECT_EQ(summary.skippedXObjects, 1u);

    Owned pg = page(doc.get(), 0);
    int calls = 0;
    EXPECT_EQ(PDPageReadGraphics(
                  pg.get(), 0,
                  [](const PDGraphic*, void* n) -> int32_t { return ++*static_cast<int*>(n) == 3; },
                  &calls, nullptr),
              PD_OK);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(PDPageReadGraphics(pg.get(), 0, nullptr, nullptr, nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDPageReadGraphics(nullptr, 0, record, &calls, nullptr), PD_ERR_MISSING_OBJECT);
}

} // namespace
