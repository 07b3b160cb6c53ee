// The module as a host sees it: loaded as a library, reached only through its exports and
// the objects they hand out, talking to fake host services through the provider.
#include "FormsInitService.h"
#include "Portable.h"
#include "TestSupport.h"
#include "WidgetEditFactories.h"
#include "qf/Interfaces.h"
#include "qf/ModuleExports.h"

#include <thread>

namespace moduletest {
namespace {

struct Module {
    uint32_t (*create)(uint32_t, ServiceObject**) = nullptr;
    uint32_t (*reflect)(ServiceObjectInfoEntry**, uint32_t*) = nullptr;
    uint32_t (*hooks[3])() = {};
    // The first reflection, made right after loading, before any id is resolved.
    uint32_t firstCode = 0;
    ServiceObjectInfoEntry* firstEntries = nullptr;
    std::vector<ServiceObjectInfoEntry> firstTable;

    // Opened once per process, never closed.
    static Module& get() {
        static Module m = [] {
            Module m;
            void* lib = qftest::openLibrary(QF_FORMS_MODULE_PATH);
            EXPECT_NE(lib, nullptr) << qftest::libraryError();
            if (!lib) return m;
            m.create = reinterpret_cast<decltype(m.create)>(qftest::librarySymbol(lib, "CreateServiceObject"));
            m.reflect =
                reinterpret_cast<decltype(m.reflect)>(qftest::librarySymbol(lib, "ReflectServiceObjectInfo"));
            const char* hookNames[3] = {"ServiceObjectModuleInitialize",
                                        "ServiceObjectModuleOnCleanup",
                                        "ServiceObjectModuleOnFree"};
            for (int i = 0; i < 3; ++i)
                m.hooks[i] = reinterpret_cast<uint32_t (*)()>(qftest::librarySymbol(lib, hookNames[i]));
            uint32_t count = 0;
            m.firstCode = m.reflect(&m.firstEntries, &count);
            if (m.firstEntries) m.firstTable.assign(m.firstEntries, m.firstEntries + count + 1);
            return m;
        }();
        return m;
    }

    BasicServiceObjectPtr<> createInitService() {
        ServiceObject* so = nullptr;
        EXPECT_EQ(create(atomOf("QFInitForms"), &so), 0u);
        return BasicServiceObjectPtr<>::adopt(so);
    }
};

QF::InitServiceTable& initOps(const BasicServiceObjectPtr<>& so) {
    return *SODetails::methods<QF::InitServiceTable>(so.get());
}

// Bad ids and outputs, and the hooks called out of order: AbiBadArgumentsTest.
TEST(ModuleExports, EachCreateMakesANewInitService) {
    Module& m = Module::get();
    ASSERT_TRUE(m.create && m.reflect && m.hooks[0] && m.hooks[1] && m.hooks[2]);
    auto a = m.createInitService();
    auto b = m.createInitService();
    EXPECT_NE(a.get(), b.get());
}

TEST(ModuleExports, ReflectionIsBuiltOnce) {
    Module& m = Module::get();
    ASSERT_EQ(m.firstCode, 0u);
    ASSERT_EQ(m.firstTable.size(), 2u); // one record and the terminator
    EXPECT_STREQ(m.firstTable[0].name, "QFInitForms");
    EXPECT_EQ(m.firstTable[0].id, 0xFFFFFFFFu);
    EXPECT_EQ(m.firstTable[1].id, 0u);
    EXPECT_EQ(m.firstTable[1].padding, 0u);
    EXPECT_EQ(m.firstTable[1].name, nullptr);

    ServiceObjectInfoEntry* entries = nullptr;
    uint32_t count = 0;
    auto resolved = m.createInitService(); // resolves the record's id
    ASSERT_EQ(m.reflect(&entries, &count), 0u);
    EXPECT_EQ(entries, m.firstEntries);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(entries[0].id, 0xFFFFFFFFu);
}

TEST(ServiceObjectBlock, RawLayoutOfALiveInitService) {
    auto init = Module::get().createInitService();
    const char* b = reinterpret_cast<const char*>(init.get());
    EXPECT_EQ(readU32(b, 0), QF::kInitServiceId);
    EXPECT_EQ(readU32(b, 4), 24u);
    const char* name;
    std::memcpy(&name, b + 8, 8);
    EXPECT_STREQ(name, "InitService");
    for (size_t slot = 0; slot < 5 + 3; ++slot) {
        void* fn;
        std::memcpy(&fn, b + 16 + 8 * slot, 8);
        EXPECT_NE(fn, nullptr) << "slot " << slot;
    }
    EXPECT_EQ(std::memcmp(b + 56 + 24, "EOFT", 4), 0);
    EXPECT_EQ(readU32(b, 84), QFPluginFormsInitServiceImpl::kClassStamp);
    EXPECT_EQ(readU32(b, 88), 1u); // reference count
    EXPECT_EQ(readU32(b, 96), 0u); // no weak reference yet
    EXPECT_EQ(readU32(b, 100), 0u);
    size_t end = 104 + sizeof(QFPluginFormsInitServiceImpl);
    while (end < 4096 && std::memcmp(b + end, "EOSO", 4) != 0)
        ++end;
    EXPECT_LT(end, 4096u) << "no EOSO after the implementation";
}

TEST(ServiceObjectBlock, ReferencesAndWeakReferences) {
    ServiceObject* so = Module::get().createInitService().detach();
    const auto& base = SODetails::header(so)->base;
    EXPECT_EQ(base.AddRef(so), 2);
    EXPECT_EQ(base.Release(so), 1);

    EXPECT_EQ(base.GetWeakReference(so, nullptr), 3u);
    SODetails::WeakReference *first = nullptr, *second = nullptr;
    ASSERT_EQ(base.GetWeakReference(so, &first), 0u);
    const int32_t count = first->ops->GetRefCount(first);
    ASSERT_EQ(base.GetWeakReference(so, &second), 0u);
    EXPECT_EQ(second, first);
    EXPECT_EQ(first->ops->GetRefCount(first), count + 1);

    ServiceObject* locked = nullptr;
    ASSERT_EQ(first->ops->Lock(first, &locked), 0u);
    EXPECT_EQ(locked, so);
    EXPECT_EQ(base.Release(locked), 1);
    EXPECT_EQ(base.Release(so), 0); // destroyed
    EXPECT_EQ(first->ops->IsAlive(first), 0u);
    EXPECT_EQ(first->ops->Lock(first, &locked), 0u);
    EXPECT_EQ(locked, nullptr);
    first->ops->Release(first);
    second->ops->Release(second);
}

// ---- the init service with fake host services -----------------------------------------------

struct FakeHost {
    ServiceRegistration qfService{"QFService", QF::kServiceId,
                                  QF::ServiceTable{&fakeNoArgument<QF::ServiceTable, 0>,
                                                   &fakeRegister<QF::ServiceTable, 1>,
                                                   &fakeWithdraw<QF::ServiceTable, 2>,
                                                   nullptr}};
    ServiceRegistration editService{"QFEditService", QF::kEditServiceId,
                                    QF::EditServiceTable{&fakeRegister<QF::EditServiceTable, 0>,
                                                         &fakeWithdraw<QF::EditServiceTable, 1>}};
    ServiceRegistration picker{
        "QFEditObjectPickerFactory", QF::kEditObjectPickerFactoryId,
        QF::EditObjectPickerFactoryTable{&fakeRegister<QF::EditObjectPickerFactoryTable, 0>,
                                         &fakeWithdraw<QF::EditObjectPickerFactoryTable, 1>,
                                         &fakeRegister<QF::EditObjectPickerFactoryTable, 2>,
                                         &fakeWithdraw<QF::EditObjectPickerFactoryTable, 3>}};
    ServiceRegistration commands{
        "CommandsManager", QF::kCommandsManagerId,
        QF::CommandsManagerTable{&fakeRegister<QF::CommandsManagerTable, 0>,
                                 &fakeWithdraw<QF::CommandsManagerTable, 1>, nullptr, nullptr,
                                 nullptr, nullptr, nullptr}};
};

void expectCall(const HostCall& call, size_t slot, uint32_t atom, uint32_t interfaceId = 0,
                uint32_t tableSize = 0, uint32_t stamp = 0) {
    EXPECT_EQ(call.slot, slot);
    EXPECT_EQ(call.atom, atom);
    EXPECT_EQ(call.objectInterfaceId, interfaceId);
    EXPECT_EQ(call.objectTableSize, tableSize);
    EXPECT_EQ(call.objectClassStamp, stamp);
}

TEST(InitService, InitInstallsTheWidgetObjectsAndDeInitWithdrawsThem) {
    FakeHost host;
    auto init = Module::get().createInitService();
    ASSERT_EQ(initOps(init).Init(init.get()), 0u);
    const uint32_t widget = PD_ATOM_Widget, widgetEdit = atomOf("WidgetEdit");

    const auto& q = host.qfService.fake().calls;
    const auto& e = host.editService.fake().calls;
    const auto& p = host.picker.fake().calls;
    ASSERT_EQ(q.size(), 2u);
    expectCall(q[0], 0, 0); // Prepare
    expectCall(q[1], 1, widget, 0x307F2EF5, 24, WidgetEditSelectFactory::kClassStamp);
    ASSERT_EQ(e.size(), 1u);
    expectCall(e[0], 0, widgetEdit, 0xEDE102A7, 24,
               QFSelectEditObjectService_QFWidgetEditImpl::kClassStamp);
    ASSERT_EQ(p.size(), 2u);
    expectCall(p[0], 0, widgetEdit, 0xB8B7CFF2, 16, QFWidgetEditObjectFactoryImpl::kClassStamp);
    expectCall(p[1], 2, widgetEdit, 0x14EC0B4A, 16,
               QFCompositeEditObjectFactoryItemAnnotImpl::kClassStamp);
    // The command list is walked newest first: the widget commands' and the tab-order
    // commands' factories, each file's newest first; which file's static initialisers ran
    // first is the linker's choice (ELF and PE linkers choose differently).
    const auto& c = host.commands.fake().calls;
    ASSERT_EQ(c.size(), 6u);
    const size_t w = c[0].atom == atomOf("GroupRadioButtons") ? 0 : 3, t = 3 - w;
    expectCall(c[w + 0], 0, atomOf("GroupRadioButtons"), 0x9CF4B284, 8, 0xF7CC6245);
    expectCall(c[w + 1], 0, atomOf("Widget_Rename"), 0x9CF4B284, 8, 0xBCF16546);
    expectCall(c[w + 2], 0, atomOf("AddWidget"), 0x9CF4B284, 8, 0x41E9643D);
    expectCall(c[t + 0], 0, atomOf("MoveAnnotsFocusOrder"), 0x9CF4B284, 8, 0x6A7A71D7);
    expectCall(c[t + 1], 0, atomOf("AutoTabOrderAnnot"), 0x9CF4B284, 8, 0xC3743458);
    expectCall(c[t + 2], 0, atomOf("TabOrderAnnot"), 0x9CF4B284, 8, 0xDBA4DDCB);
    EXPECT_EQ(initOps(init).OnRibbonInitialized(init.get()), 1u);

    ASSERT_EQ(initOps(init).DeInit(init.get()), 0u);
    ASSERT_EQ(c.size(), 12u);
    for (size_t i = 6; i < 12; ++i) expectCall(c[i], 1, c[i - 6].atom);
    ASSERT_EQ(p.size(), 4u);
    expectCall(p[2], 3, widgetEdit);
    expectCall(p[3], 1, widgetEdit);
    ASSERT_EQ(e.size(), 2u);
    expectCall(e[1], 1, widgetEdit);
    ASSERT_EQ(q.size(), 3u);
    expectCall(q[2], 2, widget);
    // The module dropped its own reference; the host's is the last one.
    EXPECT_EQ(refCountOf(host.qfService.fake().kept[0].get()), 1);

    // A failing host call ends Init with its code.
    host.qfService.fake().results[0] = 0x30005;
    EXPECT_EQ(initOps(init).Init(init.get()), 0x30005u);
}

TEST(InitService, MissingServicesAndOperationsAreSkipped) {
    auto init = Module::get().createInitService();
    EXPECT_EQ(initOps(init).Init(init.get()), 0u);
    EXPECT_EQ(initOps(init).DeInit(init.get()), 0u);

    // A "QFService" too old for registration: it has Prepare only.
    struct PrepareOnly {
        uint32_t (*Prepare)(ServiceObject*);
    };
    ServiceRegistration old("QFService", QF::kServiceId,
                            PrepareOnly{&fakeNoArgument<PrepareOnly, 0>});
    EXPECT_EQ(initOps(init).Init(init.get()), 0u);
    EXPECT_EQ(initOps(init).DeInit(init.get()), 0u);
    ASSERT_EQ(old.fake().calls.size(), 1u);
}

TEST(FailureRecords, AFailingCallIsReadBackOnItsOwnThreadOnly) {
    FakeHost host;
    auto init = Module::get().createInitService();
    ASSERT_EQ(initOps(init).Init(init.get()), 0u);
    ServiceObject* factory = host.qfService.fake().kept.at(0).get();
    auto& ops = *SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory);
    auto lastError = [](ServiceObject* so, SODetails::ErrorInfo* info) {
        std::memset(info, 0xAB, sizeof *info);
        return SODetails::header(so)->base.GetLastErrorInfo(so, info, nullptr);
    };

    ServiceObject* out = nullptr;
    EXPECT_EQ(ops.CreateSelection(factory, nullptr, 0, nullptr, &out), 3u);
    SODetails::ErrorInfo info;
    ASSERT_EQ(lastError(init.get(), &info), 0u); // any of the module's objects answers
    EXPECT_EQ(info.code, 3u);
    EXPECT_EQ(std::u16string(info.message),
              u"QFAnnotEditSelectFactory::CreateSelection() failed, code: 0x00000003");
    EXPECT_STREQ(info.function,
                 "SOImpl::CppQFAnnotEditSelectFactoryBase<WidgetEditSelectFactory,SODetails::"
                 "ServiceObjectTraits>::CreateSelectionImpl::staticF");
    EXPECT_STREQ(info.file, "App/include/qf/AnnotEditSelectFactory");
    EXPECT_NE(sourceLine(info.file, info.line).find("SOIMPL_METHOD(CreateSelection)"),
              std::string::npos);

    uint32_t otherCode = 0;
    SODetails::ErrorInfo other;
    std::thread([&] { otherCode = lastError(factory, &other); }).join();
    EXPECT_EQ(otherCode, 9u);
    const SODetails::ErrorInfo zero{};
    EXPECT_EQ(std::memcmp(&other, &zero, sizeof zero), 0);

    // A page index of all ones is refused by the implementation itself.
    PDAnnot annot = nullptr;
    EXPECT_EQ(ops.PasteAnnot(factory, init.get(), ~uint64_t{0}, init.get(), &annot), 3u);
    ASSERT_EQ(lastError(factory, &info), 0u);
    EXPECT_EQ(std::u16string(info.message),
              u"QFAnnotEditSelectFactory::PasteAnnot() failed, code: 0x00000003");
    EXPECT_EQ(initOps(init).DeInit(init.get()), 0u);
}

} // namespace
} // namespace moduletest
