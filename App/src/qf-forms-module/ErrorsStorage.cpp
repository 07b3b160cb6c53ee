#include "qf/internal/ErrorsStorage.h"

#include "HostLogger.h"
#include "ModulePlatform.h"
#include "kr/KRRuntime.h"
#include "qf/internal/SOImpl.h"
#include "qf/internal/TextConversion.h"

#include <cstring>
#include <memory>
#include <stdexcept>

// ---- ErrorsStorage ----------------------------------------------------------------------

void ErrorsStorage::Store(uint64_t thread, const FailureRecord& record) {
    std::lock_guard lock(mutex_);
    auto it = records_.find(thread);
    if (it == records_.end())
        records_.emplace(thread, record);
    else
        it->second = record;
}

const FailureRecord* ErrorsStorage::Fetch(uint64_t thread) const {
    std::lock_guard lock(mutex_);
    auto it = records_.find(thread);
    return it == records_.end() ? nullptr : &it->second;
}

namespace {

constexpr uint32_t kLoggedError = 1;

void destroyStorage(void* data) {
    delete static_cast<ErrorsStorage*>(data);
}

[[noreturn]] void failDestroyed() {
    throw std::runtime_error(kErrorsStorageDestroyedText);
}
[[noreturn]] void failWrongId() {
    throw std::runtime_error(kErrorsStorageWrongIdText);
}

// The storage under key, or null when there is none yet.
ErrorsStorage* lookUp(uint32_t key) {
    void* data = nullptr;
    switch (GetSingletonStaticData(key, kErrorsStorageStaticDataId, &data)) {
    case KR_OK:
        return static_cast<ErrorsStorage*>(data);
    case KR_ERR_NOT_FOUND:
        return nullptr;
    case KR_ERR_WRONG_ID:
        failWrongId();
    default:
        failDestroyed();
    }
}

} // namespace

ErrorsStorage& AcquireErrorsStorage(uint32_t key) {
    if (!IsSingletonStaticDataStorageAvailable()) failDestroyed();
    if (ErrorsStorage* found = lookUp(key)) return *found;

    auto fresh = std::make_unique<ErrorsStorage>();
    const uint32_t created =
        CreateSingletonStaticData(key, kErrorsStorageStaticDataId, fresh.get(), destroyStorage);
    if (created == KR_OK) {
        fresh.release();
        // The store calls destroyStorage when it goes, which may be after the host has
        // unloaded this module: keep the code mapped.
        ModulePlatform::PinCurrentModule();
    } else if (created != KR_ERR_EXISTS) {
        // KR_ERR_DESTROYED: the store is going away. KR_ERR_EXISTS: another module or
        // thread created it first; the lookup below finds its storage.
        failDestroyed();
    }
    if (ErrorsStorage* found = lookUp(key)) return *found;
    failDestroyed();
}

ErrorsStorage& GetErrorsStorage() {
    // A failed acquisition leaves the static unset, so the next call tries again.
    static ErrorsStorage* const storage = &AcquireErrorsStorage(kErrorsStorageKey);
    return *storage;
}

// ---- the failure record of the calling thread --------------------------------------------

void StoreFailure(const FailureRecord& record) {
    if (!IsSingletonStaticDataStorageAvailable()) return;
    GetErrorsStorage().Store(ModulePlatform::CurrentThreadId(), record);
}

bool StoreForeignFailure(const char* what) noexcept {
    try {
        StoreFailure(FailureRecord(SOImpl::kGenericFailure, SOImpl::Utf8ToUtf16(what ? what : ""),
                                   std::string(), std::string(), 0));
        return IsSingletonStaticDataStorageAvailable() != 0;
    } catch (...) {
        return false;
    }
}

const FailureRecord* FetchFailure() {
    if (!IsSingletonStaticDataStorageAvailable()) return nullptr;
    return GetErrorsStorage().Fetch(ModulePlatform::CurrentThreadId());
}

namespace {

std::u16string failureText(const char16_t* interfaceName, const char16_t* methodName,
                           uint32_t code) {
    static constexpr char16_t kHex[] = u"0123456789abcdef";
    std::u16string text(interfaceName);
    text += u"::";
    text += methodName;
    text += u"() failed, code: 0x";
    for (int shift = 28; shift >= 0; shift -= 4)
        text += kHex[(code >> shift) & 0xF];
    return text;
}

} // namespace

void RecordFailure(uint32_t code, const char16_t* interfaceName, const char16_t* methodName,
                   const char* thunkName, const char* headerPath, uint32_t line,
                   bool wrapStored) noexcept {
    if (code == SOImpl::kSuccess || code == SOImpl::kNegativeAnswer) return;
    if (code == SOImpl::kUnrecordedCode || !interfaceName || !*interfaceName || !methodName) return;
    try {
        FailureRecord record(code, failureText(interfaceName, methodName, code),
                             thunkName ? thunkName : "", headerPath ? headerPath : "", line);
        if (wrapStored) {
            if (const FailureRecord* cause = FetchFailure()) record.SetInner(*cause);
        }
        StoreFailure(record);
        if (HostLogger::IsEnabled()) {
            // The call that failed, then where the failure started and what it said.
            std::u16string text = failureText(interfaceName, methodName, code);
            if (record.Inner()) text += u": " + record.Message();
            HostLogger::Log(kLoggedError, text, record.File().c_str(), record.Line(),
                            record.Function().c_str());
        }
    } catch (...) {
        // No storage or no memory: the caller still gets the code.
    }
}

// ---- GetLastErrorInfo of the module's service objects --------------------------------------

uint32_t SODetails::ServiceObjectTraits::GetLastErrorInfo(ServiceObject*, ErrorInfo* out,
                                                          const void** outRecord) {
    if (!out) return SOImpl::kBadArgument;
    const FailureRecord* record = nullptr;
    try {
        record = FetchFailure();
    } catch (...) {
        record = nullptr;
    }
    if (!record) {
        std::memset(out, 0, sizeof *out);
        return SOImpl::kNoFailureRecord;
    }
    *out = record->View();
    if (outRecord) *outRecord = record;
    return SOImpl::kSuccess;
}
