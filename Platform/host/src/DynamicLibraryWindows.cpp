// The dynamic loader on Windows: LoadLibraryExW (the path is UTF-8), GetProcAddress,
// FreeLibrary.
#include "DynamicLibrary.h"

#include <windows.h>

namespace qfhost::detail {

namespace {
// The loader takes backslashes only.
std::wstring widen(const std::string& s) {
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
    for (wchar_t& c : w)
        if (c == L'/') c = L'\\';
    return w;
}
}  // namespace

OpenResult openLibrary(const std::string& path) {
    OpenResult r;
    // With a path, the library's own folder is where its dependencies are looked for first.
    // That search wants a full path.
    std::wstring wide = widen(path);
    const bool hasFolder = wide.find_first_of(L"\\:") != std::wstring::npos;
    if (hasFolder) {
        const DWORD n = GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr);
        std::wstring full(n, L'\0');
        if (n && GetFullPathNameW(wide.c_str(), n, full.data(), nullptr) == n - 1) {
            full.resize(n - 1);
            wide = full;
        }
    }
    r.handle = LoadLibraryExW(wide.c_str(), nullptr, hasFolder ? LOAD_WITH_ALTERED_SEARCH_PATH : 0);
    if (!r.handle) {
        DWORD e = GetLastError();
        r.systemError = e ? static_cast<uint32_t>(e) : ERROR_MOD_NOT_FOUND;
        r.message = "LoadLibraryExW failed for " + path;
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

}  // namespace qfhost::detail
