#include "fwk/daemon/rt_table.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "fwk/daemon/misuse.h"
#include "fwk/daemon/prefix_index.h"

rt_rib rib = {0};

// Entries using one interface address, with the gateway index each uses it at.
struct rt_ref_list {
  std::vector<std::pair<rt_entry*, uint32_t>> refs;
};

struct Key6 {
  uint64_t hi;
  uint64_t lo;
  uint32_t plen;
  bool operator==(const Key6&) const = default;
};
struct Key6Hash {
  std::size_t operator()(const Key6& k) const {
    uint64_t h = (k.hi * 0x9E3779B97F4A7C15ull) ^ (k.lo + k.plen * 0x632BE59BD9B4E019ull);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    return static_cast<std::size_t>(h ^ (h >> 32));
  }
};

struct ptree {
  std::unordered_map<Key6, rt_entry*, Key6Hash> byPrefix;
};

namespace {

constexpr uint32_t ENTRY_LIVE = 0x52544C56;
constexpr uint32_t ENTRY_DEAD = 0xDEADE17E;
constexpr uint32_t GW_LIVE = 0x47574C56;
constexpr uint32_t GW_DEAD = 0xDEAD6A7E;
constexpr std::size_t QUARANTINE = 4096;  // deleted entries kept poisoned before reuse

struct Table {
  PrefixIndex<rt_head> v4;
  std::unordered_map<Key6, rt_head*, Key6Hash> v6;
  std::deque<rt_entry> entries;  // stable storage; reused through `freeEntries`
  std::deque<rt_entry*> freeEntries;
  std::deque<rt_head> heads;
  std::vector<rt_head*> freeHeads;
  std::deque<gw_entry> gateways;  // never reused: a retired gateway stays poisoned
  std::unordered_map<gw_entry*, gw_list*> gwLists;
  std::unordered_map<gw_entry*, std::unique_ptr<ptree>> trees;
  std::size_t liveEntries = 0;
  uint64_t seq = 0;
  bool open = false;
  task* openTask = nullptr;
};
Table t;

// Prefix key of an IPv6 destination: address masked to plen.
Key6 key6(const sockaddr_un* d, int plen) {
  uint8_t b[16];
  const sockaddr_un* m = sock_mask_by_len(SA_FAMILY_INET6, plen);
  for (int i = 0; i < 16; ++i) b[i] = d->a_in6.sin6_addr[i] & m->a_in6.sin6_addr[i];
  Key6 k{0, 0, static_cast<uint32_t>(plen)};
  std::memcpy(&k.hi, b, 8);
  std::memcpy(&k.lo, b + 8, 8);
  return k;
}

uint64_t key4(const sockaddr_un* d, int plen) {
  uint32_t m = sock_mask_by_len(SA_FAMILY_INET, plen)->a_in.sin_addr;
  return (static_cast<uint64_t>(d->a_in.sin_addr & m) << 8) | static_cast<uint64_t>(plen);
}

// Prefix length of dest/mask, or -1 when they do not form an IPv4/IPv6 prefix.
int prefixLen(const sockaddr_un* dest, const sockaddr_un* mask) {
  if (!dest || !mask || dest->sa_family != mask->sa_family) return -1;
  if (dest->sa_family != SA_FAMILY_INET && dest->sa_family != SA_FAMILY_INET6) return -1;
  return sock_mask_len(mask);
}

rt_head* findHead(const sockaddr_un* dest, int plen) {
  if (dest->sa_family == SA_FAMILY_INET) return t.v4.find(key4(dest, plen));
  auto it = t.v6.find(key6(dest, plen));
  return it == t.v6.end() ? nullptr : it->second;
}

rt_head* makeHead(const sockaddr_un* dest, int plen) {
  rt_head* h;
  if (t.freeHeads.empty()) {
    h = &t.heads.emplace_back();
  } else {
    h = t.freeHeads.back();
    t.freeHeads.pop_back();
  }
  std::memset(h, 0, sizeof *h);
  h->rth_dest = *dest;
  h->rth_dest.sa_plen = SA_PLEN_NONE;
  h->rth_dest_mask = sock_mask_by_len(dest->sa_family, plen);
  sockmask(&h->rth_dest, h->rth_dest_mask);
  h->rth_plen = static_cast<uint8_t>(plen);
  if (dest->sa_family == SA_FAMILY_INET) {
    t.v4.insert(key4(dest, plen), h);
  } else {
    t.v6.emplace(key6(dest, plen), h);
  }
  return h;
}

void dropHead(rt_head* h) {
  if (h->rth_dest.sa_family == SA_FAMILY_INET) {
    t.v4.erase(key4(&h->rth_dest, h->rth_plen));
  } else {
    t.v6.erase(key6(&h->rth_dest, h->rth_plen));
  }
  h->rth_dest.sa_family = SA_FAMILY_POISON;
  t.freeHeads.push_back(h);
}

bool before(const rt_entry* a, const rt_entry* b) {
  bool an = a->rt_preference < 0;
  bool bn = b->rt_preference < 0;
  if (an != bn) return !an;
  if (!an && a->rt_preference != b->rt_preference) return a->rt_preference < b->rt_preference;
  return a->rt_seq < b->rt_seq;
}

void linkIntoHead(rt_entry* rt) {
  rt_head* h = rt->rt_head;
  rt_entry** p = &h->rth_routes;
  while (*p && before(*p, rt)) p = &(*p)->rt_next;
  rt->rt_next = *p;
  *p = rt;
  ++h->rth_n_entries;
}

void unlinkFromHead(rt_entry* rt) {
  rt_head* h = rt->rt_head;
  rt_entry** p = &h->rth_routes;
  while (*p != rt) p = &(*p)->rt_next;
  *p = rt->rt_next;
  rt->rt_next = nullptr;
  --h->rth_n_entries;
}

void selectActive(rt_head* h) {
  if (h->rth_active) h->rth_active->rt_state &= ~RTS_ACTIVE;
  rt_entry* first = h->rth_routes;
  h->rth_active = first && first->rt_preference >= 0 ? first : nullptr;
  if (h->rth_active) h->rth_active->rt_state |= RTS_ACTIVE;
}

void reorder(rt_entry* rt) {
  unlinkFromHead(rt);
  linkIntoHead(rt);
  selectActive(rt->rt_head);
}

bool allUp(const rt_entry* rt) {
  for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
    const if_addr* a = rt->rt_adj.adj_ifaps[j];
    if (a && !(a->ifa_info.ifi_state & IFS_UP)) return false;
  }
  return true;
}

// Set aside when an address is down; true when the preference changed.
bool setAsideIfDown(rt_entry* rt) {
  if (rt->rt_preference < 0 || allUp(rt)) return false;
  if (rt->rt_preference == 0) {
    rt->rt_preference = -1;
    rt->rt_state |= RTS_SETASIDE_ZERO;
  } else {
    rt->rt_preference = -rt->rt_preference;
  }
  rt->rt_state |= RTS_SETASIDE;
  return true;
}

bool restoreIfUp(rt_entry* rt) {
  if (!(rt->rt_state & RTS_SETASIDE) || rt->rt_preference >= 0 || !allUp(rt)) return false;
  rt->rt_preference = (rt->rt_state & RTS_SETASIDE_ZERO) ? 0 : -rt->rt_preference;
  rt->rt_state &= ~(RTS_SETASIDE | RTS_SETASIDE_ZERO);
  return true;
}

void refAdd(rt_entry* rt, int j) {
  if_addr* a = rt->rt_adj.adj_ifaps[j];
  if (!a) return;
  if (!a->ifa_routes) a->ifa_routes = new rt_ref_list;  // freed with its last reference
  rt->rt_adj.adj_pos[j] = static_cast<uint32_t>(a->ifa_routes->refs.size());
  a->ifa_routes->refs.emplace_back(rt, static_cast<uint32_t>(j));
}

void refDel(rt_entry* rt, int j) {
  if_addr* a = rt->rt_adj.adj_ifaps[j];
  if (!a) return;
  auto& refs = a->ifa_routes->refs;
  uint32_t pos = rt->rt_adj.adj_pos[j];
  refs[pos] = refs.back();
  refs[pos].first->rt_adj.adj_pos[refs[pos].second] = pos;
  refs.pop_back();
  if (refs.empty()) {
    delete a->ifa_routes;
    a->ifa_routes = nullptr;
  }
}

// Bytes of a separately stored adjacency of n gateways.
std::size_t adjBytes(int n) {
  return static_cast<std::size_t>(n) *
         (sizeof(sockaddr_un*) + sizeof(if_addr*) + sizeof(uint32_t) + sizeof(sockaddr_un));
}

void clearAdj(rt_entry* rt) {
  rt_adjacency& adj = rt->rt_adj;
  for (int j = 0; j < adj.adj_n_gw; ++j) refDel(rt, j);
  if (adj.adj_n_gw > 1) ::operator delete(adj.adj_routers);
  adj = rt_adjacency{0, nullptr, nullptr, nullptr};
}

void setAdj(rt_entry* rt, int n, sockaddr_un* const* routers, if_addr* const* ifaps) {
  clearAdj(rt);
  rt_adjacency& adj = rt->rt_adj;
  sockaddr_un* copies;
  if (n == 1) {
    adj.adj_routers = &rt->rt_inl_router;
    adj.adj_ifaps = &rt->rt_inl_ifap;
    adj.adj_pos = &rt->rt_inl_pos;
    copies = &rt->rt_inl_addr;
  } else if (n > 1) {
    // One block: copies first (most aligned), then the pointer arrays, then positions.
    auto* block = static_cast<unsigned char*>(::operator new(adjBytes(n)));
    copies = reinterpret_cast<sockaddr_un*>(block + static_cast<std::size_t>(n) *
                                                        (2 * sizeof(void*) + sizeof(uint32_t)));
    adj.adj_routers = reinterpret_cast<sockaddr_un**>(block);
    adj.adj_ifaps =
        reinterpret_cast<if_addr**>(block + static_cast<std::size_t>(n) * sizeof(void*));
    adj.adj_pos =
        reinterpret_cast<uint32_t*>(block + static_cast<std::size_t>(n) * 2 * sizeof(void*));
  }
  adj.adj_n_gw = n;
  for (int j = 0; j < n; ++j) {
    copies[j] = *routers[j];
    copies[j].sa_plen = SA_PLEN_NONE;
    adj.adj_routers[j] = &copies[j];
    adj.adj_ifaps[j] = ifaps ? ifaps[j] : nullptr;
    refAdd(rt, j);
  }
}

bool sameGateways(const rt_entry* rt, int n, sockaddr_un* const* routers) {
  if (rt->rt_adj.adj_n_gw != n) return false;
  for (int j = 0; j < n; ++j) {
    if (!sockaddr_equal(rt->rt_adj.adj_routers[j], routers[j])) return false;
  }
  return true;
}

bool duplicate(rt_head* h, const rt_entry* self, gw_entry* gwp, int n, sockaddr_un* const* r) {
  for (rt_entry* e = h ? h->rth_routes : nullptr; e; e = e->rt_next) {
    if (e != self && e->rt_gwp == gwp && sameGateways(e, n, r)) return true;
  }
  return false;
}

// Checks a gateway list; false (with a misuse) when it cannot be used.
bool gatewaysOk(int n, sockaddr_un* const* routers, if_addr* const* ifaps, const char* fn) {
  if (n < 0 || n > RT_N_MULTIPATH || (n > 0 && !routers)) {
    corvd_misuse(fn, "gateway count " + std::to_string(n) + " out of range");
    return false;
  }
  for (int j = 0; j < n; ++j) {
    if (!routers[j]) {
      corvd_misuse(fn, "null gateway address");
      return false;
    }
    if (!sock_check_usable(routers[j], fn)) return false;
    if (ifaps && ifaps[j] && !if_addr_alive(ifaps[j])) {
      corvd_misuse(fn, "interface address that is not in the table");
      return false;
    }
  }
  return true;
}

bool inBracket(const char* fn) {
  if (t.open) return true;
  corvd_misuse(fn, "route change outside an rt_open/rt_close bracket");
  return false;
}

bool entryAlive(const rt_entry* rt, const char* fn) {
  if (rt && rt->rt_magic == ENTRY_LIVE) return true;
  corvd_misuse(fn, rt ? "entry already deleted" : "null entry");
  return false;
}

bool gwAlive(const gw_entry* gwp) { return gwp && gwp->gw_magic == GW_LIVE; }

ptree* treeOf(gw_entry* gwp) {
  if (!gwp->gw_ptree) {
    auto& slot = t.trees[gwp];
    slot = std::make_unique<ptree>();
    gwp->gw_ptree = slot.get();
  }
  return gwp->gw_ptree;
}

void gwQueueAppend(rt_entry* rt) {
  gw_entry* g = rt->rt_gwp;
  rt->rt_gw_prev = g->gw_rt_last;
  rt->rt_gw_next = nullptr;
  (g->gw_rt_last ? g->gw_rt_last->rt_gw_next : g->gw_rt_first) = rt;
  g->gw_rt_last = rt;
  ++g->gw_n_routes;
}

void gwQueueRemove(rt_entry* rt) {
  gw_entry* g = rt->rt_gwp;
  (rt->rt_gw_prev ? rt->rt_gw_prev->rt_gw_next : g->gw_rt_first) = rt->rt_gw_next;
  (rt->rt_gw_next ? rt->rt_gw_next->rt_gw_prev : g->gw_rt_last) = rt->rt_gw_prev;
  rt->rt_gw_next = rt->rt_gw_prev = nullptr;
  --g->gw_n_routes;
}

void removeEntry(rt_entry* rt) {
  rt_head* h = rt->rt_head;
  unlinkFromHead(rt);
  selectActive(h);
  gwQueueRemove(rt);
  if (h->rth_dest.sa_family == SA_FAMILY_INET6 && rt->rt_gwp->gw_ptree) {
    ptree* tree = rt->rt_gwp->gw_ptree;
    auto it = tree->byPrefix.find(key6(&h->rth_dest, h->rth_plen));
    if (it != tree->byPrefix.end() && it->second == rt) {
      tree->byPrefix.erase(it);
      for (rt_entry* e = h->rth_routes; e; e = e->rt_next) {
        if (e->rt_gwp == rt->rt_gwp) {
          tree->byPrefix.emplace(key6(&h->rth_dest, h->rth_plen), e);
          break;
        }
      }
    }
  }
  clearAdj(rt);
  if (!h->rth_routes) dropHead(h);
  rt->rt_magic = ENTRY_DEAD;
  rt->rt_head = nullptr;
  rt->rt_gwp = nullptr;
  --t.liveEntries;
  t.freeEntries.push_back(rt);
}

rt_entry* newEntry() {
  if (t.freeEntries.size() > QUARANTINE) {
    rt_entry* rt = t.freeEntries.front();
    t.freeEntries.pop_front();
    return rt;
  }
  return &t.entries.emplace_back();
}

}  // namespace

void rt_open(task* tp) {
  ++corvd_calls[CORVD_FN_rt_open];
  if (t.open) {
    corvd_misuse("rt_open", "bracket opened while already open");
    return;
  }
  if (!task_known(tp)) {
    corvd_misuse("rt_open", "unknown task");
    return;
  }
  t.open = true;
  t.openTask = tp;
}

void rt_close(task* tp, int, int, int) {
  ++corvd_calls[CORVD_FN_rt_close];
  if (!t.open) {
    corvd_misuse("rt_close", "bracket closed while not open");
    return;
  }
  if (tp != t.openTask) corvd_misuse("rt_close", "bracket closed by another task");
  t.open = false;
  t.openTask = nullptr;
}

rt_entry* rt_add(rt_parms* rtp, if_addr** ifaps) {
  ++corvd_calls[CORVD_FN_rt_add];
  if (!inBracket("rt_add")) return nullptr;
  if (!rtp) {
    corvd_misuse("rt_add", "null parameters");
    return nullptr;
  }
  if (!sock_check_usable(rtp->rtp_dest, "rt_add") ||
      !sock_check_usable(rtp->rtp_dest_mask, "rt_add")) {
    return nullptr;
  }
  int plen = prefixLen(rtp->rtp_dest, rtp->rtp_dest_mask);
  if (plen < 0) {
    corvd_misuse("rt_add", "destination and mask do not form a prefix");
    return nullptr;
  }
  if (!gwAlive(rtp->rtp_gwp)) {
    corvd_misuse("rt_add", "gateway entry missing or freed");
    return nullptr;
  }
  if (!gatewaysOk(rtp->rtp_n_gw, rtp->rtp_routers, ifaps, "rt_add")) return nullptr;
  rt_head* h = findHead(rtp->rtp_dest, plen);
  if (duplicate(h, nullptr, rtp->rtp_gwp, rtp->rtp_n_gw, rtp->rtp_routers)) {
    corvd_misuse("rt_add", "prefix already has an entry of this gateway and gateway set");
    return nullptr;
  }
  if (corvd_take_rt_add_failure()) return nullptr;
  if (!h) h = makeHead(rtp->rtp_dest, plen);
  rt_entry* rt = newEntry();
  std::memset(rt, 0, sizeof *rt);
  rt->rt_head = h;
  rt->rt_gwp = rtp->rtp_gwp;
  rt->rt_state = rtp->rtp_state & ~(RTS_ACTIVE | RTS_SETASIDE | RTS_SETASIDE_ZERO);
  rt->rt_seq = ++t.seq;
  rt->rt_preference = rtp->rtp_preference;
  rt->rt_preference2 = rtp->rtp_preference2;
  rt->rt_metric = rtp->rtp_metric;
  rt->rt_tag = rtp->rtp_tag;
  rt->rt_magic = ENTRY_LIVE;
  setAdj(rt, rtp->rtp_n_gw, rtp->rtp_routers, ifaps);
  setAsideIfDown(rt);
  linkIntoHead(rt);
  selectActive(h);
  gwQueueAppend(rt);
  if (h->rth_dest.sa_family == SA_FAMILY_INET6) {
    treeOf(rt->rt_gwp)->byPrefix.emplace(key6(&h->rth_dest, plen), rt);
  }
  ++t.liveEntries;
  return rt;
}

rt_entry* rt_change_s(rt_entry* rt, rt_change_parms* rtcp) {
  ++corvd_calls[CORVD_FN_rt_change_s];
  if (!inBracket("rt_change_s") || !entryAlive(rt, "rt_change_s")) return nullptr;
  if (!rtcp) {
    corvd_misuse("rt_change_s", "null parameters");
    return nullptr;
  }
  if (!gatewaysOk(rtcp->rtcp_n_gw, rtcp->rtcp_gateway, rtcp->rtcp_ifaps, "rt_change_s")) {
    return nullptr;
  }
  if (duplicate(rt->rt_head, rt, rt->rt_gwp, rtcp->rtcp_n_gw, rtcp->rtcp_gateway)) {
    corvd_misuse("rt_change_s", "prefix already has an entry of this gateway and gateway set");
    return nullptr;
  }
  if (corvd_take_rt_change_failure()) return nullptr;
  // Copy the new gateways before the old adjacency (which they may point into) is released.
  std::vector<sockaddr_un> gw(static_cast<std::size_t>(rtcp->rtcp_n_gw));
  for (std::size_t j = 0; j < gw.size(); ++j) gw[j] = *rtcp->rtcp_gateway[j];
  std::vector<sockaddr_un*> gwp(gw.size());
  for (std::size_t j = 0; j < gw.size(); ++j) gwp[j] = &gw[j];
  std::vector<if_addr*> ifaps(gw.size(), nullptr);
  if (rtcp->rtcp_ifaps) std::copy_n(rtcp->rtcp_ifaps, gw.size(), ifaps.begin());
  rt->rt_preference = rtcp->rtcp_preference;
  rt->rt_state &= ~(RTS_SETASIDE | RTS_SETASIDE_ZERO);  // the caller's preference stands
  setAdj(rt, rtcp->rtcp_n_gw, gwp.data(), ifaps.data());
  setAsideIfDown(rt);
  reorder(rt);
  return rt;
}

void rt_delete(rt_entry* rt) {
  ++corvd_calls[CORVD_FN_rt_delete];
  if (!inBracket("rt_delete") || !entryAlive(rt, "rt_delete")) return;
  removeEntry(rt);
}

rt_head* rt_table_locate(const sockaddr_un* dest, const sockaddr_un* mask) {
  ++corvd_calls[CORVD_FN_rt_table_locate];
  if (!sock_check_usable(dest, "rt_table_locate") || !sock_check_usable(mask, "rt_table_locate")) {
    return nullptr;
  }
  int plen = prefixLen(dest, mask);
  return plen < 0 ? nullptr : findHead(dest, plen);
}

rt_entry* rt_locate(uint64_t, const sockaddr_un* dest, const sockaddr_un* mask,
                    const rt_bits* bits) {
  ++corvd_calls[CORVD_FN_rt_locate];
  if (!sock_check_usable(dest, "rt_locate") || !sock_check_usable(mask, "rt_locate")) {
    return nullptr;
  }
  int plen = prefixLen(dest, mask);
  rt_head* h = plen < 0 ? nullptr : findHead(dest, plen);
  if (!h || !bits) return nullptr;
  for (rt_entry* rt = h->rth_routes; rt; rt = rt->rt_next) {
    for (int i = 0; i < bits->rtb_n; ++i) {
      if (rt->rt_gwp->gw_proto == bits->rtb_proto[i]) return rt;
    }
  }
  return nullptr;
}

void rt_make_bits(rt_bits* bits, int n, ...) {
  std::memset(bits, 0, sizeof *bits);
  if (n < 0 || n > RT_BITS_MAX) {
    corvd_misuse("rt_make_bits", "protocol count " + std::to_string(n) + " out of range");
    return;
  }
  va_list ap;
  va_start(ap, n);
  for (int i = 0; i < n; ++i) bits->rtb_proto[i] = static_cast<uint16_t>(va_arg(ap, int));
  va_end(ap);
  bits->rtb_n = n;
}

gw_entry* gw_alloc() {
  gw_entry* g = &t.gateways.emplace_back();
  std::memset(g, 0, sizeof *g);
  g->gw_magic = GW_LIVE;
  return g;
}

gw_entry* gw_init(gw_list* list, uint16_t proto, task* tp, uint32_t peer_as, uint32_t local_as,
                  sockaddr_un* addr, flag_t flags) {
  ++corvd_calls[CORVD_FN_gw_init];
  if (!sock_check_usable(addr, "gw_init")) return nullptr;
  gw_entry* g = gw_alloc();
  g->gw_proto = proto;
  g->gw_task = tp;
  g->gw_peer_as = peer_as;
  g->gw_local_as = local_as;
  g->gw_flags = flags;
  if (addr) {
    g->gw_addr = sockdup(addr);
    sock_take_over(g->gw_addr, "gw_init");
  }
  if (list) {
    g->gw_next = *list;
    *list = g;
    t.gwLists[g] = list;
  }
  return g;
}

void gw_free(gw_entry* gwp) {
  ++corvd_calls[CORVD_FN_gw_free];
  if (!gwAlive(gwp)) {
    corvd_misuse("gw_free", gwp ? "gateway freed twice" : "null gateway");
    return;
  }
  while (gwp->gw_rt_first) removeEntry(gwp->gw_rt_first);
  auto it = t.gwLists.find(gwp);
  if (it != t.gwLists.end()) {
    gw_entry** p = it->second;
    while (*p && *p != gwp) p = &(*p)->gw_next;
    if (*p) *p = gwp->gw_next;
    t.gwLists.erase(it);
  }
  sock_release(gwp->gw_addr);
  gwp->gw_addr = nullptr;
  t.trees.erase(gwp);
  gwp->gw_ptree = nullptr;
  gwp->gw_next = nullptr;
  gwp->gw_magic = GW_DEAD;
}

int krt_addrcheck(const rt_parms* rtp) {
  if (!rtp || !sock_check_usable(rtp->rtp_dest, "krt_addrcheck")) return 0;
  int plen = prefixLen(rtp->rtp_dest, rtp->rtp_dest_mask);
  if (plen < 0) return 0;
  const sockaddr_un* d = rtp->rtp_dest;
  if (d->sa_family == SA_FAMILY_INET) {
    if (key4(d, plen) >> 8 != d->a_in.sin_addr) return 0;
    const auto* b = reinterpret_cast<const uint8_t*>(&d->a_in.sin_addr);
    return (b[0] >= 224 && b[0] <= 239) || b[0] == 127 ? 0 : 1;
  }
  Key6 k = key6(d, plen);
  uint8_t b[16];
  std::memcpy(b, &k.hi, 8);
  std::memcpy(b + 8, &k.lo, 8);
  if (std::memcmp(b, d->a_in6.sin6_addr, 16) != 0) return 0;
  static const uint8_t loop[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return b[0] == 0xFF || (plen == 128 && std::memcmp(b, loop, 16) == 0) ? 0 : 1;
}

rt_entry* ptree_find(ptree* tree, const sockaddr_un* dest, const sockaddr_un* mask) {
  int plen = prefixLen(dest, mask);
  if (!tree || plen < 0 || dest->sa_family != SA_FAMILY_INET6) return nullptr;
  auto it = tree->byPrefix.find(key6(dest, plen));
  return it == tree->byPrefix.end() ? nullptr : it->second;
}

int ptree_insert(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_insert")) return 0;
  if (rt->rt_head->rth_dest.sa_family != SA_FAMILY_INET6) return 0;
  return tree->byPrefix.emplace(key6(&rt->rt_head->rth_dest, rt->rt_head->rth_plen), rt).second;
}

int ptree_remove(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_remove")) return 0;
  auto it = tree->byPrefix.find(key6(&rt->rt_head->rth_dest, rt->rt_head->rth_plen));
  if (it == tree->byPrefix.end() || it->second != rt) return 0;
  tree->byPrefix.erase(it);
  return 1;
}

std::size_t rt_head_count() { return t.v4.size() + t.v6.size(); }
std::size_t rt_entry_count() { return t.liveEntries; }

bool rt_entry_alive(const rt_entry* rt) { return rt && rt->rt_magic == ENTRY_LIVE; }

void rt_head_walk(void (*fn)(rt_head*, void*), void* arg) {
  std::vector<rt_head*> all;
  for (rt_head& h : t.heads) {
    if (h.rth_routes) all.push_back(&h);
  }
  auto rank = [](const rt_head* h) {
    int n = 0;
    const uint8_t* b = sockaddr_bytes(&h->rth_dest, &n);
    std::array<uint8_t, 18> k{};
    k[0] = h->rth_dest.sa_family;
    std::memcpy(k.data() + 1, b, static_cast<std::size_t>(n));
    k[17] = h->rth_plen;
    return k;
  };
  std::sort(all.begin(), all.end(), [&](rt_head* a, rt_head* b) { return rank(a) < rank(b); });
  for (rt_head* h : all) fn(h, arg);
}

void rt_ifa_down(if_addr* ifap) {
  if (!ifap->ifa_routes) return;
  for (auto& [rt, j] : ifap->ifa_routes->refs) {
    if (setAsideIfDown(rt)) reorder(rt);
  }
}

void rt_ifa_restore(if_addr* ifap) {
  if (!ifap->ifa_routes) return;
  for (auto& [rt, j] : ifap->ifa_routes->refs) {
    if (restoreIfUp(rt)) reorder(rt);
  }
}

void rt_ifa_gone(if_addr* ifap) {
  while (ifap->ifa_routes) removeEntry(ifap->ifa_routes->refs.back().first);
}

void rt_table_reset() {
  for (gw_entry& g : t.gateways) {
    if (gwAlive(&g)) {
      while (g.gw_rt_first) removeEntry(g.gw_rt_first);
      sock_release(g.gw_addr);
    }
  }
  t = Table();
}
