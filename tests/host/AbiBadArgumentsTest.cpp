// The boundary between host and module called with bad arguments: every export of the forms
// module and every method of every service object either side hands the other, with null
// pointers, out-of-range indices, counts and atoms, and stale objects (a closed document,
// an annotation of one, a destroyed view, a module object after DeInit). Each row is one
// bad call and the code it must answer. The slots a table row names come from the method
// tables (offsetof), and every filled slot of an object's table (its size S) needs at least
// one row, so a method added to an interface without rows here fails.
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/StringPairList.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <unistd.h>
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
constexpr uint32_t kAnyAnswer = 0xFFFFFFFE;

// One bad call of the method in slot `slot` and the code it must answer.
struct Row {
    size_t slot;
    std::string what;
    uint32_t expected;
    std::function<uint32_t()> call;
};

// A row calling Method of Table on object with the arguments after self; the slot is the
// method's place in the table.
#define ROW(Table, object, Method, what, expected, ...)                                          \
    Row {                                                                                        \
        offsetof(Table, Method) / sizeof(void*), what, expected, [&]() -> uint32_t {            \
            ServiceObject* self_ = (object);                                                     \
            return SODetails::methods<Table>(self_)->Method(self_ __VA_OPT__(, ) __VA_ARGS__);   \
        }                                                                                        \
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
        const uint32_t code = row.call();
        if (row.expected == kAnyAnswer) continue;
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

// A pdfcore handle the test owns.
struct Handle {
    PDHandle h = nullptr;
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { reset(); }
    void reset() {
        if (h) PDHandleRelease(h);
        h = nullptr;
    }
    PDHandle* put() {
        reset();
        return &h;
    }
    PDHandle get() const { return h; }
};

// A text field with one widget at rect on page index of doc; the widget in *out.
void addTextWidget(PDDoc doc, uint32_t index, PDRect rect, Handle& out) {
    Handle field, page;
    ASSERT_EQ(PDCreateTextField(doc, nullptr, 0, 0, field.put()), PD_OK);
    ASSERT_EQ(PDDocGetPage(doc, index, page.put()), PD_OK);
    ASSERT_EQ(PDCreateTextWidgetAnnot(doc, field.get(), page.get(), &rect, out.put()), PD_OK);
    ASSERT_EQ(PDPageAddAnnot(page.get(), 0, out.get()), PD_OK);
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
        ::setenv("QF_CLIPBOARD", (dir / "clipboard.json").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
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
        addTextWidget(document->pdDoc(), 0, PDRect{100, 700, 250, 680}, widget);

        qfhost::Document& other = host.newDocument(1, 612, 792);
        addTextWidget(other.pdDoc(), 0, PDRect{100, 700, 250, 680}, staleWidget);
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
        library = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
        if (!library) return;
        create = reinterpret_cast<decltype(create)>(::dlsym(library, "CreateServiceObject"));
        reflect = reinterpret_cast<decltype(reflect)>(::dlsym(library, "ReflectServiceObjectInfo"));
        const char* names[3] = {"ServiceObjectModuleInitialize", "ServiceObjectModuleOnCleanup",
                                "ServiceObjectModuleOnFree"};
        for (int i = 0; i < 3; ++i)
            hooks[i] = reinterpret_cast<ModuleLoader::ModuleHookFn>(::dlsym(library, names[i]));
    }
    ~Exports() {
        if (library) ::dlclose(library);
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
            {"Create: id 0xFFFFFFFF", 3, [&] { return m.create(kNone, &out); }},
            {"Create: null out", 3, [&] { return m.create(init, nullptr); }},
            {"Create: id 0, null out", 3, [&] { return m.create(0, nullptr); }},
            {"Create: unknown atom", 0x10005, [&] { return m.create(kUnknownAtom, &out); }},
            {"Create: a tool's atom", 0x10005, [&] { return m.create(atom("Edit"), &out); }},
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
        ROW(QF::InitServiceTable, init, OnRibbonInitialized, "answers no", 1),
        ROW(QF::InitServiceTable, init, Init, "second Init", 0),
        ROW(QF::InitServiceTable, init, DeInit, "DeInit", 0),
        ROW(QF::InitServiceTable, init, DeInit, "DeInit again", 0),
        ROW(QF::InitServiceTable, init, OnRibbonInitialized, "after DeInit", 1),
        ROW(QF::InitServiceTable, init, Init, "Init after DeInit", 0),
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
        ROW(T, tasks, RegisterTool, "atom 0", 3, 0, p),
        ROW(T, tasks, RegisterTool, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(T, tasks, RegisterTool, "null factory", 3, atom("AbiTool"), nullptr),
        ROW(T, tasks, WithdrawTool, "atom 0", 3, 0),
        ROW(T, tasks, WithdrawTool, "atom 0xFFFFFFFF", 3, kNone),
        ROW(T, tasks, WithdrawTool, "nothing under the atom", 1, kUnknownAtom),
        ROW(T, tasks, CreateTool, "null out", 3, atom("Edit"), nullptr),
        ROW(T, tasks, CreateTool, "atom 0", 0x10005, 0, sink.put()),
        ROW(T, tasks, CreateTool, "unknown atom", 0x10005, kUnknownAtom, sink.put()),
        ROW(T, tasks, CreateTool, "a factory that makes nothing", 0x10006, atom("AbiPlain"),
            sink.put()),
        ROW(T, tasks, ActivateTool, "unknown atom", 0x10005, kUnknownAtom, view->object(),
            sink.put()),
        ROW(T, tasks, ActivateTool, "atom 0xFFFFFFFF, null out", 0x10005, kNone, nullptr,
            nullptr),
    });
    EXPECT_FALSE(sink);
    ASSERT_EQ(host.tasks().tools().remove(atom("AbiPlain")), 0u);

    using C = QF::CommandsManagerTable;
    check<C>("CommandsManager", commands, QF::kCommandsManagerId, {
        ROW(C, commands, RegisterCommandFactory, "atom 0", 3, 0, p),
        ROW(C, commands, RegisterCommandFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(C, commands, RegisterCommandFactory, "null factory", 3, atom("AbiCmd"), nullptr),
        ROW(C, commands, WithdrawCommandFactory, "atom 0", 3, 0),
        ROW(C, commands, WithdrawCommandFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(C, commands, WithdrawCommandFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(C, commands, ExecuteCommand, "null args", 3, nullptr),
        ROW(C, commands, ExecuteCommand, "unknown name atom", 0x10005, &unknownCommand),
        ROW(C, commands, ExecuteCommand, "name atom 0xFFFFFFFF", 0x10005, &noneCommand),
        ROW(C, commands, Undo, "empty stack", 1),
        ROW(C, commands, Redo, "empty stack", 1),
        ROW(C, commands, GetStackDepths, "null undo", 3, nullptr, &depth),
        ROW(C, commands, GetStackDepths, "null redo", 3, &depth, nullptr),
        ROW(C, commands, Clear, "nothing to clear", 0),
    });

    using Q = QF::ServiceTable;
    check<Q>("QFService", qf, QF::kServiceId, {
        ROW(Q, qf, Prepare, "again", 0),
        ROW(Q, qf, RegisterAnnotEditSelectFactory, "atom 0", 3, 0, p),
        ROW(Q, qf, RegisterAnnotEditSelectFactory, "null factory", 3, PD_ATOM_Widget, nullptr),
        ROW(Q, qf, WithdrawAnnotEditSelectFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(Q, qf, WithdrawAnnotEditSelectFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(Q, qf, DeselectAnnot, "null annotation", 1, 0, nullptr),
        ROW(Q, qf, DeselectAnnot, "page past the pages", 1, kHuge, widget.get()),
        ROW(Q, qf, DeselectAnnot, "annotation of a closed document", 1, 0, staleWidget.get()),
    });

    // The four plain registries: register and withdraw with bad atoms and objects.
    using E = QF::EditServiceTable;
    check<E>("QFEditService", edit, QF::kEditServiceId, {
        ROW(E, edit, RegisterSelectEditObjectService, "atom 0", 3, 0, p),
        ROW(E, edit, RegisterSelectEditObjectService, "null service", 3, atom("AbiType"), nullptr),
        ROW(E, edit, WithdrawSelectEditObjectService, "atom 0", 3, 0),
        ROW(E, edit, WithdrawSelectEditObjectService, "nothing under the atom", 1, kUnknownAtom),
    });
    using P = QF::EditObjectPickerFactoryTable;
    check<P>("QFEditObjectPickerFactory", picker, QF::kEditObjectPickerFactoryId, {
        ROW(P, picker, RegisterEditObjectFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(P, picker, RegisterEditObjectFactory, "null factory", 3, atom("AbiType"), nullptr),
        ROW(P, picker, WithdrawEditObjectFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(P, picker, WithdrawEditObjectFactory, "nothing under the atom", 1, kUnknownAtom),
        ROW(P, picker, RegisterCompositeItem, "atom 0", 3, 0, p),
        ROW(P, picker, RegisterCompositeItem, "null item", 3, atom("AbiType"), nullptr),
        ROW(P, picker, WithdrawCompositeItem, "atom 0", 3, 0),
        ROW(P, picker, WithdrawCompositeItem, "nothing under the atom", 1, kUnknownAtom),
    });
    using M = QF::EditModuleServiceTable;
    check<M>("QFEditModuleService", modules, QF::kEditModuleServiceId, {
        ROW(M, modules, RegisterSelectionFactory, "atom 0", 3, 0, p),
        ROW(M, modules, RegisterSelectionFactory, "null factory", 3, atom("AbiSel"), nullptr),
        ROW(M, modules, WithdrawSelectionFactory, "atom 0xFFFFFFFF", 3, kNone),
        ROW(M, modules, WithdrawSelectionFactory, "nothing under the atom", 1, kUnknownAtom),
    });
    using A = QF::PDAnnotServiceTable;
    check<A>("QFPDAnnotService", pdAnnots, QF::kPDAnnotServiceId, {
        ROW(A, pdAnnots, RegisterHandlerFactory, "atom 0xFFFFFFFF", 3, kNone, p),
        ROW(A, pdAnnots, RegisterHandlerFactory, "null factory", 3, atom("AbiHandler"), nullptr),
        ROW(A, pdAnnots, WithdrawHandlerFactory, "atom 0", 3, 0),
        ROW(A, pdAnnots, WithdrawHandlerFactory, "nothing under the atom", 1, kUnknownAtom),
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
        ROW(PC, context, GetArea, "null name", 3, nullptr, sink.put()),
        ROW(PC, context, GetArea, "null out", 3, u"ToolArea", nullptr),
    });
    ServiceObject* area = host.properties().area(u"AbiArea");
    uint64_t count = 0;
    using PA = QF::PropertyAreaTable;
    check<PA>("QFPropertyArea", area, QF::kPropertyAreaId, {
        ROW(PA, area, AddProperty, "null property", 3, nullptr),
        ROW(PA, area, GetCount, "null out", 3, nullptr),
        ROW(PA, area, GetProperty, "index 0 of an empty area", 5, 0, sink.put()),
        ROW(PA, area, GetProperty, "index 0xFFFFFFFF", 5, 0xFFFFFFFF, sink.put()),
        ROW(PA, area, GetProperty, "huge index", 5, kHuge, sink.put()),
        ROW(PA, area, GetProperty, "null out", 3, 0, nullptr),
        ROW(PA, area, GetCount, "still empty", 0, &count),
    });
    EXPECT_EQ(count, 0u);

    using AF = QF::AnnotPropertiesFactoryTable;
    ServiceObject* d = doc();
    PDAnnot w = widget.get();
    check<AF>("QFAnnotPropertiesFactory", factory, QF::kAnnotPropertiesFactoryId, {
        ROW(AF, factory, AddWidget, "null document", 3, nullptr, 0, w),
        ROW(AF, factory, AddWidget, "null widget", 3, d, 0, nullptr),
        ROW(AF, factory, AddWidget, "page past the pages", 3, d, kHuge, w),
        ROW(AF, factory, AddWidget, "closed document", 3, staleDocument.get(), 0,
            staleWidget.get()),
        ROW(AF, factory, AddWidget, "widget of another document", 0x30009, d, 0,
            staleWidget.get()),
        ROW(AF, factory, AddAnnotProperties, "null subtype", 3, nullptr, d, 0, w, &rect, context),
        ROW(AF, factory, AddAnnotProperties, "null document", 3, u"Widget", nullptr, 0, w, &rect,
            context),
        ROW(AF, factory, AddAnnotProperties, "null annotation", 3, u"Widget", d, 0, nullptr,
            &rect, context),
        ROW(AF, factory, AddAnnotProperties, "null context", 3, u"Widget", d, 0, w, &rect,
            nullptr),
        ROW(AF, factory, AddAnnotProperties, "page past the pages", 3, u"Widget", d, kHuge, w,
            &rect, context),
        ROW(AF, factory, AddAnnotProperties, "not on that page", 3, u"Widget", d, 1, w, &rect,
            context),
        ROW(AF, factory, AddAnnotProperties, "widget of a closed document", 3, u"Widget", d, 0,
            staleWidget.get(), &rect, context),
        ROW(AF, factory, AddAnnotProperties, "closed document", kClosed, u"Widget",
            staleDocument.get(), 0, staleWidget.get(), &rect, context),
        ROW(AF, factory, AddAnnotProperties, "a subtype without rows", 1, u"Text", d, 0, w, &rect,
            context),
    });
    EXPECT_TRUE(host.properties().properties(u"AnnotArea").empty());
    EXPECT_EQ(host.commands().depths().undo, 0u);

    using S = QF::StringServiceTable;
    check<S>("QFStringService", strings, QF::kStringServiceId, {
        ROW(S, strings, GetTranslatedString, "null text with a length", 3, nullptr, 4, buffer, 4,
            &length),
        ROW(S, strings, GetTranslatedString, "null length out", 3, u"Name", 4, nullptr, 0,
            nullptr),
        ROW(S, strings, GetTranslatedString, "no translation", 1, u"Abi", 3, buffer, 4, &length),
    });
    ASSERT_TRUE(host.strings().setLanguage("ja"));
    const std::u16string english = qfhost::StringService::japaneseCatalog().at(0).first;
    const auto englishLength = static_cast<uint32_t>(english.size());
    check<S>("QFStringService (ja)", strings, QF::kStringServiceId, {
        ROW(S, strings, GetTranslatedString, "buffer of 1", 8, english.c_str(), englishLength,
            buffer, 1, &length),
        ROW(S, strings, GetTranslatedString, "buffer of 0", 8, english.c_str(), englishLength,
            buffer, 0, &length),
        ROW(S, strings, GetTranslatedString, "empty text", 1, u"", 0, buffer, 4, &length),
    });
    ASSERT_TRUE(host.strings().setLanguage("en"));

    using U = QF::UserSettingsTable;
    check<U>("QFUserSettings", settings, QF::kUserSettingsId, {
        ROW(U, settings, GetInteger, "null path", 3, nullptr, &number),
        ROW(U, settings, GetInteger, "null out", 3, u"Forms/CheckBox/Width", nullptr),
        ROW(U, settings, GetInteger, "unknown path", 1, u"Forms/Abi", &number),
        ROW(U, settings, GetInteger, "empty path", 1, u"", &number),
        ROW(U, settings, GetInteger, "a group", 1, u"Forms", &number),
        ROW(U, settings, GetInteger, "a text value", 13, u"Forms/SubmitButton/URL", &number),
        ROW(U, settings, GetString, "null path", 3, nullptr, &kSink),
        ROW(U, settings, GetString, "null sink", 3, u"Forms/SubmitButton/URL", nullptr),
        ROW(U, settings, GetString, "an integer value", 13, u"Forms/CheckBox/Width", &kSink),
        ROW(U, settings, SetInteger, "null path", 3, nullptr, 1),
        ROW(U, settings, SetInteger, "unknown path", 1, u"Forms/Abi", 1),
        ROW(U, settings, SetInteger, "a text value", 13, u"Forms/SubmitButton/URL", 1),
        ROW(U, settings, SetString, "null path", 3, nullptr, u"x", 1),
        ROW(U, settings, SetString, "null text with a length", 3, u"Forms/SubmitButton/URL",
            nullptr, 4),
        ROW(U, settings, SetString, "an integer value", 13, u"Forms/CheckBox/Width", u"x", 1),
    });
    EXPECT_EQ(host.settings().get(u"Forms/CheckBox/Width"), qfhost::UserSettings::Value{14});

    using V = QF::AnnotPropertiesValidateTable;
    check<V>("QFAnnotPropertiesValidate", validate, QF::kAnnotPropertiesValidateId, {
        ROW(V, validate, ValidateOptionList, "null list", 3, nullptr, &kSink),
        ROW(V, validate, ValidateOptionList, "not a list", 3, composites, &kSink),
        ROW(V, validate, ValidateOptionList, "null problem sink", 3, nullptr, nullptr),
    });

    using CF = QF::CompositeEditObjectFactoryTable;
    check<CF>("QFCompositeEditObjectFactory", composites, QF::kCompositeEditObjectFactoryId, {
        ROW(CF, composites, CreateComposite, "null out", 3, nullptr),
    });
    ObjectPtr composite = qfhost::CompositeEditObjectFactory::makeComposite();
    using CO = QF::CompositeEditObjectTable;
    check<CO>("QFCompositeEditObject", composite.get(), QF::kCompositeEditObjectId, {
        ROW(CO, composite.get(), AddChild, "null child", 3, nullptr),
        ROW(CO, composite.get(), GetCount, "null out", 3, nullptr),
        ROW(CO, composite.get(), GetChild, "index 0 of an empty group", 5, 0, sink.put()),
        ROW(CO, composite.get(), GetChild, "huge index", 5, kHuge, sink.put()),
        ROW(CO, composite.get(), GetChild, "null out", 3, 0, nullptr),
    });

    using W = QF::WinServicesTable;
    check<W>("KRWinServices", win, QF::kWinServicesId, {
        ROW(W, win, GetClipboard, "null out", 3, nullptr),
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
        ROW(K, clipboard, Close, "not open", 2),
        ROW(K, clipboard, Empty, "not open", 2),
        ROW(K, clipboard, PutData, "not open", 2, text, bytes, 4),
        ROW(K, clipboard, PutData, "not open, null data", 3, text, nullptr, 4),
        ROW(K, clipboard, HasFormat, "not open", 2, text, &has),
        ROW(K, clipboard, GetData, "not open", 2, text, nullptr, 0, &size),
        ROW(K, clipboard, PutUnicodeText, "not open", 2, u"ab", 2),
        ROW(K, clipboard, GetUnicodeText, "not open", 2, nullptr, 0, &size),
        ROW(K, clipboard, PutBitmap, "not open", 2, 1, 1, pixels),
        ROW(K, clipboard, CountFormats, "not open", 2, &size),
        ROW(K, clipboard, CountFormats, "not open, null out", 3, nullptr),
        ROW(K, clipboard, Open, "opens", 0),
    });
    check<K>("KRClipboard (open)", clipboard, QF::kClipboardId, {
        ROW(K, clipboard, Open, "open already", 2),
        ROW(K, clipboard, Empty, "empties", 0),
        ROW(K, clipboard, PutData, "format 0", 3, 0, bytes, 4),
        ROW(K, clipboard, PutData, "format 0xFFFFFFFF", 3, kNone, bytes, 4),
        ROW(K, clipboard, PutData, "null data with a length", 3, atom("AbiFormat"), nullptr, 4),
        ROW(K, clipboard, HasFormat, "null out", 3, text, nullptr),
        ROW(K, clipboard, HasFormat, "format 0: never held", 0, 0, &has),
        ROW(K, clipboard, GetData, "a format it lacks", 1, atom("AbiFormat"), bytes, 4, &size),
        ROW(K, clipboard, GetData, "format 0: never held", 1, 0, nullptr, 0, &size),
        ROW(K, clipboard, PutUnicodeText, "null text with a length", 3, nullptr, 4),
        ROW(K, clipboard, PutUnicodeText, "two units", 0, u"ab", 2),
        ROW(K, clipboard, GetUnicodeText, "null length out", 3, nullptr, 0, nullptr),
        ROW(K, clipboard, GetUnicodeText, "buffer of 1", 8, buffer, 1, &size),
        ROW(K, clipboard, GetData, "buffer of 1", 8, text, bytes, 1, &size),
        ROW(K, clipboard, GetData, "null length out", 3, text, nullptr, 0, nullptr),
        ROW(K, clipboard, PutBitmap, "null pixels", 3, 1, 1, nullptr),
        ROW(K, clipboard, PutBitmap, "huge size", 4, 0xFFFFFFFF, 0xFFFFFFFF, pixels),
        ROW(K, clipboard, CountFormats, "null out", 3, nullptr),
        ROW(K, clipboard, Close, "closes", 0),
    });

    ServiceObject* annotEdit = hostObject(HostService::QFAnnotEditService);
    uint64_t page = 0;
    Handle annot;
    uint32_t type = 0;
    using AE = QF::AnnotEditServiceTable;
    check<AE>("QFAnnotEditService", annotEdit, QF::kAnnotEditServiceId, {
        ROW(AE, annotEdit, SelectAnnot, "null annotation", 3, atom("WidgetEdit"), 0, nullptr),
        ROW(AE, annotEdit, SelectAnnot, "page past the pages", 3, atom("WidgetEdit"), kHuge,
            widget.get()),
        ROW(AE, annotEdit, SelectAnnot, "not on that page", 3, atom("WidgetEdit"), 1,
            widget.get()),
        ROW(AE, annotEdit, SelectAnnot, "annotation of a closed document", 3,
            atom("WidgetEdit"), 0, staleWidget.get()),
        ROW(AE, annotEdit, GetSelectionType, "null out", 3, nullptr),
        ROW(AE, annotEdit, GetSelectedCount, "null out", 3, nullptr),
        ROW(AE, annotEdit, GetSelected, "index 0 of an empty selection", 5, 0, &page,
            annot.put()),
        ROW(AE, annotEdit, GetSelected, "huge index", 5, kHuge, &page, annot.put()),
        ROW(AE, annotEdit, GetSelected, "null page out", 3, 0, nullptr, annot.put()),
        ROW(AE, annotEdit, GetSelected, "null annotation out", 3, 0, &page, nullptr),
        ROW(AE, annotEdit, GetSelection, "null out", 3, nullptr),
        ROW(AE, annotEdit, ClearSelection, "nothing selected", 0),
        ROW(AE, annotEdit, CreateDataObject, "null out", 3, nullptr),
        ROW(AE, annotEdit, GetSelectionType, "nothing selected", 0, &type),
    });
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(annot.get(), nullptr);

    ObjectPtr data;
    ASSERT_EQ(SODetails::methods<AE>(annotEdit)->CreateDataObject(annotEdit, data.put()), 0u);
    using DO = QF::DataObjectTable;
    check<DO>("QFDataObject", data.get(), QF::kDataObjectId, {
        ROW(DO, data.get(), PutData, "null data with a length", 3, nullptr, 4),
        ROW(DO, data.get(), GetData, "null length out", 3, nullptr, 0, nullptr),
        ROW(DO, data.get(), PutData, "four bytes", 0, "abcd", 4),
        ROW(DO, data.get(), GetData, "buffer of 1", 8, bytes, 1, &size),
        ROW(DO, data.get(), GetData, "null buffer asks the length", 0, nullptr, 4, &size),
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
        ROW(G, g, SaveState, "no page", 2),
        ROW(G, g, RestoreState, "no page", 2),
        ROW(G, g, Transform, "no page, null", 2, nullptr),
        ROW(G, g, SetPen, "no page, NaN", 2, 0xFF000000, nan, 0),
        ROW(G, g, SetBrush, "no page", 2, 0),
        ROW(G, g, SetFont, "no page, null", 2, nullptr, 10),
        ROW(G, g, DrawRect, "no page, null", 2, nullptr),
        ROW(G, g, DrawPolygon, "no page, null", 2, nullptr, 3),
        ROW(G, g, DrawText, "no page, null", 2, nullptr, 4, 0, 0),
        ROW(G, g, DrawFrame, "no page, null", 2, nullptr, 0),
        ROW(G, g, GetPixelSize, "no page, null", 2, nullptr),
    });
    host.graphics().beginPage(0, 1);
    const float badMatrix[6] = {1, 0, 0, 1, nan, 0};
    check<G>("GraphicsService (page 0)", g, QF::kGraphicsServiceId, {
        ROW(G, g, RestoreState, "nothing saved", 1),
        ROW(G, g, SaveState, "saves", 0),
        ROW(G, g, Transform, "null matrix", 3, nullptr),
        ROW(G, g, Transform, "NaN in the matrix", 3, badMatrix),
        ROW(G, g, SetPen, "width below 0", 3, 0xFF000000, -1.0f, 0),
        ROW(G, g, SetPen, "NaN width", 3, 0xFF000000, nan, 0),
        ROW(G, g, SetPen, "infinite width", 3, 0xFF000000, inf, 0),
        ROW(G, g, SetPen, "dash 3", 3, 0xFF000000, 1.0f, 3),
        ROW(G, g, SetPen, "dash 0xFFFFFFFF", 3, 0xFF000000, 1.0f, 0xFFFFFFFF),
        ROW(G, g, SetBrush, "any colour", 0, 0xFFFFFFFF),
        ROW(G, g, SetFont, "null family", 3, nullptr, 10.0f),
        ROW(G, g, SetFont, "size 0", 3, u"sans-serif", 0.0f),
        ROW(G, g, SetFont, "NaN size", 3, u"sans-serif", nan),
        ROW(G, g, DrawRect, "null rect", 3, nullptr),
        ROW(G, g, DrawPolygon, "null points", 3, nullptr, 3),
        ROW(G, g, DrawPolygon, "0 points", 3, points, 0),
        ROW(G, g, DrawPolygon, "2^20 + 1 points", 3, points, (uint64_t{1} << 20) + 1),
        ROW(G, g, DrawPolygon, "huge count", 3, points, kHuge),
        ROW(G, g, DrawText, "null text with a length", 3, nullptr, 4, 0.0f, 0.0f),
        ROW(G, g, DrawText, "NaN position", 3, u"ab", 2, nan, 0.0f),
        ROW(G, g, DrawFrame, "null rect", 3, nullptr, 0),
        ROW(G, g, DrawFrame, "handles 2", 3, &rect, 2),
        ROW(G, g, DrawFrame, "handles 0xFFFFFFFF", 3, &rect, 0xFFFFFFFF),
        ROW(G, g, GetPixelSize, "null out", 3, nullptr),
        ROW(G, g, GetPixelSize, "one pixel", 0, &pixel),
        ROW(G, g, Transform, "identity", 0, matrix),
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
        ROW(D, d, GetPDDoc, "null out", 3, nullptr),
        ROW(D, d, GetPage, "null out", 3, 0, nullptr),
        ROW(D, d, GetPage, "index 2 of 2 pages", 3, 2, sink.put()),
        ROW(D, d, GetPage, "index 0xFFFFFFFF", 3, 0xFFFFFFFF, sink.put()),
        ROW(D, d, GetPage, "huge index", 3, kHuge, sink.put()),
        ROW(D, d, NotifyAnnotChanged, "page past the pages", 3, 0, kHuge, widget.get()),
        ROW(D, d, NotifyAnnotsChanged, "page past the pages", 3, 0, 2, nullptr, 0),
        ROW(D, d, NotifyAnnotsChanged, "null annotations with a count", 3, 0, 0, nullptr, 3),
        ROW(D, d, InvalidateRect, "null rect", 3, 0, nullptr, 0),
        ROW(D, d, InvalidateRect, "page past the pages", 3, kHuge, rect, 0),
        ROW(D, d, PerformAnnotOperation, "null record", 3, setRect, nullptr, 0),
        ROW(D, d, PerformAnnotOperation, "reserved not 0", 3, setRect, &good, 1),
        ROW(D, d, PerformAnnotOperation, "null annotation", 3, setRect, &nullAnnot, 0),
        ROW(D, d, PerformAnnotOperation, "a record of a closed document", 3, setRect, &stale, 0),
        ROW(D, d, PerformAnnotOperation, "annotation of a closed document", 3, setRect, &foreign,
            0),
        ROW(D, d, PerformAnnotOperation, "page past the pages", 3, setRect, &pastPages, 0),
        ROW(D, d, PerformAnnotOperation, "not on that page", 3, setRect, &wrongPage, 0),
        ROW(D, d, PerformAnnotOperation, "operation atom 0", 0x1000C, 0, &good, 0),
        ROW(D, d, PerformAnnotOperation, "operation atom 0xFFFFFFFF", 0x1000C, kNone, &good, 0),
        ROW(D, d, PerformAnnotOperation, "unknown operation", 0x1000C, kUnknownAtom, &good, 0),
        ROW(D, d, GetOCConfig, "null out", 3, nullptr),
        ROW(D, d, ExecuteCommand, "null args", 3, nullptr),
        ROW(D, d, ExecuteCommand, "unknown command", 0x10005, &unknownCommand),
        ROW(D, d, IsValid, "null out", 3, nullptr),
        ROW(D, d, ConnectAnnotChanged, "null out", 3, noAnnotChange, nullptr, nullptr),
        ROW(D, d, ConnectAnnotChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(D, d, DisconnectAnnotChanged, "connection 0", 1, 0),
        ROW(D, d, DisconnectAnnotChanged, "huge connection", 1, kHuge),
        ROW(D, d, ConnectAnnotsChanged, "null out", 3, noAnnotsChange, nullptr, nullptr),
        ROW(D, d, ConnectAnnotsChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(D, d, DisconnectAnnotsChanged, "connection 0", 1, 0),
        ROW(D, d, DisconnectAnnotsChanged, "huge connection", 1, kHuge),
    });
    EXPECT_EQ(host.commands().depths().undo, 0u);

    ServiceObject* page = document->page(0);
    uint64_t token = 0;
    using G = QF::PageTable;
    check<G>("QFPage", page, QF::kPageId, {
        ROW(G, page, GetPDPage, "null out", 3, nullptr),
        ROW(G, page, GetChanged, "null out", 3, nullptr),
        ROW(G, page, SetChanged, "any value", 0, 0xFF),
        ROW(G, page, Lock, "mode 0", 3, 0, &token),
        ROW(G, page, Lock, "mode 0xFFFFFFFF", 3, 0xFFFFFFFF, &token),
        ROW(G, page, Lock, "null token", 3, 1, nullptr),
        ROW(G, page, Unlock, "not locked, token 0", 3, 0),
        ROW(G, page, Unlock, "not locked, huge token", 3, kHuge),
        ROW(G, page, Lock, "locks", 0, 1, &token),
        ROW(G, page, Lock, "locked already", 0x1000B, 1, &token),
        ROW(G, page, Unlock, "another token", 3, kHuge),
        ROW(G, page, IsValid, "null out", 3, nullptr),
    });
    EXPECT_EQ(SODetails::methods<G>(page)->Unlock(page, token), 0u);

    // A closed document's blocks: IsValid 0, every other method 0x1000D whatever it gets.
    ServiceObject* sd = staleDocument.get();
    check<D>("QFDocument (closed)", sd, QF::kDocumentId, {
        ROW(D, sd, GetPDDoc, "out", kClosed, handle.put()),
        ROW(D, sd, GetPDDoc, "null out", 3, nullptr),
        ROW(D, sd, GetPage, "page 0", kClosed, 0, sink.put()),
        ROW(D, sd, NotifyAnnotChanged, "its widget", kClosed, 0, 0, staleWidget.get()),
        ROW(D, sd, NotifyAnnotsChanged, "none", kClosed, 0, 0, nullptr, 0),
        ROW(D, sd, InvalidateRect, "a rect", kClosed, 0, rect, 0),
        ROW(D, sd, PerformAnnotOperation, "its own record", kClosed, setRect, &stale, 0),
        ROW(D, sd, GetOCConfig, "out", kClosed, &config),
        ROW(D, sd, ExecuteCommand, "null args", kClosed, nullptr),
        ROW(D, sd, IsValid, "answers 0", 0, &valid),
        ROW(D, sd, IsValid, "null out", 3, nullptr),
        ROW(D, sd, ConnectAnnotChanged, "a proc", kClosed, noAnnotChange, nullptr, &connection),
        ROW(D, sd, DisconnectAnnotChanged, "connection 1", 1, 1),
        ROW(D, sd, ConnectAnnotsChanged, "a proc", kClosed, noAnnotsChange, nullptr,
            &connection),
        ROW(D, sd, DisconnectAnnotsChanged, "connection 1", 1, 1),
    });
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(handle.get(), nullptr);
    EXPECT_FALSE(sink);

    ServiceObject* sp = staleDocPage.get();
    uint8_t changed = 0;
    valid = 9;
    check<G>("QFPage (closed)", sp, QF::kPageId, {
        ROW(G, sp, GetPDPage, "out", kClosed, handle.put()),
        ROW(G, sp, GetChanged, "out", kClosed, &changed),
        ROW(G, sp, SetChanged, "1", kClosed, 1),
        ROW(G, sp, Lock, "mode 1", kClosed, 1, &token),
        ROW(G, sp, Unlock, "token 1", 3, 1),
        ROW(G, sp, IsValid, "answers 0", 0, &valid),
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
        ROW(V, v, GetDocument, "null out", 3, nullptr),
        ROW(V, v, GetPDDoc, "null out", 3, nullptr),
        ROW(V, v, GetPageIndexAtPoint, "null out", 3, 0, 0, nullptr),
        ROW(V, v, GetPageIndexAtPoint, "INT32_MIN", 0, INT32_MIN, INT32_MIN, &index),
        ROW(V, v, ViewToPage, "page 2 of 2", 5, 2, 0, 0, pagePoint),
        ROW(V, v, ViewToPage, "huge page", 5, kHuge, 0, 0, pagePoint),
        ROW(V, v, ViewToPage, "null out", 3, 0, 0, 0, nullptr),
        ROW(V, v, PageToView, "huge page", 5, kHuge, point, viewPoint),
        ROW(V, v, PageToView, "null point", 3, 0, nullptr, viewPoint),
        ROW(V, v, PageToView, "null out", 3, 0, point, nullptr),
        ROW(V, v, GetRotation, "null out", 3, nullptr),
        ROW(V, v, GetZoom, "null out", 3, nullptr),
        ROW(V, v, GetPageViewRect, "page 0xFFFFFFFF", 5, 0xFFFFFFFF, viewPoint),
        ROW(V, v, GetPageViewRect, "null out", 3, 0, nullptr),
        ROW(V, v, Redraw, "redraws", 0),
        ROW(V, v, SetCursor, "shape 0xFFFFFFFF", 0, 0xFFFFFFFF),
        ROW(V, v, ShowFrame, "page past the pages", 5, 2, rect, 0),
        ROW(V, v, ShowFrame, "null rect", 3, 0, nullptr, 0),
        ROW(V, v, ShowFrame, "page -2", 3, -2, rect, 0),
        ROW(V, v, ShowFrame, "page -1 removes, rect ignored", 0, -1, nullptr, 0),
        ROW(V, v, CaptureDrag, "capture 0 without one", 0, 0),
        ROW(V, v, ReleaseAnnotFocus, "no focus", 0),
        ROW(V, v, ShowContextMenu, "kind atom 0", 3, 0, 0, 0, 0),
        ROW(V, v, ShowContextMenu, "huge page", 5, atom("Widget"), 0, 0, kHuge),
        ROW(V, v, StartViewDrag, "INT32_MIN", 0, INT32_MIN, INT32_MIN),
        ROW(V, v, ContinueViewDrag, "INT32_MAX after INT32_MIN", 0, INT32_MAX, INT32_MAX),
        ROW(V, v, SetAnnotFocus, "huge page", 3, kHuge, widget.get()),
        ROW(V, v, SetAnnotFocus, "not on that page", 3, 1, widget.get()),
        ROW(V, v, SetAnnotFocus, "annotation of a closed document", 3, 0, staleWidget.get()),
        ROW(V, v, GetFocusPage, "null out", 3, nullptr),
        ROW(V, v, ConnectDrawPageView, "null proc", 3, nullptr, nullptr, &connection),
        ROW(V, v, ConnectDrawPageView, "null out", 3, noDraw, nullptr, nullptr),
        ROW(V, v, DisconnectDrawPageView, "connection 0", 1, 0),
        ROW(V, v, DisconnectDrawPageView, "huge connection", 1, kHuge),
        ROW(V, v, ConnectFocusPageChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(V, v, ConnectFocusPageChanged, "null out", 3, noDraw, nullptr, nullptr),
        ROW(V, v, DisconnectFocusPageChanged, "connection 0", 1, 0),
        ROW(V, v, DisconnectFocusPageChanged, "huge connection", 1, kHuge),
    });
    EXPECT_EQ(index, -1);
    EXPECT_FALSE(view->annotFocus());

    // A destroyed view's block answers 0x1000D to everything.
    ServiceObject* sv = staleView.get();
    check<V>("QFDocumentView (destroyed)", sv, QF::kDocumentViewId, {
        ROW(V, sv, GetDocument, "out", kClosed, sink.put()),
        ROW(V, sv, GetPDDoc, "out", kClosed, handle.put()),
        ROW(V, sv, GetPageIndexAtPoint, "out", kClosed, 0, 0, &index),
        ROW(V, sv, ViewToPage, "page 0", kClosed, 0, 0, 0, pagePoint),
        ROW(V, sv, PageToView, "page 0", kClosed, 0, point, viewPoint),
        ROW(V, sv, GetRotation, "null out", kClosed, nullptr),
        ROW(V, sv, GetZoom, "null out", kClosed, nullptr),
        ROW(V, sv, GetPageViewRect, "page 0", kClosed, 0, viewPoint),
        ROW(V, sv, Redraw, "redraw", kClosed),
        ROW(V, sv, SetCursor, "shape 1", kClosed, 1),
        ROW(V, sv, ShowFrame, "page 0", kClosed, 0, rect, 0),
        ROW(V, sv, CaptureDrag, "capture", kClosed, 1),
        ROW(V, sv, ReleaseAnnotFocus, "release", kClosed),
        ROW(V, sv, ShowContextMenu, "page 0", kClosed, atom("Widget"), 0, 0, 0),
        ROW(V, sv, StartViewDrag, "start", kClosed, 0, 0),
        ROW(V, sv, ContinueViewDrag, "continue", kClosed, 1, 1),
        ROW(V, sv, SetAnnotFocus, "its widget", kClosed, 0, staleWidget.get()),
        ROW(V, sv, GetFocusPage, "out", kClosed, &index),
        ROW(V, sv, ConnectDrawPageView, "a proc", kClosed, noDraw, nullptr, &connection),
        ROW(V, sv, DisconnectDrawPageView, "connection 1", kClosed, 1),
        ROW(V, sv, ConnectFocusPageChanged, "a proc", kClosed, noDraw, nullptr, &connection),
        ROW(V, sv, DisconnectFocusPageChanged, "connection 1", kClosed, 1),
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
        ROW(P, property, GetName, "null sink", 3, nullptr),
        ROW(P, property, GetType, "null out", 3, nullptr),
        ROW(P, property, GetData, "null out", 3, nullptr),
        ROW(P, property, GetChangeListenerCount, "null out", 3, nullptr),
        ROW(P, property, AddChangeListener, "null proc", 3, nullptr, nullptr),
        ROW(P, property, RemoveChangeListener, "null proc", 3, nullptr, nullptr),
        ROW(P, property, RemoveChangeListener, "not registered", 1, noChange, &type),
        ROW(P, property, IsReadOnly, "null out", 3, nullptr),
        ROW(P, property, IsHidden, "null out", 3, nullptr),
        ROW(P, property, GetValue, "null sink", 3, nullptr),
        ROW(P, property, GetValue, "a sink without callbacks", kAnyAnswer, &emptySink),
        ROW(P, property, SetValue, "null value", 3, nullptr),
        ROW(P, property, SetValue, "null text with a length", kAnyAnswer, &nullText),
        ROW(P, property, SetValue, "a list that is no list", kAnyAnswer, &notAList),
        ROW(P, property, ValidateValue, "null value", 3, nullptr, 0, &flag),
        ROW(P, property, ValidateValue, "null out", 3, &nullText, 0, nullptr),
        ROW(P, property, ValidateValue, "null text, flag 0xFFFFFFFF", kAnyAnswer, &nullText, 0xFFFFFFFF,
            &flag),
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
        ROW(I, tool, GetToolName, "null out", 3, nullptr),
        ROW(I, tool, IsFinished, "null out", 3, nullptr),
        ROW(I, tool, HandleEvent, "null event", 3, nullptr, &flag),
        ROW(I, tool, HandleEvent, "null handled", 3, &press, nullptr),
        ROW(I, tool, HandleEvent, "a press before Initialize", kAnyAnswer, &press, &flag),
        ROW(I, tool, GetToolProperties, "null out", 3, nullptr),
        ROW(I, tool, GetToolProperties, "before Initialize", kAnyAnswer, sink.put()),
        ROW(I, tool, ConnectPropertiesChanged, "null proc", 3, nullptr, nullptr, &connection),
        ROW(I, tool, ConnectPropertiesChanged, "null out", 3, noChange, nullptr, nullptr),
        ROW(I, tool, DisconnectPropertiesChanged, "connection 0", 1, 0),
        ROW(I, tool, DisconnectPropertiesChanged, "huge connection", 1, kHuge),
        ROW(I, tool, Removed, "before Initialize", kAnyAnswer),
        ROW(I, tool, FocusAnnot, "null annotation", kAnyAnswer, nullptr),
        ROW(I, tool, FocusAnnot, "annotation of a closed document", kAnyAnswer, staleAnnot),
        ROW(I, tool, RestoreSelection, "before Initialize", kAnyAnswer),
        ROW(I, tool, OnDeathrattle, "before Initialize", kAnyAnswer),
        ROW(I, tool, Terminate, "before Initialize", kAnyAnswer),
        ROW(I, tool, Initialize, "null view", kAnyAnswer, nullptr, nullptr),
        ROW(I, tool, HandleEvent, "a press without a view", kAnyAnswer, &press, &flag),
        ROW(I, tool, Initialize, "a destroyed view", kAnyAnswer, deadView, nullptr),
        ROW(I, tool, HandleEvent, "a press on a destroyed view", kAnyAnswer, &press, &flag),
        ROW(I, tool, GetToolProperties, "on a destroyed view", kAnyAnswer, sink.put()),
        ROW(I, tool, Terminate, "after a destroyed view", kAnyAnswer),
        ROW(I, tool, Initialize, "the live view, no context", liveInitialize, liveView, nullptr),
        ROW(I, tool, HandleEvent, "an event of no type", kAnyAnswer, &nonsense, &flag),
        ROW(I, tool, HandleEvent, "a move far outside", kAnyAnswer, &farMove, &flag),
        ROW(I, tool, FocusAnnot, "annotation of a closed document, live view", kAnyAnswer,
            staleAnnot),
        ROW(I, tool, Terminate, "ends", kAnyAnswer),
        ROW(I, tool, Terminate, "twice", kAnyAnswer),
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
            ROW(F, factory.get(), CreateInputHandler, "null out", 3, nullptr),
        });
        ObjectPtr tool;
        ASSERT_EQ(SODetails::methods<F>(factory.get())->CreateInputHandler(factory.get(),
                                                                             tool.put()),
                  0u);
        // The edit tool works on a selection, which it needs as Initialize's context.
        const bool edit = name == "Edit";
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
        ROW(F, factory.get(), CreateEditObject, "null document", 3, nullptr, 0, 0, sink.put(), w),
        ROW(F, factory.get(), CreateEditObject, "null out", 3, d, 0, 0, nullptr, w),
        ROW(F, factory.get(), CreateEditObject, "null widget", kAnyAnswer, d, 0, 0, sink.put(),
            nullptr),
        ROW(F, factory.get(), CreateEditObject, "page past the pages", kAnyAnswer, d, kHuge, 0,
            sink.put(), w),
        ROW(F, factory.get(), CreateEditObject, "not on that page", kAnyAnswer, d, 1, 0, sink.put(), w),
        ROW(F, factory.get(), CreateEditObject, "widget of a closed document", kAnyAnswer, d, 0, 0,
            sink.put(), sw),
        ROW(F, factory.get(), CreateEditObject, "closed document", kAnyAnswer, sd, 0, 0, sink.put(),
            sw),
        ROW(F, factory.get(), CreateEditObject, "not a document", kAnyAnswer, plain.get(), 0, 0,
            sink.put(), w),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "null document", 3, nullptr, 0, 0,
            point, sink.put()),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "null point", 3, d, 0, 0, nullptr,
            sink.put()),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "null out", 3, d, 0, 0, point,
            nullptr),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "page past the pages", kAnyAnswer, d, kHuge,
            0, point, sink.put()),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "NaN point", kAnyAnswer, d, 0, 0, nanPoint,
            sink.put()),
        ROW(F, factory.get(), CreateEditObjectByPagePoint, "closed document", kAnyAnswer, sd, 0, 0,
            point, sink.put()),
    });
    sink.reset();

    ObjectPtr item = host.picker().compositeItems().find(widgetEdit);
    using CI = QF::CompositeEditObjectFactoryItemTable;
    check<CI>("QFCompositeEditObjectFactoryItem", item.get(),
              QF::kCompositeEditObjectFactoryItemId, {
        ROW(CI, item.get(), CreateCompositeEditObjectForPage, "null document", 3, nullptr, 0,
            sink.put()),
        ROW(CI, item.get(), CreateCompositeEditObjectForPage, "null out", 3, d, 0, nullptr),
        ROW(CI, item.get(), CreateCompositeEditObjectForPage, "page past the pages", kAnyAnswer, d,
            kHuge, sink.put()),
        ROW(CI, item.get(), CreateCompositeEditObjectForPage, "closed document", kAnyAnswer, sd, 0,
            sink.put()),
        ROW(CI, item.get(), GetSelectedObjectsOnPage, "null document", 3, nullptr, 0,
            sink.put()),
        ROW(CI, item.get(), GetSelectedObjectsOnPage, "null out", 3, d, 0, nullptr),
        ROW(CI, item.get(), GetSelectedObjectsOnPage, "page past the pages", kAnyAnswer, d, kHuge,
            sink.put()),
        ROW(CI, item.get(), GetSelectedObjectsOnPage, "closed document", kAnyAnswer, sd, 0,
            sink.put()),
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
        ROW(EO, o, GetDoc, "null out", 3, nullptr),
        ROW(EO, o, GetPageIndex, "null out", 3, nullptr),
        ROW(EO, o, GetObjectType, "null out", 3, nullptr),
        ROW(EO, o, IsValid, "null out", 3, nullptr),
        ROW(EO, o, IsEqual, "null other", 3, nullptr, nullptr),
        ROW(EO, o, IsEqual, "null out", 3, o, nullptr),
        ROW(EO, o, IsEqual, "not an edit object", kAnyAnswer, plain.get(), reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, o, HitTestPoint, "null point", 3, nullptr, reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, o, HitTestPoint, "null out", 3, point, nullptr),
        ROW(EO, o, HitTestRect, "null rect", 3, nullptr, reinterpret_cast<uint8_t*>(&count)),
        ROW(EO, o, HitTestRect, "null out", 3, &rect, nullptr),
        ROW(EO, o, GetObjectSpaceRect, "null out", 3, nullptr),
        ROW(EO, o, GetBounds, "null out", 3, nullptr),
        ROW(EO, o, ModifyEditCTM, "null proc", 3, nullptr, nullptr),
        ROW(EO, o, GetEditBounds, "null out", 3, nullptr),
        ROW(EO, o, GetData, "null out", 3, nullptr),
        ROW(EO, o, GetPDEElement, "null out", 3, nullptr),
        ROW(EO, o, GetAnnot, "null out", 3, nullptr),
        ROW(EO, o, GetTextBlock, "null out", 3, nullptr),
        ROW(EO, o, SetBindingStrength, "0xFFFFFFFF", kAnyAnswer, 0xFFFFFFFF),
        ROW(EO, o, GetBindingStrength, "null out", 3, nullptr),
        ROW(EO, o, IsGroup, "null out", 3, nullptr),
        ROW(EO, o, AddChild, "null child", 3, nullptr),
        ROW(EO, o, AddChild, "not an edit object", kAnyAnswer, plain.get()),
        ROW(EO, o, GetChilds, "null count", 3, nullptr, 0, nullptr),
        ROW(EO, o, GetChilds, "huge capacity, no children", kAnyAnswer, sink.put(), kHuge, &count),
        ROW(EO, o, ClearChilds, "no children", kAnyAnswer),
        ROW(EO, o, ModifyEditCTM, "a proc that changes nothing", kAnyAnswer, noMatrix, nullptr),
        ROW(EO, o, ApplyEdit, "nothing changed", kAnyAnswer),
        ROW(EO, o, Delete, "deletes the widget", 0),
        ROW(EO, o, Delete, "deleted already", kAnyAnswer),
        ROW(EO, o, ApplyEdit, "after the widget left its page", kAnyAnswer),
        ROW(EO, o, HitTestPoint, "after the widget left its page", kAnyAnswer, point,
            reinterpret_cast<uint8_t*>(&count)),
    });
    ASSERT_EQ(host.commands().undo(), 0u);  // the widget back on its page
    sink.reset();

    ObjectPtr service = host.edit().selectEditObjectServices().find(widgetEdit);
    using SE = QF::SelectEditObjectServiceTable;
    check<SE>("QFSelectEditObjectService", service.get(), QF::kSelectEditObjectServiceId, {
        ROW(SE, service.get(), SelectObject, "null object", 3, nullptr),
        ROW(SE, service.get(), SelectObject, "not an edit object", kAnyAnswer, plain.get()),
        ROW(SE, service.get(), RemoveObjectFromSelection, "null object", 3, nullptr),
        ROW(SE, service.get(), RemoveObjectFromSelection, "not selected", kAnyAnswer, o),
        ROW(SE, service.get(), RemoveObjectFromSelection, "not an edit object", kAnyAnswer,
            plain.get()),
        ROW(SE, service.get(), ExtractSelectedCompositeEditObjects, "null document", 3, nullptr,
            0, sink.put()),
        ROW(SE, service.get(), ExtractSelectedCompositeEditObjects, "null out", 3, d, 0,
            nullptr),
        ROW(SE, service.get(), ExtractSelectedCompositeEditObjects, "page past the pages", kAnyAnswer,
            d, kHuge, sink.put()),
        ROW(SE, service.get(), ExtractSelectedCompositeEditObjects, "closed document", kAnyAnswer, sd,
            0, sink.put()),
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
        ROW(AS, select.get(), CreateSelection, "null view", kAnyAnswer, nullptr, 0, w, sink.put()),
        ROW(AS, select.get(), CreateSelection, "null annotation", 3, v, 0, nullptr, sink.put()),
        ROW(AS, select.get(), CreateSelection, "null out", 3, v, 0, w, nullptr),
        ROW(AS, select.get(), CreateSelection, "page past the pages", kAnyAnswer, v, kHuge, w,
            sink.put()),
        ROW(AS, select.get(), CreateSelection, "annotation of a closed document", kAnyAnswer, v, 0, sw,
            sink.put()),
        ROW(AS, select.get(), CreateSelection, "a destroyed view", kAnyAnswer, staleView.get(), 0, w,
            sink.put()),
        ROW(AS, select.get(), CopyAnnot, "null annotation", 3, v, 0, nullptr, sink.put()),
        ROW(AS, select.get(), CopyAnnot, "null out", 3, v, 0, w, nullptr),
        ROW(AS, select.get(), CopyAnnot, "null view", kAnyAnswer, nullptr, 0, w, sink.put()),
        ROW(AS, select.get(), CopyAnnot, "annotation of a closed document", kAnyAnswer, v, 0, sw,
            sink.put()),
        ROW(AS, select.get(), CopyAnnot, "a destroyed view", kAnyAnswer, staleView.get(), 0, w,
            sink.put()),
        ROW(AS, select.get(), PasteAnnot, "null data", 3, v, 0, nullptr, annot.put()),
        ROW(AS, select.get(), PasteAnnot, "null out", 3, v, 0, data.get(), nullptr),
        ROW(AS, select.get(), PasteAnnot, "empty data", kAnyAnswer, v, 0, data.get(), annot.put()),
        ROW(AS, select.get(), PasteAnnot, "not a data object", kAnyAnswer, v, 0, plain.get(),
            annot.put()),
        ROW(AS, select.get(), PasteAnnot, "null view", kAnyAnswer, nullptr, 0, data.get(), annot.put()),
        ROW(AS, select.get(), PasteAnnot, "a destroyed view", kAnyAnswer, staleView.get(), 0,
            data.get(), annot.put()),
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
        ROW(SL, s, GetType, "null out", 3, nullptr),
        ROW(SL, s, Init, "null view", 0, nullptr),
        ROW(SL, s, Init, "a destroyed view", kAnyAnswer, staleView.get()),
        ROW(SL, s, ConnectChanged, "null proc", 3, nullptr, nullptr, &first),
        ROW(SL, s, ConnectChanged, "null out", 3, noChange, nullptr, nullptr),
        ROW(SL, s, DisconnectChanged, "connection 0", 1, 0),
        ROW(SL, s, DisconnectChanged, "huge connection", 1, kHuge),
        ROW(SL, s, Reserved4, "reserved", 1),
        ROW(SL, s, Reserved5, "reserved", 1),
        ROW(SL, s, GetSelectionData, "null out", 2, nullptr),
        ROW(SL, s, CanCopy, "null out", 3, nullptr),
        ROW(SL, s, GetPageIndexRange, "null first", 3, nullptr, &first),
        ROW(SL, s, GetPageIndexRange, "null last", 3, &first, nullptr),
        ROW(SL, s, HitTest, "null point", 3, 0, nullptr, &hit),
        ROW(SL, s, HitTest, "null out", 3, 0, point, nullptr),
        ROW(SL, s, HitTest, "page past the pages", kAnyAnswer, kHuge, point, &hit),
        ROW(SL, s, Draw, "page past the pages", kAnyAnswer, kHuge),
        ROW(SL, s, Draw, "outside the host's drawing", kAnyAnswer, 0),
        ROW(SL, s, DrawHighlight, "page past the pages", kAnyAnswer, kHuge),
        ROW(SL, s, GetDestination, "null page", 3, nullptr, &bounds),
        ROW(SL, s, GetDestination, "null rect", 3, &first, nullptr),
        ROW(SL, s, GetProperties, "null context", 3, nullptr),
        ROW(SL, s, GetProperties, "not a context", kAnyAnswer, plain.get()),
        ROW(SL, s, GetAvailableOperations, "null out", 3, nullptr),
        ROW(SL, s, Reserved16, "reserved", 1),
        ROW(SL, s, Reserved17, "reserved", 1),
        ROW(SL, s, Reserved18, "reserved", 1),
        ROW(SL, s, Reserved19, "reserved", 1),
        ROW(SL, s, Reserved20, "reserved", 1),
        ROW(SL, s, Reserved21, "reserved", 1),
        ROW(SL, s, GetNumQuads, "null out", 3, nullptr),
        ROW(SL, s, GetQuadPoints, "null out", 3, 0, nullptr),
        ROW(SL, s, GetQuadPoints, "huge index", kAnyAnswer, kHuge, quad),
        ROW(SL, s, GetNumQuadsByPage, "null out", 3, 0, nullptr),
        ROW(SL, s, GetNumQuadsByPage, "page past the pages", kAnyAnswer, kHuge, &first),
        ROW(SL, s, GetQuadPointsByPage, "null out", 3, 0, 0, nullptr),
        ROW(SL, s, GetQuadPointsByPage, "huge index", kAnyAnswer, 0, kHuge, quad),
        ROW(SL, s, GetQuadPointsByPage, "page past the pages", kAnyAnswer, kHuge, 0, quad),
        ROW(SL, s, GetBounds, "null out", 3, nullptr),
        ROW(SL, s, GetPageIndex, "null out", 3, nullptr),
        ROW(SL, s, Done, "done", kAnyAnswer),
        ROW(SL, s, Done, "done twice", kAnyAnswer),
        ROW(SL, s, GetBounds, "after Done", kAnyAnswer, &bounds),
    });

    ObjectPtr selections = host.editModules().selectionFactories().find(widgetEdit);
    using SF = QF::SelectionFactoryTable;
    check<SF>("QFSelectionFactory", selections.get(), QF::kSelectionFactoryId, {
        ROW(SF, selections.get(), CreateSelection, "null out", 3, nullptr),
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
            ROW(F, f, CreateCommand, "null args", 3, nullptr, sink.put()),
            ROW(F, f, CreateCommand, "null out", 3, &noParams, nullptr),
            ROW(F, f, CreateCommand, "null params", tabOrder.count(text) ? 2u : 3u, &noParams,
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
        {"Widget_Rename", "null name", &renameNullName, kAnyAnswer},
        {"Widget_Rename", "null widget", &renameNullWidget, kAnyAnswer},
        {"Widget_Rename", "null document", &renameNullDoc, kAnyAnswer},
        {"Widget_Rename", "closed document", &renameClosed, kAnyAnswer},
        {"GroupRadioButtons", "null list", &groupNull, kAnyAnswer},
        {"GroupRadioButtons", "null items with a count", &groupNoItems, kAnyAnswer},
        {"GroupRadioButtons", "closed document", &groupStale, kAnyAnswer},
        {"TabOrderAnnot", "position 0xFFFFFFFF", &tabPast, kAnyAnswer},
        {"TabOrderAnnot", "page past the pages", &tabPage, kAnyAnswer},
        {"TabOrderAnnot", "null document", &tabNullDoc, kAnyAnswer},
        {"TabOrderAnnot", "closed document", &tabClosed, kAnyAnswer},
        {"MoveAnnotsFocusOrder", "null positions with a count", &moveNull, kAnyAnswer},
        {"MoveAnnotsFocusOrder", "huge position", &movePast, kAnyAnswer},
        {"MoveAnnotsFocusOrder", "null document", &moveNullDoc, kAnyAnswer},
        {"MoveAnnotsFocusOrder", "closed document", &moveClosed, kAnyAnswer},
        {"AutoTabOrderAnnot", "null pages with a count", &autoNull, kAnyAnswer},
        {"AutoTabOrderAnnot", "huge page", &autoPast, kAnyAnswer},
        {"AutoTabOrderAnnot", "null document", &autoNullDoc, kAnyAnswer},
        {"AutoTabOrderAnnot", "closed document", &autoClosed, kAnyAnswer},
    };
    for (const auto& row : rows) {
        const QF::CommandArgs args{1, atom(row.command), const_cast<void*>(row.params)};
        const uint32_t code = host.commands().execute(&args);
        if (row.expected != kAnyAnswer) {
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
        ROW(C, c, GetCommandName, "null out", 3, nullptr),
        ROW(C, c, GetUniqueCommandID, "null out", 3, nullptr),
        ROW(C, c, GetFeatureName, "null out", 3, nullptr),
        ROW(C, c, GetTrackingFeatureName, "null out", 3, nullptr),
        ROW(C, c, UNDO, "before DO", kAnyAnswer),
        ROW(C, c, DO, "does", 0),
        ROW(C, c, DO, "twice", kAnyAnswer),
        ROW(C, c, UNDO, "undoes", kAnyAnswer),
    });
    view = nullptr;
    host.closeDocument(*document);
    document = nullptr;
    check<C>("Widget_Rename command (document closed)", c, QF::kCommandId, {
        ROW(C, c, DO, "document closed", kAnyAnswer),
        ROW(C, c, UNDO, "document closed", kAnyAnswer),
        ROW(C, c, GetCommandName, "still named", 0, &name),
        ROW(C, c, GetUniqueCommandID, "still numbered", 0, &name),
        ROW(C, c, GetFeatureName, "widget of a closed document", kAnyAnswer, &name),
        ROW(C, c, GetTrackingFeatureName, "widget of a closed document", kAnyAnswer, &name),
    });
}

}  // namespace
