// corvd-sim's generic lines (get, set, ls, call, watch): paths from root-VRF through attributes and
// keyed members (keys with '/'), the IPv6 twins' names, a new backlogDelay never moving a pending
// drain, and every kind of bad input refused with the path named and nothing changed.
#include "tests/support/SimWorld.h"

namespace {

class GenericLines : public SimWorld {
 protected:
  void SetUp() override {
    SimWorld::SetUp();
    run("device et1 2\nintf Ethernet1 et1\nip Ethernet1 10.0.1.1/24\n"
        "device et2 3\nintf Ethernet2 et2\n"
        "input default bgp proto 8\nroute default bgp 10.9.0.0/16 via 10.0.1.2\n"
        "input default ripng proto 9 ipv6\nvrf default\nrun 1\n");
  }
};

const std::string kBgp = "root-default/routingConfigSm/routeInputDirSm/routeInputSm[bgp]";

TEST_F(GenericLines, PathsReachAttributesAndMembersByName) {
  EXPECT_EQ(run("get root-default/intfBacklog/backlogQuantum"), "0.08\n");
  EXPECT_EQ(run("set root-default/intfBacklog/backlogQuantum 0.5\nls root-default/intfBacklog"),
            "isNondestructing False\nzeroReferencesIs()\nbacklog {}\nbacklogQuantum 0.5\n"
            "backlogDelay 0.04\ndoAddBacklog()\n");
  // A key holding '/', through a keyed member and the entity its notifiee watches.
  EXPECT_EQ(run("get " + kBgp + "/route[10.9.0.0/16]"), "10.9.0.0/16\n");
  EXPECT_EQ(run("ls " + kBgp + "/route[10.9.0.0/16]"),
            "isNondestructing False\nkey 10.9.0.0/16\ntag 0\nrouteType 0\n"
            "via {'Via(, 10.0.1.2)': True}\n");
  EXPECT_EQ(run("ls root-default/routingConfigSm/routeInputDirSm/routeInputSm"), "bgp bgp\n");
  // The IPv6 tree answers to its own names.
  EXPECT_EQ(run("get root-default/routing6ConfigSm/route6InputDirSm/route6InputSm[ripng]/"
                "route6Backlog/backlogDelay"),
            "0.04\n");
  EXPECT_EQ(run("call " + kBgp +
                "/routeBacklogSm doAddBacklog 10.1.0.0/16\n"
                "get " +
                kBgp + "/routeBacklog/backlog"),
            "{'10.1.0.0/16': True}\n");
  // A flap for an interface the drain already handles is accepted and carried out.
  run("call root-default/intfBacklog doAddBacklog Ethernet1 True");
  EXPECT_EQ(run("get root-default/intfBacklog/backlog[Ethernet1]/flapInterface"), "True\n");
  run("run 1");
  EXPECT_EQ(run("get root-default/intfBacklog/backlog"), "{}\n");
}

TEST_F(GenericLines, NewBacklogDelayNeverMovesAPendingDrain) {
  const auto sm = sim_->root("default")->intfBacklogSm();
  ASSERT_FALSE(sm->backlogScheduled());
  run("set root-default/intfBacklog/backlogDelay 2");  // nothing pending: scheduled afresh
  ASSERT_TRUE(sm->backlogScheduled());
  const double armed = sm->backlogClockTimeMin();
  EXPECT_DOUBLE_EQ(armed, Kel::activityManager()->currentTime() + 2);
  run("set root-default/intfBacklog/backlogDelay 0.01");
  EXPECT_EQ(sm->backlogClockTimeMin(), armed);
  run("set root-default/intfBacklog/backlogDelay 7");
  EXPECT_EQ(sm->backlogClockTimeMin(), armed);
}

TEST_F(GenericLines, WatchReportsChangesOncePerLineUntilUnwatchedOrStopped) {
  EXPECT_EQ(run("watch root-default/intfBacklog\nwatch " + kBgp + "/routeBacklog\n"), "");
  // One line's changes, each attribute once, in the order of its first change, watch by watch.
  EXPECT_EQ(run("set root-default/intfBacklog/backlogQuantum 0.25\n"
                "route default bgp 10.8.0.0/16 via 10.0.1.2\n"),
            "root-default/intfBacklog: backlogQuantum 0.25\n" + kBgp +
                "/routeBacklog: backlog {'10.8.0.0/16': True}\n");
  EXPECT_EQ(run("run 1\n"), kBgp + "/routeBacklog: backlog {}\n");
  EXPECT_EQ(error("watch root-default/intfBacklog"),
            "t.scn:1: root-default/intfBacklog: watched already");
  EXPECT_EQ(error("watch root-default/intfBacklog/backlogQuantum"),
            "t.scn:1: root-default/intfBacklog/backlogQuantum: "
            "InterfaceRouteInfo::IntfBacklog::backlogQuantum is not an object");
  EXPECT_EQ(
      run("unwatch root-default/intfBacklog\nset root-default/intfBacklog/backlogQuantum 1\n"), "");
  EXPECT_EQ(error("unwatch root-default/intfBacklog"),
            "t.scn:1: root-default/intfBacklog: not watched");
  // Stopping the VRF drops its watches (they would keep its reactors alive).
  run("stop default");
  EXPECT_EQ(error("unwatch " + kBgp + "/routeBacklog"),
            "t.scn:1: " + kBgp + "/routeBacklog: not watched");
}

TEST_F(GenericLines, BadInputNamesThePathAndChangesNothing) {
  const std::string state = "show interfaces\nshow routes\nls root-default/intfBacklog\nls " +
                            kBgp + "/routeBacklog\nls root-default/intfBacklogSm\n";
  const std::string before = run(state);
  const std::pair<std::string, std::string> cases[] = {
      {"get root-green/intfBacklog", "t.scn:1: root-green/intfBacklog: no started vrf 'green'"},
      {"get intfBacklog/backlogQuantum",
       "t.scn:1: intfBacklog/backlogQuantum: a path starts at root-VRF"},
      {"get root-default/intfBacklog/quantum",
       "t.scn:1: root-default/intfBacklog/quantum: InterfaceRouteInfo::IntfBacklog has no "
       "attribute 'quantum'"},
      {"get root-default/intfBacklog/backlog[Ethernet1",
       "t.scn:1: root-default/intfBacklog/backlog[Ethernet1: '[' without ']'"},
      {"ls " + kBgp + "/route[10.8.0.0/16]",
       "t.scn:1: " + kBgp + "/route[10.8.0.0/16]: no member '10.8.0.0/16' in route"},
      {"ls root-default/intfBacklog/backlogQuantum/x",
       "t.scn:1: root-default/intfBacklog/backlogQuantum/x: "
       "InterfaceRouteInfo::IntfBacklog::backlogQuantum is not an object"},
      {"set root-default/intfBacklog/backlogDelay inf",
       "t.scn:1: root-default/intfBacklog/backlogDelay: backlogDelay: inf not allowed (seconds "
       "must be finite and not negative)"},
      {"set root-default/intfBacklog/backlogQuantum nan",
       "t.scn:1: root-default/intfBacklog/backlogQuantum: backlogQuantum: nan not allowed "
       "(seconds must be finite and not negative)"},
      {"set root-default/intfBacklog/backlogQuantum -1",
       "t.scn:1: root-default/intfBacklog/backlogQuantum: backlogQuantum: -1 not allowed "
       "(seconds must be finite and not negative)"},
      {"set root-default/intfBacklog/backlogQuantum 0.1s",
       "t.scn:1: root-default/intfBacklog/backlogQuantum: junk at column 3 deserializing 0.1s"},
      {"set root-default/intfBacklogSm/backlogCount 3",
       "t.scn:1: root-default/intfBacklogSm/backlogCount: "
       "InterfaceRouteInfo::IntfBacklogSm::backlogCount is not settable"},
      {"set root-default/intfBacklog/backlogQuantum", "t.scn:1: usage: set PATH VALUE"},
      {"call root-default/intfBacklog doAddBacklog Ethernet2 True",
       "t.scn:1: root-default/intfBacklog: cannot flap interface Ethernet2: it has no status "
       "reactor (intfStatusSm) yet"},
      {"call root-default/intfBacklog doAddBacklog Ethernet1 yes",
       "t.scn:1: root-default/intfBacklog: expected 'True' or 'False' at column 0"},
      {"call root-default/intfBacklog doAddBacklog Ethernet1",
       "t.scn:1: root-default/intfBacklog: takes 2 argument(s), given 1"},
      {"call " + kBgp + "/routeBacklogSm doPrepareToDie",
       "t.scn:1: " + kBgp +
           "/routeBacklogSm: InterfaceRouteInfo::RouteBacklogSm::doPrepareToDie is not an "
           "operation that can be called"},
      {"call " + kBgp + "/routeBacklogSm doAddBacklog 10.1.0.1/16",
       "t.scn:1: " + kBgp + "/routeBacklogSm: Prefix::validAsPrefix != true not allowed"},
      {"call " + kBgp + "/routeInput doAddBacklog 10.1.0.0/16",
       "t.scn:1: " + kBgp + "/routeInput: Routing::RouteInput has no attribute 'doAddBacklog'"},
  };
  for (const auto& [line, want] : cases) {
    SCOPED_TRACE(line);
    EXPECT_EQ(error(line), want);
    EXPECT_EQ(run(state), before);
  }
}

}  // namespace
