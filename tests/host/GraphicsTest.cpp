// The host's "GraphicsService" as modules call it (state, transforms, the record per page)
// and a page written as SVG: annotations, what the selection draws and a tool's frame, in
// view pixels of a turned, zoomed page.
#include "TestObjects.h"

#include "qfhost/Host.h"

#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace hosttest;
using qfhost::GraphicsService;
using qfhost::Host;
using Kind = GraphicsService::Item::Kind;

ObjectPtr graphicsObject() {
    ObjectPtr so;
    ServiceProviderGetServiceObject(atom("GraphicsService"), so.put(), nullptr);
    return so;
}
QF::GraphicsServiceTable* ops(ServiceObject* so) {
    return SODetails::methods<QF::GraphicsServiceTable>(so);
}

class GraphicsServiceTest : public ::testing::Test {
protected:
    Host host;
    GraphicsService& graphics = host.graphics();
    ObjectPtr so = graphicsObject();
    ServiceObject* g = so.get();
    QF::GraphicsServiceTable* t = ops(g);
    const PDRect unit{0, 1, 1, 0};
};

TEST_F(GraphicsServiceTest, StatesStackTransformsApplyTheLastGivenFirstItemsStayPerPage) {
    graphics.beginPage(0, 1);
    const float shift[6] = {1, 0, 0, 1, 100, 50}, quarter[6] = {0, 1, -1, 0, 0, 0},
                twice[6] = {2, 0, 0, 2, 0, 0};
    t->SetPen(g, 0xFF0000FF, 1.5f, 1);
    t->SetBrush(g, 0x8000FF00);
    t->SaveState(g);
    t->Transform(g, shift);
    t->Transform(g, quarter);
    t->SaveState(g);  // two deep
    t->Transform(g, twice);
    t->SetPen(g, 0xFFFF0000, 5, 2);
    t->SetFont(g, u"mono", 20);
    const float points[4] = {1, 0, 0, 3};
    t->DrawPolygon(g, points, 2);
    ASSERT_EQ(t->RestoreState(g), 0u);
    t->DrawText(g, u"x", 1, 1, 0);
    ASSERT_EQ(t->RestoreState(g), 0u);
    t->DrawRect(g, &unit);
    EXPECT_EQ(t->RestoreState(g), 1u);

    auto items = graphics.items(0);
    ASSERT_EQ(items.size(), 3u);
    // (1, 0): doubled (2, 0), turned (0, 2), shifted (100, 52); widths and sizes scale.
    EXPECT_EQ(items[0].points, (std::vector<float>{100, 52, 94, 50}));
    EXPECT_EQ(std::tuple(items[0].penWidth, items[0].fontSize, items[0].fontFamily),
              std::tuple(10.0f, 40.0f, std::u16string(u"mono")));
    EXPECT_EQ(items[1].points, (std::vector<float>{100, 51}));
    EXPECT_EQ(std::tuple(items[1].pen, items[1].fontSize), std::tuple(0xFF0000FFu, 10.0f));
    EXPECT_EQ(items[2].points, (std::vector<float>{0, 1, 1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(std::tuple(items[2].pen, items[2].penWidth, items[2].dash, items[2].brush),
              std::tuple(0xFF0000FFu, 1.5f, 1u, 0x8000FF00u));

    // A new page starts from the defaults, with nothing saved.
    t->SaveState(g);
    graphics.beginPage(2, 1);
    EXPECT_EQ(t->RestoreState(g), 1u);
    t->DrawFrame(g, &unit, 1);
    graphics.endPage();
    EXPECT_EQ(t->DrawRect(g, &unit), 2u);  // outside a page again
    EXPECT_EQ(graphics.items(0).size(), 3u);
    EXPECT_TRUE(graphics.items(1).empty());
    items = graphics.items(2);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::tuple(items[0].kind, items[0].handles, items[0].pen, items[0].brush),
              std::tuple(Kind::Frame, 1u, GraphicsService::kDefaultPen, 0u));
    graphics.clear();
    EXPECT_TRUE(graphics.items(0).empty() && graphics.items(2).empty());
}

// ---- SVG --------------------------------------------------------------------------------

// The elements of svg that start with head ("<rect class=\"widget\"").
std::vector<std::string> elements(const std::string& svg, const std::string& head) {
    std::vector<std::string> out;
    for (size_t at = svg.find(head); at != std::string::npos; at = svg.find(head, at + 1))
        out.push_back(svg.substr(at, svg.find('>', at) + 1 - at));
    return out;
}

// The values of the named attributes of element, joined by commas.
std::string attrs(const std::string& element, std::initializer_list<const char*> names) {
    std::string out;
    for (const char* name : names) {
        const std::string key = std::string(" ") + name + "=\"";
        const size_t at = element.find(key), start = at + key.size();
        out += (out.empty() ? "" : ",") +
               (at == std::string::npos ? "-"
                                        : element.substr(start, element.find('"', start) - start));
    }
    return out;
}

// A fake selection on page `page` that draws, as a module's selection does, through the
// GraphicsService it gets from the provider; drawn[0] counts its draws, drawn[1] is the
// pixel size it was told.
struct FakeSelection {
    uint64_t page;
    float* drawn;
};

const QF::SelectionTable kFakeSelectionTable = [] {
    QF::SelectionTable t{};
    t.GetPageIndex = [](ServiceObject* self, uint64_t* out) -> uint32_t {
        *out = SODetails::implOf<QF::SelectionTable, FakeSelection>(self).page;
        return 0;
    };
    t.Draw = [](ServiceObject* self, uint64_t) -> uint32_t {
        float* drawn = SODetails::implOf<QF::SelectionTable, FakeSelection>(self).drawn;
        ObjectPtr so = graphicsObject();
        ServiceObject* g = so.get();
        const PDRect rect{10, 30, 20, 5};
        drawn[0] += 1;
        ops(g)->GetPixelSize(g, &drawn[1]);
        ops(g)->SetPen(g, 0xFF112233, 0.5f, 1);
        ops(g)->SetBrush(g, 0x80FF0000);
        ops(g)->DrawRect(g, &rect);
        ops(g)->DrawFrame(g, &rect, 1);
        ops(g)->DrawText(g, u"x\"<y", 4, 10, 5);
        return 0;
    };
    return t;
}();

ObjectPtr makeSelectFactory(float* drawn) {
    static const QF::AnnotEditSelectFactoryTable table = {
        [](ServiceObject* self, ServiceObject*, uint64_t page, PDAnnot,
           ServiceObject** out) -> uint32_t {
            float* drawn = SODetails::implOf<QF::AnnotEditSelectFactoryTable, float*>(self);
            *out = SODetails::makeServiceObject<QF::SelectionTable, FakeSelection,
                                                qfhost::HostTraits>(
                QF::kSelectionId, "QFSelection", 0x7E570030, kFakeSelectionTable,
                FakeSelection{page, drawn});
            return 0;
        },
        nullptr, nullptr};
    return ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::AnnotEditSelectFactoryTable, float*, qfhost::HostTraits>(
            QF::kAnnotEditSelectFactoryId, "QFAnnotEditSelectFactory", 0x7E570031, table, drawn));
}

// Two US-letter pages, the second with /Rotate 90, seen at zoom 2: page 1 point (x, y)
// lands on pixel (2 y, 2 x) of the page.
class PageSvgTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(PDDocGetPage(doc.pdDoc(), 1, &page), PD_OK);
        ASSERT_EQ(PDPageSetRotate(page, 90), PD_OK);
        view.setZoom(2);
    }
    void TearDown() override {
        for (PDAnnot a : annots) PDHandleRelease(a);
        PDHandleRelease(page);
    }
    // Puts annot (the test's reference) on page 1, or a text widget of a new field named name.
    PDAnnot add(PDAnnot annot, const char16_t* name = nullptr, const PDRect& rect = {}) {
        if (name) {
            PDField field = nullptr;
            const auto len = static_cast<uint32_t>(std::char_traits<char16_t>::length(name));
            EXPECT_EQ(PDCreateTextField(doc.pdDoc(), name, len, 0, &field), PD_OK);
            EXPECT_EQ(PDCreateTextWidgetAnnot(doc.pdDoc(), field, page, &rect, &annot), PD_OK);
            PDHandleRelease(field);
        }
        uint32_t n = 0;
        PDPageGetNumAnnots(page, &n);
        EXPECT_EQ(PDPageAddAnnot(page, n, annot), PD_OK);
        annots.push_back(annot);
        return annot;
    }

    Host host;
    qfhost::Document& doc = host.newDocument(2, 612, 792);
    qfhost::View& view = host.openView(doc);
    PDPage page = nullptr;
    std::vector<PDAnnot> annots;
};

TEST_F(PageSvgTest, AnnotationsOfATurnedPageLandOnTheirPixelsWithTheirNames) {
    add(nullptr, u"a<b&c \u00e9\u2713", PDRect{100.25f, 250, 300, 200.125f});
    ASSERT_EQ(PDAnnotSetFlags(add(nullptr, u"hidden", {0, 100, 100, 0}), PD_ANNOT_HIDDEN), PD_OK);
    PDAtom text = 0;
    PDAnnot note = nullptr;
    const PDRect noteRect{10, 40, 30, 20};
    ASSERT_EQ(PDAtomPutString("Text", &text), PD_OK);
    ASSERT_EQ(PDDocCreateAnnot(doc.pdDoc(), text, &noteRect, &note), PD_OK);
    add(note);

    const std::string svg = qfhost::renderPageSvg(host, view, 1);
    EXPECT_EQ(attrs(elements(svg, "<svg ").at(0), {"width", "height"}), "1584,1224");
    const auto widgets = elements(svg, "<rect class=\"widget\"");
    ASSERT_EQ(widgets.size(), 1u);  // the hidden one is left out
    // Not rounded to whole pixels.
    EXPECT_EQ(attrs(widgets[0], {"x", "y", "width", "height"}), "400.25,200.5,99.75,399.5");
    const auto notes = elements(svg, "<rect class=\"annot\"");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(attrs(notes[0], {"data-subtype", "x", "y"}), "Text,40,20");
    EXPECT_EQ(elements(svg, "<text class=\"label\"").size(), 1u);
    EXPECT_NE(svg.find(">a&lt;b&amp;c \xC3\xA9\xE2\x9C\x93</text>"), std::string::npos);

    EXPECT_TRUE(elements(qfhost::renderPageSvg(host, view, 0), "<rect class=\"").empty());
    try {
        qfhost::renderPageSvg(host, view, 2);
        ADD_FAILURE() << "page 2 rendered";
    } catch (const qfhost::HostError& e) {
        EXPECT_EQ(e.code(), qfhost::codes::kBadArgument);
    }
}

TEST_F(PageSvgTest, TheSelectionDrawsOnItsOwnPageAndTheToolFrameIsDashed) {
    float drawn[2] = {};
    ObjectPtr factory = makeSelectFactory(drawn);
    host.annotEdit().editSelectFactories().put(PD_ATOM_Widget, factory.get());
    const PDAnnot widget = add(nullptr, u"w", {0, 9, 9, 0});
    ASSERT_EQ(host.selection().select(atom("WidgetEdit"), 1, widget), 0u);
    const float frame[4] = {10, 80, 60, 20};
    ASSERT_EQ(SODetails::methods<QF::DocumentViewTable>(view.object())
                  ->ShowFrame(view.object(), 1, frame, 0xFF0078D7),
              0u);

    const std::string other = qfhost::renderPageSvg(host, view, 0);
    EXPECT_EQ(drawn[0], 0);
    EXPECT_TRUE(elements(other, "<polygon").empty());
    EXPECT_TRUE(elements(other, "<rect class=\"frame\"").empty());

    const std::string svg = qfhost::renderPageSvg(host, view, 1);
    EXPECT_EQ(drawn[0], 1);
    EXPECT_EQ(drawn[1], 0.5f);
    EXPECT_FALSE(host.graphics().drawing());
    EXPECT_EQ(host.graphics().items(1).size(), 3u);
    const auto rects = elements(svg, "<polygon class=\"rect\"");
    ASSERT_EQ(rects.size(), 1u);
    EXPECT_EQ(attrs(rects[0], {"points", "fill", "fill-opacity", "stroke", "stroke-width"}),
              "60,20 60,40 10,40 10,20,rgb(255,0,0),0.5,rgb(17,34,51),1");
    EXPECT_NE(attrs(rects[0], {"stroke-dasharray"}), "-");
    EXPECT_EQ(elements(svg, "<polygon class=\"frame\"").size(), 1u);
    EXPECT_EQ(elements(svg, "<rect class=\"grip\"").size(), 8u);
    const auto texts = elements(svg, "<text class=\"text\"");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(attrs(texts[0], {"x", "y", "font-size"}), "10,20,20");  // 10 points, zoom 2
    EXPECT_NE(svg.find(">x&quot;&lt;y</text>"), std::string::npos);

    const auto tool = elements(svg, "<rect class=\"frame\"");
    ASSERT_EQ(tool.size(), 1u);
    EXPECT_EQ(attrs(tool[0], {"x", "y", "width", "height", "stroke"}),
              "40,20,120,100,rgb(0,120,215)");
    EXPECT_NE(attrs(tool[0], {"stroke-dasharray"}), "-");
    // Annotations, then the selection, then the tool's frame.
    EXPECT_LT(svg.find("id=\"annotations\""), svg.find("id=\"selection\""));
    EXPECT_LT(svg.find("id=\"selection\""), svg.find("id=\"frame\""));
    host.selection().clear();
}

}  // namespace
