// The actions of the selected widgets and of their fields, read and set as action records
// (the records the widget clipboard writes, with "name" added for named actions), and the
// form's calculation order. Each change is one command on the host's undo stack. Runs on
// the thread that owns the host.
#pragma once

#include "Session.h"

#include "qfhost/Host.h"

namespace qfforms {

// {"widget": {TRIGGER: RECORD|null ...}, "field": {TRIGGER: RECORD|null ...}} for the
// selected widgets: widget triggers "Action" (/A), "MouseUp", "MouseDown", "MouseEnter",
// "MouseExit", "Focus", "Blur"; field triggers "Keystroke", "Format", "Validate",
// "Calculate" (only when every selected widget belongs to a text or choice field). A
// trigger whose action differs between the selected widgets is left out of its group and
// listed in "mixed"; "fields" lists the full names of the form's fields. Null without a
// selection.
Json describeActions(qfhost::Host& host);

// Sets actions on every selected widget (a field trigger once per field): {TRIGGER:
// RECORD or null to remove it, ...}. One undoable command; the calculation order follows
// calculate actions. Throws StepFailure with a sentence for a
// bad request or an action pdfcore refuses, and then changes nothing.
void setActions(qfhost::Host& host, const Json& request);

// The full names of the form's calculated fields, in the order readers compute them.
Json calculationOrder(qfhost::Host& host);
// Puts the calculated fields in the order of names (each of them once): one undoable
// command. Throws StepFailure for anything else.
void setCalculationOrder(qfhost::Host& host, const Json& names);

} // namespace qfforms
