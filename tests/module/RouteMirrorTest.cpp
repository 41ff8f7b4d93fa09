// Route mirroring end to end: route inputs published in the state database reach the daemon's
// routing table through the backlog drain, and their changes and removal follow.
#include "tests/module/World.h"
#include "tests/support/ErrorText.h"

namespace ModuleTest {
namespace {

class RouteMirror : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
    intf("Ethernet2", "et2", 2, "10.0.2.1/24");
    intf("Tunnel3", "tun3", 3, "192.0.2.1/32", "198.51.100.7");
    intf("Ethernet4", "et4", 4);  // known to the state database, no daemon address
  }
};

TEST_F(RouteMirror, ResolvesEveryKindOfNextHop) {
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}, {"", "10.0.2.2"}});
  publish(bgp, "10.0.2.128/25", {{"Ethernet1", ""}});          // et2's subnet serves the dest
  publish(bgp, "198.51.100.7/32", {{"Tunnel3", ""}});          // point-to-point: the peer
  publish(bgp, "172.20.0.0/16", {{"Ethernet1", "10.0.1.9"}});  // no cover: interface address
  publish(bgp, "192.168.0.0/16", {{"", "10.0.1.2"}})->routeTypeIs(1);  // blackhole: vias ignored
  publish(bgp, "0.0.0.0/0", {{"", "10.0.1.254"}});
  publish(bgp, "100.64.0.0/10", {{"", "10.0.1.3"}, {"", "10.9.9.9"}});  // second hop unreachable
  publish(bgp, "100.96.0.0/12", {{"Ethernet9", ""}});                   // interface not local
  publish(bgp, "100.112.0.0/12", {{"Ethernet4", ""}});                  // no address on it
  start();
  run();

  const std::map<std::string, std::string> want = {
      {"10.0.2.128/25", "pref 20 via 10.0.2.1 dev et2"},
      {"172.20.0.0/16", "pref 20 via 10.0.1.1 dev et1"},
      {"192.168.0.0/16", "pref 20 blackhole"},
      {"198.51.100.7/32", "pref 20 via 198.51.100.7 dev tun3"},
      {"203.0.113.0/24", "pref 20 via 10.0.1.2 dev et1, via 10.0.2.2 dev et2"},
  };
  EXPECT_EQ(daemonRoutes(8), want);
  EXPECT_TRUE(traced("Subnet length cannot be zero"));
  EXPECT_TRUE(traced("There is no interface with nexthop 10.9.9.9"));
  EXPECT_TRUE(traced("Interface Ethernet9is not local to us"));
  EXPECT_TRUE(traced("No ip address on interface, cannot add the route"));
  EXPECT_TRUE(traced("Successfully added blackhole route for dest 192.168.0.0/16"));
  EXPECT_TRUE(traced(" Successfully added route for dest 203.0.113.0/24 Proto: 8"));
  EXPECT_TRUE(
      traced("Interface Ethernet1 doesn't have ip address in same subnet as dest"
             "172.20.0.0/16"));

  // The unresolvable ones are parked, and the drain never retries them by itself.
  auto sm = root_->routingConfigSm()->routeInputDirSm()->routeInputSm("bgp");
  ASSERT_TRUE(sm);
  auto& parked = *sm->unresolvedRouteBacklog();
  EXPECT_EQ(parked.backlogCount(), 3u);
  EXPECT_TRUE(parked.backlog(key("100.64.0.0/10")));
  EXPECT_FALSE(parked.backlog(key("0.0.0.0/0")));
  const auto adds = corvd_call_count("rt_add");
  run(5.0);
  EXPECT_EQ(corvd_call_count("rt_add"), adds);
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u);
}

TEST_F(RouteMirror, ChangesInPlaceAndDeletesOnlyItsOwnEntries) {
  auto stat = input("static", 2, 1);
  auto bgp = input("bgp", 8, 20);
  publish(stat, "203.0.113.0/24", {{"", "10.0.2.9"}});
  auto r = publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  start();
  run();
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"), "pref 20 via 10.0.1.2 dev et1");
  const rt_head* head =
      rt_table_locate(daemonSock(addr("203.0.113.0")), sock_mask_by_len(SA_FAMILY_INET, 24));
  ASSERT_TRUE(head);
  ASSERT_EQ(head->rth_n_entries, 2u);

  // A via change is made in place: no delete, one change.
  const auto deletes = corvd_call_count("rt_delete");
  const auto changes = corvd_call_count("rt_change_s");
  r->viaDel(Routing::Via{Kanet::IntfId(""), addr("10.0.1.2")});
  r->viaIs(Routing::Via{Kanet::IntfId(""), addr("10.0.2.2")}, true);
  r->viaIs(Routing::Via{Kanet::IntfId(""), addr("10.0.1.5")}, true);
  run();
  EXPECT_EQ(corvd_call_count("rt_change_s"), changes + 1);  // three notifications, one update
  EXPECT_EQ(corvd_call_count("rt_delete"), deletes);
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"),
            "pref 20 via 10.0.2.2 dev et2, via 10.0.1.5 dev et1");
  EXPECT_TRUE(traced("Route already present in corvd, so just changing it."));

  // A route left without vias keeps its entry as it was.
  r->viaDel(Routing::Via{Kanet::IntfId(""), addr("10.0.2.2")});
  r->viaDel(Routing::Via{Kanet::IntfId(""), addr("10.0.1.5")});
  run();
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"),
            "pref 20 via 10.0.2.2 dev et2, via 10.0.1.5 dev et1");
  EXPECT_TRUE(traced("No vias to process"));

  // Withdrawal removes this protocol's entry and leaves the static one.
  bgp->routeDel(key("203.0.113.0/24"));
  run();
  EXPECT_TRUE(daemonRoutes(8).empty());
  EXPECT_EQ(daemonRoutes(2).at("203.0.113.0/24"), "pref 1 via 10.0.2.9 dev et2");
  EXPECT_TRUE(traced("Successfully deleted route from corvd for dest203.0.113.0/24"));
}

// A whole-collection resynchronisation after changes the reactor did not hear: it stops watching
// the routes gone, watches the new ones (whose changes then reach the daemon) and mirrors them.
TEST_F(RouteMirror, ResyncWatchesExactlyTheRoutesOfItsInput) {
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  publish(bgp, "198.18.0.0/15", {{"", "10.0.1.3"}});
  start();
  run();
  auto sm = root_->routingConfigSm()->routeInputDirSm()->routeInputSm("bgp");
  ASSERT_TRUE(sm);
  ASSERT_EQ(sm->routeCount(), 2u);

  sm->hasNotificationActiveIs(false);
  bgp->routeDel(key("198.18.0.0/15"));
  auto added = publish(bgp, "192.0.2.128/25", {{"", "10.0.2.7"}});
  sm->hasNotificationActiveIs(true);
  bgp->routeResync();
  EXPECT_EQ(sm->routeCount(), 2u);
  EXPECT_FALSE(sm->route(key("198.18.0.0/15")));
  ASSERT_TRUE(sm->route(key("192.0.2.128/25")));
  EXPECT_EQ(sm->route(key("192.0.2.128/25"))->owner(), sm.ptr());
  run();
  EXPECT_EQ(daemonRoutes(8).at("192.0.2.128/25"), "pref 20 via 10.0.2.7 dev et2");
  added->viaIs(Routing::Via{Kanet::IntfId(""), addr("10.0.1.9")}, true);
  run();
  EXPECT_EQ(daemonRoutes(8).at("192.0.2.128/25"),
            "pref 20 via 10.0.2.7 dev et2, via 10.0.1.9 dev et1");
}

TEST_F(RouteMirror, FailedDaemonAddIsReportedAndNotRetried) {
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  corvd_fail_rt_add(1);
  start();
  run();
  EXPECT_TRUE(daemonRoutes(8).empty());
  EXPECT_TRUE(traced("Could not add route to corvd( rt_add failure )"));
  // A later change of the route brings it in.
  bgp->route(key("203.0.113.0/24"))->tagIs(7);
  run();
  EXPECT_EQ(daemonRoutes(8).size(), 1u);
}

TEST_F(RouteMirror, RouteInputReactorsFollowTheDirectory) {
  auto bgp = input("bgp", 0, 20);  // no protocol yet
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  start();
  run();
  auto dirSm = root_->routingConfigSm()->routeInputDirSm();
  ASSERT_TRUE(dirSm);
  auto sm = dirSm->routeInputSm("bgp");
  ASSERT_TRUE(sm);
  EXPECT_FALSE(sm->initialized());
  EXPECT_FALSE(sm->routeBacklogSm());
  EXPECT_EQ(corvd_call_count("gw_init"), 0u);
  EXPECT_TRUE(daemonRoutes(8).empty());
  // Uninitialized, it watches the route all the same: a change is seen, and dropped.
  EXPECT_EQ(sm->routeCount(), 1u);
  bgp->route(key("203.0.113.0/24"))->tagIs(5);
  EXPECT_EQ(traced("void InterfaceRouteInfo::RouteInputSm::handleRoute(const Routing::RouteKey&)"
                   " uninitialized",
                   8),
            1);

  bgp->routingProtoIs(8);  // now it starts, and catches up on the existing route
  run();
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(corvd_call_count("gw_init"), 1u);
  EXPECT_EQ(daemonRoutes(8).size(), 1u);
  EXPECT_TRUE(traced("Intitiating gateway for protocol bgp"));
  EXPECT_TRUE(traced("Instantiating routeInputSm for protocolbgp"));

  // Clearing the configuration's directory leaves everything in place.
  config_->routeInputDirIs(nullptr);
  EXPECT_EQ(root_->routingConfigSm()->routeInputDirSm(), dirSm);
  EXPECT_EQ(dirSm->routeInputSm("bgp"), sm);

  // A second notification for a name whose input and reactor exist tears the reactor down and
  // withdraws the protocol's routes; it comes back only with the next notification.
  dir_->entityPtrDel(Kel::Name("bgp"));
  dir_->entityPtrIs(Kel::Name("bgp"), bgp);  // reactor gone after the removal ...
  EXPECT_TRUE(dirSm->routeInputSm("bgp"));   // ... and rebuilt by the new entry
  dirSm->handleRouteInputDir(Kel::Name("bgp"));
  EXPECT_FALSE(dirSm->routeInputSm("bgp"));
  EXPECT_TRUE(traced("Deleting routeInputSm for protocolbgp"));
  run();
  EXPECT_TRUE(daemonRoutes(8).empty());
  EXPECT_EQ(corvd_call_count("gw_free"), 2u);
}

TEST_F(RouteMirror, Ipv6RoutesResolveWithTheirOwnTexts) {
  daemonAddr(1, "2001:db8:1::1/64");
  auto bgp6 = input6("bgp6", 8, 20);
  publish6(bgp6, "2001:db8:100::/48", {{"", "2001:db8:1::2"}});
  publish6(bgp6, "2001:db8:200::/48", {{"", "2001:db8:9::9"}});
  publish6(bgp6, "::/0", {{"", "2001:db8:1::2"}});
  start();
  run();
  EXPECT_EQ(daemonRoutes(8), (std::map<std::string, std::string>{
                                 {"2001:db8:100::/48", "pref 20 via 2001:db8:1::2 dev et1"}}));
  EXPECT_TRUE(traced("There is no interface for nexthop 2001:db8:9::9"));
  EXPECT_TRUE(traced("Subnet length cannot be zero"));
  EXPECT_TRUE(traced("Intitiating gateway for protocol bgp6-redist"));
  EXPECT_TRUE(traced("Instantiating route6InputSm for protocolbgp6"));
  bgp6->routeDel(key6("2001:db8:100::/48"));
  run();
  EXPECT_TRUE(daemonRoutes(8).empty());
}

TEST_F(RouteMirror, GeneratedMutatorsRefuseBadParameters) {
  auto bgp = input("bgp", 8, 20);
  start();
  auto dirSm = root_->routingConfigSm()->routeInputDirSm();
  auto sm = dirSm->routeInputSm("bgp");
  EXPECT_EQ(errorOf([&] { sm->routeIs(nullptr); }),
            "null _route parameter to mutator for InterfaceRouteInfo::RouteInputSm::route not "
            "allowed\"");
  // Same parameters: the same reactor; a different one: refused, the member left as it was.
  EXPECT_EQ(dirSm->routeInputSmIs("bgp", bgp, sm->kernelIntfStatusDir(), sm->intfStatusManager()),
            sm);
  auto other = Kel::make<Routing::RouteInput>(Kel::Name("other"));
  EXPECT_EQ(errorOf<Kel::NameInUseException>([&] {
              dirSm->routeInputSmIs("bgp", other, sm->kernelIntfStatusDir(),
                                    sm->intfStatusManager());
            }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_routeInput has a different value of other not allowed");
  EXPECT_EQ(dirSm->routeInputSm("bgp"), sm);
}

using RouteMirrorDeath = RouteMirror;

// A via with neither a next hop nor an interface is a broken precondition: the drain stops the
// process, naming the expression and the handler.
TEST_F(RouteMirrorDeath, ViaWithoutHopOrInterfaceStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", ""}});
  start();
  EXPECT_DEATH(run(),
               "InterfaceRouteInfo\\.tin:[0-9]+: void "
               "InterfaceRouteInfo::RouteBacklogSm::doAddRoute\\(const Routing::RouteKey&, "
               "bool\\): Assertion `nexthop \\|\\| ifIndex' failed\\.");
}

}  // namespace
}  // namespace ModuleTest
