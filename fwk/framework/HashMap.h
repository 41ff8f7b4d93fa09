// Kel::HashMap: the framework's keyed collection.
// O(1) average insert, erase and lookup (a hash index over nodes that never move), iteration in
// a stable order (the order in which keys were first inserted), and resumable walks:
// - an Iterator may stand on a member that is erased meanwhile; advancing it goes on with the
//   member after it, so a walk that deletes as it goes is never invalidated;
// - resumeAt(key) starts a walk at key, or, when key has been erased, at the member that followed
//   it; a key the collection has never held (or has forgotten, see below) starts at the front.
// Erased members stay in the order as tombstones; those at the front are dropped as soon as no
// iterator is alive, the others once no iterator is alive and they outnumber the live ones (then
// in one pass; amortised O(1) per erase). A key inserted again
// while its tombstone is kept takes its old place in the order.
// Values are returned by pointer; a pointer is valid until its member is erased.
#pragma once

#include <cstddef>
#include <functional>
#include <unordered_map>
#include <utility>

namespace Kel {

template <class K, class V, class H = std::hash<K>>
class HashMap {
  struct Node {
    V value{};
    Node* prev = nullptr;
    Node* next = nullptr;
    const K* key = nullptr;
    bool live = false;
  };

 public:
  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;

  std::size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }

  const V* find(const K& k) const {
    auto it = index_.find(k);
    return it != index_.end() && it->second.live ? &it->second.value : nullptr;
  }
  V* find(const K& k) {
    auto it = index_.find(k);
    return it != index_.end() && it->second.live ? &it->second.value : nullptr;
  }
  bool contains(const K& k) const { return find(k) != nullptr; }

  // Inserts or assigns; returns the stored value and whether the key is new.
  std::pair<V*, bool> insert(const K& k, V v) {
    auto [it, fresh] = index_.try_emplace(k);
    Node& n = it->second;
    if (fresh) {
      n.key = &it->first;
      link(&n);
    }
    n.value = std::move(v);
    if (n.live) return {&n.value, false};
    if (!fresh) --dead_;
    n.live = true;
    ++live_;
    return {&n.value, true};
  }

  // Returns false when k is absent.
  bool erase(const K& k) {
    auto it = index_.find(k);
    if (it == index_.end() || !it->second.live) return false;
    it->second.live = false;
    [[maybe_unused]] V old = std::move(it->second.value);  // released once the map is consistent
    it->second.value = V{};
    --live_;
    ++dead_;
    if (iterators_ == 0) trimHead();
    maybePurge();
    return true;
  }

  void clear() {
    for (Node* n = head_; n; n = n->next) {
      if (!n->live) continue;
      n->live = false;
      n->value = V{};
      --live_;
      ++dead_;
    }
    maybePurge();
  }

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
    const K& key() const { return *node_->key; }
    V& value() const { return node_->value; }
    Iterator& operator++() {
      node_ = HashMap::firstLive(node_ ? node_->next : nullptr);
      return *this;
    }
    // Moves off a member that was erased since the iterator stood on it.
    void skipErased() {
      if (node_ && !node_->live) node_ = HashMap::firstLive(node_);
    }

    // Range-for support.
    std::pair<const K&, V&> operator*() const { return {*node_->key, node_->value}; }
    bool operator!=(const Iterator& o) const { return node_ != o.node_; }

   private:
    friend class HashMap;
    Iterator(const HashMap* m, Node* n) : map_(m), node_(n) {
      if (map_) ++map_->iterators_;
    }
    const HashMap* map_ = nullptr;
    Node* node_ = nullptr;
  };

  Iterator begin() const { return Iterator(this, firstLive(head_)); }
  Iterator end() const { return Iterator(); }
  Iterator resumeAt(const K& k) const {
    auto it = index_.find(k);
    if (it == index_.end()) return begin();
    return Iterator(this, firstLive(const_cast<Node*>(&it->second)));
  }

  void purge() {
    if (iterators_ != 0) return;
    for (Node* n = head_; n;) {
      Node* next = n->next;
      if (!n->live) forget(n);
      n = next;
    }
    dead_ = 0;
  }

  std::size_t tombstones() const { return dead_; }

 private:
  static Node* firstLive(Node* n) {
    while (n && !n->live) n = n->next;
    return n;
  }
  void link(Node* n) {
    n->prev = tail_;
    if (tail_) {
      tail_->next = n;
    } else {
      head_ = n;
    }
    tail_ = n;
  }
  void unlink(Node* n) {
    (n->prev ? n->prev->next : head_) = n->next;
    (n->next ? n->next->prev : tail_) = n->prev;
  }
  // Drops a tombstone for good (no iterator may be alive).
  void forget(Node* n) {
    unlink(n);
    index_.erase(index_.find(*n->key));
  }
  // Tombstones at the front have no live member before them: forgetting them changes no walk
  // or resumption (a forgotten key resumes at the front, which is where its successor is), and
  // it keeps a collection drained from the front (a backlog) from piling them up.
  void trimHead() {
    while (head_ && !head_->live) {
      forget(head_);
      --dead_;
    }
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

  std::unordered_map<K, Node, H> index_;
  Node* head_ = nullptr;
  Node* tail_ = nullptr;
  std::size_t live_ = 0;
  std::size_t dead_ = 0;
  mutable std::size_t iterators_ = 0;
};

}  // namespace Kel
