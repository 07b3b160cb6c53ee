// The host's service provider: how a module reaches a host service (or a public service
// object of another module) by the atom of its name.
#pragma once

#include "qf/ServiceObject.h"

#include <cstdint>

#if defined(_WIN32)
#if defined(QF_SERVICE_PROVIDER_BUILDING)
#define QF_SP_API __declspec(dllexport)
#else
#define QF_SP_API __declspec(dllimport)
#endif
#else
#define QF_SP_API __attribute__((visibility("default")))
#endif

extern "C" {

// Result codes of the provider beside 0 and 3 (null out).
enum : uint32_t {
    SP_ERR_NOT_SUPPORTED = 0x10008,  // no service of that name is known to the provider
    SP_ERR_NO_MODULE = 0x10009,      // the module that offers it could not be loaded
    SP_ERR_NO_FACTORY = 0x1000A      // the module lacks CreateServiceObject
};

// Gives one reference to the service whose name has atom serviceId (KR atom). On a
// failure *out is null and *outSystemError (may be null) receives the system's error
// number behind it, 0 when there is none. Any thread.
QF_SP_API uint32_t ServiceProviderGetServiceObject(uint32_t serviceId,
                                                   SODetails::ServiceObject** out,
                                                   uint32_t* outSystemError);

// The host side: makes a service known to the provider. factory is called on every query
// and returns one reference (or null: the query answers SP_ERR_NOT_SUPPORTED). A null
// factory removes the entry. Returns 3 for a zero id.
typedef SODetails::ServiceObject* (*ServiceProviderFactory)(void* context);
QF_SP_API uint32_t ServiceProviderRegisterService(uint32_t serviceId,
                                                  ServiceProviderFactory factory,
                                                  void* context);
// Makes a service known as the public service object of a module file: queries load the
// module (SP_ERR_NO_MODULE with the system error when it cannot be loaded), look up its
// CreateServiceObject (SP_ERR_NO_FACTORY) and call it with serviceId.
QF_SP_API uint32_t ServiceProviderRegisterModuleService(uint32_t serviceId,
                                                        const char* modulePath);
}
