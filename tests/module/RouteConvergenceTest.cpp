// Random publishes, via changes, tag changes and withdrawals, each round followed by a quiet
// period, checked against an independent reference of what the daemon must hold: per touched
// prefix, the route's final state decides — gone: no entry of the protocol; every via
// resolvable: exactly those gateways; otherwise the daemon keeps what it had and the key waits
// in the unresolved backlog (routes with no via are left as they were and not parked).
#include <random>
#include <set>

#include "tests/module/RouteWorld.h"

namespace RouteTest {
namespace {

class RouteConvergence : public RouteWorld {
 public:
  void SetUp() override {
    RouteWorld::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
    intf("Ethernet2", "et2", 2, "10.0.2.1/24");
    daemonAddr(1, "2001:db8:1::1/64");
    daemonAddr(2, "2001:db8:2::1/64");
  }
  using RouteWorld::input;
  using RouteWorld::input6;
  using RouteWorld::run;
  using RouteWorld::start;
};

// Gateways of the protocol's entries, as "gateway dev" sorted, per prefix.
std::map<std::string, std::set<std::string>> daemonGateways(uint16_t proto) {
  std::map<std::string, std::set<std::string>> out;
  for (const auto& [prefix, text] : daemonRoutes(proto)) {
    std::set<std::string>& gws = out[prefix];
    std::size_t pos = 0;
    while ((pos = text.find("via ", pos)) != std::string::npos) {
      const std::size_t end = text.find(',', pos);
      gws.insert(text.substr(pos + 4, end == std::string::npos ? end : end - pos - 4));
      pos += 4;
    }
  }
  return out;
}

struct Choice {
  const char* intf;
  const char* hop;
  const char* gateway;  // what the daemon must show, null when unresolvable
};

struct Ip4 {
  static constexpr Choice vias[] = {
      {"", "10.0.1.2", "10.0.1.2 dev et1"},
      {"", "10.0.1.3", "10.0.1.3 dev et1"},
      {"", "10.0.2.2", "10.0.2.2 dev et2"},
      {"", "10.0.2.3", "10.0.2.3 dev et2"},
      {"", "10.9.9.9", nullptr},
      {"Ethernet1", "", "10.0.1.1 dev et1"},
      {"Ethernet2", "", "10.0.2.1 dev et2"},
      {"Ethernet7", "", nullptr},
  };
  static constexpr const char* defaultRoute = "0.0.0.0/0";
  static std::string prefix(int i) { return "10.200." + std::to_string(i) + ".0/24"; }
  static auto input(RouteConvergence& w) { return w.input("bgp", 8, 20); }
  static auto key(const std::string& p) { return RouteTest::key(p.c_str()); }
  static Routing::Via via(const Choice& c) {
    return {Kanet::IntfId(c.intf), *c.hop ? ip(c.hop) : Kanet::IpAddr()};
  }
  static Kel::Ptr<RouteInputSm> sm(Root& root) {
    return root.routingConfigSm()->routeInputDirSm()->routeInputSm("bgp");
  }
};

struct Ip6 {
  static constexpr Choice vias[] = {
      {"", "2001:db8:1::2", "2001:db8:1::2 dev et1"},
      {"", "2001:db8:1::3", "2001:db8:1::3 dev et1"},
      {"", "2001:db8:2::2", "2001:db8:2::2 dev et2"},
      {"", "2001:db8:9::9", nullptr},
      {"Ethernet2", "", "2001:db8:2::1 dev et2"},
      {"Ethernet7", "", nullptr},
  };
  static constexpr const char* defaultRoute = "::/0";
  static std::string prefix(int i) { return "2001:db8:" + std::to_string(100 + i) + "::/48"; }
  static auto input(RouteConvergence& w) { return w.input6("bgp6", 8, 20); }
  static auto key(const std::string& p) { return key6(p.c_str()); }
  static Routing6::Via via(const Choice& c) {
    return {Kanet::IntfId(c.intf), *c.hop ? ip6(c.hop) : Kanet::Ip6Addr()};
  }
  static Kel::Ptr<Route6InputSm> sm(Root& root) {
    return root.routing6ConfigSm()->routeInputDirSm()->routeInputSm("bgp6");
  }
};

template <class F>
void converge(RouteConvergence& w, Kel::Ptr<Root>& root, const Kel::Ptr<Kel::Dir>& dir,
              unsigned seed) {
  std::mt19937 rng(seed);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  auto in = F::input(w);
  std::vector<std::string> prefixes = {F::defaultRoute};
  for (int i = 0; i < 24; ++i) prefixes.push_back(F::prefix(i));

  // Reference: what each route holds (indexes into the vias), what the daemon must hold.
  std::map<std::string, std::set<int>> model;
  std::map<std::string, std::set<std::string>> installed;
  std::set<std::string> parked;
  w.start();
  for (int round = 0; round < 15; ++round) {
    std::set<std::string> touched;
    const int ops = 1 + pick(40);
    for (int op = 0; op < ops; ++op) {
      const std::string& p = prefixes[pick(static_cast<int>(prefixes.size()))];
      const int v = pick(static_cast<int>(std::size(F::vias)));
      const auto via = F::via(F::vias[v]);
      const auto k = F::key(p);
      switch (pick(5)) {
        case 0:  // withdraw
          if (!model.count(p)) break;
          in->routeDel(k);
          model.erase(p);
          touched.insert(p);
          break;
        case 1:  // remove a via
          if (!model.count(p) || !model[p].count(v)) break;
          in->route(k)->viaDel(via);
          model[p].erase(v);
          touched.insert(p);
          break;
        case 2:  // tag change
          if (!model.count(p)) break;
          in->route(k)->tagIs(in->route(k)->tag() + 1);
          touched.insert(p);
          break;
        default:  // publish or add a via
          if (model.count(p) && model[p].count(v)) break;
          in->routeNew(k)->viaIs(via, true);
          model[p].insert(v);
          touched.insert(p);
          break;
      }
    }
    w.run(0.5 + pick(3));
    for (const std::string& p : touched) {
      if (!model.count(p)) {
        installed.erase(p);
        continue;
      }
      if (p == F::defaultRoute || model[p].empty()) continue;
      std::set<std::string> gws;
      bool ok = true;
      for (int v : model[p]) {
        if (F::vias[v].gateway) {
          gws.insert(F::vias[v].gateway);
        } else {
          ok = false;
        }
      }
      if (ok) {
        installed[p] = gws;
      } else {
        parked.insert(p);
      }
    }
    ASSERT_EQ(daemonGateways(8), installed) << "round " << round;
  }
  auto sm = F::sm(*root);
  std::set<std::string> gotParked;
  for (auto it = sm->unresolvedRouteBacklog()->backlogIterator(); it; ++it) {
    gotParked.insert(it.key().toString());
  }
  EXPECT_EQ(gotParked, parked);
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u);

  // Withdrawing the whole input leaves nothing of the protocol.
  dir->entityPtrDel(Kel::Name(sm->name()));
  w.run(1.0);
  EXPECT_TRUE(daemonRoutes(8).empty());
}

TEST_F(RouteConvergence, DaemonMatchesReferenceAfterRandomRoundsIpv4) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TearDown();
    SetUp();
    converge<Ip4>(*this, root_, dir_, seed);
  }
}

TEST_F(RouteConvergence, DaemonMatchesReferenceAfterRandomRoundsIpv6) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TearDown();
    SetUp();
    converge<Ip6>(*this, root_, dir6_, seed);
  }
}

}  // namespace
}  // namespace RouteTest
