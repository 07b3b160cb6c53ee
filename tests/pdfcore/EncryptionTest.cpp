// Encrypted documents. Each kind of encryption qpdf makes (RC4 of 40 and 128 bits, AES-128
// with and without encrypted metadata, AES-256) over a small form, and the encrypted corpus
// files: opened with the user or the owner password, what the permissions grant, a field
// changed and the document saved. The saved file keeps the encryption dictionary as it was
// (so the handler, method, key length, permissions and both passwords) and opens with the
// same passwords in qpdf, pypdf, poppler and MuPDF, with the change and the rest of the form
// intact. Also the text forms of a password, and what cannot be opened.
#include "FormListing.h"

using namespace pdtest;

namespace {

const std::string kUser = "user-pw";
const std::string kOwner = "owner-pw";

PDResult openWith(const std::string& path, const std::u16string& password, Owned& out) {
    PDDoc doc = nullptr;
    PDResult r = PDDocOpenWithPassword(path.c_str(), password.data(),
                                       static_cast<uint32_t>(password.size()), &doc);
    out.reset(doc);
    return r;
}

struct Security {
    PDBool encrypted = -1, owner = -1;
    uint32_t permissions = 0xDEAD;
};
Security securityOf(PDDoc doc) {
    Security s;
    EXPECT_EQ(PDDocIsEncrypted(doc, &s.encrypted), PD_OK);
    EXPECT_EQ(PDDocOpenedWithOwnerPassword(doc, &s.owner), PD_OK);
    EXPECT_EQ(PDDocGetPermissions(doc, &s.permissions), PD_OK);
    return s;
}

// The encryption dictionary and the first word of /ID, as pypdf reads them
// (encryption_dict.py): from them a reader checks the passwords and makes the file key.
// A missing /Length of revision 2 reads as its default, 40 bits.
nlohmann::json encryptionOf(const std::string& path) {
    const std::string script =
        (std::filesystem::path(__FILE__).parent_path() / "encryption_dict.py").string();
    int status = -1;
    std::string out = run(std::string(QF_PYTHON) + " '" + script + "' '" + path + "'", &status);
    EXPECT_EQ(status, 0) << out;
    auto j = nlohmann::json::parse(out, nullptr, false);
    auto& encrypt = j["encrypt"];
    if (encrypt.is_object() && encrypt.value("/V", 0) == 1 && !encrypt.contains("/Length"))
        encrypt["/Length"] = 40;
    return j;
}

// The exit status of a shell command, its output dropped.
int status(const std::string& command) {
    int s = -1;
    run(command + " >/dev/null 2>&1", &s);
    return s;
}

// A form of three fields on one page: a text field, a check box and a combo box.
void writeForm(const std::string& path) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto name = addField(doc.get(), pg.get(), "name", PD_ATOM_Tx, rect(72, 700, 300, 724));
    auto agree = addField(doc.get(), pg.get(), "agree", PD_ATOM_Btn, rect(72, 660, 90, 678));
    auto colour = createField(doc.get(), "colour", PD_ATOM_Ch, PD_FIELD_COMBO);
    EXPECT_EQ(insertOption(colour.get(), 0, u"Red", u"r"), PD_OK);
    EXPECT_EQ(insertOption(colour.get(), 1, u"Blue", u"b"), PD_OK);
    addWidget(doc.get(), colour.get(), pg.get(), rect(72, 620, 200, 644));
    EXPECT_EQ(setValue(name.field.get(), u"Ada"), PD_OK);
    EXPECT_EQ(setValue(colour.get(), u"r"), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
}

// Saves the document (opened with one of the passwords) after a change, and checks the
// file against the source: the same encryption dictionary and /ID word, the same passwords
// in every reader, the fields pypdf reads as expected and as pdfcore had them. userPassword
// may be empty.
void checkSavedKeepsEncryption(PDDoc doc, const std::string& source, const ScratchDir& dir,
                               const std::string& userPassword, const std::string& ownerPassword,
                               const Listing& expected) {
    const std::string out = dir.file("saved.pdf");
    ASSERT_EQ(PDDocSave(doc, out.c_str()), PD_OK);
    const Listing listing = readWithPdfcore(doc);

    const auto before = encryptionOf(source), after = encryptionOf(out);
    ASSERT_TRUE(after.contains("encrypt") && !after["encrypt"].is_null()) << after.dump();
    EXPECT_EQ(after["encrypt"], before["encrypt"]) << "the encryption dictionary";
    EXPECT_EQ(after["id0"], before["id0"]) << "the first word of /ID";

    // qpdf finds the file sound with either password, MuPDF draws it, poppler reads it with
    // each as what it is; a wrong one opens nothing.
    for (const auto& pw : {userPassword, ownerPassword}) {
        EXPECT_EQ(status("qpdf --check --password='" + pw + "' '" + out + "'"), 0) << pw;
        EXPECT_EQ(status("mutool draw -q -p '" + pw + "' -o /dev/null '" + out + "'"), 0) << pw;
    }
    EXPECT_EQ(status("pdftotext -upw '" + userPassword + "' '" + out + "' -"), 0);
    EXPECT_EQ(status("pdftotext -opw '" + ownerPassword + "' '" + out + "' -"), 0);
    if (!userPassword.empty()) {
        EXPECT_NE(status("qpdf --check --password=wrong '" + out + "'"), 0);
        EXPECT_NE(status("pdftotext '" + out + "' -"), 0) << "poppler opened it without one";
        EXPECT_NE(status("mutool draw -q -p wrong -o /dev/null '" + out + "'"), 0);
    }

    // pypdf reads the fields expected with either password.
    for (const auto& pw : {userPassword, ownerPassword}) {
        Listing read = readWithPypdf(out, pw);
        ASSERT_EQ(read.error, "") << pw;
        EXPECT_TRUE(read.encrypted);
        EXPECT_EQ(read.order, expected.order);
        expectSameFields(expected.fields, read.fields, "pypdf with '" + pw + "'");
    }

    // pdfcore opens it again with both, and tells them apart.
    for (const auto& [pw, isOwner] : {std::pair{userPassword, 0}, std::pair{ownerPassword, 1}}) {
        Owned again;
        ASSERT_EQ(openWith(out, utf16(pw), again), PD_OK) << pw;
        const Security s = securityOf(again.get());
        EXPECT_EQ(s.encrypted, 1);
        // An empty owner password matches both ways, as it does in the source.
        if (ownerPassword != userPassword) {
            EXPECT_EQ(s.owner, isOwner) << pw;
        }
        expectSameFields(listing.fields, readWithPdfcore(again.get()).fields,
                         "pdfcore reopened with '" + pw + "'");
    }

    // Drawn by poppler, the encrypted file and the copy without encryption are the same.
    void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(PDDocSaveMemDecrypted(doc, &data, &size), PD_OK);
    const std::string plain = dir.file("decrypted.pdf");
    std::ofstream(plain, std::ios::binary).write(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    EXPECT_TRUE(encryptionOf(plain)["encrypt"].is_null());
    const Raster drawnPlain = render(plain, dir.file("plain"));
    const Raster drawnSaved = render(out, dir.file("saved"), 0, userPassword);
    ASSERT_FALSE(drawnPlain.rgb.empty());
    EXPECT_TRUE(drawnSaved.rgb == drawnPlain.rgb) << "the page drawn differs";
}

// ---- each kind of encryption --------------------------------------------------------------

struct Kind {
    const char* name;
    const char* qpdfOptions;  // after --encrypt USER OWNER
    uint32_t permissions;     // what they grant, in pdfcore's terms
};

const Kind kKinds[] = {
    // Revision 2: copying stands for accessibility, changing for assembling, annotating
    // for filling in.
    {"Rc4Bits40", "40 --print=n --modify=n --extract=n --annotate=y",
     PD_PERM_FILL_FORM | PD_PERM_ANNOTATE},
    {"Rc4Bits128", "128 --use-aes=n --print=low --modify=form",
     PD_PERM_PRINT | PD_PERM_COPY | PD_PERM_ACCESSIBILITY | PD_PERM_ASSEMBLE |
         PD_PERM_FILL_FORM},
    {"Aes128", "128 --use-aes=y --modify=annotate --extract=n",
     PD_PERM_PRINT | PD_PERM_PRINT_HIGH | PD_PERM_ACCESSIBILITY | PD_PERM_ASSEMBLE |
         PD_PERM_FILL_FORM | PD_PERM_ANNOTATE},
    {"Aes128ClearMetadata", "128 --use-aes=y --cleartext-metadata", PD_PERM_ALL},
    {"Aes256", "256 --print=none --modify=none", PD_PERM_COPY | PD_PERM_ACCESSIBILITY},
};

class EncryptedKind : public ::testing::TestWithParam<Kind> {};

TEST_P(EncryptedKind, OpensWithEitherPasswordAndSavesWithTheSameEncryption) {
    const Kind& kind = GetParam();
    ScratchDir dir;
    const std::string form = dir.file("form.pdf"), source = dir.file("encrypted.pdf");
    writeForm(form);
    int s = -1;
    const std::string err = run("qpdf --allow-weak-crypto --encrypt " + kUser + " " + kOwner +
                                    " " + kind.qpdfOptions + " -- '" + form + "' '" + source +
                                    "' 2>&1",
                                &s);
    ASSERT_EQ(s, 0) << err;

    Owned doc;
    EXPECT_EQ(openWith(source, u"", doc), PD_ERR_PASSWORD);
    EXPECT_FALSE(doc);
    EXPECT_EQ(openWith(source, u"wrong", doc), PD_ERR_PASSWORD);
    EXPECT_EQ(openWith(source, utf16(kOwner), doc), PD_OK);
    Security sec = securityOf(doc.get());
    EXPECT_EQ(sec.encrypted, 1);
    EXPECT_EQ(sec.owner, 1);
    EXPECT_EQ(sec.permissions, kind.permissions) << "the permissions bind one with the owner "
                                                    "password as well: the caller decides";

    ASSERT_EQ(openWith(source, utf16(kUser), doc), PD_OK);
    sec = securityOf(doc.get());
    EXPECT_EQ(sec.owner, 0);
    EXPECT_EQ(sec.permissions, kind.permissions);
    EXPECT_EQ(setValue(findField(doc.get(), "name").get(), u"Grace \u00e9t\u00e9"), PD_OK);
    EXPECT_EQ(setValue(findField(doc.get(), "agree").get(), u"Yes"), PD_OK);
    EXPECT_EQ(setValue(findField(doc.get(), "colour").get(), u"b"), PD_OK);
    checkSavedKeepsEncryption(doc.get(), source, dir, kUser, kOwner, readWithPdfcore(doc.get()));
    EXPECT_EQ(fieldValue(findField(doc.get(), "name").get()), u"Grace \u00e9t\u00e9");

    // Saved again after being reopened from the saved file: still the same.
    Owned again;
    ASSERT_EQ(openWith(dir.file("saved.pdf"), utf16(kOwner), again), PD_OK);
    const std::string twice = dir.file("twice.pdf");
    ASSERT_EQ(PDDocSave(again.get(), twice.c_str()), PD_OK);
    EXPECT_EQ(encryptionOf(twice)["encrypt"], encryptionOf(source)["encrypt"]);
    Owned third;
    ASSERT_EQ(openWith(twice, utf16(kUser), third), PD_OK);
    EXPECT_EQ(fieldValue(findField(third.get(), "colour").get()), u"b");
}

INSTANTIATE_TEST_SUITE_P(Qpdf, EncryptedKind, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- the encrypted files of the corpus, both with an empty user password -------------------

struct CorpusFile {
    const char* name;
    const char* field;  // a text field to change
    PDBool owner;       // whether the empty password is the owner password too
    uint32_t permissions;
};

class EncryptedCorpus : public ::testing::TestWithParam<CorpusFile> {};

TEST_P(EncryptedCorpus, KeepsItsEncryptionAndItsFields) {
    const CorpusFile& file = GetParam();
    const std::string source = corpus(file.name);
    ScratchDir dir;
    Owned doc;
    ASSERT_EQ(openWith(source, u"", doc), PD_OK);
    const Security sec = securityOf(doc.get());
    EXPECT_EQ(sec.encrypted, 1);
    EXPECT_EQ(sec.owner, file.owner);
    EXPECT_EQ(sec.permissions, file.permissions);
    // PDDocOpen is the same with the empty password.
    Owned plain = openDoc(source);
    EXPECT_EQ(securityOf(plain.get()).owner, file.owner);

    // The form expected: the fields that qpdf decrypts from the source, with the change.
    // (pypdf's own decryption of the jsPDF file differs in one name: jsPDF wrote an
    // unescaped CR inside the encrypted /T of the check box, which a conforming parser reads
    // as LF before decrypting; pypdf keeps the CR.)
    const std::string reference = dir.file("reference.pdf");
    int s = -1;
    run("qpdf --decrypt '" + source + "' '" + reference + "' 2>&1", &s);
    ASSERT_EQ(s, 0);
    Listing expected = readWithPypdf(reference);
    ASSERT_EQ(expected.error, "");
    ASSERT_TRUE(expected.fields.count(utf16(file.field)));
    expected.fields[utf16(file.field)].value = u"changed";

    const Listing before = readWithPdfcore(doc.get());
    auto field = findField(doc.get(), file.field);
    ASSERT_TRUE(field);
    EXPECT_EQ(setValue(field.get(), u"changed"), PD_OK);
    // The owner password of the AES file is not known: the readers are given the empty user
    // password twice.
    checkSavedKeepsEncryption(doc.get(), source, dir, "", "", expected);
    EXPECT_EQ(readWithPdfcore(doc.get()).order, before.order);
}

INSTANTIATE_TEST_SUITE_P(
    Corpus, EncryptedCorpus,
    ::testing::Values(
        // RC4 of 40 bits, nothing granted, but the owner password is empty as well.
        CorpusFile{"jspdf-encrypted-acroform.pdf", "TestTextBox", 1, 0},
        // AES-128: filling in and annotating, not changing (so no form editing without
        // the owner password).
        CorpusFile{"pikepdf-dd0293-hybrid-xfa.pdf", "form1[0].page1[0].TextField1[0]", 0,
                   PD_PERM_PRINT | PD_PERM_PRINT_HIGH | PD_PERM_ACCESSIBILITY |
                       PD_PERM_FILL_FORM | PD_PERM_ANNOTATE}),
    [](const auto& info) {
        std::string n = info.param.name;
        return n.substr(0, n.find('-'));
    });

// ---- passwords as text ---------------------------------------------------------------------

// Passwords outside ASCII: AES-256 keeps their UTF-8 bytes, the older handlers took bytes of
// another encoding (qpdf makes them in PDFDocEncoding). Typed as text, both open.
TEST(EncryptedPasswords, TextOutsideAsciiOpensEveryRevision) {
    ScratchDir dir;
    const std::string form = dir.file("form.pdf");
    writeForm(form);
    const std::string typed = "p\u00e4ssw\u00f6rd \u20ac";
    for (const char* bits : {"40", "128 --use-aes=n", "128 --use-aes=y", "256"}) {
        const std::string file = dir.file("enc.pdf");
        int s = -1;
        std::string err = run("qpdf --allow-weak-crypto --encrypt '" + typed + "' owner " + bits +
                                  " -- '" + form + "' '" + file + "' 2>&1",
                              &s);
        ASSERT_EQ(s, 0) << err;
        Owned doc;
        EXPECT_EQ(openWith(file, utf16(typed), doc), PD_OK) << bits;
        EXPECT_EQ(openWith(file, u"p\u00e4ssw\u00f6rd", doc), PD_ERR_PASSWORD) << bits;

        // The same from memory.
        const std::string bytes = slurp(file);
        const std::u16string pw = utf16(typed);
        PDDoc raw = nullptr;
        EXPECT_EQ(PDDocOpenMemWithPassword(bytes.data(), bytes.size(), pw.data(),
                                           static_cast<uint32_t>(pw.size()), &raw),
                  PD_OK);
        PDHandleRelease(raw);
        EXPECT_EQ(PDDocOpenMem(bytes.data(), bytes.size(), &raw), PD_ERR_PASSWORD);
        EXPECT_EQ(raw, nullptr);
    }
}

TEST(EncryptedPasswords, BadArgumentsAndWhatCannotBeOpened) {
    ScratchDir dir;
    const std::string form = dir.file("form.pdf");
    writeForm(form);
    PDDoc doc = reinterpret_cast<PDDoc>(1);
    EXPECT_EQ(PDDocOpenWithPassword(form.c_str(), nullptr, 3, &doc), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(doc, nullptr);
    EXPECT_EQ(PDDocOpenWithPassword(nullptr, u"x", 1, &doc), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocOpenWithPassword(form.c_str(), u"x", 1, nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocOpenMemWithPassword(nullptr, 0, u"x", 1, &doc), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocOpenWithPassword(dir.file("missing.pdf").c_str(), u"x", 1, &doc), PD_ERR_IO);
    EXPECT_EQ(PDGetErrMessage(PD_ERR_PASSWORD),
              std::u16string(u"The file is encrypted and the password is missing or wrong"));

    // An unencrypted file opens whatever the password, and grants everything.
    Owned plain;
    ASSERT_EQ(openWith(form, u"anything", plain), PD_OK);
    const Security sec = securityOf(plain.get());
    EXPECT_EQ(sec.encrypted, 0);
    EXPECT_EQ(sec.owner, 0);
    EXPECT_EQ(sec.permissions, uint32_t(PD_PERM_ALL));
    PDBool flag = 0;
    uint32_t bits = 0;
    EXPECT_EQ(PDDocIsEncrypted(nullptr, &flag), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(PDDocOpenedWithOwnerPassword(plain.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocGetPermissions(page(plain.get(), 0).get(), &bits), PD_ERR_WRONG_HANDLE);
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(PDDocSaveMemDecrypted(plain.get(), nullptr, &size), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDDocSaveMemDecrypted(plain.get(), &data, &size), PD_OK);
    std::string decrypted(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    ASSERT_EQ(PDDocSaveMem(plain.get(), &data, &size), PD_OK);
    EXPECT_EQ(decrypted, std::string(static_cast<const char*>(data), size));
    PDFreeBuffer(data);

    // Encrypted by another handler than the standard one of passwords (certificates): not
    // damaged, but not supported.
    const std::string source = dir.file("enc.pdf");
    int s = -1;
    run("qpdf --encrypt u o 256 -- '" + form + "' '" + source + "' 2>&1", &s);
    ASSERT_EQ(s, 0);
    std::string bytes = slurp(source);
    const size_t at = bytes.find("/Filter /Standard");
    ASSERT_NE(at, std::string::npos);
    bytes.replace(at, 17, "/Filter /PubSec01");
    EXPECT_EQ(PDDocOpenMemWithPassword(bytes.data(), bytes.size(), u"u", 1, &doc),
              PD_ERR_UNSUPPORTED);
    EXPECT_EQ(doc, nullptr);
}

} // namespace
