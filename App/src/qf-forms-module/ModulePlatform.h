// The module's few platform-specific needs, one function each.
#pragma once

#include <cstdint>

namespace ModulePlatform {

// A number for the calling thread, distinct among the threads alive in the process.
uint64_t CurrentThreadId();

// The host logger's library: "logger.dll" on Windows, "liblogger.so" elsewhere.
extern const char* const kLoggerLibrary;

// The address of the host logger's "GetLogger" export when its library is loaded
// already; null otherwise. Never loads the library.
void* FindLoadedLoggerEntry();

// Keeps the library that contains this code loaded until the process ends.
void PinCurrentModule();

// The module's instance handle, recorded by the library's entry point (null before load
// and after unload).
void* ModuleInstance();
void SetModuleInstance(void* instance);

} // namespace ModulePlatform
