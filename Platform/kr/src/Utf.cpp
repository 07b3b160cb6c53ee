#include "Utf.h"

#include <cstdint>

namespace kr::utf {
namespace {

// Decodes one code point from s[i..n) and advances i past what it consumed. An ill-formed
// part gives kReplacement and advances past the maximal ill-formed part only, so that the
// byte that broke a sequence is read again as the possible start of the next one.
char32_t nextFromUtf8(const unsigned char* s, size_t n, size_t& i) {
    const unsigned char b = s[i++];
    if (b < 0x80) return b;

    int trail;
    char32_t cp;
    unsigned char lo = 0x80, hi = 0xBF; // allowed range of the first trail byte
    if (b >= 0xC2 && b <= 0xDF) {
        trail = 1;
        cp = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
        trail = 2;
        cp = b & 0x0F;
        if (b == 0xE0) lo = 0xA0; // overlong below U+0800
        if (b == 0xED) hi = 0x9F; // U+D800..U+DFFF
    } else if (b >= 0xF0 && b <= 0xF4) {
        trail = 3;
        cp = b & 0x07;
        if (b == 0xF0) lo = 0x90; // overlong below U+10000
        if (b == 0xF4) hi = 0x8F; // above U+10FFFF
    } else {
        return kReplacement; // 0x80..0xC1 and 0xF5..0xFF never start a sequence
    }
    for (int k = 0; k < trail; ++k) {
        if (i >= n || s[i] < lo || s[i] > hi) return kReplacement;
        cp = (cp << 6) | (s[i++] & 0x3F);
        lo = 0x80;
        hi = 0xBF;
    }
    return cp;
}

char32_t nextFromUtf16(const char16_t* s, size_t n, size_t& i) {
    const char16_t u = s[i++];
    if (u < 0xD800 || u > 0xDFFF) return u;
    if (u <= 0xDBFF && i < n && s[i] >= 0xDC00 && s[i] <= 0xDFFF) {
        const char16_t low = s[i++];
        return 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(low) - 0xDC00);
    }
    return kReplacement;
}

size_t putUtf16(char32_t cp, char16_t* dst) {
    if (cp < 0x10000) {
        if (dst) dst[0] = char16_t(cp);
        return 1;
    }
    if (dst) {
        cp -= 0x10000;
        dst[0] = char16_t(0xD800 + (cp >> 10));
        dst[1] = char16_t(0xDC00 + (cp & 0x3FF));
    }
    return 2;
}

size_t putUtf8(char32_t cp, char* dst) {
    if (cp < 0x80) {
        if (dst) dst[0] = char(cp);
        return 1;
    }
    if (cp < 0x800) {
        if (dst) {
            dst[0] = char(0xC0 | (cp >> 6));
            dst[1] = char(0x80 | (cp & 0x3F));
        }
        return 2;
    }
    if (cp < 0x10000) {
        if (dst) {
            dst[0] = char(0xE0 | (cp >> 12));
            dst[1] = char(0x80 | ((cp >> 6) & 0x3F));
            dst[2] = char(0x80 | (cp & 0x3F));
        }
        return 3;
    }
    if (dst) {
        dst[0] = char(0xF0 | (cp >> 18));
        dst[1] = char(0x80 | ((cp >> 12) & 0x3F));
        dst[2] = char(0x80 | ((cp >> 6) & 0x3F));
        dst[3] = char(0x80 | (cp & 0x3F));
    }
    return 4;
}

} // namespace

size_t utf8ToUtf16(const char* src, size_t srcLen, char16_t* dst) {
    const auto* s = reinterpret_cast<const unsigned char*>(src);
    size_t out = 0;
    for (size_t i = 0; i < srcLen;)
        out += putUtf16(nextFromUtf8(s, srcLen, i), dst ? dst + out : nullptr);
    return out;
}

size_t utf16ToUtf8(const char16_t* src, size_t srcLen, char* dst) {
    size_t out = 0;
    for (size_t i = 0; i < srcLen;)
        out += putUtf8(nextFromUtf16(src, srcLen, i), dst ? dst + out : nullptr);
    return out;
}

bool isValidUtf8(std::string_view s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    for (size_t i = 0; i < s.size();) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        // A decoded U+FFFD is either the replacement of an ill-formed part or a
        // well-formed EF BF BD; only the latter consumes exactly those three bytes.
        const size_t start = i;
        if (nextFromUtf8(p, s.size(), i) == kReplacement &&
            !(i - start == 3 && p[start] == 0xEF && p[start + 1] == 0xBF && p[start + 2] == 0xBD))
            return false;
    }
    return true;
}

} // namespace kr::utf
