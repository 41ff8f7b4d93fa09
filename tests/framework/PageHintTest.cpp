// The huge-page hint marks exactly the whole 2 MB pages inside the range it is given: never
// memory before or after it, which belongs to other allocations. A big block from 2 MB up is a
// mapping of its own, aligned, marked, rounded up to whole huge pages and counted as requested.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fwk/framework/PageHint.h"

namespace {

// The address ranges the process has marked for huge pages (VmFlags "hg"), or all that it has
// mapped, from smaps.
std::vector<std::pair<std::uintptr_t, std::uintptr_t>> hugeRanges(bool hugeOnly = true) {
  std::vector<std::pair<std::uintptr_t, std::uintptr_t>> out;
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  std::pair<std::uintptr_t, std::uintptr_t> range{};
  while (std::getline(smaps, line)) {
    std::uintptr_t b = 0, e = 0;
    char dash = 0;
    std::istringstream head(line);
    if (head >> std::hex >> b >> dash >> e && dash == '-') {
      range = {b, e};
    } else if (line.rfind("VmFlags:", 0) == 0 &&
               (!hugeOnly || (line + " ").find(" hg ") != std::string::npos)) {
      out.push_back(range);
    }
  }
  return out;
}

TEST(PageHint, MarksTheWholeHugePagesInsideTheRangeAndNothingElse) {
  if (!std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled")) {
    GTEST_SKIP() << "this system has no huge pages to advise";
  }
  using Ranges = std::vector<std::pair<std::uintptr_t, std::uintptr_t>>;
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  const std::size_t span = 12 * kHuge;
  void* map = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  const std::uintptr_t base = (reinterpret_cast<std::uintptr_t>(map) + kHuge - 1) & ~(kHuge - 1);
  auto at = [&](std::uintptr_t offset) { return reinterpret_cast<void*>(base + offset); };
  auto marked = [&] {
    Ranges got;
    for (auto r : hugeRanges()) {
      if (r.first < base + 10 * kHuge && r.second > base) got.push_back(r);
    }
    return got;
  };
  // Less than one whole page, though it spans a boundary: nothing.
  Kel::hugePagesHint(at(kHuge - 4096), kHuge);
  EXPECT_EQ(marked(), Ranges{});
  // One byte short of a page at either end: the pages in between only.
  Kel::hugePagesHint(at(1), 5 * kHuge - 2);
  EXPECT_EQ(marked(), (Ranges{{base + kHuge, base + 4 * kHuge}}));
  // Exactly whole pages: all of them.
  Kel::hugePagesHint(at(6 * kHuge), 2 * kHuge);
  EXPECT_EQ(marked(),
            (Ranges{{base + kHuge, base + 4 * kHuge}, {base + 6 * kHuge, base + 8 * kHuge}}));
  munmap(map, span);
}

TEST(PageHint, BigBlocksFromTwoMegabytesAreMarkedMappingsOfTheirOwn) {
  if (!std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled")) {
    GTEST_SKIP() << "this system has no huge pages to advise";
  }
  constexpr std::size_t kHuge = std::size_t{2} << 20;
  const std::size_t before = Kel::bigBlockBytes();
  // One byte short of a huge page: heap memory, not counted.
  void* small = Kel::bigBlockNew(kHuge - 1);
  EXPECT_EQ(Kel::bigBlockBytes(), before);
  static_cast<char*>(small)[kHuge - 2] = 1;
  Kel::bigBlockDelete(small, kHuge - 1);
  for (const std::size_t bytes : {kHuge, 3 * kHuge + 1}) {
    SCOPED_TRACE(bytes);
    const std::size_t mapped = (bytes + kHuge - 1) / kHuge * kHuge;
    auto* p = static_cast<char*>(Kel::bigBlockNew(bytes));
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    EXPECT_EQ(at % kHuge, 0u);
    EXPECT_EQ(Kel::bigBlockBytes(), before + bytes);
    p[0] = 1;
    p[bytes - 1] = 2;
    const auto ranges = hugeRanges();
    EXPECT_NE(std::find(ranges.begin(), ranges.end(), std::make_pair(at, at + mapped)),
              ranges.end());
    Kel::bigBlockDelete(p, bytes);
    EXPECT_EQ(Kel::bigBlockBytes(), before);
    // Nothing of it is left, nor of the huge page more that was mapped to align it.
    for (auto r : hugeRanges(false)) {
      EXPECT_FALSE(r.first < at + mapped + kHuge && r.second > at - kHuge) << std::hex << r.first;
    }
  }
}

}  // namespace
