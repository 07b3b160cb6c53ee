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

// "QFService", id 0x5E1F0B03, 24 bytes: the annotation edit registry.
struct ServiceTable {
    uint32_t (*Prepare)(ServiceObject* self);
    // subtypeAtom: the pdfcore atom of the annotation subtype (PD_ATOM_Widget).
    uint32_t (*RegisterAnnotEditSelectFactory)(ServiceObject* self, uint32_t subtypeAtom,
                                               ServiceObject* factory);
    uint32_t (*WithdrawAnnotEditSelectFactory)(ServiceObject* self, uint32_t subtypeAtom);
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

// "QFAnnotPropertiesFactory", id 0x5E1F0B0A, 8 bytes.
struct AnnotPropertiesFactoryTable {
    // Runs the "AddWidget" command (AddWidgetParams {document, pageIndex, widget}) through
    // the commands manager, so that the new widget lands on the page and on the undo
    // stack. The command's result is returned.
    uint32_t (*AddWidget)(ServiceObject* self, ServiceObject* document, uint64_t pageIndex,
                          PDAnnot widget);
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

}  // namespace QF
