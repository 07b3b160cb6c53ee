// What the module's input handlers (the creation tools, the edit tool and the tab-order
// tool) share of the document view they work in: the view's document, page lookup and the
// conversions between view pixels and page points, the cursor, the drag frame and drag
// capture, focus, the context menu and the view's events. Everything runs on the host's
// user-interface thread.
#pragma once

#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/internal/AnnotEditUtilities"
#include "qf/internal/SOImpl.h"

#include <array>
#include <cstdint>
#include <optional>

using SODetails::ServiceObject;

namespace QF {

struct PagePoint {
    float x = 0;
    float y = 0;
};

// A "QFDocumentView" held by one reference. Every operation checks that the view offers it
// (SODetails::hasMethod) and falls back as its comment says when it does not or fails.
class DocumentViewRef {
  public:
    DocumentViewRef() = default;
    // Adds a reference of its own to view (may be null).
    explicit DocumentViewRef(ServiceObject* view);

    ServiceObject* get() const { return view_.get(); }
    explicit operator bool() const { return static_cast<bool>(view_); }

    // The viewed "QFDocument" (one reference); null when the view gives none.
    SODetails::BasicServiceObjectPtr<> Document() const;
    // The viewed pdfcore document; null when the view gives none.
    PDHandlePtr PDDoc() const;
    // The page under a view point (pixels); -1 beside the pages or when the view cannot say.
    int64_t PageAt(int32_t x, int32_t y) const;
    // A view point in the space of page pageIndex; nothing when the view cannot convert.
    std::optional<PagePoint> ViewToPage(uint64_t pageIndex, int32_t x, int32_t y) const;
    // A page point in view pixels; nothing when the view cannot convert.
    std::optional<std::array<int32_t, 2>> PageToView(uint64_t pageIndex, PagePoint p) const;
    // The view's own rotation in degrees clockwise; 0 when unknown.
    uint32_t Rotation() const;
    // Pixels per point; 1 when unknown.
    float Zoom() const;
    // Requests that are skipped when the view lacks them.
    void Redraw() const;
    void SetCursor(uint32_t shape) const;
    // rect in PDRect order, page space; pageIndex -1 removes the frame.
    void ShowFrame(int64_t pageIndex, const PDRect& rect, uint32_t argb) const;
    void CaptureDrag(bool capture) const;
    void ReleaseAnnotFocus() const;
    void ShowContextMenu(uint32_t kindAtom, int32_t x, int32_t y, uint64_t pageIndex) const;
    void StartViewDrag(int32_t x, int32_t y) const;
    void ContinueViewDrag(int32_t x, int32_t y) const;
    // annot null: no annotation has the focus.
    void SetAnnotFocus(uint64_t pageIndex, PDAnnot annot) const;

    // Subscriptions to the view's events (0 when the view offers none); Disconnect of 0
    // does nothing.
    uint64_t ConnectDrawPageView(DrawPageViewProc proc, void* context) const;
    void DisconnectDrawPageView(uint64_t connection) const;
    uint64_t ConnectFocusPageChanged(FocusPageChangedProc proc, void* context) const;
    void DisconnectFocusPageChanged(uint64_t connection) const;

  private:
    SODetails::BasicServiceObjectPtr<> view_;
};

} // namespace QF
