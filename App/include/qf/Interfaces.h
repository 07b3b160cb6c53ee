// Method tables of the interfaces exchanged between the host and the forms module. Each
// table is laid out at offset 56 of a service-object block (ServiceObject.h); the comment
// of each gives its interface id and table size. Calls return u32 result codes.
#pragma once

#include "qf/ServiceObject.h"

#include "pdfcore/pdfcore.h"

namespace QF {

using SODetails::ServiceObject;

// ---- implemented by the module ----------------------------------------------------------

// "InitService", id 0x5E1F0A01, 24 bytes. Init hands the module's registrations to the host
// services; DeInit takes them back; OnRibbonInitialized answers 1.
struct InitServiceTable {
    uint32_t (*Init)(ServiceObject* self);
    uint32_t (*DeInit)(ServiceObject* self);
    uint32_t (*OnRibbonInitialized)(ServiceObject* self);
};
constexpr uint32_t kInitServiceId = 0x5E1F0A01;

// "QFInputHandlerFactory", id 0xBABE9A0B, 8 bytes: a new tool (QFInputHandler).
struct InputHandlerFactoryTable {
    uint32_t (*CreateInputHandler)(ServiceObject* self, ServiceObject** out);
};
constexpr uint32_t kInputHandlerFactoryId = 0xBABE9A0B;

// An input event for QFInputHandler::HandleEvent (20 bytes).
struct InputEvent {
    uint32_t type;      // one of the kEvent values below
    uint32_t subcode;   // mouse button (0 left, 1 right), key code, or command atom
    int32_t x;          // view pixels, origin at the view's top left, y down
    int32_t y;
    uint32_t modifiers; // kModifierShift | kModifierControl
};
static_assert(sizeof(InputEvent) == 20);
enum : uint32_t {
    kEventCommand = 0,    // subcode: the atom of an edit command ("Copy", "Delete", ...)
    kEventButtonDown = 2, // subcode: kButtonLeft or kButtonRight
    kEventButtonUp = 3,
    kEventMove = 4,
    kEventKeyDown = 7,    // subcode: virtual key code (37..40 arrows, 46 Delete)
    kEventKey = 8,
    kEventCancel = 11,    // the interaction ended without a release (the pointer was lost)
};
enum : uint32_t { kButtonLeft = 0, kButtonRight = 1 };
enum : uint32_t { kModifierShift = 4, kModifierControl = 8 };

// Called on the user-interface thread when a tool's property sheet is out of date.
using PropertiesChangedProc = void (*)(void* context, ServiceObject* tool);

// "QFInputHandler", id 0x5E1F0A04, 96 bytes: an interactive tool working on a document
// view ("QFDocumentView"). All calls come on the user-interface thread.
struct InputHandlerTable {
    // view: the document view (the tool keeps a reference); context: what the tool works
    // on (the edit tool's widget edit object; null for the creation tools).
    uint32_t (*Initialize)(ServiceObject* self, ServiceObject* view, ServiceObject* context);
    uint32_t (*Terminate)(ServiceObject* self);
    // The atom of the tool's registered name.
    uint32_t (*GetToolName)(ServiceObject* self, uint32_t* out);
    // 1 once the tool is done (the host then ends it).
    uint32_t (*IsFinished)(ServiceObject* self, uint8_t* out);
    uint32_t (*HandleEvent)(ServiceObject* self, const InputEvent* event, uint8_t* outHandled);
    uint32_t (*Removed)(ServiceObject* self);
    uint32_t (*FocusAnnot)(ServiceObject* self, PDAnnot annot);
    uint32_t (*RestoreSelection)(ServiceObject* self);
    uint32_t (*OnDeathrattle)(ServiceObject* self);
    // Fills the area "ToolArea" of the host's "QFPropertiesContext" with the tool's
    // properties and returns that context in *outContext (one reference; null when the
    // host offers no context).
    uint32_t (*GetToolProperties)(ServiceObject* self, ServiceObject** outContext);
    // The tool's properties-changed signal: proc(context, tool) runs after the sheet changed
    // (a field was created, a name was set). *outConnection identifies the connection.
    uint32_t (*ConnectPropertiesChanged)(ServiceObject* self, PropertiesChangedProc proc,
                                         void* context, uint64_t* outConnection);
    // 1 for a connection the tool does not know.
    uint32_t (*DisconnectPropertiesChanged)(ServiceObject* self, uint64_t connection);
};
constexpr uint32_t kInputHandlerId = 0x5E1F0A04;
static_assert(sizeof(InputHandlerTable) == 96);

// Creation arguments of a command (16 bytes): copied whole into the command.
struct CommandArgs {
    uint32_t uniqueId;
    uint32_t nameAtom;
    void* params;  // the command's own parameter record; owned by the caller
};
static_assert(sizeof(CommandArgs) == 16);

// "CommandFactory", id 0x9CF4B284, 8 bytes.
struct CommandFactoryTable {
    uint32_t (*CreateCommand)(ServiceObject* self, const CommandArgs* args, ServiceObject** out);
};
constexpr uint32_t kCommandFactoryId = 0x9CF4B284;

// "Command", id 0xFF2D1272, 48 bytes. The name, id and feature names are atoms.
struct CommandTable {
    uint32_t (*GetCommandName)(ServiceObject* self, uint32_t* out);
    uint32_t (*GetUniqueCommandID)(ServiceObject* self, uint32_t* out);
    uint32_t (*GetFeatureName)(ServiceObject* self, uint32_t* out);
    uint32_t (*GetTrackingFeatureName)(ServiceObject* self, uint32_t* out);
    uint32_t (*DO)(ServiceObject* self);
    uint32_t (*UNDO)(ServiceObject* self);
};
constexpr uint32_t kCommandId = 0xFF2D1272;

// "QFSelectionFactory", id 0x5E1F0A02, 8 bytes: a new selection object.
struct SelectionFactoryTable {
    uint32_t (*CreateSelection)(ServiceObject* self, ServiceObject** out);
};
constexpr uint32_t kSelectionFactoryId = 0x5E1F0A02;

// "QFAnnotEditSelectFactory", id 0x307F2EF5, 24 bytes: the selection and clipboard
// operations for one annotation subtype.
struct AnnotEditSelectFactoryTable {
    uint32_t (*CreateSelection)(ServiceObject* self, ServiceObject* view, uint64_t pageIndex,
                                PDAnnot annot, ServiceObject** out);
    uint32_t (*CopyAnnot)(ServiceObject* self, ServiceObject* view, uint64_t pageIndex,
                          PDAnnot annot, ServiceObject** outData);
    uint32_t (*PasteAnnot)(ServiceObject* self, ServiceObject* view, uint64_t pageIndex,
                           ServiceObject* data, PDAnnot* outAnnot);
};
constexpr uint32_t kAnnotEditSelectFactoryId = 0x307F2EF5;

// "QFSelectEditObjectService", id 0xEDE102A7, 24 bytes.
struct SelectEditObjectServiceTable {
    uint32_t (*SelectObject)(ServiceObject* self, ServiceObject* editObject);
    uint32_t (*RemoveObjectFromSelection)(ServiceObject* self, ServiceObject* editObject);
    uint32_t (*ExtractSelectedCompositeEditObjects)(ServiceObject* self, ServiceObject* document,
                                                    uint64_t pageIndex, ServiceObject** out);
};
constexpr uint32_t kSelectEditObjectServiceId = 0xEDE102A7;

// "QFEditObjectFactory", id 0xB8B7CFF2, 16 bytes.
struct EditObjectFactoryTable {
    uint32_t (*CreateEditObject)(ServiceObject* self, ServiceObject* document, uint64_t pageIndex,
                                 uint64_t reserved, ServiceObject** out, PDAnnot widget);
    uint32_t (*CreateEditObjectByPagePoint)(ServiceObject* self, ServiceObject* document,
                                            uint64_t pageIndex, uint64_t reserved,
                                            const float* point, ServiceObject** out);
};
constexpr uint32_t kEditObjectFactoryId = 0xB8B7CFF2;

// "QFCompositeEditObjectFactoryItem", id 0x14EC0B4A, 16 bytes.
struct CompositeEditObjectFactoryItemTable {
    uint32_t (*CreateCompositeEditObjectForPage)(ServiceObject* self, ServiceObject* document,
                                                 uint64_t pageIndex, ServiceObject** out);
    uint32_t (*GetSelectedObjectsOnPage)(ServiceObject* self, ServiceObject* document,
                                         uint64_t pageIndex, ServiceObject** out);
};
constexpr uint32_t kCompositeEditObjectFactoryItemId = 0x14EC0B4A;

// Changes an edit matrix in place (six floats a b c d e f, PDF row-vector convention:
// x' = a x + c y + e, y' = b x + d y + f).
using EditMatrixProc = void (*)(void* context, float* matrix);

// "QFEditObject", id 0x5E1F0A06, 184 bytes: one editable object of a page (a widget) as
// the host's generic move, resize and delete machinery sees it. Its geometry is a matrix
// over the object-space rectangle; points, quadrilaterals and rectangles are page space.
// A rectangle is a PDRect; a quadrilateral is four points, eight floats.
struct EditObjectTable {
    // The "QFDocument" the object belongs to (one reference).
    uint32_t (*GetDoc)(ServiceObject* self, ServiceObject** out);
    uint32_t (*GetPageIndex)(ServiceObject* self, uint64_t* out);
    // The edit type atom ("WidgetEdit").
    uint32_t (*GetObjectType)(ServiceObject* self, uint32_t* out);
    // 1 while the document and the page both exist.
    uint32_t (*IsValid)(ServiceObject* self, uint8_t* out);
    uint32_t (*IsEqual)(ServiceObject* self, ServiceObject* other, uint8_t* out);
    uint32_t (*HitTestPoint)(ServiceObject* self, const float* point, uint8_t* out);
    uint32_t (*HitTestRect)(ServiceObject* self, const PDRect* rect, uint8_t* out);
    // The object-space rectangle the matrix maps onto the page.
    uint32_t (*GetObjectSpaceRect)(ServiceObject* self, PDRect* out);
    uint32_t (*GetBounds)(ServiceObject* self, float* outQuad);
    // Lets proc change a copy of the current matrix; the object keeps what its rules allow.
    uint32_t (*ModifyEditCTM)(ServiceObject* self, EditMatrixProc proc, void* context);
    // The page rectangle of the current matrix.
    uint32_t (*GetEditBounds)(ServiceObject* self, PDRect* out);
    // Writes the current matrix back to the document (an undoable annotation operation).
    uint32_t (*ApplyEdit)(ServiceObject* self);
    uint32_t (*Delete)(ServiceObject* self);
    // The module's own data behind the object (for objects of the same module only).
    uint32_t (*GetData)(ServiceObject* self, void** out);
    uint32_t (*GetPDEElement)(ServiceObject* self, void** out);
    // The annotation (one pdfcore reference), null for objects of page content.
    uint32_t (*GetAnnot)(ServiceObject* self, PDAnnot* out);
    uint32_t (*GetTextBlock)(ServiceObject* self, void** out);
    uint32_t (*SetBindingStrength)(ServiceObject* self, uint32_t strength);
    uint32_t (*GetBindingStrength)(ServiceObject* self, uint32_t* out);
    uint32_t (*IsGroup)(ServiceObject* self, uint8_t* out);
    // Keeps a reference to child (a "QFEditObject").
    uint32_t (*AddChild)(ServiceObject* self, ServiceObject* child);
    // The children in the two-call form: out null gives the count in *outCount; otherwise
    // at most capacity children, one reference each.
    uint32_t (*GetChilds)(ServiceObject* self, ServiceObject** out, uint64_t capacity,
                          uint64_t* outCount);
    uint32_t (*ClearChilds)(ServiceObject* self);
};
constexpr uint32_t kEditObjectId = 0x5E1F0A06;
static_assert(sizeof(EditObjectTable) == 184);

// Runs after a selection's property sheet is out of date.
using SelectionChangedProc = void (*)(void* context, ServiceObject* selection);

// "QFSelection", id 0x5E1F0A07, 224 bytes: what the host has selected (one widget), asked
// for bounds, hit tests, drawing, operations and the property sheet. Operations that a
// selection leaves to the host's defaults answer 1.
struct SelectionTable {
    // The selection type atom ("Widget").
    uint32_t (*GetType)(ServiceObject* self, uint32_t* out);
    // view: the "QFDocumentView" the selection is shown in.
    uint32_t (*Init)(ServiceObject* self, ServiceObject* view);
    // The selection's changed signal: proc(context, selection) after the sheet changed.
    uint32_t (*ConnectChanged)(ServiceObject* self, SelectionChangedProc proc, void* context,
                               uint64_t* outConnection);
    uint32_t (*DisconnectChanged)(ServiceObject* self, uint64_t connection);
    uint32_t (*Reserved4)(ServiceObject* self);
    uint32_t (*Reserved5)(ServiceObject* self);
    uint32_t (*Done)(ServiceObject* self);
    // The module's own data of the selection (for objects of the same module only).
    uint32_t (*GetSelectionData)(ServiceObject* self, void** out);
    uint32_t (*CanCopy)(ServiceObject* self, uint8_t* out);
    uint32_t (*GetPageIndexRange)(ServiceObject* self, uint64_t* outFirst, uint64_t* outLast);
    uint32_t (*HitTest)(ServiceObject* self, uint64_t pageIndex, const float* point,
                        uint8_t* outHit);
    // Draw through the host's "GraphicsService", in the space of page pageIndex.
    uint32_t (*Draw)(ServiceObject* self, uint64_t pageIndex);
    uint32_t (*DrawHighlight)(ServiceObject* self, uint64_t pageIndex);
    uint32_t (*GetDestination)(ServiceObject* self, uint64_t* outPageIndex, PDRect* outRect);
    // Adds the selection's properties to context (a "QFPropertiesContext").
    uint32_t (*GetProperties)(ServiceObject* self, ServiceObject* context);
    // Capability bits of the host's edit machinery.
    uint32_t (*GetAvailableOperations)(ServiceObject* self, uint32_t* out);
    uint32_t (*Reserved16)(ServiceObject* self);
    uint32_t (*Reserved17)(ServiceObject* self);
    uint32_t (*Reserved18)(ServiceObject* self);
    uint32_t (*Reserved19)(ServiceObject* self);
    uint32_t (*Reserved20)(ServiceObject* self);
    uint32_t (*Reserved21)(ServiceObject* self);
    uint32_t (*GetNumQuads)(ServiceObject* self, uint64_t* out);
    uint32_t (*GetQuadPoints)(ServiceObject* self, uint64_t index, float* outQuad);
    uint32_t (*GetNumQuadsByPage)(ServiceObject* self, uint64_t pageIndex, uint64_t* out);
    uint32_t (*GetQuadPointsByPage)(ServiceObject* self, uint64_t pageIndex, uint64_t index,
                                    float* outQuad);
    uint32_t (*GetBounds)(ServiceObject* self, PDRect* out);
    uint32_t (*GetPageIndex)(ServiceObject* self, uint64_t* out);
};
constexpr uint32_t kSelectionId = 0x5E1F0A07;
static_assert(sizeof(SelectionTable) == 224);

// ---- implemented by the host -------------------------------------------------------------
// Registration operations take the name atom (KR atom) and one reference to the object
// for the host to keep (the host AddRefs what it keeps; the caller keeps its own).

// "TasksRepository", id 0x5E1F0B01, 32 bytes: tools by name atom.
struct TasksRepositoryTable {
    uint32_t (*RegisterTool)(ServiceObject* self, uint32_t nameAtom, ServiceObject* factory);
    uint32_t (*WithdrawTool)(ServiceObject* self, uint32_t nameAtom);
    // A new tool from the factory registered under nameAtom (one reference for the caller).
    uint32_t (*CreateTool)(ServiceObject* self, uint32_t nameAtom, ServiceObject** out);
    // Creates the tool, makes it the active tool of view and returns it (one reference).
    uint32_t (*ActivateTool)(ServiceObject* self, uint32_t nameAtom, ServiceObject* view,
                             ServiceObject** out);
};
constexpr uint32_t kTasksRepositoryId = 0x5E1F0B01;

// "CommandsManager", id 0x5E1F0B02, 56 bytes: command factories by name atom, and the
// undo and redo stacks.
struct CommandsManagerTable {
    uint32_t (*RegisterCommandFactory)(ServiceObject* self, uint32_t nameAtom,
                                       ServiceObject* factory);
    uint32_t (*WithdrawCommandFactory)(ServiceObject* self, uint32_t nameAtom);
    // Creates the command with args (args->nameAtom selects the factory), runs DO, and on
    // success pushes it on the undo stack and clears the redo stack. The command's result
    // is returned; a command that fails in DO is dropped.
    uint32_t (*ExecuteCommand)(ServiceObject* self, const CommandArgs* args);
    // UNDO of the newest command, moved to the redo stack; 1 when there is none.
    uint32_t (*Undo)(ServiceObject* self);
    // DO of the newest undone command, moved back; 1 when there is none.
    uint32_t (*Redo)(ServiceObject* self);
    uint32_t (*GetStackDepths)(ServiceObject* self, uint32_t* outUndo, uint32_t* outRedo);
    // Drops both stacks.
    uint32_t (*Clear)(ServiceObject* self);
};
constexpr uint32_t kCommandsManagerId = 0x5E1F0B02;

// "QFService", id 0x5E1F0B03, 32 bytes: the annotation edit registry.
struct ServiceTable {
    uint32_t (*Prepare)(ServiceObject* self);
    // subtypeAtom: the pdfcore atom of the annotation subtype (PD_ATOM_Widget).
    uint32_t (*RegisterAnnotEditSelectFactory)(ServiceObject* self, uint32_t subtypeAtom,
                                               ServiceObject* factory);
    uint32_t (*WithdrawAnnotEditSelectFactory)(ServiceObject* self, uint32_t subtypeAtom);
    // Takes annot (of page pageIndex of the current document) out of the host's selection;
    // 1 when it is not selected.
    uint32_t (*DeselectAnnot)(ServiceObject* self, uint64_t pageIndex, PDAnnot annot);
};
constexpr uint32_t kServiceId = 0x5E1F0B03;

// "QFEditService", id 0x5E1F0B04, 16 bytes: select-edit-object services by edit type atom.
struct EditServiceTable {
    uint32_t (*RegisterSelectEditObjectService)(ServiceObject* self, uint32_t typeAtom,
                                                ServiceObject* service);
    uint32_t (*WithdrawSelectEditObjectService)(ServiceObject* self, uint32_t typeAtom);
};
constexpr uint32_t kEditServiceId = 0x5E1F0B04;

// "QFEditObjectPickerFactory", id 0x5E1F0B05, 32 bytes.
struct EditObjectPickerFactoryTable {
    uint32_t (*RegisterEditObjectFactory)(ServiceObject* self, uint32_t typeAtom,
                                          ServiceObject* factory);
    uint32_t (*WithdrawEditObjectFactory)(ServiceObject* self, uint32_t typeAtom);
    uint32_t (*RegisterCompositeItem)(ServiceObject* self, uint32_t typeAtom,
                                      ServiceObject* item);
    uint32_t (*WithdrawCompositeItem)(ServiceObject* self, uint32_t typeAtom);
};
constexpr uint32_t kEditObjectPickerFactoryId = 0x5E1F0B05;

// "QFEditModuleService", id 0x5E1F0B06, 16 bytes: selection factories by name atom (the
// module's selection-factory registration list goes here).
struct EditModuleServiceTable {
    uint32_t (*RegisterSelectionFactory)(ServiceObject* self, uint32_t nameAtom,
                                         ServiceObject* factory);
    uint32_t (*WithdrawSelectionFactory)(ServiceObject* self, uint32_t nameAtom);
};
constexpr uint32_t kEditModuleServiceId = 0x5E1F0B06;

// "QFPDAnnotService", id 0x5E1F0B07, 16 bytes: annotation handler factories by name atom
// (the module's fourth registration list, empty today, goes here).
struct PDAnnotServiceTable {
    uint32_t (*RegisterHandlerFactory)(ServiceObject* self, uint32_t nameAtom,
                                       ServiceObject* factory);
    uint32_t (*WithdrawHandlerFactory)(ServiceObject* self, uint32_t nameAtom);
};
constexpr uint32_t kPDAnnotServiceId = 0x5E1F0B07;

// "QFAnnotPropertiesFactory", id 0x5E1F0B0A, 16 bytes.
struct AnnotPropertiesFactoryTable {
    // Runs the "AddWidget" command (AddWidgetParams {document, pageIndex, widget}) through
    // the commands manager, so that the new widget lands on the page and on the undo
    // stack. The command's result is returned.
    uint32_t (*AddWidget)(ServiceObject* self, ServiceObject* document, uint64_t pageIndex,
                          PDAnnot widget);
    // Adds the host's property rows for an annotation of subtype (its PDF name, "Widget",
    // NUL-terminated) to the area "AnnotArea" of context (a "QFPropertiesContext"). rect:
    // the annotation's rectangle as the caller sees it. 1 for a subtype without rows.
    uint32_t (*AddAnnotProperties)(ServiceObject* self, const char16_t* subtype,
                                   ServiceObject* document, uint64_t pageIndex, PDAnnot annot,
                                   const PDRect* rect, ServiceObject* context);
};
constexpr uint32_t kAnnotPropertiesFactoryId = 0x5E1F0B0A;

// "QFStringService", id 0x5E1F0B0B, 8 bytes: texts in the user's language.
struct StringServiceTable {
    // The translation of text (len UTF-16 units) in the two-call form of pdfcore's text
    // getters: a null buf gives the length in *outLen; otherwise at most bufLen - 1 units
    // and a NUL are written (8 when bufLen is too small). 1 when the catalog has no
    // translation (the caller keeps the original).
    uint32_t (*GetTranslatedString)(ServiceObject* self, const char16_t* text, uint32_t len,
                                    char16_t* buf, uint32_t bufLen, uint32_t* outLen);
};
constexpr uint32_t kStringServiceId = 0x5E1F0B0B;

// Receives a text from a callee; the text is valid only during the call of put.
struct TextSink {
    void* context;
    void (*put)(void* context, const char16_t* text, uint64_t length);
};

// "QFUserSettings", id 0x5E1F0B0C, 32 bytes: the user settings tree. A path names a value
// by its groups and its key, separated by '/': u"Forms/CheckBox/Width". Every known value
// has a default; 1 for a path the tree does not have, 3 for null arguments, 13 for a
// value of the other type.
struct UserSettingsTable {
    uint32_t (*GetInteger)(ServiceObject* self, const char16_t* path, int64_t* out);
    uint32_t (*GetString)(ServiceObject* self, const char16_t* path, const TextSink* out);
    uint32_t (*SetInteger)(ServiceObject* self, const char16_t* path, int64_t value);
    uint32_t (*SetString)(ServiceObject* self, const char16_t* path, const char16_t* text,
                          uint64_t length);
};
constexpr uint32_t kUserSettingsId = 0x5E1F0B0C;

// "QFAnnotEditService", id 0x5E1F0B0D, 56 bytes: the host's annotation selection. Every
// selected annotation is one of the current document; the selection has the edit type
// atom under which it was made ("WidgetEdit").
struct AnnotEditServiceTable {
    // Makes annot (of page pageIndex) the selection, of edit type typeAtom: the host asks
    // the "QFAnnotEditSelectFactory" of the annotation's subtype for the selection object
    // and shows it in the current view. 3 for a null annotation or a page past the pages.
    uint32_t (*SelectAnnot)(ServiceObject* self, uint32_t typeAtom, uint64_t pageIndex,
                            PDAnnot annot);
    // The edit type atom of the selection; 0 when nothing is selected.
    uint32_t (*GetSelectionType)(ServiceObject* self, uint32_t* outType);
    uint32_t (*GetSelectedCount)(ServiceObject* self, uint64_t* out);
    // Selected annotation index (one pdfcore reference) and its page; 5 past the end.
    uint32_t (*GetSelected)(ServiceObject* self, uint64_t index, uint64_t* outPageIndex,
                            PDAnnot* outAnnot);
    // The selection object ("QFSelection", one reference), null when there is none.
    uint32_t (*GetSelection)(ServiceObject* self, ServiceObject** out);
    uint32_t (*ClearSelection)(ServiceObject* self);
    // A new, empty "QFDataObject" (one reference) for an annotation's clipboard data.
    uint32_t (*CreateDataObject)(ServiceObject* self, ServiceObject** out);
};
constexpr uint32_t kAnnotEditServiceId = 0x5E1F0B0D;

// "QFDataObject", id 0x5E1F0B12, 16 bytes: bytes handed between the module's copy and
// paste operations and the host's clipboards.
struct DataObjectTable {
    // Replaces the bytes.
    uint32_t (*PutData)(ServiceObject* self, const void* data, uint64_t length);
    // Two calls: a null buf gives the length in *outLength; otherwise at most bufLength
    // bytes are copied (8 when bufLength is too small).
    uint32_t (*GetData)(ServiceObject* self, void* buf, uint64_t bufLength, uint64_t* outLength);
};
constexpr uint32_t kDataObjectId = 0x5E1F0B12;

// "KRClipboard", id 0x5E1F0B13, 80 bytes: a clipboard. Formats are atoms of their names
// ("UnicodeText", "Bitmap", or any other). Every other operation is meant to run between
// Open and Close; an operation outside them answers 2. Getters have the two-call form of
// QFDataObject's GetData; a format the clipboard does not hold answers 1.
struct ClipboardTable {
    uint32_t (*Open)(ServiceObject* self);
    uint32_t (*Close)(ServiceObject* self);
    // Empties the clipboard.
    uint32_t (*Empty)(ServiceObject* self);
    uint32_t (*PutData)(ServiceObject* self, uint32_t format, const void* data, uint64_t length);
    uint32_t (*HasFormat)(ServiceObject* self, uint32_t format, uint8_t* out);
    uint32_t (*GetData)(ServiceObject* self, uint32_t format, void* buf, uint64_t bufLength,
                        uint64_t* outLength);
    // Text under "UnicodeText"; lengths in UTF-16 units.
    uint32_t (*PutUnicodeText)(ServiceObject* self, const char16_t* text, uint64_t length);
    uint32_t (*GetUnicodeText)(ServiceObject* self, char16_t* buf, uint64_t bufLength,
                               uint64_t* outLength);
    // A picture of width x height ARGB pixels, row by row from the top, under "Bitmap"; the
    // clipboard keeps a copy.
    uint32_t (*PutBitmap)(ServiceObject* self, uint32_t width, uint32_t height,
                          const uint32_t* pixels);
    // How many formats the clipboard holds.
    uint32_t (*CountFormats)(ServiceObject* self, uint64_t* out);
};
constexpr uint32_t kClipboardId = 0x5E1F0B13;

// "KRWinServices", id 0x5E1F0B14, 8 bytes: the host's system services.
struct WinServicesTable {
    // The system clipboard ("KRClipboard", one reference).
    uint32_t (*GetClipboard)(ServiceObject* self, ServiceObject** out);
};
constexpr uint32_t kWinServicesId = 0x5E1F0B14;

// The key and static-data id under which the forms module keeps its private clipboard
// (a "KRClipboard" service object) in the runtime's singleton static-data store.
constexpr uint32_t kPrivateClipboardKey = 0x51464370; // 'QFCp'
constexpr uint32_t kClipboardStaticDataId = 0x4B52436C;

// "QFCompositeEditObjectFactory", id 0x5E1F0B0E, 8 bytes.
struct CompositeEditObjectFactoryTable {
    // A new, empty "QFCompositeEditObject" (one reference).
    uint32_t (*CreateComposite)(ServiceObject* self, ServiceObject** out);
};
constexpr uint32_t kCompositeEditObjectFactoryId = 0x5E1F0B0E;

// "QFCompositeEditObject", id 0x5E1F0B0F, 24 bytes: an ordered group of edit objects.
struct CompositeEditObjectTable {
    // Keeps a reference to child (a "QFEditObject").
    uint32_t (*AddChild)(ServiceObject* self, ServiceObject* child);
    uint32_t (*GetCount)(ServiceObject* self, uint64_t* out);
    // One reference; 5 past the end.
    uint32_t (*GetChild)(ServiceObject* self, uint64_t index, ServiceObject** out);
};
constexpr uint32_t kCompositeEditObjectId = 0x5E1F0B0F;

// "GraphicsService", id 0x5E1F0B10, 88 bytes: drawing over a page as the host shows it.
// Coordinates are the page space of the page being drawn (the host maps them to the
// view); colours ARGB, alpha 0 meaning none. The state (pen, brush, font, transform) is
// saved and restored as a stack; a drawing request outside a page being drawn answers 2.
struct GraphicsServiceTable {
    uint32_t (*SaveState)(ServiceObject* self);
    // 1 when nothing is saved.
    uint32_t (*RestoreState)(ServiceObject* self);
    // Concatenates matrix (a b c d e f) to the current transform.
    uint32_t (*Transform)(ServiceObject* self, const float* matrix);
    // Lines: colour, width in page units, dash 0 solid, 1 dashed, 2 dotted.
    uint32_t (*SetPen)(ServiceObject* self, uint32_t argb, float width, uint32_t dash);
    // Fills.
    uint32_t (*SetBrush)(ServiceObject* self, uint32_t argb);
    // family NUL-terminated; size in page units.
    uint32_t (*SetFont)(ServiceObject* self, const char16_t* family, float size);
    // A rectangle, filled with the brush and outlined with the pen.
    uint32_t (*DrawRect)(ServiceObject* self, const PDRect* rect);
    // A closed polygon of count points (2 count floats).
    uint32_t (*DrawPolygon)(ServiceObject* self, const float* points, uint64_t count);
    // Text (length units) with its baseline starting at (x, y), in the font and the brush.
    uint32_t (*DrawText)(ServiceObject* self, const char16_t* text, uint64_t length, float x,
                         float y);
    // The frame of a selected object: its outline and, for handles 1, the eight grips.
    uint32_t (*DrawFrame)(ServiceObject* self, const PDRect* rect, uint32_t handles);
    // How many page units a view pixel is on the page being drawn (for hairlines and grips).
    uint32_t (*GetPixelSize)(ServiceObject* self, float* out);
};
constexpr uint32_t kGraphicsServiceId = 0x5E1F0B10;

// "QFAnnotPropertiesValidate", id 0x5E1F0B11, 8 bytes.
struct AnnotPropertiesValidateTable {
    // Checks a choice field's option list (a "QFStringPairList" of display text, export
    // value pairs): 0 when it can be used; otherwise 3, with the reason for the user (in
    // the user's language) given to problem.
    uint32_t (*ValidateOptionList)(ServiceObject* self, ServiceObject* list,
                                   const TextSink* problem);
};
constexpr uint32_t kAnnotPropertiesValidateId = 0x5E1F0B11;

}  // namespace QF
