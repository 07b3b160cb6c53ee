// The module's platform seam on Windows: thread ids and the loader's module handles.
#include "ModulePlatform.h"

#include <atomic>

#include <windows.h>

namespace ModulePlatform {

namespace {
std::atomic<void*> g_instance{nullptr};
} // namespace

uint64_t CurrentThreadId() {
    return GetCurrentThreadId();
}

const char* const kLoggerLibrary = "logger.dll";

void* FindLoadedLoggerEntry() {
    // GetModuleHandleW takes no reference and never loads the library.
    HMODULE handle = GetModuleHandleW(L"logger.dll");
    return handle ? reinterpret_cast<void*>(GetProcAddress(handle, "GetLogger")) : nullptr;
}

void PinCurrentModule() {
    HMODULE handle = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&PinCurrentModule), &handle);
}

void* ModuleInstance() {
    return g_instance.load();
}
void SetModuleInstance(void* instance) {
    g_instance.store(instance);
}

} // namespace ModulePlatform
