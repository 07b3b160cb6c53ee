// Stands in for the host's logger library: "GetLogger" answers a sink that keeps every
// message, which tests read back through FakeLoggerMessages.
#include <cstdint>
#include <string>
#include <vector>

namespace {

struct Logger {
    uint32_t size;
    void (*Log)(uint32_t severity, const char16_t* message, const char* file, uint32_t line,
                const char* function);
};

std::vector<std::u16string>& messages() {
    static std::vector<std::u16string> kept;
    return kept;
}

void log(uint32_t severity, const char16_t* message, const char*, uint32_t, const char*) {
    messages().push_back(std::u16string(1, char16_t(u'0' + severity)) + u" " + message);
}

const Logger kLogger{sizeof(Logger), &log};

} // namespace

extern "C" __attribute__((visibility("default"))) const Logger* GetLogger() {
    return &kLogger;
}

// Every message so far, as "<severity> <text>".
extern "C" __attribute__((visibility("default"))) const std::vector<std::u16string>*
FakeLoggerMessages() {
    return &messages();
}
