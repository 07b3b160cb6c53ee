// Widget properties: rotation, border, colours, highlight, default appearance (font,
// size, colour) with the form's font resources, button captions, icon fit and on-state,
// text alignment and choice selection. Every setter that changes what the widget shows
// marks its appearance for drawing again.
#include "DefaultAppearance.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using namespace pdfcore;

namespace {

// ---- values ----------------------------------------------------------------------------

std::string num(double v) {
    return pdfNumber(v, 6);
}

QPDFObjectHandle real(double v) {
    return QPDFObjectHandle::newReal(num(v));
}

QPDFObjectHandle name(const std::string& withoutSlash) {
    return QPDFObjectHandle::newName("/" + withoutSlash);
}

QPDFObjectHandle colourArray(Document& doc, uint32_t argb) {
    Colour k = Colour::fromArgb(argb);
    auto arr = QPDFObjectHandle::newArray();
    for (int i = 0; i < 3; ++i)
        arr.appendItem(sharedReal(doc, num(k.c[i])));
    return arr;
}

// ---- the widget and its field -------------------------------------------------------------

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
void refreshWidget(PDHandleRec& h, Redraw what) {
    regenerateAppearance(*h.doc, h.obj, what);
}

// Regenerates every widget of the widget's field after a change of field entries.
void refreshField(PDHandleRec& h, Redraw what) {
    QPDFObjectHandle field = fieldOfWidget(h.obj);
    if (!field.isDictionary()) return refreshWidget(h, what);
    regenerateField(*h.doc, field, what);
    auto widgets = widgetsOf(field);
    bool listed = std::any_of(widgets.begin(), widgets.end(), [&](QPDFObjectHandle w) {
        return w.getObjGen() == h.obj.getObjGen();
    });
    if (!listed) refreshWidget(h, what);
}

// Sets the /MK entry key of the widget, or removes it when value is null, and redraws.
void putMk(PDHandleRec& h, const char* key, QPDFObjectHandle value) {
    if (value.isNull()) {
        QPDFObjectHandle mk = mkOf(h.obj, false);
        if (mk.isDictionary()) mk.removeKey(key);
    } else {
        mkOf(h.obj, true).replaceKey(key, value);
    }
    refreshWidget(h, Redraw::kAll);
}

// The body of a widget getter: checks the handle, then the output, then stores read(h).
template <typename T, typename Read> PDResult getWith(PDAnnot widget, T* out, Read&& read) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(out);
        *out = read(h);
    });
}

// The same for a text getter (the two-call pattern).
template <typename Read>
PDResult getTextWith(PDAnnot widget, char16_t* buf, uint32_t bufLen, uint32_t* outLen,
                     Read&& read) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        checkOut(outLen);
        PDResult r = putText(read(h), buf, bufLen, outLen);
        if (r != PD_OK) fail(r);
    });
}

// ---- default appearance ------------------------------------------------------------------

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

// Widths and descriptor of a non-embedded TrueType font, with Helvetica's metrics so that
// text laid out for it keeps its place in whatever font the viewer substitutes.
void describeTrueType(QPDFObjectHandle font, const std::string& family, const std::string& base,
                      int style) {
    auto widths = QPDFObjectHandle::newArray();
    for (int c = 32; c < 256; ++c)
        widths.appendItem(QPDFObjectHandle::newInteger(c < 127 ? kHelveticaWidths[c - 32] : 556));
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

    QPDFObjectHandle fonts = formFonts(doc);
    for (auto const& key : fonts.getKeys()) {
        QPDFObjectHandle f = fonts.getKey(key);
        // Composite fonts of that name are the system's faces drawing for other families.
        if (f.isDictionary() && nameOf(f.getKey("/Subtype")) == "/" + subtype &&
            nameOf(f.getKey("/BaseFont")) == "/" + base)
            return key.substr(1);
    }
    std::string resource = preferred;
    for (int k = 1; fonts.hasKey("/" + resource); ++k)
        resource = preferred + std::to_string(k);

    QPDFObjectHandle font = simpleFontDict(subtype, base, winAnsi);
    if (subtype == "TrueType") describeTrueType(font, family, base, style);
    fonts.replaceKey("/" + resource, makeIndirect(doc, font));
    return resource;
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

} // namespace

bool pdfcore::fontFamilyOf(QPDFObjectHandle font, std::string& family, int& style) {
    std::string base = nameOf(font.getKeyIfDict("/BaseFont"));
    base = stripSubset(base.empty() ? base : base.substr(1));
    splitBaseFont(base, family, style);
    QPDFObjectHandle desc = font.getKeyIfDict("/FontDescriptor");
    if (nameOf(font.getKeyIfDict("/Subtype")) == "/Type0") {
        QPDFObjectHandle kids = font.getKey("/DescendantFonts");
        QPDFObjectHandle cid = kids.isArray() && kids.getArrayNItems() > 0
                                   ? kids.getArrayItem(0)
                                   : QPDFObjectHandle::newNull();
        desc = cid.getKeyIfDict("/FontDescriptor");
    }
    QPDFObjectHandle fontFamily = desc.getKeyIfDict("/FontFamily");
    if (fontFamily.isString() && !textOf(fontFamily).empty()) family = toUtf8(textOf(fontFamily));
    QPDFObjectHandle flags = desc.getKeyIfDict("/Flags");
    double weight;
    if (flags.isInteger() && (flags.getIntValue() & (1 << 18))) style |= kBold;
    if (numberOf(desc.getKeyIfDict("/FontWeight"), weight) && weight >= 600) style |= kBold;
    if (flags.isInteger() && (flags.getIntValue() & 64)) style |= kItalic;
    return !family.empty();
}

namespace {

PDFontInfo fontInfoOf(QPDFObjectHandle font) {
    std::string family;
    int style = 0;
    if (!fontFamilyOf(font, family, style)) fail(PD_ERR_NO_VALUE);
    std::string subtype = nameOf(font.getKey("/Subtype"));
    if (subtype == "/Type0") {
        // A composite font drawing in place of a standard family stays of that family's
        // format; others are TrueType when their glyphs are.
        QPDFObjectHandle kids = font.getKey("/DescendantFonts");
        QPDFObjectHandle cid = kids.isArray() && kids.getArrayNItems() > 0
                                   ? kids.getArrayItem(0)
                                   : QPDFObjectHandle::newNull();
        bool trueType = nameOf(cid.getKeyIfDict("/Subtype")) == "/CIDFontType2";
        subtype = trueType && !standardFamily(family) ? "/TrueType" : "/Type1";
    }
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
        dict.replaceKey("/DA", sharedString(doc, writeDA(da)));
    };
    // A widget that shares its field with other widgets is styled on its own.
    if (h.obj.getObjGen() != holder.getObjGen() && widgetsOf(holder).size() > 1) {
        rewrite(h.obj, effectiveDA(doc, h.obj));
        regenerateAppearance(doc, h.obj, Redraw::kText);
        return;
    }
    rewrite(holder, effectiveDA(doc, holder));
    if (h.obj.getObjGen() != holder.getObjGen() && h.obj.getKey("/DA").isString())
        rewrite(h.obj, h.obj.getKey("/DA").getStringValue());
    refreshField(h, Redraw::kText);
}

// ---- buttons --------------------------------------------------------------------------------

void requireCheckOrRadio(QPDFObjectHandle widget) {
    requireType(widget, "/Btn");
    if (flagsOf(widget) & PD_FIELD_PUSHBUTTON) fail(PD_ERR_FIELD_KIND);
}

const char* const kCaptionKeys[] = {"/CA", "/AC", "/RC"};

PDResult getCaption(PDAnnot widget, int which, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    return getTextWith(widget, buf, bufLen, outLen, [&](PDHandleRec& h) {
        requireType(h.obj, "/Btn");
        QPDFObjectHandle caption = mkOf(h.obj, false).getKeyIfDict(kCaptionKeys[which]);
        if (!caption.isString()) fail(PD_ERR_NO_VALUE);
        return textOf(caption);
    });
}

PDResult setCaption(PDAnnot widget, int which, const char16_t* text, uint32_t len) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        std::u16string value = textArg(text, len);
        requireType(h.obj, "/Btn");
        putMk(h, kCaptionKeys[which],
              value.empty() ? QPDFObjectHandle::newNull() : textString(value));
    });
}

// ---- /MK colour entries ------------------------------------------------------------------

PDResult getMkColour(PDAnnot widget, const char* key, uint32_t* outArgb) {
    return getWith(widget, outArgb, [&](PDHandleRec& h) {
        return argbOf(colourOf(mkOf(h.obj, false).getKeyIfDict(key)));
    });
}

PDResult setMkColour(PDAnnot widget, const char* key, uint32_t argb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        putMk(h, key, (argb >> 24) == 0 ? QPDFObjectHandle::newNull() : colourArray(*h.doc, argb));
    });
}

// ---- choices --------------------------------------------------------------------------------

std::vector<std::u16string> exportValuesOf(QPDFObjectHandle field) {
    std::vector<std::u16string> out;
    for (auto& o : optionsOf(field))
        out.push_back(o.exportValue);
    return out;
}

} // namespace

// ---- rotation ---------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetRotate(PDAnnot widget, int32_t* outDegrees) {
    return getWith(widget, outDegrees, [](PDHandleRec& h) {
        double r = 0;
        numberOf(mkOf(h.obj, false).getKeyIfDict("/R"), r);
        long quarter = std::lround(std::fmod(r, 360) / 90);
        return static_cast<int32_t>(((quarter % 4) + 4) % 4 * 90);
    });
}

PDResult PDWidgetAnnotSetRotate(PDAnnot widget, int32_t degrees) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (degrees % 90 != 0) fail(PD_ERR_BAD_ARGUMENT);
        putMk(h, "/R", sharedInteger(*h.doc, ((degrees % 360) + 360) % 360));
    });
}

// ---- border ---------------------------------------------------------------------------------

PDResult PDWidgetAnnotGetBorderStyle(PDAnnot widget, PDBorderStyle* outStyle) {
    return getWith(widget, outStyle, [](PDHandleRec& h) {
        PDBorderStyle style{};
        style.width = 1;
        QPDFObjectHandle bs = h.obj.getKey("/BS");
        QPDFObjectHandle border = h.obj.getKey("/Border");
        style.style = letterOf(bs.getKeyIfDict("/S"), "SDBIU", 0);
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
        return style;
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
        bs.replaceKey("/W", sharedReal(*h.doc, num(style->width)));
        bs.replaceKey("/S", sharedName(*h.doc, std::string("/") + "SDBIU"[style->style]));
        if (count > 0) {
            auto dash = QPDFObjectHandle::newArray();
            for (uint32_t i = 0; i < count; ++i)
                dash.appendItem(real(style->dash[i]));
            bs.replaceKey("/D", dash);
        }
        h.obj.replaceKey("/BS", bs);
        refreshWidget(h, Redraw::kAll);
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
    return getWith(widget, outMode,
                   [](PDHandleRec& h) { return letterOf(h.obj.getKey("/H"), "NIOPT", 1); });
}

PDResult PDWidgetAnnotSetHighlight(PDAnnot widget, int32_t mode) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (mode < 0 || mode > 4) fail(PD_ERR_BAD_ARGUMENT);
        // How a viewer shows a click: nothing drawn here depends on it.
        h.obj.replaceKey("/H", name(std::string(1, "NIOPT"[mode])));
    });
}

// ---- default appearance ---------------------------------------------------------------------

PDResult PDWidgetAnnotGetFontInfo(PDAnnot widget, PDFontInfo* outInfo) {
    return getWith(widget, outInfo, [](PDHandleRec& h) {
        flushAppearance(*h.doc, h.obj); // the drawing may add the font to its resources
        DefaultAppearance da = parseDA(effectiveDA(*h.doc, h.obj));
        if (da.font.empty()) fail(PD_ERR_NO_VALUE);
        QPDFObjectHandle font = findFontResource(*h.doc, h.obj, da.font);
        if (font.isDictionary()) return fontInfoOf(font);
        // A resource the file does not define: the usual names of the standard fonts.
        for (auto& f : kStandard)
            for (int s = 0; s < 4; ++s)
                if (da.font == f.resources[s])
                    return PDFontInfo{atomOf(f.family), 0,
                                      std::string_view(f.fonts[0]) == f.fonts[1] ? 0 : s};
        fail(PD_ERR_NO_VALUE);
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
    return getWith(widget, outSize, [](PDHandleRec& h) {
        DefaultAppearance da = parseDA(effectiveDA(*h.doc, h.obj));
        if (da.font.empty()) fail(PD_ERR_NO_VALUE);
        return static_cast<float>(std::max(0.0, da.size));
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
    return getWith(widget, outArgb, [](PDHandleRec& h) {
        uint32_t argb = argbOf(parseDA(effectiveDA(*h.doc, h.obj)).colour);
        return argb ? argb : 0xFF000000u;
    });
}

PDResult PDWidgetAnnotSetFontColor(PDAnnot widget, uint32_t argb) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        changeDA(h, [&](DefaultAppearance& da) {
            da.colour = argb >> 24 ? Colour::fromArgb(argb) : Colour{};
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
    return getWith(widget, outFit, [](PDHandleRec& h) {
        requireType(h.obj, "/Btn");
        QPDFObjectHandle fit = mkOf(h.obj, false).getKeyIfDict("/IF");
        PDIconFit out{0, 0, 0.5f, 0.5f, 0};
        out.scaleWhen = letterOf(fit.getKeyIfDict("/SW"), "ABSN", 0);
        out.scaleHow = nameOf(fit.getKeyIfDict("/S")) == "/A" ? 1 : 0;
        QPDFObjectHandle a = fit.getKeyIfDict("/A");
        double v;
        if (a.isArray() && a.getArrayNItems() == 2) {
            if (numberOf(a.getArrayItem(0), v)) out.left = static_cast<float>(v);
            if (numberOf(a.getArrayItem(1), v)) out.bottom = static_cast<float>(v);
        }
        QPDFObjectHandle fb = fit.getKeyIfDict("/FB");
        out.fitBounds = fb.isBool() && fb.getBoolValue() ? 1 : 0;
        return out;
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
        putMk(h, "/IF", d);
    });
}

// ---- on-state ----------------------------------------------------------------------------------

PDResult PDButtonWidgetAnnotGetChoice(PDAnnot widget, char16_t* buf, uint32_t bufLen,
                                      uint32_t* outLen) {
    return getTextWith(widget, buf, bufLen, outLen, [](PDHandleRec& h) {
        requireType(h.obj, "/Btn");
        flushAppearance(*h.doc, h.obj);
        std::string on = onStateOf(h.obj);
        if (on.empty() || (flagsOf(h.obj) & PD_FIELD_PUSHBUTTON)) fail(PD_ERR_NO_VALUE);
        return toU16(on.substr(1));
    });
}

namespace {

// Takes the on state out of the widget's /N and /D (in copies: other widgets may share
// them); a widget that showed it is off.
void dropOnState(QPDFObjectHandle w, const std::string& state) {
    if (state.empty()) return;
    QPDFObjectHandle ap = w.getKey("/AP");
    if (ap.isDictionary()) {
        auto newAp = ap.shallowCopy();
        for (const char* which : {"/N", "/D"}) {
            QPDFObjectHandle states = newAp.getKey(which);
            if (!states.isDictionary() || !states.hasKey(state)) continue;
            auto kept = states.shallowCopy();
            kept.removeKey(state);
            newAp.replaceKey(which, kept);
        }
        w.replaceKey("/AP", newAp);
    }
    if (nameOf(w.getKey("/AS")) == state) w.replaceKey("/AS", QPDFObjectHandle::newName("/Off"));
    // The field's value names the state no longer when no other widget of it has it.
    QPDFObjectHandle field = holderOf(w);
    if (!isStateOf(field.getKey("/V"), state)) return;
    QPDFObjectHandle kids = field.getKey("/Kids");
    if (kids.isArray()) {
        for (auto kid : kids.aitems()) {
            if (kid.isSameObjectAs(w)) continue;
            QPDFObjectHandle normal = kid.getKey("/AP").getKey("/N");
            if (normal.isDictionary() && normal.hasKey(state)) return;
        }
    }
    field.replaceKey("/V", QPDFObjectHandle::newName("/Off"));
}

} // namespace

PDResult PDButtonWidgetAnnotSetChoice(PDAnnot widget, const char16_t* text, uint32_t len) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        std::u16string value = textArg(text, len);
        if (value == u"Off") fail(PD_ERR_BAD_ARGUMENT);
        requireCheckOrRadio(h.obj);
        QPDFObjectHandle w = h.obj;
        QPDFObjectHandle field = holderOf(w);
        // A widget still to be drawn is drawn once, after the rename: what follows reads its
        // state and /AS as that drawing would leave them. (Taking the on state away needs
        // the drawing, as it keeps none.)
        const bool drawLater = !value.empty() && h.doc->staleAppearances.count(w.getObjGen());
        if (!drawLater) flushAppearance(*h.doc, w);
        std::string oldState = drawLater ? showValueState(w, field) : onStateOf(w);
        if (value.empty()) {
            dropOnState(w, oldState);
            return;
        }
        // The same text keeps the state's bytes (a state of a file in another encoding).
        std::string newState = !oldState.empty() && toU16(oldState.substr(1)) == value
                                   ? oldState
                                   : "/" + toUtf8(value);
        noteName(newState);

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
                                           isStateOf(inherited(field, "/V"), oldState));
        if (wasOn) {
            w.replaceKey("/AS", QPDFObjectHandle::newName(newState));
            field.replaceKey("/V", QPDFObjectHandle::newName(newState));
        }
        if (!oldState.empty() && isStateOf(inherited(field, "/DV"), oldState))
            field.replaceKey("/DV", QPDFObjectHandle::newName(newState));
        // Export values of their own in /Opt (on states then often just name the widget's
        // position) show the new text too.
        QPDFObjectHandle opt = field.getKey("/Opt");
        if (opt.isArray()) {
            auto widgets = widgetsOf(field);
            for (size_t i = 0; i < widgets.size(); ++i) {
                if (widgets[i].getObjGen() != w.getObjGen()) continue;
                if (static_cast<int>(i) < opt.getArrayNItems()) {
                    auto values = opt.shallowCopy();
                    values.setArrayItem(static_cast<int>(i), textString(value));
                    field.replaceKey("/Opt", values);
                }
                break;
            }
        }
        refreshField(h, Redraw::kValue);
    });
}

// ---- text alignment ----------------------------------------------------------------------------

PDResult PDTextWidgetAnnotGetQuadding(PDAnnot widget, int32_t* outQuadding) {
    return getWith(widget, outQuadding, [](PDHandleRec& h) {
        requireType(h.obj, "/Tx", "/Ch");
        QPDFObjectHandle q = quaddingEntry(*h.doc, h.obj);
        return q.isInteger() ? static_cast<int32_t>(std::clamp<long long>(q.getIntValue(), 0, 2))
                             : 0;
    });
}

PDResult PDTextWidgetAnnotSetQuadding(PDAnnot widget, int32_t quadding) {
    return guard([&] {
        PDHandleRec& h = checkedWidget(widget);
        if (quadding < 0 || quadding > 2) fail(PD_ERR_BAD_ARGUMENT);
        requireType(h.obj, "/Tx", "/Ch");
        QPDFObjectHandle field = holderOf(h.obj);
        field.replaceKey("/Q", sharedInteger(*h.doc, quadding));
        // A /Q of the widget's own would hide the field's.
        if (field.getObjGen() != h.obj.getObjGen() && h.obj.hasKey("/Q"))
            h.obj.replaceKey("/Q", sharedInteger(*h.doc, quadding));
        refreshField(h, Redraw::kText);
    });
}

// ---- choice selection --------------------------------------------------------------------------

PDResult PDChoiceWidgetAnnotGetSelection(PDAnnot widget, uint32_t* outIndex) {
    return getWith(widget, outIndex, [](PDHandleRec& h) {
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
        for (size_t i = 0; i < exports.size(); ++i)
            if (std::find(values.begin(), values.end(), exports[i]) != values.end())
                return static_cast<uint32_t>(i);
        return static_cast<uint32_t>(PD_NO_SELECTION);
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
        refreshField(h, Redraw::kValue);
    });
}
