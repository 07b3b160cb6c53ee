// The host services as a module sees them: looked up through the provider and called
// through their method tables.
#include "TestObjects.h"

#include "qfhost/Host.h"

#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace hosttest;
using qfhost::Host;
using qfhost::HostService;
using qfhost::ObjectRegistry;

ObjectPtr query(const char* name) {
    ObjectPtr so;
    EXPECT_EQ(ServiceProviderGetServiceObject(atom(name), so.put(), nullptr), 0u) << name;
    return so;
}

// ---- CommandsManager -----------------------------------------------------------------

class CommandsManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        manager = query("CommandsManager");
        table = SODetails::methods<QF::CommandsManagerTable>(manager.get());
        factory = makeCommandFactory();
        ASSERT_EQ(table->RegisterCommandFactory(manager.get(), atom("TestCmd"), factory.get()), 0u);
    }

    uint32_t run(CommandScript& script) {
        QF::CommandArgs args{7, atom("TestCmd"), &script};
        return table->ExecuteCommand(manager.get(), &args);
    }
    std::pair<uint32_t, uint32_t> depths() {
        uint32_t u = 99, r = 99;
        EXPECT_EQ(table->GetStackDepths(manager.get(), &u, &r), 0u);
        return {u, r};
    }
    CommandScript script(const char* tag, uint32_t doResult = 0, uint32_t undoResult = 0) {
        return {&journal, tag, doResult, undoResult};
    }

    Journal journal;  // outlives the commands that the host still holds
    Host host;
    ObjectPtr manager;
    QF::CommandsManagerTable* table = nullptr;
    ObjectPtr factory;
};

TEST_F(CommandsManagerTest, UndoAndRedoMoveCommandsBetweenTheStacks) {
    auto a = script("a"), b = script("b"), c = script("c");
    EXPECT_EQ(run(a), 0u);
    EXPECT_EQ(run(b), 0u);
    EXPECT_EQ(depths(), std::make_pair(2u, 0u));

    EXPECT_EQ(table->Undo(manager.get()), 0u);
    EXPECT_EQ(table->Undo(manager.get()), 0u);
    EXPECT_EQ(table->Undo(manager.get()), 1u);  // nothing left
    EXPECT_EQ(depths(), std::make_pair(0u, 2u));
    EXPECT_EQ(table->Redo(manager.get()), 0u);
    EXPECT_EQ(depths(), std::make_pair(1u, 1u));
    EXPECT_EQ(journal, (Journal{"do:a", "do:b", "undo:b", "undo:a", "do:a"}));

    // A new command drops the redo stack.
    EXPECT_EQ(run(c), 0u);
    EXPECT_EQ(depths(), std::make_pair(2u, 0u));
    EXPECT_EQ(journal.back(), "gone:b");
    EXPECT_EQ(table->Redo(manager.get()), 1u);

    EXPECT_EQ(table->Clear(manager.get()), 0u);
    EXPECT_EQ(depths(), std::make_pair(0u, 0u));
    EXPECT_EQ(journal.size(), 9u);  // every command gone
}

// A failing DO is returned and not kept, the redo stack intact; a failing UNDO leaves the
// command in place; a factory's failure is returned.
TEST_F(CommandsManagerTest, FailuresLeaveTheStacksAsTheyWere) {
    auto a = script("a"), bad = script("bad", 0x30005), stuck = script("stuck", 0, 14);
    run(a);
    table->Undo(manager.get());
    EXPECT_EQ(run(bad), 0x30005u);
    EXPECT_EQ(depths(), std::make_pair(0u, 1u));
    EXPECT_EQ(journal, (Journal{"do:a", "undo:a", "do:bad", "gone:bad"}));

    run(stuck);
    EXPECT_EQ(table->Undo(manager.get()), 14u);
    EXPECT_EQ(depths(), std::make_pair(1u, 0u));
    EXPECT_EQ(journal.back(), "undo:stuck");

    QF::CommandArgs factoryFails{1, atom("TestCmd"), nullptr};
    EXPECT_EQ(table->ExecuteCommand(manager.get(), &factoryFails), 0x33u);
    EXPECT_EQ(depths(), std::make_pair(1u, 0u));
}

// A group is one entry: undone newest first, redone in order, taken back in the same call
// when one of its commands fails; a group closed without keeping undoes what it did.
TEST_F(CommandsManagerTest, AGroupIsOneStepDoneAndUndoneWhole) {
    auto a = script("a"), b = script("b"), c = script("c", 0, 14);
    qfhost::CommandsManager& commands = host.commands();
    ASSERT_EQ(commands.beginGroup("Step"), 0u);
    EXPECT_EQ(commands.beginGroup("Step"), 1u);  // no nesting
    run(a);
    run(b);
    EXPECT_EQ(table->Undo(manager.get()), 1u);  // not while the group is open
    ASSERT_EQ(commands.endGroup(), 0u);
    EXPECT_EQ(commands.undoNames(), std::vector<std::string>{"Step"});
    EXPECT_EQ(table->Undo(manager.get()), 0u);
    EXPECT_EQ(table->Redo(manager.get()), 0u);
    EXPECT_EQ(journal, (Journal{"do:a", "do:b", "undo:b", "undo:a", "do:a", "do:b"}));

    // c refuses its UNDO: the group's UNDO does b again and stays on the undo stack.
    journal.clear();
    commands.beginGroup("Step");
    run(b);
    run(c);
    commands.endGroup();
    EXPECT_EQ(table->Undo(manager.get()), 14u);
    EXPECT_EQ(journal, (Journal{"do:b", "do:c", "undo:c"}));
    EXPECT_EQ(depths(), std::make_pair(2u, 0u));

    journal.clear();
    commands.beginGroup("Step");
    run(a);
    EXPECT_EQ(commands.endGroup(false), 0u);
    EXPECT_EQ(journal, (Journal{"do:a", "undo:a", "gone:a"}));
    EXPECT_EQ(depths(), std::make_pair(2u, 0u));
}

// The undo stack keeps the user setting's number of commands, releasing the oldest, also
// when a redo fills it again or the setting is lowered between commands.
TEST_F(CommandsManagerTest, TheUndoStackKeepsTheSettingsLevels) {
    EXPECT_EQ(host.commands().undoLevels(), 1000u);
    ASSERT_EQ(host.settings().set(u"Editing/Undo levels", int64_t{2}), 0u);
    auto a = script("a"), b = script("b"), c = script("c"), d = script("d");
    run(a);
    run(b);
    run(c);
    EXPECT_EQ(depths(), std::make_pair(2u, 0u));
    EXPECT_EQ(journal, (Journal{"do:a", "do:b", "do:c", "gone:a"}));

    table->Undo(manager.get());
    table->Undo(manager.get());
    EXPECT_EQ(table->Undo(manager.get()), 1u);
    ASSERT_EQ(host.settings().set(u"Editing/Undo levels", int64_t{1}), 0u);
    EXPECT_EQ(table->Redo(manager.get()), 0u);
    EXPECT_EQ(table->Redo(manager.get()), 0u);
    EXPECT_EQ(depths(), std::make_pair(1u, 0u));
    EXPECT_EQ(journal.back(), "gone:b");
    run(d);
    EXPECT_EQ(journal.back(), "gone:c");

    EXPECT_EQ(host.settings().set(u"Editing/Undo levels", int64_t{0}), 3u);
    EXPECT_EQ(host.settings().set(u"Editing/Undo levels", int64_t{100001}), 3u);
}

// ---- registries ----------------------------------------------------------------------

struct RegistryCase {
    const char* label;
    const char* service;
    size_t registerSlot;
    size_t withdrawSlot;
    std::function<ObjectRegistry&(Host&)> registry;
};

void PrintTo(const RegistryCase& c, std::ostream* os) { *os << c.label; }

class RegistryTest : public ::testing::TestWithParam<RegistryCase> {
protected:
    using RegisterFn = uint32_t (*)(ServiceObject*, uint32_t, ServiceObject*);
    using WithdrawFn = uint32_t (*)(ServiceObject*, uint32_t);

    uint32_t put(uint32_t a, ServiceObject* so) {
        auto fn = reinterpret_cast<RegisterFn>(slots()[GetParam().registerSlot]);
        return fn(service.get(), a, so);
    }
    uint32_t withdraw(uint32_t a) {
        auto fn = reinterpret_cast<WithdrawFn>(slots()[GetParam().withdrawSlot]);
        return fn(service.get(), a);
    }
    void* const* slots() { return SODetails::methods<void* const>(service.get()); }

    Host host;
    ObjectPtr service = query(GetParam().service);
};

TEST_P(RegistryTest, KeepsOneReferenceAndReplacesEarlierRegistrations) {
    ObjectRegistry& registry = GetParam().registry(host);
    ObjectPtr first = makePlain(), second = makePlain();
    const uint32_t name = atom("WidgetEdit");

    EXPECT_EQ(put(name, first.get()), 0u);
    EXPECT_EQ(put(name, first.get()), 0u);  // again: still one reference
    EXPECT_EQ(refs(first.get()), 2);
    EXPECT_EQ(put(name, second.get()), 0u);
    EXPECT_EQ(refs(first.get()), 1);
    EXPECT_EQ(refs(second.get()), 2);
    EXPECT_EQ(registry.find(name).get(), second.get());
    EXPECT_EQ(registry.size(), 1u);
    EXPECT_EQ(registry.registrations(name), 3u);

    EXPECT_EQ(withdraw(name), 0u);
    EXPECT_EQ(withdraw(name), 1u);
    EXPECT_EQ(refs(second.get()), 1);
    EXPECT_TRUE(registry.empty());
    EXPECT_EQ(registry.withdrawals(name), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    AllRegistries, RegistryTest,
    ::testing::Values(
        RegistryCase{"Tools", "TasksRepository", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.tasks().tools(); }},
        RegistryCase{"CommandFactories", "CommandsManager", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.commands().factories(); }},
        RegistryCase{"AnnotEditSelectFactories", "QFService", 1, 2,
                     [](Host& h) -> ObjectRegistry& { return h.annotEdit().editSelectFactories(); }},
        RegistryCase{"SelectEditObjectServices", "QFEditService", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.edit().selectEditObjectServices(); }},
        RegistryCase{"EditObjectFactories", "QFEditObjectPickerFactory", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.picker().editObjectFactories(); }},
        RegistryCase{"CompositeItems", "QFEditObjectPickerFactory", 2, 3,
                     [](Host& h) -> ObjectRegistry& { return h.picker().compositeItems(); }},
        RegistryCase{"SelectionFactories", "QFEditModuleService", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.editModules().selectionFactories(); }},
        RegistryCase{"HandlerFactories", "QFPDAnnotService", 0, 1,
                     [](Host& h) -> ObjectRegistry& { return h.pdAnnots().handlerFactories(); }}),
    [](const auto& info) { return std::string(info.param.label); });

// ---- TasksRepository -----------------------------------------------------------------

// A tool that records the view and context it is initialised with, answers `result`, and
// notes "terminate:<tag>" in a journal when it is ended.
struct ToolTable {
    uint32_t (*Initialize)(ServiceObject* self, ServiceObject* view, ServiceObject* context);
    uint32_t (*Terminate)(ServiceObject* self);
};
struct Tool {
    uint32_t result;
    std::string tag;
    Journal* journal;
    ServiceObject* view = nullptr;
    ServiceObject* context = reinterpret_cast<ServiceObject*>(1);  // overwritten by Initialize
};
const ToolTable kToolTable = {
    [](ServiceObject* self, ServiceObject* view, ServiceObject* context) -> uint32_t {
        Tool& t = SODetails::implOf<ToolTable, Tool>(self);
        t.view = view;
        t.context = context;
        return t.result;
    },
    [](ServiceObject* self) -> uint32_t {
        Tool& t = SODetails::implOf<ToolTable, Tool>(self);
        t.journal->push_back("terminate:" + t.tag);
        return 0;
    }};
const ToolTable kToolWithoutMethods = {nullptr, nullptr};

struct ToolFactory {
    const ToolTable* table;
    uint32_t result;
    std::string tag;
    Journal* journal;
};
ObjectPtr makeToolFactory(Journal& journal, const char* tag, uint32_t result,
                          const ToolTable& toolTable = kToolTable) {
    static const QF::InputHandlerFactoryTable table = {
        [](ServiceObject* self, ServiceObject** out) -> uint32_t {
            auto& f = SODetails::implOf<QF::InputHandlerFactoryTable, ToolFactory>(self);
            *out = SODetails::makeServiceObject<ToolTable, Tool, qfhost::HostTraits>(
                0x7E570010, "QFInputHandler", 0x7E570011, *f.table, f.result, f.tag, f.journal);
            return 0;
        }};
    return ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::InputHandlerFactoryTable, ToolFactory, qfhost::HostTraits>(
            QF::kInputHandlerFactoryId, "QFInputHandlerFactory", 0x7E570012, table,
            ToolFactory{&toolTable, result, tag, &journal}));
}

TEST(TasksRepositoryTest, ActivateInitializesTheToolWithTheViewAndKeepsIt) {
    Journal journal;
    Host host;
    ObjectPtr tasks = query("TasksRepository");
    auto* t = SODetails::methods<QF::TasksRepositoryTable>(tasks.get());
    ObjectPtr good = makeToolFactory(journal, "good", 0), bad = makeToolFactory(journal, "bad", 2),
              bare = makeToolFactory(journal, "bare", 0, kToolWithoutMethods);
    t->RegisterTool(tasks.get(), atom("Good"), good.get());
    t->RegisterTool(tasks.get(), atom("Bad"), bad.get());
    t->RegisterTool(tasks.get(), atom("Bare"), bare.get());
    ObjectPtr view = makePlain();

    ObjectPtr tool;
    ASSERT_EQ(t->ActivateTool(tasks.get(), atom("Good"), view.get(), tool.put()), 0u);
    Tool& made = SODetails::implOf<ToolTable, Tool>(tool.get());
    EXPECT_EQ(made.view, view.get());
    EXPECT_EQ(made.context, nullptr);
    EXPECT_EQ(host.tasks().activeTool().get(), tool.get());
    EXPECT_EQ(host.tasks().activeToolAtom(), atom("Good"));
    EXPECT_EQ(refs(tool.get()), 2);

    // A failing Initialize is returned and the active tool stays, not terminated.
    ObjectPtr other;
    EXPECT_EQ(t->ActivateTool(tasks.get(), atom("Bad"), view.get(), other.put()), 2u);
    EXPECT_FALSE(other);
    EXPECT_EQ(host.tasks().activeTool().get(), tool.get());
    EXPECT_TRUE(journal.empty());

    // A tool without Initialize is activated as it is; the previous one is terminated and
    // dropped.
    EXPECT_EQ(t->ActivateTool(tasks.get(), atom("Bare"), view.get(), nullptr), 0u);
    EXPECT_EQ(journal, Journal{"terminate:good"});
    EXPECT_EQ(refs(tool.get()), 1);
    EXPECT_EQ(host.tasks().activeToolAtom(), atom("Bare"));

    // Replacing or dropping a tool without Terminate skips the call.
    EXPECT_EQ(t->ActivateTool(tasks.get(), atom("Good"), view.get(), nullptr), 0u);
    host.tasks().deactivate();
    EXPECT_EQ(journal, (Journal{"terminate:good", "terminate:good"}));
    EXPECT_FALSE(host.tasks().activeTool());
    EXPECT_EQ(host.tasks().activeToolAtom(), 0u);

    EXPECT_EQ(t->ActivateTool(tasks.get(), atom("Missing"), view.get(), other.put()), 0x10005u);
    EXPECT_EQ(t->CreateTool(tasks.get(), atom("Good"), nullptr), 3u);
    ASSERT_EQ(t->CreateTool(tasks.get(), atom("Good"), other.put()), 0u);
    EXPECT_EQ(refs(other.get()), 1);  // created, not activated
    EXPECT_EQ(journal.size(), 2u);
}

// ---- Host ----------------------------------------------------------------------------

TEST(HostTest, OffersEachServiceThroughTheProviderWhileItLives) {
    // Their interfaces and tables: AbiBadArgumentsTest.
    const HostService services[] = {
        HostService::TasksRepository,  HostService::CommandsManager,
        HostService::QFService,        HostService::QFEditService,
        HostService::QFEditObjectPickerFactory, HostService::QFEditModuleService,
        HostService::QFPDAnnotService, HostService::QFAnnotPropertiesFactory,
        HostService::QFAnnotEditService, HostService::KRWinServices,
        HostService::QFCompositeEditObjectFactory, HostService::GraphicsService,
        HostService::QFAnnotPropertiesValidate,
    };
    {
        Host host;
        for (HostService service : services) {
            const char* name = Host::nameOf(service);
            ObjectPtr so = query(name);
            ASSERT_EQ(so.get(), host.object(service)) << name;
            EXPECT_STREQ(SODetails::header(so.get())->interfaceName, name);
            EXPECT_EQ(host.refCount(service), 2) << name;
            so.reset();
            EXPECT_EQ(host.refCount(service), 1) << name;
        }
        SODetails::ErrorInfo info{7, 7, nullptr, "x", "y"};
        ServiceObject* tasks = host.object(HostService::TasksRepository);
        EXPECT_EQ(SODetails::header(tasks)->base.GetLastErrorInfo(tasks, &info, nullptr), 9u);
        EXPECT_EQ(info.code, 0u);
        EXPECT_EQ(info.function, nullptr);
    }
    ServiceObject* none = nullptr;
    EXPECT_EQ(ServiceProviderGetServiceObject(atom("CommandsManager"), &none, nullptr), 0x10008u);
}

}  // namespace
