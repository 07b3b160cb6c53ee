// The tab order of a page, with the module loaded into the reference host: the three
// tab-order commands run through the host's commands manager, and the "FormTabOrder" tool
// driven through a view, its numbers read from the host's graphics record.
#include "ModuleSession.h"

#include "qf/DocumentInterfaces.h"
#include "qfhost/Graphics.h"
#include "qfhost/View.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using namespace pdreaders;
using QF::PDHandlePtr;
using qfhost::ObjectPtr;
using SODetails::ServiceObject;

class TabOrder : public ModuleInHost {
  protected:
    void SetUp() override {
        ModuleInHost::SetUp();
        document.OnAnnotsChanged.connect(
            [this](uint32_t kind, uint64_t page, const std::vector<PDAnnot>& annots) {
                std::string names;
                for (PDAnnot a : annots) names += label(a);
                notes.push_back(std::to_string(kind) + ":" + std::to_string(page) + ":" + names);
            });
    }

    // A text widget of a field of its own, named by one letter, appended to page.
    PDAnnot addWidget(const std::string& name, uint32_t page, PDRect rect) {
        const std::u16string wide(name.begin(), name.end());
        PDHandlePtr field, widget;
        EXPECT_EQ(PDDocCreateField(doc(), wide.data(), uint32_t(wide.size()), PD_ATOM_Tx, 0,
                                   field.put()),
                  PD_OK);
        const PDHandlePtr p = pageOf(doc(), page);
        EXPECT_EQ(PDCreateTextWidgetAnnot(doc(), field.get(), p.get(), &rect, widget.put()), PD_OK);
        EXPECT_EQ(PDPageAddAnnot(p.get(), annotCount(doc(), page), widget.get()), PD_OK);
        return keep(name, std::move(widget));
    }
    // A note (not a widget) at position `at` of page.
    PDAnnot addNote(const std::string& name, uint32_t page, uint32_t at) {
        PDAtom text = 0;
        EXPECT_EQ(PDAtomPutString("Text", &text), PD_OK);
        const PDRect r{10, 30, 30, 10};
        PDHandlePtr note;
        EXPECT_EQ(PDDocCreateAnnot(doc(), text, &r, note.put()), PD_OK);
        EXPECT_EQ(PDPageAddAnnot(pageOf(doc(), page).get(), at, note.get()), PD_OK);
        return keep(name, std::move(note));
    }
    PDAnnot keep(const std::string& name, PDHandlePtr annot) {
        PDAnnot raw = annot.get();
        labels[raw] = name;
        held.push_back(std::move(annot));
        return raw;
    }
    std::string label(PDAnnot a) {
        auto it = labels.find(a);
        return it == labels.end() ? "?" : it->second;
    }
    // The page's annotations as their names, in /Annots order.
    std::string order(uint32_t page = 0) {
        std::string out;
        for (uint32_t i = 0, n = annotCount(doc(), page); i < n; ++i)
            out += label(annotAt(doc(), page, i).get());
        return out;
    }
    // Eight widgets "01234567" down the page.
    void eightWidgets() {
        for (int i = 0; i < 8; ++i) {
            const float y = 700.0f - 30.0f * i;
            addWidget(std::string(1, char('0' + i)), 0, PDRect{100, y + 20, 200, y});
        }
    }

    template <typename Params> uint32_t run(const char* name, const Params& params) {
        const QF::CommandArgs args{++uniqueId, atom(name), const_cast<Params*>(&params)};
        return host.commands().execute(&args);
    }
    uint32_t autoOrder(std::vector<uint64_t> pages, uint32_t type) {
        const QF::AutoTabOrderParams params{document.object(), pages.data(), pages.size(), type};
        return run("AutoTabOrderAnnot", params);
    }
    uint32_t moveOrder(std::vector<uint64_t> positions, uint64_t target) {
        const QF::MoveAnnotsFocusOrderParams params{document.object(), 0, target,
                                                    positions.data(), positions.size()};
        return run("MoveAnnotsFocusOrder", params);
    }
    PDAtom tabsOf(uint32_t page) {
        PDAtom tabs = 0;
        return PDPageGetTabOrder(pageOf(doc(), page).get(), &tabs) == PD_OK ? tabs : 0;
    }
    void setTabs(uint32_t page, PDAtom tabs) {
        ASSERT_EQ(PDPageSetTabOrder(pageOf(doc(), page).get(), tabs), PD_OK);
    }

    PDDoc doc() { return document.pdDoc(); }

    qfhost::Document& document = host.newDocument(2, 612, 792);
    std::map<PDAnnot, std::string> labels;
    std::vector<PDHandlePtr> held;
    std::vector<std::string> notes; // "kind:page:names" of every several-annotations change
    uint32_t uniqueId = 0;
};

TEST_F(TabOrder, AutoOrderSortsLowerLeftCornersExactlyAndUndoRestoresEveryPosition) {
    addNote("n", 0, 0);
    addWidget("a", 0, PDRect{300, 720, 400, 700});
    addWidget("b", 0, PDRect{100, 720, 200, 700});       // a's bottom: left to right
    addWidget("c", 0, PDRect{500, 720, 600, 700.25f});   // a quarter point higher: first
    addWidget("d", 0, PDRect{300, 650, 400, 600});       // d and e share their left edge
    addWidget("e", 0, PDRect{300, 560, 350, 520});
    addNote("m", 0, 3);
    addNote("p", 1, 0); // page 1: no widgets
    ASSERT_EQ(order(), "nabmcde");

    ASSERT_EQ(autoOrder({0, 1}, 0), 0u);
    EXPECT_EQ(order(), "cbadenm"); // widgets first, the others after in their order
    EXPECT_EQ(order(1), "p");
    EXPECT_TRUE(document.pageChanged(0));
    EXPECT_TRUE(document.pageChanged(1)); // set although nothing moved
    EXPECT_EQ(notes, (std::vector<std::string>{"0:0:cbade"})); // none for page 1

    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "nabmcde");
    EXPECT_FALSE(document.pageChanged(0));
    EXPECT_FALSE(document.pageChanged(1));
    EXPECT_EQ(notes.back(), "0:0:abcde"); // back to their saved positions

    ASSERT_EQ(autoOrder({0}, 1), 0u); // columns: left edges, then the higher bottom
    EXPECT_EQ(order(), "badecnm");
    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(order(), "badecnm");
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "nabmcde");
}

TEST_F(TabOrder, MovesFollowTheQueueArithmeticAndUndoReplaysEveryRun) {
    eightWidgets();
    ASSERT_EQ(moveOrder({5, 6}, 2), 0u);
    EXPECT_EQ(order(), "01562347");
    EXPECT_EQ(notes, (std::vector<std::string>{"0:0:56"}));
    EXPECT_TRUE(document.pageChanged(0));
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "01234567");
    EXPECT_EQ(notes.back(), "1:0:65");
    EXPECT_FALSE(document.pageChanged(0));
    // The undo list keeps the first run: the next undo replays both, newest first.
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(order(), "01562347");
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(notes.back(), "1:0:6565");
    EXPECT_EQ(order(), "01234567");

    ASSERT_EQ(moveOrder({1, 2}, 5), 0u);
    EXPECT_EQ(order(), "03412567");
    ASSERT_EQ(moveOrder({7, 0}, QF::MoveAnnotsFocusOrderParams::kTargetStart), 0u);
    EXPECT_EQ(order(), "70341256");
    ASSERT_EQ(moveOrder({3}, 99), 0u); // past the end: to the end
    EXPECT_EQ(order(), "70312564");
    ASSERT_EQ(moveOrder({0}, 0), 0u); // the first to the start stays
    EXPECT_EQ(order(), "70312564");
    ASSERT_EQ(moveOrder({4}, 4), 0u); // onto its own place: one less, as the arithmetic has it
    EXPECT_EQ(order(), "70321564");
    for (int i = 0; i < 5; ++i) ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "01234567");

    // A position past the last annotation changes nothing.
    EXPECT_NE(moveOrder({2, 8}, 0), 0u);
    EXPECT_EQ(order(), "01234567");
    EXPECT_EQ(host.commands().depths().undo, 0u);
}

TEST_F(TabOrder, OneAnnotationMovesWithoutNotificationAndTabsStopOverriding) {
    eightWidgets();
    setTabs(0, PD_ATOM_R);
    document.page(0); // the page object exists, its changed flag false
    const QF::TabOrderParams params{document.object(), 0, 0, 3};
    ASSERT_EQ(run("TabOrderAnnot", params), 0u);
    EXPECT_EQ(order(), "30124567");
    EXPECT_TRUE(notes.empty());
    EXPECT_EQ(tabsOf(0), PD_ATOM_W); // rows would override the order set
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "01234567");
    EXPECT_EQ(tabsOf(0), PD_ATOM_R);
    EXPECT_FALSE(document.pageChanged(0));

    // Pages that already follow /Annots keep their /Tabs.
    setTabs(0, PD_ATOM_A);
    ASSERT_EQ(run("TabOrderAnnot", params), 0u);
    EXPECT_EQ(tabsOf(0), PD_ATOM_A);
    ASSERT_EQ(host.commands().undo(), 0u);
    setTabs(0, 0);
    ASSERT_EQ(autoOrder({0}, 0), 0u);
    EXPECT_EQ(tabsOf(0), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    setTabs(0, PD_ATOM_S);
    ASSERT_EQ(autoOrder({0}, 0), 0u);
    EXPECT_EQ(tabsOf(0), PD_ATOM_W);
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(tabsOf(0), PD_ATOM_S);

    // A position past the annotations: refused, the page as it was.
    const QF::TabOrderParams past{document.object(), 0, 8, 0};
    EXPECT_NE(run("TabOrderAnnot", past), 0u);
    EXPECT_EQ(order(), "01234567");
}

TEST_F(TabOrder, CommandsCarryFeatureNamesAndRefuseWhatTheyCannotDo) {
    eightWidgets();
    struct Case {
        const char* name;
        const char* feature;
    } cases[] = {{"TabOrderAnnot", "Forms.SetTabOrder"},
                 {"AutoTabOrderAnnot", "Forms.SetTabOrder"},
                 {"MoveAnnotsFocusOrder", "Forms.Move"}};
    const QF::TabOrderParams one{document.object(), 0, 0, 1};
    const uint64_t pages[] = {0};
    const QF::AutoTabOrderParams sortPage{document.object(), pages, 1, 0};
    const uint64_t positions[] = {1};
    const QF::MoveAnnotsFocusOrderParams move{document.object(), 0, 0, positions, 1};
    const void* params[] = {&one, &sortPage, &move};
    for (size_t i = 0; i < 3; ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.name);
        ObjectPtr factory = host.commands().factories().find(atom(c.name));
        ASSERT_TRUE(factory);
        auto& create = *SODetails::methods<QF::CommandFactoryTable>(factory.get());
        ObjectPtr command;
        const QF::CommandArgs args{7, atom(c.name), const_cast<void*>(params[i])};
        ASSERT_EQ(create.CreateCommand(factory.get(), &args, command.put()), 0u);
        auto& ops = *SODetails::methods<QF::CommandTable>(command.get());
        uint32_t feature = 0, tracking = 0, name = 0, id = 0;
        ASSERT_EQ(ops.GetFeatureName(command.get(), &feature), 0u);
        ASSERT_EQ(ops.GetTrackingFeatureName(command.get(), &tracking), 0u);
        EXPECT_EQ(feature, atom(c.feature));
        EXPECT_EQ(tracking, feature);
        ASSERT_EQ(ops.GetCommandName(command.get(), &name), 0u);
        ASSERT_EQ(ops.GetUniqueCommandID(command.get(), &id), 0u);
        EXPECT_EQ(name, atom(c.name));
        EXPECT_EQ(id, 7u);

        // Without a document service nothing is made: 2.
        ObjectPtr none;
        const QF::CommandArgs bare{8, atom(c.name), nullptr};
        EXPECT_EQ(create.CreateCommand(factory.get(), &bare, none.put()), 2u);
        EXPECT_FALSE(none);
    }

    // The automatic order undone before it was done has nothing to restore: 9.
    ObjectPtr factory = host.commands().factories().find(atom("AutoTabOrderAnnot"));
    ObjectPtr command;
    const QF::CommandArgs args{9, atom("AutoTabOrderAnnot"), const_cast<QF::AutoTabOrderParams*>(&sortPage)};
    ASSERT_EQ(SODetails::methods<QF::CommandFactoryTable>(factory.get())
                  ->CreateCommand(factory.get(), &args, command.put()),
              0u);
    EXPECT_EQ(SODetails::methods<QF::CommandTable>(command.get())->UNDO(command.get()), 9u);
    EXPECT_FALSE(document.pageLocked(0)); // released on the failing path too

    // A page someone else has locked is left alone.
    ServiceObject* page = document.page(0);
    uint64_t token = 0;
    ASSERT_EQ(SODetails::methods<QF::PageTable>(page)->Lock(page, 1, &token), 0u);
    EXPECT_NE(autoOrder({0}, 0), 0u);
    EXPECT_EQ(order(), "01234567");
    ASSERT_EQ(SODetails::methods<QF::PageTable>(page)->Unlock(page, token), 0u);
}

// ---- the tool -----------------------------------------------------------------------------

class TabOrderTool : public TabOrder {
  protected:
    void SetUp() override {
        TabOrder::SetUp();
        a = addWidget("A", 0, PDRect{72, 720, 200, 700});
        b = addWidget("B", 0, PDRect{300, 720, 420, 700});
        c = addWidget("C", 0, PDRect{72, 600, 200, 580});
        addWidget("D", 1, PDRect{72, 720, 200, 700});
        addWidget("E", 1, PDRect{72, 600, 200, 580});
        ASSERT_EQ(view.activateTool("FormTabOrder"), 0u);
    }

    bool send(uint32_t type, uint32_t subcode, std::array<int32_t, 2> at, uint32_t mods = 0) {
        bool handled = false;
        EXPECT_EQ(view.sendEvent(QF::InputEvent{type, subcode, at[0], at[1], mods}, &handled), 0u);
        return handled;
    }
    std::array<int32_t, 2> middleOf(uint32_t page, PDAnnot w) {
        const PDRect r = rectOf(w);
        return view.pageToView(page, (r.left + r.right) / 2, (r.top + r.bottom) / 2);
    }
    // The pointer comes over the widget, presses and releases (at `to` when given).
    void click(uint32_t page, PDAnnot w, PDAnnot to = nullptr) {
        send(QF::kEventMove, 0, middleOf(page, w));
        send(QF::kEventButtonDown, QF::kButtonLeft, middleOf(page, w));
        send(QF::kEventButtonUp, QF::kButtonLeft, middleOf(page, to ? to : w));
    }
    // The numbers drawn over page, each with the corner it stands at.
    std::vector<std::string> numbers(uint32_t page) {
        host.graphics().clear();
        qfhost::renderPageSvg(host, view, page);
        std::vector<std::string> out;
        for (const auto& item : host.graphics().items(page)) {
            if (item.kind != qfhost::GraphicsService::Item::Kind::Text) continue;
            EXPECT_EQ(item.fontFamily, u"Arial");
            EXPECT_EQ(item.fontSize, 12.0f);
            EXPECT_EQ(item.brush, 0xFF000000u);
            out.push_back(std::string(item.text.begin(), item.text.end()) + "@" +
                          std::to_string(int(item.points[0])) + "," +
                          std::to_string(int(item.points[1])));
        }
        return out;
    }

    qfhost::View& view = host.openView(document);
    PDAnnot a = nullptr, b = nullptr, c = nullptr;
};

TEST_F(TabOrderTool, ClicksGiveTheOrderAndTheNumbersShowIt) {
    EXPECT_EQ(numbers(0), (std::vector<std::string>{"1@72,700", "2@300,700", "3@72,580"}));
    click(0, c);
    click(0, a);
    click(0, b);
    EXPECT_EQ(order(), "CAB");
    EXPECT_EQ(numbers(0), (std::vector<std::string>{"1@72,580", "2@72,700", "3@300,700"}));
    EXPECT_EQ(host.commands().depths().undo, 3u);
    // The sequence is over: the next click gives the first place again.
    click(0, b);
    EXPECT_EQ(order(), "BCA");
    for (int i = 0; i < 4; ++i) ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(order(), "ABC");

    // A note before the widgets is not counted.
    addNote("n", 1, 0);
    EXPECT_EQ(numbers(1), (std::vector<std::string>{"1@72,700", "2@72,580"}));
}

TEST_F(TabOrderTool, AReleaseElsewhereOrAnotherPageRestartsTheSequence) {
    click(0, b); // B first
    click(0, a, c); // pressed on A, released over C: nothing, and the sequence restarts
    EXPECT_EQ(host.commands().depths().undo, 1u);
    EXPECT_EQ(order(), "BAC");
    click(0, c); // first place again
    EXPECT_EQ(order(), "CBA");

    click(0, a); // second place
    EXPECT_EQ(order(), "CAB");
    click(1, annotAt(doc(), 1, 1).get()); // E on page 1: first place there
    EXPECT_EQ(order(1), "ED");
    click(0, b); // back on page 0: the sequence starts again
    EXPECT_EQ(order(), "BCA");
}

TEST_F(TabOrderTool, TabWalksTheWidgetsAndEmptySpaceDragsTheView) {
    auto focused = [&] {
        const auto f = view.annotFocus();
        return f ? label(f->annot) : std::string("-");
    };
    std::string walk;
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(send(QF::kEventKeyDown, 9, {0, 0}));
        walk += focused();
    }
    EXPECT_EQ(walk, "ABCDEA"); // page by page, wrapping
    EXPECT_TRUE(send(QF::kEventKeyDown, 9, {0, 0}, QF::kModifierShift));
    EXPECT_EQ(focused(), "E");
    EXPECT_TRUE(send(QF::kEventKey, 9, {0, 0}));
    EXPECT_FALSE(send(QF::kEventKeyDown, 37, {0, 0}));

    // A press on empty space hands the pointer to the view's drag.
    const auto empty = view.pageToView(0, 500, 300);
    EXPECT_TRUE(send(QF::kEventButtonDown, QF::kButtonLeft, empty));
    EXPECT_EQ(view.cursor(), 3u);
    EXPECT_TRUE(send(QF::kEventMove, 0, {empty[0] + 5, empty[1] - 40}));
    EXPECT_TRUE(send(QF::kEventButtonUp, QF::kButtonLeft, {empty[0] + 5, empty[1] - 40}));
    EXPECT_EQ(view.panned(), (std::array<int32_t, 2>{5, -40}));
    EXPECT_FALSE(send(QF::kEventMove, 0, empty)); // nothing under the pointer now
    EXPECT_EQ(host.commands().depths().undo, 0u);
    // Over a widget the pointer shows it can click.
    EXPECT_TRUE(send(QF::kEventMove, 0, middleOf(0, a)));
    EXPECT_EQ(view.cursor(), 2u);
}

} // namespace
