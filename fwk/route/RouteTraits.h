// What differs between IPv4 and IPv6 route mirroring, and nothing else.
//
// The route reactors (RoutingConfigSm, RouteInputDirSm, RouteInputSm), the backlogs and the
// backlog reactor with its add and delete decisions are written once, as templates over one of
// these traits. A traits type carries: the model types (key, address, route input, route, via,
// configuration), the address family of the daemon's masks and interface addresses (addresses
// become daemon socket addresses through daemonSock, DaemonAddr.h, for both families), the type
// names the framework reports, the message texts that differ between the families, and the
// signatures that the entry/exit traces print.
//
// Signatures: the traces read like those of the plain classes the templates stand for
// ("void InterfaceRouteInfo::RouteBacklogSm::handleBacklog()"); each templated handler names its
// own with IRI_SIGNATURE (ModuleSupport.h) built from the class name held here and the handler's
// own part. Keep these texts exactly as they are: tests compare them.
#pragma once

#include <cstdint>

#include "fwk/daemon/corvd.h"
#include "fwk/framework/TypeName.h"
#include "fwk/model/RoutingModel.h"

namespace InterfaceRouteInfo {

struct Ip4RouteTraits {
  using Key = Routing::RouteKey;
  using Addr = Kanet::IpAddr;
  using Config = Routing::Config;
  using RouteInput = Routing::RouteInput;
  using Route = Routing::Route;
  using Via = Routing::Via;
  static constexpr bool isIp6 = false;
  static constexpr uint8_t family = SA_FAMILY_INET;

  // Type names reported by the framework (introspection, exception texts).
  static constexpr const char* routeBacklogType = "InterfaceRouteInfo::RouteBacklog";
  static constexpr const char* unresolvedRouteBacklogType =
      "InterfaceRouteInfo::UnresolvedRouteBacklog";
  static constexpr const char* routeBacklogSmType = "InterfaceRouteInfo::RouteBacklogSm";
  static constexpr const char* routeInputSmType = "InterfaceRouteInfo::RouteInputSm";
  static constexpr const char* routeInputDirSmType = "InterfaceRouteInfo::RouteInputDirSm";
  static constexpr const char* routingConfigSmType = "InterfaceRouteInfo::RoutingConfigSm";

  // Pieces of the handler signatures.
  static constexpr const char* keyParam = "const Routing::RouteKey&";
  static constexpr const char* handleInputDir = "handleRouteInputDir";

  // Messages that differ from IPv6.
  static constexpr const char* noRouteToAdd = "No route to add ";
  static constexpr const char* noInterfaceForNexthop = "There is no interface with nexthop ";
  static constexpr const char* routeAlreadyPresent =
      "Route already present in corvd, so just changing it.";
  static constexpr const char* assertOwnProtocol =
      "rt->rt_gwp->gw_proto == routeInput()->routingProto()";
  static constexpr const char* instantiatingInputSm = "Instantiating routeInputSm for protocol";
  static constexpr const char* deletingInputSm = "Deleting routeInputSm for protocol";
  // IPv4 traces "uninitialized" from RouteInputSm::handleRoute(); IPv6 returns silently.
  static constexpr bool traceUninitializedSweep = true;
  // IPv4 traces " name <name>" on the directory reactor's per-name entry trace.
  static constexpr bool traceDirEntryName = true;
  // IPv6 traces an "END" line after queuing a key; IPv4 only the entry line.
  static constexpr bool traceAddBacklogEnd = false;
  // The gateway message names the reactor's name (IPv4) or the input's redistributeName (IPv6).
  static const Kel::String8& gatewayName(const Kel::String8& name, const RouteInput&) {
    return name;
  }
};

struct Ip6RouteTraits {
  using Key = Routing6::RouteKey;
  using Addr = Kanet::Ip6Addr;
  using Config = Routing6::Config;
  using RouteInput = Routing6::RouteInput;
  using Route = Routing6::Route;
  using Via = Routing6::Via;
  static constexpr bool isIp6 = true;
  static constexpr uint8_t family = SA_FAMILY_INET6;

  static constexpr const char* routeBacklogType = "InterfaceRouteInfo::Route6Backlog";
  static constexpr const char* unresolvedRouteBacklogType =
      "InterfaceRouteInfo::UnresolvedRoute6Backlog";
  static constexpr const char* routeBacklogSmType = "InterfaceRouteInfo::Route6BacklogSm";
  static constexpr const char* routeInputSmType = "InterfaceRouteInfo::Route6InputSm";
  static constexpr const char* routeInputDirSmType = "InterfaceRouteInfo::Route6InputDirSm";
  static constexpr const char* routingConfigSmType = "InterfaceRouteInfo::Routing6ConfigSm";

  static constexpr const char* keyParam = "const Routing6::RouteKey&";
  static constexpr const char* handleInputDir = "handleRoute6InputDir";

  static constexpr const char* noRouteToAdd = "No route to add";
  static constexpr const char* noInterfaceForNexthop = "There is no interface for nexthop ";
  static constexpr const char* routeAlreadyPresent =
      "Route already present in corvd, so just changing it";
  static constexpr const char* assertOwnProtocol =
      "rt->rt_gwp->gw_proto == route6Input()->routingProto()";
  static constexpr const char* instantiatingInputSm = "Instantiating route6InputSm for protocol";
  static constexpr const char* deletingInputSm = "Deleting route6InputSm for protocol";
  static constexpr bool traceUninitializedSweep = false;
  static constexpr bool traceDirEntryName = false;
  static constexpr bool traceAddBacklogEnd = true;
  static const Kel::String8& gatewayName(const Kel::String8&, const RouteInput& input) {
    return input.redistributeName();
  }
};

}  // namespace InterfaceRouteInfo

// The daemon gateway entry a route reactor owns, as the registry names it.
KEL_TYPE_NAME(gw_entry*, "_gw_entry*")
