// Gateway sets (rt_adjacency) of the routing table's entries, and the other side of them: each
// interface address's list of the entries that use it, which lets a change of the address set
// aside, restore or delete exactly those entries.
//
// An entry at gateway j is on the list of adj_ifaps[j] at position positions(adj)[j]; removal
// swaps the list's last reference into the hole and fixes that entry's position, so both
// directions cost O(1) for an entry of one gateway (the moved entry's gateways are searched). A
// one-gateway set takes no memory of its own: its address arrays are one-element slots of the
// shared gateway address and of the interface address (rt_table.h), its position is adj_pos1. A
// larger set is a single block: the addresses, the interface addresses, the positions. The gateway
// addresses themselves are shared copies (rt_addr.cpp).
#include <new>
#include <string>
#include <vector>

#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_internal.h"

// Entries using one interface address, once per gateway of theirs that uses it. Which gateway
// a reference stands for is not stored: it is the one of that entry using the address at that
// position (adj_ifaps[j] and positions(adj)[j]), a search of one gateway for almost every entry.
// An entry is held by its 32-bit reference in the entry arena (EntryRef).
struct rt_ref_list {
  std::vector<uint32_t> refs;
};

using namespace corvd_rt;

namespace {

std::size_t liveLists = 0;  // of the process, for rt_ref_list_count

// The adj_ifaps of a one-gateway set served by no interface address.
if_addr* noIfap = nullptr;

// The one-element adj_ifaps of a one-gateway set served by `a` (null: by none).
if_addr** ifapSlot(if_addr* a) { return a ? &a->ifa_self : &noIfap; }

uint32_t* positions(rt_adjacency& adj) {
  return adj.adj_n_gw == 1 ? &adj.adj_pos1
                           : reinterpret_cast<uint32_t*>(adj.adj_ifaps + adj.adj_n_gw);
}

void freeList(if_addr* a) {
  delete a->ifa_routes;
  a->ifa_routes = nullptr;
  --liveLists;
}

void refAdd(rt_entry* rt, int j) {
  if_addr* a = rt->rt_adj.adj_ifaps[j];
  if (!a) return;
  if (!a->ifa_routes) {
    a->ifa_routes = new rt_ref_list;  // freed with its last reference, or with the address
    ++liveLists;
  }
  positions(rt->rt_adj)[j] = static_cast<uint32_t>(a->ifa_routes->refs.size());
  a->ifa_routes->refs.push_back(EntryRef::to(rt));
}

constexpr uint32_t kOffList = UINT32_MAX;  // position of a gateway taken off its list

// The gateway of `rt` that is on the list of `a` at `pos`.
int refGateway(rt_entry* rt, const if_addr* a, uint32_t pos) {
  rt_adjacency& adj = rt->rt_adj;
  const uint32_t* at = positions(adj);
  int j = 0;
  while (adj.adj_ifaps[j] != a || at[j] != pos) ++j;
  return j;
}

void refDel(rt_entry* rt, int j) {
  if_addr* a = rt->rt_adj.adj_ifaps[j];
  if (!a) return;
  auto& refs = a->ifa_routes->refs;
  uint32_t* at = positions(rt->rt_adj);
  const uint32_t pos = at[j];
  const auto last = static_cast<uint32_t>(refs.size() - 1);
  rt_entry* moved = EntryRef::from(refs[last]);
  positions(moved->rt_adj)[refGateway(moved, a, last)] = pos;
  refs[pos] = refs[last];
  refs.pop_back();
  at[j] = kOffList;  // so that refGateway cannot take it for a later one
  if (refs.empty()) {
    freeList(a);
    return;
  }
  // The next removal from this list moves its new last entry, whose gateway set it then reads:
  // in a withdrawal of many routes that entry was added long ago and is out of the cache, so its
  // lines are asked for now, a few removals ahead of their use.
  const rt_adjacency* next = &EntryRef::from(refs.back())->rt_adj;
  prefetchLine(next);
  prefetchLine(&next->adj_ifaps);
}

// Bytes of a separately stored adjacency of n gateways.
std::size_t adjBytes(int n) {
  return static_cast<std::size_t>(n) * (sizeof(sockaddr_un*) + sizeof(if_addr*) + sizeof(uint32_t));
}

bool sameGateways(const rt_entry* rt, int n, sockaddr_un* const* routers) {
  if (rt->rt_adj.adj_n_gw != n) return false;
  for (int j = 0; j < n; ++j) {
    if (!sockaddr_equal(rt->rt_adj.adj_routers[j], routers[j])) return false;
  }
  return true;
}

bool allUp(const rt_entry* rt) {
  for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
    const if_addr* a = rt->rt_adj.adj_ifaps[j];
    if (a && !(a->ifa_info.ifi_state & IFS_UP)) return false;
  }
  return true;
}

bool restoreIfUp(rt_entry* rt) {
  if (!(rt->rt_state & RTS_SETASIDE) || rt->rt_preference >= 0 || !allUp(rt)) return false;
  rt->rt_preference = (rt->rt_state & RTS_SETASIDE_ZERO) ? 0 : -rt->rt_preference;
  rt->rt_state &= ~(RTS_SETASIDE | RTS_SETASIDE_ZERO);
  return true;
}

}  // namespace

namespace corvd_rt {

void clearAdj(rt_entry* rt) {
  rt_adjacency& adj = rt->rt_adj;
  for (int j = 0; j < adj.adj_n_gw; ++j) {
    refDel(rt, j);
    addrUnshare(adj.adj_routers[j]);
  }
  if (adj.adj_n_gw > 1) ::operator delete(adj.adj_routers);
  adj = rt_adjacency{0, 0, nullptr, nullptr};
}

void setAdj(rt_entry* rt, int n, sockaddr_un* const* routers, if_addr* const* ifaps) {
  // The new set is read before the old one is let go: `routers` and `ifaps` may point into it.
  sockaddr_un* shared[RT_N_MULTIPATH];
  if_addr* users[RT_N_MULTIPATH];
  for (int j = 0; j < n; ++j) {
    shared[j] = addrShare(*routers[j]);
    users[j] = ifaps ? ifaps[j] : nullptr;
  }
  clearAdj(rt);
  rt_adjacency& adj = rt->rt_adj;
  adj.adj_n_gw = n;
  if (n == 1) {
    adj.adj_routers = addrSlot(shared[0]);
    adj.adj_ifaps = ifapSlot(users[0]);
  } else if (n > 1) {
    // One block: the pointer arrays first (most aligned), then the positions.
    auto* block = static_cast<unsigned char*>(::operator new(adjBytes(n)));
    adj.adj_routers = reinterpret_cast<sockaddr_un**>(block);
    adj.adj_ifaps =
        reinterpret_cast<if_addr**>(block + static_cast<std::size_t>(n) * sizeof(void*));
    for (int j = 0; j < n; ++j) {
      adj.adj_routers[j] = shared[j];
      adj.adj_ifaps[j] = users[j];
    }
  }
  for (int j = 0; j < n; ++j) refAdd(rt, j);
}

bool duplicate(rt_head* h, const rt_entry* self, gw_entry* gwp, int n, sockaddr_un* const* r) {
  for (rt_entry* e = h ? h->rth_routes : nullptr; e; e = nextOf(e)) {
    if (e != self && e->rt_gwp == gwp && sameGateways(e, n, r)) return true;
  }
  return false;
}

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

}  // namespace corvd_rt

void rt_ifa_down(if_addr* ifap) {
  if (!ifap->ifa_routes) return;
  for (uint32_t ref : ifap->ifa_routes->refs) {
    rt_entry* rt = EntryRef::from(ref);
    if (setAsideIfDown(rt)) reorder(rt);
  }
}

void rt_ifa_restore(if_addr* ifap) {
  if (!ifap->ifa_routes) return;
  for (uint32_t ref : ifap->ifa_routes->refs) {
    rt_entry* rt = EntryRef::from(ref);
    if (restoreIfUp(rt)) reorder(rt);
  }
}

void rt_ifa_gone(if_addr* ifap) {
  while (ifap->ifa_routes) removeEntry(EntryRef::from(ifap->ifa_routes->refs.back()));
}

void rt_ifa_forget(if_addr* ifap) {
  if (!ifap->ifa_routes) return;
  // Entry records are never unmapped (record_arena.h), so this is safe at exit as well.
  for (uint32_t ref : ifap->ifa_routes->refs) {
    rt_adjacency& adj = EntryRef::from(ref)->rt_adj;
    if (adj.adj_n_gw == 1) {  // its array is the address's own slot, which goes with it
      adj.adj_ifaps = ifapSlot(nullptr);
      continue;
    }
    for (int j = 0; j < adj.adj_n_gw; ++j) {
      if (adj.adj_ifaps[j] == ifap) adj.adj_ifaps[j] = nullptr;
    }
  }
  freeList(ifap);
}

std::size_t rt_ref_list_count() { return liveLists; }
