// Memory for the large arrays of a collection of a million members (its node blocks and its
// index), which are read at random: backed by huge pages where the system offers them, so that
// one translation covers 2 MB instead of 4 KB (a lookup's cache line is then not behind a
// translation miss, and a prefetch of it is not lost to one), and first written at one page
// fault per 2 MB instead of one per 4 KB.
//
// Kel::bigBlockNew(bytes) gives memory aligned for any object; from 2 MB up it is a mapping of
// its own, aligned to 2 MB and marked for huge pages, so that the hint covers nothing else:
// memory the C library reuses for other objects never inherits it. Smaller requests come from
// operator new. Kel::bigBlockDelete(p, bytes) gives it back (the same bytes). bigBlockBytes() is
// what the mappings hold now, as requested (the benchmarks add it to the heap's bytes).
// Kel::hugePagesHint asks the same for the whole 2 MB pages inside [p, p + bytes) of memory the
// caller has; both count only for pages not written yet.
#pragma once

#include <cstddef>

namespace Kel {

void* bigBlockNew(std::size_t bytes);
void bigBlockDelete(void* p, std::size_t bytes) noexcept;
std::size_t bigBlockBytes();
void hugePagesHint(void* p, std::size_t bytes);

}  // namespace Kel
