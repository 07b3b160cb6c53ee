// The seam between pdfcore's fonts and the system's: which installed font files draw some
// text. One source file per system implements it (fontconfig on Linux, a search of the
// fonts folders on Windows).
#pragma once

#include <string>
#include <vector>

namespace pdfcore {

// An installed font: a file and the index of the face in it (a collection holds several).
struct SystemFont {
    std::string path;
    int index = 0;
};

// Installed TrueType faces for text in the given family and language (a BCP 47 tag such as
// "ja", or empty), best first: the faces that draw every character of chars come before
// those that draw only some, and among equals the system's order of preference for the
// family and language holds. Faces that draw none of chars are left out. Safe to call from
// any thread; fontconfig is asked once per family and language.
std::vector<SystemFont> systemFontsFor(const std::string& family, const std::string& language,
                                       const std::u32string& chars);

// Installed TrueType faces of a PostScript name (as a font's /BaseFont gives it).
std::vector<SystemFont> systemFontsNamed(const std::string& postScriptName);

} // namespace pdfcore
