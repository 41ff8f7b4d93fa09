// Teardown: reactors whose owner goes away prepare to die first, once. Dropping a started Root or
// replacing the route input directory withdraws the module's routes and frees their gateways;
// links and addresses stay; a reactor the module itself replaces (a protocol change) or already
// prepared is not prepared again.
#include "tests/module/World.h"

namespace ModuleTest {
namespace {

class Teardown : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    intf("Ethernet1", "et1", 1, "10.0.1.1/24");
    daemonAddr(1, "2001:db8:1::1/64");
  }
};

TEST_F(Teardown, DroppedRootWithdrawsEveryProtocolOnceAndLeavesTheInterfaces) {
  auto bgp = input("bgp", 8, 20);
  auto stat = input("static", 2, 1);
  auto ospf = input("ospf", 7, 110);
  auto bgp6 = input6("bgp6", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  publish(bgp, "198.51.100.0/24", {{"", "10.0.1.3"}});
  publish(stat, "192.0.2.0/24", {{"", "10.0.1.4"}});
  publish(ospf, "198.18.0.0/24", {{"", "10.0.1.5"}});
  publish6(bgp6, "2001:db8:100::/48", {{"", "2001:db8:1::2"}});
  start();
  run();
  ASSERT_EQ(rt_entry_count(), 5u);

  // The ospf input leaves the directory: the module withdraws it itself (one gw_free).
  const auto frees = corvd_call_count("gw_free");
  dir_->entityPtrDel(Kel::Name("ospf"));
  run();
  EXPECT_EQ(corvd_call_count("gw_free"), frees + 1);
  EXPECT_TRUE(daemonRoutes(7).empty());

  // A protocol change replaces the backlog reactor without preparing it: the old gateway stays.
  stat->routingProtoIs(3);
  run();
  EXPECT_EQ(corvd_call_count("gw_free"), frees + 1);

  const auto links = if_link_count();
  const auto addrs = if_addr_count();
  rec_.clear();
  root_ = nullptr;
  theRootDel();
  // bgp, static (its current gateway) and bgp6: each withdrawn and freed once, ospf not again.
  EXPECT_EQ(corvd_call_count("gw_free"), frees + 4);
  EXPECT_TRUE(daemonRoutes(8).empty());
  EXPECT_TRUE(daemonRoutes(3).empty());
  EXPECT_EQ(rt_entry_count(), 1u);  // the static entry of the gateway the protocol change kept
  EXPECT_EQ(if_link_count(), links);
  EXPECT_EQ(if_addr_count(), addrs);
}

TEST_F(Teardown, ReplacedDirectoryWithdrawsTheRoutesOfItsInputs) {
  auto bgp = input("bgp", 8, 20);
  publish(bgp, "203.0.113.0/24", {{"", "10.0.1.2"}});
  start();
  run();
  ASSERT_EQ(daemonRoutes(8).size(), 1u);
  const auto frees = corvd_call_count("gw_free");
  auto other = Kel::make<Kel::Dir>("routeInput2");
  config_->routeInputDirIs(other);
  run();
  EXPECT_EQ(corvd_call_count("gw_free"), frees + 1);
  EXPECT_TRUE(daemonRoutes(8).empty());
  // The input published in the new directory is mirrored again, under a new gateway.
  other->entityPtrIs(Kel::Name("bgp"), bgp);
  run();
  EXPECT_EQ(daemonRoutes(8).at("203.0.113.0/24"), "pref 20 via 10.0.1.2 dev et1");
}

}  // namespace
}  // namespace ModuleTest
