// `qfforms copy` and `qfforms paste`: a widget of a form as its JSON record on standard
// output, and a record from standard input made into a new widget of another form, through
// the forms module's copy and paste.
#pragma once

#include <string>
#include <vector>

namespace qfforms {

extern const char* const kClipUsage;

// The arguments that follow "copy" / "paste". Exit status: 0 done, 1 the input could not
// be read, holds no such field or page, or the record could not be pasted (the module's
// text on stderr), 2 wrong usage. Each makes a qfhost::Host, of which a process holds one
// at a time.
int copyCommand(const std::vector<std::string>& args);
int pasteCommand(const std::vector<std::string>& args);

} // namespace qfforms
