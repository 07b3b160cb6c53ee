// System error texts on Windows: FormatMessageW, in English (United States).
#include "SystemText.h"

#include <windows.h>

namespace SP::detail {

std::u16string SystemText(uint32_t systemError) {
    // Allocate-buffer, from-system, ignore-inserts (0x1300); language 1033. A system without
    // the English texts has none to give, and the caller's fallback stands.
    wchar_t* buffer = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                           FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, systemError, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US),
                       reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::u16string text;
    if (length != 0 && buffer) text.assign(reinterpret_cast<const char16_t*>(buffer), length);
    if (buffer) LocalFree(buffer);
    return text;
}

} // namespace SP::detail
