#include "fwk/framework/PageHint.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Kel {

void hugePagesHint([[maybe_unused]] void* p, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  const auto begin = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t first = (begin + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t last = (begin + bytes) & ~(kHuge - 1);
  if (last <= first) return;
  // Advice the kernel cannot take (huge pages off) changes nothing; there is nothing to report.
  madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#endif
}

}  // namespace Kel
