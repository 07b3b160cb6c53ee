// Taking back what a session made and let go of: a collection changes nothing a reader
// sees, keeps whatever a live handle leads to (a deleted widget an undo may put back, an
// emptied field), and its freed numbers and streams serve the next objects.
#include "TestSupport.h"

#include <cstdlib>

using namespace pdtest;

namespace {

std::string saved(PDDoc doc) {
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(PDDocSaveMem(doc, &data, &size), PD_OK);
    std::string bytes(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    return bytes;
}

bool named(PDDoc doc, const std::string& name) {
    PDField f = nullptr;
    const auto n = u16(name);
    const PDResult r = PDDocFindField(doc, n.data(), static_cast<uint32_t>(n.size()), &f);
    Owned owned(f);
    return r == PD_OK && f;
}

// One session, run on two copies of a corpus form: fields made, one kept by handles after
// its widget is taken off the page and out of the field (as a delete that can be undone
// leaves it), the rest deleted and let go; then more fields, and the kept widget put back.
// collect: whether to collect in between.
struct Session {
    Owned doc = openDoc(corpus("qpdf-field-types.pdf"));
    Owned pg = page(doc.get(), 0);
    Owned keptField, keptWidget;
    uint32_t freed = 0;

    explicit Session(bool collect) {
        for (int i = 0; i < 20; ++i) {
            const PDAtom type = i % 3 == 0 ? PD_ATOM_Btn : i % 3 == 1 ? PD_ATOM_Tx : PD_ATOM_Ch;
            auto made = addField(doc.get(), pg.get(), "Made" + std::to_string(i), type,
                                 rect(20.f * i, 700, 20.f * i + 18, 718));
            EXPECT_EQ(PDPageRemoveAnnot(pg.get(), made.widget.get()), PD_OK);
            EXPECT_EQ(PDFieldRemoveWidget(made.field.get(), made.widget.get()), PD_OK);
            if (i == 7) {
                keptField = std::move(made.field);
                keptWidget = std::move(made.widget);
            }
        }
        written = saved(doc.get());
        if (collect) {
            EXPECT_EQ(PDDocCollectGarbage(doc.get(), &freed), PD_OK);
        }
        for (int i = 0; i < 5; ++i)
            addField(doc.get(), pg.get(), "Later" + std::to_string(i), PD_ATOM_Tx,
                     rect(30.f * i, 600, 30.f * i + 25, 620));
        EXPECT_EQ(PDFieldAppendWidget(keptField.get(), keptWidget.get()), PD_OK);
        EXPECT_EQ(PDPageAddAnnot(pg.get(), 0, keptWidget.get()), PD_OK);
    }
    std::string written;  // before the collection
};

TEST(Collect, ChangesNothingWrittenAndKeepsWhatHandlesHold) {
    Session plain(false), collected(true);
    // The 19 fields let go, each with its widget, and the drawings of those not check boxes
    // (check boxes alike share theirs).
    EXPECT_GE(collected.freed, 19u * 2 + 13);
    EXPECT_EQ(saved(collected.doc.get()), saved(plain.doc.get()));
    EXPECT_EQ(collected.written, plain.written);

    // The emptied field that a handle holds keeps its name; the others are gone, names and
    // all, and a second collection finds nothing more.
    EXPECT_TRUE(named(collected.doc.get(), "Made7"));
    EXPECT_FALSE(named(collected.doc.get(), "Made3"));
    EXPECT_TRUE(named(plain.doc.get(), "Made3"));
    // The fields made, in order, the file's not among them: those collected answer none.
    uint32_t made = 0;
    ASSERT_EQ(PDDocGetNumFieldsMade(collected.doc.get(), &made), PD_OK);
    EXPECT_EQ(made, 25u);
    auto madeName = [](const Session& s, uint32_t index) {
        PDField f = nullptr;
        EXPECT_EQ(PDDocGetFieldMade(s.doc.get(), index, &f), PD_OK);
        Owned owned(f);
        return f ? fieldName(f) : std::u16string(u"(none)");
    };
    EXPECT_EQ(madeName(collected, 3), u"(none)");
    EXPECT_EQ(madeName(plain, 3), u"Made3");
    EXPECT_EQ(madeName(collected, 7), u"Made7");
    EXPECT_EQ(madeName(collected, 24), u"Later4");
    PDField past = nullptr;
    EXPECT_EQ(PDDocGetFieldMade(collected.doc.get(), 25, &past), PD_ERR_RANGE);
    EXPECT_EQ(past, nullptr);

    uint32_t again = 99;
    EXPECT_EQ(PDDocCollectGarbage(collected.doc.get(), &again), PD_OK);
    EXPECT_EQ(again, 0u);

    ScratchDir dir;
    const std::string path = dir.file("collected.pdf");
    ASSERT_EQ(PDDocSave(collected.doc.get(), path.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(path), 0);
    Owned reopened = openDoc(path);
    // In memory the collected document lists just what is written; the other still lists
    // the emptied fields.
    EXPECT_EQ(fieldsOf(reopened.get()).size(), fieldsOf(collected.doc.get()).size());
    EXPECT_GT(fieldsOf(plain.doc.get()).size(), fieldsOf(reopened.get()).size());
    EXPECT_EQ(widgetsOf(findField(reopened.get(), "Made7").get()).size(), 1u);
}

// pdfcore collects by itself as fields come and go, so garbage stays a share of the
// document: after thousands of fields made and deleted, little is left to take.
TEST(Collect, RunsByItselfWhileFieldsComeAndGo) {
    Owned doc = createDoc(2);
    Owned pg = page(doc.get(), 1);
    for (int i = 0; i < 3000; ++i) {
        auto made = addField(doc.get(), pg.get(), "F" + std::to_string(i), PD_ATOM_Tx,
                             rect(100, 100, 200, 120));
        ASSERT_EQ(PDPageRemoveAnnot(pg.get(), made.widget.get()), PD_OK);
        ASSERT_EQ(PDFieldRemoveWidget(made.field.get(), made.widget.get()), PD_OK);
    }
    uint32_t freed = 0;
    ASSERT_EQ(PDDocCollectGarbage(doc.get(), &freed), PD_OK);
    EXPECT_LT(freed, 3000u);  // each field left at least a field, a widget and a stream
    EXPECT_TRUE(fieldsOf(doc.get()).empty());
    EXPECT_FALSE(named(doc.get(), "F10"));
    EXPECT_EQ(annotsOf(pg.get()).size(), 0u);
}

TEST(Collect, RefusesWhatIsNotADocument) {
    uint32_t freed = 7;
    EXPECT_EQ(PDDocCollectGarbage(nullptr, &freed), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(freed, 0u);
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    EXPECT_EQ(PDDocCollectGarbage(pg.get(), nullptr), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(PDDocCollectGarbage(doc.get(), nullptr), PD_OK);
}

}  // namespace
