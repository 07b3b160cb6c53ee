#include "qfhost/View.h"

#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "PdfcoreText.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

namespace qfhost {

namespace detail {

// A page's crop box (normalised) and its own /Rotate, as the layout reads them.
struct PageGeometry {
    double left, bottom, width, height;
    uint32_t rotation;
};

// What a View knows. The View owns it; its "QFDocumentView" block points here until the
// View is destroyed.
struct ViewState {
    View* owner = nullptr;
    Host* host = nullptr;
    Document* doc = nullptr;
    float zoom = 1.0f;
    uint32_t rotation = 0;

    // The active tool, its name and the connection to its properties-changed signal.
    ObjectPtr tool;
    std::string toolName;
    bool connected = false;
    uint64_t connection = 0;
    uint32_t propertiesChanged = 0;

    // What tools asked of the view.
    uint32_t cursor = 0;
    uint32_t redraws = 0;
    bool dragCaptured = false;
    uint32_t focusReleases = 0;
    std::optional<View::Frame> frame;
    std::vector<View::ContextMenuRequest> menus;

    // The view's own drag: the last point it followed, while one runs; the sum of its moves.
    std::optional<std::array<int32_t, 2>> dragAt;
    std::array<int32_t, 2> panned{0, 0};

    int64_t focusPage = -1;
    uint32_t annotFocusPage = 0;
    Held annotFocus;

    // The layout, read once: the pages' geometry (read again when the page count
    // changes; the host does not change boxes or turns of a viewed document), and the top
    // of every page for the zoom and rotation it was worked out for.
    mutable std::vector<PageGeometry> geometry;
    mutable std::vector<int64_t> tops;
    mutable float topsZoom = 0;
    mutable uint32_t topsRotation = 0;

    // Subscriptions made through the service object, by connection number.
    std::map<uint64_t, boost::signals2::connection> connections;
    uint64_t nextConnection = 1;
};

}  // namespace detail

namespace {

using detail::Held;
using detail::ViewState;

// The view methods' answer for a page index past the pages.
constexpr uint32_t kNoSuchPage = 5;

// Inside the "QFDocumentView" block: the view's state, null once the View is gone.
struct ViewObject {
    ViewState* state = nullptr;
};

ViewObject& viewObject(ServiceObject* so) {
    return SODetails::implOf<QF::DocumentViewTable, ViewObject>(so);
}

QF::InputHandlerTable* toolTable(ServiceObject* tool) {
    return SODetails::methods<QF::InputHandlerTable>(tool);
}

// ---- layout -----------------------------------------------------------------------------

// A page as the layout sees it: its crop box in points (normalised) and the turn it is
// shown with, clockwise.
struct PageBox {
    double left, bottom, width, height;
    uint32_t rotation;
};

bool quarterTurn(uint32_t rotation) { return rotation == 90 || rotation == 270; }

// A page reference of pdfcore, dropped at scope exit.
struct PageHandle {
    PDPage page = nullptr;
    PageHandle() = default;
    ~PageHandle() { PDHandleRelease(page); }
    PageHandle(const PageHandle&) = delete;
    PageHandle& operator=(const PageHandle&) = delete;
};

// The geometry of every page of the document, read when the view has none for its page
// count. Throws HostError(kPdfFailure) when pdfcore refuses.
const std::vector<detail::PageGeometry>& geometryOf(const ViewState& s) {
    const uint32_t count = s.doc->pageCount();
    if (s.geometry.size() == count) return s.geometry;
    std::vector<detail::PageGeometry> read;
    read.reserve(count);
    for (uint32_t index = 0; index < count; ++index) {
        PageHandle page;
        PDRect box{};
        int32_t degrees = 0;
        PDResult rc = PDDocGetPage(s.doc->pdDoc(), index, &page.page);
        if (rc == PD_OK) rc = PDPageGetBox(page.page, PD_BOX_CROP, &box);
        if (rc == PD_OK) rc = PDPageGetRotate(page.page, &degrees);
        if (rc != PD_OK) {
            throw HostError(codes::kPdfFailure,
                            detail::pdfcoreFailure("cannot read page " + std::to_string(index), rc));
        }
        read.push_back({std::min(box.left, box.right), std::min(box.bottom, box.top),
                        std::abs(double(box.right) - box.left),
                        std::abs(double(box.top) - box.bottom),
                        static_cast<uint32_t>(((degrees % 360) + 360) % 360)});
    }
    s.geometry = std::move(read);
    s.tops.clear();
    return s.geometry;
}

// Page index as the view shows it. Throws HostError: kDocumentClosed, kBadArgument past
// the pages, kPdfFailure when pdfcore refuses.
PageBox pageBox(const ViewState& s, uint32_t index) {
    if (!s.doc->pdDoc()) throw HostError(codes::kDocumentClosed, "the document is closed");
    if (index >= s.doc->pageCount()) {
        throw HostError(codes::kBadArgument, "no page " + std::to_string(index));
    }
    const detail::PageGeometry& g = geometryOf(s)[index];
    return PageBox{g.left, g.bottom, g.width, g.height, (g.rotation + s.rotation) % 360};
}

int32_t narrow(double pixels) {
    if (!std::isfinite(pixels) || pixels > std::numeric_limits<int32_t>::max() ||
        pixels < std::numeric_limits<int32_t>::min()) {
        throw HostError(codes::kBadArgument, "a view position beyond 32-bit pixels");
    }
    return static_cast<int32_t>(pixels);
}

// The page's size on screen: the turned crop box scaled and rounded.
struct Extent {
    int64_t width, height;
};
Extent extent(const PageBox& b, float zoom) {
    double w = quarterTurn(b.rotation) ? b.height : b.width;
    double h = quarterTurn(b.rotation) ? b.width : b.height;
    return {narrow(std::round(w * zoom)), narrow(std::round(h * zoom))};
}

View::PixelRect rectAt(int64_t top, const Extent& e) {
    return View::PixelRect{View::kMargin, narrow(double(top)),
                           narrow(double(View::kMargin + e.width)),
                           narrow(double(top + e.height))};
}

// The top of every page, pages one under another, for the view's zoom and rotation.
const std::vector<int64_t>& topsOf(const ViewState& s) {
    const uint32_t count = s.doc->pageCount();
    geometryOf(s);
    if (s.tops.size() == count && s.topsZoom == s.zoom && s.topsRotation == s.rotation)
        return s.tops;
    std::vector<int64_t> tops;
    tops.reserve(count);
    int64_t top = View::kMargin;
    for (uint32_t i = 0; i < count; ++i) {
        tops.push_back(top);
        top += extent(pageBox(s, i), s.zoom).height + View::kPageGap;
    }
    s.tops = std::move(tops);
    s.topsZoom = s.zoom;
    s.topsRotation = s.rotation;
    return s.tops;
}

// Where page index is drawn; box (optional) receives the page as read.
View::PixelRect placeOf(const ViewState& s, uint32_t index, PageBox* box = nullptr) {
    PageBox b = pageBox(s, index);  // checks the index
    if (box) *box = b;
    return rectAt(topsOf(s)[index], extent(b, s.zoom));
}

int64_t pageAtPoint(const ViewState& s, int32_t x, int32_t y) {
    if (s.doc->pageCount() == 0) return -1;
    const std::vector<int64_t>& tops = topsOf(s);
    // The last page starting at or above y; y may lie in the gap below it.
    const auto after = std::upper_bound(tops.begin(), tops.end(), int64_t{y});
    if (after == tops.begin()) return -1;
    const uint32_t i = static_cast<uint32_t>(after - tops.begin() - 1);
    const Extent e = extent(pageBox(s, i), s.zoom);
    if (y > tops[i] + e.height) return -1;
    const bool inside = x >= View::kMargin && x <= View::kMargin + e.width;
    return inside ? static_cast<int64_t>(i) : -1;
}

std::array<float, 2> viewToPagePoint(const ViewState& s, uint32_t index, int32_t x,
                                     int32_t y) {
    PageBox b{};
    View::PixelRect r = placeOf(s, index, &b);
    double dx = (double(x) - r.left) / s.zoom;
    double dy = (double(y) - r.top) / s.zoom;
    double u = 0, v = 0;
    switch (b.rotation) {
    case 90:
        u = dy;
        v = dx;
        break;
    case 180:
        u = b.width - dx;
        v = dy;
        break;
    case 270:
        u = b.width - dy;
        v = b.height - dx;
        break;
    default:
        u = dx;
        v = b.height - dy;
        break;
    }
    return {float(b.left + u), float(b.bottom + v)};
}

// Where page point (x, y) falls in view pixels, before any rounding.
std::array<double, 2> pageToViewExact(const ViewState& s, uint32_t index, float x, float y) {
    if (!std::isfinite(x) || !std::isfinite(y)) {
        throw HostError(codes::kBadArgument, "a page point that is not finite");
    }
    PageBox b{};
    View::PixelRect r = placeOf(s, index, &b);
    double u = double(x) - b.left, v = double(y) - b.bottom;
    double dx = 0, dy = 0;
    switch (b.rotation) {
    case 90:
        dx = v;
        dy = u;
        break;
    case 180:
        dx = b.width - u;
        dy = v;
        break;
    case 270:
        dx = b.height - v;
        dy = b.width - u;
        break;
    default:
        dx = u;
        dy = b.height - v;
        break;
    }
    return {r.left + s.zoom * dx, r.top + s.zoom * dy};
}

std::array<int32_t, 2> pageToViewPoint(const ViewState& s, uint32_t index, float x, float y) {
    auto p = pageToViewExact(s, index, x, y);
    return {narrow(std::round(p[0])), narrow(std::round(p[1]))};
}

std::array<float, 2> pageToViewPrecisePoint(const ViewState& s, uint32_t index, float x,
                                            float y) {
    auto p = pageToViewExact(s, index, x, y);
    narrow(p[0]);  // the same bounds as the rounded mapping
    narrow(p[1]);
    return {float(p[0]), float(p[1])};
}

// ---- the properties-changed signal ------------------------------------------------------

// Runs inside the tool's call: context is the view's state, which disconnects before the
// tool goes or the state dies. Nothing may unwind into the tool.
void onPropertiesChanged(void* context, ServiceObject*) {
    auto* s = static_cast<ViewState*>(context);
    if (!s || !s->owner || !s->tool) return;
    try {
        ++s->propertiesChanged;
        s->owner->refreshToolProperties();
    } catch (...) {
        // the sheet stays as it was
    }
}

// ---- QFDocumentView ---------------------------------------------------------------------

// Runs f on the view's state: kDocumentClosed once the View or its document is gone, the
// code of a HostError, 4 for anything else.
template <typename F>
uint32_t withView(ServiceObject* self, F&& f) {
    return detail::guarded([&]() -> uint32_t {
        ViewState* s = viewObject(self).state;
        if (!s || !s->doc->isOpen()) return codes::kDocumentClosed;
        try {
            return f(*s);
        } catch (const HostError& e) {
            return e.code();
        }
    });
}

bool hasPage(const ViewState& s, uint64_t index) { return index < s.doc->pageCount(); }

// Drops a subscription made through the service object; 1 for an unknown one.
uint32_t disconnect(ViewState& s, uint64_t connection) {
    auto it = s.connections.find(connection);
    if (it == s.connections.end()) return codes::kNegative;
    it->second.disconnect();
    s.connections.erase(it);
    return codes::kOk;
}

// Connects proc(context, view, pageIndex) to one of the view's page events.
template <typename Proc>
uint32_t connectPageEvent(ServiceObject* self, Proc proc, void* context, uint64_t* outConnection,
                          boost::signals2::signal<void(uint64_t)> View::*event) {
    return withView(self, [&](ViewState& s) -> uint32_t {
        if (!proc || !outConnection) return codes::kBadArgument;
        *outConnection = s.nextConnection++;
        s.connections[*outConnection] = (s.owner->*event).connect(
            [proc, context, self](uint64_t pageIndex) { proc(context, self, pageIndex); });
        return codes::kOk;
    });
}

const QF::DocumentViewTable kViewTable = {
    // GetDocument
    [](ServiceObject* self, ServiceObject** out) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!out) return codes::kBadArgument;
            ServiceObject* doc = s.doc->object();
            SODetails::addRef(doc);
            *out = doc;
            return codes::kOk;
        });
    },
    // GetPDDoc
    [](ServiceObject* self, PDDoc* out) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!out) return codes::kBadArgument;
            PDDoc doc = s.doc->pdDoc();
            if (PDHandleAcquire(doc) != PD_OK) return codes::kPdfFailure;
            *out = doc;
            return codes::kOk;
        });
    },
    // GetPageIndexAtPoint
    [](ServiceObject* self, int32_t x, int32_t y, int64_t* outPage) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!outPage) return codes::kBadArgument;
            *outPage = pageAtPoint(s, x, y);
            return codes::kOk;
        });
    },
    // ViewToPage
    [](ServiceObject* self, uint64_t pageIndex, int32_t x, int32_t y,
       float* outPoint) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!outPoint) return codes::kBadArgument;
            if (!hasPage(s, pageIndex)) return kNoSuchPage;
            auto p = viewToPagePoint(s, static_cast<uint32_t>(pageIndex), x, y);
            outPoint[0] = p[0];
            outPoint[1] = p[1];
            return codes::kOk;
        });
    },
    // PageToView
    [](ServiceObject* self, uint64_t pageIndex, const float* point,
       int32_t* outPoint) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!point || !outPoint) return codes::kBadArgument;
            if (!hasPage(s, pageIndex)) return kNoSuchPage;
            auto p = pageToViewPoint(s, static_cast<uint32_t>(pageIndex), point[0], point[1]);
            outPoint[0] = p[0];
            outPoint[1] = p[1];
            return codes::kOk;
        });
    },
    // GetRotation
    [](ServiceObject* self, uint32_t* outDegrees) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!outDegrees) return codes::kBadArgument;
            *outDegrees = s.rotation;
            return codes::kOk;
        });
    },
    // GetZoom
    [](ServiceObject* self, float* out) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!out) return codes::kBadArgument;
            *out = s.zoom;
            return codes::kOk;
        });
    },
    // GetPageViewRect
    [](ServiceObject* self, uint64_t pageIndex, int32_t* outRect) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!outRect) return codes::kBadArgument;
            if (!hasPage(s, pageIndex)) return kNoSuchPage;
            View::PixelRect r = placeOf(s, static_cast<uint32_t>(pageIndex));
            outRect[0] = r.left;
            outRect[1] = r.top;
            outRect[2] = r.right;
            outRect[3] = r.bottom;
            return codes::kOk;
        });
    },
    // Redraw
    [](ServiceObject* self) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            ++s.redraws;
            return codes::kOk;
        });
    },
    // SetCursor
    [](ServiceObject* self, uint32_t shape) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            s.cursor = shape;
            return codes::kOk;
        });
    },
    // ShowFrame
    [](ServiceObject* self, int64_t pageIndex, const float* rect, uint32_t argb) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (pageIndex == -1) {
                s.frame.reset();
                return codes::kOk;
            }
            if (pageIndex < 0 || !rect) return codes::kBadArgument;
            if (!hasPage(s, static_cast<uint64_t>(pageIndex))) return kNoSuchPage;
            s.frame = View::Frame{static_cast<uint32_t>(pageIndex),
                                  PDRect{rect[0], rect[1], rect[2], rect[3]}, argb};
            return codes::kOk;
        });
    },
    // CaptureDrag
    [](ServiceObject* self, uint8_t capture) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            s.dragCaptured = capture != 0;
            return codes::kOk;
        });
    },
    // ReleaseAnnotFocus
    [](ServiceObject* self) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            ++s.focusReleases;
            s.annotFocus = Held();
            return codes::kOk;
        });
    },
    // ShowContextMenu
    [](ServiceObject* self, uint32_t kindAtom, int32_t x, int32_t y,
       uint64_t pageIndex) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            const char* kind = nullptr;
            if (KRGetStringFromAtom(kindAtom, &kind) != KR_OK || !kind) {
                return codes::kBadArgument;
            }
            if (!hasPage(s, pageIndex)) return kNoSuchPage;
            s.menus.push_back(View::ContextMenuRequest{kind, x, y, pageIndex});
            return codes::kOk;
        });
    },
    // StartViewDrag
    [](ServiceObject* self, int32_t x, int32_t y) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            s.dragAt = std::array<int32_t, 2>{x, y};
            return codes::kOk;
        });
    },
    // ContinueViewDrag
    [](ServiceObject* self, int32_t x, int32_t y) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!s.dragAt) return codes::kNegative;
            // Pixels are 32-bit; the sums saturate rather than wrap.
            for (int i = 0; i < 2; ++i) {
                const int64_t moved = int64_t(i ? y : x) - (*s.dragAt)[i] + s.panned[i];
                s.panned[i] = static_cast<int32_t>(
                    std::clamp<int64_t>(moved, std::numeric_limits<int32_t>::min(),
                                        std::numeric_limits<int32_t>::max()));
            }
            s.dragAt = std::array<int32_t, 2>{x, y};
            return codes::kOk;
        });
    },
    // SetAnnotFocus
    [](ServiceObject* self, uint64_t pageIndex, PDAnnot annot) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!annot) {
                s.annotFocus = Held();
                return codes::kOk;
            }
            if (!hasPage(s, pageIndex)) return codes::kBadArgument;
            Held page;
            uint32_t at = 0;
            if (PDDocGetPage(s.doc->pdDoc(), static_cast<uint32_t>(pageIndex), page.put()) !=
                    PD_OK ||
                PDPageGetAnnotIndex(page.get(), annot, &at) != PD_OK)
                return codes::kBadArgument;
            s.annotFocus = Held::share(annot);
            s.annotFocusPage = static_cast<uint32_t>(pageIndex);
            return codes::kOk;
        });
    },
    // GetFocusPage
    [](ServiceObject* self, int64_t* outPage) -> uint32_t {
        return withView(self, [&](ViewState& s) -> uint32_t {
            if (!outPage) return codes::kBadArgument;
            *outPage = s.focusPage;
            return codes::kOk;
        });
    },
    // ConnectDrawPageView
    [](ServiceObject* self, QF::DrawPageViewProc proc, void* context,
       uint64_t* outConnection) -> uint32_t {
        return connectPageEvent(self, proc, context, outConnection, &View::OnDrawPageView);
    },
    // DisconnectDrawPageView
    [](ServiceObject* self, uint64_t connection) -> uint32_t {
        return withView(self, [&](ViewState& s) { return disconnect(s, connection); });
    },
    // ConnectFocusPageChanged
    [](ServiceObject* self, QF::FocusPageChangedProc proc, void* context,
       uint64_t* outConnection) -> uint32_t {
        return connectPageEvent(self, proc, context, outConnection, &View::OnFocusPageChanged);
    },
    // DisconnectFocusPageChanged
    [](ServiceObject* self, uint64_t connection) -> uint32_t {
        return withView(self, [&](ViewState& s) { return disconnect(s, connection); });
    },
};

}  // namespace

// ---- View -------------------------------------------------------------------------------

View::View(Host& host, Document& doc) : state_(std::make_unique<detail::ViewState>()) {
    state_->owner = this;
    state_->host = &host;
    state_->doc = &doc;
    object_ = ObjectPtr::adopt(detail::makeHostObject<QF::DocumentViewTable, ViewObject>(
        QF::kDocumentViewId, kName, detail::kDocumentViewImplId, kViewTable));
    viewObject(object_.get()).state = state_.get();
}

View::~View() {
    try {
        deactivateTool();
    } catch (...) {
        // a failing repository lock: the tool is dropped with the state all the same
    }
    for (auto& [id, connection] : state_->connections) connection.disconnect();
    viewObject(object_.get()).state = nullptr;
    state_->owner = nullptr;
}

ServiceObject* View::object() const { return object_.get(); }
Document& View::document() const { return *state_->doc; }

void View::setZoom(float zoom) {
    if (!std::isfinite(zoom) || !(zoom > 0)) {
        throw HostError(codes::kBadArgument, "the zoom must be positive and finite");
    }
    state_->zoom = zoom;
}
float View::zoom() const { return state_->zoom; }

void View::setRotation(uint32_t degrees) {
    if (degrees != 0 && degrees != 90 && degrees != 180 && degrees != 270) {
        throw HostError(codes::kBadArgument, "a view rotation of " + std::to_string(degrees));
    }
    state_->rotation = degrees;
}
uint32_t View::rotation() const { return state_->rotation; }

uint32_t View::pageRotation(uint32_t pageIndex) const {
    return pageBox(*state_, pageIndex).rotation;
}

View::PixelRect View::pageRect(uint32_t pageIndex) const { return placeOf(*state_, pageIndex); }

int64_t View::pageAt(int32_t x, int32_t y) const { return pageAtPoint(*state_, x, y); }

std::array<float, 2> View::viewToPage(uint32_t pageIndex, int32_t x, int32_t y) const {
    return viewToPagePoint(*state_, pageIndex, x, y);
}

std::array<int32_t, 2> View::pageToView(uint32_t pageIndex, float x, float y) const {
    return pageToViewPoint(*state_, pageIndex, x, y);
}

std::array<float, 2> View::pageToViewPrecise(uint32_t pageIndex, float x, float y) const {
    return pageToViewPrecisePoint(*state_, pageIndex, x, y);
}

// ---- tools ------------------------------------------------------------------------------

uint32_t View::activateTool(const std::string& name, ServiceObject* context) {
    deactivateTool();
    detail::ViewState& s = *state_;
    s.propertiesChanged = 0;
    uint32_t atom = 0;
    if (name.empty() || KRGetAtomFromString(name.c_str(), &atom) != KR_OK) {
        return codes::kBadArgument;
    }
    ObjectPtr tool;
    uint32_t rc = s.host->tasks().activateTool(atom, object_.get(), tool.put(), context);
    if (rc != codes::kOk) return rc;
    if (!tool) return codes::kFactoryFailed;
    s.tool = tool;
    s.toolName = name;
    if (SODetails::hasMethod(tool.get(), 10)) {
        uint64_t connection = 0;
        if (toolTable(tool.get())->ConnectPropertiesChanged(tool.get(), &onPropertiesChanged, &s,
                                                            &connection) == codes::kOk) {
            s.connected = true;
            s.connection = connection;
        }
    }
    return codes::kOk;
}

ObjectPtr View::activeTool() const { return state_->tool; }
std::string View::activeToolName() const { return state_->toolName; }

void View::deactivateTool() {
    detail::ViewState& s = *state_;
    ObjectPtr tool = std::exchange(s.tool, ObjectPtr());
    s.toolName.clear();
    if (!tool) return;
    if (std::exchange(s.connected, false) && SODetails::hasMethod(tool.get(), 11)) {
        toolTable(tool.get())->DisconnectPropertiesChanged(tool.get(), s.connection);
    }
    // The repository terminates the tool it drops. A tool it no longer holds was replaced
    // there by a newer one (another view's) and terminated at that moment: Terminate runs
    // once either way.
    TasksRepository& tasks = s.host->tasks();
    if (tasks.activeTool().get() == tool.get()) tasks.deactivate();
}

uint32_t View::sendEvent(const QF::InputEvent& event, bool* handled) {
    if (handled) *handled = false;
    if (event.type == QF::kEventButtonDown) {
        const int64_t page = pageAt(event.x, event.y);
        if (page >= 0) setFocusPage(static_cast<uint32_t>(page));
    }
    ObjectPtr tool = state_->tool;  // alive through the call, whatever the tool does
    if (!tool) return codes::kNegative;
    if (!SODetails::hasMethod(tool.get(), 4)) return codes::kNotInitialized;
    uint8_t answer = 0;
    uint32_t rc = toolTable(tool.get())->HandleEvent(tool.get(), &event, &answer);
    if (handled) *handled = answer != 0;
    uint8_t finished = 0;
    if (state_->tool.get() == tool.get() && SODetails::hasMethod(tool.get(), 3) &&
        toolTable(tool.get())->IsFinished(tool.get(), &finished) == codes::kOk && finished) {
        deactivateTool();
    }
    return rc;
}

uint32_t View::refreshToolProperties() {
    ObjectPtr tool = state_->tool;
    if (!tool) return codes::kNegative;
    state_->host->properties().clear();
    if (!SODetails::hasMethod(tool.get(), 9)) return codes::kNotInitialized;
    ObjectPtr context;
    return toolTable(tool.get())->GetToolProperties(tool.get(), context.put());
}

uint32_t View::propertiesChangedCount() const { return state_->propertiesChanged; }

// ---- events -----------------------------------------------------------------------------

void View::drawPage(uint32_t pageIndex) {
    if (!hasPage(*state_, pageIndex)) {
        throw HostError(codes::kBadArgument, "no page " + std::to_string(pageIndex));
    }
    OnDrawPageView(pageIndex);
}

int64_t View::focusPage() const { return state_->focusPage; }

void View::setFocusPage(uint32_t pageIndex) {
    if (!hasPage(*state_, pageIndex)) {
        throw HostError(codes::kBadArgument, "no page " + std::to_string(pageIndex));
    }
    if (std::exchange(state_->focusPage, int64_t{pageIndex}) == int64_t{pageIndex}) return;
    OnFocusPageChanged(pageIndex);
}

// ---- what tools asked of the view -------------------------------------------------------

uint32_t View::cursor() const { return state_->cursor; }
uint32_t View::redrawCount() const { return state_->redraws; }
bool View::dragCaptured() const { return state_->dragCaptured; }
uint32_t View::annotFocusReleases() const { return state_->focusReleases; }
std::optional<View::Frame> View::frame() const { return state_->frame; }
const std::vector<View::ContextMenuRequest>& View::contextMenus() const { return state_->menus; }
std::array<int32_t, 2> View::panned() const { return state_->panned; }

std::optional<View::AnnotFocus> View::annotFocus() const {
    if (!state_->annotFocus.get()) return std::nullopt;
    return AnnotFocus{state_->annotFocusPage, state_->annotFocus.get()};
}

}  // namespace qfhost
