// Helpers of the module tests: fake host services registered with the service provider,
// and readers of blocks and source lines.
#pragma once

#include "kr/KRRuntime.h"
#include "qf/ServiceObjectBlock.h"
#include "service-common/ServiceProviderApi.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace moduletest {

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

inline uint32_t atomOf(const char* name) {
    uint32_t id = KR_ATOM_NONE;
    EXPECT_EQ(KRGetAtomFromString(name, &id), 0u) << name;
    return id;
}

inline uint32_t readU32(const void* block, size_t offset) {
    uint32_t v;
    std::memcpy(&v, static_cast<const char*>(block) + offset, 4);
    return v;
}
inline uint32_t interfaceIdOf(ServiceObject* so) {
    return SODetails::header(so)->interfaceId;
}
inline uint32_t tableSizeOf(ServiceObject* so) {
    return SODetails::header(so)->tableSize;
}
// The implementation id after "EOFT".
inline uint32_t classStampOf(ServiceObject* so) {
    return readU32(so, 56 + tableSizeOf(so) + 4);
}
inline int32_t refCountOf(ServiceObject* so) {
    return SODetails::header(so)->base.GetRefCount(so);
}

// Line `line` (1-based) of a file of the repository, "" when there is none.
inline std::string sourceLine(const std::string& relativePath, uint32_t line) {
    std::ifstream in(std::string(QF_SOURCE_DIR) + "/" + relativePath);
    std::string text;
    for (uint32_t i = 0; i < line && std::getline(in, text); ++i) {
    }
    return in ? text : std::string();
}

// ---- fake host services ------------------------------------------------------------------

struct HostCall {
    size_t slot;
    uint32_t atom = 0;
    uint32_t objectInterfaceId = 0;
    uint32_t objectTableSize = 0;
    uint32_t objectClassStamp = 0;
    ServiceObject* object = nullptr;
};

struct FakeService {
    std::vector<HostCall> calls;
    std::map<size_t, uint32_t> results;        // per slot, 0 when not set
    std::vector<BasicServiceObjectPtr<>> kept; // references to registered objects
};

struct FakeTraits {
    static uint32_t GetLastErrorInfo(ServiceObject*, SODetails::ErrorInfo*, const void**) {
        return 9;
    }
};

template <typename Table> uint32_t record(ServiceObject* self, HostCall call) {
    auto& fake = SODetails::implOf<Table, FakeService>(self);
    fake.calls.push_back(call);
    const uint32_t result = fake.results.count(call.slot) ? fake.results[call.slot] : 0;
    if (call.object && result == 0)
        fake.kept.push_back(BasicServiceObjectPtr<>::share(call.object));
    return result;
}
template <typename Table, size_t Slot> uint32_t fakeNoArgument(ServiceObject* self) {
    return record<Table>(self, {Slot});
}
template <typename Table, size_t Slot> uint32_t fakeWithdraw(ServiceObject* self, uint32_t atom) {
    return record<Table>(self, {Slot, atom});
}
template <typename Table, size_t Slot>
uint32_t fakeRegister(ServiceObject* self, uint32_t atom, ServiceObject* o) {
    return record<Table>(self, {Slot, atom, interfaceIdOf(o), tableSizeOf(o), classStampOf(o), o});
}

// A fake host service known to the provider under name while it lives.
class ServiceRegistration {
  public:
    template <typename Table>
    ServiceRegistration(const char* name, uint32_t interfaceId, const Table& table)
        : atom_(atomOf(name)), object_(BasicServiceObjectPtr<>::adopt(
                                   SODetails::makeServiceObject<Table, FakeService, FakeTraits>(
                                       interfaceId, name, 1, table))),
          fake_(&SODetails::implOf<Table, FakeService>(object_.get())) {
        EXPECT_EQ(ServiceProviderRegisterService(atom_, &give, object_.get()), 0u);
    }
    ~ServiceRegistration() { ServiceProviderRegisterService(atom_, nullptr, nullptr); }
    ServiceRegistration(const ServiceRegistration&) = delete;
    ServiceRegistration& operator=(const ServiceRegistration&) = delete;

    FakeService& fake() { return *fake_; }
    ServiceObject* object() { return object_.get(); }

  private:
    static ServiceObject* give(void* context) {
        SODetails::addRef(static_cast<ServiceObject*>(context));
        return static_cast<ServiceObject*>(context);
    }

    uint32_t atom_;
    BasicServiceObjectPtr<> object_;
    FakeService* fake_;
};

} // namespace moduletest
