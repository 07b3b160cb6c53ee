// What every host service builds on: the host's traits for makeServiceObject and a
// registry of service objects by atom that keeps one reference per entry.
#pragma once

#include "qfhost/Export.h"

#include "qf/ServiceObjectBlock.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace qfhost {

using SODetails::ServiceObject;
using ObjectPtr = SODetails::BasicServiceObjectPtr<ServiceObject>;

// Traits of the blocks the host makes: the host keeps no failure records, so
// GetLastErrorInfo answers 9 with a zeroed output (3 for a null output).
struct QFHOST_API HostTraits {
    static uint32_t GetLastErrorInfo(ServiceObject* self, SODetails::ErrorInfo* out,
                                     const void** outRecord);
};

// Service objects by atom. Registering keeps one reference (and drops the one held for an
// earlier registration under the same atom); withdrawing drops it. Thread-safe; objects
// are released outside the lock.
class QFHOST_API ObjectRegistry {
public:
    ObjectRegistry() = default;
    ObjectRegistry(const ObjectRegistry&) = delete;
    ObjectRegistry& operator=(const ObjectRegistry&) = delete;
    ~ObjectRegistry();

    // 0; 3 for a null object, atom 0 or KR_ATOM_NONE.
    uint32_t put(uint32_t atom, ServiceObject* object);
    // 0; 1 when nothing is registered under atom; 3 for atom 0 or KR_ATOM_NONE.
    uint32_t remove(uint32_t atom);
    // Drops every entry (the counters stay).
    void clear();

    // One reference to the object under atom, or null.
    ObjectPtr find(uint32_t atom) const;
    bool contains(uint32_t atom) const;
    size_t size() const;
    bool empty() const { return size() == 0; }
    std::vector<uint32_t> atoms() const;
    // How often put / remove succeeded for atom since the registry was made.
    uint32_t registrations(uint32_t atom) const;
    uint32_t withdrawals(uint32_t atom) const;
    uint32_t totalRegistrations() const;
    uint32_t totalWithdrawals() const;

private:
    struct Counts {
        uint32_t registered = 0;
        uint32_t withdrawn = 0;
    };
    mutable std::mutex mutex_;
    std::map<uint32_t, ObjectPtr> objects_;
    std::map<uint32_t, Counts> counts_;
};

}  // namespace qfhost
