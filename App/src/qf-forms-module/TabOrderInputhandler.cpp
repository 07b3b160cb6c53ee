#include "TabOrderInputhandler.h"

#include "WidgetEditFactories.h"
#include "WidgetEditObject.h"

#include "qf/InputHandlerFactory"
#include "qf/Property.SO"
#include "qf/internal/ServiceObjectException.h"
#include "qf/internal/TextConversion.h"
#include "service-common/ServiceProvider"

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;

namespace {

const _AutoReg_QFInputHandler::Registration<TabOrderInputHandler> kRegistration("FormTabOrder");

const uint32_t kToolAtom = SP::ResolveAtom("FormTabOrder");
const uint32_t kTabOrderCommandAtom = SP::ResolveAtom("TabOrderAnnot");
const uint32_t kGraphicsAtom = SP::ResolveAtom("GraphicsService");

// Cursor shapes: a pointing hand over a widget, a grabbing hand while the view is dragged.
constexpr uint32_t kCursorOverWidget = 2, kCursorViewDrag = 3;
constexpr uint32_t kKeyTab = 9;

// Slots of QF::DocumentTable.
constexpr size_t kExecuteCommandSlot = 7;
constexpr size_t kConnectAnnotChangedSlot = 9, kDisconnectAnnotChangedSlot = 10;
constexpr size_t kConnectAnnotsChangedSlot = 11, kDisconnectAnnotsChangedSlot = 12;

[[noreturn]] void notInitialized(const char* function) {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
}

QF::DocumentTable& documentOps(ServiceObject* document) {
    return *SODetails::methods<QF::DocumentTable>(document);
}

bool isWidget(PDAnnot annot) {
    PDAtom subtype = 0;
    return PDAnnotGetSubtype(annot, &subtype) == PD_OK && subtype == PD_ATOM_Widget;
}

// The page's widgets in the order of /Annots, with their positions there.
std::vector<std::pair<uint32_t, PDHandlePtr>> widgetsOf(PDPage page, const char* function) {
    uint32_t count = 0;
    CheckPDResult(PDPageGetNumAnnots(page, &count), function, u"PDF layer error!");
    std::vector<std::pair<uint32_t, PDHandlePtr>> widgets;
    for (uint32_t i = 0; i < count; ++i) {
        PDHandlePtr annot;
        CheckPDResult(PDPageGetAnnot(page, i, annot.put()), function, u"PDF layer error!");
        if (isWidget(annot.get())) widgets.emplace_back(i, std::move(annot));
    }
    return widgets;
}

uint32_t nextCommandId() {
    static std::atomic<uint32_t> id{0};
    return ++id;
}

} // namespace

TabOrderInputHandler::TabOrderInputHandler() : graphics_(SP::TryGetServiceObject(kGraphicsAtom)) {}

TabOrderInputHandler::~TabOrderInputHandler() { Disconnect(); }

void TabOrderInputHandler::Disconnect() {
    view_.DisconnectDrawPageView(std::exchange(drawConnection_, 0));
    view_.DisconnectFocusPageChanged(std::exchange(focusPageConnection_, 0));
    ServiceObject* document = document_.get();
    if (annotConnection_ && SODetails::hasMethod(document, kDisconnectAnnotChangedSlot))
        documentOps(document).DisconnectAnnotChanged(document, annotConnection_);
    if (annotsConnection_ && SODetails::hasMethod(document, kDisconnectAnnotsChangedSlot))
        documentOps(document).DisconnectAnnotsChanged(document, annotsConnection_);
    annotConnection_ = annotsConnection_ = 0;
}

uint32_t TabOrderInputHandler::Initialize(ServiceObject* view, ServiceObject*) {
    static constexpr const char* kFunction = "TabOrderInputHandler::Initialize";
    if (!view) ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", kFunction);
    QF::DocumentViewRef viewRef(view);
    auto document = viewRef.Document();
    if (!document) notInitialized(kFunction);

    Disconnect();
    view_ = std::move(viewRef);
    document_ = std::move(document);
    drawConnection_ = view_.ConnectDrawPageView(&OnDrawPageView, this);
    focusPageConnection_ = view_.ConnectFocusPageChanged(&OnFocusPageChanged, this);
    ServiceObject* doc = document_.get();
    if (SODetails::hasMethod(doc, kConnectAnnotChangedSlot) &&
        documentOps(doc).ConnectAnnotChanged(doc, &OnAnnotChanged, this, &annotConnection_) != 0)
        annotConnection_ = 0;
    if (SODetails::hasMethod(doc, kConnectAnnotsChangedSlot) &&
        documentOps(doc).ConnectAnnotsChanged(doc, &OnAnnotsChanged, this, &annotsConnection_) !=
            0)
        annotsConnection_ = 0;

    clickFlag_ = viewDrag_ = widgetPress_ = false;
    hovered_.reset();
    nextPosition_ = 0;
    view_.Redraw();
    return 0;
}

uint32_t TabOrderInputHandler::Terminate() {
    Disconnect();
    view_.Redraw(); // the numbers go
    return 0;
}

uint32_t TabOrderInputHandler::GetToolName(uint32_t* out) {
    *out = kToolAtom;
    return 0;
}

uint32_t TabOrderInputHandler::IsFinished(uint8_t* out) {
    *out = 0;
    return 0;
}

uint32_t TabOrderInputHandler::GetToolProperties(ServiceObject** outContext) {
    *outContext = nullptr;
    const QF::PropertyArea area = QF::OpenPropertyArea(u"ToolArea");
    *outContext = BasicServiceObjectPtr<>(area.context).detach();
    return 0;
}

uint32_t TabOrderInputHandler::ConnectPropertiesChanged(QF::PropertiesChangedProc proc,
                                                        void* context, uint64_t* outConnection) {
    return propertiesChanged_.Connect(proc, context, outConnection);
}

uint32_t TabOrderInputHandler::DisconnectPropertiesChanged(uint64_t connection) {
    return propertiesChanged_.Disconnect(connection);
}

// ---- events -------------------------------------------------------------------------------

uint32_t TabOrderInputHandler::HandleEvent(const QF::InputEvent* event, uint8_t* outHandled) {
    const QF::InputEvent& e = *event;
    bool handled = false;
    switch (e.type) {
    case QF::kEventButtonDown:
        if (e.subcode != QF::kButtonLeft) break;
        if (hovered_) {
            widgetPress_ = true;
        } else {
            clickFlag_ = true;
            if (!viewDrag_) {
                view_.SetCursor(kCursorViewDrag);
                view_.StartViewDrag(e.x, e.y);
                viewDrag_ = true;
            }
        }
        handled = true;
        break;
    case QF::kEventButtonUp:
        if (e.subcode == QF::kButtonLeft) handled = MoveAnnot(e.x, e.y);
        break;
    case QF::kEventMove:
        handled = OnMove(e);
        break;
    case QF::kEventKeyDown:
        if (e.subcode == kKeyTab) {
            MoveFocus((e.modifiers & QF::kModifierShift) != 0);
            handled = true;
        }
        break;
    case QF::kEventKey:
        handled = e.subcode == kKeyTab;
        break;
    case QF::kEventCancel:
        handled = clickFlag_ || viewDrag_ || widgetPress_;
        clickFlag_ = viewDrag_ = widgetPress_ = false;
        break;
    default:
        break;
    }
    *outHandled = handled ? 1 : 0;
    return 0;
}

bool TabOrderInputHandler::OnMove(const QF::InputEvent& e) {
    if (widgetPress_) return true; // the press waits for its release
    clickFlag_ = false;
    if (viewDrag_) {
        view_.SetCursor(kCursorViewDrag);
        view_.ContinueViewDrag(e.x, e.y);
        return true;
    }
    auto hit = HitTest(e.x, e.y);
    if (!hit) {
        hovered_.reset();
        return false;
    }
    if (!hovered_ || !(*hovered_ == *hit)) {
        hovered_ = std::move(hit);
        view_.Redraw();
    }
    view_.SetCursor(kCursorOverWidget);
    return true;
}

std::optional<TabOrderInputHandler::WidgetRef> TabOrderInputHandler::HitTest(int32_t x,
                                                                             int32_t y) const {
    const int64_t page = view_.PageAt(x, y);
    if (page < 0 || !document_) return std::nullopt;
    const auto point = view_.ViewToPage(static_cast<uint64_t>(page), x, y);
    if (!point) return std::nullopt;
    const float at[2] = {point->x, point->y};
    PDHandlePtr widget = GetWidgetAtPos(document_.get(), static_cast<uint64_t>(page), at);
    if (!widget) return std::nullopt;
    return WidgetRef{static_cast<uint64_t>(page), std::move(widget)};
}

bool TabOrderInputHandler::MoveAnnot(int32_t x, int32_t y) {
    static constexpr const char* kFunction = "TabOrderInputHandler::MoveAnnot";
    if (!document_) notInitialized(kFunction);
    if (!widgetPress_) {
        // The end of a press on empty space.
        const bool pressed = clickFlag_ || viewDrag_;
        clickFlag_ = viewDrag_ = false;
        return pressed;
    }
    widgetPress_ = false;
    if (!hovered_) return true;

    SetFocus(hovered_);
    auto released = HitTest(x, y);
    if (!released || !(*released == *hovered_)) {
        // Released elsewhere: no command, and the next click starts a new sequence.
        hovered_ = std::move(released);
        nextPosition_ = 0;
        return true;
    }

    const uint64_t p = hovered_->page;
    if (p != sequencePage_) {
        nextPosition_ = 0;
        sequencePage_ = p;
    }
    const uint32_t widgets = GetWidgetsCount(p);
    if (nextPosition_ >= widgets) nextPosition_ = 0; // the page lost widgets meanwhile
    const uint32_t k = nextPosition_++;

    const PDHandlePtr page = PDPage(p, kFunction);
    uint32_t current = 0;
    CheckPDResult(PDPageGetAnnotIndex(page.get(), hovered_->annot.get(), &current), kFunction,
                  u"PDF layer error!");
    QF::TabOrderParams params{document_.get(), p, GetWidgetIndex(p, k), current};
    const QF::CommandArgs args{nextCommandId(), kTabOrderCommandAtom, &params};
    if (!SODetails::hasMethod(document_.get(), kExecuteCommandSlot)) notInitialized(kFunction);
    const uint32_t result = documentOps(document_.get()).ExecuteCommand(document_.get(), &args);

    if (nextPosition_ >= widgets) nextPosition_ = 0;
    view_.Redraw();
    if (result != 0) ThrowServiceObjectException(result, u"Unspecified Error!", kFunction);
    return true;
}

// ---- widgets of a page --------------------------------------------------------------------

PDHandlePtr TabOrderInputHandler::PDPage(uint64_t pageIndex, const char* function) const {
    if (!document_) notInitialized(function);
    PDHandlePtr page = QF::DocumentService::PDPage(document_.get(), pageIndex);
    if (!page) notInitialized(function);
    return page;
}

uint32_t TabOrderInputHandler::GetWidgetsCount(uint64_t pageIndex) const {
    static constexpr const char* kFunction = "TabOrderInputHandler::GetWidgetsCount";
    return static_cast<uint32_t>(widgetsOf(PDPage(pageIndex, kFunction).get(), kFunction).size());
}

uint32_t TabOrderInputHandler::GetWidgetIndex(uint64_t pageIndex, uint32_t k) const {
    static constexpr const char* kFunction = "TabOrderInputHandler::GetWidgetIndex";
    const auto widgets = widgetsOf(PDPage(pageIndex, kFunction).get(), kFunction);
    if (k >= widgets.size()) CheckPDResult(PD_ERR_RANGE, kFunction, u"PDF layer error!");
    return widgets[k].first;
}

// ---- keyboard focus -----------------------------------------------------------------------

uint32_t TabOrderInputHandler::FocusAnnot(PDAnnot annot) {
    if (!annot || !document_) {
        focused_.reset();
        return 0;
    }
    const PDHandlePtr doc = QF::DocumentService::PDDoc(document_.get());
    uint32_t pages = 0;
    if (!doc || PDDocGetNumPages(doc.get(), &pages) != PD_OK) return SOImpl::kNegativeAnswer;
    for (uint32_t p = 0; p < pages; ++p) {
        const PDHandlePtr page = QF::DocumentService::PDPage(document_.get(), p);
        uint32_t at = 0;
        if (page && PDPageGetAnnotIndex(page.get(), annot, &at) == PD_OK) {
            focused_ = WidgetRef{p, PDHandlePtr::share(annot)};
            return 0;
        }
    }
    return SOImpl::kNegativeAnswer;
}

void TabOrderInputHandler::SetFocus(std::optional<WidgetRef> widget) {
    focused_ = std::move(widget);
    if (focused_)
        view_.SetAnnotFocus(focused_->page, focused_->annot.get());
    else
        view_.SetAnnotFocus(0, nullptr);
}

void TabOrderInputHandler::MoveFocus(bool backward) {
    static constexpr const char* kFunction = "TabOrderInputHandler::MoveFocus";
    const PDHandlePtr doc = QF::DocumentService::PDDoc(document_.get());
    if (!doc) notInitialized(kFunction);
    uint32_t pages = 0;
    CheckPDResult(PDDocGetNumPages(doc.get(), &pages), kFunction, u"PDF layer error!");
    std::vector<WidgetRef> order;
    for (uint32_t p = 0; p < pages; ++p)
        for (auto& [position, annot] : widgetsOf(PDPage(p, kFunction).get(), kFunction))
            order.push_back(WidgetRef{p, std::move(annot)});
    if (order.empty()) {
        SetFocus(std::nullopt);
        return;
    }
    const auto at = focused_ ? std::find(order.begin(), order.end(), *focused_) : order.end();
    size_t next = 0;
    if (at == order.end())
        next = backward ? order.size() - 1 : 0;
    else {
        const size_t i = static_cast<size_t>(at - order.begin());
        next = backward ? (i + order.size() - 1) % order.size() : (i + 1) % order.size();
    }
    SetFocus(std::move(order[next]));
    view_.Redraw();
}

// ---- the numbers --------------------------------------------------------------------------

void TabOrderInputHandler::DrawNumbers(uint64_t pageIndex) const {
    static constexpr const char* kFunction = "TabOrderInputHandler::OnDrawPageView";
    ServiceObject* g = graphics_.get();
    if (!SODetails::hasMethod(g, 8)) return;
    auto& ops = *SODetails::methods<QF::GraphicsServiceTable>(g);
    static constexpr float kFlip[6] = {1, 0, 0, -1, 0, 0};
    uint32_t n = 0;
    for (const auto& [position, widget] : widgetsOf(PDPage(pageIndex, kFunction).get(), kFunction)) {
        ++n;
        PDRect r{};
        if (PDAnnotGetRect(widget.get(), &r) != PD_OK) continue;
        const float moveTo[6] = {1, 0, 0, 1, std::min(r.left, r.right), std::min(r.bottom, r.top)};
        const std::u16string text = SOImpl::Utf8ToUtf16(std::to_string(n));
        ops.SaveState(g);
        ops.Transform(g, moveTo);
        ops.Transform(g, kFlip);
        ops.SetFont(g, fontFamily_.c_str(), fontSize_);
        ops.SetBrush(g, brush_);
        ops.DrawText(g, text.data(), text.size(), 0, 0);
        ops.RestoreState(g);
    }
}

void TabOrderInputHandler::OnDrawPageView(void* context, ServiceObject*, uint64_t pageIndex) {
    // Nothing may unwind into the host's event: a page that cannot be read shows no numbers.
    try {
        static_cast<TabOrderInputHandler*>(context)->DrawNumbers(pageIndex);
    } catch (...) {
    }
}

void TabOrderInputHandler::OnFocusPageChanged(void* context, ServiceObject*, uint64_t) {
    static_cast<TabOrderInputHandler*>(context)->view_.Redraw();
}

void TabOrderInputHandler::OnAnnotChanged(void* context, uint32_t, uint64_t, PDAnnot) {
    static_cast<TabOrderInputHandler*>(context)->OnChanged();
}

void TabOrderInputHandler::OnAnnotsChanged(void* context, uint32_t, uint64_t, const PDAnnot*,
                                           uint64_t) {
    static_cast<TabOrderInputHandler*>(context)->OnChanged();
}

void TabOrderInputHandler::OnChanged() {
    // A widget taken off its page is neither hovered nor focused any more.
    auto gone = [this](const std::optional<WidgetRef>& widget) {
        if (!widget) return false;
        const PDHandlePtr page = QF::DocumentService::PDPage(document_.get(), widget->page);
        uint32_t at = 0;
        return !page || PDPageGetAnnotIndex(page.get(), widget->annot.get(), &at) != PD_OK;
    };
    if (gone(hovered_)) hovered_.reset();
    if (gone(focused_)) focused_.reset();
    view_.Redraw();
}
