// A minimal service-object module: the five exports, one public service "QFInitForms"
// whose Init registers one tool factory with the host's TasksRepository and whose DeInit
// withdraws it. Every call is reported to the host's "ProbeLog" service when there is one.
#include "ProbeLog.h"

#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"
#include "qf/ServiceObjectBlock.h"
#include "service-common/ServiceProviderApi.h"

#include <cstring>

#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using SODetails::ServiceObject;
using Ptr = SODetails::BasicServiceObjectPtr<ServiceObject>;

struct Traits {
    static uint32_t GetLastErrorInfo(ServiceObject*, SODetails::ErrorInfo* out, const void**) {
        if (!out) return 3;
        std::memset(out, 0, sizeof *out);
        return 9;
    }
};

uint32_t atom(const char* name) {
    uint32_t id = 0;
    KRGetAtomFromString(name, &id);
    return id;
}

Ptr service(const char* name) {
    Ptr so;
    ServiceProviderGetServiceObject(atom(name), so.put(), nullptr);
    return so;
}

uint32_t record(const char* event) {
    Ptr log = service(probe::kLogName);
    if (!log) return 0;
    return SODetails::methods<probe::LogTable>(log.get())->Record(log.get(), event);
}

struct Empty {};

struct InitService {
    Ptr toolFactory;
};

ServiceObject* makeToolFactory() {
    static const QF::InputHandlerFactoryTable table = {
        [](ServiceObject*, ServiceObject** out) -> uint32_t {
            if (out) *out = nullptr;
            return 2;
        }};
    return SODetails::makeServiceObject<QF::InputHandlerFactoryTable, Empty, Traits>(
        QF::kInputHandlerFactoryId, "QFInputHandlerFactory", 0x50520001, table);
}

const QF::InitServiceTable kInitTable = {
    [](ServiceObject* self) -> uint32_t {
        uint32_t rc = record("Init");
        auto& impl = SODetails::implOf<QF::InitServiceTable, InitService>(self);
        Ptr tasks = service("TasksRepository");
        if (tasks && !impl.toolFactory) {
            impl.toolFactory = Ptr::adopt(makeToolFactory());
            auto* t = SODetails::methods<QF::TasksRepositoryTable>(tasks.get());
            t->RegisterTool(tasks.get(), atom(probe::kToolName), impl.toolFactory.get());
        }
        return rc;
    },
    [](ServiceObject* self) -> uint32_t {
        uint32_t rc = record("DeInit");
        auto& impl = SODetails::implOf<QF::InitServiceTable, InitService>(self);
        Ptr tasks = service("TasksRepository");
        if (tasks && impl.toolFactory) {
            auto* t = SODetails::methods<QF::TasksRepositoryTable>(tasks.get());
            t->WithdrawTool(tasks.get(), atom(probe::kToolName));
        }
        impl.toolFactory.reset();
        return rc;
    },
    [](ServiceObject*) -> uint32_t { return 1; },
};

}  // namespace

PROBE_EXPORT uint32_t CreateServiceObject(uint32_t serviceId, ServiceObject** out) {
    if (serviceId == 0 || !out) return 3;
    uint32_t rc = record("CreateServiceObject");
    if (rc != 0) return rc;
    if (serviceId != atom("QFInitForms")) return 0x10005;
    *out = SODetails::makeServiceObject<QF::InitServiceTable, InitService, Traits>(
        QF::kInitServiceId, "InitService", 0x50520002, kInitTable);
    return 0;
}

PROBE_EXPORT uint32_t ReflectServiceObjectInfo(void** outEntries, uint32_t* outCount) {
    struct Entry {
        uint32_t id;
        uint32_t padding;
        const char* name;
    };
    static Entry entries[2] = {{0xFFFFFFFF, 0, "QFInitForms"}, {0, 0, nullptr}};
    if (!outEntries || !outCount) return 3;
    uint32_t rc = record("Reflect");
    *outEntries = entries;
    *outCount = 1;
    return rc;
}

PROBE_EXPORT uint32_t ServiceObjectModuleInitialize() { return record("Initialize"); }
PROBE_EXPORT uint32_t ServiceObjectModuleOnCleanup() { return record("OnCleanup"); }
PROBE_EXPORT uint32_t ServiceObjectModuleOnFree() { return record("OnFree"); }
