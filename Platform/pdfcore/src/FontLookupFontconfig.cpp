// Installed fonts through fontconfig: the faces the system prefers for a family and a
// language, kept with the characters each one has.
#include "FontLookup.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace pdfcore {
namespace {

struct Candidate {
    SystemFont font;
    FcCharSet* charset; // a reference of the cache's own
};

std::mutex& lookupMutex() {
    static std::mutex m;
    return m;
}

// The TrueType faces fontconfig would use for the family and language, best first.
const std::vector<Candidate>& preferredFaces(const std::string& family,
                                             const std::string& language) {
    static std::map<std::pair<std::string, std::string>, std::vector<Candidate>> cache;
    auto key = std::make_pair(family, language);
    auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    std::vector<Candidate>& out = cache[key];
    if (!FcInit()) return out;
    FcPattern* pattern = FcPatternCreate();
    if (!pattern) return out;
    if (!family.empty())
        FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
    if (!language.empty())
        FcPatternAddString(pattern, FC_LANG, reinterpret_cast<const FcChar8*>(language.c_str()));
    FcPatternAddBool(pattern, FC_OUTLINE, FcTrue);
    FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
    FcDefaultSubstitute(pattern);
    FcResult result = FcResultNoMatch;
    FcFontSet* set = FcFontSort(nullptr, pattern, FcFalse, nullptr, &result);
    FcPatternDestroy(pattern);
    if (!set) return out;
    for (int i = 0; i < set->nfont; ++i) {
        FcPattern* face = set->fonts[i];
        FcChar8 *file = nullptr, *format = nullptr;
        FcCharSet* charset = nullptr;
        int index = 0;
        if (FcPatternGetString(face, FC_FILE, 0, &file) != FcResultMatch ||
            FcPatternGetString(face, FC_FONTFORMAT, 0, &format) != FcResultMatch ||
            FcPatternGetCharSet(face, FC_CHARSET, 0, &charset) != FcResultMatch)
            continue;
        // Glyph outlines (glyf), which embed as CIDFontType2; CFF faces are left out.
        if (std::string(reinterpret_cast<const char*>(format)) != "TrueType") continue;
        FcPatternGetInteger(face, FC_INDEX, 0, &index);
        SystemFont font{reinterpret_cast<const char*>(file), index};
        if (std::any_of(out.begin(), out.end(), [&](const Candidate& c) {
                return c.font.path == font.path && c.font.index == font.index;
            }))
            continue;
        out.push_back({font, FcCharSetCopy(charset)});
    }
    FcFontSetDestroy(set);
    return out;
}

} // namespace

std::vector<SystemFont> systemFontsFor(const std::string& family, const std::string& language,
                                       const std::u32string& chars) {
    std::lock_guard<std::mutex> lock(lookupMutex());
    std::vector<SystemFont> all, some;
    for (const Candidate& c : preferredFaces(family, language)) {
        size_t has = 0;
        for (char32_t ch : chars)
            has += FcCharSetHasChar(c.charset, ch) ? 1 : 0;
        if (has == chars.size())
            all.push_back(c.font);
        else if (has > 0)
            some.push_back(c.font);
    }
    all.insert(all.end(), some.begin(), some.end());
    return all;
}

std::vector<SystemFont> systemFontsNamed(const std::string& postScriptName) {
    std::lock_guard<std::mutex> lock(lookupMutex());
    std::vector<SystemFont> out;
    if (postScriptName.empty() || !FcInit()) return out;
    FcPattern* pattern = FcPatternCreate();
    if (!pattern) return out;
    FcPatternAddString(pattern, FC_POSTSCRIPT_NAME,
                       reinterpret_cast<const FcChar8*>(postScriptName.c_str()));
    FcObjectSet* fields = FcObjectSetBuild(FC_FILE, FC_INDEX, FC_FONTFORMAT, nullptr);
    FcFontSet* set = fields ? FcFontList(nullptr, pattern, fields) : nullptr;
    for (int i = 0; set && i < set->nfont; ++i) {
        FcChar8 *file = nullptr, *format = nullptr;
        int index = 0;
        if (FcPatternGetString(set->fonts[i], FC_FILE, 0, &file) != FcResultMatch ||
            FcPatternGetString(set->fonts[i], FC_FONTFORMAT, 0, &format) != FcResultMatch ||
            std::string(reinterpret_cast<const char*>(format)) != "TrueType")
            continue;
        FcPatternGetInteger(set->fonts[i], FC_INDEX, 0, &index);
        out.push_back({reinterpret_cast<const char*>(file), index});
    }
    if (set) FcFontSetDestroy(set);
    if (fields) FcObjectSetDestroy(fields);
    FcPatternDestroy(pattern);
    return out;
}

} // namespace pdfcore
