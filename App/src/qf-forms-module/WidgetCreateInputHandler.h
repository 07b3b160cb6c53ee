// The field creation tools. A tool of this family works on one document view: a left press
// on a page, a drag and a release give a rectangle in page space, on which the tool creates a
// widget of its kind -- in a new field named by its name generator, or in the existing field
// that bears the name the user typed -- styles it and hands it to the host's
// "QFAnnotPropertiesFactory", which puts it on the page through the undoable "AddWidget"
// command. A click (a drag under 5 view pixels either way) gives a widget of the kind's
// default size. Releasing the right button ends the tool.
//
// The eleven kinds (FieldKinds.cpp) differ only in their WidgetKind row; each is a class T
// derived from WidgetCreateInputHandlerBase<T> that declares `static const WidgetKind kKind`.
// Everything runs on the host's user-interface thread.
#pragma once

#include "DocumentView.h"
#include "FrameTracker.h"
#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/InputHandler"
#include "qf/internal/AnnotEditUtilities"
#include "qf/internal/Registration.h"
#include "qf/internal/SOImpl.h"
#include "service-common/ServiceProvider"

#include <boost/function.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

using SODetails::ServiceObject;

namespace QF {

// The host's "QFUserSettings" as the creation tools read it: every read has the module's own
// fallback, used when the host offers no settings, lacks the operation or the value.
namespace UserSettings {
// path: '/' separated, e.g. u"Forms/CheckBox/Width".
int64_t Integer(const std::u16string& path, int64_t fallback);
std::u16string Text(const std::u16string& path, const std::u16string& fallback);
} // namespace UserSettings

} // namespace QF

// ---- names of new fields ------------------------------------------------------------------

// Produces the name of the next field of a tool: the name the user typed, else the name
// generated last (until a field is made with it), else the base word followed by the next
// number that the acceptability test takes. The counter lives as long as the generator, so
// a number skipped because its name was taken is not tried again.
class FieldNameGenerator {
  public:
    using Acceptable = boost::function<bool(const std::u16string&)>;

    // base: the kind's word in the user's language; acceptable may be empty (every
    // candidate is taken).
    FieldNameGenerator(std::u16string base, Acceptable acceptable);

    // Throws what the acceptability test throws.
    std::u16string GetName();
    // An empty name clears the typed name.
    void SetExplicitName(const std::u16string& name);
    const std::optional<std::u16string>& ExplicitName() const { return explicitName_; }
    // A field was made under the current name: forget the typed and the cached name.
    void ClearNames();

  private:
    std::optional<std::u16string> explicitName_;
    std::optional<std::u16string> cachedName_;
    std::u16string base_;
    uint64_t counter_ = 0;
    Acceptable acceptable_;
};

// ---- the kinds ----------------------------------------------------------------------------

// How a kind's new widgets are styled (colours ARGB).
enum class WidgetStyling {
    Box,          // check box, radio button: white, grey border, invert highlight, blue mark
    TextOrChoice, // text, combo and list box: white, grey border, "MS Gothic", dark grey text
    Button,       // push and action buttons: orange border, the rest from the user settings
    Signature,    // only rotation and border style
};

enum class CaptionSource {
    None,
    Fixed,     // WidgetKind::caption
    FieldName, // the new field's partial name
};

using WidgetCreator = PDResult (*)(PDDoc doc, PDField field, PDPage page, const PDRect* rect,
                                   PDAnnot* outWidget);
// Makes the click action of an action button (one reference); throws ServiceObjectException
// naming function on a pdfcore failure.
using ActionMaker = QF::PDHandlePtr (*)(PDDoc doc, const char* function);

// One kind's row.
struct WidgetKind {
    const char* toolName;          // registered tool name, "CheckBoxCreate"
    const char16_t* nameWord;      // base of generated names (translated), u"CheckBox"
    const char16_t* settingsGroup; // group under "Forms" in the user settings
    float defaultWidth;            // points, when the settings give none
    float defaultHeight;
    PDAtom fieldType;              // PD_ATOM_Btn, _Ch, _Tx, _Sig
    uint32_t fieldFlags;           // sub-kind flags of a new field
    WidgetCreator creator;
    WidgetStyling styling;
    CaptionSource captionSource;
    const char16_t* caption;       // for CaptionSource::Fixed
    const char16_t* onState;       // on-state name of boxes; null for none
    ActionMaker action;            // null for none
};

// ---- the tool -----------------------------------------------------------------------------

// What all creation tools do, driven by the kind's row. WidgetCreateInputHandlerBase<T> puts
// the kind in; the operations below are the QFInputHandler ones (qf/InputHandler).
class WidgetCreateTool {
  public:
    // How property callbacks get from the tool's block back to the tool.
    using ToolOf = WidgetCreateTool& (*)(ServiceObject* self);

    // className: qualified name used in failure records ("WidgetCreateInputHandlerBase<
    // CheckBoxCreateInputHandler>"); kindName: the kind class's name.
    WidgetCreateTool(const WidgetKind& kind, std::string className, std::string kindName,
                     ToolOf toolOf);
    ~WidgetCreateTool();
    WidgetCreateTool(const WidgetCreateTool&) = delete;
    WidgetCreateTool& operator=(const WidgetCreateTool&) = delete;

    // The tool's own block (borrowed), set by its factory.
    void SetSelf(ServiceObject* self) { self_ = self; }

    // 2 "Not initialized" without a view. Reads the kind's default size and the frame
    // colour from the user settings and builds the name generator.
    uint32_t Initialize(ServiceObject* view, ServiceObject* context);
    // Drops the view, the tracker (and a drag in progress) and the name generator.
    uint32_t Terminate();
    uint32_t IsFinished(uint8_t* out);
    // The press / drag / release state machine; 2 before Initialize. A failure while the
    // widget is made is the result (14 for a name of an incompatible field).
    uint32_t HandleEvent(const QF::InputEvent* event, uint8_t* outHandled);
    // Fills the host's "ToolArea" with "FieldName", "RadioChoice" and "ComboOptList"; 2
    // without a view. *outContext: the properties context, null when the host has none.
    uint32_t GetToolProperties(ServiceObject** outContext);
    uint32_t ConnectPropertiesChanged(QF::PropertiesChangedProc proc, void* context,
                                      uint64_t* outConnection);
    uint32_t DisconnectPropertiesChanged(uint64_t connection);

    // The name the next field gets; empty without a name generator.
    std::u16string NextFieldName();
    // The "FieldName" property's setter: the typed name for the next widget. Throws 14 "This
    // name is already set for a different field type." (translated) when a field of another
    // kind bears it. An empty name goes back to generated names.
    void SetFieldName(const std::u16string& name);
    // The field that the next widget joins: the field of the next name when it exists and is
    // of type and flags' kind (else 14, "... Please type another name."), or a new one.
    QF::PDHandlePtr CreateFormField(PDAtom type, uint32_t flags);
    // The rectangle (page space, PDRect order) of the widget of the completed drag.
    PDRect WidgetRect() const;
    // Creates, styles and adds the kind's widget at rect on page pageIndex.
    void OnCreateWidget(uint64_t pageIndex, const PDRect& rect);

    const WidgetKind& Kind() const { return kind_; }

  private:
    [[noreturn]] void ThrowNotInitialized(const char* method) const;
    std::string FunctionName(const char* method) const;
    // View rotation + page rotation of page pageIndex, in degrees (0..540).
    int32_t RotationSum(PDDoc doc, uint64_t pageIndex) const;
    void RaisePropertiesChanged();

    const WidgetKind& kind_;
    const std::string className_;
    const std::string kindName_;
    const ToolOf toolOf_;
    ServiceObject* self_ = nullptr;

    QF::DocumentViewRef view_;
    std::unique_ptr<StrokeFillFrameTracker> tracker_;
    std::unique_ptr<FieldNameGenerator> nameGenerator_;
    uint32_t finished_ = 0;
    QF::PropertiesChangedSignal propertiesChanged_;
};

// The base of kind class T (which declares `static const WidgetKind kKind`).
template <typename T> class WidgetCreateInputHandlerBase : public WidgetCreateTool {
  public:
    WidgetCreateInputHandlerBase()
        : WidgetCreateTool(T::kKind,
                           "WidgetCreateInputHandlerBase<" + std::string(SOImpl::TypeName<T>()) +
                               ">",
                           std::string(SOImpl::TypeName<T>()), &ToolOfBlock) {}

    // The atom of the kind's tool name, resolved once per kind.
    uint32_t GetToolName(uint32_t* out) {
        static const uint32_t atom = SP::ResolveAtom(T::kKind.toolName);
        if (atom == 0 || atom == SOImpl::kUnresolvedAtom)
            ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized",
                                        "WidgetCreateInputHandlerBase::GetToolName");
        *out = atom;
        return 0;
    }

  private:
    static WidgetCreateTool& ToolOfBlock(ServiceObject* self) {
        return SOImpl::ImplOf<SOImpl::CppQFInputHandlerBase<T, SODetails::ServiceObjectTraits>>(
            self);
    }
};
