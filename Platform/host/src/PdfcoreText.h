// pdfcore's result codes in the host's failure messages.
#pragma once

#include "pdfcore/pdfcore.h"

#include <string>

namespace qfhost::detail {

// "<what>: <pdfcore's text for result> (pdfcore error <result>)". pdfcore's texts are
// ASCII; anything else would show as '?'.
inline std::string pdfcoreFailure(const std::string& what, PDResult result) {
    std::string text;
    if (const char16_t* m = PDGetErrMessage(result)) {
        for (; *m; ++m)
            text += *m < 0x80 ? static_cast<char>(*m) : '?';
    }
    return what + ": " + (text.empty() ? "failed" : text) + " (pdfcore error " +
           std::to_string(result) + ")";
}

}  // namespace qfhost::detail
