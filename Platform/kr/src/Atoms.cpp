// The process-wide atom table: names <-> 32-bit ids.
#include "Platform.h"
#include "Utf.h"
#include "kr/KRRuntime.h"

#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

// Names are keyed by their UTF-8 text, so that the narrow and the UTF-16 entry points
// meet on one key. Entries are never removed and never move (a deque only appends), so
// the map's keys may point into them and the strings handed out stay valid.
class AtomTable {
  public:
    uint32_t intern(std::string_view utf8, uint32_t* outId) {
        std::lock_guard lock(mutex_);
        if (auto it = ids_.find(utf8); it != ids_.end()) {
            *outId = it->second;
            return KR_OK;
        }
        if (entries_.size() >= kMaxAtoms) return KR_ERR_LIMIT;
        Entry& e = entries_.emplace_back();
        try {
            e.name.assign(utf8);
            if (!kr::platform::acpIsUtf8()) e.narrow = narrowOf(e.name);
            const auto id = static_cast<uint32_t>(entries_.size()); // ids start at 1
            ids_.emplace(std::string_view(e.name), id);
            *outId = id;
            return KR_OK;
        } catch (...) {
            entries_.pop_back();
            throw;
        }
    }

    const char* narrowName(uint32_t id) const {
        std::lock_guard lock(mutex_);
        if (id == 0 || id > entries_.size()) return nullptr;
        const Entry& e = entries_[id - 1];
        return kr::platform::acpIsUtf8() ? e.name.c_str() : e.narrow.c_str();
    }

  private:
    // Ids run from 1 to 0xFFFFFFFE; KR_ATOM_NONE is never reached.
    static constexpr size_t kMaxAtoms = 0xFFFFFFFEu;

    struct Entry {
        std::string name;   // UTF-8
        std::string narrow; // in the ANSI code page; unused when that is UTF-8
    };

    static std::string narrowOf(const std::string& utf8) {
        const size_t n16 = kr::utf::utf8ToUtf16(utf8.data(), utf8.size(), nullptr);
        std::u16string w(n16, u'\0');
        kr::utf::utf8ToUtf16(utf8.data(), utf8.size(), w.data());
        std::string out(kr::platform::utf16ToAcp(w.data(), w.size(), nullptr), '\0');
        kr::platform::utf16ToAcp(w.data(), w.size(), out.data());
        return out;
    }

    // A plain mutex, not std::shared_mutex: MinGW builds that on winpthreads' rwlock,
    // whose lazy set-up on first use races, so that threads starting at once could each
    // lock a lock of their own. The lock is held for one hash lookup.
    mutable std::mutex mutex_;
    std::deque<Entry> entries_; // the entry of id n is entries_[n - 1]
    std::unordered_map<std::string_view, uint32_t> ids_;
};

// Never destroyed: names stay valid for the life of the process, also for callers in
// static destructors that run after this library's.
AtomTable& table() {
    static AtomTable* const t = new AtomTable;
    return *t;
}

// Names up to this many UTF-8 bytes are keyed without a heap allocation.
constexpr size_t kStackName = 256;

} // namespace

extern "C" {

KR_API uint32_t KRGetAtomFromString(const char* name, uint32_t* outId) {
    if (!name || !outId || !*name) return KR_ERR_BAD_ARGUMENT;
    try {
        const std::string_view bytes(name);
        if (kr::platform::acpIsUtf8() && kr::utf::isValidUtf8(bytes))
            return table().intern(bytes, outId);
        // Other code pages, and ill-formed UTF-8: key by the text as it decodes.
        const size_t n16 = kr::platform::acpToUtf16(bytes.data(), bytes.size(), nullptr);
        std::u16string w(n16, u'\0');
        kr::platform::acpToUtf16(bytes.data(), bytes.size(), w.data());
        std::string utf8(kr::utf::utf16ToUtf8(w.data(), w.size(), nullptr), '\0');
        kr::utf::utf16ToUtf8(w.data(), w.size(), utf8.data());
        return table().intern(utf8, outId);
    } catch (...) { // std::bad_alloc, or a lock the system could not provide
        return KR_ERR_OUT_OF_MEMORY;
    }
}

KR_API uint32_t KRGetAtomFromStringW(const char16_t* name, uint32_t* outId) {
    if (!name || !outId || !*name) return KR_ERR_BAD_ARGUMENT;
    try {
        const std::u16string_view w(name);
        const size_t n8 = kr::utf::utf16ToUtf8(w.data(), w.size(), nullptr);
        if (n8 <= kStackName) {
            char buf[kStackName];
            kr::utf::utf16ToUtf8(w.data(), w.size(), buf);
            return table().intern(std::string_view(buf, n8), outId);
        }
        std::string utf8(n8, '\0');
        kr::utf::utf16ToUtf8(w.data(), w.size(), utf8.data());
        return table().intern(utf8, outId);
    } catch (...) { // std::bad_alloc, or a lock the system could not provide
        return KR_ERR_OUT_OF_MEMORY;
    }
}

KR_API uint32_t KRGetStringFromAtom(uint32_t id, const char** outName) {
    if (!outName) return KR_ERR_BAD_ARGUMENT;
    try {
        const char* name = table().narrowName(id);
        if (!name) return KR_ERR_NOT_FOUND;
        *outName = name;
        return KR_OK;
    } catch (...) {
        return KR_ERR_OUT_OF_MEMORY;
    }
}

} // extern "C"
