// The five functions that a service-object module exports, as a host calls them.
#pragma once

#include "qf/ServiceObject.h"

#include <cstdint>

#if defined(_WIN32)
#define QF_MODULE_EXPORT __declspec(dllexport)
#else
#define QF_MODULE_EXPORT __attribute__((visibility("default")))
#endif

// One entry of the table that ReflectServiceObjectInfo hands out (16 bytes).
struct ServiceObjectInfoEntry {
    uint32_t id;      // atom of the name; 0xFFFFFFFF while the module has not resolved it
    uint32_t padding; // unspecified
    const char* name; // the service object's name
};
static_assert(sizeof(ServiceObjectInfoEntry) == 16);

extern "C" {

// A new public service object whose name has atom serviceId: 0 and one reference in *out;
// 3 for a zero or 0xFFFFFFFF id or a null out, 0x10005 when the module has no such object,
// 0x10006 when its factory fails.
QF_MODULE_EXPORT uint32_t CreateServiceObject(uint32_t serviceId, SODetails::ServiceObject** out);

// The module's public service objects: a table built on the first call and kept for the
// life of the module, its entry count (the zero entry that ends it is not counted). 3 for
// a null argument, 0x10007 (and null, 0) when there are none.
QF_MODULE_EXPORT uint32_t ReflectServiceObjectInfo(ServiceObjectInfoEntry** outEntries,
                                                   uint32_t* outCount);

// Hooks around the module's life; they do nothing and return 0.
QF_MODULE_EXPORT uint32_t ServiceObjectModuleInitialize();
QF_MODULE_EXPORT uint32_t ServiceObjectModuleOnCleanup();
QF_MODULE_EXPORT uint32_t ServiceObjectModuleOnFree();
}
