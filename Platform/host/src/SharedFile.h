// A small file that several processes read and write whole (the clipboard's): a write
// replaces the text in place under an exclusive lock, a read takes it under a shared one,
// so that no reader sees half of a write. In place, because a new file renamed over the
// old at every write costs the file system an allocation and a freeing each time (about
// ten times the write itself on ext4). A process that dies while it writes leaves a
// file that does not read as what it wrote.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace qfhost::detail {

// The file's whole text; nullopt when it is missing or cannot be read.
std::optional<std::string> readShared(const std::filesystem::path& file);

// Replaces the file's text with text, making the file when it is missing (the folder must
// exist). False when it cannot be written; its text is then undefined.
bool writeShared(const std::filesystem::path& file, const std::string& text);

}  // namespace qfhost::detail
