// The daemon's hash indexes (FlatMap, PrefixIndexTable) against std::unordered_map: random inserts
// and erasures with a hash that folds keys onto few home slots, so probe runs are long, wrap
// around the end of the array and are broken up by erasures (the backward shift must keep every
// key findable); the prefix index's sizes as it grows, and its growth a few runs at a time; and
// the routing table's keys spread over the home slots when they come in sequence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include "fwk/daemon/flat_map.h"
#include "fwk/daemon/prefix_index.h"
#include "fwk/daemon/prefix_key.h"

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

// A prefix key whose hash sends every key to a home slot in the last fifth of the table, where
// seven hash values share a few homes.
struct CrowdedKey {
  int k;
  bool same(const CrowdedKey& o) const { return k == o.k; }
  uint64_t hash() const { return 0xFFFFFFFFu - (static_cast<uint64_t>(k % 7) << 27); }
};

TEST(PrefixIndexTable, AgreesWithAStandardMapThroughLongWrappedRunsAndGrowsByHalvesAndThirds) {
  PrefixIndexTable<KeyedSlot<CrowdedKey, int>> index;
  std::unordered_map<int, int> ref;
  std::vector<int> values(200);
  std::mt19937 rng(11);
  for (int step = 0; step < 20000; ++step) {
    const int k = static_cast<int>(rng() % 200);
    auto* slot = index.find(CrowdedKey{k});
    ASSERT_EQ(slot != nullptr, ref.count(k) == 1) << "key " << k << " step " << step;
    if (rng() % 3 == 0) {
      EXPECT_EQ(index.erase(CrowdedKey{k}), slot != nullptr);
      ref.erase(k);
    } else if (!slot) {
      index.insert(CrowdedKey{k}, &values[static_cast<std::size_t>(k)]);
      ref[k] = k;
    }
    if (step % 97 == 0) {
      ASSERT_EQ(index.size(), ref.size()) << "step " << step;
      for (int q = 0; q < 200; ++q) {
        auto* s = index.find(CrowdedKey{q});
        ASSERT_EQ(s != nullptr, ref.count(q) == 1) << "key " << q << " step " << step;
        if (s) {
          ASSERT_EQ(s->value(), &values[static_cast<std::size_t>(q)]);
        }
      }
    }
  }

  // Sizes: 16 slots, then each growth by a half or a third, at the first insert past 3/4 full.
  using Table = PrefixIndexTable<KeyedSlot<CrowdedKey, int>>;
  Table grown;
  std::vector<std::size_t> sizes;
  for (int k = 0; k < 200; ++k) {
    grown.insert(CrowdedKey{k}, &values[static_cast<std::size_t>(k)]);
    const std::size_t slots = grown.bytes() / sizeof(Table::Slot);
    if (sizes.empty() || sizes.back() != slots) {
      sizes.push_back(slots);
      EXPECT_EQ(static_cast<std::size_t>(k) * 4, (slots == 16 ? 0 : sizes[sizes.size() - 2] * 3))
          << "grew at the wrong insert";
    }
  }
  EXPECT_EQ(sizes, (std::vector<std::size_t>{16, 24, 32, 48, 64, 96, 128, 192, 256, 384}));
}

// A key spread evenly over the table.
struct SpreadKey {
  int k;
  bool same(const SpreadKey& o) const { return k == o.k; }
  uint64_t hash() const { return prefixHashMix(static_cast<uint64_t>(k)); }
};

// A crowded key found through its record: the record is the key's number.
struct CrowdedKeyOf {
  CrowdedKey operator()(const int* v) const { return CrowdedKey{*v}; }
};

// While the index grows, members live in two tables; each call moves whole runs from the old
// one. Crowded keys make runs that wrap around the old table's end and are broken up by erasures
// meanwhile, and share their hashes' low bits, which a slot keeping only those bits must tell
// apart through the record.
template <class Slot>
void checkCrowdedWhileGrowing() {
  PrefixIndex<Slot> crowded;
  std::unordered_map<int, int> ref;
  std::vector<int> values(400);
  for (int k = 0; k < 400; ++k) values[static_cast<std::size_t>(k)] = k;
  std::mt19937 rng(5);
  int growingSteps = 0;
  for (int step = 0; step < 20000; ++step) {
    const int k = static_cast<int>(rng() % 400);
    const bool present = ref.count(k) == 1;
    ASSERT_EQ(crowded.find(CrowdedKey{k}) != nullptr, present) << "key " << k << " step " << step;
    if (rng() % 2 == 0) {
      EXPECT_EQ(crowded.erase(CrowdedKey{k}), present);
      ref.erase(k);
    } else if (!present) {
      crowded.insert(CrowdedKey{k}, &values[static_cast<std::size_t>(k)]);
      ref[k] = k;
    }
    growingSteps += crowded.growing();
    if (crowded.growing() || step % 97 == 0) {
      ASSERT_EQ(crowded.size(), ref.size()) << "step " << step;
      for (int q = 0; q < 400; ++q) {
        auto* s = crowded.find(CrowdedKey{q});
        ASSERT_EQ(s != nullptr, ref.count(q) == 1) << "key " << q << " step " << step;
        if (s) {
          ASSERT_EQ(s->value(), &values[static_cast<std::size_t>(q)]);
        }
      }
    }
  }
  EXPECT_GT(growingSteps, 0);
}

// Spread keys show that a growth spans several calls, each moving a bounded share, and that
// lookups alone finish it.
TEST(PrefixIndex, KeepsEveryMemberFindableWhileItGrowsAFewRunsAtATime) {
  checkCrowdedWhileGrowing<KeyedSlot<CrowdedKey, int>>();
  checkCrowdedWhileGrowing<HashedSlot<CrowdedKey, int, PointerRef<int>, CrowdedKeyOf>>();

  using Spread = PrefixIndex<KeyedSlot<SpreadKey, int>>;
  constexpr std::size_t kMoves = Spread::kMovesPerCall;
  Spread spread;
  std::vector<int> many(100000);
  std::size_t slotsBefore = 0;  // the table's size when the growth under way began
  int inserts = 0;              // inserts since then
  int largeGrowths = 0;         // growths from 1024 slots up that ended
  for (int k = 0; k < 100000; ++k) {
    const bool was = spread.growing();
    const std::size_t bytes = spread.bytes();
    spread.insert(SpreadKey{k}, &many[static_cast<std::size_t>(k)]);
    if (!was && spread.growing()) {
      slotsBefore = bytes / sizeof(Spread::Slot);
      inserts = 0;
    }
    if (spread.growing()) {
      ++inserts;
      // Each insert passes at least kMovesPerCall slots of the old table.
      ASSERT_LE(static_cast<std::size_t>(inserts) * kMoves, slotsBefore + kMoves) << "insert " << k;
    } else if (was && slotsBefore >= 1024) {
      // Runs of spread keys are short: a growth takes about as many inserts as the bound allows.
      EXPECT_GE(static_cast<std::size_t>(inserts), slotsBefore / kMoves / 2)
          << "a growth from " << slotsBefore << " slots";
      ++largeGrowths;
    }
  }
  EXPECT_EQ(largeGrowths, 14);  // from 1,024 slots to 98,304; the one from 131,072 goes on
  // Lookups move runs too: an index that is only read still finishes growing, and then holds
  // one table.
  std::size_t finds = 0;
  for (; spread.growing() && finds < 131072; ++finds)
    spread.find(SpreadKey{static_cast<int>(finds)});
  EXPECT_FALSE(spread.growing());
  EXPECT_LE(finds, 131072 / kMoves);
  EXPECT_EQ(spread.bytes(), 196608 * sizeof(Spread::Slot));
  for (int k = 0; k < 100000; k += 7) {
    auto* s = spread.find(SpreadKey{k});
    ASSERT_TRUE(s && s->value() == &many[static_cast<std::size_t>(k)]) << "key " << k;
  }
}

// The routing table's keys over as many home slots as keys, chosen as the index chooses them:
// sequential prefixes must land as random ones would (about 1/e of the homes empty, no long
// pile-up), or a table of a million of them crawls through probe runs.
template <class Key>
void expectHomesSpread(const std::vector<Key>& keys) {
  const std::size_t n = keys.size();
  std::vector<unsigned> load(n);
  for (const Key& k : keys) ++load[(uint64_t{prefixHash32(k)} * n) >> 32];
  const auto empty = static_cast<double>(std::count(load.begin(), load.end(), 0u));
  EXPECT_LT(*std::max_element(load.begin(), load.end()), 16u);
  EXPECT_NEAR(empty / static_cast<double>(n), 0.368, 0.01);
}

TEST(PrefixKey, SequentialPrefixesSpreadOverTheHomeSlots) {
  constexpr uint32_t kCount = 1u << 20;
  std::vector<Key4> slash24, hosts;
  std::vector<Key6> slash64, slash48, hosts6;
  // An IPv6 key from its bytes in network order, the counter's four bytes at `at`.
  auto six = [](std::initializer_list<uint8_t> head, int at, uint32_t i, int plen) {
    uint8_t b[16]{};
    std::copy(head.begin(), head.end(), b);
    for (int j = 0; j < 4; ++j) b[at + j] = static_cast<uint8_t>(i >> (24 - 8 * j));
    Key6 k{};
    std::memcpy(k.w, b, 16);
    k.plen = static_cast<uint16_t>(plen);
    return k;
  };
  for (uint32_t i = 0; i < kCount; ++i) {
    slash24.push_back(Key4{__builtin_bswap32(0x0a000000 + (i << 8)), 24u << 16});
    hosts.push_back(Key4{__builtin_bswap32(0x0b000000 + i), 32u << 16});
    slash64.push_back(six({0x20, 0x01, 0x0d, 0xb8}, 4, i, 64));
    slash48.push_back(six({0x20, 0x01}, 2, i, 48));
    hosts6.push_back(six({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1}, 12, i, 128));
  }
  expectHomesSpread(slash24);
  expectHomesSpread(hosts);
  expectHomesSpread(slash64);
  expectHomesSpread(slash48);
  expectHomesSpread(hosts6);
}

}  // namespace
