// Installed fonts on Windows: the TrueType faces in the folders named by QF_FONT_DIRS
// (separated by ';', searched first: a host or a test points pdfcore at its own fonts)
// and in the system's fonts folder (%WINDIR%\Fonts), read once with FreeType. A face's
// family, PostScript name and characters come from the font itself.
//
// Order of preference among faces that draw as much of a text: the family asked for, then
// the usual faces of the language (a short table), then the search order (the folders in
// the order given, the files of a folder by name).
#include "FileSystem.h"
#include "FontLookup.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H
#include FT_TRUETYPE_TAGS_H

#include <windows.h>

#include <algorithm>
#include <cwctype>
#include <map>
#include <mutex>
#include <utility>

namespace pdfcore {
namespace {

struct Face {
    SystemFont font;
    std::string family;         // lower case
    std::string postScriptName;
    std::vector<std::pair<char32_t, char32_t>> ranges; // characters drawn, sorted
    bool draws(char32_t c) const {
        auto it = std::upper_bound(ranges.begin(), ranges.end(), c,
                                   [](char32_t v, const auto& r) { return v < r.first; });
        return it != ranges.begin() && c <= std::prev(it)->second;
    }
};

std::string lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

std::wstring environment(const wchar_t* name) {
    const DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    if (n == 0) return {};
    std::wstring value(n, L'\0');
    const DWORD got = GetEnvironmentVariableW(name, value.data(), n);
    value.resize(got < n ? got : 0);
    return value;
}

// The folders to search, in order.
std::vector<std::wstring> fontFolders() {
    std::vector<std::wstring> folders;
    const std::wstring extra = environment(L"QF_FONT_DIRS");
    size_t start = 0;
    while (start <= extra.size()) {
        const size_t end = std::min(extra.find(L';', start), extra.size());
        if (end > start) folders.push_back(extra.substr(start, end - start));
        start = end + 1;
    }
    wchar_t windows[MAX_PATH] = {};
    const UINT n = GetWindowsDirectoryW(windows, MAX_PATH);
    if (n > 0 && n < MAX_PATH) folders.push_back(std::wstring(windows, n) + L"\\Fonts");
    return folders;
}

// The font files of folder, by name.
std::vector<std::wstring> fontFiles(const std::wstring& folder) {
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW entry{};
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return files;
    do {
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        std::wstring name = entry.cFileName;
        const size_t dot = name.rfind(L'.');
        if (dot == std::wstring::npos) continue;
        std::wstring ext = name.substr(dot);
        for (wchar_t& c : ext) c = wchar_t(std::towlower(c));
        if (ext == L".ttf" || ext == L".ttc" || ext == L".otf")
            files.push_back(folder + L"\\" + name);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    std::sort(files.begin(), files.end());
    return files;
}

// Every face with TrueType outlines (glyf: they embed as CIDFontType2) in the folders.
std::vector<Face> scanFaces() {
    std::vector<Face> faces;
    FT_Library library = nullptr;
    if (FT_Init_FreeType(&library) != 0) return faces;
    for (const std::wstring& folder : fontFolders()) {
        for (const std::wstring& file : fontFiles(folder)) {
            const std::string path = utf8OfWide(file);
            long count = 1;
            for (long index = 0; index < count; ++index) {
                FT_Face face = nullptr;
                if (FT_New_Face(library, path.c_str(), index, &face) != 0) break;
                count = face->num_faces;
                FT_ULong glyf = 0;
                if (FT_IS_SFNT(face) && FT_Load_Sfnt_Table(face, TTAG_glyf, 0, nullptr, &glyf) == 0 &&
                    glyf > 0 && FT_Select_Charmap(face, FT_ENCODING_UNICODE) == 0) {
                    Face f;
                    f.font = {path, int(index)};
                    f.family = lower(face->family_name ? face->family_name : "");
                    const char* ps = FT_Get_Postscript_Name(face);
                    f.postScriptName = ps ? ps : "";
                    FT_UInt glyph = 0;
                    for (FT_ULong c = FT_Get_First_Char(face, &glyph); glyph != 0;
                         c = FT_Get_Next_Char(face, c, &glyph)) {
                        if (!f.ranges.empty() && f.ranges.back().second + 1 == c)
                            f.ranges.back().second = char32_t(c);
                        else
                            f.ranges.emplace_back(char32_t(c), char32_t(c));
                    }
                    faces.push_back(std::move(f));
                }
                FT_Done_Face(face);
            }
        }
    }
    FT_Done_FreeType(library);
    return faces;
}

std::mutex& lookupMutex() {
    static std::mutex m;
    return m;
}

// Read once, under the lookup mutex.
const std::vector<Face>& installedFaces() {
    static const std::vector<Face> faces = scanFaces();
    return faces;
}

// The families a language's text usually takes, best first.
std::vector<std::string> languageFamilies(const std::string& language) {
    const std::string base = lower(language.substr(0, language.find_first_of("-_")));
    if (base == "ja") return {"yu gothic", "ms gothic", "meiryo", "ms mincho"};
    if (base == "zh") return {"microsoft yahei", "simsun", "microsoft jhenghei", "mingliu"};
    if (base == "ko") return {"malgun gothic", "gulim", "batang"};
    return {};
}

} // namespace

std::vector<SystemFont> systemFontsFor(const std::string& family, const std::string& language,
                                       const std::u32string& chars) {
    std::lock_guard<std::mutex> lock(lookupMutex());
    const std::string wanted = lower(family);
    const std::vector<std::string> usual = languageFamilies(language);
    // Rank: 0 the family asked for, 1 + i the language's i-th family, then everything else.
    const auto rank = [&](const Face& f) {
        if (!wanted.empty() && f.family == wanted) return size_t(0);
        auto it = std::find(usual.begin(), usual.end(), f.family);
        return it == usual.end() ? usual.size() + 1 : size_t(it - usual.begin()) + 1;
    };
    std::vector<std::pair<size_t, const Face*>> all, some;
    for (const Face& f : installedFaces()) {
        size_t has = 0;
        for (char32_t c : chars) has += f.draws(c) ? 1 : 0;
        if (has == chars.size())
            all.emplace_back(rank(f), &f);
        else if (has > 0)
            some.emplace_back(rank(f), &f);
    }
    const auto byRank = [](const auto& a, const auto& b) { return a.first < b.first; };
    std::stable_sort(all.begin(), all.end(), byRank);
    std::stable_sort(some.begin(), some.end(), byRank);
    std::vector<SystemFont> out;
    for (const auto& [r, f] : all) out.push_back(f->font);
    for (const auto& [r, f] : some) out.push_back(f->font);
    return out;
}

std::vector<SystemFont> systemFontsNamed(const std::string& postScriptName) {
    std::lock_guard<std::mutex> lock(lookupMutex());
    std::vector<SystemFont> out;
    if (postScriptName.empty()) return out;
    for (const Face& f : installedFaces())
        if (f.postScriptName == postScriptName) out.push_back(f.font);
    return out;
}

} // namespace pdfcore
