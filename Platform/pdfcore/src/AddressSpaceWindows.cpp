// The address-space seam on Windows: VirtualAlloc reserves and commits, MEM_RESET hands
// the pages' contents back, and a decommit and commit read them as zeros again.
#include "AddressSpace.h"

#include <windows.h>

namespace pdfcore::addressSpace {

size_t pageSize() {
    static const size_t size = [] {
        SYSTEM_INFO info{};
        GetSystemInfo(&info);
        return static_cast<size_t>(info.dwPageSize);
    }();
    return size;
}

void* reserve(size_t bytes) {
    return VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_NOACCESS);
}

bool commit(void* at, size_t bytes) {
    return VirtualAlloc(at, bytes, MEM_COMMIT, PAGE_READWRITE) != nullptr;
}

void discard(void* at, size_t bytes) {
    // Decommitted pages count against nothing and are zero when committed again, as the
    // seam promises; the addresses stay reserved.
    VirtualFree(at, bytes, MEM_DECOMMIT);
}

} // namespace pdfcore::addressSpace
