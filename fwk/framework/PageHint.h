// Kel::hugePagesHint: tells the system that the memory at [p, p + bytes) will be read at random
// (the index of a collection of a million members), so that it may back the whole 2 MB pages
// inside it with huge pages. One translation then covers 2 MB instead of 4 KB: a lookup's cache
// line is no longer behind a translation miss, and a prefetch of it is not lost to one.
// Only a hint: nothing is read or written and addresses stay as they are; it counts only for
// pages not written yet, so call it between allocating and first writing. Smaller ranges, and
// systems without the hint, are left alone.
#pragma once

#include <cstddef>

namespace Kel {

void hugePagesHint(void* p, std::size_t bytes);

}  // namespace Kel
