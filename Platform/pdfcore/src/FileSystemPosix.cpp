// The file system calls of pdfcore on POSIX systems.
#include "FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

namespace pdfcore {
namespace {

PDResult fromErrno(int error) {
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS: return PD_ERR_ACCESS;
    case ENOSPC:
    case EDQUOT: return PD_ERR_DISK_FULL;
    case EFBIG: return PD_ERR_FILE_LIMIT;
    case EEXIST: return PD_ERR_ALREADY;
    case ENOMEM: return PD_ERR_OUT_OF_MEMORY;
    default: return PD_ERR_IO;
    }
}

void splitPath(SaveTarget& t) {
    const size_t slash = t.path.find_last_of('/');
    if (slash == std::string::npos) {
        t.folder = ".";
        t.name = t.path;
    } else {
        t.folder = slash == 0 ? "/" : t.path.substr(0, slash);
        t.name = t.path.substr(slash + 1);
    }
}

FileIdentity identityOf(const struct stat& st) {
    FileIdentity id;
    if (!S_ISREG(st.st_mode)) return id;
    id.volume = uint64_t(st.st_dev);
    id.file = uint64_t(st.st_ino);
    id.size = int64_t(st.st_size);
    id.written = int64_t(st.st_mtim.tv_sec) * 1000000000 + int64_t(st.st_mtim.tv_nsec);
    return id;
}

// Reads size bytes at offset; false when fewer come.
bool readAt(int fd, char* into, size_t size, int64_t offset) {
    while (size > 0) {
        const ssize_t n = pread(fd, into, size, off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        into += n;
        size -= size_t(n);
        offset += n;
    }
    return true;
}

} // namespace

PDResult readWholeFile(const std::string& path, std::string& out, FileIdentity& identity) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return PD_ERR_IO;
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        close(fd);
        return PD_ERR_IO;
    }
    identity = identityOf(st);
    // The file's size at once; what a file that grows meanwhile adds comes after.
    out.assign(identity.size > 0 ? size_t(identity.size) : 0, '\0');
    size_t have = 0;
    char more[16384];
    for (;;) {
        const bool inside = have < out.size();
        const ssize_t n = inside ? read(fd, out.data() + have, out.size() - have)
                                 : read(fd, more, sizeof more);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            out.resize(have);
            close(fd);
            if (n < 0) return PD_ERR_IO;
            if (int64_t(have) != identity.size) identity = FileIdentity{};
            return PD_OK;
        }
        if (!inside) out.append(more, size_t(n));
        have += size_t(n);
    }
}

bool identifyFile(const std::string& path, FileIdentity& out) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    out = identityOf(st);
    return true;
}

PDResult appendToFile(const std::string& path, const FileIdentity& expected,
                      const std::string& tail, const void* data, size_t size,
                      FileIdentity& out) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return fromErrno(errno);
    struct stat st {};
    std::string last(tail.size(), '\0');
    const int64_t tailAt = expected.size - int64_t(tail.size());
    const bool same = fstat(fd, &st) == 0 && identityOf(st) == expected &&
                      readAt(fd, last.data(), last.size(), tailAt) && last == tail;
    if (!same) {
        close(fd);
        return PD_ERR_IO;
    }
    PDResult r = PD_OK;
    const auto* p = static_cast<const char*>(data);
    int64_t at = expected.size;
    for (size_t left = size; left > 0 && r == PD_OK;) {
        const ssize_t n = pwrite(fd, p, left < (1u << 30) ? left : (1u << 30), off_t(at));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            r = fromErrno(errno);
        } else {
            p += n;
            at += n;
            left -= size_t(n);
        }
    }
    if (r == PD_OK && fdatasync(fd) != 0) r = fromErrno(errno);
    if (r != PD_OK) {
        // Cut back to what was read, so that readers find the file's own last section
        // at its end again.
        if (ftruncate(fd, off_t(expected.size)) == 0) fsync(fd);
    } else if (fstat(fd, &st) == 0) {
        out = identityOf(st);
    }
    if (close(fd) != 0 && r == PD_OK && errno != EINTR) r = fromErrno(errno);
    return r;
}

PDResult findTarget(const std::string& path, SaveTarget& out) {
    SaveTarget t;
    t.path = path;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        // Nothing there yet; a folder on the way that is missing shows when the new file
        // is made.
        if (errno != ENOENT) return fromErrno(errno);
        splitPath(t);
        if (t.name.empty()) return PD_ERR_BAD_ARGUMENT;
        out = std::move(t);
        return PD_OK;
    }
    if (S_ISLNK(st.st_mode)) {
        char* real = realpath(path.c_str(), nullptr);
        if (!real) return errno == ENOENT ? PD_ERR_NOT_A_FILE : fromErrno(errno);
        t.path = real;
        std::free(real);
        if (stat(t.path.c_str(), &st) != 0) return fromErrno(errno);
    }
    if (!S_ISREG(st.st_mode)) return PD_ERR_NOT_A_FILE;
    splitPath(t);
    if (t.name.empty()) return PD_ERR_BAD_ARGUMENT;
    t.exists = true;
    // access() says yes to root for any file; a file nobody may write (no write bit) is
    // read-only for root too, as it is for the person who made it so.
    if (faccessat(AT_FDCWD, t.path.c_str(), W_OK, AT_EACCESS) == 0) {
        t.writable = (st.st_mode & 0222) != 0;
    } else if (errno == EROFS) {
        return PD_ERR_ACCESS;
    }
    t.mode = st.st_mode & 07777;
    t.owner = st.st_uid;
    t.group = st.st_gid;
    out = std::move(t);
    return PD_OK;
}

PDResult createFile(const std::string& path, bool forExisting, NewFile& out) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                        forExisting ? 0600 : 0666);
    if (fd < 0) return fromErrno(errno);
    out.path = path;
    out.handle = fd;
    return PD_OK;
}

PDResult writeFile(NewFile& file, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(int(file.handle), p, size < (1u << 30) ? size : (1u << 30));
        if (n < 0) {
            if (errno == EINTR) continue;
            return fromErrno(errno);
        }
        p += n;
        size -= size_t(n);
    }
    return PD_OK;
}

PDResult finishFile(NewFile& file, const SaveTarget& target) {
    const int fd = int(file.handle);
    file.handle = -1;
    PDResult r = PD_OK;
    if (target.exists) {
        // The owner first: a change of owner clears the set-id bits that the mode then
        // restores. Only root gives a file away; anyone may give it one of their groups.
        struct stat st {};
        if (fstat(fd, &st) == 0 && (int64_t(st.st_uid) != target.owner ||
                                    int64_t(st.st_gid) != target.group)) {
            if (fchown(fd, uid_t(target.owner), gid_t(target.group)) != 0 &&
                fchown(fd, uid_t(-1), gid_t(target.group)) != 0) {
                // Neither: the new file is this user's, in this user's group.
            }
        }
        if (fchmod(fd, mode_t(target.mode)) != 0) r = fromErrno(errno);
    }
    if (r == PD_OK && fsync(fd) != 0) r = fromErrno(errno);
    if (close(fd) != 0 && r == PD_OK && errno != EINTR) r = fromErrno(errno);
    return r;
}

void abandonFile(NewFile& file) {
    if (file.handle >= 0) close(int(file.handle));
    file.handle = -1;
}

PDResult replaceFile(const std::string& from, const SaveTarget& target) {
    if (rename(from.c_str(), target.path.c_str()) != 0) return fromErrno(errno);
    // The rename is only lasting once the folder is on the disk. It has happened, though:
    // a folder that cannot be flushed (some file systems refuse) does not undo it.
    const int dir = open(target.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return PD_OK;
}

void removeFile(const std::string& path) { unlink(path.c_str()); }

std::vector<std::string> folderNames(const std::string& folder) {
    std::vector<std::string> names;
    DIR* dir = opendir(folder.c_str());
    if (!dir) return names;
    while (const dirent* entry = readdir(dir)) names.emplace_back(entry->d_name);
    closedir(dir);
    return names;
}

int64_t ownFileAge(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid())
        return -1;
    const int64_t age = int64_t(std::time(nullptr)) - int64_t(st.st_mtime);
    return age < 0 ? 0 : age;
}

uint64_t processId() { return uint64_t(getpid()); }

bool processRuns(uint64_t id) {
    // 0 and numbers past pid_t would name a group of processes or none.
    if (id == 0 || id > uint64_t(INT_MAX)) return false;
    return kill(pid_t(id), 0) == 0 || errno == EPERM;
}

} // namespace pdfcore
