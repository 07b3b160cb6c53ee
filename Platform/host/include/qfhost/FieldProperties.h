// The properties that make form fields behave and look as they do, for the widgets the
// person selected: field flags, tooltip, values, text layout, button captions and glyphs,
// colours, border, font, rotation and visibility. The host's panel shows them as rows,
// each with the value every selected widget shares; a change is one undoable command on
// the host's commands manager, whatever number of widgets and fields it touches.
// Single-threaded (user-interface thread), like the rest of the host's user interface.
#pragma once

#include "qfhost/Selection.h"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qfhost {

class Host;

class QFHOST_API FieldProperties {
public:
    // A row's value: a flag, a number (points, degrees or characters, as the row's unit
    // says), or a text (texts, choice ids, colours "#rrggbb" or "none").
    using Value = std::variant<bool, double, std::u16string>;
    enum class Type { Bool, Choice, Colour, Number, Text };

    struct Row {
        std::string id;                    // "required", "maxLength", "borderColor", ...
        std::string group;                 // "general", "text", "choice", "button",
                                           // "appearance", "value"
        Type type = Type::Bool;
        std::optional<Value> value;        // nothing when the widgets differ
        std::vector<std::u16string> choices;  // Choice rows: the ids (or, for values, the
                                              // values) to choose from
        std::string unit;                  // Number rows: "pt", "\xC2\xB0" (degrees) or ""
        double min = 0, max = 0;           // Number rows
        bool readOnly = false;             // a locked widget, or a closed document
    };

    struct Sheet {
        size_t count = 0;  // widgets
        // "text", "check", "radio", "combo", "list", "button", "signature", or "mixed"
        // for widgets of several kinds; "" without widgets.
        std::string kind;
        std::vector<Row> rows;  // only rows that apply to every widget
    };

    explicit FieldProperties(Host& host) : host_(&host) {}

    // The rows of widgets (annotations of the current document, as the selection lists
    // them). Widgets that are no widgets of a field are left out.
    Sheet sheet(const std::vector<AnnotSelection::Selected>& widgets) const;

    // Sets property id to value on every widget (a property of the field once per field)
    // as one command ("Widget_SetProperty"), undone and redone as one step: its undo puts
    // the fields and their widgets back as they were (PDFieldRestoreState). 0 when done,
    // and when nothing would change (no command then). kBadArgument with *reason set, in
    // the user's language, when the value is refused: the document is unchanged. Other
    // codes when the document is gone, a page is locked or pdfcore failed (nothing is left
    // half done). reason may be null.
    uint32_t set(const std::vector<AnnotSelection::Selected>& widgets, const std::string& id,
                 const Value& value, std::u16string* reason);

private:
    Host* host_;
};

}  // namespace qfhost
