// What the widget properties (Widgets.cpp) and the appearance streams (Appearance.cpp) both
// read from a widget: numbers and colours, the default appearance string /DA, the font
// resources it names, and a few entries looked up through the field or the form.
#pragma once

#include "Core.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pdfcore {

// ---- numbers and names -------------------------------------------------------------

// v with at most `decimals` decimals, for content streams and real objects: no exponent,
// no "-0", non-finite values as 0.
std::string pdfNumber(double v, int decimals);
// Reads a number object into out; true when o is one and its value is finite.
bool numberOf(QPDFObjectHandle o, double& out);
// The name of a name object, with its slash; "" for anything else.
std::string nameOf(QPDFObjectHandle o);
// The place in letters of a one-letter name (/S in "SDBIU" is 0); fallback for anything else.
int letterOf(QPDFObjectHandle o, std::string_view letters, int fallback);

// ---- colours ----------------------------------------------------------------------------

struct Colour {
    int n = 0; // components: 0 none, 1 grey, 3 RGB, 4 CMYK
    double c[4] = {0, 0, 0, 0};

    bool present() const { return n > 0; }
    static Colour grey(double g);
    // The opaque RGB colour of an ARGB word (alpha ignored).
    static Colour fromArgb(uint32_t argb);
    Colour rgb() const;                // as RGB; black for none
    Colour scaled(double f) const;     // RGB, each component times f (kept in 0..1)
    std::string op(bool stroke) const; // "r g b rg\n" and the like, for a content stream
};

// A colour array of 1, 3 or 4 numbers; none for anything else.
Colour colourOf(QPDFObjectHandle arr);
// A colour as an opaque ARGB word; 0 for none.
uint32_t argbOf(const Colour& k);

// ---- default appearance ----------------------------------------------------------------

struct DefaultAppearance {
    std::string font; // resource name without slash; empty when the string has no Tf
    double size = 0;  // 0: automatic
    Colour colour;    // none when the string sets none
};

// Reads the operators that matter (Tf, g, rg, k) from a /DA string; the last one of each
// kind wins, as it would when the string is run as content.
DefaultAppearance parseDA(const std::string& s);
// A /DA string: the font and size, and the colour as RGB when it has one.
std::string writeDA(const DefaultAppearance& da);
// The /DA string in effect for dict: its own or inherited, else the form's; "" when none.
std::string effectiveDA(Document& doc, QPDFObjectHandle dict);

// ---- font resources ------------------------------------------------------------------

// Advance widths (1/1000 em) of Helvetica for WinAnsi codes 32..255; 0 for unused codes.
extern const std::array<uint16_t, 224> kHelveticaWidths;

// A /BaseFont without a subset tag ("ABCDEF+").
std::string stripSubset(std::string base);
// A simple font dictionary of the given /Subtype (without slash) for a non-embedded font,
// in WinAnsiEncoding when winAnsi is set.
QPDFObjectHandle simpleFontDict(const std::string& subtype, const std::string& baseFont,
                                bool winAnsi);
// The /Font dictionary of the form's /DR, made when missing, for fonts to be added to: one
// of the form's own, copied first when it is an object that others may share (files that
// give appearance streams the form's resources as their own).
QPDFObjectHandle formFonts(Document& doc);
// The font dictionary of a /DA resource name: the form's /DR, a /DR on the field, or the
// resources of the widget's current appearance; null when none has it.
QPDFObjectHandle findFontResource(Document& doc, QPDFObjectHandle widget, const std::string& name);

// The family and style (1 bold, 2 italic) of a font dictionary: its descriptor's
// /FontFamily, else the family part of its /BaseFont. False when it names none.
// (Widgets.cpp)
bool fontFamilyOf(QPDFObjectHandle font, std::string& family, int& style);

// ---- widget entries ------------------------------------------------------------------

// The dictionary holding the field entries of a widget: its field, or the widget itself
// when it has none.
QPDFObjectHandle holderOf(QPDFObjectHandle widget);
// The /Q entry in effect for a widget: its own, its field's (inherited), else the form's.
// Not necessarily an integer.
QPDFObjectHandle quaddingEntry(Document& doc, QPDFObjectHandle widget);
// The on-state of a check box or radio widget: the first state of /AP /N (else /D) other
// than Off, with its slash; "" when there is none.
std::string onStateOf(QPDFObjectHandle widget);

struct Option {
    std::u16string exportValue, display;
};
// The options of a choice field (inherited /Opt); an item that is no pair is both values.
std::vector<Option> optionsOf(QPDFObjectHandle field);

} // namespace pdfcore
