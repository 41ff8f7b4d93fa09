// The daemon's flat hash map against std::unordered_map: random inserts and erasures with a hash
// that folds keys onto few home slots, so probe runs are long, wrap around the end of the array
// and are broken up by erasures (the backward shift must keep every key findable).
#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

#include "fwk/daemon/flat_map.h"

namespace {

// Seven home slots, the last ones of the array whatever its size: every run wraps around.
struct CrowdingHash {
  std::size_t operator()(int k) const { return ~static_cast<std::size_t>(k % 7); }
};

TEST(FlatMap, AgreesWithAStandardMapThroughLongWrappedRuns) {
  FlatMap<int, int, CrowdingHash> flat;
  std::unordered_map<int, int> ref;
  std::mt19937 rng(7);
  for (int step = 0; step < 20000; ++step) {
    const int k = static_cast<int>(rng() % 200);
    if (rng() % 3 == 0) {
      flat.erase(k);
      ref.erase(k);
    } else {
      flat[k] += step;
      ref[k] += step;
    }
    if (step % 97 == 0) {
      ASSERT_EQ(flat.size(), ref.size()) << "step " << step;
      for (int q = 0; q < 200; ++q) {
        const int* v = flat.find(q);
        auto it = ref.find(q);
        ASSERT_EQ(v != nullptr, it != ref.end()) << "key " << q << " step " << step;
        if (v) {
          ASSERT_EQ(*v, it->second) << "key " << q;
        }
      }
    }
  }
  flat.clear();
  EXPECT_EQ(flat.find(3), nullptr);
  EXPECT_EQ(flat.size(), 0u);
}

}  // namespace
