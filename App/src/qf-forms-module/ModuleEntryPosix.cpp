// The library's entry point on POSIX systems: records the module's instance handle (the
// address it was loaded at).
#include "ModulePlatform.h"

#include <dlfcn.h>

namespace {

__attribute__((constructor)) void onModuleLoad() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&onModuleLoad), &info))
        ModulePlatform::SetModuleInstance(info.dli_fbase);
}

__attribute__((destructor)) void onModuleUnload() {
    ModulePlatform::SetModuleInstance(nullptr);
}

} // namespace
