// `qfforms edit`: the form editor in the browser. A small local server hosts the forms
// module in the reference host and serves the page (Web/) that drives it. See
// docs/editor.md.
#pragma once

#include <string>
#include <vector>

namespace qfforms {

extern const char* const kEditUsage;

// Runs `qfforms edit` with the arguments that follow "edit". Serves until SIGINT or
// SIGTERM. Returns the exit status: 0 after a clean stop, 1 when it could not start, 2 on
// wrong usage. Every call into the host and the module is made on the calling thread.
int editCommand(const std::vector<std::string>& args);

} // namespace qfforms
