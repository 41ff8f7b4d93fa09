// The huge-page hint marks exactly the whole 2 MB pages inside the range it is given: never
// memory before or after it, which belongs to other allocations.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fwk/framework/PageHint.h"

namespace {

// The address ranges the process has marked for huge pages (VmFlags "hg"), from smaps.
std::vector<std::pair<std::uintptr_t, std::uintptr_t>> hugeRanges() {
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
    } else if (line.rfind("VmFlags:", 0) == 0 && (line + " ").find(" hg ") != std::string::npos) {
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

}  // namespace
