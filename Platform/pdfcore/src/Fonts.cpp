// Faces of the system's fonts in a document: read with FreeType (metrics, and whether the
// file is sound), shaped with HarfBuzz, written as subsets made by hb-subset.
#include "Fonts.h"

#include "DefaultAppearance.h"
#include "FontLookup.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H
#include FT_TRUETYPE_TAGS_H
#include <hb-subset.h>
#include <hb.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

namespace pdfcore {

namespace {

std::u16string ascii16(const std::string& s) {
    return std::u16string(s.begin(), s.end());
}

std::string hex4(uint32_t v) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out(4, '0');
    for (int i = 3; i >= 0; --i, v >>= 4)
        out[i] = digits[v & 0xF];
    return out;
}

// Metrics and names read with FreeType; false when FreeType cannot read the face or it has
// no TrueType outlines.
struct FaceFacts {
    std::string postScriptName, family;
    long revision = 0; // head.fontRevision: glyph ids hold within one version
    double unitsPerEm = 1000;
    double ascent = 0.8, descent = 0.2, capHeight = 0.7, italicAngle = 0;
    double bbox[4] = {0, -200, 1000, 800};
    bool fixedPitch = false;
};

bool readFacts(const SystemFont& font, FaceFacts& out) {
    FT_Library library = nullptr;
    if (FT_Init_FreeType(&library) != 0) return false;
    FT_Face face = nullptr;
    bool ok = FT_New_Face(library, font.path.c_str(), font.index, &face) == 0;
    FT_ULong glyf = 0;
    ok = ok && FT_IS_SFNT(face) && face->units_per_EM > 0 &&
         FT_Load_Sfnt_Table(face, TTAG_glyf, 0, nullptr, &glyf) == 0 && glyf > 0;
    if (ok) {
        double em = face->units_per_EM;
        out.unitsPerEm = em;
        out.ascent = face->ascender / em;
        out.descent = -face->descender / em;
        out.bbox[0] = face->bbox.xMin * 1000 / em;
        out.bbox[1] = face->bbox.yMin * 1000 / em;
        out.bbox[2] = face->bbox.xMax * 1000 / em;
        out.bbox[3] = face->bbox.yMax * 1000 / em;
        out.capHeight = out.ascent * 0.85;
        auto* os2 = static_cast<TT_OS2*>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2));
        if (os2 && os2->version >= 2 && os2->sCapHeight > 0) out.capHeight = os2->sCapHeight / em;
        auto* post = static_cast<TT_Postscript*>(FT_Get_Sfnt_Table(face, FT_SFNT_POST));
        if (post) out.italicAngle = post->italicAngle / 65536.0;
        out.fixedPitch = FT_IS_FIXED_WIDTH(face);
        auto* head = static_cast<TT_Header*>(FT_Get_Sfnt_Table(face, FT_SFNT_HEAD));
        if (head) out.revision = head->Font_Revision;
        if (face->family_name) out.family = face->family_name;
        const char* ps = FT_Get_Postscript_Name(face);
        std::string name = ps ? ps : (face->family_name ? face->family_name : "");
        for (char c : name)
            if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                c == '-' || c == '_')
                out.postScriptName += c;
        if (out.postScriptName.empty()) out.postScriptName = "Font";
        if (!(out.ascent > 0 && out.ascent < 2)) out.ascent = 0.8;
        if (!(out.descent >= 0 && out.descent < 1)) out.descent = 0.2;
    }
    if (face) FT_Done_Face(face);
    FT_Done_FreeType(library);
    return ok;
}

// head.fontRevision of a font program in memory; -1 when FreeType cannot read it.
long revisionOf(const std::string& program) {
    FT_Library library = nullptr;
    if (FT_Init_FreeType(&library) != 0) return -1;
    FT_Face face = nullptr;
    long revision = -1;
    if (FT_New_Memory_Face(library, reinterpret_cast<const FT_Byte*>(program.data()),
                           static_cast<FT_Long>(program.size()), 0, &face) == 0) {
        auto* head = static_cast<TT_Header*>(FT_Get_Sfnt_Table(face, FT_SFNT_HEAD));
        if (head) revision = head->Font_Revision;
        FT_Done_Face(face);
    }
    FT_Done_FreeType(library);
    return revision;
}

// The glyphs and texts of a /ToUnicode written here: "<gid> <UTF-16BE>" pairs in bfchar
// sections.
std::map<uint32_t, std::u16string> glyphTexts(QPDFObjectHandle cmap) {
    std::map<uint32_t, std::u16string> out;
    std::string text;
    try {
        auto data = cmap.getStreamData(qpdf_dl_generalized);
        text.assign(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
    } catch (const std::exception&) {
        return out;
    }
    std::vector<std::string> pair;
    bool inChars = false;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, 11, "beginbfchar") == 0) {
            inChars = true;
            pair.clear();
            i += 11;
        } else if (text.compare(i, 9, "endbfchar") == 0) {
            inChars = false;
            i += 9;
        } else if (text[i] == '<' && inChars) {
            size_t close = text.find('>', i);
            if (close == std::string::npos) break;
            pair.push_back(text.substr(i + 1, close - i - 1));
            i = close + 1;
            if (pair.size() == 2) {
                std::u16string units;
                for (size_t k = 0; k + 4 <= pair[1].size(); k += 4)
                    units += static_cast<char16_t>(std::stoul(pair[1].substr(k, 4), nullptr, 16));
                if (!pair[0].empty() && pair[0].size() <= 4)
                    out[static_cast<uint32_t>(std::stoul(pair[0], nullptr, 16))] = units;
                pair.clear();
            }
        } else {
            ++i;
        }
    }
    return out;
}

// The fonts of the form's /DR that earlier drawings embedded from this face: Type0 fonts
// with a CIDFontType2 of its name whose program is of the same version.
std::vector<QPDFObjectHandle> embeddedEarlier(Document& doc, const FaceFacts& facts) {
    std::vector<QPDFObjectHandle> out;
    QPDFObjectHandle form = acroForm(doc, false);
    QPDFObjectHandle fonts = form.getKeyIfDict("/DR").getKeyIfDict("/Font");
    if (!fonts.isDictionary()) return out;
    for (auto const& key : fonts.getKeys()) {
        QPDFObjectHandle font = fonts.getKey(key);
        std::string base = nameOf(font.getKeyIfDict("/BaseFont"));
        if (!font.isDictionary() || !font.isIndirect() ||
            nameOf(font.getKey("/Subtype")) != "/Type0" ||
            nameOf(font.getKey("/Encoding")) != "/Identity-H" || base.size() < 2 ||
            stripSubset(base.substr(1)) != facts.postScriptName ||
            !font.getKey("/ToUnicode").isStream())
            continue;
        QPDFObjectHandle kids = font.getKey("/DescendantFonts");
        QPDFObjectHandle cid = kids.isArray() && kids.getArrayNItems() == 1
                                   ? kids.getArrayItem(0)
                                   : QPDFObjectHandle::newNull();
        QPDFObjectHandle descriptor = cid.getKeyIfDict("/FontDescriptor");
        QPDFObjectHandle program = descriptor.getKeyIfDict("/FontFile2");
        if (nameOf(cid.getKeyIfDict("/Subtype")) != "/CIDFontType2" ||
            nameOf(cid.getKeyIfDict("/CIDToGIDMap")) != "/Identity" || !program.isStream() ||
            !cid.isIndirect() || !descriptor.isIndirect() || !program.isIndirect())
            continue;
        try {
            auto data = program.getStreamData(qpdf_dl_generalized);
            std::string bytes(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
            if (revisionOf(bytes) == facts.revision) out.push_back(font);
        } catch (const std::exception&) {
        }
    }
    return out;
}

enum { kBold = 1, kItalic = 2 };

class Face final : public EmbeddedFace {
public:
    // earlier: the Type0 fonts that earlier drawings of the document embedded from this
    // face, which go on holding every glyph they held.
    Face(Document& doc, const FaceFacts& facts, hb_blob_t* blob, int index,
         const std::vector<QPDFObjectHandle>& earlier)
        : doc_(doc), facts_(facts), blob_(blob), face_(hb_face_create(blob, index)),
          font_(hb_font_create(face_)) {
        hb_font_set_scale(font_, static_cast<int>(facts.unitsPerEm),
                          static_cast<int>(facts.unitsPerEm));
        for (char c : facts.postScriptName)
            if (std::isalnum(static_cast<unsigned char>(c))) resource_ += c;
        if (resource_.empty()) resource_ = "F";
        for (QPDFObjectHandle type0 : earlier)
            adopt(type0);
        if (!fontFile_.isStream()) {
            fontFile_ = makeStream(doc, "");
            toUnicode_ = makeStream(doc, "");
        }
    }
    ~Face() override {
        hb_font_destroy(font_);
        hb_face_destroy(face_);
        hb_blob_destroy(blob_);
    }
    Face(const Face&) = delete;
    Face& operator=(const Face&) = delete;

    QPDFObjectHandle dictionary() override { return wrapper(facts_.family, 0).type0; }
    QPDFObjectHandle dictionaryFor(const std::string& family, int style) override {
        return wrapper(family.empty() ? facts_.family : family, style).type0;
    }
    bool owns(QPDFObjectHandle font) const {
        for (const auto& [key, w] : wrappers_)
            if (w.type0.getObjGen() == font.getObjGen()) return true;
        return false;
    }
    const std::string& resourceName() const override { return resource_; }
    double ascent() const override { return facts_.ascent; }
    double descent() const override { return facts_.descent; }
    bool covers(char32_t c) const override {
        hb_codepoint_t glyph = 0;
        return hb_font_get_nominal_glyph(font_, c, &glyph) && glyph != 0;
    }
    double nominal(uint32_t gid) const override {
        return static_cast<double>(
            std::lround(hb_font_get_glyph_h_advance(font_, gid) * 1000 / facts_.unitsPerEm));
    }

    std::vector<ShapedGlyph> shape(const std::u16string& text, size_t from, size_t to, bool rtl,
                                   const std::string& language) override {
        std::vector<ShapedGlyph> out;
        if (from >= to || to > text.size()) return out;
        hb_buffer_t* buffer = hb_buffer_create();
        hb_buffer_add_utf16(buffer, reinterpret_cast<const uint16_t*>(text.data()),
                            static_cast<int>(text.size()), static_cast<unsigned>(from),
                            static_cast<int>(to - from));
        // Marks keep clusters of their own unless they are drawn into one glyph with their
        // base, so that each glyph's /ToUnicode entry is the text it draws and no more.
        hb_buffer_set_cluster_level(buffer, HB_BUFFER_CLUSTER_LEVEL_CHARACTERS);
        hb_buffer_guess_segment_properties(buffer);
        hb_buffer_set_direction(buffer, rtl ? HB_DIRECTION_RTL : HB_DIRECTION_LTR);
        if (!language.empty())
            hb_buffer_set_language(buffer, hb_language_from_string(language.c_str(), -1));
        hb_shape(font_, buffer, nullptr, 0);
        unsigned count = 0;
        const hb_glyph_info_t* infos = hb_buffer_get_glyph_infos(buffer, &count);
        const hb_glyph_position_t* positions = hb_buffer_get_glyph_positions(buffer, &count);
        const double scale = 1000 / facts_.unitsPerEm;
        std::set<uint32_t> clusters;
        for (unsigned i = 0; i < count; ++i)
            clusters.insert(infos[i].cluster);
        std::set<uint32_t> named; // clusters whose text a glyph already stands for
        for (unsigned i = 0; i < count; ++i) {
            ShapedGlyph g;
            g.gid = infos[i].codepoint;
            g.cluster = infos[i].cluster;
            g.advance = positions[i].x_advance * scale;
            g.dx = positions[i].x_offset * scale;
            g.dy = positions[i].y_offset * scale;
            out.push_back(g);
            // In right-to-left runs the first glyph of a cluster comes last.
            const hb_glyph_info_t& info = infos[rtl ? count - 1 - i : i];
            if (!named.insert(info.cluster).second) continue;
            auto next = clusters.upper_bound(info.cluster);
            size_t end = next == clusters.end() ? to : *next;
            note(info.codepoint, text.substr(info.cluster, end - info.cluster));
        }
        hb_buffer_destroy(buffer);
        return out;
    }

    void write() {
        if (!dirty_) return;
        dirty_ = false;
        hb_subset_input_t* input = hb_subset_input_create_or_fail();
        if (!input) fail(PD_ERR_OUT_OF_MEMORY);
        hb_set_t* glyphs = hb_subset_input_glyph_set(input);
        hb_set_add(glyphs, 0);
        for (const auto& [gid, text] : used_)
            hb_set_add(glyphs, gid);
        // The glyph ids stay what they are in the face, so that text drawn before the face
        // grew still names the right glyphs; .notdef keeps its box.
        hb_subset_input_set_flags(input, HB_SUBSET_FLAGS_RETAIN_GIDS |
                                             HB_SUBSET_FLAGS_NOTDEF_OUTLINE |
                                             HB_SUBSET_FLAGS_NO_HINTING);
        hb_face_t* subset = hb_subset_or_fail(face_, input);
        hb_subset_input_destroy(input);
        if (!subset) fail(PD_ERR_INTERNAL);
        hb_blob_t* blob = hb_face_reference_blob(subset);
        unsigned length = 0;
        const char* data = hb_blob_get_data(blob, &length);
        std::string program(data ? data : "", data ? length : 0);
        hb_blob_destroy(blob);
        hb_face_destroy(subset);

        fontFile_.replaceStreamData(program, QPDFObjectHandle::newNull(),
                                    QPDFObjectHandle::newNull());
        fontFile_.getDict().replaceKey("/Length1",
                                       QPDFObjectHandle::newInteger(static_cast<long long>(length)));
        toUnicode_.replaceStreamData(toUnicodeCMap(), QPDFObjectHandle::newNull(),
                                     QPDFObjectHandle::newNull());
        auto widths = QPDFObjectHandle::newArray();
        for (auto it = used_.begin(); it != used_.end();) {
            uint32_t first = it->first;
            auto run = QPDFObjectHandle::newArray();
            uint32_t expected = first;
            for (; it != used_.end() && it->first == expected; ++it, ++expected)
                run.appendItem(QPDFObjectHandle::newInteger(
                    static_cast<long long>(nominal(it->first))));
            widths.appendItem(QPDFObjectHandle::newInteger(first));
            widths.appendItem(run);
        }
        QPDFObjectHandle name = QPDFObjectHandle::newName("/" + subsetTag() + "+" +
                                                          facts_.postScriptName);
        for (auto& [key, w] : wrappers_) {
            w.cid.replaceKey("/W", widths.shallowCopy());
            w.type0.replaceKey("/BaseFont", name);
            w.cid.replaceKey("/BaseFont", name);
            w.descriptor.replaceKey("/FontName", name);
        }
    }

    std::vector<QPDFObjectHandle> objects() const {
        std::vector<QPDFObjectHandle> out = {fontFile_, toUnicode_};
        for (const auto& [key, w] : wrappers_)
            out.insert(out.end(), {w.type0, w.cid, w.descriptor});
        return out;
    }

private:
    // The font dictionaries of the face as a font of some family and style: the face's own
    // family for appearance streams, and the family a /DA asked for where the face draws
    // in its place. They share the program and the /ToUnicode.
    struct Wrapper {
        QPDFObjectHandle type0, cid, descriptor;
    };

    void note(uint32_t gid, const std::u16string& drawn) {
        auto [it, added] = used_.emplace(gid, drawn);
        if (added) {
            dirty_ = true;
        } else if (it->second.empty() && !drawn.empty()) {
            it->second = drawn;
            dirty_ = true;
        }
    }

    void adopt(QPDFObjectHandle type0) {
        QPDFObjectHandle cid = type0.getKey("/DescendantFonts").getArrayItem(0);
        QPDFObjectHandle descriptor = cid.getKey("/FontDescriptor");
        if (!fontFile_.isStream()) {
            fontFile_ = descriptor.getKey("/FontFile2");
            toUnicode_ = type0.getKey("/ToUnicode");
        }
        for (auto& [gid, text] : glyphTexts(type0.getKey("/ToUnicode")))
            note(gid, text);
        QPDFObjectHandle widths = cid.getKey("/W");
        for (int i = 0; widths.isArray() && i + 1 < widths.getArrayNItems(); i += 2) {
            QPDFObjectHandle first = widths.getArrayItem(i), run = widths.getArrayItem(i + 1);
            if (!first.isInteger() || !run.isArray()) break;
            for (int k = 0; k < run.getArrayNItems() && k < 65536; ++k)
                note(static_cast<uint32_t>(first.getIntValue() + k), u"");
        }
        dirty_ = dirty_ || descriptor.getKey("/FontFile2").getObjGen() != fontFile_.getObjGen();
        descriptor.replaceKey("/FontFile2", fontFile_);
        type0.replaceKey("/ToUnicode", toUnicode_);
        std::string family = toUtf8(textOf(descriptor.getKey("/FontFamily")));
        QPDFObjectHandle flags = descriptor.getKey("/Flags");
        int style = 0;
        if (flags.isInteger() && (flags.getIntValue() & (1 << 18))) style |= kBold;
        if (flags.isInteger() && (flags.getIntValue() & 64)) style |= kItalic;
        wrappers_.emplace(std::make_pair(family.empty() ? facts_.family : family, style),
                          Wrapper{type0, cid, descriptor});
    }

    Wrapper& wrapper(const std::string& family, int style) {
        auto key = std::make_pair(family, style & 3);
        auto found = wrappers_.find(key);
        if (found != wrappers_.end()) return found->second;
        auto real = [](double v) { return QPDFObjectHandle::newReal(pdfNumber(v, 3)); };
        Wrapper w;
        w.descriptor = makeIndirect(doc_, QPDFObjectHandle::newDictionary());
        w.descriptor.replaceKey("/Type", QPDFObjectHandle::newName("/FontDescriptor"));
        w.descriptor.replaceKey("/Flags",
                                QPDFObjectHandle::newInteger((facts_.fixedPitch ? 5 : 4) |
                                                             ((style & kItalic) ? 64 : 0) |
                                                             ((style & kBold) ? 1 << 18 : 0)));
        if (style & kBold) w.descriptor.replaceKey("/FontWeight", QPDFObjectHandle::newInteger(700));
        w.descriptor.replaceKey("/FontBBox", QPDFObjectHandle::newArray(
                                                 {real(facts_.bbox[0]), real(facts_.bbox[1]),
                                                  real(facts_.bbox[2]), real(facts_.bbox[3])}));
        w.descriptor.replaceKey("/ItalicAngle", real(facts_.italicAngle));
        w.descriptor.replaceKey("/Ascent", real(facts_.ascent * 1000));
        w.descriptor.replaceKey("/Descent", real(-facts_.descent * 1000));
        w.descriptor.replaceKey("/CapHeight", real(facts_.capHeight * 1000));
        w.descriptor.replaceKey("/StemV", QPDFObjectHandle::newInteger(80));
        w.descriptor.replaceKey("/FontFile2", fontFile_);
        if (!family.empty()) w.descriptor.replaceKey("/FontFamily", textString(toU16(family)));
        w.cid = makeIndirect(doc_, QPDFObjectHandle::newDictionary());
        w.cid.replaceKey("/Type", QPDFObjectHandle::newName("/Font"));
        w.cid.replaceKey("/Subtype", QPDFObjectHandle::newName("/CIDFontType2"));
        w.cid.replaceKey("/CIDSystemInfo",
                         QPDFObjectHandle::parse("<< /Registry (Adobe) /Ordering (Identity) "
                                                 "/Supplement 0 >>"));
        w.cid.replaceKey("/FontDescriptor", w.descriptor);
        w.cid.replaceKey("/DW", QPDFObjectHandle::newInteger(1000));
        w.cid.replaceKey("/CIDToGIDMap", QPDFObjectHandle::newName("/Identity"));
        w.type0 = makeIndirect(doc_, QPDFObjectHandle::newDictionary());
        w.type0.replaceKey("/Type", QPDFObjectHandle::newName("/Font"));
        w.type0.replaceKey("/Subtype", QPDFObjectHandle::newName("/Type0"));
        w.type0.replaceKey("/Encoding", QPDFObjectHandle::newName("/Identity-H"));
        w.type0.replaceKey("/DescendantFonts", QPDFObjectHandle::newArray({w.cid}));
        w.type0.replaceKey("/ToUnicode", toUnicode_);
        QPDFObjectHandle name = QPDFObjectHandle::newName("/" + facts_.postScriptName);
        w.type0.replaceKey("/BaseFont", name);
        w.cid.replaceKey("/BaseFont", name);
        w.descriptor.replaceKey("/FontName", name);
        dirty_ = true; // its widths and subset name come with the next writing
        return wrappers_.emplace(key, w).first->second;
    }

    // Six capitals from the glyphs the subset holds: the same glyphs, the same tag.
    std::string subsetTag() const {
        uint64_t h = 1469598103934665603ull;
        for (const auto& [gid, text] : used_) {
            h ^= gid;
            h *= 1099511628211ull;
        }
        std::string tag;
        for (int i = 0; i < 6; ++i, h /= 26)
            tag += static_cast<char>('A' + h % 26);
        return tag;
    }

    std::string toUnicodeCMap() const {
        std::vector<std::pair<uint32_t, const std::u16string*>> entries;
        for (const auto& [gid, text] : used_)
            if (!text.empty() && gid != 0) entries.emplace_back(gid, &text);
        std::string out = "/CIDInit /ProcSet findresource begin\n12 dict begin\nbegincmap\n"
                          "/CIDSystemInfo << /Registry (Adobe) /Ordering (UCS) /Supplement 0 >> "
                          "def\n/CMapName /Adobe-Identity-UCS def\n/CMapType 2 def\n"
                          "1 begincodespacerange\n<0000> <FFFF>\nendcodespacerange\n";
        for (size_t i = 0; i < entries.size(); i += 100) {
            size_t n = std::min<size_t>(100, entries.size() - i);
            out += std::to_string(n) + " beginbfchar\n";
            for (size_t k = i; k < i + n; ++k) {
                out += "<" + hex4(entries[k].first) + "> <";
                for (char16_t unit : *entries[k].second)
                    out += hex4(unit);
                out += ">\n";
            }
            out += "endbfchar\n";
        }
        return out + "endcmap\nCMapName currentdict /CMap defineresource pop\nend\nend\n";
    }

    Document& doc_;
    FaceFacts facts_;
    hb_blob_t* blob_;
    hb_face_t* face_;
    hb_font_t* font_;
    std::string resource_;
    std::map<uint32_t, std::u16string> used_; // glyph -> the text it drew first
    bool dirty_ = false;
    QPDFObjectHandle fontFile_, toUnicode_;
    std::map<std::pair<std::string, int>, Wrapper> wrappers_; // by family and style
};

} // namespace

struct FontStore {
    std::map<std::pair<std::string, int>, std::unique_ptr<Face>> faces; // by file and index
    std::set<std::pair<std::string, int>> unreadable;
    std::set<char32_t> undrawable; // characters warned about
};

void FontStoreDeleter::operator()(FontStore* store) const {
    delete store;
}

namespace {

FontStore& storeOf(Document& doc) {
    if (!doc.fonts) doc.fonts.reset(new FontStore);
    return *doc.fonts;
}

// The face of a file in the document: loaded on first use; null when it cannot be read.
Face* faceOf(Document& doc, const SystemFont& font) {
    FontStore& store = storeOf(doc);
    auto key = std::make_pair(font.path, font.index);
    auto found = store.faces.find(key);
    if (found != store.faces.end()) return found->second.get();
    if (store.unreadable.count(key)) return nullptr;
    FaceFacts facts;
    hb_blob_t* blob = readFacts(font, facts) ? hb_blob_create_from_file_or_fail(font.path.c_str())
                                             : nullptr;
    if (!blob) {
        store.unreadable.insert(key);
        warn(u"The font file " + toU16(font.path) +
             u" cannot be read; text is drawn with other fonts.");
        return nullptr;
    }
    auto face =
        std::make_unique<Face>(doc, facts, blob, font.index, embeddedEarlier(doc, facts));
    Face* out = face.get();
    store.faces.emplace(key, std::move(face));
    return out;
}

std::u32string charactersOf(const std::u16string& text) {
    std::set<char32_t> seen;
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        if (c >= 0x20 && c != 0x7F && !(c >= 0xD800 && c <= 0xDFFF)) seen.insert(c);
    }
    return std::u32string(seen.begin(), seen.end());
}

} // namespace

std::vector<EmbeddedFace*> facesFor(Document& doc, const std::string& family,
                                    const std::string& language, const std::u16string& text,
                                    EmbeddedFace* preferred) {
    std::u32string chars = charactersOf(text);
    std::vector<EmbeddedFace*> out;
    if (chars.empty()) return out;
    if (preferred && std::all_of(chars.begin(), chars.end(),
                                 [&](char32_t c) { return preferred->covers(c); }))
        return {preferred};
    std::u32string missing = chars;
    for (const SystemFont& font : systemFontsFor(family, language, chars)) {
        Face* face = faceOf(doc, font);
        if (!face) continue;
        std::u32string still;
        for (char32_t c : missing)
            if (!face->covers(c)) still += c;
        if (still.size() == missing.size() && !out.empty()) continue;
        out.push_back(face);
        missing = still;
        if (missing.empty() || out.size() >= 8) break;
    }
    return out;
}

namespace {

// One warning for the characters of a text that no installed font draws, but those the
// document warned about before.
void warnUndrawable(Document& doc, const std::set<char32_t>& chars) {
    std::string codes;
    size_t count = 0;
    for (char32_t c : chars) {
        if (!storeOf(doc).undrawable.insert(c).second) continue;
        if (++count > 8) continue;
        char code[16];
        std::snprintf(code, sizeof code, " U+%04X", static_cast<unsigned>(c));
        codes += code;
    }
    if (count == 0) return;
    if (count > 8) codes += " and " + std::to_string(count - 8) + " more";
    warn(u"No installed font draws" + ascii16(codes) +
         (count == 1 ? u"; it is drawn as an empty box." : u"; they are drawn as empty boxes."));
}

// A character's part in the direction of text.
enum class Flow { kLeft, kRight, kNumber, kNeutral, kMark };

Flow flowOf(char32_t c) {
    hb_unicode_funcs_t* unicode = hb_unicode_funcs_get_default();
    hb_unicode_general_category_t category = hb_unicode_general_category(unicode, c);
    if (category == HB_UNICODE_GENERAL_CATEGORY_NON_SPACING_MARK ||
        category == HB_UNICODE_GENERAL_CATEGORY_ENCLOSING_MARK)
        return Flow::kMark;
    if (category == HB_UNICODE_GENERAL_CATEGORY_DECIMAL_NUMBER) return Flow::kNumber;
    hb_script_t script = hb_unicode_script(unicode, c);
    if (script == HB_SCRIPT_COMMON || script == HB_SCRIPT_INHERITED || script == HB_SCRIPT_UNKNOWN)
        return Flow::kNeutral;
    return HB_DIRECTION_IS_BACKWARD(hb_script_get_horizontal_direction(script)) ? Flow::kRight
                                                                               : Flow::kLeft;
}

struct Character {
    char32_t c;
    size_t start, end; // UTF-16 units
    Flow flow;
    uint8_t level = 0;
    uint8_t face = 0;
};

std::vector<Character> charactersIn(const std::u16string& text) {
    std::vector<Character> out;
    for (size_t i = 0; i < text.size();) {
        size_t start = i;
        char32_t c = text[i++];
        if (c >= 0xD800 && c <= 0xDBFF && i < text.size() && text[i] >= 0xDC00 &&
            text[i] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i++] - 0xDC00);
        out.push_back({c, start, i, flowOf(c)});
    }
    return out;
}

// Levels: 0 and 2 left to right, 1 right to left. The first strong character sets the
// direction of the whole; numbers go left to right inside right-to-left text; a neutral
// between two characters of one direction takes it, else that of the whole; a mark that of
// its character.
void resolveLevels(std::vector<Character>& chars) {
    bool rtl = false;
    for (const Character& ch : chars)
        if (ch.flow == Flow::kLeft || ch.flow == Flow::kRight) {
            rtl = ch.flow == Flow::kRight;
            break;
        }
    const uint8_t base = rtl ? 1 : 0;
    Flow previous = rtl ? Flow::kRight : Flow::kLeft; // the last strong direction
    for (Character& ch : chars) {
        switch (ch.flow) {
        case Flow::kLeft: ch.level = rtl ? 2 : 0; previous = Flow::kLeft; break;
        case Flow::kRight: ch.level = 1; previous = Flow::kRight; break;
        case Flow::kNumber: ch.level = (rtl || previous == Flow::kRight) ? 2 : 0; break;
        default: ch.level = base; break;
        }
    }
    // Neutrals, by the strong directions around them (numbers in right-to-left surroundings
    // count as right to left here).
    auto sideOf = [&](const Character& ch) -> int { // 1 right, 0 left, -1 neither
        if (ch.flow == Flow::kRight) return 1;
        if (ch.flow == Flow::kLeft) return 0;
        if (ch.flow == Flow::kNumber) return ch.level == 2 ? 1 : 0;
        return -1;
    };
    for (size_t i = 0; i < chars.size(); ++i) {
        if (chars[i].flow != Flow::kNeutral) continue;
        int before = static_cast<int>(base), after = static_cast<int>(base);
        for (size_t k = i; k-- > 0;)
            if (sideOf(chars[k]) >= 0) {
                before = sideOf(chars[k]);
                break;
            }
        for (size_t k = i + 1; k < chars.size(); ++k)
            if (sideOf(chars[k]) >= 0) {
                after = sideOf(chars[k]);
                break;
            }
        if (before == after) chars[i].level = before ? 1 : (rtl ? 2 : 0);
    }
    for (size_t i = 1; i < chars.size(); ++i)
        if (chars[i].flow == Flow::kMark) chars[i].level = chars[i - 1].level;
}

} // namespace

std::vector<ShapedGlyph> shapeText(Document& doc, const std::vector<EmbeddedFace*>& faces,
                                   const std::u16string& text, const std::string& language) {
    std::vector<ShapedGlyph> out;
    std::vector<Character> chars = charactersIn(text);
    std::set<char32_t> undrawable;
    auto drawable = [](char32_t c) { return c > 0x20 && c != 0x7F && c != 0xA0; };
    if (faces.empty()) {
        for (const Character& ch : chars)
            if (drawable(ch.c)) undrawable.insert(ch.c);
        warnUndrawable(doc, undrawable);
        return out;
    }
    resolveLevels(chars);
    for (size_t i = 0; i < chars.size(); ++i) {
        Character& ch = chars[i];
        if (ch.flow == Flow::kMark && i > 0 && faces[chars[i - 1].face]->covers(ch.c)) {
            ch.face = chars[i - 1].face;
            continue;
        }
        size_t k = 0;
        while (k < faces.size() && !faces[k]->covers(ch.c))
            ++k;
        if (k == faces.size()) {
            if (drawable(ch.c)) undrawable.insert(ch.c);
            k = 0;
        }
        ch.face = static_cast<uint8_t>(k);
    }
    warnUndrawable(doc, undrawable);
    for (size_t i = 0; i < chars.size();) {
        size_t j = i + 1;
        while (j < chars.size() && chars[j].face == chars[i].face && chars[j].level == chars[i].level)
            ++j;
        const bool rtl = chars[i].level % 2 == 1;
        EmbeddedFace* face = faces[chars[i].face];
        std::vector<ShapedGlyph> run =
            face->shape(text, chars[i].start, chars[j - 1].end, rtl, language);
        if (rtl) std::reverse(run.begin(), run.end());
        for (ShapedGlyph& g : run) {
            g.face = chars[i].face;
            g.level = chars[i].level;
            g.space = g.cluster < text.size() && text[g.cluster] == u' ';
            g.nominal = face->nominal(g.gid);
            out.push_back(g);
        }
        i = j;
    }
    return out;
}

EmbeddedFace* faceOfFont(Document& doc, QPDFObjectHandle font) {
    if (!font.isDictionary() || !font.isIndirect() ||
        nameOf(font.getKey("/Subtype")) != "/Type0")
        return nullptr;
    auto owner = [&]() -> Face* {
        if (!doc.fonts) return nullptr;
        for (auto& [key, face] : doc.fonts->faces)
            if (face->owns(font)) return face.get();
        return nullptr;
    };
    if (Face* face = owner()) return face;
    // A face not loaded yet: the system's face of that name adopts the document's fonts
    // made of it when it loads.
    std::string base = nameOf(font.getKey("/BaseFont"));
    if (base.size() < 2) return nullptr;
    for (const SystemFont& system : systemFontsNamed(stripSubset(base.substr(1))))
        faceOf(doc, system);
    return owner();
}

void writeEmbeddedFaces(Document& doc) {
    if (!doc.fonts) return;
    for (auto& [key, face] : doc.fonts->faces)
        face->write();
}

std::vector<QPDFObjectHandle> embeddedFaceObjects(Document& doc) {
    std::vector<QPDFObjectHandle> out;
    if (!doc.fonts) return out;
    for (auto& [key, face] : doc.fonts->faces)
        for (auto& o : face->objects())
            out.push_back(o);
    return out;
}

} // namespace pdfcore
