// Exact-match keys of the routing table's prefixes (for PrefixIndex): the destination masked to
// the prefix length, and the length. Two destinations with the same bits under the mask give
// the same key. Each key also carries a 16-bit tag that takes no part in same() or hash(): the
// routing table keeps there the protocol of the prefix's first entry.
//
// key4 and key6 read the address of their own family only; a caller must pass a destination of
// that family and a length the family's mask table holds (0..32 / 0..128).
#pragma once

#include <cstdint>
#include <cstring>

#include "fwk/daemon/prefix_index.h"
#include "fwk/daemon/sockaddr.h"

// Keys are made of 32-bit words, so that a slot with a 32-bit record reference packs: 12 bytes
// for IPv4, 24 for IPv6.

// An IPv4 prefix: the masked address (network order), then the length in bits 16..23 of the
// second word and the tag in its bits 0..15.
struct Key4 {
  uint32_t a;
  uint32_t lenTag;
  bool same(const Key4& o) const { return a == o.a && (lenTag >> 16) == (o.lenTag >> 16); }
  uint64_t hash() const { return prefixHashMix((uint64_t{a} << 16) | (lenTag >> 16)); }
  uint32_t addr() const { return a; }
  uint16_t tag() const { return static_cast<uint16_t>(lenTag); }
  void setTag(uint16_t tag) { lenTag = (lenTag & ~uint32_t{0xFFFF}) | tag; }
};
static_assert(sizeof(Key4) == 8 && alignof(Key4) == 4);

// An IPv6 prefix: the masked address (memory order), the length and the tag.
struct Key6 {
  uint32_t w[4];
  uint16_t plen;
  uint16_t tagBits;
  // The address's halves as words (as a copy of their bytes reads them).
  uint64_t hi() const {
    uint64_t h;
    std::memcpy(&h, w, 8);
    return h;
  }
  uint64_t lo() const {
    uint64_t l;
    std::memcpy(&l, w + 2, 8);
    return l;
  }
  bool same(const Key6& o) const {
    return ((w[0] ^ o.w[0]) | (w[1] ^ o.w[1]) | (w[2] ^ o.w[2]) | (w[3] ^ o.w[3])) == 0 &&
           plen == o.plen;
  }
  // The halves folded into one word (one-to-one in each), its high half moved down, then spread
  // by the high and low halves of one 128-bit product: a third of the instructions of two rounds
  // of prefixHashMix.
  uint64_t hash() const {
    uint64_t x = hi() * 0x9E3779B97F4A7C15ull ^ (lo() + plen);
    x ^= x >> 32;
    const unsigned __int128 p = static_cast<unsigned __int128>(x) * 0xBF58476D1CE4E5B9ull;
    return static_cast<uint64_t>(p) ^ static_cast<uint64_t>(p >> 64);
  }
  uint16_t tag() const { return tagBits; }
  void setTag(uint16_t tag) { tagBits = tag; }
};
static_assert(sizeof(Key6) == 20 && alignof(Key6) == 4);

inline Key4 key4(const sockaddr_un* d, int plen) {
  uint32_t m = sock_mask_by_len(SA_FAMILY_INET, plen)->a_in.sin_addr;
  return Key4{d->a_in.sin_addr & m, static_cast<uint32_t>(plen) << 16};
}

inline Key6 key6(const sockaddr_un* d, int plen) {
  // Two words at a time: the mask and the address are both in memory order.
  const sockaddr_un* m = sock_mask_by_len(SA_FAMILY_INET6, plen);
  uint64_t a[2];
  uint64_t mask[2];
  std::memcpy(a, d->a_in6.sin6_addr, 16);
  std::memcpy(mask, m->a_in6.sin6_addr, 16);
  a[0] &= mask[0];
  a[1] &= mask[1];
  Key6 k{{0, 0, 0, 0}, static_cast<uint16_t>(plen), 0};
  std::memcpy(k.w, a, 16);
  return k;
}
