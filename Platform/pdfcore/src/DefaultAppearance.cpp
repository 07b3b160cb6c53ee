// Numbers, colours, /DA strings, font resources and widget entries shared by Widgets.cpp and
// Appearance.cpp.
#include "DefaultAppearance.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

namespace pdfcore {

// ---- numbers and names -------------------------------------------------------------

std::string pdfNumber(double v, int decimals) {
    double scale = 1;
    for (int i = 0; i < decimals; ++i)
        scale *= 10;
    if (!std::isfinite(v)) v = 0;
    v = std::clamp(v, -1e9, 1e9);
    v = std::round(v * scale) / scale;
    if (v == 0) return "0";
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, decimals);
    std::string s(buf, r.ptr);
    while (!s.empty() && s.back() == '0')
        s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
}

bool numberOf(QPDFObjectHandle o, double& out) {
    if (!o.isNumber()) return false;
    out = o.getNumericValue();
    return std::isfinite(out);
}

std::string nameOf(QPDFObjectHandle o) {
    return o.isName() ? o.getName() : std::string();
}

int letterOf(QPDFObjectHandle o, std::string_view letters, int fallback) {
    std::string s = nameOf(o);
    size_t at = s.size() == 2 ? letters.find(s[1]) : std::string_view::npos;
    return at == std::string_view::npos ? fallback : static_cast<int>(at);
}

// ---- colours ----------------------------------------------------------------------------

Colour Colour::grey(double g) {
    Colour k;
    k.n = 1;
    k.c[0] = g;
    return k;
}

Colour Colour::fromArgb(uint32_t argb) {
    Colour k;
    k.n = 3;
    k.c[0] = ((argb >> 16) & 0xFF) / 255.0;
    k.c[1] = ((argb >> 8) & 0xFF) / 255.0;
    k.c[2] = (argb & 0xFF) / 255.0;
    return k;
}

Colour Colour::rgb() const {
    Colour k;
    k.n = 3;
    if (n == 1) {
        k.c[0] = k.c[1] = k.c[2] = c[0];
    } else if (n == 3) {
        std::copy(c, c + 3, k.c);
    } else if (n == 4) {
        for (int i = 0; i < 3; ++i)
            k.c[i] = (1 - c[i]) * (1 - c[3]);
    }
    return k;
}

Colour Colour::scaled(double f) const {
    Colour k = rgb();
    for (int i = 0; i < 3; ++i)
        k.c[i] = std::clamp(k.c[i] * f, 0.0, 1.0);
    return k;
}

std::string Colour::op(bool stroke) const {
    std::string s;
    for (int i = 0; i < n; ++i)
        s += pdfNumber(std::clamp(c[i], 0.0, 1.0), 4) + ' ';
    static const char* fill[] = {"", "g", "", "rg", "k"};
    static const char* strokeOps[] = {"", "G", "", "RG", "K"};
    return s + (stroke ? strokeOps[n] : fill[n]) + '\n';
}

Colour colourOf(QPDFObjectHandle arr) {
    Colour k;
    if (!arr.isArray()) return k;
    int n = arr.getArrayNItems();
    if (n != 1 && n != 3 && n != 4) return k;
    for (int i = 0; i < n; ++i)
        if (!numberOf(arr.getArrayItem(i), k.c[i])) return Colour{};
    k.n = n;
    return k;
}

uint32_t argbOf(const Colour& k) {
    if (!k.present()) return 0;
    auto byte = [](double v) {
        return static_cast<uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255));
    };
    Colour rgb = k.rgb();
    return 0xFF000000u | (byte(rgb.c[0]) << 16) | (byte(rgb.c[1]) << 8) | byte(rgb.c[2]);
}

// ---- default appearance ----------------------------------------------------------------

namespace {

bool isPdfSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\0';
}
bool isPdfDelimiter(char c) {
    return c == '(' || c == ')' || c == '<' || c == '>' || c == '[' || c == ']' || c == '{' ||
           c == '}' || c == '/' || c == '%';
}

} // namespace

DefaultAppearance parseDA(const std::string& s) {
    struct Operand {
        bool isName = false;
        bool isNumber = false; // a finite number
        double value = 0;
        std::string name;
    };
    DefaultAppearance da;
    std::vector<Operand> stack;
    size_t i = 0, n = s.size();
    while (i < n) {
        char c = s[i];
        if (isPdfSpace(c)) {
            ++i;
        } else if (c == '%') {
            while (i < n && s[i] != '\r' && s[i] != '\n')
                ++i;
        } else if (c == '/') {
            Operand o;
            o.isName = true;
            for (++i; i < n && !isPdfSpace(s[i]) && !isPdfDelimiter(s[i]); ++i) {
                if (s[i] == '#' && i + 2 < n &&
                    std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
                    std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
                    o.name += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                } else {
                    o.name += s[i];
                }
            }
            stack.push_back(o);
        } else if (c == '(') {
            for (int depth = 0; i < n; ++i) {
                if (s[i] == '\\')
                    ++i;
                else if (s[i] == '(')
                    ++depth;
                else if (s[i] == ')' && --depth == 0)
                    break;
            }
            ++i;
            stack.emplace_back();
        } else if (isPdfDelimiter(c)) {
            if (c == '<')
                while (i < n && s[i] != '>')
                    ++i;
            ++i;
            stack.emplace_back();
        } else {
            size_t start = i;
            while (i < n && !isPdfSpace(s[i]) && !isPdfDelimiter(s[i]))
                ++i;
            std::string_view word(s.data() + start, i - start);
            if (std::isdigit(static_cast<unsigned char>(word[0])) || word[0] == '-' ||
                word[0] == '+' || word[0] == '.') {
                Operand o;
                const char* b = word.data() + (word[0] == '+' ? 1 : 0);
                auto r = std::from_chars(b, word.data() + word.size(), o.value);
                o.isNumber = r.ec == std::errc() && r.ptr == word.data() + word.size() &&
                             std::isfinite(o.value);
                stack.push_back(o);
                continue;
            }
            size_t count = word == "Tf"   ? 2
                           : word == "g"  ? 1
                           : word == "rg" ? 3
                           : word == "k"  ? 4
                                          : 0;
            if (count > 0 && stack.size() >= count) {
                auto first = stack.end() - static_cast<std::ptrdiff_t>(count);
                if (word == "Tf") {
                    if (first[0].isName && first[1].isNumber) {
                        da.font = first[0].name;
                        noteName(da.font);
                        da.size = first[1].value;
                    }
                } else if (std::all_of(first, stack.end(), [](auto& o) { return o.isNumber; })) {
                    Colour k;
                    k.n = static_cast<int>(count);
                    for (size_t j = 0; j < count; ++j)
                        k.c[j] = first[static_cast<std::ptrdiff_t>(j)].value;
                    da.colour = k;
                }
            }
            stack.clear();
        }
    }
    return da;
}

std::string writeDA(const DefaultAppearance& da) {
    std::string s = QPDFObjectHandle::newName("/" + da.font).unparse() + " " +
                    pdfNumber(da.size, 4) + " Tf";
    if (da.colour.present()) {
        Colour rgb = Colour::fromArgb(argbOf(da.colour));
        for (int i = 0; i < 3; ++i)
            s += " " + pdfNumber(std::round(rgb.c[i] * 10000) / 10000, 4);
        s += " rg";
    }
    return s;
}

std::string effectiveDA(Document& doc, QPDFObjectHandle dict) {
    QPDFObjectHandle da = inherited(dict, "/DA");
    if (!da.isString()) {
        QPDFObjectHandle form = acroForm(doc, false);
        da = form.isDictionary() ? form.getKey("/DA") : QPDFObjectHandle::newNull();
    }
    return da.isString() ? da.getStringValue() : "";
}

// ---- font resources ------------------------------------------------------------------

const std::array<uint16_t, 224> kHelveticaWidths = {
    278,  278, 355, 556, 556,  889, 667, 191, 333, 333, 389, 584,  278, 333,  278,  278,  556, 556,
    556,  556, 556, 556, 556,  556, 556, 556, 278, 278, 584, 584,  584, 556,  1015, 667,  667, 722,
    722,  667, 611, 778, 722,  278, 500, 667, 556, 833, 722, 778,  667, 778,  722,  667,  611, 722,
    667,  944, 667, 667, 611,  278, 278, 278, 469, 556, 333, 556,  556, 500,  556,  556,  278, 556,
    556,  222, 222, 500, 222,  833, 556, 556, 556, 556, 333, 500,  278, 556,  500,  722,  500, 500,
    500,  334, 260, 334, 584,  0,   556, 0,   222, 556, 333, 1000, 556, 556,  333,  1000, 667, 333,
    1000, 0,   611, 0,   0,    222, 222, 333, 333, 350, 556, 1000, 333, 1000, 500,  333,  944, 0,
    500,  667, 278, 333, 556,  556, 556, 556, 260, 556, 333, 737,  370, 556,  584,  333,  737, 333,
    400,  584, 333, 333, 333,  578, 537, 278, 333, 333, 365, 556,  834, 834,  834,  611,  667, 667,
    667,  667, 667, 667, 1000, 722, 667, 667, 667, 667, 278, 278,  278, 278,  722,  722,  778, 778,
    778,  778, 778, 584, 778,  722, 722, 722, 722, 667, 667, 611,  556, 556,  556,  556,  556, 556,
    889,  500, 556, 556, 556,  556, 278, 278, 278, 278, 556, 556,  556, 556,  556,  556,  556, 584,
    611,  556, 556, 556, 556,  500, 556, 500};

std::string stripSubset(std::string base) {
    if (base.size() > 7 && base[6] == '+' &&
        std::all_of(base.begin(), base.begin() + 6, [](char c) { return c >= 'A' && c <= 'Z'; }))
        base.erase(0, 7);
    return base;
}

QPDFObjectHandle simpleFontDict(const std::string& subtype, const std::string& baseFont,
                                bool winAnsi) {
    auto d = QPDFObjectHandle::newDictionary();
    d.replaceKey("/Type", QPDFObjectHandle::newName("/Font"));
    d.replaceKey("/Subtype", QPDFObjectHandle::newName("/" + subtype));
    d.replaceKey("/BaseFont", QPDFObjectHandle::newName("/" + baseFont));
    if (winAnsi) d.replaceKey("/Encoding", QPDFObjectHandle::newName("/WinAnsiEncoding"));
    return d;
}

QPDFObjectHandle formFonts(Document& doc) {
    QPDFObjectHandle form = acroForm(doc, true);
    if (!form.isDictionary()) fail(PD_ERR_INTERNAL);
    QPDFObjectHandle dr = form.getKey("/DR");
    if (!dr.isDictionary()) {
        dr = QPDFObjectHandle::newDictionary();
    } else if (dr.isIndirect()) {
        dr = dr.shallowCopy();
    }
    form.replaceKey("/DR", dr);
    QPDFObjectHandle fonts = dr.getKey("/Font");
    if (!fonts.isDictionary()) {
        fonts = QPDFObjectHandle::newDictionary();
    } else if (fonts.isIndirect()) {
        fonts = fonts.shallowCopy();
    }
    dr.replaceKey("/Font", fonts);
    return fonts;
}

QPDFObjectHandle findFontResource(Document& doc, QPDFObjectHandle widget, const std::string& name) {
    std::vector<QPDFObjectHandle> places;
    QPDFObjectHandle form = acroForm(doc, false);
    if (form.isDictionary()) places.push_back(form.getKey("/DR"));
    places.push_back(inherited(widget, "/DR"));
    QPDFObjectHandle normal = widget.getKeyIfDict("/AP").getKeyIfDict("/N");
    if (normal.isStream()) {
        places.push_back(normal.getDict().getKey("/Resources"));
    } else if (normal.isDictionary()) {
        for (auto const& key : normal.getKeys()) {
            QPDFObjectHandle s = normal.getKey(key);
            if (s.isStream()) places.push_back(s.getDict().getKey("/Resources"));
        }
    }
    for (auto& res : places) {
        QPDFObjectHandle font = res.getKeyIfDict("/Font").getKeyIfDict("/" + name);
        if (font.isDictionary()) return font;
    }
    return QPDFObjectHandle::newNull();
}

// ---- widget entries ------------------------------------------------------------------

QPDFObjectHandle holderOf(QPDFObjectHandle widget) {
    QPDFObjectHandle field = fieldOfWidget(widget);
    return field.isDictionary() ? field : widget;
}

QPDFObjectHandle quaddingEntry(Document& doc, QPDFObjectHandle widget) {
    QPDFObjectHandle q = widget.getKey("/Q");
    if (!q.isInteger()) q = inherited(holderOf(widget), "/Q");
    if (!q.isInteger()) {
        QPDFObjectHandle form = acroForm(doc, false);
        if (form.isDictionary()) q = form.getKey("/Q");
    }
    return q;
}

std::string onStateOf(QPDFObjectHandle widget) {
    QPDFObjectHandle ap = widget.getKeyIfDict("/AP");
    for (const char* which : {"/N", "/D"}) {
        QPDFObjectHandle states = ap.getKeyIfDict(which);
        if (!states.isDictionary()) continue;
        for (auto const& key : states.getKeys())
            if (key != "/Off") return key;
    }
    return {};
}

std::vector<Option> optionsOf(QPDFObjectHandle field) {
    std::vector<Option> out;
    QPDFObjectHandle opt = inherited(field, "/Opt");
    if (!opt.isArray()) return out;
    for (auto& item : opt.getArrayAsVector()) {
        if (item.isArray() && item.getArrayNItems() >= 2) {
            out.push_back({textOf(item.getArrayItem(0)), textOf(item.getArrayItem(1))});
        } else {
            std::u16string t = item.isArray() && item.getArrayNItems() == 1
                                   ? textOf(item.getArrayItem(0))
                                   : textOf(item);
            out.push_back({t, t});
        }
    }
    return out;
}

} // namespace pdfcore
