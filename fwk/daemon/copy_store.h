// The daemon's lasting socket-address copies (sockdup), kept in blocks of slots: making, finding
// and releasing a copy costs neither a hash nor an allocation of its own, and whether a pointer
// is a live copy is told by the block it falls in (a search among a few hundred blocks at most).
// A released slot goes to the back of the free queue, so the memory of a copy just released is
// the last to be handed out again: a stale pointer to it keeps reading as "not a live copy" for
// as long as possible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "fwk/daemon/sockaddr.h"

class CopyStore {
 public:
  enum class State : uint8_t { none, floating, taken };

  // A new floating copy of `value`.
  sockaddr_un* make(const sockaddr_un& value) {
    if (free_.empty()) grow();
    Slot* s = free_.front();
    free_.pop_front();
    s->addr = value;
    s->state = State::floating;
    ++live_;
    return &s->addr;
  }
  // The state of `p`: none for anything that is not a live copy.
  State stateOf(const sockaddr_un* p) const {
    const Slot* s = slotOf(p);
    return s ? s->state : State::none;
  }
  // Marks a live copy taken over by the daemon.
  void take(const sockaddr_un* p) {
    if (Slot* s = slotOf(p); s && s->state != State::none) s->state = State::taken;
  }
  // Frees a live copy; anything else is ignored.
  void release(const sockaddr_un* p) {
    Slot* s = slotOf(p);
    if (!s || s->state == State::none) return;
    s->state = State::none;
    free_.push_back(s);
    --live_;
  }
  void clear() { *this = CopyStore(); }
  std::size_t size() const { return live_; }

  friend void swap(CopyStore& a, CopyStore& b) noexcept {
    using std::swap;
    swap(a.blocks_, b.blocks_);
    swap(a.byStart_, b.byStart_);
    swap(a.free_, b.free_);
    swap(a.live_, b.live_);
  }

 private:
  struct Slot {
    sockaddr_un addr;  // first: a copy's address is its slot's
    State state = State::none;
  };
  static constexpr std::size_t kBlock = 1024;

  void grow() {
    blocks_.push_back(std::make_unique<Slot[]>(kBlock));
    Slot* b = blocks_.back().get();
    byStart_.emplace(reinterpret_cast<std::uintptr_t>(b), b);
    for (std::size_t i = 0; i < kBlock; ++i) free_.push_back(b + i);
  }
  Slot* slotOf(const sockaddr_un* p) const {
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    auto it = byStart_.upper_bound(at);
    if (it == byStart_.begin()) return nullptr;
    --it;
    const std::uintptr_t off = at - it->first;
    if (off >= kBlock * sizeof(Slot) || off % sizeof(Slot) != 0) return nullptr;
    return it->second + off / sizeof(Slot);
  }

  std::vector<std::unique_ptr<Slot[]>> blocks_;
  std::map<std::uintptr_t, Slot*> byStart_;
  std::deque<Slot*> free_;
  std::size_t live_ = 0;
};
