// End to end: build a form of every field type on a new document and on a copy of a corpus
// file with rotated pages, rename fields and move widgets, fill in values, save, and check
// the result with qpdf --check, pypdf (pypdf_fields.py), pdfcore itself and a rendering by
// pdftoppm. Also how saving fails, and saving over the file that was opened.
#include "TestSupport.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sys/resource.h>
#include <utility>
#include <vector>

using namespace pdtest;
namespace fs = std::filesystem;

namespace {

// ---- texts -----------------------------------------------------------------------

std::string utf8(const std::u16string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
            s[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string utf16(const std::string& s) {
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        auto b = static_cast<unsigned char>(s[i]);
        int extra = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
        uint32_t c = extra == 0 ? b : extra == 1 ? b & 0x1F : extra == 2 ? b & 0x0F : b & 0x07;
        for (int k = 1; k <= extra && i + k < s.size(); ++k) {
            c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
        }
        i += 1 + extra;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
    }
    return out;
}

std::string q(const std::optional<std::u16string>& v) {
    return v ? "\"" + utf8(*v) + "\"" : "(none)";
}

std::string atomText(PDAtom atom) {
    const char* s = nullptr;
    if (PDAtomGetString(atom, &s) != PD_OK || !s) return "<atom " + std::to_string(atom) + ">";
    return s;
}

// A value or NO_VALUE; any other result shows as "<error N>".
std::optional<std::u16string> valueOf(PDField f) {
    uint32_t len = 0;
    PDResult r = PDFieldGetValue(f, nullptr, 0, &len);
    if (r == PD_ERR_NO_VALUE) return std::nullopt;
    if (r != PD_OK) return u"<error " + u16(std::to_string(r)) + u">";
    std::u16string buf(len, u'\0');
    r = PDFieldGetValue(f, buf.data(), len, &len);
    if (r != PD_OK) return u"<error " + u16(std::to_string(r)) + u">";
    return buf;
}

// /AS of each widget of a field, "" when absent.
std::vector<std::string> statesOf(PDField f) {
    std::vector<std::string> out;
    uint32_t n = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(f, &n), PD_OK);
    for (uint32_t k = 0; k < n; ++k) {
        PDAnnot w = nullptr;
        EXPECT_EQ(PDFieldGetWidget(f, k, &w), PD_OK);
        PDAtom as = 0;
        PDResult r = PDAnnotGetAppearanceState(w, &as);
        out.push_back(r == PD_OK ? atomText(as) : r == PD_ERR_NO_VALUE ? "" : "<error>");
        PDHandleRelease(w);
    }
    return out;
}

PDResult setValue(PDField f, const std::u16string& v) {
    return PDFieldSetValue(f, v.data(), static_cast<uint32_t>(v.size()));
}

PDResult rename(PDDoc doc, PDField f, const std::string& name) {
    auto n = u16(name);
    return PDDocRenameField(doc, f, n.data(), static_cast<uint32_t>(n.size()));
}

PDResult insertOption(PDField f, uint32_t index, const std::u16string& display,
                      const std::u16string& exportValue) {
    return PDChoiceFieldInsertOption(f, index, display.data(),
                                     static_cast<uint32_t>(display.size()), exportValue.data(),
                                     static_cast<uint32_t>(exportValue.size()));
}

// ---- form listings ---------------------------------------------------------------------

using Options = std::vector<std::pair<std::u16string, std::u16string>>; // (export, display)

struct FieldFacts {
    std::string type; // "" when the field has no /FT
    uint32_t flags = 0;
    std::optional<std::u16string> value;
    bool compareValue = true; // false for a signature dictionary
    Options options;          // choice fields only
    std::vector<int> pages;   // page index of each widget (sorted), -1: on no page
};
using Form = std::map<std::u16string, FieldFacts>;

struct Listing {
    Form fields;
    int pages = 0;
    bool encrypted = false;
    std::string error;
};

Listing readWithPdfcore(PDDoc doc) {
    Listing out;
    uint32_t pageCount = 0;
    EXPECT_EQ(PDDocGetNumPages(doc, &pageCount), PD_OK);
    out.pages = static_cast<int>(pageCount);
    std::vector<Owned> keep;
    std::map<PDAnnot, int> pageOf;
    for (uint32_t p = 0; p < pageCount; ++p) {
        auto pg = page(doc, p);
        uint32_t n = 0;
        EXPECT_EQ(PDPageGetNumAnnots(pg.get(), &n), PD_OK);
        for (uint32_t i = 0; i < n; ++i) {
            PDAnnot a = nullptr;
            EXPECT_EQ(PDPageGetAnnot(pg.get(), i, &a), PD_OK);
            keep.emplace_back(a);
            pageOf.emplace(a, static_cast<int>(p));
        }
    }
    uint32_t count = 0;
    EXPECT_EQ(PDDocGetNumFields(doc, &count), PD_OK);
    for (uint32_t i = 0; i < count; ++i) {
        PDField raw = nullptr;
        EXPECT_EQ(PDDocGetField(doc, i, &raw), PD_OK);
        Owned f(raw);
        FieldFacts facts;
        PDAtom type = 0;
        PDResult r = PDFieldGetType(f.get(), &type);
        facts.type = r == PD_OK             ? atomText(type)
                     : r == PD_ERR_NO_VALUE ? ""
                                            : "<error " + std::to_string(r) + ">";
        EXPECT_EQ(PDFieldGetFlags(f.get(), &facts.flags), PD_OK);
        facts.value = valueOf(f.get());
        if (type == PD_ATOM_Ch) {
            uint32_t n = 0;
            EXPECT_EQ(PDChoiceFieldGetNumOptions(f.get(), &n), PD_OK);
            for (uint32_t k = 0; k < n; ++k) {
                auto ex = text([&](char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionExportValue(f.get(), k, b, len, l);
                });
                auto disp = text([&](char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionValue(f.get(), k, b, len, l);
                });
                facts.options.emplace_back(ex, disp);
            }
        }
        uint32_t widgets = 0;
        EXPECT_EQ(PDFieldGetNumWidgets(f.get(), &widgets), PD_OK);
        for (uint32_t k = 0; k < widgets; ++k) {
            PDAnnot w = nullptr;
            EXPECT_EQ(PDFieldGetWidget(f.get(), k, &w), PD_OK);
            auto it = pageOf.find(w);
            facts.pages.push_back(it == pageOf.end() ? -1 : it->second);
            PDHandleRelease(w);
        }
        std::sort(facts.pages.begin(), facts.pages.end());
        auto name = fieldName(f.get());
        EXPECT_TRUE(out.fields.emplace(name, facts).second) << "two fields " << utf8(name);
    }
    return out;
}

Listing readWithPypdf(const std::string& path) {
    Listing out;
    std::string script = (fs::path(__FILE__).parent_path() / "pypdf_fields.py").string();
    int status = -1;
    std::string json =
        run(std::string(QF_PYTHON) + " '" + script + "' '" + path + "' 2>&1", &status);
    auto j = nlohmann::json::parse(json, nullptr, false);
    if (status != 0 || j.is_discarded() || !j.contains("fields")) {
        out.error = "pypdf_fields.py exit " + std::to_string(status) + ": " + json.substr(0, 400);
        return out;
    }
    out.pages = j.at("pages").get<int>();
    out.encrypted = j.at("encrypted").get<bool>();
    for (const auto& [name, f] : j.at("fields").items()) {
        FieldFacts facts;
        facts.type = f.at("type").is_null() ? "" : f.at("type").get<std::string>();
        facts.flags = f.at("flags").get<uint32_t>();
        const auto& v = f.at("value");
        if (v.is_string()) {
            facts.value = utf16(v.get<std::string>());
            facts.compareValue = v.get<std::string>() != "<dict>";
        } else if (v.is_array() && !v.empty() && v[0].is_string()) {
            facts.value = utf16(v[0].get<std::string>());
        }
        if (facts.type == "Ch" && f.at("options").is_array()) {
            for (const auto& o : f.at("options")) {
                facts.options.emplace_back(utf16(o[0].is_string() ? o[0].get<std::string>() : ""),
                                           utf16(o[1].is_string() ? o[1].get<std::string>() : ""));
            }
        }
        for (const auto& p : f.at("pages"))
            facts.pages.push_back(p.get<int>());
        out.fields.emplace(utf16(name), facts);
    }
    return out;
}

void expectSameFields(const Form& expected, const Form& actual, const std::string& what) {
    for (const auto& [name, e] : expected) {
        auto it = actual.find(name);
        if (it == actual.end()) {
            ADD_FAILURE() << what << ": field \"" << utf8(name) << "\" is missing";
            continue;
        }
        const FieldFacts& a = it->second;
        std::string at = what + ", field \"" + utf8(name) + "\"";
        EXPECT_EQ(a.type, e.type) << at;
        EXPECT_EQ(a.flags, e.flags) << at;
        EXPECT_EQ(a.pages, e.pages) << at << ": pages of the widgets";
        if (e.compareValue && a.compareValue) {
            EXPECT_EQ(q(a.value), q(e.value)) << at;
        }
        if (e.type == "Ch") {
            std::vector<std::string> eo, ao;
            for (const auto& [x, d] : e.options)
                eo.push_back(utf8(x) + " | " + utf8(d));
            for (const auto& [x, d] : a.options)
                ao.push_back(utf8(x) + " | " + utf8(d));
            EXPECT_EQ(ao, eo) << at << ": options (export | display)";
        }
    }
    for (const auto& [name, a] : actual) {
        if (!expected.count(name)) {
            ADD_FAILURE() << what << ": unexpected field \"" << utf8(name) << "\"";
        }
    }
}

// ---- rendering -----------------------------------------------------------------------------

// A page rendered by pdftoppm at 72 dpi (one pixel per point); each pixel is the darkest of
// its channels, so that a coloured mark counts as non-white.
struct Image {
    int width = 0, height = 0;
    std::vector<uint8_t> px;
    uint8_t at(int x, int y) const { return px[static_cast<size_t>(y) * width + x]; }
};

// Reads a binary PGM (P5) or PPM (P6) with maxval 255.
Image readNetpbm(const std::string& path) {
    Image img;
    std::ifstream in(path, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t pos = 0;
    auto token = [&]() {
        for (;;) {
            while (pos < data.size() && std::isspace(static_cast<unsigned char>(data[pos])))
                ++pos;
            if (pos < data.size() && data[pos] == '#') {
                while (pos < data.size() && data[pos] != '\n')
                    ++pos;
                continue;
            }
            break;
        }
        size_t start = pos;
        while (pos < data.size() && !std::isspace(static_cast<unsigned char>(data[pos])))
            ++pos;
        return data.substr(start, pos - start);
    };
    std::string magic = token();
    if (magic != "P5" && magic != "P6") return img;
    int channels = magic == "P6" ? 3 : 1;
    int w = std::stoi(token()), h = std::stoi(token()), maxval = std::stoi(token());
    ++pos; // the single whitespace after maxval
    if (maxval != 255 || data.size() - pos < static_cast<size_t>(w) * h * channels) return img;
    img.width = w;
    img.height = h;
    img.px.resize(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < img.px.size(); ++i) {
        uint8_t v = 255;
        for (int c = 0; c < channels; ++c) {
            v = std::min<uint8_t>(v, static_cast<uint8_t>(data[pos + i * channels + c]));
        }
        img.px[i] = v;
    }
    return img;
}

Image renderPage(const std::string& pdf, uint32_t pageIndex, const std::string& prefix) {
    std::string n = std::to_string(pageIndex + 1);
    int status = -1;
    std::string out = run("pdftoppm -r 72 -f " + n + " -l " + n + " -singlefile '" + pdf + "' '" +
                              prefix + "' 2>&1",
                          &status);
    EXPECT_EQ(status, 0) << out;
    return readNetpbm(prefix + ".ppm");
}

// A rectangle in pixels: x to the right, y downwards.
struct PixelBox {
    double x0, y0, x1, y1;
};

// Where a rectangle of user space lands on the rendered page: the crop box is shown, turned
// clockwise by the page's /Rotate.
PixelBox toPixels(const PDRect& r, const PDRect& crop, int rotate) {
    double cx0 = std::min(crop.left, crop.right), cx1 = std::max(crop.left, crop.right);
    double cy0 = std::min(crop.bottom, crop.top), cy1 = std::max(crop.bottom, crop.top);
    auto map = [&](double x, double y) -> std::pair<double, double> {
        switch (rotate) {
        case 90:
            return {y - cy0, x - cx0};
        case 180:
            return {cx1 - x, y - cy0};
        case 270:
            return {cy1 - y, cx1 - x};
        default:
            return {x - cx0, cy1 - y};
        }
    };
    auto [ax, ay] = map(r.left, r.bottom);
    auto [bx, by] = map(r.right, r.top);
    return {std::min(ax, bx), std::min(ay, by), std::max(ax, bx), std::max(ay, by)};
}

// The number of whole pixels inside box darker than limit.
int darkPixels(const Image& img, const PixelBox& b, int limit) {
    int count = 0;
    for (int y = std::max(0, static_cast<int>(std::ceil(b.y0)));
         y < std::min(img.height, static_cast<int>(std::floor(b.y1))); ++y) {
        for (int x = std::max(0, static_cast<int>(std::ceil(b.x0)));
             x < std::min(img.width, static_cast<int>(std::floor(b.x1))); ++x) {
            if (img.at(x, y) < limit) ++count;
        }
    }
    return count;
}

// The darkest pixel of the band around box between inner and outer pixels away from it.
int darkestInBand(const Image& img, const PixelBox& b, double inner, double outer) {
    int darkest = 255;
    for (int y = std::max(0, static_cast<int>(b.y0 - outer));
         y < std::min(img.height, static_cast<int>(b.y1 + outer) + 1); ++y) {
        for (int x = std::max(0, static_cast<int>(b.x0 - outer));
             x < std::min(img.width, static_cast<int>(b.x1 + outer) + 1); ++x) {
            bool inInner = x + 1 > b.x0 - inner && x < b.x1 + inner && y + 1 > b.y0 - inner &&
                           y < b.y1 + inner;
            if (!inInner) darkest = std::min<int>(darkest, img.at(x, y));
        }
    }
    return darkest;
}

// ---- the scenario --------------------------------------------------------------------------

struct Placed {
    std::string field;
    uint32_t page;
    PDRect rect;
};

struct Built {
    std::vector<Placed> widgets; // every widget made, where it was put
    Form expected;               // the fields made, as they must read back
    std::u16string signatureName;
};

// An area of every page that the scenario leaves empty (and the corpus file too).
const PDRect kBlank = rect(420, 60, 580, 280);

// Builds the form on pages a, b and c of doc: fields of every type, hierarchical names,
// renames (also to another parent), a widget moved from one text field to another, values.
void buildForm(PDDoc doc, uint32_t a, uint32_t b, uint32_t c, Built& out) {
    auto pa = page(doc, a), pb = page(doc, b), pc = page(doc, c);
    ASSERT_TRUE(pa && pb && pc);
    auto place = [&](PDField f, PDPage pg, uint32_t index, PDRect r, const std::string& name) {
        out.widgets.push_back({name, index, r});
        return addWidget(doc, f, pg, r);
    };
    const int ia = static_cast<int>(a), ib = static_cast<int>(b), ic = static_cast<int>(c);

    // Text fields under "person" and "person.address".
    auto name = createField(doc, "person.name", PD_ATOM_Tx);
    auto nameW = place(name.get(), pa.get(), a, rect(60, 340, 300, 364), "person.name");
    auto city = createField(doc, "person.address.city", PD_ATOM_Tx);
    place(city.get(), pb.get(), b, rect(60, 340, 300, 364), "person.address.city");
    auto alias = createField(doc, "person.alias", PD_ATOM_Tx);
    auto aliasW = place(alias.get(), pa.get(), a, rect(60, 200, 300, 224), "person.name");
    auto nick = createField(doc, "person.nick", PD_ATOM_Tx);
    place(nick.get(), pc.get(), c, rect(60, 300, 300, 324), "person.nickname");
    auto note = createField(doc, "misc.note", PD_ATOM_Tx);
    place(note.get(), pb.get(), b, rect(330, 340, 580, 364), "person.address.street");
    auto other = createField(doc, "misc.other", PD_ATOM_Tx);
    place(other.get(), pc.get(), c, rect(330, 340, 580, 364), "misc.other");

    // Buttons: a check box, a radio group with a widget on two pages, a push button.
    auto agree = createField(doc, "agree", PD_ATOM_Btn);
    auto agreeW = place(agree.get(), pa.get(), a, rect(60, 300, 78, 318), "agree");
    const uint32_t radioFlags = PD_FIELD_RADIO | PD_FIELD_NO_TOGGLE_TO_OFF;
    auto color = createField(doc, "color", PD_ATOM_Btn, radioFlags);
    auto red = place(color.get(), pa.get(), a, rect(100, 300, 118, 318), "color");
    auto blue = place(color.get(), pb.get(), b, rect(100, 300, 118, 318), "color");
    for (const auto& [w, state] : {std::pair{red.get(), u"red"}, std::pair{blue.get(), u"blue"}}) {
        std::u16string s = state;
        EXPECT_EQ(PDButtonWidgetAnnotSetChoice(w, s.data(), static_cast<uint32_t>(s.size())),
                  PD_OK);
    }
    auto submit = createField(doc, "submit", PD_ATOM_Btn, PD_FIELD_PUSHBUTTON);
    auto submitW = place(submit.get(), pc.get(), c, rect(60, 340, 160, 370), "submit");
    std::u16string caption = u"Send";
    EXPECT_EQ(PDButtonWidgetAnnotSetCaption(submitW.get(), caption.data(), 4), PD_OK);

    // Choices: a combo box and a list box, options inserted out of order.
    auto country = createField(doc, "country", PD_ATOM_Ch, PD_FIELD_COMBO);
    EXPECT_EQ(insertOption(country.get(), 0, u"Germany", u"DE"), PD_OK);
    EXPECT_EQ(insertOption(country.get(), 1, u"France", u"FR"), PD_OK);
    EXPECT_EQ(insertOption(country.get(), 2, u"Japan", u""), PD_OK);
    EXPECT_EQ(insertOption(country.get(), 0, u"Austria", u"AT"), PD_OK);
    EXPECT_EQ(insertOption(country.get(), 5, u"Peru", u"PE"), PD_ERR_RANGE);
    auto countryW = place(country.get(), pa.get(), a, rect(60, 250, 260, 274), "country");
    auto languages = createField(doc, "languages", PD_ATOM_Ch);
    EXPECT_EQ(insertOption(languages.get(), 0, u"English", u""), PD_OK);
    EXPECT_EQ(insertOption(languages.get(), 1, u"Fran\u00e7ais", u"Fran\u00e7ais"), PD_OK);
    EXPECT_EQ(insertOption(languages.get(), 2, u"\u65e5\u672c\u8a9e", u""), PD_OK);
    auto languagesW = place(languages.get(), pb.get(), b, rect(60, 150, 260, 230), "languages");

    // A signature field (named by pdfcore).
    PDField rawSig = nullptr;
    ASSERT_EQ(PDCreateSignField(doc, 0, &rawSig), PD_OK);
    Owned sig(rawSig);
    out.signatureName = fieldName(sig.get());
    EXPECT_FALSE(out.signatureName.empty());
    place(sig.get(), pc.get(), c, rect(60, 200, 260, 260), utf8(out.signatureName));

    // Renames: to another parent, within the parent; a taken name is refused.
    EXPECT_EQ(rename(doc, note.get(), "person.address.street"), PD_OK);
    EXPECT_EQ(fieldName(note.get()), u"person.address.street");
    EXPECT_EQ(findField(doc, "person.address.street").get(), note.get());
    EXPECT_EQ(findField(doc, "misc.note").get(), nullptr);
    EXPECT_EQ(rename(doc, nick.get(), "person.nickname"), PD_OK);
    EXPECT_EQ(rename(doc, nick.get(), "person.name"), PD_ERR_NAME_IN_USE);
    EXPECT_EQ(fieldName(nick.get()), u"person.nickname");

    // Values. The name is set before the widget move: the moved widget shows it too.
    EXPECT_EQ(setValue(name.get(), u"Ada Lovelace"), PD_OK);
    EXPECT_EQ(setValue(city.get(), u"Z\u00fcrich"), PD_OK);
    EXPECT_EQ(setValue(note.get(), u"\u4e38\u306e\u5185 1-1"), PD_OK);
    EXPECT_EQ(setValue(other.get(), u"other"), PD_OK);
    EXPECT_EQ(setValue(agree.get(), u"Yes"), PD_OK);
    EXPECT_EQ(setValue(color.get(), u"blue"), PD_OK);
    EXPECT_EQ(PDChoiceWidgetAnnotSetSelection(countryW.get(), 2), PD_OK);
    EXPECT_EQ(setValue(languages.get(), u"Fran\u00e7ais"), PD_OK);

    // Move the widget of person.alias to person.name (a merged field: split on the way).
    EXPECT_EQ(PDFieldRemoveWidget(alias.get(), aliasW.get()), PD_OK);
    EXPECT_EQ(PDFieldAppendWidget(name.get(), aliasW.get()), PD_OK);
    PDField parent = nullptr;
    EXPECT_EQ(PDWidgetAnnotGetParent(aliasW.get(), &parent), PD_OK);
    EXPECT_EQ(parent, name.get());
    PDHandleRelease(parent);
    EXPECT_EQ(PDWidgetAnnotGetParent(nameW.get(), &parent), PD_OK);
    EXPECT_EQ(parent, name.get());
    PDHandleRelease(parent);

    // What the calls above promise, before anything is saved.
    uint32_t selection = 0;
    EXPECT_EQ(PDChoiceWidgetAnnotGetSelection(countryW.get(), &selection), PD_OK);
    EXPECT_EQ(selection, 2u);
    EXPECT_EQ(PDChoiceWidgetAnnotGetSelection(languagesW.get(), &selection), PD_OK);
    EXPECT_EQ(selection, 1u);
    EXPECT_EQ(statesOf(agree.get()), (std::vector<std::string>{"Yes"}));
    EXPECT_EQ(statesOf(color.get()), (std::vector<std::string>{"Off", "blue"}));

    auto& e = out.expected;
    e[u"person.name"] = {"Tx", 0, u"Ada Lovelace", true, {}, {ia, ia}};
    e[u"person.alias"] = {"Tx", 0, std::nullopt, true, {}, {}};
    e[u"person.nickname"] = {"Tx", 0, std::nullopt, true, {}, {ic}};
    e[u"person.address.city"] = {"Tx", 0, u"Z\u00fcrich", true, {}, {ib}};
    e[u"person.address.street"] = {"Tx", 0, u"\u4e38\u306e\u5185 1-1", true, {}, {ib}};
    e[u"misc.other"] = {"Tx", 0, u"other", true, {}, {ic}};
    e[u"agree"] = {"Btn", 0, u"Yes", true, {}, {ia}};
    e[u"color"] = {"Btn", radioFlags, u"blue", true, {}, {std::min(ia, ib), std::max(ia, ib)}};
    e[u"submit"] = {"Btn", PD_FIELD_PUSHBUTTON, std::nullopt, true, {}, {ic}};
    e[u"country"] = {
        "Ch",
        PD_FIELD_COMBO,
        u"FR",
        true,
        {{u"AT", u"Austria"}, {u"DE", u"Germany"}, {u"FR", u"France"}, {u"Japan", u"Japan"}},
        {ia}};
    e[u"languages"] = {"Ch",
                       0,
                       u"Fran\u00e7ais",
                       true,
                       {{u"English", u"English"},
                        {u"Fran\u00e7ais", u"Fran\u00e7ais"},
                        {u"\u65e5\u672c\u8a9e", u"\u65e5\u672c\u8a9e"}},
                       {ib}};
    e[out.signatureName] = {"Sig", 0, std::nullopt, true, {}, {ic}};
}

// The saved file, checked three ways: qpdf --check, pypdf, and pdfcore reopening it.
void checkSaved(const std::string& path, const Form& expected, int pages) {
    EXPECT_EQ(qpdfCheck(path), 0) << run("qpdf --check '" + path + "' 2>&1");

    Listing pypdf = readWithPypdf(path);
    ASSERT_EQ(pypdf.error, "");
    EXPECT_EQ(pypdf.pages, pages);
    expectSameFields(expected, pypdf.fields, "pypdf reading the saved file");

    auto doc = openDoc(path);
    ASSERT_TRUE(doc);
    expectSameFields(expected, readWithPdfcore(doc.get()).fields, "pdfcore reopening it");
    auto agree = findField(doc.get(), "agree");
    auto color = findField(doc.get(), "color");
    ASSERT_TRUE(agree && color);
    EXPECT_EQ(statesOf(agree.get()), (std::vector<std::string>{"Yes"}));
    EXPECT_EQ(statesOf(color.get()), (std::vector<std::string>{"Off", "blue"}));
}

// Every widget made shows something inside its rectangle and nothing just outside it; the
// blank area of each page used stays white.
void checkRendering(const std::string& pdf, PDDoc doc, const std::vector<Placed>& widgets,
                    const std::string& scratchPrefix) {
    std::map<uint32_t, Image> images;
    std::map<uint32_t, std::pair<PDRect, int32_t>> geometry;
    for (const auto& w : widgets) {
        if (images.count(w.page)) continue;
        auto pg = page(doc, w.page);
        PDRect crop{};
        int32_t rotate = 0;
        ASSERT_EQ(PDPageGetBox(pg.get(), PD_BOX_CROP, &crop), PD_OK);
        ASSERT_EQ(PDPageGetRotate(pg.get(), &rotate), PD_OK);
        geometry[w.page] = {crop, rotate};
        images[w.page] = renderPage(pdf, w.page, scratchPrefix + std::to_string(w.page));
        const Image& img = images[w.page];
        ASSERT_GT(img.width, 0) << "page " << w.page << " did not render";
        double cw = std::fabs(crop.right - crop.left), ch = std::fabs(crop.top - crop.bottom);
        bool turned = rotate == 90 || rotate == 270;
        EXPECT_NEAR(img.width, turned ? ch : cw, 1.0) << "page " << w.page;
        EXPECT_NEAR(img.height, turned ? cw : ch, 1.0) << "page " << w.page;
        PixelBox blank = toPixels(kBlank, crop, rotate);
        EXPECT_EQ(darkPixels(img, blank, 250), 0)
            << "page " << w.page << " (rotated " << rotate << "): the blank area is not white";
    }
    for (const auto& w : widgets) {
        const Image& img = images[w.page];
        auto [crop, rotate] = geometry[w.page];
        PixelBox box = toPixels(w.rect, crop, rotate);
        std::string at = "widget of \"" + w.field + "\" on page " + std::to_string(w.page) +
                         " (rotated " + std::to_string(rotate) + ") at pixels [" +
                         std::to_string(box.x0) + ", " + std::to_string(box.y0) + ", " +
                         std::to_string(box.x1) + ", " + std::to_string(box.y1) + "]";
        EXPECT_GE(darkPixels(img, box, 200), 20) << at << ": nothing drawn inside";
        EXPECT_GE(darkestInBand(img, box, 3, 6), 230) << at << ": marks just outside";
    }
}

class RoundTrip : public ::testing::Test {
  protected:
    ScratchDir dir;
};

TEST_F(RoundTrip, NewDocumentWithEveryFieldType) {
    auto doc = createDoc(3);
    ASSERT_TRUE(doc);
    Built built;
    buildForm(doc.get(), 0, 1, 2, built);
    ASSERT_FALSE(HasFatalFailure());
    // pdfcore itself reports what was made.
    Listing before = readWithPdfcore(doc.get());
    expectSameFields(built.expected, before.fields, "pdfcore before saving");

    const std::string out = dir.file("new.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    // The document stays open and unchanged.
    expectSameFields(before.fields, readWithPdfcore(doc.get()).fields, "pdfcore after saving");
    checkSaved(out, built.expected, 3);
}

TEST_F(RoundTrip, CorpusCopyWithRotatedPages) {
    // Pages 1, 4 and 7 of this file have /Rotate 90, 180 and 270.
    const std::string copy = dir.file("rotated.pdf");
    fs::copy_file(corpus("qpdf-rotated-pages-multiline-text.pdf"), copy);
    Listing original = readWithPypdf(copy);
    ASSERT_EQ(original.error, "");
    auto doc = openDoc(copy);
    ASSERT_TRUE(doc);
    for (auto [index, degrees] : {std::pair{1u, 90}, std::pair{4u, 180}, std::pair{7u, 270}}) {
        int32_t rotate = -1;
        EXPECT_EQ(PDPageGetRotate(page(doc.get(), index).get(), &rotate), PD_OK);
        ASSERT_EQ(rotate, degrees) << "page " << index;
    }
    Built built;
    buildForm(doc.get(), 1, 4, 7, built);
    ASSERT_FALSE(HasFatalFailure());
    Form expected = original.fields; // the file's own fields stay as they were
    for (const auto& [name, f] : built.expected) {
        ASSERT_TRUE(expected.emplace(name, f).second) << utf8(name);
    }
    expectSameFields(expected, readWithPdfcore(doc.get()).fields, "pdfcore before saving");

    const std::string out = dir.file("rotated-saved.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
    checkSaved(out, expected, original.pages);
    // The corpus copy itself was not touched by the save elsewhere.
    EXPECT_EQ(run("cmp '" + copy + "' '" + corpus("qpdf-rotated-pages-multiline-text.pdf") +
                  "' && echo same"),
              "same\n");
}

TEST_F(RoundTrip, RenderedWidgetsSitInTheirRectanglesOnPlainAndRotatedPages) {
    struct Case {
        std::string source; // "" for a new document
        uint32_t a, b, c;
    };
    for (const Case& k :
         {Case{"", 0, 1, 2}, Case{"qpdf-rotated-pages-multiline-text.pdf", 1, 4, 7}}) {
        SCOPED_TRACE(k.source.empty() ? "new document" : k.source);
        Owned doc;
        if (k.source.empty()) {
            doc = createDoc(3);
        } else {
            const std::string copy = dir.file("source.pdf");
            fs::copy_file(corpus(k.source), copy);
            doc = openDoc(copy);
        }
        ASSERT_TRUE(doc);
        Built built;
        buildForm(doc.get(), k.a, k.b, k.c, built);
        ASSERT_FALSE(HasFatalFailure());
        const std::string out = dir.file(k.source.empty() ? "render-new.pdf" : "render-rot.pdf");
        ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
        auto saved = openDoc(out);
        ASSERT_TRUE(saved);
        checkRendering(out, saved.get(), built.widgets, dir.file(k.source.empty() ? "n" : "r"));
    }
}

// Radio on-states and values outside ASCII (names like /gr#c3#bcn in the file) read back as
// the texts they were set to.
TEST_F(RoundTrip, NonAsciiButtonStatesSurviveSaving) {
    auto doc = createDoc(1);
    auto color = createField(doc.get(), "farbe", PD_ATOM_Btn, PD_FIELD_RADIO);
    auto pg = page(doc.get(), 0);
    auto green = addWidget(doc.get(), color.get(), pg.get(), rect(60, 700, 78, 718));
    auto blue = addWidget(doc.get(), color.get(), pg.get(), rect(100, 700, 118, 718));
    const std::u16string greenState = u"gr\u00fcn", blueState = u"\u9752";
    ASSERT_EQ(PDButtonWidgetAnnotSetChoice(green.get(), greenState.data(), 4), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotSetChoice(blue.get(), blueState.data(), 1), PD_OK);
    ASSERT_EQ(setValue(color.get(), blueState), PD_OK);
    EXPECT_EQ(q(valueOf(color.get())), q(blueState));
    const std::string out = dir.file("states.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);

    Listing pypdf = readWithPypdf(out);
    ASSERT_EQ(pypdf.error, "");
    ASSERT_TRUE(pypdf.fields.count(u"farbe"));
    EXPECT_EQ(q(pypdf.fields[u"farbe"].value), q(blueState)) << "pypdf";

    auto reopened = openDoc(out);
    auto again = findField(reopened.get(), "farbe");
    ASSERT_TRUE(again);
    EXPECT_EQ(q(valueOf(again.get())), q(blueState)) << "pdfcore reopening";
    std::vector<std::u16string> choices;
    for (uint32_t k = 0; k < 2; ++k) {
        PDAnnot w = nullptr;
        ASSERT_EQ(PDFieldGetWidget(again.get(), k, &w), PD_OK);
        Owned widget(w);
        choices.push_back(text([&](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetChoice(w, b, n, l);
        }));
    }
    EXPECT_EQ(utf8(choices[0]), utf8(greenState));
    EXPECT_EQ(utf8(choices[1]), utf8(blueState));
}

// ---- saving: failures and overwriting the source ---------------------------------------------

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::set<std::string> entries(const std::string& folder) {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(folder))
        out.insert(e.path().filename().string());
    return out;
}

// While alive, files this process writes may not grow past `bytes` (a limit that holds for
// root too); writing past it fails with EFBIG instead of raising SIGXFSZ.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &old_);
        oldHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = old_;
        limit.rlim_cur = bytes;
        ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, oldHandler_);
    }
    bool ok() const { return ok_; }

  private:
    rlimit old_{};
    void (*oldHandler_)(int) = nullptr;
    bool ok_ = false;
};

TEST_F(RoundTrip, FailedSavesReportIoAndLeaveTheTargetAsItWas) {
    const std::string folder = dir.file("out");
    fs::create_directory(folder);
    auto doc = openDoc(corpus("qpdf-rotated-pages-multiline-text.pdf"));
    ASSERT_TRUE(doc);
    auto field = createField(doc.get(), "added", PD_ATOM_Tx);
    addWidget(doc.get(), field.get(), page(doc.get(), 0).get(), rect(400, 100, 560, 124));

    // A folder that does not exist, and a "folder" that is a regular file.
    const std::string plain = folder + "/plain.txt";
    std::ofstream(plain) << "not a folder";
    EXPECT_EQ(PDDocSave(doc.get(), (folder + "/missing/form.pdf").c_str()), PD_ERR_IO);
    EXPECT_EQ(PDDocSave(doc.get(), (plain + "/form.pdf").c_str()), PD_ERR_IO);
    EXPECT_EQ(slurp(plain), "not a folder");
    // A target that is a folder (with a file in it).
    const std::string sub = folder + "/sub";
    fs::create_directory(sub);
    std::ofstream(sub + "/keep.txt") << "keep";
    EXPECT_EQ(PDDocSave(doc.get(), sub.c_str()), PD_ERR_IO);
    EXPECT_TRUE(fs::is_directory(sub));
    EXPECT_EQ(slurp(sub + "/keep.txt"), "keep");

    // An existing target, and a write that fails half way (the file size limit).
    const std::string target = folder + "/form.pdf";
    ASSERT_EQ(PDDocSave(doc.get(), target.c_str()), PD_OK);
    const std::string before = slurp(target);
    ASSERT_GT(before.size(), 16384u);
    EXPECT_EQ(setValue(field.get(), u"changed"), PD_OK);
    {
        FileSizeLimit limit(4096);
        ASSERT_TRUE(limit.ok());
        EXPECT_EQ(PDDocSave(doc.get(), target.c_str()), PD_ERR_IO)
            << "writing failed (file size limit of 4096 bytes), yet the save reports success";
    }
    const std::string after = slurp(target);
    EXPECT_TRUE(after == before) << "a failed save replaced the existing target (" << before.size()
                                 << " bytes) with " << after.size() << " bytes";
    // No temporary file is left behind by the failures.
    EXPECT_EQ(entries(folder), (std::set<std::string>{"plain.txt", "sub", "form.pdf"}));
    // And the document can still be saved.
    ASSERT_EQ(PDDocSave(doc.get(), target.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(target), 0);
}

TEST_F(RoundTrip, SavingOverTheOpenedFile) {
    const std::string path = dir.file("form.pdf");
    fs::copy_file(corpus("qpdf-field-types.pdf"), path);
    Listing original = readWithPypdf(path);
    ASSERT_EQ(original.error, "");
    auto doc = openDoc(path);
    ASSERT_TRUE(doc);
    auto textField = findField(doc.get(), "text");
    ASSERT_TRUE(textField);

    EXPECT_EQ(setValue(textField.get(), u"first"), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    // The source is gone now, twice over: replaced by the save, then by junk. The document
    // was read whole at open, so it still saves completely (content streams included).
    std::ofstream(path, std::ios::trunc) << "junk";
    EXPECT_EQ(setValue(textField.get(), u"second"), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(path), 0) << run("qpdf --check '" + path + "' 2>&1");

    Form expected = original.fields;
    expected[u"text"].value = u"second";
    Listing pypdf = readWithPypdf(path);
    ASSERT_EQ(pypdf.error, "");
    expectSameFields(expected, pypdf.fields, "pypdf after saving over the source");
    auto reopened = openDoc(path);
    ASSERT_TRUE(reopened);
    expectSameFields(expected, readWithPdfcore(reopened.get()).fields, "pdfcore reopening");
    // The page still draws what it drew (its content stream came through).
    Image img = renderPage(path, 0, dir.file("page"));
    EXPECT_GT(darkPixels(img,
                         {0, 0, static_cast<double>(img.width), static_cast<double>(img.height)},
                         128),
              1000);
}

} // namespace
