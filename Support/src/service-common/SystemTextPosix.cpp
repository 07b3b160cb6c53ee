// System error texts on POSIX systems: strerror_r, in the narrow code page.
#include "SystemText.h"
#include "qf/internal/TextConversion.h"

#include <cstring>

namespace SP::detail {

namespace {

// strerror_r comes in two flavours: the XSI one returns a status and fills buf, the GNU
// one returns the text (which may or may not be buf).
[[maybe_unused]] const char* strerrorResult(int status, const char* buf) {
    return status == 0 ? buf : nullptr;
}
[[maybe_unused]] const char* strerrorResult(const char* text, const char*) {
    return text;
}

} // namespace

std::u16string SystemText(uint32_t systemError) {
    char buffer[256] = {};
    const char* text =
        strerrorResult(strerror_r(static_cast<int>(systemError), buffer, sizeof buffer), buffer);
    return text ? SOImpl::AcpToUtf16(text) : std::u16string();
}

} // namespace SP::detail
