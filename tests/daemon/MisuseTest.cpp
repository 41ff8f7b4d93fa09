// The daemon reports misuse instead of hiding it: brackets, recycled temporaries and requests
// holding temporaries (entries and gateways used after they are gone: RecordReclaimTest.cpp).
#include "DaemonTestUtil.h"

namespace {

class Misuse : public DaemonTest {};

TEST_F(Misuse, UnbalancedAndNestedBracketsAndChangesOutsideThemAreCounted) {
  if_conf_close(fwk_task, 1);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 2u);
  rt_open(fwk_task);
  rt_open(fwk_task);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 3u);
  EXPECT_EQ(if_conf_addlink(fwk_task, nullptr, 1, IFS_UP, 0, 1500, "e", 1, nullptr), nullptr);
  gw_entry* gw = gw_init(nullptr, 1, fwk_task, 0, 0, nullptr, 0);
  rt_parms rtp = routeParms(gw, in4("10.0.0.0"), 8);
  EXPECT_EQ(rt_add(&rtp, nullptr), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 5u) << misuseText();
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_EQ(if_link_count(), 0u);
}

TEST_F(Misuse, RecycledTemporaryIsRefusedAndOnlySockdupLasts) {
  sockaddr_un* kept = in4("10.1.1.1");
  sockaddr_un* copy = sockdup(kept);
  for (int i = 0; i < SOCK_POOL_LIVE; ++i) in4("1.1.1.1");
  EXPECT_EQ(kept->sa_family, SA_FAMILY_POISON);
  EXPECT_EQ(if_withdst(kept), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 1u);
  EXPECT_EQ(sockaddr_equal(copy, sockbuild_in(0, ip4("10.1.1.1"))), true);

  // A temporary stored in a request is refused; the request's copies are still taken over.
  addLink(1, "e1", true);
  if_info req{};
  req.ifi_link = ifl_locate_index(1);
  req.ifi_addr_local = in4("10.9.9.9");
  req.ifi_addr_remote = sockdup(in4("10.9.9.9"));
  if_conf_open(fwk_task, 0);
  EXPECT_EQ(if_conf_addaddr(fwk_task, &req), nullptr);
  if_conf_close(fwk_task, 1);
  EXPECT_EQ(corvd_misuse_count(), 2u) << misuseText();
  EXPECT_EQ(sock_live_copies(), 1u);  // `copy` only: the request's copy was released
  sockfree(copy);
  sockfree(copy);
  EXPECT_EQ(corvd_misuse_count(), 3u) << misuseText();
}

TEST_F(Misuse, InjectedFailuresChangeNothing) {
  gw_entry* gw = gw_init(nullptr, 3, fwk_task, 0, 0, nullptr, 0);
  rt_parms rtp = routeParms(gw, in4("10.0.0.0"), 8, 9);
  rt_open(fwk_task);
  corvd_fail_rt_add(1);
  EXPECT_EQ(rt_add(&rtp, nullptr), nullptr);
  EXPECT_EQ(rt_table_locate(rtp.rtp_dest, rtp.rtp_dest_mask), nullptr);
  rt_entry* rt = rt_add(&rtp, nullptr);
  ASSERT_NE(rt, nullptr);
  corvd_fail_rt_change(1);
  rt_change_parms rtcp{50, 0, nullptr, nullptr};
  EXPECT_EQ(rt_change_s(rt, &rtcp), nullptr);
  EXPECT_EQ(rt->rt_preference, 9);
  EXPECT_EQ(rt_change_s(rt, &rtcp), rt);
  EXPECT_EQ(rt->rt_preference, 50);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  EXPECT_EQ(corvd_call_count("rt_add"), 2u);
  EXPECT_EQ(corvd_call_count("rt_change_s"), 2u);
}

}  // namespace
