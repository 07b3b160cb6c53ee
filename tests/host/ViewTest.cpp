// The host's document view: its page layout, the "QFDocumentView" object as tools call it,
// and tools activated on the view through the host's TasksRepository.
#include "TestObjects.h"

#include "qfhost/Host.h"

#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace hosttest;
using qfhost::Document;
using qfhost::Host;
using qfhost::HostError;
using qfhost::View;
namespace codes = qfhost::codes;

using Rect = std::array<int32_t, 4>;
Rect rectOf(const View::PixelRect& r) { return {r.left, r.top, r.right, r.bottom}; }

QF::DocumentViewTable* viewTable(ServiceObject* so) {
    return SODetails::methods<QF::DocumentViewTable>(so);
}

uint32_t thrownCode(const std::function<void()>& f) {
    try {
        f();
    } catch (const HostError& e) {
        return e.code();
    }
    return 0;
}

// One page, media box [0 0 600 800], crop box [100 50 400 450].
std::string croppedPdf() {
    const char* objects[] = {
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 600 800] /CropBox [100 50 400 450] >>"};
    std::string pdf = "%PDF-1.7\n";
    std::string xref = "xref\n0 4\n0000000000 65535 f \n";
    for (int i = 0; i < 3; ++i) {
        char line[32];
        std::snprintf(line, sizeof line, "%010zu 00000 n \n", pdf.size());
        xref += line;
        pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    return pdf + xref + "trailer\n<< /Size 4 /Root 1 0 R >>\nstartxref\n" +
           std::to_string(pdf.size()) + "\n%%EOF\n";
}

// ---- a fake tool --------------------------------------------------------------------------

// What the fake tools did; outlives them.
struct ToolLog {
    std::vector<ServiceObject*> views, contexts;
    int terminated = 0, connects = 0, disconnects = 0, sheetReads = 0;
    std::vector<uint32_t> events;
    ServiceObject* lastProperty = nullptr;
};

ObjectPtr makeProperty() {
    static const QF::PropertyTable table = {
        [](ServiceObject*, const QF::TextSink* out) -> uint32_t {
            out->put(out->context, u"Probe", 5);
            return 0;
        },
        [](ServiceObject*, uint32_t* out) -> uint32_t {
            *out = QF::kPropertyText;
            return 0;
        },
        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return ObjectPtr::adopt(SODetails::makeServiceObject<QF::PropertyTable, Empty,
                                                         qfhost::HostTraits>(
        QF::kPropertyId, "QFProperty", 0x7E570020, table));
}

struct FakeTool {
    ToolLog* log = nullptr;
    uint32_t initResult = 0;
    ObjectPtr view{};  // kept, as the module's tools keep theirs
    QF::PropertiesChangedProc proc = nullptr;
    void* procContext = nullptr;
    bool finished = false;
};
FakeTool& fake(ServiceObject* so) { return SODetails::implOf<QF::InputHandlerTable, FakeTool>(so); }

const QF::InputHandlerTable kFakeToolTable = {
    [](ServiceObject* self, ServiceObject* view, ServiceObject* context) -> uint32_t {
        FakeTool& t = fake(self);
        t.log->views.push_back(view);
        t.log->contexts.push_back(context);
        t.view = ObjectPtr::share(view);
        return t.initResult;
    },
    [](ServiceObject* self) -> uint32_t {
        ++fake(self).log->terminated;
        return 0;
    },
    nullptr,
    [](ServiceObject* self, uint8_t* out) -> uint32_t {
        *out = fake(self).finished ? 1 : 0;
        return 0;
    },
    // Left button down: cross-hair cursor; a command: properties changed; right button up:
    // finished.
    [](ServiceObject* self, const QF::InputEvent* e, uint8_t* handled) -> uint32_t {
        FakeTool& t = fake(self);
        t.log->events.push_back(e->type);
        if (e->type == QF::kEventButtonDown) viewTable(t.view.get())->SetCursor(t.view.get(), 5);
        if (e->type == QF::kEventCommand && t.proc) t.proc(t.procContext, self);
        if (e->type == QF::kEventButtonUp && e->subcode == QF::kButtonRight) t.finished = true;
        *handled = 1;
        return 0;
    },
    nullptr, nullptr, nullptr, nullptr,
    // One new property in the host's "ToolArea".
    [](ServiceObject* self, ServiceObject** out) -> uint32_t {
        ++fake(self).log->sheetReads;
        ObjectPtr context, area, property = makeProperty();
        ServiceProviderGetServiceObject(atom("QFPropertiesContext"), context.put(), nullptr);
        SODetails::methods<QF::PropertiesContextTable>(context.get())
            ->GetArea(context.get(), u"ToolArea", area.put());
        uint32_t rc = SODetails::methods<QF::PropertyAreaTable>(area.get())
                          ->AddProperty(area.get(), property.get());
        fake(self).log->lastProperty = property.get();
        *out = context.detach();
        return rc;
    },
    [](ServiceObject* self, QF::PropertiesChangedProc proc, void* context,
       uint64_t* out) -> uint32_t {
        FakeTool& t = fake(self);
        t.proc = proc;
        t.procContext = context;
        ++t.log->connects;
        *out = 77;
        return 0;
    },
    [](ServiceObject* self, uint64_t connection) -> uint32_t {
        FakeTool& t = fake(self);
        if (connection != 77 || !t.proc) return 1;
        t.proc = nullptr;
        ++t.log->disconnects;
        return 0;
    },
};

struct FakeFactory {
    ToolLog* log;
    uint32_t initResult;
    const QF::InputHandlerTable* table;
};
ObjectPtr makeFactory(ToolLog& log, uint32_t initResult = 0,
                      const QF::InputHandlerTable& toolTable = kFakeToolTable) {
    static const QF::InputHandlerFactoryTable table = {
        [](ServiceObject* self, ServiceObject** out) -> uint32_t {
            auto& f = SODetails::implOf<QF::InputHandlerFactoryTable, FakeFactory>(self);
            *out = SODetails::makeServiceObject<QF::InputHandlerTable, FakeTool,
                                                qfhost::HostTraits>(
                QF::kInputHandlerId, "QFInputHandler", 0x7E570021, *f.table, f.log,
                f.initResult);
            return 0;
        }};
    return ObjectPtr::adopt(SODetails::makeServiceObject<QF::InputHandlerFactoryTable,
                                                         FakeFactory, qfhost::HostTraits>(
        QF::kInputHandlerFactoryId, "QFInputHandlerFactory", 0x7E570022, table,
        FakeFactory{&log, initResult, &toolTable}));
}

// Two US-letter pages, the second with /Rotate 90, seen at zoom 1.5.
class ViewTest : public ::testing::Test {
protected:
    void SetUp() override {
        PDPage second = nullptr;
        ASSERT_EQ(PDDocGetPage(doc.pdDoc(), 1, &second), PD_OK);
        ASSERT_EQ(PDPageSetRotate(second, 90), PD_OK);
        PDHandleRelease(second);
        view.setZoom(1.5f);
    }
    QF::InputEvent event(uint32_t type, uint32_t subcode = 0) { return {type, subcode, 40, 50, 0}; }

    ToolLog log;  // outlives the tools the host holds
    Host host;
    Document& doc = host.newDocument(2, 612, 792);
    View& view = host.openView(doc);
};

// ---- layout ---------------------------------------------------------------------------------

TEST_F(ViewTest, PagesStackWithTheirTurnedSizesForEveryViewRotation) {
    // Rotation 0: 918 x 1188, then the turned page 1188 x 918, 12 pixels further down.
    const Rect expected[4][2] = {{{16, 16, 934, 1204}, {16, 1216, 1204, 2134}},
                                 {{16, 16, 1204, 934}, {16, 946, 934, 2134}},
                                 {{16, 16, 934, 1204}, {16, 1216, 1204, 2134}},
                                 {{16, 16, 1204, 934}, {16, 946, 934, 2134}}};
    for (uint32_t r = 0; r < 4; ++r) {
        view.setRotation(r * 90);
        EXPECT_EQ(view.pageRotation(0), r * 90);
        EXPECT_EQ(view.pageRotation(1), (r * 90 + 90) % 360);
        EXPECT_EQ(rectOf(view.pageRect(0)), expected[r][0]) << r * 90;
        EXPECT_EQ(rectOf(view.pageRect(1)), expected[r][1]) << r * 90;
    }
}

TEST_F(ViewTest, CornersLandWhereTheTurnPutsThem) {
    using P = std::array<int32_t, 2>;
    EXPECT_EQ(view.pageToView(0, 0, 792), (P{16, 16}));  // top left stays top left
    EXPECT_EQ(view.pageToView(0, 612, 0), (P{934, 1204}));
    // /Rotate 90: the bottom left corner goes to the top left, the bottom right below it.
    EXPECT_EQ(view.pageToView(1, 0, 0), (P{16, 1216}));
    EXPECT_EQ(view.pageToView(1, 612, 0), (P{16, 2134}));
    EXPECT_EQ(view.pageToView(1, 0, 792), (P{1204, 1216}));
    view.setRotation(180);
    EXPECT_EQ(view.pageToView(0, 0, 792), (P{934, 1204}));
    view.setRotation(270);
    EXPECT_EQ(view.pageToView(0, 0, 0), (P{1204, 934}));
    EXPECT_EQ(view.pageToView(0, 0, 792), (P{16, 934}));
}

TEST_F(ViewTest, PointsBesideThePagesBelongToNone) {
    EXPECT_EQ(view.pageAt(100, 1204), 0);  // bottom edge
    EXPECT_EQ(view.pageAt(934, 16), 0);    // right edge
    EXPECT_EQ(view.pageAt(100, 1210), -1); // the gap
    EXPECT_EQ(view.pageAt(100, 1216), 1);
    EXPECT_EQ(view.pageAt(1100, 1300), 1);  // the turned page is wider
    EXPECT_EQ(view.pageAt(1100, 100), -1);
    EXPECT_EQ(view.pageAt(15, 100), -1);
    EXPECT_EQ(view.pageAt(100, 15), -1);
    EXPECT_EQ(view.pageAt(100, 2135), -1);
}

TEST_F(ViewTest, ConversionsRoundTrip) {
    const float zoom = view.zoom();
    for (uint32_t rotation : {0u, 90u, 180u, 270u}) {
        view.setRotation(rotation);
        for (uint32_t page : {0u, 1u}) {
            for (float x : {0.0f, 100.25f, 306.0f, 611.9f}) {
                for (float y : {0.0f, 33.3f, 500.0f, 792.0f}) {
                    auto v = view.pageToView(page, x, y);
                    auto p = view.viewToPage(page, v[0], v[1]);
                    EXPECT_NEAR(p[0], x, 0.5 / zoom + 1e-3) << rotation << " " << page;
                    EXPECT_NEAR(p[1], y, 0.5 / zoom + 1e-3) << rotation << " " << page;
                }
            }
            View::PixelRect r = view.pageRect(page);
            for (int32_t vx : {r.left, r.left + 37, r.right}) {
                auto p = view.viewToPage(page, vx, r.bottom - 5);
                EXPECT_EQ(view.pageToView(page, p[0], p[1]), (std::array{vx, r.bottom - 5}));
            }
        }
    }
}

TEST_F(ViewTest, ACropBoxAwayFromTheOriginIsWhatShows) {
    std::string bytes = croppedPdf();
    PDDoc pd = nullptr;
    ASSERT_EQ(PDDocOpenMem(bytes.data(), bytes.size(), &pd), PD_OK);
    Document& cropped = host.adoptDocument(pd);
    PDHandleRelease(pd);
    View& v = host.openView(cropped);
    v.setZoom(2);
    using P = std::array<int32_t, 2>;
    EXPECT_EQ(rectOf(v.pageRect(0)), (Rect{16, 16, 616, 816}));  // 300 x 400 points
    EXPECT_EQ(v.pageToView(0, 100, 450), (P{16, 16}));
    EXPECT_EQ(v.pageToView(0, 400, 50), (P{616, 816}));
    EXPECT_EQ(v.pageToView(0, 250, 250), (P{316, 416}));
    v.setRotation(270);
    EXPECT_EQ(rectOf(v.pageRect(0)), (Rect{16, 16, 816, 616}));
    EXPECT_EQ(v.pageToView(0, 250, 250), (P{416, 316}));
    EXPECT_EQ(v.viewToPage(0, 416, 316), (std::array{250.0f, 250.0f}));
}

TEST_F(ViewTest, RefusesBadSettingsAndPagesPastTheEnd) {
    for (float z : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(),
                    std::numeric_limits<float>::infinity()}) {
        EXPECT_EQ(thrownCode([&] { view.setZoom(z); }), codes::kBadArgument) << z;
    }
    EXPECT_EQ(view.zoom(), 1.5f);
    EXPECT_EQ(thrownCode([&] { view.setRotation(45); }), codes::kBadArgument);
    EXPECT_EQ(thrownCode([&] { view.setRotation(360); }), codes::kBadArgument);
    EXPECT_EQ(view.rotation(), 0u);
    EXPECT_EQ(thrownCode([&] { view.pageRect(2); }), codes::kBadArgument);
    EXPECT_EQ(thrownCode([&] { view.viewToPage(2, 0, 0); }), codes::kBadArgument);
    EXPECT_EQ(thrownCode([&] { view.pageRotation(2); }), codes::kBadArgument);
}

// ---- the service object ---------------------------------------------------------------------

TEST_F(ViewTest, TheViewObjectAnswersThroughItsTable) {
    ObjectPtr so;
    ASSERT_EQ(ServiceProviderGetServiceObject(atom("QFDocumentView"), so.put(), nullptr), 0u);
    ASSERT_EQ(so.get(), view.object());
    ServiceObject* self = so.get();
    auto* t = viewTable(self);

    ObjectPtr document;
    ASSERT_EQ(t->GetDocument(self, document.put()), 0u);
    EXPECT_EQ(document.get(), doc.object());
    EXPECT_EQ(refs(doc.object()), 2);
    PDDoc pd = nullptr;
    ASSERT_EQ(t->GetPDDoc(self, &pd), 0u);
    EXPECT_EQ(pd, doc.pdDoc());
    PDHandleRelease(pd);

    int64_t page = 9;
    EXPECT_EQ(t->GetPageIndexAtPoint(self, 100, 1216, &page), 0u);
    EXPECT_EQ(page, 1);
    EXPECT_EQ(t->GetPageIndexAtPoint(self, 100, 1210, &page), 0u);
    EXPECT_EQ(page, -1);
    float point[2] = {};
    int32_t pixel[2] = {}, rect[4] = {};
    EXPECT_EQ(t->ViewToPage(self, 1, 16, 1216, point), 0u);
    EXPECT_EQ(point[0], 0.0f);
    EXPECT_EQ(point[1], 0.0f);
    const float corner[2] = {0, 792};
    EXPECT_EQ(t->PageToView(self, 1, corner, pixel), 0u);
    EXPECT_EQ((std::array{pixel[0], pixel[1]}), (std::array{1204, 1216}));
    view.setRotation(90);
    uint32_t degrees = 0;
    float zoom = 0;
    EXPECT_EQ(t->GetRotation(self, &degrees), 0u);
    EXPECT_EQ(degrees, 90u);
    EXPECT_EQ(t->GetZoom(self, &zoom), 0u);
    EXPECT_EQ(zoom, 1.5f);
    EXPECT_EQ(t->GetPageViewRect(self, 1, rect), 0u);
    EXPECT_EQ((Rect{rect[0], rect[1], rect[2], rect[3]}), rectOf(view.pageRect(1)));

    // What tools ask of the view.
    const float frame[4] = {10, 80, 60, 20};
    EXPECT_EQ(t->Redraw(self), 0u);
    EXPECT_EQ(t->SetCursor(self, 7), 0u);
    EXPECT_EQ(t->ShowFrame(self, 1, frame, 0xFF0078D7), 0u);
    EXPECT_EQ(t->CaptureDrag(self, 1), 0u);
    EXPECT_EQ(t->ReleaseAnnotFocus(self), 0u);
    EXPECT_EQ(t->ShowContextMenu(self, atom("Widget"), 5, 6, 1), 0u);
    EXPECT_EQ(view.redrawCount(), 1u);
    EXPECT_EQ(view.cursor(), 7u);
    ASSERT_TRUE(view.frame());
    EXPECT_EQ(view.frame()->pageIndex, 1u);
    EXPECT_EQ(view.frame()->rect.top, 80.0f);
    EXPECT_EQ(view.frame()->argb, 0xFF0078D7u);
    EXPECT_TRUE(view.dragCaptured());
    EXPECT_EQ(view.annotFocusReleases(), 1u);
    ASSERT_EQ(view.contextMenus().size(), 1u);
    EXPECT_EQ(view.contextMenus()[0].kind, "Widget");
    EXPECT_EQ(view.contextMenus()[0].pageIndex, 1u);
    EXPECT_EQ(t->ShowFrame(self, -1, nullptr, 0), 0u);
    EXPECT_FALSE(view.frame());
}

// ---- tools ----------------------------------------------------------------------------------

TEST_F(ViewTest, AToolWorksOnTheViewUntilItFinishes) {
    ObjectPtr factory = makeFactory(log);
    host.tasks().tools().put(atom("ViewTestTool"), factory.get());
    ASSERT_EQ(view.activateTool("ViewTestTool"), 0u);
    EXPECT_EQ(log.views, std::vector<ServiceObject*>{view.object()});
    EXPECT_EQ(log.contexts, std::vector<ServiceObject*>{nullptr});
    EXPECT_EQ(view.activeToolName(), "ViewTestTool");
    EXPECT_EQ(host.tasks().activeTool().get(), view.activeTool().get());
    EXPECT_EQ(log.connects, 1);

    bool handled = false;
    EXPECT_EQ(view.sendEvent(event(QF::kEventButtonDown), &handled), 0u);
    EXPECT_TRUE(handled);
    EXPECT_EQ(view.cursor(), 5u);  // set by the tool through the view object

    // Properties changed: the sheet is cleared and read again.
    ServiceObject* area = host.properties().area(u"ToolArea");
    SODetails::methods<QF::PropertyAreaTable>(area)->AddProperty(area, makeProperty().get());
    EXPECT_EQ(view.sendEvent(event(QF::kEventCommand)), 0u);
    EXPECT_EQ(view.propertiesChangedCount(), 1u);
    EXPECT_EQ(log.sheetReads, 1);
    auto sheet = host.properties().properties(u"ToolArea");
    ASSERT_EQ(sheet.size(), 1u);
    EXPECT_EQ(sheet[0].get(), log.lastProperty);
    EXPECT_EQ(view.refreshToolProperties(), 0u);
    EXPECT_EQ(host.properties().properties(u"ToolArea").size(), 1u);

    // A right button up finishes the tool: disconnected, terminated once, dropped.
    EXPECT_EQ(view.sendEvent(event(QF::kEventButtonUp, QF::kButtonRight)), 0u);
    EXPECT_EQ(log.events, (std::vector<uint32_t>{2, 0, 3}));
    EXPECT_EQ(log.disconnects, 1);
    EXPECT_EQ(log.terminated, 1);
    EXPECT_FALSE(view.activeTool());
    EXPECT_FALSE(host.tasks().activeTool());
    EXPECT_EQ(view.activeToolName(), "");
    EXPECT_EQ(view.sendEvent(event(QF::kEventMove), &handled), 1u);
    EXPECT_EQ(view.refreshToolProperties(), 1u);
}

TEST_F(ViewTest, ActivationReplacesTerminatesAndReportsFailures) {
    ObjectPtr factory = makeFactory(log), failing = makeFactory(log, 0x33);
    static const QF::InputHandlerTable unconnected = [] {
        QF::InputHandlerTable t = kFakeToolTable;
        t.ConnectPropertiesChanged = nullptr;
        return t;
    }();
    ObjectPtr quiet = makeFactory(log, 0, unconnected);
    host.tasks().tools().put(atom("ViewTestTool"), factory.get());
    host.tasks().tools().put(atom("FailingTool"), failing.get());
    host.tasks().tools().put(atom("QuietTool"), quiet.get());

    ASSERT_EQ(view.activateTool("ViewTestTool"), 0u);
    ObjectPtr first = view.activeTool();
    view.sendEvent(event(QF::kEventCommand));
    ASSERT_EQ(view.activateTool("ViewTestTool"), 0u);
    EXPECT_NE(view.activeTool().get(), first.get());
    EXPECT_EQ(log.terminated, 1);
    EXPECT_EQ(log.disconnects, 1);
    EXPECT_EQ(log.connects, 2);
    EXPECT_EQ(view.propertiesChangedCount(), 0u);

    EXPECT_EQ(view.activateTool("QuietTool"), 0u);
    EXPECT_EQ(log.terminated, 2);
    EXPECT_EQ(log.connects, 2);
    EXPECT_EQ(view.activateTool("FailingTool"), 0x33u);
    EXPECT_EQ(view.activateTool("NoSuchTool"), 0x10005u);
    EXPECT_FALSE(view.activeTool());
    EXPECT_EQ(log.terminated, 3);  // the quiet tool; the failing one never started

    // Host::releaseModuleObjects ends the view's tool once.
    ASSERT_EQ(view.activateTool("ViewTestTool"), 0u);
    host.releaseModuleObjects();
    EXPECT_EQ(log.terminated, 4);
    EXPECT_FALSE(view.activeTool());
}

TEST_F(ViewTest, TheViewObjectAnswersDocumentClosedOnceTheViewIsGone) {
    ObjectPtr factory = makeFactory(log);
    host.tasks().tools().put(atom("ViewTestTool"), factory.get());
    ASSERT_EQ(view.activateTool("ViewTestTool"), 0u);
    ObjectPtr tool = view.activeTool();  // keeps its reference to the view object
    ServiceObject* self = fake(tool.get()).view.get();
    host.closeView(view);
    EXPECT_EQ(log.terminated, 1);
    EXPECT_EQ(log.disconnects, 1);

    // The block the tool kept answers that the view is gone (every method of it is in
    // AbiBadArgumentsTest).
    PDDoc pd = nullptr;
    EXPECT_EQ(viewTable(self)->GetPDDoc(self, &pd), codes::kDocumentClosed);
    EXPECT_EQ(viewTable(self)->Redraw(self), codes::kDocumentClosed);
    EXPECT_EQ(pd, nullptr);
}

}  // namespace
