// The command line and input paths on POSIX systems.
#include "System.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qfforms {

std::vector<std::string> commandArguments(int argc, char** argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>{};
}

std::optional<std::string> inputProblem(const std::string& path, uint64_t limit) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return "does not exist";
        if (errno == ENOTDIR) return "does not exist (a part of its path is no folder)";
        if (errno == EACCES) return "cannot be read: a folder on the way may not be entered";
        return std::string("cannot be read: ") + std::strerror(errno);
    }
    if (S_ISDIR(st.st_mode)) return "is a folder, not a file";
    if (!S_ISREG(st.st_mode)) return "is not a regular file (a device, a pipe or a socket)";
    if (::access(path.c_str(), R_OK) != 0) return "cannot be read: permission denied";
    if (static_cast<uint64_t>(st.st_size) > limit)
        return "is " + std::to_string(st.st_size >> 20) + " MiB, more than the " +
               std::to_string(limit >> 20) + " MiB the program reads";
    return std::nullopt;
}

} // namespace qfforms
