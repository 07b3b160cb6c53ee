// Saves as an incremental update (SaveIncremental.cpp).
#pragma once

#include "Core.h"

#include <optional>
#include <string>

namespace pdfcore {

// Whether the document can be saved as an update of the file it was read from: read from a
// file or from memory, not encrypted, read without repairs.
bool canAppend(Document& doc);
// The bytes of the file with this session's changes appended as an update, or nothing when
// the document cannot take one (canAppend), or qpdf finds something to repair in it, or
// does not read the result back as it was meant: the caller then writes the file whole.
std::optional<std::string> appendedFile(Document& doc);

}  // namespace pdfcore
