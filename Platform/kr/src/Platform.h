// The runtime's seam to the operating system. Everything that differs between systems
// is behind these few functions; each system has one source file implementing them.
#pragma once

#include <cstddef>
#include <string>

namespace kr::platform {

// True when the process's narrow ("ANSI") code page is UTF-8, as it always is outside
// Windows. The atom table then keeps one copy of each name.
bool acpIsUtf8();

// Narrow code page <-> UTF-16, with the contract of the converters in Utf.h: the result's
// length in units is returned, and written to dst when dst is not null. Input the code
// page cannot express becomes U+FFFD (towards UTF-16) or the code page's default
// character (towards the code page).
size_t acpToUtf16(const char* src, size_t srcLen, char16_t* dst);
size_t utf16ToAcp(const char16_t* src, size_t srcLen, char* dst);

// The user's language as the system gives it, in any of its spellings ("ja_JP.UTF-8",
// "ja-JP", "C"); empty when the system says nothing.
std::string systemLanguage();

} // namespace kr::platform
