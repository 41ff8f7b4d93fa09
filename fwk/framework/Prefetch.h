// Kel::prefetch: asks the processor to bring the cache line at `p` in, for a loop that will read
// it a few steps later (a drain working through a million keys waits mostly on such misses).
// A hint only: nothing is read and nothing changes; `p` must not be null. On x86 it is written as
// the instruction itself, because the compiler drops __builtin_prefetch in some inlined contexts
// (GCC 12 removes it after hashing and masking a key, as the framework's collections do).
#pragma once

#include <cstddef>

namespace Kel {

// How far ahead a loop over a collection asks for the lines of the members it will reach: far
// enough for several misses to overlap, near enough that the lines are still cached on arrival.
constexpr std::size_t kPrefetchAhead = 8;

// Calls work(key, value) for each member of `c` in order, each time after hint(key, value) for
// the member kPrefetchAhead further on (while there is one). The hint only asks for lines.
template <class Collection, class Hint, class Work>
void forEachAhead(const Collection& c, Hint&& hint, Work&& work) {
  auto ahead = c.begin();
  for (std::size_t i = 0; i < kPrefetchAhead && ahead; ++i) ++ahead;
  for (auto [key, value] : c) {
    if (ahead) {
      hint(ahead.key(), ahead.value());
      ++ahead;
    }
    work(key, value);
  }
}

inline void prefetch(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p);
#endif
}

// For a member about to be deleted: the first two lines of the entity a pointer value names
// (its notifiees' handling and, when they let it go, its destruction read them); nothing for a
// plain value.
template <class V>
void prefetchPointee(const V& v) {
  if constexpr (requires { v.ptr(); }) {
    if (const auto* p = v.ptr()) {
      prefetch(p);
      prefetch(reinterpret_cast<const char*>(p) + 64);
    }
  }
}

}  // namespace Kel
