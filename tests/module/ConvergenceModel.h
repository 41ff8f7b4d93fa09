// The whole-module convergence test's model and readers: the daemon's interface addresses and
// route entries read back as text, the longest-match lookup written from the daemon's documented
// rule, and the test's addresses, next hops and prefixes per family (each address number has its
// own subnets, so no two addresses ever tie in a lookup).
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "fwk/daemon/corvd.h"
#include "tests/support/ModuleWorld.h"

namespace IntfTest::Convergence {

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

// One daemon entry: preference and "gateway dev" per gateway.
struct Entry {
  int pref;
  std::vector<std::string> gws;
  bool operator==(const Entry&) const = default;
};
inline std::ostream& operator<<(std::ostream& os, const Entry& e) {
  os << "pref " << e.pref;
  for (const auto& g : e.gws) os << " via " << g;
  return os;
}
// Entries by (protocol, "prefix/len").
using Routes = std::map<std::pair<int, std::string>, std::vector<Entry>>;
inline Routes daemonRoutes() {
  Routes out;
  rt_head_walk(
      [](rt_head* h, void* arg) {
        for (rt_entry* rt = h->rth_routes; rt; rt = rt->rt_next) {
          Entry e{rt->rt_preference, {}};
          for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
            const if_addr* a = rt->rt_adj.adj_ifaps[j];
            e.gws.push_back(sockText(rt->rt_adj.adj_routers[j]) + " " +
                            (a ? a->ifa_info.ifi_link->ifl_name : "-"));
          }
          (*static_cast<Routes*>(arg))[{rt->rt_gwp->gw_proto,
                                        sockText(&h->rth_dest) + "/" + std::to_string(h->rth_plen)}]
              .push_back(e);
        }
      },
      &out);
  return out;
}

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

}  // namespace IntfTest::Convergence
