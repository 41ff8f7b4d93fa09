// The whole-module convergence test's model and fixture: the daemon's interface addresses read
// back, the longest-match lookup written from the daemon's documented rule, the test's addresses,
// next hops and prefixes per family (each address number has its own subnets, so no two addresses
// ever tie in a lookup); route inputs of the model, publishing their routes into the state
// database, the entry a route must have by the rules of mirroring, and the comparison of one route
// input with the daemon's table and its own backlogs. The rules and what they leave to the order
// of events are described in ModuleConvergenceTest.cpp.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/module/World.h"

namespace ModuleTest::Convergence {

constexpr int kIntfs = 6;
constexpr int kV4 = 8;  // IPv4 addresses 10.A.0.1, /24 or /16 (each A its own subnets)
constexpr int kV6 = 6;  // IPv6 addresses 2001:db8:A::1, /64 or /48

using Bytes = std::array<unsigned char, 16>;

// An address text of either family as 16 bytes (IPv4 in the first four) and its family.
inline std::pair<Bytes, bool> parse(const std::string& text) {
  Bytes b{};
  const bool v6 = text.find(':') != std::string::npos;
  EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), b.data()), 1) << text;
  return {b, v6};
}

inline bool covers(const Bytes& net, int len, const Bytes& a) {
  for (int bit = 0; bit < len; ++bit) {
    const int byte = bit / 8;
    const int mask = 0x80 >> (bit % 8);
    if ((net[static_cast<size_t>(byte)] & mask) != (a[static_cast<size_t>(byte)] & mask)) {
      return false;
    }
  }
  return true;
}

// The daemon's interface addresses, per link in the link's order.
struct DAddr {
  std::string local, remote;
  Bytes bytes;
  bool v6;
  int len;
  bool up;
  std::string dev;
};
struct DLinks {
  std::map<unsigned long, std::vector<DAddr>> byIndex;
  static void collect(if_link* l, void* arg) {
    auto& self = *static_cast<DLinks*>(arg);
    std::vector<DAddr>& addrs = self.byIndex[l->ifl_index];
    for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
      DAddr d;
      d.local = sockText(a->ifa_info.ifi_addr_local);
      d.remote = sockText(a->ifa_info.ifi_addr_remote);
      std::tie(d.bytes, d.v6) = parse(d.local);
      d.len = sock_mask_len(a->ifa_info.ifi_netmask);
      d.up = (a->ifa_info.ifi_state & IFS_UP) != 0;
      d.dev = l->ifl_name;
      addrs.push_back(d);
    }
  }
  // The up address of the family whose subnet holds `target`, longest first (the test's
  // subnets never tie). A zero-length mask serves only the address itself.
  const DAddr* withdst(const Bytes& target, bool v6, bool downToo = false) const {
    const DAddr* best = nullptr;
    for (const auto& [index, addrs] : byIndex) {
      for (const DAddr& a : addrs) {
        if (a.v6 != v6 || !(a.up || downToo)) continue;
        const bool hit = a.len == 0 ? a.bytes == target : covers(a.bytes, a.len, target);
        if (hit && (!best || a.len > best->len)) best = &a;
      }
    }
    return best;
  }
};

// A via of the test's model: interface number or -1, next-hop number or -1.
struct ViaM {
  int intf = -1;
  int hop = -1;
};
struct RouteM {
  std::vector<ViaM> vias;
  bool blackhole = false;
  bool lostable = false;  // may have been left out by a report (see above)
  // Was a blackhole and a via route since its protocol last held no entry for the prefix: a
  // blackhole is added beside the protocol's entry rather than in its place, so an entry of the
  // other kind may remain.
  bool mixed = false;
};
inline std::ostream& operator<<(std::ostream& os, const RouteM& r) {
  if (r.blackhole) os << "blackhole";
  for (const ViaM& v : r.vias) os << " via intf " << v.intf << " hop " << v.hop;
  if (r.lostable) os << " (lostable)";
  return os;
}

// One family's addresses, next hops and prefixes.
struct Family {
  bool v6;
  std::string addr(int a, int len) const {
    return (v6 ? "2001:db8:" + std::to_string(a) + "::1/" : "10." + std::to_string(a) + ".0.1/") +
           std::to_string(len);
  }
  int shortLen() const { return v6 ? 48 : 16; }
  int longLen() const { return v6 ? 64 : 24; }
  // Next hops: 2a+0 in both subnets of address a, 2a+1 only in its short one; the last one is
  // served by no address ever.
  int hops() const { return 2 * (v6 ? kV6 : kV4) + 1; }
  std::string hop(int h) const {
    if (h == hops() - 1) return v6 ? "2001:db8:ffff::9" : "100.64.0.9";
    const std::string a = std::to_string(h / 2);
    if (v6) return "2001:db8:" + a + (h % 2 ? ":1::2" : "::2");
    return "10." + a + (h % 2 ? ".1.2" : ".0.2");
  }
  int hopAddr(int h) const { return h == hops() - 1 ? -1 : h / 2; }
  // Prefixes: some outside every subnet, some inside the short subnet of address 0..3. Routes
  // of the latter get next-hop-only vias: a route through an interface keeps the address that
  // served it while that address stays, even when a longer subnet covering the destination
  // appears later, so its entry would depend on the order of events.
  static constexpr int kPrefixes = 9;
  std::string prefix(int k) const {
    if (k < 5) {
      return v6 ? "2001:db8:f00:" + std::to_string(k) + "::/64"
                : "198.18." + std::to_string(k) + ".0/24";
    }
    const std::string a = std::to_string(k - 5);
    return v6 ? "2001:db8:" + a + ":8000::/64" : "10." + a + ".128.0/25";
  }
};

// A positive number from the environment, or `dflt`.
inline long envNumber(const char* name, long dflt) {
  const char* text = std::getenv(name);
  const long n = text ? std::strtol(text, nullptr, 10) : 0;
  return n > 0 ? n : dflt;
}

class ModuleConvergence : public World, public ::testing::WithParamInterface<unsigned> {
 protected:
  // A route input of the model: its name, live protocol, preference and routes by prefix
  // number; `entity` is null while the input is removed.
  template <class InputT>
  struct InputM {
    using Input = InputT;
    std::string name;
    int proto = 0;
    int pref = 0;
    std::map<int, RouteM> routes;
    Kel::Ptr<InputT> entity;
  };
  using In4 = InputM<Routing::RouteInput>;
  using In6 = InputM<Routing6::RouteInput>;

  std::string intfId(int i) const { return "Ethernet" + std::to_string(i); }
  std::string dev(int i) const { return "et" + std::to_string(i); }

  template <class Input>
  void publishRoute(InputM<Input>& in, const Family& fam, int k, const RouteM& r) {
    using Key = typename Input::Key;
    using Via = typename Input::Route::Via;
    using Addr = typename Input::Addr;
    const Key key(Key::Prefix::fromString(fam.prefix(k)));
    auto route = in.entity->routeNew(key);
    route->routeTypeIs(r.blackhole ? 1 : 0);
    for (auto it = route->viaIterator(); it; ++it) route->viaDel(it.key());
    for (const ViaM& v : r.vias) {
      Via via;
      if (v.intf >= 0) via.intfId = Kanet::IntfId(intfId(v.intf));
      if (v.hop >= 0) via.hop = Addr::fromString(fam.hop(v.hop));
      route->viaIs(via, true);
    }
  }

  template <class Input>
  void makeInput(Kel::Dir& dir, InputM<Input>& in, const Family& fam) {
    in.entity = Kel::make<Input>(Kel::Name(in.name));
    in.entity->routingProtoIs(static_cast<std::uint8_t>(in.proto));
    in.entity->preferenceIs(static_cast<std::uint8_t>(in.pref));
    for (const auto& [k, r] : in.routes) publishRoute(in, fam, k, r);
    dir.entityPtrIs(Kel::Name(in.name), in.entity);
  }

  // What the route resolves to over the daemon's addresses now, or nothing.
  // With `downToo`, as if every address were up.
  std::optional<Entry> resolve(const Family& fam, int k, const RouteM& r, int pref,
                               const DLinks& links, bool downToo = false) const {
    if (r.blackhole) return Entry{pref, {}};
    if (r.vias.empty()) return std::nullopt;
    const std::string p = fam.prefix(k);
    const Bytes dest = parse(p.substr(0, p.find('/'))).first;
    Entry e{pref, {}};
    bool allUp = true;
    for (const ViaM& v : r.vias) {
      const DAddr* a = nullptr;
      std::string gw;
      if (v.intf >= 0) {
        auto st = all_->intfStatus(Kanet::IntfId(intfId(v.intf)));
        if (!st || !kernel_->interfaceByName(st->deviceName())) return std::nullopt;
        if ((a = links.withdst(dest, fam.v6, downToo))) {
          gw = a->local;
        } else {
          auto link = links.byIndex.find(st->ifIndex());
          if (link == links.byIndex.end()) return std::nullopt;
          for (const DAddr& d : link->second) {
            if (d.v6 == fam.v6) {
              a = &d;
              break;
            }
          }
          if (!a) return std::nullopt;
          gw = a->remote;
        }
      } else {
        const Bytes hop = parse(fam.hop(v.hop)).first;
        if (!(a = links.withdst(hop, fam.v6, downToo))) return std::nullopt;
        char buf[INET6_ADDRSTRLEN];
        gw = inet_ntop(fam.v6 ? AF_INET6 : AF_INET, hop.data(), buf, sizeof buf);
      }
      allUp = allUp && a->up;
      e.gws.push_back(gw + " dev " + a->dev);
    }
    if (!allUp) e.pref = pref == 0 ? -1 : -pref;
    return e;
  }

  std::size_t exact = 0, lostable = 0, unresolved = 0;  // what the checks found

  template <class Sm, class Input>
  void check(const Sm& sm, const InputM<Input>& in, const Family& fam, const DLinks& links,
             const Routes& routes) {
    using Key = typename Input::Key;
    ASSERT_TRUE(sm) << in.name;
    EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u) << in.name;
    const auto& parked = *sm->unresolvedRouteBacklog();
    for (int k = 0; k < Family::kPrefixes; ++k) {
      const std::string p = fam.prefix(k);
      const Key key(Key::Prefix::fromString(p));
      auto found = routes.find({in.proto, key.toString()});
      const std::vector<Entry> none;
      const std::vector<Entry>& entries = found == routes.end() ? none : found->second;
      const bool isParked = static_cast<bool>(parked.backlog(key));
      auto r = in.routes.find(k);
      SCOPED_TRACE(in.name + " proto " + std::to_string(in.proto) + " " + p);
      if (r == in.routes.end()) {
        EXPECT_TRUE(entries.empty()) << entries.front();
        EXPECT_FALSE(isParked);
        continue;
      }
      const std::optional<Entry> want = resolve(fam, k, r->second, in.pref, links);
      if (r->second.lostable) ++lostable;
      if (!want) {
        // A next hop whose address is down: the report of its going down re-entered the route
        // without parking it (the daemon set its entry aside, and restores it when the address
        // comes up), unless the route was drained since.
        const bool down = resolve(fam, k, r->second, in.pref, links, true).has_value();
        if (!r->second.lostable && !down) {
          EXPECT_TRUE(isParked) << r->second;
        }
        ++unresolved;
        continue;
      }
      EXPECT_FALSE(isParked);
      // The expected entry, and beside it only entries of an earlier kind (see RouteM::mixed);
      // a route that may have been left out may hold anything that was left of it.
      std::vector<Entry> rest = entries;
      auto it = std::find(rest.begin(), rest.end(), *want);
      if (r->second.lostable && (it == rest.end() || !r->second.mixed)) continue;
      if (it == rest.end()) {
        ADD_FAILURE() << "want " << *want << "; have "
                      << (entries.empty() ? std::string("nothing")
                                          : ::testing::PrintToString(entries));
        continue;
      }
      rest.erase(it);
      for (const Entry& e : rest) {
        EXPECT_TRUE(r->second.mixed) << "extra " << e;
      }
      ++exact;
    }
    for (auto it = parked.backlogIterator(); it; ++it) {
      bool known = false;
      for (const auto& [k, r] : in.routes) {
        if (Key(Key::Prefix::fromString(fam.prefix(k))) == it.key()) {
          known = !resolve(fam, k, r, in.pref, links).has_value();
        }
      }
      EXPECT_TRUE(known) << in.name << " parks " << it.key();
    }
  }
};

}  // namespace ModuleTest::Convergence
