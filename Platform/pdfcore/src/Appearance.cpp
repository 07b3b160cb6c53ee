// Normal (and, for buttons, down) appearance streams of widgets, drawn from the field's
// type, flags, value and options and from the widget's /MK, /BS, /DA, /Q and /Rect.
// The streams are complete: viewers show them as they are.
#include "DefaultAppearance.h"
#include "Fonts.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <map>
#include <optional>
#include <qpdf/Buffer.hh>
#include <qpdf/BufferInputSource.hh>
#include <qpdf/QPDFTokenizer.hh>
#include <set>
#include <string>
#include <vector>

namespace pdfcore {
namespace {

// ---- metrics ---------------------------------------------------------------------

// Advance widths (1/1000 em) of WinAnsi codes 32..255, 0 for unused codes; Helvetica's are
// kHelveticaWidths.
constexpr std::array<uint16_t, 224> kHelveticaBold = {
    278,  333, 474, 556, 556,  889, 722, 238, 333, 333, 389, 584,  278, 333,  278, 278,  556, 556,
    556,  556, 556, 556, 556,  556, 556, 556, 333, 333, 584, 584,  584, 611,  975, 722,  722, 722,
    722,  667, 611, 778, 722,  278, 556, 722, 611, 833, 722, 778,  667, 778,  722, 667,  611, 722,
    667,  944, 667, 667, 611,  333, 278, 333, 584, 556, 333, 556,  611, 556,  611, 556,  333, 611,
    611,  278, 278, 556, 278,  889, 611, 611, 611, 611, 389, 556,  333, 611,  556, 778,  556, 556,
    500,  389, 280, 389, 584,  0,   556, 0,   278, 556, 500, 1000, 556, 556,  333, 1000, 667, 333,
    1000, 0,   611, 0,   0,    278, 278, 500, 500, 350, 556, 1000, 333, 1000, 556, 333,  944, 0,
    500,  667, 278, 333, 556,  556, 556, 556, 280, 556, 333, 737,  370, 556,  584, 333,  737, 333,
    400,  584, 333, 333, 333,  611, 556, 278, 333, 333, 365, 556,  834, 834,  834, 611,  722, 722,
    722,  722, 722, 722, 1000, 722, 667, 667, 667, 667, 278, 278,  278, 278,  722, 722,  778, 778,
    778,  778, 778, 584, 778,  722, 722, 722, 722, 667, 667, 611,  556, 556,  556, 556,  556, 556,
    889,  556, 556, 556, 556,  556, 278, 278, 278, 278, 611, 611,  611, 611,  611, 611,  611, 584,
    611,  611, 611, 611, 611,  556, 611, 556};
constexpr std::array<uint16_t, 224> kTimes = {
    250, 333, 408, 500, 500, 833, 778, 180, 333, 333, 500, 564,  250, 333, 250, 278,  500, 500,
    500, 500, 500, 500, 500, 500, 500, 500, 278, 278, 564, 564,  564, 444, 921, 722,  667, 667,
    722, 611, 556, 722, 722, 333, 389, 722, 611, 889, 722, 722,  556, 722, 667, 556,  611, 722,
    722, 944, 722, 722, 611, 333, 278, 333, 469, 500, 333, 444,  500, 444, 500, 444,  333, 500,
    500, 278, 278, 500, 278, 778, 500, 500, 500, 500, 333, 389,  278, 500, 500, 722,  500, 500,
    444, 480, 200, 480, 541, 0,   500, 0,   333, 500, 444, 1000, 500, 500, 333, 1000, 556, 333,
    889, 0,   611, 0,   0,   333, 333, 444, 444, 350, 500, 1000, 333, 980, 389, 333,  722, 0,
    444, 722, 250, 333, 500, 500, 500, 500, 200, 500, 333, 760,  276, 500, 564, 333,  760, 333,
    400, 564, 300, 300, 333, 510, 453, 250, 333, 300, 310, 500,  750, 750, 750, 444,  722, 722,
    722, 722, 722, 722, 889, 667, 611, 611, 611, 611, 333, 333,  333, 333, 722, 722,  722, 722,
    722, 722, 722, 564, 722, 722, 722, 722, 722, 722, 556, 500,  444, 444, 444, 444,  444, 444,
    667, 444, 444, 444, 444, 444, 278, 278, 278, 278, 500, 500,  500, 500, 500, 500,  500, 564,
    500, 500, 500, 500, 500, 500, 500, 500};
constexpr std::array<uint16_t, 224> kTimesBold = {
    250,  333,  555, 500, 500,  1000, 833, 278, 333, 333, 500, 570,  250, 333,  250, 278,  500, 500,
    500,  500,  500, 500, 500,  500,  500, 500, 333, 333, 570, 570,  570, 500,  930, 722,  667, 722,
    722,  667,  611, 778, 778,  389,  500, 778, 667, 944, 722, 778,  611, 778,  722, 556,  667, 722,
    722,  1000, 722, 722, 667,  333,  278, 333, 581, 500, 333, 500,  556, 444,  556, 444,  333, 500,
    556,  278,  333, 556, 278,  833,  556, 500, 556, 556, 444, 389,  333, 556,  500, 722,  500, 500,
    444,  394,  220, 394, 520,  0,    500, 0,   333, 500, 500, 1000, 500, 500,  333, 1000, 556, 333,
    1000, 0,    667, 0,   0,    333,  333, 500, 500, 350, 500, 1000, 333, 1000, 389, 333,  722, 0,
    444,  722,  250, 333, 500,  500,  500, 500, 220, 500, 333, 747,  300, 500,  570, 333,  747, 333,
    400,  570,  300, 300, 333,  601,  540, 250, 333, 300, 330, 500,  750, 750,  750, 500,  722, 722,
    722,  722,  722, 722, 1000, 722,  667, 667, 667, 667, 389, 389,  389, 389,  722, 722,  778, 778,
    778,  778,  778, 570, 778,  722,  722, 722, 722, 722, 611, 556,  500, 500,  500, 500,  500, 500,
    722,  444,  444, 444, 444,  444,  278, 278, 278, 278, 500, 556,  500, 500,  500, 500,  500, 570,
    500,  556,  556, 556, 556,  500,  556, 500};
// ZapfDingbats, codes 32..126.
constexpr std::array<uint16_t, 95> kDingbats = {
    278, 974, 961, 974, 980, 719, 789, 790, 791, 690, 960, 939, 549, 855, 911, 933, 911, 945, 974,
    755, 846, 762, 761, 571, 677, 763, 760, 759, 754, 494, 552, 537, 577, 692, 786, 788, 788, 790,
    793, 794, 816, 823, 789, 841, 823, 833, 816, 831, 923, 744, 723, 749, 790, 792, 695, 776, 768,
    792, 759, 707, 708, 682, 701, 826, 815, 789, 789, 707, 687, 696, 689, 786, 787, 713, 791, 785,
    791, 873, 761, 762, 762, 759, 759, 892, 892, 788, 784, 438, 138, 277, 415, 392, 392, 668, 668};

// ---- small helpers ------------------------------------------------------------------

// A number for a content stream: at most four decimals.
std::string num(double v) {
    return pdfNumber(v, 4);
}

constexpr double kPi = 3.14159265358979323846;

QPDFObjectHandle real(Document& doc, double v) {
    return sharedReal(doc, num(v));
}

int64_t intOf(QPDFObjectHandle o, int64_t fallback) {
    double v;
    return numberOf(o, v) ? static_cast<int64_t>(v) : fallback;
}

// ---- fonts ---------------------------------------------------------------------------

// One glyph of text laid out for its font: one code per character for the fonts a file
// brings and the standard ones, glyphs shaped by HarfBuzz for the system's faces.
// Distances are in thousandths of an em, in logical order (levels say how to turn it into
// the order it is drawn in).
struct Glyph {
    uint32_t code = 0;     // in its font: a byte, or a two-byte CID
    uint32_t cluster = 0;  // the first UTF-16 unit of what it draws
    double advance = 0;    // to where the next glyph starts
    double nominal = 0;    // what the font's widths give it, which viewers advance by
    double dx = 0, dy = 0; // where it is drawn, from where it starts
    uint8_t font = 0;      // which of the text's fonts draws it
    uint8_t level = 0;     // bidirectional level: odd ones read right to left
    bool space = false;    // a space between words, where lines may break
};
using Codes = std::vector<Glyph>;

// A font resource as used in one stream: its resource name and dictionary, how text maps to
// its codes, the advance widths of the codes and the font's vertical extent (per em).
struct FontRes {
    enum Mode {
        kSingleByte, // simple fonts: WinAnsi codes, or the low byte for symbolic fonts
        kCid,        // Type0 with Identity-H: codes from the reversed /ToUnicode
        kUtf16,      // Type0 with a UTF-16 CMap: the code is the UTF-16 unit
        kEmbedded    // a face of the system's, shaped and embedded as a subset (Fonts.h)
    };
    std::string name;
    QPDFObjectHandle dict;
    Mode mode = kSingleByte;
    bool winAnsi = true;
    EmbeddedFace* face = nullptr;
    std::array<double, 256> widths{};
    std::map<char16_t, uint32_t> codeOf;
    std::map<uint32_t, double> cidWidths;
    double defaultWidth = 1000;
    double ascent = 0.718;
    double descent = 0.207; // below the baseline, positive

    double advance(uint32_t code) const {
        if (mode == kSingleByte) return code < 256 ? widths[code] : 0;
        if (mode == kUtf16) return code < 0x1100 ? 500 : 1000; // half and full width
        auto it = cidWidths.find(code);
        return it == cidWidths.end() ? defaultWidth : it->second;
    }
    bool twoBytes() const { return mode != kSingleByte; }

    // One code per UTF-16 unit of s, in out. Single-byte fonts encode anything (WinAnsi,
    // '?' for the rest) and answer whether they had a code for every character; two-byte
    // fonts fail on a character they have no code for. Control characters are dropped,
    // tabs become spaces.
    bool encode(const std::u16string& s, Codes& out) const {
        static const char16_t k80[32] = {
            0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
            0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
            0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
        out.clear();
        bool complete = true;
        auto put = [&](uint32_t code, size_t at, bool space) {
            Glyph g;
            g.code = code;
            g.cluster = static_cast<uint32_t>(at);
            g.advance = g.nominal = advance(code);
            g.space = space;
            out.push_back(g);
        };
        for (size_t i = 0; i < s.size(); ++i) {
            char16_t c = s[i];
            if (c >= 0xD800 && c <= 0xDFFF) {
                if (mode != kSingleByte) return false;
                if (c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF)
                    ++i; // one '?' for the pair
                put('?', i, false);
                complete = false;
                continue;
            }
            if (c == u'\t') c = u' ';
            if (c < 0x20) continue;
            if (mode == kUtf16) {
                put(c, i, c == u' ');
            } else if (mode == kCid) {
                auto it = codeOf.find(c);
                if (it == codeOf.end()) return false;
                put(it->second, i, c == u' ');
            } else if (c < 0x7F || (c >= 0xA0 && c <= 0xFF)) {
                put(c, i, c == u' ');
            } else {
                uint32_t mapped = '?';
                if (winAnsi) {
                    for (uint32_t k = 0; k < 32; ++k)
                        if (k80[k] == c) mapped = 0x80 + k;
                } else if (c <= 0xFF) {
                    mapped = c;
                }
                complete = complete && mapped != '?';
                put(mapped, i, false);
            }
        }
        return complete;
    }
};

// The fonts one widget's text is drawn with: one font of the file's or a standard one, or
// the system's faces that together draw it, each character in the first that has it.
struct Font {
    std::vector<FontRes> res;
    Document* doc = nullptr;
    std::string language; // for shaping with the system's faces
    double ascent = 0.718, descent = 0.207;

    bool shaped() const { return !res.empty() && res[0].mode == FontRes::kEmbedded; }
    double width(const Codes& codes, double size) const {
        double w = 0;
        for (const Glyph& g : codes)
            w += g.advance;
        return w * size / 1000;
    }
    // Whether every character of s has a glyph of its own here.
    bool draws(const std::u16string& s) const {
        Codes codes;
        return shaped() || res[0].encode(s, codes);
    }
    Codes encode(const std::u16string& s) const {
        Codes out;
        if (!shaped()) {
            res[0].encode(s, out);
            return out;
        }
        std::vector<EmbeddedFace*> faces;
        for (const FontRes& r : res)
            faces.push_back(r.face);
        std::u16string clean = s;
        for (auto& c : clean)
            if (c == u'\t') c = u' ';
        for (const ShapedGlyph& sg : shapeText(*doc, faces, clean, language)) {
            if (clean[sg.cluster] < 0x20) continue;
            Glyph g;
            g.code = sg.gid;
            g.cluster = sg.cluster;
            g.advance = sg.advance;
            g.nominal = sg.nominal;
            g.dx = sg.dx;
            g.dy = sg.dy;
            g.font = sg.face;
            g.level = sg.level;
            g.space = sg.space;
            out.push_back(g);
        }
        return out;
    }
};

void readVerticalMetrics(FontRes& f, QPDFObjectHandle descriptor) {
    double ascent, descent;
    if (numberOf(descriptor.getKeyIfDict("/Ascent"), ascent) &&
        numberOf(descriptor.getKeyIfDict("/Descent"), descent) && ascent > 0 && ascent < 2000 &&
        descent <= 0 && descent > -1000) {
        f.ascent = ascent / 1000;
        f.descent = -descent / 1000;
    }
}

FontRes makeFont(const std::string& name, QPDFObjectHandle dict) {
    FontRes f;
    f.name = name;
    f.dict = dict;
    std::string base = nameOf(dict.getKeyIfDict("/BaseFont"));
    if (!base.empty()) base = stripSubset(base.substr(1));
    auto has = [&](const char* part) { return base.find(part) != std::string::npos; };
    bool bold = has("Bold") || has("Black") || has("Heavy") || has("Semibold");
    if (has("Dingbats")) {
        f.winAnsi = false;
        f.ascent = 0.705;
        f.descent = 0.014;
        for (size_t c = 32; c < 127; ++c)
            f.widths[c] = kDingbats[c - 32];
    } else if (has("Courier") || has("Mono")) {
        f.ascent = 0.629;
        f.descent = 0.157;
        for (size_t c = 32; c < 256; ++c)
            f.widths[c] = 600;
    } else {
        const auto& table = has("Times") ? (bold ? kTimesBold : kTimes)
                                         : (bold ? kHelveticaBold : kHelveticaWidths);
        if (has("Times")) f.ascent = 0.683, f.descent = 0.217;
        for (size_t c = 32; c < 256; ++c)
            f.widths[c] = table[c - 32];
        f.winAnsi = !has("Symbol");
    }
    // Widths stored in the font itself win over the built-in tables.
    QPDFObjectHandle widths = dict.getKeyIfDict("/Widths");
    int64_t first = intOf(dict.getKeyIfDict("/FirstChar"), -1);
    if (widths.isArray() && first >= 0) {
        int count = widths.getArrayNItems();
        for (int k = 0; k < count && first + k < 256; ++k) {
            double w;
            if (numberOf(widths.getArrayItem(k), w) && w >= 0) f.widths[first + k] = w;
        }
    }
    readVerticalMetrics(f, dict.getKeyIfDict("/FontDescriptor"));
    return f;
}

Font single(FontRes r) {
    Font f;
    f.ascent = r.ascent;
    f.descent = r.descent;
    f.res.push_back(std::move(r));
    return f;
}
uint32_t hexValue(const std::string& hex) {
    uint32_t v = 0;
    for (char c : hex)
        v = (v << 4) | static_cast<uint32_t>(std::stoi(std::string(1, c), nullptr, 16));
    return v;
}

// The reversed /ToUnicode of a font: for each single UTF-16 unit, the lowest code that
// maps to it (bfchar and bfrange entries of two-byte codes).
std::map<char16_t, uint32_t> reverseToUnicode(QPDFObjectHandle cmap) {
    std::map<char16_t, uint32_t> out;
    std::string text;
    try {
        auto data = cmap.getStreamData(qpdf_dl_generalized);
        text.assign(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
    } catch (const std::exception&) {
        return out;
    }
    auto add = [&](uint32_t code, uint32_t unit) {
        if (unit < 0x10000 && (unit < 0xD800 || unit > 0xDFFF))
            out.emplace(static_cast<char16_t>(unit), code);
    };
    // Tokens: hex strings and words; arrays only matter inside bfrange.
    std::vector<std::string> hex;
    std::string section;
    size_t i = 0, n = text.size();
    std::vector<std::string> arrayItems;
    bool inArray = false;
    while (i < n && out.size() < 65536) {
        char c = text[i];
        if (c == '<' && i + 1 < n && text[i + 1] != '<') {
            size_t close = text.find('>', i);
            if (close == std::string::npos) break;
            std::string h;
            for (size_t k = i + 1; k < close; ++k)
                if (std::isxdigit(static_cast<unsigned char>(text[k]))) h += text[k];
            (inArray ? arrayItems : hex).push_back(h);
            i = close + 1;
        } else if (c == '[') {
            inArray = true;
            arrayItems.clear();
            ++i;
        } else if (c == ']') {
            inArray = false;
            if (section == "bfrange" && hex.size() >= 2) {
                uint32_t lo = hexValue(hex[hex.size() - 2]);
                for (size_t k = 0; k < arrayItems.size(); ++k)
                    if (arrayItems[k].size() == 4)
                        add(lo + static_cast<uint32_t>(k), hexValue(arrayItems[k]));
            }
            hex.clear();
            ++i;
        } else if (std::isalpha(static_cast<unsigned char>(c))) {
            size_t start = i;
            while (i < n && std::isalnum(static_cast<unsigned char>(text[i])))
                ++i;
            std::string word = text.substr(start, i - start);
            if (word == "beginbfchar") section = "bfchar";
            if (word == "beginbfrange") section = "bfrange";
            if (word == "endbfchar" || word == "endbfrange") section.clear();
            hex.clear();
        } else {
            ++i;
        }
        if (section == "bfchar" && hex.size() == 2) {
            if (hex[0].size() == 4 && hex[1].size() == 4) add(hexValue(hex[0]), hexValue(hex[1]));
            hex.clear();
        } else if (section == "bfrange" && hex.size() == 3) {
            if (hex[0].size() == 4 && hex[2].size() == 4) {
                uint32_t lo = hexValue(hex[0]), hi = hexValue(hex[1]), dst = hexValue(hex[2]);
                for (uint32_t code = lo; code <= hi && code - lo < 65536; ++code)
                    add(code, dst + (code - lo));
            }
            hex.clear();
        }
    }
    return out;
}

// A Type0 font with two-byte codes that text can be encoded for: Identity-H with a
// /ToUnicode, or a predefined UTF-16 (or UCS-2) CMap. Others give a font of no codes.
FontRes makeType0(const std::string& name, QPDFObjectHandle dict) {
    FontRes f;
    f.name = name;
    f.dict = dict;
    f.mode = FontRes::kCid;
    std::string encoding = nameOf(dict.getKey("/Encoding"));
    auto endsWith = [&](const std::string& tail) {
        return encoding.size() > tail.size() &&
               encoding.compare(encoding.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (encoding == "/Identity-H") {
        QPDFObjectHandle toUnicode = dict.getKey("/ToUnicode");
        if (toUnicode.isStream()) f.codeOf = reverseToUnicode(toUnicode);
    } else if (endsWith("-UTF16-H") || endsWith("-UCS2-H")) {
        f.mode = FontRes::kUtf16;
    }
    QPDFObjectHandle kids = dict.getKey("/DescendantFonts");
    QPDFObjectHandle cid = kids.isArray() && kids.getArrayNItems() > 0
                               ? kids.getArrayItem(0)
                               : QPDFObjectHandle::newNull();
    double dw;
    if (numberOf(cid.getKeyIfDict("/DW"), dw) && dw >= 0) f.defaultWidth = dw;
    QPDFObjectHandle w = cid.getKeyIfDict("/W");
    if (w.isArray()) {
        auto items = w.getArrayAsVector();
        for (size_t k = 0; k + 1 < items.size() && f.cidWidths.size() < 65536;) {
            int64_t first = intOf(items[k], -1);
            if (first < 0) break;
            if (items[k + 1].isArray()) {
                auto list = items[k + 1].getArrayAsVector();
                for (size_t j = 0; j < list.size(); ++j) {
                    double v;
                    if (numberOf(list[j], v)) f.cidWidths[static_cast<uint32_t>(first + j)] = v;
                }
                k += 2;
            } else if (k + 2 < items.size()) {
                int64_t last = intOf(items[k + 1], -1);
                double v;
                if (numberOf(items[k + 2], v))
                    for (int64_t c = first; c <= last && c - first < 65536; ++c)
                        f.cidWidths[static_cast<uint32_t>(c)] = v;
                k += 3;
            } else {
                break;
            }
        }
    }
    f.ascent = 0.88, f.descent = 0.12;
    readVerticalMetrics(f, cid.getKeyIfDict("/FontDescriptor"));
    return f;
}

// A standard font under its usual resource name: the form's own when its /DR has that
// font there, else a dictionary of the stream's own.
FontRes standardFont(Document& doc, const std::string& name, const std::string& baseFont,
                     bool winAnsi) {
    QPDFObjectHandle form = acroForm(doc, false);
    QPDFObjectHandle dict = form.isDictionary()
                                ? form.getKey("/DR").getKeyIfDict("/Font").getKeyIfDict("/" + name)
                                : QPDFObjectHandle::newNull();
    if (!dict.isDictionary() || nameOf(dict.getKeyIfDict("/BaseFont")) != "/" + baseFont)
        dict = simpleFontDict("Type1", baseFont, winAnsi);
    return makeFont(name, dict);
}

FontRes helvetica(Document& doc) {
    return standardFont(doc, "Helv", "Helvetica", true);
}
FontRes dingbats(Document& doc) {
    return standardFont(doc, "ZaDb", "ZapfDingbats", false);
}

// Whether viewers draw a simple font as its widths say: a standard font, or one the file
// embeds. Any other is drawn in whatever font a viewer finds for its name.
bool drawnAsMeasured(QPDFObjectHandle dict) {
    QPDFObjectHandle descriptor = dict.getKeyIfDict("/FontDescriptor");
    for (const char* file : {"/FontFile", "/FontFile2", "/FontFile3"})
        if (descriptor.getKeyIfDict(file).isStream()) return true;
    static const std::set<std::string> kStandard14 = {
        "/Helvetica",   "/Helvetica-Bold",        "/Helvetica-Oblique",   "/Helvetica-BoldOblique",
        "/Times-Roman", "/Times-Bold",            "/Times-Italic",        "/Times-BoldItalic",
        "/Courier",     "/Courier-Bold",          "/Courier-Oblique",     "/Courier-BoldOblique",
        "/Symbol",      "/ZapfDingbats"};
    return kStandard14.count(nameOf(dict.getKeyIfDict("/BaseFont"))) > 0;
}

// The language to choose faces for: Japanese for kana, Korean for hangul; for other Han
// text the document's /Lang when it names Chinese or Korean, else Japanese.
std::string languageOf(Document& doc, const std::u16string& text) {
    bool han = false;
    for (char16_t c : text) {
        if ((c >= 0x3040 && c <= 0x30FF) || (c >= 0x31F0 && c <= 0x31FF) ||
            (c >= 0xFF66 && c <= 0xFF9F))
            return "ja";
        if ((c >= 0xAC00 && c <= 0xD7AF) || (c >= 0x1100 && c <= 0x11FF) ||
            (c >= 0x3130 && c <= 0x318F))
            return "ko";
        han = han || (c >= 0x3400 && c <= 0x9FFF) || (c >= 0xF900 && c <= 0xFAFF) ||
              (c >= 0xD840 && c <= 0xD87F);
    }
    if (!han) return {};
    std::string lang = toUtf8(textOf(doc.qpdf->getRoot().getKey("/Lang")));
    for (auto& ch : lang)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (lang.rfind("zh", 0) == 0 || lang.rfind("ko", 0) == 0) return lang.substr(0, 2);
    return "ja";
}

// The fonts of a widget's text: the /DA font when it draws all of texts as viewers will
// show it, else Helvetica when that draws them, else the system's faces that draw them,
// embedded, with the /DA font's family first. With no face for them at all, Helvetica and
// a warning.
Font textFont(Document& doc, QPDFObjectHandle widget, const DefaultAppearance& da,
              const std::vector<std::u16string>& texts) {
    auto drawsAll = [&](const Font& f) {
        return std::all_of(texts.begin(), texts.end(),
                           [&](const std::u16string& t) { return f.draws(t); });
    };
    std::string family;
    EmbeddedFace* embedded = nullptr;
    if (!da.font.empty()) {
        QPDFObjectHandle dict = findFontResource(doc, widget, da.font);
        std::string subtype = nameOf(dict.getKeyIfDict("/Subtype"));
        int style = 0;
        fontFamilyOf(dict, family, style);
        if ((subtype == "/Type1" || subtype == "/TrueType" || subtype == "/MMType1") &&
            drawnAsMeasured(dict)) {
            Font f = single(makeFont(da.font, dict));
            if (drawsAll(f)) return f;
        }
        // A face of the system's that an earlier drawing embedded is shaped again, and
        // draws on in the same font.
        embedded = faceOfFont(doc, dict);
        if (!embedded && subtype == "/Type0") {
            Font f = single(makeType0(da.font, dict));
            Codes codes;
            if (f.res[0].mode == FontRes::kCid &&
                std::all_of(texts.begin(), texts.end(),
                            [&](const std::u16string& t) { return f.res[0].encode(t, codes); }))
                return f;
        }
    }
    Font standard = single(helvetica(doc));
    if (drawsAll(standard)) return standard;

    std::u16string all;
    for (const auto& t : texts)
        all += t + u' ';
    Font f;
    f.doc = &doc;
    f.language = languageOf(doc, all);
    std::set<std::string> names;
    for (EmbeddedFace* face : facesFor(doc, family, f.language, all, embedded)) {
        FontRes r;
        r.mode = FontRes::kEmbedded;
        r.face = face;
        r.dict = face->dictionary();
        r.name = face->resourceName();
        for (int k = 1; !names.insert(r.name).second; ++k)
            r.name = face->resourceName() + std::to_string(k);
        r.ascent = face->ascent();
        r.descent = face->descent();
        f.res.push_back(std::move(r));
    }
    if (f.res.empty()) {
        shapeText(doc, {}, all, f.language); // warns about what no face draws
        return standard;
    }
    f.ascent = f.res[0].ascent;
    f.descent = f.res[0].descent;
    return f;
}

// Text that only the system's faces draw: the faces go into the form's /DR, where a later
// session finds them to draw on in the same fonts, and the widget's /DA names the first of
// them, as a font of the family the /DA asked for, so that a viewer that draws the widget
// anew (for /NeedAppearances, or as a person fills it in) finds the glyphs and their
// /ToUnicode.
void nameInForm(Document& doc, QPDFObjectHandle widget, const Font& font, DefaultAppearance da) {
    if (!font.shaped()) return;
    QPDFObjectHandle fonts = formFonts(doc);
    auto keyOf = [&](QPDFObjectHandle dict, const std::string& base) {
        for (auto const& k : fonts.getKeys())
            if (fonts.getKey(k).isIndirect() && fonts.getKey(k).getObjGen() == dict.getObjGen())
                return k.substr(1);
        std::string key = base;
        for (int n = 1; fonts.hasKey("/" + key); ++n)
            key = base + std::to_string(n);
        fonts.replaceKey("/" + key, dict);
        return key;
    };
    for (const FontRes& r : font.res)
        keyOf(r.dict, r.face->resourceName());
    EmbeddedFace* face = font.res[0].face;
    QPDFObjectHandle asked =
        da.font.empty() ? QPDFObjectHandle::newNull() : findFontResource(doc, widget, da.font);
    if (asked.isDictionary() && faceOfFont(doc, asked) == face) return;
    std::string family, letters;
    int style = 0;
    if (!fontFamilyOf(asked, family, style)) family.clear(), style = 0;
    for (char c : family)
        if (std::isalnum(static_cast<unsigned char>(c))) letters += c;
    da.font = keyOf(face->dictionaryFor(family, style),
                    letters.empty() ? face->resourceName() : letters + "-" + face->resourceName());
    QPDFObjectHandle holder = widget.getKey("/DA").isString() ? widget : holderOf(widget);
    holder.replaceKey("/DA", sharedString(doc, writeDA(da)));
}

// ---- text --------------------------------------------------------------------------

std::string literal(const std::string& bytes) {
    std::string out = "(";
    for (unsigned char b : bytes) {
        if (b == '(' || b == ')' || b == '\\') {
            out += '\\';
            out += static_cast<char>(b);
        } else if (b < 0x20 || b >= 0x7F) {
            char buf[5];
            buf[0] = '\\';
            buf[1] = static_cast<char>('0' + (b >> 6));
            buf[2] = static_cast<char>('0' + ((b >> 3) & 7));
            buf[3] = static_cast<char>('0' + (b & 7));
            out.append(buf, 4);
        } else {
            out += static_cast<char>(b);
        }
    }
    return out + ")";
}

std::string hexString(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out = "<";
    for (unsigned char b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0xF];
    }
    return out + ">";
}

// The order glyphs are drawn in, left to right: from the highest level down to the lowest
// odd one, every run at that level or above is turned around.
Codes visualOrder(Codes codes) {
    uint8_t top = 0;
    for (const Glyph& g : codes)
        top = std::max(top, g.level);
    for (uint8_t level = top; level >= 1; --level) {
        for (size_t i = 0; i < codes.size();) {
            if (codes[i].level < level) {
                ++i;
                continue;
            }
            size_t j = i;
            while (j < codes.size() && codes[j].level >= level)
                ++j;
            std::reverse(codes.begin() + static_cast<std::ptrdiff_t>(i),
                         codes.begin() + static_cast<std::ptrdiff_t>(j));
            i = j;
        }
    }
    return codes;
}

std::vector<std::u16string> splitLines(const std::u16string& s) {
    std::vector<std::u16string> lines(1);
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == u'\r' || s[i] == u'\n') {
            if (s[i] == u'\r' && i + 1 < s.size() && s[i + 1] == u'\n') ++i;
            lines.emplace_back();
        } else {
            lines.back() += s[i];
        }
    }
    return lines;
}

std::u16string oneLine(std::u16string s) {
    for (auto& c : s)
        if (c == u'\r' || c == u'\n') c = u' ';
    return s;
}

// Greedy word wrap of one encoded paragraph into lines no wider than avail; a word longer
// than a line is broken between characters.
std::vector<Codes> wrap(const Codes& para, double size, double avail) {
    std::vector<Codes> lines;
    size_t start = 0, n = para.size();
    if (n == 0) lines.emplace_back();
    while (start < n) {
        double w = 0;
        size_t i = start, lastSpace = SIZE_MAX;
        while (i < n) {
            double cw = para[i].advance * size / 1000;
            if (w + cw > avail && i > start && !para[i].space) break;
            if (para[i].space) lastSpace = i;
            w += cw;
            ++i;
        }
        size_t end = i, next = i;
        if (i < n && lastSpace != SIZE_MAX && lastSpace > start) {
            end = lastSpace;
            next = lastSpace + 1;
        }
        Codes line(para.begin() + static_cast<std::ptrdiff_t>(start),
                   para.begin() + static_cast<std::ptrdiff_t>(end));
        while (!line.empty() && line.back().space)
            line.pop_back();
        lines.push_back(line);
        while (next < n && para[next].space && next > start)
            ++next;
        start = next;
    }
    return lines;
}

// ---- drawing -------------------------------------------------------------------------

constexpr double kPad = 2;           // between the border and the text
constexpr double kLineFactor = 1.15; // leading per point of font size
constexpr double kAutoFactor = 1.35; // box height per point of automatic font size
constexpr double kMinAuto = 4;       // smallest automatic font size

enum BorderStyle { kSolid = 0, kDashed, kBeveled, kInset, kUnderline };

struct Frame {
    double w = 0, h = 0; // the form's box, after /MK /R
    Colour bg, bc;
    int style = kSolid;
    double bw = 1;
    std::vector<double> dash;
    bool round = false; // radio buttons: a circle instead of a rectangle

    bool hasBorder() const { return bc.present() && bw > 0; }
    // Distance from the box edge to the content area.
    double inset() const {
        if (!hasBorder()) return 0;
        return (style == kBeveled || style == kInset) ? 2 * bw : bw;
    }
};

class Content {
  public:
    std::string s;
    Content& operator<<(const std::string& t) {
        s += t;
        return *this;
    }
    void rect(double x, double y, double w, double h) {
        s += num(x) + ' ' + num(y) + ' ' + num(w) + ' ' + num(h) + " re\n";
    }
    // Saves the graphics state and clips to a rectangle.
    void clip(double x, double y, double w, double h) {
        s += "q\n";
        rect(x, y, w, h);
        s += "W\nn\n";
    }
    void moveTo(double x, double y) { s += num(x) + ' ' + num(y) + " m\n"; }
    void lineTo(double x, double y) { s += num(x) + ' ' + num(y) + " l\n"; }
    // Arc of a circle around (cx, cy) from angle a0 to a1 (radians), continuing the path.
    void arc(double cx, double cy, double r, double a0, double a1, bool move) {
        int parts = std::max(1, static_cast<int>(std::ceil(std::fabs(a1 - a0) / (kPi / 2))));
        double step = (a1 - a0) / parts;
        double k = 4.0 / 3.0 * std::tan(step / 4);
        if (move) moveTo(cx + r * std::cos(a0), cy + r * std::sin(a0));
        for (int i = 0; i < parts; ++i) {
            double t0 = a0 + i * step, t1 = t0 + step;
            double x0 = cx + r * std::cos(t0), y0 = cy + r * std::sin(t0);
            double x3 = cx + r * std::cos(t1), y3 = cy + r * std::sin(t1);
            s += num(x0 - k * r * std::sin(t0)) + ' ' + num(y0 + k * r * std::cos(t0)) + ' ' +
                 num(x3 + k * r * std::sin(t1)) + ' ' + num(y3 - k * r * std::cos(t1)) + ' ' +
                 num(x3) + ' ' + num(y3) + " c\n";
        }
    }
    void circle(double cx, double cy, double r) {
        arc(cx, cy, r, 0, 2 * kPi, true);
        s += "h\n";
    }
    // Text starting at (x, y): runs of one font and one rise, each shown with Tj, or with
    // TJ where shaping moved glyphs from where the font's widths put them.
    void text(const Font& f, double size, const Colour& colour, double x, double y,
              const Codes& logical) {
        const Codes codes = visualOrder(logical);
        uint8_t current = codes.empty() ? 0 : codes[0].font;
        s += "BT\n/" + f.res[current].name + ' ' + num(size) + " Tf\n";
        if (colour.present()) s += colour.op(false);
        s += "1 0 0 1 " + num(x) + ' ' + num(y) + " Tm\n";
        std::string shown, bytes;
        bool moved = false;
        double rise = 0;
        auto endString = [&] {
            if (bytes.empty()) return;
            shown += f.res[current].twoBytes() ? hexString(bytes) : literal(bytes);
            bytes.clear();
        };
        auto shift = [&](double by) { // thousandths of an em to the right
            if (std::fabs(by) < 0.05) return;
            endString();
            shown += ' ' + num(-by) + ' ';
            moved = true;
        };
        auto endRun = [&] {
            endString();
            if (!shown.empty()) s += moved ? "[" + shown + "] TJ\n" : shown + " Tj\n";
            shown.clear();
            moved = false;
        };
        for (const Glyph& g : codes) {
            if (g.font != current) {
                endRun();
                current = g.font;
                s += '/' + f.res[current].name + ' ' + num(size) + " Tf\n";
            }
            if (g.dy != rise) {
                endRun();
                rise = g.dy;
                s += num(rise * size / 1000) + " Ts\n";
            }
            shift(g.dx);
            if (f.res[current].twoBytes()) bytes += static_cast<char>((g.code >> 8) & 0xFF);
            bytes += static_cast<char>(g.code & 0xFF);
            shift(g.advance - g.dx - g.nominal);
        }
        endRun();
        if (rise != 0) s += "0 Ts\n";
        s += "ET\n";
    }
};

Colour bevelLight(const Frame& f) {
    return f.style == kInset ? Colour::grey(0.5) : Colour::grey(1);
}
Colour bevelDark(const Frame& f) {
    if (f.style == kInset) return Colour::grey(0.75);
    return f.bg.present() ? f.bg.scaled(0.5) : Colour::grey(0.5);
}

void drawBackground(Content& c, const Frame& f, const Colour& bg) {
    if (!bg.present()) return;
    c << bg.op(false);
    if (f.round) {
        c.circle(f.w / 2, f.h / 2, std::min(f.w, f.h) / 2);
    } else {
        c.rect(0, 0, f.w, f.h);
    }
    c << "f\n";
}

void drawBorder(Content& c, const Frame& f) {
    if (!f.hasBorder()) return;
    double bw = f.bw;
    c << "q\n" << num(bw) << " w\n" << f.bc.op(true);
    if (f.style == kDashed) {
        std::vector<double> dash = f.dash;
        bool allZero = std::all_of(dash.begin(), dash.end(), [](double d) { return d <= 0; });
        if (dash.empty() || allZero) dash = {3};
        std::string a = "[";
        for (size_t i = 0; i < dash.size(); ++i)
            a += (i ? " " : "") + num(dash[i]);
        c << a << "] 0 d\n";
    }
    if (f.style == kUnderline) {
        c.moveTo(0, bw / 2);
        c.lineTo(f.w, bw / 2);
        c << "S\nQ\n";
        return;
    }
    if (f.round) {
        c.circle(f.w / 2, f.h / 2, std::min(f.w, f.h) / 2 - bw / 2);
        c << "S\n";
    } else {
        c.rect(bw / 2, bw / 2, f.w - bw, f.h - bw);
        c << "S\n";
    }
    if (f.style == kBeveled || f.style == kInset) {
        Colour light = bevelLight(f), dark = bevelDark(f);
        if (f.round) {
            double r = std::min(f.w, f.h) / 2 - 1.5 * bw;
            c << light.op(true);
            c.arc(f.w / 2, f.h / 2, r, kPi / 4, 5 * kPi / 4, true);
            c << "S\n" << dark.op(true);
            c.arc(f.w / 2, f.h / 2, r, 5 * kPi / 4, 9 * kPi / 4, true);
            c << "S\n";
        } else {
            double a = bw, b = 2 * bw, w = f.w, h = f.h;
            c << light.op(false);
            c.moveTo(a, a);
            c.lineTo(a, h - a);
            c.lineTo(w - a, h - a);
            c.lineTo(w - b, h - b);
            c.lineTo(b, h - b);
            c.lineTo(b, b);
            c << "f\n" << dark.op(false);
            c.moveTo(w - a, h - a);
            c.lineTo(w - a, a);
            c.lineTo(a, a);
            c.lineTo(b, b);
            c.lineTo(w - b, b);
            c.lineTo(w - b, h - b);
            c << "f\n";
        }
    }
    c << "Q\n";
}

void drawFrame(Content& c, const Frame& f, const Colour& bg) {
    drawBackground(c, f, bg);
    drawBorder(c, f);
}

// Automatic size of one line of text in a box of height h (and width w when the text is
// to fit it).
double autoSize(const Font& font, const Codes& codes, double w, double h) {
    double size = std::max(kMinAuto, (h - 2) / kAutoFactor);
    double tw = font.width(codes, size);
    if (w > 0 && tw > w) size = std::max(kMinAuto, size * w / tw);
    return size;
}

double baselineCentred(const Font& font, double size, double y0, double h) {
    return y0 + (h - (font.ascent + font.descent) * size) / 2 + font.descent * size;
}

double alignedX(int quadding, double x0, double avail, double textWidth) {
    if (quadding == 1) return x0 + (avail - textWidth) / 2;
    if (quadding == 2) return x0 + avail - textWidth;
    return x0;
}

// ---- the widget's model ----------------------------------------------------------------

std::vector<std::u16string> valuesOf(QPDFObjectHandle v) {
    std::vector<std::u16string> out;
    if (v.isArray()) {
        for (auto& item : v.getArrayAsVector())
            if (item.isString() || item.isName()) out.push_back(textOf(item));
    } else if (v.isString() || v.isName()) {
        out.push_back(textOf(v));
    }
    return out;
}

// The widget's on-state name, with its slash and its bytes as they are; /Yes when it has
// none.
std::string onStateName(QPDFObjectHandle widget) {
    std::string on = onStateOf(widget);
    return on.empty() ? "/Yes" : on;
}

Frame frameOf(QPDFObjectHandle widget, double w, double h) {
    Frame f;
    f.w = w;
    f.h = h;
    QPDFObjectHandle mk = widget.getKeyIfDict("/MK");
    f.bg = colourOf(mk.getKeyIfDict("/BG"));
    f.bc = colourOf(mk.getKeyIfDict("/BC"));
    QPDFObjectHandle bs = widget.getKeyIfDict("/BS");
    QPDFObjectHandle border = widget.getKeyIfDict("/Border");
    double bw;
    if (numberOf(bs.getKeyIfDict("/W"), bw)) {
        f.bw = bw;
    } else if (border.isArray() && border.getArrayNItems() >= 3 &&
               numberOf(border.getArrayItem(2), bw)) {
        f.bw = bw;
    }
    f.bw = std::clamp(f.bw, 0.0, std::min(w, h) / 4);
    f.style = letterOf(bs.getKeyIfDict("/S"), "SDBIU", kSolid);
    QPDFObjectHandle dash = bs.getKeyIfDict("/D");
    if (dash.isArray())
        for (auto& d : dash.getArrayAsVector()) {
            double v;
            if (numberOf(d, v) && v >= 0) f.dash.push_back(v);
        }
    return f;
}

// The first line of every appearance stream drawn here. A widget whose streams all carry it
// is drawn again from its entries when it changes; any other stream is the author's, and
// is kept where this engine could not draw it as well (keepsAuthoredLook).
constexpr std::string_view kDrawnMark = "%qf-forms\n";

// The /Matrix that turns a box drawn upright (w x h after /MK /R) into the rectangle's
// own orientation: rotation 90 turns it counterclockwise, as /MK /R means.
std::array<double, 6> rotationMatrix(int rotation, double rectW, double rectH) {
    if (rotation == 90) return {0, 1, -1, 0, rectW, 0};
    if (rotation == 180) return {-1, 0, 0, -1, rectW, rectH};
    if (rotation == 270) return {0, -1, 1, 0, 0, rectH};
    return {1, 0, 0, 1, 0, 0};
}

// The entries of a form XObject that draws a widget of frame f turned by rotation, with
// fonts and the icon or the author's frame as its resources.
QPDFObjectHandle formDict(Document& doc, const Frame& f, int rotation, double rectW, double rectH,
                          const std::vector<const Font*>& fonts, QPDFObjectHandle icon,
                          QPDFObjectHandle frame) {
    QPDFObjectHandle d = QPDFObjectHandle::newDictionary();
    d.replaceKey("/Type", sharedName(doc, "/XObject"));
    d.replaceKey("/Subtype", sharedName(doc, "/Form"));
    d.replaceKey("/BBox", QPDFObjectHandle::newArray(
                              {real(doc, 0), real(doc, 0), real(doc, f.w), real(doc, f.h)}));
    if (rotation != 0) {
        auto matrix = QPDFObjectHandle::newArray();
        for (double v : rotationMatrix(rotation, rectW, rectH))
            matrix.appendItem(real(doc, v));
        d.replaceKey("/Matrix", matrix);
    }
    auto resources = QPDFObjectHandle::newDictionary();
    if (!fonts.empty()) {
        auto fontDict = QPDFObjectHandle::newDictionary();
        for (const Font* font : fonts)
            for (const FontRes& r : font->res)
                fontDict.replaceKey("/" + r.name, r.dict);
        resources.replaceKey("/Font", fontDict);
    }
    if (icon.isStream() || frame.isStream()) {
        auto xobjects = QPDFObjectHandle::newDictionary();
        if (icon.isStream()) xobjects.replaceKey("/Icon", icon);
        if (frame.isStream()) xobjects.replaceKey("/Frame", frame);
        resources.replaceKey("/XObject", xobjects);
    }
    d.replaceKey("/Resources", resources);
    return d;
}

// A stream of data with the entries of dict: reuse (a stream of an earlier drawing) written
// again, or a new one.
QPDFObjectHandle makeForm(Document& doc, QPDFObjectHandle dict, const std::string& data,
                          QPDFObjectHandle reuse) {
    QPDFObjectHandle stream = reuse;
    if (stream.isStream()) {
        for (const auto& key : stream.getDict().getKeys())
            stream.getDict().removeKey(key);
        stream.replaceStreamData(data, QPDFObjectHandle::newNull(), QPDFObjectHandle::newNull());
    } else {
        stream = makeStream(doc, data);
    }
    QPDFObjectHandle d = stream.getDict();
    for (auto [key, value] : dict.ditems())
        d.replaceKey(key, value);
    return stream;
}

// ---- the content of each field type ---------------------------------------------------

struct Context {
    Document& doc;
    QPDFObjectHandle widget;
    QPDFObjectHandle field; // the widget itself when it has no field
    Frame frame;
    DefaultAppearance da;
    uint32_t flags = 0;
    int quadding = 0;
    bool overFrame = false; // drawn over the author's frame, which has its own dividers
};

// One line of text, aligned by /Q between x0 and x0 + availW and centred in the row from y0
// of height h; a size of 0 fits the text to the row.
void lineOfText(const Context& cx, Content& c, const Font& font, const std::u16string& text,
                double size, double x0, double availW, double y0, double h) {
    Codes bytes = font.encode(oneLine(text));
    if (size <= 0) size = autoSize(font, bytes, availW, h);
    if (!bytes.empty())
        c.text(font, size, cx.da.colour, alignedX(cx.quadding, x0, availW, font.width(bytes, size)),
               baselineCentred(font, size, y0, h), bytes);
}

// The text a text field shows: its value (asterisks for a password).
std::u16string shownText(const Context& cx) {
    std::u16string value;
    QPDFObjectHandle v = inherited(cx.field, "/V");
    if (v.isString() || v.isName()) value = textOf(v);
    // Long values may come as a text stream.
    if (v.isStream()) value = textOf(v);
    if (cx.flags & PD_FIELD_PASSWORD) {
        size_t count = 0;
        for (char16_t ch : value)
            count += (ch < 0xDC00 || ch > 0xDFFF) ? 1 : 0;
        value.assign(count, u'*');
    }
    return value;
}

void textContent(Context& cx, Content& c, const Font& font, const std::u16string& value) {
    const Frame& f = cx.frame;
    double in = f.inset();
    double boxW = f.w - 2 * in, boxH = f.h - 2 * in;
    double x0 = in + kPad, availW = boxW - 2 * kPad;
    int64_t maxLen = intOf(inherited(cx.field, "/MaxLen"), 0);
    bool multiline = (cx.flags & PD_FIELD_MULTILINE) != 0;
    bool comb = (cx.flags & PD_FIELD_COMB) && maxLen > 0 &&
                !(cx.flags & (PD_FIELD_MULTILINE | PD_FIELD_PASSWORD));

    c << "/Tx BMC\n";
    c.clip(in, in, boxW, boxH);
    if (comb) {
        // One character a cell; a glyph that does not advance (a mark) shares the cell of
        // the glyph before it.
        std::vector<Codes> cells;
        for (const Glyph& g : font.encode(oneLine(value))) {
            if (cells.empty() || g.advance > 0) cells.emplace_back();
            cells.back().push_back(g);
        }
        if (cells.size() > static_cast<size_t>(maxLen)) cells.resize(maxLen);
        double cell = f.w / static_cast<double>(maxLen);
        double size = cx.da.size;
        if (size <= 0) {
            size = autoSize(font, {}, 0, boxH);
            double widest = 0;
            for (const Codes& one : cells)
                widest = std::max(widest, font.width(one, 1));
            if (widest > 0) size = std::max(kMinAuto, std::min(size, cell * 0.9 / widest));
        }
        size_t first = 0, free = static_cast<size_t>(maxLen) - cells.size();
        if (cx.quadding == 1) first = free / 2;
        if (cx.quadding == 2) first = free;
        double y = baselineCentred(font, size, in, boxH);
        for (size_t i = 0; i < cells.size(); ++i) {
            double x = (first + i) * cell + (cell - font.width(cells[i], size)) / 2;
            c.text(font, size, cx.da.colour, x, y, cells[i]);
        }
    } else if (multiline) {
        std::vector<Codes> paras;
        for (auto& p : splitLines(value))
            paras.push_back(font.encode(p));
        auto layout = [&](double size) {
            std::vector<Codes> lines;
            for (auto& p : paras)
                for (auto& l : wrap(p, size, availW))
                    lines.push_back(l);
            return lines;
        };
        double size = cx.da.size > 0 ? cx.da.size : 12;
        std::vector<Codes> lines = layout(size);
        if (cx.da.size <= 0) {
            while (size > kMinAuto && (lines.size() * size * kLineFactor > boxH - 2 * kPad ||
                                       size * kLineFactor > boxH - 2 * kPad)) {
                size = std::max(kMinAuto, size - 0.5);
                lines = layout(size);
            }
        }
        double y = f.h - in - kPad - font.ascent * size;
        for (auto& line : lines) {
            if (y < in - size) break;
            if (!line.empty())
                c.text(font, size, cx.da.colour,
                       alignedX(cx.quadding, x0, availW, font.width(line, size)), y, line);
            y -= size * kLineFactor;
        }
    } else {
        lineOfText(cx, c, font, value, cx.da.size, x0, availW, in, boxH);
    }
    c << "Q\nEMC\n";
    // Cell dividers of a comb field, in the border colour.
    if (comb && f.hasBorder() && f.style != kUnderline && !cx.overFrame) {
        c << "q\n" << num(f.bw) << " w\n" << f.bc.op(true);
        for (int64_t i = 1; i < maxLen; ++i) {
            double x = f.w * static_cast<double>(i) / static_cast<double>(maxLen);
            c.moveTo(x, in);
            c.lineTo(x, f.h - in);
        }
        c << "S\nQ\n";
    }
}

void choiceContent(Context& cx, Content& c, const Font& font, const std::vector<Option>& options,
                   const std::vector<std::u16string>& values) {
    const Frame& f = cx.frame;
    double in = f.inset();
    double boxW = f.w - 2 * in, boxH = f.h - 2 * in;
    double x0 = in + kPad, availW = boxW - 2 * kPad;

    c << "/Tx BMC\n";
    c.clip(in, in, boxW, boxH);
    if (cx.flags & PD_FIELD_COMBO) {
        std::u16string shown;
        if (!values.empty()) {
            shown = values[0];
            for (auto& o : options)
                if (o.exportValue == values[0]) {
                    shown = o.display;
                    break;
                }
        }
        lineOfText(cx, c, font, shown, cx.da.size, x0, availW, in, boxH);
    } else {
        std::set<size_t> selected;
        for (size_t i = 0; i < options.size(); ++i)
            if (std::find(values.begin(), values.end(), options[i].exportValue) != values.end())
                selected.insert(i);
        QPDFObjectHandle indices = inherited(cx.field, "/I");
        if (values.empty() && indices.isArray())
            for (auto& item : indices.getArrayAsVector()) {
                int64_t k = intOf(item, -1);
                if (k >= 0 && static_cast<size_t>(k) < options.size()) selected.insert(k);
            }
        double size = cx.da.size > 0 ? cx.da.size : 12;
        double rowH = size * kLineFactor;
        size_t top =
            static_cast<size_t>(std::max<int64_t>(0, intOf(inherited(cx.field, "/TI"), 0)));
        double y = f.h - in;
        for (size_t i = top; i < options.size() && y > in; ++i, y -= rowH) {
            if (selected.count(i)) {
                c << "0.6 0.75 0.85 rg\n";
                c.rect(in, y - rowH, boxW, rowH);
                c << "f\n";
            }
            lineOfText(cx, c, font, options[i].display, size, x0, availW, y - rowH, rowH);
        }
    }
    c << "Q\nEMC\n";
}

// The ZapfDingbats character of a check box or radio button.
Codes boxGlyph(const Font& zadb, QPDFObjectHandle widget, bool radio) {
    std::u16string caption = textOf(widget.getKeyIfDict("/MK").getKeyIfDict("/CA"));
    if (!caption.empty() && caption[0] > 0x20 && caption[0] < 0x7F)
        return zadb.encode(caption.substr(0, 1));
    return zadb.encode(radio ? u"l" : u"4");
}

void glyphContent(Context& cx, Content& c, const Font& zadb, const Codes& glyph) {
    const Frame& f = cx.frame;
    double in = f.inset();
    double boxW = f.w - 2 * in, boxH = f.h - 2 * in;
    double em = zadb.width(glyph, 1);
    double height = zadb.ascent + zadb.descent;
    double size = cx.da.size;
    if (size <= 0) {
        double room = f.round ? std::min(boxW, boxH) * 0.5 : std::min(boxW, boxH) * 0.8;
        size = room / std::max(em, height);
    }
    Colour colour = cx.da.colour.present() ? cx.da.colour : Colour::grey(0);
    c << "q\n";
    c.text(zadb, size, colour, (f.w - em * size) / 2,
           f.h / 2 - (zadb.ascent - zadb.descent) * size / 2, glyph);
    c << "Q\n";
}

// A form XObject icon fitted into (x, y, w, h) by the icon fit dictionary /MK /IF.
void iconContent(Content& c, QPDFObjectHandle icon, QPDFObjectHandle fit, double x, double y,
                 double w, double h) {
    QPDFObjectHandle bbox = icon.getDict().getKey("/BBox");
    double b[4];
    if (!bbox.isArray() || bbox.getArrayNItems() != 4) return;
    for (int i = 0; i < 4; ++i)
        if (!numberOf(bbox.getArrayItem(i), b[i])) return;
    double iw = std::fabs(b[2] - b[0]), ih = std::fabs(b[3] - b[1]);
    if (iw <= 0 || ih <= 0 || w <= 0 || h <= 0) return;
    std::string when = nameOf(fit.getKeyIfDict("/SW"));
    double sx = w / iw, sy = h / ih;
    if (nameOf(fit.getKeyIfDict("/S")) != "/A") sx = sy = std::min(sx, sy);
    bool scale = when == "/B"   ? (iw > w || ih > h)
                 : when == "/S" ? (iw < w && ih < h)
                                : when != "/N";
    if (!scale) sx = sy = 1;
    double ax = 0.5, ay = 0.5;
    QPDFObjectHandle a = fit.getKeyIfDict("/A");
    if (a.isArray() && a.getArrayNItems() == 2) {
        numberOf(a.getArrayItem(0), ax);
        numberOf(a.getArrayItem(1), ay);
    }
    double ox = x + (w - iw * sx) * std::clamp(ax, 0.0, 1.0) - std::min(b[0], b[2]) * sx;
    double oy = y + (h - ih * sy) * std::clamp(ay, 0.0, 1.0) - std::min(b[1], b[3]) * sy;
    c.clip(x, y, w, h);
    c << num(sx) << " 0 0 " << num(sy) << " " << num(ox) << " " << num(oy) << " cm\n/Icon Do\nQ\n";
}

// The face of a push button in one state: caption and icon laid out by /MK /TP (0 caption
// only, 1 icon only, 2 caption below the icon, 3 above, 4 right, 5 left, 6 overlaid).
void buttonFace(Context& cx, Content& c, const Font& font, const std::u16string& caption,
                QPDFObjectHandle icon, double shift) {
    const Frame& f = cx.frame;
    QPDFObjectHandle mk = cx.widget.getKeyIfDict("/MK");
    double in = f.inset();
    double x = in + shift, y = in - shift, w = f.w - 2 * in, h = f.h - 2 * in;
    Codes bytes = font.encode(oneLine(caption));
    int64_t layout = icon.isStream() ? intOf(mk.getKeyIfDict("/TP"), 0) : 0;
    if (layout < 0 || layout > 6) layout = 0;
    if (bytes.empty() && layout >= 2 && layout <= 5) layout = 1;

    double size = cx.da.size;
    if (size <= 0) {
        double capW = layout == 4 || layout == 5 ? w / 2 : w;
        double capH = layout == 2 || layout == 3 ? h / 3 : h;
        size = autoSize(font, bytes, capW - 2 * kPad, capH);
    }
    double textW = font.width(bytes, size);
    double capX = x, capY = y, capW = w, capH = h; // the caption's area
    double icX = x, icY = y, icW = w, icH = h;     // the icon's area
    double lineH = std::min(h, size * kAutoFactor);
    double colW = std::min(w, textW + 2 * kPad);
    switch (layout) {
    case 2:
        capH = lineH, icY = y + lineH, icH = h - lineH;
        break;
    case 3:
        capY = y + h - lineH, capH = lineH, icH = h - lineH;
        break;
    case 4:
        capX = x + w - colW, capW = colW, icW = w - colW;
        break;
    case 5:
        capW = colW, icX = x + colW, icW = w - colW;
        break;
    default:
        break;
    }
    if (layout >= 1) {
        QPDFObjectHandle fit = mk.getKeyIfDict("/IF");
        QPDFObjectHandle fb = fit.getKeyIfDict("/FB");
        if ((layout == 1 || layout == 6) && fb.isBool() && fb.getBoolValue())
            icX = shift, icY = -shift, icW = f.w, icH = f.h;
        iconContent(c, icon, fit, icX, icY, icW, icH);
    }
    if (layout == 1 || bytes.empty()) return;
    c.clip(in, in, f.w - 2 * in, f.h - 2 * in);
    c.text(font, size, cx.da.colour, capX + (capW - textW) / 2,
           baselineCentred(font, size, capY, capH), bytes);
    c << "Q\n";
}

Colour pressed(const Colour& bg) {
    return bg.present() ? bg.scaled(0.75) : Colour::grey(0.75);
}

// ---- the author's drawings -------------------------------------------------------------

using Matrix = std::array<double, 6>;

// a, then b (PDF matrices apply to row vectors).
Matrix times(const Matrix& a, const Matrix& b) {
    return {a[0] * b[0] + a[1] * b[2],        a[0] * b[1] + a[1] * b[3],
            a[2] * b[0] + a[3] * b[2],        a[2] * b[1] + a[3] * b[3],
            a[4] * b[0] + a[5] * b[2] + b[4], a[4] * b[1] + a[5] * b[3] + b[5]};
}

std::optional<Matrix> inverse(const Matrix& m) {
    double det = m[0] * m[3] - m[1] * m[2];
    if (std::fabs(det) < 1e-12) return std::nullopt;
    Matrix r = {m[3] / det, -m[1] / det, -m[2] / det, m[0] / det, 0, 0};
    r[4] = -(m[4] * r[0] + m[5] * r[2]);
    r[5] = -(m[4] * r[1] + m[5] * r[3]);
    return r;
}

// How a viewer puts a form XObject into a rectangle of w x h: its /BBox, turned by its
// /Matrix, scaled and moved onto (0, 0, w, h). Nothing for a box without area.
std::optional<Matrix> fitting(QPDFObjectHandle form, double w, double h) {
    QPDFObjectHandle dict = form.getDict();
    QPDFObjectHandle box = dict.getKey("/BBox"), m = dict.getKey("/Matrix");
    double b[4];
    if (!box.isArray() || box.getArrayNItems() != 4) return std::nullopt;
    for (int i = 0; i < 4; ++i)
        if (!numberOf(box.getArrayItem(i), b[i])) return std::nullopt;
    Matrix turn = {1, 0, 0, 1, 0, 0};
    if (m.isArray() && m.getArrayNItems() == 6)
        for (int i = 0; i < 6; ++i)
            if (!numberOf(m.getArrayItem(i), turn[i])) turn = {1, 0, 0, 1, 0, 0};
    double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    for (double x : {b[0], b[2]})
        for (double y : {b[1], b[3]}) {
            double tx = x * turn[0] + y * turn[2] + turn[4];
            double ty = x * turn[1] + y * turn[3] + turn[5];
            x0 = std::min(x0, tx), x1 = std::max(x1, tx);
            y0 = std::min(y0, ty), y1 = std::max(y1, ty);
        }
    if (!(x1 - x0 > 1e-6) || !(y1 - y0 > 1e-6) || w <= 0 || h <= 0) return std::nullopt;
    double sx = w / (x1 - x0), sy = h / (y1 - y0);
    return Matrix{sx, 0, 0, sy, -x0 * sx, -y0 * sy};
}

// The decoded content of a stream; nothing when it cannot be decoded.
std::optional<std::string> contentOf(QPDFObjectHandle stream) {
    try {
        auto data = stream.getStreamData(qpdf_dl_generalized);
        return std::string(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The streams of an /AP entry: the entry itself, or each of its states.
std::vector<QPDFObjectHandle> streamsOf(QPDFObjectHandle entry) {
    std::vector<QPDFObjectHandle> out;
    if (entry.isStream()) {
        out.push_back(entry);
    } else if (entry.isDictionary()) {
        for (auto const& key : entry.getKeys()) {
            QPDFObjectHandle s = entry.getKey(key);
            if (s.isStream()) out.push_back(s);
        }
    }
    return out;
}

// Whether the widget shows a drawing that pdfcore did not make: a readable stream in /AP
// without the mark of pdfcore's drawings. A widget without one has nothing of its
// author's to keep.
bool showsAuthoredLook(QPDFObjectHandle widget) {
    QPDFObjectHandle ap = widget.getKeyIfDict("/AP");
    for (const char* which : {"/N", "/D", "/R"})
        for (auto& stream : streamsOf(ap.getKeyIfDict(which))) {
            auto content = contentOf(stream);
            if (content && content->compare(0, kDrawnMark.size(), kDrawnMark) != 0) return true;
        }
    return false;
}

// Reads the tokens of a content stream, calling visit(token, start, end) for each (the
// byte range it takes), inline image data skipped. Stops at the end, at a token that cannot
// be read, or when visit answers false.
template <typename Visit> void scanContent(const std::string& content, Visit&& visit) {
    auto input = std::make_shared<BufferInputSource>("appearance", content);
    QPDFTokenizer tokenizer;
    tokenizer.allowEOF();
    for (;;) {
        QPDFTokenizer::Token token = tokenizer.readToken(input, "appearance", true);
        if (token.getType() == QPDFTokenizer::tt_eof || token.getType() == QPDFTokenizer::tt_bad)
            return;
        size_t start = static_cast<size_t>(input->getLastOffset());
        size_t end = static_cast<size_t>(input->tell());
        if (!visit(token, start, end)) return;
        if (token.isWord("ID")) {
            char space;
            input->read(&space, 1);
            tokenizer.expectInlineImage(input);
            tokenizer.readToken(input, "appearance", true);
        }
    }
}

// Whether content paints anything: a fill, a stroke, text, an image, a shading or an
// XObject.
bool paints(const std::string& content) {
    static const std::set<std::string> kPainting = {"f",  "F", "f*", "B", "B*", "b",  "b*",
                                                    "S",  "s", "Tj", "TJ", "'", "\"", "Do",
                                                    "sh", "ID"};
    bool found = false;
    scanContent(content, [&](const QPDFTokenizer::Token& token, size_t, size_t) {
        found = token.getType() == QPDFTokenizer::tt_word && kPainting.count(token.getValue());
        return !found;
    });
    return found;
}

bool paints(QPDFObjectHandle stream) {
    auto content = contentOf(stream);
    return content && paints(*content);
}

// content without the marked content that holds a text or choice field's value
// (/Tx BMC ... EMC); nothing when it holds none.
std::optional<std::string> withoutVariableText(const std::string& content) {
    std::string out;
    size_t copied = 0, textStart = 0, nameStart = 0;
    int depth = 0;
    bool afterTx = false, found = false;
    scanContent(content, [&](const QPDFTokenizer::Token& token, size_t start, size_t end) {
        bool word = token.getType() == QPDFTokenizer::tt_word;
        if (depth == 0) {
            if (afterTx && token.isWord("BMC")) {
                depth = 1;
                textStart = nameStart;
            }
            afterTx = token.getType() == QPDFTokenizer::tt_name && token.getValue() == "/Tx";
            nameStart = start;
        } else if (word && (token.getValue() == "BMC" || token.getValue() == "BDC")) {
            ++depth;
        } else if (word && token.getValue() == "EMC" && --depth == 0) {
            out.append(content, copied, textStart - copied);
            copied = end;
            found = true;
        }
        return true;
    });
    if (depth > 0) { // left open: the text runs to the end
        out.append(content, copied, textStart - copied);
        copied = content.size();
        found = true;
    }
    if (!found) return std::nullopt;
    out.append(content, copied, std::string::npos);
    return out;
}

// The author's drawing of a text or choice field without its text, as a form XObject of
// its own (the same box, matrix and resources); null when the drawing does not set its
// text apart as marked content, so that the two cannot be told apart.
QPDFObjectHandle authoredFrame(Document& doc, QPDFObjectHandle normal) {
    if (!normal.isStream()) return QPDFObjectHandle::newNull();
    auto content = contentOf(normal);
    if (!content) return QPDFObjectHandle::newNull();
    auto frame = withoutVariableText(*content);
    if (!frame || !fitting(normal, 1, 1)) return QPDFObjectHandle::newNull();
    QPDFObjectHandle stream = makeStream(doc, *frame);
    QPDFObjectHandle from = normal.getDict(), to = stream.getDict();
    to.replaceKey("/Type", sharedName(doc, "/XObject"));
    to.replaceKey("/Subtype", sharedName(doc, "/Form"));
    for (const char* key : {"/BBox", "/Matrix", "/Resources"})
        if (from.hasKey(key)) to.replaceKey(key, from.getKey(key));
    return stream;
}

// The frame a drawing of pdfcore's laid text over: /Frame among its resources.
QPDFObjectHandle ownFrame(QPDFObjectHandle normal) {
    if (!normal.isStream()) return QPDFObjectHandle::newNull();
    QPDFObjectHandle frame =
        normal.getDict().getKey("/Resources").getKeyIfDict("/XObject").getKeyIfDict("/Frame");
    return frame.isStream() ? frame : QPDFObjectHandle::newNull();
}

// Draws frame fitted into the rectangle as a viewer would draw it alone, from inside a
// form XObject turned by /MK /R.
void drawAuthoredFrame(Content& c, QPDFObjectHandle frame, int rotation, double rectW,
                       double rectH) {
    auto fit = fitting(frame, rectW, rectH);
    auto unturn = inverse(rotationMatrix(rotation, rectW, rectH));
    if (!fit || !unturn) return;
    Matrix m = times(*fit, *unturn);
    c << "q\n";
    for (double v : m)
        c << num(v) << " ";
    c << "cm\n/Frame Do\nQ\n";
}

// Where a drawing would leave a state empty that the author's drawing showed, the author's
// stream stays.
void keepVisibleStates(QPDFObjectHandle before, QPDFObjectHandle ap) {
    for (const char* which : {"/N", "/D"}) {
        QPDFObjectHandle was = before.getKeyIfDict(which), now = ap.getKeyIfDict(which);
        if (was.isStream() && now.isStream()) {
            if (!paints(now) && paints(was)) ap.replaceKey(which, was);
        } else if (was.isDictionary() && !was.isStream() && now.isDictionary() &&
                   !now.isStream()) {
            for (auto const& state : now.getKeys()) {
                QPDFObjectHandle old = was.getKey(state);
                if (old.isStream() && !paints(now.getKey(state)) && paints(old))
                    now.replaceKey(state, old);
            }
        }
    }
}

// Whether kept, a stream the widget shows, holds the drawing of data with the entries of
// dict: the same data once decoded, the same entries but those that say how it is stored.
// decoded holds kept's data once read.
bool sameDrawing(QPDFObjectHandle kept, std::optional<std::string>& decoded,
                 QPDFObjectHandle dict, const std::string& data) {
    static const std::set<std::string> kStorage = {"/Length", "/Filter", "/DecodeParms"};
    QPDFObjectHandle held = kept.getDict();
    for (auto [key, value] : held.ditems())
        if (!kStorage.count(key) && dict.getKey(key).unparse() != value.unparse()) return false;
    for (const auto& key : dict.getKeys())
        if (!held.hasKey(key)) return false;
    if (!decoded) decoded = contentOf(kept).value_or(std::string(1, '\0'));
    return *decoded == data;
}

// The stream of a drawing that widgets share: one made before with the same entries and
// data, else a new one that later drawings find.
QPDFObjectHandle sharedForm(Document& doc, QPDFObjectHandle dict, const std::string& data) {
    std::string key = dict.unparse();
    size_t hash = std::hash<std::string>{}(key) ^ (std::hash<std::string>{}(data) * 31);
    auto [from, to] = doc.sharedDrawings.equal_range(hash);
    for (auto it = from; it != to; ++it) {
        std::optional<std::string> decoded;
        if (sameDrawing(it->second, decoded, dict, data)) return it->second;
    }
    QPDFObjectHandle stream = makeForm(doc, dict, data, QPDFObjectHandle::newNull());
    doc.sharedDrawings.emplace(hash, stream);
    return stream;
}

} // namespace

namespace {

void drawAppearance(Document& doc, QPDFObjectHandle widget, Redraw what) {
    if (!widget.isDictionary()) return;
    QPDFObjectHandle field = holderOf(widget);
    std::string type = nameOf(inherited(field, "/FT"));
    // A signed signature keeps the appearance that was signed. A widget of no field type
    // keeps what it draws: nothing here says what that should be.
    bool hasAppearance = widget.getKeyIfDict("/AP").isDictionary();
    if (hasAppearance && type == "/Sig" && inherited(field, "/V").isDictionary()) return;
    if (hasAppearance && type.empty()) return;

    const auto flags = static_cast<uint32_t>(intOf(inherited(field, "/Ff"), 0));
    const bool checkOrRadio = type == "/Btn" && !(flags & PD_FIELD_PUSHBUTTON);
    const bool textual = type == "/Tx" || type == "/Ch";
    QPDFObjectHandle before = widget.getKeyIfDict("/AP");
    const bool authored = showsAuthoredLook(widget);
    // The author's frame stays under the text that a new size, value or text style needs;
    // so does one that an earlier drawing here kept.
    QPDFObjectHandle frame = QPDFObjectHandle::newNull();
    if (textual && what != Redraw::kAll) {
        QPDFObjectHandle normal = before.getKeyIfDict("/N");
        frame = authored ? authoredFrame(doc, normal) : ownFrame(normal);
        if (authored && frame.isNull() && what == Redraw::kSize) return;
    } else if (authored && !textual && what <= Redraw::kValue) {
        // A check box or radio button shows its value by its state; one without a drawing
        // of its on-state is drawn anew.
        if (!checkOrRadio || what == Redraw::kSize) return;
        if (before.getKeyIfDict("/N").getKeyIfDict(onStateName(widget)).isStream()) {
            showValueState(widget, field);
            return;
        }
    }

    double rect[4] = {0, 0, 0, 0};
    QPDFObjectHandle r = widget.getKey("/Rect");
    if (r.isArray() && r.getArrayNItems() == 4)
        for (int i = 0; i < 4; ++i)
            if (!numberOf(r.getArrayItem(i), rect[i])) rect[i] = 0;
    double rectW = std::fabs(rect[2] - rect[0]), rectH = std::fabs(rect[3] - rect[1]);
    int64_t rotation = intOf(widget.getKeyIfDict("/MK").getKeyIfDict("/R"), 0);
    rotation = ((rotation % 360) + 360) % 360;
    if (rotation % 90 != 0) rotation = 0;
    bool swap = rotation == 90 || rotation == 270;

    Context cx{doc,
               widget,
               field,
               frameOf(widget, swap ? rectH : rectW, swap ? rectW : rectH),
               parseDA(effectiveDA(doc, widget)),
               flags,
               0};
    cx.quadding = static_cast<int>(std::clamp<int64_t>(intOf(quaddingEntry(doc, widget), 0), 0, 2));
    cx.overFrame = frame.isStream();

    // The streams this widget's last drawing made are written again rather than left
    // behind in the document: a widget styled, turned on and grouped in a row is drawn
    // several times, and the document should not keep every earlier drawing in memory.
    std::vector<QPDFObjectHandle> spare, drawn;
    if (widget.isIndirect()) {
        auto it = doc.drawnStreams.find(widget.getObjGen());
        if (it != doc.drawnStreams.end()) {
            spare = std::move(it->second);
            doc.drawnStreams.erase(it);
        }
    }
    // A drawing that comes out as a stream the widget shows already drew it takes that
    // stream again (a widget joining a field of the same value, a style set to what it
    // was): the file's objects stay as they were, and an update does not carry them.
    std::vector<std::pair<QPDFObjectHandle, std::optional<std::string>>> shown;
    for (const char* which : {"/N", "/D"})
        for (auto& stream : streamsOf(before.getKeyIfDict(which)))
            if (std::none_of(spare.begin(), spare.end(), [&](QPDFObjectHandle s) {
                    return s.getObjGen() == stream.getObjGen();
                }))
                shown.emplace_back(stream, std::nullopt);
    // The states of check boxes and radio buttons of a size and style are drawn alike, and
    // those widgets share the streams: a reader turns a box on through /AS and never draws
    // into them. A stream shared is never written over. Other drawings stay each widget's
    // own, for tools fill in a text or choice field by writing over the stream it shows.
    const bool shared = checkOrRadio;
    auto form = [&](const std::vector<const Font*>& fonts, const std::string& content,
                    QPDFObjectHandle icon = QPDFObjectHandle::newNull()) {
        QPDFObjectHandle dict =
            formDict(doc, cx.frame, static_cast<int>(rotation), rectW, rectH, fonts, icon, frame);
        std::string data;
        data.reserve(kDrawnMark.size() + content.size());
        data.append(kDrawnMark).append(content);
        for (auto& [stream, decoded] : shown)
            if (sameDrawing(stream, decoded, dict, data)) return stream;
        if (shared) return sharedForm(doc, dict, data);
        QPDFObjectHandle reuse = QPDFObjectHandle::newNull();
        if (!spare.empty()) {
            reuse = spare.back();
            spare.pop_back();
        }
        drawn.push_back(makeForm(doc, dict, data, reuse));
        return drawn.back();
    };
    // Background and border: the author's when kept, else from /MK and /BS.
    auto underlay = [&](Content& c) {
        if (frame.isStream()) {
            drawAuthoredFrame(c, frame, static_cast<int>(rotation), rectW, rectH);
        } else {
            drawFrame(c, cx.frame, cx.frame.bg);
        }
    };
    auto ap = QPDFObjectHandle::newDictionary();
    const Frame& f = cx.frame;

    if (checkOrRadio) {
        bool radio = (cx.flags & PD_FIELD_RADIO) != 0;
        cx.frame.round = radio;
        // Viewers that draw check boxes anew (for /NeedAppearances) take ZapfDingbats from
        // the form's resources under its usual name.
        QPDFObjectHandle fonts = formFonts(doc);
        if (!fonts.getKey("/ZaDb").isDictionary())
            fonts.replaceKey("/ZaDb",
                             makeIndirect(doc, simpleFontDict("Type1", "ZapfDingbats", false)));
        Font zadb = single(dingbats(doc));
        Codes glyph = boxGlyph(zadb, widget, radio);
        std::string on = onStateName(widget);
        auto states = [&](const Colour& bg) {
            Content offC, onC;
            drawFrame(offC, f, bg);
            drawFrame(onC, f, bg);
            glyphContent(cx, onC, zadb, glyph);
            auto dict = QPDFObjectHandle::newDictionary();
            dict.replaceKey(on, form({&zadb}, onC.s));
            dict.replaceKey("/Off", form({}, offC.s));
            return dict;
        };
        ap.replaceKey("/N", states(f.bg));
        ap.replaceKey("/D", states(pressed(f.bg)));
        showValueState(widget, field);
    } else if (type == "/Btn") {
        QPDFObjectHandle mk = widget.getKeyIfDict("/MK");
        std::u16string caption = textOf(mk.getKeyIfDict("/CA"));
        std::u16string down = caption;
        if (mk.getKeyIfDict("/AC").isString()) down = textOf(mk.getKeyIfDict("/AC"));
        Font font = textFont(doc, widget, cx.da, {caption, down});
        nameInForm(doc, widget, font, cx.da);
        QPDFObjectHandle icon = mk.getKeyIfDict("/I");
        QPDFObjectHandle downIcon = mk.getKeyIfDict("/IX");
        if (!icon.isStream()) icon = QPDFObjectHandle::newNull();
        if (!downIcon.isStream()) downIcon = icon;
        Content normal, pushed;
        drawFrame(normal, f, f.bg);
        buttonFace(cx, normal, font, caption, icon, 0);
        Frame downFrame = f;
        if (downFrame.style == kBeveled) downFrame.style = kInset;
        drawFrame(pushed, downFrame, pressed(f.bg));
        buttonFace(cx, pushed, font, down, downIcon, f.hasBorder() ? 1 : 0);
        ap.replaceKey("/N", form({&font}, normal.s, icon));
        ap.replaceKey("/D", form({&font}, pushed.s, downIcon));
        widget.removeKey("/AS");
    } else if (type == "/Tx") {
        std::u16string value = shownText(cx);
        Font font = textFont(doc, widget, cx.da, {value});
        nameInForm(doc, widget, font, cx.da);
        Content c;
        underlay(c);
        textContent(cx, c, font, value);
        ap.replaceKey("/N", form({&font}, c.s));
    } else if (type == "/Ch") {
        std::vector<Option> options = optionsOf(field);
        std::vector<std::u16string> values = valuesOf(inherited(field, "/V"));
        std::vector<std::u16string> texts = values;
        for (auto& o : options)
            texts.push_back(o.display);
        Font font = textFont(doc, widget, cx.da, texts);
        nameInForm(doc, widget, font, cx.da);
        Content c;
        underlay(c);
        choiceContent(cx, c, font, options, values);
        ap.replaceKey("/N", form({&font}, c.s));
    } else {
        // Signature fields, and widgets without a field that have no appearance yet.
        Content c;
        drawFrame(c, f, f.bg);
        ap.replaceKey("/N", form({}, c.s));
    }
    if (authored) keepVisibleStates(before, ap);
    widget.replaceKey("/AP", ap);
    if (widget.isIndirect() && !drawn.empty())
        doc.drawnStreams[widget.getObjGen()] = std::move(drawn);
}

} // namespace

std::string showValueState(QPDFObjectHandle widget, QPDFObjectHandle field) {
    const std::string on = onStateName(widget);
    const std::vector<std::u16string> values = valuesOf(inherited(field, "/V"));
    const bool isOn = !values.empty() && values[0] == toU16(on.substr(1));
    widget.replaceKey("/AS", QPDFObjectHandle::newName(isOn ? on : "/Off"));
    return on;
}

std::string pendingValueState(Document& doc, QPDFObjectHandle widget) {
    if (!widget.isIndirect()) return {};
    auto it = doc.staleAppearances.find(widget.getObjGen());
    if (it == doc.staleAppearances.end()) return {};
    QPDFObjectHandle field = holderOf(widget);
    const auto flags = static_cast<uint32_t>(intOf(inherited(field, "/Ff"), 0));
    if (nameOf(inherited(field, "/FT")) != "/Btn" || (flags & PD_FIELD_PUSHBUTTON)) return {};
    // Only a new size leaves an author's drawing as it is, /AS included (drawAppearance).
    if (it->second == Redraw::kSize && showsAuthoredLook(widget)) return {};
    showValueState(widget, field);
    return nameOf(widget.getKey("/AS"));
}

void regenerateAppearance(Document& doc, QPDFObjectHandle widget, Redraw what) {
    if (!widget.isDictionary()) return;
    if (!widget.isIndirect()) return drawAppearance(doc, widget, what);
    // Changed since it left a field, it is drawn when it joins the next one.
    doc.detachedInputs.erase(widget.getObjGen());
    auto [it, added] = doc.staleAppearances.emplace(widget.getObjGen(), what);
    if (!added) it->second = std::max(it->second, what);
}

void flushAppearance(Document& doc, QPDFObjectHandle widget) {
    if (!widget.isIndirect()) return;
    auto it = doc.staleAppearances.find(widget.getObjGen());
    if (it == doc.staleAppearances.end()) return;
    Redraw what = it->second;
    doc.staleAppearances.erase(it);
    drawAppearance(doc, widget, what);
}

void flushAppearances(Document& doc) {
    // In object order, so that the same edits always give the same file.
    while (!doc.staleAppearances.empty()) {
        auto [og, what] = *doc.staleAppearances.begin();
        doc.staleAppearances.erase(doc.staleAppearances.begin());
        drawAppearance(doc, doc.qpdf->getObject(og), what);
    }
}

std::string drawingInputs(QPDFObjectHandle widget) {
    // Each key as inherited() finds it, up the /Parent chain once for all of them.
    static const char* const kKeys[] = {"/FT", "/Ff", "/V",  "/Opt", "/MaxLen",
                                        "/TI", "/I",  "/DA", "/Q",   "/DR"};
    constexpr size_t kCount = std::size(kKeys);
    QPDFObjectHandle found[kCount];
    std::set<QPDFObjGen> seen;
    QPDFObjectHandle node = widget;
    for (int depth = 0; depth <= PD_MAX_TREE_DEPTH && node.isDictionary(); ++depth) {
        if (node.isIndirect() && !seen.insert(node.getObjGen()).second) break;
        for (size_t i = 0; i < kCount; ++i)
            if (!found[i].isInitialized() && node.hasKey(kKeys[i])) found[i] = node.getKey(kKeys[i]);
        node = node.getKey("/Parent");
    }
    std::string out;
    for (auto& value : found)
        out.append(value.isInitialized() ? value.unparse() : "null").push_back('\n');
    return out;
}

void regenerateField(Document& doc, QPDFObjectHandle field, Redraw what) {
    for (auto& widget : widgetsOf(field))
        regenerateAppearance(doc, widget, what);
}

} // namespace pdfcore
