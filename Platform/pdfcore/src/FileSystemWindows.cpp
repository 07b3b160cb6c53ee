// The file system calls of pdfcore on Windows. Paths are UTF-8 and go to the system's wide
// calls; either slash separates folders. A target that exists is replaced with ReplaceFileW,
// which gives the new file the target's attributes, security descriptor, creation time and
// streams, as the POSIX side gives it the mode, owner and group; a new target is a move.
#include "FileSystem.h"

#include <windows.h>

#include <climits>

namespace pdfcore {
namespace {

// The system's form of a path: UTF-16 with backslashes, which every call takes (not all
// take slashes: ReplaceFileW may answer ERROR_DIRECTORY).
std::wstring wide(const std::string& utf8) {
    if (utf8.empty()) return {};
    const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), int(utf8.size()), nullptr, 0);
    std::wstring out(size_t(n > 0 ? n : 0), L'\0');
    if (n > 0) MultiByteToWideChar(CP_UTF8, 0, utf8.data(), int(utf8.size()), out.data(), n);
    for (wchar_t& c : out)
        if (c == L'/') c = L'\\';
    return out;
}


PDResult fromError(DWORD error) {
    switch (error) {
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_WRITE_PROTECT:
    case ERROR_UNABLE_TO_REMOVE_REPLACED: return PD_ERR_ACCESS;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL: return PD_ERR_DISK_FULL;
    case ERROR_FILE_TOO_LARGE: return PD_ERR_FILE_LIMIT;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS: return PD_ERR_ALREADY;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY: return PD_ERR_OUT_OF_MEMORY;
    default: return PD_ERR_IO;
    }
}

void splitPath(SaveTarget& t) {
    size_t cut = t.path.find_last_of("/\\");
    // "C:name" names a file in the current folder of drive C.
    if (cut == std::string::npos && t.path.size() >= 2 && t.path[1] == ':') cut = 1;
    if (cut == std::string::npos) {
        t.folder = ".";
        t.name = t.path;
        return;
    }
    // A root keeps its separator ("C:\", "\"), any other folder loses it.
    const bool root = cut == 0 || (cut == 2 && t.path[1] == ':') || t.path[cut] == ':';
    t.folder = t.path.substr(0, root ? cut + 1 : cut);
    t.name = t.path.substr(cut + 1);
}

// The path that a link (a symbolic link or junction) leads to; empty when it leads to
// nothing.
std::string finalPath(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return {};
    std::wstring out(MAX_PATH, L'\0');
    DWORD n = GetFinalPathNameByHandleW(h, out.data(), DWORD(out.size()), FILE_NAME_NORMALIZED);
    if (n >= out.size()) {
        out.resize(n);
        n = GetFinalPathNameByHandleW(h, out.data(), DWORD(out.size()), FILE_NAME_NORMALIZED);
    }
    CloseHandle(h);
    if (n == 0 || n >= out.size()) return {};
    out.resize(n);
    // "\\?\C:\..." back to "C:\..."; "\\?\UNC\server\..." to "\\server\...".
    if (out.rfind(L"\\\\?\\UNC\\", 0) == 0) {
        out = L"\\\\" + out.substr(8);
    } else if (out.rfind(L"\\\\?\\", 0) == 0) {
        out = out.substr(4);
    }
    return utf8OfWide(out);
}

int64_t fileTimeSeconds(const FILETIME& t) {
    ULARGE_INTEGER v;
    v.LowPart = t.dwLowDateTime;
    v.HighPart = t.dwHighDateTime;
    return int64_t(v.QuadPart / 10000000ull);
}

FileIdentity identityOf(HANDLE h) {
    FileIdentity id;
    BY_HANDLE_FILE_INFORMATION info{};
    if (GetFileType(h) != FILE_TYPE_DISK || !GetFileInformationByHandle(h, &info) ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return id;
    id.volume = info.dwVolumeSerialNumber;
    id.file = (uint64_t(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    id.size = int64_t((uint64_t(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
    id.written = int64_t((uint64_t(info.ftLastWriteTime.dwHighDateTime) << 32) |
                         info.ftLastWriteTime.dwLowDateTime);
    return id;
}

// Reads size bytes at offset; false when fewer come.
bool readAt(HANDLE h, char* into, size_t size, int64_t offset) {
    LARGE_INTEGER to;
    to.QuadPart = offset;
    if (!SetFilePointerEx(h, to, nullptr, FILE_BEGIN)) return false;
    while (size > 0) {
        DWORD n = 0;
        if (!ReadFile(h, into, DWORD(size < (1u << 30) ? size : (1u << 30)), &n, nullptr) ||
            n == 0)
            return false;
        into += n;
        size -= n;
    }
    return true;
}

} // namespace

PDResult readWholeFile(const std::string& path, std::string& out, FileIdentity& identity) {
    HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return PD_ERR_IO;
    identity = identityOf(h);
    // The file's size at once; what a file that grows meanwhile adds comes after.
    out.assign(identity.size > 0 ? size_t(identity.size) : 0, '\0');
    size_t have = 0;
    char more[16384];
    for (;;) {
        const bool inside = have < out.size();
        const size_t room = inside ? out.size() - have : sizeof more;
        DWORD n = 0;
        const BOOL ok = ReadFile(h, inside ? out.data() + have : more,
                                 DWORD(room < (1u << 30) ? room : (1u << 30)), &n, nullptr);
        // A pipe whose writer closed answers ERROR_BROKEN_PIPE: its end.
        if (!ok && GetLastError() != ERROR_BROKEN_PIPE) {
            CloseHandle(h);
            return PD_ERR_IO;
        }
        if (n == 0) break;
        if (!inside) out.append(more, n);
        have += n;
    }
    CloseHandle(h);
    out.resize(have);
    if (int64_t(have) != identity.size) identity = FileIdentity{};
    return PD_OK;
}

bool identifyFile(const std::string& path, FileIdentity& out) {
    HANDLE h = CreateFileW(wide(path).c_str(), 0,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    out = identityOf(h);
    CloseHandle(h);
    return true;
}

PDResult appendToFile(const std::string& path, const FileIdentity& expected,
                      const std::string& tail, const void* data, size_t size,
                      FileIdentity& out) {
    // Others may read the file meanwhile, not write it.
    HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                           nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return fromError(GetLastError());
    std::string last(tail.size(), '\0');
    if (!(identityOf(h) == expected) ||
        !readAt(h, last.data(), last.size(), expected.size - int64_t(tail.size())) ||
        last != tail) {
        CloseHandle(h);
        return PD_ERR_IO;
    }
    PDResult r = PD_OK;
    LARGE_INTEGER end;
    end.QuadPart = expected.size;
    if (!SetFilePointerEx(h, end, nullptr, FILE_BEGIN)) r = fromError(GetLastError());
    const auto* p = static_cast<const char*>(data);
    for (size_t left = size; left > 0 && r == PD_OK;) {
        DWORD written = 0;
        if (!WriteFile(h, p, DWORD(left < (1u << 30) ? left : (1u << 30)), &written, nullptr)) {
            r = fromError(GetLastError());
        } else if (written == 0) {
            r = PD_ERR_IO;
        }
        p += written;
        left -= written;
    }
    if (r == PD_OK && !FlushFileBuffers(h)) r = fromError(GetLastError());
    if (r != PD_OK) {
        // Cut back to what was read, so that readers find the file's own last section at
        // its end again.
        if (SetFilePointerEx(h, end, nullptr, FILE_BEGIN) && SetEndOfFile(h)) FlushFileBuffers(h);
    } else {
        out = identityOf(h);
    }
    CloseHandle(h);
    return r;
}

std::string utf8OfWide(const std::wstring& text) {
    if (text.empty()) return {};
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0,
                                      nullptr, nullptr);
    std::string out(size_t(n > 0 ? n : 0), '\0');
    if (n > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), out.data(), n, nullptr,
                            nullptr);
    return out;
}

PDResult findTarget(const std::string& path, SaveTarget& out) {
    SaveTarget t;
    t.path = path;
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(wide(path).c_str(), GetFileExInfoStandard, &data)) {
        const DWORD error = GetLastError();
        // Nothing there yet; a folder on the way that is missing shows when the new file
        // is made.
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) return fromError(error);
        splitPath(t);
        if (t.name.empty()) return PD_ERR_BAD_ARGUMENT;
        out = std::move(t);
        return PD_OK;
    }
    if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        t.path = finalPath(wide(path));
        if (t.path.empty()) return PD_ERR_NOT_A_FILE;
        if (!GetFileAttributesExW(wide(t.path).c_str(), GetFileExInfoStandard, &data))
            return fromError(GetLastError());
    }
    if (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE))
        return PD_ERR_NOT_A_FILE;
    splitPath(t);
    if (t.name.empty()) return PD_ERR_BAD_ARGUMENT;
    t.exists = true;
    t.writable = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) == 0;
    // The attributes stand for the mode: the read-only one is what a forced save puts back.
    t.mode = data.dwFileAttributes;
    out = std::move(t);
    return PD_OK;
}

PDResult createFile(const std::string& path, bool, NewFile& out) {
    // The folder's inheritable permissions apply; an existing target's own come with
    // ReplaceFileW.
    HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return fromError(GetLastError());
    out.path = path;
    out.handle = reinterpret_cast<intptr_t>(h);
    return PD_OK;
}

PDResult writeFile(NewFile& file, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    HANDLE h = reinterpret_cast<HANDLE>(file.handle);
    while (size > 0) {
        const DWORD piece = DWORD(size < (1u << 30) ? size : (1u << 30));
        DWORD written = 0;
        if (!WriteFile(h, p, piece, &written, nullptr)) return fromError(GetLastError());
        if (written == 0) return PD_ERR_IO;
        p += written;
        size -= written;
    }
    return PD_OK;
}

PDResult finishFile(NewFile& file, const SaveTarget&) {
    HANDLE h = reinterpret_cast<HANDLE>(file.handle);
    file.handle = -1;
    PDResult r = PD_OK;
    if (!FlushFileBuffers(h)) r = fromError(GetLastError());
    if (!CloseHandle(h) && r == PD_OK) r = fromError(GetLastError());
    return r;
}

void abandonFile(NewFile& file) {
    if (file.handle != -1) CloseHandle(reinterpret_cast<HANDLE>(file.handle));
    file.handle = -1;
}

PDResult replaceFile(const std::string& from, const SaveTarget& target) {
    const std::wstring source = wide(from), place = wide(target.path);
    if (!target.exists) {
        if (!MoveFileExW(source.c_str(), place.c_str(), MOVEFILE_WRITE_THROUGH))
            return fromError(GetLastError());
        return PD_OK;
    }
    // A read-only target (a forced save) cannot be replaced: the attribute comes off for
    // the replacement and back on after it, or back on the old file when it failed.
    const DWORD attributes = DWORD(target.mode);
    const bool readOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (readOnly && !SetFileAttributesW(place.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY))
        return fromError(GetLastError());
    DWORD error = ERROR_SUCCESS;
    if (!ReplaceFileW(place.c_str(), source.c_str(), nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS,
                      nullptr, nullptr))
        error = GetLastError();
    // ERROR_UNABLE_TO_MOVE_REPLACEMENT(_2): the target was renamed away and could not be
    // put back under its name; the system leaves it as it was in those cases.
    if (readOnly) SetFileAttributesW(place.c_str(), attributes);
    return error == ERROR_SUCCESS ? PD_OK : fromError(error);
}

void removeFile(const std::string& path) { DeleteFileW(wide(path).c_str()); }

std::vector<std::string> folderNames(const std::string& folder) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW entry{};
    HANDLE find = FindFirstFileW(wide(folder + "\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        names.push_back(utf8OfWide(entry.cFileName));
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return names;
}

int64_t ownFileAge(const std::string& path) {
    // Windows has no owner to compare cheaply: a file this user may not delete stays,
    // quietly, when removeFile fails.
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(wide(path).c_str(), GetFileExInfoStandard, &data) ||
        (data.dwFileAttributes &
         (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE)))
        return -1;
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const int64_t age = fileTimeSeconds(now) - fileTimeSeconds(data.ftLastWriteTime);
    return age < 0 ? 0 : age;
}

uint64_t processId() { return uint64_t(GetCurrentProcessId()); }

bool processRuns(uint64_t id) {
    if (id == 0 || id > uint64_t(UINT32_MAX)) return false;
    HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, DWORD(id));
    if (!h) return GetLastError() == ERROR_ACCESS_DENIED;
    DWORD code = 0;
    const bool runs = GetExitCodeProcess(h, &code) && code == STILL_ACTIVE;
    CloseHandle(h);
    return runs;
}

} // namespace pdfcore
