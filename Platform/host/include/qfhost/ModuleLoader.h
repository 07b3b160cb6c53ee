// Loading a service-object module: its five exports, its public services and the init
// service that hands its registrations to the host.
#pragma once

#include "qfhost/HostError.h"
#include "qfhost/HostObjects.h"

#include "qf/ModuleExports.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qfhost {

class Host;

// One entry of ReflectServiceObjectInfo's table (16 bytes): the module's own type, so
// that the export is called through exactly the type it has.
using ReflectEntry = ::ServiceObjectInfoEntry;

struct ReflectedService {
    uint32_t id;
    std::string name;
};

struct UnloadReport {
    uint32_t deInitCode = 0;   // DeInit's result (0 when it was not due)
    uint32_t cleanupCode = 0;  // ServiceObjectModuleOnCleanup
    uint32_t freeCode = 0;     // ServiceObjectModuleOnFree
    bool closed = false;       // the library was unloaded
    std::string problem;       // why it was kept loaded, if it was
};

class QFHOST_API ModuleLoader {
public:
    using CreateServiceObjectFn = uint32_t (*)(uint32_t serviceId, ServiceObject** out);
    using ReflectServiceObjectInfoFn = uint32_t (*)(ReflectEntry** outEntries,
                                                    uint32_t* outCount);
    using ModuleHookFn = uint32_t (*)();

    static constexpr const char* kInitServiceName = "QFInitForms";

    // host, when given, must outlive the loader: it is emptied of the module's transient
    // objects before unloading and checked for leftover registrations afterwards.
    explicit ModuleLoader(Host* host = nullptr);
    ~ModuleLoader();  // unload()
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    // Opens the library, resolves the five exports, calls ServiceObjectModuleInitialize,
    // reflects the public services, creates "QFInitForms" and calls its Init. Throws
    // HostError: 0x10009 (library not loadable, with the system error), 0x1000A (an export
    // missing), 0x10006 (the init service is not an InitService), or the module's own
    // code. Nothing stays loaded after a failure; a failing Init is followed by DeInit.
    void load(const std::string& path);

    // Drops the host's transient module objects, DeInit (when Init is in effect), releases
    // the init service, OnCleanup, OnFree, and closes the library -- unless the host still
    // holds registrations, whose code would go with it: then the library stays loaded and
    // the report says so. Does nothing when nothing is loaded.
    UnloadReport unload();

    bool isLoaded() const { return library_ != nullptr; }
    const std::string& path() const { return path_; }
    const std::vector<ReflectedService>& services() const { return services_; }
    // The init service (borrowed), null when nothing is loaded.
    ServiceObject* initService() const { return init_.get(); }

    // Init and DeInit again (2 when nothing is loaded).
    uint32_t callInit();
    uint32_t callDeInit();
    // The module's CreateServiceObject (2 when nothing is loaded).
    uint32_t createServiceObject(uint32_t serviceId, ServiceObject** out) const;

private:
    void teardown(UnloadReport& report);

    Host* host_;
    std::string path_;
    void* library_ = nullptr;
    CreateServiceObjectFn create_ = nullptr;
    ReflectServiceObjectInfoFn reflect_ = nullptr;
    ModuleHookFn initialize_ = nullptr;
    ModuleHookFn onCleanup_ = nullptr;
    ModuleHookFn onFree_ = nullptr;
    std::vector<ReflectedService> services_;
    ObjectPtr init_;
    bool initInEffect_ = false;
};

}  // namespace qfhost
