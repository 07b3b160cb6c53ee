// The command line and input paths on Windows, through the wide calls.
#include "System.h"

#include <windows.h>

#include <io.h>
#include <shellapi.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace qfforms {

std::vector<std::string> commandArguments(int argc, char** argv) {
    int count = 0;
    LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (!wide) return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc)
                               : std::vector<std::string>{};
    std::vector<std::string> out;
    for (int i = 1; i < count; ++i) {
        const int length = int(wcslen(wide[i]));
        const int n =
            WideCharToMultiByte(CP_UTF8, 0, wide[i], length, nullptr, 0, nullptr, nullptr);
        std::string text(size_t(n > 0 ? n : 0), '\0');
        if (n > 0)
            WideCharToMultiByte(CP_UTF8, 0, wide[i], length, text.data(), n, nullptr, nullptr);
        out.push_back(std::move(text));
    }
    LocalFree(wide);
    return out;
}

std::optional<std::string> inputProblem(const std::string& path, uint64_t limit) {
    const std::wstring name = std::filesystem::u8path(path).wstring();
    struct _stat64 st {};
    if (_wstat64(name.c_str(), &st) != 0) {
        if (errno == ENOENT) return "does not exist";
        if (errno == EACCES) return "cannot be read: a folder on the way may not be entered";
        return std::string("cannot be read: ") + std::strerror(errno);
    }
    if (st.st_mode & _S_IFDIR) return "is a folder, not a file";
    if (!(st.st_mode & _S_IFREG)) return "is not a regular file (a device, a pipe or a socket)";
    if (_waccess(name.c_str(), 4) != 0) return "cannot be read: permission denied";
    if (static_cast<uint64_t>(st.st_size) > limit)
        return "is " + std::to_string(st.st_size >> 20) + " MiB, more than the " +
               std::to_string(limit >> 20) + " MiB the program reads";
    return std::nullopt;
}

} // namespace qfforms
