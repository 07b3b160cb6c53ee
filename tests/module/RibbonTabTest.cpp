// The ribbon tab of an annotation, on a small form read from memory.
#include "AnnotRibbonTab.h"
#include "qf/internal/ServiceObjectException.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

// One page with, in order: a link, a text widget, a signature widget, a widget without a
// field type, a text note, and the widget of a signature field that holds it as a kid.
const char kForm[] =
    "%PDF-1.7\n"
    "1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [5 0 R 6 0 R 7 0 R 9 0 R] >> "
    ">> endobj\n"
    "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
    "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
    "/Annots [4 0 R 5 0 R 6 0 R 7 0 R 8 0 R 10 0 R] >> endobj\n"
    "4 0 obj << /Type /Annot /Subtype /Link /Rect [10 10 50 50] >> endobj\n"
    "5 0 obj << /Type /Annot /Subtype /Widget /FT /Tx /T (name) /Rect [60 10 160 30] /P 3 0 R "
    ">> endobj\n"
    "6 0 obj << /Type /Annot /Subtype /Widget /FT /Sig /T (sign) /Rect [60 40 160 60] /P 3 0 R "
    ">> endobj\n"
    "7 0 obj << /Type /Annot /Subtype /Widget /T (bare) /Rect [60 70 160 90] /P 3 0 R >> "
    "endobj\n"
    "8 0 obj << /Type /Annot /Subtype /Text /Rect [200 10 220 30] >> endobj\n"
    "9 0 obj << /FT /Sig /T (parent) /Kids [10 0 R] >> endobj\n"
    "10 0 obj << /Type /Annot /Subtype /Widget /Parent 9 0 R /Rect [60 100 160 120] /P 3 0 R "
    ">> endobj\n"
    "trailer << /Root 1 0 R >>\n"
    "%%EOF\n";

TEST(RibbonTab, ByAnnotationKind) {
    PDDoc doc = nullptr;
    ASSERT_EQ(PDDocOpenMem(kForm, sizeof kForm - 1, &doc), PD_OK);
    PDPage page = nullptr;
    ASSERT_EQ(PDDocGetPage(doc, 0, &page), PD_OK);
    uint32_t count = 0;
    ASSERT_EQ(PDPageGetNumAnnots(page, &count), PD_OK);
    ASSERT_EQ(count, 6u);

    const std::vector<std::u16string> expected = {u"Insert", u"Forms",  u"Secure",
                                                  u"Forms",  u"Review", u"Secure"};
    for (uint32_t i = 0; i < count; ++i) {
        PDAnnot annot = nullptr;
        ASSERT_EQ(PDPageGetAnnot(page, i, &annot), PD_OK);
        EXPECT_EQ(QF::GetAnnotRibbonTabName(annot), expected[i]) << "annotation " << i;
        PDHandleRelease(annot);
    }
    PDHandleRelease(page);
    PDDocClose(doc);
}

TEST(RibbonTab, AnUnreadableSubtypeIsAFailure) {
    try {
        QF::GetAnnotRibbonTabName(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const ServiceObjectException& e) {
        EXPECT_EQ(e.Code(), 2u); // pdfcore's missing object, translated
        EXPECT_EQ(e.Record().File(), "App/src/qf-forms-module/AnnotRibbonTab.cpp");
    }
}

} // namespace
