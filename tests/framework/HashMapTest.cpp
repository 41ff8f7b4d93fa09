#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "fwk/framework/HashMap.h"

namespace {

// Reference: a std::map for contents and a vector for the first-insertion order.
struct Reference {
  std::map<int, int> values;
  std::vector<int> order;  // keys in order of first insertion, erased ones included
  void insert(int k, int v) {
    if (std::find(order.begin(), order.end(), k) == order.end()) order.push_back(k);
    values[k] = v;
  }
  // Erased keys at the front are forgotten at once when no walk is alive.
  void trimFront() {
    while (!order.empty() && !values.count(order.front())) order.erase(order.begin());
  }
  std::vector<int> walk() const {
    std::vector<int> out;
    for (int k : order)
      if (values.count(k)) out.push_back(k);
    return out;
  }
};

template <class Hash>
std::vector<int> walk(const Kel::HashMap<int, int, Hash>& m) {
  std::vector<int> out;
  for (auto it = m.begin(); it; ++it) out.push_back(it.key());
  return out;
}

// Few distinct hashes: long probe runs, so erasing must shift the run back correctly or later
// lookups miss.
struct PoorHash {
  std::size_t operator()(int k) const { return static_cast<std::size_t>(k % 5); }
};

// Random inserts, erasures and lookups of keys from `keys` values against the reference, in
// phases of growth and of shrinking (500 steps each), so that tombstones pile up and are purged.
template <class Hash>
void matchesReference(unsigned seed, unsigned keys, int steps) {
  SCOPED_TRACE("seed " + std::to_string(seed) + ", " + std::to_string(keys) + " keys");
  std::mt19937 rng(seed);
  Kel::HashMap<int, int, Hash> m;
  Reference ref;
  std::vector<int> pool(keys);  // random keys: their index slots differ from seed to seed
  for (int& key : pool) key = static_cast<int>(rng());
  typename Kel::HashMap<int, int, Hash>::Scout scout(2);
  for (int step = 0; step < steps; ++step) {
    // Whatever happened since its last step (growth, purges, the storage let go), a scout reads
    // only live storage and names a member or nothing.
    if (const int* named = scout.step(m)) {
      ASSERT_TRUE(m.find(*named));
    }
    const int k = pool[rng() % keys];
    const unsigned op = rng() % 4;
    const bool shrinking = step / 500 % 2 == 1;
    if (op < (shrinking ? 1u : 2u)) {
      const bool fresh = !ref.values.count(k);
      auto [v, isNew] = m.insert(k, step);
      ASSERT_EQ(isNew, fresh);
      ASSERT_EQ(*v, step);
      ref.insert(k, step);
    } else if (op < 3) {
      ASSERT_EQ(m.erase(k), ref.values.erase(k) == 1);
      ref.trimFront();
    } else {
      const int* v = m.find(k);
      auto it = ref.values.find(k);
      ASSERT_EQ(v != nullptr, it != ref.values.end());
      if (v) {
        ASSERT_EQ(*v, it->second);
      }
    }
    ASSERT_EQ(m.size(), ref.values.size());
    // A drain's look-ahead: peek(n) is the n-th live member in order, past any tombstones, and
    // the cache hints name the key's own value when they name one (unless its hash collides).
    const std::vector<int> order = ref.walk();
    for (std::size_t n : {std::size_t{0}, std::size_t{1}, order.size() / 2, order.size()}) {
      const int* key = m.peek(n);
      ASSERT_EQ(key != nullptr, n < order.size());
      if (key) {
        ASSERT_EQ(*key, order[n]);
      }
    }
    m.prefetchSlot(k);
    const int* at = m.prefetchNode(k);
    if (std::is_same_v<Hash, std::hash<int>> && at && m.find(k)) {
      ASSERT_EQ(at, m.find(k));
    }
    // Purging may forget erased keys; a re-inserted forgotten key then goes to the back.
    if (m.tombstones() == 0) {
      std::vector<int> live = ref.walk();
      ref.order = live;
    }
  }
  ASSERT_EQ(walk(m), ref.walk());
}

// Keys from 200 values (an indexed collection), from 10 (a small one that gains its index and,
// once emptied, loses it), from 6 (one that never has an index) and from 700 with few hashes.
TEST(HashMap, RandomOperationsMatchReferenceContentsAndOrder) {
  for (unsigned seed = 1; seed <= 20 && !HasFatalFailure(); ++seed) {
    matchesReference<std::hash<int>>(seed, seed <= 8 ? 200 : seed <= 14 ? 10 : 6, 3000);
  }
  matchesReference<PoorHash>(7, 300, 6000);
}

TEST(HashMap, WalkThatErasesAsItGoesVisitsEveryMemberOnce) {
  Kel::HashMap<int, int> m;
  for (int i = 0; i < 1000; ++i) m.insert(i, i);
  std::vector<int> seen;
  for (auto it = m.begin(); it; ++it) {
    seen.push_back(it.key());
    m.erase(it.key());
    if (it.key() % 7 == 0) m.erase(it.key() + 1);  // also erase the member ahead
  }
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i)
    if (i == 0 || (i - 1) % 7 != 0) expected.push_back(i);
  EXPECT_EQ(seen, expected);
  EXPECT_TRUE(m.empty());
  // Tombstones are purged once no walk is alive: all at once here, every member being one, and
  // the collection starts afresh (its index rebuilt as it grows again).
  m.insert(5000, 1);
  EXPECT_EQ(m.tombstones(), 0u);
  EXPECT_EQ(walk(m), std::vector<int>{5000});
  std::vector<int> again{5000};
  for (int i = 20; i-- > 0;) {
    m.insert(i, -i);
    again.push_back(i);
  }
  EXPECT_EQ(walk(m), again);
  EXPECT_EQ(m.size(), 21u);
  ASSERT_TRUE(m.find(13));
  EXPECT_EQ(*m.find(13), -13);
  EXPECT_FALSE(m.find(500));
}

// A drain takes the first member out each step; its scout names what peek(5) would, also after
// members join at the back, after the scout's own member is erased, and after the collection is
// emptied (its storage let go) and filled again.
TEST(HashMap, ScoutOfADrainNamesWhatPeekWould) {
  Kel::HashMap<int, int> m;
  for (int i = 0; i < 100; ++i) m.insert(i, i);
  Kel::HashMap<int, int>::Scout scout(5);
  int next = 1000;
  for (int step = 0; !m.empty(); ++step) {
    const int* got = scout.step(m);
    const int* want = m.peek(5);
    ASSERT_EQ(got != nullptr, want != nullptr) << "step " << step;
    if (got) {
      ASSERT_EQ(*got, *want) << "step " << step;
    }
    if (step == 40 && got) m.erase(*got);
    if (step == 60) {
      m.clear();
      for (int i = 0; i < 30; ++i) m.insert(next++, 0);
      continue;
    }
    if (step % 3 == 0 && step < 90) m.insert(next++, 0);
    m.erase(*m.peek(0));
  }
}

// The slot of a removed member stays in its probe run as a mark whose hash word is all ones. A
// key may hash to exactly that word: key 7 does here (the map's mixing undone), and every other
// key hashes to one less, so all share the last home slot and 7's probes cross the marks.
constexpr std::uint64_t inverse(std::uint64_t a) {  // a odd: a * inverse(a) == 1 mod 2^64
  std::uint64_t x = a;
  for (int i = 0; i < 6; ++i) x *= 2 - a * x;
  return x;
}
constexpr std::uint64_t mixingTo(std::uint32_t h) {  // the hash the map's mixing turns into h
  std::uint64_t x = h;
  x ^= x >> 33;
  x *= inverse(0xff51afd7ed558ccdull);
  return x ^ (x >> 33);
}
struct MarkWordHash {
  std::size_t operator()(int k) const { return mixingTo(k == 7 ? 0xFFFFFFFFu : 0xFFFFFFFEu); }
};

TEST(HashMap, KeyHashingLikeAMarkIsStillFound) {
  Kel::HashMap<int, int, MarkWordHash> m;
  for (int round = 0; round < 3; ++round) {
    for (int k = 100; k < 140; ++k) m.insert(k, k);
    for (int k = 100; k < 139; ++k) m.erase(k);  // a run of marks, 7's home slot among them
    EXPECT_FALSE(m.find(7));
    EXPECT_FALSE(m.prefetchNode(7));
    m.insert(7, round);
    ASSERT_TRUE(m.find(7));
    EXPECT_EQ(*m.find(7), round);
    EXPECT_TRUE(m.erase(7));
    EXPECT_FALSE(m.find(7));
    ASSERT_TRUE(m.find(139));
    m.erase(139);
  }
}

// Members erased at random stay tombstones until they outnumber the live ones, and then leave
// marks in the index; neither may make the collection larger than one holding every live member
// and tombstone at once (the marks are dropped by making the index again at its size).
TEST(HashMap, RandomChurnNeedsNoMoreThanItsMembersAndTombstones) {
  Kel::HashMap<int, int> full;
  for (int i = 0; i < 2000; ++i) full.insert(i, i);
  Kel::HashMap<int, int> m;
  std::mt19937 rng(3);
  std::vector<int> keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back(static_cast<int>(rng()));
    m.insert(keys.back(), i);
  }
  std::size_t most = 0;
  for (int j = 0; j < 200000; ++j) {
    const std::size_t at = rng() % keys.size();
    m.erase(keys[at]);
    keys[at] = static_cast<int>(rng());
    m.insert(keys[at], j);
    most = std::max(most, m.heapBytes());
  }
  EXPECT_EQ(m.size(), 1000u);
  EXPECT_LE(most, full.heapBytes());
  for (int k : keys) ASSERT_TRUE(m.find(k));
}

TEST(HashMap, ResumeAtErasedKeyStartsAtItsSuccessor) {
  Kel::HashMap<int, int> m;
  for (int i = 0; i < 10; ++i) m.insert(i, i);
  EXPECT_EQ(m.resumeAt(4).key(), 4);
  m.erase(4);
  m.erase(5);
  EXPECT_EQ(m.resumeAt(4).key(), 6);
  EXPECT_EQ(m.resumeAt(42).key(), 0) << "an unknown key starts at the front";
  m.erase(9);
  EXPECT_FALSE(m.resumeAt(9)) << "the last key's successor is the end";
  m.insert(4, 40);
  EXPECT_EQ(m.resumeAt(3).key(), 3);
  auto it = m.resumeAt(3);
  ++it;
  EXPECT_EQ(it.key(), 4) << "a key inserted again keeps its place while its tombstone is kept";
}

// The count of live walks is 16 bits wide: one walk too many stops the process instead of
// wrapping the count to zero (which would purge tombstones under the walks).
TEST(HashMapDeath, OneWalkTooManyAborts) {
  Kel::HashMap<int, int> m;
  m.insert(1, 1);
  std::vector<Kel::HashMap<int, int>::Iterator> walks;
  walks.reserve(65534);
  while (walks.size() < 65534) walks.push_back(m.begin());
  const auto last = m.begin();  // the 65,535th alive
  EXPECT_DEATH(m.begin(), "more than 65535 iterators alive");
}

TEST(HashMap, ErasingReleasesTheValueAtOnce) {
  auto shared = std::make_shared<int>(7);
  Kel::HashMap<int, std::shared_ptr<int>> m;
  m.insert(1, shared);
  auto it = m.begin();  // a live walk keeps the tombstone but not the value
  m.erase(1);
  EXPECT_EQ(shared.use_count(), 1);
}

// Nodes are built as they are first handed out, so a block may be built only in part: whatever
// the count, destroying the map releases every value it holds, no more and no less.
TEST(HashMap, DestroyingAMapReleasesEveryValueItHolds) {
  auto shared = std::make_shared<int>(7);
  for (int n : {1, 2, 3, 4, 7, 8, 9, 15, 16, 17, 100, 1023, 1024, 1025}) {
    {
      Kel::HashMap<int, std::shared_ptr<int>> m;
      for (int k = 0; k < n; ++k) m.insert(k, shared);
      for (int k = 0; k < n; k += 3) m.erase(k);  // their nodes go back to the free list
      for (int k = n; k < n + n / 3; ++k) m.insert(k, shared);  // and are handed out again
      ASSERT_EQ(shared.use_count(), static_cast<long>(m.size()) + 1) << n;
    }
    ASSERT_EQ(shared.use_count(), 1) << n;
  }
}

// A value that must not move: it knows its own address, and counts the live ones.
struct Pinned {
  static inline int live = 0;
  Pinned(int v, bool fail) : value(v), self(this) {
    if (fail) throw std::runtime_error("refused");
    ++live;
  }
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;
  ~Pinned() { --live; }
  int value;
  const Pinned* self;
};

TEST(HashMap, ValuesThatCannotMoveAreBuiltAndDestroyedInTheirNodes) {
  {
    Kel::HashMap<int, Pinned> m;
    Pinned* first = m.emplace(0, 100, false).first;
    for (int k = 1; k < 100; ++k) EXPECT_TRUE(m.emplace(k, k, false).second);
    EXPECT_EQ(m.find(0), first) << "growing the index moves no value";
    EXPECT_EQ(Pinned::live, 100);

    auto [again, added] = m.emplace(5, 55, false);
    EXPECT_FALSE(added);
    EXPECT_EQ(again->value, 55);
    EXPECT_EQ(Pinned::live, 100) << "the value replaced is destroyed";

    auto walk = m.begin();  // a live walk keeps tombstones, not values
    EXPECT_TRUE(m.erase(7));
    EXPECT_EQ(Pinned::live, 99);
    EXPECT_THROW(m.emplace(8, 0, true), std::runtime_error);
    EXPECT_EQ(Pinned::live, 98) << "a failed replacement leaves the key absent";
    EXPECT_FALSE(m.find(8));
    EXPECT_THROW(m.emplace(1000, 0, true), std::runtime_error);
    EXPECT_FALSE(m.find(1000));
    EXPECT_EQ(m.size(), 98u);
    EXPECT_TRUE(m.emplace(1000, 1, false).second);
    for (auto [k, v] : m) EXPECT_EQ(v.self, &v) << k;
    walk = {};
    m.clear();
    EXPECT_EQ(Pinned::live, 0);
    m.emplace(1, 1, false);
    m.emplace(2, 2, false);
  }
  EXPECT_EQ(Pinned::live, 0) << "the map's end destroys its values";
}

// A value whose end adds members to its own map: erasing it makes the index again inside the
// erasure, so the slot where the erasure found the key may name another member by then.
struct Grower {
  Kel::HashMap<int, Grower>* map;
  int from, adds;
  Grower(Kel::HashMap<int, Grower>* m, int f, int n) : map(m), from(f), adds(n) {}
  Grower(const Grower&) = delete;
  Grower& operator=(const Grower&) = delete;
  ~Grower() {
    for (int k = from; k < from + adds; ++k) map->emplace(k, map, 0, 0);
  }
};

TEST(HashMap, AnErasureWhoseValueGrowsTheMapRemovesOnlyItsKey) {
  Kel::HashMap<int, Grower> m;
  constexpr int kGrowers = 16, kAdds = 60;
  for (int g = 0; g < kGrowers; ++g) m.emplace(g, &m, 1000 + g * kAdds, kAdds);
  for (int g = 0; g < kGrowers; ++g) {
    ASSERT_TRUE(m.erase(g));  // the front member: its node goes with its slot at once
    ASSERT_FALSE(m.find(g));
    for (int k = g + 1; k < kGrowers; ++k) ASSERT_TRUE(m.find(k)) << g << " " << k;
    for (int k = 1000; k < 1000 + (g + 1) * kAdds; ++k) ASSERT_TRUE(m.find(k)) << g << " " << k;
  }
  for (int k = 5000; k < 5100; ++k) m.emplace(k, &m, 0, 0);  // reuses the erased nodes
  EXPECT_EQ(m.size(), std::size_t{kGrowers * kAdds + 100});
  for (int k = 1000; k < 1000 + kGrowers * kAdds; ++k) EXPECT_TRUE(m.find(k)) << k;
  for (int k = 5000; k < 5100; ++k) EXPECT_TRUE(m.find(k)) << k;
}

}  // namespace
