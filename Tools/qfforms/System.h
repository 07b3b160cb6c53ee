// The program's seam to the system: its command line, and what stands at a path given as an
// input. One source per system (SystemPosix.cpp, SystemWindows.cpp). Paths are UTF-8.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qfforms {

// The program's arguments after its own name, in UTF-8: on POSIX systems argv as given (its
// bytes are the file names as the system keeps them); on Windows the wide command line,
// whose file names an ANSI code page would lose.
std::vector<std::string> commandArguments(int argc, char** argv);

// The problem of path as a file to read (a PDF, a script, a settings or password file), to
// follow "the file" (or what the file is) after its name: it does not exist, is a folder or
// no regular file (a device such as /dev/zero, a pipe), cannot be read, or is bigger than
// limit bytes. Nothing when it can be read.
std::optional<std::string> inputProblem(const std::string& path, uint64_t limit);

} // namespace qfforms
