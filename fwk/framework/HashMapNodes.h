// Kel::HashMap's node storage (see HashMap.h, which includes this file at its end): the blocks
// of 2^b nodes that hold the members and never move (each node built when first handed out, held
// biased in the spill, dropped with it), the free list through nodes given back, and the order
// list in first-insertion order, with the tombstones that a walk alive keeps and that the front
// and an emptied collection let go; the walks over that list (clear, purge, peek, a scout's step,
// a lookup at a walk's node) and the bytes the storage holds.
#pragma once

#include "fwk/framework/HashMap.h"

namespace Kel {

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::Spill::make(std::uint32_t count, Spill* from) -> Spill* {
  const std::uint32_t keep = from ? from->moreCount : 0;
  void* raw = ::operator new(sizeof(Spill) + count * sizeof(std::uintptr_t));
  Spill* sp = ::new (raw) Spill;
  sp->moreCount = count;
  for (std::uint32_t j = 0; j < count; ++j) sp->more()[j] = j < keep ? from->more()[j] : 0;
  if (from) {
    sp->carved = from->carved;
    sp->reserved = from->reserved;
    sp->slots = std::move(from->slots);
    sp->slotCount = std::exchange(from->slotCount, 0);
    sp->gone = std::exchange(from->gone, 0);
    from->moreCount = 0;
  }
  return sp;
}

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::Spill::makeBlock(unsigned b) -> Node* {
  static_assert(std::is_nothrow_default_constructible_v<Node>);
  static_assert(alignof(Node) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  // Plain heap memory, not a big block: see bigBlockNew in ARCHITECTURE.md for why node blocks
  // are not backed by huge pages.
  return static_cast<Node*>(::operator new((std::size_t{1} << b) * sizeof(Node)));
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::Spill::dropBlock(Node* block, unsigned b,
                                                      std::uint32_t carved) {
  if (!block) return;
  const std::uint32_t base = (1u << b) - 1u;
  const std::uint32_t built = carved <= base ? 0 : std::min(carved - base, 1u << b);
  std::destroy_n(block, built);
  ::operator delete(static_cast<void*>(block));
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::Spill::Deleter::operator()(Spill* sp) const {
  for (std::uint32_t j = 0; j < sp->moreCount; ++j) {
    dropBlock(unbiased(sp->more()[j], j + 1), j + 1, sp->carved);
  }
  sp->~Spill();
  ::operator delete(sp);
}

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::allocate() -> std::pair<std::uint32_t, Node*> {
  if (free_ != kNil) {
    const std::uint32_t i = free_;
    Node* n = nodeAt(i);
    free_ = n->next;
    return {i, n};
  }
  if (blocks_ == 0) {  // node 0, inside the map
    blocks_ = 1;
    return {0, &first_};
  }
  if (!spill_ || spill_->carved == (1u << blocks_) - 1u) addBlock();  // every node made is in use
  const std::uint32_t i = spill_->carved++;
  return {i, ::new (static_cast<void*>(nodeAt(i))) Node};
}

template <class K, class V, class H, class KeyOf>
void HashMap<K, V, H, KeyOf>::reserveMore(std::size_t n) {
  if (n * 4 > std::size_t{slotCount()} * 3) {
    std::size_t cap = grown(0);
    while (cap * 3 < n * 4) cap = grown(cap);
    rehash(cap);
  }
  spill_->reserved =
      std::max(spill_->reserved, static_cast<std::uint32_t>(std::min<std::size_t>(n, kNil)));
}

template <class K, class V, class H, class KeyOf>
void HashMap<K, V, H, KeyOf>::addBlock() {
  const std::uint32_t b = blocks_;
  // The array of block pointers is sized exactly; it grows about twenty times.
  Node* block = Spill::makeBlock(b);
  try {
    spill_.reset(Spill::make(b, spill_.get()));
  } catch (...) {
    Spill::dropBlock(block, b, 0);
    throw;
  }
  spill_->more()[b - 1] = Spill::biased(block, b);
  ++blocks_;
  const std::uint32_t first = (1u << b) - 1u;
  if (spill_->reserved > first) {
    populate(block, std::min(spill_->reserved - first, 1u << b) * sizeof(Node));
  }
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::link(std::uint32_t i, Node& n) {
  n.next = kNil;
  if (head_ == kNil) {
    head_ = i;
    n.prev = i;
    return;
  }
  Node& first = node(head_);
  n.prev = first.prev;
  node(first.prev).next = i;
  first.prev = i;
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::unlink(std::uint32_t i, Node& n) {
  if (i == head_) {
    head_ = n.next;
    if (head_ != kNil) node(head_).prev = n.prev;
    return;
  }
  node(n.prev).next = n.next;
  // A bit-field is not an lvalue of a conditional operator.
  if (n.next != kNil) {
    node(n.next).prev = n.prev;
  } else {
    node(head_).prev = n.prev;
  }
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::forget(std::uint32_t i, Node& n, std::uint32_t h,
                                            std::size_t at) {
  unlink(i, n);
  if (!unindexed()) unplace(i, h, at);
  if constexpr (kKeyed) n.key = K{};
  n.next = free_;
  n.prev = kNil;
  free_ = i;
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::trimHead() {
  if (live_ == 0 && head_ != kNil) {
    release();
    return;
  }
  while (head_ != kNil) {
    const std::uint32_t i = head_;
    Node& n = node(i);
    if (n.live) break;
    forget(i, n, mix(keyOf(n)));
    --dead_;
  }
  if (indexed() == 0) release();
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::release() {
  spill_.reset();
  blocks_ = 0;
  head_ = free_ = kNil;
  dead_ = 0;
  if constexpr (kKeyed) first_.key = K{};
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::clear() {
  for (std::uint32_t i = head_; i != kNil; i = node(i).next) {
    Node& n = node(i);
    if (!n.live) continue;
    if constexpr (kInPlace) {
      const KeyArg k = keyOf(n);
      bury(n, k);
    } else {
      V old;
      takeOut(n, old);
    }
  }
  if (iterators_ == 0) trimHead();
  maybePurge();
}

template <class K, class V, class H, class KeyOf>
inline void HashMap<K, V, H, KeyOf>::purge() {
  if (iterators_ != 0) return;
  for (std::uint32_t i = head_; i != kNil;) {
    Node& n = node(i);
    const std::uint32_t next = n.next;
    if (!n.live) forget(i, n, mix(keyOf(n)));
    i = next;
  }
  dead_ = 0;
  if (indexed() == 0) release();
}

template <class K, class V, class H, class KeyOf>
inline std::size_t HashMap<K, V, H, KeyOf>::heapBytes() const {
  if (!spill_) return 0;
  std::size_t nodes = 0;
  for (unsigned b = 1; b < blocks_; ++b) nodes += std::size_t{1} << b;
  return nodes * sizeof(Node) + sizeof(Spill) + spill_->moreCount * sizeof(Node*) +
         std::size_t{spill_->slotCount} * sizeof(std::uint64_t);
}

template <class K, class V, class H, class KeyOf>
inline std::uint32_t HashMap<K, V, H, KeyOf>::peekAt(std::size_t n) const {
  for (std::uint32_t i = head_; i != kNil;) {
    const Node& at = node(i);
    if (at.live && n-- == 0) return i;
    i = at.next;
  }
  return kNil;
}

template <class K, class V, class H, class KeyOf>
inline std::uint32_t HashMap<K, V, H, KeyOf>::scoutNext(std::uint32_t i, std::size_t n) const {
  if (i >= carved() || !node(i).live) return peekAt(n);
  for (i = node(i).next; i != kNil;) {
    const Node& at = node(i);
    if (at.live) return i;
    i = at.next;
  }
  return kNil;
}

template <class K, class V, class H, class KeyOf>
inline auto HashMap<K, V, H, KeyOf>::atWalk(const Iterator& it, const K& k) const
    -> std::pair<const V*, bool> {
  Node* n = it.node_;
  if (!n || !(keyOf(*n) == k)) return {nullptr, false};
  return {n->live ? &n->value() : nullptr, true};
}

}  // namespace Kel
