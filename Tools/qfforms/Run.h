// `qfforms run`: replays an authoring session, written as a JSON script, through the
// reference host and the loaded forms module, the way the editor drives them.
#pragma once

#include <string>
#include <vector>

namespace qfforms {

// The help text of `qfforms run` (every verb with an example).
extern const char* const kRunHelp;

// Runs `qfforms run` with the arguments that follow "run" (UTF-8, as given on the command
// line). Prints the outputs written to stdout and failures to stderr. Returns the exit
// status: 0 every step succeeded and the outputs were written, 1 a step failed (the outputs
// are written only with --keep-going) or the run could not start or finish, 2 wrong usage.
// Single-threaded: makes a qfhost::Host, of which a process holds one at a time.
int runCommand(const std::vector<std::string>& args);

} // namespace qfforms
