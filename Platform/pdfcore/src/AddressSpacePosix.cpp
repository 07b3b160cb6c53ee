// The address-space seam on POSIX systems: mmap without access reserves, mprotect commits,
// madvise(MADV_DONTNEED) gives the pages back.
#include "AddressSpace.h"

#include <sys/mman.h>
#include <unistd.h>

namespace pdfcore::addressSpace {

size_t pageSize() {
    static const size_t size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

void* reserve(size_t bytes) {
    void* at = ::mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
                      0);
    return at == MAP_FAILED ? nullptr : at;
}

bool commit(void* at, size_t bytes) {
    return ::mprotect(at, bytes, PROT_READ | PROT_WRITE) == 0;
}

void discard(void* at, size_t bytes) {
    ::madvise(at, bytes, MADV_DONTNEED);
}

} // namespace pdfcore::addressSpace
