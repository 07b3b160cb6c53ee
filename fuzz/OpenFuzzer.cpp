// libFuzzer target: arbitrary bytes opened as a PDF (PDDocOpenMem). A document that opens
// is read the way `qfforms inspect` reads it and further: every page (boxes, rotation, tab
// order, what it draws as field detection reads it) and annotation (subtype, rectangle,
// flags, state, its page, its field), every terminal field (names, type, flags, values,
// tooltip, maximum length, options, widgets and their looks), every trigger action as the
// widget clipboard records it (pdActionToJson); then it is written (PDDocSaveMem) and what
// was written is opened and read again. Result codes are answers, whatever they are; what
// must hold is no crash, no leak, no hang, and that what pdfcore writes it opens again.
//
// Single-threaded; each input's handles are all released before the next input.

#include "qf/internal/AnnotClipboardUtils"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

using JsonUtility::ActionSerialization::pdActionToJson;
using QF::PDHandlePtr;

// Reads a text with the two-call pattern, the answer kept only as far as sanitizers see it.
template <typename Get> void text(Get&& get) {
    uint32_t length = 0;
    if (get(nullptr, 0, &length) != PD_OK) return;
    std::u16string buffer(length + 1, u'\0');
    uint32_t again = 0;
    const PDResult r = get(buffer.data(), static_cast<uint32_t>(buffer.size()), &again);
    // The same text asked twice answers the same length.
    if (r != PD_OK || again != length) std::abort();
}

// The action's record, the way copying a widget records it. A record the module cannot
// make is a thrown exception, which is an answer too.
void action(PDDoc doc, PDResult (*get)(PDHandle, PDAction*), PDHandle owner) {
    PDHandlePtr a;
    if (get(owner, a.put()) != PD_OK || !a) return;
    try {
        (void)pdActionToJson(doc, a.get());
    } catch (...) {
    }
}

void widget(PDDoc doc, PDAnnot w) {
    int32_t i = 0;
    uint32_t u = 0;
    float f = 0;
    PDBorderStyle border{};
    PDFontInfo font{};
    PDIconFit fit{};
    PDWidgetAnnotGetRotate(w, &i);
    PDWidgetAnnotGetBorderStyle(w, &border);
    if (border.dashCount > PD_MAX_DASH) std::abort();
    PDWidgetAnnotGetBgColor(w, &u);
    PDWidgetAnnotGetBorderColor(w, &u);
    PDWidgetAnnotGetHighlight(w, &i);
    PDWidgetAnnotGetFontInfo(w, &font);
    PDWidgetAnnotGetFontSize(w, &f);
    PDWidgetAnnotGetFontColor(w, &u);
    PDButtonWidgetAnnotGetIconFit(w, &fit);
    PDTextWidgetAnnotGetQuadding(w, &i);
    PDChoiceWidgetAnnotGetSelection(w, &u);
    text([w](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetCaption(w, b, n, l);
    });
    text([w](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetDownCaption(w, b, n, l);
    });
    text([w](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetRolloverCaption(w, b, n, l);
    });
    text([w](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetChoice(w, b, n, l);
    });
    for (auto get : {&PDWidgetAnnotGetMouseEnterAction, &PDWidgetAnnotGetMouseExitAction,
                     &PDWidgetAnnotGetMouseDownAction, &PDWidgetAnnotGetMouseUpAction,
                     &PDWidgetAnnotGetFocusAction, &PDWidgetAnnotGetBlurAction,
                     &PDButtonWidgetAnnotGetAction})
        action(doc, get, w);
}

void annotation(PDDoc doc, PDPage page, PDAnnot annot, PDOCConfig config) {
    PDAtom atom = 0;
    PDRect rect{};
    uint32_t u = 0;
    PDBool b = 0;
    const bool isWidget = PDAnnotGetSubtype(annot, &atom) == PD_OK && atom == PD_ATOM_Widget;
    PDAnnotGetRect(annot, &rect);
    PDAnnotGetFlags(annot, &u);
    PDAnnotGetVisible(annot, &b);
    PDAnnotGetAppearanceState(annot, &atom);
    PDOCConfigIsAnnotVisible(config, annot, &b);
    if (PDAnnotIsMarkupAnnot(annot, &b) == PD_OK && b) {
        PDHandlePtr parent;
        PDMarkupAnnotGetInReplyTo(annot, parent.put());
    }
    // The page that lists it is found again, and lists it.
    PDHandlePtr on;
    if (PDAnnotGetPage(annot, on.put()) == PD_OK && on) {
        if (PDPageGetAnnotIndex(on.get(), annot, &u) != PD_OK) std::abort();
    }
    if (PDPageGetAnnotIndex(page, annot, &u) != PD_OK) std::abort();
    if (!isWidget) return;
    PDHandlePtr field;
    if (PDWidgetAnnotGetParent(annot, field.put()) == PD_OK && field)
        text([&field](char16_t* buf, uint32_t n, uint32_t* l) {
            return PDFieldGetFullName(field.get(), buf, n, l);
        });
    widget(doc, annot);
}

void page(PDDoc doc, uint32_t index, PDOCConfig config) {
    PDHandlePtr p;
    if (PDDocGetPage(doc, index, p.put()) != PD_OK) return;
    PDRect box{};
    int32_t rotation = 0;
    PDAtom order = 0;
    uint32_t again = 0;
    if (PDPageGetIndex(p.get(), &again) == PD_OK && again != index) std::abort();
    PDPageGetBox(p.get(), PD_BOX_MEDIA, &box);
    PDPageGetBox(p.get(), PD_BOX_CROP, &box);
    PDPageGetRotate(p.get(), &rotation);
    PDPageGetTabOrder(p.get(), &order);
    // What the page draws, as field detection reads it: every graphic inside finite
    // bounds or flagged as it is, and the cap holding.
    PDGraphicsSummary summary{};
    const auto look = [](const PDGraphic* g, void*) -> int32_t {
        if (g->textLen && !g->text) std::abort();
        return 0;
    };
    if (PDPageReadGraphics(p.get(), 20000, look, nullptr, &summary) == PD_OK &&
        summary.operators > 20000)
        std::abort();
    uint32_t count = 0;
    if (PDPageGetNumAnnots(p.get(), &count) != PD_OK) return;
    for (uint32_t k = 0; k < count; ++k) {
        PDHandlePtr annot;
        if (PDPageGetAnnot(p.get(), k, annot.put()) == PD_OK && annot)
            annotation(doc, p.get(), annot.get(), config);
    }
}

void field(PDDoc doc, PDField f) {
    for (auto get : {&PDFieldGetName, &PDFieldGetFullName, &PDFieldGetUIName, &PDFieldGetValue,
                     &PDFieldGetDefaultValue})
        text([f, get](char16_t* b, uint32_t n, uint32_t* l) { return get(f, b, n, l); });
    PDAtom type = 0;
    uint32_t u = 0;
    PDFieldGetType(f, &type);
    PDFieldGetFlags(f, &u);
    PDTextFieldGetMaxLen(f, &u);
    uint32_t options = 0;
    if (PDChoiceFieldGetNumOptions(f, &options) == PD_OK) {
        for (uint32_t i = 0; i < options; ++i) {
            text([f, i](char16_t* b, uint32_t n, uint32_t* l) {
                return PDChoiceFieldGetOptionValue(f, i, b, n, l);
            });
            text([f, i](char16_t* b, uint32_t n, uint32_t* l) {
                return PDChoiceFieldGetOptionExportValue(f, i, b, n, l);
            });
        }
    }
    // The field's name finds the field again.
    uint32_t length = 0;
    if (PDFieldGetFullName(f, nullptr, 0, &length) == PD_OK) {
        std::u16string name(length + 1, u'\0');
        if (PDFieldGetFullName(f, name.data(), length + 1, &length) == PD_OK) {
            name.resize(length);
            PDHandlePtr found;
            PDDocFindField(doc, name.data(), length, found.put());
        }
    }
    uint32_t widgets = 0;
    if (PDFieldGetNumWidgets(f, &widgets) == PD_OK) {
        for (uint32_t k = 0; k < widgets; ++k) {
            PDHandlePtr w;
            if (PDFieldGetWidget(f, k, w.put()) != PD_OK || !w) continue;
            uint32_t at = 0;
            if (PDFieldGetWidgetIndex(f, w.get(), &at) != PD_OK) std::abort();
            PDRect rect{};
            PDAnnotGetRect(w.get(), &rect);
            PDHandlePtr on;
            PDAnnotGetPage(w.get(), on.put());
            widget(doc, w.get());
        }
    }
    for (auto get : {&PDFieldGetFormatAction, &PDFieldGetValidateAction,
                     &PDFieldGetCalculateAction, &PDFieldGetModifyAction})
        action(doc, get, f);
}

void read(PDDoc doc) {
    PDBool isSigned = 0;
    PDDocIsSigned(doc, &isSigned);
    PDHandlePtr config;
    PDDocGetOCConfig(doc, config.put());
    uint32_t pages = 0;
    if (PDDocGetNumPages(doc, &pages) == PD_OK) {
        for (uint32_t i = 0; i < pages; ++i) page(doc, i, config.get());
    }
    uint32_t fields = 0;
    if (PDDocGetNumFields(doc, &fields) == PD_OK) {
        for (uint32_t i = 0; i < fields; ++i) {
            PDHandlePtr f;
            if (PDDocGetField(doc, i, f.put()) == PD_OK && f) field(doc, f.get());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PDHandlePtr doc;
    if (PDDocOpenMem(data, size, doc.put()) != PD_OK) return 0;
    read(doc.get());
    void* bytes = nullptr;
    size_t length = 0;
    const PDResult saved = PDDocSaveMem(doc.get(), &bytes, &length);
    if (saved != PD_OK) return 0;
    PDHandlePtr again;
    const PDResult reopened = PDDocOpenMem(bytes, length, again.put());
    PDFreeBuffer(bytes);
    if (reopened != PD_OK) {
        std::fprintf(stderr, "open_fuzzer: pdfcore cannot open what it wrote (%d)\n", reopened);
        std::abort();
    }
    read(again.get());
    return 0;
}
