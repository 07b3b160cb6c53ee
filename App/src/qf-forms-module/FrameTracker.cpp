#include "FrameTracker.h"

#include <algorithm>

// ---- FrameTrackerBase ---------------------------------------------------------------------

void FrameTrackerBase::Begin(int64_t pageIndex, QF::PagePoint point) {
    page_ = pageIndex;
    start_ = current_ = point;
    active_ = true;
    done_ = false;
    constrainFirst_ = constrainSecond_ = false;
    OnBegin();
}

void FrameTrackerBase::Track(QF::PagePoint point, uint32_t modifiers) {
    current_ = point;
    constrainFirst_ = (modifiers & QF::kModifierShift) != 0;
    constrainSecond_ = !constrainFirst_ && (modifiers & QF::kModifierControl) != 0;
    OnTrack();
}

void FrameTrackerBase::End(QF::PagePoint point) {
    current_ = point;
    active_ = false;
    done_ = true;
    OnEnd();
    view_.Redraw();
}

void FrameTrackerBase::Cancel() {
    if (!active_) return;
    active_ = false;
    OnEnd();
}

PDRect FrameTrackerBase::NormalizedFrame() const {
    return PDRect{std::min(start_.x, current_.x), std::max(start_.y, current_.y),
                  std::max(start_.x, current_.x), std::min(start_.y, current_.y)};
}

// ---- StrokeFillFrameTracker ---------------------------------------------------------------

StrokeFillFrameTracker::StrokeFillFrameTracker(const QF::DocumentViewRef& view,
                                               float defaultWidth, float defaultHeight,
                                               uint32_t frameColor)
    : FrameTrackerBase(view), defaultWidth_(defaultWidth), defaultHeight_(defaultHeight),
      frameColor_(frameColor) {}

StrokeFillFrameTracker::~StrokeFillFrameTracker() {
    Release();
}

void StrokeFillFrameTracker::OnBegin() {
    view_.CaptureDrag(true);
    shown_ = true;
    view_.ShowFrame(Page(), NormalizedFrame(), frameColor_);
}

void StrokeFillFrameTracker::OnTrack() {
    view_.ShowFrame(Page(), NormalizedFrame(), frameColor_);
}

void StrokeFillFrameTracker::OnEnd() {
    Release();
}

void StrokeFillFrameTracker::Release() {
    if (!shown_) return;
    shown_ = false;
    view_.ShowFrame(-1, PDRect{}, frameColor_);
    view_.CaptureDrag(false);
}
