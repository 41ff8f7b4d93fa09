// The routing model the module reads: a protocol agent publishes its routes in a RouteInput held
// by name (the protocol's name) in the route input directory of the routing configuration.
//   Config.routeInputDir -> Kel::Dir { name -> RouteInput }
//   RouteInput { routingProto, preference, redistributeName, route: RouteKey -> Route }
//   Route { key, tag, routeType, via: Via -> true }
// IPv4 (namespace Routing) and IPv6 (namespace Routing6) are one template over the address family.
// Agents publish through the mutators; the module holds Kel::Ptr<const ...> and only reads.
// routingProto 0 means the input has no protocol number yet. A Route's key never changes.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/Dir.h"
#include "fwk/framework/Pool.h"
#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetIpAddr.h"
#include "fwk/model/RouteKey.h"

namespace RoutingModel {

// One next hop of a route: an interface, an address, or both (an empty IntfId / zero address
// means "not given").
template <class Addr>
struct ViaT {
  Kanet::IntfId intfId;
  Addr hop;

  friend bool operator==(const ViaT& a, const ViaT& b) = default;
  friend std::ostream& operator<<(std::ostream& os, const ViaT& v) {
    return os << "Via(" << v.intfId << ", " << v.hop << ")";
  }
};

// The type name of the IPv4 or the IPv6 instance of a routing model template.
template <class Addr>
constexpr const char* familyName(const char* ip4, const char* ip6) {
  return Addr::bits == 128 ? ip6 : ip4;
}

enum RouteType : std::uint8_t { routeTypeUnicast = 0, routeTypeBlackhole = 1 };

template <class KeyT, class AddrT>
class RouteT : public Kel::Entity {
 public:
  using Key = KeyT;
  using Addr = AddrT;
  using Via = ViaT<Addr>;
#define KEL_ATTRS_RoutingRoute(A)                  \
  A(INPUT, key, Key, Key)                          \
  A(SCALAR, tag, Tag, std::uint32_t, 0)            \
  A(SCALAR, routeType, RouteType, std::uint8_t, 0) \
  A(COLLECTION, via, Via, Via, bool)
  KEL_ENTITY(RouteT, familyName<AddrT>("Routing::Route", "Routing6::Route"), KEL_ATTRS_RoutingRoute)
#undef KEL_ATTRS_RoutingRoute

  explicit RouteT(const Key& k) : Kel::Entity(kNamedByKey) { kelInputsIs(k); }
  KEL_NAMED_BY_KEY
  // A state database holds routes by the million: each in a pool block of its own size.
  KEL_POOLED(RouteT)
};

template <class KeyT, class AddrT>
class RouteInputT : public Kel::Entity {
 public:
  using Key = KeyT;
  using Addr = AddrT;
  using Route = RouteT<Key, Addr>;
  using RoutePtr = Kel::Ptr<Route>;
#define KEL_ATTRS_RoutingRouteInput(A)                            \
  A(SCALAR, routingProto, RoutingProto, std::uint8_t, 0)          \
  A(SCALAR, preference, Preference, std::uint8_t, 0)              \
  A(SCALAR, redistributeName, RedistributeName, Kel::String8, "") \
  A(COLLECTION, route, Route, Key, RoutePtr)
  KEL_ENTITY(RouteInputT, familyName<AddrT>("Routing::RouteInput", "Routing6::RouteInput"),
             KEL_ATTRS_RoutingRouteInput)
#undef KEL_ATTRS_RoutingRouteInput

  explicit RouteInputT(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // Publishing helper for agents and tests: the route at k, made on first use.
  RoutePtr routeNew(const Key& k) {
    if (RoutePtr r = route(k)) return r;
    RoutePtr r = Kel::make<Route>(k);
    routeIs(k, r);
    return r;
  }
};

template <class Key>
class ConfigT : public Kel::Entity {
 public:
#define KEL_ATTRS_RoutingConfig(A) A(POINTER, routeInputDir, RouteInputDir, Kel::Dir)
  KEL_ENTITY(ConfigT, familyName<typename Key::Addr>("Routing::Config", "Routing6::Config"),
             KEL_ATTRS_RoutingConfig)
#undef KEL_ATTRS_RoutingConfig

  explicit ConfigT(Kel::Name name) : Kel::Entity(std::move(name)) {}
};

}  // namespace RoutingModel

namespace Routing {
using Via = RoutingModel::ViaT<Kanet::IpAddr>;
using Route = RoutingModel::RouteT<RouteKey, Kanet::IpAddr>;
using RouteInput = RoutingModel::RouteInputT<RouteKey, Kanet::IpAddr>;
using Config = RoutingModel::ConfigT<RouteKey>;
}  // namespace Routing

// A state database holds a million routes: an IPv4 route with its next hop map is 96 bytes, a
// pool block of that size.
static_assert(sizeof(Routing::Route) == 96);

namespace Routing6 {
using Via = RoutingModel::ViaT<Kanet::Ip6Addr>;
using Route = RoutingModel::RouteT<RouteKey, Kanet::Ip6Addr>;
using RouteInput = RoutingModel::RouteInputT<RouteKey, Kanet::Ip6Addr>;
using Config = RoutingModel::ConfigT<RouteKey>;
}  // namespace Routing6

template <class Addr>
struct std::hash<RoutingModel::ViaT<Addr>> {
  size_t operator()(const RoutingModel::ViaT<Addr>& v) const noexcept {
    return std::hash<Kanet::IntfId>()(v.intfId) * 31 + std::hash<Addr>()(v.hop);
  }
};

KEL_TYPE_NAME(Routing::Via, "Routing::Via")
KEL_TYPE_NAME(Routing6::Via, "Routing6::Via")
