// Saves as an incremental update (SaveIncremental.cpp).
#pragma once

#include "Core.h"

#include <optional>
#include <string>
#include <string_view>

namespace pdfcore {

// Whether the document can be saved as an update of the file it was read from: read from a
// file or from memory, not encrypted, read without repairs.
bool canAppend(Document& doc);
// An update, to be appended after the bytes it was made for.
struct Update {
    std::string bytes;    // empty when nothing changed
    int64_t section = -1; // where its cross-reference section starts in the whole file
};

// The update that takes the file's bytes, followed by appended (what saves appended to the
// file in place since it was read, whose last section starts at lastSection), to the
// document as it is now: the objects changed since and those made that they lead to.
// Nothing when the document cannot take one (canAppend), or qpdf finds something to
// repair in it, or does not read the result back as it was meant: the caller then writes
// the file whole.
std::optional<Update> updateAfter(Document& doc, std::string_view appended,
                                  int64_t lastSection);

}  // namespace pdfcore
