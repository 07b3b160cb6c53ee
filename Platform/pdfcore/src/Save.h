// Files written in one step: the bytes go into a new file beside the target, which then
// takes the target's place by a rename (pdfcore.h, "Writing files").
#pragma once

#include "FileSystem.h"

#include <functional>
#include <string>

struct PDStagedFileRec {
    pdfcore::SaveTarget target;
    std::string temp; // the new file beside the target
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
// Renames the staged file over its target; on failure removes it.
PDResult commitFile(const PDStagedFileRec& file);

} // namespace pdfcore
