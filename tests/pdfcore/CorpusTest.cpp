// The corpus of real form files: every file opens (or fails with a result code) and can be
// walked completely; what pdfcore reads matches an independent reader (pypdf, through
// pypdf_fields.py); handles are the same however an object is reached. The encrypted files
// are saved in EncryptionTest.cpp.
#include "FormListing.h"

#include <set>

using namespace pdtest;
namespace fs = std::filesystem;

namespace {

const char* const kUnrecoverable = "pdfjs-damaged-unrecoverable-fuzzed.pdf";

// Files whose form pypdf and qpdf read alike (MANIFEST.md notes no disagreement): pdfcore
// must read them the same way too.
const std::vector<std::string> kWellFormed = {
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
    for (const auto& e : fs::directory_iterator(QF_CORPUS_DIR, ec))
        if (e.path().extension() == ".pdf") files.push_back(e.path().filename().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string testName(const ::testing::TestParamInfo<std::string>& info) {
    std::string s = info.param.substr(0, info.param.size() - 4);
    for (char& c : s)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return s;
}

TEST(Corpus, HoldsTheFilesTheTestsNeed) {
    auto files = corpusFiles();
    EXPECT_EQ(files.size(), 40u) << "MANIFEST.md lists 40 files in " << QF_CORPUS_DIR;
    std::set<std::string> have(files.begin(), files.end());
    for (const auto& f : kWellFormed)
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

    // A text getter of f, called through the two-call pattern.
    template <typename Get> Got text(PDField f, Get get, const char* call) {
        Got got = fetch([&](char16_t* b, uint32_t n, uint32_t* l) { return get(f, b, n, l); });
        sane(got.result, call);
        return got;
    }

    // A field reached from a widget or from the list: its name, type, flags and value.
    void field(PDField f) {
        text(f, PDFieldGetName, "PDFieldGetName");
        text(f, PDFieldGetFullName, "PDFieldGetFullName");
        text(f, PDFieldGetValue, "PDFieldGetValue");
        text(f, PDFieldGetDefaultValue, "PDFieldGetDefaultValue");
        text(f, PDFieldGetUIName, "PDFieldGetUIName");
        PDAtom type = 0;
        sane(PDFieldGetType(f, &type), "PDFieldGetType");
        uint32_t flags = 0, n = 0;
        sane(PDFieldGetFlags(f, &flags), "PDFieldGetFlags");
        if (type == PD_ATOM_Ch)
            sane(PDChoiceFieldGetNumOptions(f, &n), "PDChoiceFieldGetNumOptions");
        for (uint32_t k = 0; k < n; ++k) {
            text(
                f,
                [k](PDField c, char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionValue(c, k, b, len, l);
                },
                "PDChoiceFieldGetOptionValue");
            text(
                f,
                [k](PDField c, char16_t* b, uint32_t len, uint32_t* l) {
                    return PDChoiceFieldGetOptionExportValue(c, k, b, len, l);
                },
                "PDChoiceFieldGetOptionExportValue");
        }
        if (type == PD_ATOM_Tx) sane(PDTextFieldGetMaxLen(f, &n), "PDTextFieldGetMaxLen");
    }

    void annot(PDAnnot a) {
        PDAtom subtype = 0, state = 0;
        sane(PDAnnotGetSubtype(a, &subtype), "PDAnnotGetSubtype");
        PDRect r{};
        sane(PDAnnotGetRect(a, &r), "PDAnnotGetRect");
        uint32_t flags = 0;
        sane(PDAnnotGetFlags(a, &flags), "PDAnnotGetFlags");
        PDBool visible = 0, markup = 0;
        sane(PDAnnotGetVisible(a, &visible), "PDAnnotGetVisible");
        sane(PDAnnotGetAppearanceState(a, &state), "PDAnnotGetAppearanceState");
        if (sane(PDAnnotIsMarkupAnnot(a, &markup), "PDAnnotIsMarkupAnnot") == PD_OK && markup) {
            PDAnnot irt = nullptr;
            sane(PDMarkupAnnotGetInReplyTo(a, &irt), "PDMarkupAnnotGetInReplyTo");
            PDHandleRelease(irt);
        }
        PDField parent = nullptr;
        PDResult r2 = sane(PDWidgetAnnotGetParent(a, &parent), "PDWidgetAnnotGetParent");
        Owned owned(parent);
        EXPECT_EQ(r2, subtype == PD_ATOM_Widget ? PD_OK : PD_ERR_NOT_WIDGET) << file_ << context_;
        if (parent) field(parent);
    }

    // Pages and their annotations, then the terminal fields and their widgets. Every field
    // is found again under the name PDFieldGetFullName gives it (a malformed file may give
    // other fields that name too; then one of them answers).
    void walk(PDDoc doc) {
        uint32_t pages = 0; // 0 for a file whose page tree is lost
        ASSERT_EQ(PDDocGetNumPages(doc, &pages), PD_OK) << file_;
        for (uint32_t p = 0; p < pages; ++p) {
            context("page " + std::to_string(p));
            PDPage raw = nullptr;
            ASSERT_EQ(PDDocGetPage(doc, p, &raw), PD_OK) << file_ << context_;
            Owned pg(raw);
            uint32_t index = 0, n = 0;
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
            std::u16string name = fieldName(f);
            auto found = findField(doc, name);
            EXPECT_TRUE(found) << file_ << context_ << ": not found by its full name";
            if (found && found.get() != f) {
                EXPECT_EQ(utf8(fieldName(found.get())), utf8(name)) << file_ << context_;
            }
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
    Walker(file).walk(doc.get());
}

INSTANTIATE_TEST_SUITE_P(All, CorpusFile, ::testing::ValuesIn(corpusFiles()), testName);

TEST(Corpus, OpeningFromMemoryMatchesOpeningTheFile) {
    // The same bytes through PDDocOpenMem: same outcome for a good and the unrecoverable file.
    for (const char* file : {"qpdf-field-types.pdf", kUnrecoverable}) {
        std::string bytes = slurp(corpus(file));
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
    expectSameFields(expected.fields, actual.fields, GetParam());
    // Tree order: the order of /Fields, depth first.
    EXPECT_EQ(utf8(actual.order), utf8(expected.order)) << "order of the terminal fields";

    // A field that is its own widget has two distinct handles, one of each kind.
    for (const auto& [name, facts] : expected.fields) {
        if (!facts.merged) continue;
        auto f = findField(doc.get(), name);
        ASSERT_TRUE(f) << utf8(name);
        auto widgets = widgetsOf(f.get());
        ASSERT_FALSE(widgets.empty()) << utf8(name);
        PDAnnot w = widgets[0].get();
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
        auto annots = annotsOf(pg.get());
        for (uint32_t i = 0; i < annots.size(); ++i) {
            PDAnnot a = annots[i].get();
            std::string at = "page " + std::to_string(p) + " annotation " + std::to_string(i);
            PDAnnot again = nullptr;
            ASSERT_EQ(PDPageGetAnnot(pg.get(), i, &again), PD_OK);
            EXPECT_EQ(again, a) << at;
            PDHandleRelease(again);
            PDField rawField = nullptr;
            if (PDWidgetAnnotGetParent(a, &rawField) != PD_OK || !rawField) continue;
            Owned field(rawField);
            EXPECT_NE(field.get(), a) << "a field and an annotation share a handle";
            auto widgets = widgetsOf(field.get());
            EXPECT_TRUE(std::any_of(widgets.begin(), widgets.end(),
                                    [&](const Owned& w) { return w.get() == a; }))
                << at << " (" << utf8(fieldName(field.get()))
                << "): not among its field's widgets as the same handle";
        }
    }

    // Every terminal field: found again by its name as the same handle; each widget names
    // it as parent.
    for (const auto& f : fieldsOf(doc.get())) {
        std::u16string name = fieldName(f.get());
        EXPECT_EQ(findField(doc.get(), name).get(), f.get())
            << utf8(name) << ": PDDocFindField gives another handle";
        auto widgets = widgetsOf(f.get());
        for (size_t k = 0; k < widgets.size(); ++k)
            EXPECT_EQ(parentOf(widgets[k].get()).get(), f.get()) << utf8(name) << ": widget " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(WellFormed, CorpusCrossCheck, ::testing::ValuesIn(kWellFormed), testName);

// ---- malformed files: what pdfcore makes of them ---------------------------------------------

// jsPDF lists the three widgets of the radio group "FieldObject1" both as its /Kids and
// directly in /AcroForm /Fields. They are widgets of that group (their /Parent), not fields
// of their own (readWithPdfcore fails on two fields of one name): 7 terminal fields (as qpdf
// counts them), the group with 3 widgets.
TEST(CorpusQuirks, WidgetsListedInFieldsTooAreNotFieldsOfTheirOwn) {
    auto doc = openDoc(corpus("jspdf-encrypted-acroform.pdf"));
    ASSERT_TRUE(doc);
    Listing listing = readWithPdfcore(doc.get());
    EXPECT_EQ(listing.order.size(), 7u)
        << "terminal fields listed: " << ::testing::PrintToString(utf8(listing.order));
    auto group = findField(doc.get(), "FieldObject1");
    ASSERT_TRUE(group);
    EXPECT_EQ(widgetsOf(group.get()).size(), 3u);
}

// The text widget's /Parent points at its page, and /AcroForm is an array. The page (or the
// page tree above it) is no form field: the widget is the field "TextField" of its own.
TEST(CorpusQuirks, AWidgetWhoseParentIsAPageIsNotTurnedIntoThePageTree) {
    auto doc = openDoc(corpus("pdfium-malformed-acroform-array-uri-button.pdf"));
    ASSERT_TRUE(doc);
    std::vector<std::string> names = utf8(readWithPdfcore(doc.get()).order);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"TextField", "button"}))
        << "full names of the terminal fields (\"\" is the page tree taken for a field)";
    auto annots = annotsOf(page(doc.get(), 0).get());
    ASSERT_FALSE(annots.empty());
    auto field = parentOf(annots[0].get());
    ASSERT_TRUE(field);
    EXPECT_EQ(fieldName(field.get()), u"TextField");
    PDAtom type = 0;
    EXPECT_EQ(PDFieldGetType(field.get(), &type), PD_OK);
    EXPECT_EQ(type, PD_ATOM_Tx);
}

} // namespace
