// Kel::HashMap's index (see HashMap.h, which includes this file at its end): the open-addressing
// table of 64-bit slots (32 bits of a key's hash, its node's index plus one; 0 empty, kGone a
// removed member's mark) that a collection of more than kSmall nodes keeps beside its order list.
// Lookups probe from the hash's home slot to the first empty slot, past marks; insertions take
// the first empty or marked slot of the run; removals mark; the table is made again, larger or at
// its size, when members and marks fill 3/4 of it.
#pragma once

#include "fwk/framework/HashMap.h"

namespace Kel {

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::locate(const K& k) -> std::pair<Node*, bool> {
  const std::uint32_t h = mix(k);
  const Probe found = probe(k, h);
  if (found.at) return {found.at, false};
  bool placeFound = !unindexed();
  if (unindexed()) {
    if (indexed() + 1 > kSmall) rehash(grown(0));
  } else if ((std::size_t{indexed()} + spill_->gone + 1) * 4 > std::size_t{slotCount()} * 3) {
    // Full of members and marks: when marks are at least a sixteenth of the slots, the index is
    // made again at its size (dropping them, so at least that many insertions pass before the
    // next time), otherwise larger. A collection whose members come and go at random thus keeps
    // the index it would have without marks.
    const bool roomy = std::size_t{spill_->gone} * 16 >= slotCount();
    rehash(roomy ? slotCount() : grown(slotCount()));
    placeFound = false;
  }
  const auto [i, at] = allocate();
  keyIs(*at, k);
  if (placeFound) {
    placeAt(found.slot, h, i);
  } else if (!unindexed()) {
    place(h, i);
  }
  link(i, *at);
  return {at, true};
}

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::probe(const K& k, std::uint32_t h) const -> Probe {
  if (unindexed()) {  // small: every node of the index is on the order list
    for (std::uint32_t i = head_; i != kNil;) {
      Node& n = node(i);
      if (keyOf(n) == k) return {i, 0, &n};
      i = n.next;
    }
    return {kNil, 0, nullptr};
  }
  const std::uint64_t* slots = spill_->slots.get();
  std::size_t marked = kNoSlot;
  for (std::size_t p = home(h);; p = nextSlot(p)) {
    const std::uint64_t s = slots[p];
    if (s == 0) return {kNil, marked == kNoSlot ? p : marked, nullptr};
    if (s == kGone) {
      if (marked == kNoSlot) marked = p;
    } else if (static_cast<std::uint32_t>(s >> 32) == h) {
      const std::uint32_t i = static_cast<std::uint32_t>(s) - 1;
      Node& n = node(i);
      if (keyOf(n) == k) return {i, p, &n};
    }
  }
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::place(std::uint32_t h, std::uint32_t i) {
  std::uint64_t* slots = spill_->slots.get();
  std::size_t p = home(h);
  while (slots[p] != 0 && slots[p] != kGone) p = nextSlot(p);
  placeAt(p, h, i);
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::placeAt(std::size_t p, std::uint32_t h, std::uint32_t i) {
  std::uint64_t* slots = spill_->slots.get();
  if (slots[p] == kGone) --spill_->gone;
  slots[p] = (static_cast<std::uint64_t>(h) << 32) | (static_cast<std::uint64_t>(i) + 1);
}

template <class K, class V, class H, class KeyOf>
inline const V* HashMap<K, V, H, KeyOf>::prefetchNode(const K& k) const {
  if (unindexed()) return nullptr;
  const std::uint32_t h = mix(k);
  const std::uint64_t s = spill_->slots[home(h)];
  if (s == 0 || s == kGone || static_cast<std::uint32_t>(s >> 32) != h) return nullptr;
  const Node* n = &node(static_cast<std::uint32_t>(s) - 1);
  prefetch(n);
  return n->cell.at();
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::rehash(std::size_t cap) {
  // A large index is read at random, one slot per key: huge pages (see bigBlockNew), and its
  // fresh pages are zero already, so they are first written by the keys placed in them.
  std::unique_ptr<std::uint64_t[], SlotsDeleter> old(
      static_cast<std::uint64_t*>(bigBlockNew(cap * sizeof(std::uint64_t))), SlotsDeleter{cap});
  old.swap(spill().slots);
  const std::size_t oldCount = std::exchange(spill_->slotCount, static_cast<std::uint32_t>(cap));
  spill_->gone = 0;
  if (oldCount == 0) {  // leaving small: index the nodes on the order list
    for (std::uint32_t i = head_; i != kNil; i = node(i).next) place(mix(keyOf(node(i))), i);
    return;
  }
  for (std::size_t j = 0; j < oldCount; ++j) {
    const std::uint64_t s = old[j];
    if (s != 0 && s != kGone) {
      place(static_cast<std::uint32_t>(s >> 32), static_cast<std::uint32_t>(s) - 1);
    }
  }
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::unplace(std::uint32_t i, std::uint32_t h, std::size_t at) {
  std::uint64_t* slots = spill_->slots.get();
  std::size_t p =
      at < spill_->slotCount && static_cast<std::uint32_t>(slots[at]) - 1 == i ? at : home(h);
  while (static_cast<std::uint32_t>(slots[p]) - 1 != i) p = nextSlot(p);
  slots[p] = kGone;
  ++spill_->gone;
}

}  // namespace Kel
