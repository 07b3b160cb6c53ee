// The user's language: set by the host, else the system's.
#include "Platform.h"
#include "kr/KRRuntime.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

// The tag's letters packed into one word (first letter lowest), 0 while no host set one:
// readable from any thread and in static destructors without a lock.
std::atomic<uint64_t> chosen{0};

// The language part of tag ("ja" of "ja_JP.UTF-8" or "JA-jp") lower-cased, packed; 0
// when it is not 2 to 8 ASCII letters. "C" and "POSIX" are the system's way of saying
// none.
uint64_t pack(const std::string& tag) {
    const std::string part = tag.substr(0, tag.find_first_of("-_.@"));
    if (part.size() < 2 || part.size() > 8 || part == "POSIX") return 0;
    uint64_t packed = 0;
    for (size_t i = 0; i < part.size(); ++i) {
        char c = part[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c < 'a' || c > 'z') return 0;
        packed |= uint64_t(static_cast<unsigned char>(c)) << (8 * i);
    }
    return packed;
}

} // namespace

extern "C" {

KR_API uint32_t KRGetUILanguage(char* dst, size_t dstLen, size_t* outLen) {
    if (!outLen) return KR_ERR_BAD_ARGUMENT;
    uint64_t packed = chosen.load();
    if (packed == 0) {
        try {
            packed = pack(kr::platform::systemLanguage());
        } catch (...) {
            packed = 0;
        }
    }
    if (packed == 0) packed = pack("en");
    char tag[9] = {};
    size_t length = 0;
    for (; length < 8 && ((packed >> (8 * length)) & 0xFF) != 0; ++length)
        tag[length] = static_cast<char>((packed >> (8 * length)) & 0xFF);
    *outLen = length;
    if (!dst) return KR_OK;
    if (dstLen < length + 1) return KR_ERR_BUFFER_SMALL;
    std::memcpy(dst, tag, length + 1);
    return KR_OK;
}

KR_API uint32_t KRSetUILanguage(const char* tag) {
    if (!tag) return KR_ERR_BAD_ARGUMENT;
    uint64_t packed = 0;
    try {
        packed = pack(tag);
    } catch (...) {
        return KR_ERR_OUT_OF_MEMORY;
    }
    if (packed == 0) return KR_ERR_BAD_ARGUMENT;
    chosen.store(packed);
    return KR_OK;
}

} // extern "C"
