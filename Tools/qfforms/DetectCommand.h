// `qfforms detect`: proposes the fields a flat form's pages draw and writes them as fields.
#pragma once

#include <string>
#include <vector>

namespace qfforms {

extern const char* const kDetectUsage;

// Runs `qfforms detect` with the arguments after the verb; the exit status.
int detectCommand(const std::vector<std::string>& args);

} // namespace qfforms
