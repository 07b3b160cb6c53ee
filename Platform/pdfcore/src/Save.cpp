// Saves that keep what the file was: checks of the target, the temporary file beside it,
// the rename, and the clean-up of temporary files that killed processes left.
#include "Save.h"

#include "Core.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>

namespace pdfcore {
namespace {

constexpr const char* kTag = ".qfforms-";
constexpr size_t kTagLength = 9;
constexpr const char* kSuffix = ".tmp";
constexpr size_t kSuffixLength = 4;
// The target's name is shortened in the temporary file's, so that the whole stays under
// the usual limit of 255 bytes.
constexpr size_t kNameBytes = 160;
// A temporary file of a process that no longer runs is left alone this long after its last
// change: the process may be one of another machine or container writing into the same
// folder, whose numbers mean nothing here.
constexpr int64_t kStaleSeconds = 600;

constexpr uint32_t kKnownFlags = PD_SAVE_FORCE | PD_SAVE_INCREMENTAL;

std::string tempName(const std::string& target) {
    size_t cut = std::min(target.size(), kNameBytes);
    // Not inside a UTF-8 sequence.
    while (cut > 0 && cut < target.size() &&
           (static_cast<unsigned char>(target[cut]) & 0xC0) == 0x80)
        --cut;
    std::random_device entropy;
    char tail[48];
    std::snprintf(tail, sizeof tail, "%llu-%08x", static_cast<unsigned long long>(processId()),
                  static_cast<unsigned>(entropy()));
    return "." + target.substr(0, cut) + kTag + tail + kSuffix;
}

// The process that wrote a temporary file of ours (".NAME.qfforms-PID-XXXXXXXX.tmp"), or 0
// for any other name.
uint64_t tempWriter(const std::string& name) {
    if (name.size() < 2 + kTagLength + kSuffixLength || name[0] != '.' ||
        name.compare(name.size() - kSuffixLength, kSuffixLength, kSuffix) != 0)
        return 0;
    const size_t tag = name.rfind(kTag);
    if (tag == std::string::npos || tag < 2) return 0;
    const std::string rest =
        name.substr(tag + kTagLength, name.size() - kSuffixLength - tag - kTagLength);
    const size_t dash = rest.find('-');
    if (dash == std::string::npos || dash == 0 || dash > 19 || rest.size() - dash - 1 != 8)
        return 0;
    uint64_t pid = 0;
    for (size_t i = 0; i < dash; ++i) {
        if (rest[i] < '0' || rest[i] > '9') return 0;
        pid = pid * 10 + uint64_t(rest[i] - '0');
    }
    for (size_t i = dash + 1; i < rest.size(); ++i) {
        const char c = rest[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return 0;
    }
    return pid;
}

std::string inFolder(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

// Removes the temporary files of ours in folder that a process killed while saving left.
void removeStaleTemps(const std::string& folder) {
    for (const std::string& name : folderNames(folder)) {
        const uint64_t writer = tempWriter(name);
        if (writer == 0) continue;
        const std::string path = inFolder(folder, name);
        if (ownFileAge(path) >= kStaleSeconds && !processRuns(writer)) removeFile(path);
    }
}

} // namespace

PDResult checkTarget(const char* path, uint32_t flags, SaveTarget& out) {
    if (!path || !*path || (flags & ~kKnownFlags)) return PD_ERR_BAD_ARGUMENT;
    if (PDResult r = findTarget(path, out)) return r;
    if (out.exists && !out.writable && !(flags & PD_SAVE_FORCE)) return PD_ERR_READ_ONLY;
    return PD_OK;
}

PDResult stageFile(const SaveTarget& target, const void* data, size_t size,
                   PDStagedFileRec& out) {
    return stageWith(target, [&](NewFile& file) { return writeFile(file, data, size); }, out);
}

PDResult stageWith(const SaveTarget& target, const std::function<PDResult(NewFile&)>& write,
                   PDStagedFileRec& out) {
    removeStaleTemps(target.folder);
    NewFile file;
    PDResult r = PD_ERR_ALREADY;
    for (int attempt = 0; attempt < 16 && r == PD_ERR_ALREADY; ++attempt)
        r = createFile(inFolder(target.folder, tempName(target.name)), target.exists, file);
    if (r != PD_OK) return r;
    try {
        r = write(file);
    } catch (...) {
        abandonFile(file);
        removeFile(file.path);
        throw;
    }
    if (r == PD_OK) {
        r = finishFile(file, target);
    } else {
        abandonFile(file);
    }
    if (r != PD_OK) {
        removeFile(file.path);
        return r;
    }
    out.target = target;
    out.temp = file.path;
    return PD_OK;
}

PDResult commitFile(const PDStagedFileRec& file) {
    if (file.onDisk) {
        FileIdentity now;
        const PDResult r = appendToFile(file.target.path, file.expected, file.tail,
                                        file.update.data(), file.update.size(), now);
        if (r == PD_OK) {
            std::lock_guard<std::mutex> hold(file.onDisk->lock);
            if (file.onDisk->identity == file.expected) {
                file.onDisk->identity = now;
                file.onDisk->appended += file.update;
                if (!file.update.empty()) file.onDisk->lastSection = file.section;
            }
        }
        return r;
    }
    const PDResult r = replaceFile(file.temp, file.target);
    if (r != PD_OK) removeFile(file.temp);
    return r;
}

} // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDFileStage(const char* path, const void* data, size_t size, uint32_t flags,
                     PDStagedFile* outFile) {
    if (outFile) *outFile = nullptr;
    if (!outFile || (!data && size)) return PD_ERR_BAD_ARGUMENT;
    return guard([&] {
        SaveTarget target;
        if (PDResult r = checkTarget(path, flags, target)) fail(r);
        auto file = std::make_unique<PDStagedFileRec>();
        if (PDResult r = stageFile(target, data, size, *file)) fail(r);
        *outFile = file.release();
    });
}

PDResult PDStagedFileCommit(PDStagedFile file) {
    if (!file) return PD_ERR_MISSING_OBJECT;
    const std::unique_ptr<PDStagedFileRec> owned(file);
    return guard([&] {
        if (PDResult r = commitFile(*owned)) fail(r);
    });
}

void PDStagedFileDiscard(PDStagedFile file) {
    if (!file) return;
    if (!file->temp.empty()) removeFile(file->temp);
    delete file;
}

} // extern "C"
