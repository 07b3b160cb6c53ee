// Shared files on POSIX systems: flock, then read or pwrite and ftruncate.
#include "SharedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace qfhost::detail {

namespace {

// An open descriptor locked as asked, released and closed at the end of the scope.
class Locked {
public:
    Locked(const std::filesystem::path& file, int flags, int lock)
        : fd_(::open(file.c_str(), flags | O_CLOEXEC, 0666)) {
        if (fd_ < 0) return;
        int r;
        do r = ::flock(fd_, lock); while (r != 0 && errno == EINTR);
        if (r != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~Locked() {
        if (fd_ >= 0) ::close(fd_);  // the lock goes with the descriptor
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

}  // namespace

std::optional<std::string> readShared(const std::filesystem::path& file) {
    Locked in(file, O_RDONLY, LOCK_SH);
    if (in.fd() < 0) return std::nullopt;
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(in.fd(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return text;
        text.append(buffer, static_cast<size_t>(n));
    }
}

bool writeShared(const std::filesystem::path& file, const std::string& text) {
    Locked out(file, O_WRONLY | O_CREAT, LOCK_EX);
    if (out.fd() < 0) return false;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::pwrite(out.fd(), text.data() + done, text.size() - done,
                                   static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return ::ftruncate(out.fd(), static_cast<off_t>(text.size())) == 0;
}

}  // namespace qfhost::detail
