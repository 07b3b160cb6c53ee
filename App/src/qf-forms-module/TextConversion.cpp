#include "qf/internal/TextConversion.h"

#include "kr/KRRuntime.h"

#include <cstring>
#include <memory>

namespace SOImpl {

std::u16string AcpToUtf16(const char* text) {
    if (!text) return {};
    return AcpToUtf16(text, strnlen(text, kMaxNarrowInput));
}

std::u16string AcpToUtf16(const char* text, size_t length) {
    if (!text) return {};
    if (length > kMaxNarrowInput) length = kMaxNarrowInput;
    size_t needed = 0;
    if (KRConvertACPToUnicode(text, length, nullptr, 0, &needed) != KR_OK) return {};
    // Short results are converted on the stack.
    char16_t inlineBuffer[31];
    std::unique_ptr<char16_t[]> heapBuffer;
    char16_t* buffer = inlineBuffer;
    if (needed >= std::size(inlineBuffer)) {
        heapBuffer = std::make_unique<char16_t[]>(needed + 1);
        buffer = heapBuffer.get();
    }
    if (KRConvertACPToUnicode(text, length, buffer, needed + 1, &needed) != KR_OK) return {};
    buffer[needed] = u'\0';
    return std::u16string(buffer, needed);
}

std::u16string Utf8ToUtf16(std::string_view text) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(text.data(), text.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::u16string result(needed, u'\0');
    // One unit more than needed, for the terminator that std::u16string keeps anyway.
    if (KRConvertUTF8ToUTF16(text.data(), text.size(), result.data(), needed + 1, &needed) != KR_OK)
        return {};
    return result;
}

std::string Utf16ToUtf8(std::u16string_view text) {
    size_t needed = 0;
    if (KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::string result(needed, '\0');
    if (KRConvertUTF16ToUTF8(text.data(), text.size(), result.data(), needed + 1, &needed) != KR_OK)
        return {};
    return result;
}

} // namespace SOImpl
