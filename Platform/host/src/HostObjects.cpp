#include "qfhost/HostObjects.h"

#include "qfhost/HostError.h"

#include "kr/KRRuntime.h"

#include <utility>

namespace qfhost {

HostError::HostError(uint32_t code, const std::string& message, uint32_t systemError)
    : std::runtime_error(message), code_(code), systemError_(systemError) {}

HostError::~HostError() = default;

uint32_t HostTraits::GetLastErrorInfo(ServiceObject*, SODetails::ErrorInfo* out,
                                      const void** outRecord) {
    if (!out) return codes::kBadArgument;
    *out = SODetails::ErrorInfo{};
    if (outRecord) *outRecord = nullptr;
    return 9;
}

ObjectRegistry::~ObjectRegistry() = default;

uint32_t ObjectRegistry::put(uint32_t atom, ServiceObject* object) {
    if (!object || atom == 0 || atom == KR_ATOM_NONE) return codes::kBadArgument;
    ObjectPtr held = ObjectPtr::share(object);
    ObjectPtr earlier;  // released after the lock is gone
    {
        std::lock_guard lock(mutex_);
        Counts& counts = counts_[atom];
        ObjectPtr& slot = objects_[atom];
        earlier = std::exchange(slot, std::move(held));
        ++counts.registered;
    }
    return codes::kOk;
}

uint32_t ObjectRegistry::remove(uint32_t atom) {
    if (atom == 0 || atom == KR_ATOM_NONE) return codes::kBadArgument;
    ObjectPtr withdrawn;
    {
        std::lock_guard lock(mutex_);
        auto it = objects_.find(atom);
        if (it == objects_.end()) return codes::kNegative;
        withdrawn = std::move(it->second);
        objects_.erase(it);
        ++counts_[atom].withdrawn;
    }
    return codes::kOk;
}

void ObjectRegistry::clear() {
    std::map<uint32_t, ObjectPtr> dropped;
    {
        std::lock_guard lock(mutex_);
        dropped.swap(objects_);
    }
}

ObjectPtr ObjectRegistry::find(uint32_t atom) const {
    std::lock_guard lock(mutex_);
    auto it = objects_.find(atom);
    return it == objects_.end() ? ObjectPtr() : it->second;
}

bool ObjectRegistry::contains(uint32_t atom) const {
    std::lock_guard lock(mutex_);
    return objects_.count(atom) != 0;
}

size_t ObjectRegistry::size() const {
    std::lock_guard lock(mutex_);
    return objects_.size();
}

std::vector<uint32_t> ObjectRegistry::atoms() const {
    std::lock_guard lock(mutex_);
    std::vector<uint32_t> result;
    result.reserve(objects_.size());
    for (const auto& entry : objects_) result.push_back(entry.first);
    return result;
}

uint32_t ObjectRegistry::registrations(uint32_t atom) const {
    std::lock_guard lock(mutex_);
    auto it = counts_.find(atom);
    return it == counts_.end() ? 0 : it->second.registered;
}

uint32_t ObjectRegistry::withdrawals(uint32_t atom) const {
    std::lock_guard lock(mutex_);
    auto it = counts_.find(atom);
    return it == counts_.end() ? 0 : it->second.withdrawn;
}

uint32_t ObjectRegistry::totalRegistrations() const {
    std::lock_guard lock(mutex_);
    uint32_t n = 0;
    for (const auto& entry : counts_) n += entry.second.registered;
    return n;
}

uint32_t ObjectRegistry::totalWithdrawals() const {
    std::lock_guard lock(mutex_);
    uint32_t n = 0;
    for (const auto& entry : counts_) n += entry.second.withdrawn;
    return n;
}

}  // namespace qfhost
