// Shared files on Windows: LockFileEx over the whole file, then ReadFile, or WriteFile from
// the start and SetEndOfFile.
#include "SharedFile.h"

#include <windows.h>

#include <algorithm>

namespace qfhost::detail {

namespace {

// An open handle locked as asked over the whole file, released and closed at the end of
// the scope.
class Locked {
public:
    Locked(const std::filesystem::path& file, DWORD access, DWORD disposition, DWORD lock) {
        handle_ = CreateFileW(file.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle_ == INVALID_HANDLE_VALUE) return;
        OVERLAPPED whole{};
        if (!LockFileEx(handle_, lock, 0, MAXDWORD, MAXDWORD, &whole)) {
            CloseHandle(handle_);
            handle_ = INVALID_HANDLE_VALUE;
        }
    }
    ~Locked() {
        if (handle_ == INVALID_HANDLE_VALUE) return;
        OVERLAPPED whole{};
        UnlockFileEx(handle_, 0, MAXDWORD, MAXDWORD, &whole);
        CloseHandle(handle_);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    HANDLE handle() const { return handle_; }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace

std::optional<std::string> readShared(const std::filesystem::path& file) {
    Locked in(file, GENERIC_READ, OPEN_EXISTING, 0);
    if (in.handle() == INVALID_HANDLE_VALUE) return std::nullopt;
    std::string text;
    char buffer[16384];
    for (;;) {
        DWORD n = 0;
        if (!ReadFile(in.handle(), buffer, sizeof buffer, &n, nullptr)) return std::nullopt;
        if (n == 0) return text;
        text.append(buffer, n);
    }
}

bool writeShared(const std::filesystem::path& file, const std::string& text) {
    Locked out(file, GENERIC_WRITE, OPEN_ALWAYS, LOCKFILE_EXCLUSIVE_LOCK);
    if (out.handle() == INVALID_HANDLE_VALUE) return false;
    size_t done = 0;
    while (done < text.size()) {
        const DWORD chunk = static_cast<DWORD>(std::min<size_t>(text.size() - done, 1u << 30));
        DWORD n = 0;
        if (!WriteFile(out.handle(), text.data() + done, chunk, &n, nullptr) || n == 0)
            return false;
        done += n;
    }
    return SetEndOfFile(out.handle()) != 0;
}

}  // namespace qfhost::detail
