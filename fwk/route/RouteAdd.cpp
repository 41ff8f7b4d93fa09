// Adding a route: validate the key, resolve every via to a daemon interface address, then change
// the daemon's entry of this protocol in place or add it afresh.
//
// Trace levels: "RouteKey <key>" goes with the entry trace at level 8; every outcome message
// (refusals, unresolved next hops, the daemon's answer) at level 0.
// Socket addresses built here are copied into local storage at once: the daemon's temporaries
// are recycled after a few builds, and a route may have many vias.
#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>

#include "fwk/DaemonAddr.h"
#include "fwk/ModuleSupport.h"
#include "fwk/route/RouteBacklogSm.h"

namespace InterfaceRouteInfo {

namespace {
// Or-ed into the state of a route that has a next-hop address (a gatewayed route).
constexpr uint64_t kGatewayedState = 0x2010;
// Bits 21 and 22 of the state's low word are cleared before the rib's flags are or-ed in.
constexpr uint64_t kStateKeepMask = 0xff9fffff;

// The blocks rt_add takes, about 2 KB, are zero except for what one call fills in: the header
// and the first few gateway places. Instead of clearing them for every route, one pair is kept
// zero between calls. A call writes a gateway place (of rtp_routers and ifaps) with anything but
// null only together with rtp_n_gw covering it, so on any way out the header and the places
// below rtp_n_gw are all there is to zero again. doAddRoute is never re-entered (the daemon calls
// nothing back); debug builds check the pair is zero when lent.
struct AddBlocks {
  rt_parms parms{};
  if_addr* ifaps[RT_N_MULTIPATH]{};
};

class ZeroedAddBlocks {
 public:
  ZeroedAddBlocks() : blocks_(kept()) { assert(isZero()); }
  ~ZeroedAddBlocks() {
    const int written = blocks_.parms.rtp_n_gw;
    std::fill_n(blocks_.parms.rtp_routers, written, nullptr);
    std::fill_n(blocks_.ifaps, written, nullptr);
    std::memset(&blocks_.parms, 0, offsetof(rt_parms, rtp_routers));
  }
  ZeroedAddBlocks(const ZeroedAddBlocks&) = delete;
  ZeroedAddBlocks& operator=(const ZeroedAddBlocks&) = delete;

  rt_parms& parms() { return blocks_.parms; }
  if_addr** ifaps() { return blocks_.ifaps; }

 private:
  static AddBlocks& kept() {
    static AddBlocks blocks;
    return blocks;
  }
  bool isZero() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&blocks_);
    return std::all_of(bytes, bytes + sizeof(AddBlocks), [](unsigned char b) { return b == 0; });
  }

  AddBlocks& blocks_;
};
}  // namespace

template <class Traits>
void RouteBacklogSmT<Traits>::doAddRoute(const Key& key, bool retry) {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::doAddRoute(", Traits::keyParam, ", bool)");
  IRI_TRACE_BEGIN();
  // The steps, each of whose returns still passes through the END trace below.
  [&]() {
    IRI_TRACE(8, "RouteKey " << key);
    ZeroedAddBlocks blocks;
    if_addr** ifaps = blocks.ifaps();
    const int plen = key.prefix().length();
    if (plen == 0) {
      IRI_TRACE(0, "Subnet length cannot be zero");
      return;
    }
    const auto route = routeInput()->route(key);
    if (!route) {
      IRI_TRACE(0, Traits::noRouteToAdd);
      return;
    }
    if (!key.prefix().validAsPrefix()) {
      IRI_TRACE(0, "Not a valid prefix");
      return;
    }
    const auto prefix = key.prefix();

    rt_parms& rtparms = blocks.parms();
    rtparms.rtp_preference = routeInput()->preference();
    rtparms.rtp_gwp = gwp();
    rtparms.rtp_state &= kStateKeepMask;
    rtparms.rtp_state |= rib.rib_state;
    sockaddr_un dest = *daemonSock(key.prefix().address());
    rtparms.rtp_dest = &dest;
    rtparms.rtp_dest_mask = sock_mask_by_len(Traits::family, plen);

    if (route->routeType() == RoutingModel::routeTypeBlackhole) {
      if (!rt_add(&rtparms, ifaps)) {
        IRI_TRACE(0, "Could not add route to corvd( rt_add failure )");
        return;
      }
      IRI_TRACE(0, "Successfully added blackhole route for dest " << prefix);
      return;
    }
    if (route->viaCount() == 0) {
      IRI_TRACE(0, "No vias to process");
      return;
    }

    sockaddr_un hops[RT_N_MULTIPATH];
    int j = 0;
    for (auto member : route->viaCollection()) {
      // A named reference, not a structured binding: the trace statements below capture it.
      const auto& via = member.first;
      if (j == RT_N_MULTIPATH) break;  // the daemon takes at most this many gateways
      std::uint32_t ifIndex = 0;
      if (!via.intfId.empty()) {
        const auto status = kernelIntfStatusDir()->intfStatusAndDeviceName(via.intfId);
        if (status.empty()) {
          IRI_TRACE(0, "Interface " << via.intfId << "is not local to us");
          unresolvedRouteBacklog()->backlogIs(key, true);
          return;
        }
        ifIndex = status.intfStatus->ifIndex();
      }
      sockaddr_un* nexthop = nullptr;
      if (via.hop != typename Traits::Addr()) {
        hops[j] = *daemonSock(via.hop);
        nexthop = &hops[j];
        rtparms.rtp_state |= kGatewayedState;
      }
      IRI_ASSERT(nexthop || ifIndex);
      if (ifIndex) {
        // The interface decides the gateway, even when the via also names a next hop.
        ifaps[j] = if_withdst(rtparms.rtp_dest);
        if (ifaps[j]) {
          const if_info& info = ifaps[j]->ifa_info;
          rtparms.rtp_routers[j] =
              (info.ifi_state & IFS_POINTOPOINT) ? info.ifi_addr_remote : info.ifi_addr_local;
          rtparms.rtp_n_gw = j + 1;
        } else {
          IRI_TRACE(0, "Interface " << via.intfId
                                    << " doesn't have ip address in same subnet as dest" << prefix);
          IRI_TRACE(0, "Using the ip address of the interface");
          if_link* ifl = ifl_locate_index(ifIndex);
          if (!ifl) {
            IRI_TRACE(0, "Interface " << via.intfId << " with ifIndex " << ifIndex
                                      << " is not present in corvd");
            unresolvedRouteBacklog()->backlogIs(key, true);
            return;
          }
          if_addr* ifa = ifl->ifl_addr_set.ias_first;
          while (ifa && !(ifa->ifa_info.ifi_addr_local &&
                          ifa->ifa_info.ifi_addr_local->sa_family == Traits::family)) {
            ifa = ifa->ifa_next;
          }
          if (!ifa) {
            IRI_TRACE(0, "No ip address on interface, cannot add the route");
            unresolvedRouteBacklog()->backlogIs(key, true);
            return;
          }
          rtparms.rtp_routers[j] = ifa->ifa_info.ifi_addr_remote;
          ifaps[j] = ifa;
          rtparms.rtp_n_gw = j + 1;
        }
      } else {
        ifaps[j] = if_withdst(nexthop);
        if (!ifaps[j]) {
          IRI_TRACE(0, Traits::noInterfaceForNexthop << via.hop);
          if (retry) unresolvedRouteBacklog()->backlogIs(key, true);
          return;
        }
        rtparms.rtp_routers[j] = nexthop;
        rtparms.rtp_n_gw = j + 1;
      }
      if (krt_addrcheck(&rtparms) != 1) {
        IRI_TRACE(0, "Address check failed");
        return;
      }
      if (!mask_contig(rtparms.rtp_dest_mask)) {
        IRI_TRACE(0, "Non contiguous mask");
        return;
      }
      ++j;
    }

    rt_bits bits;
    rt_make_bits(&bits, 1, static_cast<int>(rtparms.rtp_gwp->gw_proto));
    rt_entry* rt = rt_locate(rtparms.rtp_state, rtparms.rtp_dest, rtparms.rtp_dest_mask, &bits);
    if (!rt) {
      IRI_TRACE(0, "Route not present in corvd, so adding it afresh.");
      rt = rt_add(&rtparms, ifaps);
    } else {
      if (rt->rt_tag != 0 && j == 0) {
        rt_delete(rt);
        return;
      }
      IRI_TRACE(0, Traits::routeAlreadyPresent);
      rt_change_parms rtcp;
      std::memset(&rtcp, 0, sizeof rtcp);
      rtcp.rtcp_preference = rtparms.rtp_preference;
      rtcp.rtcp_n_gw = rtparms.rtp_n_gw;
      rtcp.rtcp_gateway = rtparms.rtp_routers;
      rtcp.rtcp_ifaps = ifaps;
      rt = rt_change_s(rt, &rtcp);
    }
    if (!rt) {
      IRI_TRACE(0, "Could not add route to corvd( rt_add failure )");
      return;
    }
    IRI_TRACE(0, " Successfully added route for dest "
                     << prefix
                     << " Proto: " << static_cast<unsigned>(routeInput()->routingProto()));
    IRI_ASSERT_TEXT(rt->rt_gwp->gw_proto == routeInput()->routingProto(),
                    Traits::assertOwnProtocol);
  }();
  IRI_TRACE_END();
}

template void RouteBacklogSmT<Ip4RouteTraits>::doAddRoute(const Key&, bool);
template void RouteBacklogSmT<Ip6RouteTraits>::doAddRoute(const Key&, bool);

}  // namespace InterfaceRouteInfo
