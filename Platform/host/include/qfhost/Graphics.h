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
    // every drawing request answers 2.
    void beginPage(uint32_t pageIndex, float pixelSize);
    void endPage();

    // One recorded item, in page space; the pen, brush and font in force when it was drawn
    // and the transform already applied to its points.
    struct Item {
        enum class Kind { Rect, Polygon, Text, Frame } kind;
        std::vector<float> points;  // x, y pairs (a rect: its four corners)
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
    struct State;
    State* state_;
};

// Page pageIndex of the view's document as the view shows it, as an SVG document in view
// pixels of the page (its top left at 0, 0): the page, every annotation's outline (widgets
// with their field's name), then what the current selection draws (QFSelection Draw
// through the GraphicsService) and the frame a tool shows. Throws HostError for a page past
// the pages.
QFHOST_API std::string renderPageSvg(Host& host, View& view, uint32_t pageIndex);

}  // namespace qfhost
