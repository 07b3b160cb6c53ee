// `qfforms inspect`: a JSON description of a document's pages, annotations and fields.
#pragma once

#include "Files.h"

#include "pdfcore/pdfcore.h"

#include <nlohmann/json.hpp>
#include <string>

namespace qfforms {

using Json = nlohmann::ordered_json;

// Describes an open document. path is only copied into the "file" member.
// Throws PdError when a pdfcore call fails.
Json inspectDocument(PDDoc doc, const std::string& path);

// Opens the file at path (UTF-8) with password and describes it. Throws OpenRefused when
// the password is missing or wrong, PdError for other failures.
Json inspectFile(const std::string& path, const Password& password);

} // namespace qfforms
