// What the qfforms commands share: their command-line options, writing outputs safely and
// finding the forms module.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qfforms {

// Reads args: each valued option as "--name VALUE" or "--name=VALUE" (an empty value is a
// usage problem), each flag (-h and --help count as "--help" when listed), and the rest
// as positional arguments in order. Returns the usage problem, or nothing.
std::optional<std::string>
parseArguments(const std::vector<std::string>& args,
               std::initializer_list<std::pair<const char*, std::string*>> valued,
               std::initializer_list<std::pair<const char*, bool*>> flags,
               std::vector<std::string>& positional);

// Writes bytes to path through a new file beside it and a rename, so that a failure leaves
// the target as it was. Returns the problem, or nothing.
std::optional<std::string> writeAtomically(const std::filesystem::path& path,
                                           const std::string& bytes);

// The forms module to load: given (when not empty), else $QF_FORMS_MODULE, else the one
// built with this program.
std::string modulePath(const std::string& given);

} // namespace qfforms
