// The tab-order tool ("FormTabOrder"): the person clicks a page's widgets one after
// another and each click gives the clicked widget the next place among the page's widgets,
// as one undoable "TabOrderAnnot" command. While the tool is active every widget shows its
// place (1, 2, ...) at its lower-left corner, drawn through the host's "GraphicsService"
// whenever the view draws a page. Tab and Shift+Tab move the keyboard focus through the
// widgets in that order. A press on empty space drags the view. Everything runs on the
// host's user-interface thread.
#pragma once

#include "DocumentView.h"

#include "qf/InputHandler"

#include <cstdint>
#include <optional>
#include <string>

class TabOrderInputHandler {
  public:
    // Takes the host's "GraphicsService" (when there is one) with the tool's font and brush.
    TabOrderInputHandler();
    ~TabOrderInputHandler();
    TabOrderInputHandler(const TabOrderInputHandler&) = delete;
    TabOrderInputHandler& operator=(const TabOrderInputHandler&) = delete;

    // view: the document view (context is not used). 3 for a null view, 2 when the view
    // gives no document.
    uint32_t Initialize(ServiceObject* view, ServiceObject* context);
    // Drops the view's and the document's events.
    uint32_t Terminate();
    uint32_t GetToolName(uint32_t* out);
    // Never finished: the tool stays until another one is chosen.
    uint32_t IsFinished(uint8_t* out);
    uint32_t HandleEvent(const QF::InputEvent* event, uint8_t* outHandled);
    // The host moved the focus to annot (null: away from every widget).
    uint32_t FocusAnnot(PDAnnot annot);
    // The tool has no sheet: the host's context, emptied.
    uint32_t GetToolProperties(ServiceObject** outContext);
    uint32_t ConnectPropertiesChanged(QF::PropertiesChangedProc proc, void* context,
                                      uint64_t* outConnection);
    uint32_t DisconnectPropertiesChanged(uint64_t connection);

    // How many widget annotations page pageIndex has, and the position in its /Annots of
    // the k-th of them (from 0). 2 "Not initialized" without a document.
    uint32_t GetWidgetsCount(uint64_t pageIndex) const;
    uint32_t GetWidgetIndex(uint64_t pageIndex, uint32_t k) const;

  private:
    // A widget and its page.
    struct WidgetRef {
        uint64_t page = 0;
        QF::PDHandlePtr annot;
        bool operator==(const WidgetRef& other) const {
            return page == other.page && annot.get() == other.annot.get();
        }
    };

    // The top-most widget under a view point, if any.
    std::optional<WidgetRef> HitTest(int32_t x, int32_t y) const;
    bool OnMove(const QF::InputEvent& e);
    // A left release: gives the pressed widget the next place when the release is over it.
    bool MoveAnnot(int32_t x, int32_t y);
    // The next (backward: previous) widget of the document after the focused one, page by
    // page in the order of /Annots, wrapping at either end.
    void MoveFocus(bool backward);
    void SetFocus(std::optional<WidgetRef> widget);
    QF::PDHandlePtr PDPage(uint64_t pageIndex, const char* function) const;
    void Disconnect();

    static void OnDrawPageView(void* context, ServiceObject* view, uint64_t pageIndex);
    static void OnFocusPageChanged(void* context, ServiceObject* view, uint64_t pageIndex);
    static void OnAnnotChanged(void* context, uint32_t kind, uint64_t pageIndex, PDAnnot annot);
    static void OnAnnotsChanged(void* context, uint32_t kind, uint64_t pageIndex,
                                const PDAnnot* annots, uint64_t count);
    // After a change of the document's annotations: forgets widgets no longer on their page
    // and redraws.
    void OnChanged();
    void DrawNumbers(uint64_t pageIndex) const;

    QF::DocumentViewRef view_;
    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t drawConnection_ = 0;
    uint64_t focusPageConnection_ = 0;
    uint64_t annotConnection_ = 0;
    uint64_t annotsConnection_ = 0;

    SODetails::BasicServiceObjectPtr<> graphics_;
    const std::u16string fontFamily_ = u"Arial";
    const float fontSize_ = 12.0f;
    const uint32_t brush_ = 0xFF000000;

    bool clickFlag_ = false;
    bool viewDrag_ = false;
    uint64_t sequencePage_ = 0;
    uint32_t nextPosition_ = 0;
    std::optional<WidgetRef> hovered_;
    bool widgetPress_ = false;
    std::optional<WidgetRef> focused_;
    QF::PropertiesChangedSignal propertiesChanged_;
};
