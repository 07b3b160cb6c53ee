// The boundary between host and module called with bad arguments: every export of the forms
// module and every method of every service object either side hands the other, with null
// pointers, out-of-range indices, counts and atoms, and stale objects (a closed document,
// an annotation of one, a destroyed view, a module object after DeInit). Each row is one
// bad call and the code it must answer. The slots a table row names come from the method
// tables (offsetof), and every filled slot of an object's table (its size S) needs at least
// one row, so a method added to an interface without rows here fails.
#include "Portable.h"
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/StringPairList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace hosttest;
using qfhost::Host;
using qfhost::HostService;
using qfhost::ModuleLoader;

constexpr uint32_t kNone = 0xFFFFFFFF;              // atom "not yet resolved"
constexpr uint32_t kUnknownAtom = 0x7FFFFFF1;       // an atom nobody handed out
constexpr uint64_t kHuge = ~uint64_t{0};
constexpr uint32_t kClosed = qfhost::codes::kDocumentClosed;
// Rows whose answer depends on the tool or object kind (0 done, 1 nothing to do, 2 not
// initialised, 3 refused): the call must return, without touching freed memory.
constexpr uint32_t kAny = 0xFFFFFFFE;

// One bad call of the method in slot `slot` and the code it must answer.
struct Row {
    size_t slot;
    std::string what;
    uint32_t expected;
    std::function<uint32_t(ServiceObject*)> call;
};

// A row calling Method of Table on the object checked, with the arguments after self; the
// slot is the method's place in the table.
#define ROW(Table, Method, what, expected, ...)                                                  \
    Row {                                                                                        \
        offsetof(Table, Method) / sizeof(void*), what, expected,                                 \
            [&](ServiceObject* self_) -> uint32_t {                                              \
                return SODetails::methods<Table>(self_)->Method(self_ __VA_OPT__(, )             \
                                                                    __VA_ARGS__);                \
            }                                                                                    \
    }

// Runs rows against so (of interface Table, id interfaceId): the base operations' null
// outputs first, then every row in order; then checks that every filled slot had a row.
template <typename Table>
void check(const std::string& name, ServiceObject* so, uint32_t interfaceId,
           const std::vector<Row>& rows) {
    ASSERT_NE(so, nullptr) << name;
    const auto* header = SODetails::header(so);
    ASSERT_EQ(header->interfaceId, interfaceId) << name;
    ASSERT_EQ(header->tableSize, sizeof(Table)) << name;

    const void* record = nullptr;
    EXPECT_EQ(header->base.GetWeakReference(so, nullptr), 3u) << name;
    EXPECT_EQ(header->base.GetLastErrorInfo(so, nullptr, nullptr), 3u) << name;
    EXPECT_EQ(header->base.GetLastErrorInfo(so, nullptr, &record), 3u) << name;

    std::set<size_t> covered;
    for (const Row& row : rows) {
        covered.insert(row.slot);
        const uint32_t code = row.call(so);
        if (row.expected == kAny) continue;
        if (code != row.expected) {
            ADD_FAILURE() << name << " slot " << row.slot << " (" << row.what << "): answered 0x"
                          << std::hex << code << ", expected 0x" << row.expected;
        }
    }
    for (size_t slot = 0; slot < header->tableSize / sizeof(void*); ++slot) {
        if (SODetails::hasMethod(so, slot)) {
            EXPECT_TRUE(covered.count(slot)) << name << ": no row for slot " << slot;
        }
    }
}

void noChange(void*, ServiceObject*) {}
void noAnnotChange(void*, uint32_t, uint64_t, PDAnnot) {}
void noAnnotsChange(void*, uint32_t, uint64_t, const PDAnnot*, uint64_t) {}
void noDraw(void*, ServiceObject*, uint64_t) {}
void noText(void*, const char16_t*, uint64_t) {}
void noList(void*, ServiceObject*) {}
void noMatrix(void*, float*) {}

const QF::TextSink kSink{nullptr, noText};
const QF::PropertyValueSink kValueSink{nullptr, noText, noList};

// The clipboard and the settings stay inside a directory of the test's own, away from the
// user's desktop and configuration. Made before the host.
struct PrivateFiles {
    std::filesystem::path dir;
    PrivateFiles() {
        dir = std::filesystem::temp_directory_path() /
              ("qf-abi-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        qftest::setEnv("QF_CLIPBOARD", (dir / "clipboard.json").string().c_str());
        qftest::setEnv("XDG_CONFIG_HOME", dir.string().c_str());
    }
    ~PrivateFiles() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

// The forms module loaded into a host with a two-page document in a view, a text widget
// on page 0 of it, and a second document closed at once whose blocks and widget the test
// keeps (the stale ones).
class AbiBadArguments : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE));
        document = &host.newDocument(2, 612, 792);
        widget.h = addTextWidget(document->pdDoc(), 0, PDRect{100, 700, 250, 680});

        qfhost::Document& other = host.newDocument(1, 612, 792);
        staleWidget.h = addTextWidget(other.pdDoc(), 0, PDRect{100, 700, 250, 680});
        staleDocument = ObjectPtr::share(other.object());
        staleDocPage = ObjectPtr::share(other.page(0));
        qfhost::View& otherView = host.openView(other);
        staleView = ObjectPtr::share(otherView.object());
        host.closeDocument(other);  // its view goes with it

        view = &host.openView(*document);
    }
    void TearDown() override { host.releaseModuleObjects(); }

    ServiceObject* doc() const { return document->object(); }
    ServiceObject* hostObject(HostService s) const { return host.object(s); }

    PrivateFiles files;
    Host host;
    ModuleLoader loader{&host};
    qfhost::Document* document = nullptr;
    qfhost::View* view = nullptr;
    Handle widget, staleWidget;
    ObjectPtr staleDocument, staleDocPage, staleView;
};

// ---- the exports and the order of calls ---------------------------------------------------

struct Exports {
    void* library = nullptr;
    ModuleLoader::CreateServiceObjectFn create = nullptr;
    ModuleLoader::ReflectServiceObjectInfoFn reflect = nullptr;
    ModuleLoader::ModuleHookFn hooks[3] = {};
    // The module the loader has loaded, one more reference to it while this lives.
    explicit Exports(const char* path) {
        library = qftest::loadedLibrary(path);
        if (!library) return;
        create = reinterpret_cast<decltype(create)>(qftest::librarySymbol(library, "CreateServiceObject"));
        reflect = reinterpret_cast<decltype(reflect)>(qftest::librarySymbol(library, "ReflectServiceObjectInfo"));
        const char* names[3] = {"ServiceObjectModuleInitialize", "ServiceObjectModuleOnCleanup",
                                "ServiceObjectModuleOnFree"};
        for (int i = 0; i < 3; ++i)
            hooks[i] = reinterpret_cast<ModuleLoader::ModuleHookFn>(qftest::librarySymbol(library, names[i]));
    }
    ~Exports() {
        if (library) qftest::closeLibrary(library);
    }
};

TEST_F(AbiBadArguments, Exports) {
    ServiceObject* out = nullptr;
    ServiceObjectInfoEntry* entries = nullptr;
    uint32_t count = 0;
    {
        Exports m(QF_FORMS_MODULE);
        ASSERT_TRUE(m.create && m.reflect && m.hooks[0] && m.hooks[1] && m.hooks[2]);
        const uint32_t init = atom(ModuleLoader::kInitServiceName);
        const struct {
            const char* what;
            uint32_t expected;
            std::function<uint32_t()> call;
        } rows[] = {
            {"Create: id 0", 3, [&] { return m.create(0, &out); }},
            {"Create: id 0xFFFFFFFF", 0x10005, [&] { return m.create(kNone, &out); }},
            {"Create: null out", 3, [&] { return m.create(init, nullptr); }},
            {"Create: id 0, null out", 3, [&] { return m.create(0, nullptr); }},
            {"Create: unknown atom", 0x10005, [&] { return m.create(kUnknownAtom, &out); }},
            {"Create: a tool's atom", 0x10005, [&] { return m.create(atom("WidgetEdit"), &out); }},
            {"Reflect: null entries", 3, [&] { return m.reflect(nullptr, &count); }},
            {"Reflect: null count", 3, [&] { return m.reflect(&entries, nullptr); }},
            {"Reflect: both null", 3, [&] { return m.reflect(nullptr, nullptr); }},
            // The hooks do nothing: any order, any number of times.
            {"OnFree while loaded", 0, [&] { return m.hooks[2](); }},
            {"OnCleanup while loaded", 0, [&] { return m.hooks[1](); }},
            {"Initialize again", 0, [&] { return m.hooks[0](); }},
        };
        for (const auto& row : rows) {
            EXPECT_EQ(row.call(), row.expected) << row.what;
            EXPECT_EQ(out, nullptr) << row.what;
        }
        // The module still works after the hooks ran out of order.
        ASSERT_EQ(m.create(init, &out), 0u);
        SODetails::release(out);
        out = nullptr;
    }

    // The init service out of order: a second Init, DeInit twice, Init after DeInit.
    ServiceObject* init = loader.initService();
    const std::vector<Row> initRows = {
        ROW(QF::InitServiceTable, OnRibbonInitialized, "answers no", 1),
        ROW(QF::InitServiceTable, Init, "second Init", 0),
        ROW(QF::InitServiceTable, DeInit, "DeInit", 0),
        ROW(QF::InitServiceTable, DeInit, "DeInit again", 0),
        ROW(QF::InitServiceTable, OnRibbonInitialized, "after DeInit", 1),
        ROW(QF::InitServiceTable, Init, "Init after DeInit", 0),
    };
    check<QF::InitServiceTable>("InitService", init, QF::kInitServiceId, initRows);
    EXPECT_EQ(host.tasks().tools().size(), 13u);

    // The loader before loading and after unloading.
    const auto report = loader.unload();
    EXPECT_TRUE(report.closed) << report.problem;
    EXPECT_EQ(loader.createServiceObject(atom(ModuleLoader::kInitServiceName), &out), 2u);
    EXPECT_EQ(loader.callInit(), 2u);
    EXPECT_EQ(loader.callDeInit(), 2u);
    EXPECT_EQ(loader.initService(), nullptr);
    EXPECT_EQ(loader.unload().closed, false);  // nothing to do
    ModuleLoader fresh(&host);
    EXPECT_EQ(fresh.createServiceObject(atom(ModuleLoader::kInitServiceName), &out), 2u);
    EXPECT_EQ(fresh.callInit(), 2u);
    EXPECT_EQ(fresh.callDeInit(), 2u);
    EXPECT_EQ(out, nullptr);
}

// Weak references of both sides' objects: null outputs, and Lock after the object died.
TEST_F(AbiBadArguments, WeakReferences) {
    for (ServiceObject* so : {loader.initService(), hostObject(HostService::CommandsManager)}) {
        SODetails::WeakReference* weak = nullptr;
        ASSERT_EQ(SODetails::header(so)->base.GetWeakReference(so, &weak), 0u);
        EXPECT_EQ(weak->ops->Lock(weak, nullptr), 3u);
        EXPECT_EQ(weak->ops->IsAlive(weak), 1u);
        weak->ops->Release(weak);
    }
    ServiceObject* made = nullptr;
    ASSERT_EQ(loader.createServiceObject(atom(ModuleLoader::kInitServiceName), &made), 0u);
    SODetails::WeakReference* weak = nullptr;
    ASSERT_EQ(SODetails::header(made)->base.GetWeakReference(made, &weak), 0u);
    SODetails::release(made);
    ServiceObject* locked = reinterpret_cast<ServiceObject*>(1);
    EXPECT_EQ(weak->ops->Lock(weak, &locked), 0u);
    EXPECT_EQ(locked, nullptr);
    EXPECT_EQ(weak->ops->Lock(weak, nullptr), 3u);
    EXPECT_EQ(weak->ops->IsAlive(weak), 0u);
    weak->ops->Release(weak);
}

// ---- the host services the module calls ---------------------------------------------------

TEST_F(AbiBadArguments, HostRegistries) {
    ObjectPtr plain = makePlain();
    ServiceObject* p = plain.get();
    ServiceObject* tasks = hostObject(HostService::TasksRepository);
    ServiceObject* commands = hostObject(HostService::CommandsManager);
    ServiceObject* qf = hostObject(HostService::QFService);
    ServiceObject* edit = hostObject(HostService::QFEditService);
    ServiceObject* picker = hostObject(HostService::QFEditObjectPickerFactory);
    ServiceObject* modules = hostObject(HostService::QFEditModuleService);
    ServiceObject* pdAnnots = hostObject(HostService::QFPDAnnotService);
    ObjectPtr sink;
    uint32_t depth = 0;
    const QF::CommandArgs unknownCommand{1, kUnknownAtom, nullptr};
    const QF::CommandArgs noneCommand{1, kNone, nullptr};

    ASSERT_EQ(host.tasks().tools().put(atom("AbiPlain"), p), 0u);
    using T = QF::TasksRepositoryTable;
    check<T>("TasksRepository", tasks, QF::kTasksRepositoryId, {
        ROW(T, RegisterTool, "atom 0", 3, 0, p),
        ROW(T, RegisterTool, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(T, RegisterTool, "null factory", 3, atom("AbiTool"), nullptr),
        ROW(T, WithdrawTool, "atom 0", 3, 0),
        ROW(T, WithdrawTool, "atom 0xFFFFFFFF", 3, kNone),
        ROW(T, WithdrawTool, "nothing under the atom", 1, kUnknownAtom),
        ROW(T, CreateTool, "null out", 3, atom("WidgetEdit"), nullptr),
        ROW(T, CreateTool, "atom 0", 0x10005, 0, sink.put()),
        ROW(T, CreateTool, "unknown atom", 0x10005, kUnknownAtom, sink.put()),
        ROW(T, CreateTool, "a factory that makes nothing", 0x10006, atom("AbiPlain"), sink.put()),
        ROW(T, ActivateTool, "unknown atom", 0x10005, kUnknownAtom, view->object(), sink.put()),
        ROW(T, ActivateTool, "atom 0xFFFFFFFF, null out", 0x10005, kNone, nullptr, nullptr),
    });
    EXPECT_FALSE(sink);
    ASSERT_EQ(host.tasks().tools().remove(atom("AbiPlain")), 0u);

    using C = QF::CommandsManagerTable;
    check<C>("CommandsManager", commands, QF::kCommandsManagerId, {
        ROW(C, RegisterCommandFactory, "atom 0", 3, 0, p),
        ROW(C, RegisterCommandFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(C, RegisterCommandFactory, "null factory", 3, atom("AbiCmd"), nullptr),
        ROW(C, WithdrawCommandFactory, "atom 0", 3, 0),
        ROW(C, WithdrawCommandFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(C, WithdrawCommandFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(C, ExecuteCommand, "null args", 3, nullptr),
        ROW(C, ExecuteCommand, "unknown name atom", 0x10005, &unknownCommand),
        ROW(C, ExecuteCommand, "name atom 0xFFFFFFFF", 0x10005, &noneCommand),
        ROW(C, Undo, "empty stack", 1),
        ROW(C, Redo, "empty stack", 1),
        ROW(C, GetStackDepths, "null undo", 3, nullptr, &depth),
        ROW(C, GetStackDepths, "null redo", 3, &depth, nullptr),
        ROW(C, Clear, "nothing to clear", 0),
    });

    using Q = QF::ServiceTable;
    check<Q>("QFService", qf, QF::kServiceId, {
        ROW(Q, Prepare, "again", 0),
        ROW(Q, RegisterAnnotEditSelectFactory, "atom 0", 3, 0, p),
        ROW(Q, RegisterAnnotEditSelectFactory, "null factory", 3, PD_ATOM_Widget, nullptr),
        ROW(Q, WithdrawAnnotEditSelectFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(Q, WithdrawAnnotEditSelectFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(Q, DeselectAnnot, "null annotation", 1, 0, nullptr),
        ROW(Q, DeselectAnnot, "page past the pages", 1, kHuge, widget.get()),
        ROW(Q, DeselectAnnot, "annotation of a closed document", 1, 0, staleWidget.get()),
    });

    // The four plain registries: register and withdraw with bad atoms and objects.
    using E = QF::EditServiceTable;
    check<E>("QFEditService", edit, QF::kEditServiceId, {
        ROW(E, RegisterSelectEditObjectService, "atom 0", 3, 0, p),
        ROW(E, RegisterSelectEditObjectService, "null service", 3, atom("AbiType"), nullptr),
        ROW(E, WithdrawSelectEditObjectService, "atom 0", 3, 0),
        ROW(E, WithdrawSelectEditObjectService, "nothing under the atom", 1, kUnknownAtom),
    });
    using P = QF::EditObjectPickerFactoryTable;
    check<P>("QFEditObjectPickerFactory", picker, QF::kEditObjectPickerFactoryId, {
        ROW(P, RegisterEditObjectFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(P, RegisterEditObjectFactory, "null factory", 3, atom("AbiType"), nullptr),
        ROW(P, WithdrawEditObjectFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(P, WithdrawEditObjectFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(P, RegisterCompositeItem, "atom 0", 3, 0, p),
        ROW(P, RegisterCompositeItem, "null item", 3, atom("AbiType"), nullptr),
        ROW(P, WithdrawCompositeItem, "atom 0", 3, 0),
        ROW(P, WithdrawCompositeItem, "nothing under the atom", 1, kUnknownAtom),
    });
    using M = QF::EditModuleServiceTable;
    check<M>("QFEditModuleService", modules, QF::kEditModuleServiceId, {
        ROW(M, RegisterSelectionFactory, "atom 0", 3, 0, p),
        ROW(M, RegisterSelectionFactory, "null factory", 3, atom("AbiSel"), nullptr),
        ROW(M, WithdrawSelectionFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(M, WithdrawSelectionFactory, "nothing under the atom", 1, kUnknownAtom),
    });
    using A = QF::PDAnnotServiceTable;
    check<A>("QFPDAnnotService", pdAnnots, QF::kPDAnnotServiceId, {
        ROW(A, RegisterHandlerFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(A, RegisterHandlerFactory, "null factory", 3, atom("AbiHandler"), nullptr),
        ROW(A, WithdrawHandlerFactory, "atom 0", 3, 0),
        ROW(A, WithdrawHandlerFactory, "nothing under the atom", 1, kUnknownAtom),
    });
    EXPECT_EQ(refs(p), 1);  // no registry kept the object
}

TEST_F(AbiBadArguments, HostUserInterfaceServices) {
    ServiceObject* context = hostObject(HostService::QFPropertiesContext);
    ServiceObject* factory = hostObject(HostService::QFAnnotPropertiesFactory);
    ServiceObject* strings = hostObject(HostService::QFStringService);
    ServiceObject* settings = hostObject(HostService::QFUserSettings);
    ServiceObject* validate = hostObject(HostService::QFAnnotPropertiesValidate);
    ServiceObject* win = hostObject(HostService::KRWinServices);
    ServiceObject* composites = hostObject(HostService::QFCompositeEditObjectFactory);
    ObjectPtr sink;
    uint32_t length = 0;
    int64_t number = 0;
    char16_t buffer[4];
    const PDRect rect{100, 700, 250, 680};

    using PC = QF::PropertiesContextTable;
    check<PC>("QFPropertiesContext", context, QF::kPropertiesContextId, {
        ROW(PC, GetArea, "null name", 3, nullptr, sink.put()),
        ROW(PC, GetArea, "null out", 3, u"ToolArea", nullptr),
    });
    ServiceObject* area = host.properties().area(u"AbiArea");
    uint64_t count = 0;
    using PA = QF::PropertyAreaTable;
    check<PA>("QFPropertyArea", area, QF::kPropertyAreaId, {
        ROW(PA, AddProperty, "null property", 3, nullptr),
        ROW(PA, GetCount, "null out", 3, nullptr),
        ROW(PA, GetProperty, "index 0 of an empty area", 5, 0, sink.put()),
        ROW(PA, GetProperty, "index 0xFFFFFFFF", 5, 0xFFFFFFFF, sink.put()),
        ROW(PA, GetProperty, "huge index", 5, kHuge, sink.put()),
        ROW(PA, GetProperty, "null out", 3, 0, nullptr),
        ROW(PA, GetCount, "still empty", 0, &count),
    });
    EXPECT_EQ(count, 0u);

    using AF = QF::AnnotPropertiesFactoryTable;
    ServiceObject* d = doc();
    PDAnnot w = widget.get();
    check<AF>("QFAnnotPropertiesFactory", factory, QF::kAnnotPropertiesFactoryId, {
        ROW(AF, AddWidget, "null document", 3, nullptr, 0, w),
        ROW(AF, AddWidget, "null widget", 3, d, 0, nullptr),
        ROW(AF, AddWidget, "page past the pages", 3, d, kHuge, w),
        ROW(AF, AddWidget, "closed document", 3, staleDocument.get(), 0, staleWidget.get()),
        ROW(AF, AddWidget, "widget of another document", 0x30009, d, 0, staleWidget.get()),
        ROW(AF, AddAnnotProperties, "null subtype", 3, nullptr, d, 0, w, &rect, context),
        ROW(AF, AddAnnotProperties, "null document", 3, u"Widget", nullptr, 0, w, &rect, context),
        ROW(AF, AddAnnotProperties, "null annotation", 3, u"Widget", d, 0, nullptr, &rect, context),
        ROW(AF, AddAnnotProperties, "null context", 3, u"Widget", d, 0, w, &rect, nullptr),
        ROW(AF, AddAnnotProperties, "page past the pages", 3, u"Widget", d, kHuge, w,
            &rect, context),
        ROW(AF, AddAnnotProperties, "not on that page", 3, u"Widget", d, 1, w, &rect, context),
        ROW(AF, AddAnnotProperties, "widget of a closed document", 3, u"Widget", d, 0,
            staleWidget.get(), &rect, context),
        ROW(AF, AddAnnotProperties, "closed document", kClosed, u"Widget",
            staleDocument.get(), 0, staleWidget.get(), &rect, context),
        ROW(AF, AddAnnotProperties, "a subtype without rows", 1, u"Text", d, 0, w, &rect, context),
    });
    EXPECT_TRUE(host.properties().properties(u"AnnotArea").empty());
    EXPECT_EQ(host.commands().depths().undo, 0u);

    using S = QF::StringServiceTable;
    check<S>("QFStringService", strings, QF::kStringServiceId, {
        ROW(S, GetTranslatedString, "null text with a length", 3, nullptr, 4, buffer, 4, &length),
        ROW(S, GetTranslatedString, "null length out", 3, u"Name", 4, nullptr, 0, nullptr),
        ROW(S, GetTranslatedString, "no translation", 1, u"Abi", 3, buffer, 4, &length),
    });
    ASSERT_TRUE(host.strings().setLanguage("ja"));
    const std::u16string english = qfhost::StringService::japaneseCatalog().at(0).first;
    const auto englishLength = static_cast<uint32_t>(english.size());
    check<S>("QFStringService (ja)", strings, QF::kStringServiceId, {
        ROW(S, GetTranslatedString, "buffer of 1", 8, english.c_str(), englishLength,
            buffer, 1, &length),
        ROW(S, GetTranslatedString, "buffer of 0", 8, english.c_str(), englishLength,
            buffer, 0, &length),
        ROW(S, GetTranslatedString, "empty text", 1, u"", 0, buffer, 4, &length),
    });
    ASSERT_TRUE(host.strings().setLanguage("en"));

    using U = QF::UserSettingsTable;
    check<U>("QFUserSettings", settings, QF::kUserSettingsId, {
        ROW(U, GetInteger, "null path", 3, nullptr, &number),
        ROW(U, GetInteger, "null out", 3, u"Forms/CheckBox/Width", nullptr),
        ROW(U, GetInteger, "unknown path", 1, u"Forms/Abi", &number),
        ROW(U, GetInteger, "empty path", 1, u"", &number),
        ROW(U, GetInteger, "a group", 1, u"Forms", &number),
        ROW(U, GetInteger, "a text value", 13, u"Forms/SubmitButton/URL", &number),
        ROW(U, GetString, "null path", 3, nullptr, &kSink),
        ROW(U, GetString, "null sink", 3, u"Forms/SubmitButton/URL", nullptr),
        ROW(U, GetString, "an integer value", 13, u"Forms/CheckBox/Width", &kSink),
        ROW(U, SetInteger, "null path", 3, nullptr, 1),
        ROW(U, SetInteger, "unknown path", 1, u"Forms/Abi", 1),
        ROW(U, SetInteger, "a text value", 13, u"Forms/SubmitButton/URL", 1),
        ROW(U, SetString, "null path", 3, nullptr, u"x", 1),
        ROW(U, SetString, "null text with a length", 3, u"Forms/SubmitButton/URL", nullptr, 4),
        ROW(U, SetString, "an integer value", 13, u"Forms/CheckBox/Width", u"x", 1),
    });
    EXPECT_EQ(host.settings().get(u"Forms/CheckBox/Width"), qfhost::UserSettings::Value{14});

    using V = QF::AnnotPropertiesValidateTable;
    check<V>("QFAnnotPropertiesValidate", validate, QF::kAnnotPropertiesValidateId, {
        ROW(V, ValidateOptionList, "null list", 3, nullptr, &kSink),
        ROW(V, ValidateOptionList, "not a list", 3, composites, &kSink),
        ROW(V, ValidateOptionList, "null problem sink", 3, nullptr, nullptr),
    });

    using CF = QF::CompositeEditObjectFactoryTable;
    check<CF>("QFCompositeEditObjectFactory", composites, QF::kCompositeEditObjectFactoryId, {
        ROW(CF, CreateComposite, "null out", 3, nullptr),
    });
    ObjectPtr composite = qfhost::CompositeEditObjectFactory::makeComposite();
    using CO = QF::CompositeEditObjectTable;
    check<CO>("QFCompositeEditObject", composite.get(), QF::kCompositeEditObjectId, {
        ROW(CO, AddChild, "null child", 3, nullptr),
        ROW(CO, GetCount, "null out", 3, nullptr),
        ROW(CO, GetChild, "index 0 of an empty group", 5, 0, sink.put()),
        ROW(CO, GetChild, "huge index", 5, kHuge, sink.put()),
        ROW(CO, GetChild, "null out", 3, 0, nullptr),
    });

    using W = QF::WinServicesTable;
    check<W>("KRWinServices", win, QF::kWinServicesId, {
        ROW(W, GetClipboard, "null out", 3, nullptr),
    });
    ServiceObject* clipboard = host.winServices().clipboard();
    const uint32_t text = atom("UnicodeText");
    uint64_t size = 0;
    uint8_t has = 0;
    uint8_t bytes[4] = {};
    const uint32_t pixels[1] = {0};
    using K = QF::ClipboardTable;
    // Outside Open and Close every operation answers 2, bad arguments or not.
    check<K>("KRClipboard (closed)", clipboard, QF::kClipboardId, {
        ROW(K, Close, "not open", 2),
        ROW(K, Empty, "not open", 2),
        ROW(K, PutData, "not open", 2, text, bytes, 4),
        ROW(K, PutData, "not open, null data", 3, text, nullptr, 4),
        ROW(K, HasFormat, "not open", 2, text, &has),
        ROW(K, GetData, "not open", 2, text, nullptr, 0, &size),
        ROW(K, PutUnicodeText, "not open", 2, u"ab", 2),
        ROW(K, GetUnicodeText, "not open", 2, nullptr, 0, &size),
        ROW(K, PutBitmap, "not open", 2, 1, 1, pixels),
        ROW(K, CountFormats, "not open", 2, &size),
        ROW(K, CountFormats, "not open, null out", 3, nullptr),
        ROW(K, Open, "opens", 0),
    });
    check<K>("KRClipboard (open)", clipboard, QF::kClipboardId, {
        ROW(K, Open, "open already", 2),
        ROW(K, Empty, "empties", 0),
        ROW(K, PutData, "format 0", 3, 0, bytes, 4),
        ROW(K, PutData, "format 0xFFFFFFFF", 3, kNone, bytes, 4),
        ROW(K, PutData, "null data with a length", 3, atom("AbiFormat"), nullptr, 4),
        ROW(K, HasFormat, "null out", 3, text, nullptr),
        ROW(K, HasFormat, "format 0: never held", 0, 0, &has),
        ROW(K, GetData, "a format it lacks", 1, atom("AbiFormat"), bytes, 4, &size),
        ROW(K, GetData, "format 0: never held", 1, 0, nullptr, 0, &size),
        ROW(K, PutUnicodeText, "null text with a length", 3, nullptr, 4),
        ROW(K, PutUnicodeText, "two units", 0, u"ab", 2),
        ROW(K, GetUnicodeText, "null length out", 3, nullptr, 0, nullptr),
        ROW(K, GetUnicodeText, "buffer of 1", 8, buffer, 1, &size),
        ROW(K, GetData, "buffer of 1", 8, text, bytes, 1, &size),
        ROW(K, GetData, "null length out", 3, text, nullptr, 0, nullptr),
        ROW(K, PutBitmap, "null pixels", 3, 1, 1, nullptr),
        ROW(K, PutBitmap, "huge size", 4, 0xFFFFFFFF, 0xFFFFFFFF, pixels),
        ROW(K, CountFormats, "null out", 3, nullptr),
        ROW(K, Close, "closes", 0),
    });

    ServiceObject* annotEdit = hostObject(HostService::QFAnnotEditService);
    uint64_t page = 0;
    Handle annot;
    uint32_t type = 0;
    using AE = QF::AnnotEditServiceTable;
    check<AE>("QFAnnotEditService", annotEdit, QF::kAnnotEditServiceId, {
        ROW(AE, SelectAnnot, "null annotation", 3, atom("WidgetEdit"), 0, nullptr),
        ROW(AE, SelectAnnot, "page past the pages", 3, atom("WidgetEdit"), kHuge, widget.get()),
        ROW(AE, SelectAnnot, "not on that page", 3, atom("WidgetEdit"), 1, widget.get()),
        ROW(AE, SelectAnnot, "annotation of a closed document", 3,
            atom("WidgetEdit"), 0, staleWidget.get()),
        ROW(AE, GetSelectionType, "null out", 3, nullptr),
        ROW(AE, GetSelectedCount, "null out", 3, nullptr),
        ROW(AE, GetSelected, "index 0 of an empty selection", 5, 0, &page, annot.put()),
        ROW(AE, GetSelected, "huge index", 5, kHuge, &page, annot.put()),
        ROW(AE, GetSelected, "null page out", 3, 0, nullptr, annot.put()),
        ROW(AE, GetSelected, "null annotation out", 3, 0, &page, nullptr),
        ROW(AE, GetSelection, "null out", 3, nullptr),
        ROW(AE, ClearSelection, "nothing selected", 0),
        ROW(AE, CreateDataObject, "null out", 3, nullptr),
        ROW(AE, GetSelectionType, "nothing selected", 0, &type),
    });
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(annot.get(), nullptr);

    ObjectPtr data;
    ASSERT_EQ(SODetails::methods<AE>(annotEdit)->CreateDataObject(annotEdit, data.put()), 0u);
    using DO = QF::DataObjectTable;
    check<DO>("QFDataObject", data.get(), QF::kDataObjectId, {
        ROW(DO, PutData, "null data with a length", 3, nullptr, 4),
        ROW(DO, GetData, "null length out", 3, nullptr, 0, nullptr),
        ROW(DO, PutData, "four bytes", 0, "abcd", 4),
        ROW(DO, GetData, "buffer of 1", 8, bytes, 1, &size),
        ROW(DO, GetData, "null buffer asks the length", 0, nullptr, 4, &size),
    });
}

TEST_F(AbiBadArguments, Graphics) {
    ServiceObject* g = hostObject(HostService::GraphicsService);
    const float matrix[6] = {1, 0, 0, 1, 0, 0};
    const float points[6] = {0, 0, 10, 0, 0, 10};
    const PDRect rect{0, 10, 10, 0};
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    float pixel = 0;
    using G = QF::GraphicsServiceTable;
    // Outside a page every request answers 2, checked before the arguments.
    check<G>("GraphicsService (no page)", g, QF::kGraphicsServiceId, {
        ROW(G, SaveState, "no page", 2),
        ROW(G, RestoreState, "no page", 2),
        ROW(G, Transform, "no page, null", 2, nullptr),
        ROW(G, SetPen, "no page, NaN", 2, 0xFF000000, nan, 0),
        ROW(G, SetBrush, "no page", 2, 0),
        ROW(G, SetFont, "no page, null", 2, nullptr, 10),
        ROW(G, DrawRect, "no page, null", 2, nullptr),
        ROW(G, DrawPolygon, "no page, null", 2, nullptr, 3),
        ROW(G, DrawText, "no page, null", 2, nullptr, 4, 0, 0),
        ROW(G, DrawFrame, "no page, null", 2, nullptr, 0),
        ROW(G, GetPixelSize, "no page, null", 2, nullptr),
    });
    host.graphics().beginPage(0, 1);
    const float badMatrix[6] = {1, 0, 0, 1, nan, 0};
    check<G>("GraphicsService (page 0)", g, QF::kGraphicsServiceId, {
        ROW(G, RestoreState, "nothing saved", 1),
        ROW(G, SaveState, "saves", 0),
        ROW(G, Transform, "null matrix", 3, nullptr),
        ROW(G, Transform, "NaN in the matrix", 3, badMatrix),
        ROW(G, SetPen, "width below 0", 3, 0xFF000000, -1.0f, 0),
        ROW(G, SetPen, "NaN width", 3, 0xFF000000, nan, 0),
        ROW(G, SetPen, "infinite width", 3, 0xFF000000, inf, 0),
        ROW(G, SetPen, "dash 3", 3, 0xFF000000, 1.0f, 3),
        ROW(G, SetPen, "dash 0xFFFFFFFF", 3, 0xFF000000, 1.0f, 0xFFFFFFFF),
        ROW(G, SetBrush, "any colour", 0, 0xFFFFFFFF),
        ROW(G, SetFont, "null family", 3, nullptr, 10.0f),
        ROW(G, SetFont, "size 0", 3, u"sans-serif", 0.0f),
        ROW(G, SetFont, "NaN size", 3, u"sans-serif", nan),
        ROW(G, DrawRect, "null rect", 3, nullptr),
        ROW(G, DrawPolygon, "null points", 3, nullptr, 3),
        ROW(G, DrawPolygon, "0 points", 3, points, 0),
        ROW(G, DrawPolygon, "2^20 + 1 points", 3, points, (uint64_t{1} << 20) + 1),
        ROW(G, DrawPolygon, "huge count", 3, points, kHuge),
        ROW(G, DrawText, "null text with a length", 3, nullptr, 4, 0.0f, 0.0f),
        ROW(G, DrawText, "NaN position", 3, u"ab", 2, nan, 0.0f),
        ROW(G, DrawFrame, "null rect", 3, nullptr, 0),
        ROW(G, DrawFrame, "handles 2", 3, &rect, 2),
        ROW(G, DrawFrame, "handles 0xFFFFFFFF", 3, &rect, 0xFFFFFFFF),
        ROW(G, GetPixelSize, "null out", 3, nullptr),
        ROW(G, GetPixelSize, "one pixel", 0, &pixel),
        ROW(G, Transform, "identity", 0, matrix),
    });
    EXPECT_TRUE(host.graphics().items(0).empty());
    host.graphics().endPage();
}

// ---- documents, pages and views, open and stale --------------------------------------------

TEST_F(AbiBadArguments, DocumentsAndPages) {
    ServiceObject* d = doc();
    ObjectPtr sink;
    Handle handle;
    PDOCConfig config = nullptr;
    uint32_t valid = 9;
    uint64_t connection = 0;
    const float rect[4] = {0, 10, 10, 0};
    const QF::AnnotOperationRecord stale{staleDocument.get(), 0, staleWidget.get(), {}};
    const QF::AnnotOperationRecord foreign{d, 0, staleWidget.get(), {}};
    const QF::AnnotOperationRecord nullAnnot{d, 0, nullptr, {}};
    const QF::AnnotOperationRecord pastPages{d, kHuge, widget.get(), {}};
    const QF::AnnotOperationRecord wrongPage{d, 1, widget.get(), {}};
    const QF::AnnotOperationRecord good{d, 0, widget.get(), {100, 680, 250, 700}};
    const QF::CommandArgs unknownCommand{1, kUnknownAtom, nullptr};
    const uint32_t setRect = atom("Annot_SetRect");
    using D = QF::DocumentTable;
    check<D>("QFDocument", d, QF::kDocumentId, {
        ROW(D, GetPDDoc, "null out", 3, nullptr),
        ROW(D, GetPage, "null out", 3, 0, nullptr),
        ROW(D, GetPage, "index 2 of 2 pages", 3, 2, sink.put()),
        ROW(D, GetPage, "index 0xFFFFFFFF", 3, 0xFFFFFFFF, sink.put()),
        ROW(D, GetPage, "huge index", 3, kHuge, sink.put()),
        ROW(D, NotifyAnnotChanged, "page past the pages", 3, 0, kHuge, widget.get()),
        ROW(D, NotifyAnnotsChanged, "page past the pages", 3, 0, 2, nullptr, 0),
        ROW(D, NotifyAnnotsChanged, "null annotations with a count", 3, 0, 0, nullptr, 3),
        ROW(D, InvalidateRect, "null rect", 3, 0, nullptr, 0),
        ROW(D, InvalidateRect, "page past the pages", 3, kHuge, rect, 0),
        ROW(D, PerformAnnotOperation, "null record", 3, setRect, nullptr, 0),
        ROW(D, PerformAnnotOperation, "reserved not 0", 3, setRect, &good, 1),
        ROW(D, PerformAnnotOperation, "null annotation", 3, setRect, &nullAnnot, 0),
        ROW(D, PerformAnnotOperation, "a record of a closed document", 3, setRect, &stale, 0),
        ROW(D, PerformAnnotOperation, "annotation of a closed document", 3, setRect, &foreign, 0),
        ROW(D, PerformAnnotOperation, "page past the pages", 3, setRect, &pastPages, 0),
        ROW(D, PerformAnnotOperation, "not on that page", 3, setRect, &wrongPage, 0),
        ROW(D, PerformAnnotOperation, "operation atom 0", 0x1000C, 0, &good, 0),
        ROW(D, PerformAnnotOperation, "operation atom 0xFFFFFFFF", 0x1000C, kNone, &good, 0),
        ROW(D, PerformAnnotOperation, "unknown operation", 0x1000C, kUnknownAtom, &good, 0),
        ROW(D, GetOCConfig, "null out", 3, nullptr),
        ROW(D, ExecuteCommand, "null args", 3, nullptr),
        ROW(D, ExecuteCommand, "unknown command", 0x10005, &unknownCommand),
        ROW(D, IsValid, "null out", 3, nullptr),
        ROW(D, ConnectAnnotChanged, "null out", 3, noAnnotChange, nullptr, nullptr),
        ROW(D, ConnectAnnotChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(D, DisconnectAnnotChanged, "connection 0", 1, 0),
        ROW(D, DisconnectAnnotChanged, "huge connection", 1, kHuge),
        ROW(D, ConnectAnnotsChanged, "null out", 3, noAnnotsChange, nullptr, nullptr),
        ROW(D, ConnectAnnotsChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(D, DisconnectAnnotsChanged, "connection 0", 1, 0),
        ROW(D, DisconnectAnnotsChanged, "huge connection", 1, kHuge),
    });
    EXPECT_EQ(host.commands().depths().undo, 0u);

    ServiceObject* page = document->page(0);
    uint64_t token = 0;
    using G = QF::PageTable;
    check<G>("QFPage", page, QF::kPageId, {
        ROW(G, GetPDPage, "null out", 3, nullptr),
        ROW(G, GetChanged, "null out", 3, nullptr),
        ROW(G, SetChanged, "any value", 0, 0xFF),
        ROW(G, Lock, "mode 0", 3, 0, &token),
        ROW(G, Lock, "mode 0xFFFFFFFF", 3, 0xFFFFFFFF, &token),
        ROW(G, Lock, "null token", 3, 1, nullptr),
        ROW(G, Unlock, "not locked, token 0", 3, 0),
        ROW(G, Unlock, "not locked, huge token", 3, kHuge),
        ROW(G, Lock, "locks", 0, 1, &token),
        ROW(G, Lock, "locked already", 0x1000B, 1, &token),
        ROW(G, Unlock, "another token", 3, kHuge),
        ROW(G, IsValid, "null out", 3, nullptr),
    });
    EXPECT_EQ(SODetails::methods<G>(page)->Unlock(page, token), 0u);

    // A closed document's blocks: IsValid 0, every other method 0x1000D whatever it gets.
    ServiceObject* sd = staleDocument.get();
    check<D>("QFDocument (closed)", sd, QF::kDocumentId, {
        ROW(D, GetPDDoc, "out", kClosed, handle.put()),
        ROW(D, GetPDDoc, "null out", 3, nullptr),
        ROW(D, GetPage, "page 0", kClosed, 0, sink.put()),
        ROW(D, NotifyAnnotChanged, "its widget", kClosed, 0, 0, staleWidget.get()),
        ROW(D, NotifyAnnotsChanged, "none", kClosed, 0, 0, nullptr, 0),
        ROW(D, InvalidateRect, "a rect", kClosed, 0, rect, 0),
        ROW(D, PerformAnnotOperation, "its own record", kClosed, setRect, &stale, 0),
        ROW(D, GetOCConfig, "out", kClosed, &config),
        ROW(D, ExecuteCommand, "null args", kClosed, nullptr),
        ROW(D, IsValid, "answers 0", 0, &valid),
        ROW(D, IsValid, "null out", 3, nullptr),
        ROW(D, ConnectAnnotChanged, "a proc", kClosed, noAnnotChange, nullptr, &connection),
        ROW(D, DisconnectAnnotChanged, "connection 1", 1, 1),
        ROW(D, ConnectAnnotsChanged, "a proc", kClosed, noAnnotsChange, nullptr, &connection),
        ROW(D, DisconnectAnnotsChanged, "connection 1", 1, 1),
    });
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(handle.get(), nullptr);
    EXPECT_FALSE(sink);

    ServiceObject* sp = staleDocPage.get();
    uint8_t changed = 0;
    valid = 9;
    check<G>("QFPage (closed)", sp, QF::kPageId, {
        ROW(G, GetPDPage, "out", kClosed, handle.put()),
        ROW(G, GetChanged, "out", kClosed, &changed),
        ROW(G, SetChanged, "1", kClosed, 1),
        ROW(G, Lock, "mode 1", kClosed, 1, &token),
        ROW(G, Unlock, "token 1", 3, 1),
        ROW(G, IsValid, "answers 0", 0, &valid),
    });
    EXPECT_EQ(valid, 0u);
}

TEST_F(AbiBadArguments, Views) {
    ServiceObject* v = view->object();
    ObjectPtr sink;
    Handle handle;
    int64_t index = 0;
    float pagePoint[2];
    int32_t viewPoint[4];
    const float point[2] = {10, 10};
    const float rect[4] = {0, 10, 10, 0};
    uint64_t connection = 0;
    using V = QF::DocumentViewTable;
    check<V>("QFDocumentView", v, QF::kDocumentViewId, {
        ROW(V, GetDocument, "null out", 3, nullptr),
        ROW(V, GetPDDoc, "null out", 3, nullptr),
        ROW(V, GetPageIndexAtPoint, "null out", 3, 0, 0, nullptr),
        ROW(V, GetPageIndexAtPoint, "INT32_MIN", 0, INT32_MIN, INT32_MIN, &index),
        ROW(V, ViewToPage, "page 2 of 2", 5, 2, 0, 0, pagePoint),
        ROW(V, ViewToPage, "huge page", 5, kHuge, 0, 0, pagePoint),
        ROW(V, ViewToPage, "null out", 3, 0, 0, 0, nullptr),
        ROW(V, PageToView, "huge page", 5, kHuge, point, viewPoint),
        ROW(V, PageToView, "null point", 3, 0, nullptr, viewPoint),
        ROW(V, PageToView, "null out", 3, 0, point, nullptr),
        ROW(V, GetRotation, "null out", 3, nullptr),
        ROW(V, GetZoom, "null out", 3, nullptr),
        ROW(V, GetPageViewRect, "page 0xFFFFFFFF", 5, 0xFFFFFFFF, viewPoint),
        ROW(V, GetPageViewRect, "null out", 3, 0, nullptr),
        ROW(V, Redraw, "redraws", 0),
        ROW(V, SetCursor, "shape 0xFFFFFFFF", 0, 0xFFFFFFFF),
        ROW(V, ShowFrame, "page past the pages", 5, 2, rect, 0),
        ROW(V, ShowFrame, "null rect", 3, 0, nullptr, 0),
        ROW(V, ShowFrame, "page -2", 3, -2, rect, 0),
        ROW(V, ShowFrame, "page -1 removes, rect ignored", 0, -1, nullptr, 0),
        ROW(V, CaptureDrag, "capture 0 without one", 0, 0),
        ROW(V, ReleaseAnnotFocus, "no focus", 0),
        ROW(V, ShowContextMenu, "kind atom 0", 3, 0, 0, 0, 0),
        ROW(V, ShowContextMenu, "huge page", 5, atom("Widget"), 0, 0, kHuge),
        ROW(V, StartViewDrag, "INT32_MIN", 0, INT32_MIN, INT32_MIN),
        ROW(V, ContinueViewDrag, "INT32_MAX after INT32_MIN", 0, INT32_MAX, INT32_MAX),
        ROW(V, SetAnnotFocus, "huge page", 3, kHuge, widget.get()),
        ROW(V, SetAnnotFocus, "not on that page", 3, 1, widget.get()),
        ROW(V, SetAnnotFocus, "annotation of a closed document", 3, 0, staleWidget.get()),
        ROW(V, GetFocusPage, "null out", 3, nullptr),
        ROW(V, ConnectDrawPageView, "null proc", 3, nullptr, nullptr, &connection),
        ROW(V, ConnectDrawPageView, "null out", 3, noDraw, nullptr, nullptr),
        ROW(V, DisconnectDrawPageView, "connection 0", 1, 0),
        ROW(V, DisconnectDrawPageView, "huge connection", 1, kHuge),
        ROW(V, ConnectFocusPageChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(V, ConnectFocusPageChanged, "null out", 3, noDraw, nullptr, nullptr),
        ROW(V, DisconnectFocusPageChanged, "connection 0", 1, 0),
        ROW(V, DisconnectFocusPageChanged, "huge connection", 1, kHuge),
    });
    EXPECT_EQ(index, -1);
    EXPECT_FALSE(view->annotFocus());

    // A destroyed view's block answers 0x1000D to everything.
    ServiceObject* sv = staleView.get();
    check<V>("QFDocumentView (destroyed)", sv, QF::kDocumentViewId, {
        ROW(V, GetDocument, "out", kClosed, sink.put()),
        ROW(V, GetPDDoc, "out", kClosed, handle.put()),
        ROW(V, GetPageIndexAtPoint, "out", kClosed, 0, 0, &index),
        ROW(V, ViewToPage, "page 0", kClosed, 0, 0, 0, pagePoint),
        ROW(V, PageToView, "page 0", kClosed, 0, point, viewPoint),
        ROW(V, GetRotation, "null out", kClosed, nullptr),
        ROW(V, GetZoom, "null out", kClosed, nullptr),
        ROW(V, GetPageViewRect, "page 0", kClosed, 0, viewPoint),
        ROW(V, Redraw, "redraw", kClosed),
        ROW(V, SetCursor, "shape 1", kClosed, 1),
        ROW(V, ShowFrame, "page 0", kClosed, 0, rect, 0),
        ROW(V, CaptureDrag, "capture", kClosed, 1),
        ROW(V, ReleaseAnnotFocus, "release", kClosed),
        ROW(V, ShowContextMenu, "page 0", kClosed, atom("Widget"), 0, 0, 0),
        ROW(V, StartViewDrag, "start", kClosed, 0, 0),
        ROW(V, ContinueViewDrag, "continue", kClosed, 1, 1),
        ROW(V, SetAnnotFocus, "its widget", kClosed, 0, staleWidget.get()),
        ROW(V, GetFocusPage, "out", kClosed, &index),
        ROW(V, ConnectDrawPageView, "a proc", kClosed, noDraw, nullptr, &connection),
        ROW(V, DisconnectDrawPageView, "connection 1", kClosed, 1),
        ROW(V, ConnectFocusPageChanged, "a proc", kClosed, noDraw, nullptr, &connection),
        ROW(V, DisconnectFocusPageChanged, "connection 1", kClosed, 1),
    });
    EXPECT_FALSE(sink);
    EXPECT_EQ(handle.get(), nullptr);
}

// ---- the module's objects, walked through the host's registries ----------------------------

std::string narrow(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

// The property rows of one "QFProperty" (made by the module for a tool's sheet).
void checkProperty(const std::string& name, ServiceObject* property) {
    uint32_t type = 0;
    uint8_t flag = 0;
    ObjectPtr plain = makePlain();
    const QF::PropertyValue nullText{nullptr, 4, nullptr};
    const QF::PropertyValue notAList{nullptr, 0, plain.get()};
    const QF::PropertyValueSink emptySink{nullptr, nullptr, nullptr};
    using P = QF::PropertyTable;
    check<P>(name, property, QF::kPropertyId, {
        ROW(P, GetName, "null sink", 3, nullptr),
        ROW(P, GetType, "null out", 3, nullptr),
        ROW(P, GetData, "null out", 3, nullptr),
        ROW(P, GetChangeListenerCount, "null out", 3, nullptr),
        ROW(P, AddChangeListener, "null proc", 3, nullptr, nullptr),
        ROW(P, RemoveChangeListener, "null proc", 3, nullptr, nullptr),
        ROW(P, RemoveChangeListener, "not registered", 1, noChange, &type),
        ROW(P, IsReadOnly, "null out", 3, nullptr),
        ROW(P, IsHidden, "null out", 3, nullptr),
        ROW(P, GetValue, "null sink", 3, nullptr),
        ROW(P, GetValue, "a sink without callbacks", kAny, &emptySink),
        ROW(P, SetValue, "null value", 3, nullptr),
        ROW(P, SetValue, "null text with a length", kAny, &nullText),
        ROW(P, SetValue, "a list that is no list", kAny, &notAList),
        ROW(P, ValidateValue, "null value", 3, nullptr, 0, &flag),
        ROW(P, ValidateValue, "null out", 3, &nullText, 0, nullptr),
        ROW(P, ValidateValue, "null text, flag 0xFFFFFFFF", kAny, &nullText, 0xFFFFFFFF, &flag),
    });
}

// The rows of a tool made by its factory: before Initialize, initialized on a destroyed
// view, and initialized on the live view.
void checkTool(const std::string& name, ServiceObject* tool, ServiceObject* liveView,
               ServiceObject* deadView, PDAnnot staleAnnot, uint32_t liveInitialize) {
    uint8_t flag = 0;
    uint64_t connection = 0;
    ObjectPtr sink;
    const QF::InputEvent press{QF::kEventButtonDown, QF::kButtonLeft, 40, 40, 0};
    const QF::InputEvent nonsense{0xFFFFFFFF, 0xFFFFFFFF, INT32_MIN, INT32_MAX, 0xFFFFFFFF};
    const QF::InputEvent farMove{QF::kEventMove, 0, INT32_MAX, INT32_MIN, 0};
    using I = QF::InputHandlerTable;
    check<I>(name + " (not initialized)", tool, QF::kInputHandlerId, {
        ROW(I, GetToolName, "null out", 3, nullptr),
        ROW(I, IsFinished, "null out", 3, nullptr),
        ROW(I, HandleEvent, "null event", 3, nullptr, &flag),
        ROW(I, HandleEvent, "null handled", 3, &press, nullptr),
        ROW(I, HandleEvent, "a press before Initialize", kAny, &press, &flag),
        ROW(I, GetToolProperties, "null out", 3, nullptr),
        ROW(I, GetToolProperties, "before Initialize", kAny, sink.put()),
        ROW(I, ConnectPropertiesChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(I, ConnectPropertiesChanged, "null out", 3, noChange, nullptr, nullptr),
        ROW(I, DisconnectPropertiesChanged, "connection 0", 1, 0),
        ROW(I, DisconnectPropertiesChanged, "huge connection", 1, kHuge),
        ROW(I, Removed, "before Initialize", kAny),
        ROW(I, FocusAnnot, "null annotation", kAny, nullptr),
        ROW(I, FocusAnnot, "annotation of a closed document", kAny, staleAnnot),
        ROW(I, RestoreSelection, "before Initialize", kAny),
        ROW(I, OnDeathrattle, "before Initialize", kAny),
        ROW(I, Terminate, "before Initialize", kAny),
        ROW(I, Initialize, "null view", kAny, nullptr, nullptr),
        ROW(I, HandleEvent, "a press without a view", kAny, &press, &flag),
        ROW(I, Initialize, "a destroyed view", kAny, deadView, nullptr),
        ROW(I, HandleEvent, "a press on a destroyed view", kAny, &press, &flag),
        ROW(I, GetToolProperties, "on a destroyed view", kAny, sink.put()),
        ROW(I, Terminate, "after a destroyed view", kAny),
        ROW(I, Initialize, "the live view, no context", liveInitialize, liveView, nullptr),
        ROW(I, HandleEvent, "an event of no type", kAny, &nonsense, &flag),
        ROW(I, HandleEvent, "a move far outside", kAny, &farMove, &flag),
        ROW(I, FocusAnnot, "annotation of a closed document, live view", kAny, staleAnnot),
        ROW(I, Terminate, "ends", kAny),
        ROW(I, Terminate, "twice", kAny),
    });
}

TEST_F(AbiBadArguments, ModuleTools) {
    const auto atoms = host.tasks().tools().atoms();
    ASSERT_EQ(atoms.size(), 13u);
    for (uint32_t toolAtom : atoms) {
        const char* text = nullptr;
        ASSERT_EQ(KRGetStringFromAtom(toolAtom, &text), 0u);
        const std::string name = text;
        ObjectPtr factory = host.tasks().tools().find(toolAtom);
        using F = QF::InputHandlerFactoryTable;
        check<F>(name + " factory", factory.get(), QF::kInputHandlerFactoryId, {
            ROW(F, CreateInputHandler, "null out", 3, nullptr),
        });
        ObjectPtr tool;
        ASSERT_EQ(SODetails::methods<F>(factory.get())->CreateInputHandler(factory.get(),
                                                                             tool.put()),
                  0u);
        // The edit tool works on a selection, which it needs as Initialize's context.
        const bool edit = name == "WidgetEdit";
        checkTool(name, tool.get(), view->object(), staleView.get(), staleWidget.get(),
                  edit ? 3 : 0);
        if (edit) continue;

        // The tool's sheet as the view reads it, every property with bad arguments.
        host.properties().clear();
        ASSERT_EQ(view->activateTool(name), 0u) << name;
        for (const ObjectPtr& property : host.properties().properties(u"ToolArea")) {
            checkProperty(name + " property " + narrow(qfhost::property::name(property.get())),
                          property.get());
        }
        view->deactivateTool();
    }
}

TEST_F(AbiBadArguments, ModuleEditObjects) {
    ServiceObject* d = doc();
    ServiceObject* v = view->object();
    PDAnnot w = widget.get();
    PDAnnot sw = staleWidget.get();
    ServiceObject* sd = staleDocument.get();
    ObjectPtr sink, plain = makePlain();
    Handle annot;
    const float point[2] = {150, 690};
    const float nanPoint[2] = {std::nanf(""), 0};
    const uint32_t widgetEdit = atom("WidgetEdit");

    ObjectPtr factory = host.picker().editObjectFactories().find(widgetEdit);
    using F = QF::EditObjectFactoryTable;
    check<F>("QFEditObjectFactory", factory.get(), QF::kEditObjectFactoryId, {
        ROW(F, CreateEditObject, "null document", 3, nullptr, 0, 0, sink.put(), w),
        ROW(F, CreateEditObject, "null out", 3, d, 0, 0, nullptr, w),
        ROW(F, CreateEditObject, "null widget", kAny, d, 0, 0, sink.put(), nullptr),
        ROW(F, CreateEditObject, "page past the pages", kAny, d, kHuge, 0, sink.put(), w),
        ROW(F, CreateEditObject, "not on that page", kAny, d, 1, 0, sink.put(), w),
        ROW(F, CreateEditObject, "widget of a closed document", kAny, d, 0, 0, sink.put(), sw),
        ROW(F, CreateEditObject, "closed document", kAny, sd, 0, 0, sink.put(), sw),
        ROW(F, CreateEditObject, "not a document", kAny, plain.get(), 0, 0, sink.put(), w),
        ROW(F, CreateEditObjectByPagePoint, "null document", 3, nullptr, 0, 0, point, sink.put()),
        ROW(F, CreateEditObjectByPagePoint, "null point", 3, d, 0, 0, nullptr, sink.put()),
        ROW(F, CreateEditObjectByPagePoint, "null out", 3, d, 0, 0, point, nullptr),
        ROW(F, CreateEditObjectByPagePoint, "page past the pages", kAny, d, kHuge,
            0, point, sink.put()),
        ROW(F, CreateEditObjectByPagePoint, "NaN point", kAny, d, 0, 0, nanPoint, sink.put()),
        ROW(F, CreateEditObjectByPagePoint, "closed document", kAny, sd, 0, 0, point, sink.put()),
    });
    sink.reset();

    ObjectPtr item = host.picker().compositeItems().find(widgetEdit);
    using CI = QF::CompositeEditObjectFactoryItemTable;
    check<CI>("QFCompositeEditObjectFactoryItem", item.get(),
              QF::kCompositeEditObjectFactoryItemId, {
        ROW(CI, CreateCompositeEditObjectForPage, "null document", 3, nullptr, 0, sink.put()),
        ROW(CI, CreateCompositeEditObjectForPage, "null out", 3, d, 0, nullptr),
        ROW(CI, CreateCompositeEditObjectForPage, "page past the pages", kAny, d,
            kHuge, sink.put()),
        ROW(CI, CreateCompositeEditObjectForPage, "closed document", kAny, sd, 0, sink.put()),
        ROW(CI, GetSelectedObjectsOnPage, "null document", 3, nullptr, 0, sink.put()),
        ROW(CI, GetSelectedObjectsOnPage, "null out", 3, d, 0, nullptr),
        ROW(CI, GetSelectedObjectsOnPage, "page past the pages", kAny, d, kHuge, sink.put()),
        ROW(CI, GetSelectedObjectsOnPage, "closed document", kAny, sd, 0, sink.put()),
    });
    sink.reset();

    // An edit object of the widget, called with bad arguments.
    ObjectPtr object;
    ASSERT_EQ(SODetails::methods<F>(factory.get())
                  ->CreateEditObject(factory.get(), d, 0, 0, object.put(), w),
              0u);
    ServiceObject* o = object.get();
    uint64_t count = 0;
    const PDRect rect{0, 10, 10, 0};
    using EO = QF::EditObjectTable;
    check<EO>("QFEditObject", o, QF::kEditObjectId, {
        ROW(EO, GetDoc, "null out", 3, nullptr),
        ROW(EO, GetPageIndex, "null out", 3, nullptr),
        ROW(EO, GetObjectType, "null out", 3, nullptr),
        ROW(EO, IsValid, "null out", 3, nullptr),
        ROW(EO, IsEqual, "null other", 3, nullptr, nullptr),
        ROW(EO, IsEqual, "null out", 3, o, nullptr),
        ROW(EO, IsEqual, "not an edit object", kAny, plain.get(),
            reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, HitTestPoint, "null point", 3, nullptr, reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, HitTestPoint, "null out", 3, point, nullptr),
        ROW(EO, HitTestRect, "null rect", 3, nullptr, reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, HitTestRect, "null out", 3, &rect, nullptr),
        ROW(EO, GetObjectSpaceRect, "null out", 3, nullptr),
        ROW(EO, GetBounds, "null out", 3, nullptr),
        ROW(EO, ModifyEditCTM, "null proc", 3, nullptr, nullptr),
        ROW(EO, GetEditBounds, "null out", 3, nullptr),
        ROW(EO, GetData, "null out", 3, nullptr),
        ROW(EO, GetPDEElement, "null out", 3, nullptr),
        ROW(EO, GetAnnot, "null out", 3, nullptr),
        ROW(EO, GetTextBlock, "null out", 3, nullptr),
        ROW(EO, SetBindingStrength, "0xFFFFFFFF", kAny, 0xFFFFFFFF),
        ROW(EO, GetBindingStrength, "null out", 3, nullptr),
        ROW(EO, IsGroup, "null out", 3, nullptr),
        ROW(EO, AddChild, "null child", 3, nullptr),
        ROW(EO, AddChild, "not an edit object", kAny, plain.get()),
        ROW(EO, GetChilds, "null count", 3, nullptr, 0, nullptr),
        ROW(EO, GetChilds, "huge capacity, no children", kAny, sink.put(), kHuge, &count),
        ROW(EO, ClearChilds, "no children", kAny),
        ROW(EO, ModifyEditCTM, "a proc that changes nothing", kAny, noMatrix, nullptr),
        ROW(EO, ApplyEdit, "nothing changed", kAny),
        ROW(EO, Delete, "deletes the widget", 0),
        ROW(EO, Delete, "deleted already", kAny),
        ROW(EO, ApplyEdit, "after the widget left its page", kAny),
        ROW(EO, HitTestPoint, "after the widget left its page", kAny, point,
            reinterpret_cast<uint8_t*>(&count)),
    });
    ASSERT_EQ(host.commands().undo(), 0u);  // the widget back on its page
    sink.reset();

    ObjectPtr service = host.edit().selectEditObjectServices().find(widgetEdit);
    using SE = QF::SelectEditObjectServiceTable;
    check<SE>("QFSelectEditObjectService", service.get(), QF::kSelectEditObjectServiceId, {
        ROW(SE, SelectObject, "null object", 3, nullptr),
        ROW(SE, SelectObject, "not an edit object", kAny, plain.get()),
        ROW(SE, RemoveObjectFromSelection, "null object", 3, nullptr),
        ROW(SE, RemoveObjectFromSelection, "not selected", kAny, o),
        ROW(SE, RemoveObjectFromSelection, "not an edit object", kAny, plain.get()),
        ROW(SE, ExtractSelectedCompositeEditObjects, "null document", 3, nullptr, 0, sink.put()),
        ROW(SE, ExtractSelectedCompositeEditObjects, "null out", 3, d, 0, nullptr),
        ROW(SE, ExtractSelectedCompositeEditObjects, "page past the pages", kAny,
            d, kHuge, sink.put()),
        ROW(SE, ExtractSelectedCompositeEditObjects, "closed document", kAny, sd, 0, sink.put()),
    });
    sink.reset();

    ObjectPtr select = host.annotEdit().editSelectFactories().find(PD_ATOM_Widget);
    ObjectPtr data;
    ASSERT_EQ(SODetails::methods<QF::AnnotEditServiceTable>(
                  hostObject(HostService::QFAnnotEditService))
                  ->CreateDataObject(hostObject(HostService::QFAnnotEditService), data.put()),
              0u);
    using AS = QF::AnnotEditSelectFactoryTable;
    check<AS>("QFAnnotEditSelectFactory", select.get(), QF::kAnnotEditSelectFactoryId, {
        ROW(AS, CreateSelection, "null view", kAny, nullptr, 0, w, sink.put()),
        ROW(AS, CreateSelection, "null annotation", 3, v, 0, nullptr, sink.put()),
        ROW(AS, CreateSelection, "null out", 3, v, 0, w, nullptr),
        ROW(AS, CreateSelection, "page past the pages", kAny, v, kHuge, w, sink.put()),
        ROW(AS, CreateSelection, "annotation of a closed document", kAny, v, 0, sw, sink.put()),
        ROW(AS, CreateSelection, "a destroyed view", kAny, staleView.get(), 0, w, sink.put()),
        ROW(AS, CopyAnnot, "null annotation", 3, v, 0, nullptr, sink.put()),
        ROW(AS, CopyAnnot, "null out", 3, v, 0, w, nullptr),
        ROW(AS, CopyAnnot, "null view", kAny, nullptr, 0, w, sink.put()),
        ROW(AS, CopyAnnot, "annotation of a closed document", kAny, v, 0, sw, sink.put()),
        ROW(AS, CopyAnnot, "a destroyed view", kAny, staleView.get(), 0, w, sink.put()),
        ROW(AS, PasteAnnot, "null data", 3, v, 0, nullptr, annot.put()),
        ROW(AS, PasteAnnot, "null out", 3, v, 0, data.get(), nullptr),
        ROW(AS, PasteAnnot, "empty data", kAny, v, 0, data.get(), annot.put()),
        ROW(AS, PasteAnnot, "not a data object", kAny, v, 0, plain.get(), annot.put()),
        ROW(AS, PasteAnnot, "null view", kAny, nullptr, 0, data.get(), annot.put()),
        ROW(AS, PasteAnnot, "a destroyed view", kAny, staleView.get(), 0, data.get(), annot.put()),
    });
    sink.reset();
    EXPECT_EQ(annot.get(), nullptr);

    // A selection of the widget, called with bad arguments.
    ObjectPtr selection;
    ASSERT_EQ(SODetails::methods<AS>(select.get())
                  ->CreateSelection(select.get(), v, 0, w, selection.put()),
              0u);
    ServiceObject* s = selection.get();
    uint64_t first = 0;
    float quad[8];
    PDRect bounds;
    uint8_t hit = 0;
    using SL = QF::SelectionTable;
    check<SL>("QFSelection", s, QF::kSelectionId, {
        ROW(SL, GetType, "null out", 3, nullptr),
        ROW(SL, Init, "null view", 0, nullptr),
        ROW(SL, Init, "a destroyed view", kAny, staleView.get()),
        ROW(SL, ConnectChanged, "null proc", 3, nullptr, nullptr, &first),
        ROW(SL, ConnectChanged, "null out", 3, noChange, nullptr, nullptr),
        ROW(SL, DisconnectChanged, "connection 0", 1, 0),
        ROW(SL, DisconnectChanged, "huge connection", 1, kHuge),
        ROW(SL, Reserved4, "reserved", 1),
        ROW(SL, Reserved5, "reserved", 1),
        ROW(SL, GetSelectionData, "null out", 2, nullptr),
        ROW(SL, CanCopy, "null out", 3, nullptr),
        ROW(SL, GetPageIndexRange, "null first", 3, nullptr, &first),
        ROW(SL, GetPageIndexRange, "null last", 3, &first, nullptr),
        ROW(SL, HitTest, "null point", 3, 0, nullptr, &hit),
        ROW(SL, HitTest, "null out", 3, 0, point, nullptr),
        ROW(SL, HitTest, "page past the pages", kAny, kHuge, point, &hit),
        ROW(SL, Draw, "page past the pages", kAny, kHuge),
        ROW(SL, Draw, "outside the host's drawing", kAny, 0),
        ROW(SL, DrawHighlight, "page past the pages", kAny, kHuge),
        ROW(SL, GetDestination, "null page", 3, nullptr, &bounds),
        ROW(SL, GetDestination, "null rect", 3, &first, nullptr),
        ROW(SL, GetProperties, "null context", 3, nullptr),
        ROW(SL, GetProperties, "not a context", kAny, plain.get()),
        ROW(SL, GetAvailableOperations, "null out", 3, nullptr),
        ROW(SL, Reserved16, "reserved", 1),
        ROW(SL, Reserved17, "reserved", 1),
        ROW(SL, Reserved18, "reserved", 1),
        ROW(SL, Reserved19, "reserved", 1),
        ROW(SL, Reserved20, "reserved", 1),
        ROW(SL, Reserved21, "reserved", 1),
        ROW(SL, GetNumQuads, "null out", 3, nullptr),
        ROW(SL, GetQuadPoints, "null out", 3, 0, nullptr),
        ROW(SL, GetQuadPoints, "huge index", kAny, kHuge, quad),
        ROW(SL, GetNumQuadsByPage, "null out", 3, 0, nullptr),
        ROW(SL, GetNumQuadsByPage, "page past the pages", kAny, kHuge, &first),
        ROW(SL, GetQuadPointsByPage, "null out", 3, 0, 0, nullptr),
        ROW(SL, GetQuadPointsByPage, "huge index", kAny, 0, kHuge, quad),
        ROW(SL, GetQuadPointsByPage, "page past the pages", kAny, kHuge, 0, quad),
        ROW(SL, GetBounds, "null out", 3, nullptr),
        ROW(SL, GetPageIndex, "null out", 3, nullptr),
        ROW(SL, Done, "done", kAny),
        ROW(SL, Done, "done twice", kAny),
        ROW(SL, GetBounds, "after Done", kAny, &bounds),
    });

    ObjectPtr selections = host.editModules().selectionFactories().find(widgetEdit);
    using SF = QF::SelectionFactoryTable;
    check<SF>("QFSelectionFactory", selections.get(), QF::kSelectionFactoryId, {
        ROW(SF, CreateSelection, "null out", 3, nullptr),
    });
}

TEST_F(AbiBadArguments, ModuleCommands) {
    ServiceObject* d = doc();
    ServiceObject* sd = staleDocument.get();
    PDAnnot w = widget.get();
    PDAnnot sw = staleWidget.get();
    ObjectPtr sink;
    const auto atoms = host.commands().factories().atoms();
    ASSERT_EQ(atoms.size(), 6u);
    using F = QF::CommandFactoryTable;
    const std::set<std::string> tabOrder = {"TabOrderAnnot", "AutoTabOrderAnnot",
                                            "MoveAnnotsFocusOrder"};
    for (uint32_t commandAtom : atoms) {
        const char* text = nullptr;
        ASSERT_EQ(KRGetStringFromAtom(commandAtom, &text), 0u);
        ObjectPtr factory = host.commands().factories().find(commandAtom);
        ServiceObject* f = factory.get();
        const QF::CommandArgs noParams{1, commandAtom, nullptr};
        check<F>(std::string(text) + " factory", f, QF::kCommandFactoryId, {
            ROW(F, CreateCommand, "null args", 3, nullptr, sink.put()),
            ROW(F, CreateCommand, "null out", 3, &noParams, nullptr),
            ROW(F, CreateCommand, "null params", tabOrder.count(text) ? 2u : 3u, &noParams,
                sink.put()),
        });
    }

    // Each command's parameter record with null and stale members, through the manager.
    const uint64_t positions[2] = {0, kHuge};
    const uint64_t pages[2] = {0, kHuge};
    const PDAnnot widgets[2] = {w, sw};
    const QF::WidgetList noWidgets{nullptr, 3};
    const QF::WidgetList staleWidgets{widgets + 1, 1};
    const QF::AddWidgetParams addNullDoc{nullptr, 0, w}, addNullWidget{d, 0, nullptr},
        addPastPages{d, kHuge, w}, addClosed{sd, 0, sw}, addForeign{d, 0, sw};
    const QF::RenameWidgetParams renameNullName{d, 0, w, nullptr},
        renameNullWidget{d, 0, nullptr, u"a"}, renameClosed{sd, 0, sw, u"a"},
        renameNullDoc{nullptr, 0, w, u"a"};
    const QF::GroupRadioButtonsParams groupNull{d, 0, nullptr}, groupNoItems{d, 0, &noWidgets},
        groupStale{sd, 0, &staleWidgets};
    const QF::TabOrderParams tabPast{d, 0, 0xFFFFFFFF, 0}, tabPage{d, kHuge, 0, 0},
        tabNullDoc{nullptr, 0, 0, 0}, tabClosed{sd, 0, 0, 0};
    const QF::MoveAnnotsFocusOrderParams moveNull{d, 0, 0, nullptr, 2},
        movePast{d, 0, 0, positions, 2}, moveClosed{sd, 0, 0, positions, 1},
        moveNullDoc{nullptr, 0, 0, positions, 1};
    const QF::AutoTabOrderParams autoNull{d, nullptr, 2, 0}, autoPast{d, pages, 2, 0},
        autoClosed{sd, pages, 1, 0}, autoNullDoc{nullptr, pages, 1, 0};
    const struct {
        const char* command;
        const char* what;
        const void* params;
        uint32_t expected;
    } rows[] = {
        {"AddWidget", "null document", &addNullDoc, 3},
        {"AddWidget", "null widget", &addNullWidget, 2},
        {"AddWidget", "page past the pages", &addPastPages, 3},
        {"AddWidget", "closed document", &addClosed, 3},
        {"AddWidget", "widget of another document", &addForeign, 0x30009},
        {"Widget_Rename", "null name", &renameNullName, kAny},
        {"Widget_Rename", "null widget", &renameNullWidget, kAny},
        {"Widget_Rename", "null document", &renameNullDoc, kAny},
        {"Widget_Rename", "closed document", &renameClosed, kAny},
        {"GroupRadioButtons", "null list", &groupNull, kAny},
        {"GroupRadioButtons", "null items with a count", &groupNoItems, kAny},
        {"GroupRadioButtons", "closed document", &groupStale, kAny},
        {"TabOrderAnnot", "position 0xFFFFFFFF", &tabPast, kAny},
        {"TabOrderAnnot", "page past the pages", &tabPage, kAny},
        {"TabOrderAnnot", "null document", &tabNullDoc, kAny},
        {"TabOrderAnnot", "closed document", &tabClosed, kAny},
        {"MoveAnnotsFocusOrder", "null positions with a count", &moveNull, kAny},
        {"MoveAnnotsFocusOrder", "huge position", &movePast, kAny},
        {"MoveAnnotsFocusOrder", "null document", &moveNullDoc, kAny},
        {"MoveAnnotsFocusOrder", "closed document", &moveClosed, kAny},
        {"AutoTabOrderAnnot", "null pages with a count", &autoNull, kAny},
        {"AutoTabOrderAnnot", "huge page", &autoPast, kAny},
        {"AutoTabOrderAnnot", "null document", &autoNullDoc, kAny},
        {"AutoTabOrderAnnot", "closed document", &autoClosed, kAny},
    };
    for (const auto& row : rows) {
        const QF::CommandArgs args{1, atom(row.command), const_cast<void*>(row.params)};
        const uint32_t code = host.commands().execute(&args);
        if (row.expected != kAny) {
            EXPECT_EQ(code, row.expected) << row.command << ": " << row.what;
        }
    }
    EXPECT_EQ(host.commands().depths().undo, 0u);

    // A rename command of the live document, then the document closed under it.
    const QF::RenameWidgetParams rename{d, 0, w, u"Renamed"};
    const QF::CommandArgs args{1, atom("Widget_Rename"), const_cast<QF::RenameWidgetParams*>(&rename)};
    ObjectPtr factory = host.commands().factories().find(atom("Widget_Rename"));
    ObjectPtr command;
    ASSERT_EQ(SODetails::methods<F>(factory.get())->CreateCommand(factory.get(), &args,
                                                                  command.put()),
              0u);
    ServiceObject* c = command.get();
    uint32_t name = 0;
    using C = QF::CommandTable;
    check<C>("Widget_Rename command", c, QF::kCommandId, {
        ROW(C, GetCommandName, "null out", 3, nullptr),
        ROW(C, GetUniqueCommandID, "null out", 3, nullptr),
        ROW(C, GetFeatureName, "null out", 3, nullptr),
        ROW(C, GetTrackingFeatureName, "null out", 3, nullptr),
        ROW(C, UNDO, "before DO", kAny),
        ROW(C, DO, "does", 0),
        ROW(C, DO, "twice", kAny),
        ROW(C, UNDO, "undoes", kAny),
    });
    view = nullptr;
    host.closeDocument(*document);
    document = nullptr;
    check<C>("Widget_Rename command (document closed)", c, QF::kCommandId, {
        ROW(C, DO, "document closed", kAny),
        ROW(C, UNDO, "document closed", kAny),
        ROW(C, GetCommandName, "still named", 0, &name),
        ROW(C, GetUniqueCommandID, "still numbered", 0, &name),
        ROW(C, GetFeatureName, "widget of a closed document", kAny, &name),
        ROW(C, GetTrackingFeatureName, "widget of a closed document", kAny, &name),
    });
}

}  // namespace
