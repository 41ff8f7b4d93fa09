// Kel::Pool<Size>: storage for objects of one size made by the million (a state database's
// routes), carved from 64 KB slabs. The heap would serve each from a block of its own with a
// header and rounding (a 96-byte route takes a 112-byte block); here a block is exactly Size
// bytes, rounded up to the type's alignment.
//
// A type takes its storage from the pool with KEL_POOLED(Type) in its class body (class-specific
// operator new and delete). A slab is found from a block's address (an index by the 64 KB window
// the slab starts in: slabs come from the heap as they are, with no alignment to pay for), keeps
// its own free list, and goes back to the heap as soon as its last block is freed,
// except one empty slab kept for the next block, so a table withdrawn gives its memory back and
// a collection that grows and shrinks by one does not make and free a slab each time. Blocks are
// taken from the slab with room that was made last, so a table built in one go fills slabs in
// order. Not thread-safe: the framework runs on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

namespace Kel {

// A pool's slabs by the 64 KB window each starts in (a window number, never 0 here, to an
// address, never null): open addressing with linear probing over a power of two of slots, at
// most half full, a multiply and a shift choosing the home slot (a standard unordered map divides
// by its bucket count for every block given back), removal by shifting the rest of the probe run
// back. A caller must not insert a window that is present nor erase one that is absent.
class SlabIndex {
 public:
  void* find(std::uintptr_t window) const;
  void insert(std::uintptr_t window, void* slab);
  void erase(std::uintptr_t window);
  std::size_t size() const { return count_; }

 private:
  struct Entry {
    std::uintptr_t window = 0;
    void* slab = nullptr;  // null: an empty slot
  };
  std::size_t home(std::uintptr_t window) const {
    return static_cast<std::size_t>((window * 0x9E3779B97F4A7C15ull) >> shift_);
  }
  std::size_t next(std::size_t i) const { return (i + 1) & (slots_.size() - 1); }
  std::vector<Entry> slots_;
  unsigned shift_ = 60;
  std::size_t count_ = 0;
};

class PoolBase {
 public:
  static constexpr std::size_t kSlabBytes = std::size_t{64} << 10;

  // Blocks of blockBytes (a multiple of align, which is at most 16).
  PoolBase(std::size_t blockBytes, std::size_t align);
  // Gives the spare slab back; every block must have been given back before.
  ~PoolBase();
  PoolBase(const PoolBase&) = delete;
  PoolBase& operator=(const PoolBase&) = delete;

  void* take();
  void give(void* block);

  // Blocks taken and not given back; slabs held (the spare empty one included).
  std::size_t liveBlocks() const { return live_; }
  std::size_t slabs() const { return slabs_; }

 private:
  struct Slab;
  Slab* makeSlab();
  void dropSlab(Slab* s);
  Slab* slabOf(const void* block) const;
  void unlist(Slab* s);
  void list(Slab* s);

  std::size_t blockBytes_;
  std::size_t firstBlock_;  // offset of a slab's first block, after its header
  std::size_t perSlab_;
  Slab* room_ = nullptr;   // slabs with a free block, the last made or refilled first
  Slab* spare_ = nullptr;  // an empty slab kept for the next block
  std::size_t live_ = 0;
  std::size_t slabs_ = 0;
  SlabIndex slabAt_;  // by the 64 KB window each starts in
};

// One pool per block size and alignment, for the whole process; never destroyed (objects may
// outlive static destruction).
template <std::size_t Size, std::size_t Align>
PoolBase& pool() {
  static auto* p = new PoolBase((Size + Align - 1) / Align * Align, Align);
  return *p;
}

}  // namespace Kel

// Class-specific allocation from the pool of the type's size. Objects of a derived type of
// another size must not be made (the operator new checks). Under AddressSanitizer the heap serves
// them as before, so that a use after free is still caught.
#if defined(__SANITIZE_ADDRESS__)
#define KEL_POOL_OFF_ 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEL_POOL_OFF_ 1
#endif
#endif
#if defined(KEL_POOL_OFF_)
#define KEL_POOLED(Type)
#else
#define KEL_POOLED(Type)                                      \
 public:                                                      \
  static void* operator new(std::size_t n) {                  \
    if (n != sizeof(Type)) throw std::bad_alloc();            \
    return ::Kel::pool<sizeof(Type), alignof(Type)>().take(); \
  }                                                           \
  static void operator delete(void* p) { ::Kel::pool<sizeof(Type), alignof(Type)>().give(p); }
#endif
