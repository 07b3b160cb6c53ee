// The service provider: service ids (name atoms) mapped to a host factory or to the file
// of a module whose CreateServiceObject makes the service.
//
// Modules loaded here stay loaded until the process ends: the objects they made may
// outlive any registration, and their code must stay mapped for them.
#include "service-common/ServiceProviderApi.h"

#include "DynamicLibrary.h"

#include <mutex>
#include <string>
#include <unordered_map>
#include <variant>

namespace {

using SODetails::ServiceObject;
using CreateServiceObjectFn = uint32_t (*)(uint32_t, ServiceObject**);

struct HostFactory {
    ServiceProviderFactory factory;
    void* context;
};
struct ModuleFile {
    std::string path;
};

struct Registry {
    std::mutex mutex;
    std::unordered_map<uint32_t, std::variant<HostFactory, ModuleFile>> services;
    std::unordered_map<std::string, void*> modules;  // path -> handle, never closed
};

Registry& registry() {
    // Never destroyed: modules may query the provider from their own static destructors.
    static Registry* r = new Registry;
    return *r;
}

struct Loaded {
    void* handle = nullptr;
    uint32_t systemError = 0;
};

Loaded loadModule(const std::string& path) {
    Registry& r = registry();
    {
        std::lock_guard lock(r.mutex);
        if (auto it = r.modules.find(path); it != r.modules.end()) return {it->second, 0};
    }
    // Loading runs the module's static initialisers, which may call back into the
    // provider: no lock is held here.
    auto opened = qfhost::detail::openLibrary(path);
    if (!opened.handle) return {nullptr, opened.systemError};
    std::lock_guard lock(r.mutex);
    auto [it, inserted] = r.modules.emplace(path, opened.handle);
    if (!inserted) qfhost::detail::closeLibrary(opened.handle);  // another thread won
    return {it->second, 0};
}

}  // namespace

extern "C" {

uint32_t ServiceProviderGetServiceObject(uint32_t serviceId, ServiceObject** out,
                                         uint32_t* outSystemError) {
    if (outSystemError) *outSystemError = 0;
    if (!out) return 3;
    *out = nullptr;

    std::variant<HostFactory, ModuleFile> entry;
    {
        Registry& r = registry();
        std::lock_guard lock(r.mutex);
        auto it = r.services.find(serviceId);
        if (it == r.services.end()) return SP_ERR_NOT_SUPPORTED;
        entry = it->second;
    }

    if (auto* host = std::get_if<HostFactory>(&entry)) {
        ServiceObject* so = host->factory(host->context);
        if (!so) return SP_ERR_NOT_SUPPORTED;
        *out = so;
        return 0;
    }

    const auto& file = std::get<ModuleFile>(entry);
    Loaded loaded = loadModule(file.path);
    if (!loaded.handle) {
        if (outSystemError) *outSystemError = loaded.systemError;
        return SP_ERR_NO_MODULE;
    }
    auto symbol = qfhost::detail::findSymbol(loaded.handle, "CreateServiceObject");
    if (!symbol.address) {
        if (outSystemError) *outSystemError = symbol.systemError;
        return SP_ERR_NO_FACTORY;
    }
    auto create = reinterpret_cast<CreateServiceObjectFn>(symbol.address);
    ServiceObject* so = nullptr;
    uint32_t rc = create(serviceId, &so);
    if (rc != 0) {
        // The module's own code (0x10005, 0x10006, ...) passes through; a stray object
        // made on failure is not the caller's.
        if (so) SODetails::release(so);
        return rc;
    }
    *out = so;
    return 0;
}

uint32_t ServiceProviderRegisterService(uint32_t serviceId, ServiceProviderFactory factory,
                                        void* context) {
    if (serviceId == 0) return 3;
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    if (!factory) {
        r.services.erase(serviceId);
    } else {
        r.services.insert_or_assign(serviceId, HostFactory{factory, context});
    }
    return 0;
}

uint32_t ServiceProviderRegisterModuleService(uint32_t serviceId, const char* modulePath) {
    if (serviceId == 0 || !modulePath || !*modulePath) return 3;
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.services.insert_or_assign(serviceId, ModuleFile{modulePath});
    return 0;
}

}  // extern "C"
