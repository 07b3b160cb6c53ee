// The process-wide map from thread id to the thread's last failure record. One instance
// is shared by every module of the process through the KR singleton static-data store.
#pragma once

#include "qf/internal/ServiceObjectException.h"

#include <cstdint>
#include <map>
#include <mutex>

// Key of the storage in the KR singleton static-data store: the tag 'QFEs'. Every module
// built from this code looks the storage up under this key, so they all share one map.
inline constexpr uint32_t kErrorsStorageKey = 0x51464573;
// Static-data id under which the storage is kept.
inline constexpr uint32_t kErrorsStorageStaticDataId = 0xFFFFFFFF;

inline constexpr const char* kErrorsStorageDestroyedText =
    "Fail to get ErrorsStorage instance! Is is already destroyed!";
inline constexpr const char* kErrorsStorageWrongIdText =
    "Fail to get ErrorsStorage instance! Incorrect StaticDataID!";

// The layout of this class is shared between modules: change it only together with
// kErrorsStorageKey.
class ErrorsStorage {
  public:
    // Replaces the record of thread by a copy of record.
    void Store(uint64_t thread, const FailureRecord& record);
    // The record of thread or null. The record is only ever replaced by its own thread, so
    // the pointer may be used after the lock is dropped.
    const FailureRecord* Fetch(uint64_t thread) const;

  private:
    mutable std::mutex mutex_;
    std::map<uint64_t, FailureRecord> records_;
};

// The storage under key: looked up, or created when there is none yet. Throws
// std::runtime_error with kErrorsStorageDestroyedText when the store is unavailable or
// being destroyed, and with kErrorsStorageWrongIdText when key holds data of another
// static-data id. A module that creates the storage stays loaded from then on, since the
// store calls back into it when it is destroyed.
ErrorsStorage& AcquireErrorsStorage(uint32_t key);

// The storage under kErrorsStorageKey, acquired once and kept.
ErrorsStorage& GetErrorsStorage();
