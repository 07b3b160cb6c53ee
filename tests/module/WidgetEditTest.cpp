// Editing existing widgets, with the module loaded into the reference host: picking by
// point through the module's edit-object factory, the edit tool driven through the view
// (drags, grips, arrow keys, commands, the context menu), its property sheet, the
// selection's answers, and undo and redo of every change as a fresh reader sees it.
#include "ModuleSession.h"

#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/StringPairList.h"
#include "qf/internal/AnnotEditUtilities"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

namespace {

using namespace pdreaders;
using QF::PDHandlePtr;
using qfhost::ObjectPtr;
using SODetails::ServiceObject;

// Every annotation of page 0 as "name [l b r t]", as a fresh reader sees it.
std::vector<std::string> layout(PDDoc doc) {
    const PDHandlePtr fresh = reopened(doc);
    std::vector<std::string> out;
    for (uint32_t i = 0; i < annotCount(fresh.get(), 0); ++i) {
        const PDHandlePtr a = annotAt(fresh.get(), 0, i);
        const PDRect r = rectOf(a.get());
        char text[96];
        std::snprintf(text, sizeof text, " [%.1f %.1f %.1f %.1f]", r.left, r.bottom, r.right,
                      r.top);
        const std::u16string name = nameOf(a.get());
        out.push_back(std::string(name.begin(), name.end()) + text);
    }
    return out;
}

// Widgets are drawn with the creation tools.
class WidgetEdit : public ModuleSession {
  protected:
    // A widget of tool's kind with the frame left, bottom, right, top on page.
    void make(const char* tool, uint32_t page, float l, float b, float r, float t) {
        ASSERT_EQ(view->activateTool(tool), 0u);
        drag(page, l, t, r, b);
        view->deactivateTool();
    }
    void key(uint32_t code) {
        send(QF::kEventKeyDown, code, 0, 0, 0);
        send(QF::kEventKey, code, 0, 0, 0);
    }
    uint32_t command(const char* name) {
        bool handled = false;
        const uint32_t rc = view->sendEvent({QF::kEventCommand, atom(name), 0, 0, 0}, &handled);
        EXPECT_TRUE(handled) << name;
        return rc;
    }
    bool editing() { return view->activeToolName() == "Edit"; }
    QF::SelectionTable& selectionOps() {
        return *SODetails::methods<QF::SelectionTable>(host.selection().selection().get());
    }
    void undoAll() {
        while (host.commands().depths().undo > 0) ASSERT_EQ(host.commands().undo(), 0u);
    }
    void redoAll() {
        while (host.commands().depths().redo > 0) ASSERT_EQ(host.commands().redo(), 0u);
    }
};

// ---- picking ----------------------------------------------------------------------------

TEST_F(WidgetEdit, PickingTakesTheTopMostWidgetEdgesIncluded) {
    make("TextFieldCreate", 0, 100, 600, 300, 622);
    make("TextFieldCreate", 0, 200, 610, 400, 632); // over the first one
    EXPECT_EQ(host.selection().selectAt(0, 250, 615), 0u);
    ASSERT_EQ(host.selection().selected().size(), 1u);
    EXPECT_EQ(nameOf(host.selection().selected()[0].annot), u"Text2");
    EXPECT_TRUE(editing());
    EXPECT_EQ(host.selection().selectAt(0, 100, 600), 0u); // a corner
    EXPECT_EQ(nameOf(host.selection().selected()[0].annot), u"Text1");
    EXPECT_EQ(host.selection().selectAt(0, 50, 50), 1u);
    EXPECT_TRUE(host.selection().selected().empty());
    EXPECT_EQ(host.selection().selectAt(2, 250, 615), 1u); // a page without annotations
    EXPECT_EQ(host.selection().type(), 0u);
}

// A widget in optional content that is off is neither picked nor in the page's composite.
TEST(WidgetPicking, HiddenOptionalContentIsSkipped) {
    static const char kFile[] =
        "%PDF-1.7\n"
        "1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R 5 0 R] >>"
        " /OCProperties << /OCGs [6 0 R] /D << /OFF [6 0 R] >> >> >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R 5 0 R] >>"
        " endobj\n"
        "4 0 obj << /Type /Annot /Subtype /Widget /FT /Tx /T (shown) /Rect [10 10 100 50]"
        " /P 3 0 R >> endobj\n"
        "5 0 obj << /Type /Annot /Subtype /Widget /FT /Tx /T (hidden) /Rect [10 10 100 50]"
        " /P 3 0 R /OC 6 0 R >> endobj\n"
        "6 0 obj << /Type /OCG /Name (Layer) >> endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    PDDoc raw = nullptr;
    ASSERT_EQ(PDDocOpenMem(kFile, sizeof kFile - 1, &raw), PD_OK);
    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
    ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE_PATH));
    qfhost::Document& doc = host.adoptDocument(raw);
    PDHandleRelease(raw);
    host.openView(doc);
    EXPECT_EQ(host.selection().selectAt(0, 50, 30), 0u);
    EXPECT_EQ(nameOf(host.selection().selected().at(0).annot), u"shown");

    ObjectPtr item = host.picker().compositeItems().find(atom("WidgetEdit"));
    ObjectPtr composite;
    ASSERT_EQ(SODetails::methods<QF::CompositeEditObjectFactoryItemTable>(item.get())
                  ->CreateCompositeEditObjectForPage(item.get(), doc.object(), 0, composite.put()),
              0u);
    EXPECT_EQ(qfhost::CompositeEditObjectFactory::children(composite.get()).size(), 1u);
    // The selected widgets of the page, as the host's generic machinery asks for them.
    ObjectPtr selected;
    ASSERT_EQ(SODetails::methods<QF::CompositeEditObjectFactoryItemTable>(item.get())
                  ->GetSelectedObjectsOnPage(item.get(), doc.object(), 0, selected.put()),
              0u);
    EXPECT_EQ(qfhost::CompositeEditObjectFactory::children(selected.get()).size(), 1u);
    host.releaseModuleObjects();
}

// ---- moving, resizing, nudging, deleting -------------------------------------------------
// Moves, nudges and grips on plain and turned pages at every step of a random session, each
// against its own arithmetic: the host's ModelSessionTest. Here: what those sessions keep
// away from, and deletion.

TEST_F(WidgetEdit, DragsMoveByThePointerDeltaAndUndo) {
    make("TextFieldCreate", 0, 100, 600, 300, 622);
    const auto before = layout(pd());
    view->setZoom(2);
    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    drag(0, 150, 610, 200, 540);
    PDHandlePtr w = annotAt(pd(), 0, 0);
    expectRect(rectOf(w.get()), 150, 530, 350, 552);
    EXPECT_EQ(host.commands().depths().undo, 2u); // the creation, the move

    // Wholly off the page: pulled back so that its edge lies on the page's edge.
    drag(0, 200, 540, -700, 540);
    expectRect(rectOf(w.get()), 0, 530, 200, 552);
    // Partly off: kept where it was dragged.
    drag(0, 100, 540, 40, 540);
    expectRect(rectOf(w.get()), -60, 530, 140, 552);
    // A click on the widget changes nothing and is not an undo step.
    drag(0, 50, 540, 50, 540);
    EXPECT_EQ(host.commands().depths().undo, 4u);

    // A key that is no arrow is not the tool's.
    bool handled = true;
    send(QF::kEventKeyDown, 65, 0, 0, 0, &handled);
    EXPECT_FALSE(handled);

    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(layout(pd()), before);
    redoAll();
    expectRect(rectOf(annotAt(reopened(pd()).get(), 0, 0).get()), -60, 530, 140, 552);
}

TEST_F(WidgetEdit, DeleteAndCutTakeTheWidgetAwayUndoably) {
    make("ComboBoxCreate", 0, 100, 600, 300, 622);
    make("ComboBoxCreate", 0, 100, 500, 300, 522);
    const auto before = layout(pd());
    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    key(46);
    EXPECT_FALSE(editing()); // the tool ends with its widget
    EXPECT_EQ(annotCount(pd(), 0), 1u);
    EXPECT_EQ(view->annotFocusReleases(), 1u);
    ASSERT_EQ(host.selection().selectAt(0, 150, 510), 0u);
    EXPECT_EQ(command("Cut"), 0u);
    EXPECT_EQ(annotCount(pd(), 0), 0u);
    EXPECT_TRUE(host.selection().selected().empty());
    const PDHandlePtr gone = reopened(pd());
    EXPECT_EQ(annotCount(gone.get(), 0), 0u);
    PDHandlePtr field;
    EXPECT_EQ(PDDocFindField(gone.get(), u"ComboBox1", 9, field.put()), PD_OK);
    EXPECT_FALSE(field);
    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(layout(pd()), before);
}

// A Locked widget is not moved, resized, nudged, cut or deleted, and its name is read-only.
TEST_F(WidgetEdit, LockedWidgetsStayAsTheyAre) {
    make("TextFieldCreate", 0, 100, 600, 300, 622);
    make("ComboBoxCreate", 0, 100, 500, 300, 522);
    PDHandlePtr w = annotAt(pd(), 0, 0);
    uint32_t flags = 0;
    ASSERT_EQ(PDAnnotGetFlags(w.get(), &flags), PD_OK);
    ASSERT_EQ(PDAnnotSetFlags(w.get(), flags | 0x80), PD_OK);
    const auto before = layout(pd());
    const auto depth = host.commands().depths().undo;

    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    uint32_t ops = 0;
    ASSERT_EQ(selectionOps().GetAvailableOperations(host.selection().selection().get(), &ops), 0u);
    EXPECT_EQ(ops & 0x4, 0u);
    EXPECT_EQ(ops & 0x400020, 0u);
    EXPECT_EQ(ops & 0x200040, 0u);
    drag(0, 150, 610, 200, 650);
    drag(0, 300, 622, 350, 700);
    key(39);
    key(46);
    EXPECT_EQ(command("Cut"), 0u);
    EXPECT_EQ(command("Delete"), 0u);
    EXPECT_TRUE(editing());
    EXPECT_EQ(layout(pd()), before);
    EXPECT_EQ(host.commands().depths().undo, depth);
    bool readOnly = false;
    EXPECT_EQ(qfhost::property::isReadOnly(sheet(u"FieldName").get(), &readOnly), 0u);
    EXPECT_TRUE(readOnly);

    // The choice widget, not locked and alone on its page, may do everything it can.
    PDHandlePtr combo = annotAt(pd(), 0, 1);
    ASSERT_EQ(PDPageRemoveAnnot(pageOf(pd(), 0).get(), w.get()), PD_OK);
    ASSERT_EQ(host.selection().selectAt(0, 150, 510), 0u);
    ASSERT_EQ(selectionOps().GetAvailableOperations(host.selection().selection().get(), &ops), 0u);
    EXPECT_EQ(ops, 0x2000009Du);
}

// ---- the edit tool's sheet and menus ------------------------------------------------------

TEST_F(WidgetEdit, SheetRowsFollowTheFieldKind) {
    make("CheckBoxCreate", 0, 100, 700, 120, 720);
    make("RadioGroupCreate", 0, 200, 700, 220, 720);
    make("PushButtonCreate", 0, 300, 700, 380, 720);
    make("ComboBoxCreate", 0, 100, 600, 300, 622);
    struct Row {
        float x, y;
        bool radioShown, optionsShown;
    } rows[] = {{110, 710, false, false}, {210, 710, true, false}, {340, 710, false, false},
                {150, 610, false, true}};
    for (const Row& r : rows) {
        ASSERT_EQ(host.selection().selectAt(0, r.x, r.y), 0u);
        bool hidden = false;
        EXPECT_EQ(qfhost::property::isHidden(sheet(u"RadioChoice").get(), &hidden), 0u);
        EXPECT_EQ(hidden, !r.radioShown) << r.x;
        EXPECT_EQ(qfhost::property::isHidden(sheet(u"ComboOptList").get(), &hidden), 0u);
        EXPECT_EQ(hidden, !r.optionsShown) << r.x;
        EXPECT_EQ(qfhost::property::isHidden(sheet(u"FieldName").get(), &hidden), 0u);
        EXPECT_FALSE(hidden);
    }
    // The radio button's export value.
    ASSERT_EQ(host.selection().selectAt(0, 210, 710), 0u);
    std::u16string choice;
    EXPECT_EQ(qfhost::property::getText(sheet(u"RadioChoice").get(), &choice), 0u);
    EXPECT_EQ(choice, u"Yes");
    EXPECT_EQ(qfhost::property::setText(sheet(u"RadioChoice").get(), u"Small"), 0u);
    EXPECT_EQ(QF::GetButtonChoice(annotAt(pd(), 0, 1).get(), "test"), u"Small");
}

// The option list is the field's: set through one widget, every widget of the field shows
// it. A list the host refuses changes nothing.
TEST_F(WidgetEdit, OptionListsAreReadAndReplacedWhole) {
    make("ComboBoxCreate", 0, 100, 600, 300, 622);
    ASSERT_EQ(view->activateTool("ComboBoxCreate"), 0u);
    ASSERT_EQ(qfhost::property::setText(sheet(u"FieldName").get(), u"ComboBox1"), 0u);
    drag(0, 100, 522, 300, 500);
    view->deactivateTool();
    const PDHandlePtr field = findField(pd(), u"ComboBox1");
    uint32_t widgets = 0;
    ASSERT_EQ(PDFieldGetNumWidgets(field.get(), &widgets), PD_OK);
    ASSERT_EQ(widgets, 2u);

    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    const std::vector<std::pair<std::u16string, std::u16string>> options{
        {u"One", u"1"}, {u"Two", u"2"}, {u"Drei", u"3"}};
    EXPECT_EQ(qfhost::property::setPairs(sheet(u"ComboOptList").get(), options), 0u);
    std::vector<std::pair<std::u16string, std::u16string>> read;
    EXPECT_EQ(qfhost::property::getPairs(sheet(u"ComboOptList").get(), &read), 0u);
    EXPECT_EQ(read, options);
    // Through the other widget: the same list.
    ASSERT_EQ(host.selection().selectAt(0, 150, 510), 0u);
    EXPECT_EQ(qfhost::property::getPairs(sheet(u"ComboOptList").get(), &read), 0u);
    EXPECT_EQ(read, options);

    // The host refuses an option without a display text and a repeated export value.
    ObjectPtr list = sheet(u"ComboOptList");
    const qfhost::ObjectPtr wire = qfhost::ObjectPtr::adopt(
        QF::MakeStringPairList<qfhost::HostTraits>({{u"A", u"x"}, {u"B", u"x"}}));
    const QF::PropertyValue value{nullptr, 0, wire.get()};
    uint8_t ok = 1;
    EXPECT_EQ(SODetails::methods<QF::PropertyTable>(list.get())
                  ->ValidateValue(list.get(), &value, 0, &ok),
              3u);
    EXPECT_EQ(failureText(), u"Two options have the export value \"x\".");
    uint32_t count = 0;
    EXPECT_EQ(PDChoiceFieldGetNumOptions(field.get(), &count), PD_OK);
    EXPECT_EQ(count, 3u);
    // An empty list removes every option.
    EXPECT_EQ(qfhost::property::setPairs(list.get(), {}), 0u);
    EXPECT_EQ(PDChoiceFieldGetNumOptions(field.get(), &count), PD_OK);
    EXPECT_EQ(count, 0u);
}

TEST_F(WidgetEdit, RenamingThroughTheSheetFollowsTheNamingRules) {
    make("TextFieldCreate", 0, 100, 600, 300, 622);
    make("TextFieldCreate", 0, 100, 500, 300, 522);
    make("CheckBoxCreate", 0, 100, 400, 120, 420);
    ASSERT_EQ(host.selection().selectAt(0, 150, 510), 0u);
    EXPECT_EQ(qfhost::property::setText(sheet(u"FieldName").get(), u"Text1"), 0u);
    EXPECT_EQ(nameOf(annotAt(pd(), 0, 1).get()), u"Text1"); // joined the compatible field
    EXPECT_EQ(qfhost::property::setText(sheet(u"FieldName").get(), u"CheckBox1"), 14u);
    EXPECT_EQ(failureText(), u"This name is already set for a different field type.");
    EXPECT_EQ(qfhost::property::setText(sheet(u"FieldName").get(), u""), 3u);
    EXPECT_EQ(failureText(), u"The name cannot be empty.");
    EXPECT_EQ(qfhost::property::setText(sheet(u"FieldName").get(), u"Customer"), 0u);
    EXPECT_EQ(nameOf(annotAt(pd(), 0, 1).get()), u"Customer");
    EXPECT_EQ(nameOf(annotAt(pd(), 0, 0).get()), u"Text1");
}

TEST_F(WidgetEdit, RightClicksOpenTheMenuOfTheFieldKind) {
    make("DigitalSignatureFieldCreate", 0, 100, 600, 300, 650);
    make("TextFieldCreate", 0, 100, 500, 300, 522);
    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    bool handled = false;
    send(QF::kEventButtonDown, QF::kButtonRight, 0, 150, 610, &handled);
    EXPECT_TRUE(handled);
    send(QF::kEventButtonUp, QF::kButtonRight, 0, 150, 610, &handled);
    EXPECT_TRUE(handled);
    ASSERT_EQ(host.selection().selectAt(0, 150, 510), 0u);
    send(QF::kEventButtonUp, QF::kButtonRight, 0, 150, 510, &handled);
    send(QF::kEventButtonUp, QF::kButtonRight, 0, 150, 300, &handled); // beside it: no menu
    EXPECT_FALSE(handled);
    ASSERT_EQ(view->contextMenus().size(), 2u);
    EXPECT_EQ(view->contextMenus()[0].kind, "Signature");
    EXPECT_EQ(view->contextMenus()[1].kind, "Widget");
    // A left press beside the widget ends editing.
    send(QF::kEventButtonDown, QF::kButtonLeft, 0, 150, 300, &handled);
    EXPECT_FALSE(handled);
    EXPECT_FALSE(editing());
}

// ---- the selection ------------------------------------------------------------------------

TEST_F(WidgetEdit, TheSelectionAnswersForItsWidget) {
    make("TextFieldCreate", 0, 100, 600, 300, 622);
    ASSERT_EQ(host.selection().selectAt(0, 150, 610), 0u);
    ServiceObject* s = host.selection().selection().get();
    auto& ops = selectionOps();
    uint32_t type = 0;
    EXPECT_EQ(ops.GetType(s, &type), 0u);
    EXPECT_EQ(type, atom("Widget"));
    PDRect bounds{};
    EXPECT_EQ(ops.GetBounds(s, &bounds), 0u);
    expectRect(bounds, 100, 600, 300, 622);
    uint64_t page = 9;
    EXPECT_EQ(ops.GetPageIndex(s, &page), 0u);
    EXPECT_EQ(page, 0u);
    const float inside[2] = {300, 622}, outside[2] = {301, 622};
    uint8_t hit = 0;
    EXPECT_EQ(ops.HitTest(s, 0, inside, &hit), 0u);
    EXPECT_EQ(hit, 1);
    EXPECT_EQ(ops.HitTest(s, 0, outside, &hit), 0u);
    EXPECT_EQ(hit, 0);
    EXPECT_EQ(ops.HitTest(s, 1, inside, &hit), 0u);
    EXPECT_EQ(hit, 0);
    EXPECT_EQ(ops.Done(s), 1u);
    uint8_t copy = 0;
    EXPECT_EQ(ops.CanCopy(s, &copy), 1u);

    // An empty selection, as its plain factory makes it.
    ObjectPtr factory = host.editModules().selectionFactories().find(atom("WidgetEdit"));
    ObjectPtr empty;
    ASSERT_EQ(SODetails::methods<QF::SelectionFactoryTable>(factory.get())
                  ->CreateSelection(factory.get(), empty.put()),
              0u);
    EXPECT_EQ(SODetails::methods<QF::SelectionTable>(empty.get())->GetBounds(empty.get(), &bounds),
              2u);
}

} // namespace
