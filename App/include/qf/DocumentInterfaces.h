// The host's document service and its page objects, as the module's commands and edit
// objects use them, and the parameter records of the widget commands. Layout rules as in
// ServiceObject.h; every method's slot is checked with hasMethod before it is called.
#pragma once

#include "qf/Interfaces.h"

namespace QF {

// "QFDocument", id 0x5E1F0C01, 72 bytes: one open document.
struct DocumentTable {
    // The document's pdfcore handle, one reference for the caller.
    uint32_t (*GetPDDoc)(ServiceObject* self, PDDoc* out);
    // The page object ("QFPage") of pageIndex, one reference; 3 for an index past the pages.
    uint32_t (*GetPage)(ServiceObject* self, uint64_t pageIndex, ServiceObject** out);
    // Tells subscribers that one annotation changed. kind: 0 inserted or reordered,
    // 1 removed, 2 radio buttons regrouped, 3 field name, membership, choice or options.
    uint32_t (*NotifyAnnotChanged)(ServiceObject* self, uint32_t kind, uint64_t pageIndex,
                                   PDAnnot annot);
    // The same for several annotations of one page (annots: count handles, not taken over).
    uint32_t (*NotifyAnnotsChanged)(ServiceObject* self, uint32_t kind, uint64_t pageIndex,
                                    const PDAnnot* annots, uint64_t count);
    // Asks views to redraw rect (left, top, right, bottom in page space, the PDRect order)
    // of a page; flag 1 redraws at once.
    uint32_t (*InvalidateRect)(ServiceObject* self, uint64_t pageIndex, const float* rect,
                               uint32_t flag);
    // Carries out a named annotation operation ("Annot_SetRect", "Annot_Delete", ...)
    // with its record (AnnotOperationRecord), as an undoable change. reserved is 0.
    uint32_t (*PerformAnnotOperation)(ServiceObject* self, uint32_t operationAtom,
                                      const void* record, uint64_t reserved);
    // The optional-content configuration that decides what shows (NULL: everything).
    uint32_t (*GetOCConfig)(ServiceObject* self, PDOCConfig* out);
    // Creates the command named by args->nameAtom and runs it on the undo stack.
    uint32_t (*ExecuteCommand)(ServiceObject* self, const CommandArgs* args);
    // 1 while the document is open, 0 after it was closed.
    uint32_t (*IsValid)(ServiceObject* self, uint32_t* out);
};
constexpr uint32_t kDocumentId = 0x5E1F0C01;

// "QFPage", id 0x5E1F0C02, 48 bytes: one page of a QFDocument.
struct PageTable {
    // The page's pdfcore handle, one reference for the caller.
    uint32_t (*GetPDPage)(ServiceObject* self, PDPage* out);
    // The page's changed flag (what the host saves and shows as modified).
    uint32_t (*GetChanged)(ServiceObject* self, uint8_t* out);
    uint32_t (*SetChanged)(ServiceObject* self, uint8_t changed);
    // Locks the page against other changes (mode 1: exclusive); the token unlocks it.
    uint32_t (*Lock)(ServiceObject* self, uint32_t mode, uint64_t* outToken);
    uint32_t (*Unlock)(ServiceObject* self, uint64_t token);
    // 1 while the page exists.
    uint32_t (*IsValid)(ServiceObject* self, uint32_t* out);
};
constexpr uint32_t kPageId = 0x5E1F0C02;

// The record of PerformAnnotOperation.
struct AnnotOperationRecord {
    ServiceObject* document;
    uint64_t pageIndex;
    PDAnnot annot;
    float rect[4];  // "Annot_SetRect" only: min x, min y, max x, max y
};

// Parameter records of the widget commands (CommandArgs::params). Owned by the caller for
// the duration of CreateCommand; the command takes its own references.
struct AddWidgetParams {
    ServiceObject* document;
    uint64_t pageIndex;
    PDAnnot widget;
};
struct RenameWidgetParams {
    ServiceObject* document;
    uint64_t pageIndex;
    PDAnnot widget;
    const char16_t* name;  // NUL-terminated
};
struct WidgetList {
    const PDAnnot* items;
    uint64_t count;
};
struct GroupRadioButtonsParams {
    ServiceObject* document;
    uint64_t pageIndex;
    const WidgetList* widgets;
};

}  // namespace QF
