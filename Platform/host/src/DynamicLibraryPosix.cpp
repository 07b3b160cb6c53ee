#include "DynamicLibrary.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <dlfcn.h>
#endif

namespace qfhost::detail {

#if defined(_WIN32)

namespace {
std::wstring widen(const std::string& s) {
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
    return w;
}
}  // namespace

OpenResult openLibrary(const std::string& path) {
    OpenResult r;
    r.handle = LoadLibraryW(widen(path).c_str());
    if (!r.handle) {
        DWORD e = GetLastError();
        r.systemError = e ? static_cast<uint32_t>(e) : ERROR_MOD_NOT_FOUND;
        r.message = "LoadLibraryW failed for " + path;
    }
    return r;
}

SymbolResult findSymbol(void* handle, const char* name) {
    SymbolResult r;
    r.address = reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
    if (!r.address) {
        r.systemError = static_cast<uint32_t>(GetLastError());
        r.message = std::string("GetProcAddress found no ") + name;
    }
    return r;
}

void closeLibrary(void* handle) {
    if (handle) FreeLibrary(static_cast<HMODULE>(handle));
}

#else

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

#endif

}  // namespace qfhost::detail
