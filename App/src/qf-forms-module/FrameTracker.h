// The frame a drag draws over a page while a creation tool runs.
#pragma once

#include "DocumentView.h"

// ---- the drag frame -----------------------------------------------------------------------

// The state of one drag on one page: where it started, where the pointer is, and whether it
// is running (active) or completed (done). Points are in the space of the press's page.
// Subclasses draw the frame through the three hooks.
class FrameTrackerBase {
  public:
    explicit FrameTrackerBase(const QF::DocumentViewRef& view) : view_(view) {}
    virtual ~FrameTrackerBase() = default;
    FrameTrackerBase(const FrameTrackerBase&) = delete;
    FrameTrackerBase& operator=(const FrameTrackerBase&) = delete;

    // A left press at point on page pageIndex: start = current = point, active.
    void Begin(int64_t pageIndex, QF::PagePoint point);
    // Pointer moved during the drag. modifiers: QF::kModifierShift sets the first constrain
    // flag, else QF::kModifierControl the second, else both are cleared.
    void Track(QF::PagePoint point, uint32_t modifiers);
    // The release: point is the end of the frame; the drag is done and the view redrawn.
    void End(QF::PagePoint point);
    // Drops a running drag without completing it (the tool goes away mid-drag).
    void Cancel();

    bool Active() const { return active_; }
    bool Done() const { return done_; }
    int64_t Page() const { return page_; }
    QF::PagePoint Start() const { return start_; }
    QF::PagePoint Current() const { return current_; }
    bool FirstConstrain() const { return constrainFirst_; }
    bool SecondConstrain() const { return constrainSecond_; }
    // start and current as a rectangle with left <= right and bottom <= top (PDRect order).
    PDRect NormalizedFrame() const;

  protected:
    virtual void OnBegin() {}
    virtual void OnTrack() {}
    virtual void OnEnd() {}

    QF::DocumentViewRef view_;

  private:
    int64_t page_ = -1;
    QF::PagePoint start_;
    QF::PagePoint current_;
    bool active_ = false;
    bool done_ = false;
    bool constrainFirst_ = false;
    bool constrainSecond_ = false;
};

// The creation tools' tracker: shows the frame with the view's ShowFrame in the frame colour
// while the drag runs and keeps the pointer (CaptureDrag) until the release; knows the
// kind's default widget size for clicks.
class StrokeFillFrameTracker : public FrameTrackerBase {
  public:
    // defaultWidth, defaultHeight: points; frameColor: ARGB.
    StrokeFillFrameTracker(const QF::DocumentViewRef& view, float defaultWidth,
                           float defaultHeight, uint32_t frameColor);
    ~StrokeFillFrameTracker() override;

    float DefaultWidth() const { return defaultWidth_; }
    float DefaultHeight() const { return defaultHeight_; }
    uint32_t FrameColor() const { return frameColor_; }

  protected:
    void OnBegin() override;
    void OnTrack() override;
    void OnEnd() override;

  private:
    void Release();

    float defaultWidth_;
    float defaultHeight_;
    uint32_t frameColor_;
    bool shown_ = false;
};
