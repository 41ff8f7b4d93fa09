#include "fwk/daemon/ptree.h"

#include <memory>
#include <unordered_map>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/prefix_key.h"
#include "fwk/daemon/rt_internal.h"

using namespace corvd_rt;

struct ptree {
  PrefixIndex<Key6, rt_entry, EntryRef> byPrefix;  // tags unused
};

namespace {

// The trees of all gateways; a gateway's gw_ptree points into its tree here.
struct Trees {
  std::unordered_map<gw_entry*, std::unique_ptr<ptree>> all;
};
Trees allTrees;
std::unordered_map<gw_entry*, std::unique_ptr<ptree>>& trees() { return allTrees.all; }

ptree* treeOf(gw_entry* gwp) {
  if (!gwp->gw_ptree) {
    auto& slot = trees()[gwp];
    slot = std::make_unique<ptree>();
    gwp->gw_ptree = slot.get();
  }
  return gwp->gw_ptree;
}

}  // namespace

const corvd_state_ops corvd_state_ptree = corvd_state_ops_of<Trees, allTrees>();

namespace corvd_rt {

void ptreeEntryAdded(rt_entry* rt) {
  const rt_head* h = rt->rt_head;
  if (!h->rth_inet6) return;
  ptree_insert(treeOf(rt->rt_gwp), rt);
}

void ptreeEntryRemoved(rt_entry* rt, rt_head* h) {
  ptree* tree = rt->rt_gwp->gw_ptree;
  if (!h->rth_inet6 || !tree) return;
  auto* slot = tree->byPrefix.find(headKey6(h));
  if (!slot || slot->value() != rt) return;
  for (rt_entry* e = h->rth_routes; e; e = nextOf(e)) {
    if (e->rt_gwp == rt->rt_gwp) {
      slot->valueIs(e);
      return;
    }
  }
  tree->byPrefix.erase(headKey6(h));
}

void ptreeFree(gw_entry* gwp) {
  trees().erase(gwp);
  gwp->gw_ptree = nullptr;
}

void ptreeReset() { trees().clear(); }

}  // namespace corvd_rt

rt_entry* ptree_find(ptree* tree, const sockaddr_un* dest, const sockaddr_un* mask) {
  int plen = prefixLen(dest, mask);
  if (!tree || plen < 0 || dest->sa_family != SA_FAMILY_INET6) return nullptr;
  auto* slot = tree->byPrefix.find(key6(dest, plen));
  return slot ? slot->value() : nullptr;
}

int ptree_insert(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_insert")) return 0;
  if (!rt->rt_head->rth_inet6) return 0;
  Key6 key = headKey6(rt->rt_head);
  if (tree->byPrefix.find(key)) return 0;
  tree->byPrefix.insert(key, rt);
  return 1;
}

int ptree_remove(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_remove") || !rt->rt_head->rth_inet6) return 0;
  Key6 key = headKey6(rt->rt_head);
  auto* slot = tree->byPrefix.find(key);
  if (!slot || slot->value() != rt) return 0;
  tree->byPrefix.erase(key);
  return 1;
}
