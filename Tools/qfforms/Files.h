// What the qfforms commands share: writing outputs safely and finding the forms module.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace qfforms {

// Writes bytes to path through a new file beside it and a rename, so that a failure leaves
// the target as it was. Returns the problem, or nothing.
std::optional<std::string> writeAtomically(const std::filesystem::path& path,
                                           const std::string& bytes);

// The forms module to load: given (when not empty), else $QF_FORMS_MODULE, else the one
// built with this program.
std::string modulePath(const std::string& given);

} // namespace qfforms
