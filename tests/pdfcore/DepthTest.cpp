// Files nested as deep as an attacker likes them: page trees, field trees, outlines and
// chains of actions tens of thousands of levels deep get an answer (a result code, or the
// document read right) in bounded time, without running out of stack; and what pdfcore
// writes nests no deeper than its writer follows.
#include "TestSupport.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

using namespace pdtest;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A document read from bytes, the opening answering expected.
Owned openAnswering(const std::string& bytes, PDResult expected) {
    PDDoc doc = nullptr;
    EXPECT_EQ(PDDocOpenMem(bytes.data(), bytes.size(), &doc), expected);
    return Owned(doc);
}

std::string ref(size_t object) {
    return std::to_string(object) + " 0 R";
}

// A page tree of levels /Pages nodes in a chain (the root, object 2, holds the media box
// and the rotation) over one page.
std::string pageTree(size_t levels) {
    std::vector<std::string> objects{"<< /Type /Catalog /Pages 2 0 R >>"};
    for (size_t level = 1; level <= levels; ++level) {
        const size_t self = level + 1;
        objects.push_back("<< /Type /Pages /Count 1 /Kids [" + ref(self + 1) + "]" +
                          (level == 1 ? " /MediaBox [0 0 300 400] /Rotate 90"
                                      : " /Parent " + ref(self - 1)) +
                          " >>");
    }
    objects.push_back("<< /Type /Page /Parent " + ref(levels + 1) + " >>");
    return makePdf(objects);
}

// A field tree of levels named fields in a chain (f1 at the root, of type Tx) whose last
// field has one widget, on the only page.
std::string fieldTree(size_t levels) {
    const size_t widget = levels + 4;
    std::vector<std::string> objects{
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>",
        "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [" + ref(widget) + "] >>"};
    for (size_t level = 1; level <= levels; ++level) {
        const size_t self = level + 3;
        objects.push_back("<< /T (f" + std::to_string(level) + ") /Kids [" + ref(self + 1) + "]" +
                          (level == 1 ? " /FT /Tx" : " /Parent " + ref(self - 1)) + " >>");
    }
    objects.push_back("<< /Type /Annot /Subtype /Widget /Rect [10 10 110 30] /P 3 0 R /Parent " +
                      ref(widget - 1) + " >>");
    return makePdf(objects);
}

TEST(Depth, PageTreesAreFollowedToTheLimitAndRefusedPastIt) {
    // At the limit the page is read, with what it inherits from the root a thousand levels up.
    {
        Owned doc = openBytes(pageTree(PD_MAX_TREE_DEPTH));
        uint32_t count = 0;
        ASSERT_EQ(PDDocGetNumPages(doc.get(), &count), PD_OK);
        ASSERT_EQ(count, 1u);
        Owned pg = page(doc.get(), 0);
        PDRect box{};
        int32_t rotation = 0;
        ASSERT_EQ(PDPageGetBox(pg.get(), PD_BOX_MEDIA, &box), PD_OK);
        EXPECT_EQ(box.right, 300);
        EXPECT_EQ(box.top, 400);
        ASSERT_EQ(PDPageGetRotate(pg.get(), &rotation), PD_OK);
        EXPECT_EQ(rotation, 90);
    }
    // One more level, and forty thousand (which ran qpdf's walk out of stack), are refused
    // with the code of their own.
    for (size_t levels : {size_t{PD_MAX_TREE_DEPTH} + 1, size_t{40000}}) {
        const auto start = Clock::now();
        openAnswering(pageTree(levels), PD_ERR_TOO_DEEP);
        EXPECT_LT(secondsSince(start), 10) << levels;
    }
    EXPECT_STREQ(utf8(PDGetErrMessage(PD_ERR_TOO_DEEP)).c_str(),
                 "A page tree or field tree is nested deeper than 1,000 levels");

    // A deep tree under the catalog's /Pages whose /Parent leads up to a shallow node is
    // measured from both: qpdf may walk from either, and writes the file for the next open.
    {
        const size_t levels = PD_MAX_TREE_DEPTH + 1, leaf = levels + 2, shallow = levels + 3;
        const std::string pdf = makePdf([&] {
            std::vector<std::string> objects{"<< /Type /Catalog /Pages 2 0 R >>"};
            for (size_t level = 1; level <= levels; ++level)
                objects.push_back("<< /Type /Pages /Count 1 /Kids [" + ref(level + 2) + "] /Parent " +
                                  ref(level == 1 ? shallow : level) + " >>");
            objects.push_back("<< /Type /Page /Parent " + ref(levels + 1) + " >>");
            objects.push_back("<< /Type /Pages /Count 1 /Kids [" + ref(leaf) + "] >>");
            return objects;
        }());
        openAnswering(pdf, PD_ERR_TOO_DEEP);
    }

    // A loop in the page tree is damage, not depth.
    openAnswering(makePdf({"<< /Type /Catalog /Pages 2 0 R >>",
                       "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                       "<< /Type /Pages /Count 1 /Parent 2 0 R /Kids [2 0 R] >>"}), PD_ERR_DAMAGED);
}

TEST(Depth, FieldTreesAreFollowedToTheLimitAndRefusedPastIt) {
    {
        Owned doc = openBytes(fieldTree(PD_MAX_TREE_DEPTH));
        auto fields = fieldsOf(doc.get());
        ASSERT_EQ(fields.size(), 1u);
        const std::u16string name = fieldName(fields[0].get());
        EXPECT_EQ(std::count(name.begin(), name.end(), u'.'), PD_MAX_TREE_DEPTH - 1);
        EXPECT_EQ(name.substr(name.size() - 6), u".f1000");
        PDAtom type = 0;
        ASSERT_EQ(PDFieldGetType(fields[0].get(), &type), PD_OK); // from the root
        EXPECT_EQ(type, PD_ATOM_Tx);
        EXPECT_EQ(findField(doc.get(), name).get(), fields[0].get());

        // Nothing makes the tree deeper than the limit: not a name of more parts, nor a
        // field with kids moved under the deepest one.
        PDField made = nullptr;
        const std::u16string deeper = name + u".x";
        EXPECT_EQ(PDDocCreateField(doc.get(), deeper.data(), uint32_t(deeper.size()), PD_ATOM_Tx,
                                   0, &made),
                  PD_ERR_TOO_DEEP);
        EXPECT_EQ(made, nullptr);
        Owned kid = createField(doc.get(), "a.b", PD_ATOM_Tx);
        Owned parent = findField(doc.get(), "a");
        const std::u16string under = name.substr(0, name.rfind(u'.')) + u".a";
        EXPECT_EQ(PDDocRenameField(doc.get(), parent.get(), under.data(), uint32_t(under.size())),
                  PD_ERR_TOO_DEEP);
        EXPECT_EQ(fieldName(kid.get()), u"a.b");
        EXPECT_EQ(findField(doc.get(), "a.b").get(), kid.get());
        EXPECT_EQ(fieldsOf(doc.get()).size(), 2u);
    }

    // One more level, and forty thousand (where the walks of the form used to stop at 64
    // levels without a word and make names up from the lowest ones), are refused at once;
    // so is a form whose deep tree only the widgets' /Parent links lead up, as walks that
    // look for roots /Fields misses go.
    for (size_t levels : {size_t{PD_MAX_TREE_DEPTH} + 1, size_t{40000}}) {
        const auto start = Clock::now();
        std::string listed = fieldTree(levels);
        openAnswering(listed, PD_ERR_TOO_DEEP);
        const std::string fields = "/AcroForm << /Fields [4 0 R] >> ";
        listed.replace(listed.find(fields), fields.size(), std::string(fields.size(), ' '));
        openAnswering(listed, PD_ERR_TOO_DEEP);
        EXPECT_LT(secondsSince(start), 10) << levels;
    }

    // Damage that the walks of the form would mend past the limit: k, listed under the
    // last of 600 fields, has no /Parent, and 600 fields whose /Parent links lead up to k
    // (but which no /Kids list) hold the widget. Either way is within the limit, but giving
    // k the parent it is listed under would put 1,201 fields above the widget. The form is
    // read; what is saved opens again, with the same fields.
    {
        const size_t chain = 600, k = chain + 4, widget = k + chain + 1;
        std::vector<std::string> objects{
            "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>",
            "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [" + ref(widget) +
                "] >>"};
        for (size_t i = 1; i <= chain; ++i)
            objects.push_back("<< /T (a" + std::to_string(i) + ") /FT /Tx /Kids [" +
                              ref(i + 4) + "]" + (i > 1 ? " /Parent " + ref(i + 2) : "") + " >>");
        objects.push_back("<< /T (k) /FT /Tx >>");
        for (size_t i = 1; i <= chain; ++i)
            objects.push_back("<< /T (b" + std::to_string(i) + ") /FT /Tx /Parent " +
                              ref(k + i - 1) + " >>");
        objects.push_back("<< /Type /Annot /Subtype /Widget /Rect [10 10 110 30] /P 3 0 R "
                          "/Parent " + ref(widget - 1) + " >>");
        Owned doc = openBytes(makePdf(objects));
        std::vector<std::u16string> names;
        for (auto& f : fieldsOf(doc.get()))
            names.push_back(fieldName(f.get()));
        ASSERT_FALSE(names.empty());
        void* data = nullptr;
        size_t size = 0;
        ASSERT_EQ(PDDocSaveMem(doc.get(), &data, &size), PD_OK);
        const std::string written(static_cast<const char*>(data), size);
        PDFreeBuffer(data);
        Owned again = openAnswering(written, PD_OK);
        std::vector<std::u16string> namesAgain;
        for (auto& f : fieldsOf(again.get()))
            namesAgain.push_back(fieldName(f.get()));
        EXPECT_EQ(namesAgain, names);
    }
}

TEST(Depth, DeepOutlinesAreKeptAsTheyAre) {
    // Outlines are nobody's business here but the writer's, which queues indirect objects.
    constexpr size_t kLevels = 40000;
    std::vector<std::string> objects{"<< /Type /Catalog /Pages 2 0 R /Outlines 4 0 R >>",
                                     "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                                     "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
                                     "<< /Type /Outlines /First 5 0 R /Last 5 0 R /Count 1 >>"};
    for (size_t level = 1; level <= kLevels; ++level) {
        const size_t self = level + 4;
        const std::string kid =
            level < kLevels ? " /First " + ref(self + 1) + " /Last " + ref(self + 1) + " /Count 1"
                            : "";
        objects.push_back("<< /Title (A#B " + std::to_string(level) + ") /Parent " +
                          ref(self - 1) + " /Dest [3 0 R /Fit] /SE /N#23" + kid + " >>");
    }
    const auto start = Clock::now();
    Owned doc = openBytes(makePdf(objects));
    Owned field = createField(doc.get(), "after", PD_ATOM_Tx);
    uint32_t freed = 0;
    ASSERT_EQ(PDDocCollectGarbage(doc.get(), &freed), PD_OK);
    void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(PDDocSaveMem(doc.get(), &data, &size), PD_OK);
    const std::string written(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    EXPECT_NE(written.find("(A#B 40000)"), std::string::npos);
    Owned again = openBytes(written);
    EXPECT_EQ(fieldsOf(again.get()).size(), 1u);
    EXPECT_LT(secondsSince(start), 20);
}

// A GoToE action made from a new dictionary, as the widget clipboard makes them.
Owned goToE(PDDoc doc) {
    Owned dict = Owned([&] {
        PDObject d = nullptr;
        EXPECT_EQ(PDDocCreateDictObject(doc, &d), PD_OK);
        return d;
    }());
    EXPECT_EQ(PDObjectDictPutName(dict.get(), PD_ATOM_S, PD_ATOM_GoToE), PD_OK);
    PDAction action = nullptr;
    EXPECT_EQ(PDCreateActionFromObject(doc, dict.get(), &action), PD_OK);
    return Owned(action);
}

TEST(Depth, ChainsOfActionsMadeFromDictionariesAreWrittenFlat) {
    // Each action made from a dictionary stands for that dictionary; chained, they used to
    // nest inside each other, and a chain of 20,000 ran qpdf's writer out of stack.
    constexpr size_t kLength = 20000;
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    FieldAndWidget text = addField(doc.get(), pg.get(), "text", PD_ATOM_Tx, rect(10, 10, 110, 30));
    const auto start = Clock::now();
    Owned first = goToE(doc.get()), previous;
    ASSERT_EQ(PDWidgetAnnotSetMouseUpAction(text.widget.get(), first.get()), PD_OK);
    for (size_t i = 1; i < kLength; ++i) {
        Owned action = goToE(doc.get());
        ASSERT_EQ(PDActionSetNext(previous ? previous.get() : first.get(), action.get()), PD_OK);
        // The handle still stands for the action in the chain.
        ASSERT_EQ(PDActionGoToESetNewWindow(action.get(), i % 2), PD_OK);
        previous = std::move(action);
    }
    EXPECT_EQ(PDActionSetNext(previous.get(), first.get()), PD_ERR_CYCLE);
    void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(PDDocSaveMem(doc.get(), &data, &size), PD_OK);
    const std::string written(static_cast<const char*>(data), size);
    PDFreeBuffer(data);

    Owned again = openBytes(written);
    Owned widget = std::move(annotsOf(page(again.get(), 0).get()).at(0));
    PDAction action = nullptr;
    ASSERT_EQ(PDWidgetAnnotGetMouseUpAction(widget.get(), &action), PD_OK);
    Owned current(action);
    size_t length = 0;
    size_t newWindows = 0;
    while (current) {
        ++length;
        PDBool newWindow = 0;
        if (PDActionGoToEGetNewWindow(current.get(), &newWindow) == PD_OK && newWindow)
            ++newWindows;
        uint32_t next = 0;
        ASSERT_EQ(PDActionGetNextLength(current.get(), &next), PD_OK);
        PDAction successor = nullptr;
        if (next) {
            ASSERT_EQ(PDActionGetNext(current.get(), 0, &successor), PD_OK);
        }
        current.reset(successor);
    }
    EXPECT_EQ(length, kLength);
    EXPECT_EQ(newWindows, kLength / 2);
    EXPECT_LT(secondsSince(start), 20);

    // A target that holds its own action would make a dictionary hold itself.
    Owned loop = goToE(doc.get());
    PDObject target = nullptr;
    ASSERT_EQ(PDDocCreateDictObject(doc.get(), &target), PD_OK);
    Owned held(target);
    ASSERT_EQ(PDObjectDictPut(target, PD_ATOM_T, loop.get()), PD_OK);
    EXPECT_EQ(PDActionGoToESetTarget(loop.get(), target), PD_ERR_CYCLE);
}

} // namespace
