// The singleton static-data store shared by the modules of the process.
#include "kr/KRRuntime.h"

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

class Store {
  public:
    uint32_t create(uint32_t key, uint32_t staticDataId, void* data,
                    KRStaticDataDestroyProc destroy) {
        std::lock_guard lock(mutex_);
        if (!available_.load(std::memory_order_relaxed)) return KR_ERR_DESTROYED;
        if (index_.count(key)) return KR_ERR_EXISTS;
        entries_.push_back(Entry{key, staticDataId, data, destroy});
        try {
            index_.emplace(key, entries_.size() - 1);
        } catch (...) {
            entries_.pop_back();
            throw;
        }
        return KR_OK;
    }

    uint32_t get(uint32_t key, uint32_t staticDataId, void** outData) const {
        std::lock_guard lock(mutex_);
        if (!available_.load(std::memory_order_relaxed)) return KR_ERR_DESTROYED;
        const auto it = index_.find(key);
        if (it == index_.end()) return KR_ERR_NOT_FOUND;
        const Entry& e = entries_[it->second];
        if (e.staticDataId != staticDataId) return KR_ERR_WRONG_ID;
        *outData = e.data;
        return KR_OK;
    }

    bool available() const { return available_.load(std::memory_order_acquire); }

    // Only the first call destroys. The callbacks run with no lock held, so that one
    // calling back into the store gets KR_ERR_DESTROYED instead of a deadlock.
    void destroy() noexcept {
        std::vector<Entry> doomed;
        {
            std::lock_guard lock(mutex_);
            if (!available_.load(std::memory_order_relaxed)) return;
            available_.store(false, std::memory_order_release);
            doomed.swap(entries_);
            index_.clear();
        }
        for (auto it = doomed.rbegin(); it != doomed.rend(); ++it)
            if (it->destroy) it->destroy(it->data);
    }

  private:
    struct Entry {
        uint32_t key;
        uint32_t staticDataId;
        void* data;
        KRStaticDataDestroyProc destroy;
    };

    mutable std::mutex mutex_; // not std::shared_mutex, which MinGW builds on a racy rwlock
    std::atomic<bool> available_{true};          // written under mutex_ only
    std::vector<Entry> entries_;                 // in order of creation
    std::unordered_map<uint32_t, size_t> index_; // key -> position in entries_
};

// Never deleted: modules may still ask for their data from static destructors that
// run after the exit hook below, and must then get KR_ERR_DESTROYED rather than touch
// a destroyed object.
Store& store() {
    static Store* const s = new Store;
    return *s;
}

// Destroys the store when the process exits (or this library is unloaded). As modules
// that use the store load after this library, their own static destructors run before
// this one.
struct ExitHook {
    ExitHook() { store(); }
    ~ExitHook() { store().destroy(); }
} exitHook;

} // namespace

extern "C" {

KR_API uint32_t CreateSingletonStaticData(uint32_t key, uint32_t staticDataId, void* data,
                                          KRStaticDataDestroyProc destroy) {
    if (!data) return KR_ERR_BAD_ARGUMENT;
    try {
        return store().create(key, staticDataId, data, destroy);
    } catch (...) { // std::bad_alloc, or a lock the system could not provide
        return KR_ERR_OUT_OF_MEMORY;
    }
}

KR_API uint32_t GetSingletonStaticData(uint32_t key, uint32_t staticDataId, void** outData) {
    if (!outData) return KR_ERR_BAD_ARGUMENT;
    try {
        return store().get(key, staticDataId, outData);
    } catch (...) {
        return KR_ERR_OUT_OF_MEMORY;
    }
}

KR_API int IsSingletonStaticDataStorageAvailable(void) {
    return store().available() ? 1 : 0;
}

KR_API void KRDestroySingletonStaticData(void) {
    store().destroy();
}

} // extern "C"
