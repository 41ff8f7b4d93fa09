// Gateway addresses of the routing table's entries, kept once per distinct address: every entry
// through the same next hop points at the same daemon copy, which lives while an entry uses it.
// A full table has a million entries and a few hundred next hops, so an entry holds a pointer
// instead of a 28-byte copy. Copies are never changed in place, and two addresses share one only
// when all their bytes agree, so a reader sees exactly what a private copy would show.
#include <array>
#include <cstring>

#include "fwk/daemon/flat_map.h"
#include "fwk/daemon/prefix_index.h"
#include "fwk/daemon/rt_internal.h"

namespace {

using Bytes = std::array<unsigned char, sizeof(sockaddr_un)>;

struct Shared {
  sockaddr_un addr;  // first: a caller's pointer to the copy is a pointer to its record
  uint32_t refs;
};

struct BytesHash {
  std::size_t operator()(const Bytes& b) const {
    uint64_t h = 0;
    for (std::size_t i = 0; i < b.size(); i += 4) {
      uint32_t w = 0;
      std::memcpy(&w, b.data() + i, 4);
      h = prefixHashMix(h ^ w);
    }
    return static_cast<std::size_t>(h);
  }
};

// Of the whole process, like the entry records that point into it. It keeps its storage once
// made (as many slots as the most distinct next hops ever in use): giving a few hundred bytes
// back when the last route went would move where the next table's first allocation lands.
FlatMap<Bytes, Shared*, BytesHash>& shares() {
  static auto* map = new FlatMap<Bytes, Shared*, BytesHash>();
  return *map;
}

Bytes bytesOf(const sockaddr_un& a) {
  Bytes b;
  std::memcpy(b.data(), &a, sizeof a);
  return b;
}

}  // namespace

namespace corvd_rt {

sockaddr_un* addrShare(const sockaddr_un& addr) {
  sockaddr_un copy = addr;
  copy.sa_plen = SA_PLEN_NONE;
  Shared*& s = shares()[bytesOf(copy)];
  if (!s) s = new Shared{copy, 0};
  ++s->refs;
  return &s->addr;
}

void addrUnshare(sockaddr_un* addr) {
  auto* s = reinterpret_cast<Shared*>(addr);
  if (--s->refs != 0) return;
  shares().erase(bytesOf(s->addr));
  delete s;
}

}  // namespace corvd_rt

std::size_t rt_gateway_addr_count() { return shares().size(); }
