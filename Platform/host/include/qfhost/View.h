// A document view: the "QFDocumentView" service object over one host Document, and the
// tool that is active on it. Single-threaded like the rest of the user interface.
//
// Layout. Pages are drawn one under another, page i below page i-1 with kPageGap pixels
// between them and kMargin pixels around everything; every page starts at x = kMargin.
// A page shows its crop box, turned clockwise by (page /Rotate + view rotation) mod 360
// and scaled by the zoom (pixels per point); its pixel size is the rounded scaled size.
// Page point (x, y) with crop box (l, b, r, t), w = r - l, h = t - b, u = x - l,
// v = y - b is drawn at the page's top left plus zoom * d, where d is
//   0: (u, h - v)   90: (v, u)   180: (w - u, v)   270: (h - v, w - u)
// and view points go back by the inverse of the same map (before rounding).
//
// The view object may outlive the View (a tool keeps its reference): after the View is
// destroyed it answers every method with kDocumentClosed.
#pragma once

#include "qfhost/Document.h"
#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"

#include <boost/signals2/signal.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qfhost {

class Host;

namespace detail {
struct ViewState;
}

class QFHOST_API View {
public:
    static constexpr const char* kName = "QFDocumentView";
    static constexpr int32_t kMargin = 16;
    static constexpr int32_t kPageGap = 12;

    // A view of doc (which must outlive the view) at zoom 1 and rotation 0. host (must
    // outlive the view) gives the tasks repository and the properties context for tools.
    View(Host& host, Document& doc);
    ~View();  // deactivates the tool and invalidates the service object
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    // The "QFDocumentView" block (borrowed; the view keeps its reference).
    ServiceObject* object() const;
    Document& document() const;

    // ---- layout ----
    // zoom > 0 and finite, else HostError(kBadArgument).
    void setZoom(float zoom);
    float zoom() const;
    // 0, 90, 180 or 270, else HostError(kBadArgument).
    void setRotation(uint32_t degrees);
    uint32_t rotation() const;
    // (page /Rotate + view rotation) mod 360.
    uint32_t pageRotation(uint32_t pageIndex) const;

    struct PixelRect {
        int32_t left, top, right, bottom;
    };
    // Where page pageIndex is drawn; HostError(kBadArgument) past the pages.
    PixelRect pageRect(uint32_t pageIndex) const;
    // The page containing the view point (edges included), or -1.
    int64_t pageAt(int32_t x, int32_t y) const;
    // Conversions for page pageIndex (HostError(kBadArgument) past the pages).
    std::array<float, 2> viewToPage(uint32_t pageIndex, int32_t x, int32_t y) const;
    std::array<int32_t, 2> pageToView(uint32_t pageIndex, float x, float y) const;
    // The same mapping as pageToView without the rounding to whole pixels (for drawing).
    std::array<float, 2> pageToViewPrecise(uint32_t pageIndex, float x, float y) const;

    // ---- tools ----
    // Makes the tool registered under name (a tool name such as "TextFieldCreate") the
    // active tool of this view through the host's TasksRepository (Initialize(view,
    // context); context is what the tool works on: the selection, for the edit tool) and
    // connects to its properties-changed signal. The previous tool is terminated and
    // dropped first. Returns the repository's or the tool's result (0 on success).
    uint32_t activateTool(const std::string& name, ServiceObject* context = nullptr);
    // The active tool (null: none) and its registered name ("" for none).
    ObjectPtr activeTool() const;
    std::string activeToolName() const;
    // Terminates and drops the active tool.
    void deactivateTool();

    // Hands event to the active tool (HandleEvent). A press on a page first makes that page
    // the focus page. Returns the tool's result, 1 when no tool is active. *handled
    // (optional) receives the tool's answer. When the tool then reports IsFinished, it is
    // deactivated.
    uint32_t sendEvent(const QF::InputEvent& event, bool* handled = nullptr);

    // Reads the active tool's sheet again: clears the host's properties context and calls
    // the tool's GetToolProperties. Returns the tool's result (1 without a tool).
    uint32_t refreshToolProperties();
    // How often the active tool raised its properties-changed signal (reset by
    // activateTool); the view refreshes the sheet each time.
    uint32_t propertiesChangedCount() const;

    // ---- events ----
    // Raised by drawPage, after the page and its annotations were drawn: subscribers (the
    // active tool, through ConnectDrawPageView) draw their marks over page pageIndex
    // through the host's GraphicsService during the call.
    boost::signals2::signal<void(uint64_t pageIndex)> OnDrawPageView;
    // Raised after the focus page changed.
    boost::signals2::signal<void(uint64_t pageIndex)> OnFocusPageChanged;
    // Raises OnDrawPageView for pageIndex (HostError(kBadArgument) past the pages).
    void drawPage(uint32_t pageIndex);
    // The page the person works on: the page of the last press; -1 before any.
    int64_t focusPage() const;
    // Makes pageIndex the focus page, raising OnFocusPageChanged when it was another
    // (HostError(kBadArgument) past the pages).
    void setFocusPage(uint32_t pageIndex);

    // ---- what tools asked of the view ----
    uint32_t cursor() const;             // last SetCursor shape, 0 before any
    uint32_t redrawCount() const;        // Redraw calls
    bool dragCaptured() const;           // CaptureDrag state
    uint32_t annotFocusReleases() const; // ReleaseAnnotFocus calls
    struct Frame {
        uint32_t pageIndex;
        PDRect rect;
        uint32_t argb;
    };
    std::optional<Frame> frame() const;  // the frame shown by ShowFrame, if any
    struct ContextMenuRequest {
        std::string kind;  // the kind atom's name
        int32_t x, y;
        uint64_t pageIndex;
    };
    const std::vector<ContextMenuRequest>& contextMenus() const;
    // How far the view's own drag (StartViewDrag, ContinueViewDrag) has moved the pages,
    // in view pixels, summed over every drag: a front end scrolls by it.
    std::array<int32_t, 2> panned() const;
    // The annotation with the keyboard focus (SetAnnotFocus; borrowed), if any.
    struct AnnotFocus {
        uint32_t pageIndex;
        PDAnnot annot;
    };
    std::optional<AnnotFocus> annotFocus() const;

private:
    std::unique_ptr<detail::ViewState> state_;
    ObjectPtr object_;
};

}  // namespace qfhost
