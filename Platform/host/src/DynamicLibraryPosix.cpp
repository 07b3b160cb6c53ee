// The dynamic loader on POSIX systems: dlopen, dlsym, dlclose.
#include "DynamicLibrary.h"

#include <cerrno>
#include <dlfcn.h>

namespace qfhost::detail {

namespace {
// dlopen does not promise to set errno; when it leaves none behind, this stands for "the
// library could not be loaded".
#if defined(ELIBBAD)
constexpr uint32_t kLoadFailed = ELIBBAD;
#else
constexpr uint32_t kLoadFailed = EINVAL;
#endif
}  // namespace

OpenResult openLibrary(const std::string& path) {
    OpenResult r;
    errno = 0;
    r.handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!r.handle) {
        int e = errno;
        r.systemError = e ? static_cast<uint32_t>(e) : kLoadFailed;
        const char* text = dlerror();
        r.message = text ? text : "dlopen failed for " + path;
    }
    return r;
}

SymbolResult findSymbol(void* handle, const char* name) {
    SymbolResult r;
    dlerror();
    r.address = dlsym(handle, name);
    if (!r.address) {
        // dlsym reports through dlerror only: there is no system error number.
        const char* text = dlerror();
        r.message = text ? text : std::string("no symbol ") + name;
    }
    return r;
}

void closeLibrary(void* handle) {
    if (handle) dlclose(handle);
}

}  // namespace qfhost::detail
