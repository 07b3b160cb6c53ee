#include "HostLogger.h"

#include "ModulePlatform.h"

#include <string>

namespace HostLogger {

GetLoggerProc FindGetLogger() {
    return reinterpret_cast<GetLoggerProc>(ModulePlatform::FindLoadedLoggerEntry());
}

GetLoggerProc GetLoggerEntry() {
    static const GetLoggerProc entry = FindGetLogger();
    return entry;
}

void Log(uint32_t severity, std::u16string_view message, const char* file, uint32_t line,
         const char* function) {
    const GetLoggerProc entry = GetLoggerEntry();
    const Logger* logger = entry ? entry() : nullptr;
    if (!logger || logger->size < sizeof(Logger) || !logger->Log) return;
    const std::u16string text(message);
    logger->Log(severity, text.c_str(), file ? file : "", line, function ? function : "");
}

} // namespace HostLogger
