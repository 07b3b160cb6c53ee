#include "qfhost/Services.h"

#include "Thunks.h"

#include <utility>

namespace qfhost {

namespace {

using Table = QF::TasksRepositoryTable;

// Ends a tool the repository drops, when the tool has Terminate (its result changes
// nothing: the tool goes either way). Called without the repository's lock held.
void terminate(const ObjectPtr& tool) {
    if (tool && SODetails::hasMethod(tool.get(), 1)) {
        SODetails::methods<QF::InputHandlerTable>(tool.get())->Terminate(tool.get());
    }
}

const Table kTable = {
    [](ServiceObject* self, uint32_t atom, ServiceObject* factory) -> uint32_t {
        return detail::guarded([&] { return TasksRepository::of(self).tools().put(atom, factory); });
    },
    [](ServiceObject* self, uint32_t atom) -> uint32_t {
        return detail::guarded([&] { return TasksRepository::of(self).tools().remove(atom); });
    },
    [](ServiceObject* self, uint32_t atom, ServiceObject** out) -> uint32_t {
        return detail::guarded([&] { return TasksRepository::of(self).createTool(atom, out); });
    },
    [](ServiceObject* self, uint32_t atom, ServiceObject* view, ServiceObject** out) -> uint32_t {
        return detail::guarded(
            [&] { return TasksRepository::of(self).activateTool(atom, view, out); });
    },
};

}  // namespace

ServiceObject* TasksRepository::create() {
    return detail::makeHostObject<Table, TasksRepository>(
        QF::kTasksRepositoryId, kName, detail::kTasksRepositoryImplId, kTable);
}

TasksRepository& TasksRepository::of(ServiceObject* so) {
    return SODetails::implOf<Table, TasksRepository>(so);
}

uint32_t TasksRepository::createTool(uint32_t atom, ServiceObject** out) {
    if (!out) return codes::kBadArgument;
    *out = nullptr;
    ObjectPtr factory = tools_.find(atom);
    if (!factory) return codes::kNotRegistered;
    if (!SODetails::hasMethod(factory.get(), 0)) return codes::kNotInitialized;
    ObjectPtr tool;
    auto* table = SODetails::methods<QF::InputHandlerFactoryTable>(factory.get());
    uint32_t rc = table->CreateInputHandler(factory.get(), tool.put());
    if (rc != codes::kOk) return rc;
    if (!tool) return codes::kFactoryFailed;
    *out = tool.detach();
    return codes::kOk;
}

uint32_t TasksRepository::activateTool(uint32_t atom, ServiceObject* view, ServiceObject** out,
                                      ServiceObject* context) {
    if (out) *out = nullptr;
    ObjectPtr tool;
    uint32_t rc = createTool(atom, tool.put());
    if (rc != codes::kOk) return rc;
    if (SODetails::hasMethod(tool.get(), 0)) {
        rc = SODetails::methods<QF::InputHandlerTable>(tool.get())->Initialize(tool.get(), view,
                                                                               context);
        if (rc != codes::kOk) return rc;
    }
    if (out) *out = ObjectPtr(tool).detach();
    ObjectPtr previous;  // terminated and released after the lock is gone
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(active_, tool);
        activeAtom_ = atom;
    }
    if (previous.get() != tool.get()) terminate(previous);
    return codes::kOk;
}

ObjectPtr TasksRepository::activeTool() const {
    std::lock_guard lock(mutex_);
    return active_;
}

uint32_t TasksRepository::activeToolAtom() const {
    std::lock_guard lock(mutex_);
    return activeAtom_;
}

void TasksRepository::deactivate() {
    ObjectPtr previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(active_, ObjectPtr());
        activeAtom_ = 0;
    }
    terminate(previous);
}

}  // namespace qfhost
