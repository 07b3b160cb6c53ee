// The host services around the user interface: the properties context with its areas,
// the annotation properties factory, the string translation service and the user settings
// tree. Like the services of Services.h each class is the implementation object inside a
// service-object block; create() makes a block with one reference and of() finds the
// object behind one. Single-threaded (user-interface thread).
#pragma once

#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"
#include "qf/PropertyInterfaces.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qfhost {

class Host;

// "QFPropertiesContext": named areas ("ToolArea"), each an ordered list of "QFProperty"
// objects (a "QFPropertyArea" block per area, made on first use and kept).
class QFHOST_API PropertiesContext {
public:
    static constexpr const char* kName = "QFPropertiesContext";
    static constexpr const char* kAreaName = "QFPropertyArea";
    static ServiceObject* create();
    static PropertiesContext& of(ServiceObject* so);

    // The area block of name (borrowed), made on first use.
    ServiceObject* area(const std::u16string& name);
    // The properties of an area in the order they were added (empty for an unknown area).
    std::vector<ObjectPtr> properties(const std::u16string& area) const;
    // The property named name in area, or null.
    ObjectPtr find(const std::u16string& area, const std::u16string& name) const;
    // Empties every area (the areas stay).
    void clear();

private:
    std::map<std::u16string, ObjectPtr> areas_;
};

// Reading and writing "QFProperty" objects from the host side.
namespace property {
QFHOST_API std::u16string name(ServiceObject* property);
QFHOST_API uint32_t type(ServiceObject* property);
// Each returns the property's result code; the value arrives in *out on success.
QFHOST_API uint32_t isReadOnly(ServiceObject* property, bool* out);
QFHOST_API uint32_t isHidden(ServiceObject* property, bool* out);
QFHOST_API uint32_t getText(ServiceObject* property, std::u16string* out);
QFHOST_API uint32_t getPairs(ServiceObject* property,
                             std::vector<std::pair<std::u16string, std::u16string>>* out);
QFHOST_API uint32_t setText(ServiceObject* property, const std::u16string& value);
QFHOST_API uint32_t setPairs(ServiceObject* property,
                             const std::vector<std::pair<std::u16string, std::u16string>>& value);
}  // namespace property

// "QFAnnotPropertiesFactory": AddWidget runs the "AddWidget" command of the commands
// manager with QF::AddWidgetParams, so that the widget lands on the undo stack.
class QFHOST_API AnnotPropertiesFactory {
public:
    static constexpr const char* kName = "QFAnnotPropertiesFactory";
    static ServiceObject* create(Host& host);
    static AnnotPropertiesFactory& of(ServiceObject* so);

    explicit AnnotPropertiesFactory(Host& host) : host_(&host) {}
    // 3 for a null document or widget; otherwise the commands manager's result.
    uint32_t addWidget(ServiceObject* document, uint64_t pageIndex, PDAnnot widget);
    uint32_t addWidgetCount() const { return calls_; }
    // The rows of an annotation of subtype ("Widget") added to the area "AnnotArea" of
    // context: 3 for null arguments (or a widget that is not on that page of document),
    // 1 for a subtype without rows. A widget's rows are texts: "Rect" ("left bottom right
    // top", points), "Locked", "Hidden", "Printed" ("true"/"false"), "BackgroundColor",
    // "BorderColor" ("#RRGGBB" or "none"), "BorderWidth", "BorderStyle" (solid, dashed,
    // beveled, inset, underline), "FontName", "FontSize" (0: automatic), "FontColor".
    // Each change is undoable: Rect and Locked through the document's annotation
    // operations, the others through a host command that notifies the document (kind 0)
    // and redraws the widget. A malformed value answers 3 and changes nothing; while the
    // widget is Locked every row but "Locked" is read-only (and refuses values with 3).
    // rect is not used: the rows read the widget itself.
    uint32_t addAnnotProperties(const std::u16string& subtype, ServiceObject* document,
                                uint64_t pageIndex, PDAnnot annot, const PDRect& rect,
                                ServiceObject* context);

private:
    Host* host_;
    uint32_t calls_ = 0;
};

// "QFAnnotPropertiesValidate": checks of values that the property rows of forms take.
class QFHOST_API AnnotPropertiesValidate {
public:
    static constexpr const char* kName = "QFAnnotPropertiesValidate";
    static ServiceObject* create(Host& host);
    static AnnotPropertiesValidate& of(ServiceObject* so);

    explicit AnnotPropertiesValidate(Host& host) : host_(&host) {}
    // An option list (display text, export value) a choice field can take: nothing, or
    // the reason it cannot, in the user's language.
    std::optional<std::u16string> checkOptionList(
        const std::vector<std::pair<std::u16string, std::u16string>>& options) const;

private:
    Host* host_;
};

// "QFStringService": the catalog of the user's language. English is the identity and the
// default; Japanese translates every user-facing text and name word the forms module uses.
class QFHOST_API StringService {
public:
    static constexpr const char* kName = "QFStringService";
    static ServiceObject* create();
    static StringService& of(ServiceObject* so);

    // "en" or "ja"; false (and no change) for any other language. The language is also
    // the runtime's (KRSetUILanguage), where modules read it; a new service sets "en".
    bool setLanguage(const std::string& language);
    const std::string& language() const { return language_; }
    // The translation of text in the current language, or nothing when the catalog has
    // none (English has none: texts are English already).
    std::optional<std::u16string> translate(const std::u16string& text) const;
    // Every (English, Japanese) pair of the Japanese catalog.
    static const std::vector<std::pair<std::u16string, std::u16string>>& japaneseCatalog();

private:
    std::string language_ = "en";
};

// "QFUserSettings": the user settings tree. Values are integers or texts, each with a
// default; only values that differ from their defaults are written to the settings file
// (JSON: nested objects by group, e.g. {"Forms": {"CheckBox": {"Width": 16}}}).
//
// The tree, with defaults ("Editing/Undo levels", then every value under "Forms"):
//   "Editing/Undo levels"                  integer 1000 (1 to 100000): the commands the
//                                          undo stack keeps (CommandsManager)
//   "Widget creation frame color"          integer 0xFF0078D7 (ARGB)
//   <kind>/"Width", <kind>/"Height"        integers, points, per kind group:
//       TextField 150x22, CheckBox 14x14, RadioGroup 14x14, ComboBox 150x22,
//       ListBox 150x66, PushButton 72x24, PrintButton 72x24, EmailButton 72x24,
//       SaveButton 72x24, SubmitButton 72x24, DigitalSignatureField 150x44
//   <button kind>/"Background color"       integer 0xFFE6E6E6 (ARGB)
//   <button kind>/"Highlight"              integer 3 (push)
//   <button kind>/"Font color"             integer 0xFF000000 (ARGB)
//   <button kind>/"Font size"              integer 10
//     (button kinds: PushButton, PrintButton, EmailButton, SaveButton, SubmitButton)
//   EmailButton/"Recipient"                text ""
//   EmailButton/"Subject"                  text ""
//   SubmitButton/"URL"                     text "https://example.com/submit"
//   SubmitButton/"Format"                  text "PDF" (one of "FDF", "HTML", "XFDF", "PDF")
class QFHOST_API UserSettings {
public:
    static constexpr const char* kName = "QFUserSettings";
    static ServiceObject* create();
    static UserSettings& of(ServiceObject* so);

    using Value = std::variant<int64_t, std::u16string>;

    // The value at path ("Forms/CheckBox/Width"); nothing for a path the tree lacks.
    std::optional<Value> get(const std::u16string& path) const;
    // 0; 1 for an unknown path; 13 when value has the other type than the default.
    uint32_t set(const std::u16string& path, const Value& value);
    // Back to the defaults.
    void reset();

    // Reads a settings file; a missing file leaves the defaults. Throws HostError
    // (kBadArgument) naming the file and the problem for unreadable JSON, unknown paths or
    // values of the wrong type, and then changes nothing.
    void load(const std::string& path);
    // Writes the values that differ from their defaults (atomically: temporary file, then
    // rename; parent directories are made). Throws HostError(kHostFailure) on failure.
    void save(const std::string& path) const;
    // $XDG_CONFIG_HOME/qf-forms/settings.json, else $HOME/.config/qf-forms/settings.json
    // (on Windows %APPDATA%\qf-forms\settings.json).
    static std::string defaultPath();

private:
    std::map<std::u16string, Value> values_;  // overrides only
};

}  // namespace qfhost
