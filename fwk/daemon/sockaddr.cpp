#include "fwk/daemon/sockaddr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "fwk/daemon/copy_store.h"
#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"

namespace {

// Shared masks live for the whole program; they are built once on first use.
struct MaskTables {
  sockaddr_un in[33];
  sockaddr_un in6[129];
  sockaddr_un zero;
  sockaddr_un* inList[33];
  sockaddr_un* in6List[129];
  sockaddr_un* zeroList[1];
  sock_info inInfo;
  sock_info in6Info;

  MaskTables() {
    std::memset(this, 0, sizeof *this);
    for (int len = 0; len <= 32; ++len) {
      sockaddr_un& m = in[len];
      m.sa_len = 4;
      m.sa_family = SA_FAMILY_INET;
      m.sa_plen = static_cast<uint8_t>(len);
      m.a_in.sin_addr = htonl(len == 0 ? 0u : ~0u << (32 - len));
      inList[len] = &m;
    }
    for (int len = 0; len <= 128; ++len) {
      sockaddr_un& m = in6[len];
      m.sa_len = 16;
      m.sa_family = SA_FAMILY_INET6;
      m.sa_plen = static_cast<uint8_t>(len);
      for (int b = 0; b < 16; ++b) {
        int bits = len - 8 * b;
        m.a_in6.sin6_addr[b] = bits >= 8   ? 0xFF
                               : bits <= 0 ? 0
                                           : static_cast<uint8_t>(0xFF << (8 - bits));
      }
      in6List[len] = &m;
    }
    zero.sa_plen = 0;
    zeroList[0] = &zero;
    inInfo = {SA_FAMILY_INET, 32, inList};
    in6Info = {SA_FAMILY_INET6, 128, in6List};
  }
};

MaskTables& masks() {
  static MaskTables tables;
  return tables;
}

// The rotating pool of temporaries. slotSeq[i] is the build number that last filled slot i.
struct Pool {
  sockaddr_un slot[SOCK_POOL_RING];
  uint64_t slotSeq[SOCK_POOL_RING];
  uint64_t builds = 0;
};
Pool pool;

// Every lasting copy. Copies belong to the instance that made them; the pool of temporaries
// above is the process's.
struct Copies {
  CopyStore all;
  friend void swap(Copies& a, Copies& b) noexcept { swap(a.all, b.all); }
};
Copies lasting;
CopyStore& copies() { return lasting.all; }

sockaddr_un* nextTemporary() {
  ++corvd_calls[CORVD_FN_sockbuild];
  uint64_t seq = ++pool.builds;
  if (seq > SOCK_POOL_LIVE) {  // the slot leaving the live window is poisoned
    sockaddr_un& old = pool.slot[(seq - SOCK_POOL_LIVE) % SOCK_POOL_RING];
    std::memset(&old, 0xEE, sizeof old);
  }
  std::size_t i = seq % SOCK_POOL_RING;
  pool.slotSeq[i] = seq;
  sockaddr_un* s = &pool.slot[i];
  std::memset(s, 0, sizeof *s);
  s->sa_plen = SA_PLEN_NONE;
  return s;
}

int lenOfBytes(const uint8_t* b, int n) {
  int len = 0;
  int i = 0;
  for (; i < n && b[i] == 0xFF; ++i) len += 8;
  if (i == n) return len;
  uint8_t last = b[i];
  while (last & 0x80) {
    ++len;
    last = static_cast<uint8_t>(last << 1);
  }
  if (last != 0) return -1;
  for (++i; i < n; ++i) {
    if (b[i] != 0) return -1;
  }
  return len;
}

const uint8_t* bytesOf(const sockaddr_un* addr, int* len);

}  // namespace

const corvd_state_ops corvd_state_sock = corvd_state_ops_of<Copies, lasting>();

sock_info* sockaddr_sock_info[SA_FAMILY_LIMIT] = {};
sock_info zero_info = {SA_FAMILY_UNSPEC, 0, nullptr};

namespace {
// Fills the global mask tables before main; masks() is also safe to call earlier.
struct MaskInit {
  MaskInit() {
    MaskTables& t = masks();
    sockaddr_sock_info[SA_FAMILY_INET] = &t.inInfo;
    sockaddr_sock_info[SA_FAMILY_INET6] = &t.in6Info;
    zero_info.si_mask_list = t.zeroList;
  }
} maskInit;
}  // namespace

sockaddr_un* sockbuild_in(uint16_t port, uint32_t addr_network_order) {
  sockaddr_un* s = nextTemporary();
  s->sa_len = 4;
  s->sa_family = SA_FAMILY_INET;
  s->a_in.sin_port = htons(port);
  s->a_in.sin_addr = addr_network_order;
  return s;
}

sockaddr_un* sockbuild_in6(uint16_t port, const uint8_t* bytes16) {
  sockaddr_un* s = nextTemporary();
  s->sa_len = 16;
  s->sa_family = SA_FAMILY_INET6;
  s->a_in6.sin6_port = htons(port);
  std::memcpy(s->a_in6.sin6_addr, bytes16, 16);
  return s;
}

sockaddr_un* sockbuild_ll(uint8_t type, const uint8_t* bytes, int len) {
  sockaddr_un* s = nextTemporary();
  if (len < 0 || len > SA_LL_MAXLEN) {
    corvd_misuse("sockbuild_ll", "link-layer address length " + std::to_string(len));
    len = len < 0 ? 0 : SA_LL_MAXLEN;
  }
  s->sa_family = SA_FAMILY_LINK;
  s->sa_len = static_cast<uint8_t>(len);
  s->a_ll.sll_type = type;
  s->a_ll.sll_alen = static_cast<uint8_t>(len);
  if (len > 0) std::memcpy(s->a_ll.sll_addr, bytes, static_cast<std::size_t>(len));
  return s;
}

bool sock_is_temporary(const sockaddr_un* addr) {
  auto p = reinterpret_cast<std::uintptr_t>(addr);
  auto b = reinterpret_cast<std::uintptr_t>(&pool.slot[0]);
  return p >= b && p < b + sizeof pool.slot;
}

bool sock_is_shared_mask(const sockaddr_un* addr) {
  MaskTables& t = masks();
  auto p = reinterpret_cast<std::uintptr_t>(addr);
  auto in = reinterpret_cast<std::uintptr_t>(&t.in[0]);
  auto in6 = reinterpret_cast<std::uintptr_t>(&t.in6[0]);
  return (p >= in && p < in + sizeof t.in) || (p >= in6 && p < in6 + sizeof t.in6) ||
         addr == &t.zero;
}

bool sock_check_usable(const sockaddr_un* addr, const char* fn) {
  if (!addr || !sock_is_temporary(addr)) return true;
  std::size_t i = static_cast<std::size_t>(addr - &pool.slot[0]);
  if (addr != &pool.slot[i] || pool.builds - pool.slotSeq[i] >= SOCK_POOL_LIVE ||
      pool.slotSeq[i] == 0) {
    corvd_misuse(fn, "socket address temporary used after it was recycled");
    return false;
  }
  return true;
}

sockaddr_un* sockdup(const sockaddr_un* addr) {
  ++corvd_calls[CORVD_FN_sockdup];
  if (!addr || !sock_check_usable(addr, "sockdup")) return nullptr;
  sockaddr_un* copy = copies().make(*addr);
  copy->sa_plen = SA_PLEN_NONE;
  return copy;
}

void sockfree(sockaddr_un* addr) {
  if (!addr) return;
  if (copies().stateOf(addr) != CopyStore::State::floating) {
    corvd_misuse("sockfree", "not a floating sockdup copy");
    return;
  }
  copies().release(addr);
}

bool sock_take_over(sockaddr_un* addr, const char* fn) {
  if (!addr || sock_is_shared_mask(addr)) return true;
  if (sock_is_temporary(addr)) {
    corvd_misuse(fn, "socket address temporary stored in a request (needs sockdup)");
    return false;
  }
  if (copies().stateOf(addr) != CopyStore::State::floating) {
    corvd_misuse(fn, "socket address handed over twice or not from sockdup");
    return false;
  }
  copies().take(addr);
  return true;
}

void sock_release(sockaddr_un* addr) {
  if (!addr || sock_is_shared_mask(addr)) return;
  copies().release(addr);
}

void sock_reset() {
  copies().clear();
  std::memset(pool.slot, 0xEE, sizeof pool.slot);
  std::memset(pool.slotSeq, 0, sizeof pool.slotSeq);
  pool.builds = 0;
}

std::size_t sock_live_copies() { return copies().size(); }

void sockmask(sockaddr_un* addr, const sockaddr_un* mask) {
  if (!addr || !mask || !sock_check_usable(addr, "sockmask") ||
      !sock_check_usable(mask, "sockmask")) {
    if (!addr || !mask) corvd_misuse("sockmask", "null socket address");
    return;
  }
  int n = 0;
  int m = 0;
  uint8_t* a = const_cast<uint8_t*>(bytesOf(addr, &n));
  const uint8_t* k = bytesOf(mask, &m);
  if (!a || !k || addr->sa_family != mask->sa_family || n != m) {
    corvd_misuse("sockmask", "mask of another family");
    return;
  }
  for (int i = 0; i < n; ++i) a[i] &= k[i];
}

namespace {

// The address bytes without a usability check: at most SA_LL_MAXLEN of a link-layer address,
// whatever its sll_alen says (a hand-built record may claim more than sll_addr holds).
const uint8_t* bytesOf(const sockaddr_un* addr, int* len) {
  if (!addr) return nullptr;
  switch (addr->sa_family) {
    case SA_FAMILY_INET:
      *len = 4;
      return reinterpret_cast<const uint8_t*>(&addr->a_in.sin_addr);
    case SA_FAMILY_INET6:
      *len = 16;
      return addr->a_in6.sin6_addr;
    case SA_FAMILY_LINK:
      *len = addr->a_ll.sll_alen < SA_LL_MAXLEN ? addr->a_ll.sll_alen : SA_LL_MAXLEN;
      return addr->a_ll.sll_addr;
    default:
      return nullptr;
  }
}

// sock_mask_len of a mask already checked.
int maskLen(const sockaddr_un* mask) {
  if (!mask) return -1;
  if (mask->sa_plen != SA_PLEN_NONE && sock_is_shared_mask(mask)) return mask->sa_plen;
  int n = 0;
  const uint8_t* b = bytesOf(mask, &n);
  if (!b || mask->sa_family == SA_FAMILY_LINK) return -1;
  return lenOfBytes(b, n);
}

}  // namespace

int sock_mask_len(const sockaddr_un* mask) {
  if (!sock_check_usable(mask, "sock_mask_len")) return -1;
  return maskLen(mask);
}

int mask_contig(const sockaddr_un* mask) {
  if (!sock_check_usable(mask, "mask_contig")) return 0;
  return maskLen(mask) >= 0 ? 1 : 0;
}

sockaddr_un* sock_mask_by_len(uint8_t family, int len) {
  sock_info* info = family < SA_FAMILY_LIMIT ? sockaddr_sock_info[family] : nullptr;
  if (!info) info = &zero_info;
  if (len < 0 || len > info->si_max_len || !info->si_mask_list) return nullptr;
  return info->si_mask_list[len];
}

sockaddr_un* inet_prefix_mask_locate_internal(const sockaddr_un* mask) {
  if (!sock_check_usable(mask, "inet_prefix_mask_locate_internal")) return nullptr;
  if (!mask || mask->sa_family != SA_FAMILY_INET) return nullptr;
  return sock_mask_by_len(SA_FAMILY_INET, maskLen(mask));
}

sockaddr_un* inet6_prefix_mask_locate_internal(const sockaddr_un* mask) {
  if (!sock_check_usable(mask, "inet6_prefix_mask_locate_internal")) return nullptr;
  if (!mask || mask->sa_family != SA_FAMILY_INET6) return nullptr;
  return sock_mask_by_len(SA_FAMILY_INET6, maskLen(mask));
}

const uint8_t* sockaddr_bytes(const sockaddr_un* addr, int* len) {
  if (!sock_check_usable(addr, "sockaddr_bytes")) return nullptr;
  return bytesOf(addr, len);
}

bool sockaddr_equal(const sockaddr_un* a, const sockaddr_un* b) {
  // A recycled temporary equals nothing (one misuse per call, even when both are).
  if (!sock_check_usable(a, "sockaddr_equal") || !sock_check_usable(b, "sockaddr_equal")) {
    return false;
  }
  if (!a || !b) return a == b;
  if (a->sa_family != b->sa_family) return false;
  if (a->sa_family == SA_FAMILY_LINK && a->a_ll.sll_alen != b->a_ll.sll_alen) return false;
  int n = 0;
  int m = 0;
  const uint8_t* x = bytesOf(a, &n);
  const uint8_t* y = bytesOf(b, &m);
  if (!x || !y) return !x && !y;
  return n == m && std::memcmp(x, y, static_cast<std::size_t>(n)) == 0;
}

void sockaddr_format(const sockaddr_un* addr, char* buf, std::size_t size) {
  if (size == 0) return;  // no room even for the NUL
  if (!sock_check_usable(addr, "sockaddr_format")) {
    buf[0] = 0;
    return;
  }
  if (!addr) {
    std::snprintf(buf, size, "-");
    return;
  }
  switch (addr->sa_family) {
    case SA_FAMILY_INET:
      if (!inet_ntop(AF_INET, &addr->a_in.sin_addr, buf, static_cast<socklen_t>(size))) buf[0] = 0;
      return;
    case SA_FAMILY_INET6:
      if (!inet_ntop(AF_INET6, addr->a_in6.sin6_addr, buf, static_cast<socklen_t>(size))) {
        buf[0] = 0;
      }
      return;
    case SA_FAMILY_LINK: {
      int len = 0;
      bytesOf(addr, &len);  // no more than sll_addr holds
      int n = std::snprintf(buf, size, "ll:%u", addr->a_ll.sll_type);
      for (int i = 0; i < len && n > 0 && static_cast<std::size_t>(n) < size; ++i) {
        n += std::snprintf(buf + n, size - static_cast<std::size_t>(n), "%c%02x", i ? ':' : '/',
                           addr->a_ll.sll_addr[i]);
      }
      return;
    }
    default:
      std::snprintf(buf, size, "family%u", addr->sa_family);
  }
}
