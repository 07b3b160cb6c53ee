// The system's description of a system error number: the one platform-specific piece of
// the service-provider access.
#include "SystemText.h"
#include "service-common/ServiceProvider"

namespace SP {

namespace {

// Used when the system has no text for the number.
constexpr const char16_t* kNoDescription = u"No description is available for this error.";

} // namespace

std::u16string SystemErrorDescription(uint32_t systemError) {
    std::u16string text = detail::SystemText(systemError);
    if (text.empty()) text = kNoDescription;
    return text;
}

} // namespace SP
