#include "fwk/framework/BigBlock.h"

#include <cstdint>
#include <cstring>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace Kel {

namespace {
std::size_t mappedBytes = 0;

#if defined(__linux__) && defined(MADV_HUGEPAGE)
constexpr std::size_t kHuge = std::size_t{2} << 20;
// Whether a block of `bytes` is a mapping of its own (elsewhere every block is heap memory).
bool mapped(std::size_t bytes) { return bytes >= kHuge; }
std::size_t roundedUp(std::size_t bytes) { return (bytes + kHuge - 1) & ~(kHuge - 1); }
#endif
}  // namespace

void* bigBlockNew(std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (mapped(bytes)) {
    // Map one huge page more than needed, then unmap the unaligned head and the tail beyond.
    const std::size_t size = roundedUp(bytes);
    void* raw =
        mmap(nullptr, size + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    const auto begin = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (begin + kHuge - 1) & ~std::uintptr_t{kHuge - 1};
    if (aligned > begin) munmap(raw, aligned - begin);
    const std::uintptr_t end = begin + size + kHuge;
    if (end > aligned + size) munmap(reinterpret_cast<void*>(aligned + size), end - aligned - size);
    // Advice the kernel cannot take (huge pages off) changes nothing; there is nothing to report.
    madvise(reinterpret_cast<void*>(aligned), size, MADV_HUGEPAGE);
    mappedBytes += bytes;
    return reinterpret_cast<void*>(aligned);
  }
#endif
  return std::memset(::operator new(bytes), 0, bytes);
}

void bigBlockDelete(void* p, [[maybe_unused]] std::size_t bytes) noexcept {
  if (!p) return;
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (mapped(bytes)) {
    munmap(p, roundedUp(bytes));
    mappedBytes -= bytes;
    return;
  }
#endif
  ::operator delete(p);
}

std::size_t bigBlockBytes() { return mappedBytes; }

void populate([[maybe_unused]] void* p, [[maybe_unused]] std::size_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  if (bytes < (std::size_t{64} << 10)) return;
  static const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(p) + page - 1) & ~(page - 1);
  const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(p) + bytes) & ~(page - 1);
  // A kernel without the request refuses it (the pages are then backed as they are written).
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
}

}  // namespace Kel
