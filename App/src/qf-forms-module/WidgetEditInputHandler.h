// The widget edit tool (registered as "WidgetEdit"; its tool name is "Edit"): active while
// one form widget is selected. It moves the widget with the mouse and the arrow keys, resizes
// it by its grips, deletes, cuts, copies and duplicates it, opens its context menu, and
// gives the host a property sheet of the field name, the radio choice and the option list.
// Changes of geometry and deletions go to the host as annotation operations (undoable
// there); the sheet's setters change the field directly. Everything runs on the host's
// user-interface thread.
#pragma once

#include "DocumentView.h"
#include "WidgetEditObject.h"

#include "qf/InputHandler"

#include <memory>

class WidgetEditInputHandler {
  public:
    WidgetEditInputHandler() = default;
    ~WidgetEditInputHandler();
    WidgetEditInputHandler(const WidgetEditInputHandler&) = delete;
    WidgetEditInputHandler& operator=(const WidgetEditInputHandler&) = delete;

    // The tool's own block (borrowed), set by its factory.
    void SetSelf(ServiceObject* self) { self_ = self; }

    // view: the document view; context: the host's selection of the widget (a
    // "QFSelection" of this module). 3 when either is missing, 2 when the selection holds
    // no widget or the view gives no document.
    uint32_t Initialize(ServiceObject* view, ServiceObject* context);
    // Nothing to do: the tool keeps its widget until it is released.
    uint32_t Terminate();
    uint32_t GetToolName(uint32_t* out);
    uint32_t IsFinished(uint8_t* out);
    uint32_t HandleEvent(const QF::InputEvent* event, uint8_t* outHandled);
    // Fills "ToolArea" with "FieldName", "RadioChoice" and "ComboOptList".
    uint32_t GetToolProperties(ServiceObject** outContext);
    uint32_t ConnectPropertiesChanged(QF::PropertiesChangedProc proc, void* context,
                                      uint64_t* outConnection);
    uint32_t DisconnectPropertiesChanged(uint64_t connection);

    // ---- for the property callbacks ----
    std::u16string FieldName();
    void SetFieldName(const std::u16string& name);
    bool IsLocked() const;
    bool IsRadio();
    bool IsChoice();
    std::u16string GetRadioChoice();
    void SetRadioChoice(const std::u16string& choice);

  private:
    // What a view point hits: nothing, a grip (the page-space edges it moves, kLeft ...),
    // or the widget's body.
    struct Hit {
        bool any = false;
        uint32_t edges = 0; // 0 for the body
    };
    Hit HitTest(int32_t x, int32_t y) const;
    std::optional<QF::PagePoint> ToPage(int32_t x, int32_t y) const;

    bool OnCommand(uint32_t commandAtom);
    bool OnButtonDown(const QF::InputEvent& e);
    bool OnButtonUp(const QF::InputEvent& e);
    bool OnMove(const QF::InputEvent& e);
    bool OnKeyDown(uint32_t key);
    void ShowContextMenu(int32_t x, int32_t y);
    // Takes the widget off its page (unless it is Locked) and ends the tool.
    void Remove(bool copyFirst);
    // The edit geometry moved to follow the pointer at page point p.
    void Track(const QF::PagePoint& p, uint32_t modifiers);
    void RaisePropertiesChanged();
    PDAtom FieldType(uint32_t* outFlags);
    static void OnAnnotChanged(void* context, uint32_t kind, uint64_t pageIndex, PDAnnot annot);

    ServiceObject* self_ = nullptr;
    QF::DocumentViewRef view_;
    std::shared_ptr<WidgetEditObject> widget_;
    std::shared_ptr<impl::QFWidgetEditObject> geometry_;
    BasicServiceObjectPtr<> document_;
    uint64_t annotConnection_ = 0;
    uint8_t finished_ = 0;
    // The current drag: the grab point (view pixels and page space) and, for a resize, the
    // edges it moves.
    int32_t grabX_ = 0, grabY_ = 0;
    QF::PagePoint grab_;
    uint32_t edges_ = 0;
    QF::PropertiesChangedSignal propertiesChanged_;
};
