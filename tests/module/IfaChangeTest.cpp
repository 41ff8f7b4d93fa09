// The daemon's address-change reports reach the module's routes: every kind of change is made by
// a real event of the daemon's interface table (a link going down or up, an address added,
// removed or given another mask), and acts on the routes of the module's own gateways that use
// the address, for every protocol, and on nothing else.
#include "tests/module/World.h"

namespace ModuleTest {
namespace {

class IfaChange : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
    intf("Ethernet2", "et2", 2, "10.0.2.1/24");
  }
  template <class Sm>
  static bool parked(const Sm& sm, const char* prefix) {
    return static_cast<bool>(sm->unresolvedRouteBacklog()->backlog(key(prefix)));
  }
  Kel::Ptr<RouteInputSm> sm(const char* name) const {
    return root_->routingConfigSm()->routeInputDirSm()->routeInputSm(name);
  }
};

// A route entered by another task over the same address: the module must leave it alone.
rt_entry* foreignRoute(const char* dest, const char* hop) {
  static task other{"other", nullptr, nullptr};
  gw_entry* gw = gw_init(nullptr, 9, &other, 0, 0, nullptr, 0);
  rt_parms rtp{};
  rtp.rtp_dest = daemonSock(addr(dest));
  rtp.rtp_dest_mask = sock_mask_by_len(SA_FAMILY_INET, 24);
  rtp.rtp_n_gw = 1;
  rtp.rtp_gwp = gw;
  rtp.rtp_preference = 30;
  rtp.rtp_routers[0] = daemonSock(addr(hop));
  if_addr* ifap = if_withdst(rtp.rtp_routers[0]);
  task_register(&other);
  rt_open(&other);
  rt_entry* rt = rt_add(&rtp, &ifap);
  rt_close(&other, 0, 1, 0);
  task_unregister(&other);
  return rt;
}

TEST_F(IfaChange, DownReentersUpRestoresAndOnlyTheModulesRoutesOverTheAddress) {
  auto bgp = input("bgp", 8, 20);
  auto stat = input("static", 2, 1);
  auto ospf = input("ospf", 7, 0);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  publish(stat, "198.51.100.0/24", {{"", "10.0.1.3"}});
  publish(ospf, "198.18.0.0/24", {{"", "10.0.1.4"}});
  publish(bgp, "192.0.2.0/24", {{"", "10.0.2.2"}});   // over et2
  publish(bgp, "100.65.0.0/16", {{"", "10.0.9.2"}});  // served by nothing: parked
  daemonAddr(1, "10.0.3.1/24");                       // a second address of et1
  publish(bgp, "198.19.0.0/16", {{"", "10.0.1.6"}, {"", "10.0.3.6"}});
  daemonAddr(1, "2001:db8:1::1/64");
  publish6(input6("ripng", 10, 5), "2001:db8:9::/48", {{"", "2001:db8:1::2"}});
  start();
  run();
  gw_entry* gw6 = root_->routing6ConfigSm()->routeInputDirSm()->routeInputSm("ripng")->gwp();
  rt_entry* rt6 = gw6->gw_rt_first;
  ASSERT_EQ(gw6->gw_n_routes, 1u);
  ASSERT_TRUE(foreignRoute("100.64.0.0", "10.0.1.9"));
  ASSERT_TRUE(parked(sm("bgp"), "100.65.0.0/16"));

  // The link goes down (0x100, up bit clear): every protocol's route over 10.0.1.1 is entered
  // again and finds no up address (a re-entry does not park it); the daemon has set the entries
  // aside. The parked key is queued again although no route of it uses the address.
  rec_.clear();
  corvd_host_link(1, "et1", false);
  EXPECT_EQ(traced("Handle ifa_change for ipv4  bash added routes", 8), 3);  // per address
  EXPECT_EQ(traced("Handle ifa_change for ipv6  bash added routes", 8), 3);
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.1.2"), 1);
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.1.3"), 1);
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.1.4"), 1);
  EXPECT_EQ(traced("Route already present in corvd, so just changing it."), 0);
  EXPECT_FALSE(parked(sm("bgp"), "203.0.113.0/24"));
  EXPECT_FALSE(parked(sm("bgp"), "100.65.0.0/16"));
  EXPECT_TRUE(sm("bgp")->routeBacklog()->backlog(key("100.65.0.0/16")));
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"), "pref -20 via 10.0.1.2 dev et1");
  EXPECT_EQ(daemonRoutes(7).at("198.18.0.0/24"), "pref -1 via 10.0.1.4 dev et1");
  EXPECT_EQ(daemonRoutes(10).at("2001:db8:9::/48"), "pref -5 via 2001:db8:1::2 dev et1");
  run();
  EXPECT_TRUE(parked(sm("bgp"), "100.65.0.0/16"));

  // The link comes up (0x100, up bit set, one report per address): the module gives its
  // set-aside entries their exact preference back with one rt_change_s each (0 included; the
  // route over both addresses once, as it is no longer set aside at the second report); the
  // foreign entry is left to the daemon.
  const auto changes = corvd_call_count("rt_change_s");
  corvd_host_link(1, "et1", true);
  EXPECT_EQ(corvd_call_count("rt_change_s"), changes + 5);
  // The IPv6 entry is changed in place: it stays its gateway's only entry and the one its
  // gateway's prefix tree holds, so no gateway bookkeeping is left to the module.
  EXPECT_EQ(daemonRoutes(10).at("2001:db8:9::/48"), "pref 5 via 2001:db8:1::2 dev et1");
  EXPECT_EQ(gw6->gw_rt_first, rt6);
  EXPECT_EQ(gw6->gw_n_routes, 1u);
  const sockaddr_un dest6 = rt_head_dest(rt6->rt_head);
  EXPECT_EQ(ptree_find(gw6->gw_ptree, &dest6, rt_head_mask(rt6->rt_head)), rt6);
  EXPECT_EQ(daemonRoutes(8).at("198.19.0.0/16"),
            "pref 20 via 10.0.1.6 dev et1, via 10.0.3.6 dev et1");
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"), "pref 20 via 10.0.1.2 dev et1");
  EXPECT_EQ(daemonRoutes(2).at("198.51.100.0/24"), "pref 1 via 10.0.1.3 dev et1");
  EXPECT_EQ(daemonRoutes(7).at("198.18.0.0/24"), "pref 0 via 10.0.1.4 dev et1");
  EXPECT_EQ(daemonRoutes(9).at("100.64.0.0/24"), "pref 30 via 10.0.1.9 dev et1");
}

TEST_F(IfaChange, AddressEventsClassifiedByCodeAndUpBit) {
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.9.2"}});  // no address serves it yet
  publish(bgp, "198.51.100.0/24", {{"", "10.0.2.7"}});
  start();
  run();
  ASSERT_TRUE(parked(sm("bgp"), "203.0.113.0/24"));

  // An address added on a down link (2, not up), then removed while down (4): nothing.
  corvd_host_link(3, "et3", false);
  rec_.clear();
  daemonAddr(3, "10.0.9.1/24");
  corvd_host_addr_del(3, daemonSock(addr("10.0.9.1")));
  EXPECT_EQ(traced("fwk_ifachange: Nothing interesting", 8), 2);
  EXPECT_EQ(traced("Handle ifa_change for ipv4  bash added routes", 8), 0);
  EXPECT_TRUE(parked(sm("bgp"), "203.0.113.0/24"));

  // The serving address arrives up (2, up): the parked route is retried and resolves.
  rec_.clear();
  daemonAddr(1, "10.0.9.1/24");
  EXPECT_EQ(traced("Handle ifa_change for ipv4  bash added routes", 8), 1);
  run();
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"), "pref 20 via 10.0.9.2 dev et1");

  // An up address removed (0x104): its route is entered again, finds no address, and the daemon
  // drops the entry that still uses the removed address.
  rec_.clear();
  corvd_host_addr_del(1, daemonSock(addr("10.0.9.1")));
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.9.2"), 1);
  run();
  EXPECT_FALSE(parked(sm("bgp"), "203.0.113.0/24"));  // it waits for its next change
  EXPECT_EQ(daemonRoutes(8).count("203.0.113.0/24"), 0u);

  // A subnet change (0x200) re-enters only the routes whose next hop another address (or none)
  // serves now: 10.0.2.1 narrowed to /30 still serves 10.0.2.2, no longer 10.0.2.7.
  publish(bgp, "192.0.2.0/24", {{"", "10.0.2.2"}});
  run();
  rec_.clear();
  daemonAddr(2, "10.0.2.1/30");
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.2.7"), 1);
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.2.2"), 0);
  EXPECT_EQ(traced("Route already present in corvd, so just changing it."), 0);
}

TEST_F(IfaChange, OutsideTheDefaultVrfOnlyIpv4IsRevisited) {
  publish(input("bgp", 8, 20), "203.0.113.0/24", {{"", "10.0.1.2"}});
  start("red");
  run();
  rec_.clear();
  corvd_host_link(1, "et1", false);
  EXPECT_EQ(traced("Handle ifa_change for ipv4  bash added routes", 8), 1);
  EXPECT_EQ(traced("Handle ifa_change for ipv6  bash added routes", 8), 0);
  EXPECT_EQ(traced("There is no interface with nexthop 10.0.1.2"), 1);
}

}  // namespace
}  // namespace ModuleTest
