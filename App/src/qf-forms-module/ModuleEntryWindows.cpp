// The library's entry point on Windows: records the module's instance handle.
#include "ModulePlatform.h"

#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) ModulePlatform::SetModuleInstance(instance);
    if (reason == DLL_PROCESS_DETACH) ModulePlatform::SetModuleInstance(nullptr);
    return TRUE;
}
