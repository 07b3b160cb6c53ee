#include "qfhost/ModuleLoader.h"

#include "qfhost/Host.h"

#include "DynamicLibrary.h"

#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"

#include <cstdio>

namespace qfhost {

namespace {

std::string hex(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", code);
    return text;
}

constexpr size_t kInitSlot = 0;
constexpr size_t kDeInitSlot = 1;

}  // namespace

ModuleLoader::ModuleLoader(Host* host) : host_(host) {}

ModuleLoader::~ModuleLoader() { unload(); }

void ModuleLoader::load(const std::string& path) {
    if (library_) throw HostError(codes::kBadArgument, "a module is loaded already: " + path_);

    auto opened = detail::openLibrary(path);
    if (!opened.handle) {
        throw HostError(codes::kNoModule,
                        "cannot load " + path + ": " + opened.message + " (system error " +
                            std::to_string(opened.systemError) + ")",
                        opened.systemError);
    }
    library_ = opened.handle;
    path_ = path;

    UnloadReport ignored;
    auto fail = [&](uint32_t code, const std::string& message, uint32_t systemError = 0) {
        teardown(ignored);
        throw HostError(code, path + ": " + message, systemError);
    };

    auto resolve = [&](const char* name) {
        auto symbol = detail::findSymbol(library_, name);
        if (!symbol.address) {
            fail(codes::kNoFactory, std::string("the module does not export ") + name,
                 symbol.systemError);
        }
        return symbol.address;
    };
    create_ = reinterpret_cast<CreateServiceObjectFn>(resolve("CreateServiceObject"));
    reflect_ = reinterpret_cast<ReflectServiceObjectInfoFn>(resolve("ReflectServiceObjectInfo"));
    initialize_ = reinterpret_cast<ModuleHookFn>(resolve("ServiceObjectModuleInitialize"));
    onCleanup_ = reinterpret_cast<ModuleHookFn>(resolve("ServiceObjectModuleOnCleanup"));
    onFree_ = reinterpret_cast<ModuleHookFn>(resolve("ServiceObjectModuleOnFree"));

    if (uint32_t rc = initialize_(); rc != codes::kOk) {
        fail(rc, "ServiceObjectModuleInitialize failed with " + hex(rc));
    }

    ReflectEntry* entries = nullptr;
    uint32_t count = 0;
    if (uint32_t rc = reflect_(&entries, &count); rc != codes::kOk) {
        fail(rc, "ReflectServiceObjectInfo failed with " + hex(rc));
    }
    for (uint32_t i = 0; i < count; ++i) {
        services_.push_back({entries[i].id, entries[i].name ? entries[i].name : ""});
    }

    uint32_t initAtom = 0;
    if (uint32_t rc = KRGetAtomFromString(kInitServiceName, &initAtom); rc != KR_OK) {
        fail(codes::kHostFailure, std::string("no atom for ") + kInitServiceName);
    }
    if (uint32_t rc = create_(initAtom, init_.put()); rc != codes::kOk || !init_) {
        if (rc == codes::kOk) rc = codes::kFactoryFailed;
        fail(rc, std::string("CreateServiceObject(") + kInitServiceName + ") failed with " +
                     hex(rc));
    }
    const auto* header = SODetails::header(init_.get());
    if (header->interfaceId != QF::kInitServiceId || !SODetails::hasMethod(init_.get(), kInitSlot)) {
        fail(codes::kFactoryFailed, std::string(kInitServiceName) +
                                        " is not an InitService (interface id " +
                                        hex(header->interfaceId) + ")");
    }

    if (uint32_t rc = callInit(); rc != codes::kOk) {
        initInEffect_ = true;  // take back what a partial Init handed over
        fail(rc, "Init failed with " + hex(rc));
    }
}

uint32_t ModuleLoader::callInit() {
    if (!init_ || !SODetails::hasMethod(init_.get(), kInitSlot)) return codes::kNotInitialized;
    uint32_t rc = SODetails::methods<QF::InitServiceTable>(init_.get())->Init(init_.get());
    if (rc == codes::kOk) initInEffect_ = true;
    return rc;
}

uint32_t ModuleLoader::callDeInit() {
    if (!init_ || !SODetails::hasMethod(init_.get(), kDeInitSlot)) return codes::kNotInitialized;
    initInEffect_ = false;
    return SODetails::methods<QF::InitServiceTable>(init_.get())->DeInit(init_.get());
}

uint32_t ModuleLoader::createServiceObject(uint32_t serviceId, ServiceObject** out) const {
    if (!create_) return codes::kNotInitialized;
    return create_(serviceId, out);
}

UnloadReport ModuleLoader::unload() {
    UnloadReport report;
    if (library_) teardown(report);
    return report;
}

void ModuleLoader::teardown(UnloadReport& report) {
    // The module's objects go before its code: first what the host holds beside
    // registrations, then the registrations (DeInit), then the init service.
    if (host_) host_->releaseModuleObjects();
    if (initInEffect_) report.deInitCode = callDeInit();
    init_.reset();
    if (onCleanup_) report.cleanupCode = onCleanup_();
    if (onFree_) report.freeCode = onFree_();

    size_t left = host_ ? host_->registeredObjects() : 0;
    if (left != 0) {
        // Closing now would leave the host holding objects without code.
        report.problem = std::to_string(left) +
                         " objects are still registered with the host; the module stays loaded";
        report.closed = false;
    } else {
        detail::closeLibrary(library_);
        report.closed = true;
    }
    library_ = nullptr;
    create_ = nullptr;
    reflect_ = nullptr;
    initialize_ = nullptr;
    onCleanup_ = nullptr;
    onFree_ = nullptr;
    services_.clear();
    initInEffect_ = false;
}

}  // namespace qfhost
