// Files written in one step: the bytes go into a new file beside the target, which then
// takes the target's place by a rename (pdfcore.h, "Writing files"); or an update waits to
// be appended to the file the document was read from.
#pragma once

#include "Core.h"

#include <functional>
#include <string>

struct PDStagedFileRec {
    pdfcore::SaveTarget target;
    std::string temp; // the new file beside the target; none for an update appended in place
    // An update to append to the target in place, and what the target must be for it: the
    // file as onDisk knew it, ending in tail.
    std::shared_ptr<pdfcore::FileOnDisk> onDisk;
    pdfcore::FileIdentity expected;
    std::string tail;
    std::string update;
    int64_t section = -1; // where the update's cross-reference section starts in the file
};

namespace pdfcore {

// Looks at what stands at path and whether a save with flags may replace it.
PDResult checkTarget(const char* path, uint32_t flags, SaveTarget& out);
// Writes data into a new file beside the checked target; out then names both.
PDResult stageFile(const SaveTarget& target, const void* data, size_t size,
                   PDStagedFileRec& out);
// The same with what write puts into the new file, in as many pieces as it likes (its
// answer is the file's; what it throws goes on, the new file removed first).
PDResult stageWith(const SaveTarget& target, const std::function<PDResult(NewFile&)>& write,
                   PDStagedFileRec& out);
// Renames the staged file over its target, or appends the staged update to it; on failure
// removes the staged file.
PDResult commitFile(const PDStagedFileRec& file);

} // namespace pdfcore
