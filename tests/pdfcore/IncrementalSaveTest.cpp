// Saves that append an update: the file's bytes stay as they were, and what a reader finds
// through the update is, object for object, what a whole write of the same session holds.
#include "TestSupport.h"

#ifndef POINTERHOLDER_TRANSITION
#define POINTERHOLDER_TRANSITION 4
#endif
#include <qpdf/QPDF.hh>

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

using namespace pdtest;

namespace {

std::string fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string savedMem(PDDoc doc, uint32_t flags) {
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(PDDocSaveMemEx(doc, flags, &data, &size), PD_OK);
    std::string bytes(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    return bytes;
}

// Whether two files hold the same document: every object reached from the trailer's
// /Root and /Info has the same value in both, references matched pair by pair (a whole
// write numbers the objects anew) and streams compared by their decoded data (a whole
// write may compress a stream the update leaves as it is, or the other way round).
class SameDocument {
public:
    SameDocument(const std::string& a, const std::string& b) {
        a_.setSuppressWarnings(true);
        b_.setSuppressWarnings(true);
        a_.processMemoryFile("a", a.data(), a.size());
        b_.processMemoryFile("b", b.data(), b.size());
    }

    // "" when the same, else the path to the first difference.
    std::string difference() {
        for (const char* key : {"/Root", "/Info"}) {
            if (!same(a_.getTrailer().getKey(key), b_.getTrailer().getKey(key), key))
                return where_;
        }
        return {};
    }

private:
    bool differ(const std::string& path) {
        where_ = path;
        return false;
    }

    bool same(QPDFObjectHandle a, QPDFObjectHandle b, const std::string& path) {
        if (a.isIndirect() != b.isIndirect()) return differ(path + " (indirect in one only)");
        if (a.isIndirect()) {
            auto [it, first] = pairs_.emplace(a.getObjGen(), b.getObjGen());
            if (!first) return it->second == b.getObjGen() || differ(path + " (other object)");
        }
        if (a.getTypeCode() != b.getTypeCode()) return differ(path + " (type)");
        if (a.isStream()) {
            std::shared_ptr<Buffer> da, db;
            try {
                da = a.getStreamData();
                db = b.getStreamData();
            } catch (const std::exception&) {  // a filter qpdf does not decode
                da = a.getRawStreamData();
                db = b.getRawStreamData();
            }
            if (da->getSize() != db->getSize() ||
                std::memcmp(da->getBuffer(), db->getBuffer(), da->getSize()) != 0)
                return differ(path + " (data)");
            return sameEntries(a.getDict(), b.getDict(), path, true);
        }
        if (a.isDictionary()) return sameEntries(a, b, path, false);
        if (a.isArray()) {
            if (a.getArrayNItems() != b.getArrayNItems()) return differ(path + " (length)");
            for (int i = 0; i < a.getArrayNItems(); ++i) {
                if (!same(a.getArrayItem(i), b.getArrayItem(i), path + "[" + std::to_string(i) + "]"))
                    return false;
            }
            return true;
        }
        return a.unparseResolved() == b.unparseResolved() || differ(path + " (value)");
    }

    bool sameEntries(QPDFObjectHandle a, QPDFObjectHandle b, const std::string& path,
                     bool stream) {
        std::set<std::string> keys = a.getKeys();
        for (const auto& k : b.getKeys()) keys.insert(k);
        for (const auto& k : keys) {
            if (stream && (k == "/Length" || k == "/Filter" || k == "/DecodeParms")) continue;
            if (!same(a.getKey(k), b.getKey(k), path + k)) return false;
        }
        return true;
    }

    QPDF a_, b_;
    std::map<QPDFObjGen, QPDFObjGen> pairs_;
    std::string where_;
};

// Edits that reach most kinds of objects: a rename (the field and the name index), a value
// (the field and its widgets' drawings), a widget moved, a new field with its widget (new
// objects, /Fields, the page's /Annots) and a widget taken out of its field and page (a
// field then left out of the file). round gives the names and values their own text.
void edit(PDDoc doc, int round) {
    const std::string tag = std::to_string(round);
    auto fields = fieldsOf(doc);
    ASSERT_FALSE(fields.empty());
    const auto first = fieldName(fields[0].get());
    const auto renamed = first + u"_r" + u16(tag);
    EXPECT_EQ(PDDocRenameField(doc, fields[0].get(), renamed.data(), uint32_t(renamed.size())),
              PD_OK);
    for (auto& f : fields) {
        PDAtom type = 0;
        if (PDFieldGetType(f.get(), &type) == PD_OK && type == PD_ATOM_Tx) {
            EXPECT_EQ(setValue(f.get(), u"update " + u16(tag)), PD_OK);
            break;
        }
    }
    if (fields.size() > 1) {
        auto widgets = widgetsOf(fields[1].get());
        PDRect r{};
        if (!widgets.empty() && PDAnnotGetRect(widgets[0].get(), &r) == PD_OK) {
            r.left += 5;
            r.right += 5;
            EXPECT_EQ(PDAnnotSetRect(widgets[0].get(), &r), PD_OK);
        }
    }
    Owned pg = page(doc, 0);
    addField(doc, pg.get(), "Appended" + tag, PD_ATOM_Tx, rect(20, 20, 140, 40));
    auto last = widgetsOf(fields.back().get());
    if (fields.size() > 2 && !last.empty()) {
        PDPage on = nullptr;
        if (PDAnnotGetPage(last[0].get(), &on) == PD_OK && on) {
            Owned held(on);
            EXPECT_EQ(PDPageRemoveAnnot(on, last[0].get()), PD_OK);
        }
        EXPECT_EQ(PDFieldRemoveWidget(fields.back().get(), last[0].get()), PD_OK);
    }
}

std::vector<std::u16string> fieldNames(PDDoc doc) {
    std::vector<std::u16string> names;
    for (auto& f : fieldsOf(doc)) names.push_back(fieldName(f.get()));
    return names;
}

class IncrementalSave : public ::testing::TestWithParam<const char*> {};

// Two rounds of edits, each saved both ways from the same session: the update keeps the
// file's bytes in front, reads back clean, and holds what the whole write holds.
TEST_P(IncrementalSave, HoldsWhatAWholeWriteHolds) {
    const std::string path = corpus(GetParam());
    const std::string original = fileBytes(path);
    Owned doc = openDoc(path);
    PDBool can = 0;
    ASSERT_EQ(PDDocCanSaveIncrementally(doc.get(), &can), PD_OK);
    ASSERT_TRUE(can);
    EXPECT_EQ(savedMem(doc.get(), PD_SAVE_INCREMENTAL), original) << "nothing changed yet";

    ScratchDir dir;
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        edit(doc.get(), round);
        const std::string appended = savedMem(doc.get(), PD_SAVE_INCREMENTAL);
        const std::string whole = savedMem(doc.get(), 0);
        ASSERT_GT(appended.size(), original.size());
        EXPECT_EQ(appended.compare(0, original.size(), original), 0) << "the file's bytes changed";
        EXPECT_EQ(SameDocument(appended, whole).difference(), "");

        const std::string out = dir.file("appended.pdf");
        ASSERT_EQ(PDDocSaveEx(doc.get(), out.c_str(), PD_SAVE_INCREMENTAL), PD_OK);
        EXPECT_EQ(fileBytes(out), appended);
        EXPECT_EQ(qpdfCheck(out), 0);
        // The field left without widgets is in memory still, and in neither file.
        Owned a = openBytes(appended), w = openBytes(whole);
        ASSERT_TRUE(a && w);
        EXPECT_EQ(fieldNames(a.get()), fieldNames(w.get()));
    }
}

INSTANTIATE_TEST_SUITE_P(Corpus, IncrementalSave,
                         ::testing::Values("qpdf-field-types.pdf", "pdfjs-irs-f1040-prefilled.pdf",
                                           "pdflib-hybrid-xfa-fields.pdf",
                                           "pyhanko-two-fields-signed-twice.pdf",
                                           "qpdf-digitally-signed.pdf",
                                           "qpdf-rotated-copied-annotations.pdf",
                                           "pdfbox-basic-fields-all-types.pdf"));

// A widget taken out of a group of radio buttons into a new field of its own, as a rename
// does: it keeps the colour its group gave its glyph, and the drawings it showed stay the
// file's objects, so that the update carries the widget and the field, not new drawings.
// Moved into a field of another value, a widget is drawn anew.
TEST(IncrementalSaveMove, AMovedWidgetKeepsItsLookAndItsDrawings) {
    constexpr uint32_t kBlue = 0xFF4182DD;
    std::string file;
    {
        Owned made = createDoc();
        Owned pg = page(made.get(), 0);
        Owned group = createField(made.get(), "group", PD_ATOM_Btn, PD_FIELD_RADIO);
        Owned first = addWidget(made.get(), group.get(), pg.get(), rect(20, 700, 34, 714));
        ASSERT_EQ(PDWidgetAnnotSetFontColor(first.get(), kBlue), PD_OK);
        addWidget(made.get(), group.get(), pg.get(), rect(40, 700, 54, 714));
        file = savedMem(made.get(), 0);
    }
    Owned doc = openBytes(file);
    ASSERT_TRUE(doc);
    Owned group = findField(doc.get(), "group");
    auto widgets = widgetsOf(group.get());
    ASSERT_EQ(widgets.size(), 2u);
    ASSERT_EQ(PDFieldRemoveWidget(group.get(), widgets[1].get()), PD_OK);
    Owned alone = createField(doc.get(), "alone", PD_ATOM_Btn, PD_FIELD_RADIO);
    ASSERT_EQ(PDFieldAppendWidget(alone.get(), widgets[1].get()), PD_OK);
    uint32_t colour = 0;
    ASSERT_EQ(PDWidgetAnnotGetFontColor(widgets[1].get(), &colour), PD_OK);
    EXPECT_EQ(colour, kBlue);

    const std::string appended = savedMem(doc.get(), PD_SAVE_INCREMENTAL);
    ASSERT_GT(appended.size(), file.size());
    const std::string update = appended.substr(file.size());
    EXPECT_EQ(update.find("/Form"), std::string::npos) << update;
    EXPECT_NE(update.find("(alone)"), std::string::npos);

    // Into a field of another value a widget is drawn anew: it no longer shows the value
    // of the field it left.
    Owned pg = page(doc.get(), 0);
    Owned text = createField(doc.get(), "text", PD_ATOM_Tx);
    addWidget(doc.get(), text.get(), pg.get(), rect(20, 600, 120, 620));
    Owned moved = addWidget(doc.get(), text.get(), pg.get(), rect(20, 570, 120, 590));
    ASSERT_EQ(setValue(text.get(), u"kept"), PD_OK);
    savedMem(doc.get(), 0);  // drawn
    ASSERT_EQ(PDFieldRemoveWidget(text.get(), moved.get()), PD_OK);
    Owned blank = createField(doc.get(), "blank", PD_ATOM_Tx);
    ASSERT_EQ(PDFieldAppendWidget(blank.get(), moved.get()), PD_OK);
    const std::string saved = savedMem(doc.get(), 0);
    QPDF read;
    read.processMemoryFile("saved", saved.data(), saved.size());
    std::map<std::string, std::string> shown;
    for (auto& field : read.getRoot().getKey("/AcroForm").getKey("/Fields").aitems()) {
        for (auto& kid : field.getKey("/Kids").aitems()) {
            if (!kid.getKey("/AP").getKey("/N").isStream()) continue;  // a button's states
            auto data = kid.getKey("/AP").getKey("/N").getStreamData();
            shown[field.getKey("/T").getUTF8Value()] +=
                std::string(reinterpret_cast<const char*>(data->getBuffer()), data->getSize());
        }
    }
    EXPECT_NE(shown["text"].find("(kept)"), std::string::npos);
    EXPECT_EQ(shown["blank"].find("(kept)"), std::string::npos) << shown["blank"];

    // So is one resized while it had no field, though the field it joins reads the same.
    ASSERT_EQ(PDFieldRemoveWidget(blank.get(), moved.get()), PD_OK);
    const PDRect wider = rect(20, 570, 220, 590);
    ASSERT_EQ(PDAnnotSetRect(moved.get(), &wider), PD_OK);
    savedMem(doc.get(), 0);
    ASSERT_EQ(PDFieldAppendWidget(blank.get(), moved.get()), PD_OK);
    const std::string resized = savedMem(doc.get(), 0);
    QPDF again;
    again.processMemoryFile("resized", resized.data(), resized.size());
    for (auto& field : again.getRoot().getKey("/AcroForm").getKey("/Fields").aitems()) {
        if (field.getKey("/T").getUTF8Value() != "blank") continue;
        auto drawing = field.getKey("/Kids").getArrayItem(0).getKey("/AP").getKey("/N");
        EXPECT_EQ(drawing.getDict().getKey("/BBox").getArrayItem(2).getNumericValue(), 200);
    }
}

// Saved over the file it was read from, a document appends its update in place, and each
// later save appends only what changed since; a file changed by someone else is replaced
// whole; an append that does not fit leaves the file as it was.
TEST(IncrementalSaveInPlace, AppendsWhatChangedSinceTheLastSave) {
    ScratchDir dir;
    const std::string path = dir.file("form.pdf"), link = dir.file("link.pdf");
    const std::string original = fileBytes(corpus("pyhanko-two-fields-signed-twice.pdf"));
    std::ofstream(path, std::ios::binary) << original;
    ASSERT_EQ(::link(path.c_str(), link.c_str()), 0);
    Owned doc = openDoc(path);
    ASSERT_EQ(PDDocSaveEx(doc.get(), path.c_str(), PD_SAVE_INCREMENTAL), PD_OK);
    EXPECT_EQ(fileBytes(path), original) << "nothing changed, nothing appended";

    edit(doc.get(), 1);
    ASSERT_EQ(PDDocSaveEx(doc.get(), path.c_str(), PD_SAVE_INCREMENTAL), PD_OK);
    const std::string first = fileBytes(path);
    EXPECT_EQ(first, savedMem(doc.get(), PD_SAVE_INCREMENTAL)) << "the first update differs";
    EXPECT_EQ(fileBytes(link), first) << "the file was replaced, not appended to";

    // The second update holds the second round's changes only, after the first update.
    PDRect r{};
    Owned added = findField(doc.get(), "Appended1");
    ASSERT_TRUE(added);
    auto widgets = widgetsOf(added.get());
    ASSERT_EQ(PDAnnotGetRect(widgets[0].get(), &r), PD_OK);
    r.right += 30;
    ASSERT_EQ(PDAnnotSetRect(widgets[0].get(), &r), PD_OK);
    ASSERT_EQ(PDDocSaveEx(doc.get(), path.c_str(), PD_SAVE_INCREMENTAL), PD_OK);
    const std::string second = fileBytes(path);
    ASSERT_GT(second.size(), first.size());
    EXPECT_EQ(second.compare(0, first.size(), first), 0);
    EXPECT_LT(second.size() - first.size(), first.size() - original.size());
    EXPECT_EQ(fileBytes(link), second);
    EXPECT_EQ(qpdfCheck(path), 0);
    EXPECT_EQ(SameDocument(second, savedMem(doc.get(), 0)).difference(), "");
    EXPECT_EQ(run("pdfsig '" + path + "' 2>&1 | grep -c 'Signature is Valid'"), "2\n");

    // Someone else's change: the file is written whole, from the bytes read.
    std::ofstream(path, std::ios::binary | std::ios::app) << "\n% another writer\n";
    edit(doc.get(), 2);
    ASSERT_EQ(PDDocSaveEx(doc.get(), path.c_str(), PD_SAVE_INCREMENTAL), PD_OK);
    EXPECT_EQ(fileBytes(path), savedMem(doc.get(), PD_SAVE_INCREMENTAL));
    EXPECT_EQ(fileBytes(link), second + "\n% another writer\n") << "the link was written";

    // A staged update is appended at the commit, and only if the file is as it was.
    Owned again = openDoc(path);
    const std::string read = fileBytes(path);
    edit(again.get(), 3);
    PDStagedFile staged = nullptr;
    ASSERT_EQ(PDDocStage(again.get(), path.c_str(), PD_SAVE_INCREMENTAL, &staged), PD_OK);
    PDStagedFileDiscard(staged);
    EXPECT_EQ(fileBytes(path), read) << "a discarded update was written";
    ASSERT_EQ(PDDocStage(again.get(), path.c_str(), PD_SAVE_INCREMENTAL, &staged), PD_OK);
    std::ofstream(path, std::ios::binary | std::ios::app) << " ";
    EXPECT_EQ(PDStagedFileCommit(staged), PD_ERR_IO);
    EXPECT_EQ(fileBytes(path), read + " ");

    // Past the file size limit the append fails and is cut off again.
    Owned third = openDoc(path);
    edit(third.get(), 4);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = old;
    limit.rlim_cur = read.size() + 200;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const PDResult r4 = PDDocSaveEx(third.get(), path.c_str(), PD_SAVE_INCREMENTAL);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(r4, PD_ERR_FILE_LIMIT);
    EXPECT_EQ(fileBytes(path), read + " ");
}

// What cannot take an update is written whole: a new document, an encrypted file (the
// appended objects would need its key), a file qpdf repaired while reading it.
TEST(IncrementalSaveRefused, WritesTheFileWhole) {
    for (const char* name : {"", "jspdf-encrypted-acroform.pdf", "pdfjs-damaged-signed-fuzzed.pdf"}) {
        SCOPED_TRACE(name);
        Owned doc = *name ? openDoc(corpus(name)) : createDoc();
        PDBool can = 1;
        ASSERT_EQ(PDDocCanSaveIncrementally(doc.get(), &can), PD_OK);
        EXPECT_FALSE(can);
        uint32_t pages = 0;
        ASSERT_EQ(PDDocGetNumPages(doc.get(), &pages), PD_OK);
        if (pages > 0) {
            addField(doc.get(), page(doc.get(), 0).get(), "Added", PD_ATOM_Tx,
                     rect(20, 20, 140, 40));
        }
        const std::string appended = savedMem(doc.get(), PD_SAVE_INCREMENTAL);
        EXPECT_EQ(SameDocument(appended, savedMem(doc.get(), 0)).difference(), "");
        if (*name) {
            EXPECT_NE(appended.compare(0, 1024, fileBytes(corpus(name)), 0, 1024), 0);
        }
    }
    void* data = nullptr;
    size_t size = 0;
    Owned doc = createDoc();
    EXPECT_EQ(PDDocSaveMemEx(doc.get(), PD_SAVE_FORCE, &data, &size), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(data, nullptr);
}

}  // namespace

// Whether a document is signed decides how it is saved by default: a file's signatures are
// found, and a document without any stays so.
TEST(SignedDocument, TheSignaturesOfTheFileAreFound) {
    auto isSigned = [](PDDoc doc) {
        PDBool yes = 2;
        EXPECT_EQ(PDDocIsSigned(doc, &yes), PD_OK);
        return yes == 1;
    };
    for (const char* file : {"pyhanko-two-fields-signed-twice.pdf", "qpdf-digitally-signed.pdf"})
        EXPECT_TRUE(isSigned(openDoc(corpus(file)).get())) << file;
    EXPECT_FALSE(isSigned(openDoc(corpus("pyhanko-textfield-group-unsigned-sig.pdf")).get()));
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    Owned sig = createField(doc.get(), "sig", PD_ATOM_Sig);
    addWidget(doc.get(), sig.get(), pg.get(), rect(20, 700, 120, 730));
    EXPECT_FALSE(isSigned(doc.get()));
    EXPECT_FALSE(isSigned(openBytes(savedMem(doc.get(), 0)).get()));
}
