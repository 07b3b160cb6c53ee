// Loading and unloading a module: the probe module reports every call it receives.
#include "ProbeLog.h"
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace hosttest;
using qfhost::Host;
using qfhost::HostError;
using qfhost::HostService;
using qfhost::ModuleLoader;

struct Log {
    std::vector<std::string> events;
    std::map<std::string, uint32_t> results;  // what the module's call answers
};

class ModuleLoaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        static const probe::LogTable table = {
            [](ServiceObject* self, const char* event) -> uint32_t {
                Log& log = SODetails::implOf<probe::LogTable, Log>(self);
                log.events.push_back(event);
                auto it = log.results.find(event);
                return it == log.results.end() ? 0 : it->second;
            }};
        logObject = ObjectPtr::adopt(
            SODetails::makeServiceObject<probe::LogTable, Log, qfhost::HostTraits>(
                probe::kLogId, probe::kLogName, 0x7E570020, table));
        ServiceProviderRegisterService(
            atom(probe::kLogName),
            [](void* context) {
                auto* so = static_cast<ServiceObject*>(context);
                SODetails::addRef(so);
                return so;
            },
            logObject.get());
    }
    void TearDown() override {
        ServiceProviderRegisterService(atom(probe::kLogName), nullptr, nullptr);
    }
    Log& log() { return SODetails::implOf<probe::LogTable, Log>(logObject.get()); }

    void expectHostUntouched() {
        EXPECT_EQ(host.registeredObjects(), 0u);
        for (size_t i = 0; i < qfhost::kHostServiceCount; ++i) {
            EXPECT_EQ(host.refCount(static_cast<HostService>(i)), 1) << i;
        }
        EXPECT_EQ(refs(logObject.get()), 1);
    }

    Host host;
    ObjectPtr logObject;
};

TEST_F(ModuleLoaderTest, LoadsInitialisesAndUnloadsInOrder) {
    ModuleLoader loader(&host);
    loader.load(QF_PROBE_MODULE);
    ASSERT_TRUE(loader.isLoaded());
    EXPECT_EQ(log().events, (std::vector<std::string>{"Initialize", "Reflect",
                                                      "CreateServiceObject", "Init"}));
    ASSERT_EQ(loader.services().size(), 1u);
    EXPECT_EQ(loader.services()[0].name, "QFInitForms");
    EXPECT_EQ(SODetails::header(loader.initService())->interfaceId, QF::kInitServiceId);
    EXPECT_TRUE(host.tasks().tools().contains(atom(probe::kToolName)));

    log().events.clear();
    auto report = loader.unload();
    EXPECT_TRUE(report.closed) << report.problem;
    EXPECT_EQ(report.deInitCode, 0u);
    EXPECT_FALSE(loader.isLoaded());
    EXPECT_EQ(log().events, (std::vector<std::string>{"DeInit", "OnCleanup", "OnFree"}));
    expectHostUntouched();
    EXPECT_EQ(loader.unload().closed, false);  // nothing loaded: nothing done
}

TEST_F(ModuleLoaderTest, FailuresCarryTheirCodeAndLeaveNothingLoaded) {
    ModuleLoader loader(&host);
    try {
        loader.load("/nonexistent/libmodule.so");
        FAIL() << "loaded a missing file";
    } catch (const HostError& e) {
        EXPECT_EQ(e.code(), 0x10009u);
        EXPECT_NE(e.systemError(), 0u);
    }
    try {
        loader.load(QF_NO_FACTORY_LIBRARY);
        FAIL() << "loaded a library without exports";
    } catch (const HostError& e) {
        EXPECT_EQ(e.code(), 0x1000Au);
        EXPECT_NE(std::string(e.what()).find("CreateServiceObject"), std::string::npos);
    }
    EXPECT_FALSE(loader.isLoaded());

    log().results["Initialize"] = 0x55;
    try {
        loader.load(QF_PROBE_MODULE);
        FAIL();
    } catch (const HostError& e) {
        EXPECT_EQ(e.code(), 0x55u);
    }
    EXPECT_EQ(log().events, (std::vector<std::string>{"Initialize", "OnCleanup", "OnFree"}));
    expectHostUntouched();
}

TEST_F(ModuleLoaderTest, AFailingInitIsTakenBack) {
    log().results["Init"] = 0x30004;
    ModuleLoader loader(&host);
    try {
        loader.load(QF_PROBE_MODULE);
        FAIL();
    } catch (const HostError& e) {
        EXPECT_EQ(e.code(), 0x30004u);
    }
    EXPECT_FALSE(loader.isLoaded());
    EXPECT_EQ(log().events,
              (std::vector<std::string>{"Initialize", "Reflect", "CreateServiceObject", "Init",
                                        "DeInit", "OnCleanup", "OnFree"}));
    expectHostUntouched();
}

TEST_F(ModuleLoaderTest, TheModuleStaysLoadedWhileTheHostHoldsItsObjects) {
    ModuleLoader loader(&host);
    loader.load(QF_PROBE_MODULE);
    ObjectPtr stray = makePlain();
    host.edit().selectEditObjectServices().put(atom("Stray"), stray.get());
    auto report = loader.unload();
    EXPECT_FALSE(report.closed);
    EXPECT_FALSE(report.problem.empty());
    host.edit().selectEditObjectServices().clear();
}

}  // namespace
