// The daemon's address-change callback (Root::handleIfaChange), hooked on fwk_task at start-up.
//
// The daemon reports an interface address that was added, removed, went up or down, or changed
// its subnet. The change is classified by its ifa_change code and the address's up bit:
//   0 or 2 (added) ............ up: interfaceUp;   down: nothing interesting
//   4 (a down address removed)  nothing interesting
//   0x104 (an up one removed) . interfaceDown
//   0x200 (subnet changed) .... subnetChanged
//   other codes with 0x100 .... up: interfaceUp;   down: interfaceDown
//   anything else ............. nothing interesting
// For a classified change, inside one rt_open/rt_close bracket, every route reactor of the served
// VRF (IPv4; IPv6 only in "default") revisits the routes of its own daemon gateway that use the
// address: down re-enters them (doAddRoute(key, false)) so they resolve anew; up gives routes the
// daemon set aside their preference back through rt_change_s; a subnet change re-enters only
// routes whose next hop is now served by another address. Then every key of the reactor's
// unresolved backlog is queued again, whatever the change: a new or returning address may
// resolve it. Routes of other gateways are never touched.
#include <vector>

#include "fwk/DaemonAddr.h"
#include "fwk/ModuleSupport.h"
#include "fwk/Root.h"

namespace InterfaceRouteInfo {

namespace {

enum class IfaChange { nothing, up, down, subnet };

IfaChange classify(int change, bool up) {
  switch (change) {
    case 0:
    case IFC_ADD:
      return up ? IfaChange::up : IfaChange::nothing;
    case IFC_DELETE:
      return IfaChange::nothing;
    case IFC_DELETE | IFC_UPDOWN:
      return IfaChange::down;
    case IFC_NETMASK:
      return IfaChange::subnet;
    default:
      if (change & IFC_UPDOWN) return up ? IfaChange::up : IfaChange::down;
      return IfaChange::nothing;
  }
}

// The key of a daemon route: its destination and prefix length. A destination with bits beyond
// that length raises the key's range error.
template <class Key>
Key keyOf(const rt_head* head) {
  const sockaddr_un dest = rt_head_dest(head);
  return Key(modelAddr<typename Key::Addr>(&dest), head->rth_plen);
}

// A route of the gateway that uses the changed address, as found before anything changes: the
// walk re-enters routes, which changes the gateway's queue under it.
struct Affected {
  rt_entry* rt;
  int gateway;  // the adjacency position served by the changed address
};

// Gives a set-aside route its preference back with its gateways kept. The daemon negates a
// preference to set a route aside and marks a 0 that became -1, so the reversal is exact.
// The daemon's route-change routine needs no bookkeeping of ours here: a set-aside entry stays on
// its gateway's route queue and in that gateway's IPv6 prefix tree, and rt_change_s re-sorts it
// among its prefix's entries itself, so no route moves between gateways (no gw_alloc, gw_free or
// ptree_insert/ptree_remove on the module's side).
void reactivate(rt_entry* rt) {
  rt_change_parms rtcp{};
  rtcp.rtcp_preference = (rt->rt_state & RTS_SETASIDE_ZERO) ? 0 : -rt->rt_preference;
  rtcp.rtcp_n_gw = rt->rt_adj.adj_n_gw;
  rtcp.rtcp_gateway = rt->rt_adj.adj_routers;
  rtcp.rtcp_ifaps = rt->rt_adj.adj_ifaps;
  rt_change_s(rt, &rtcp);
}

// Revisits one route reactor's routes over `ifap`, then requeues its unresolved keys. Returns
// the number of routes handled.
template <class InputSm>
int revisit(InputSm& sm, if_addr* ifap, IfaChange change) {
  using Key = typename InputSm::Key;
  auto backlogSm = sm.routeBacklogSm();
  auto unresolved = sm.unresolvedRouteBacklog();
  if (!backlogSm || !unresolved) return 0;  // waiting for its protocol number: owns nothing yet
  int handled = 0;
  std::vector<Affected> affected;
  if (gw_entry* gw = sm.gwp()) {
    for (rt_entry* rt = gw->gw_rt_first; rt; rt = rt_entry_gw_next(rt)) {
      for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
        if (rt->rt_adj.adj_ifaps[j] == ifap) {
          affected.push_back({rt, j});
          break;
        }
      }
    }
  }
  for (const Affected& a : affected) {
    // Re-entering one route never deletes another entry of the gateway, but stay safe.
    if (!rt_entry_alive(a.rt)) continue;
    const Key key = keyOf<Key>(a.rt->rt_head);
    if (change == IfaChange::down) {
      backlogSm->doAddRoute(key, false);
    } else if (change == IfaChange::up) {
      if (a.rt->rt_preference < 0) reactivate(a.rt);
    } else if (if_withdstaddr(a.rt->rt_adj.adj_routers[a.gateway]) != ifap) {
      backlogSm->doAddRoute(key, false);
    }
    ++handled;
  }
  std::vector<Key> keys;
  keys.reserve(unresolved->backlogCount());
  for (auto [key, present] : unresolved->backlogCollection()) keys.push_back(key);
  for (const Key& key : keys) {
    unresolved->backlogDel(key);
    backlogSm->doAddBacklog(key);
  }
  return handled;
}

template <class ConfigSm>
int revisitAll(ConfigSm& configSm, if_addr* ifap, IfaChange change) {
  int handled = 0;
  auto dirSm = configSm.routeInputDirSm();
  for (auto [name, sm] : dirSm->routeInputSmCollection()) handled += revisit(*sm, ifap, change);
  return handled;
}

}  // namespace

void Root::handleIfaChange(_task* tp, _if_addr* ifap) {
  const IfaChange change = classify(ifap->ifa_change, ifap->ifa_info.ifi_state & IFS_UP);
  if (change == IfaChange::nothing) {
    IRI_TRACE_STATIC(8, "fwk_ifachange: Nothing interesting");
    return;
  }
  const Kel::Ptr<Root>& root = theRoot();
  rt_open(tp);
  int handled = 0;
  if (root && root->routingConfigSm() && root->routingConfigSm()->routeInputDirSm()) {
    IRI_TRACE_STATIC(8, "Handle ifa_change for ipv4  bash added routes");
    handled += revisitAll(*root->routingConfigSm(), ifap, change);
  }
  if (root && root->vrfName() == Ip::VrfName("default") && root->routing6ConfigSm() &&
      root->routing6ConfigSm()->routeInputDirSm()) {
    IRI_TRACE_STATIC(8, "Handle ifa_change for ipv6  bash added routes");
    handled += revisitAll(*root->routing6ConfigSm(), ifap, change);
  }
  rt_close(tp, 0, handled, 0);
  IRI_TRACE_STATIC(8, IRI_FUNCTION_NAME_() << "END");
}

}  // namespace InterfaceRouteInfo
