#include "ModulePlatform.h"

#include <atomic>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace ModulePlatform {

namespace {
std::atomic<void*> g_instance{nullptr};
} // namespace

uint64_t CurrentThreadId() {
#if defined(_WIN32)
    return GetCurrentThreadId();
#else
    // Kernel thread ids: unlike pthread_self() values they are not handed out again as
    // soon as a thread ends.
    return static_cast<uint64_t>(syscall(SYS_gettid));
#endif
}

#if defined(_WIN32)
const char* const kLoggerLibrary = "logger.dll";
#else
const char* const kLoggerLibrary = "liblogger.so";
#endif

void* FindLoadedLoggerEntry() {
#if defined(_WIN32)
    HMODULE handle = GetModuleHandleW(L"logger.dll");
    return handle ? reinterpret_cast<void*>(GetProcAddress(handle, "GetLogger")) : nullptr;
#else
    void* handle = dlopen(kLoggerLibrary, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) return nullptr;
    void* address = dlsym(handle, "GetLogger");
    // RTLD_NOLOAD took a reference of its own; the library stays as loaded as it was.
    dlclose(handle);
    return address;
#endif
}

void PinCurrentModule() {
#if defined(_WIN32)
    HMODULE handle = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&PinCurrentModule), &handle);
#else
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PinCurrentModule), &info) && info.dli_fname) {
        // The handle is kept on purpose: RTLD_NODELETE makes the library stay.
        dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
#endif
}

void* ModuleInstance() {
    return g_instance.load();
}
void SetModuleInstance(void* instance) {
    g_instance.store(instance);
}

} // namespace ModulePlatform
