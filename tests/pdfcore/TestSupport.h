// Helpers shared by the pdfcore tests: owned handles, UTF-16 texts, documents, fields and
// widgets, scratch files and the independent checkers (qpdf, pdftoppm).
#pragma once

#include "kr/KRRuntime.h"
#include "pdfcore/pdfcore.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace pdtest {

struct HandleReleaser {
    void operator()(PDHandleRec* h) const { PDHandleRelease(h); }
};
// One owned reference to a pdfcore handle.
using Owned = std::unique_ptr<PDHandleRec, HandleReleaser>;

// ---- texts ---------------------------------------------------------------------------------

inline std::u16string u16(const std::string& ascii) {
    return {ascii.begin(), ascii.end()};
}

// UTF-8 and UTF-16 through the host runtime's conversions (tested in tests/kr).
inline std::string utf8(const std::u16string& s) {
    size_t n = 0;
    KRConvertUTF16ToUTF8(s.data(), s.size(), nullptr, 0, &n);
    std::string out(n + 1, '\0');
    KRConvertUTF16ToUTF8(s.data(), s.size(), out.data(), out.size(), &n);
    out.resize(n);
    return out;
}

inline std::u16string utf16(const std::string& s) {
    size_t n = 0;
    KRConvertUTF8ToUTF16(s.data(), s.size(), nullptr, 0, &n);
    std::u16string out(n + 1, u'\0');
    KRConvertUTF8ToUTF16(s.data(), s.size(), out.data(), out.size(), &n);
    out.resize(n);
    return out;
}

inline std::string atomText(PDAtom atom) {
    const char* s = nullptr;
    if (PDAtomGetString(atom, &s) != PD_OK || !s) return "<atom " + std::to_string(atom) + ">";
    return s;
}

// A text getter's result and text (empty unless PD_OK), through the two-call pattern.
struct Got {
    PDResult result;
    std::u16string text;
};
template <typename Getter> Got fetch(Getter get) {
    uint32_t len = 0;
    PDResult r = get(nullptr, 0, &len);
    if (r != PD_OK) return {r, {}};
    std::u16string buf(len, u'\0');
    r = get(buf.data(), len, &len);
    buf.resize(r == PD_OK ? len : 0);
    return {r, buf};
}

// The text a getter gives; "<error N>" when a call fails.
template <typename Getter> std::u16string text(Getter get) {
    Got got = fetch(get);
    return got.result == PD_OK ? got.text : u"<error " + u16(std::to_string(got.result)) + u">";
}

inline std::u16string fieldName(PDField f) {
    return text(
        [&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetFullName(f, b, n, l); });
}
inline std::u16string fieldValue(PDField f) {
    return text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetValue(f, b, n, l); });
}

// ---- documents, fields and widgets ------------------------------------------------------

inline Owned createDoc(uint32_t pages = 1, float w = 612, float h = 792) {
    PDDoc doc = nullptr;
    EXPECT_EQ(PDDocCreate(pages, w, h, &doc), PD_OK);
    return Owned(doc);
}

inline Owned openDoc(const std::string& path) {
    PDDoc doc = nullptr;
    EXPECT_EQ(PDDocOpen(path.c_str(), &doc), PD_OK) << path;
    return Owned(doc);
}

// A document read from bytes in memory.
inline Owned openBytes(const std::string& bytes) {
    PDDoc doc = nullptr;
    EXPECT_EQ(PDDocOpenMem(bytes.data(), bytes.size(), &doc), PD_OK);
    return Owned(doc);
}

inline Owned page(PDDoc doc, uint32_t index) {
    PDPage p = nullptr;
    EXPECT_EQ(PDDocGetPage(doc, index, &p), PD_OK);
    return Owned(p);
}

inline Owned createField(PDDoc doc, const std::string& name, PDAtom type, uint32_t flags = 0) {
    PDField f = nullptr;
    auto n = u16(name);
    EXPECT_EQ(PDDocCreateField(doc, n.data(), static_cast<uint32_t>(n.size()), type, flags, &f),
              PD_OK)
        << name;
    return Owned(f);
}

inline Owned findField(PDDoc doc, const std::u16string& name) {
    PDField f = nullptr;
    EXPECT_EQ(PDDocFindField(doc, name.data(), static_cast<uint32_t>(name.size()), &f), PD_OK);
    return Owned(f);
}
inline Owned findField(PDDoc doc, const std::string& name) {
    return findField(doc, u16(name));
}

inline PDResult setValue(PDField f, const std::u16string& v) {
    return PDFieldSetValue(f, v.data(), static_cast<uint32_t>(v.size()));
}

inline PDResult rename(PDDoc doc, PDField f, const std::string& name) {
    auto n = u16(name);
    return PDDocRenameField(doc, f, n.data(), static_cast<uint32_t>(n.size()));
}

inline PDResult insertOption(PDField f, uint32_t index, const std::u16string& display,
                             const std::u16string& exportValue) {
    return PDChoiceFieldInsertOption(f, index, display.data(),
                                     static_cast<uint32_t>(display.size()), exportValue.data(),
                                     static_cast<uint32_t>(exportValue.size()));
}

// Creates a widget of field with the creator matching its type and puts it on the page.
inline Owned addWidget(PDDoc doc, PDField field, PDPage pg, PDRect rect) {
    PDAtom type = 0;
    EXPECT_EQ(PDFieldGetType(field, &type), PD_OK);
    PDAnnot w = nullptr;
    PDResult r = type == PD_ATOM_Btn  ? PDCreateButtonWidgetAnnot(doc, field, pg, &rect, &w)
                 : type == PD_ATOM_Tx ? PDCreateTextWidgetAnnot(doc, field, pg, &rect, &w)
                 : type == PD_ATOM_Ch ? PDCreateChoiceWidgetAnnot(doc, field, pg, &rect, &w)
                                      : PDCreateSignWidgetAnnot(doc, field, pg, &rect, &w);
    EXPECT_EQ(r, PD_OK);
    uint32_t count = 0;
    EXPECT_EQ(PDPageGetNumAnnots(pg, &count), PD_OK);
    EXPECT_EQ(PDPageAddAnnot(pg, count, w), PD_OK);
    return Owned(w);
}

// A new field with one widget of rect on page pg.
struct FieldAndWidget {
    Owned field, widget;
};
inline FieldAndWidget addField(PDDoc doc, PDPage pg, const std::string& name, PDAtom type, PDRect r,
                               uint32_t flags = 0) {
    FieldAndWidget out;
    out.field = createField(doc, name, type, flags);
    out.widget = addWidget(doc, out.field.get(), pg, r);
    return out;
}

// Every item of a counted list: the terminal fields of a document, the annotations of a
// page, the widgets of a field.
inline std::vector<Owned> listOf(PDHandle owner, PDResult (*count)(PDHandle, uint32_t*),
                                 PDResult (*get)(PDHandle, uint32_t, PDHandle*)) {
    std::vector<Owned> out;
    uint32_t n = 0;
    EXPECT_EQ(count(owner, &n), PD_OK);
    for (uint32_t i = 0; i < n; ++i) {
        PDHandle item = nullptr;
        EXPECT_EQ(get(owner, i, &item), PD_OK);
        out.emplace_back(item);
    }
    return out;
}
inline std::vector<Owned> fieldsOf(PDDoc doc) {
    return listOf(doc, PDDocGetNumFields, PDDocGetField);
}
inline std::vector<Owned> annotsOf(PDPage pg) {
    return listOf(pg, PDPageGetNumAnnots, PDPageGetAnnot);
}
inline std::vector<Owned> widgetsOf(PDField f) {
    return listOf(f, PDFieldGetNumWidgets, PDFieldGetWidget);
}

inline Owned parentOf(PDAnnot w) {
    PDField f = nullptr;
    EXPECT_EQ(PDWidgetAnnotGetParent(w, &f), PD_OK);
    return Owned(f);
}

inline PDRect rect(float left, float bottom, float right, float top) {
    return PDRect{left, top, right, bottom};
}

// ---- files -----------------------------------------------------------------------------

// A PDF of the given objects (numbered from 1; 1 is the catalog) with a correct xref table.
inline std::string makePdf(const std::vector<std::string>& objects) {
    std::string out = "%PDF-1.7\n";
    std::string xref = "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t i = 0; i < objects.size(); ++i) {
        char entry[24];
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", out.size());
        xref += entry;
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    return out + xref + "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
           " /Root 1 0 R >>\nstartxref\n" + std::to_string(out.size()) + "\n%%EOF\n";
}

inline std::string corpus(const std::string& file) {
    return std::string(QF_CORPUS_DIR) + "/" + file;
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A scratch folder removed at the end of the test.
class ScratchDir {
  public:
    ScratchDir() {
        auto base = std::filesystem::temp_directory_path();
        char tmpl[] = "qf-pdfcore-XXXXXX";
        std::string pattern = (base / tmpl).string();
        path_ = mkdtemp(pattern.data());
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

// ---- independent checkers ---------------------------------------------------------------

// Runs a shell command and returns its standard output; the exit status goes to *status.
inline std::string run(const std::string& command, int* status = nullptr) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    int rc = pclose(p);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

// qpdf --check: 0 clean, 3 warnings only, 2 errors.
inline int qpdfCheck(const std::string& path) {
    int status = -1;
    run("qpdf --check '" + path + "' >/dev/null 2>&1", &status);
    return status;
}

// A page rendered by pdftoppm at 72 dpi: one pixel per point, RGB, rows from the top.
struct Raster {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;

    const uint8_t* at(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
    // The darkest channel of a pixel, so that a coloured mark counts as non-white.
    uint8_t darkest(int x, int y) const {
        const uint8_t* p = at(x, y);
        return std::min({p[0], p[1], p[2]});
    }
};

// Renders page `index` of pdf (encrypted: opened with the user password) to prefix.ppm; an
// empty raster when that fails.
inline Raster render(const std::string& pdf, const std::string& prefix, uint32_t index = 0,
                     const std::string& userPassword = "") {
    std::string n = std::to_string(index + 1);
    int status = -1;
    std::string err = run("pdftoppm -r 72 -f " + n + " -l " + n + " -singlefile -upw '" +
                              userPassword + "' '" + pdf + "' '" + prefix + "' 2>&1",
                          &status);
    EXPECT_EQ(status, 0) << err;
    Raster r;
    std::ifstream in(prefix + ".ppm", std::ios::binary);
    std::string magic;
    int maxValue = 0;
    in >> magic >> r.width >> r.height >> maxValue;
    in.get();
    if (magic != "P6" || maxValue != 255 || r.width <= 0 || r.height <= 0) return {};
    r.rgb.resize(static_cast<size_t>(r.width) * r.height * 3);
    in.read(reinterpret_cast<char*>(r.rgb.data()), static_cast<std::streamsize>(r.rgb.size()));
    return in ? r : Raster{};
}

} // namespace pdtest
