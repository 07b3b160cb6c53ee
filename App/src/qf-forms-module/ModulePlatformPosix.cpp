// The module's platform seam on POSIX systems: kernel thread ids and the dynamic loader.
#include "ModulePlatform.h"

#include <atomic>

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ModulePlatform {

namespace {
std::atomic<void*> g_instance{nullptr};
} // namespace

uint64_t CurrentThreadId() {
    // Kernel thread ids: unlike pthread_self() values they are not handed out again as
    // soon as a thread ends.
    return static_cast<uint64_t>(syscall(SYS_gettid));
}

const char* const kLoggerLibrary = "liblogger.so";

void* FindLoadedLoggerEntry() {
    void* handle = dlopen(kLoggerLibrary, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) return nullptr;
    void* address = dlsym(handle, "GetLogger");
    // RTLD_NOLOAD took a reference of its own; the library stays as loaded as it was.
    dlclose(handle);
    return address;
}

void PinCurrentModule() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PinCurrentModule), &info) && info.dli_fname) {
        // The handle is kept on purpose: RTLD_NODELETE makes the library stay.
        dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

void* ModuleInstance() {
    return g_instance.load();
}
void SetModuleInstance(void* instance) {
    g_instance.store(instance);
}

} // namespace ModulePlatform
