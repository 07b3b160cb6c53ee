// The system's own text for a system error number: one source per system
// (SystemTextPosix.cpp, SystemTextWindows.cpp). Empty when the system has none.
#pragma once

#include <cstdint>
#include <string>

namespace SP::detail {

std::u16string SystemText(uint32_t systemError);

} // namespace SP::detail
