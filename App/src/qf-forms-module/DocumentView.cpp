#include "DocumentView.h"

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;

namespace {

// Slots of QF::DocumentViewTable.
constexpr size_t kGetDocumentSlot = 0;
constexpr size_t kGetPDDocSlot = 1;
constexpr size_t kGetPageIndexAtPointSlot = 2;
constexpr size_t kViewToPageSlot = 3;
constexpr size_t kPageToViewSlot = 4;
constexpr size_t kGetRotationSlot = 5;
constexpr size_t kGetZoomSlot = 6;
constexpr size_t kRedrawSlot = 8;
constexpr size_t kSetCursorSlot = 9;
constexpr size_t kShowFrameSlot = 10;
constexpr size_t kCaptureDragSlot = 11;
constexpr size_t kReleaseAnnotFocusSlot = 12;
constexpr size_t kShowContextMenuSlot = 13;
constexpr size_t kStartViewDragSlot = 14;
constexpr size_t kContinueViewDragSlot = 15;
constexpr size_t kSetAnnotFocusSlot = 16;
constexpr size_t kConnectDrawPageViewSlot = 18;
constexpr size_t kDisconnectDrawPageViewSlot = 19;
constexpr size_t kConnectFocusPageChangedSlot = 20;
constexpr size_t kDisconnectFocusPageChangedSlot = 21;

QF::DocumentViewTable& viewOps(ServiceObject* view) {
    return *SODetails::methods<QF::DocumentViewTable>(view);
}

} // namespace

// ---- QF::DocumentViewRef ------------------------------------------------------------------

namespace QF {

DocumentViewRef::DocumentViewRef(ServiceObject* view)
    : view_(BasicServiceObjectPtr<>::share(view)) {}

BasicServiceObjectPtr<> DocumentViewRef::Document() const {
    BasicServiceObjectPtr<> document;
    if (SODetails::hasMethod(view_.get(), kGetDocumentSlot) &&
        viewOps(view_.get()).GetDocument(view_.get(), document.put()) != 0)
        document.reset();
    return document;
}

PDHandlePtr DocumentViewRef::PDDoc() const {
    PDHandlePtr doc;
    if (SODetails::hasMethod(view_.get(), kGetPDDocSlot) &&
        viewOps(view_.get()).GetPDDoc(view_.get(), doc.put()) != 0)
        doc.reset();
    return doc;
}

int64_t DocumentViewRef::PageAt(int32_t x, int32_t y) const {
    int64_t page = -1;
    if (!SODetails::hasMethod(view_.get(), kGetPageIndexAtPointSlot) ||
        viewOps(view_.get()).GetPageIndexAtPoint(view_.get(), x, y, &page) != 0)
        return -1;
    return page < 0 ? -1 : page;
}

std::optional<PagePoint> DocumentViewRef::ViewToPage(uint64_t pageIndex, int32_t x,
                                                     int32_t y) const {
    float point[2] = {0, 0};
    if (!SODetails::hasMethod(view_.get(), kViewToPageSlot) ||
        viewOps(view_.get()).ViewToPage(view_.get(), pageIndex, x, y, point) != 0)
        return std::nullopt;
    return PagePoint{point[0], point[1]};
}

std::optional<std::array<int32_t, 2>> DocumentViewRef::PageToView(uint64_t pageIndex,
                                                                 PagePoint p) const {
    const float point[2] = {p.x, p.y};
    std::array<int32_t, 2> pixel{};
    if (!SODetails::hasMethod(view_.get(), kPageToViewSlot) ||
        viewOps(view_.get()).PageToView(view_.get(), pageIndex, point, pixel.data()) != 0)
        return std::nullopt;
    return pixel;
}

uint32_t DocumentViewRef::Rotation() const {
    uint32_t degrees = 0;
    if (!SODetails::hasMethod(view_.get(), kGetRotationSlot) ||
        viewOps(view_.get()).GetRotation(view_.get(), &degrees) != 0)
        return 0;
    return degrees;
}

float DocumentViewRef::Zoom() const {
    float zoom = 1;
    if (!SODetails::hasMethod(view_.get(), kGetZoomSlot) ||
        viewOps(view_.get()).GetZoom(view_.get(), &zoom) != 0 || !(zoom > 0))
        return 1;
    return zoom;
}

void DocumentViewRef::Redraw() const {
    if (SODetails::hasMethod(view_.get(), kRedrawSlot)) viewOps(view_.get()).Redraw(view_.get());
}

void DocumentViewRef::SetCursor(uint32_t shape) const {
    if (SODetails::hasMethod(view_.get(), kSetCursorSlot))
        viewOps(view_.get()).SetCursor(view_.get(), shape);
}

void DocumentViewRef::ShowFrame(int64_t pageIndex, const PDRect& rect, uint32_t argb) const {
    if (!SODetails::hasMethod(view_.get(), kShowFrameSlot)) return;
    const float corners[4] = {rect.left, rect.top, rect.right, rect.bottom};
    viewOps(view_.get()).ShowFrame(view_.get(), pageIndex, corners, argb);
}

void DocumentViewRef::CaptureDrag(bool capture) const {
    if (SODetails::hasMethod(view_.get(), kCaptureDragSlot))
        viewOps(view_.get()).CaptureDrag(view_.get(), capture ? 1 : 0);
}

void DocumentViewRef::ReleaseAnnotFocus() const {
    if (SODetails::hasMethod(view_.get(), kReleaseAnnotFocusSlot))
        viewOps(view_.get()).ReleaseAnnotFocus(view_.get());
}

void DocumentViewRef::ShowContextMenu(uint32_t kindAtom, int32_t x, int32_t y,
                                      uint64_t pageIndex) const {
    if (SODetails::hasMethod(view_.get(), kShowContextMenuSlot))
        viewOps(view_.get()).ShowContextMenu(view_.get(), kindAtom, x, y, pageIndex);
}

void DocumentViewRef::StartViewDrag(int32_t x, int32_t y) const {
    if (SODetails::hasMethod(view_.get(), kStartViewDragSlot))
        viewOps(view_.get()).StartViewDrag(view_.get(), x, y);
}

void DocumentViewRef::ContinueViewDrag(int32_t x, int32_t y) const {
    if (SODetails::hasMethod(view_.get(), kContinueViewDragSlot))
        viewOps(view_.get()).ContinueViewDrag(view_.get(), x, y);
}

void DocumentViewRef::SetAnnotFocus(uint64_t pageIndex, PDAnnot annot) const {
    if (SODetails::hasMethod(view_.get(), kSetAnnotFocusSlot))
        viewOps(view_.get()).SetAnnotFocus(view_.get(), pageIndex, annot);
}

uint64_t DocumentViewRef::ConnectDrawPageView(DrawPageViewProc proc, void* context) const {
    uint64_t connection = 0;
    if (!SODetails::hasMethod(view_.get(), kConnectDrawPageViewSlot) ||
        viewOps(view_.get()).ConnectDrawPageView(view_.get(), proc, context, &connection) != 0)
        return 0;
    return connection;
}

void DocumentViewRef::DisconnectDrawPageView(uint64_t connection) const {
    if (connection && SODetails::hasMethod(view_.get(), kDisconnectDrawPageViewSlot))
        viewOps(view_.get()).DisconnectDrawPageView(view_.get(), connection);
}

uint64_t DocumentViewRef::ConnectFocusPageChanged(FocusPageChangedProc proc,
                                                  void* context) const {
    uint64_t connection = 0;
    if (!SODetails::hasMethod(view_.get(), kConnectFocusPageChangedSlot) ||
        viewOps(view_.get()).ConnectFocusPageChanged(view_.get(), proc, context, &connection) !=
            0)
        return 0;
    return connection;
}

void DocumentViewRef::DisconnectFocusPageChanged(uint64_t connection) const {
    if (connection && SODetails::hasMethod(view_.get(), kDisconnectFocusPageChangedSlot))
        viewOps(view_.get()).DisconnectFocusPageChanged(view_.get(), connection);
}

} // namespace QF
