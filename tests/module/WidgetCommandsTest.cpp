// Field compatibility, renaming a widget's field, and the widget commands. The commands run
// in the loaded module through the reference host's commands manager, on the host's own
// document; after DO and UNDO the document is saved and read back as a fresh reader sees
// it. The command classes are compiled in as well, to check the texts of construction
// failures, which the service-object boundary keeps to itself.
#include "WidgetCommands.h"

#include "kr/KRRuntime.h"
#include "pdmodel-proxy/FormField"
#include "qf/internal/ServiceObjectException.h"
#include "qf/internal/TextConversion.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <algorithm>
#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace {

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

uint32_t krAtom(const char* name) {
    uint32_t id = 0;
    EXPECT_EQ(KRGetAtomFromString(name, &id), 0u) << name;
    return id;
}
int32_t refs(ServiceObject* so) {
    return SODetails::header(so)->base.GetRefCount(so);
}
struct NoErrorInfo {
    static uint32_t GetLastErrorInfo(ServiceObject*, SODetails::ErrorInfo*, const void**) {
        return 9;
    }
};

// A "QFDocument" of an older host that offers none of its operations.
BasicServiceObjectPtr<> documentWithoutOperations() {
    struct Nothing {};
    static const QF::DocumentTable kNone{};
    return BasicServiceObjectPtr<>::adopt(
        SODetails::makeServiceObject<QF::DocumentTable, Nothing, NoErrorInfo>(
            QF::kDocumentId, "QFDocument", 1, kNone));
}

// ---- pdfcore helpers ----------------------------------------------------------------------

PDHandlePtr newDocument() {
    PDHandlePtr doc;
    EXPECT_EQ(PDDocCreate(1, 612, 792, doc.put()), PD_OK);
    return doc;
}
PDHandlePtr field(PDDoc doc, std::u16string_view name, PDAtom type, uint32_t flags) {
    PDHandlePtr f;
    EXPECT_EQ(PDDocCreateField(doc, name.data(), uint32_t(name.size()), type, flags, f.put()),
              PD_OK);
    return f;
}
PDHandlePtr findField(PDDoc doc, std::u16string_view name) {
    PDHandlePtr f;
    EXPECT_EQ(PDDocFindField(doc, name.data(), uint32_t(name.size()), f.put()), PD_OK);
    return f;
}
PDHandlePtr pageHandle(PDDoc doc) {
    PDHandlePtr page;
    EXPECT_EQ(PDDocGetPage(doc, 0, page.put()), PD_OK);
    return page;
}
// A new widget of f at row y, appended to page 0 unless onPage is false.
PDHandlePtr widget(PDDoc doc, PDField f, float y, bool onPage = true) {
    auto page = pageHandle(doc);
    PDAtom type = 0;
    PDFieldGetType(f, &type);
    const PDRect rect{100, y + 20, 200, y};
    PDHandlePtr w;
    const auto create = type == PD_ATOM_Btn   ? &PDCreateButtonWidgetAnnot
                        : type == PD_ATOM_Ch  ? &PDCreateChoiceWidgetAnnot
                        : type == PD_ATOM_Sig ? &PDCreateSignWidgetAnnot
                                              : &PDCreateTextWidgetAnnot;
    EXPECT_EQ(create(doc, f, page.get(), &rect, w.put()), PD_OK);
    uint32_t count = 0;
    PDPageGetNumAnnots(page.get(), &count);
    if (onPage) {
        EXPECT_EQ(PDPageAddAnnot(page.get(), count, w.get()), PD_OK);
    }
    return w;
}
PDHandlePtr parent(PDAnnot w) {
    PDHandlePtr p;
    EXPECT_EQ(PDWidgetAnnotGetParent(w, p.put()), PD_OK);
    return p;
}
std::u16string parentName(PDAnnot w) {
    auto p = parent(w);
    return p ? QF::GetFieldFullName(p.get(), "test") : u"<none>";
}
uint32_t widgetCount(PDField f) {
    uint32_t n = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(f, &n), PD_OK);
    return n;
}
uint32_t flagsOf(PDField f) {
    uint32_t n = 0;
    EXPECT_EQ(PDFieldGetFlags(f, &n), PD_OK);
    return n;
}
std::string stateOf(PDAnnot w) {
    PDAtom state = 0;
    const char* name = "<none>";
    if (PDAnnotGetAppearanceState(w, &state) == PD_OK) PDAtomGetString(state, &name);
    return name;
}
std::u16string choiceOf(PDAnnot w) {
    return QF::GetButtonChoice(w, "test");
}
uint32_t annotCount(PDDoc doc) {
    uint32_t n = 0;
    EXPECT_EQ(PDPageGetNumAnnots(pageHandle(doc).get(), &n), PD_OK);
    return n;
}

// What a fresh reader sees: the document saved with PDDocSave and opened again.
struct Reopened {
    explicit Reopened(PDDoc source) {
        static int counter = 0;
        const std::string path =
            ::testing::TempDir() + "widget_commands_" + std::to_string(++counter) + ".pdf";
        EXPECT_EQ(PDDocSave(source, path.c_str()), PD_OK);
        EXPECT_EQ(PDDocOpen(path.c_str(), doc.put()), PD_OK);
        std::remove(path.c_str());
    }
    PDHandlePtr annot(uint32_t i) const {
        PDHandlePtr a;
        EXPECT_EQ(PDPageGetAnnot(pageHandle(doc.get()).get(), i, a.put()), PD_OK);
        return a;
    }
    std::u16string fieldOf(uint32_t i) const { return parentName(annot(i).get()); }
    PDHandlePtr find(std::u16string_view name) const { return findField(doc.get(), name); }
    uint32_t fields() const {
        uint32_t n = 0;
        EXPECT_EQ(PDDocGetNumFields(doc.get(), &n), PD_OK);
        return n;
    }
    PDHandlePtr doc;
};

void expectFailure(const std::function<void()>& body, uint32_t code, std::u16string_view message,
                   const char* function) {
    try {
        body();
        ADD_FAILURE() << "no exception";
    } catch (const ServiceObjectException& e) {
        EXPECT_EQ(e.Code(), code) << e.what();
        EXPECT_EQ(e.Record().Message(), message) << e.what();
        EXPECT_EQ(e.Record().Function(), function);
    }
}

// ---- compatibility and RenameFormWidget ---------------------------------------------------

TEST(FieldCompatibility, OnlyTypeAndSubKindDecide) {
    auto doc = newDocument();
    // name -> type, flags, group: fields of one group may share a name, of two may not.
    struct Kind {
        PDAtom type;
        uint32_t flags;
        int group;
    };
    const std::map<std::u16string, Kind> kinds = {
        {u"check", {PD_ATOM_Btn, 0, 0}},
        {u"checkNoToggle", {PD_ATOM_Btn, PD_FIELD_NO_TOGGLE_TO_OFF | PD_FIELD_READONLY, 0}},
        {u"radio", {PD_ATOM_Btn, PD_FIELD_RADIO, 1}},
        {u"radioNoToggle", {PD_ATOM_Btn, PD_FIELD_RADIO | PD_FIELD_NO_TOGGLE_TO_OFF, 1}},
        {u"push", {PD_ATOM_Btn, PD_FIELD_PUSHBUTTON, 2}},
        {u"combo", {PD_ATOM_Ch, PD_FIELD_COMBO, 3}},
        {u"comboEdit", {PD_ATOM_Ch, PD_FIELD_COMBO | 0x40000, 3}},
        {u"list", {PD_ATOM_Ch, 0, 4}},
        {u"listMultiSorted", {PD_ATOM_Ch, PD_FIELD_MULTISELECT | 0x80000, 4}},
        {u"text", {PD_ATOM_Tx, 0, 5}},
        {u"textPassword", {PD_ATOM_Tx, PD_FIELD_MULTILINE | PD_FIELD_PASSWORD, 5}},
        {u"textComb", {PD_ATOM_Tx, PD_FIELD_COMB | 0x800000, 5}},
        {u"sign", {PD_ATOM_Sig, 0, 6}},
        {u"signReadOnly", {PD_ATOM_Sig, PD_FIELD_READONLY, 6}},
    };
    std::map<std::u16string, PDHandlePtr> fields;
    for (const auto& [name, k] : kinds)
        fields[name] = field(doc.get(), name, k.type, k.flags);
    for (const auto& [a, ka] : kinds) {
        for (const auto& [b, kb] : kinds) {
            const bool same = ka.group == kb.group;
            const std::string pair = SOImpl::Utf16ToUtf8(a + u" / " + b);
            EXPECT_EQ(PDFL::AreFieldsCompatible(fields[a].get(), fields[b].get()), same) << pair;
            EXPECT_EQ(PDFL::IsFieldTypeAndFlagsCompatible(fields[a].get(), kb.type, kb.flags), same)
                << pair;
        }
    }
    expectFailure([&] { PDFL::AreFieldsCompatible(fields[u"text"].get(), nullptr); }, 2,
                  u"Unspecified Error!", "PDFL::AreFieldsCompatible");
    expectFailure([&] { PDFL::IsFieldTypeAndFlagsCompatible(nullptr, PD_ATOM_Tx, 0); }, 2,
                  u"Unspecified Error!", "PDFL::IsFieldTypeAndFlagsCompatible");
}

TEST(RenameFormWidget, RefusesJoinsRenamesInPlaceOrSplits) {
    qfhost::Host host;
    auto document = qfhost::Document::create(1, 612, 792, &host);
    const auto doc = PDHandlePtr::share(document->pdDoc());
    const auto service = BasicServiceObjectPtr<>::share(document->object());
    const int32_t serviceRefs = refs(service.get());
    std::vector<int32_t> kinds;
    uint32_t cookie = 0;
    PDDocAddAnnotChangedListener(
        doc.get(),
        [](void* k, PDDoc, int32_t kind, uint32_t, PDAnnot) {
            static_cast<std::vector<int32_t>*>(k)->push_back(kind);
        },
        &kinds, &cookie);
    // RenameFormWidget takes over one reference to each.
    auto rename = [&](PDAnnot w, std::u16string name, ServiceObject* s) {
        if (s) SODetails::addRef(s);
        PDHandleAcquire(w);
        QF::WidgetUtilities::RenameFormWidget(s, w, 0, name);
    };
    auto a = field(doc.get(), u"a", PD_ATOM_Tx, 0);
    auto b = field(doc.get(), u"b", PD_ATOM_Tx, PD_FIELD_MULTILINE);
    auto radio = field(doc.get(), u"radio", PD_ATOM_Btn, PD_FIELD_RADIO);
    auto wa = widget(doc.get(), a.get(), 10);
    auto wb1 = widget(doc.get(), b.get(), 40);
    auto loose = widget(doc.get(), a.get(), 100);
    ASSERT_EQ(PDFieldRemoveWidget(a.get(), loose.get()), PD_OK);

    static constexpr const char* kFunction = "QF::WidgetUtilities::RenameFormWidget";
    const std::u16string clash = u"This name is already set for a different field type.";
    // The empty name fails before the document service is looked at.
    expectFailure([&] { rename(wa.get(), u"", nullptr); }, 3, u"The name cannot be empty.",
                  kFunction);
    expectFailure([&] { rename(wa.get(), u"radio", service.get()); }, 14, clash, kFunction);
    expectFailure([&] { rename(loose.get(), u"c", service.get()); }, 2, u"Not initialized",
                  kFunction);
    auto blind = documentWithoutOperations();
    expectFailure([&] { rename(wa.get(), u"c", blind.get()); }, 2, u"Not initialized", kFunction);
    EXPECT_EQ(refs(blind.get()), 1);
    EXPECT_EQ(refs(service.get()), serviceRefs);
    EXPECT_TRUE(kinds.empty());

    // How joins, renames in place and splits come out: the command test below.
    rename(wb1.get(), u"a", service.get()); // joins a
    rename(wa.get(), u"d", service.get()); // one of two: a new text field
    auto d = findField(doc.get(), u"d");
    ASSERT_TRUE(d);
    EXPECT_EQ(parent(wa.get()).get(), d.get());
    EXPECT_EQ(widgetCount(a.get()), 1u);
    rename(wa.get(), u"d", service.get()); // its own name: out and back into d
    EXPECT_EQ(parent(wa.get()).get(), d.get());
    EXPECT_EQ(kinds, (std::vector<int32_t>{3, 3, 3}));
    EXPECT_EQ(refs(service.get()), serviceRefs);
    PDDocRemoveAnnotChangedListener(doc.get(), cookie);
}

// ---- the commands, through the host -------------------------------------------------------

class WidgetCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE_PATH));
        document->OnAnnotChanged.connect([this](uint32_t kind, uint64_t, PDAnnot annot) {
            notes.push_back({kind, {annot}});
        });
        document->OnAnnotsChanged.connect(
            [this](uint32_t kind, uint64_t, const std::vector<PDAnnot>& annots) {
                notes.push_back({kind, annots});
            });
    }
    void TearDown() override { host.commands().clear(); }

    template <typename Params> uint32_t run(const char* name, const Params& params) {
        const QF::CommandArgs args{++uniqueId, krAtom(name), const_cast<Params*>(&params)};
        return host.commands().execute(&args);
    }
    bool changed() { return document->pageChanged(0); }
    std::vector<uint32_t> kinds() {
        std::vector<uint32_t> out;
        for (const auto& n : notes)
            out.push_back(n.first);
        return out;
    }
    // The rectangles the document was asked to redraw: left, top, right, bottom.
    std::vector<std::array<float, 4>> redraws() {
        std::vector<std::array<float, 4>> out;
        for (const auto& i : document->invalidations())
            out.push_back({i.rect.left, i.rect.top, i.rect.right, i.rect.bottom});
        return out;
    }

    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
    std::unique_ptr<qfhost::Document> document = qfhost::Document::create(1, 612, 792, &host);
    PDHandlePtr doc = PDHandlePtr::share(document->pdDoc());
    BasicServiceObjectPtr<> service = BasicServiceObjectPtr<>::share(document->object());
    std::vector<std::pair<uint32_t, std::vector<PDAnnot>>> notes; // kind, annotations
    uint32_t uniqueId = 0;
};

TEST_F(WidgetCommands, CommandsCarryTheirNamesAndFeatures) {
    auto sign = field(doc.get(), u"sign", PD_ATOM_Sig, 0);
    auto check = field(doc.get(), u"check", PD_ATOM_Btn, 0);
    auto sw = widget(doc.get(), sign.get(), 10, false);
    auto cw = widget(doc.get(), check.get(), 40);
    const QF::AddWidgetParams add{service.get(), 0, sw.get()};
    const QF::RenameWidgetParams rename{service.get(), 0, cw.get(), u"renamed"};
    const PDAnnot items[] = {cw.get()};
    const QF::WidgetList list{items, 1};
    const QF::GroupRadioButtonsParams group{service.get(), 0, &list};
    struct Case {
        const char* name;
        const void* params;
        const char* feature;
    } cases[] = {{"AddWidget", &add, "Secure"},
                 {"Widget_Rename", &rename, "Forms"},
                 {"GroupRadioButtons", &group, "Forms"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto factory = host.commands().factories().find(krAtom(c.name));
        ASSERT_TRUE(factory);
        BasicServiceObjectPtr<> command;
        const QF::CommandArgs args{77, krAtom(c.name), const_cast<void*>(c.params)};
        auto& create = *SODetails::methods<QF::CommandFactoryTable>(factory.get());
        ASSERT_EQ(create.CreateCommand(factory.get(), &args, command.put()), 0u);
        EXPECT_EQ(refs(command.get()), 1);

        auto& ops = *SODetails::methods<QF::CommandTable>(command.get());
        uint32_t value = 0;
        EXPECT_EQ(ops.GetCommandName(command.get(), &value), 0u);
        EXPECT_EQ(value, krAtom(c.name));
        EXPECT_EQ(ops.GetUniqueCommandID(command.get(), &value), 0u);
        EXPECT_EQ(value, 77u);
        EXPECT_EQ(ops.GetFeatureName(command.get(), &value), 0u);
        EXPECT_EQ(value, krAtom(c.feature));
        EXPECT_EQ(ops.GetTrackingFeatureName(command.get(), &value), 0u);
        EXPECT_EQ(value, krAtom(c.feature));
    }
    EXPECT_TRUE(notes.empty()); // creating changes nothing
    EXPECT_EQ(parentName(cw.get()), u"check");
}

TEST_F(WidgetCommands, AddWidgetDoUndoRedo) {
    auto f = field(doc.get(), u"added", PD_ATOM_Tx, 0);
    auto w = widget(doc.get(), f.get(), 10, false);
    ASSERT_EQ(run("AddWidget", QF::AddWidgetParams{service.get(), 0, w.get()}), 0u);
    EXPECT_EQ(annotCount(doc.get()), 1u);
    EXPECT_EQ(widgetCount(f.get()), 1u); // the intact parent link: not appended again
    EXPECT_TRUE(changed());
    {
        Reopened fresh(doc.get());
        EXPECT_EQ(fresh.fieldOf(0), u"added");
    }
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(annotCount(doc.get()), 0u);
    EXPECT_EQ(widgetCount(f.get()), 0u);
    EXPECT_FALSE(changed()); // restored, also when it was false
    {
        // The field stays in the document, without widgets, but is not written.
        Reopened fresh(doc.get());
        EXPECT_EQ(annotCount(fresh.doc.get()), 0u);
        EXPECT_FALSE(fresh.find(u"added"));
    }
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(parent(w.get()).get(), f.get()); // re-attached after losing its field
    EXPECT_EQ(widgetCount(f.get()), 1u);
    EXPECT_EQ(annotCount(doc.get()), 1u);
    EXPECT_EQ(kinds(), (std::vector<uint32_t>{0, 1, 0}));
    EXPECT_EQ(notes[1].second, std::vector<PDAnnot>{w.get()});
    ASSERT_EQ(redraws().size(), 3u);
    EXPECT_EQ(redraws()[1], (std::array<float, 4>{100, 30, 200, 10}));

    // A page changed before the add stays changed after its undo.
    auto v = widget(doc.get(), f.get(), 50, false);
    ASSERT_EQ(run("AddWidget", QF::AddWidgetParams{service.get(), 0, v.get()}), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_TRUE(changed());

    // The undo left v without a field: such a widget is refused at creation.
    ASSERT_FALSE(parent(v.get()));
    const QF::AddWidgetParams orphan{service.get(), 0, v.get()};
    EXPECT_EQ(run("AddWidget", orphan), 2u);
    EXPECT_EQ(host.commands().depths().undo, 1u);
    expectFailure(
        [&] {
            AddWidgetCommand c(QF::CommandArgs{1, 2, (void*)&orphan});
        },
        2, u"Not initialized", "AddWidgetCommand::AddWidgetCommand");
}

TEST_F(WidgetCommands, RenameJoinsRenamesInPlaceOrSplitsAndUndoes) {
    auto a = field(doc.get(), u"a", PD_ATOM_Tx, PD_FIELD_MULTILINE);
    auto b = field(doc.get(), u"b", PD_ATOM_Tx, PD_FIELD_PASSWORD);
    const uint32_t comboFlags = PD_FIELD_COMBO | 0x40000;
    auto multi = field(doc.get(), u"multi", PD_ATOM_Ch, comboFlags);
    auto wa = widget(doc.get(), a.get(), 10);
    auto wb = widget(doc.get(), b.get(), 40);
    auto wm1 = widget(doc.get(), multi.get(), 70);
    auto wm2 = widget(doc.get(), multi.get(), 100);

    // Onto a compatible field: only the widget moves; undo finds the emptied b by name.
    ASSERT_EQ(run("Widget_Rename", QF::RenameWidgetParams{service.get(), 0, wb.get(), u"a"}), 0u);
    EXPECT_EQ(parent(wb.get()).get(), a.get());
    EXPECT_EQ(flagsOf(a.get()), uint32_t(PD_FIELD_MULTILINE));
    EXPECT_EQ(Reopened(doc.get()).fieldOf(1), u"a");
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(parent(wb.get()).get(), b.get());
    EXPECT_EQ(Reopened(doc.get()).fieldOf(1), u"b");

    // The only widget: the field itself is renamed, and back.
    ASSERT_EQ(run("Widget_Rename", QF::RenameWidgetParams{service.get(), 0, wa.get(), u"g.x"}), 0u);
    EXPECT_EQ(findField(doc.get(), u"g.x").get(), a.get());
    EXPECT_FALSE(findField(doc.get(), u"a"));
    EXPECT_EQ(Reopened(doc.get()).fieldOf(0), u"g.x");
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(findField(doc.get(), u"a").get(), a.get());
    EXPECT_FALSE(Reopened(doc.get()).find(u"g.x"));

    // One of two widgets: a new field of the same type and flags takes it.
    ASSERT_EQ(run("Widget_Rename", QF::RenameWidgetParams{service.get(), 0, wm2.get(), u"split"}),
              0u);
    {
        Reopened fresh(doc.get());
        EXPECT_EQ(fresh.fieldOf(2), u"multi");
        EXPECT_EQ(fresh.fieldOf(3), u"split");
        EXPECT_EQ(flagsOf(fresh.find(u"split").get()), comboFlags);
    }
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(widgetCount(multi.get()), 2u);
    EXPECT_EQ(Reopened(doc.get()).fieldOf(3), u"multi");
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(parentName(wm2.get()), u"split");
    EXPECT_EQ(parent(wm1.get()).get(), multi.get());
    EXPECT_EQ(kinds(), std::vector<uint32_t>(7, 3));
    EXPECT_EQ(notes[0].second, std::vector<PDAnnot>{wb.get()});
}

TEST_F(WidgetCommands, RenameRefusals) {
    auto check = field(doc.get(), u"check", PD_ATOM_Btn, 0);
    auto push = field(doc.get(), u"push", PD_ATOM_Btn, PD_FIELD_PUSHBUTTON);
    auto w = widget(doc.get(), check.get(), 10);
    const QF::RenameWidgetParams empty{service.get(), 0, w.get(), u""};
    const QF::RenameWidgetParams clash{service.get(), 0, w.get(), u"push"};
    const QF::RenameWidgetParams none{service.get(), 0, w.get(), nullptr};
    EXPECT_EQ(run("Widget_Rename", empty), 3u);
    EXPECT_EQ(run("Widget_Rename", clash), 14u);
    EXPECT_EQ(run("Widget_Rename", none), 2u);
    EXPECT_EQ(host.commands().depths().undo, 0u);
    EXPECT_EQ(parentName(w.get()), u"check");
    EXPECT_TRUE(notes.empty());

    auto make = [](const QF::RenameWidgetParams& p) {
        return [&p] { RenameWidgetCommand c(QF::CommandArgs{1, 2, (void*)&p}); };
    };
    expectFailure(make(empty), 3, u"The name cannot be empty.",
                  "RenameWidgetCommand::RenameWidgetCommand");
    expectFailure(make(none), 2, u"Not initialized", "RenameWidgetCommand::RenameWidgetCommand");
    expectFailure(make(clash), 14, u"This name is already set for a different field type.",
                  "RenameWidgetCommand::CheckExistingField");
}

// Three check boxes in fields of their own, each with its own on-state ("OnA", "OnB",
// "OnC"), text colour and highlight mode; the second is checked.
class GroupRadioButtons : public WidgetCommands {
  protected:
    void SetUp() override {
        WidgetCommands::SetUp();
        for (int i = 0; i < 3; ++i) {
            fields.push_back(field(doc.get(), boxName(i), PD_ATOM_Btn, 0));
            widgets.push_back(widget(doc.get(), fields.back().get(), 10.0f + 30 * i));
            PDAnnot w = widgets.back().get();
            ASSERT_EQ(PDButtonWidgetAnnotSetChoice(w, onState(i).data(), 3), PD_OK);
            ASSERT_EQ(PDWidgetAnnotSetFontColor(w, 0xFF102030u + i), PD_OK);
            ASSERT_EQ(PDWidgetAnnotSetHighlight(w, i + 2), PD_OK);
            PDAtom state = PD_ATOM_Off;
            if (i == 1) PDAtomPutString("OnB", &state);
            ASSERT_EQ(PDAnnotSetAppearanceState(w, state), PD_OK);
        }
        for (size_t i = 0; i < 3; ++i)
            for (size_t j = 0; j < 3; ++j)
                rank[i] += uintptr_t(widgets[j].get()) < uintptr_t(widgets[i].get());
    }
    static std::u16string boxName(size_t i) { return u"box" + std::u16string(1, u'1' + i); }
    static std::u16string onState(size_t i) { return u"On" + std::u16string(1, u'A' + i); }

    // Each widget (of the live or a reopened document) in its own field, as it was.
    void expectRestored(const std::function<PDHandlePtr(uint32_t)>& widgetAt) {
        for (uint32_t i = 0; i < 3; ++i) {
            auto w = widgetAt(i);
            EXPECT_EQ(parentName(w.get()), boxName(i));
            EXPECT_EQ(choiceOf(w.get()), onState(i));
            EXPECT_EQ(stateOf(w.get()), i == 1 ? "OnB" : "Off");
            uint32_t colour = 0;
            EXPECT_EQ(PDWidgetAnnotGetFontColor(w.get(), &colour), PD_OK);
            EXPECT_EQ(colour, 0xFF102030u + i);
        }
    }

    std::vector<PDHandlePtr> fields, widgets;
    size_t rank[3] = {}; // each widget's place in ascending handle order
};

TEST_F(GroupRadioButtons, OneRadioFieldNumberedInHandleOrderAndUndoRestoresEach) {
    const PDAnnot items[] = {widgets[2].get(), widgets[0].get(), widgets[1].get()};
    const QF::WidgetList list{items, 3};
    ASSERT_EQ(run("GroupRadioButtons", QF::GroupRadioButtonsParams{service.get(), 0, &list}), 0u);
    auto group = parent(widgets[0].get());
    ASSERT_TRUE(group);
    EXPECT_EQ(flagsOf(group.get()) & 0x18000u, uint32_t(PD_FIELD_RADIO));
    EXPECT_EQ(widgetCount(group.get()), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(parent(widgets[i].get()).get(), group.get());
        EXPECT_EQ(choiceOf(widgets[i].get()), std::u16string(1, u'1' + rank[i]));
        EXPECT_EQ(stateOf(widgets[i].get()), "Off");
        int32_t highlight = 0;
        uint32_t colour = 0;
        EXPECT_EQ(PDWidgetAnnotGetHighlight(widgets[i].get(), &highlight), PD_OK);
        EXPECT_EQ(highlight, int32_t(i + 2));
        // Each widget keeps its own text colour in the group.
        EXPECT_EQ(PDWidgetAnnotGetFontColor(widgets[i].get(), &colour), PD_OK);
        EXPECT_EQ(colour, 0xFF102030u + i);
        EXPECT_EQ(notes.at(0).second.at(rank[i]), widgets[i].get());
    }
    {
        Reopened fresh(doc.get());
        const std::u16string name = fresh.fieldOf(0);
        EXPECT_EQ(widgetCount(fresh.find(name).get()), 3u);
        for (uint32_t i = 0; i < 3; ++i) {
            EXPECT_EQ(fresh.fieldOf(i), name);
            EXPECT_EQ(choiceOf(fresh.annot(i).get()), std::u16string(1, u'1' + rank[i]));
            // The check box fields were made here and lost every widget: not written.
            EXPECT_FALSE(fresh.find(boxName(i)));
        }
    }
    ASSERT_EQ(host.commands().undo(), 0u);
    expectRestored([&](uint32_t i) { return widgets[i]; });
    EXPECT_EQ(widgetCount(group.get()), 0u); // the radio field stays, empty
    Reopened fresh(doc.get());
    expectRestored([&](uint32_t i) { return fresh.annot(i); });
    EXPECT_EQ(fresh.fields(), 3u); // the emptied radio field is not written
    EXPECT_EQ(kinds(), (std::vector<uint32_t>{2, 2}));

    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(parent(widgets[2].get()).get(), parent(widgets[0].get()).get());
    EXPECT_EQ(choiceOf(widgets[2].get()), std::u16string(1, u'1' + rank[2]));
}

TEST_F(GroupRadioButtons, RepeatedHandlesCountOnceAndEmptyListsAreRefused) {
    const PDAnnot items[] = {widgets[1].get(), widgets[0].get(), widgets[1].get()};
    const QF::WidgetList list{items, 3};
    ASSERT_EQ(run("GroupRadioButtons", QF::GroupRadioButtonsParams{service.get(), 0, &list}), 0u);
    EXPECT_EQ(widgetCount(parent(widgets[0].get()).get()), 2u);
    const bool firstLower = rank[0] < rank[1];
    EXPECT_EQ(choiceOf(widgets[0].get()), firstLower ? u"1" : u"2");
    EXPECT_EQ(choiceOf(widgets[1].get()), firstLower ? u"2" : u"1");
    EXPECT_EQ(parentName(widgets[2].get()), u"box3");

    const QF::WidgetList emptyList{items, 0};
    const QF::GroupRadioButtonsParams empty{service.get(), 0, &emptyList};
    const QF::GroupRadioButtonsParams none{service.get(), 0, nullptr};
    EXPECT_EQ(run("GroupRadioButtons", empty), 3u);
    EXPECT_EQ(run("GroupRadioButtons", none), 2u);
    EXPECT_EQ(host.commands().depths().undo, 1u);
    static constexpr const char* kFunction = "GroupRadioButtonsCommand::GroupRadioButtonsCommand";
    expectFailure(
        [&] {
            GroupRadioButtonsCommand c(QF::CommandArgs{1, 2, (void*)&empty});
        },
        3, u"Bad param", kFunction);
    expectFailure(
        [&] {
            GroupRadioButtonsCommand c(QF::CommandArgs{1, 2, (void*)&none});
        },
        2, u"Not initialized", kFunction);

    // Dropping the commands drops their references to the document.
    host.commands().clear();
    EXPECT_EQ(refs(service.get()), 2); // the document's and ours
}

} // namespace
