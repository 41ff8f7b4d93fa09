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

// An IPv4 prefix in one word: the masked address (network order) in bits 32..63, the length in
// bits 16..23 and the tag in bits 0..15. One word keeps an index slot at 16 bytes.
struct Key4 {
  uint64_t w;
  bool same(const Key4& o) const { return ((w ^ o.w) >> 16) == 0; }
  uint64_t hash() const { return prefixHashMix(w >> 16); }
  uint32_t addr() const { return static_cast<uint32_t>(w >> 32); }
  uint16_t tag() const { return static_cast<uint16_t>(w); }
  void setTag(uint16_t tag) { w = (w & ~uint64_t{0xFFFF}) | tag; }
};

// An IPv6 prefix: the masked address as two words (memory order), the length and the tag.
struct Key6 {
  uint64_t hi;
  uint64_t lo;
  uint16_t plen;
  uint16_t tagBits;
  bool same(const Key6& o) const { return hi == o.hi && lo == o.lo && plen == o.plen; }
  uint64_t hash() const { return prefixHashMix(hi ^ prefixHashMix(lo + plen)); }
  uint16_t tag() const { return tagBits; }
  void setTag(uint16_t tag) { tagBits = tag; }
};

inline Key4 key4(const sockaddr_un* d, int plen) {
  uint32_t m = sock_mask_by_len(SA_FAMILY_INET, plen)->a_in.sin_addr;
  return Key4{(static_cast<uint64_t>(d->a_in.sin_addr & m) << 32) |
              (static_cast<uint64_t>(plen) << 16)};
}

inline Key6 key6(const sockaddr_un* d, int plen) {
  uint8_t b[16];
  const sockaddr_un* m = sock_mask_by_len(SA_FAMILY_INET6, plen);
  for (int i = 0; i < 16; ++i) b[i] = d->a_in6.sin6_addr[i] & m->a_in6.sin6_addr[i];
  Key6 k{0, 0, static_cast<uint16_t>(plen), 0};
  std::memcpy(&k.hi, b, 8);
  std::memcpy(&k.lo, b + 8, 8);
  return k;
}
