// Kel::HashMap: the framework's keyed collection.
// O(1) average insert, erase and lookup, iteration in a stable order (the order in which keys
// were first inserted), and resumable walks:
// - an Iterator may stand on a member that is erased meanwhile; advancing it goes on with the
//   member after it, so a walk that deletes as it goes is never invalidated;
// - resumeAt(key) starts a walk at key, or, when key has been erased, at the member that followed
//   it; a key the collection has never held (or has forgotten, see below) starts at the front.
// Erased members stay in the order as tombstones; those at the front are dropped as soon as no
// iterator is alive, the others once no iterator is alive and they outnumber the live ones (then
// in one pass; amortised O(1) per erase); when none is live, all go at once with the storage. A
// key inserted again while its tombstone is kept takes its old place in the order.
// Values are returned by pointer; a pointer is valid until its member is erased. A collection
// holds at most 2^31 - 2 members (node indexes are 31-bit); at most 65,535 iterators may be alive
// on one at a time (one more aborts the process).
//
// Layout, chosen for collections of a million members (a routing table's keys): members live in
// pooled nodes that never move (blocks doubling in size, recycled through a free list), linked in
// order by 32-bit indexes; the index is one flat open-addressing table (linear probing, at most
// 3/4 full, counting the slots of removed members that stay marked inside a probe run until the
// index is made again) of 64-bit slots holding 32 bits of the key's hash and the node's index, so
// a lookup touches one slot run and, on a hash match, one node. No allocation per member; the first
// node is inside the map. A collection of up to kSmall nodes (a route's next hops, say) has no
// index: a lookup walks its few nodes, comparing keys. The index is built when the collection
// outgrows that, and goes when it is emptied.
//
// A value type that cannot move (a notifiee, registered with its notifier by address) lives in
// its node: emplace() builds it there, erase() destroys it there, and it never moves until then.
// Its destructor must not use the map. Such a value may carry its own key (a notifiee's key is
// its watched entity's): given KeyOf, with KeyOf()(value) returning the key the value was stored
// under for as long as it is a member, a live node keeps no key of its own, and an erased one (a
// tombstone) keeps the key in the value's place. That takes a key that is trivially copyable and
// no larger than the value; otherwise KeyOf is ignored and the node keeps the key.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "fwk/framework/BigBlock.h"
#include "fwk/framework/Prefetch.h"

namespace Kel {

// A hasher whose results spread keys evenly over their top 32 bits (it declares a member type
// `spreadInTopBits`): the map uses those bits as they are instead of mixing the hash again. A
// route's key is hashed several times a change, by several maps.
template <class H>
concept SpreadHash = requires {
  typename H::spreadInTopBits;
};

template <class K, class V, class H = std::hash<K>, class KeyOf = void>
class HashMap {
  static constexpr std::uint32_t kNil = 0x7fffffffu;  // no node: at most kNil - 1 members
  static constexpr std::size_t kSmall = 8;
  // An index slot whose member was removed from the middle of a probe run: probes go on past it,
  // and an insertion may take it. (A member's slot holds its node index plus one in the low word,
  // never all ones, as node indexes are below kNil.)
  static constexpr std::uint64_t kGone = ~std::uint64_t{0};

  // Values that cannot be moved are built in place; such a value exists exactly while its node
  // is live.
  static constexpr bool kInPlace = !std::is_move_assignable_v<V>;
  // The node keeps the key, or the value gives it (see the header).
  static constexpr bool kKeyed = std::is_void_v<KeyOf> || !kInPlace ||
                                 !std::is_trivially_copyable_v<K> || sizeof(K) > sizeof(V) ||
                                 alignof(K) > alignof(V);
  // at(): where the value is (or will be built), read or not.
  struct Held {
    V v{};
    V& get() { return v; }
    const V* at() const { return &v; }
  };
  struct Built {
    alignas(V) unsigned char raw[sizeof(V)];
    V& get() { return *std::launder(reinterpret_cast<V*>(raw)); }
    const V* at() const { return reinterpret_cast<const V*>(raw); }
  };

  // Two words besides the key and the value: the order links, with the live flag in the top bit
  // of `prev`. The hash is not kept: the index's slots hold 32 bits of it, and an erasure reuses
  // the one its lookup computed; a tombstone dropped later and the nodes of a small collection
  // getting its index are hashed again. The value last, so a small one (a backlog's bool) takes
  // no word of its own.
  struct KeptKey {
    K key{};
  };
  struct NoKey {};
  struct Node : std::conditional_t<kKeyed, KeptKey, NoKey> {
    std::uint32_t prev : 31 = kNil;
    std::uint32_t live : 1 = 0;
    std::uint32_t next = kNil;  // order list; the free list for unused nodes
    std::conditional_t<kInPlace, Built, Held> cell;
    V& value() { return cell.get(); }
  };
  // What only a larger collection needs (further node blocks, the index), behind one pointer.
  // In one allocation: the index, then where the node blocks after the first are (block b at
  // more()[b - 1]), exactly as many as there are; it is made again each time a block is added
  // (about twenty times for a million members), so finding a node costs no more loads than a
  // separate array of block pointers would. A block is held biased: as the address its node 0
  // would have if the block began with the collection's node 0, so node i is at that address plus
  // i nodes, without taking the block's first index off (a node is found tens of times a key).
  using SlotsDeleter = BigArrayDeleter<std::uint64_t>;  // a large index has pages of its own
  struct Spill {
    std::unique_ptr<std::uint64_t[], SlotsDeleter> slots;
    std::uint32_t slotCount =
        0;                   // 16, 24, 32, 48, ... (grown()), or 0 while the collection is small
    std::uint32_t gone = 0;  // slots marked kGone
    std::uint32_t moreCount = 0;
    // Nodes below this index have been built (node 0, inside the map, always is); the rest of
    // the last block is raw memory, built one node at a time as it is first handed out.
    std::uint32_t carved = 1;
    std::uint32_t reserved = 0;  // nodes below it: counted on by the largest reserve() so far
    std::uintptr_t* more() { return reinterpret_cast<std::uintptr_t*>(this + 1); }
    // Block b (first index 2^b - 1) as held, and back; a missing block is held as 0.
    static std::uintptr_t biased(Node* block, unsigned b) {
      return reinterpret_cast<std::uintptr_t>(block) -
             ((std::uintptr_t{1} << b) - 1) * sizeof(Node);
    }
    static Node* unbiased(std::uintptr_t held, unsigned b) {
      return held == 0
                 ? nullptr
                 : reinterpret_cast<Node*>(held + ((std::uintptr_t{1} << b) - 1) * sizeof(Node));
    }

    // A spill with room for `count` block pointers: those of `from` (which gives them up, and its
    // index with them; null: none), then null ones.
    static Spill* make(std::uint32_t count, Spill* from);
    // Block b: room for its 2^b nodes, none built. Building (and threading onto a free list) a
    // whole block at once wrote a million-member block twice, and made every allocation read a
    // node written long before: a cache miss per member. (Hinting a large block's pages for huge
    // ones spared a new input's scan a third of its page faults, but made the drains of two
    // million routes a tenth slower.)
    static Node* makeBlock(unsigned b);
    // Destroys the nodes of block b below `carved` and frees it.
    static void dropBlock(Node* block, unsigned b, std::uint32_t carved);
    struct Deleter {
      void operator()(Spill* sp) const;
    };
  };

 public:
  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  ~HashMap() {
    if constexpr (kInPlace) {
      for (std::uint32_t i = head_; i != kNil; i = node(i).next) {
        if (node(i).live) node(i).value().~V();
      }
    }
  }

  std::size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }

  // Makes room for n members: the index does not grow before it holds them, and each node block
  // made from now on has the pages of its share of the n nodes backed at once (BigBlock.h).
  // Some call it once a key (a withdraw-all's hints): the common case is room enough.
  void reserve(std::size_t n) {
    if (n <= kSmall && unindexed()) return;
    if (n * 4 > std::size_t{slotCount()} * 3 || n > spill_->reserved) reserveMore(n);
  }

  const V* find(const K& k) const {
    Node* n = probe(k, mix(k)).at;
    return n && n->live ? &n->value() : nullptr;
  }
  V* find(const K& k) {
    Node* n = probe(k, mix(k)).at;
    return n && n->live ? &n->value() : nullptr;
  }
  bool contains(const K& k) const { return find(k) != nullptr; }

  // Inserts or assigns; returns the stored value and whether the key is new.
  std::pair<V*, bool> insert(const K& k, V v) requires(!kInPlace) {
    auto [at, fresh] = locate(k);
    Node& n = *at;
    n.value() = std::move(v);
    return {&n.value(), revive(n, fresh)};
  }

  // Builds V(args...) in k's node, in place of the value k held (which is destroyed first);
  // returns the new value and whether the key is new. When the constructor throws, k is absent.
  template <class... A>
  std::pair<V*, bool> emplace(const K& k, A&&... args) requires kInPlace {
    return emplaceUnless(
               k, [](const V&) { return false; }, std::forward<A>(args)...)
        .first;
  }
  // As emplace, with one probe of the index, unless k holds a value for which keep(value) is
  // true: that value stays, and the result is {value, false}, false (nothing built). Otherwise
  // {emplace's result, true}.
  template <class Keep, class... A>
  std::pair<std::pair<V*, bool>, bool> emplaceUnless(const K& key, Keep&& keep,
                                                     A&&... args) requires kInPlace {
    const KeyArg k = key;
    auto [at, fresh] = locate(k);
    Node& n = *at;
    if (n.live && keep(n.value())) return {{&n.value(), false}, false};
    const bool added = !n.live;
    // k becomes a tombstone first: whatever the destructor or the constructor does or throws,
    // the map stays consistent.
    if (n.live) {
      bury(n, k);
    } else if (fresh) {
      ++dead_;
    }
    if constexpr (kKeyed) {
      ::new (static_cast<void*>(n.cell.raw)) V(std::forward<A>(args)...);
    } else {
      try {
        ::new (static_cast<void*>(n.cell.raw)) V(std::forward<A>(args)...);
      } catch (...) {
        keyIs(n, k);  // the failed constructor may have written over the tombstone's key
        throw;
      }
    }
    revive(n, false);
    return {{&n.value(), added}, true};
  }

  // Stores v at k with one probe of the index; false, and nothing changed, when k already held
  // an equal value. (The mutators' "no notification when unchanged" rule.)
  bool assign(const K& k, const V& v) requires(!kInPlace) {
    auto [at, fresh] = locate(k);
    Node& n = *at;
    if (n.live && n.value() == v) return false;
    n.value() = v;
    revive(n, fresh);
    return true;
  }

  // Returns false when k is absent.
  bool erase(const K& key) {
    if constexpr (!kInPlace) {
      V old;  // released once the map is consistent
      return erase(key, old);
    } else {
      return eraseWith(key, [this](Node& n, const K& k) { bury(n, k); });
    }
  }
  // As erase, and the value moves to `out` (one walk where find and erase take two).
  bool erase(const K& key, V& out) requires(!kInPlace) {
    return eraseWith(key, [this, &out](Node& n, const K&) { takeOut(n, out); });
  }

  void clear();

  // A position in the walk. Keeps the collection from purging while it is alive.
  class Iterator {
   public:
    Iterator() = default;
    Iterator(const Iterator& o) : Iterator(o.map_, o.node_) {}
    Iterator& operator=(const Iterator& o) {
      Iterator(o).swap(*this);
      return *this;
    }
    ~Iterator() {
      if (map_) map_->releaseIterator();
    }
    void swap(Iterator& o) {
      std::swap(map_, o.map_);
      std::swap(node_, o.node_);
    }

    explicit operator bool() const { return node_ != nullptr; }
    bool atEnd() const { return node_ == nullptr; }
    const K& key() const { return map_->keyOf(*node_); }
    V& value() const { return node_->value(); }
    Iterator& operator++() {
      node_ = map_->firstLive(node_ ? node_->next : kNil);
      return *this;
    }

    // Range-for support.
    std::pair<const K&, V&> operator*() const { return {map_->keyOf(*node_), node_->value()}; }
    bool operator!=(const Iterator& o) const { return node_ != o.node_; }

   private:
    friend class HashMap;
    Iterator(const HashMap* m, Node* n) : map_(m), node_(n) {
      if (!map_) return;
      if (map_->iterators_ == UINT16_MAX) {
        std::fprintf(stderr, "Kel::HashMap: more than %u iterators alive on %p\n", UINT16_MAX,
                     static_cast<const void*>(map_));
        std::abort();
      }
      ++map_->iterators_;
    }
    const HashMap* map_ = nullptr;
    Node* node_ = nullptr;
  };

  // As erase(it.key(), out) for the member `it` (a walk of this collection) stands on, without
  // the index: while a walk is alive an erased member stays in the index as a tombstone, so
  // nothing but the node changes (a withdraw-all erasing as it walks). False when that member is
  // erased already or `it` is at the end.
  bool eraseAt(const Iterator& it, V& out) requires(!kInPlace) {
    if (!it.node_ || !it.node_->live) return false;
    takeOut(*it.node_, out);
    return true;
  }

  // For a lookup while a walk is alive: when `it` stands on k's node, {k's value or null when
  // it was erased meanwhile, true}, found without the index; otherwise {null, false}.
  std::pair<const V*, bool> atWalk(const Iterator& it, const K& k) const;

  Iterator begin() const { return Iterator(this, firstLive(head_)); }
  Iterator end() const { return Iterator(); }
  Iterator resumeAt(const K& k) const {
    const std::uint32_t i = lookup(k, mix(k));
    if (i == kNil) return begin();
    return Iterator(this, firstLive(i));
  }

  // Forgets every tombstone, unless a walk is alive.
  void purge();

  std::size_t tombstones() const { return dead_; }
  // Heap bytes held beyond the map object: the node blocks after the first, the spill with its
  // block pointers, and the index.
  std::size_t heapBytes() const;

  // Cache hints for a loop that will look keys up a few steps from now (a drain taking a
  // backlog's members in order): nothing is read that may miss, and nothing changes.
  // prefetchSlot fetches k's first index slot. prefetchNode, called once that slot is likely in
  // cache, reads it and fetches k's node; it returns where k's value will be (its address only,
  // not read), or null when the first slot does not name k (it compares hashes, not keys: a
  // key whose 32-bit hash collides may name another member's value, which is harmless for a
  // hint).
  void prefetchSlot(const K& k) const {
    if (!unindexed()) prefetch(&spill_->slots[home(mix(k))]);
  }
  // For a key about to be inserted: the lines of its home slot and of the slot three on (the
  // next line when the home slot is one of the last three of its line). The probe of an absent
  // key walks to the end of its run, two to three slots with the index two thirds full.
  void prefetchRun(const K& k) const {
    if (unindexed()) return;
    const std::size_t p = home(mix(k));
    prefetch(&spill_->slots[p]);
    if (p + 3 < spill_->slotCount) prefetch(&spill_->slots[p + 3]);
  }
  const V* prefetchNode(const K& k) const;
  // The key of the live member `n` places after the first in order (0: the first), or null
  // when there are not that many; walks n + 1 members.
  const K* peek(std::size_t n) const { return at(peekAt(n)); }

  // A place in the order for a loop that takes the first member out each step and wants hints
  // for the one `n` places on (a drain): step() returns the key peek(n) would, moving one member
  // on from where the last call stood instead of walking n from the front. It keeps no iterator
  // (erased members are still forgotten at once) and is safe whatever the collection went
  // through between calls: when its member is gone it walks from the front again; when that
  // member's node was reused meanwhile it may name another key, which only a hint may accept.
  class Scout {
   public:
    explicit Scout(std::size_t n) : n_(n) {}
    const K* step(const HashMap& m) {
      at_ = m.scoutNext(at_, n_);
      return m.at(at_);
    }

   private:
    std::size_t n_;
    std::uint32_t at_ = kNil;
  };

 private:
  // The 32 bits of k's hash the index uses: the top ones as they are when the hasher spreads
  // them (see SpreadHash), otherwise the low ones after a finaliser.
  static std::uint32_t mix(const K& k) {
    std::uint64_t h = static_cast<std::uint64_t>(H()(k));
    if constexpr (SpreadHash<H>) {
      return static_cast<std::uint32_t>(h >> 32);
    } else {
      h ^= h >> 33;
      h *= 0xff51afd7ed558ccdull;
      h ^= h >> 33;
      return static_cast<std::uint32_t>(h);
    }
  }
  // Block b holds 2^b nodes, indexes [2^b - 1, 2^(b+1) - 1): a million members take twenty
  // blocks. Block 0, one node, is inside the map: a collection of one member (a route's one next
  // hop) allocates nothing.
  // (i + 1 is never 0, as i < kNil: the bare bit scan, without bit_width's test for 0.)
  static unsigned blockOf(std::uint32_t i) {
    return 31u - static_cast<unsigned>(__builtin_clz(i + 1u));
  }
  // The live member n places after the first, or kNil.
  std::uint32_t peekAt(std::size_t n) const;
  const K* at(std::uint32_t i) const { return i == kNil ? nullptr : &keyOf(node(i)); }
  // The live member after node i when i is a live node of the current storage; otherwise the
  // member n places after the first.
  std::uint32_t scoutNext(std::uint32_t i, std::size_t n) const;
  // Inlined everywhere: a few instructions that a walk or an erasure runs several times a key,
  // which the compiler would otherwise call out of line.
  [[gnu::always_inline]] Node& node(std::uint32_t i) const { return *nodeAt(i); }
  [[gnu::always_inline]] Node* nodeAt(std::uint32_t i) const {
    if (i == 0) return &first_;
    const unsigned b = blockOf(i);
    return reinterpret_cast<Node*>(spill_->more()[b - 1] + std::uintptr_t{i} * sizeof(Node));
  }
  // Nodes built so far (see Spill::carved): a node index from before may name raw memory.
  std::uint32_t carved() const { return blocks_ == 0 ? 0 : spill_ ? spill_->carved : 1; }

  // A key argument as held during an erasure or a replacement: when the value gives the key, a
  // copy, as the argument may be that value's own key, gone with the value.
  using KeyArg = std::conditional_t<kKeyed, const K&, const K>;
  // The key of a live node or a tombstone.
  const K& keyOf(const Node& n) const {
    if constexpr (kKeyed) {
      return n.key;
    } else {
      if (n.live) return KeyOf()(*std::launder(n.cell.at()));
      return *std::launder(reinterpret_cast<const K*>(n.cell.raw));
    }
  }
  // Makes the live node n, holding k, a tombstone: its value destroyed in place and, when the
  // value gave the key, the key kept where the value was.
  void bury(Node& n, const K& k) requires kInPlace {
    n.live = false;
    --live_;
    ++dead_;
    n.value().~V();
    if constexpr (!kKeyed) keyIs(n, k);
  }
  // The erasure both kinds of value share: one walk of k's probe run, then makeTombstone(node, k)
  // makes the live node a tombstone, and the tombstone is settled.
  template <class Bury>
  bool eraseWith(const K& key, Bury&& makeTombstone) {
    const KeyArg k = key;
    const std::uint32_t h = mix(k);
    const Probe f = probe(k, h);
    if (!f.at || !f.at->live) return false;
    makeTombstone(*f.at, k);
    settleErased(f.node, *f.at, h, f.slot);
    return true;
  }
  // Makes the live node n a tombstone, its value moved to `out` (a movable value's node keeps
  // its key).
  void takeOut(Node& n, V& out) requires(!kInPlace) {
    n.live = false;
    --live_;
    ++dead_;
    out = std::move(n.value());
    n.value() = V{};
  }
  // Gives a node that is not live (fresh, or a tombstone whose value was just destroyed) its key.
  void keyIs(Node& n, const K& k) {
    if constexpr (kKeyed) {
      n.key = k;
    } else {
      ::new (static_cast<void*>(n.cell.raw)) K(k);
    }
  }

  // The node of k, made (and linked at the back, not yet live) when the index has none; true
  // when made.
  std::pair<Node*, bool> locate(const K& k);
  // Makes a located node live; true when it was not (fresh, or a tombstone back in its place).
  bool revive(Node& n, bool fresh) {
    if (n.live) return false;
    if (!fresh) --dead_;
    n.live = true;
    ++live_;
    return true;
  }

  // Nodes in the index (or on the order list while small): live ones and tombstones.
  std::uint32_t indexed() const { return live_ + dead_; }
  std::uint32_t slotCount() const { return spill_ ? spill_->slotCount : 0; }
  // The index grows by a half and by a third in turn (16, 24, 32, 48, ...), so once grown it is
  // at least half full: a power of two would leave a million members in 2^21 slots (48 % full).
  static std::size_t grown(std::size_t count) {
    return count == 0 ? 16 : (count & (count - 1)) == 0 ? count + count / 2 : count + count / 3;
  }
  // The home slot of hash h: its 32 bits scaled to the index's size.
  std::size_t home(std::uint32_t h) const {
    return static_cast<std::size_t>((std::uint64_t{h} * spill_->slotCount) >> 32);
  }
  std::size_t nextSlot(std::size_t p) const { return p + 1 == spill_->slotCount ? 0 : p + 1; }
  bool unindexed() const { return slotCount() == 0; }
  // The node of k (hash h), or kNil.
  std::uint32_t lookup(const K& k, std::uint32_t h) const { return probe(k, h).node; }
  // What one walk of k's run finds: k's node and its slot, or kNil and the slot an insertion of
  // k would take (the run's first mark, else its end). While unindexed, only the node counts.
  struct Probe {
    std::uint32_t node;
    std::size_t slot;
    Node* at;  // node's address (null: absent), so that no caller finds it again
  };
  static constexpr std::size_t kNoSlot = ~std::size_t{0};
  Probe probe(const K& k, std::uint32_t h) const;
  // Puts node i (hash h, a key the index does not hold) in the first empty or marked slot of
  // its run.
  void place(std::uint32_t h, std::uint32_t i);
  // Puts node i (hash h) in slot p, which a probe for its key just returned.
  void placeAt(std::size_t p, std::uint32_t h, std::uint32_t i);
  Spill& spill() {
    if (!spill_) spill_.reset(Spill::make(0, nullptr));
    return *spill_;
  }
  // Makes the index again with `cap` slots, dropping the marks.
  void rehash(std::size_t cap);
  // Removes node i's slot by marking it, so that no probe run breaks. Moving the rest of the run
  // back instead, or emptying the slot when the run ends there, costs reads past the slot and
  // unpredictable branches: a quarter of a withdraw-all's time per key. The marks go when the
  // index is made again (locate counts them) or let go.
  // `at` is where a probe found i (kNoSlot: unknown); checked, so a stale one costs a walk only.
  void unplace(std::uint32_t i, std::uint32_t h, std::size_t at = kNoSlot);

  // A node off the free list, else the next one never used (a new block made when there is
  // none), built then.
  std::pair<std::uint32_t, Node*> allocate();
  // The next node block (once per doubling), and reserve(n) when the index or the reservation is
  // short of n: out of line, so that allocate() and reserve() stay small where they are inlined.
  [[gnu::noinline]] void addBlock();
  [[gnu::noinline]] void reserveMore(std::size_t n);
  // The order list's `prev` links are circular, the first node's naming the last, so the map
  // keeps no tail of its own; `next` ends at kNil.
  void link(std::uint32_t i, Node& n);
  void unlink(std::uint32_t i, Node& n);
  // Drops a tombstone for good (no iterator may be alive): out of the order, the index, and back
  // to the free list.
  void forget(std::uint32_t i) {
    Node& n = node(i);
    forget(i, n, mix(keyOf(n)));
  }
  // As forget, with node i and its key's hash already at hand.
  void forget(std::uint32_t i, Node& n, std::uint32_t h, std::size_t at = kNoSlot);
  Node* firstLive(std::uint32_t i) const {
    while (i != kNil) {
      Node& n = node(i);
      if (n.live) return &n;
      i = n.next;
    }
    return nullptr;
  }
  // Tombstones at the front have no live member before them: forgetting them changes no walk
  // or resumption (a forgotten key resumes at the front, which is where its successor is), and
  // it keeps a collection drained from the front (a backlog) from piling them up.
  // When every member is a tombstone (a collection emptied while a walk was alive, as a
  // withdraw-all does), they all go at once with the storage, instead of one index removal each.
  void trimHead();
  // A collection with no live member gives its storage back and forgets its tombstones: a
  // backlog that held a million keys for one drain does not keep their nodes.
  void release();
  // After erasing node i (hash h): a tombstone at the front with no walk alive goes at once,
  // without hashing its key again (a drain or a withdraw-all erases from the front).
  void settleErased(std::uint32_t i, Node& n, std::uint32_t h, std::size_t at) {
    if (iterators_ == 0 && i == head_) {
      forget(i, n, h, at);
      --dead_;
    }
    settle();
  }
  // After an erase: tombstones at the front go at once, the others when they pile up. With no
  // tombstone and a live member, the front is live and nothing is to go: no walk to the front
  // (a drain erases a key at a time).
  void settle() {
    if (iterators_ == 0 && (dead_ != 0 || live_ == 0)) trimHead();
    maybePurge();
  }
  void maybePurge() {
    if (dead_ > 32 && dead_ > live_) purge();
  }
  void releaseIterator() const {
    if (--iterators_ != 0) return;
    auto* self = const_cast<HashMap*>(this);
    self->trimHead();
    self->maybePurge();
  }

  // Every route of the state database holds a map for its next hops: the first node inside,
  // the rest behind one pointer (Spill), and 32-bit counts (node indexes are 32-bit anyway). The
  // two small counts go in what the first node leaves of its last word (a route's next hop, a
  // 16-byte key and a bool, leaves seven bytes), so such a map is 56 bytes and a route 96.
  [[no_unique_address]] mutable Node first_;
  // 16 bits: a walk alive on one collection 65,535 times over is a fault.
  mutable std::uint16_t iterators_ = 0;
  std::uint8_t blocks_ = 0;  // blocks made, the first node's included
  // Null until a second node or the index is needed.
  std::unique_ptr<Spill, typename Spill::Deleter> spill_;
  std::uint32_t head_ = kNil;
  std::uint32_t free_ = kNil;
  std::uint32_t live_ = 0;
  std::uint32_t dead_ = 0;
};

}  // namespace Kel

// The index's lookups, insertions, removals and rebuilds.
#include "fwk/framework/HashMapIndex.h"
// The node blocks, the free list and the order list.
#include "fwk/framework/HashMapNodes.h"
