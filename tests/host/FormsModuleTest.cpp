// The forms module loaded by the host: what its init service hands over and takes back.
// (Which objects it hands over, and their tables: the module's ExportsTest and the host's
// AbiBadArgumentsTest.)
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include "pdfcore/pdfcore.h"

#include <gtest/gtest.h>

namespace {

using namespace hosttest;
using qfhost::Host;
using qfhost::HostService;
using qfhost::ModuleLoader;

class FormsModuleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE)); }

    Host host;
    ModuleLoader loader{&host};
};

// These checks hold for whatever the registration lists carry.
TEST_F(FormsModuleTest, ASecondInitRegistersNoListRecordAgain) {
    const size_t tools = host.tasks().tools().size();
    const size_t commands = host.commands().factories().size();
    const size_t selections = host.editModules().selectionFactories().size();
    ASSERT_EQ(loader.callInit(), 0u);
    EXPECT_EQ(host.tasks().tools().size(), tools);
    EXPECT_EQ(host.tasks().tools().totalRegistrations(), tools);
    EXPECT_EQ(host.commands().factories().size(), commands);
    EXPECT_EQ(host.commands().factories().totalRegistrations(), commands);
    EXPECT_EQ(host.editModules().selectionFactories().totalRegistrations(), selections);
    EXPECT_TRUE(host.pdAnnots().handlerFactories().empty());
}

TEST_F(FormsModuleTest, DeInitAndUnloadTakeEverythingBack) {
    ASSERT_EQ(loader.callDeInit(), 0u);
    EXPECT_EQ(host.registeredObjects(), 0u);
    EXPECT_EQ(host.commands().factories().totalWithdrawals(),
              host.commands().factories().totalRegistrations());
    EXPECT_EQ(host.tasks().tools().totalWithdrawals(), host.tasks().tools().totalRegistrations());
    EXPECT_EQ(host.annotEdit().editSelectFactories().withdrawals(PD_ATOM_Widget), 1u);
    EXPECT_EQ(host.edit().selectEditObjectServices().withdrawals(atom("WidgetEdit")), 1u);
    EXPECT_EQ(host.picker().editObjectFactories().withdrawals(atom("WidgetEdit")), 1u);
    EXPECT_EQ(host.picker().compositeItems().withdrawals(atom("WidgetEdit")), 1u);

    auto report = loader.unload();
    EXPECT_TRUE(report.closed) << report.problem;
    EXPECT_EQ(report.cleanupCode, 0u);
    EXPECT_EQ(report.freeCode, 0u);
    for (size_t i = 0; i < qfhost::kHostServiceCount; ++i) {
        EXPECT_EQ(host.refCount(static_cast<HostService>(i)), 1)
            << Host::nameOf(static_cast<HostService>(i));
    }
}

TEST_F(FormsModuleTest, UnloadAloneRunsDeInit) {
    auto report = loader.unload();
    EXPECT_EQ(report.deInitCode, 0u);
    EXPECT_TRUE(report.closed) << report.problem;
    EXPECT_EQ(host.registeredObjects(), 0u);
}

}  // namespace
