#include "qfhost/Graphics.h"

#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "PdfcoreText.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

namespace qfhost {

// ---- the recorder -----------------------------------------------------------------------

namespace {

using detail::Held;

// PDF-style matrix a b c d e f, row vectors: x' = a x + c y + e, y' = b x + d y + f.
using Matrix = std::array<double, 6>;
constexpr Matrix kIdentity = {1, 0, 0, 1, 0, 0};

// m applied first, then n.
Matrix multiply(const Matrix& m, const Matrix& n) {
    return {m[0] * n[0] + m[1] * n[2],        m[0] * n[1] + m[1] * n[3],
            m[2] * n[0] + m[3] * n[2],        m[2] * n[1] + m[3] * n[3],
            m[4] * n[0] + m[5] * n[2] + n[4], m[4] * n[1] + m[5] * n[3] + n[5]};
}

}  // namespace

struct GraphicsService::State {
    // What SaveState saves.
    struct Graphics {
        uint32_t pen = kDefaultPen;
        float penWidth = 0;
        uint32_t dash = 0;
        uint32_t brush = 0;
        std::u16string fontFamily = kDefaultFont;
        float fontSize = kDefaultFontSize;
        Matrix ctm = kIdentity;
    };

    bool drawing = false;
    uint32_t page = 0;
    float pixelSize = 1;
    Graphics current;
    std::vector<Graphics> saved;
    std::map<uint32_t, std::vector<Item>> items;

    float scale() const {
        const Matrix& m = current.ctm;
        return static_cast<float>(std::sqrt(std::abs(m[0] * m[3] - m[1] * m[2])));
    }

    void addPoint(std::vector<float>& out, double x, double y) const {
        const Matrix& m = current.ctm;
        out.push_back(static_cast<float>(m[0] * x + m[2] * y + m[4]));
        out.push_back(static_cast<float>(m[1] * x + m[3] * y + m[5]));
    }

    // An item with the pen, brush and font in force.
    Item item(Item::Kind kind) const {
        Item it{};
        it.kind = kind;
        it.pen = current.pen;
        it.penWidth = current.penWidth * scale();
        it.dash = current.dash;
        it.brush = current.brush;
        it.fontFamily = current.fontFamily;
        it.fontSize = current.fontSize * scale();
        return it;
    }

    Item rect(Item::Kind kind, const PDRect& r) const {
        Item it = item(kind);
        it.points.reserve(8);
        addPoint(it.points, r.left, r.top);
        addPoint(it.points, r.right, r.top);
        addPoint(it.points, r.right, r.bottom);
        addPoint(it.points, r.left, r.bottom);
        return it;
    }

    void record(Item it) { items[page].push_back(std::move(it)); }
};

namespace detail {

// What the method table reaches of the service behind a block.
struct GraphicsAccess {
    using State = GraphicsService::State;
    static State& state(ServiceObject* so) {
        return *SODetails::implOf<QF::GraphicsServiceTable, GraphicsService>(so).state_;
    }
};

}  // namespace detail

namespace {

using Table = QF::GraphicsServiceTable;
using State = detail::GraphicsAccess::State;
using Item = GraphicsService::Item;

bool finite(float v) { return std::isfinite(v); }
bool finite(const PDRect& r) {
    return finite(r.left) && finite(r.top) && finite(r.right) && finite(r.bottom);
}

// Runs f on the state of a page being drawn: 2 outside a page, 4 for anything thrown.
template <typename F>
uint32_t onPage(ServiceObject* self, F&& f) {
    return detail::guarded([&]() -> uint32_t {
        State& s = detail::GraphicsAccess::state(self);
        if (!s.drawing) return codes::kNotInitialized;
        return f(s);
    });
}

const Table kTable = {
    // SaveState
    [](ServiceObject* self) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            s.saved.push_back(s.current);
            return codes::kOk;
        });
    },
    // RestoreState
    [](ServiceObject* self) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (s.saved.empty()) return codes::kNegative;
            s.current = std::move(s.saved.back());
            s.saved.pop_back();
            return codes::kOk;
        });
    },
    // Transform
    [](ServiceObject* self, const float* matrix) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!matrix || !std::all_of(matrix, matrix + 6, [](float v) { return finite(v); }))
                return codes::kBadArgument;
            Matrix m;
            std::copy(matrix, matrix + 6, m.begin());
            s.current.ctm = multiply(m, s.current.ctm);
            return codes::kOk;
        });
    },
    // SetPen
    [](ServiceObject* self, uint32_t argb, float width, uint32_t dash) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!finite(width) || width < 0 || dash > 2) return codes::kBadArgument;
            s.current.pen = argb;
            s.current.penWidth = width;
            s.current.dash = dash;
            return codes::kOk;
        });
    },
    // SetBrush
    [](ServiceObject* self, uint32_t argb) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            s.current.brush = argb;
            return codes::kOk;
        });
    },
    // SetFont
    [](ServiceObject* self, const char16_t* family, float size) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!family || !finite(size) || !(size > 0)) return codes::kBadArgument;
            s.current.fontFamily = family;
            s.current.fontSize = size;
            return codes::kOk;
        });
    },
    // DrawRect
    [](ServiceObject* self, const PDRect* rect) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!rect || !finite(*rect)) return codes::kBadArgument;
            s.record(s.rect(Item::Kind::Rect, *rect));
            return codes::kOk;
        });
    },
    // DrawPolygon
    [](ServiceObject* self, const float* points, uint64_t count) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!points || count == 0 || count > GraphicsService::kMaxPolygonPoints ||
                !std::all_of(points, points + 2 * count, [](float v) { return finite(v); }))
                return codes::kBadArgument;
            Item it = s.item(Item::Kind::Polygon);
            it.points.reserve(2 * count);
            for (uint64_t i = 0; i < count; ++i)
                s.addPoint(it.points, points[2 * i], points[2 * i + 1]);
            s.record(std::move(it));
            return codes::kOk;
        });
    },
    // DrawText
    [](ServiceObject* self, const char16_t* text, uint64_t length, float x, float y) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!text || !finite(x) || !finite(y)) return codes::kBadArgument;
            Item it = s.item(Item::Kind::Text);
            it.text.assign(text, length);
            s.addPoint(it.points, x, y);
            s.record(std::move(it));
            return codes::kOk;
        });
    },
    // DrawFrame
    [](ServiceObject* self, const PDRect* rect, uint32_t handles) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!rect || !finite(*rect) || handles > 1) return codes::kBadArgument;
            Item it = s.rect(Item::Kind::Frame, *rect);
            it.handles = handles;
            s.record(std::move(it));
            return codes::kOk;
        });
    },
    // GetPixelSize
    [](ServiceObject* self, float* out) -> uint32_t {
        return onPage(self, [&](State& s) -> uint32_t {
            if (!out) return codes::kBadArgument;
            *out = s.pixelSize;
            return codes::kOk;
        });
    },
};

}  // namespace

ServiceObject* GraphicsService::create() {
    return detail::makeHostObject<Table, GraphicsService>(
        QF::kGraphicsServiceId, kName, detail::kGraphicsServiceImplId, kTable);
}

GraphicsService& GraphicsService::of(ServiceObject* so) {
    return SODetails::implOf<Table, GraphicsService>(so);
}


GraphicsService::GraphicsService() : state_(new State) {}
GraphicsService::~GraphicsService() { delete state_; }

void GraphicsService::beginPage(uint32_t pageIndex, float pixelSize) {
    if (!std::isfinite(pixelSize) || !(pixelSize > 0)) {
        throw HostError(codes::kBadArgument, "the pixel size must be positive and finite");
    }
    endPage();
    state_->drawing = true;
    state_->page = pageIndex;
    state_->pixelSize = pixelSize;
}

void GraphicsService::endPage() {
    state_->drawing = false;
    state_->current = State::Graphics{};
    state_->saved.clear();
}

bool GraphicsService::drawing() const { return state_->drawing; }

std::vector<GraphicsService::Item> GraphicsService::items(uint32_t pageIndex) const {
    auto it = state_->items.find(pageIndex);
    return it == state_->items.end() ? std::vector<Item>{} : it->second;
}

void GraphicsService::clear() { state_->items.clear(); }

// ---- SVG --------------------------------------------------------------------------------

namespace {

// At most two decimals, no trailing zeros, no "-0"; independent of the locale.
std::string num(double v) {
    if (!std::isfinite(v)) return "0";
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 2);
    if (ec != std::errc()) return "0";
    std::string s(buf, end);
    if (s.find('.') != std::string::npos) {
        while (s.back() == '0') s.pop_back();
        if (s.back() == '.') s.pop_back();
    }
    if (s == "-0") s = "0";
    return s;
}

// Text for XML: characters XML cannot carry become U+FFFD, then UTF-8 with the five
// markup characters as entities.
std::string xmlText(std::u16string_view text) {
    std::u16string clean(text);
    for (char16_t& c : clean) {
        const bool control = c < 0x20 && c != u'\t' && c != u'\n' && c != u'\r';
        if (control || c == 0xFFFE || c == 0xFFFF) c = 0xFFFD;
    }
    size_t needed = 0;
    std::string utf8;
    if (KRConvertUTF16ToUTF8(clean.data(), clean.size(), nullptr, 0, &needed) == KR_OK &&
        needed) {
        utf8.resize(needed);
        if (KRConvertUTF16ToUTF8(clean.data(), clean.size(), utf8.data(), needed, &needed) !=
            KR_OK)
            utf8.clear();
    }
    std::string out;
    out.reserve(utf8.size());
    for (char c : utf8) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

// A PDF name for an attribute: printable ASCII as it is (markup escaped), other bytes #xx.
std::string xmlName(const char* name) {
    std::string out;
    for (const char* p = name; p && *p; ++p) {
        const auto b = static_cast<unsigned char>(*p);
        if (b <= 0x20 || b >= 0x7F || b == '#') {
            char hex[4];
            std::snprintf(hex, sizeof hex, "#%02X", b);
            out += hex;
        } else {
            out += xmlText(std::u16string(1, static_cast<char16_t>(b)));
        }
    }
    return out;
}

// fill="rgb(r,g,b)" fill-opacity="o", or fill="none" for alpha 0.
std::string paint(const char* property, uint32_t argb) {
    const uint32_t alpha = argb >> 24;
    if (alpha == 0) return std::string(" ") + property + "=\"none\"";
    return std::string(" ") + property + "=\"rgb(" + std::to_string((argb >> 16) & 0xFF) + "," +
           std::to_string((argb >> 8) & 0xFF) + "," + std::to_string(argb & 0xFF) + ")\" " +
           property + "-opacity=\"" + num(alpha / 255.0) + "\"";
}

// A stroke of width pixels (0: a hairline), dash 0 solid, 1 dashed, 2 dotted.
std::string stroke(uint32_t argb, double width, uint32_t dash) {
    const double w = width > 0 ? width : 1;
    std::string s = paint("stroke", argb) + " stroke-width=\"" + num(w) + "\"";
    if (dash == 1) s += " stroke-dasharray=\"" + num(4 * w) + " " + num(3 * w) + "\"";
    if (dash == 2) s += " stroke-dasharray=\"" + num(w) + " " + num(2 * w) + "\"";
    return s;
}

constexpr uint32_t kPageBorder = 0xFFA0A0A0;
constexpr uint32_t kWidgetColour = 0xFF0066CC;
constexpr uint32_t kFocusColour = 0xFF000000;
constexpr uint32_t kAnnotColour = 0xFFCC6600;
constexpr double kLabelSize = 9;  // pixels
constexpr double kGripSize = 6;   // pixels

// The fully qualified name of a widget's field; empty when it has none or it cannot be
// read.
std::u16string fieldNameOf(PDAnnot widget) {
    Held field;
    if (PDWidgetAnnotGetParent(widget, field.put()) != PD_OK || !field.get()) return {};
    PDField f = field.get();
    uint32_t len = 0;
    PDResult rc = PDFieldGetFullName(f, nullptr, 0, &len);
    if ((rc != PD_OK && rc != PD_ERR_BUFFER_SMALL) || len == 0) return {};
    std::u16string name(len + 1, u'\0');
    uint32_t got = 0;
    if (PDFieldGetFullName(f, name.data(), static_cast<uint32_t>(name.size()), &got) != PD_OK)
        return {};
    name.resize(std::min(got, len));
    return name;
}

// The name of the type (/FT) of a widget's field; null when it has none.
const char* fieldTypeOf(PDAnnot widget) {
    Held field;
    PDAtom type = 0;
    const char* name = nullptr;
    if (PDWidgetAnnotGetParent(widget, field.put()) != PD_OK || !field.get() ||
        PDFieldGetType(field.get(), &type) != PD_OK || PDAtomGetString(type, &name) != PD_OK)
        return nullptr;
    return name;
}

// Writes one page of a view.
class PageWriter {
public:
    PageWriter(View& view, uint32_t pageIndex) : view_(view), page_(pageIndex) {
        const View::PixelRect r = view.pageRect(pageIndex);
        left_ = r.left;
        top_ = r.top;
        width_ = r.right - r.left;
        height_ = r.bottom - r.top;
        // The view's mapping of a page is affine (quarter turns, a scale, a shift): read it
        // once at three points rather than asking the view for every point drawn.
        const auto o = view.pageToViewPrecise(pageIndex, 0, 0);
        const auto ex = view.pageToViewPrecise(pageIndex, 1, 0);
        const auto ey = view.pageToViewPrecise(pageIndex, 0, 1);
        origin_ = {double(o[0]) - left_, double(o[1]) - top_};
        xAxis_ = {double(ex[0]) - o[0], double(ex[1]) - o[1]};
        yAxis_ = {double(ey[0]) - o[0], double(ey[1]) - o[1]};
    }

    // Page point to pixels of the page.
    std::array<double, 2> map(double x, double y) const {
        return {origin_[0] + x * xAxis_[0] + y * yAxis_[0],
                origin_[1] + x * xAxis_[1] + y * yAxis_[1]};
    }

    void begin(bool withPage) {
        const std::string w = std::to_string(width_), h = std::to_string(height_);
        out_ += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + w + "\" height=\"" + h +
                "\" viewBox=\"0 0 " + w + " " + h + "\">\n";
        if (!withPage) return;
        out_ += "<g id=\"page\"><rect x=\"0.5\" y=\"0.5\" width=\"" +
                num(std::max(0, width_ - 1)) + "\" height=\"" + num(std::max(0, height_ - 1)) +
                "\"" + paint("fill", 0xFFFFFFFF) + stroke(kPageBorder, 1, 0) + "/></g>\n";
    }

    void annotations(PDDoc doc) {
        Held page;
        uint32_t count = 0;
        PDResult rc = PDDocGetPage(doc, page_, page.put());
        if (rc == PD_OK) rc = PDPageGetNumAnnots(page.get(), &count);
        if (rc != PD_OK) {
            throw HostError(codes::kPdfFailure,
                            detail::pdfcoreFailure(
                                "cannot read the annotations of page " + std::to_string(page_), rc));
        }
        out_ += "<g id=\"annotations\">\n";
        for (uint32_t i = 0; i < count; ++i) {
            Held annot;
            if (PDPageGetAnnot(page.get(), i, annot.put()) != PD_OK || !annot.get()) continue;
            annotation(annot.get(), i);
        }
        out_ += "</g>\n";
    }

    // The items drawn for this page, in order.
    void items(const char* id, const std::vector<GraphicsService::Item>& drawn) {
        out_ += std::string("<g id=\"") + id + "\">\n";
        for (const auto& it : drawn) item(it);
        out_ += "</g>\n";
    }

    void frame(const View::Frame& f) {
        const auto box = outline(f.rect);
        out_ += "<g id=\"frame\">\n";
        const uint32_t fill = (f.argb >> 24) ? (f.argb & 0x00FFFFFF) | 0x1A000000 : 0;
        rect("frame", box, paint("fill", fill) + stroke(f.argb, 1, 1));
        out_ += "</g>\n";
    }

    // The keyboard focus: a dotted outline just outside the annotation.
    void focus(const PDRect& r) {
        Box b = outline(r);
        b = {b.left - 2, b.top - 2, b.right + 2, b.bottom + 2};
        out_ += "<g id=\"focus\">\n";
        rect("focus", b, paint("fill", 0) + stroke(kFocusColour, 1, 2));
        out_ += "</g>\n";
    }

    std::string finish() { return std::move(out_) + "</svg>\n"; }

private:
    struct Box {
        double left, top, right, bottom;
    };

    // A page rectangle (not necessarily normalised) as pixels: pages turn by quarters, so
    // it stays a rectangle.
    Box outline(const PDRect& r) const {
        auto a = map(r.left, r.bottom), b = map(r.right, r.top);
        return {std::min(a[0], b[0]), std::min(a[1], b[1]), std::max(a[0], b[0]),
                std::max(a[1], b[1])};
    }

    void rect(const std::string& cls, const Box& b, const std::string& attributes,
              const std::string& more = {}) {
        out_ += "<rect class=\"" + cls + "\"" + more + " x=\"" + num(b.left) + "\" y=\"" +
                num(b.top) + "\" width=\"" + num(b.right - b.left) + "\" height=\"" +
                num(b.bottom - b.top) + "\"" + attributes + "/>\n";
    }

    void annotation(PDAnnot annot, uint32_t index) {
        PDBool visible = 1;
        PDRect r{};
        PDAtom subtype = 0;
        if (PDAnnotGetVisible(annot, &visible) == PD_OK && !visible) return;
        if (PDAnnotGetRect(annot, &r) != PD_OK || !finite(r)) return;
        const char* subtypeName = nullptr;
        if (PDAnnotGetSubtype(annot, &subtype) != PD_OK ||
            PDAtomGetString(subtype, &subtypeName) != PD_OK)
            subtypeName = nullptr;
        const bool widget = subtype == PD_ATOM_Widget;
        const uint32_t colour = widget ? kWidgetColour : kAnnotColour;
        const Box box = outline(r);
        std::string data = " data-index=\"" + std::to_string(index) + "\" data-subtype=\"" +
                           xmlName(subtypeName) + "\"";
        const std::u16string name = widget ? fieldNameOf(annot) : std::u16string();
        if (widget) data += " data-field=\"" + xmlText(name) + "\" data-kind=\"" +
                            xmlName(fieldTypeOf(annot)) + "\"";
        rect(widget ? "widget" : "annot", box,
             paint("fill", (colour & 0x00FFFFFF) | 0x10000000) + stroke(colour, 1, 0), data);
        if (name.empty()) return;
        out_ += "<text class=\"label\" x=\"" + num(box.left + 2) + "\" y=\"" +
                num(box.top + kLabelSize) + "\" font-family=\"sans-serif\" font-size=\"" +
                num(kLabelSize) + "\"" + paint("fill", colour) + ">" + xmlText(name) +
                "</text>\n";
    }

    std::vector<std::array<double, 2>> mapped(const std::vector<float>& points) const {
        std::vector<std::array<double, 2>> out;
        for (size_t i = 0; i + 1 < points.size(); i += 2)
            out.push_back(map(points[i], points[i + 1]));
        return out;
    }

    void polygon(const char* cls, const std::vector<std::array<double, 2>>& points,
                 const std::string& attributes) {
        out_ += std::string("<polygon class=\"") + cls + "\" points=\"";
        for (size_t i = 0; i < points.size(); ++i) {
            if (i) out_ += ' ';
            out_ += num(points[i][0]) + "," + num(points[i][1]);
        }
        out_ += "\"" + attributes + "/>\n";
    }

    void item(const GraphicsService::Item& it) {
        using Kind = GraphicsService::Item::Kind;
        const double zoom = view_.zoom();
        const auto points = mapped(it.points);
        if (points.empty()) return;
        const std::string pen = stroke(it.pen, it.penWidth * zoom, it.dash);
        switch (it.kind) {
        case Kind::Rect:
            polygon("rect", points, paint("fill", it.brush) + pen);
            break;
        case Kind::Polygon:
            polygon("polygon", points, paint("fill", it.brush) + pen);
            break;
        case Kind::Frame:
            polygon("frame", points, paint("fill", 0) + pen);
            if (it.handles) grips(points, it.pen);
            break;
        case Kind::Text: {
            const std::u16string family = it.fontFamily.empty() ? GraphicsService::kDefaultFont
                                                                : it.fontFamily;
            out_ += "<text class=\"text\" x=\"" + num(points[0][0]) + "\" y=\"" +
                    num(points[0][1]) + "\" font-family=\"" + xmlText(family) +
                    "\" font-size=\"" + num(it.fontSize * zoom) + "\"" +
                    paint("fill", it.brush) + ">" + xmlText(it.text) + "</text>\n";
            break;
        }
        }
    }

    // Squares at the four corners and the middles of the four sides.
    void grips(const std::vector<std::array<double, 2>>& corners, uint32_t pen) {
        const size_t n = corners.size();
        for (size_t i = 0; i < n; ++i) {
            const auto& a = corners[i];
            const auto& b = corners[(i + 1) % n];
            for (const std::array<double, 2>& c :
                 {a, std::array<double, 2>{(a[0] + b[0]) / 2, (a[1] + b[1]) / 2}}) {
                const double h = kGripSize / 2;
                rect("grip", Box{c[0] - h, c[1] - h, c[0] + h, c[1] + h},
                     paint("fill", 0xFFFFFFFF) + stroke(pen, 1, 0));
            }
        }
    }

    View& view_;
    uint32_t page_;
    int32_t left_ = 0, top_ = 0, width_ = 0, height_ = 0;
    std::array<double, 2> origin_{}, xAxis_{}, yAxis_{};
    std::string out_;
};

// What draw() draws over page pageIndex, recorded by the host's GraphicsService (what it
// drew before a failure still shows).
template <typename Draw>
std::vector<GraphicsService::Item> recorded(Host& host, View& view, uint32_t pageIndex,
                                            Draw&& draw) {
    GraphicsService& graphics = host.graphics();
    const size_t before = graphics.items(pageIndex).size();
    graphics.beginPage(pageIndex, 1.0f / view.zoom());
    struct End {
        GraphicsService& g;
        ~End() { g.endPage(); }
    } end{graphics};
    draw();
    std::vector<GraphicsService::Item> all = graphics.items(pageIndex);
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(before, all.size())));
    return all;
}

// What the current selection draws over page pageIndex; nothing when the selection is
// elsewhere or lacks the methods.
std::vector<GraphicsService::Item> selectionItems(Host& host, View& view, uint32_t pageIndex) {
    ObjectPtr selection = host.selection().selection();
    if (!selection || SODetails::header(selection.get())->interfaceId != QF::kSelectionId ||
        !SODetails::hasMethod(selection.get(), 27) || !SODetails::hasMethod(selection.get(), 11))
        return {};
    auto* ops = SODetails::methods<QF::SelectionTable>(selection.get());
    uint64_t page = 0;
    if (ops->GetPageIndex(selection.get(), &page) != codes::kOk || page != pageIndex) return {};
    return recorded(host, view, pageIndex, [&] { ops->Draw(selection.get(), pageIndex); });
}

// The focused annotation's rectangle on page pageIndex, while it is still on the page.
std::optional<PDRect> focusRect(View& view, PDDoc doc, uint32_t pageIndex) {
    const auto focus = view.annotFocus();
    if (!focus || focus->pageIndex != pageIndex) return std::nullopt;
    Held page;
    uint32_t at = 0;
    PDRect r{};
    if (PDDocGetPage(doc, pageIndex, page.put()) != PD_OK ||
        PDPageGetAnnotIndex(page.get(), focus->annot, &at) != PD_OK ||
        PDAnnotGetRect(focus->annot, &r) != PD_OK || !finite(r))
        return std::nullopt;
    return r;
}

}  // namespace

std::string renderPageSvg(Host& host, View& view, uint32_t pageIndex, uint32_t parts) {
    Document& doc = view.document();
    if (!doc.isOpen()) throw HostError(codes::kDocumentClosed, "the document is closed");
    if (pageIndex >= doc.pageCount()) {
        throw HostError(codes::kBadArgument, "no page " + std::to_string(pageIndex));
    }
    PageWriter writer(view, pageIndex);
    writer.begin((parts & kSvgPage) != 0);
    if (parts & kSvgAnnotations) writer.annotations(doc.pdDoc());
    if (parts & kSvgLive) {
        writer.items("marks",
                     recorded(host, view, pageIndex, [&] { view.drawPage(pageIndex); }));
        writer.items("selection", selectionItems(host, view, pageIndex));
        if (auto r = focusRect(view, doc.pdDoc(), pageIndex)) writer.focus(*r);
        if (auto f = view.frame(); f && f->pageIndex == pageIndex) writer.frame(*f);
    }
    return writer.finish();
}

}  // namespace qfhost
