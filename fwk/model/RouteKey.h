// Routing::RouteKey and Routing6::RouteKey: the key of a route, its destination prefix.
// A key always holds a proper network: making one from a prefix that is not validAsPrefix (a
// length beyond the address width, or a bit set beyond the length) raises Kel::RangeException
// "Prefix::validAsPrefix != true not allowed" and no key is made. The default key is the default
// route (0.0.0.0/0, ::/0). Keys are compared and ordered by prefix (address, then length); the
// text form is the prefix's ("10.0.0.0/8", "2001:db8::/32"). The hash is the prefix's, which mixes
// address and length, so collections of a million sequential prefixes keep short chains.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "fwk/framework/Exception.h"
#include "fwk/model/KanetIpAddr.h"

namespace RoutingModel {

template <class P>
class RouteKeyT {
 public:
  using Prefix = P;
  using Addr = typename P::Addr;

  RouteKeyT() = default;
  explicit RouteKeyT(const Prefix& prefix) : prefix_(prefix) {
    if (!prefix_.validAsPrefix()) throwInvalid();
  }
  RouteKeyT(const Addr& address, int length) : RouteKeyT(checkedPrefix(address, length)) {}
  // "<address>/<length>"; malformed text raises the prefix's fromString error.
  static RouteKeyT fromString(std::string_view text) { return RouteKeyT(Prefix::fromString(text)); }

  const Prefix& prefix() const { return prefix_; }
  std::string toString() const { return prefix_.toString(); }
  std::size_t hash() const { return prefix_.hash(); }

  friend bool operator==(const RouteKeyT&, const RouteKeyT&) = default;
  friend auto operator<=>(const RouteKeyT&, const RouteKeyT&) = default;
  friend std::ostream& operator<<(std::ostream& os, const RouteKeyT& k) { return os << k.prefix_; }

 private:
  [[noreturn]] static void throwInvalid() {
    throw Kel::RangeException("Prefix::validAsPrefix != true not allowed");
  }
  static Prefix checkedPrefix(const Addr& address, int length) {
    if (length < 0 || length > Addr::bits) throwInvalid();
    return Prefix(address, length);
  }

  Prefix prefix_;
};

}  // namespace RoutingModel

namespace Routing {
using RouteKey = RoutingModel::RouteKeyT<Kanet::IpPrefix>;
}  // namespace Routing

namespace Routing6 {
using RouteKey = RoutingModel::RouteKeyT<Kanet::Ip6Prefix>;
}  // namespace Routing6

template <class P>
struct std::hash<RoutingModel::RouteKeyT<P>> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const RoutingModel::RouteKeyT<P>& k) const noexcept { return k.hash(); }
};

KEL_TYPE_NAME(Routing::RouteKey, "Routing::RouteKey")
KEL_TYPE_NAME(Routing6::RouteKey, "Routing6::RouteKey")
