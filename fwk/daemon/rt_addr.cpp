// Gateway addresses of the routing table's entries, kept once per distinct address: every entry
// through the same next hop points at the same daemon copy, which lives while an entry uses it.
// A full table has a million entries and a few hundred next hops, so an entry holds a pointer
// instead of a 28-byte copy. Copies are never changed in place, and two addresses share one only
// when all their bytes agree, so a reader sees exactly what a private copy would show.
#include <cstring>

#include "fwk/daemon/flat_map.h"
#include "fwk/daemon/prefix_index.h"
#include "fwk/daemon/rt_internal.h"

namespace {

// An address's bytes as four words (the last four bytes zero), compared and hashed word by word.
struct Bytes {
  uint64_t w[4];
  explicit Bytes(const sockaddr_un& a) : w{0, 0, 0, 0} { std::memcpy(w, &a, sizeof a); }
  Bytes() : w{0, 0, 0, 0} {}
  bool operator==(const Bytes& o) const {
    return ((w[0] ^ o.w[0]) | (w[1] ^ o.w[1]) | (w[2] ^ o.w[2]) | (w[3] ^ o.w[3])) == 0;
  }
};
static_assert(sizeof(sockaddr_un) <= sizeof(Bytes));

// Independent products folded once: an address is hashed on every rt_add.
struct BytesHash {
  std::size_t operator()(const Bytes& b) const {
    return static_cast<std::size_t>(prefixHashMix((b.w[0] * 0x9E3779B97F4A7C15ull) ^
                                                  (b.w[1] * 0xC2B2AE3D27D4EB4Full) ^
                                                  (b.w[2] * 0x165667B19E3779F9ull) ^ b.w[3]));
  }
};

struct Shared {
  sockaddr_un addr;  // first: a caller's pointer to the copy is a pointer to its record
  uint32_t refs;
  sockaddr_un* self;  // &addr: the adj_routers of a one-gateway entry through it
};

// Of the whole process, like the entry records that point into it. It keeps its storage once
// made: as many slots as the most distinct next hops ever in use.
FlatMap<Bytes, Shared*, BytesHash>& shares() {
  static auto* map = new FlatMap<Bytes, Shared*, BytesHash>();
  return *map;
}

}  // namespace

namespace corvd_rt {

sockaddr_un* addrShare(const sockaddr_un& addr) {
  sockaddr_un copy = addr;
  copy.sa_plen = SA_PLEN_NONE;
  Shared*& s = shares()[Bytes(copy)];
  if (!s) {
    s = new Shared{copy, 0, nullptr};
    s->self = &s->addr;
  }
  ++s->refs;
  return &s->addr;
}

sockaddr_un** addrSlot(sockaddr_un* addr) { return &reinterpret_cast<Shared*>(addr)->self; }

void addrUnshare(sockaddr_un* addr) {
  auto* s = reinterpret_cast<Shared*>(addr);
  if (--s->refs != 0) return;
  shares().erase(Bytes(s->addr));
  delete s;
}

}  // namespace corvd_rt

std::size_t rt_gateway_addr_count() { return shares().size(); }
