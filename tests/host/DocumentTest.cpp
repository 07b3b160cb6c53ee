// The host document as the module reaches it: the "QFDocument" service object and its
// "QFPage" objects, called through their method tables over real PDFs.
#include "TestObjects.h"

#include "qfhost/Document.h"
#include "qfhost/Host.h"

#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace {

using namespace hosttest;
using qfhost::Document;
using qfhost::Host;
namespace codes = qfhost::codes;

QF::DocumentTable* docTable(ServiceObject* so) {
    return SODetails::methods<QF::DocumentTable>(so);
}
QF::PageTable* pageTable(ServiceObject* so) { return SODetails::methods<QF::PageTable>(so); }

bool sameRect(const PDRect& r, float left, float bottom, float right, float top) {
    return r.left == left && r.bottom == bottom && r.right == right && r.top == top;
}

PDRect rectOf(PDAnnot a) {
    PDRect r{};
    EXPECT_EQ(PDAnnotGetRect(a, &r), PD_OK);
    return r;
}

uint32_t annotCount(PDDoc doc, uint32_t pageIndex) {
    Handle page;
    EXPECT_EQ(PDDocGetPage(doc, pageIndex, page.put()), PD_OK);
    uint32_t n = 0;
    EXPECT_EQ(PDPageGetNumAnnots(page.h, &n), PD_OK);
    return n;
}

std::string tempPath(const char* name) {
    return (std::filesystem::temp_directory_path() /
            (std::string("qfhost-doc-") + std::to_string(::getpid()) + "-" + name))
        .string();
}

std::string fullName(PDField f) {
    uint32_t len = 0;
    if (PDFieldGetFullName(f, nullptr, 0, &len) != PD_OK) return "?";
    std::u16string name(len, u'\0');
    EXPECT_EQ(PDFieldGetFullName(f, name.data(), len + 1, &len), PD_OK);
    return std::string(name.begin(), name.end());
}

// One annotation as a reader sees it: subtype, rectangle, flags, field and place among the
// field's widgets, the page index of the annotation it replies to.
std::string describe(PDPage page, PDAnnot a) {
    PDAtom subtype = 0;
    const char* name = "?";
    if (PDAnnotGetSubtype(a, &subtype) == PD_OK) PDAtomGetString(subtype, &name);
    PDRect r{};
    uint32_t flags = 0, index = 99;
    PDAnnotGetRect(a, &r);
    PDAnnotGetFlags(a, &flags);
    char text[128];
    std::snprintf(text, sizeof text, "%s [%g %g %g %g] F%u", name, r.left, r.bottom, r.right,
                  r.top, flags);
    std::string out = text;
    Handle field, parent;
    if (subtype == PD_ATOM_Widget && PDWidgetAnnotGetParent(a, field.put()) == PD_OK && field.h &&
        PDFieldGetWidgetIndex(field.h, a, &index) == PD_OK) {
        out += " " + fullName(field.h) + "#" + std::to_string(index);
    }
    if (PDMarkupAnnotGetInReplyTo(a, parent.put()) == PD_OK && parent.h &&
        PDPageGetAnnotIndex(page, parent.h, &index) == PD_OK) {
        out += " reply to " + std::to_string(index);
    }
    return out;
}

// The document as a fresh reader sees it (PDDocSaveMem, PDDocOpenMem): "page: annotation"
// lines, then "field NAME xWIDGETS" for each terminal field.
std::vector<std::string> freshView(PDDoc doc) {
    void* data = nullptr;
    size_t size = 0;
    Handle fresh;
    EXPECT_EQ(PDDocSaveMem(doc, &data, &size), PD_OK);
    EXPECT_EQ(PDDocOpenMem(data, size, fresh.put()), PD_OK);
    PDFreeBuffer(data);
    std::vector<std::string> out;
    uint32_t pages = 0, fields = 0;
    PDDocGetNumPages(fresh.h, &pages);
    for (uint32_t p = 0; p < pages; ++p) {
        Handle page;
        uint32_t count = 0;
        EXPECT_EQ(PDDocGetPage(fresh.h, p, page.put()), PD_OK);
        PDPageGetNumAnnots(page.h, &count);
        for (uint32_t i = 0; i < count; ++i) {
            Handle a;
            EXPECT_EQ(PDPageGetAnnot(page.h, i, a.put()), PD_OK);
            out.push_back(std::to_string(p) + ": " + describe(page.h, a.h));
        }
    }
    PDDocGetNumFields(fresh.h, &fields);
    for (uint32_t i = 0; i < fields; ++i) {
        Handle f;
        uint32_t widgets = 0;
        EXPECT_EQ(PDDocGetField(fresh.h, i, f.put()), PD_OK);
        PDFieldGetNumWidgets(f.h, &widgets);
        out.push_back("field " + fullName(f.h) + " x" + std::to_string(widgets));
    }
    return out;
}

// Page 0's annotations in a fresh view, without the page prefix.
std::vector<std::string> annotsOf(const std::vector<std::string>& view) {
    std::vector<std::string> out;
    for (const auto& line : view)
        if (line.rfind("0: ", 0) == 0) out.push_back(line.substr(3));
    return out;
}

bool mentions(const std::vector<std::string>& view, const std::string& what) {
    return std::any_of(view.begin(), view.end(),
                       [&](const std::string& line) { return line.find(what) != std::string::npos; });
}

// What the document's events delivered.
struct Recorder {
    std::vector<std::tuple<uint32_t, uint64_t, PDAnnot>> single;
    std::vector<std::tuple<uint32_t, uint64_t, std::vector<PDAnnot>>> several;
    std::vector<std::tuple<int32_t, uint32_t, PDAnnot>> pdfcore;  // PDDoc listeners
    std::vector<boost::signals2::scoped_connection> connections;

    void attach(Document& d) {
        connections.emplace_back(d.OnAnnotChanged.connect(
            [this](uint32_t k, uint64_t p, PDAnnot a) { single.emplace_back(k, p, a); }));
        connections.emplace_back(d.OnAnnotsChanged.connect(
            [this](uint32_t k, uint64_t p, const std::vector<PDAnnot>& v) {
                several.emplace_back(k, p, v);
            }));
    }
    static void listener(void* self, PDDoc, int32_t kind, uint32_t page, PDAnnot annot) {
        static_cast<Recorder*>(self)->pdfcore.emplace_back(kind, page, annot);
    }
};

class DocumentTest : public ::testing::Test {
protected:
    void SetUp() override {
        doc = &host.newDocument(2, 612, 792);
        so = doc->object();
        table = docTable(so);
        widget.h = addTextWidget(doc->pdDoc(), 0, PDRect{100, 700, 300, 680});
        recorder.attach(*doc);
    }

    // PerformAnnotOperation as the edit object posts it.
    uint32_t post(const char* operation, PDAnnot annot, uint64_t page = 0,
                  std::array<float, 4> rect = {0, 0, 0, 0}) {
        QF::AnnotOperationRecord record{so, page, annot, {rect[0], rect[1], rect[2], rect[3]}};
        return table->PerformAnnotOperation(so, atom(operation), &record, 0);
    }
    ObjectPtr pageObject(uint64_t index) {
        ObjectPtr p;
        EXPECT_EQ(table->GetPage(so, index, p.put()), 0u);
        return p;
    }
    bool changed(ServiceObject* page) {
        uint8_t flag = 99;
        EXPECT_EQ(pageTable(page)->GetChanged(page, &flag), 0u);
        return flag != 0;
    }

    Host host;
    Document* doc = nullptr;
    ServiceObject* so = nullptr;
    QF::DocumentTable* table = nullptr;
    Handle widget;
    Recorder recorder;
};

TEST_F(DocumentTest, ServiceObjectsAndTheirReferenceCounts) {
    // The current document is the provider's "QFDocument".
    ObjectPtr provided;
    ASSERT_EQ(ServiceProviderGetServiceObject(atom("QFDocument"), provided.put(), nullptr), 0u);
    EXPECT_EQ(provided.get(), so);
    EXPECT_EQ(refs(so), 2);
    provided.reset();
    EXPECT_EQ(refs(so), 1);

    PDDoc pd = nullptr;
    ASSERT_EQ(table->GetPDDoc(so, &pd), 0u);
    EXPECT_EQ(pd, doc->pdDoc());
    PDHandleRelease(pd);  // the caller's reference; the document keeps its own
    uint32_t pages = 0;
    EXPECT_EQ(PDDocGetNumPages(doc->pdDoc(), &pages), PD_OK);
    EXPECT_EQ(pages, 2u);

    // Page objects: made once, the same block every time, one reference per caller.
    ObjectPtr first = pageObject(1);
    ASSERT_TRUE(first);
    EXPECT_EQ(refs(first.get()), 2);  // the document's and ours
    ObjectPtr again = pageObject(1);
    EXPECT_EQ(again.get(), first.get());
    EXPECT_EQ(refs(first.get()), 3);
    again.reset();
    first.reset();
    EXPECT_EQ(doc->page(1), pageObject(1).get());
    EXPECT_EQ(refs(doc->page(1)), 1);
    EXPECT_NE(doc->page(0), doc->page(1));

    PDPage pdPage = nullptr;
    ASSERT_EQ(pageTable(doc->page(1))->GetPDPage(doc->page(1), &pdPage), 0u);
    uint32_t index = 99;
    EXPECT_EQ(PDPageGetIndex(pdPage, &index), PD_OK);
    EXPECT_EQ(index, 1u);
    PDHandleRelease(pdPage);

    uint32_t valid = 9;
    EXPECT_EQ(table->IsValid(so, &valid), 0u);
    EXPECT_EQ(valid, 1u);
    EXPECT_EQ(pageTable(doc->page(0))->IsValid(doc->page(0), &valid), 0u);
    EXPECT_EQ(valid, 1u);
    EXPECT_EQ(doc->page(2), nullptr);

    // A new document has no optional content.
    PDOCConfig config = reinterpret_cast<PDOCConfig>(1);
    EXPECT_EQ(table->GetOCConfig(so, &config), 0u);
    EXPECT_EQ(config, nullptr);
}

TEST_F(DocumentTest, ChangedFlagAndPageLock) {
    ObjectPtr page = pageObject(0);
    auto* pt = pageTable(page.get());
    EXPECT_FALSE(changed(page.get()));
    EXPECT_FALSE(doc->modified());
    EXPECT_EQ(pt->SetChanged(page.get(), 1), 0u);
    EXPECT_TRUE(changed(page.get()));
    EXPECT_TRUE(doc->pageChanged(0));
    EXPECT_FALSE(doc->pageChanged(1));
    EXPECT_TRUE(doc->modified());

    uint64_t token = 0;
    ASSERT_EQ(pt->Lock(page.get(), 1, &token), 0u);
    EXPECT_NE(token, 0u);
    EXPECT_TRUE(doc->pageLocked(0));
    uint64_t second = 0;
    EXPECT_EQ(pt->Lock(page.get(), 1, &second), codes::kPageBusy);
    EXPECT_EQ(second, 0u);
    // Another page locks independently.
    ObjectPtr other = pageObject(1);
    uint64_t otherToken = 0;
    EXPECT_EQ(pageTable(other.get())->Lock(other.get(), 1, &otherToken), 0u);
    EXPECT_NE(otherToken, token);
    EXPECT_EQ(pageTable(other.get())->Unlock(other.get(), otherToken), 0u);

    // While locked, other changes wait; the holder still reads and writes the flag.
    EXPECT_EQ(post("Annot_Delete", widget.h), codes::kPageBusy);
    EXPECT_EQ(annotCount(doc->pdDoc(), 0), 1u);
    EXPECT_EQ(pt->SetChanged(page.get(), 0), 0u);
    EXPECT_FALSE(changed(page.get()));

    EXPECT_EQ(pt->Unlock(page.get(), token + 1), 3u);
    EXPECT_TRUE(doc->pageLocked(0));
    EXPECT_EQ(pt->Unlock(page.get(), token), 0u);
    EXPECT_FALSE(doc->pageLocked(0));
    EXPECT_EQ(pt->Unlock(page.get(), token), 3u);  // not locked any more

    ASSERT_EQ(pt->Lock(page.get(), 1, &second), 0u);
    EXPECT_NE(second, token);  // tokens are not reused
    EXPECT_EQ(pt->Unlock(page.get(), second), 0u);
}

TEST_F(DocumentTest, NotificationsReachSubscribersAndPdfcoreListeners) {
    uint32_t cookie = 0;
    ASSERT_EQ(PDDocAddAnnotChangedListener(doc->pdDoc(), &Recorder::listener, &recorder, &cookie),
              PD_OK);
    Handle second(addTextWidget(doc->pdDoc(), 1, PDRect{10, 50, 60, 30}));

    EXPECT_EQ(table->NotifyAnnotChanged(so, 3, 0, widget.h), 0u);
    EXPECT_EQ(table->NotifyAnnotChanged(so, 1, 1, second.h), 0u);
    ASSERT_EQ(recorder.single.size(), 2u);
    EXPECT_EQ(recorder.single[0], std::make_tuple(3u, uint64_t{0}, widget.h));
    EXPECT_EQ(recorder.single[1], std::make_tuple(1u, uint64_t{1}, second.h));
    ASSERT_EQ(recorder.pdfcore.size(), 2u);
    EXPECT_EQ(recorder.pdfcore[0], std::make_tuple(3, 0u, widget.h));
    EXPECT_EQ(recorder.pdfcore[1], std::make_tuple(1, 1u, second.h));

    PDAnnot both[2] = {widget.h, second.h};
    EXPECT_EQ(table->NotifyAnnotsChanged(so, 2, 1, both, 2), 0u);
    EXPECT_EQ(table->NotifyAnnotsChanged(so, 0, 0, nullptr, 0), 0u);
    ASSERT_EQ(recorder.several.size(), 2u);
    EXPECT_EQ(std::get<0>(recorder.several[0]), 2u);
    EXPECT_EQ(std::get<1>(recorder.several[0]), 1u);
    EXPECT_EQ(std::get<2>(recorder.several[0]), (std::vector<PDAnnot>{widget.h, second.h}));
    EXPECT_TRUE(std::get<2>(recorder.several[1]).empty());
    EXPECT_EQ(recorder.pdfcore.size(), 2u);  // several: only the C++ event

    // Refused calls notify nobody.
    EXPECT_EQ(table->NotifyAnnotChanged(so, 0, 2, widget.h), 3u);
    EXPECT_EQ(table->NotifyAnnotsChanged(so, 0, 5, both, 2), 3u);
    EXPECT_EQ(recorder.single.size(), 2u);
    EXPECT_EQ(recorder.several.size(), 2u);

    std::vector<Document::Invalidation> seen;
    boost::signals2::scoped_connection c = doc->OnInvalidateRect.connect(
        [&](const Document::Invalidation& i) { seen.push_back(i); });
    const float rect[4] = {1, 20, 30, 4};
    EXPECT_EQ(table->InvalidateRect(so, 1, rect, 1), 0u);
    EXPECT_EQ(table->InvalidateRect(so, 2, rect, 1), 3u);
    ASSERT_EQ(doc->invalidations().size(), 1u);
    const auto& i = doc->invalidations()[0];
    EXPECT_EQ(i.pageIndex, 1u);
    EXPECT_TRUE(sameRect(i.rect, 1, 4, 30, 20));
    EXPECT_EQ(i.flag, 1u);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].pageIndex, 1u);
    doc->clearInvalidations();
    EXPECT_TRUE(doc->invalidations().empty());
    EXPECT_EQ(PDDocRemoveAnnotChangedListener(doc->pdDoc(), cookie), PD_OK);
}

// Undo and redo of each operation: AnnotOperationsTest.
TEST_F(DocumentTest, SetRectRedrawsBothPlacesAndIsSaved) {
    ASSERT_EQ(post("Annot_SetRect", widget.h, 0, {150, 400, 350, 430}), 0u);
    ASSERT_EQ(doc->invalidations().size(), 2u);
    EXPECT_TRUE(sameRect(doc->invalidations()[0].rect, 100, 680, 300, 700));
    EXPECT_TRUE(sameRect(doc->invalidations()[1].rect, 150, 400, 350, 430));

    // The saved file has the new /Rect, and saving clears the changed flags.
    std::string path = tempPath("setrect.pdf");
    doc->save(path);
    EXPECT_FALSE(doc->modified());
    Handle reopened, page, annot;
    ASSERT_EQ(PDDocOpen(path.c_str(), reopened.put()), PD_OK);
    ASSERT_EQ(PDDocGetPage(reopened.h, 0, page.put()), PD_OK);
    ASSERT_EQ(PDPageGetAnnot(page.h, 0, annot.put()), PD_OK);
    EXPECT_TRUE(sameRect(rectOf(annot.h), 150, 400, 350, 430));
    std::remove(path.c_str());
}

TEST_F(DocumentTest, ADeletedWidgetIsNoLongerThePagesAndALooseDocumentHasNoUndo) {
    ASSERT_EQ(post("Annot_Delete", widget.h), 0u);
    EXPECT_EQ(post("Annot_SetRect", widget.h, 0, {0, 0, 10, 10}), 3u);

    // Without a host the operation is applied directly, with no undo.
    auto loose = Document::create(1, 200, 200);
    Handle w(addTextWidget(loose->pdDoc(), 0, PDRect{1, 20, 20, 1}));
    QF::AnnotOperationRecord record{loose->object(), 0, w.h, {}};
    EXPECT_EQ(docTable(loose->object())
                  ->PerformAnnotOperation(loose->object(), atom("Annot_Delete"), &record, 0),
              0u);
    EXPECT_EQ(annotCount(loose->pdDoc(), 0), 0u);
    EXPECT_EQ(host.commands().depths().undo, 1u);  // the delete above only
    QF::CommandArgs args{1, atom("TestCmd"), nullptr};
    EXPECT_EQ(docTable(loose->object())->ExecuteCommand(loose->object(), &args),
              codes::kNotSupported);
}

// Page 0 of the fixture with three annotations: the widget of field A, a widget of field
// B, a note. Each operation is done, undone and redone; a fresh reader sees the document
// as it was before after UNDO and as after DO after REDO.
class AnnotOperationsTest : public DocumentTest {
protected:
    void SetUp() override {
        DocumentTest::SetUp();
        second.h = addTextWidget(doc->pdDoc(), 0, PDRect{10, 50, 60, 30});
        PDAtom text = 0;
        ASSERT_EQ(PDAtomPutString("Text", &text), PD_OK);
        const PDRect r{400, 720, 420, 700};
        ASSERT_EQ(PDDocCreateAnnot(doc->pdDoc(), text, &r, note.put()), PD_OK);
        Handle page;
        ASSERT_EQ(PDDocGetPage(doc->pdDoc(), 0, page.put()), PD_OK);
        ASSERT_EQ(PDPageAddAnnot(page.h, 2, note.h), PD_OK);
        before = freshView(doc->pdDoc());
    }
    // The kinds of the events since the last call, single ones as "k", lists as "[k]".
    std::vector<std::string> events() {
        std::vector<std::string> out;
        for (const auto& e : recorder.single) out.push_back(std::to_string(std::get<0>(e)));
        for (const auto& e : recorder.several)
            out.push_back("[" + std::to_string(std::get<0>(e)) + "]");
        recorder.single.clear();
        recorder.several.clear();
        return out;
    }

    Handle second, note;
    std::vector<std::string> before;
};

TEST_F(AnnotOperationsTest, EachOperationDoesUndoesAndRedoes) {
    Handle loose;  // a widget of a new field, on no page yet
    {
        Handle field, page;
        const PDRect r{200, 300, 260, 280};
        ASSERT_EQ(PDDocGetPage(doc->pdDoc(), 0, page.put()), PD_OK);
        ASSERT_EQ(PDCreateTextField(doc->pdDoc(), nullptr, 0, 0, field.put()), PD_OK);
        ASSERT_EQ(PDCreateTextWidgetAnnot(doc->pdDoc(), field.h, page.h, &r, loose.put()), PD_OK);
        before = freshView(doc->pdDoc());
    }
    const std::string w0 = "Widget [100 680 300 700] F4 Text1#0",
                      w1 = "Widget [10 30 60 50] F4 Text2#0", n = "Text [400 700 420 720] F4";
    ASSERT_EQ(annotsOf(before), (std::vector<std::string>{w0, w1, n}));
    struct Case {
        const char* operation;
        PDAnnot annot;
        std::array<float, 4> rect;
        std::vector<std::string> doEvents, undoEvents, page;  // page 0 after DO
    };
    const std::vector<Case> cases = {
        {"Annot_SetRect", widget.h, {150, 400, 350, 430}, {"0"}, {"0"},
         {"Widget [150 400 350 430] F4 Text1#0", w1, n}},
        {"Annot_Delete", second.h, {}, {"1"}, {"0"}, {w0, n}},
        {"Annot_Insert", loose.h, {}, {"0"}, {"1"}, {w0, w1, n, "Widget [200 280 260 300] F4 Text3#0"}},
        {"Annot_Lock", note.h, {}, {"0"}, {"0"}, {w0, w1, "Text [400 700 420 720] F132"}},
        {"Annot_Delete_PageAll", nullptr, {}, {"[1]"}, {"[0]"}, {}},
        {"Annot_RangeDelete", nullptr, {0, 0, 100, 100}, {"[1]"}, {"[0]"}, {w0, n}},
        {"Annot_ReplyTo", note.h, {430, 700, 450, 720}, {"0"}, {"1"},
         {w0, w1, n, "Text [430 700 450 720] F4 reply to 2"}},
        {"Annot_BringFront", widget.h, {}, {"0"}, {"1"}, {w1, n, w0}},
        {"Annot_BringBack", note.h, {}, {"0"}, {"1"}, {n, w0, w1}},
        {"Annot_BringForward", widget.h, {}, {"0"}, {"1"}, {w1, w0, n}},
        {"Annot_BringBackward", note.h, {}, {"0"}, {"1"}, {w0, n, w1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.operation);
        events();
        doc->clearInvalidations();
        ASSERT_EQ(post(c.operation, c.annot, 0, c.rect), 0u);
        EXPECT_EQ(host.commands().depths().undo, 1u);
        EXPECT_TRUE(doc->pageChanged(0));
        EXPECT_FALSE(doc->invalidations().empty());
        EXPECT_EQ(events(), c.doEvents);
        const std::vector<std::string> after = freshView(doc->pdDoc());
        EXPECT_EQ(annotsOf(after), c.page);
        EXPECT_FALSE(mentions(after, " x0"));  // fields emptied by deletions are not written
        EXPECT_TRUE(mentions(after, "field Text3 x1"));  // its widget is on no page: written

        ASSERT_EQ(host.commands().undo(), 0u);
        EXPECT_FALSE(doc->pageChanged(0));
        EXPECT_EQ(events(), c.undoEvents);
        EXPECT_EQ(freshView(doc->pdDoc()), before);
        ASSERT_EQ(host.commands().redo(), 0u);
        EXPECT_TRUE(doc->pageChanged(0));
        EXPECT_EQ(events(), c.doEvents);
        EXPECT_EQ(freshView(doc->pdDoc()), after);
        ASSERT_EQ(host.commands().undo(), 0u);
        host.commands().clear();
    }
}

TEST_F(AnnotOperationsTest, RefusalsAndNothingToDo) {
    EXPECT_EQ(post("Annot_Flatten", widget.h), codes::kUnknownOperation);
    // Nothing to do: a negative answer and no command.
    EXPECT_EQ(post("Annot_BringFront", note.h), codes::kNegative);
    EXPECT_EQ(post("Annot_BringForward", note.h), codes::kNegative);
    EXPECT_EQ(post("Annot_BringBack", widget.h), codes::kNegative);
    EXPECT_EQ(post("Annot_BringBackward", widget.h), codes::kNegative);
    EXPECT_EQ(post("Annot_Unlock", note.h), codes::kNegative);
    // Only annotations wholly inside the rectangle go (the second widget is 10..60 wide).
    EXPECT_EQ(post("Annot_RangeDelete", nullptr, 0, {0, 0, 50, 100}), codes::kNegative);
    EXPECT_EQ(post("Annot_Delete_PageAll", nullptr, 1), codes::kNegative);  // an empty page
    // Annotations must be the page's (Insert: no page's, and of this document).
    EXPECT_EQ(post("Annot_ReplyTo", widget.h, 0, {0, 0, 10, 10}), codes::kBadArgument);
    EXPECT_EQ(post("Annot_Insert", note.h, 1), codes::kBadArgument);
    EXPECT_EQ(post("Annot_Insert", nullptr), codes::kBadArgument);
    for (const char* op : {"Annot_Lock", "Annot_BringFront", "Annot_ReplyTo", "Annot_Delete"})
        EXPECT_EQ(post(op, note.h, 1), codes::kBadArgument) << op;
    auto other = Document::create(1, 100, 100);
    Handle foreign(addTextWidget(other->pdDoc(), 0, PDRect{1, 20, 20, 1}));
    EXPECT_EQ(post("Annot_Insert", foreign.h), codes::kBadArgument);
    // A locked page refuses every operation.
    ObjectPtr page = pageObject(0);
    uint64_t token = 0;
    ASSERT_EQ(pageTable(page.get())->Lock(page.get(), 1, &token), 0u);
    for (const char* op : {"Annot_SetRect", "Annot_Delete", "Annot_Insert", "Annot_Lock",
                           "Annot_Unlock", "Annot_Delete_PageAll", "Annot_RangeDelete",
                           "Annot_ReplyTo", "Annot_BringFront", "Annot_BringBack",
                           "Annot_BringForward", "Annot_BringBackward"})
        EXPECT_EQ(post(op, note.h, 0, {0, 0, 700, 800}), codes::kPageBusy) << op;
    EXPECT_EQ(pageTable(page.get())->Unlock(page.get(), token), 0u);
    EXPECT_EQ(host.commands().depths().undo, 0u);
    EXPECT_TRUE(events().empty());
    EXPECT_FALSE(doc->modified());

    // Locked widgets are not deleted, alone or with the others.
    ASSERT_EQ(post("Annot_Lock", second.h), 0u);
    EXPECT_EQ(post("Annot_Delete", second.h), codes::kBadArgument);
    ASSERT_EQ(post("Annot_Delete_PageAll", nullptr), 0u);
    const std::vector<std::string> view = annotsOf(freshView(doc->pdDoc()));
    ASSERT_EQ(view.size(), 1u);
    EXPECT_EQ(view[0].substr(0, 22), "Widget [10 30 60 50] F");
    EXPECT_EQ(post("Annot_RangeDelete", nullptr, 0, {0, 0, 100, 100}), codes::kNegative);
    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(post("Annot_Unlock", second.h), 0u);
    EXPECT_EQ(freshView(doc->pdDoc()), before);
    ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(freshView(doc->pdDoc()), before);
}

TEST_F(DocumentTest, ExecuteCommandGoesToTheCommandsManager) {
    ObjectPtr factory = makeCommandFactory();
    ASSERT_EQ(host.commands().factories().put(atom("TestCmd"), factory.get()), 0u);
    Journal journal;
    CommandScript script{&journal, "x"};
    QF::CommandArgs args{5, atom("TestCmd"), &script};
    EXPECT_EQ(table->ExecuteCommand(so, &args), 0u);
    EXPECT_EQ(journal, Journal{"do:x"});
    EXPECT_EQ(host.commands().depths().undo, 1u);
    QF::CommandArgs unknown{6, atom("NoSuchCommand"), &script};
    EXPECT_EQ(table->ExecuteCommand(so, &unknown), codes::kNotRegistered);
    host.commands().clear();
    EXPECT_EQ(journal, (Journal{"do:x", "gone:x"}));
}

TEST_F(DocumentTest, ClosingInvalidatesAndReleasesEverything) {
    ASSERT_EQ(post("Annot_SetRect", widget.h, 0, {150, 400, 350, 430}), 0u);
    ObjectPtr held = ObjectPtr::share(so);
    ObjectPtr page = pageObject(0);
    SODetails::WeakReference* docWeak = nullptr;
    SODetails::WeakReference* pageWeak = nullptr;
    ASSERT_EQ(SODetails::header(so)->base.GetWeakReference(so, &docWeak), 0u);
    ASSERT_EQ(SODetails::header(page.get())->base.GetWeakReference(page.get(), &pageWeak), 0u);

    recorder.connections.clear();
    host.closeDocument(*doc);
    EXPECT_EQ(host.documentCount(), 0u);
    EXPECT_EQ(host.currentDocument(), nullptr);
    ObjectPtr provided;
    EXPECT_NE(ServiceProviderGetServiceObject(atom("QFDocument"), provided.put(), nullptr), 0u);

    // The blocks held answer that the document is closed (every method of them is in
    // AbiBadArgumentsTest).
    uint32_t valid = 9;
    EXPECT_EQ(table->IsValid(held.get(), &valid), 0u);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(pageTable(page.get())->IsValid(page.get(), &valid), 0u);
    EXPECT_EQ(valid, 0u);
    // The command left on the undo stack refuses to run and stays there.
    EXPECT_EQ(host.commands().undo(), codes::kDocumentClosed);
    EXPECT_EQ(host.commands().depths().undo, 1u);

    held.reset();
    page.reset();
    EXPECT_EQ(docWeak->ops->IsAlive(docWeak), 1u);  // the command still holds it
    host.commands().clear();
    EXPECT_EQ(docWeak->ops->IsAlive(docWeak), 0u);
    EXPECT_EQ(pageWeak->ops->IsAlive(pageWeak), 0u);
    docWeak->ops->Release(docWeak);
    pageWeak->ops->Release(pageWeak);
}

// Deleting widgets of a real form: their fields lose them, in order, and get them back in
// order; a field left without widgets is not written until they are back.
TEST(DocumentCorpusTest, DeletedWidgetsLeaveAndRejoinTheirFieldsInOrder) {
    Host host;
    Document& doc = host.openDocument(QF_CORPUS_DIR "/qpdf-field-types.pdf");
    Handle radio;
    const std::u16string r1 = u"r1";
    ASSERT_EQ(PDDocFindField(doc.pdDoc(), r1.data(), 2, radio.put()), PD_OK);
    std::vector<Handle> widgets(3);
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(PDFieldGetWidget(radio.h, i, widgets[i].put()), PD_OK);
    const std::vector<std::string> original = freshView(doc.pdDoc());
    ASSERT_TRUE(mentions(original, "field r1 x3"));
    ASSERT_TRUE(mentions(original, "r1#2"));
    auto post = [&](const char* operation, PDAnnot annot) {
        QF::AnnotOperationRecord record{doc.object(), 0, annot, {}};
        return docTable(doc.object())->PerformAnnotOperation(doc.object(), atom(operation), &record, 0);
    };

    // All three, one after another: the field goes; the undos put them back in order.
    for (uint32_t i : {2u, 0u, 1u}) ASSERT_EQ(post("Annot_Delete", widgets[i].h), 0u);
    const std::vector<std::string> view = freshView(doc.pdDoc());
    Handle parent;
    EXPECT_EQ(PDWidgetAnnotGetParent(widgets[1].h, parent.put()), PD_OK);
    EXPECT_EQ(parent.h, nullptr);
    EXPECT_FALSE(mentions(view, "field r1"));
    EXPECT_TRUE(mentions(view, "field r2 x3"));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(freshView(doc.pdDoc()), original);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_EQ(freshView(doc.pdDoc()), view);

    // The whole page, the merged single-widget fields among it; the form is empty, then whole.
    for (int i = 0; i < 3; ++i) ASSERT_EQ(host.commands().undo(), 0u);
    ASSERT_EQ(post("Annot_Delete_PageAll", nullptr), 0u);
    EXPECT_TRUE(freshView(doc.pdDoc()).empty());
    ASSERT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(freshView(doc.pdDoc()), original);
    ASSERT_EQ(host.commands().redo(), 0u);
    EXPECT_TRUE(freshView(doc.pdDoc()).empty());
}

TEST(DocumentHostTest, DocumentsFromHandlesAndTheCurrentDocument) {
    Host host;
    Handle pd;
    ASSERT_EQ(PDDocCreate(3, 100, 100, pd.put()), PD_OK);
    Document& a = host.adoptDocument(pd.h);
    EXPECT_EQ(a.pdDoc(), pd.h);
    EXPECT_EQ(a.pageCount(), 3u);
    Document& b = host.newDocument(1, 50, 50);
    EXPECT_EQ(host.currentDocument(), &b);
    EXPECT_EQ(host.documentCount(), 2u);
    host.setCurrentDocument(&a);
    ObjectPtr provided;
    ASSERT_EQ(ServiceProviderGetServiceObject(atom("QFDocument"), provided.put(), nullptr), 0u);
    EXPECT_EQ(provided.get(), a.object());
    host.closeDocument(b);  // not the current one
    EXPECT_EQ(host.currentDocument(), &a);
    EXPECT_EQ(host.documentCount(), 1u);
    // The caller's handle outlives the host's document.
    host.closeDocument(a);
    uint32_t pages = 0;
    EXPECT_EQ(PDDocGetNumPages(pd.h, &pages), PD_OK);
    EXPECT_EQ(pages, 3u);
    EXPECT_THROW(host.openDocument("/nonexistent/qfhost.pdf"), qfhost::HostError);
    EXPECT_EQ(host.documentCount(), 0u);
}

// An encrypted form: a missing or wrong password is its own code; the form may be changed
// with the owner password, or with the user password when the permissions let anyone make
// and change form fields. The AES file of the corpus lets anyone fill in and annotate, not
// change the document otherwise.
TEST(DocumentHostTest, EncryptedDocumentsTheirPasswordsAndWhetherTheFormMayChange) {
#if defined(_WIN32)
    GTEST_SKIP() << "the encrypted copies are made with the build machine's qpdf";
#endif
    Host host;
    const std::string plain = QF_CORPUS_DIR "/qpdf-field-types.pdf";
    const std::string restricted = tempPath("restricted.pdf"), open = tempPath("open.pdf");
    ASSERT_EQ(std::system(("qpdf --encrypt user owner 256 --modify=form -- '" + plain + "' '" +
                           restricted + "'")
                              .c_str()),
              0);
    ASSERT_EQ(std::system(("qpdf --encrypt user owner 256 -- '" + plain + "' '" + open + "'")
                              .c_str()),
              0);
    for (const std::u16string& missing : {std::u16string(), std::u16string(u"wrong")}) {
        try {
            host.openDocument(restricted, missing);
            ADD_FAILURE() << "opened without its password";
        } catch (const qfhost::HostError& e) {
            EXPECT_EQ(e.code(), codes::kPasswordNeeded);
            EXPECT_NE(std::string(e.what()).find("the password is missing or wrong"),
                      std::string::npos)
                << e.what();
        }
    }
    EXPECT_EQ(host.documentCount(), 0u);
    const struct {
        std::string path;
        std::u16string password;
        bool editable;
    } cases[] = {{plain, u"", true},          {restricted, u"user", false},
                 {restricted, u"owner", true}, {open, u"user", true},
                 {QF_CORPUS_DIR "/pikepdf-dd0293-hybrid-xfa.pdf", u"", false}};
    for (const auto& c : cases) {
        Document& doc = host.openDocument(c.path, c.password);
        EXPECT_EQ(doc.encrypted(), c.path != plain) << c.path;
        EXPECT_EQ(doc.formEditable(), c.editable) << c.path;
        host.closeDocument(doc);
    }
    std::remove(restricted.c_str());
    std::remove(open.c_str());
}

}  // namespace
