// A big block from 2 MB up is a mapping of its own, aligned, marked for huge pages, rounded up
// to whole huge pages, counted as asked for, and gone with nothing left once given back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fwk/framework/BigBlock.h"

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

TEST(BigBlock, BigBlocksFromTwoMegabytesAreMarkedMappingsOfTheirOwn) {
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
