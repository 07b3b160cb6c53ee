// The system's description of a system error number: the one platform-specific piece of
// the service-provider access.
#include "qf/internal/TextConversion.h"
#include "service-common/ServiceProvider"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cstring>
#endif

namespace SP {

namespace {

// Used when the system has no text for the number.
constexpr const char16_t* kNoDescription = u"No description is available for this error.";

#if !defined(_WIN32)
// strerror_r comes in two flavours: the XSI one returns a status and fills buf, the GNU
// one returns the text (which may or may not be buf).
[[maybe_unused]] const char* strerrorResult(int status, const char* buf) {
    return status == 0 ? buf : nullptr;
}
[[maybe_unused]] const char* strerrorResult(const char* text, const char*) {
    return text;
}
#endif

std::u16string systemText(uint32_t systemError) {
#if defined(_WIN32)
    // Allocate-buffer, from-system, ignore-inserts; English (United States).
    wchar_t* buffer = nullptr;
    const DWORD length = FormatMessageW(0x1300, nullptr, systemError, 1033,
                                        reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::u16string text;
    if (length != 0 && buffer) text.assign(reinterpret_cast<const char16_t*>(buffer), length);
    if (buffer) LocalFree(buffer);
    return text;
#else
    char buffer[256] = {};
    const char* text =
        strerrorResult(strerror_r(static_cast<int>(systemError), buffer, sizeof buffer), buffer);
    return text ? SOImpl::AcpToUtf16(text) : std::u16string();
#endif
}

} // namespace

std::u16string SystemErrorDescription(uint32_t systemError) {
    std::u16string text = systemText(systemError);
    if (text.empty()) text = kNoDescription;
    return text;
}

} // namespace SP
