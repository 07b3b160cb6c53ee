// The host's document service and its page objects, as the module's commands and edit
// objects use them, and the parameter records of the widget commands. Layout rules as in
// ServiceObject.h; every method's slot is checked with hasMethod before it is called.
#pragma once

#include "qf/Interfaces.h"

namespace QF {

// Receivers of the document's change events (the kinds of NotifyAnnotChanged). annots:
// count handles, valid during the call.
using AnnotChangedProc = void (*)(void* context, uint32_t kind, uint64_t pageIndex,
                                  PDAnnot annot);
using AnnotsChangedProc = void (*)(void* context, uint32_t kind, uint64_t pageIndex,
                                   const PDAnnot* annots, uint64_t count);

// Receivers of a view's events: the view draws page pageIndex (draw over it through the
// host's "GraphicsService" during the call); the focus page became pageIndex.
using DrawPageViewProc = void (*)(void* context, ServiceObject* view, uint64_t pageIndex);
using FocusPageChangedProc = void (*)(void* context, ServiceObject* view, uint64_t pageIndex);

// "QFDocument", id 0x5E1F0C01, 104 bytes: one open document.
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
    // Subscriptions to the events OnAnnotChanged and OnAnnotsChanged: proc(context, ...)
    // runs after each change until the connection is dropped; *outConnection is never 0.
    // Disconnecting an unknown connection answers 1.
    uint32_t (*ConnectAnnotChanged)(ServiceObject* self, AnnotChangedProc proc, void* context,
                                    uint64_t* outConnection);
    uint32_t (*DisconnectAnnotChanged)(ServiceObject* self, uint64_t connection);
    uint32_t (*ConnectAnnotsChanged)(ServiceObject* self, AnnotsChangedProc proc,
                                     void* context, uint64_t* outConnection);
    uint32_t (*DisconnectAnnotsChanged)(ServiceObject* self, uint64_t connection);
};
constexpr uint32_t kDocumentId = 0x5E1F0C01;
static_assert(sizeof(DocumentTable) == 104);

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

// "QFDocumentView", id 0x5E1F0C03, 176 bytes: a view of a QFDocument. Pages are laid out
// one under another; view points are integer pixels from the view's top left, y down;
// page points are PDF user space of the page (y up). Results: 3 for null outputs, 5 for a
// page index past the pages.
struct DocumentViewTable {
    // The viewed "QFDocument", one reference.
    uint32_t (*GetDocument)(ServiceObject* self, ServiceObject** out);
    // Its pdfcore document, one reference.
    uint32_t (*GetPDDoc)(ServiceObject* self, PDDoc* out);
    // The page under a view point; -1 when the point is beside every page.
    uint32_t (*GetPageIndexAtPoint)(ServiceObject* self, int32_t x, int32_t y, int64_t* outPage);
    // A view point in the space of page pageIndex (which need not contain it): outPoint[2].
    uint32_t (*ViewToPage)(ServiceObject* self, uint64_t pageIndex, int32_t x, int32_t y,
                           float* outPoint);
    // A page point to the view, rounded to the nearest pixel: outPoint[2].
    uint32_t (*PageToView)(ServiceObject* self, uint64_t pageIndex, const float* point,
                           int32_t* outPoint);
    // The view's own rotation: 0, 90, 180 or 270 degrees clockwise.
    uint32_t (*GetRotation)(ServiceObject* self, uint32_t* outDegrees);
    // Pixels per point.
    uint32_t (*GetZoom)(ServiceObject* self, float* out);
    // Where the page is drawn: left, top, right, bottom in view pixels (outRect[4]).
    uint32_t (*GetPageViewRect)(ServiceObject* self, uint64_t pageIndex, int32_t* outRect);
    // Asks for the whole view to be drawn again.
    uint32_t (*Redraw)(ServiceObject* self);
    // The pointer's shape from now on (5: cross hair of the creation tools, 7: move).
    uint32_t (*SetCursor)(ServiceObject* self, uint32_t shape);
    // The frame a tool is dragging, drawn over the page with argb stroke and a light fill;
    // pageIndex -1 (rect ignored) removes it. rect in PDRect order, page space.
    uint32_t (*ShowFrame)(ServiceObject* self, int64_t pageIndex, const float* rect,
                          uint32_t argb);
    // capture 1: the calling tool keeps the pointer until capture 0, also beside the pages
    // (the drag is handed over to the tool).
    uint32_t (*CaptureDrag)(ServiceObject* self, uint8_t capture);
    // Drops the view's annotation focus; called before a focused annotation is removed.
    uint32_t (*ReleaseAnnotFocus)(ServiceObject* self);
    // Shows the context menu of kind kindAtom ("Widget", "Signature") at a view point.
    uint32_t (*ShowContextMenu)(ServiceObject* self, uint32_t kindAtom, int32_t x, int32_t y,
                                uint64_t pageIndex);
    // The view's own drag, which moves the pages under the pointer (a hand tool): starts at
    // a view point, then follows the pointer to each further point until the next start.
    // Continuing without a start answers 1.
    uint32_t (*StartViewDrag)(ServiceObject* self, int32_t x, int32_t y);
    uint32_t (*ContinueViewDrag)(ServiceObject* self, int32_t x, int32_t y);
    // Gives the keyboard focus to annot of page pageIndex (the view shows it); a null annot
    // takes the focus away. 3 for an annotation that is not on the page.
    uint32_t (*SetAnnotFocus)(ServiceObject* self, uint64_t pageIndex, PDAnnot annot);
    // The page the person works on (the page of the last press); -1 before any.
    uint32_t (*GetFocusPage)(ServiceObject* self, int64_t* outPage);
    // Subscriptions to the view's events, as the document's (ConnectAnnotChanged):
    // OnDrawPageView runs while the view draws a page, after the page and its annotations
    // and before the selection, so that tools draw their marks over the page through the
    // host's "GraphicsService" during the call; OnFocusPageChanged runs after the focus page
    // changed. Disconnecting an unknown connection answers 1.
    uint32_t (*ConnectDrawPageView)(ServiceObject* self, DrawPageViewProc proc, void* context,
                                    uint64_t* outConnection);
    uint32_t (*DisconnectDrawPageView)(ServiceObject* self, uint64_t connection);
    uint32_t (*ConnectFocusPageChanged)(ServiceObject* self, FocusPageChangedProc proc,
                                        void* context, uint64_t* outConnection);
    uint32_t (*DisconnectFocusPageChanged)(ServiceObject* self, uint64_t connection);
};
constexpr uint32_t kDocumentViewId = 0x5E1F0C03;
static_assert(sizeof(DocumentViewTable) == 176);

// The record of PerformAnnotOperation.
struct AnnotOperationRecord {
    ServiceObject* document;
    uint64_t pageIndex;
    PDAnnot annot;
    float rect[4];  // "Annot_SetRect", "Annot_RangeDelete", "Annot_ReplyTo": min x, min y,
                    // max x, max y
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

// Parameter records of the tab-order commands. Positions are indexes in the page's
// annotation array (/Annots), from 0.
struct TabOrderParams {
    ServiceObject* document;
    uint64_t pageIndex;
    uint32_t newPosition;
    uint32_t currentPosition;
};
// Each position in an 8-byte slot (the upper half unused).
struct MoveAnnotsFocusOrderParams {
    ServiceObject* document;
    uint64_t pageIndex;
    uint64_t target;  // kTargetStart: the start of the array
    const uint64_t* positions;
    uint64_t count;
    static constexpr uint64_t kTargetStart = ~uint64_t{0};
};
struct AutoTabOrderParams {
    ServiceObject* document;
    const uint64_t* pages;
    uint64_t count;
    uint32_t orderingType;  // 1 columns (left to right, then top down); else rows
};

}  // namespace QF
