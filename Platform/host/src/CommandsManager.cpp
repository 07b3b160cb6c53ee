#include "qfhost/Services.h"

#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <atomic>
#include <iterator>
#include <utility>

namespace qfhost {

namespace {

using Table = QF::CommandsManagerTable;

// Slots of the Command table.
constexpr size_t kDoSlot = 4;
constexpr size_t kUndoSlot = 5;

const Table kTable = {
    [](ServiceObject* self, uint32_t atom, ServiceObject* factory) -> uint32_t {
        return detail::guarded(
            [&] { return CommandsManager::of(self).factories().put(atom, factory); });
    },
    [](ServiceObject* self, uint32_t atom) -> uint32_t {
        return detail::guarded([&] { return CommandsManager::of(self).factories().remove(atom); });
    },
    [](ServiceObject* self, const QF::CommandArgs* args) -> uint32_t {
        return detail::guarded([&] { return CommandsManager::of(self).execute(args); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return CommandsManager::of(self).undo(); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return CommandsManager::of(self).redo(); });
    },
    [](ServiceObject* self, uint32_t* outUndo, uint32_t* outRedo) -> uint32_t {
        if (!outUndo || !outRedo) return codes::kBadArgument;
        auto depths = CommandsManager::of(self).depths();
        *outUndo = depths.undo;
        *outRedo = depths.redo;
        return codes::kOk;
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] {
            CommandsManager::of(self).clear();
            return codes::kOk;
        });
    },
};

QF::CommandTable* commandTable(const ObjectPtr& command) {
    return SODetails::methods<QF::CommandTable>(command.get());
}

uint32_t doOf(const ObjectPtr& command) {
    return SODetails::hasMethod(command.get(), kDoSlot) ? commandTable(command)->DO(command.get())
                                                        : codes::kNotInitialized;
}

uint32_t undoOf(const ObjectPtr& command) {
    return SODetails::hasMethod(command.get(), kUndoSlot)
               ? commandTable(command)->UNDO(command.get())
               : codes::kNotInitialized;
}

// ---- a group of commands, one entry of the stacks ------------------------------------------

constexpr uint32_t kCommandGroupImplId = 0x51480401;

// DO runs the commands in order, UNDO undoes them newest first. A command that fails takes
// back what the same call did before it, so that the group is done or undone whole.
struct CommandGroup {
    uint32_t nameAtom;
    uint32_t uniqueId;
    std::vector<ObjectPtr> commands;

    uint32_t apply(bool undo) {
        const size_t n = commands.size();
        for (size_t k = 0; k < n; ++k) {
            const ObjectPtr& c = commands[undo ? n - 1 - k : k];
            const uint32_t rc = undo ? undoOf(c) : doOf(c);
            if (rc == codes::kOk) continue;
            for (size_t j = k; j-- > 0;) {
                const ObjectPtr& back = commands[undo ? n - 1 - j : j];
                if (undo) {
                    doOf(back);
                } else {
                    undoOf(back);
                }
            }
            return rc;
        }
        return codes::kOk;
    }
};

CommandGroup& groupOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, CommandGroup>(so);
}

uint32_t groupName(ServiceObject* self, uint32_t* out) {
    if (!out) return codes::kBadArgument;
    *out = groupOf(self).nameAtom;
    return codes::kOk;
}

const QF::CommandTable kGroupTable = {
    groupName,
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = groupOf(self).uniqueId;
        return codes::kOk;
    },
    groupName,
    groupName,
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return groupOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return groupOf(self).apply(true); });
    },
};

}  // namespace

ServiceObject* CommandsManager::create() {
    return detail::makeHostObject<Table, CommandsManager>(
        QF::kCommandsManagerId, kName, detail::kCommandsManagerImplId, kTable);
}

CommandsManager& CommandsManager::of(ServiceObject* so) {
    return SODetails::implOf<Table, CommandsManager>(so);
}

// No lock is held while a command runs: DO and UNDO may call back into the manager.
uint32_t CommandsManager::execute(const QF::CommandArgs* args) {
    if (!args) return codes::kBadArgument;
    ObjectPtr factory = factories_.find(args->nameAtom);
    if (!factory) return codes::kNotRegistered;
    if (!SODetails::hasMethod(factory.get(), 0)) return codes::kNotInitialized;

    ObjectPtr command;
    auto* factoryTable = SODetails::methods<QF::CommandFactoryTable>(factory.get());
    uint32_t rc = factoryTable->CreateCommand(factory.get(), args, command.put());
    if (rc != codes::kOk) return rc;
    if (!command) return codes::kFactoryFailed;
    return runOwned(std::move(command));
}

namespace {

// A command made of a name and one function (CommandsManager::run).
struct FunctionCommand {
    uint32_t name;
    uint32_t id;
    std::function<uint32_t(bool)> apply;
    FunctionCommand(uint32_t n, std::function<uint32_t(bool)> f)
        : name(n), id(nextId()), apply(std::move(f)) {}
    static uint32_t nextId() {
        static std::atomic<uint32_t> last{0x51000000};
        return ++last;
    }
};

FunctionCommand& functionCommandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, FunctionCommand>(so);
}

uint32_t nameOf(ServiceObject* self, uint32_t* out) {
    if (!out) return codes::kBadArgument;
    *out = functionCommandOf(self).name;
    return codes::kOk;
}

const QF::CommandTable kFunctionCommandTable = {
    nameOf,
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = functionCommandOf(self).id;
        return codes::kOk;
    },
    nameOf,
    nameOf,
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return functionCommandOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return functionCommandOf(self).apply(true); });
    },
};

}  // namespace

uint32_t CommandsManager::run(const std::string& name, std::function<uint32_t(bool)> apply) {
    uint32_t atom = 0;
    if (!apply || KRGetAtomFromString(name.c_str(), &atom) != KR_OK) return codes::kBadArgument;
    return runOwned(ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandTable, FunctionCommand, HostTraits>(
            QF::kCommandId, "Command", detail::kFunctionCommandImplId, kFunctionCommandTable,
            atom, std::move(apply))));
}

uint32_t CommandsManager::run(ServiceObject* command) {
    if (!command) return codes::kBadArgument;
    return runOwned(ObjectPtr::share(command));
}

uint32_t CommandsManager::runOwned(ObjectPtr command) {
    if (!SODetails::hasMethod(command.get(), kDoSlot)) return codes::kNotInitialized;

    uint32_t rc = commandTable(command)->DO(command.get());
    if (rc != codes::kOk) return rc;  // the command is dropped with `command`

    std::vector<ObjectPtr> dropped;  // released after the lock is gone
    const size_t levels = undoLevels();
    std::lock_guard lock(mutex_);
    dropped.swap(redo_);
    if (grouping_) {
        group_.push_back(std::move(command));
    } else {
        pushUndo(std::move(command), levels, dropped);
    }
    return codes::kOk;
}

uint32_t CommandsManager::beginGroup(const std::string& name) {
    uint32_t atom = 0;
    if (name.empty() || KRGetAtomFromString(name.c_str(), &atom) != KR_OK)
        return codes::kBadArgument;
    std::lock_guard lock(mutex_);
    if (grouping_) return codes::kNegative;
    grouping_ = true;
    groupName_ = atom;
    return codes::kOk;
}

uint32_t CommandsManager::endGroup(bool keep) {
    std::vector<ObjectPtr> commands;
    {
        std::lock_guard lock(mutex_);
        if (!grouping_) return codes::kNegative;
        grouping_ = false;
        commands.swap(group_);
    }
    if (!keep) {
        uint32_t result = codes::kOk;
        for (size_t k = commands.size(); k-- > 0;) {
            const uint32_t rc = undoOf(commands[k]);
            if (result == codes::kOk) result = rc;
        }
        return result;
    }
    if (commands.empty()) return codes::kOk;
    ObjectPtr entry;
    if (commands.size() == 1) {
        entry = std::move(commands.front());
    } else {
        static std::atomic<uint32_t> ids{0};
        entry = ObjectPtr::adopt(
            SODetails::makeServiceObject<QF::CommandTable, CommandGroup, HostTraits>(
                QF::kCommandId, "Command", kCommandGroupImplId, kGroupTable,
                CommandGroup{groupName_, ++ids, std::move(commands)}));
    }
    std::vector<ObjectPtr> dropped;
    const size_t levels = undoLevels();
    std::lock_guard lock(mutex_);
    pushUndo(std::move(entry), levels, dropped);
    return codes::kOk;
}

void CommandsManager::pushUndo(ObjectPtr command, size_t levels, std::vector<ObjectPtr>& dropped) {
    undo_.push_back(std::move(command));
    if (levels == 0 || undo_.size() <= levels) return;
    const auto past = undo_.begin() + static_cast<std::ptrdiff_t>(undo_.size() - levels);
    std::move(undo_.begin(), past, std::back_inserter(dropped));
    undo_.erase(undo_.begin(), past);
}

void CommandsManager::setUndoLevels(std::function<size_t()> levels) {
    std::lock_guard lock(mutex_);
    levels_ = std::move(levels);
}

size_t CommandsManager::undoLevels() const {
    std::function<size_t()> levels;
    {
        std::lock_guard lock(mutex_);
        levels = levels_;
    }
    return levels ? levels() : 0;
}

uint32_t CommandsManager::undo() {
    ObjectPtr command;
    {
        std::lock_guard lock(mutex_);
        if (undo_.empty() || grouping_) return codes::kNegative;
        command = std::move(undo_.back());
        undo_.pop_back();
    }
    uint32_t rc = SODetails::hasMethod(command.get(), kUndoSlot)
                      ? commandTable(command)->UNDO(command.get())
                      : codes::kNotInitialized;
    std::lock_guard lock(mutex_);
    (rc == codes::kOk ? redo_ : undo_).push_back(std::move(command));
    return rc;
}

uint32_t CommandsManager::redo() {
    ObjectPtr command;
    {
        std::lock_guard lock(mutex_);
        if (redo_.empty() || grouping_) return codes::kNegative;
        command = std::move(redo_.back());
        redo_.pop_back();
    }
    uint32_t rc = SODetails::hasMethod(command.get(), kDoSlot)
                      ? commandTable(command)->DO(command.get())
                      : codes::kNotInitialized;
    std::vector<ObjectPtr> dropped;
    const size_t levels = undoLevels();
    std::lock_guard lock(mutex_);
    if (rc == codes::kOk) {
        pushUndo(std::move(command), levels, dropped);
    } else {
        redo_.push_back(std::move(command));
    }
    return rc;
}

CommandsManager::Depths CommandsManager::depths() const {
    std::lock_guard lock(mutex_);
    return {static_cast<uint32_t>(undo_.size()), static_cast<uint32_t>(redo_.size())};
}

namespace {

std::vector<std::string> namesOf(const std::vector<ObjectPtr>& stack) {
    std::vector<std::string> names;
    names.reserve(stack.size());
    for (const ObjectPtr& command : stack) {
        uint32_t atom = 0;
        const char* name = nullptr;
        const bool named = SODetails::hasMethod(command.get(), 0) &&
                           SODetails::methods<QF::CommandTable>(command.get())
                                   ->GetCommandName(command.get(), &atom) == 0 &&
                           KRGetStringFromAtom(atom, &name) == KR_OK && name;
        names.emplace_back(named ? name : "?");
    }
    return names;
}

}  // namespace

std::vector<std::string> CommandsManager::undoNames() const {
    std::lock_guard lock(mutex_);
    return namesOf(undo_);
}

std::vector<std::string> CommandsManager::redoNames() const {
    std::lock_guard lock(mutex_);
    return namesOf(redo_);
}

void CommandsManager::clear() {
    std::vector<ObjectPtr> undone, redone, grouped;
    std::lock_guard lock(mutex_);
    undone.swap(undo_);
    redone.swap(redo_);
    grouped.swap(group_);
    grouping_ = false;
}

}  // namespace qfhost
