// What the program checks before the forms module sees it: widget records against the
// record format (docs/schema/widget-record.schema.json), field names, and the sizes it
// accepts. Each check answers one sentence for the person, naming what is wrong and where.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace qfforms {

// The sizes the program accepts (docs/reliability.md, "Bounds", has the figures behind
// them). A record is never bigger than the editor's request bodies.
inline constexpr size_t kMaxRecordBytes = 4u << 20;
inline constexpr uint64_t kMaxFileBytes = 512ull << 20;
inline constexpr uint64_t kMaxScriptBytes = 64ull << 20;
inline constexpr uint32_t kMaxPages = 100000;
inline constexpr uint32_t kMaxWidgets = 50000;

// The problem of text as a widget record, as a sentence starting "the record": not JSON,
// too big, or not of the record format (the key path and what it must hold). Nothing for
// a record of the format, which goes to the module as it is.
std::optional<std::string> recordProblem(std::string_view text);

// The text of a JSON library failure without its tag ("[json.exception.parse_error.101] "),
// for a detail the person reads.
std::string jsonDetail(const std::exception& e);

// The problem of name (UTF-8) as a field name: a control character (U+0000 to U+001F,
// U+007F), which pdfcore would cut the name at or keep unseen. what names the name in the
// sentence ("the new name", "the record's \"name\"").
std::optional<std::string> nameProblem(std::string_view name, const std::string& what);

} // namespace qfforms
