#include "fwk/daemon/big_table.h"

#include <cstdint>
#include <cstring>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace {

std::size_t mapped = 0;

#if defined(__linux__) && defined(MADV_HUGEPAGE)
constexpr std::size_t kHugePage = std::size_t{2} << 20;
std::size_t wholeHugePages(std::size_t bytes) { return (bytes + kHugePage - 1) & ~(kHugePage - 1); }
#endif

}  // namespace

void* bigTableAlloc(std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (bytes >= kHugePage) {
    // One huge page's worth more address space than needed; the part before the first 2 MB
    // boundary and the part after the table go back at once. Fresh pages read as zero.
    const std::size_t size = wholeHugePages(bytes);
    void* raw =
        mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    auto* first = static_cast<unsigned char*>(raw);
    const auto skip = (kHugePage - reinterpret_cast<std::uintptr_t>(first) % kHugePage) % kHugePage;
    if (skip) munmap(first, skip);
    munmap(first + skip + size, kHugePage - skip);  // skip is less than a huge page
    // Where huge pages are off the advice is refused and the table simply has 4 KB pages.
    madvise(first + skip, size, MADV_HUGEPAGE);
    mapped += bytes;
    return first + skip;
  }
#endif
  return std::memset(::operator new(bytes), 0, bytes);
}

void bigTableFree(void* p, [[maybe_unused]] std::size_t bytes) noexcept {
  if (!p) return;
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (bytes >= kHugePage) {
    munmap(p, wholeHugePages(bytes));
    mapped -= bytes;
    return;
  }
#endif
  ::operator delete(p);
}

std::size_t bigTableMappedBytes() { return mapped; }
