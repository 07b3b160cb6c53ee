// The seam between pdfcore's handle records and the system's virtual memory: a range of
// addresses reserved once, whose pages are made usable as they are reached and handed back
// when nothing on them is alive. One source file per system implements it
// (AddressSpacePosix.cpp, AddressSpaceWindows.cpp). None of the calls throws.
#pragma once

#include <cstddef>

namespace pdfcore::addressSpace {

// The size of the pages the calls below take (a power of two).
size_t pageSize();
// Reserves bytes of addresses that nothing else gets; null when the system refuses (a
// limit on the process's address space, say).
void* reserve(size_t bytes);
// Makes [at, at + bytes) of a reservation readable and writable, zero-filled the first
// time; false when the system has no memory for it.
bool commit(void* at, size_t bytes);
// Gives the memory of [at, at + bytes) back to the system; the addresses stay reserved and
// read as zeros if committed again.
void discard(void* at, size_t bytes);

} // namespace pdfcore::addressSpace
