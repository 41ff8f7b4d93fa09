// An open-addressing hash index from a prefix key to a record pointer, for the routing table's
// exact prefix lookups (a million IPv4 prefixes at 12 bytes per slot) and the gateways' trees.
//
// Ref says how a slot holds its record: a pointer (PointerRef), or for records of one arena a
// 32-bit reference (`using Stored`, `static Stored to(V*)`, `static V* from(Stored)`, with a
// stored 0 for null), which keeps a slot at the key's size plus four bytes.
// Key is a small trivially copyable type with `bool same(const Key&) const` and `uint64_t hash()
// const` (well mixed: its low bits choose the home slot). Parts of a key that `same` and `hash`
// ignore are a tag that the owner may keep beside the key and change in place.
// Invariants: a slot is empty exactly when its value is null; linear probing with backward-shift
// deletion keeps every key reachable from its home slot without tombstones; the load stays at
// most 3/4. A table grows by half and by a third in turn (16, 24, 32, 48, ... slots), so it is
// never less than half full once grown; the home slot scales the hash to the table's size. A caller
// must not insert a null value or a key that is present, must change only the value (never to null)
// and the tag of a slot that find returned, and must not keep a slot pointer across insert or erase
// (insert may move every slot, erase moves its neighbours).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

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

// One open-addressing table; PrefixIndex below spreads keys over several of them.
template <typename Key, typename V, typename Ref = PointerRef<V>>
class PrefixIndexTable {
 public:
  struct Slot {
    Key key{};
    typename Ref::Stored stored{};  // empty slot: 0
    V* value() const { return Ref::from(stored); }
    void valueIs(V* v) { stored = Ref::to(v); }
  };

  // The slot holding `key`, or null.
  Slot* find(const Key& key) {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = home(key);; i = next(i)) {
      Slot& s = slots_[i];
      if (!s.stored) return nullptr;
      if (s.key.same(key)) return &s;
    }
  }

  void insert(const Key& key, V* value) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    Slot slot;
    slot.key = key;
    slot.valueIs(value);
    place(slot);
    ++size_;
  }

  bool erase(const Key& key) {
    Slot* hit = find(key);
    if (!hit) return false;
    std::size_t i = static_cast<std::size_t>(hit - slots_.data());
    // Backward shift: pull later members of the probe run into the hole.
    for (std::size_t j = next(i);; j = next(j)) {
      Slot& s = slots_[j];
      if (!s.stored) break;
      std::size_t h = home(s.key);
      bool between = i <= j ? (h > i && h <= j) : (h > i || h <= j);
      if (between) continue;
      slots_[i] = s;
      i = j;
    }
    slots_[i] = Slot{};
    --size_;
    return true;
  }

  std::size_t size() const { return size_; }
  std::size_t bytes() const { return slots_.capacity() * sizeof(Slot); }
  void clear() {
    std::vector<Slot>().swap(slots_);
    size_ = 0;
  }

 private:
  // The low 32 bits of the hash, scaled to the table's size.
  std::size_t home(const Key& key) const {
    return static_cast<std::size_t>(((key.hash() & 0xFFFFFFFFu) * slots_.size()) >> 32);
  }
  std::size_t next(std::size_t i) const { return i + 1 == slots_.size() ? 0 : i + 1; }

  void place(const Slot& slot) {
    std::size_t i = home(slot.key);
    while (slots_[i].stored) i = next(i);
    slots_[i] = slot;
  }

  void grow() {
    std::vector<Slot> old;
    old.swap(slots_);
    const std::size_t n = old.size();
    slots_.resize(n == 0 ? 16 : (n & (n - 1)) == 0 ? n + n / 2 : n + n / 3);
    for (const Slot& s : old) {
      if (s.stored) place(s);
    }
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
};

// The index proper: kShards tables chosen by the top bits of the hash (the home slot uses the
// low bits). Each table doubles on its own, so growing a million-prefix index moves 1/kShards of
// it at a time (about a millisecond) instead of stalling one route change for the whole rehash.
// The tables are made with the first insert, so an index that stays empty costs one pointer.
template <typename Key, typename V, typename Ref = PointerRef<V>>
class PrefixIndex {
 public:
  using Table = PrefixIndexTable<Key, V, Ref>;
  using Slot = typename Table::Slot;
  static constexpr unsigned kShardBits = 6;
  static constexpr std::size_t kShards = std::size_t{1} << kShardBits;

  Slot* find(const Key& key) { return tables_.empty() ? nullptr : table(key).find(key); }
  void insert(const Key& key, V* value) {
    if (tables_.empty()) tables_.resize(kShards);
    table(key).insert(key, value);
  }
  bool erase(const Key& key) { return !tables_.empty() && table(key).erase(key); }

  std::size_t size() const {
    std::size_t n = 0;
    for (const Table& t : tables_) n += t.size();
    return n;
  }
  std::size_t bytes() const {
    std::size_t n = tables_.capacity() * sizeof(Table);
    for (const Table& t : tables_) n += t.bytes();
    return n;
  }
  void clear() { std::vector<Table>().swap(tables_); }

 private:
  Table& table(const Key& key) {
    return tables_[static_cast<std::size_t>(key.hash() >> (64 - kShardBits))];
  }

  std::vector<Table> tables_;
};
