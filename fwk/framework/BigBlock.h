// Kel::bigBlockNew: zeroed memory for a large array read at random (the index of a collection of
// a million members). From 2 MB up it is a mapping of its own, aligned to 2 MB and marked for huge
// pages where the system offers them: one translation then covers 2 MB instead of 4 KB (a
// lookup's cache line is not behind a translation miss, and a prefetch of it is not lost to one).
// The mark covers nothing else: memory the C library reuses for other objects never inherits it.
// Smaller requests come from operator new.
// A mapping's fresh pages are zero: nothing is written to them; heap memory is cleared.
// bigBlockDelete(p, bytes) gives either back, with the bytes asked for. bigBlockBytes() is what
// the mappings hold now, as asked for (the benchmarks add it to the heap's bytes).
// populate(p, bytes): the whole pages inside [p, p + bytes), memory of this process about to be
// written (a collection's node block that a reservation counts on), backed by the system now in
// one request, instead of one page fault per page as each is first written: a fault traps into
// the system, and on a virtual machine that trap costs more than the page. Below 64 KB, and where
// the system cannot do it, nothing is done; either way nothing changes for the program but time.
#pragma once

#include <cstddef>

namespace Kel {

void* bigBlockNew(std::size_t bytes);
void bigBlockDelete(void* p, std::size_t bytes) noexcept;
std::size_t bigBlockBytes();
void populate(void* p, std::size_t bytes) noexcept;

// The deleter of a std::unique_ptr<T[]> whose array of `count` came from bigBlockNew.
template <class T>
struct BigArrayDeleter {
  std::size_t count = 0;
  void operator()(T* p) const noexcept { bigBlockDelete(p, count * sizeof(T)); }
};

}  // namespace Kel
