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
 protected:
  void SetUp() override {
    RouteWorld::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
    intf("Ethernet2", "et2", 2, "10.0.2.1/24");
  }
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

const Choice kVias[] = {
    {"", "10.0.1.2", "10.0.1.2 dev et1"},
    {"", "10.0.1.3", "10.0.1.3 dev et1"},
    {"", "10.0.2.2", "10.0.2.2 dev et2"},
    {"", "10.0.2.3", "10.0.2.3 dev et2"},
    {"", "10.9.9.9", nullptr},
    {"Ethernet1", "", "10.0.1.1 dev et1"},
    {"Ethernet2", "", "10.0.2.1 dev et2"},
    {"Ethernet7", "", nullptr},
};

TEST_F(RouteConvergence, DaemonMatchesReferenceAfterRandomRounds) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TearDown();
    SetUp();
    std::mt19937 rng(seed);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    auto bgp = input("bgp", 8, 20);
    std::vector<std::string> prefixes = {"0.0.0.0/0"};
    for (int i = 0; i < 24; ++i) prefixes.push_back("10.200." + std::to_string(i) + ".0/24");

    // Reference: what each route holds (indexes into kVias), what the daemon must hold.
    std::map<std::string, std::set<int>> model;
    std::map<std::string, std::set<std::string>> installed;
    std::set<std::string> parked;
    start();
    for (int round = 0; round < 15; ++round) {
      std::set<std::string> touched;
      const int ops = 1 + pick(40);
      for (int op = 0; op < ops; ++op) {
        const std::string& p = prefixes[pick(static_cast<int>(prefixes.size()))];
        const int v = pick(static_cast<int>(std::size(kVias)));
        Routing::Via via{Kanet::IntfId(kVias[v].intf),
                         *kVias[v].hop ? ip(kVias[v].hop) : Kanet::IpAddr()};
        const auto k = key(p.c_str());
        switch (pick(5)) {
          case 0:  // withdraw
            if (!model.count(p)) break;
            bgp->routeDel(k);
            model.erase(p);
            touched.insert(p);
            break;
          case 1:  // remove a via
            if (!model.count(p) || !model[p].count(v)) break;
            bgp->route(k)->viaDel(via);
            model[p].erase(v);
            touched.insert(p);
            break;
          case 2:  // tag change
            if (!model.count(p)) break;
            bgp->route(k)->tagIs(bgp->route(k)->tag() + 1);
            touched.insert(p);
            break;
          default:  // publish or add a via
            if (model.count(p) && model[p].count(v)) break;
            bgp->routeNew(k)->viaIs(via, true);
            model[p].insert(v);
            touched.insert(p);
            break;
        }
      }
      run(0.5 + pick(3));
      for (const std::string& p : touched) {
        if (!model.count(p)) {
          installed.erase(p);
          continue;
        }
        if (p == "0.0.0.0/0" || model[p].empty()) continue;
        std::set<std::string> gws;
        bool ok = true;
        for (int v : model[p]) {
          if (kVias[v].gateway) {
            gws.insert(kVias[v].gateway);
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
    auto sm = root_->routingConfigSm()->routeInputDirSm()->routeInputSm("bgp");
    std::set<std::string> gotParked;
    for (auto it = sm->unresolvedRouteBacklog()->backlogIterator(); it; ++it) {
      gotParked.insert(it.key().toString());
    }
    EXPECT_EQ(gotParked, parked);
    EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u);

    // Withdrawing the whole input leaves nothing of the protocol.
    dir_->entityPtrDel(Kel::Name("bgp"));
    run();
    EXPECT_TRUE(daemonRoutes(8).empty());
  }
}

}  // namespace
}  // namespace RouteTest
