// The pool against a plain record of what is live: every block handed out is aligned, overlaps no
// other live block and is written whole (AddressSanitizer checks it lies in its slab), is never
// handed out twice while live, and goes back to the slab it came from; an emptied slab goes back
// to the heap except the one kept spare.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "fwk/framework/Pool.h"

namespace {

TEST(Pool, BlocksAreDistinctAlignedAndSlabsGoBackWhenEmptied) {
  constexpr std::size_t kBlock = 120;  // a multiple of 8, not of 16
  Kel::PoolBase pool(kBlock, 8);
  std::mt19937 rnd(7);
  std::vector<unsigned char*> live;
  std::set<std::uintptr_t> starts;
  auto take = [&] {
    auto* b = static_cast<unsigned char*>(pool.take());
    const auto at = reinterpret_cast<std::uintptr_t>(b);
    ASSERT_EQ(at % 8, 0u);
    ASSERT_TRUE(starts.insert(at).second) << "handed out twice";
    // No live block overlaps it.
    auto it = starts.find(at);
    if (it != starts.begin()) {
      ASSERT_LE(*std::prev(it) + kBlock, at);
    }
    if (std::next(it) != starts.end()) {
      ASSERT_LE(at + kBlock, *std::next(it));
    }
    std::memset(b, 0xA5, kBlock);
    live.push_back(b);
  };
  auto give = [&](std::size_t k) {
    starts.erase(reinterpret_cast<std::uintptr_t>(live[k]));
    pool.give(live[k]);
    live[k] = live.back();
    live.pop_back();
  };
  const std::size_t perSlab = (Kel::PoolBase::kSlabBytes - 64) / kBlock;  // at least
  for (std::size_t i = 0; i < 5 * perSlab; ++i) take();
  const std::size_t full = pool.slabs();
  EXPECT_GE(full, 5u);
  EXPECT_LE(full, 6u);
  // Random churn around that size: freed blocks are taken again, and a slab is made only when
  // none has room (so never more than the most ever live need, and the spare).
  std::size_t most = live.size();
  for (int step = 0; step < 20000; ++step) {
    if (rnd() % 2) {
      give(rnd() % live.size());
    } else {
      take();
    }
    most = std::max(most, live.size());
    ASSERT_EQ(pool.liveBlocks(), live.size());
    ASSERT_LE(pool.slabs(), (most + perSlab - 1) / perSlab + 1);
  }
  // Emptied: one slab is kept for the next block, the others go.
  while (!live.empty()) give(live.size() - 1);
  EXPECT_EQ(pool.liveBlocks(), 0u);
  EXPECT_EQ(pool.slabs(), 1u);
  take();
  EXPECT_EQ(pool.slabs(), 1u);
  give(0);
}

// The slab index against a std::map, over random windows (so home slots collide and runs wrap
// around the end) coming and going: every window present is found, every one absent is not.
TEST(Pool, SlabIndexFindsEveryWindowAfterAnyRemovals) {
  Kel::SlabIndex index;
  std::map<std::uintptr_t, void*> ref;
  std::mt19937_64 rnd(5);
  std::vector<std::uintptr_t> windows(300);
  for (auto& w : windows) w = 1 + rnd() % (std::uintptr_t{1} << 40);
  for (int step = 0; step < 20000; ++step) {
    const std::uintptr_t w = windows[rnd() % windows.size()];
    if (ref.count(w)) {
      index.erase(w);
      ref.erase(w);
    } else {
      index.insert(w, &windows[step % windows.size()]);
      ref[w] = &windows[step % windows.size()];
    }
    ASSERT_EQ(index.size(), ref.size());
    for (std::uintptr_t v : windows) {
      const auto it = ref.find(v);
      ASSERT_EQ(index.find(v), it == ref.end() ? nullptr : it->second) << "step " << step;
    }
  }
}

}  // namespace
