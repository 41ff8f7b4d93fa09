// Interface mirroring through the module: reconciliation, the status reactor's timer, flaps, the
// VRF selection rule, loopback, and the interface backlog's drain.
#include <algorithm>
#include <cstdlib>

#include "tests/module/World.h"

namespace ModuleTest {
namespace {

class IntfMirror : public World {
 protected:
  // Ethernet1 (et1, ifIndex 5, 10.0.1.1/24) and Ethernet2 (et2, 6, 10.0.2.1/24), mirrored.
  void twoAddressedInterfaces() {
    device("et1", 5);
    device("et2", 6);
    status("Ethernet1", "et1");
    status("Ethernet2", "et2");
    ip("default", "Ethernet1", "10.0.1.1/24");
    ip("default", "Ethernet2", "10.0.2.1/24");
    start();
    settle();
  }
};

TEST_F(IntfMirror, ReconciliationAddsFlapsAndDeletesWithItsExactTraces) {
  device("et1", 5);
  status("Ethernet1", "et1", 9000);
  ip("default", "Ethernet1", "10.0.1.1/24", {"10.0.9.1/24"});
  ip6("Ethernet1", {"2001:db8:1::1/64", "fe80::1/64"});
  start();
  settle();
  EXPECT_EQ(daemonTable(), reference());
  // Only the link-local address is marked so (then it goes again).
  for (const char* a : {"2001:db8:1::1", "fe80::1"}) {
    const if_addr* ifa = if_withdstaddr(daemonSock(a));
    ASSERT_TRUE(ifa) << a;
    EXPECT_EQ((ifa->ifa_info.ifi_state & IFS_LINKLOCAL) != 0, a[0] == 'f') << a;
  }
  ip6("Ethernet1", {"2001:db8:1::1/64"});
  settle();
  std::vector<std::string> ev = messages(rec_, 0);
  ev.erase(ev.begin(), std::find(ev.begin(), ev.end(),
                                 "Interface Ethernet1 with ifIndex 5 has been added to corvd"));
  EXPECT_EQ(ev, (std::vector<std::string>{
                    "Interface Ethernet1 with ifIndex 5 has been added to corvd",
                    "Ip Address 10.0.1.1/24 of interface Ethernet1 added ",
                    "Ip Address 10.0.9.1/24 of interface Ethernet1 added ",
                    "IP6 Address 2001:db8:1::1/64 added on interface Ethernet1",
                    "IP6 Address fe80::1/64 added on interface Ethernet1",
                    "Ip6 address fe80::1/64 of interface Ethernet1deleted",
                }));
  EXPECT_TRUE(traced("Interface: Ethernet1 FlapInterface: 0", 8));
  EXPECT_TRUE(traced("Interface Ethernet1 has valid ipv4 address", 8));
  EXPECT_TRUE(traced("Interface Ethernet1 has valid ipv6 address", 8));

  // Re-created under a new ifIndex: one drain flaps it and gives the new link its addresses;
  // a primary with another mask is deleted and added again.
  rec_.clear();
  device("et1", 6);
  ip("default", "Ethernet1", "10.0.1.1/16", {"10.0.9.1/24"});
  settle();
  EXPECT_EQ(daemonTable(), reference());
  EXPECT_EQ(messages(rec_, 0),
            (std::vector<std::string>{
                "Flap the interface in corvd",
                "Delete interface Ethernet1 with ifIndex 5 from corvd to flap it",
                "Interface Ethernet1 with ifIndex 6 has been added to corvd",
                "Ip Address 10.0.1.1/16 of interface Ethernet1 added ",
                "Ip Address 10.0.9.1/24 of interface Ethernet1 added ",
                "IP6 Address 2001:db8:1::1/64 added on interface Ethernet1",
            }));

  // Stale addresses go; the IPv6 text has no blank before "deleted".
  rec_.clear();
  ip("default", "Ethernet1", "10.0.1.1/16");
  ip6("Ethernet1", {});
  settle();
  EXPECT_EQ(messages(rec_, 0), (std::vector<std::string>{
                                   "Ip address 10.0.9.1/24 of interface Ethernet1 deleted",
                                   "Ip6 address 2001:db8:1::1/64 of interface Ethernet1deleted",
                               }));

  // No primary (0.0.0.0) is no address: the one left, now a secondary, is kept as it is.
  rec_.clear();
  ip("default", "Ethernet1", "", {"10.0.1.1/16"});
  settle();
  EXPECT_TRUE(messages(rec_, 0).empty());
  EXPECT_EQ(daemonTable(), reference());

  // In neither status: the link goes with one dellink, and the reactor with it.
  rec_.clear();
  const auto dellinks = corvd_call_count("if_conf_dellink");
  ipDel("default", "Ethernet1");
  ip6Del("Ethernet1");
  settle();
  EXPECT_EQ(corvd_call_count("if_conf_dellink"), dellinks + 1);
  EXPECT_TRUE(traced("Delete interface that has no entry in both ipStatus and ip6Status", 8));
  EXPECT_EQ(messages(rec_, 0),
            (std::vector<std::string>{"Delete interface Ethernet1 with ifIndex 6 from corvd"}));
  EXPECT_FALSE(root_->intfBacklogSm()->intfStatusSm("Ethernet1"));
  EXPECT_EQ(daemonTable(), reference());

  // Not local (no kernel device): "is not local to us", written without a blank.
  ip("default", "Ethernet1", "10.0.1.1/16");
  deviceDel("et1");
  rec_.clear();
  settle();
  EXPECT_TRUE(traced("Interface Ethernet1is not local to us", 8));
  EXPECT_EQ(daemonTable(), reference());
}

TEST_F(IntfMirror, MovedAddressIsNeverOnTwoLinksWhateverTheBacklogOrder) {
  OverlapObserver observer;
  twoAddressedInterfaces();
  // Swap the two addresses in one burst, then back, so each interface comes first once.
  for (int round = 0; round < 2; ++round) {
    rec_.clear();
    const bool flip = round == 0;
    // Round 0 queues Ethernet2 first, round 1 Ethernet1.
    ip("default", flip ? "Ethernet2" : "Ethernet1", "10.0.1.1/24");
    ip("default", flip ? "Ethernet1" : "Ethernet2", "10.0.2.1/24");
    settle();
    EXPECT_EQ(daemonTable(), reference());
    EXPECT_TRUE(traced(" Deferring adding addresses for Ethernet1", 8) ||
                traced(" Deferring adding addresses for Ethernet2", 8))
        << ::testing::PrintToString(messages(rec_, 8));
  }
  EXPECT_GT(observer.reports(), 0);
  EXPECT_EQ(observer.overlaps(), 0);
  EXPECT_EQ(root_->intfBacklog()->needCleanCount(), 0u);
}

TEST_F(IntfMirror, NeedCleanCountFollowsEveryWayAnEntryChangesOrLeaves) {
  start();
  IntfBacklog& b = *root_->intfBacklog();
  b.doAddBacklog("A", false);
  b.doAddBacklog("B", true);
  b.doAddBacklog("B", false);  // a request without flap never clears a pending one
  EXPECT_TRUE(b.backlog("B")->flapInterface());
  EXPECT_EQ(b.needCleanCount(), 2u);
  b.backlog("A")->needCleanIs(false);
  b.backlog("A")->needCleanIs(false);
  EXPECT_EQ(b.needCleanCount(), 1u);
  b.backlog("A")->needCleanIs(true);
  EXPECT_EQ(b.needCleanCount(), 2u);
  Kel::Ptr<IntfBackLogEntry> kept = b.backlog("B");
  b.backlogDel("B");  // leaves with the flag set
  EXPECT_EQ(b.needCleanCount(), 1u);
  kept->needCleanIs(false);  // no longer a member: counts nowhere
  EXPECT_EQ(b.needCleanCount(), 1u);
  // Test mode 1 deletes without processing: the count follows.
  ::setenv("INTERFACEROUTEINFOSM_TEST", "1", 1);
  b.doAddBacklog("C", false);
  settle();
  ::unsetenv("INTERFACEROUTEINFOSM_TEST");
  EXPECT_EQ(b.backlogCount(), 0u);
  EXPECT_EQ(b.needCleanCount(), 0u);

  // An interface deleted before step 12 leaves with its flag set; had the count kept it, every
  // later interface would wait for ever.
  device("et1", 5);
  status("Ethernet1", "et1");
  ip("default", "Ethernet1", "10.0.1.1/24");
  settle();
  b.doAddBacklog("Ghost", false);  // no status at all: deleted at once
  ip("default", "Ethernet1", "10.0.1.2/24");
  settle();
  EXPECT_EQ(b.needCleanCount(), 0u);
  EXPECT_EQ(daemonTable(), reference());
}

TEST_F(IntfMirror, DrainStopsAtQuantumResumesAtBookmarkAndHonoursTestModes) {
  start();
  settle();
  IntfBacklogSm& sm = *root_->intfBacklogSm();
  IntfBacklog& b = *root_->intfBacklog();
  const auto runs = sm.backlogCount();
  // Every read of the time advances 1/32 s: a run of quantum 1/16 s handles exactly two entries
  // (start, after one, after two: 2/32 is not strictly less than the budget).
  Kel::activityManager()->manualTime()->stepIs(1.0 / 32);
  b.backlogQuantumIs(1.0 / 16);
  ::setenv("INTERFACEROUTEINFOSM_TEST", "2", 1);
  for (const char* id : {"A", "B", "C", "D", "E"}) b.doAddBacklog(id, false);
  Kel::activityManager()->runOnce();
  Kel::activityManager()->runUntil(Kel::activityManager()->currentTime() + 0.04);
  EXPECT_EQ(sm.backlogCount(), runs + 1);
  EXPECT_EQ(sm.backlogBookmark(), Kanet::IntfId("C"));
  EXPECT_TRUE(sm.backlogScheduled());
  EXPECT_EQ(b.backlogCount(), 5u);  // mode 2 keeps everything
  // The bookmarked entry goes: the next run starts at its successor.
  ::setenv("INTERFACEROUTEINFOSM_TEST", "1", 1);
  b.backlogDel("C");
  Kel::activityManager()->runUntil(Kel::activityManager()->currentTime() + 0.1);
  EXPECT_FALSE(b.backlog("D"));
  EXPECT_FALSE(b.backlog("E"));
  EXPECT_TRUE(b.backlog("A"));
  ::setenv("INTERFACEROUTEINFOSM_TEST", "-3", 1);
  settle();
  ::unsetenv("INTERFACEROUTEINFOSM_TEST");
  Kel::activityManager()->manualTime()->stepIs(0);
  EXPECT_EQ(b.backlogCount(), 0u);
  EXPECT_FALSE(sm.backlogScheduled());

  // A change while a run is pending does not move it.
  b.doAddBacklog("X", false);
  const double armed = sm.backlogClockTimeMin();
  Kel::activityManager()->manualTime()->advance(0.01);
  b.doAddBacklog("Y", false);
  b.backlogDelayIs(1.0);
  EXPECT_EQ(sm.backlogClockTimeMin(), armed);
}

TEST_F(IntfMirror, FlagChangesCoalesceAndOtherChangesRefreshAtOnce) {
  device("et1", 5, kUp);
  status("Loopback7", "et1");
  ip("default", "Loopback7", "10.7.7.7/32");
  start();
  settle();
  if_link* l = ifl_locate_index(5);
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->ifl_state, krt_if_flags(kUp) | 0x8000000u);  // a loopback id, not running
  rec_.clear();
  const auto addlinks = corvd_call_count("if_conf_addlink");
  deviceFlags("et1", kUp | kRunning);
  deviceFlags("et1", kUp);
  deviceFlags("et1", kUp | kRunning | 0x1000);
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), addlinks);
  EXPECT_EQ(traced(" kernelNotifClock armed", 8), 1);
  settle();
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), addlinks + 1);
  EXPECT_EQ(ifl_locate_index(5)->ifl_state,
            krt_if_flags(kUp | kRunning | 0x1000) | 0x800000u | 0x8000000u);
  EXPECT_TRUE(traced("Kernel flags: " + std::to_string(ifl_locate_index(5)->ifl_state), 8));

  // A MAC change while the flag timer is armed refreshes at once and disarms it.
  rec_.clear();
  deviceFlags("et1", kUp);
  deviceMac("et1", "02:00:00:00:00:09");
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), addlinks + 2);
  EXPECT_TRUE(traced(" kernelNotifClock disarmed", 8));
  EXPECT_EQ(root_->intfBacklogSm()->intfStatusSm("Loopback7")->kernelNotifClockTimeMin(),
            Kel::endOfTime);
  settle();
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), addlinks + 2);
  mtu("Loopback7", 1400);
  EXPECT_EQ(ifl_locate_index(5)->ifl_mtu, 1400u);
  EXPECT_EQ(daemonTable(), reference());

  // An oper-status change only asks for a flap: the link is deleted and added again later.
  const auto dellinks = corvd_call_count("if_conf_dellink");
  oper("Loopback7", false);
  EXPECT_TRUE(root_->intfBacklog()->backlog("Loopback7")->flapInterface());
  EXPECT_EQ(corvd_call_count("if_conf_dellink"), dellinks);
  settle();
  EXPECT_EQ(corvd_call_count("if_conf_dellink"), dellinks + 1);
  EXPECT_EQ(daemonTable(), reference());

  // The status is deleted and made again before the backlog drains: the link keeps its address
  // (no dellink), takes the new MTU, and later changes of the new status still reach it.
  statusDel("Loopback7");
  status("Loopback7", "et1", 1600);
  settle();
  EXPECT_EQ(corvd_call_count("if_conf_dellink"), dellinks + 1);
  EXPECT_EQ(ifl_locate_index(5)->ifl_mtu, 1600u);
  mtu("Loopback7", 1300);
  EXPECT_EQ(ifl_locate_index(5)->ifl_mtu, 1300u);
  EXPECT_EQ(daemonTable(), reference());
}

// A flapped interface whose addresses wait for another entry's cleaning stays queued: it is
// flapped once, not again when it comes round.
TEST_F(IntfMirror, DeferredInterfaceIsFlappedOnce) {
  twoAddressedInterfaces();
  const auto dellinks = corvd_call_count("if_conf_dellink");
  rec_.clear();
  oper("Ethernet1", false);
  ip("default", "Ethernet2", "10.0.2.1/16");  // queued behind it, still to be cleaned
  settle();
  EXPECT_TRUE(traced(" Deferring adding addresses for Ethernet1", 8));
  EXPECT_EQ(corvd_call_count("if_conf_dellink"), dellinks + 1);
  EXPECT_EQ(traced("Delete interface Ethernet1 with ifIndex 5 from corvd to flap it"), 1);
  EXPECT_EQ(daemonTable(), reference());
}

// A resynchronisation of the VRF's interfaces after changes the address reactor did not hear:
// it stops watching the interface gone and queues what it still lists.
TEST_F(IntfMirror, AddressResyncWatchesExactlyTheVrfsInterfaces) {
  twoAddressedInterfaces();
  auto sm = root_->vrfIpIntfStatusSm()->ipIntfStatusSm();
  ASSERT_TRUE(sm);
  ASSERT_EQ(sm->ipIntfStatusCount(), 2u);
  sm->hasNotificationActiveIs(false);
  ipDel("default", "Ethernet2");
  sm->hasNotificationActiveIs(true);
  ipStatus_->vrfIpIntfStatus(Ip::VrfName("default"))->ipIntfStatusResync();
  EXPECT_EQ(sm->ipIntfStatusCount(), 1u);
  EXPECT_FALSE(sm->ipIntfStatus(Kanet::IntfId("Ethernet2")));
  EXPECT_TRUE(sm->ipIntfStatus(Kanet::IntfId("Ethernet1")));
  EXPECT_TRUE(root_->intfBacklog()->backlog(Kanet::IntfId("Ethernet1")));
}

TEST_F(IntfMirror, VrfSelectionRuleQueuesOnlyTheServedVrf) {
  device("et1", 5);
  device("et2", 6);
  status("Ethernet1", "et1");
  status("Ethernet2", "et2");
  start();
  rec_.clear();
  ip("red", "Ethernet2", "10.0.2.1/24");
  EXPECT_TRUE(traced("Looking for vrf default. Found vrf red", 8));
  EXPECT_EQ(root_->intfBacklog()->backlogCount(), 0u);
  ipStatus_->vrfIpIntfStatusIs(Ip::VrfName(), Kel::make<Ip::VrfIpIntfStatus>(Ip::VrfName()));
  EXPECT_TRUE(traced("Empty vrfName, expected a valid vrfName", 8));

  rec_.clear();
  ip("default", "Ethernet1", "10.0.1.1/24");
  EXPECT_EQ(messages(rec_, 0), (std::vector<std::string>{
                                   "Instantiating IpIntfStatusSm for vrf default",
                                   "IpIntfStatusSm initialized",
                               }));
  ip("default", "Ethernet2", "10.0.2.1/24");
  settle();
  EXPECT_EQ(daemonTable(), reference());
  EXPECT_EQ(daemonTable().size(), 2u);

  // The served VRF's entry goes: every interface still listed is queued, the reactor removed.
  rec_.clear();
  vrfDel("default");
  EXPECT_EQ(messages(rec_, 0), (std::vector<std::string>{"Destroying ipIntfStatusSm of vrfdefault",
                                                         "Deleting all interfaces"}));
  EXPECT_FALSE(root_->vrfIpIntfStatusSm()->ipIntfStatusSm());
  EXPECT_EQ(root_->intfBacklog()->backlogCount(), 2u);
  settle();
  EXPECT_TRUE(daemonTable().empty());

  // IPv6 wording: no VRF name, the IPv4 "initialized" text.
  rec_.clear();
  ip6Status_->vrfIp6IntfStatusNew(Ip::VrfName("default"));
  EXPECT_EQ(messages(rec_, 0), (std::vector<std::string>{"Initializing ipIntfStatusSm",
                                                         "IpIntfStatusSm initialized"}));
  rec_.clear();
  ip6Status_->vrfIp6IntfStatusDel(Ip::VrfName("default"));
  EXPECT_EQ(messages(rec_, 0),
            (std::vector<std::string>{"Destroying ipIntfStatusSm", "Deleting all interfaces"}));
}

TEST_F(IntfMirror, LoopbackIsEnteredOnEveryKernelDeviceChange) {
  device("lo", 1, kUp | kRunning | 0x8);
  start();
  EXPECT_EQ(daemonTable(), reference());
  EXPECT_EQ(ifl_locate_index(1)->ifl_state,
            krt_if_flags(kUp | kRunning | 0x8) | 0x800000u | 0x8000000u);
  EXPECT_EQ(messages(rec_, 0).back(), "IP6 Address ::1/0 added on interface lo");
  rec_.clear();
  device("et9", 9);  // any device
  EXPECT_EQ(messages(rec_, 0),
            (std::vector<std::string>{"Interface lo had been added to corvd",
                                      "Ip Address 127.0.0.1/24 of interface lo added ",
                                      "IP6 Address ::1/0 added on interface lo"}));
  EXPECT_EQ(daemonTable(), reference());
  // Without "lo", a change traces the entry and adds nothing.
  deviceDel("lo");
  rec_.clear();
  device("et8", 8);
  EXPECT_TRUE(messages(rec_, 0).empty());
}

TEST_F(IntfMirror, FlapRequestForAnInterfaceWithoutReactorIsABrokenPrecondition) {
  device("et1", 5);
  status("Ethernet1", "et1");
  ip("default", "Ethernet1", "10.0.1.1/24");
  start();
  root_->intfBacklog()->doAddBacklog("Ethernet1", true);
  EXPECT_DEATH(settle(),
               "InterfaceRouteInfo.tin:[0-9]+: bool "
               "InterfaceRouteInfo::IntfBacklogSm::processInterface\\(Kanet::IntfId, bool\\): "
               "Assertion `intfStatusSm\\( intfId \\)' failed\\.");
}

}  // namespace
}  // namespace ModuleTest
