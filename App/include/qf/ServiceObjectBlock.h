// Making service objects: the block of ServiceObject.h with its base operations, weak
// references and the holder BasicServiceObjectPtr. Header-only, used by the module and by
// the reference host alike, so that both lay blocks out the same way.
#pragma once

#include "qf/ServiceObject.h"

#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace SODetails {

// Everything of a block before the implementation object.
template <typename Table>
struct BlockPrefix {
    Header header;
    Table table;
    char eoft[4];
    uint32_t implementationId;
    std::atomic<int32_t> refs;
    uint32_t padding;
    std::atomic<WeakReference*> weak;
};

template <typename Table, typename Impl>
struct Block {
    BlockPrefix<Table> prefix;
    Impl impl;
    char eoso[4];

    template <typename... Args>
    explicit Block(Args&&... args) : impl(std::forward<Args>(args)...) {}
};

template <typename Table>
BlockPrefix<Table>* prefixOf(ServiceObject* so) {
    return reinterpret_cast<BlockPrefix<Table>*>(so);
}

// The implementation object behind a block made by makeServiceObject<Table, Impl>.
template <typename Table, typename Impl>
Impl& implOf(ServiceObject* so) {
    return reinterpret_cast<Block<Table, Impl>*>(so)->impl;
}

namespace detail {

inline int32_t weakAddRef(WeakReference* w) { return w->count.fetch_add(1) + 1; }
inline int32_t weakRelease(WeakReference* w) {
    int32_t n = w->count.fetch_sub(1) - 1;
    if (n < 1) delete w;
    return n;
}
inline int32_t weakGetRefCount(WeakReference* w) { return w->count.load(); }
// The object's reference count sits at the same offset for every table size only through
// the header: read it from the tableSize field.
inline std::atomic<int32_t>* refsOf(ServiceObject* so) {
    auto* base = reinterpret_cast<char*>(so) + sizeof(Header) + header(so)->tableSize + 8;
    return reinterpret_cast<std::atomic<int32_t>*>(base);
}
inline std::atomic<WeakReference*>* weakSlotOf(ServiceObject* so) {
    auto* base = reinterpret_cast<char*>(so) + sizeof(Header) + header(so)->tableSize + 16;
    return reinterpret_cast<std::atomic<WeakReference*>*>(base);
}
class WeakGuard {
public:
    explicit WeakGuard(WeakReference* w) : w_(w) {
        uint32_t expected = 0;
        while (!w_->busy.compare_exchange_weak(expected, 1)) expected = 0;
    }
    ~WeakGuard() { w_->busy.store(0); }
    WeakGuard(const WeakGuard&) = delete;
    WeakGuard& operator=(const WeakGuard&) = delete;

private:
    WeakReference* w_;
};

inline uint32_t weakLock(WeakReference* w, ServiceObject** out) {
    if (!out) return 3;
    *out = nullptr;
    WeakGuard guard(w);
    ServiceObject* so = w->object.load();
    if (!so || w->dead.load()) return 0;
    // Take a reference only while the count is still positive: a dying object stays dead.
    auto* refs = refsOf(so);
    int32_t r = refs->load();
    while (r > 0) {
        if (refs->compare_exchange_weak(r, r + 1)) {
            *out = so;
            return 0;
        }
    }
    return 0;
}
inline uint32_t weakIsAlive(WeakReference* w) { return w->dead.load() ? 0 : 1; }

inline const WeakOperations kWeakOperations = {weakAddRef, weakRelease, weakGetRefCount,
                                               weakLock, weakIsAlive};

inline int32_t addRef(ServiceObject* so) { return refsOf(so)->fetch_add(1) + 1; }
inline int32_t getRefCount(ServiceObject* so) { return refsOf(so)->load(); }

inline uint32_t getWeakReference(ServiceObject* so, WeakReference** out) {
    if (!out) return 3;
    auto* slot = weakSlotOf(so);
    WeakReference* w = slot->load();
    if (!w) {
        auto* made = new WeakReference{&kWeakOperations, {1}, {so}, {0}, {0}};
        if (slot->compare_exchange_strong(w, made)) {
            w = made;
        } else {
            delete made;  // another thread installed one first; w holds it
        }
    }
    weakAddRef(w);
    *out = w;
    return 0;
}

template <typename Table, typename Impl>
int32_t release(ServiceObject* so) {
    int32_t n = refsOf(so)->fetch_sub(1) - 1;
    if (n < 1) {
        auto* block = reinterpret_cast<Block<Table, Impl>*>(so);
        if (WeakReference* w = block->prefix.weak.load()) {
            {
                WeakGuard guard(w);
                w->dead.store(1);
                w->object.store(nullptr);
            }
            weakRelease(w);
        }
        std::memcpy(block->eoso, "DDDD", 4);
        block->~Block();
        ::operator delete(block);
    }
    return n;
}

}  // namespace detail

// Makes a block of interface Table (filled in table) around a new Impl built from args,
// with a reference count of 1. Traits supplies GetLastErrorInfo, the one base operation
// that depends on the side (module or host) that made the object.
template <typename Table, typename Impl, typename Traits, typename... Args>
ServiceObject* makeServiceObject(uint32_t interfaceId, const char* interfaceName,
                                 uint32_t implementationId, const Table& table, Args&&... args) {
    static_assert(std::is_standard_layout_v<BlockPrefix<Table>>);
    static_assert(offsetof(BlockPrefix<Table>, table) == 56);
    static_assert(offsetof(BlockPrefix<Table>, eoft) == 56 + sizeof(Table));
    static_assert(offsetof(BlockPrefix<Table>, refs) == 56 + sizeof(Table) + 8);
    static_assert(offsetof(BlockPrefix<Table>, weak) == 56 + sizeof(Table) + 16);
    void* memory = ::operator new(sizeof(Block<Table, Impl>));
    Block<Table, Impl>* block;
    try {
        block = new (memory) Block<Table, Impl>(std::forward<Args>(args)...);
    } catch (...) {
        ::operator delete(memory);
        throw;
    }
    auto& p = block->prefix;
    p.header.interfaceId = interfaceId;
    p.header.tableSize = static_cast<uint32_t>(sizeof(Table));
    p.header.interfaceName = interfaceName;
    p.header.base = BaseOperations{detail::addRef, detail::release<Table, Impl>,
                                   detail::getRefCount, detail::getWeakReference,
                                   Traits::GetLastErrorInfo};
    p.table = table;
    std::memcpy(p.eoft, "EOFT", 4);
    p.implementationId = implementationId;
    p.refs.store(1);
    p.padding = 0;
    p.weak.store(nullptr);
    std::memcpy(block->eoso, "EOSO", 4);
    return reinterpret_cast<ServiceObject*>(block);
}

// Holds one reference to a service object: copying adds one, destruction and reassignment
// drop one; both are skipped for a null object and for an object without the operation.
template <typename T = ServiceObject>
class BasicServiceObjectPtr {
public:
    BasicServiceObjectPtr() = default;
    // Takes over one reference the caller already owns.
    static BasicServiceObjectPtr adopt(T* so) {
        BasicServiceObjectPtr p;
        p.so_ = so;
        return p;
    }
    // Adds a reference of its own.
    static BasicServiceObjectPtr share(T* so) {
        BasicServiceObjectPtr p;
        p.so_ = so;
        p.addRef();
        return p;
    }
    BasicServiceObjectPtr(const BasicServiceObjectPtr& other) : so_(other.so_) { addRef(); }
    BasicServiceObjectPtr(BasicServiceObjectPtr&& other) noexcept : so_(other.so_) {
        other.so_ = nullptr;
    }
    BasicServiceObjectPtr& operator=(BasicServiceObjectPtr other) noexcept {
        std::swap(so_, other.so_);
        return *this;
    }
    ~BasicServiceObjectPtr() { reset(); }

    void reset() {
        if (so_ && header(base())->base.Release) header(base())->base.Release(base());
        so_ = nullptr;
    }
    // Gives the reference away.
    T* detach() { return std::exchange(so_, nullptr); }
    T* get() const { return so_; }
    explicit operator bool() const { return so_ != nullptr; }
    // For out parameters: drops what is held and lends the slot.
    T** put() {
        reset();
        return &so_;
    }

private:
    ServiceObject* base() const { return reinterpret_cast<ServiceObject*>(so_); }
    void addRef() {
        if (so_ && header(base())->base.AddRef) header(base())->base.AddRef(base());
    }
    T* so_ = nullptr;
};

}  // namespace SODetails
