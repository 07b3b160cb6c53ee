// Helpers shared by the pdfcore tests: owned handles, UTF-16 texts, scratch files and the
// independent checkers (pypdf, qpdf, pdftoppm).
#pragma once

#include "pdfcore/pdfcore.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace pdtest {

struct HandleReleaser {
    void operator()(PDHandleRec* h) const { PDHandleRelease(h); }
};
// One owned reference to a pdfcore handle.
using Owned = std::unique_ptr<PDHandleRec, HandleReleaser>;

inline std::u16string u16(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

inline std::string narrow(const std::u16string& s) {
    std::string out;
    for (char16_t c : s) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

// Reads a text through the two-call pattern; "<error N>" when a call fails.
template <typename Getter>
std::u16string text(Getter get) {
    uint32_t len = 0;
    PDResult r = get(nullptr, 0, &len);
    if (r != PD_OK) return u"<error " + u16(std::to_string(r)) + u">";
    std::u16string buf(len, u'\0');
    r = get(buf.data(), len, &len);
    if (r != PD_OK) return u"<error " + u16(std::to_string(r)) + u">";
    return buf;
}

inline std::u16string fieldName(PDField f) {
    return text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetFullName(f, b, n, l); });
}
inline std::u16string fieldValue(PDField f) {
    return text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetValue(f, b, n, l); });
}

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

inline Owned findField(PDDoc doc, const std::string& name) {
    PDField f = nullptr;
    auto n = u16(name);
    EXPECT_EQ(PDDocFindField(doc, n.data(), static_cast<uint32_t>(n.size()), &f), PD_OK);
    return Owned(f);
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

inline PDRect rect(float left, float bottom, float right, float top) {
    return PDRect{left, top, right, bottom};
}

inline std::string corpus(const std::string& file) {
    return std::string(QF_CORPUS_DIR) + "/" + file;
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

// Runs a shell command and returns its standard output; the exit status goes to *status.
inline std::string run(const std::string& command, int* status = nullptr) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
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

}  // namespace pdtest
