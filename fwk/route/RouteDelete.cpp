// Deleting a route: remove this protocol's daemon entries of the key's prefix. A vanished route
// loses all of them; a route still present (withdrawal of a whole input) keeps the entries whose
// first gateway matches one of its vias, by next-hop address or by interface.
//
// Trace levels: "RouteKey <key>" at level 8 with the entry trace; outcomes at level 0.
#include <cstring>

#include "fwk/DaemonAddr.h"
#include "fwk/ModuleSupport.h"
#include "fwk/route/RouteBacklogSm.h"

namespace InterfaceRouteInfo {

template <class Traits>
void RouteBacklogSmT<Traits>::doDeleteRoute(const Key& key) {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::doDeleteRoute(", Traits::keyParam, ")");
  IRI_TRACE_BEGIN();
  IRI_TRACE(8, "RouteKey " << key);
  sockaddr_un dest = *daemonSock(key.prefix().address());
  sockaddr_un* mask = sock_mask_by_len(Traits::family, key.prefix().length());
  const auto route = routeInput()->route(key);
  rt_head* rth = rt_table_locate(&dest, mask);
  if (!rth) {
    IRI_TRACE(0, "Prefix: " << key << "No routes to delete");
    IRI_TRACE_END();
    return;
  }
  const auto proto = routeInput()->routingProto();
  rt_entry* next = nullptr;
  for (rt_entry* rt = rth->rth_routes; rt; rt = next) {
    // Taken first: rt_delete unlinks rt (and drops the head with the last).
    next = rt_entry_next(rt);
    if (rt->rt_gwp->gw_proto != proto) continue;
    if (route) {
      const rt_adjacency& adj = rt->rt_adj;
      bool skipRoute = false;
      for (auto [via, present] : route->viaCollection()) {
        if (adj.adj_n_gw == 0) break;  // no first gateway to compare with
        sockaddr_un hop = *daemonSock(via.hop);
        if (sockaddr_equal(&hop, adj.adj_routers[0])) {
          skipRoute = true;
          break;
        }
        const if_addr* ifap = adj.adj_ifaps[0];
        if (!ifap || !ifap->ifa_info.ifi_link) continue;
        const auto status = intfStatusManager()->intfStatusByDeviceName(
            Kel::String8(ifap->ifa_info.ifi_link->ifl_name));
        if (!via.intfId.empty() && status && status->intfId() == via.intfId) {
          skipRoute = true;
          break;
        }
      }
      if (skipRoute || (route->viaCount() == 0 && adj.adj_n_gw == 0)) continue;
    }
    rt_delete(rt);
    IRI_TRACE(0, "Successfully deleted route from corvd for dest" << key.prefix());
  }
  IRI_TRACE_END();
}

template void RouteBacklogSmT<Ip4RouteTraits>::doDeleteRoute(const Key&);
template void RouteBacklogSmT<Ip6RouteTraits>::doDeleteRoute(const Key&);

}  // namespace InterfaceRouteInfo
