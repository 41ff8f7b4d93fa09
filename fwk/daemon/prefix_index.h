// An open-addressing hash index from a prefix key to a record pointer, for the routing table's
// exact prefix lookups (a million IPv4 prefixes at 12 bytes per slot) and the gateways' trees.
//
// A slot holds its record through Ref: a pointer (PointerRef), or for records of one arena a
// 32-bit reference (`using Stored`, `static Stored to(V*)`, `static V* from(Stored)`, with a
// stored 0 for null). It holds the key in one of two ways:
// - KeyedSlot keeps the key itself (a slot is the key's size plus the reference), so a hit is
//   answered from the slot alone;
// - HashedSlot keeps only the low 32 bits of the key's hash and finds the key through the record
//   (KeyOf()(record)): 8 bytes a slot whatever the key's size, for keys much larger than the
//   reference (an IPv6 prefix), at the price of reading the record on a hit. Its records must
//   stay readable, with their keys unchanged, for as long as they are in the index.
// Key is a small trivially copyable type with `bool same(const Key&) const` and `uint64_t hash()
// const` (well mixed: its low 32 bits choose the home slot). Parts of a key that `same` and `hash`
// ignore are a tag that the owner may keep beside the key in a KeyedSlot and change in place.
// Invariants: a slot is empty exactly when its value is null; linear probing with backward-shift
// deletion keeps every key reachable from its home slot without tombstones; the load stays at
// most 3/4. A table grows by half and by a third in turn (16, 24, 32, 48, ... slots), so it is
// never less than half full once grown; the home slot scales the hash to the table's size. A caller
// must not insert a null value or a key that is present, must change only the value (never to null,
// and in a HashedSlot only to a record of the same key) and the tag of a slot that find returned,
// and must not keep a slot pointer across insert or erase (insert may move every slot, erase moves
// its neighbours), nor, in a PrefixIndex that is growing, across another find.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "fwk/daemon/big_table.h"

// Asks for the cache line at p; reads nothing. An asm statement the compiler must keep: it may
// drop a __builtin_prefetch whose address it finds no other use for.
inline void prefetchLine(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p);
#endif
}

// Spreads the bits of a key word over the whole word (low bits choose the home slot).
inline uint64_t prefixHashMix(uint64_t h) {
  h *= 0x9E3779B97F4A7C15ull;
  h ^= h >> 29;
  h *= 0xBF58476D1CE4E5B9ull;
  return h ^ (h >> 32);
}

template <typename V>
struct PointerRef {
  using Stored = V*;
  static Stored to(V* v) { return v; }
  static V* from(Stored s) { return s; }
};

// The home-slot bits of a key's hash.
template <typename Key>
uint32_t prefixHash32(const Key& key) {
  return static_cast<uint32_t>(key.hash());
}

template <typename Key_, typename V, typename Ref = PointerRef<V>>
struct KeyedSlot {
  using Key = Key_;
  Key key{};
  typename Ref::Stored stored{};  // empty slot: 0
  V* value() const { return Ref::from(stored); }
  void valueIs(V* v) { stored = Ref::to(v); }
  static KeyedSlot of(const Key& k, uint32_t, V* v) {
    KeyedSlot s;
    s.key = k;
    s.valueIs(v);
    return s;
  }
  uint32_t hash32() const { return prefixHash32(key); }
  bool holds(const Key& k, uint32_t) const { return key.same(k); }
};

template <typename Key_, typename V, typename Ref, typename KeyOf>
struct HashedSlot {
  using Key = Key_;
  uint32_t hash{};
  typename Ref::Stored stored{};  // empty slot: 0
  V* value() const { return Ref::from(stored); }
  void valueIs(V* v) { stored = Ref::to(v); }
  static HashedSlot of(const Key&, uint32_t h, V* v) {
    HashedSlot s;
    s.hash = h;
    s.valueIs(v);
    return s;
  }
  uint32_t hash32() const { return hash; }
  bool holds(const Key& k, uint32_t h) const { return hash == h && KeyOf()(value()).same(k); }
};

// One open-addressing table of slots of type Slot_ (KeyedSlot or HashedSlot). Grown on its own,
// it moves every member in one insert; PrefixIndex below grows into a new table a few runs at a
// time instead.
template <typename Slot_>
class PrefixIndexTable {
 public:
  using Slot = Slot_;
  using Key = typename Slot::Key;
  using V = std::remove_pointer_t<decltype(std::declval<Slot>().value())>;

  // The size a table of n slots grows to.
  static std::size_t grownSize(std::size_t n) {
    return n == 0 ? 16 : (n & (n - 1)) == 0 ? n + n / 2 : n + n / 3;
  }

  PrefixIndexTable() = default;
  explicit PrefixIndexTable(std::size_t slots)
      : slots_(static_cast<Slot*>(bigTableAlloc(slots * sizeof(Slot)))), n_(slots) {}
  PrefixIndexTable(PrefixIndexTable&& o) noexcept
      : slots_(std::exchange(o.slots_, nullptr)),
        n_(std::exchange(o.n_, 0)),
        size_(std::exchange(o.size_, 0)) {}
  PrefixIndexTable& operator=(PrefixIndexTable&& o) noexcept {
    if (this != &o) {
      clear();
      slots_ = std::exchange(o.slots_, nullptr);
      n_ = std::exchange(o.n_, 0);
      size_ = std::exchange(o.size_, 0);
    }
    return *this;
  }
  ~PrefixIndexTable() { clear(); }

  // The slot holding `key`, or null.
  Slot* find(const Key& key) {
    if (size_ == 0) return nullptr;
    const uint32_t h = prefixHash32(key);
    for (std::size_t i = home(h);; i = next(i)) {
      Slot& s = slots_[i];
      if (!s.stored) return nullptr;
      if (s.holds(key, h)) return &s;
    }
  }

  // A hint: asks for the line of the key's home slot; reads nothing.
  void prefetchHome(const Key& key) const {
    if (n_) prefetchLine(slots_ + home(prefixHash32(key)));
  }

  // Whether one more member would take the table past 3/4 full.
  bool full() const { return (size_ + 1) * 4 > n_ * 3; }

  void insert(const Key& key, V* value) {
    if (full()) grow();
    place(Slot::of(key, prefixHash32(key), value));
    ++size_;
  }

  bool erase(const Key& key) {
    Slot* hit = find(key);
    if (!hit) return false;
    std::size_t i = static_cast<std::size_t>(hit - slots_);
    // Backward shift: pull later members of the probe run into the hole.
    for (std::size_t j = next(i);; j = next(j)) {
      Slot& s = slots_[j];
      if (!s.stored) break;
      std::size_t h = home(s.hash32());
      bool between = i <= j ? (h > i && h <= j) : (h > i || h <= j);
      if (between) continue;
      slots_[i] = s;
      i = j;
    }
    slots_[i] = Slot{};
    --size_;
    return true;
  }

  // Moves whole runs of members (a run ends at an empty slot), starting at slot `at`, into `to`
  // until at least `budget` slots were passed or this table is empty; returns where to go on.
  // `at` must be an empty slot or the first of a run. Every run is moved in one call, so a run
  // is never split between the tables: a probe or a backward shift in this table never crosses
  // an empty slot, so the members left here stay findable and erasable.
  std::size_t moveRuns(PrefixIndexTable& to, std::size_t at, std::size_t budget) {
    while (size_ && budget) {
      if (!slots_[at].stored) {
        at = next(at);
        --budget;
        continue;
      }
      for (; slots_[at].stored; at = next(at)) {
        to.place(slots_[at]);
        ++to.size_;
        slots_[at] = Slot{};
        --size_;
        if (budget) --budget;
      }
    }
    return at;
  }

  // The first empty slot (a table has one whenever it holds slots).
  std::size_t firstEmpty() const {
    std::size_t i = 0;
    while (i < n_ && slots_[i].stored) ++i;
    return i;
  }

  std::size_t size() const { return size_; }
  std::size_t slots() const { return n_; }
  std::size_t bytes() const { return n_ * sizeof(Slot); }
  void clear() {
    bigTableFree(slots_, n_ * sizeof(Slot));
    slots_ = nullptr;
    n_ = 0;
    size_ = 0;
  }

 private:
  // The low 32 bits of the hash, scaled to the table's size.
  std::size_t home(uint32_t h) const { return static_cast<std::size_t>((uint64_t{h} * n_) >> 32); }
  std::size_t next(std::size_t i) const { return i + 1 == n_ ? 0 : i + 1; }

  void place(const Slot& slot) {
    std::size_t i = home(slot.hash32());
    while (slots_[i].stored) i = next(i);
    slots_[i] = slot;
  }

  void grow() {
    PrefixIndexTable bigger(grownSize(n_));
    moveRuns(bigger, firstEmpty(), n_);
    *this = std::move(bigger);
  }

  Slot* slots_ = nullptr;
  std::size_t n_ = 0;
  std::size_t size_ = 0;
};

// The index proper: one table, in huge pages once it is large (big_table.h), grown without a
// stall. When an insert would take the table past 3/4 full, the table becomes the old one and a
// larger one takes the inserts; every find, insert and erase then first moves at least
// kMovesPerCall slots' worth of whole runs from the old table, which is freed once empty. A
// lookup meanwhile tries the new table, then the old; a member is in exactly one of them. The
// move ends long before the new table could fill: it takes at most n/kMovesPerCall calls for an
// old table of n slots, and the new one has room for n/3 more members than the old held. A slot
// pointer that find returned is valid until the next call of any of the three.
template <typename Slot_>
class PrefixIndex {
 public:
  using Table = PrefixIndexTable<Slot_>;
  using Slot = Slot_;
  using Key = typename Slot::Key;
  using V = typename Table::V;
  static constexpr std::size_t kMovesPerCall = 32;

  Slot* find(const Key& key) {
    if (growing()) moveSome();
    if (Slot* s = table_.find(key)) return s;
    return old_.find(key);
  }
  void insert(const Key& key, V* value) {
    if (!growing() && table_.full()) {
      old_ = std::move(table_);
      table_ = Table(Table::grownSize(old_.slots()));
      at_ = old_.firstEmpty();
    }
    if (growing()) moveSome();
    table_.insert(key, value);
  }
  // A hint for a lookup of `key` soon: its home slot in the table that takes inserts.
  void prefetch(const Key& key) const { table_.prefetchHome(key); }

  bool erase(const Key& key) {
    if (growing()) moveSome();
    if (table_.erase(key)) return true;
    if (!old_.erase(key)) return false;
    freeOldIfEmpty();
    return true;
  }
  // Whether an old table is still being emptied into the current one.
  bool growing() const { return old_.slots() != 0; }

  std::size_t size() const { return table_.size() + old_.size(); }
  std::size_t bytes() const { return table_.bytes() + old_.bytes(); }
  void clear() {
    table_.clear();
    old_.clear();
  }

 private:
  void moveSome() {
    at_ = old_.moveRuns(table_, at_, kMovesPerCall);
    freeOldIfEmpty();
  }
  // The growth ends when the old table is empty.
  void freeOldIfEmpty() {
    if (!old_.size()) old_.clear();
  }

  Table table_;
  Table old_;           // the table being emptied into table_, while growing
  std::size_t at_ = 0;  // where the next move starts in old_
};
