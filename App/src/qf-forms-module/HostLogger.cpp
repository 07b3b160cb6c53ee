#include "HostLogger.h"

#include "ModulePlatform.h"

namespace HostLogger {

GetLoggerProc FindGetLogger() {
    return reinterpret_cast<GetLoggerProc>(ModulePlatform::FindLoadedLoggerEntry());
}

GetLoggerProc GetLoggerEntry() {
    static const GetLoggerProc entry = FindGetLogger();
    return entry;
}

} // namespace HostLogger
