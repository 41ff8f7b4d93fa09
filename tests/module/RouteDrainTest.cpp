// The route backlog drain: batches bounded by the quantum with the clock re-armed after each,
// merged keys, the test environment variable, and the exact entry/exit trace of one route.
#include <cstdlib>

#include "tests/module/World.h"

namespace ModuleTest {
namespace {

class RouteDrain : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
  }
  void TearDown() override {
    unsetenv("INTERFACEROUTEINFOSM_TEST");
    World::TearDown();
  }
  Kel::Ptr<RouteBacklogSm> backlogSm(const char* name) {
    return root_->routingConfigSm()->routeInputDirSm()->routeInputSm(name)->routeBacklogSm();
  }
  void publishMany(const Kel::Ptr<Routing::RouteInput>& in, int n) {
    for (int i = 0; i < n; ++i) {
      const std::string p = "10.100." + std::to_string(i) + ".0/24";
      publish(in, p.c_str(), {{"", "10.0.1.2"}});
    }
  }
};

TEST_F(RouteDrain, BatchesAreBoundedByTheQuantumAndReArmed) {
  auto bgp = input("bgp", 8, 20);
  publishMany(bgp, 100);
  start();
  auto sm = backlogSm("bgp");
  ASSERT_TRUE(sm);
  EXPECT_TRUE(sm->backlogScheduled());
  EXPECT_DOUBLE_EQ(sm->backlogClockTimeMin(), Kel::now() + 0.04);
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 100u);

  // Every read of the clock costs 1/64 s: a batch of 1/8 s ends when the time spent reaches the
  // quantum exactly, after 8 keys.
  sm->routeBacklog()->backlogQuantumIs(1.0 / 8);
  Kel::activityManager()->manualTime()->stepIs(1.0 / 64);
  Kel::activityManager()->runUntil(sm->backlogClockTimeMin());
  Kel::activityManager()->manualTime()->stepIs(0.0);
  EXPECT_EQ(sm->backlogCount(), 1u);
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 92u);
  EXPECT_EQ(daemonRoutes(8).size(), 8u);
  EXPECT_TRUE(sm->backlogScheduled());
  // Re-armed for the delay after the batch (the stepped clock moved once more since).
  EXPECT_NEAR(sm->backlogClockTimeMin(), Kel::now() + 0.04, 1.0 / 64);

  // A bigger quantum takes effect at the next batch; the rest drains without loss.
  sm->routeBacklog()->backlogQuantumIs(10.0);
  run();
  EXPECT_EQ(sm->backlogCount(), 2u);
  EXPECT_EQ(daemonRoutes(8).size(), 100u);
  EXPECT_FALSE(sm->backlogScheduled());
  EXPECT_EQ(sm->backlogClockTimeMin(), Kel::endOfTime);

  // Many changes of one route before a drain cost one daemon update.
  auto r = bgp->route(key("10.100.7.0/24"));
  const auto changes = corvd_call_count("rt_change_s");
  for (uint32_t t = 1; t <= 20; ++t) r->tagIs(t);
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 1u);
  run();
  EXPECT_EQ(corvd_call_count("rt_change_s"), changes + 1);

  // An empty drain still counts as a batch and leaves the clock disarmed.
  sm->routeBacklog()->backlogDelayIs(0.5);  // reschedules
  EXPECT_TRUE(sm->backlogScheduled());
  run();
  EXPECT_EQ(sm->backlogCount(), 4u);
  EXPECT_FALSE(sm->backlogScheduled());
}

TEST_F(RouteDrain, TestEnvironmentConsumesKeysWithoutTheDaemon) {
  setenv("INTERFACEROUTEINFOSM_TEST", "1", 1);
  auto bgp = input("bgp", 8, 20);
  publishMany(bgp, 5);
  start();
  run();
  auto sm = backlogSm("bgp");
  EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u);
  EXPECT_EQ(sm->backlogCount(), 1u);
  EXPECT_EQ(corvd_call_count("rt_open"), 0u);
  EXPECT_TRUE(daemonRoutes(8).empty());
  unsetenv("INTERFACEROUTEINFOSM_TEST");
  bgp->route(key("10.100.1.0/24"))->tagIs(3);
  run();
  EXPECT_EQ(daemonRoutes(8).size(), 1u);
}

// The messages are behaviour: one route's way from its notification to the daemon.
TEST_F(RouteDrain, TraceOfOneRoute) {
  auto bgp = input("bgp", 8, 20);
  start();
  run();
  rec_.clear();
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  run();
  std::vector<std::string> got;
  for (const auto& r : rec_.records()) got.push_back(std::to_string(r.level) + " " + r.message);
  const std::string sm = "void InterfaceRouteInfo::RouteInputSm::";
  const std::string bl = "void InterfaceRouteInfo::RouteBacklogSm::";
  const std::string k = "const Routing::RouteKey&";
  const std::vector<std::string> want = {
      "8 " + sm + "handleRoute(" + k + ")RouteKey 203.0.113.0/24",
      "8 " + sm + "handleRoute(" + k + ") add 203.0.113.0/24 to backlog",
      "8 " + bl + "doAddBacklog(" + k + ") key 203.0.113.0/24",
      "8 " + bl + "scheduleBacklog()",
      "8 " + sm + "handleRoute(" + k + ")END",
      // The via arrives next: the same key again, merged in the backlog (no new schedule).
      "8 " + sm + "KelRoute::handleVia()BEGIN",
      "8 " + sm + "handleRoute(" + k + ")RouteKey 203.0.113.0/24",
      "8 " + sm + "handleRoute(" + k + ") add 203.0.113.0/24 to backlog",
      "8 " + bl + "doAddBacklog(" + k + ") key 203.0.113.0/24",
      "8 " + sm + "handleRoute(" + k + ")END",
      "8 " + sm + "KelRoute::handleVia()END",
      "8 " + bl + "handleBacklog() backlog size 1",
      // Taking the key out notifies the backlog's reactor, which is still scheduled.
      "8 " + bl + "scheduleBacklog()",
      "8 " + bl + "doAddRoute(" + k + ", bool)BEGIN",
      "8 RouteKey 203.0.113.0/24",
      "0 Route not present in corvd, so adding it afresh.",
      "0  Successfully added route for dest 203.0.113.0/24 Proto: 8",
      "8 " + bl + "doAddRoute(" + k + ", bool)END",
      "8 backlog size 0",
  };
  EXPECT_EQ(got, want);
}

}  // namespace
}  // namespace ModuleTest
