// The platform seam for systems whose narrow code page is UTF-8.
#include "Platform.h"
#include "Utf.h"

#include <cstdlib>

namespace kr::platform {

bool acpIsUtf8() {
    return true;
}

size_t acpToUtf16(const char* src, size_t srcLen, char16_t* dst) {
    return utf::utf8ToUtf16(src, srcLen, dst);
}

size_t utf16ToAcp(const char16_t* src, size_t srcLen, char* dst) {
    return utf::utf16ToUtf8(src, srcLen, dst);
}

std::string systemLanguage() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value && *value) return value;
    }
    return {};
}

} // namespace kr::platform
