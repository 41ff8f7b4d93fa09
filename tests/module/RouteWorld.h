// A small world for route mirroring tests: the in-memory daemon with a few interfaces, the
// interface status model naming them; helpers publish routes as a protocol agent would and read
// back what the daemon's routing table holds.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "fwk/DaemonAddr.h"
#include "fwk/daemon/host_conf.h"
#include "tests/support/ModuleWorld.h"

namespace RouteTest {

using namespace InterfaceRouteInfo;

inline Kanet::IpAddr ip(const char* text) { return Kanet::IpAddr::fromString(text); }
inline Kanet::Ip6Addr ip6(const char* text) { return Kanet::Ip6Addr::fromString(text); }
inline Routing::RouteKey key(const char* text) {
  return Routing::RouteKey(Kanet::IpPrefix::fromString(text));
}
inline Routing6::RouteKey key6(const char* text) {
  return Routing6::RouteKey(Kanet::Ip6Prefix::fromString(text));
}

// What the daemon holds for one protocol: prefix text -> "pref P via G dev D, via ..." (or
// "pref P blackhole"), entries of one prefix joined with " | ".
std::map<std::string, std::string> daemonRoutes(uint16_t proto);
// The level-0 messages recorded so far, in order.
std::vector<std::string> events(const Kel::TraceRecorder& rec);

// One next hop as text: {intfId or "", hop or ""}.
using ViaText = std::pair<const char*, const char*>;

class RouteWorld : public ModuleWorld {
 protected:
  // An interface known to the state database and, when `addr` is given, to the daemon with
  // that address ("10.0.1.1/24", or "2001:db8::1/64"); `peer` makes it point-to-point.
  void intf(const char* intfId, const char* device, unsigned ifIndex, const char* addr = nullptr,
            const char* peer = nullptr);
  // Adds one more daemon address to an interface made with intf().
  void daemonAddr(unsigned ifIndex, const char* addr, const char* peer = nullptr);

  // The route input of `protocol` named `name` (created and published in the directory on
  // first use).
  Kel::Ptr<Routing::RouteInput> input(const char* name, uint8_t proto = 8, uint8_t pref = 20);
  Kel::Ptr<Routing6::RouteInput> input6(const char* name, uint8_t proto = 8, uint8_t pref = 20);
  // Publishes `prefix` with next hops / interfaces (either may be empty per via).
  Kel::Ptr<Routing::Route> publish(const Kel::Ptr<Routing::RouteInput>& in, const char* prefix,
                                   std::vector<ViaText> vias);
  Kel::Ptr<Routing6::Route> publish6(const Kel::Ptr<Routing6::RouteInput>& in, const char* prefix,
                                     std::vector<ViaText> vias);

  // Runs the activity loop for `seconds` of manual time.
  void run(double seconds = 1.0);
};

}  // namespace RouteTest
