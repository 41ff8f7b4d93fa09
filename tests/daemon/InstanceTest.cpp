// Daemon instances: one daemon per VRF in one process. Tables, reports, counters, misuse and
// lasting copies stay in their instance; records stay valid across switches; freeing an
// instance releases everything it held.
#include "tests/daemon/DaemonTestUtil.h"

namespace {

struct Hook {
  static inline int calls = 0;
  static void onChange(task*, if_addr*) { ++calls; }
};

class Instances : public DaemonTest {
 protected:
  void TearDown() override {
    corvd_instance_use(nullptr);
    DaemonTest::TearDown();
  }
};

TEST_F(Instances, SameIfIndexAndAddressLiveApartInTwoDaemons) {
  corvd_instance* red = corvd_instance_new("red");
  corvd_instance* blue = corvd_instance_new("blue");
  EXPECT_STREQ(corvd_instance_name(red), "red");

  corvd_instance_use(red);
  fwk_task->task_ifachange_method = &Hook::onChange;
  if_link* redLink = addLink(5, "et5", true);
  ASSERT_NE(addAddr(5, in4("10.0.0.1"), 24), nullptr);
  const auto redAddlinks = corvd_call_count("if_conf_addlink");

  corvd_instance_use(blue);
  EXPECT_EQ(if_link_count(), 0u);
  EXPECT_EQ(fwk_task->task_ifachange_method, nullptr);
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), 0u);
  Hook::calls = 0;
  if_link* blueLink = addLink(5, "eth-blue", true);
  ASSERT_NE(addAddr(5, in4("10.0.0.1"), 16), nullptr);
  EXPECT_EQ(Hook::calls, 0);   // red's hook hears nothing of blue's changes
  if_conf_close(fwk_task, 1);  // an unbalanced close: a misuse of blue's
  EXPECT_EQ(corvd_misuse_count(), 1u);

  corvd_instance_use(red);
  EXPECT_EQ(corvd_misuse_count(), 0u);
  EXPECT_EQ(corvd_call_count("if_conf_addlink"), redAddlinks);
  EXPECT_EQ(ifl_locate_index(5), redLink);
  EXPECT_STREQ(redLink->ifl_name, "et5");
  EXPECT_EQ(sock_mask_len(if_withdst(in4("10.0.0.9"))->ifa_info.ifi_netmask), 24);
  EXPECT_EQ(if_withdst(in4("10.0.9.9")), nullptr);
  addAddr(5, in4("10.0.1.1"), 24);
  EXPECT_GT(Hook::calls, 0);

  corvd_instance_use(blue);
  EXPECT_EQ(ifl_locate_index(5), blueLink);
  EXPECT_NE(if_withdst(in4("10.0.9.9")), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 1u);

  // Freeing the current instance makes the default current; the other keeps its tables.
  EXPECT_GT(sock_live_copies(), 0u);  // blue's addresses hold lasting copies
  corvd_instance_free(blue);
  EXPECT_STREQ(corvd_instance_name(corvd_instance_current()), "default");
  EXPECT_EQ(if_link_count(), 0u);
  EXPECT_EQ(sock_live_copies(), 0u);  // the default instance has none, and blue's went with it
  corvd_instance_use(red);
  EXPECT_EQ(if_link_count(), 1u);
  EXPECT_EQ(if_addr_count(), 2u);
  corvd_instance_use(nullptr);
  corvd_instance_free(red);
  corvd_instance_free(nullptr);  // ignored
}

}  // namespace
