#include "fwk/daemon/gw.h"

#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/record_arena.h"
#include "fwk/daemon/rt_internal.h"

using namespace corvd_rt;

namespace {

// Gateway records: a freed gateway's record is given back at once (gw_free deletes its entries
// first, so none refers to it) and its address is never handed out again (record_arena.h), so a
// stale pointer is still caught. Shared by all instances.
RecordArena& gwRecords() {
  static RecordArena* arena = new RecordArena(sizeof(gw_entry), std::size_t{256} << 20);
  return *arena;
}

struct Gateways {
  std::unordered_set<gw_entry*> live;             // the instance's live gateways
  std::unordered_map<gw_entry*, gw_list*> lists;  // the list each gateway was pushed on
};
Gateways g;

// Retires a gateway whose entries are gone and gives its record back.
void retire(gw_entry* gw) {
  sock_release(gw->gw_addr);
  gw->gw_addr = nullptr;
  ptreeFree(gw);
  gw->gw_next = nullptr;
  gw->gw_magic = GW_DEAD;
  g.live.erase(gw);
  gwRecords().give(gw);  // last: its page may be returned
}

}  // namespace

const corvd_state_ops corvd_state_gw = corvd_state_ops_of<Gateways, g>();

namespace corvd_rt {

bool gwAlive(const gw_entry* gwp) {
  return gwp && gwRecords().state(gwp) == RecordArena::State::held && gwp->gw_magic == GW_LIVE;
}

// The queue's links are entries' 32-bit arena references (EntryRef), 0 for none.
void gwQueueAppend(rt_entry* rt) {
  gw_entry* gw = rt->rt_gwp;
  rt->rt_gw_prev = EntryRef::to(gw->gw_rt_last);
  rt->rt_gw_next_ref = 0;
  if (gw->gw_rt_last) {
    gw->gw_rt_last->rt_gw_next_ref = EntryRef::to(rt);
  } else {
    gw->gw_rt_first = rt;
  }
  gw->gw_rt_last = rt;
  ++gw->gw_n_routes;
}

void gwQueueRemove(rt_entry* rt) {
  gw_entry* gw = rt->rt_gwp;
  rt_entry* prev = EntryRef::from(rt->rt_gw_prev);
  rt_entry* next = gwNextOf(rt);
  if (prev) {
    prev->rt_gw_next_ref = rt->rt_gw_next_ref;
  } else {
    gw->gw_rt_first = next;
  }
  if (next) {
    next->rt_gw_prev = rt->rt_gw_prev;
  } else {
    gw->gw_rt_last = prev;
  }
  rt->rt_gw_next_ref = 0;
  rt->rt_gw_prev = 0;
  --gw->gw_n_routes;
}

void gwReset() {
  while (!g.live.empty()) {
    gw_entry* gw = *g.live.begin();
    while (gw->gw_rt_first) removeEntry(gw->gw_rt_first);
    retire(gw);
  }
  g = Gateways();
}

}  // namespace corvd_rt

gw_entry* gw_alloc() {
  auto* gw = static_cast<gw_entry*>(gwRecords().take());
  gw->gw_magic = GW_LIVE;
  g.live.insert(gw);
  return gw;
}

std::size_t gw_count() { return g.live.size(); }
std::size_t gw_record_pages() { return gwRecords().pagesHeld(); }

gw_entry* gw_init(gw_list* list, uint16_t proto, task* tp, uint32_t peer_as, uint32_t local_as,
                  sockaddr_un* addr, flag_t flags) {
  ++corvd_calls[CORVD_FN_gw_init];
  if (!sock_check_usable(addr, "gw_init")) return nullptr;
  gw_entry* gw = gw_alloc();
  gw->gw_proto = proto;
  gw->gw_task = tp;
  gw->gw_peer_as = peer_as;
  gw->gw_local_as = local_as;
  gw->gw_flags = flags;
  if (addr) {
    gw->gw_addr = sockdup(addr);
    sock_take_over(gw->gw_addr, "gw_init");
  }
  if (list) {
    gw->gw_next = *list;
    *list = gw;
    g.lists[gw] = list;
  }
  return gw;
}

void gw_free(gw_entry* gwp) {
  ++corvd_calls[CORVD_FN_gw_free];
  if (!gwAlive(gwp)) {
    corvd_misuse("gw_free", !gwp ? "null gateway"
                            : gwRecords().state(gwp) == RecordArena::State::foreign
                                ? "not a gateway of the daemon"
                                : "gateway freed twice");
    return;
  }
  while (gwp->gw_rt_first) removeEntry(gwp->gw_rt_first);
  auto it = g.lists.find(gwp);
  if (it != g.lists.end()) {
    gw_entry** p = it->second;
    while (*p && *p != gwp) p = &(*p)->gw_next;
    if (*p) *p = gwp->gw_next;
    g.lists.erase(it);
  }
  retire(gwp);
}
