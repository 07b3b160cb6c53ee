// A loadable library that is not a service-object module: it lacks CreateServiceObject.
#include <cstdint>

extern "C" __attribute__((visibility("default"))) uint32_t NotAServiceObjectModule() {
    return 0;
}
