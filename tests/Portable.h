// The few system calls the tests make themselves, the same on POSIX systems and on Windows:
// the environment and the dynamic loader.
#pragma once

#include <string>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// windows.h's leftovers of 16-bit pointers would take these words from the tests.
#undef near
#undef far

#include <cstdlib>
#else
#include <dlfcn.h>

#include <cstdlib>
#endif

namespace qftest {

// Sets (value not null) or removes a variable of this process's environment, as getenv in
// every library of the process then reads it.
inline void setEnv(const char* name, const char* value) {
#if defined(_WIN32)
    _putenv_s(name, value ? value : "");
#else
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
#endif
}

// Loads the library at path (a reference of its own); null on failure.
inline void* openLibrary(const char* path) {
#if defined(_WIN32)
    return reinterpret_cast<void*>(LoadLibraryA(path));
#else
    return ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
#endif
}

// The library at path when the process has loaded it already (a reference of its own); null
// otherwise. Never loads it.
inline void* loadedLibrary(const char* path) {
#if defined(_WIN32)
    HMODULE module = nullptr;
    return GetModuleHandleExA(0, path, &module) ? reinterpret_cast<void*>(module) : nullptr;
#else
    return ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
#endif
}

inline void* librarySymbol(void* library, const char* name) {
#if defined(_WIN32)
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
#else
    return ::dlsym(library, name);
#endif
}

inline void closeLibrary(void* library) {
#if defined(_WIN32)
    FreeLibrary(static_cast<HMODULE>(library));
#else
    ::dlclose(library);
#endif
}

// The loader's text for the last failure.
inline std::string libraryError() {
#if defined(_WIN32)
    return "system error " + std::to_string(GetLastError());
#else
    const char* text = ::dlerror();
    return text ? text : "";
#endif
}

} // namespace qftest
