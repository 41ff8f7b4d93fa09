// An open-addressing hash index from a 64-bit prefix key to a record pointer, for the routing
// table's exact prefix lookups (a million IPv4 prefixes at 16 bytes per slot).
//
// Invariants: a slot is empty exactly when its value is null; linear probing with backward-shift
// deletion keeps every key reachable from its home slot without tombstones; the load stays at
// most 3/4. A caller must not insert a null value or a key that is present, and must not keep
// anything across a rehash (insert may move every slot).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

template <typename V>
class PrefixIndex {
 public:
  V* find(uint64_t key) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = home(key);; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (!s.value) return nullptr;
      if (s.key == key) return s.value;
    }
  }

  void insert(uint64_t key, V* value) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    place(key, value);
    ++size_;
  }

  bool erase(uint64_t key) {
    if (slots_.empty()) return false;
    std::size_t i = home(key);
    for (;; i = (i + 1) & mask_) {
      if (!slots_[i].value) return false;
      if (slots_[i].key == key) break;
    }
    // Backward shift: pull later members of the probe run into the hole.
    for (std::size_t j = (i + 1) & mask_;; j = (j + 1) & mask_) {
      Slot& s = slots_[j];
      if (!s.value) break;
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
    mask_ = 0;
  }

 private:
  struct Slot {
    uint64_t key = 0;
    V* value = nullptr;
  };

  std::size_t home(uint64_t key) const {
    uint64_t h = key * 0x9E3779B97F4A7C15ull;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    return static_cast<std::size_t>(h ^ (h >> 32)) & mask_;
  }

  void place(uint64_t key, V* value) {
    std::size_t i = home(key);
    while (slots_[i].value) i = (i + 1) & mask_;
    slots_[i] = Slot{key, value};
  }

  void grow() {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.resize(old.empty() ? 16 : old.size() * 2);
    mask_ = slots_.size() - 1;
    for (const Slot& s : old) {
      if (s.value) place(s.key, s.value);
    }
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
  std::size_t mask_ = 0;
};
