// The seam between pdfcore and the system's file system: the calls that read a document's
// file, and those a save makes to look at its target, write a file beside it and put that
// file in its place or append to it. One source file per system implements it
// (FileSystemPosix.cpp, FileSystemWindows.cpp). Paths are UTF-8. Every call answers a
// PDResult (the failures a save reports) or a bool, and never throws but std::bad_alloc.
#pragma once

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <string>
#include <vector>

namespace pdfcore {

// What stands where a save writes.
struct SaveTarget {
    std::string path;   // the file to replace or make: the path given, links followed
    std::string folder; // the folder of path ("." when path has none)
    std::string name;   // the last part of path
    bool exists = false;   // a regular file is there (when false, nothing is)
    bool writable = false; // it exists and its permissions let this process write it
    // Of an existing file, what the new file takes over: its permission bits, owner and
    // group (the system's own numbers).
    uint32_t mode = 0;
    int64_t owner = -1;
    int64_t group = -1;
};

// Looks at path without opening it (a FIFO or a device would block or answer). A symbolic
// link is followed to the file it names, through every link on the way. PD_ERR_NOT_A_FILE:
// a folder, FIFO, device or socket is there, or a link that leads to nothing;
// PD_ERR_ACCESS: a folder on the way may not be searched, or the file system is read-only;
// PD_ERR_IO: the path cannot be looked at otherwise (a part of it is a file, a loop of
// links).
PDResult findTarget(const std::string& path, SaveTarget& out);

// Which file is at a path, and in what state: two equal identities are the same file,
// unchanged since (as far as the system's clock and the file's tail tell).
struct FileIdentity {
    uint64_t volume = 0; // st_dev; the volume's serial number
    uint64_t file = 0;   // st_ino; the file's index on its volume
    int64_t size = -1;   // bytes; -1: not a regular file, never equal to another
    int64_t written = 0; // last change of the data, in the system's unit (ns; 100 ns)
    bool operator==(const FileIdentity& o) const {
        return volume == o.volume && file == o.file && size == o.size && written == o.written;
    }
};

// Reads the whole file at path into out, with what the file was as it was read (size -1
// when it is not a regular file: a FIFO is read to its end). PD_ERR_IO when it cannot be
// opened or read.
PDResult readWholeFile(const std::string& path, std::string& out, FileIdentity& identity);
// What is at path now (links followed); false when nothing can be looked at there.
bool identifyFile(const std::string& path, FileIdentity& out);
// Appends data to the file at path, when it is still expected and still ends in tail (its
// last bytes when it was read), then flushes it to the disk; out is then what the file is.
// PD_ERR_IO when the file changed (nothing is written), PD_ERR_ACCESS when it may not be
// written; a write that fails (PD_ERR_DISK_FULL, PD_ERR_FILE_LIMIT, PD_ERR_IO) cuts the
// file back to its size, so that it is as it was.
PDResult appendToFile(const std::string& path, const FileIdentity& expected,
                      const std::string& tail, const void* data, size_t size,
                      FileIdentity& out);

// A file being written. handle is the system's (-1 when closed).
struct NewFile {
    std::string path;
    intptr_t handle = -1;
};

// Creates path, which must not exist (PD_ERR_ALREADY when it does): for this user only
// when forExisting (the target's permissions come at finishFile), else as any new file is
// made. Failures: PD_ERR_ACCESS, PD_ERR_DISK_FULL, PD_ERR_IO.
PDResult createFile(const std::string& path, bool forExisting, NewFile& out);
// Writes all of data. PD_ERR_FILE_LIMIT when the file would grow past the process's
// limit or the file system's, PD_ERR_DISK_FULL, PD_ERR_IO.
PDResult writeFile(NewFile& file, const void* data, size_t size);
// Gives the file the permission bits of an existing target, and its owner and group as far
// as this process may set them; then flushes it to the disk and closes it. The file is
// closed whatever the result.
PDResult finishFile(NewFile& file, const SaveTarget& target);
// Closes the file without more (after a failure); nothing when it is closed.
void abandonFile(NewFile& file);
// Puts the file at from in target's place in one step, then flushes target's folder to the
// disk. Failures leave target as it was: PD_ERR_ACCESS, PD_ERR_IO.
PDResult replaceFile(const std::string& from, const SaveTarget& target);
// Removes path (a file), quietly.
void removeFile(const std::string& path);

// The names in folder (none when it cannot be read).
std::vector<std::string> folderNames(const std::string& folder);
// How long ago path was last changed, in seconds, when it is a regular file (not a link)
// of this process's user; negative otherwise.
int64_t ownFileAge(const std::string& path);
// This process's number, and whether a process of that number runs.
uint64_t processId();
bool processRuns(uint64_t id);

#ifdef _WIN32
// A UTF-16 text of the system's (a path, a font's file name) as UTF-8.
std::string utf8OfWide(const std::wstring& text);
#endif

} // namespace pdfcore
