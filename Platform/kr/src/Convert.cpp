// Text conversions with the two-call length pattern.
#include "Platform.h"
#include "Utf.h"
#include "kr/KRRuntime.h"

#include <cstdint>

namespace {

// conv(src, srcLen, dst) returns the result's length and writes it when dst is not null.
template <typename S, typename D, typename Conv>
uint32_t convert(const S* src, size_t srcLen, D* dst, size_t dstLen, size_t* outLen, Conv conv) {
    // A UTF-16 to UTF-8 result is at most 3 units per input unit; the bound also turns
    // away negative lengths cast to size_t.
    if (!outLen || (!src && srcLen > 0) || srcLen > SIZE_MAX / 4) return KR_ERR_BAD_ARGUMENT;
    const size_t needed = conv(src, srcLen, nullptr);
    *outLen = needed;
    if (!dst) return KR_OK;
    if (dstLen < needed) return KR_ERR_BUFFER_SMALL;
    conv(src, srcLen, dst);
    if (dstLen > needed) dst[needed] = 0;
    return KR_OK;
}

} // namespace

extern "C" {

KR_API uint32_t KRConvertACPToUnicode(const char* src, size_t srcLen, char16_t* dst, size_t dstLen,
                                      size_t* outLen) {
    return convert(src, srcLen, dst, dstLen, outLen, kr::platform::acpToUtf16);
}

KR_API uint32_t KRConvertUTF16ToUTF8(const char16_t* src, size_t srcLen, char* dst, size_t dstLen,
                                     size_t* outLen) {
    return convert(src, srcLen, dst, dstLen, outLen, kr::utf::utf16ToUtf8);
}

KR_API uint32_t KRConvertUTF8ToUTF16(const char* src, size_t srcLen, char16_t* dst, size_t dstLen,
                                     size_t* outLen) {
    return convert(src, srcLen, dst, dstLen, outLen, kr::utf::utf8ToUtf16);
}

} // extern "C"
