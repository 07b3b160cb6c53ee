// UTF-8 / UTF-16 codecs shared by the runtime's atom table and text conversions.
//
// Decoding never fails: each maximal ill-formed part of the input (a byte that cannot
// start a sequence, a sequence cut short, an overlong form, an encoded surrogate, a code
// point above U+10FFFF, an unpaired surrogate) becomes one U+FFFD.
#pragma once

#include <cstddef>
#include <string_view>

namespace kr::utf {

inline constexpr char32_t kReplacement = 0xFFFD;

// Each converter returns the number of units of the result. When dst is not null it also
// writes them there; dst must then have room for at least that many units (the count of
// a first call with dst null). No terminator is written.
size_t utf8ToUtf16(const char* src, size_t srcLen, char16_t* dst);
size_t utf16ToUtf8(const char16_t* src, size_t srcLen, char* dst);

// True when s is well-formed UTF-8 (so that decoding it would replace nothing).
bool isValidUtf8(std::string_view s);

} // namespace kr::utf
