// The corpus of real form files: every file opens (or fails with a result code) and can be
// walked completely; what pdfcore reads matches an independent reader (pypdf, through
// pypdf_fields.py); handles are the same however an object is reached; encrypted input is
// saved unencrypted.
#include "TestSupport.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
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

// A text getter's result and text (empty unless PD_OK).
struct Got {
    PDResult result;
    std::u16string text;
};
template <typename Getter> Got get(Getter g) {
    uint32_t len = 0;
    PDResult r = g(nullptr, 0, &len);
    if (r != PD_OK) return {r, {}};
    std::u16string buf(len, u'\0');
    r = g(buf.data(), len, &len);
    buf.resize(r == PD_OK ? len : 0);
    return {r, buf};
}

std::string atomText(PDAtom atom) {
    const char* s = nullptr;
    if (PDAtomGetString(atom, &s) != PD_OK || !s) return "<atom " + std::to_string(atom) + ">";
    return s;
}

std::string q(const std::optional<std::u16string>& v) {
    return v ? "\"" + utf8(*v) + "\"" : "(none)";
}

// ---- form listings -----------------------------------------------------------------

using Options = std::vector<std::pair<std::u16string, std::u16string>>; // (export, display)

struct FieldFacts {
    std::string type; // "" when the field has no /FT
    uint32_t flags = 0;
    std::optional<std::u16string> value; // nullopt: no value
    bool compareValue = true;            // false for values pypdf cannot give as text
    Options options;                     // choice fields only
    std::vector<int> pages;              // page index of each widget (sorted), -1: none
    bool merged = false;                 // pypdf only: the field is its one widget
    bool emptyArray = false;             // pypdf only: /V is an empty array
};

struct Listing {
    std::map<std::u16string, FieldFacts> fields;
    std::vector<std::u16string> order;
    std::vector<std::u16string> duplicates; // names borne by more than one terminal field
    int pages = 0;
    bool encrypted = false;
    std::string error;
};

// The terminal fields as pdfcore reports them.
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
        auto name = get([&](char16_t* b, uint32_t n, uint32_t* l) {
            return PDFieldGetFullName(f.get(), b, n, l);
        });
        EXPECT_EQ(name.result, PD_OK) << "field " << i;
        FieldFacts facts;
        PDAtom type = 0;
        PDResult r = PDFieldGetType(f.get(), &type);
        facts.type = r == PD_OK             ? atomText(type)
                     : r == PD_ERR_NO_VALUE ? ""
                                            : "<error " + std::to_string(r) + ">";
        EXPECT_EQ(PDFieldGetFlags(f.get(), &facts.flags), PD_OK);
        auto value = get([&](char16_t* b, uint32_t n, uint32_t* l) {
            return PDFieldGetValue(f.get(), b, n, l);
        });
        if (value.result == PD_OK) {
            facts.value = value.text;
        } else if (value.result != PD_ERR_NO_VALUE) {
            facts.value = u"<error " + u16(std::to_string(value.result)) + u">";
        }
        if (type == PD_ATOM_Ch) {
            uint32_t n = 0;
            EXPECT_EQ(PDChoiceFieldGetNumOptions(f.get(), &n), PD_OK);
            for (uint32_t k = 0; k < n; ++k) {
                auto ex = get([&](char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionExportValue(f.get(), k, b, len, l);
                });
                auto disp = get([&](char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionValue(f.get(), k, b, len, l);
                });
                EXPECT_EQ(ex.result, PD_OK);
                EXPECT_EQ(disp.result, PD_OK);
                facts.options.emplace_back(ex.text, disp.text);
            }
        }
        uint32_t widgets = 0;
        EXPECT_EQ(PDFieldGetNumWidgets(f.get(), &widgets), PD_OK);
        for (uint32_t k = 0; k < widgets; ++k) {
            PDAnnot w = nullptr;
            EXPECT_EQ(PDFieldGetWidget(f.get(), k, &w), PD_OK);
            auto it = pageOf.find(w); // the same handle as the page's annotation
            facts.pages.push_back(it == pageOf.end() ? -1 : it->second);
            PDHandleRelease(w);
        }
        std::sort(facts.pages.begin(), facts.pages.end());
        out.order.push_back(name.text);
        if (!out.fields.emplace(name.text, facts).second) out.duplicates.push_back(name.text);
    }
    return out;
}

std::string scriptPath() {
    return (fs::path(__FILE__).parent_path() / "pypdf_fields.py").string();
}

// The terminal fields as pypdf reads them.
Listing readWithPypdf(const std::string& path) {
    Listing out;
    int status = -1;
    std::string json =
        run(std::string(QF_PYTHON) + " '" + scriptPath() + "' '" + path + "' 2>&1", &status);
    if (status != 0) {
        out.error = "pypdf_fields.py exit " + std::to_string(status) + ": " + json;
        return out;
    }
    auto j = nlohmann::json::parse(json, nullptr, false);
    if (j.is_discarded() || !j.contains("fields")) {
        out.error = "not JSON: " + json.substr(0, 300);
        return out;
    }
    out.pages = j.at("pages").get<int>();
    out.encrypted = j.at("encrypted").get<bool>();
    for (const auto& n : j.at("order"))
        out.order.push_back(utf16(n.get<std::string>()));
    for (const auto& [name, f] : j.at("fields").items()) {
        FieldFacts facts;
        facts.type = f.at("type").is_null() ? "" : f.at("type").get<std::string>();
        facts.flags = f.at("flags").get<uint32_t>();
        const auto& v = f.at("value");
        if (v.is_string()) {
            facts.value = utf16(v.get<std::string>());
            facts.compareValue = v.get<std::string>() != "<dict>"; // a signature
        } else if (v.is_array()) {
            if (!v.empty() && v[0].is_string()) facts.value = utf16(v[0].get<std::string>());
            facts.emptyArray = v.empty();
        }
        if (facts.type == "Ch" && f.at("options").is_array()) {
            for (const auto& o : f.at("options")) {
                facts.options.emplace_back(utf16(o[0].is_string() ? o[0].get<std::string>() : ""),
                                           utf16(o[1].is_string() ? o[1].get<std::string>() : ""));
            }
        }
        for (const auto& p : f.at("pages"))
            facts.pages.push_back(p.get<int>());
        facts.merged = f.at("merged").get<bool>();
        out.fields.emplace(utf16(name), facts);
    }
    return out;
}

// Field-by-field comparison, so that a difference names the field.
void expectSameFields(const Listing& expected, const Listing& actual, const std::string& what) {
    for (const auto& [name, e] : expected.fields) {
        auto it = actual.fields.find(name);
        if (it == actual.fields.end()) {
            ADD_FAILURE() << what << ": field \"" << utf8(name) << "\" is missing";
            continue;
        }
        const FieldFacts& a = it->second;
        std::string at = what + ", field \"" + utf8(name) + "\"";
        EXPECT_EQ(a.type, e.type) << at;
        EXPECT_EQ(a.flags, e.flags) << at;
        EXPECT_EQ(a.pages, e.pages) << at << ": pages of the widgets";
        if (e.compareValue && a.compareValue) {
            EXPECT_EQ(q(a.value), q(e.value))
                << at << (e.emptyArray ? ": /V is an empty array, nothing is selected" : "");
        }
        if (e.type == "Ch") {
            EXPECT_EQ(a.options.size(), e.options.size()) << at << ": options";
            for (size_t k = 0; k < std::min(a.options.size(), e.options.size()); ++k) {
                EXPECT_EQ(utf8(a.options[k].first), utf8(e.options[k].first))
                    << at << ": export value of option " << k;
                EXPECT_EQ(utf8(a.options[k].second), utf8(e.options[k].second))
                    << at << ": display text of option " << k;
            }
        }
    }
    for (const auto& [name, a] : actual.fields) {
        if (!expected.fields.count(name)) {
            ADD_FAILURE() << what << ": unexpected field \"" << utf8(name) << "\"";
        }
    }
}

// ---- the corpus --------------------------------------------------------------------

const char* const kUnrecoverable = "pdfjs-damaged-unrecoverable-fuzzed.pdf";

// Files whose form pypdf and qpdf read alike (MANIFEST.md notes no disagreement): pdfcore
// must read them the same way too.
const char* const kWellFormed[] = {
    "pdfbox-basic-fields-all-types.pdf",
    "pdfbox-comb-fields.pdf",
    "pdfbox-da-levels-multi-widget-text.pdf",
    "pdfbox-hierarchical-merge-form.pdf",
    "pdfbox-rotated-page-widget-rotation.pdf",
    "pdfcpu-cjk-chinese-filled-form.pdf",
    "pdfcpu-cjk-japanese-form.pdf",
    "pdfium-hide-action-check-radio.pdf",
    "pdfium-listboxes-multiselect.pdf",
    "pdfium-text-password-maxlen-readonly.pdf",
    "pdfium-xfa-only.pdf",
    "pdfjs-calc-order-js-field-refs.pdf",
    "pdfjs-comb-fields-cropbox.pdf",
    "pdfjs-cropbox-hidden-widgets.pdf",
    "pdfjs-irs-f1040-prefilled.pdf",
    "pdfjs-js-buttons-radio-check.pdf",
    "pdfjs-multi-widget-fields.pdf",
    "pdfjs-resetform-buttons.pdf",
    "pdfjs-textfields-comb-multiline-maxlen.pdf",
    "pdflib-fancy-fields.pdf",
    "pdflib-hybrid-xfa-fields.pdf",
    "pdflib-sample-form-js-named-actions.pdf",
    "pikepdf-dd0293-hybrid-xfa.pdf",
    "pyhanko-textfield-group-unsigned-sig.pdf",
    "pyhanko-two-fields-signed-twice.pdf",
    "pypdf-latex-submitform-button.pdf",
    "pypdf-libreoffice-form.pdf",
    "qpdf-digitally-signed.pdf",
    "qpdf-field-types.pdf",
    "qpdf-rotated-copied-annotations.pdf",
    "qpdf-rotated-pages-multiline-text.pdf",
};

std::vector<std::string> corpusFiles() {
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(QF_CORPUS_DIR, ec)) {
        if (e.path().extension() == ".pdf") files.push_back(e.path().filename().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string testName(const ::testing::TestParamInfo<std::string>& info) {
    std::string s = info.param.substr(0, info.param.size() - 4);
    for (char& c : s) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return s;
}

TEST(Corpus, HoldsTheFilesTheTestsNeed) {
    auto files = corpusFiles();
    EXPECT_EQ(files.size(), 40u) << "MANIFEST.md lists 40 files in " << QF_CORPUS_DIR;
    std::set<std::string> have(files.begin(), files.end());
    for (const char* f : kWellFormed)
        EXPECT_TRUE(have.count(f)) << f;
    EXPECT_TRUE(have.count(kUnrecoverable));
    EXPECT_TRUE(have.count("jspdf-encrypted-acroform.pdf"));
}

// ---- every file: open and walk -------------------------------------------------------

// Checks every result of a walk: no call may fail inside pdfcore, and none may answer as if
// the (valid) arguments were misused.
class Walker {
  public:
    explicit Walker(std::string file) : file_(std::move(file)) {}

    PDResult sane(PDResult r, const char* call) {
        static const std::set<PDResult> misuse = {PD_ERR_INTERNAL,     PD_ERR_MISSING_OBJECT,
                                                  PD_ERR_BAD_ARGUMENT, PD_ERR_WRONG_HANDLE,
                                                  PD_ERR_BUFFER_SMALL, PD_ERR_RANGE};
        if (misuse.count(r)) ADD_FAILURE() << file_ << ": " << call << " -> " << r << context_;
        return r;
    }
    void context(std::string c) { context_ = " (" + std::move(c) + ")"; }

    template <typename Getter> Got text(Getter g, const char* call) {
        Got got = get(g);
        sane(got.result, call);
        return got;
    }

    // A field reached from a widget or from the list: its name, type, flags and value.
    void field(PDField f) {
        text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetName(f, b, n, l); },
             "PDFieldGetName");
        text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetFullName(f, b, n, l); },
             "PDFieldGetFullName");
        PDAtom type = 0;
        sane(PDFieldGetType(f, &type), "PDFieldGetType");
        uint32_t flags = 0;
        sane(PDFieldGetFlags(f, &flags), "PDFieldGetFlags");
        text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetValue(f, b, n, l); },
             "PDFieldGetValue");
        text([&](char16_t* b, uint32_t n,
                 uint32_t* l) { return PDFieldGetDefaultValue(f, b, n, l); },
             "PDFieldGetDefaultValue");
        text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetUIName(f, b, n, l); },
             "PDFieldGetUIName");
        if (type == PD_ATOM_Ch) {
            uint32_t n = 0;
            if (sane(PDChoiceFieldGetNumOptions(f, &n), "PDChoiceFieldGetNumOptions") == PD_OK) {
                for (uint32_t k = 0; k < n; ++k) {
                    text([&](char16_t* b, uint32_t len,
                             uint32_t* l) { return PDChoiceFieldGetOptionValue(f, k, b, len, l); },
                         "PDChoiceFieldGetOptionValue");
                    text(
                        [&](char16_t* b, uint32_t len, uint32_t* l) {
                            return PDChoiceFieldGetOptionExportValue(f, k, b, len, l);
                        },
                        "PDChoiceFieldGetOptionExportValue");
                }
            }
        }
        if (type == PD_ATOM_Tx) {
            uint32_t maxLen = 0;
            sane(PDTextFieldGetMaxLen(f, &maxLen), "PDTextFieldGetMaxLen");
        }
    }

    void annot(PDAnnot a) {
        PDAtom subtype = 0;
        sane(PDAnnotGetSubtype(a, &subtype), "PDAnnotGetSubtype");
        PDRect r{};
        sane(PDAnnotGetRect(a, &r), "PDAnnotGetRect");
        uint32_t flags = 0;
        sane(PDAnnotGetFlags(a, &flags), "PDAnnotGetFlags");
        PDBool visible = 0, markup = 0;
        sane(PDAnnotGetVisible(a, &visible), "PDAnnotGetVisible");
        PDAtom state = 0;
        sane(PDAnnotGetAppearanceState(a, &state), "PDAnnotGetAppearanceState");
        if (sane(PDAnnotIsMarkupAnnot(a, &markup), "PDAnnotIsMarkupAnnot") == PD_OK && markup) {
            PDAnnot irt = nullptr;
            sane(PDMarkupAnnotGetInReplyTo(a, &irt), "PDMarkupAnnotGetInReplyTo");
            PDHandleRelease(irt);
        }
        PDField parent = nullptr;
        PDResult r2 = sane(PDWidgetAnnotGetParent(a, &parent), "PDWidgetAnnotGetParent");
        Owned owned(parent);
        if (subtype != PD_ATOM_Widget) {
            EXPECT_EQ(r2, PD_ERR_NOT_WIDGET) << file_ << context_;
            return;
        }
        EXPECT_EQ(r2, PD_OK) << file_ << context_;
        if (parent) field(parent);
    }

    void walk(PDDoc doc) {
        uint32_t pages = 0; // 0 for a file whose page tree is lost
        ASSERT_EQ(PDDocGetNumPages(doc, &pages), PD_OK) << file_;
        for (uint32_t p = 0; p < pages; ++p) {
            context("page " + std::to_string(p));
            PDPage raw = nullptr;
            ASSERT_EQ(PDDocGetPage(doc, p, &raw), PD_OK) << file_ << context_;
            Owned pg(raw);
            uint32_t index = 0;
            sane(PDPageGetIndex(pg.get(), &index), "PDPageGetIndex");
            EXPECT_EQ(index, p) << file_;
            PDRect box{};
            sane(PDPageGetBox(pg.get(), PD_BOX_MEDIA, &box), "PDPageGetBox(media)");
            sane(PDPageGetBox(pg.get(), PD_BOX_CROP, &box), "PDPageGetBox(crop)");
            int32_t rotate = -1;
            if (sane(PDPageGetRotate(pg.get(), &rotate), "PDPageGetRotate") == PD_OK) {
                EXPECT_TRUE(rotate == 0 || rotate == 90 || rotate == 180 || rotate == 270)
                    << file_ << context_ << ": /Rotate " << rotate;
            }
            uint32_t n = 0;
            sane(PDPageGetNumAnnots(pg.get(), &n), "PDPageGetNumAnnots");
            for (uint32_t i = 0; i < n; ++i) {
                context("page " + std::to_string(p) + ", annotation " + std::to_string(i));
                PDAnnot a = nullptr;
                if (sane(PDPageGetAnnot(pg.get(), i, &a), "PDPageGetAnnot") != PD_OK) continue;
                Owned owned(a);
                annot(a);
            }
        }
        uint32_t count = 0;
        context("fields");
        sane(PDDocGetNumFields(doc, &count), "PDDocGetNumFields");
        for (uint32_t i = 0; i < count; ++i) {
            context("terminal field " + std::to_string(i));
            PDField f = nullptr;
            if (sane(PDDocGetField(doc, i, &f), "PDDocGetField") != PD_OK) continue;
            Owned owned(f);
            field(f);
            uint32_t widgets = 0;
            sane(PDFieldGetNumWidgets(f, &widgets), "PDFieldGetNumWidgets");
            for (uint32_t k = 0; k < widgets; ++k) {
                PDAnnot w = nullptr;
                if (sane(PDFieldGetWidget(f, k, &w), "PDFieldGetWidget") != PD_OK) continue;
                Owned ow(w);
                PDAtom subtype = 0;
                sane(PDAnnotGetSubtype(w, &subtype), "PDAnnotGetSubtype");
                PDRect r{};
                sane(PDAnnotGetRect(w, &r), "PDAnnotGetRect");
                PDField parent = nullptr;
                sane(PDWidgetAnnotGetParent(w, &parent), "PDWidgetAnnotGetParent");
                PDHandleRelease(parent);
            }
        }
        PDBool isSigned = 0;
        sane(PDDocIsSigned(doc, &isSigned), "PDDocIsSigned");
    }

  private:
    std::string file_;
    std::string context_;
};

class CorpusFile : public ::testing::TestWithParam<std::string> {};

TEST_P(CorpusFile, OpensOrFailsCleanlyAndWalksCompletely) {
    const std::string& file = GetParam();
    PDDoc raw = reinterpret_cast<PDDoc>(&raw); // must be reset to NULL on failure
    PDResult r = PDDocOpen(corpus(file).c_str(), &raw);
    if (file == kUnrecoverable) {
        EXPECT_TRUE(r == PD_ERR_DAMAGED || r == PD_ERR_IO) << "PDDocOpen -> " << r;
        EXPECT_EQ(raw, nullptr);
        if (r == PD_OK) PDDocClose(raw);
        return;
    }
    // qpdf reads (and repairs where needed) every other file of the corpus.
    ASSERT_EQ(r, PD_OK) << file;
    Owned doc(raw);
    Walker walker(file);
    walker.walk(doc.get());
}

// Every field the form lists is found again under the name PDFieldGetFullName gives it (a
// malformed file may give other fields that name too; then one of them answers).
TEST_P(CorpusFile, EveryListedFieldIsFoundByItsFullName) {
    if (GetParam() == kUnrecoverable) GTEST_SKIP() << "does not open";
    auto doc = openDoc(corpus(GetParam()));
    ASSERT_TRUE(doc);
    uint32_t count = 0;
    ASSERT_EQ(PDDocGetNumFields(doc.get(), &count), PD_OK);
    for (uint32_t i = 0; i < count; ++i) {
        PDField raw = nullptr;
        ASSERT_EQ(PDDocGetField(doc.get(), i, &raw), PD_OK);
        Owned f(raw);
        std::u16string name = fieldName(f.get());
        std::string at = "terminal field " + std::to_string(i) + " \"" + utf8(name) + "\"";
        PDField found = nullptr;
        EXPECT_EQ(
            PDDocFindField(doc.get(), name.data(), static_cast<uint32_t>(name.size()), &found),
            PD_OK)
            << at;
        Owned owned(found);
        EXPECT_NE(found, nullptr) << at << ": PDDocFindField of its full name gives NULL";
        if (found && found != f.get()) {
            EXPECT_EQ(utf8(fieldName(found)), utf8(name)) << at;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, CorpusFile, ::testing::ValuesIn(corpusFiles()), testName);

TEST(Corpus, OpeningFromMemoryMatchesOpeningTheFile) {
    // The same bytes through PDDocOpenMem: same outcome for a good and the unrecoverable file.
    for (const char* file : {"qpdf-field-types.pdf", kUnrecoverable}) {
        std::ifstream in(corpus(file), std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        ASSERT_FALSE(bytes.empty()) << file;
        PDDoc fromFile = nullptr, fromMem = nullptr;
        PDResult a = PDDocOpen(corpus(file).c_str(), &fromFile);
        PDResult b = PDDocOpenMem(bytes.data(), bytes.size(), &fromMem);
        Owned f(fromFile), m(fromMem);
        EXPECT_EQ(a, b) << file;
        if (a == PD_OK && b == PD_OK) {
            EXPECT_EQ(readWithPdfcore(f.get()).order, readWithPdfcore(m.get()).order);
        }
    }
    PDDoc none = nullptr;
    EXPECT_EQ(PDDocOpen((corpus("") + "no-such-file.pdf").c_str(), &none), PD_ERR_IO);
    EXPECT_EQ(none, nullptr);
}

// ---- well-formed files: the same form as pypdf reads, and stable handles ----------------

class CorpusCrossCheck : public ::testing::TestWithParam<std::string> {};

TEST_P(CorpusCrossCheck, FieldsMatchPypdf) {
    const std::string path = corpus(GetParam());
    Listing expected = readWithPypdf(path);
    ASSERT_EQ(expected.error, "");
    auto doc = openDoc(path);
    ASSERT_TRUE(doc);
    Listing actual = readWithPdfcore(doc.get());
    EXPECT_EQ(actual.pages, expected.pages);
    for (const auto& n : actual.duplicates)
        ADD_FAILURE() << "two fields named " << utf8(n);
    expectSameFields(expected, actual, GetParam());
    // Tree order: the order of /Fields, depth first.
    std::vector<std::string> e, a;
    for (const auto& n : expected.order)
        e.push_back(utf8(n));
    for (const auto& n : actual.order)
        a.push_back(utf8(n));
    EXPECT_EQ(a, e) << "order of the terminal fields";

    // A field that is its own widget has two distinct handles, one of each kind.
    for (const auto& [name, facts] : expected.fields) {
        if (!facts.merged) continue;
        PDField raw = nullptr;
        ASSERT_EQ(PDDocFindField(doc.get(), name.data(), static_cast<uint32_t>(name.size()), &raw),
                  PD_OK);
        Owned f(raw);
        ASSERT_TRUE(f) << utf8(name);
        PDAnnot w = nullptr;
        ASSERT_EQ(PDFieldGetWidget(f.get(), 0, &w), PD_OK) << utf8(name);
        Owned widget(w);
        EXPECT_NE(w, f.get()) << utf8(name) << ": merged field and widget share a handle";
        PDAtom atom = 0;
        EXPECT_EQ(PDAnnotGetSubtype(f.get(), &atom), PD_ERR_WRONG_HANDLE) << utf8(name);
        EXPECT_EQ(PDFieldGetType(w, &atom), PD_ERR_WRONG_HANDLE) << utf8(name);
        EXPECT_EQ(PDAnnotGetSubtype(w, &atom), PD_OK);
        EXPECT_EQ(atom, PD_ATOM_Widget) << utf8(name);
    }
}

TEST_P(CorpusCrossCheck, HandlesAreTheSameHoweverReached) {
    auto doc = openDoc(corpus(GetParam()));
    ASSERT_TRUE(doc);

    // Every widget on a page is one of its field's widgets, as the very same handle.
    uint32_t pages = 0;
    ASSERT_EQ(PDDocGetNumPages(doc.get(), &pages), PD_OK);
    for (uint32_t p = 0; p < pages; ++p) {
        auto pg = page(doc.get(), p);
        uint32_t n = 0;
        ASSERT_EQ(PDPageGetNumAnnots(pg.get(), &n), PD_OK);
        for (uint32_t i = 0; i < n; ++i) {
            PDAnnot raw = nullptr;
            ASSERT_EQ(PDPageGetAnnot(pg.get(), i, &raw), PD_OK);
            Owned a(raw);
            PDAnnot again = nullptr;
            ASSERT_EQ(PDPageGetAnnot(pg.get(), i, &again), PD_OK);
            EXPECT_EQ(again, a.get()) << "page " << p << " annotation " << i;
            PDHandleRelease(again);
            PDField rawField = nullptr;
            if (PDWidgetAnnotGetParent(a.get(), &rawField) != PD_OK || !rawField) continue;
            Owned field(rawField);
            EXPECT_NE(field.get(), a.get()) << "a field and an annotation share a handle";
            uint32_t widgets = 0;
            ASSERT_EQ(PDFieldGetNumWidgets(field.get(), &widgets), PD_OK);
            bool found = false;
            for (uint32_t k = 0; k < widgets && !found; ++k) {
                PDAnnot w = nullptr;
                ASSERT_EQ(PDFieldGetWidget(field.get(), k, &w), PD_OK);
                found = w == a.get();
                PDHandleRelease(w);
            }
            EXPECT_TRUE(found) << "page " << p << " annotation " << i << " ("
                               << utf8(fieldName(field.get()))
                               << "): not among its field's widgets as the same handle";
        }
    }

    // Every terminal field: found again by its name as the same handle; each widget names
    // it as parent.
    uint32_t count = 0;
    ASSERT_EQ(PDDocGetNumFields(doc.get(), &count), PD_OK);
    for (uint32_t i = 0; i < count; ++i) {
        PDField raw = nullptr;
        ASSERT_EQ(PDDocGetField(doc.get(), i, &raw), PD_OK);
        Owned f(raw);
        std::u16string name = fieldName(f.get());
        PDField found = nullptr;
        ASSERT_EQ(
            PDDocFindField(doc.get(), name.data(), static_cast<uint32_t>(name.size()), &found),
            PD_OK);
        EXPECT_EQ(found, f.get()) << utf8(name) << ": PDDocFindField gives another handle";
        PDHandleRelease(found);
        uint32_t widgets = 0;
        ASSERT_EQ(PDFieldGetNumWidgets(f.get(), &widgets), PD_OK);
        for (uint32_t k = 0; k < widgets; ++k) {
            PDAnnot w = nullptr;
            ASSERT_EQ(PDFieldGetWidget(f.get(), k, &w), PD_OK);
            Owned widget(w);
            PDField parent = nullptr;
            EXPECT_EQ(PDWidgetAnnotGetParent(w, &parent), PD_OK);
            EXPECT_EQ(parent, f.get()) << utf8(name) << ": widget " << k;
            PDHandleRelease(parent);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(WellFormed, CorpusCrossCheck,
                         ::testing::ValuesIn(std::vector<std::string>(std::begin(kWellFormed),
                                                                      std::end(kWellFormed))),
                         testName);

// ---- encrypted input ---------------------------------------------------------------------

TEST(CorpusEncrypted, OpensAndSavesUnencryptedWithTheSameFields) {
    const std::string source = corpus("jspdf-encrypted-acroform.pdf");
    ScratchDir dir;
    const std::string out = dir.file("saved.pdf");
    const std::string reference = dir.file("reference.pdf");
    Listing before;
    {
        auto doc = openDoc(source);
        ASSERT_TRUE(doc);
        before = readWithPdfcore(doc.get());
        EXPECT_FALSE(before.order.empty());
        ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
        // The document stays open and unchanged.
        EXPECT_EQ(readWithPdfcore(doc.get()).order, before.order);
    }
    EXPECT_EQ(qpdfCheck(out), 0);
    std::string show = run("qpdf --show-encryption '" + out + "' 2>&1");
    EXPECT_NE(show.find("File is not encrypted"), std::string::npos) << show;

    // The reference is the file decrypted by qpdf. (pypdf's own decryption of the original
    // differs in one name: jsPDF wrote an unescaped CR inside the encrypted /T of the check
    // box, which a conforming parser reads as LF before decrypting; pypdf keeps the CR.)
    int status = -1;
    run("qpdf --decrypt '" + source + "' '" + reference + "' 2>&1", &status);
    ASSERT_EQ(status, 0);
    Listing expected = readWithPypdf(reference);
    Listing saved = readWithPypdf(out);
    ASSERT_EQ(expected.error, "");
    ASSERT_EQ(saved.error, "");
    EXPECT_FALSE(saved.encrypted);
    EXPECT_EQ(saved.pages, expected.pages);
    EXPECT_EQ(saved.order, expected.order);
    // Names and values compared as texts: ciphertext copied as it was would not match.
    expectSameFields(expected, saved, "pypdf: qpdf-decrypted vs saved by pdfcore");

    auto reopened = openDoc(out);
    ASSERT_TRUE(reopened);
    Listing after = readWithPdfcore(reopened.get());
    EXPECT_EQ(after.order, before.order);
    expectSameFields(before, after, "pdfcore: opened vs reopened");
}

// ---- malformed files: what pdfcore makes of them ---------------------------------------------

// jsPDF lists the three widgets of the radio group "FieldObject1" both as its /Kids and
// directly in /AcroForm /Fields. They are widgets of that group (their /Parent), not fields
// of their own: 7 terminal fields (as qpdf counts them), the group with 3 widgets.
TEST(CorpusQuirks, WidgetsListedInFieldsTooAreNotFieldsOfTheirOwn) {
    auto doc = openDoc(corpus("jspdf-encrypted-acroform.pdf"));
    ASSERT_TRUE(doc);
    Listing listing = readWithPdfcore(doc.get());
    std::vector<std::string> names;
    for (const auto& n : listing.order)
        names.push_back(utf8(n));
    EXPECT_EQ(listing.order.size(), 7u)
        << "terminal fields listed: " << ::testing::PrintToString(names);
    EXPECT_TRUE(listing.duplicates.empty())
        << "the radio widgets appear as fields of their own: " << ::testing::PrintToString(names);
    auto group = findField(doc.get(), "FieldObject1");
    ASSERT_TRUE(group);
    uint32_t widgets = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(group.get(), &widgets), PD_OK);
    EXPECT_EQ(widgets, 3u);
}

// The text widget's /Parent points at its page, and /AcroForm is an array. The page (or the
// page tree above it) is no form field: the widget is the field "TextField" of its own.
TEST(CorpusQuirks, AWidgetWhoseParentIsAPageIsNotTurnedIntoThePageTree) {
    auto doc = openDoc(corpus("pdfium-malformed-acroform-array-uri-button.pdf"));
    ASSERT_TRUE(doc);
    Listing listing = readWithPdfcore(doc.get());
    std::vector<std::string> names;
    for (const auto& n : listing.order)
        names.push_back(utf8(n));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"TextField", "button"}))
        << "full names of the terminal fields (\"\" is the page tree taken for a field)";
    auto pg = page(doc.get(), 0);
    PDAnnot raw = nullptr;
    ASSERT_EQ(PDPageGetAnnot(pg.get(), 0, &raw), PD_OK);
    Owned widget(raw);
    PDField parent = nullptr;
    ASSERT_EQ(PDWidgetAnnotGetParent(widget.get(), &parent), PD_OK);
    Owned field(parent);
    ASSERT_TRUE(field);
    EXPECT_EQ(fieldName(field.get()), u"TextField");
    PDAtom type = 0;
    EXPECT_EQ(PDFieldGetType(field.get(), &type), PD_OK);
    EXPECT_EQ(type, PD_ATOM_Tx);
}

} // namespace
