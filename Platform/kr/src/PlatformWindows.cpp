// The platform seam on Windows: the narrow code page is the process's ANSI code page
// (CP_ACP), which is UTF-8 only when the application's manifest or the system says so.
#include "Platform.h"
#include "Utf.h"

#include <windows.h>

#include <algorithm>
#include <climits>

namespace kr::platform {

namespace {

// The system's converters count in int; longer texts go through in pieces of this size,
// cut so that no character is split.
constexpr size_t kPiece = size_t(1) << 30;

// The length of the first piece of a narrow text: at most kPiece bytes, ending on a
// character boundary of the double-byte code pages.
size_t narrowPiece(const char* src, size_t srcLen) {
    if (srcLen <= kPiece) return srcLen;
    size_t at = 0;
    while (at < kPiece)
        at += IsDBCSLeadByteEx(CP_ACP, static_cast<BYTE>(src[at])) ? 2 : 1;
    return at > kPiece ? at - 2 : at;
}

// The length of the first piece of a UTF-16 text: a surrogate pair stays whole.
size_t widePiece(const char16_t* src, size_t srcLen) {
    if (srcLen <= kPiece) return srcLen;
    return (src[kPiece - 1] >= 0xD800 && src[kPiece - 1] <= 0xDBFF) ? kPiece - 1 : kPiece;
}

} // namespace

bool acpIsUtf8() {
    return GetACP() == CP_UTF8;
}

size_t acpToUtf16(const char* src, size_t srcLen, char16_t* dst) {
    // The runtime's own decoder when the code page is UTF-8: ill-formed input becomes
    // U+FFFD exactly as on the other systems.
    if (acpIsUtf8()) return utf::utf8ToUtf16(src, srcLen, dst);
    size_t total = 0;
    while (srcLen > 0) {
        const size_t piece = narrowPiece(src, srcLen);
        // Without MB_ERR_INVALID_CHARS bytes the code page has no character for become its
        // default character; nothing fails.
        const int n = MultiByteToWideChar(CP_ACP, 0, src, static_cast<int>(piece),
                                          dst ? reinterpret_cast<wchar_t*>(dst + total) : nullptr,
                                          dst ? INT_MAX : 0);
        total += static_cast<size_t>(std::max(n, 0));
        src += piece;
        srcLen -= piece;
    }
    return total;
}

size_t utf16ToAcp(const char16_t* src, size_t srcLen, char* dst) {
    if (acpIsUtf8()) return utf::utf16ToUtf8(src, srcLen, dst);
    size_t total = 0;
    while (srcLen > 0) {
        const size_t piece = widePiece(src, srcLen);
        const int n = WideCharToMultiByte(CP_ACP, 0, reinterpret_cast<const wchar_t*>(src),
                                          static_cast<int>(piece), dst ? dst + total : nullptr,
                                          dst ? INT_MAX : 0, nullptr, nullptr);
        total += static_cast<size_t>(std::max(n, 0));
        src += piece;
        srcLen -= piece;
    }
    return total;
}

std::string systemLanguage() {
    // The language of the user interface (not the regional format): "ja-JP".
    const LANGID language = GetUserDefaultUILanguage();
    wchar_t name[LOCALE_NAME_MAX_LENGTH] = {};
    if (LCIDToLocaleName(MAKELCID(language, SORT_DEFAULT), name, LOCALE_NAME_MAX_LENGTH, 0) <= 0)
        return {};
    std::string tag;
    for (const wchar_t* c = name; *c; ++c)
        tag += (*c < 0x80) ? static_cast<char>(*c) : '?';
    return tag;
}

} // namespace kr::platform
