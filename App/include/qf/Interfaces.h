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

}  // namespace QF
