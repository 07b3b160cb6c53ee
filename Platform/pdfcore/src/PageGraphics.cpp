// What a page draws: the shapes its paths paint and the text runs it shows, read from the
// content streams with qpdf's parser and interpreted here for the transformation, the
// path and the text state (PDPageReadGraphics).
#include "Core.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <set>
#include <string>
#include <vector>

namespace pdfcore {
namespace {

// Form XObjects drawn inside form XObjects are followed this deep.
constexpr int kMaxFormDepth = 12;

struct Matrix {
    double a = 1, b = 0, c = 0, d = 1, e = 0, f = 0;

    // this, then m (points are row vectors: p × this × m).
    Matrix then(const Matrix& m) const {
        return {a * m.a + b * m.c, a * m.b + b * m.d,       c * m.a + d * m.c,
                c * m.b + d * m.d, e * m.a + f * m.c + m.e, e * m.b + f * m.d + m.f};
    }
    void apply(double x, double y, double& ox, double& oy) const {
        ox = a * x + c * y + e;
        oy = b * x + d * y + f;
    }
};

struct Point {
    double x, y;
};

// A number of the file as an integer within [lo, hi] (NaN: lo).
int64_t clampedInt(double v, int64_t lo, int64_t hi) {
    if (!(v >= double(lo))) return lo;
    if (v >= double(hi)) return hi;
    return static_cast<int64_t>(v);
}

struct Subpath {
    std::vector<Point> points; // in default user space
    bool curved = false;
    bool closed = false;
    bool rect = false; // made by re
};

// A font as far as the text's place and Unicode go.
struct Font {
    bool twoByte = false;
    bool decodes = true;          // false: no code maps to Unicode
    bool codesAreUnicode = false; // UCS-2 CMaps
    std::map<uint32_t, std::u16string> toUnicode;
    std::u16string byteText[256];      // simple fonts without /ToUnicode
    std::map<uint32_t, double> widths; // in glyph space thousandths
    double defaultWidth = 500;
    double widthScale = 0.001; // glyph space to text space (type 3: FontMatrix)

    double width(uint32_t code) const {
        auto it = widths.find(code);
        return (it == widths.end() ? defaultWidth : it->second) * widthScale;
    }
    std::u16string text(uint32_t code) const {
        auto it = toUnicode.find(code);
        if (it != toUnicode.end()) return it->second;
        if (codesAreUnicode) return std::u16string(1, static_cast<char16_t>(code));
        if (!twoByte && code < 256) return byteText[code];
        return {};
    }
};

// WinAnsi's codes 0x80 to 0x9F; the rest of a byte reads as Latin-1.
constexpr char16_t kWinAnsiHigh[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

// Glyph names of /Differences that labels use; single letters stand for themselves.
struct NamedGlyph {
    const char* name;
    char16_t unicode;
};
constexpr NamedGlyph kGlyphNames[] = {{"space", u' '},
                                      {"period", u'.'},
                                      {"comma", u','},
                                      {"colon", u':'},
                                      {"semicolon", u';'},
                                      {"hyphen", u'-'},
                                      {"slash", u'/'},
                                      {"parenleft", u'('},
                                      {"parenright", u')'},
                                      {"quoteright", 0x2019},
                                      {"quotesingle", u'\''},
                                      {"ampersand", u'&'},
                                      {"zero", u'0'},
                                      {"one", u'1'},
                                      {"two", u'2'},
                                      {"three", u'3'},
                                      {"four", u'4'},
                                      {"five", u'5'},
                                      {"six", u'6'},
                                      {"seven", u'7'},
                                      {"eight", u'8'},
                                      {"nine", u'9'},
                                      {"numbersign", u'#'},
                                      {"dollar", u'$'},
                                      {"percent", u'%'},
                                      {"question", u'?'},
                                      {"underscore", u'_'},
                                      {"at", u'@'},
                                      {"endash", 0x2013},
                                      {"emdash", 0x2014},
                                      {"bullet", 0x2022},
                                      {"quotedblleft", 0x201C},
                                      {"quotedblright", 0x201D}};

char16_t glyphUnicode(const std::string& name) {
    if (name.size() == 1 && std::isalpha(static_cast<unsigned char>(name[0]))) return name[0];
    if (name.size() == 7 && name.compare(0, 3, "uni") == 0) {
        char* end = nullptr;
        const unsigned long v = std::strtoul(name.c_str() + 3, &end, 16);
        if (end && *end == 0) return static_cast<char16_t>(v);
    }
    for (const NamedGlyph& g : kGlyphNames)
        if (name == g.name) return g.unicode;
    return 0;
}

// The hex digits of <...> in a CMap as a number and as UTF-16 units.
uint32_t hexNumber(const std::string& hex) {
    uint32_t v = 0;
    for (char ch : hex)
        v = (v << 4) | static_cast<uint32_t>(std::stoul(std::string(1, ch), nullptr, 16));
    return v;
}
std::u16string hexText(const std::string& hex) {
    std::u16string out;
    for (size_t i = 0; i + 4 <= hex.size(); i += 4)
        out += static_cast<char16_t>(std::stoul(hex.substr(i, 4), nullptr, 16));
    return out;
}

// Codes of fonts are at most two bytes; the entries a map or a width array may write,
// so that a font of a damaged or hostile file costs at most this much.
constexpr uint32_t kMaxCode = 0xFFFF;
constexpr uint32_t kMaxFontEntries = 1u << 20;

// Reads the bfchar and bfrange sections of a /ToUnicode CMap.
void readToUnicode(const std::string& data, std::map<uint32_t, std::u16string>& map) {
    uint32_t budget = kMaxFontEntries;
    // Tokens: <hex> as "<" + digits, [ and ], and words.
    std::vector<std::string> tokens;
    for (size_t i = 0; i < data.size();) {
        const char ch = data[i];
        if (ch == '<') {
            size_t j = data.find('>', i + 1);
            if (j == std::string::npos) break;
            std::string hex;
            for (size_t k = i + 1; k < j; ++k)
                if (std::isxdigit(static_cast<unsigned char>(data[k]))) hex += data[k];
            tokens.push_back("<" + hex);
            i = j + 1;
        } else if (ch == '[' || ch == ']') {
            tokens.emplace_back(1, ch);
            ++i;
        } else if (ch == '%') {
            while (i < data.size() && data[i] != '\n' && data[i] != '\r')
                ++i;
        } else if (std::isspace(static_cast<unsigned char>(ch))) {
            ++i;
        } else {
            size_t j = i;
            while (j < data.size() && !std::isspace(static_cast<unsigned char>(data[j])) &&
                   data[j] != '<' && data[j] != '[' && data[j] != ']')
                ++j;
            tokens.push_back(data.substr(i, std::max(j, i + 1) - i));
            i = std::max(j, i + 1);
        }
    }
    const auto isHex = [](const std::string& t) { return !t.empty() && t[0] == '<'; };
    enum { None, Char, Range } section = None;
    for (size_t i = 0; i < tokens.size();) {
        const std::string& t = tokens[i];
        if (t == "beginbfchar")
            section = Char, ++i;
        else if (t == "beginbfrange")
            section = Range, ++i;
        else if (t == "endbfchar" || t == "endbfrange")
            section = None, ++i;
        else if (budget == 0)
            break;
        else if (section == Char && i + 1 < tokens.size() && isHex(t) && isHex(tokens[i + 1])) {
            const uint32_t code = hexNumber(t.substr(1));
            if (code <= kMaxCode) map[code] = hexText(tokens[i + 1].substr(1));
            --budget;
            i += 2;
        } else if (section == Range && i + 2 < tokens.size() && isHex(t) && isHex(tokens[i + 1])) {
            const uint32_t lo = hexNumber(t.substr(1));
            const uint32_t hi = std::min(hexNumber(tokens[i + 1].substr(1)), kMaxCode);
            if (hi < lo || hi - lo >= budget) {
                i += 3;
                continue;
            }
            if (isHex(tokens[i + 2])) {
                std::u16string dst = hexText(tokens[i + 2].substr(1));
                for (uint32_t code = lo; code <= hi && !dst.empty(); ++code) {
                    map[code] = dst;
                    ++dst.back();
                }
                budget -= hi - lo + 1;
                i += 3;
            } else if (tokens[i + 2] == "[") {
                size_t k = i + 3;
                for (uint32_t code = lo; k < tokens.size() && tokens[k] != "]" && budget > 0;
                     ++k, ++code, --budget)
                    if (isHex(tokens[k]) && code <= kMaxCode)
                        map[code] = hexText(tokens[k].substr(1));
                i = k + 1;
            } else {
                i += 3;
            }
        } else {
            ++i;
        }
    }
}

std::unique_ptr<Font> readFont(QPDFObjectHandle dict) {
    auto font = std::make_unique<Font>();
    if (!dict.isDictionary()) {
        font->decodes = false;
        return font;
    }
    const std::string subtype =
        dict.getKey("/Subtype").isName() ? dict.getKey("/Subtype").getName() : "";
    const std::string base =
        dict.getKey("/BaseFont").isName() ? dict.getKey("/BaseFont").getName() : "";
    auto toUnicode = dict.getKey("/ToUnicode");
    if (toUnicode.isStream()) {
        try {
            auto data = toUnicode.getStreamData(qpdf_dl_generalized);
            readToUnicode(
                std::string(reinterpret_cast<const char*>(data->getBuffer()), data->getSize()),
                font->toUnicode);
        } catch (const std::exception&) {
            // A damaged map decodes nothing; the encoding below still may.
        }
    }
    if (subtype == "/Type0") {
        font->twoByte = true;
        font->defaultWidth = 1000;
        auto encoding = dict.getKey("/Encoding");
        if (encoding.isName()) {
            const std::string e = encoding.getName();
            font->codesAreUnicode =
                e.find("UCS2") != std::string::npos || e.find("UTF16") != std::string::npos;
        }
        auto kids = dict.getKey("/DescendantFonts");
        auto cid = kids.isArray() && kids.getArrayNItems() > 0 ? kids.getArrayItem(0) : kids;
        if (cid.isDictionary()) {
            if (cid.getKey("/DW").isNumber())
                font->defaultWidth = cid.getKey("/DW").getNumericValue();
            auto w = cid.getKey("/W");
            if (w.isArray()) {
                const int n = w.getArrayNItems();
                uint32_t budget = kMaxFontEntries;
                for (int i = 0; i < n && budget > 0;) {
                    auto first = w.getArrayItem(i);
                    if (!first.isNumber()) break;
                    const auto c0 =
                        static_cast<uint32_t>(clampedInt(first.getNumericValue(), 0, kMaxCode + 1));
                    auto next = i + 1 < n ? w.getArrayItem(i + 1) : QPDFObjectHandle::newNull();
                    if (next.isArray()) {
                        const int m = next.getArrayNItems();
                        for (int k = 0; k < m && c0 + k <= kMaxCode && budget > 0; ++k, --budget)
                            if (next.getArrayItem(k).isNumber())
                                font->widths[c0 + k] = next.getArrayItem(k).getNumericValue();
                        budget -= budget > 0; // an empty list costs too
                        i += 2;
                    } else if (next.isNumber() && i + 2 < n && w.getArrayItem(i + 2).isNumber()) {
                        const auto c1 =
                            static_cast<uint32_t>(clampedInt(next.getNumericValue(), 0, kMaxCode));
                        const double width = w.getArrayItem(i + 2).getNumericValue();
                        for (uint32_t c = c0; c <= c1 && budget > 0; ++c, --budget)
                            font->widths[c] = width;
                        budget -= budget > 0;
                        i += 3;
                    } else {
                        break;
                    }
                }
            }
        }
        font->decodes = !font->toUnicode.empty() || font->codesAreUnicode;
        return font;
    }

    // Simple fonts: widths from /FirstChar and /Widths, text from the encoding.
    if (base.find("Courier") != std::string::npos) font->defaultWidth = 600;
    auto descriptor = dict.getKey("/FontDescriptor");
    if (descriptor.isDictionary() && descriptor.getKey("/MissingWidth").isNumber() &&
        descriptor.getKey("/MissingWidth").getNumericValue() > 0)
        font->defaultWidth = descriptor.getKey("/MissingWidth").getNumericValue();
    if (subtype == "/Type3") {
        auto fm = dict.getKey("/FontMatrix");
        if (fm.isArray() && fm.getArrayNItems() == 6 && fm.getArrayItem(0).isNumber())
            font->widthScale = fm.getArrayItem(0).getNumericValue();
    }
    auto widths = dict.getKey("/Widths");
    auto firstChar = dict.getKey("/FirstChar");
    if (widths.isArray() && firstChar.isNumber()) {
        const int first = static_cast<int>(clampedInt(firstChar.getNumericValue(), -1, 256));
        const int n = std::min(widths.getArrayNItems(), 256);
        for (int i = 0; i < n; ++i)
            if (widths.getArrayItem(i).isNumber() && first + i >= 0 && first + i < 256)
                font->widths[first + i] = widths.getArrayItem(i).getNumericValue();
    }
    const bool dingbats = base.find("Dingbats") != std::string::npos;
    for (int code = 0; code < 256; ++code) {
        char16_t u = 0;
        if (dingbats) {
            // The squares and boxes forms draw as check boxes; other dingbats read as such.
            static constexpr char16_t kBoxes[] = {0x25A0, 0x274F, 0x2750, 0x2751, 0x2752};
            if (code >= 'n' && code <= 'r')
                u = kBoxes[code - 'n'];
            else if (code == '4')
                u = 0x2714;
            else if (code > 32)
                u = 0x2700 + code;
        } else if (code >= 0x80 && code < 0xA0) {
            u = kWinAnsiHigh[code - 0x80];
        } else if (code >= 0x20) {
            u = static_cast<char16_t>(code);
        }
        if (u) font->byteText[code] = std::u16string(1, u);
    }
    auto encoding = dict.getKey("/Encoding");
    if (encoding.isDictionary() && encoding.getKey("/Differences").isArray()) {
        auto diffs = encoding.getKey("/Differences");
        int code = 0;
        for (int i = 0; i < diffs.getArrayNItems(); ++i) {
            auto item = diffs.getArrayItem(i);
            if (item.isNumber()) {
                code = static_cast<int>(clampedInt(item.getNumericValue(), -1, 256));
            } else if (item.isName()) {
                if (code >= 0 && code < 256) {
                    const char16_t u = glyphUnicode(item.getName().substr(1));
                    font->byteText[code] = u ? std::u16string(1, u) : std::u16string();
                }
                ++code;
            }
        }
    }
    return font;
}

uint32_t packRgb(double r, double g, double b) {
    const auto c = [](double v) {
        return static_cast<uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255));
    };
    return 0xFF000000u | (c(r) << 16) | (c(g) << 8) | c(b);
}

uint32_t colorOf(std::vector<QPDFObjectHandle>& operands) {
    std::vector<double> v;
    for (auto& o : operands) {
        if (!o.isNumber()) return 0;
        v.push_back(o.getNumericValue());
    }
    if (v.size() == 1) return packRgb(v[0], v[0], v[0]);
    if (v.size() == 3) return packRgb(v[0], v[1], v[2]);
    if (v.size() == 4)
        return packRgb((1 - v[0]) * (1 - v[3]), (1 - v[1]) * (1 - v[3]), (1 - v[2]) * (1 - v[3]));
    return 0;
}

struct GraphicsState {
    Matrix ctm;
    double lineWidth = 1;
    uint32_t stroke = 0xFF000000u, fill = 0xFF000000u;
    // Text state.
    Font* font = nullptr;
    double fontSize = 0, charSpacing = 0, wordSpacing = 0, scale = 1, leading = 0, rise = 0;
};

// Interprets the operators of a page and of the form XObjects it draws.
class Reader {
  public:
    Reader(uint32_t cap, PDGraphicProc proc, void* client, PDGraphicsSummary& summary)
        : cap_(cap), proc_(proc), client_(client), summary_(summary) {}

    bool stopped() const { return stopped_; }

    // One content stream (or a page's streams) under resources, called back per object.
    class Callbacks : public QPDFObjectHandle::ParserCallbacks {
      public:
        Callbacks(Reader& reader, QPDFObjectHandle resources, int depth)
            : reader_(reader), resources_(std::move(resources)), depth_(depth) {}
        void handleObject(QPDFObjectHandle obj) override {
            if (reader_.stopped_) return terminateParsing();
            if (obj.isOperator()) {
                if (reader_.cap_ && reader_.summary_.operators >= reader_.cap_) {
                    reader_.summary_.skippedOperators = 1;
                    reader_.stopped_ = true;
                    return terminateParsing();
                }
                ++reader_.summary_.operators;
                reader_.run(obj.getOperatorValue(), operands_, resources_, depth_);
                operands_.clear();
                if (reader_.stopped_) return terminateParsing();
            } else if (obj.isInlineImage()) {
                reader_.image();
                operands_.clear();
            } else if (operands_.size() < 64) {
                operands_.push_back(obj);
            }
        }
        void handleEOF() override {}

      private:
        Reader& reader_;
        QPDFObjectHandle resources_;
        int depth_;
        std::vector<QPDFObjectHandle> operands_;
    };

  private:
    friend class Callbacks;

    static double num(std::vector<QPDFObjectHandle>& ops, size_t i) {
        return i < ops.size() && ops[i].isNumber() ? ops[i].getNumericValue() : 0;
    }

    void emit(PDGraphic& g) {
        if (stopped_) return;
        ++summary_.graphics;
        if (proc_(&g, client_) != 0) stopped_ = true;
    }

    PDGraphic shape(int32_t kind, double x0, double y0, double x1, double y1, uint32_t flags) {
        PDGraphic g{};
        g.kind = kind;
        g.flags = flags;
        g.x0 = static_cast<float>(x0), g.y0 = static_cast<float>(y0);
        g.x1 = static_cast<float>(x1), g.y1 = static_cast<float>(y1);
        const Matrix& m = gs_.ctm;
        g.lineWidth =
            static_cast<float>(gs_.lineWidth * std::sqrt(std::fabs(m.a * m.d - m.b * m.c)));
        g.strokeColor = gs_.stroke;
        g.fillColor = gs_.fill;
        return g;
    }

    void bounds(const std::vector<Point>& pts, double& l, double& b, double& r, double& t) {
        l = b = 1e300, r = t = -1e300;
        for (const Point& p : pts) {
            l = std::min(l, p.x), r = std::max(r, p.x);
            b = std::min(b, p.y), t = std::max(t, p.y);
        }
    }

    // Whether the closed subpath of pts is an axis-parallel rectangle.
    static bool isRectangle(const std::vector<Point>& pts) {
        std::vector<Point> p = pts;
        if (p.size() == 5 && std::fabs(p[0].x - p[4].x) < 0.01 && std::fabs(p[0].y - p[4].y) < 0.01)
            p.pop_back();
        if (p.size() != 4) return false;
        for (size_t i = 0; i < 4; ++i) {
            const Point& a = p[i];
            const Point& b = p[(i + 1) % 4];
            if (std::fabs(a.x - b.x) > 0.01 && std::fabs(a.y - b.y) > 0.01) return false;
        }
        return true;
    }

    void paint(uint32_t flags) {
        for (const Subpath& s : path_) {
            if (s.points.empty()) continue;
            double l, b, r, t;
            bounds(s.points, l, b, r, t);
            if (s.curved) {
                const Point& a = s.points.front();
                const Point& z = s.points.back();
                const bool closed =
                    s.closed || (std::fabs(a.x - z.x) < 0.01 && std::fabs(a.y - z.y) < 0.01);
                PDGraphic g =
                    shape(PD_GRAPHIC_CURVE, l, b, r, t, flags | (closed ? PD_GRAPHIC_CLOSED : 0));
                emit(g);
            } else if (s.rect ||
                       ((s.closed || (flags & PD_GRAPHIC_FILLED)) && isRectangle(s.points))) {
                PDGraphic g = shape(PD_GRAPHIC_RECT, l, b, r, t, flags);
                emit(g);
            } else {
                for (size_t i = 1; i < s.points.size(); ++i) {
                    PDGraphic g = shape(PD_GRAPHIC_LINE, s.points[i - 1].x, s.points[i - 1].y,
                                        s.points[i].x, s.points[i].y, flags);
                    emit(g);
                }
                if (s.closed && s.points.size() > 2) {
                    PDGraphic g = shape(PD_GRAPHIC_LINE, s.points.back().x, s.points.back().y,
                                        s.points.front().x, s.points.front().y, flags);
                    emit(g);
                }
            }
        }
        path_.clear();
    }

    Point user(double x, double y) const {
        Point p;
        gs_.ctm.apply(x, y, p.x, p.y);
        return p;
    }

    void image() {
        std::vector<Point> corners{user(0, 0), user(1, 0), user(0, 1), user(1, 1)};
        double l, b, r, t;
        bounds(corners, l, b, r, t);
        PDGraphic g = shape(PD_GRAPHIC_IMAGE, l, b, r, t, 0);
        emit(g);
    }

    Font* fontNamed(QPDFObjectHandle resources, const std::string& name) {
        if (!resources.isDictionary()) return nullptr;
        auto fonts = resources.getKey("/Font");
        if (!fonts.isDictionary()) return nullptr;
        auto dict = fonts.getKey(name);
        if (!dict.isDictionary()) return nullptr;
        const QPDFObjGen og = dict.getObjGen();
        if (og.isIndirect()) {
            auto it = fonts_.find(og);
            if (it != fonts_.end()) return it->second.get();
            return (fonts_[og] = readFont(dict)).get();
        }
        // A font written into its resources is known by them and its name, read once
        // however often it is chosen.
        const auto key = std::make_pair(resources.getObjGen(), name);
        auto it = direct_.find(key);
        if (it != direct_.end()) return it->second.get();
        return (direct_[key] = readFont(dict)).get();
    }

    // Shows string s; spacing adjustments of TJ come as separate calls. Adds to the
    // current run.
    void show(const std::string& s) {
        Font* font = gs_.font;
        const bool twoByte = font && font->twoByte;
        for (size_t i = 0; i < s.size();) {
            uint32_t code = static_cast<unsigned char>(s[i]);
            size_t n = 1;
            if (twoByte && i + 1 < s.size())
                code = (code << 8) | static_cast<unsigned char>(s[i + 1]), n = 2;
            i += n;
            const double w = font ? font->width(code) : 0.5;
            if (font) {
                if (font->decodes)
                    runText_ += font->text(code);
                else
                    runUndecoded_ = true;
            }
            double advance = w * gs_.fontSize + gs_.charSpacing;
            if (n == 1 && code == 32) advance += gs_.wordSpacing;
            advanceText(advance * gs_.scale);
        }
    }

    void advanceText(double tx) {
        if (!runOpen_) {
            runOpen_ = true;
            runStart_ = tm_;
            runWidth_ = 0;
        }
        runWidth_ += tx;
        tm_ = Matrix{1, 0, 0, 1, tx, 0}.then(tm_);
    }

    // Ends the current run and hands it out.
    void endRun() {
        if (!runOpen_) return;
        runOpen_ = false;
        const Matrix m = runStart_.then(gs_.ctm);
        const double lo = -0.2 * gs_.fontSize + gs_.rise, hi = 0.8 * gs_.fontSize + gs_.rise;
        std::vector<Point> corners(4);
        m.apply(0, lo, corners[0].x, corners[0].y);
        m.apply(runWidth_, lo, corners[1].x, corners[1].y);
        m.apply(0, hi, corners[2].x, corners[2].y);
        m.apply(runWidth_, hi, corners[3].x, corners[3].y);
        double l, b, r, t;
        bounds(corners, l, b, r, t);
        PDGraphic g = shape(PD_GRAPHIC_TEXT, l, b, r, t, 0);
        g.fontSize = static_cast<float>(gs_.fontSize * std::hypot(m.c, m.d));
        // Blank runs (spaces laid out as text) carry no label.
        bool blank = true;
        for (char16_t ch : runText_)
            blank = blank && (ch == u' ' || ch == 0xA0);
        if (runUndecoded_ && runText_.empty()) ++summary_.undecodedText;
        if (!blank || runUndecoded_) {
            g.text = runText_.data();
            g.textLen = static_cast<uint32_t>(runText_.size());
            if (runWidth_ != 0) emit(g);
        }
        runText_.clear();
        runUndecoded_ = false;
    }

    void nextLine(double tx, double ty) {
        endRun();
        tlm_ = Matrix{1, 0, 0, 1, tx, ty}.then(tlm_);
        tm_ = tlm_;
    }

    void form(QPDFObjectHandle xobject, QPDFObjectHandle resources, int depth) {
        const QPDFObjGen og = xobject.getObjGen();
        if (depth >= kMaxFormDepth || (og.isIndirect() && !onStack_.insert(og).second)) {
            ++summary_.skippedXObjects;
            return;
        }
        auto dict = xobject.getDict();
        const GraphicsState saved = gs_;
        const std::vector<GraphicsState> savedStack = std::move(stack_);
        stack_.clear();
        auto matrix = dict.getKey("/Matrix");
        if (matrix.isArray() && matrix.getArrayNItems() == 6) {
            std::vector<double> m;
            for (int i = 0; i < 6; ++i)
                m.push_back(matrix.getArrayItem(i).isNumber()
                                ? matrix.getArrayItem(i).getNumericValue()
                                : 0);
            gs_.ctm = Matrix{m[0], m[1], m[2], m[3], m[4], m[5]}.then(gs_.ctm);
        }
        auto own = dict.getKey("/Resources");
        Callbacks callbacks(*this, own.isDictionary() ? own : resources, depth + 1);
        try {
            xobject.parseAsContents(&callbacks);
        } catch (const std::exception&) {
            ++summary_.skippedXObjects;
        }
        path_.clear();
        gs_ = saved;
        stack_ = savedStack;
        if (og.isIndirect()) onStack_.erase(og);
    }

    void run(const std::string& op, std::vector<QPDFObjectHandle>& ops, QPDFObjectHandle resources,
             int depth) {
        const auto n = [&](size_t i) { return num(ops, i); };
        if (op.empty()) return;
        switch (op[0]) {
        case 'q':
            if (op == "q" && stack_.size() < 1000) stack_.push_back(gs_);
            return;
        case 'Q':
            if (op == "Q" && !stack_.empty()) gs_ = stack_.back(), stack_.pop_back();
            return;
        case 'c':
            if (op == "cm" && ops.size() == 6)
                gs_.ctm = Matrix{n(0), n(1), n(2), n(3), n(4), n(5)}.then(gs_.ctm);
            else if (op == "c" && ops.size() == 6)
                curveTo({{n(0), n(1)}, {n(2), n(3)}, {n(4), n(5)}});
            else if (op == "cs")
                gs_.fill = 0xFF000000u;
            return;
        case 'C':
            if (op == "CS") gs_.stroke = 0xFF000000u;
            return;
        case 'w':
            if (op == "w") gs_.lineWidth = n(0);
            return;
        case 'g':
        case 'r':
        case 'k':
        case 's':
            if (op == "g" || op == "rg" || op == "k" || op == "sc" || op == "scn") {
                gs_.fill = colorOf(ops);
                return;
            }
            if (op == "s") {
                closePath();
                paint(PD_GRAPHIC_STROKED);
                return;
            }
            if (op == "re" && ops.size() == 4) {
                Subpath s;
                s.rect = true;
                s.closed = true;
                const double x = n(0), y = n(1), w = n(2), h = n(3);
                s.points = {user(x, y), user(x + w, y), user(x + w, y + h), user(x, y + h)};
                // A turned rectangle is no rectangle of the page: its sides are lines.
                s.rect = isRectangle(s.points);
                path_.push_back(std::move(s));
                current_ = {x, y};
            }
            return;
        case 'G':
        case 'R':
        case 'K':
        case 'S':
            if (op == "G" || op == "RG" || op == "K" || op == "SC" || op == "SCN") {
                gs_.stroke = colorOf(ops);
                return;
            }
            if (op == "S") paint(PD_GRAPHIC_STROKED);
            return;
        case 'm':
            if (op == "m") {
                Subpath s;
                s.points.push_back(user(n(0), n(1)));
                path_.push_back(std::move(s));
                current_ = {n(0), n(1)};
            }
            return;
        case 'l':
            if (op == "l") {
                if (path_.empty()) path_.emplace_back();
                path_.back().points.push_back(user(n(0), n(1)));
                current_ = {n(0), n(1)};
            }
            return;
        case 'v':
            if (op == "v" && ops.size() == 4) curveTo({current_, {n(0), n(1)}, {n(2), n(3)}});
            return;
        case 'y':
            if (op == "y" && ops.size() == 4) curveTo({{n(0), n(1)}, {n(2), n(3)}, {n(2), n(3)}});
            return;
        case 'h':
            if (op == "h") closePath();
            return;
        case 'f':
        case 'F':
            paint(PD_GRAPHIC_FILLED);
            return;
        case 'B':
            if (op == "BT") {
                tm_ = tlm_ = Matrix{};
                runOpen_ = false;
            } else if (op == "B" || op == "B*") {
                paint(PD_GRAPHIC_FILLED | PD_GRAPHIC_STROKED);
            }
            return;
        case 'b':
            closePath();
            paint(PD_GRAPHIC_FILLED | PD_GRAPHIC_STROKED);
            return;
        case 'n':
            path_.clear();
            return;
        case 'E':
            if (op == "ET") endRun();
            return;
        case 'T':
            text(op, ops, resources);
            return;
        case '\'':
            nextLine(0, -gs_.leading);
            if (!ops.empty() && ops.back().isString()) show(ops.back().getStringValue());
            return;
        case '"':
            if (ops.size() == 3) {
                gs_.wordSpacing = n(0);
                gs_.charSpacing = n(1);
                nextLine(0, -gs_.leading);
                if (ops[2].isString()) show(ops[2].getStringValue());
            }
            return;
        case 'D':
            if (op == "Do" && !ops.empty() && ops[0].isName() && resources.isDictionary()) {
                auto xobjects = resources.getKey("/XObject");
                if (!xobjects.isDictionary()) return;
                auto x = xobjects.getKey(ops[0].getName());
                if (!x.isStream()) return;
                auto subtype = x.getDict().getKey("/Subtype");
                if (subtype.isName() && subtype.getName() == "/Image")
                    image();
                else if (subtype.isName() && subtype.getName() == "/Form")
                    form(x, resources, depth);
            }
            return;
        default:
            return;
        }
    }

    void text(const std::string& op, std::vector<QPDFObjectHandle>& ops,
              QPDFObjectHandle resources) {
        const auto n = [&](size_t i) { return num(ops, i); };
        if (op == "Tf" && ops.size() == 2) {
            endRun();
            gs_.font = ops[0].isName() ? fontNamed(resources, ops[0].getName()) : nullptr;
            gs_.fontSize = n(1);
        } else if (op == "Tc") {
            gs_.charSpacing = n(0);
        } else if (op == "Tw") {
            gs_.wordSpacing = n(0);
        } else if (op == "Tz") {
            gs_.scale = n(0) / 100;
        } else if (op == "TL") {
            gs_.leading = n(0);
        } else if (op == "Ts") {
            gs_.rise = n(0);
        } else if (op == "Td") {
            nextLine(n(0), n(1));
        } else if (op == "TD") {
            gs_.leading = -n(1);
            nextLine(n(0), n(1));
        } else if (op == "Tm" && ops.size() == 6) {
            endRun();
            tm_ = tlm_ = Matrix{n(0), n(1), n(2), n(3), n(4), n(5)};
        } else if (op == "T*") {
            nextLine(0, -gs_.leading);
        } else if (op == "Tj" && !ops.empty() && ops[0].isString()) {
            show(ops[0].getStringValue());
        } else if (op == "TJ" && !ops.empty() && ops[0].isArray()) {
            for (auto& item : ops[0].getArrayAsVector()) {
                if (item.isString()) {
                    show(item.getStringValue());
                } else if (item.isNumber()) {
                    const double adjust = item.getNumericValue();
                    // A gap of about an em or more parts words set apart (columns, boxes).
                    if (adjust < -900) endRun();
                    const double tx = -adjust / 1000 * gs_.fontSize * gs_.scale;
                    if (runOpen_) runWidth_ += tx;
                    tm_ = Matrix{1, 0, 0, 1, tx, 0}.then(tm_);
                }
            }
        }
    }

    void curveTo(std::vector<Point> pts) {
        if (path_.empty()) path_.emplace_back();
        for (const Point& p : pts)
            path_.back().points.push_back(user(p.x, p.y));
        path_.back().curved = true;
        current_ = pts.back();
    }

    void closePath() {
        if (!path_.empty()) path_.back().closed = true;
    }

    uint32_t cap_;
    PDGraphicProc proc_;
    void* client_;
    PDGraphicsSummary& summary_;
    bool stopped_ = false;

    GraphicsState gs_;
    std::vector<GraphicsState> stack_;
    std::vector<Subpath> path_;
    Point current_{0, 0};
    Matrix tm_, tlm_;
    bool runOpen_ = false;
    Matrix runStart_;
    double runWidth_ = 0;
    std::u16string runText_;
    bool runUndecoded_ = false;
    std::map<QPDFObjGen, std::unique_ptr<Font>> fonts_;
    std::map<std::pair<QPDFObjGen, std::string>, std::unique_ptr<Font>> direct_;
    std::set<QPDFObjGen> onStack_;

  public:
    void page(QPDFObjectHandle pageObj) {
        QPDFPageObjectHelper helper(pageObj);
        auto resources = helper.getAttribute("/Resources", false);
        Callbacks callbacks(*this, resources, 0);
        helper.parseContents(&callbacks);
        endRun();
    }
};

} // namespace
} // namespace pdfcore

using namespace pdfcore;

PDResult PDPageReadGraphics(PDPage page, uint32_t maxOperators, PDGraphicProc proc,
                            void* clientData, PDGraphicsSummary* outSummary) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        if (!proc) fail(PD_ERR_BAD_ARGUMENT);
        PDGraphicsSummary summary{};
        Reader reader(maxOperators, proc, clientData, summary);
        reader.page(p.obj);
        if (outSummary) *outSummary = summary;
    });
}
