// The host's optional logger. It is used only when the host has loaded its logger library
// before the module asks; the module never loads it, and without it logging is off and
// nothing else changes.
#pragma once

namespace HostLogger {

// The logger library's "GetLogger" export; its interface is the host's.
using GetLoggerProc = void (*)();

// Looks the export up now.
GetLoggerProc FindGetLogger();

// The export as found on first use, kept for the life of the module; null when logging
// is off.
GetLoggerProc GetLoggerEntry();

inline bool IsEnabled() {
    return GetLoggerEntry() != nullptr;
}

} // namespace HostLogger
