#include "fwk/framework/Pool.h"

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace Kel {

// A slab's header, at its start; its blocks follow. A slab is on the list of slabs with room
// exactly while it has a free block (the spare, empty, is kept apart).
struct PoolBase::Slab {
  Slab* prev = nullptr;  // on the list of slabs with room
  Slab* next = nullptr;
  void* free = nullptr;      // given-back blocks, each holding the next
  std::uint32_t carved = 0;  // blocks handed out from the untouched part so far
  std::uint32_t live = 0;
};

PoolBase::PoolBase(std::size_t blockBytes, std::size_t align) : blockBytes_(blockBytes) {
  if (blockBytes_ < sizeof(void*) || blockBytes_ > kSlabBytes / 4 || align > 16 ||
      blockBytes_ % align != 0) {
    std::fprintf(stderr, "Kel::Pool: block of %zu bytes not pooled\n", blockBytes_);
    std::abort();
  }
  firstBlock_ = (sizeof(Slab) + align - 1) / align * align;
  perSlab_ = (kSlabBytes - firstBlock_) / blockBytes_;
}

PoolBase::~PoolBase() {
  if (spare_) dropSlab(spare_);
}

// A slab's place in the map is the 64 KB window its first byte falls in: no two slabs start in
// the same window, and a block lies in the window its slab starts in or in the next one.
PoolBase::Slab* PoolBase::makeSlab() {
  void* raw = ::operator new(kSlabBytes);
  auto* s = new (raw) Slab();
  slabAt_.insert(reinterpret_cast<std::uintptr_t>(raw) / kSlabBytes, s);
  ++slabs_;
  return s;
}

void PoolBase::dropSlab(Slab* s) {
  slabAt_.erase(reinterpret_cast<std::uintptr_t>(s) / kSlabBytes);
  s->~Slab();
  ::operator delete(static_cast<void*>(s));
  --slabs_;
}

PoolBase::Slab* PoolBase::slabOf(const void* block) const {
  const auto at = reinterpret_cast<std::uintptr_t>(block);
  void* s = slabAt_.find(at / kSlabBytes);
  if (!s || reinterpret_cast<std::uintptr_t>(s) > at) s = slabAt_.find(at / kSlabBytes - 1);
  return static_cast<Slab*>(s);
}

void* SlabIndex::find(std::uintptr_t window) const {
  if (slots_.empty()) return nullptr;
  for (std::size_t i = home(window);; i = next(i)) {
    const Entry& e = slots_[i];
    if (!e.slab || e.window == window) return e.slab;
  }
}

void SlabIndex::insert(std::uintptr_t window, void* slab) {
  if ((count_ + 1) * 2 > slots_.size()) {
    std::vector<Entry> old(slots_.empty() ? 16 : slots_.size() * 2);
    old.swap(slots_);
    shift_ = 64 - static_cast<unsigned>(std::countr_zero(slots_.size()));
    count_ = 0;
    for (const Entry& e : old) {
      if (e.slab) insert(e.window, e.slab);
    }
  }
  std::size_t i = home(window);
  while (slots_[i].slab) i = next(i);
  slots_[i] = Entry{window, slab};
  ++count_;
}

void SlabIndex::erase(std::uintptr_t window) {
  std::size_t i = home(window);
  while (slots_[i].window != window || !slots_[i].slab) i = next(i);
  // Backward shift: a later member of the run moves into the hole unless its home lies in the
  // stretch (hole, member], where the hole would cut it off from its home.
  for (std::size_t j = next(i);; j = next(j)) {
    const Entry& e = slots_[j];
    if (!e.slab) break;
    const std::size_t h = home(e.window);
    const bool between = i <= j ? (h > i && h <= j) : (h > i || h <= j);
    if (between) continue;
    slots_[i] = e;
    i = j;
  }
  slots_[i] = Entry{};
  --count_;
}

void PoolBase::list(Slab* s) {
  s->prev = nullptr;
  s->next = room_;
  if (room_) room_->prev = s;
  room_ = s;
}

void PoolBase::unlist(Slab* s) {
  (s->prev ? s->prev->next : room_) = s->next;
  if (s->next) s->next->prev = s->prev;
  s->prev = s->next = nullptr;
}

void* PoolBase::take() {
  if (!room_) {
    Slab* s = spare_ ? spare_ : makeSlab();
    spare_ = nullptr;
    list(s);
  }
  Slab* s = room_;
  void* block;
  if (s->free) {
    block = s->free;
    s->free = *static_cast<void**>(block);
  } else {
    auto* first = reinterpret_cast<unsigned char*>(s) + firstBlock_;
    block = first + s->carved * blockBytes_;
    ++s->carved;
  }
  ++s->live;
  ++live_;
  if (!s->free && s->carved == perSlab_) unlist(s);
  return block;
}

void PoolBase::give(void* block) {
  if (!block) return;
  Slab* s = slabOf(block);
  const bool wasFull = !s->free && s->carved == perSlab_;
  *static_cast<void**>(block) = s->free;
  s->free = block;
  --s->live;
  --live_;
  if (s->live != 0) {
    if (wasFull) list(s);
    return;
  }
  // Empty: it had room (a slab holds at least four blocks), so it is listed. It is kept as the
  // spare, or goes back to the heap.
  unlist(s);
  if (!spare_) {
    *s = Slab();
    spare_ = s;
    return;
  }
  dropSlab(s);
}

}  // namespace Kel
