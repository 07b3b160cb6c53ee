// Text conversions at the edges of the module (narrow code page, UTF-8, UTF-16) and the
// positional message formatting ("%1%", "%2%", ...) used for failure texts.
#pragma once

#include <boost/format.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace SOImpl {

// Most bytes of narrow input that one conversion reads; longer input is cut there.
inline constexpr size_t kMaxNarrowInput = 0x1FFFFF;

// A narrow text in the process's ANSI code page as UTF-16. Null gives an empty text, and
// so does a conversion that fails.
std::u16string AcpToUtf16(const char* text);
std::u16string AcpToUtf16(const char* text, size_t length);

std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

namespace detail {
inline std::string formatArgument(const std::u16string& text) {
    return Utf16ToUtf8(text);
}
inline std::string formatArgument(std::u16string_view text) {
    return Utf16ToUtf8(text);
}
inline std::string formatArgument(const char16_t* text) {
    return Utf16ToUtf8(text ? std::u16string_view(text) : std::u16string_view());
}
template <typename T> const T& formatArgument(const T& value) {
    return value;
}
} // namespace detail

// pattern (UTF-8) with %1%, %2%, ... replaced by the arguments in that position; wide
// arguments are taken as UTF-16, numbers are written in decimal.
template <typename... Args> std::u16string FormatText(const char* pattern, const Args&... args) {
    boost::format format(pattern);
    ((format % detail::formatArgument(args)), ...);
    return Utf8ToUtf16(format.str());
}

} // namespace SOImpl
