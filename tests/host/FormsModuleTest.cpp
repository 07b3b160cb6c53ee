// The forms module loaded by the host: what its init service hands over and takes back.
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
using qfhost::ObjectRegistry;

class FormsModuleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE)); }

    static void expectObject(const ObjectRegistry& registry, uint32_t name, uint32_t interfaceId,
                             uint32_t tableSize) {
        ObjectPtr so = registry.find(name);
        ASSERT_TRUE(so) << std::hex << interfaceId;
        EXPECT_EQ(SODetails::header(so.get())->interfaceId, interfaceId);
        EXPECT_EQ(SODetails::header(so.get())->tableSize, tableSize) << std::hex << interfaceId;
        EXPECT_EQ(registry.size(), 1u) << std::hex << interfaceId;
    }

    Host host;
    ModuleLoader loader{&host};
};

TEST_F(FormsModuleTest, InitCreatesTheWidgetEditObjects) {
    ASSERT_EQ(loader.services().size(), 1u);
    EXPECT_EQ(loader.services()[0].name, "QFInitForms");

    EXPECT_GE(host.annotEdit().prepareCount(), 1u);
    expectObject(host.annotEdit().editSelectFactories(), PD_ATOM_Widget, 0x307F2EF5, 24);
    expectObject(host.edit().selectEditObjectServices(), atom("WidgetEdit"), 0xEDE102A7, 24);
    expectObject(host.picker().editObjectFactories(), atom("WidgetEdit"), 0xB8B7CFF2, 16);
    expectObject(host.picker().compositeItems(), atom("WidgetEdit"), 0x14EC0B4A, 16);
}

TEST_F(FormsModuleTest, InitHandsOverTheToolsAndCommands) {
    for (const char* tool :
         {"CheckBoxCreate", "ComboBoxCreate", "DigitalSignatureFieldCreate", "EmailButtonCreate",
          "ListBoxCreate", "PrintButtonCreate", "PushButtonCreate", "RadioGroupCreate",
          "SaveButtonCreate", "SubmitButtonCreate", "TextFieldCreate", "Edit", "FormTabOrder"}) {
        EXPECT_TRUE(host.tasks().tools().contains(atom(tool))) << tool;
    }
    EXPECT_EQ(host.tasks().tools().size(), 13u);
    EXPECT_TRUE(host.editModules().selectionFactories().contains(atom("WidgetEdit")));
    for (const char* command : {"AddWidget", "Widget_Rename", "GroupRadioButtons", "TabOrderAnnot",
                                "AutoTabOrderAnnot", "MoveAnnotsFocusOrder"}) {
        EXPECT_TRUE(host.commands().factories().contains(atom(command))) << command;
    }
    EXPECT_EQ(host.commands().factories().size(), 6u);
}

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
