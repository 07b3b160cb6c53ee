// Thunks, factories and registration lists with classes of the test's own, compiled into
// the test from the module's sources (the module's own lists stay untouched).
#include "Portable.h"
#include "TestSupport.h"
#include "qf/CommandFactory"
#include "qf/InitService"
#include "qf/InputHandlerFactory"


#include <stdexcept>
#include <string>
#include <vector>

namespace moduletest {

struct PingTable {
    uint32_t (*Ping)(ServiceObject* self);
};
struct TestTool {
    static inline int alive = 0;
    TestTool() { ++alive; }
    ~TestTool() { --alive; }
};
struct TestCommand {
    static constexpr uint32_t kFactoryStamp = 0x41E9643D;
    explicit TestCommand(const QF::CommandArgs& a) : args(a) {}
    QF::CommandArgs args;
};

// An init service whose answers the tests choose.
struct ThunkProbe {
    static inline int destroyed = 0;
    ~ThunkProbe() { ++destroyed; }
    uint32_t Init() { return answer; }
    uint32_t DeInit() { throw std::runtime_error("not a ServiceObjectException"); }
    uint32_t OnRibbonInitialized() {
        ThrowServiceObjectException(thrown, u"probe failed", "ThunkProbe::OnRibbonInitialized");
    }
    uint32_t answer = 0;
    uint32_t thrown = 0;
};

} // namespace moduletest

namespace SOImpl {
template <typename Traits> class CppQFInputHandlerBase<moduletest::TestTool, Traits> {
  public:
    static ServiceObject* CreateServiceObject() {
        return SODetails::makeServiceObject<moduletest::PingTable, moduletest::TestTool, Traits>(
            0x7E570001, "QFInputHandler", 1, moduletest::PingTable{nullptr});
    }
};
template <typename Traits> class CppCommandBase<moduletest::TestCommand, Traits> {
  public:
    static ServiceObject* CreateServiceObject(const QF::CommandArgs& args) {
        return SODetails::makeServiceObject<QF::CommandTable, moduletest::TestCommand, Traits>(
            QF::kCommandId, "Command", 0x6636A568, QF::CommandTable{}, args);
    }
};
} // namespace SOImpl

namespace moduletest {
namespace {

using ProbeBase = SOImpl::CppInitServiceBase<ThunkProbe, SODetails::ServiceObjectTraits>;

std::u16string lastMessage() {
    const FailureRecord* r = FetchFailure();
    return r ? r->Message() : u"<none>";
}

TEST(Thunks, CodesAndTheRecordsTheyLeave) {
    ThunkProbe::destroyed = 0;
    ServiceObject* so = ProbeBase::CreateServiceObject();
    auto& probe = SOImpl::ImplOf<ProbeBase>(so);
    auto& ops = *SODetails::methods<QF::InitServiceTable>(so);

    probe.answer = 2;
    EXPECT_EQ(ops.Init(so), 2u);
    const FailureRecord* r = FetchFailure();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Message(), u"InitService::Init() failed, code: 0x00000002");
    EXPECT_EQ(r->Function(), "SOImpl::CppInitServiceBase<moduletest::ThunkProbe,"
                             "SODetails::ServiceObjectTraits>::InitImpl::staticF");
    EXPECT_EQ(r->File(), "App/include/qf/InitService");
    EXPECT_NE(sourceLine(r->File(), r->Line()).find("SOIMPL_METHOD(Init)"), std::string::npos);

    probe.answer = 1; // a negative answer is not recorded
    EXPECT_EQ(ops.Init(so), 1u);
    EXPECT_EQ(lastMessage(), u"InitService::Init() failed, code: 0x00000002");
    EXPECT_EQ(ops.DeInit(so), 4u); // an exception of another kind: 4, with its text
    EXPECT_EQ(lastMessage(), u"not a ServiceObjectException");
    EXPECT_EQ(FetchFailure()->Code(), 4u);
    probe.thrown = 0x30005; // the thunk's record wraps the thrown one...
    EXPECT_EQ(ops.OnRibbonInitialized(so), 0x30005u);
    r = FetchFailure();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Message(), u"probe failed");
    EXPECT_EQ(r->File(), "tests/module/RegistrationTest.cpp");
    EXPECT_NE(r->Inner(), nullptr);
    EXPECT_EQ(r->Code(), 0x30005u);
    probe.thrown = 11; // ... and records nothing for code 11, which keeps the thrown one
    EXPECT_EQ(ops.OnRibbonInitialized(so), 11u);
    EXPECT_EQ(lastMessage(), u"probe failed");
    EXPECT_EQ(FetchFailure()->Inner(), nullptr);
    EXPECT_EQ(FetchFailure()->File(), "tests/module/RegistrationTest.cpp");
    EXPECT_EQ(ops.Init(nullptr), 3u);

    // The last Release destroys the implementation, once.
    EXPECT_EQ(SODetails::addRef(so), 2);
    EXPECT_EQ(SODetails::release(so), 1);
    EXPECT_EQ(ThunkProbe::destroyed, 0);
    EXPECT_EQ(SODetails::release(so), 0);
    EXPECT_EQ(ThunkProbe::destroyed, 1);
}

// Their null arguments: the host's AbiBadArgumentsTest, for every factory of the module.
TEST(Factories, ToolAndCommandFactoriesMakeObjects) {
    auto tools =
        BasicServiceObjectPtr<>::adopt(SOImpl::CppQFInputHandlerFactoryBase<
                                       _AutoReg_QFInputHandler::Factory<TestTool>,
                                       SODetails::ServiceObjectTraits>::CreateServiceObject());
    auto& toolOps = *SODetails::methods<QF::InputHandlerFactoryTable>(tools.get());
    ServiceObject* tool = nullptr;
    ASSERT_EQ(toolOps.CreateInputHandler(tools.get(), &tool), 0u);
    EXPECT_EQ(TestTool::alive, 1);
    SODetails::release(tool);
    EXPECT_EQ(TestTool::alive, 0);

    auto commands = BasicServiceObjectPtr<>::adopt(
        SOImpl::CppCommandFactoryBase<_AutoReg_Command::CommandFactory<TestCommand>,
                                      SODetails::ServiceObjectTraits>::CreateServiceObject());
    EXPECT_EQ(classStampOf(commands.get()), TestCommand::kFactoryStamp);
    auto& commandOps = *SODetails::methods<QF::CommandFactoryTable>(commands.get());
    int params = 0;
    const QF::CommandArgs args{17, 23, &params};
    ServiceObject* command = nullptr;
    ASSERT_EQ(commandOps.CreateCommand(commands.get(), &args, &command), 0u);
    EXPECT_EQ(refCountOf(command), 1);
    const auto& made = SODetails::implOf<QF::CommandTable, TestCommand>(command).args;
    EXPECT_EQ(made.uniqueId, 17u);
    EXPECT_EQ(made.nameAtom, 23u);
    EXPECT_EQ(made.params, &params);
    SODetails::release(command);
}

TEST(Registration, ListsAreWalkedNewestFirstAndHandedOverOnce) {
    ServiceRegistration tasks("TasksRepository", QF::kTasksRepositoryId,
                              QF::TasksRepositoryTable{&fakeRegister<QF::TasksRepositoryTable, 0>,
                                                       &fakeWithdraw<QF::TasksRepositoryTable, 1>,
                                                       nullptr, nullptr});
    const auto& calls = tasks.fake().calls;
    const uint32_t service = atomOf("TasksRepository");
    SOImpl::RegistrationList& list = SOImpl::ToolRegistrations();

    static _AutoReg_QFInputHandler::Registration<TestTool> a("QFFormsTestToolA");
    static _AutoReg_QFInputHandler::Registration<TestTool> b("QFFormsTestToolB");
    ASSERT_NE(list.first, nullptr);
    EXPECT_EQ(list.first->id, 0xFFFFFFFFu);
    EXPECT_EQ(refCountOf(list.first->factory.get()), 1); // the record's own reference

    SOImpl::RegisterList(list, service, 0);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].atom, atomOf("QFFormsTestToolB"));
    EXPECT_EQ(calls[0].objectInterfaceId, 0xBABE9A0Bu);
    EXPECT_EQ(calls[0].object, list.first->factory.get());
    EXPECT_EQ(calls[1].atom, atomOf("QFFormsTestToolA"));

    // A second pass has nothing to do; a new record is the only one handed over next.
    SOImpl::RegisterList(list, service, 0);
    EXPECT_EQ(calls.size(), 2u);
    static _AutoReg_QFInputHandler::Registration<TestTool> c("QFFormsTestToolC");
    EXPECT_EQ(list.registered, 0);
    SOImpl::RegisterList(list, service, 0);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].atom, atomOf("QFFormsTestToolC"));

    EXPECT_EQ(SOImpl::WithdrawList(list, service, 1), 0u);
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[5].slot, 1u);
    EXPECT_EQ(calls[5].atom, atomOf("QFFormsTestToolA"));
    for (auto* r = list.first; r; r = r->next)
        EXPECT_EQ(r->registered, 0);
}

// With the host's logger loaded, every failing call is logged as an error: the call, and
// where a thrown failure started with its text; negative answers are not.
TEST(Thunks, FailuresGoToTheHostsLogger) {
    void* logger = qftest::openLibrary(QF_TEST_LOGGER_PATH);
    ASSERT_NE(logger, nullptr) << qftest::libraryError();
    using Messages = const std::vector<std::u16string>* (*)();
    const auto& logged = *reinterpret_cast<Messages>(qftest::librarySymbol(logger, "FakeLoggerMessages"))();
    ServiceObject* so = ProbeBase::CreateServiceObject();
    auto& probe = SOImpl::ImplOf<ProbeBase>(so);
    auto& ops = *SODetails::methods<QF::InitServiceTable>(so);
    probe.answer = 2;
    EXPECT_EQ(ops.Init(so), 2u);
    probe.answer = 1;
    EXPECT_EQ(ops.Init(so), 1u);
    probe.thrown = 0x30005;
    EXPECT_EQ(ops.OnRibbonInitialized(so), 0x30005u);
    EXPECT_EQ(logged, (std::vector<std::u16string>{
                          u"1 InitService::Init() failed, code: 0x00000002",
                          u"1 InitService::OnRibbonInitialized() failed, code: 0x00030005: "
                          u"probe failed"}));
    SODetails::release(so);
    qftest::closeLibrary(logger);
}

TEST(Registration, RecordsWaitForAMissingServiceAndAFailedCall) {
    const uint32_t service = atomOf("CommandsManager");
    SOImpl::RegistrationList& list = SOImpl::CommandRegistrations();
    static _AutoReg_Command::Registration<TestCommand> first("QFFormsTestCommand1");
    SOImpl::RegisterList(list, service, 0); // no commands manager yet
    EXPECT_EQ(list.first->registered, 0);

    ServiceRegistration manager("CommandsManager", QF::kCommandsManagerId,
                                QF::CommandsManagerTable{&fakeRegister<QF::CommandsManagerTable, 0>,
                                                         &fakeWithdraw<QF::CommandsManagerTable, 1>,
                                                         nullptr, nullptr, nullptr, nullptr,
                                                         nullptr});
    static _AutoReg_Command::Registration<TestCommand> second("QFFormsTestCommand2");
    manager.fake().results[0] = 0x30005;
    try {
        SOImpl::RegisterList(list, service, 0);
        ADD_FAILURE() << "a failed registration must throw";
    } catch (const ServiceObjectException& e) {
        EXPECT_EQ(e.Code(), 0x30005u);
    }
    EXPECT_EQ(list.registered, 0);

    manager.fake().results.clear();
    SOImpl::RegisterList(list, service, 0);
    const auto& calls = manager.fake().calls;
    ASSERT_EQ(calls.size(), 3u); // the failed call, then both records
    EXPECT_EQ(calls[1].atom, atomOf("QFFormsTestCommand2"));
    EXPECT_EQ(calls[2].atom, atomOf("QFFormsTestCommand1"));
    EXPECT_EQ(calls[2].objectClassStamp, TestCommand::kFactoryStamp);
    EXPECT_EQ(SOImpl::WithdrawList(list, service, 1), 0u);
}

} // namespace
} // namespace moduletest
