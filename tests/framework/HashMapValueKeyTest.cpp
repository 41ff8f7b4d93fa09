#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <vector>

#include "fwk/framework/HashMap.h"

namespace {

// A value that cannot move and carries its own key, not at its start: where a tombstone keeps
// its key, a destroyed value leaves its other field, and a failed build leaves -1.
struct Keyed {
  static inline int live = 0;
  Keyed(int k, int v, bool fail) : value(fail ? -1 : v), key(k) {
    if (fail) throw std::runtime_error("refused");
    ++live;
  }
  Keyed(const Keyed&) = delete;
  Keyed& operator=(const Keyed&) = delete;
  ~Keyed() { --live; }
  int value;
  int key;
};
struct KeyOfKeyed {
  const int& operator()(const Keyed& v) const { return v.key; }
};
using Own = Kel::HashMap<int, Keyed, std::hash<int>, KeyOfKeyed>;  // the node keeps no key
using Kept = Kel::HashMap<int, Keyed>;                             // the node keeps the key

template <class M>
std::vector<int> walkFrom(const M& m, int k) {
  std::vector<int> out;
  for (auto it = m.resumeAt(k); it; ++it) out.push_back(it.key() * 1000 + it.value().value);
  return out;
}

// A map whose values give their keys behaves as one whose nodes keep them: the same members, the
// same order and the same resumption at erased keys, whose tombstones keep the key in the
// value's place (also after a failed replacement, whose constructor wrote over it).
TEST(HashMap, ValuesThatGiveTheirKeysKeepEveryKeyedBehaviour) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const int keys = seed <= 6 ? 300 : 7;  // indexed, or small
    std::mt19937 rng(seed);
    {
      Own own;
      Kept kept;
      Own::Iterator ownWalk;
      Kept::Iterator keptWalk;
      for (int step = 0; step < 3000; ++step) {
        const int k = static_cast<int>(rng() % keys);
        switch (rng() % 6) {
          case 0:
          case 1:
            ASSERT_EQ(own.emplace(k, k, step, false).second,
                      kept.emplace(k, k, step, false).second);
            break;
          case 2:
            ASSERT_EQ(own.erase(k), kept.erase(k));
            break;
          case 3:
            EXPECT_THROW(own.emplace(k, k, 0, true), std::runtime_error);
            EXPECT_THROW(kept.emplace(k, k, 0, true), std::runtime_error);
            break;
          case 4:  // a walk alive keeps tombstones; one standing on an erased member reads its key
            ownWalk = own.resumeAt(k);
            keptWalk = kept.resumeAt(k);
            ASSERT_EQ(bool(ownWalk), bool(keptWalk));
            if (ownWalk) {
              own.erase(ownWalk.key());
              kept.erase(keptWalk.key());
              ASSERT_EQ(ownWalk.key(), keptWalk.key());
            }
            break;
          default:  // a key emplaced again while the walk lasts takes its old place
            if (rng() % 8 == 0) {
              own.clear();
              kept.clear();
              break;
            }
            ownWalk = {};
            keptWalk = {};
        }
        ASSERT_EQ(own.size(), kept.size());
        ASSERT_EQ(walkFrom(own, k), walkFrom(kept, k)) << "seed " << seed << " step " << step;
      }
      ASSERT_EQ(Keyed::live, 2 * static_cast<int>(own.size()));
    }
    ASSERT_EQ(Keyed::live, 0);
  }
}

}  // namespace
