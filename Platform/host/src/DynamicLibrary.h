// The one place where the host touches the system's dynamic loader.
#pragma once

#include <cstdint>
#include <string>

namespace qfhost::detail {

struct OpenResult {
    void* handle = nullptr;     // null on failure
    uint32_t systemError = 0;   // the system's error number on failure, never 0 then
    std::string message;        // the loader's own text on failure
};

// Loads the library at path (UTF-8).
OpenResult openLibrary(const std::string& path);

struct SymbolResult {
    void* address = nullptr;
    uint32_t systemError = 0;  // the system's error number when it gives one, else 0
    std::string message;
};

SymbolResult findSymbol(void* handle, const char* name);

// Unloads a library opened by openLibrary.
void closeLibrary(void* handle);

}  // namespace qfhost::detail
