// The host's optional logger. It is used only when the host has loaded its logger library
// before the module asks; the module never loads it, and without it logging is off and
// nothing else changes.
#pragma once

#include <cstdint>
#include <string_view>

namespace HostLogger {

// What the logger library's "GetLogger" export answers: the host's log sink. size: the
// size of the structure the host filled (a sink without Log is not used).
struct Logger {
    uint32_t size;
    // severity: 1 error, 2 warning, 3 information. Texts are valid during the call.
    void (*Log)(uint32_t severity, const char16_t* message, const char* file, uint32_t line,
                const char* function);
};
using GetLoggerProc = const Logger* (*)();

// Looks the export up now.
GetLoggerProc FindGetLogger();

// The export as found on first use, kept for the life of the module; null when logging
// is off.
GetLoggerProc GetLoggerEntry();

inline bool IsEnabled() {
    return GetLoggerEntry() != nullptr;
}

// Hands the message to the host's logger; nothing when logging is off.
void Log(uint32_t severity, std::u16string_view message, const char* file, uint32_t line,
         const char* function);

} // namespace HostLogger
