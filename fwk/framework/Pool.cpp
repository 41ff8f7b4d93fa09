#include "fwk/framework/Pool.h"

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
  slabAt_.emplace(reinterpret_cast<std::uintptr_t>(raw) / kSlabBytes, s);
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
  auto it = slabAt_.find(at / kSlabBytes);
  if (it == slabAt_.end() || reinterpret_cast<std::uintptr_t>(it->second) > at) {
    it = slabAt_.find(at / kSlabBytes - 1);
  }
  return it->second;
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
