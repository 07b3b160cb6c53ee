// Readers of pdfcore documents shared by the module tests that run the module in the
// reference host: pages, annotations, fields and the document as a fresh reader sees it.
// Each reports a failing pdfcore call as a test failure and goes on.
#pragma once

#include "qf/internal/AnnotEditUtilities"

#include "pdfcore/pdfcore.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace pdreaders {

using QF::PDHandlePtr;

inline PDHandlePtr pageOf(PDDoc doc, uint32_t index) {
    PDHandlePtr page;
    EXPECT_EQ(PDDocGetPage(doc, index, page.put()), PD_OK);
    return page;
}
inline uint32_t annotCount(PDDoc doc, uint32_t page) {
    uint32_t n = 0;
    EXPECT_EQ(PDPageGetNumAnnots(pageOf(doc, page).get(), &n), PD_OK);
    return n;
}
inline PDHandlePtr annotAt(PDDoc doc, uint32_t page, uint32_t index) {
    PDHandlePtr annot;
    EXPECT_EQ(PDPageGetAnnot(pageOf(doc, page).get(), index, annot.put()), PD_OK);
    return annot;
}
inline PDRect rectOf(PDAnnot annot) {
    PDRect r{};
    EXPECT_EQ(PDAnnotGetRect(annot, &r), PD_OK);
    return r;
}
// The field named name, or a null handle.
inline PDHandlePtr findField(PDDoc doc, std::u16string_view name) {
    PDHandlePtr f;
    EXPECT_EQ(PDDocFindField(doc, name.data(), uint32_t(name.size()), f.put()), PD_OK);
    return f;
}
inline PDHandlePtr parentOf(PDAnnot widget) {
    PDHandlePtr f;
    EXPECT_EQ(PDWidgetAnnotGetParent(widget, f.put()), PD_OK);
    return f;
}
// The full name of the widget's field, "<none>" for a widget without one.
inline std::u16string nameOf(PDAnnot widget) {
    const PDHandlePtr f = parentOf(widget);
    return f ? QF::GetFieldFullName(f.get(), "test") : u"<none>";
}
inline std::vector<std::u16string> fieldNames(PDDoc doc) {
    uint32_t n = 0;
    EXPECT_EQ(PDDocGetNumFields(doc, &n), PD_OK);
    std::vector<std::u16string> names;
    for (uint32_t i = 0; i < n; ++i) {
        PDHandlePtr f;
        EXPECT_EQ(PDDocGetField(doc, i, f.put()), PD_OK);
        names.push_back(QF::GetFieldFullName(f.get(), "test"));
    }
    return names;
}
// The document as a fresh reader sees it: saved to memory and opened again.
inline PDHandlePtr reopened(PDDoc doc) {
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(PDDocSaveMem(doc, &data, &size), PD_OK);
    PDHandlePtr copy;
    EXPECT_EQ(PDDocOpenMem(data, size, copy.put()), PD_OK);
    PDFreeBuffer(data);
    return copy;
}

} // namespace pdreaders
