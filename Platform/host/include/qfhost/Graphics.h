// "GraphicsService": what modules draw over a page (a selection's frame, a tool's marks)
// recorded into a display list in the page's own space, and the page as a person sees it
// in a view written as SVG. Single-threaded like the rest of the user interface.
#pragma once

#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qfhost {

class Host;
class View;

namespace detail {
struct GraphicsAccess;
}

class QFHOST_API GraphicsService {
public:
    static constexpr const char* kName = "GraphicsService";
    static ServiceObject* create();
    static GraphicsService& of(ServiceObject* so);

    GraphicsService();
    ~GraphicsService();
    GraphicsService(const GraphicsService&) = delete;
    GraphicsService& operator=(const GraphicsService&) = delete;

    // Drawing requests are recorded for page pageIndex from here until endPage; pixelSize
    // is how many page units a view pixel is (what GetPixelSize answers). Outside a page
    // every drawing request answers 2. Each page starts from the default state: pen
    // kDefaultPen, width 0, solid; brush none; font kDefaultFont of size
    // kDefaultFontSize; identity transform; nothing saved. A second beginPage ends the
    // page being drawn. pixelSize must be positive and finite (HostError(kBadArgument)).
    void beginPage(uint32_t pageIndex, float pixelSize);
    // Ends the page being drawn (the saved states are dropped); nothing outside a page.
    void endPage();
    // Whether a page is being drawn.
    bool drawing() const;

    static constexpr uint32_t kDefaultPen = 0xFF000000;
    static constexpr const char16_t* kDefaultFont = u"sans-serif";
    static constexpr float kDefaultFontSize = 10;

    // The table's answers, beside 0: 2 outside a page (checked first); 3 for a null
    // pointer, a non-finite number, a pen width below 0, a dash other than 0, 1, 2, a font
    // size not above 0, a polygon of 0 points or more than kMaxPolygonPoints, handles
    // other than 0 and 1; 1 for RestoreState with nothing saved; 4 when out of memory.
    static constexpr uint64_t kMaxPolygonPoints = 1u << 20;

    // One recorded item, in page space; the pen, brush and font in force when it was drawn
    // and the transform already applied to its points. Pen widths and font sizes are
    // scaled by the transform's scale, sqrt(|a d - b c|); a pen width of 0 is a hairline
    // (one view pixel).
    struct Item {
        enum class Kind { Rect, Polygon, Text, Frame } kind;
        // x, y pairs: a rect's or frame's four corners in the order (left, top), (right,
        // top), (right, bottom), (left, bottom); a polygon's points; a text's baseline start.
        std::vector<float> points;
        std::u16string text;        // Text
        uint32_t pen = 0, brush = 0;
        float penWidth = 0;
        uint32_t dash = 0;
        std::u16string fontFamily;
        float fontSize = 0;
        uint32_t handles = 0;       // Frame
    };
    // What was drawn for pageIndex since the last clear.
    std::vector<Item> items(uint32_t pageIndex) const;
    void clear();

private:
    friend struct detail::GraphicsAccess;
    struct State;
    State* state_;
};

// Page pageIndex of the view's document as the view shows it, as an SVG document in view
// pixels of the page (its top left at 0, 0; width and height those of View::pageRect):
// the page, every visible annotation's outline (widgets with their field's name), what
// the subscribers of the view's OnDrawPageView draw (a tool's marks), what the current
// selection draws (QFSelection Draw), both through the host's GraphicsService, whose
// record of them stays in items(), the keyboard focus and the frame a tool shows. Groups
// by id: "page", "annotations" (a <rect> per annotation, class "widget" or "annot",
// data-subtype its subtype; <text class="label"> for field names), "marks" (drawn items:
// <polygon> for rects and polygons, <text class="text">), "selection", "focus" (a
// <rect class="focus">), "frame". Numbers have at most two decimals. Throws HostError: kBadArgument for a page past the pages,
// kDocumentClosed, kPdfFailure when the page cannot be read.
// parts chooses the groups written: the page itself ("page"), the annotations
// ("annotations"), and what changes while a tool works ("marks", "selection", "focus",
// "frame"). Without the page the picture is transparent, to be laid over a rendering of
// the page; an editor fetches the annotations when the document changed and the rest
// after every event. Annotation rectangles carry data-index (the position in /Annots);
// widgets also data-field (the field's full name) and data-kind (its type: Tx, Btn, Ch,
// Sig).
enum SvgParts : uint32_t {
    kSvgPage = 1,
    kSvgAnnotations = 2,
    kSvgLive = 4,
    kSvgAll = kSvgPage | kSvgAnnotations | kSvgLive,
};
QFHOST_API std::string renderPageSvg(Host& host, View& view, uint32_t pageIndex,
                                     uint32_t parts = kSvgAll);

}  // namespace qfhost
