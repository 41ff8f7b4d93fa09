#include "fwk/daemon/ptree.h"

#include <memory>
#include <unordered_map>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/prefix_key.h"
#include "fwk/daemon/rt_internal.h"

using namespace corvd_rt;

// A gateway's tree keeps no index of its own for the gateway's own entries: the entry it holds
// for a prefix carries RTS_PTREE, and the prefix's head (found through the routing table's index,
// or already in hand in rt_add and removeEntry) lists every entry of the prefix. Only entries of
// another gateway that a caller entered with ptree_insert are indexed here. A full table's IPv6
// routes so cost neither a second index slot nor a second random lookup each.
struct ptree {
  gw_entry* owner;  // the gateway whose tree this is
  // Held entries of other gateways (tags unused). Their keys are kept in the slots: an entry
  // entered here may be deleted while it is held.
  PrefixIndex<KeyedSlot<Key6, rt_entry, EntryRef>> entered;
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
    slot->owner = gwp;
    gwp->gw_ptree = slot.get();
  }
  return gwp->gw_ptree;
}

// The owner's entry of `h` that the tree holds, or null; `h` may be null.
rt_entry* heldOwn(const ptree* tree, const rt_head* h) {
  if (!h) return nullptr;
  for (rt_entry* e = h->rth_routes; e; e = nextOf(e)) {
    if ((e->rt_state & RTS_PTREE) && e->rt_gwp == tree->owner) return e;
  }
  return nullptr;
}

// The entry the tree holds for the IPv6 prefix `key`, whose head is `h` (null when the table has
// none; an entry of another gateway entered here may outlive its prefix).
rt_entry* held(ptree* tree, const Key6& key, const rt_head* h) {
  if (rt_entry* own = heldOwn(tree, h)) return own;
  auto* slot = tree->entered.find(key);
  return slot ? slot->value() : nullptr;
}

}  // namespace

const corvd_state_ops corvd_state_ptree = corvd_state_ops_of<Trees, allTrees>();

namespace corvd_rt {

void ptreeEntryAdded(rt_entry* rt) {
  const rt_head* h = rt->rt_head;
  if (!h->rth_inet6) return;
  ptree* tree = treeOf(rt->rt_gwp);
  if (!held(tree, headKey6(h), h)) rt->rt_state |= RTS_PTREE;
}

void ptreeEntryRemoved(rt_entry* rt, rt_head* h) {
  if (!(rt->rt_state & RTS_PTREE)) return;
  rt->rt_state &= ~RTS_PTREE;
  for (rt_entry* e = h->rth_routes; e; e = nextOf(e)) {
    if (e->rt_gwp == rt->rt_gwp) {
      e->rt_state |= RTS_PTREE;
      return;
    }
  }
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
  return held(tree, key6(dest, plen), findHead(dest, plen));
}

int ptree_insert(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_insert")) return 0;
  const rt_head* h = rt->rt_head;
  if (!h->rth_inet6) return 0;
  const Key6 key = headKey6(h);
  if (held(tree, key, h)) return 0;
  if (rt->rt_gwp == tree->owner) {
    rt->rt_state |= RTS_PTREE;
  } else {
    tree->entered.insert(key, rt);
  }
  return 1;
}

int ptree_remove(ptree* tree, rt_entry* rt) {
  if (!tree || !entryAlive(rt, "ptree_remove") || !rt->rt_head->rth_inet6) return 0;
  const rt_head* h = rt->rt_head;
  const Key6 key = headKey6(h);
  if (held(tree, key, h) != rt) return 0;
  if (rt->rt_gwp == tree->owner) {
    rt->rt_state &= ~RTS_PTREE;
  } else {
    tree->entered.erase(key);
  }
  return 1;
}
