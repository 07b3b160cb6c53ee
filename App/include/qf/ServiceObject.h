// The service-object ABI shared by the host and the modules it loads.
//
// Every object that crosses the boundary is one block of memory:
//
//   offset 0        u32      interface id
//   offset 4        u32      size of the interface's own method table, 8 x methods; it
//                            doubles as the interface version: a caller checks that a
//                            method's slot lies inside it before calling the method
//   offset 8        pointer  interface name, NUL-terminated narrow text
//   offset 16       5 ptrs   AddRef, Release, GetRefCount, GetWeakReference,
//                            GetLastErrorInfo
//   offset 56       n ptrs   the interface's methods, in declaration order
//   56 + size       4 bytes  "EOFT", then the u32 implementation id in the same 8 bytes
//   next 8 bytes    i32      reference count (then 4 bytes of padding)
//   next 8 bytes    pointer  weak-reference block, null until first asked for
//   ...                      the implementation object
//   end             4 bytes  "EOSO"
//
// All methods take the block's address as their first argument, return a u32 result
// code (0 success, 1 negative answer, 3 missing argument, others per interface) and
// never throw. Threads: reference counts are atomic; anything else is the interface's
// business (the forms interfaces are called on the host's user-interface thread).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace SODetails {

struct ServiceObject;  // the start of a block; see above
struct WeakReference;

// What GetLastErrorInfo fills: the calling thread's last failure record (32 bytes). The
// pointers stay valid until the thread stores another record.
struct ErrorInfo {
    uint32_t code;
    uint32_t line;
    const char16_t* message;
    const char* function;
    const char* file;
};
static_assert(sizeof(ErrorInfo) == 32);

struct BaseOperations {
    // Adds a reference; returns the new count.
    int32_t (*AddRef)(ServiceObject* self);
    // Drops a reference; the object is destroyed when the count falls below 1. Returns the
    // new count.
    int32_t (*Release)(ServiceObject* self);
    int32_t (*GetRefCount)(ServiceObject* self);
    // The object's weak-reference block with one more reference for the caller; 3 for a
    // null out.
    uint32_t (*GetWeakReference)(ServiceObject* self, WeakReference** out);
    // The calling thread's failure record: 3 for a null out, 9 (and *out zeroed) when the
    // thread has none; outRecord (may be null) receives the record's address.
    uint32_t (*GetLastErrorInfo)(ServiceObject* self, ErrorInfo* out, const void** outRecord);
};

struct Header {
    uint32_t interfaceId;
    uint32_t tableSize;
    const char* interfaceName;
    BaseOperations base;
};
static_assert(sizeof(Header) == 56 && offsetof(Header, base) == 16);

// The weak-reference block: its own count, a back pointer that is cleared when the object
// dies, a flag set at that moment, and five operations.
struct WeakOperations {
    int32_t (*AddRef)(WeakReference* self);
    int32_t (*Release)(WeakReference* self);
    int32_t (*GetRefCount)(WeakReference* self);
    // A strong reference to the object (one reference for the caller), or null once the
    // object is destroyed; 3 for a null out.
    uint32_t (*Lock)(WeakReference* self, ServiceObject** out);
    // 1 while the object lives, 0 after.
    uint32_t (*IsAlive)(WeakReference* self);
};

struct WeakReference {
    const WeakOperations* ops;
    std::atomic<int32_t> count;
    std::atomic<ServiceObject*> object;
    std::atomic<uint32_t> dead;
    // Held by Lock while it takes a reference and by the object's last Release while it
    // clears object, so that Lock never touches an object being freed.
    std::atomic<uint32_t> busy;
};

inline const Header* header(const ServiceObject* so) {
    return reinterpret_cast<const Header*>(so);
}

// The method table of interface Table behind so.
template <typename Table>
Table* methods(ServiceObject* so) {
    return reinterpret_cast<Table*>(reinterpret_cast<char*>(so) + sizeof(Header));
}

// Whether the method in slot index (0-based) of so's interface exists: the interface is
// new enough and the slot is filled.
inline bool hasMethod(ServiceObject* so, size_t index) {
    if (!so || header(so)->tableSize < (index + 1) * sizeof(void*)) return false;
    auto* slots = reinterpret_cast<void* const*>(reinterpret_cast<char*>(so) + sizeof(Header));
    return slots[index] != nullptr;
}

inline int32_t addRef(ServiceObject* so) { return header(so)->base.AddRef(so); }
inline int32_t release(ServiceObject* so) { return header(so)->base.Release(so); }

}  // namespace SODetails
