// Widget properties: rotation, border, colours, highlight, default appearance (font,
// size, colour) with the form's font resources, button captions, icon fit and on-state,
// text alignment and choice selection. Every setter regenerates the appearance.
#include "Core.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using namespace pdfcore;

namespace {

// ---- values ----------------------------------------------------------------------------

std::string num(double v) {
    if (!std::isfinite(v)) v = 0;
    v = std::clamp(v, -1e9, 1e9);
    v = std::round(v * 1e6) / 1e6;
    if (v == 0) return "0";
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 6);
    std::string s(buf, r.ptr);
    while (s.back() == '0')
        s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s;
}

QPDFObjectHandle real(double v) {
    return QPDFObjectHandle::newReal(num(v));
}

bool numberOf(QPDFObjectHandle o, double& out) {
    if (!o.isNumber()) return false;
    out = o.getNumericValue();
    return std::isfinite(out);
}

std::string nameOf(QPDFObjectHandle o) {
    return o.isName() ? o.getName() : std::string();
}

QPDFObjectHandle name(const std::string& withoutSlash) {
    return QPDFObjectHandle::newName("/" + withoutSlash);
}

uint8_t toByte(double v) {
    return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255));
}

uint32_t packRgb(double r, double g, double b) {
    return 0xFF000000u | (uint32_t(toByte(r)) << 16) | (uint32_t(toByte(g)) << 8) | toByte(b);
}

// Colour components (1 grey, 3 RGB, 4 CMYK) as an opaque ARGB word; 0 for anything else.
uint32_t argbOf(const std::vector<double>& c) {
    if (c.size() == 1) return packRgb(c[0], c[0], c[0]);
    if (c.size() == 3) return packRgb(c[0], c[1], c[2]);
    if (c.size() == 4)
        return packRgb((1 - c[0]) * (1 - c[3]), (1 - c[1]) * (1 - c[3]), (1 - c[2]) * (1 - c[3]));
    return 0;
}

uint32_t argbOf(QPDFObjectHandle arr) {
    std::vector<double> c;
    if (!arr.isArray()) return 0;
    for (auto& item : arr.getArrayAsVector()) {
        double v;
        if (!numberOf(item, v)) return 0;
        c.push_back(v);
    }
    return argbOf(c);
}

std::vector<double> rgbOf(uint32_t argb) {
    return {((argb >> 16) & 0xFF) / 255.0, ((argb >> 8) & 0xFF) / 255.0, (argb & 0xFF) / 255.0};
}

QPDFObjectHandle colourArray(uint32_t argb) {
    auto arr = QPDFObjectHandle::newArray();
    for (double v : rgbOf(argb))
        arr.appendItem(real(v));
    return arr;
}

// ---- the widget and its field -------------------------------------------------------------

// The dictionary holding the field entries of a widget: its field, or the widget itself
// when it has none.
QPDFObjectHandle holderOf(QPDFObjectHandle widget) {
    QPDFObjectHandle field = fieldOfWidget(widget);
    return field.isDictionary() ? field : widget;
}

std::string typeOf(QPDFObjectHandle widget) {
    return nameOf(inherited(holderOf(widget), "/FT"));
}

uint32_t flagsOf(QPDFObjectHandle widget) {
    QPDFObjectHandle ff = inherited(holderOf(widget), "/Ff");
    return ff.isInteger() ? static_cast<uint32_t>(ff.getIntValue()) : 0;
}

void requireType(QPDFObjectHandle widget, const char* type, const char* other = nullptr) {
    std::string t = typeOf(widget);
    if (t != type && !(other && t == other)) fail(PD_ERR_FIELD_KIND);
}

QPDFObjectHandle mkOf(QPDFObjectHandle widget, bool create) {
    QPDFObjectHandle mk = widget.getKey("/MK");
    if (!mk.isDictionary() && create) {
        mk = QPDFObjectHandle::newDictionary();
        widget.replaceKey("/MK", mk);
    }
    return mk;
}

// Regenerates the widget after a change of its own entries.
void refreshWidget(PDHandleRec& h) {
    regenerateAppearance(*h.doc, h.obj);
}

// Regenerates every widget of the widget's field after a change of field entries.
void refreshField(PDHandleRec& h) {
    QPDFObjectHandle field = fieldOfWidget(h.obj);
    if (!field.isDictionary()) return refreshWidget(h);
    regenerateField(*h.doc, field);
    auto widgets = widgetsOf(field);
    bool listed = std::any_of(widgets.begin(), widgets.end(), [&](QPDFObjectHandle w) {
        return w.getObjGen() == h.obj.getObjGen();
    });
    if (!listed) refreshWidget(h);
}

void giveText(const std::u16string& value, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    PDResult r = putText(value, buf, bufLen, outLen);
    if (r != PD_OK) fail(r);
}

// ---- default appearance ------------------------------------------------------------------

struct DefaultAppearance {
    std::string font; // resource name without slash; empty when the string has no Tf
    double size = 0;
    std::vector<double> colour; // 1, 3 or 4 components; empty when none is set
};

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\0';
}
bool isDelimiter(char c) {
    return std::string_view("()<>[]{}/%").find(c) != std::string_view::npos;
}

// Reads Tf, g, rg and k from a /DA string; for each, the last one counts.
DefaultAppearance parseDA(const std::string& s) {
    struct Operand {
        bool isName = false;
        bool isNumber = false;
        double value = 0;
        std::string name;
    };
    DefaultAppearance da;
    std::vector<Operand> stack;
    size_t i = 0, n = s.size();
    while (i < n) {
        char c = s[i];
        if (isSpace(c)) {
            ++i;
        } else if (c == '%') {
            while (i < n && s[i] != '\r' && s[i] != '\n')
                ++i;
        } else if (c == '/') {
            Operand o;
            o.isName = true;
            for (++i; i < n && !isSpace(s[i]) && !isDelimiter(s[i]); ++i) {
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
        } else if (isDelimiter(c)) {
            if (c == '<')
                while (i < n && s[i] != '>')
                    ++i;
            ++i;
            stack.emplace_back();
        } else {
            size_t start = i;
            while (i < n && !isSpace(s[i]) && !isDelimiter(s[i]))
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
                        da.size = first[1].value;
                    }
                } else if (std::all_of(first, stack.end(), [](auto& o) { return o.isNumber; })) {
                    da.colour.clear();
                    for (auto it = first; it != stack.end(); ++it)
                        da.colour.push_back(it->value);
                }
            }
            stack.clear();
        }
    }
    return da;
}

std::string writeDA(const DefaultAppearance& da) {
    std::string s = name(da.font).unparse() + " " + num(da.size) + " Tf";
    if (!da.colour.empty()) {
        uint32_t argb = argbOf(da.colour);
        for (double v : rgbOf(argb))
            s += " " + num(std::round(v * 10000) / 10000);
        s += " rg";
    }
    return s;
}

std::string formDA(Document& doc) {
    QPDFObjectHandle form = acroForm(doc, false);
    QPDFObjectHandle da = form.isDictionary() ? form.getKey("/DA") : QPDFObjectHandle::newNull();
    return da.isString() ? da.getStringValue() : "";
}

// The /DA in effect for dict: its own or inherited, else the form's.
std::string effectiveDA(Document& doc, QPDFObjectHandle dict) {
    QPDFObjectHandle da = inherited(dict, "/DA");
    return da.isString() ? da.getStringValue() : formDA(doc);
}

// ---- font resources -----------------------------------------------------------------------

enum { kBold = 1, kItalic = 2 };

struct StandardFamily {
    const char* family;
    const char* key; // lower case, without spaces, for matching
    const char* fonts[4];
    const char* resources[4];
};

constexpr StandardFamily kStandard[] = {
    {"Helvetica",
     "helvetica",
     {"Helvetica", "Helvetica-Bold", "Helvetica-Oblique", "Helvetica-BoldOblique"},
     {"Helv", "HeBo", "HeOb", "HeBO"}},
    {"Times",
     "times",
     {"Times-Roman", "Times-Bold", "Times-Italic", "Times-BoldItalic"},
     {"TiRo", "TiBo", "TiIt", "TiBI"}},
    {"Courier",
     "courier",
     {"Courier", "Courier-Bold", "Courier-Oblique", "Courier-BoldOblique"},
     {"Cour", "CoBo", "CoOb", "CoBO"}},
    {"Symbol",
     "symbol",
     {"Symbol", "Symbol", "Symbol", "Symbol"},
     {"Symb", "Symb", "Symb", "Symb"}},
    {"ZapfDingbats",
     "zapfdingbats",
     {"ZapfDingbats", "ZapfDingbats", "ZapfDingbats", "ZapfDingbats"},
     {"ZaDb", "ZaDb", "ZaDb", "ZaDb"}},
};

const StandardFamily* standardFamily(const std::string& family) {
    std::string key;
    for (char c : family)
        if (c != ' ') key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (key == "times-roman" || key == "timesroman") key = "times";
    for (auto& f : kStandard)
        if (key == f.key) return &f;
    return nullptr;
}

std::string stripSubset(std::string base) {
    if (base.size() > 7 && base[6] == '+' &&
        std::all_of(base.begin(), base.begin() + 6, [](char c) { return c >= 'A' && c <= 'Z'; }))
        base.erase(0, 7);
    return base;
}

// Widths and descriptor of a non-embedded TrueType font, with Helvetica's metrics so that
// text laid out for it keeps its place in whatever font the viewer substitutes.
void describeTrueType(QPDFObjectHandle font, const std::string& family, const std::string& base,
                      int style) {
    static const uint16_t helvetica[] = {
        278,  278, 355, 556, 556, 889, 667, 191, 333, 333, 389, 584, 278, 333, 278, 278,
        556,  556, 556, 556, 556, 556, 556, 556, 556, 556, 278, 278, 584, 584, 584, 556,
        1015, 667, 667, 722, 722, 667, 611, 778, 722, 278, 500, 667, 556, 833, 722, 778,
        667,  778, 722, 667, 611, 722, 667, 944, 667, 667, 611, 278, 278, 278, 469, 556,
        333,  556, 556, 500, 556, 556, 278, 556, 556, 222, 222, 500, 222, 833, 556, 556,
        556,  556, 333, 500, 278, 556, 500, 722, 500, 500, 500, 334, 260, 334, 584};
    auto widths = QPDFObjectHandle::newArray();
    for (int c = 32; c < 256; ++c)
        widths.appendItem(QPDFObjectHandle::newInteger(c < 127 ? helvetica[c - 32] : 556));
    font.replaceKey("/FirstChar", QPDFObjectHandle::newInteger(32));
    font.replaceKey("/LastChar", QPDFObjectHandle::newInteger(255));
    font.replaceKey("/Widths", widths);
    auto d = QPDFObjectHandle::newDictionary();
    d.replaceKey("/Type", name("FontDescriptor"));
    d.replaceKey("/FontName", name(base));
    d.replaceKey("/FontFamily", textString(toU16(family)));
    d.replaceKey("/Flags", QPDFObjectHandle::newInteger(32 | ((style & kItalic) ? 64 : 0) |
                                                        ((style & kBold) ? 1 << 18 : 0)));
    d.replaceKey("/FontWeight", QPDFObjectHandle::newInteger((style & kBold) ? 700 : 400));
    d.replaceKey("/FontBBox",
                 QPDFObjectHandle::newArray(QPDFObjectHandle::Rectangle(-166, -225, 1000, 931)));
    d.replaceKey("/ItalicAngle", QPDFObjectHandle::newInteger((style & kItalic) ? -12 : 0));
    d.replaceKey("/Ascent", QPDFObjectHandle::newInteger(718));
    d.replaceKey("/Descent", QPDFObjectHandle::newInteger(-207));
    d.replaceKey("/CapHeight", QPDFObjectHandle::newInteger(718));
    d.replaceKey("/StemV", QPDFObjectHandle::newInteger((style & kBold) ? 140 : 88));
    font.replaceKey("/FontDescriptor", d);
}

// The name of a font resource in the form's /DR for a family and style, added when the
// /DR has no font of that /BaseFont.
std::string fontResource(Document& doc, const std::string& family, int style) {
    std::string base, preferred, subtype = "Type1";
    bool winAnsi = true;
    if (const StandardFamily* std14 = standardFamily(family)) {
        base = std14->fonts[style & 3];
        preferred = std14->resources[style & 3];
        winAnsi = base != "Symbol" && base != "ZapfDingbats";
    } else {
        for (char c : family)
            if (c != ' ') base += c;
        static const char* suffix[] = {"", ",Bold", ",Italic", ",BoldItalic"};
        base += suffix[style & 3];
        subtype = "TrueType";
        for (char c : base)
            if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_')
                preferred += c;
            else if (c == ',')
                preferred += '_';
        if (preferred.empty()) preferred = "F";
    }
    if (base.empty()) fail(PD_ERR_BAD_ARGUMENT);

    QPDFObjectHandle form = acroForm(doc, true);
    if (!form.isDictionary()) fail(PD_ERR_INTERNAL);
    QPDFObjectHandle dr = form.getKey("/DR");
    if (!dr.isDictionary()) {
        dr = QPDFObjectHandle::newDictionary();
        form.replaceKey("/DR", dr);
    }
    QPDFObjectHandle fonts = dr.getKey("/Font");
    if (!fonts.isDictionary()) {
        fonts = QPDFObjectHandle::newDictionary();
        dr.replaceKey("/Font", fonts);
    }
    for (auto const& key : fonts.getKeys()) {
        QPDFObjectHandle f = fonts.getKey(key);
        if (f.isDictionary() && nameOf(f.getKey("/BaseFont")) == "/" + base) return key.substr(1);
    }
    std::string resource = preferred;
    for (int k = 1; fonts.hasKey("/" + resource); ++k)
        resource = preferred + std::to_string(k);

    auto font = QPDFObjectHandle::newDictionary();
    font.replaceKey("/Type", name("Font"));
    font.replaceKey("/Subtype", name(subtype));
    font.replaceKey("/BaseFont", name(base));
    if (winAnsi) font.replaceKey("/Encoding", name("WinAnsiEncoding"));
    if (subtype == "TrueType") describeTrueType(font, family, base, style);
    fonts.replaceKey("/" + resource, doc.qpdf->makeIndirectObject(font));
    return resource;
}

// The font dictionary of a /DA resource name: the form's /DR, a /DR on the field, or the
// resources of the widget's current appearance.
QPDFObjectHandle findFont(Document& doc, QPDFObjectHandle widget, const std::string& resource) {
    std::vector<QPDFObjectHandle> places;
    QPDFObjectHandle form = acroForm(doc, false);
    if (form.isDictionary()) places.push_back(form.getKey("/DR"));
    places.push_back(inherited(widget, "/DR"));
    QPDFObjectHandle normal = widget.getKeyIfDict("/AP").getKeyIfDict("/N");
    if (normal.isStream()) {
        places.push_back(normal.getDict().getKey("/Resources"));
    } else if (normal.isDictionary()) {
        for (auto const& key : normal.getKeys())
            if (normal.getKey(key).isStream())
                places.push_back(normal.getKey(key).getDict().getKey("/Resources"));
    }
    for (auto& res : places) {
        QPDFObjectHandle font = res.getKeyIfDict("/Font").getKeyIfDict("/" + resource);
        if (font.isDictionary()) return font;
    }
    return QPDFObjectHandle::newNull();
}

// Family and style from a /BaseFont: a standard font's own name, "Family,Style" or
// "Family-Style" (with a trailing "MT" or "PSMT" dropped).
void splitBaseFont(const std::string& base, std::string& family, int& style) {
    for (auto& f : kStandard)
        for (int s = 0; s < 4; ++s)
            if (base == f.fonts[s]) {
                family = f.family;
                style = base == "Symbol" || base == "ZapfDingbats" ? 0 : s;
                return;
            }
    family = base;
    std::string suffix;
    size_t cut = base.find(',');
    if (cut == std::string::npos) {
        cut = base.rfind('-');
        if (cut != std::string::npos) {
            std::string tail = base.substr(cut + 1);
            bool known = false;
            for (const char* w : {"Bold", "Italic", "Oblique", "Regular", "Roman", "BoldItalic",
                                  "BoldOblique", "BoldMT", "ItalicMT", "BoldItalicMT"})
                known = known || tail == w;
            if (!known) cut = std::string::npos;
        }
    }
    if (cut != std::string::npos) {
        family = base.substr(0, cut);
        suffix = base.substr(cut + 1);
    }
    for (const char* mt : {"PSMT", "MT"}) {
        std::string m = mt;
        if (family.size() > m.size() &&
            family.compare(family.size() - m.size(), m.size(), m) == 0) {
            family.resize(family.size() - m.size());
            break;
        }
    }
    style = 0;
    if (suffix.find("Bold") != std::string::npos) style |= kBold;
    if (suffix.find("Italic") != std::string::npos || suffix.find("Oblique") != std::string::npos)
        style |= kItalic;
}

PDFontInfo fontInfoOf(QPDFObjectHandle font) {
    std::string base = nameOf(font.getKey("/BaseFont"));
    base = stripSubset(base.empty() ? base : base.substr(1));
    std::string subtype = nameOf(font.getKey("/Subtype"));
    std::string family;
    int style = 0;
    splitBaseFont(base, family, style);
    QPDFObjectHandle desc = font.getKey("/FontDescriptor");
    if (subtype == "/Type0") {
        QPDFObjectHandle kids = font.getKey("/DescendantFonts");
        QPDFObjectHandle cid = kids.isArray() && kids.getArrayNItems() > 0
                                   ? kids.getArrayItem(0)
                                   : QPDFObjectHandle::newNull();
        if (nameOf(cid.getKeyIfDict("/Subtype")) == "/CIDFontType2") subtype = "/TrueType";
        desc = cid.getKeyIfDict("/FontDescriptor");
    }
    QPDFObjectHandle fontFamily = desc.getKeyIfDict("/FontFamily");
    if (fontFamily.isString() && !textOf(fontFamily).empty()) family = toUtf8(textOf(fontFamily));
    QPDFObjectHandle flags = desc.getKeyIfDict("/Flags");
    double weight;
    if (flags.isInteger() && (flags.getIntValue() & (1 << 18))) style |= kBold;
    if (numberOf(desc.getKeyIfDict("/FontWeight"), weight) && weight >= 600) style |= kBold;
    if (flags.isInteger() && (flags.getIntValue() & 64)) style |= kItalic;
    if (family.empty()) fail(PD_ERR_NO_VALUE);
    PDFontInfo info;
    info.family = atomOf(family);
    info.format = subtype == "/TrueType" ? 1 : 0;
    info.style = style;
    return info;
}

// Rewrites the /DA of the widget's field (or of the widget when it has no field) and,
// when the widget has one of its own, of the widget, then regenerates the field.
void changeDA(PDHandleRec& h, const std::function<void(DefaultAppearance&)>& change) {
    Document& doc = *h.doc;
    QPDFObjectHandle holder = holderOf(h.obj);
    auto rewrite = [&](QPDFObjectHandle dict, const std::string& current) {
        DefaultAppearance da = parseDA(current);
        change(da);
        if (da.font.empty()) da.font = fontResource(doc, "Helvetica", 0);
        dict.replaceKey("/DA", QPDFObjectHandle::newString(writeDA(da)));
    };
    rewrite(holder, effectiveDA(doc, holder));
    if (h.obj.getObjGen() != holder.getObjGen() && h.obj.getKey("/DA").isString())
        rewrite(h.obj, h.obj.getKey("/DA").getStringValue());
    refreshField(h);
}

// ---- buttons --------------------------------------------------------------------------------

// The on-state of a check box or radio widget: the first state of /AP /N (else /D) other
// than Off, with its slash; empty when there is none.
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

// The state name a button value stands for: a name, or a string as older files have it.
std::string stateOfValue(QPDFObjectHandle v) {
    if (v.isName()) return v.getName();
    if (v.isString()) return "/" + toUtf8(textOf(v));
    return {};
}

void requireCheckOrRadio(QPDFObjectHandle widget) {
    requireType(widget, "/Btn");
    if (flagsOf(widget) & PD_FIELD_PUSHBUTTON) fail(PD_ERR_FIELD_KIND);
}

const char* const kCaptionKeys[] = {"/CA", "/AC", "/RC"};

PDResult getCaption(PDAnnot widget, int which, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outLen);
        requireType(h.obj, "/Btn");
        QPDFObjectHandle caption = mkOf(h.obj, false).getKeyIfDict(kCaptionKeys[which]);
        if (!caption.isString()) fail(PD_ERR_NO_VALUE);
        giveText(textOf(caption), buf, bufLen, outLen);
    });
}

PDResult setCaption(PDAnnot widget, int which, const char16_t* text, uint32_t len) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        std::u16string value = textArg(text, len);
        requireType(h.obj, "/Btn");
        if (value.empty()) {
            QPDFObjectHandle mk = mkOf(h.obj, false);
            if (mk.isDictionary()) mk.removeKey(kCaptionKeys[which]);
        } else {
            mkOf(h.obj, true).replaceKey(kCaptionKeys[which], textString(value));
        }
        refreshWidget(h);
    });
}

// ---- /MK colour entries ------------------------------------------------------------------

PDResult getMkColour(PDAnnot widget, const char* key, uint32_t* outArgb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outArgb);
        *outArgb = argbOf(mkOf(h.obj, false).getKeyIfDict(key));
    });
}

PDResult setMkColour(PDAnnot widget, const char* key, uint32_t argb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if ((argb >> 24) == 0) {
            QPDFObjectHandle mk = mkOf(h.obj, false);
            if (mk.isDictionary()) mk.removeKey(key);
        } else {
            mkOf(h.obj, true).replaceKey(key, colourArray(argb));
        }
        refreshWidget(h);
    });
}

// ---- choices --------------------------------------------------------------------------------

std::vector<std::u16string> exportValuesOf(QPDFObjectHandle field) {
    std::vector<std::u16string> out;
    QPDFObjectHandle opt = inherited(field, "/Opt");
    if (!opt.isArray()) return out;
    for (auto& item : opt.getArrayAsVector())
        out.push_back(item.isArray() && item.getArrayNItems() > 0 ? textOf(item.getArrayItem(0))
                                                                  : textOf(item));
    return out;
}

} // namespace

// ---- rotation ---------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetRotate(PDAnnot widget, int32_t* outDegrees) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outDegrees);
        double r = 0;
        numberOf(mkOf(h.obj, false).getKeyIfDict("/R"), r);
        long quarter = std::lround(std::fmod(r, 360) / 90);
        *outDegrees = static_cast<int32_t>(((quarter % 4) + 4) % 4 * 90);
    });
}

PDResult PDWidgetAnnotSetRotate(PDAnnot widget, int32_t degrees) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (degrees % 90 != 0) fail(PD_ERR_BAD_ARGUMENT);
        mkOf(h.obj, true)
            .replaceKey("/R", QPDFObjectHandle::newInteger(((degrees % 360) + 360) % 360));
        refreshWidget(h);
    });
}

// ---- border ---------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetBorderStyle(PDAnnot widget, PDBorderStyle* outStyle) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outStyle);
        PDBorderStyle style{};
        style.width = 1;
        QPDFObjectHandle bs = h.obj.getKey("/BS");
        QPDFObjectHandle border = h.obj.getKey("/Border");
        static const std::string styles = "SDBIU";
        std::string s = nameOf(bs.getKeyIfDict("/S"));
        if (s.size() == 2 && styles.find(s[1]) != std::string::npos)
            style.style = static_cast<int32_t>(styles.find(s[1]));
        double w;
        if (numberOf(bs.getKeyIfDict("/W"), w) && w >= 0) {
            style.width = static_cast<float>(w);
        } else if (border.isArray() && border.getArrayNItems() >= 3 &&
                   numberOf(border.getArrayItem(2), w) && w >= 0) {
            style.width = static_cast<float>(w);
        }
        QPDFObjectHandle dash = bs.getKeyIfDict("/D");
        if (!dash.isArray() && !bs.isDictionary() && border.isArray() &&
            border.getArrayNItems() >= 4)
            dash = border.getArrayItem(3);
        if (dash.isArray())
            for (auto& d : dash.getArrayAsVector()) {
                double v;
                if (style.dashCount < PD_MAX_DASH && numberOf(d, v))
                    style.dash[style.dashCount++] = static_cast<float>(v);
            }
        *outStyle = style;
    });
}

PDResult PDWidgetAnnotSetBorderStyle(PDAnnot widget, const PDBorderStyle* style) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (!style) fail(PD_ERR_BAD_ARGUMENT);
        if (style->style < 0 || style->style > 4 || !std::isfinite(style->width) ||
            style->width < 0)
            fail(PD_ERR_BAD_ARGUMENT);
        uint32_t count = std::min<uint32_t>(style->dashCount, PD_MAX_DASH);
        for (uint32_t i = 0; i < count; ++i)
            if (!std::isfinite(style->dash[i]) || style->dash[i] < 0) fail(PD_ERR_BAD_ARGUMENT);
        auto bs = QPDFObjectHandle::newDictionary();
        bs.replaceKey("/W", real(style->width));
        bs.replaceKey("/S", name(std::string(1, "SDBIU"[style->style])));
        if (count > 0) {
            auto dash = QPDFObjectHandle::newArray();
            for (uint32_t i = 0; i < count; ++i)
                dash.appendItem(real(style->dash[i]));
            bs.replaceKey("/D", dash);
        }
        h.obj.replaceKey("/BS", bs);
        refreshWidget(h);
    });
}

// ---- colours --------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetBgColor(PDAnnot widget, uint32_t* outArgb) {
    return getMkColour(widget, "/BG", outArgb);
}
PDResult PDWidgetAnnotSetBgColor(PDAnnot widget, uint32_t argb) {
    return setMkColour(widget, "/BG", argb);
}
PDResult PDWidgetAnnotGetBorderColor(PDAnnot widget, uint32_t* outArgb) {
    return getMkColour(widget, "/BC", outArgb);
}
PDResult PDWidgetAnnotSetBorderColor(PDAnnot widget, uint32_t argb) {
    return setMkColour(widget, "/BC", argb);
}

// ---- highlight ------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetHighlight(PDAnnot widget, int32_t* outMode) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outMode);
        static const std::string modes = "NIOPT";
        std::string s = nameOf(h.obj.getKey("/H"));
        size_t at = s.size() == 2 ? modes.find(s[1]) : std::string::npos;
        *outMode = at == std::string::npos ? 1 : static_cast<int32_t>(at);
    });
}

PDResult PDWidgetAnnotSetHighlight(PDAnnot widget, int32_t mode) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (mode < 0 || mode > 4) fail(PD_ERR_BAD_ARGUMENT);
        h.obj.replaceKey("/H", name(std::string(1, "NIOPT"[mode])));
        refreshWidget(h);
    });
}

// ---- default appearance ---------------------------------------------------------------------

PDResult PDWidgetAnnotGetFontInfo(PDAnnot widget, PDFontInfo* outInfo) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outInfo);
        DefaultAppearance da = parseDA(effectiveDA(*h.doc, h.obj));
        if (da.font.empty()) fail(PD_ERR_NO_VALUE);
        QPDFObjectHandle font = findFont(*h.doc, h.obj, da.font);
        if (!font.isDictionary()) {
            // A resource the file does not define: the usual names of the standard fonts.
            for (auto& f : kStandard)
                for (int s = 0; s < 4; ++s)
                    if (da.font == f.resources[s]) {
                        PDFontInfo info{atomOf(f.family), 0,
                                        std::string_view(f.fonts[0]) == f.fonts[1] ? 0 : s};
                        *outInfo = info;
                        return;
                    }
            fail(PD_ERR_NO_VALUE);
        }
        *outInfo = fontInfoOf(font);
    });
}

PDResult PDWidgetAnnotSetFontInfo(PDAnnot widget, const PDFontInfo* info) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (!info) fail(PD_ERR_BAD_ARGUMENT);
        std::string family = info->family ? atomName(info->family) : std::string();
        if (family.empty() || info->format < 0 || info->format > 1 || info->style < 0 ||
            info->style > 3)
            fail(PD_ERR_BAD_ARGUMENT);
        std::string resource = fontResource(*h.doc, family, info->style);
        changeDA(h, [&](DefaultAppearance& da) { da.font = resource; });
    });
}

PDResult PDWidgetAnnotGetFontSize(PDAnnot widget, float* outSize) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outSize);
        DefaultAppearance da = parseDA(effectiveDA(*h.doc, h.obj));
        if (da.font.empty()) fail(PD_ERR_NO_VALUE);
        *outSize = static_cast<float>(std::max(0.0, da.size));
    });
}

PDResult PDWidgetAnnotSetFontSize(PDAnnot widget, float size) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (!std::isfinite(size) || size < 0) fail(PD_ERR_BAD_ARGUMENT);
        changeDA(h, [&](DefaultAppearance& da) { da.size = size; });
    });
}

PDResult PDWidgetAnnotGetFontColor(PDAnnot widget, uint32_t* outArgb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outArgb);
        DefaultAppearance da = parseDA(effectiveDA(*h.doc, h.obj));
        uint32_t argb = argbOf(da.colour);
        *outArgb = argb ? argb : 0xFF000000u;
    });
}

PDResult PDWidgetAnnotSetFontColor(PDAnnot widget, uint32_t argb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        changeDA(h, [&](DefaultAppearance& da) {
            da.colour.clear();
            if (argb >> 24) da.colour = rgbOf(argb);
        });
    });
}

// ---- captions and icon fit --------------------------------------------------------------------

PDResult PDButtonWidgetAnnotGetCaption(PDAnnot widget, char16_t* buf, uint32_t bufLen,
                                       uint32_t* outLen) {
    return getCaption(widget, 0, buf, bufLen, outLen);
}
PDResult PDButtonWidgetAnnotSetCaption(PDAnnot widget, const char16_t* text, uint32_t len) {
    return setCaption(widget, 0, text, len);
}
PDResult PDButtonWidgetAnnotGetDownCaption(PDAnnot widget, char16_t* buf, uint32_t bufLen,
                                           uint32_t* outLen) {
    return getCaption(widget, 1, buf, bufLen, outLen);
}
PDResult PDButtonWidgetAnnotSetDownCaption(PDAnnot widget, const char16_t* text, uint32_t len) {
    return setCaption(widget, 1, text, len);
}
PDResult PDButtonWidgetAnnotGetRolloverCaption(PDAnnot widget, char16_t* buf, uint32_t bufLen,
                                               uint32_t* outLen) {
    return getCaption(widget, 2, buf, bufLen, outLen);
}
PDResult PDButtonWidgetAnnotSetRolloverCaption(PDAnnot widget, const char16_t* text, uint32_t len) {
    return setCaption(widget, 2, text, len);
}

PDResult PDButtonWidgetAnnotGetIconFit(PDAnnot widget, PDIconFit* outFit) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outFit);
        requireType(h.obj, "/Btn");
        QPDFObjectHandle fit = mkOf(h.obj, false).getKeyIfDict("/IF");
        PDIconFit out{0, 0, 0.5f, 0.5f, 0};
        static const std::string when = "ABSN";
        std::string sw = nameOf(fit.getKeyIfDict("/SW"));
        if (sw.size() == 2 && when.find(sw[1]) != std::string::npos)
            out.scaleWhen = static_cast<int32_t>(when.find(sw[1]));
        out.scaleHow = nameOf(fit.getKeyIfDict("/S")) == "/A" ? 1 : 0;
        QPDFObjectHandle a = fit.getKeyIfDict("/A");
        double v;
        if (a.isArray() && a.getArrayNItems() == 2) {
            if (numberOf(a.getArrayItem(0), v)) out.left = static_cast<float>(v);
            if (numberOf(a.getArrayItem(1), v)) out.bottom = static_cast<float>(v);
        }
        QPDFObjectHandle fb = fit.getKeyIfDict("/FB");
        out.fitBounds = fb.isBool() && fb.getBoolValue() ? 1 : 0;
        *outFit = out;
    });
}

PDResult PDButtonWidgetAnnotSetIconFit(PDAnnot widget, const PDIconFit* fit) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (!fit) fail(PD_ERR_BAD_ARGUMENT);
        requireType(h.obj, "/Btn");
        auto inUnit = [](float v) { return std::isfinite(v) && v >= 0 && v <= 1; };
        if (fit->scaleWhen < 0 || fit->scaleWhen > 3 || fit->scaleHow < 0 || fit->scaleHow > 1 ||
            !inUnit(fit->left) || !inUnit(fit->bottom))
            fail(PD_ERR_BAD_ARGUMENT);
        auto d = QPDFObjectHandle::newDictionary();
        d.replaceKey("/SW", name(std::string(1, "ABSN"[fit->scaleWhen])));
        d.replaceKey("/S", name(fit->scaleHow ? "A" : "P"));
        d.replaceKey("/A", QPDFObjectHandle::newArray({real(fit->left), real(fit->bottom)}));
        d.replaceKey("/FB", QPDFObjectHandle::newBool(fit->fitBounds != 0));
        mkOf(h.obj, true).replaceKey("/IF", d);
        refreshWidget(h);
    });
}

// ---- on-state ----------------------------------------------------------------------------------

PDResult PDButtonWidgetAnnotGetChoice(PDAnnot widget, char16_t* buf, uint32_t bufLen,
                                      uint32_t* outLen) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outLen);
        requireType(h.obj, "/Btn");
        std::string on = onStateOf(h.obj);
        if (on.empty() || (flagsOf(h.obj) & PD_FIELD_PUSHBUTTON)) fail(PD_ERR_NO_VALUE);
        giveText(toU16(on.substr(1)), buf, bufLen, outLen);
    });
}

PDResult PDButtonWidgetAnnotSetChoice(PDAnnot widget, const char16_t* text, uint32_t len) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        std::u16string value = textArg(text, len);
        if (value.empty() || value == u"Off") fail(PD_ERR_BAD_ARGUMENT);
        requireCheckOrRadio(h.obj);
        QPDFObjectHandle w = h.obj;
        QPDFObjectHandle field = holderOf(w);
        std::string oldState = onStateOf(w);
        std::string newState = "/" + toUtf8(value);

        // Rename the state in copies of /AP /N and /D, which other widgets may share.
        QPDFObjectHandle ap = w.getKey("/AP");
        auto newAp = ap.isDictionary() ? ap.shallowCopy() : QPDFObjectHandle::newDictionary();
        for (const char* which : {"/N", "/D"}) {
            QPDFObjectHandle states = newAp.getKey(which);
            if (!states.isDictionary()) continue;
            auto renamed = QPDFObjectHandle::newDictionary();
            for (auto const& key : states.getKeys())
                renamed.replaceKey(key == oldState ? newState : key, states.getKey(key));
            newAp.replaceKey(which, renamed);
        }
        if (!newAp.getKey("/N").isDictionary() || !newAp.getKey("/N").hasKey(newState)) {
            // No state to rename: give /N the new one so the appearance is made for it.
            auto normal = QPDFObjectHandle::newDictionary();
            normal.replaceKey(newState, QPDFObjectHandle::newDictionary());
            newAp.replaceKey("/N", normal);
        }
        w.replaceKey("/AP", newAp);

        bool wasOn = !oldState.empty() && (nameOf(w.getKey("/AS")) == oldState ||
                                           stateOfValue(inherited(field, "/V")) == oldState);
        if (wasOn) {
            w.replaceKey("/AS", QPDFObjectHandle::newName(newState));
            field.replaceKey("/V", QPDFObjectHandle::newName(newState));
        }
        if (!oldState.empty() && stateOfValue(inherited(field, "/DV")) == oldState)
            field.replaceKey("/DV", QPDFObjectHandle::newName(newState));
        refreshField(h);
    });
}

// ---- text alignment
// ------------------------------------------------------------------------------

PDResult PDTextWidgetAnnotGetQuadding(PDAnnot widget, int32_t* outQuadding) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outQuadding);
        requireType(h.obj, "/Tx", "/Ch");
        QPDFObjectHandle q = h.obj.getKey("/Q");
        if (!q.isInteger()) q = inherited(holderOf(h.obj), "/Q");
        if (!q.isInteger()) {
            QPDFObjectHandle form = acroForm(*h.doc, false);
            if (form.isDictionary()) q = form.getKey("/Q");
        }
        *outQuadding =
            q.isInteger() ? static_cast<int32_t>(std::clamp<long long>(q.getIntValue(), 0, 2)) : 0;
    });
}

PDResult PDTextWidgetAnnotSetQuadding(PDAnnot widget, int32_t quadding) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (quadding < 0 || quadding > 2) fail(PD_ERR_BAD_ARGUMENT);
        requireType(h.obj, "/Tx", "/Ch");
        QPDFObjectHandle field = holderOf(h.obj);
        field.replaceKey("/Q", QPDFObjectHandle::newInteger(quadding));
        // A /Q of the widget's own would hide the field's.
        if (field.getObjGen() != h.obj.getObjGen() && h.obj.hasKey("/Q"))
            h.obj.replaceKey("/Q", QPDFObjectHandle::newInteger(quadding));
        refreshField(h);
    });
}

// ---- choice selection --------------------------------------------------------------------------

PDResult PDChoiceWidgetAnnotGetSelection(PDAnnot widget, uint32_t* outIndex) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outIndex);
        requireType(h.obj, "/Ch");
        QPDFObjectHandle field = holderOf(h.obj);
        std::vector<std::u16string> values;
        QPDFObjectHandle v = inherited(field, "/V");
        if (v.isArray()) {
            for (auto& item : v.getArrayAsVector())
                values.push_back(textOf(item));
        } else if (v.isString() || v.isName()) {
            values.push_back(textOf(v));
        }
        std::vector<std::u16string> exports = exportValuesOf(field);
        uint32_t found = PD_NO_SELECTION;
        for (size_t i = 0; i < exports.size() && found == PD_NO_SELECTION; ++i)
            if (std::find(values.begin(), values.end(), exports[i]) != values.end())
                found = static_cast<uint32_t>(i);
        *outIndex = found;
    });
}

PDResult PDChoiceWidgetAnnotSetSelection(PDAnnot widget, uint32_t index) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        requireType(h.obj, "/Ch");
        QPDFObjectHandle field = holderOf(h.obj);
        if (index == PD_NO_SELECTION) {
            field.removeKey("/V");
            field.removeKey("/I");
        } else {
            std::vector<std::u16string> exports = exportValuesOf(field);
            if (index >= exports.size()) fail(PD_ERR_RANGE);
            field.replaceKey("/V", textString(exports[index]));
            field.replaceKey("/I", QPDFObjectHandle::newArray({QPDFObjectHandle::newInteger(
                                       static_cast<long long>(index))}));
        }
        refreshField(h);
    });
}
