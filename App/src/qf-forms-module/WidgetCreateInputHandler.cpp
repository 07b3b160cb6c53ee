#include "WidgetCreateInputHandler.h"

#include "kr/KRRuntime.h"
#include "pdmodel-proxy/FormField"
#include "qf/Property.SO"
#include "qf/internal/ServiceObjectException.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;

namespace {

// Slots of QF::UserSettingsTable and QF::AnnotPropertiesFactoryTable.
constexpr size_t kGetIntegerSlot = 0;
constexpr size_t kGetStringSlot = 1;
constexpr size_t kAddWidgetSlot = 0;
// Slot of QF::DocumentTable.
constexpr size_t kNotifyAnnotChangedSlot = 2;
constexpr uint32_t kChangeInserted = 0;

// The cross hair shown over a page while a creation tool runs.
constexpr uint32_t kCreationCursor = 5;
// A drag shorter than this many view pixels either way is a click.
constexpr float kMinimumDragPixels = 5.0f;
// Degrees to radians, as a 32-bit float.
constexpr float kDegreesToRadians = 0.0174532924f;

constexpr uint32_t kWhite = 0xFFFFFFFF;
constexpr uint32_t kFieldBorderColor = 0xFFABADB3;
constexpr uint32_t kBoxMarkColor = 0xFF4183DD;
constexpr uint32_t kTextColor = 0xFF444444;
constexpr uint32_t kButtonBorderColor = 0xFFF1BC56;
constexpr int32_t kHighlightInvert = 1;

// The module's fallbacks for the user settings (the host's defaults).
constexpr int64_t kDefaultFrameColor = 0xFF0078D7;
constexpr int64_t kDefaultButtonBackground = 0xFFE6E6E6;
constexpr int64_t kDefaultButtonHighlight = 3; // push
constexpr int64_t kDefaultButtonFontColor = 0xFF000000;
constexpr int64_t kDefaultButtonFontSize = 10;

constexpr const char16_t* kNameClashOnCreate =
    u"This name is already set for a different field type. Please type another name.";
constexpr const char16_t* kNameClashOnSet = u"This name is already set for a different field type.";

std::u16string formsPath(const char16_t* group, const char16_t* key) {
    std::u16string path = u"Forms/";
    if (group) {
        path += group;
        path += u'/';
    }
    return path + key;
}

uint32_t argbSetting(const char16_t* group, const char16_t* key, int64_t fallback) {
    return static_cast<uint32_t>(QF::UserSettings::Integer(formsPath(group, key), fallback));
}

PDHandlePtr pageOf(PDDoc doc, uint64_t pageIndex, const char* function) {
    PDHandlePtr page;
    CheckPDResult(PDDocGetPage(doc, static_cast<uint32_t>(pageIndex), page.put()), function);
    if (!page) ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
    return page;
}

PDHandlePtr findField(PDDoc doc, const std::u16string& name, const char* function) {
    PDHandlePtr found;
    CheckPDResult(
        PDDocFindField(doc, name.data(), static_cast<uint32_t>(name.size()), found.put()),
        function);
    return found;
}

PDAtom fontAtom(const char* family, const char* function) {
    PDAtom atom = 0;
    CheckPDResult(PDAtomPutString(family, &atom), function);
    return atom;
}

// Whether the user interface (the host's language, through the runtime) is Japanese.
bool japaneseUser() {
    char tag[9] = {};
    size_t length = 0;
    return KRGetUILanguage(tag, sizeof tag, &length) == KR_OK &&
           std::string_view(tag, length) == "ja";
}

// A button's font: Helvetica, or for a Japanese user the Japanese family paired with it,
// "Meiryo UI" on the buttons with a purpose (those with an action) and "MS Gothic" on plain
// push buttons; both are TrueType families that pdfcore finds a face for.
PDFontInfo buttonFont(const WidgetKind& kind, const char* function) {
    if (!japaneseUser()) return PDFontInfo{fontAtom("Helvetica", function), 0, 0};
    return PDFontInfo{fontAtom(kind.action ? "Meiryo UI" : "MS Gothic", function), 1, 0};
}

// The partial name of field.
std::u16string fieldName(PDField field, const char* function) {
    uint32_t length = 0;
    CheckPDResult(PDFieldGetName(field, nullptr, 0, &length), function);
    std::u16string name(length + 1, u'\0');
    CheckPDResult(PDFieldGetName(field, name.data(), static_cast<uint32_t>(name.size()), &length),
                  function);
    name.resize(length);
    return name;
}

// The kind's fixed look, in the order: border style, background, border colour, highlight,
// font, font colour, font size.
void applyStyling(PDAnnot widget, const WidgetKind& kind, const char* function) {
    const PDBorderStyle border{0, 1.0f, 0, {}};
    CheckPDResult(PDWidgetAnnotSetBorderStyle(widget, &border), function);
    switch (kind.styling) {
    case WidgetStyling::Box:
        CheckPDResult(PDWidgetAnnotSetBgColor(widget, kWhite), function);
        CheckPDResult(PDWidgetAnnotSetBorderColor(widget, kFieldBorderColor), function);
        CheckPDResult(PDWidgetAnnotSetHighlight(widget, kHighlightInvert), function);
        CheckPDResult(PDWidgetAnnotSetFontColor(widget, kBoxMarkColor), function);
        CheckPDResult(PDWidgetAnnotSetFontSize(widget, 0.0f), function);
        break;
    case WidgetStyling::TextOrChoice: {
        CheckPDResult(PDWidgetAnnotSetBgColor(widget, kWhite), function);
        CheckPDResult(PDWidgetAnnotSetBorderColor(widget, kFieldBorderColor), function);
        // Not one of the standard families: a non-embedded TrueType font.
        const PDFontInfo font{fontAtom("MS Gothic", function), 1, 0};
        CheckPDResult(PDWidgetAnnotSetFontInfo(widget, &font), function);
        CheckPDResult(PDWidgetAnnotSetFontColor(widget, kTextColor), function);
        break;
    }
    case WidgetStyling::Button: {
        const char16_t* group = kind.settingsGroup;
        CheckPDResult(PDWidgetAnnotSetBgColor(widget, argbSetting(group, u"Background color",
                                                                  kDefaultButtonBackground)),
                      function);
        CheckPDResult(PDWidgetAnnotSetBorderColor(widget, kButtonBorderColor), function);
        const auto highlight =
            QF::UserSettings::Integer(formsPath(group, u"Highlight"), kDefaultButtonHighlight);
        CheckPDResult(PDWidgetAnnotSetHighlight(widget, static_cast<int32_t>(highlight)),
                      function);
        const PDFontInfo font = buttonFont(kind, function);
        CheckPDResult(PDWidgetAnnotSetFontInfo(widget, &font), function);
        CheckPDResult(PDWidgetAnnotSetFontColor(
                          widget, argbSetting(group, u"Font color", kDefaultButtonFontColor)),
                      function);
        const auto size =
            QF::UserSettings::Integer(formsPath(group, u"Font size"), kDefaultButtonFontSize);
        CheckPDResult(PDWidgetAnnotSetFontSize(widget, static_cast<float>(size)), function);
        break;
    }
    case WidgetStyling::Signature:
        break;
    }
}

// Puts widget on its page through the host's undoable "AddWidget"; without the host's
// properties factory the widget goes on the page directly, with no undo.
void addWidget(const QF::DocumentViewRef& view, PDDoc doc, uint64_t pageIndex, PDAnnot widget,
               const char* function) {
    static const uint32_t kAnnotPropertiesFactoryAtom = SP::ResolveAtom("QFAnnotPropertiesFactory");
    const BasicServiceObjectPtr<> document = view.Document();
    const BasicServiceObjectPtr<> factory = SP::TryGetServiceObject(kAnnotPropertiesFactoryAtom);
    if (document && SODetails::hasMethod(factory.get(), kAddWidgetSlot)) {
        auto& ops = *SODetails::methods<QF::AnnotPropertiesFactoryTable>(factory.get());
        const uint32_t code = ops.AddWidget(factory.get(), document.get(), pageIndex, widget);
        if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", function);
        return;
    }
    const PDHandlePtr page = pageOf(doc, pageIndex, function);
    uint32_t count = 0;
    CheckPDResult(PDPageGetNumAnnots(page.get(), &count), function);
    CheckPDResult(PDPageAddAnnot(page.get(), count, widget), function);
    if (SODetails::hasMethod(document.get(), kNotifyAnnotChangedSlot)) {
        auto& ops = *SODetails::methods<QF::DocumentTable>(document.get());
        ops.NotifyAnnotChanged(document.get(), kChangeInserted, pageIndex, widget);
    }
}

} // namespace

namespace QF {

// ---- QF::UserSettings ---------------------------------------------------------------------

namespace {

BasicServiceObjectPtr<> userSettings() {
    static const uint32_t kUserSettingsAtom = SP::ResolveAtom("QFUserSettings");
    return SP::TryGetServiceObject(kUserSettingsAtom);
}

} // namespace

int64_t UserSettings::Integer(const std::u16string& path, int64_t fallback) {
    const BasicServiceObjectPtr<> settings = userSettings();
    if (!SODetails::hasMethod(settings.get(), kGetIntegerSlot)) return fallback;
    int64_t value = 0;
    auto& ops = *SODetails::methods<UserSettingsTable>(settings.get());
    return ops.GetInteger(settings.get(), path.c_str(), &value) == 0 ? value : fallback;
}

std::u16string UserSettings::Text(const std::u16string& path, const std::u16string& fallback) {
    const BasicServiceObjectPtr<> settings = userSettings();
    if (!SODetails::hasMethod(settings.get(), kGetStringSlot)) return fallback;
    std::u16string value;
    const TextSink sink{&value, [](void* context, const char16_t* text, uint64_t length) {
                            static_cast<std::u16string*>(context)->assign(text, length);
                        }};
    auto& ops = *SODetails::methods<UserSettingsTable>(settings.get());
    return ops.GetString(settings.get(), path.c_str(), &sink) == 0 ? value : fallback;
}

} // namespace QF

// ---- FieldNameGenerator -------------------------------------------------------------------

FieldNameGenerator::FieldNameGenerator(std::u16string base, Acceptable acceptable)
    : base_(std::move(base)), acceptable_(std::move(acceptable)) {}

std::u16string FieldNameGenerator::GetName() {
    if (explicitName_) return *explicitName_;
    if (cachedName_) return *cachedName_;
    std::u16string candidate;
    do {
        ++counter_;
        const std::string digits = std::to_string(counter_);
        candidate = base_ + std::u16string(digits.begin(), digits.end());
    } while (acceptable_ && !acceptable_(candidate));
    cachedName_ = candidate;
    return candidate;
}

void FieldNameGenerator::SetExplicitName(const std::u16string& name) {
    if (name.empty())
        explicitName_.reset();
    else
        explicitName_ = name;
}

void FieldNameGenerator::ClearNames() {
    explicitName_.reset();
    cachedName_.reset();
}

// ---- WidgetCreateTool ---------------------------------------------------------------------

WidgetCreateTool::WidgetCreateTool(const WidgetKind& kind, std::string className,
                                   std::string kindName, ToolOf toolOf)
    : kind_(kind), className_(std::move(className)), kindName_(std::move(kindName)),
      toolOf_(toolOf) {}

WidgetCreateTool::~WidgetCreateTool() = default;

std::string WidgetCreateTool::FunctionName(const char* method) const {
    return className_ + "::" + method;
}

void WidgetCreateTool::ThrowNotInitialized(const char* method) const {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized",
                                FunctionName(method).c_str());
}

uint32_t WidgetCreateTool::Initialize(ServiceObject* view, ServiceObject* /*context*/) {
    if (!view) ThrowNotInitialized("Initialize");
    tracker_.reset();
    view_ = QF::DocumentViewRef(view);
    finished_ = 0;

    const auto width = QF::UserSettings::Integer(formsPath(kind_.settingsGroup, u"Width"),
                                                 static_cast<int64_t>(kind_.defaultWidth));
    const auto height = QF::UserSettings::Integer(formsPath(kind_.settingsGroup, u"Height"),
                                                  static_cast<int64_t>(kind_.defaultHeight));
    const uint32_t frameColor =
        argbSetting(nullptr, u"Widget creation frame color", kDefaultFrameColor);
    tracker_ = std::make_unique<StrokeFillFrameTracker>(view_, static_cast<float>(width),
                                                        static_cast<float>(height), frameColor);

    // The generator is owned by this tool, so its acceptability test may hold `this`.
    nameGenerator_ = std::make_unique<FieldNameGenerator>(
        QF::Translate(kind_.nameWord), [this](const std::u16string& candidate) {
            const PDHandlePtr doc = view_.PDDoc();
            return !doc || !findField(doc.get(), candidate, FunctionName("GetName").c_str());
        });
    return 0;
}

uint32_t WidgetCreateTool::Terminate() {
    tracker_.reset();
    nameGenerator_.reset();
    view_ = QF::DocumentViewRef();
    return 0;
}

uint32_t WidgetCreateTool::IsFinished(uint8_t* out) {
    *out = static_cast<uint8_t>(finished_);
    return 0;
}

uint32_t WidgetCreateTool::HandleEvent(const QF::InputEvent* event, uint8_t* outHandled) {
    *outHandled = 0;
    if (!view_ || !tracker_) ThrowNotInitialized("HandleEvent");
    const QF::InputEvent& e = *event;

    if (e.type == QF::kEventButtonDown && e.subcode == QF::kButtonLeft) {
        const int64_t page = view_.PageAt(e.x, e.y);
        if (page < 0) return 0;
        const auto point = view_.ViewToPage(static_cast<uint64_t>(page), e.x, e.y);
        if (!point) return 0;
        tracker_->Begin(page, *point);
        *outHandled = 1;
        return 0;
    }
    if (e.type == QF::kEventButtonUp && e.subcode == QF::kButtonLeft) {
        if (!tracker_->Active()) return 0;
        const auto pageIndex = static_cast<uint64_t>(tracker_->Page());
        const auto point = view_.ViewToPage(pageIndex, e.x, e.y);
        tracker_->End(point.value_or(tracker_->Start()));
        const PDRect rect = WidgetRect();
        *outHandled = 1;
        OnCreateWidget(pageIndex, rect);
        return 0;
    }
    if (e.type == QF::kEventButtonUp && e.subcode == QF::kButtonRight) {
        finished_ = 1;
        return 0;
    }
    if (e.type == QF::kEventMove) {
        if (tracker_->Active()) {
            const auto pageIndex = static_cast<uint64_t>(tracker_->Page());
            if (const auto point = view_.ViewToPage(pageIndex, e.x, e.y))
                tracker_->Track(*point, e.modifiers);
        } else if (view_.PageAt(e.x, e.y) < 0) {
            view_.Redraw();
            return 0;
        }
        view_.SetCursor(kCreationCursor);
        *outHandled = 1;
    }
    return 0;
}

PDRect WidgetCreateTool::WidgetRect() const {
    static constexpr const char* kMethod = "WidgetRect";
    const PDHandlePtr doc = view_.PDDoc();
    if (!doc || !tracker_) ThrowNotInitialized(kMethod);
    const std::string function = FunctionName(kMethod);
    const auto pageIndex = static_cast<uint64_t>(tracker_->Page());

    // The frame, clipped to the page's crop box.
    PDRect frame = tracker_->NormalizedFrame();
    PDRect box{};
    const PDHandlePtr page = pageOf(doc.get(), pageIndex, function.c_str());
    CheckPDResult(PDPageGetBox(page.get(), PD_BOX_CROP, &box), function.c_str());
    frame.left = std::max(frame.left, std::min(box.left, box.right));
    frame.right = std::min(frame.right, std::max(box.left, box.right));
    frame.bottom = std::max(frame.bottom, std::min(box.bottom, box.top));
    frame.top = std::min(frame.top, std::max(box.bottom, box.top));

    const float zoom = view_.Zoom();
    const auto width = static_cast<int32_t>((frame.right - frame.left) * zoom);
    const auto height = static_cast<int32_t>((frame.top - frame.bottom) * zoom);
    if (static_cast<float>(width) >= kMinimumDragPixels &&
        static_cast<float>(height) >= kMinimumDragPixels)
        return frame;

    // A click: the default box with its top left corner at the press point on screen, turned
    // with the page so that it keeps its on-screen orientation.
    const float w = tracker_->DefaultWidth();
    const float h = tracker_->DefaultHeight();
    const float angle =
        static_cast<float>(RotationSum(doc.get(), pageIndex)) * kDegreesToRadians;
    const float c = std::cos(angle);
    const float s = std::sin(angle);
    const QF::PagePoint origin = tracker_->Start();
    const QF::PagePoint offsets[4] = {{0, 0}, {w, 0}, {0, -h}, {w, -h}};
    PDRect rect{};
    for (size_t i = 0; i < 4; ++i) {
        const float x = offsets[i].x * c - offsets[i].y * s + origin.x;
        const float y = offsets[i].x * s + offsets[i].y * c + origin.y;
        if (i == 0) {
            rect = PDRect{x, y, x, y};
            continue;
        }
        rect.left = std::min(rect.left, x);
        rect.right = std::max(rect.right, x);
        rect.bottom = std::min(rect.bottom, y);
        rect.top = std::max(rect.top, y);
    }
    return rect;
}

int32_t WidgetCreateTool::RotationSum(PDDoc doc, uint64_t pageIndex) const {
    const std::string function = FunctionName("RotationSum");
    const PDHandlePtr page = pageOf(doc, pageIndex, function.c_str());
    int32_t pageRotation = 0;
    CheckPDResult(PDPageGetRotate(page.get(), &pageRotation), function.c_str());
    return static_cast<int32_t>(view_.Rotation()) + pageRotation;
}

std::u16string WidgetCreateTool::NextFieldName() {
    return nameGenerator_ ? nameGenerator_->GetName() : std::u16string();
}

void WidgetCreateTool::SetFieldName(const std::u16string& name) {
    static constexpr const char* kMethod = "SetFieldName";
    const PDHandlePtr doc = view_.PDDoc();
    if (!doc || !nameGenerator_) ThrowNotInitialized(kMethod);
    if (!name.empty()) {
        const std::string function = FunctionName(kMethod);
        const PDHandlePtr found = findField(doc.get(), name, function.c_str());
        if (found &&
            !PDFL::IsFieldTypeAndFlagsCompatible(found.get(), kind_.fieldType, kind_.fieldFlags))
            ThrowServiceObjectException(14, QF::Translate(kNameClashOnSet), function.c_str());
    }
    nameGenerator_->SetExplicitName(name);
    RaisePropertiesChanged();
}

PDHandlePtr WidgetCreateTool::CreateFormField(PDAtom type, uint32_t flags) {
    static constexpr const char* kMethod = "CreateFormField";
    const PDHandlePtr doc = view_.PDDoc();
    if (!doc || !nameGenerator_) ThrowNotInitialized(kMethod);
    const std::string function = FunctionName(kMethod);

    const std::u16string name = nameGenerator_->GetName();
    PDHandlePtr field = findField(doc.get(), name, function.c_str());
    if (!field) {
        CheckPDResult(PDDocCreateField(doc.get(), name.data(), static_cast<uint32_t>(name.size()),
                                       type, flags, field.put()),
                      function.c_str());
        nameGenerator_->ClearNames();
        RaisePropertiesChanged();
        return field;
    }
    if (!PDFL::IsFieldTypeAndFlagsCompatible(field.get(), type, flags))
        ThrowServiceObjectException(14, QF::Translate(kNameClashOnCreate), function.c_str());
    return field;
}

void WidgetCreateTool::OnCreateWidget(uint64_t pageIndex, const PDRect& rect) {
    const std::string functionName = kindName_ + "::OnCreateWidget";
    const char* function = functionName.c_str();
    const PDHandlePtr doc = view_.PDDoc();
    if (!doc)
        ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);

    const PDHandlePtr field = CreateFormField(kind_.fieldType, kind_.fieldFlags);
    const PDHandlePtr page = pageOf(doc.get(), pageIndex, function);
    PDHandlePtr widget;
    CheckPDResult(kind_.creator(doc.get(), field.get(), page.get(), &rect, widget.put()), function);
    PDAnnot w = widget.get();

    if (kind_.action) {
        const PDHandlePtr action = kind_.action(doc.get(), function);
        CheckPDResult(PDButtonWidgetAnnotSetAction(w, action.get()), function);
    }
    CheckPDResult(PDWidgetAnnotSetRotate(w, RotationSum(doc.get(), pageIndex) % 360), function);
    applyStyling(w, kind_, function);

    std::u16string caption;
    if (kind_.captionSource == CaptionSource::Fixed && kind_.caption) caption = kind_.caption;
    if (kind_.captionSource == CaptionSource::FieldName) caption = fieldName(field.get(), function);
    if (kind_.captionSource != CaptionSource::None)
        CheckPDResult(PDButtonWidgetAnnotSetCaption(w, caption.data(),
                                                    static_cast<uint32_t>(caption.size())),
                      function);
    if (kind_.onState) {
        const std::u16string onState = kind_.onState;
        CheckPDResult(PDButtonWidgetAnnotSetChoice(w, onState.data(),
                                                   static_cast<uint32_t>(onState.size())),
                      function);
        CheckPDResult(PDAnnotSetAppearanceState(w, PD_ATOM_Off), function);
    }

    addWidget(view_, doc.get(), pageIndex, w, function);
}

// ---- the property sheet and its signal ----------------------------------------------------

uint32_t WidgetCreateTool::GetToolProperties(ServiceObject** outContext) {
    *outContext = nullptr;
    if (!view_) ThrowNotInitialized("GetToolProperties");

    const QF::PropertyArea area = QF::OpenPropertyArea(u"ToolArea");
    if (area.area) {
        const QF::WeakServiceObject weak(self_);
        const ToolOf toolOf = toolOf_;

        QF::AddProperty(
            area, QFTextProperty::Create(
                      u"FieldName",
                      [weak, toolOf]() -> std::u16string {
                          const auto tool = weak.Lock();
                          return tool ? toolOf(tool.get()).NextFieldName() : std::u16string();
                      },
                      [weak, toolOf](const std::u16string& name) {
                          if (const auto tool = weak.Lock()) toolOf(tool.get()).SetFieldName(name);
                      },
                      QFTextProperty::MakeCheckFunc_False(), QFTextProperty::MakeCheckFunc_False(),
                      QFTextProperty::MakeValidateFunc_Dummy())
                      .get());

        // The edit tool's two other properties, hidden here: they have no value in a
        // creation tool.
        const auto hidden = [weak]() {
            weak.Lock();
            return true;
        };
        QF::AddProperty(area, QFTextProperty::Create(
                                  u"RadioChoice", [] { return std::u16string(); },
                                  [](const std::u16string&) {}, [] { return false; }, hidden,
                                  QFTextProperty::MakeValidateFunc_Dummy())
                                  .get());
        QF::AddProperty(area,
                        QFStringPairListProperty::Create(
                            u"ComboOptList",
                            [] { return std::make_shared<PropStringPairListData>(); },
                            [](const std::shared_ptr<PropStringPairListData>&) {},
                            [] { return false; }, hidden,
                            QFStringPairListProperty::MakeValidateFunc_Dummy())
                            .get());
    }
    *outContext = BasicServiceObjectPtr<>(area.context).detach();
    return 0;
}

uint32_t WidgetCreateTool::ConnectPropertiesChanged(QF::PropertiesChangedProc proc, void* context,
                                                    uint64_t* outConnection) {
    return propertiesChanged_.Connect(proc, context, outConnection);
}

uint32_t WidgetCreateTool::DisconnectPropertiesChanged(uint64_t connection) {
    return propertiesChanged_.Disconnect(connection);
}

void WidgetCreateTool::RaisePropertiesChanged() {
    propertiesChanged_.Raise(self_);
}
