// Text in the system's fonts: the faces that draw the characters a widget shows, text
// shaped with HarfBuzz, and those faces embedded in the document as subsets: Type0 fonts
// with a CIDFontType2 descendant, Identity-H, the face's own glyph ids as CIDs and a
// /ToUnicode, each written once per document with every glyph drawn with it.
#pragma once

#include "Core.h"

#include <cstdint>
#include <string>
#include <vector>

namespace pdfcore {

// One glyph of shaped text. Distances are in thousandths of an em.
struct ShapedGlyph {
    uint32_t gid = 0;
    uint32_t cluster = 0;  // the first UTF-16 unit, in the text shaped, of what it draws
    double advance = 0;    // from where it starts to where the next one starts
    double nominal = 0;    // its width in the font's widths (/W), which viewers advance by
    double dx = 0, dy = 0; // where it is drawn, from where it starts
    uint8_t face = 0;      // which of the faces given draws it
    uint8_t level = 0;     // bidirectional level: even left to right, odd right to left
    bool space = false;    // it draws a space (U+0020), where lines may break
};

// A face of the system's fonts as one document uses it.
class EmbeddedFace {
public:
    virtual ~EmbeddedFace() = default;
    // The Type0 font dictionary (indirect) for the resources of appearance streams.
    virtual QPDFObjectHandle dictionary() = 0;
    // The face as a font of another family and style (1 bold, 2 italic), for a /DA that
    // asked for that family where this face draws in its place: a font of its own that
    // shares the program and /ToUnicode, whose descriptor gives the family asked for.
    virtual QPDFObjectHandle dictionaryFor(const std::string& family, int style) = 0;
    // A resource name for it: the letters and digits of its name.
    virtual const std::string& resourceName() const = 0;
    // Above and below the baseline, per em (both positive).
    virtual double ascent() const = 0;
    virtual double descent() const = 0;
    virtual bool covers(char32_t c) const = 0;
    // The width of a glyph in the font's widths, thousandths of an em.
    virtual double nominal(uint32_t gid) const = 0;
    // Shapes text[from, to) in this face, right to left when rtl (the glyphs then come in
    // the order they are drawn, right to left), for a language (a BCP 47 tag, or empty),
    // and notes the glyphs as drawn: the subset written with the document holds them, and
    // its /ToUnicode gives each glyph the text it drew.
    virtual std::vector<ShapedGlyph> shape(const std::u16string& text, size_t from, size_t to,
                                           bool rtl, const std::string& language) = 0;
};

// The faces that draw text in the document for a family (empty: any) and a language, best
// first: preferred when it draws every character, else one that does when the system has
// one, then faces that draw what those before them miss. Empty when no installed face draws any character of it. A font
// file that cannot be read is skipped with a warning (once per document).
std::vector<EmbeddedFace*> facesFor(Document& doc, const std::string& family,
                                    const std::string& language, const std::u16string& text,
                                    EmbeddedFace* preferred = nullptr);

// Shapes text with faces: each character in the first face that draws it (a mark in the
// face of the character it goes with; one that no face draws in the first, where it comes
// out as .notdef, with one warning for the text, naming the characters the document did
// not warn about before), in runs of one face and
// one direction. Directions follow the text's own: its first strong character sets the
// direction of the whole, runs of the other direction, and numbers in right-to-left text,
// are turned within it (levels 0 to 2, no explicit embeddings). The glyphs come in logical
// order, by cluster.
std::vector<ShapedGlyph> shapeText(Document& doc, const std::vector<EmbeddedFace*>& faces,
                                   const std::u16string& text, const std::string& language);

// The face of the system's that a Type0 font of the document was embedded from by a
// drawing (of this session, or one before with the same version of the face): drawing with
// it goes on in the same font objects. Null for any other font.
EmbeddedFace* faceOfFont(Document& doc, QPDFObjectHandle font);

// Writes the subset of every face whose glyphs grew since it was last written, with its
// widths and /ToUnicode: before the document is written.
void writeEmbeddedFaces(Document& doc);

// The objects of the document's embedded faces, which stay while the document is open.
std::vector<QPDFObjectHandle> embeddedFaceObjects(Document& doc);

} // namespace pdfcore
