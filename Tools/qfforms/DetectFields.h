// Accepting detected fields: each proposal becomes a field as a person would make it, with
// the creation tool of its kind dragged over its box (so the module names, styles and adds
// it), then its name, tooltip and text layout set through the field properties and the
// page's tab order put in rows. All of it is one step of the undo stack; a step that fails
// half-way leaves the document as it was. Single-threaded: the thread that owns the host.
#pragma once

#include "Session.h"
#include "detect/Detect.h"
#include "qfhost/Host.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qfforms {

// The name of the undo step acceptProposals makes.
inline constexpr const char* kDetectStepName = "DetectFields";

// Makes the proposals of page (of the current view's document) fields, through session's
// steps on host, as one undo step; the fully qualified names of the fields made, in the
// order of proposals. A proposal's name taken by a field of the document goes on as
// "name_2", "name_3", ...; a radio group's buttons join the group's field. Throws
// StepFailure (the document as it was) when a step fails.
std::vector<std::string> acceptProposals(Session& session, qfhost::Host& host, uint32_t page,
                                         const std::vector<detect::Proposal>& proposals);

} // namespace qfforms
