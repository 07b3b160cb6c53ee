// The host services that modules reach through the service provider. Each class is the
// implementation object inside a service-object block (makeServiceObject); create()
// makes a block with one reference for the caller and of() finds the object behind one.
// The member functions are the C++ side of the same operations, for the host itself.
#pragma once

#include "qfhost/HostObjects.h"

#include "qf/Interfaces.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qfhost {

// "TasksRepository": tool factories (QFInputHandlerFactory) by tool name atom, and the
// active tool.
class QFHOST_API TasksRepository {
public:
    static constexpr const char* kName = "TasksRepository";
    static ServiceObject* create();
    static TasksRepository& of(ServiceObject* so);

    ObjectRegistry& tools() { return tools_; }
    const ObjectRegistry& tools() const { return tools_; }

    // A new tool from the factory under atom: 3 for a null out, 0x10005 for an unknown
    // atom, 2 when the factory lacks CreateInputHandler, 0x10006 when it made nothing,
    // otherwise the factory's result.
    uint32_t createTool(uint32_t atom, ServiceObject** out);
    // Creates the tool, calls its Initialize(view, context) when the tool has it, and makes
    // it the active tool; the previous one is dropped after its Terminate (when it has one),
    // called without the repository's lock held. out may be null; otherwise it receives one
    // reference. A failing Initialize leaves the active tool as it was and is returned.
    uint32_t activateTool(uint32_t atom, ServiceObject* view, ServiceObject** out,
                          ServiceObject* context = nullptr);

    ObjectPtr activeTool() const;
    uint32_t activeToolAtom() const;
    // Drops the active tool after its Terminate (when it has one), called without the
    // repository's lock held.
    void deactivate();

private:
    ObjectRegistry tools_;
    mutable std::mutex mutex_;
    ObjectPtr active_;
    uint32_t activeAtom_ = 0;
};

// "CommandsManager": command factories by command name atom, and the undo and redo
// stacks. Each stack entry holds one reference to its command. The undo stack keeps at
// most the levels a source gives (the host's: its user setting "Editing/Undo levels");
// past them the oldest are released: their changes stay made and can no longer be undone.
class QFHOST_API CommandsManager {
public:
    static constexpr const char* kName = "CommandsManager";
    static ServiceObject* create();
    static CommandsManager& of(ServiceObject* so);

    ObjectRegistry& factories() { return factories_; }
    const ObjectRegistry& factories() const { return factories_; }

    // 3 for null args, 0x10005 when no factory is registered under args->nameAtom, 2 when
    // the factory or the command lacks the method, 0x10006 when the factory made nothing,
    // the factory's result when it failed; otherwise the command's DO result. Only a
    // command whose DO answered 0 is kept: it goes on the undo stack and the redo stack is
    // dropped.
    uint32_t execute(const QF::CommandArgs* args);
    // The same for a command the caller made (the host's own annotation commands): its DO
    // result, 3 for null, 2 without DO; the stacks take a reference of their own.
    uint32_t run(ServiceObject* command);
    // The same for a command of the caller's own made of one function: apply(false) does
    // it, apply(true) undoes it, each answering a result code (0: done). name is what
    // undoNames gives for it ("SetActions"). apply runs on the thread that runs the
    // stacks; an exception it throws is code 4 (kHostFailure).
    uint32_t run(const std::string& name, std::function<uint32_t(bool undo)> apply);
    // UNDO of the newest command, which moves to the redo stack. 1 when there is none; a
    // failing UNDO (or a command without it: 2) leaves the command where it was.
    uint32_t undo();
    // DO of the newest undone command, which moves back to the undo stack; 1 when there is
    // none; a failing DO leaves it on the redo stack.
    uint32_t redo();
    struct Depths {
        uint32_t undo;
        uint32_t redo;
    };
    Depths depths() const;
    // The names (GetCommandName atoms as text; "?" for a command that gives none) of the
    // commands on the undo or the redo stack, the next to undo or redo last.
    std::vector<std::string> undoNames() const;
    std::vector<std::string> redoNames() const;
    // Drops both stacks (and an open group, whose commands stay done).
    void clear();

    // Gathers the commands that execute and run keep from now until endGroup into one
    // entry of the undo stack named name (the text of its GetCommandName atom): its UNDO
    // undoes them newest first, its DO does them again in order, so that a step made of
    // several commands (every selected widget moved, a tab order over several pages) is
    // undone at once. 1 when a group is open already (groups do not nest), 3 for an empty
    // name. undo and redo are refused (1) while a group is open.
    uint32_t beginGroup(const std::string& name);
    // Closes the open group (1 when none is): with keep, its commands become one entry (a
    // single command goes on as itself; none leaves the stacks as they were); without, they
    // are undone newest first and dropped, so that a step that failed half-way leaves the
    // document as it was. The first failing UNDO's result is returned then (the commands
    // are dropped all the same).
    uint32_t endGroup(bool keep = true);

    // Where the undo levels come from, asked at every new command; empty (as a manager
    // starts) or an answer of 0: no limit.
    void setUndoLevels(std::function<size_t()> levels);
    // The most commands the undo stack keeps now; 0 for no limit.
    size_t undoLevels() const;

private:
    uint32_t runOwned(ObjectPtr command);
    // Pushes command on the undo stack and moves the commands past the levels into
    // dropped, for the caller to release once the lock is gone. Called with mutex_ held.
    void pushUndo(ObjectPtr command, size_t levels, std::vector<ObjectPtr>& dropped);

    ObjectRegistry factories_;
    std::function<size_t()> levels_;
    mutable std::mutex mutex_;
    std::vector<ObjectPtr> undo_;
    std::vector<ObjectPtr> redo_;
    bool grouping_ = false;
    uint32_t groupName_ = 0;
    std::vector<ObjectPtr> group_;
};

class Host;

// "QFService": the annotation edit registry. Prepare counts its calls; edit-select
// factories are kept by pdfcore annotation subtype atom (PD_ATOM_Widget for widgets).
// DeselectAnnot goes to the host's selection ("QFAnnotEditService").
class QFHOST_API AnnotEditService {
public:
    static constexpr const char* kName = "QFService";
    static ServiceObject* create(Host& host);
    static AnnotEditService& of(ServiceObject* so);

    explicit AnnotEditService(Host& host) : host_(&host) {}
    Host& host() const { return *host_; }

    uint32_t prepare();
    uint32_t prepareCount() const;
    ObjectRegistry& editSelectFactories() { return factories_; }
    const ObjectRegistry& editSelectFactories() const { return factories_; }

private:
    Host* host_;
    ObjectRegistry factories_;
    std::atomic<uint32_t> prepared_{0};
};

// "QFEditService": select-edit-object services by edit type atom ("WidgetEdit").
class QFHOST_API EditService {
public:
    static constexpr const char* kName = "QFEditService";
    static ServiceObject* create();
    static EditService& of(ServiceObject* so);

    ObjectRegistry& selectEditObjectServices() { return services_; }
    const ObjectRegistry& selectEditObjectServices() const { return services_; }

private:
    ObjectRegistry services_;
};

// "QFEditObjectPickerFactory": edit-object factories and composite edit-object factory
// items by edit type atom, in two separate registries.
class QFHOST_API EditObjectPicker {
public:
    static constexpr const char* kName = "QFEditObjectPickerFactory";
    static ServiceObject* create();
    static EditObjectPicker& of(ServiceObject* so);

    ObjectRegistry& editObjectFactories() { return factories_; }
    const ObjectRegistry& editObjectFactories() const { return factories_; }
    ObjectRegistry& compositeItems() { return items_; }
    const ObjectRegistry& compositeItems() const { return items_; }

private:
    ObjectRegistry factories_;
    ObjectRegistry items_;
};

// "QFEditModuleService": selection factories by name atom.
class QFHOST_API EditModuleService {
public:
    static constexpr const char* kName = "QFEditModuleService";
    static ServiceObject* create();
    static EditModuleService& of(ServiceObject* so);

    ObjectRegistry& selectionFactories() { return factories_; }
    const ObjectRegistry& selectionFactories() const { return factories_; }

private:
    ObjectRegistry factories_;
};

// "QFPDAnnotService": annotation handler factories by name atom.
class QFHOST_API PDAnnotService {
public:
    static constexpr const char* kName = "QFPDAnnotService";
    static ServiceObject* create();
    static PDAnnotService& of(ServiceObject* so);

    ObjectRegistry& handlerFactories() { return factories_; }
    const ObjectRegistry& handlerFactories() const { return factories_; }

private:
    ObjectRegistry factories_;
};

}  // namespace qfhost
