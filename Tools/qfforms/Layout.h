// Laying out several widgets at once: aligning, spacing and sizing the selected widgets,
// moving them together, copying and pasting them as a group, and placing copies of one
// widget in rows and columns. Every change is one step of the host's undo stack (a group
// of "Annot_SetRect" or "AddWidget" commands), and a step that fails half-way leaves the
// document as it was. Single-threaded: the thread that owns the host.
#pragma once

#include "Session.h"
#include "qfhost/Document.h"
#include "qfhost/Host.h"
#include "qfhost/Selection.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qfforms {

// A widget's rectangle as the person sees its page: x to the right, y down, in points,
// whatever the page's and the view's turn (so "left" is the left on the screen).
struct Box {
    float left = 0, top = 0, right = 0, bottom = 0;
    float width() const { return right - left; }
    float height() const { return bottom - top; }
};

enum class Arrangement {
    AlignLeft,
    AlignRight,
    AlignTop,
    AlignBottom,
    AlignCentres,     // the same horizontal centre: one above the other
    AlignMiddles,     // the same vertical centre: side by side
    DistributeAcross, // equal gaps from left to right
    DistributeDown,   // equal gaps from top to bottom
    SameWidth,
    SameHeight,
    SameSize,
};

// The arrangement of its step name ("alignLeft", "alignRight", "alignTop", "alignBottom",
// "alignCentres", "alignMiddles", "distributeAcross", "distributeDown", "sameWidth",
// "sameHeight", "sameSize"); none for another name.
std::optional<Arrangement> arrangementNamed(const std::string& name);
// The names above, comma separated, for messages.
const char* arrangementNames();
// How many widgets an arrangement takes at least: 3 to distribute, 2 otherwise.
size_t leastCount(Arrangement a);

// The boxes after arrangement a. Alignment and sizes follow boxes[0], the widget selected
// first: a same width keeps each left edge, a same height each top edge. Distributing keeps
// the two outermost widgets (by their left, or top, edges) and spaces the others between
// them so that the gaps between neighbours are equal (negative where they overlap).
std::vector<Box> arranged(Arrangement a, std::vector<Box> boxes);

// A refusal of a layout step that the person can act on. Its text is an English sentence
// for scripts; the editor words it in the person's language from reason and detail.
class LayoutRefusal : public StepFailure {
  public:
    enum class Reason {
        TooFew,     // detail: how many widgets the step takes
        Locked,     // detail: the locked widget's field name
        DoesNotFit, // the copies would reach past the page
        TooMany,    // detail: how many copies a step places at most
    };
    LayoutRefusal(Reason reason, std::string detail, const std::string& text)
        : StepFailure(std::nullopt, text), reason_(reason), detail_(std::move(detail)) {}
    Reason reason() const { return reason_; }
    const std::string& detail() const { return detail_; }

  private:
    Reason reason_;
    std::string detail_;
};

// The most copies placeMultiple makes in one step.
inline constexpr uint32_t kMaxPlacedCopies = 1000;

// Arranges the selected widgets (at least leastCount). A Locked widget that would change
// refuses the whole step; widgets already in place are not touched.
void arrangeSelection(qfhost::Host& host, Arrangement a);

// Moves every selected widget right and down (points, as the page is shown; negative for
// left and up). A Locked widget refuses the whole step.
void moveSelection(qfhost::Host& host, float right, float down);

// The widget records of the selected widgets, as the module's copy makes them: one record
// (a JSON object) for one widget, an array of them, in the order selected, for several.
std::string selectionRecords(qfhost::Host& host);

// Pastes an array of widget records (text, as selectionRecords makes it) onto page, each
// named as naming says for a single paste, keeping their layout: when any of them would lie
// exactly over an annotation there, all move together 10 points right and 10 down (as the
// page is shown), as often as it takes. The pasted widgets become the selection. groupName
// names the undo entry. A record that is not of the record format refuses them all.
void pasteRecords(qfhost::Host& host, uint64_t page, const std::string& records,
                  qfhost::AnnotSelection::Naming naming, const char* groupName);

// Puts the records of the selected widgets (selectionRecords) on the system clipboard.
void copySelection(qfhost::Host& host);
// Copies the selected widgets and deletes them, as one step named "Cut"; a Locked widget
// refuses them all before anything is copied.
void cutSelection(qfhost::Host& host);

// Duplicates the selected widgets, each on its own page, as pasteRecords places them.
void duplicateSelection(qfhost::Host& host);

// Deletes the selected widgets as one step named groupName; a Locked widget refuses them
// all. The selection is empty afterwards.
void deleteSelection(qfhost::Host& host, const char* groupName);

// Copies the one selected widget into rows x columns places (the widget itself the first,
// top left, then row by row), gapRight and gapDown points apart (as the page is shown),
// each copy a new field named after the widget's: "Name7" goes on as "Name8", "Name9", ...,
// a name without a closing number as "Name_2", "Name_3", ..., skipping names in use.
// Afterwards the widget and its copies are the selection. Refused when a copy would
// reach past the page's crop box or there would be more than kMaxPlacedCopies copies.
void placeMultiple(qfhost::Host& host, uint32_t rows, uint32_t columns, float gapRight,
                   float gapDown);

// A host annotation operation ("Annot_SetRect", "Annot_Delete") on annot of page, undoable;
// r in page space. StepFailure with the operation's answer (and pdfcore's) when it fails.
void annotOperation(qfhost::Document& doc, const char* name, uint64_t page, PDAnnot annot,
                    const PDRect& r);

// The names placeMultiple gives count copies of the field named name in doc.
std::vector<std::string> nextFreeNames(PDDoc doc, const std::string& name, size_t count);

} // namespace qfforms
