// A hash map with its entries in one array (open addressing, linear probing, capacity a power of
// two, at most half full), for the daemon's large indexes: a lookup reads one or two adjacent
// slots instead of following a chain of separately allocated nodes. Erasing shifts the following
// entries of the probe run back, so there are no tombstones. References to values last only
// until the next insertion or erasure.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

template <class K, class V, class Hash>
class FlatMap {
 public:
  V* find(const K& k) {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = home(k);; i = next(i)) {
      Slot& s = slots_[i];
      if (!s.used) return nullptr;
      if (s.key == k) return &s.value;
    }
  }
  const V* find(const K& k) const { return const_cast<FlatMap*>(this)->find(k); }

  // The value of `k`, made (value-initialised) when absent.
  V& operator[](const K& k) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    std::size_t i = home(k);
    for (; slots_[i].used; i = next(i)) {
      if (slots_[i].key == k) return slots_[i].value;
    }
    slots_[i].used = true;
    slots_[i].key = k;
    slots_[i].value = V();
    ++size_;
    return slots_[i].value;
  }

  void erase(const K& k) {
    if (slots_.empty()) return;
    std::size_t i = home(k);
    for (;; i = next(i)) {
      if (!slots_[i].used) return;
      if (slots_[i].key == k) break;
    }
    // Backward shift: move each later entry of the run into the hole when its home allows.
    for (std::size_t j = next(i);; j = next(j)) {
      if (!slots_[j].used) break;
      const std::size_t h = home(slots_[j].key);
      const bool movable = i <= j ? (h <= i || h > j) : (h <= i && h > j);
      if (movable) {
        slots_[i] = std::move(slots_[j]);
        i = j;
      }
    }
    slots_[i] = Slot();
    --size_;
  }

  std::size_t size() const { return size_; }
  void clear() {
    slots_.clear();
    size_ = 0;
  }

 private:
  struct Slot {
    K key{};
    V value{};
    bool used = false;
  };

  std::size_t home(const K& k) const { return Hash()(k) & (slots_.size() - 1); }
  std::size_t next(std::size_t i) const { return (i + 1) & (slots_.size() - 1); }
  void grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 16 : 2 * old.size(), Slot());
    size_ = 0;
    for (Slot& s : old) {
      if (s.used) (*this)[s.key] = std::move(s.value);
    }
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
};
