// The module's exports (its entry point is ModuleEntry*.cpp, one per system).
#include "kr/KRRuntime.h"
#include "qf/ModuleExports.h"
#include "qf/internal/Registration.h"
#include "qf/internal/ServiceObjectException.h"

#include <atomic>
#include <vector>

namespace {

using SOImpl::ExportedServiceRecord;

// Records are read by any thread that calls CreateServiceObject; their ids are resolved
// in place.
uint32_t loadId(ExportedServiceRecord& record) {
    return std::atomic_ref<uint32_t>(record.id).load();
}

uint32_t resolvedId(ExportedServiceRecord& record) {
    uint32_t id = loadId(record);
    if (id > 0xFFFFFFFEu) {
        uint32_t resolved = SOImpl::kUnresolvedAtom;
        if (KRGetAtomFromString(record.name, &resolved) == KR_OK) {
            std::atomic_ref<uint32_t>(record.id).store(resolved);
            id = resolved;
        }
    }
    return id;
}

// The reflection table: one entry per public record, then an all-zero entry when there is
// at least one. Built on the first call and never again.
std::vector<ServiceObjectInfoEntry> buildReflection() {
    std::vector<ServiceObjectInfoEntry> entries;
    for (ExportedServiceRecord* record = SOImpl::PublicServices().first; record;
         record = record->next)
        entries.push_back(ServiceObjectInfoEntry{loadId(*record), 0, record->name});
    if (!entries.empty()) entries.push_back(ServiceObjectInfoEntry{0, 0, nullptr});
    return entries;
}

uint32_t moduleHook() {
    return 0;
}

} // namespace

extern "C" {

uint32_t CreateServiceObject(uint32_t serviceId, SODetails::ServiceObject** out) {
    if (serviceId == 0 || !out) return SOImpl::kBadArgument;
    // 0xFFFFFFFF is what a record holds until its name is resolved: it names no service, and
    // a record whose name cannot be resolved matches nothing.
    ExportedServiceRecord* record = SOImpl::PublicServices().first;
    while (record && (resolvedId(*record) != serviceId || serviceId == SOImpl::kUnresolvedAtom))
        record = record->next;
    if (!record) return SOImpl::kServiceNotSupported;
    if (!record->factory) return SOImpl::kFactoryFailed;
    try {
        auto object = record->factory();
        if (!object) return SOImpl::kFactoryFailed;
        *out = object.detach();
        return 0;
    } catch (...) {
        return SOImpl::kFactoryFailed;
    }
}

uint32_t ReflectServiceObjectInfo(ServiceObjectInfoEntry** outEntries, uint32_t* outCount) {
    if (!outEntries || !outCount) return SOImpl::kBadArgument;
    try {
        static std::vector<ServiceObjectInfoEntry> table = buildReflection();
        if (table.empty()) {
            *outEntries = nullptr;
            *outCount = 0;
            return SOImpl::kNoPublicServices;
        }
        *outEntries = table.data();
        *outCount = static_cast<uint32_t>(table.size() - 1);
        return 0;
    } catch (...) {
        // No memory for the table: it is tried again on the next call.
        *outEntries = nullptr;
        *outCount = 0;
        return SOImpl::kNoPublicServices;
    }
}

uint32_t ServiceObjectModuleInitialize() {
    return moduleHook();
}
uint32_t ServiceObjectModuleOnCleanup() {
    return moduleHook();
}
uint32_t ServiceObjectModuleOnFree() {
    return moduleHook();
}

} // extern "C"
