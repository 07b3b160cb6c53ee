// `qfforms render`: one page of a document as the reference host's view shows it (zoom,
// rotation, crop box), with the outlines of its annotations, written as an SVG file.
#pragma once

#include <string>
#include <vector>

namespace qfforms {

// The usage lines of `qfforms render`.
extern const char* const kRenderUsage;

// Runs `qfforms render` with the arguments that follow "render" (UTF-8, as given on the
// command line). Prints "wrote PATH" on stdout and failures on stderr. Returns the exit
// status: 0 the SVG was written, 1 the input could not be read or has no such page, or the
// output could not be written, 2 wrong usage. Makes a qfhost::Host, of which a process
// holds one at a time.
int renderCommand(const std::vector<std::string>& args);

} // namespace qfforms
