// The service provider's answers for host factories and for module files.
#include "TestObjects.h"

#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace hosttest;

class ProviderTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (uint32_t id : registered) ServiceProviderRegisterService(id, nullptr, nullptr);
    }
    uint32_t fresh(const char* name) {
        uint32_t id = atom(name);
        registered.push_back(id);
        return id;
    }
    std::vector<uint32_t> registered;
    ServiceObject* out = reinterpret_cast<ServiceObject*>(0x1);
    uint32_t systemError = 77;
};

ServiceObject* shareContext(void* context) {
    auto* so = static_cast<ServiceObject*>(context);
    SODetails::addRef(so);
    return so;
}

TEST_F(ProviderTest, AnswersForHostFactories) {
    EXPECT_EQ(ServiceProviderGetServiceObject(atom("Provider.Unknown"), &out, &systemError),
              0x10008u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(systemError, 0u);
    EXPECT_EQ(ServiceProviderGetServiceObject(1, nullptr, nullptr), 3u);
    EXPECT_EQ(ServiceProviderRegisterService(0, &shareContext, nullptr), 3u);

    ObjectPtr object = makePlain();
    uint32_t id = fresh("Provider.Plain");
    ASSERT_EQ(ServiceProviderRegisterService(id, &shareContext, object.get()), 0u);
    ObjectPtr got;
    ASSERT_EQ(ServiceProviderGetServiceObject(id, got.put(), nullptr), 0u);
    EXPECT_EQ(got.get(), object.get());
    EXPECT_EQ(refs(object.get()), 2);
    got.reset();

    // A factory that makes nothing, then removal.
    ASSERT_EQ(ServiceProviderRegisterService(id, [](void*) -> ServiceObject* { return nullptr; },
                                             nullptr),
              0u);
    EXPECT_EQ(ServiceProviderGetServiceObject(id, got.put(), nullptr), 0x10008u);
    ServiceProviderRegisterService(id, nullptr, nullptr);
    EXPECT_EQ(ServiceProviderGetServiceObject(id, got.put(), nullptr), 0x10008u);
}

TEST_F(ProviderTest, ConcurrentQueriesCountEveryReference) {
    ObjectPtr object = makePlain();
    uint32_t id = fresh("Provider.Shared");
    ServiceProviderRegisterService(id, &shareContext, object.get());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([id] {
            for (int i = 0; i < 2000; ++i) {
                ObjectPtr got;
                ServiceProviderGetServiceObject(id, got.put(), nullptr);
                if (i % 7 == 0) ServiceProviderRegisterModuleService(atom("Provider.Other"), "x");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    registered.push_back(atom("Provider.Other"));
    EXPECT_EQ(refs(object.get()), 1);
}

TEST_F(ProviderTest, AModuleThatCannotBeLoadedGivesTheSystemError) {
    uint32_t id = fresh("Provider.Missing");
    ASSERT_EQ(ServiceProviderRegisterModuleService(id, "/nonexistent/libnothing.so"), 0u);
    EXPECT_EQ(ServiceProviderGetServiceObject(id, &out, &systemError), 0x10009u);
    EXPECT_EQ(out, nullptr);
    EXPECT_NE(systemError, 0u);

    EXPECT_EQ(ServiceProviderRegisterModuleService(id, ""), 3u);
    EXPECT_EQ(ServiceProviderRegisterModuleService(id, nullptr), 3u);
}

TEST_F(ProviderTest, ALibraryWithoutCreateServiceObjectGivesNoFactory) {
    uint32_t id = fresh("Provider.NoFactory");
    ServiceProviderRegisterModuleService(id, QF_NO_FACTORY_LIBRARY);
    EXPECT_EQ(ServiceProviderGetServiceObject(id, &out, &systemError), 0x1000Au);
    EXPECT_EQ(out, nullptr);
}

TEST_F(ProviderTest, AModuleServiceIsMadeByItsCreateServiceObject) {
    uint32_t id = fresh("QFInitForms");
    ServiceProviderRegisterModuleService(id, QF_PROBE_MODULE);
    ObjectPtr init;
    ASSERT_EQ(ServiceProviderGetServiceObject(id, init.put(), &systemError), 0u);
    EXPECT_EQ(systemError, 0u);
    EXPECT_EQ(SODetails::header(init.get())->interfaceId, QF::kInitServiceId);
    EXPECT_EQ(refs(init.get()), 1);

    // An id the module does not offer: its own code passes through.
    uint32_t other = fresh("Provider.NotInProbe");
    ServiceProviderRegisterModuleService(other, QF_PROBE_MODULE);
    EXPECT_EQ(ServiceProviderGetServiceObject(other, &out, &systemError), 0x10005u);
    EXPECT_EQ(out, nullptr);
}

}  // namespace
