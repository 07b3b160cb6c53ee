// Saved states of fields: a restore gives back the written file byte for byte after changes
// that redraw pdfcore's own widgets (whose streams the next drawing writes over, but for the
// states that check boxes alike share), also when a collection ran in between, and the
// export values of /Opt follow a renamed on state.
#include "TestSupport.h"

#ifndef POINTERHOLDER_TRANSITION
#define POINTERHOLDER_TRANSITION 4
#endif
#include <qpdf/QPDF.hh>

namespace {

using namespace pdtest;

struct StateFreer {
    void operator()(PDFieldStateRec* s) const { PDFieldStateFree(s); }
};
using State = std::unique_ptr<PDFieldStateRec, StateFreer>;

State save(PDField field) {
    PDFieldState s = nullptr;
    EXPECT_EQ(PDFieldSaveState(field, &s), PD_OK);
    return State(s);
}

std::string bytes(PDDoc doc) {
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(PDDocSaveMem(doc, &data, &size), PD_OK);
    std::string out(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    return out;
}

// What the first widget of the field named name shows in the file written: the data of its
// streams, state by state.
std::string looks(const std::string& pdf, const std::string& name) {
    QPDF q;
    q.processMemoryFile("written", pdf.data(), pdf.size());
    std::string out;
    for (auto& field : q.getRoot().getKey("/AcroForm").getKey("/Fields").aitems()) {
        if (field.getKey("/T").getUTF8Value() != name) continue;
        QPDFObjectHandle kids = field.getKey("/Kids");
        QPDFObjectHandle ap = (kids.isArray() ? kids.getArrayItem(0) : field).getKey("/AP");
        for (const char* which : {"/N", "/D"})
            for (auto& [state, stream] : ap.getKey(which).ditems()) {
                auto data = stream.getStreamData();
                out += std::string(which) + state + ": " +
                       std::string(reinterpret_cast<const char*>(data->getBuffer()),
                                   data->getSize()) +
                       "\n";
            }
    }
    return out;
}

TEST(FieldStateTest, RestoreGivesBackDrawingsItWroteOver) {
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    auto text = addField(doc.get(), pg.get(), "name", PD_ATOM_Tx, rect(72, 700, 272, 724));
    auto box = addField(doc.get(), pg.get(), "agree", PD_ATOM_Btn, rect(72, 650, 90, 668));
    // A check box alike shares the streams of the box's states, which nothing done to the
    // box may write over.
    auto twin = addField(doc.get(), pg.get(), "twin", PD_ATOM_Btn, rect(100, 650, 118, 668));
    ASSERT_EQ(setValue(text.field.get(), u"Ann"), PD_OK);
    const std::string before = bytes(doc.get());

    State textState = save(text.field.get()), boxState = save(box.field.get());
    ASSERT_EQ(PDWidgetAnnotSetBorderColor(text.widget.get(), 0xFFFF0000), PD_OK);
    ASSERT_EQ(setValue(text.field.get(), u"Bob \u03c0"), PD_OK);  // a font joins /DR
    ASSERT_EQ(PDFieldSetFlags(text.field.get(), PD_FIELD_MULTILINE | PD_FIELD_REQUIRED), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotSetCaption(box.widget.get(), u"H", 1), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetRotate(box.widget.get(), 90), PD_OK);
    const std::string changed = bytes(doc.get());
    ASSERT_NE(changed, before);
    EXPECT_NE(looks(changed, "agree"), looks(before, "agree"));
    EXPECT_EQ(looks(changed, "twin"), looks(before, "twin"));
    uint32_t freed = 0;
    ASSERT_EQ(PDDocCollectGarbage(doc.get(), &freed), PD_OK);

    ASSERT_EQ(PDFieldRestoreState(boxState.get()), PD_OK);
    ASSERT_EQ(PDFieldRestoreState(textState.get()), PD_OK);
    EXPECT_EQ(bytes(doc.get()), before);
    // The state stays: the same changes and a second restore end the same way.
    ASSERT_EQ(PDWidgetAnnotSetBorderColor(text.widget.get(), 0xFF0000FF), PD_OK);
    ASSERT_EQ(PDFieldRestoreState(textState.get()), PD_OK);
    EXPECT_EQ(bytes(doc.get()), before);
}

TEST(FieldStateTest, BadArguments) {
    PDFieldState s = reinterpret_cast<PDFieldState>(1);
    EXPECT_EQ(PDFieldSaveState(nullptr, &s), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(s, nullptr);
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    EXPECT_EQ(PDFieldSaveState(pg.get(), &s), PD_ERR_WRONG_HANDLE);
    Owned parent = createField(doc.get(), "a.b", PD_ATOM_Tx);
    Owned a = findField(doc.get(), "a");
    EXPECT_EQ(PDFieldSaveState(a.get(), &s), PD_ERR_FIELD_KIND);
    EXPECT_EQ(PDFieldSaveState(parent.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDFieldRestoreState(nullptr), PD_ERR_MISSING_OBJECT);
    PDFieldStateFree(nullptr);
}

TEST(FieldStateTest, RenamedOnStateRewritesItsExportValueInOpt) {
    // Export values of their own in /Opt, the states naming positions, as some writers
    // make radio buttons (qpdf rebuilds the cross-reference table).
    const std::string pdf =
        "%PDF-1.7\n"
        "1 0 obj << /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [5 0 R 6 0 R] >>"
        " endobj\n"
        "4 0 obj << /FT /Btn /Ff 49152 /T (size) /Opt [(Small) (Large)] /Kids [5 0 R 6 0 R]"
        " /V /0 >> endobj\n"
        "5 0 obj << /Type /Annot /Subtype /Widget /Parent 4 0 R /P 3 0 R /Rect [72 700 86 714]"
        " /AS /0 /AP << /N << /0 7 0 R /Off 7 0 R >> >> >> endobj\n"
        "6 0 obj << /Type /Annot /Subtype /Widget /Parent 4 0 R /P 3 0 R"
        " /Rect [100 700 114 714] /AS /Off /AP << /N << /1 7 0 R /Off 7 0 R >> >> >> endobj\n"
        "7 0 obj << /Type /XObject /Subtype /Form /BBox [0 0 14 14] /Length 0 >> stream\n"
        "\nendstream endobj\ntrailer << /Root 1 0 R /Size 8 >>\n%%EOF\n";
    Owned doc = openBytes(pdf);
    ASSERT_TRUE(doc);
    Owned field = findField(doc.get(), "size");
    auto widgets = widgetsOf(field.get());
    ASSERT_EQ(widgets.size(), 2u);
    State state = save(field.get());
    const std::string before = bytes(doc.get());
    ASSERT_EQ(PDButtonWidgetAnnotSetChoice(widgets[1].get(), u"Medium", 6), PD_OK);
    const std::string after = bytes(doc.get());
    EXPECT_NE(after.find("/Opt [ (Small) (Medium) ]"), std::string::npos);
    EXPECT_NE(after.find("/Medium"), std::string::npos);
    ASSERT_EQ(PDFieldRestoreState(state.get()), PD_OK);
    EXPECT_EQ(bytes(doc.get()), before);
}

}  // namespace
