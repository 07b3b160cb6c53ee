#include "WidgetEditInputHandler.h"

#include "WidgetClipboard.h"
#include "WidgetEditSelection.h"

#include "qf/InputHandlerFactory"
#include "qf/Property.SO"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

#include <cmath>
#include <cstdlib>

using QF::PDHandlePtr;

namespace {

const _AutoReg_QFInputHandler::Registration<WidgetEditInputHandler> kRegistration("WidgetEdit");

const uint32_t kEditAtom = SP::ResolveAtom("Edit");
const uint32_t kCopyAtom = SP::ResolveAtom("Copy");
const uint32_t kCutAtom = SP::ResolveAtom("Cut");
const uint32_t kDeleteAtom = SP::ResolveAtom("Delete");
const uint32_t kDuplicateCopyAtom = SP::ResolveAtom("DuplicateCopy");
const uint32_t kSignatureMenuAtom = SP::ResolveAtom("Signature");
const uint32_t kWidgetMenuAtom = SP::ResolveAtom("Widget");
const uint32_t kValidateAtom = SP::ResolveAtom("QFAnnotPropertiesValidate");

// Drag kinds kept in the edit object's state word.
constexpr uint32_t kIdle = 0, kMoving = 1, kResizing = 2;
// Page-space edges a grip moves.
constexpr uint32_t kLeft = 1, kRight = 2, kBottom = 4, kTop = 8;
// A grip is this many view pixels either way around its point.
constexpr int32_t kGripRadius = 4;
// Cursor shapes: arrow, move, and resizing along the two diagonals, across and up.
constexpr uint32_t kCursorArrow = 1, kCursorMove = 7, kCursorDiagonalDown = 8,
                   kCursorDiagonalUp = 9, kCursorAcross = 10, kCursorUpDown = 11;
// How far an arrow key moves the widget, in page units.
constexpr float kNudge = 10;
// The pen of the frame that follows a drag.
constexpr uint32_t kDragFrameColor = 0xFF0078D7;
constexpr uint32_t kChangeRemoved = 1, kChangeField = 3;
constexpr uint32_t kRadioFlag = 0x8000;

[[noreturn]] void raise(uint32_t code, std::u16string_view message, const char* method) {
    const std::string function = std::string("WidgetEditInputHandler::") + method;
    ThrowServiceObjectException(code, message, function.c_str());
}

// The tool behind one of this module's "QFInputHandler" blocks of this class.
WidgetEditInputHandler& toolOf(ServiceObject* so) {
    return SOImpl::ImplOf<SOImpl::CppQFInputHandlerBase<WidgetEditInputHandler,
                                                        SODetails::ServiceObjectTraits>>(so);
}

PDRect withEdges(PDRect r, uint32_t edges, float dx, float dy) {
    if (edges & kLeft) r.left += dx;
    if (edges & kRight) r.right += dx;
    if (edges & kBottom) r.bottom += dy;
    if (edges & kTop) r.top += dy;
    return QF::Normalized(r);
}

// The matrix of the edit objects for rectangle r: (w, 0, 0, -h, left, bottom).
QF::Matrix matrixOf(const PDRect& r) {
    return QF::Matrix{r.right - r.left, 0, 0, -(r.top - r.bottom), r.left, r.bottom};
}

bool sameRect(const PDRect& a, const PDRect& b) {
    const PDRect x = QF::Normalized(a), y = QF::Normalized(b);
    auto near = [](float p, float q) { return std::fabs(p - q) < 0.001f; };
    return near(x.left, y.left) && near(x.right, y.right) && near(x.top, y.top) &&
           near(x.bottom, y.bottom);
}

} // namespace

WidgetEditInputHandler::~WidgetEditInputHandler() {
    if (annotConnection_ && SODetails::hasMethod(document_.get(), 10))
        SODetails::methods<QF::DocumentTable>(document_.get())
            ->DisconnectAnnotChanged(document_.get(), annotConnection_);
}

uint32_t WidgetEditInputHandler::Initialize(ServiceObject* view, ServiceObject* context) {
    if (!view || !context) raise(SOImpl::kBadArgument, u"Bad param", "Initialize");
    auto widget = WidgetEditSelection::SelectedOf(context);
    if (!widget) raise(SOImpl::kNotInitialized, u"Not initialized", "Initialize");
    QF::DocumentViewRef viewRef(view);
    auto document = viewRef.Document();
    if (!document) raise(SOImpl::kNotInitialized, u"Not initialized", "Initialize");

    view_ = std::move(viewRef);
    widget_ = std::move(widget);
    geometry_ = std::make_shared<impl::QFWidgetEditObject>(
        BasicServiceObjectPtr<>::share(widget_->Document()), widget_->PageIndex(),
        widget_->Annot());
    if (document.get() != document_.get()) {
        if (annotConnection_ && SODetails::hasMethod(document_.get(), 10))
            SODetails::methods<QF::DocumentTable>(document_.get())
                ->DisconnectAnnotChanged(document_.get(), annotConnection_);
        annotConnection_ = 0;
        document_ = std::move(document);
        if (SODetails::hasMethod(document_.get(), 9) &&
            SODetails::methods<QF::DocumentTable>(document_.get())
                    ->ConnectAnnotChanged(document_.get(), &OnAnnotChanged, this,
                                          &annotConnection_) != 0)
            annotConnection_ = 0;
    }
    finished_ = 0;
    widget_->SetState(kIdle);
    return 0;
}

uint32_t WidgetEditInputHandler::Terminate() {
    return SOImpl::kNegativeAnswer;
}

uint32_t WidgetEditInputHandler::GetToolName(uint32_t* out) {
    *out = kEditAtom;
    return 0;
}

uint32_t WidgetEditInputHandler::IsFinished(uint8_t* out) {
    *out = finished_;
    return 0;
}

// ---- events -------------------------------------------------------------------------------

uint32_t WidgetEditInputHandler::HandleEvent(const QF::InputEvent* event, uint8_t* outHandled) {
    *outHandled = 0;
    if (!widget_) raise(SOImpl::kNotInitialized, u"Not initialized", "HandleEvent");
    const QF::InputEvent& e = *event;
    bool handled = false;
    switch (e.type) {
    case QF::kEventCommand:
        handled = OnCommand(e.subcode);
        break;
    case QF::kEventButtonDown:
        handled = OnButtonDown(e);
        break;
    case QF::kEventButtonUp:
        handled = OnButtonUp(e);
        break;
    case QF::kEventMove:
        handled = OnMove(e);
        break;
    case 5:
        handled = true;
        break;
    case QF::kEventKeyDown:
        handled = OnKeyDown(e.subcode);
        break;
    case QF::kEventKey:
        handled = e.subcode == 46 && OnCommand(kDeleteAtom);
        break;
    default:
        break;
    }
    *outHandled = handled ? 1 : 0;
    return 0;
}

std::optional<QF::PagePoint> WidgetEditInputHandler::ToPage(int32_t x, int32_t y) const {
    return view_.ViewToPage(widget_->PageIndex(), x, y);
}

// Grips first (the corners and the middles of the edges, within kGripRadius pixels), then
// the body (the rectangle, edges included).
WidgetEditInputHandler::Hit WidgetEditInputHandler::HitTest(int32_t x, int32_t y) const {
    const PDRect r = QF::Normalized(widget_->GetRect());
    const float mx = (r.left + r.right) / 2, my = (r.bottom + r.top) / 2;
    const struct {
        float x, y;
        uint32_t edges;
    } grips[] = {
        {r.left, r.bottom, kLeft | kBottom}, {r.right, r.bottom, kRight | kBottom},
        {r.right, r.top, kRight | kTop},     {r.left, r.top, kLeft | kTop},
        {mx, r.bottom, kBottom},             {r.right, my, kRight},
        {mx, r.top, kTop},                   {r.left, my, kLeft},
    };
    for (const auto& g : grips) {
        const auto pixel = view_.PageToView(widget_->PageIndex(), QF::PagePoint{g.x, g.y});
        if (pixel && std::abs((*pixel)[0] - x) <= kGripRadius &&
            std::abs((*pixel)[1] - y) <= kGripRadius)
            return Hit{true, g.edges};
    }
    const auto p = ToPage(x, y);
    if (p && p->x >= r.left && p->x <= r.right && p->y >= r.bottom && p->y <= r.top)
        return Hit{true, 0};
    return Hit{};
}

bool WidgetEditInputHandler::OnCommand(uint32_t commandAtom) {
    if (commandAtom == kCopyAtom) {
        WidgetClipboard::Copy(widget_, WidgetClipboard::Target::System);
        return true;
    }
    if (commandAtom == kDuplicateCopyAtom) {
        WidgetClipboard::Copy(widget_, WidgetClipboard::Target::Private);
        return true;
    }
    if (commandAtom == kCutAtom || commandAtom == kDeleteAtom) {
        Remove(commandAtom == kCutAtom);
        return true;
    }
    return false;
}

void WidgetEditInputHandler::Remove(bool copyFirst) {
    if (widget_->IsLocked()) return;
    view_.ReleaseAnnotFocus();
    if (copyFirst) WidgetClipboard::Copy(widget_, WidgetClipboard::Target::System);
    widget_->Delete();
    finished_ = 1;
}

bool WidgetEditInputHandler::OnButtonDown(const QF::InputEvent& e) {
    const Hit hit = HitTest(e.x, e.y);
    if (e.subcode == QF::kButtonRight) return hit.any;
    if (e.subcode != QF::kButtonLeft) return false;
    if (!hit.any) {
        finished_ = 1;
        return false;
    }
    const auto p = ToPage(e.x, e.y);
    if (!p) return false;
    widget_->SetState(hit.edges ? kResizing : kMoving);
    edges_ = hit.edges;
    grabX_ = e.x;
    grabY_ = e.y;
    grab_ = *p;
    geometry_->CurrentMatrix();
    view_.CaptureDrag(true);
    return true;
}

bool WidgetEditInputHandler::OnButtonUp(const QF::InputEvent& e) {
    if (e.subcode == QF::kButtonRight) {
        if (!HitTest(e.x, e.y).any) return false;
        ShowContextMenu(e.x, e.y);
        return true;
    }
    if (e.subcode != QF::kButtonLeft || widget_->GetState() == kIdle) return false;
    if (const auto p = ToPage(e.x, e.y)) Track(*p, e.modifiers);
    widget_->SetState(kIdle);
    view_.ShowFrame(-1, PDRect{}, kDragFrameColor);
    view_.CaptureDrag(false);
    if (!widget_->IsLocked() && !sameRect(geometry_->EditBounds(), widget_->GetRect()))
        geometry_->Apply();
    const Hit hit = HitTest(e.x, e.y);
    if (hit.any) view_.SetCursor(hit.edges ? kCursorAcross : kCursorMove);
    return true;
}

bool WidgetEditInputHandler::OnMove(const QF::InputEvent& e) {
    const uint32_t state = widget_->GetState();
    if (state == kIdle) {
        const Hit hit = HitTest(e.x, e.y);
        if (!hit.any) {
            view_.SetCursor(kCursorArrow);
            return false;
        }
        uint32_t cursor = kCursorMove;
        const uint32_t horizontal = hit.edges & (kLeft | kRight);
        const uint32_t vertical = hit.edges & (kBottom | kTop);
        if (horizontal && vertical)
            cursor = ((hit.edges & kLeft) != 0) == ((hit.edges & kTop) != 0) ? kCursorDiagonalDown
                                                                             : kCursorDiagonalUp;
        else if (horizontal)
            cursor = kCursorAcross;
        else if (vertical)
            cursor = kCursorUpDown;
        view_.SetCursor(cursor);
        return true;
    }
    if (widget_->IsLocked()) return true;
    if (const auto p = ToPage(e.x, e.y)) Track(*p, e.modifiers);
    view_.ShowFrame(static_cast<int64_t>(widget_->PageIndex()), geometry_->EditBounds(),
                    kDragFrameColor);
    if (state == kMoving) view_.SetCursor(kCursorMove);
    return true;
}

// Moves: the grab point's offset, in whole page units unless the control key is down.
// Resizes: the grip's edges follow the pointer. Either way the widget stays on its page.
void WidgetEditInputHandler::Track(const QF::PagePoint& p, uint32_t modifiers) {
    float dx = p.x - grab_.x, dy = p.y - grab_.y;
    if ((modifiers & QF::kModifierControl) == 0) {
        dx = std::round(dx);
        dy = std::round(dy);
    }
    const PDRect start = QF::Normalized(widget_->GetRect());
    const PDRect target = widget_->GetState() == kResizing ? withEdges(start, edges_, dx, dy)
                                                           : withEdges(start, kLeft | kRight | kBottom | kTop, dx, dy);
    geometry_->SetMatrixOnPage(matrixOf(target));
}

// Arrow keys: 10 page units in the direction of the arrow as the page is shown.
bool WidgetEditInputHandler::OnKeyDown(uint32_t key) {
    int32_t vx = 0, vy = 0;
    switch (key) {
    case 37: vx = -1; break;
    case 38: vy = -1; break;
    case 39: vx = 1; break;
    case 40: vy = 1; break;
    default: return false;
    }
    if (widget_->IsLocked()) return true;
    const PDRect r = QF::Normalized(widget_->GetRect());
    const QF::PagePoint centre{(r.left + r.right) / 2, (r.bottom + r.top) / 2};
    const auto pixel = view_.PageToView(widget_->PageIndex(), centre);
    if (!pixel) return true;
    const auto from = ToPage((*pixel)[0], (*pixel)[1]);
    const auto to = ToPage((*pixel)[0] + 100 * vx, (*pixel)[1] + 100 * vy);
    if (!from || !to) return true;
    const float ux = to->x - from->x, uy = to->y - from->y;
    const float length = std::hypot(ux, uy);
    if (!(length > 0)) return true;
    const float dx = std::round(kNudge * ux / length), dy = std::round(kNudge * uy / length);
    geometry_->SetMatrixOnPage(matrixOf(withEdges(r, kLeft | kRight | kBottom | kTop, dx, dy)));
    if (!sameRect(geometry_->EditBounds(), r)) geometry_->Apply();
    return true;
}

void WidgetEditInputHandler::ShowContextMenu(int32_t x, int32_t y) {
    static constexpr const char* kFunction = "WidgetEditInputHandler::IsSignature";
    if (!widget_->Annot())
        ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kFunction);
    PDHandlePtr field;
    CheckPDResult(PDWidgetAnnotGetParent(widget_->Annot(), field.put()), kFunction);
    PDAtom type = 0;
    if (field) CheckPDResult(PDFieldGetType(field.get(), &type), kFunction);
    view_.ShowContextMenu(type == PD_ATOM_Sig ? kSignatureMenuAtom : kWidgetMenuAtom, x, y,
                          widget_->PageIndex());
}

void WidgetEditInputHandler::OnAnnotChanged(void* context, uint32_t kind, uint64_t, PDAnnot) {
    if (kind == kChangeRemoved) return;
    static_cast<WidgetEditInputHandler*>(context)->RaisePropertiesChanged();
}

void WidgetEditInputHandler::RaisePropertiesChanged() {
    propertiesChanged_.Raise(self_);
}

uint32_t WidgetEditInputHandler::ConnectPropertiesChanged(QF::PropertiesChangedProc proc,
                                                          void* context, uint64_t* outConnection) {
    return propertiesChanged_.Connect(proc, context, outConnection);
}

uint32_t WidgetEditInputHandler::DisconnectPropertiesChanged(uint64_t connection) {
    return propertiesChanged_.Disconnect(connection);
}

// ---- the property sheet -------------------------------------------------------------------

PDAtom WidgetEditInputHandler::FieldType(uint32_t* outFlags) {
    static constexpr const char* kFunction = "WidgetEditInputHandler::FieldType";
    PDHandlePtr field;
    const PDResult got = PDWidgetAnnotGetParent(widget_->Annot(), field.put());
    if (got != PD_OK) CheckPDResult(got, kFunction, PDGetErrMessage(got));
    if (!field) return 0;
    PDAtom type = 0;
    const PDResult typed = PDFieldGetType(field.get(), &type);
    if (typed != PD_OK) CheckPDResult(typed, kFunction, PDGetErrMessage(typed));
    if (outFlags) {
        const PDResult flagged = PDFieldGetFlags(field.get(), outFlags);
        if (flagged != PD_OK) CheckPDResult(flagged, kFunction, PDGetErrMessage(flagged));
    }
    return type;
}

std::u16string WidgetEditInputHandler::FieldName() {
    static constexpr const char* kFunction = "WidgetEditInputHandler::FieldName";
    PDHandlePtr field;
    const PDResult got = PDWidgetAnnotGetParent(widget_->Annot(), field.put());
    if (got != PD_OK) CheckPDResult(got, kFunction, PDGetErrMessage(got));
    if (!field) return {};
    uint32_t length = 0;
    const PDResult probed = PDFieldGetFullName(field.get(), nullptr, 0, &length);
    if (probed != PD_OK) CheckPDResult(probed, kFunction, PDGetErrMessage(probed));
    return QF::GetFieldFullName(field.get(), kFunction, PDGetErrMessage(probed));
}

void WidgetEditInputHandler::SetFieldName(const std::u16string& name) {
    SODetails::addRef(widget_->Document());
    PDHandleAcquire(widget_->Annot());
    QF::WidgetUtilities::RenameFormWidget(widget_->Document(), widget_->Annot(),
                                          widget_->PageIndex(), name);
}

bool WidgetEditInputHandler::IsLocked() const {
    return widget_->IsLocked();
}

bool WidgetEditInputHandler::IsRadio() {
    uint32_t flags = 0;
    return FieldType(&flags) == PD_ATOM_Btn && (flags & kRadioFlag) != 0;
}

bool WidgetEditInputHandler::IsChoice() {
    return FieldType(nullptr) == PD_ATOM_Ch;
}

std::u16string WidgetEditInputHandler::GetRadioChoice() {
    return QF::GetButtonChoice(widget_->Annot(), "WidgetEditInputHandler::GetRadioChoice");
}

void WidgetEditInputHandler::SetRadioChoice(const std::u16string& choice) {
    static constexpr const char* kFunction = "WidgetEditInputHandler::SetRadioChoice";
    CheckPDResult(PDButtonWidgetAnnotSetChoice(widget_->Annot(), choice.data(),
                                               static_cast<uint32_t>(choice.size())),
                  kFunction);
    QF::DocumentService::NotifyAnnotChanged(widget_->Document(), kChangeField,
                                            widget_->PageIndex(), widget_->Annot());
}

uint32_t WidgetEditInputHandler::GetToolProperties(ServiceObject** outContext) {
    *outContext = nullptr;
    if (!widget_) raise(SOImpl::kNotInitialized, u"Not initialized", "GetToolProperties");
    const QF::PropertyArea area = QF::OpenPropertyArea(u"ToolArea");
    if (!area.context || !area.area)
        raise(SOImpl::kNotInitialized, u"Not initialized", "GetToolProperties");

    // Every callback holds the tool weakly: once it is gone they read empty and do nothing.
    const QF::WeakServiceObject weak(self_);
    auto with = [weak](auto&& f, auto fallback) {
        return [weak, f, fallback](auto&&... args) {
            const auto tool = weak.Lock();
            if (!tool) return fallback;
            return f(toolOf(tool.get()), args...);
        };
    };
    using ListPtr = std::shared_ptr<PropStringPairListData>;

    QF::AddProperty(area, QFTextProperty::Create(
                              u"FieldName",
                              with([](WidgetEditInputHandler& t) { return t.FieldName(); },
                                   std::u16string()),
                              [weak](const std::u16string& name) {
                                  if (const auto tool = weak.Lock())
                                      toolOf(tool.get()).SetFieldName(name);
                              },
                              with([](WidgetEditInputHandler& t) { return t.IsLocked(); }, false),
                              QFTextProperty::MakeCheckFunc_False(),
                              QFTextProperty::MakeValidateFunc_Dummy())
                              .get());
    QF::AddProperty(area, QFTextProperty::Create(
                              u"RadioChoice",
                              with([](WidgetEditInputHandler& t) { return t.GetRadioChoice(); },
                                   std::u16string()),
                              [weak](const std::u16string& choice) {
                                  if (const auto tool = weak.Lock())
                                      toolOf(tool.get()).SetRadioChoice(choice);
                              },
                              QFTextProperty::MakeCheckFunc_False(),
                              with([](WidgetEditInputHandler& t) { return !t.IsRadio(); }, true),
                              QFTextProperty::MakeValidateFunc_Dummy())
                              .get());
    QF::AddProperty(
        area,
        QFStringPairListProperty::Create(
            u"ComboOptList",
            with([](WidgetEditInputHandler& t) {
                return QF::WidgetUtilities::GetComboOptionsList(t.widget_->Annot());
            }, ListPtr(std::make_shared<PropStringPairListData>())),
            [weak](const ListPtr& list) {
                const auto tool = weak.Lock();
                if (!tool) return;
                auto& t = toolOf(tool.get());
                SODetails::addRef(t.widget_->Document());
                PDHandleAcquire(t.widget_->Annot());
                QF::WidgetUtilities::SetComboOptionsList(t.widget_->Document(), t.widget_->Annot(),
                                                         t.widget_->PageIndex(), list);
            },
            QFStringPairListProperty::MakeCheckFunc_False(),
            with([](WidgetEditInputHandler& t) { return !t.IsChoice(); }, true),
            [](const ListPtr& list, uint32_t) {
                static constexpr const char* kFunction =
                    "WidgetEditInputHandler::GetToolProperties::<lambda_2>::operator ()";
                const auto service = SP::TryGetServiceObject(kValidateAtom);
                if (!SODetails::hasMethod(service.get(), 0))
                    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized",
                                                kFunction);
                const auto wire = BasicServiceObjectPtr<>::adopt(
                    QF::MakeStringPairList<SODetails::ServiceObjectTraits>(
                        list ? list->Pairs() : QF::StringPairs{}));
                std::u16string problem;
                const QF::TextSink sink{&problem, [](void* c, const char16_t* text, uint64_t n) {
                                            static_cast<std::u16string*>(c)->assign(text, n);
                                        }};
                const uint32_t code = SODetails::methods<QF::AnnotPropertiesValidateTable>(
                                          service.get())
                                          ->ValidateOptionList(service.get(), wire.get(), &sink);
                if (code != 0) ThrowServiceObjectException(code, problem, kFunction);
                return true;
            })
            .get());
    *outContext = BasicServiceObjectPtr<>(area.context).detach();
    return 0;
}
