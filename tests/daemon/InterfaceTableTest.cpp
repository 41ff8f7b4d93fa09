// Interface table: longest-match resolution, point-to-point peers, address-change reports and
// what they do to the routes that use an address.
#include <vector>

#include "DaemonTestUtil.h"

namespace {

struct Report {
  if_addr* ifap;
  int change;
  bool up;
};
std::vector<Report> reports;
void record(task*, if_addr* ifap) {
  reports.push_back({ifap, ifap->ifa_change, (ifap->ifa_info.ifi_state & IFS_UP) != 0});
}

class InterfaceTable : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    reports.clear();
    fwk_task->task_ifachange_method = record;
  }
};

TEST_F(InterfaceTable, WithdstPicksLongestUpSubnetAndPointToPointPeer) {
  addLink(1, "eth1", true);
  addLink(2, "eth2", true);
  addLink(3, "ppp0", true, IFS_POINTOPOINT);
  if_addr* wide = addAddr(1, in4("10.0.0.1"), 8);
  if_addr* narrow = addAddr(2, in4("10.1.2.1"), 24);
  if_addr* p2p = addAddr(3, in4("192.0.2.1"), 32, in4("198.51.100.7"));
  if_addr* six = addAddr(2, in6("2001:db8::1"), 64);
  ASSERT_TRUE(wide && narrow && p2p && six) << misuseText();
  EXPECT_EQ(if_withdst(in4("10.1.2.200")), narrow);
  EXPECT_EQ(if_withdst(in4("10.1.3.200")), wide);
  EXPECT_EQ(if_withdst(in4("198.51.100.7")), p2p);  // the peer
  EXPECT_EQ(if_withdst(in4("198.51.100.8")), nullptr);
  EXPECT_EQ(if_withdst(in6("2001:db8::99")), six);
  EXPECT_EQ(if_withdst(in6("2001:db9::1")), nullptr);
  // IPv6 subnets whose length ends inside the address's first and second half, at a boundary.
  if_addr* sixty = addAddr(2, in6("2001:db8:1::1"), 60);
  if_addr* long120 = addAddr(2, in6("2001:db8:2::1"), 120);
  ASSERT_TRUE(sixty && long120) << misuseText();
  EXPECT_EQ(if_withdst(in6("2001:db8:1:f::5")), sixty);
  EXPECT_EQ(if_withdst(in6("2001:db8:1:10::5")), nullptr);
  EXPECT_EQ(if_withdst(in6("2001:db8:2::ff")), long120);
  EXPECT_EQ(if_withdst(in6("2001:db8:2::1ff")), nullptr);
  EXPECT_TRUE(p2p->ifa_info.ifi_state & IFS_POINTOPOINT);
  // A point-to-point address whose peer the caller does not know is its own peer.
  if_addr* own = addAddr(3, in4("192.0.2.9"), 24);
  ASSERT_NE(own, nullptr) << misuseText();
  EXPECT_TRUE(sockaddr_equal(own->ifa_info.ifi_addr_remote, own->ifa_info.ifi_addr_local));
  EXPECT_EQ(if_withdst(in4("192.0.2.77")), own);

  // Two links with the same peer: the address added first serves it, also after it was
  // refreshed to another peer and back. (Down links and subnet ties: the random churn below.)
  addLink(5, "ppp1", true, IFS_POINTOPOINT);
  if_addr* later = addAddr(5, in4("192.0.2.2"), 32, in4("198.51.100.7"));
  addAddr(3, in4("192.0.2.1"), 32, in4("198.51.100.8"));
  EXPECT_EQ(if_withdst(in4("198.51.100.7")), later);
  EXPECT_EQ(addAddr(3, in4("192.0.2.1"), 32, in4("198.51.100.7")), p2p);
  EXPECT_EQ(if_withdst(in4("198.51.100.7")), p2p);
  EXPECT_EQ(if_withdstaddr(in4("198.51.100.7")), p2p);
  addLink(3, "ppp0", false);  // a down address serves nothing, not even as an exact match
  EXPECT_EQ(if_withdstaddr(in4("198.51.100.7")), later);
  addLink(3, "ppp0", true);

  // Removing a link removes its addresses from the lookups and from the table.
  delLink(2);
  EXPECT_EQ(if_withdst(in4("10.1.2.200")), wide);
  EXPECT_EQ(if_withdst(in6("2001:db8::99")), nullptr);
  EXPECT_EQ(if_addr_count(), 4u);
  EXPECT_EQ(ifl_locate_index(2), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  // A peer of the other family is the caller's fault.
  EXPECT_EQ(addAddr(3, in4("192.0.2.10"), 24, in6("2001:db8::7")), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 1u);
}

TEST_F(InterfaceTable, ReportsClassifyAsUpDownAndSubnetChange) {
  addLink(1, "eth1", true);
  if_addr* a = addAddr(1, in4("10.0.0.1"), 24);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].change, IFC_ADD);
  EXPECT_TRUE(reports[0].up);

  addAddr(1, in4("10.0.0.1"), 16);  // same local address, new subnet
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[1].ifap, a);
  EXPECT_EQ(reports[1].change, IFC_NETMASK);
  EXPECT_EQ(if_withdst(in4("10.0.9.9")), a);

  addLink(1, "eth1", false);
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(reports[2].change, IFC_UPDOWN);
  EXPECT_FALSE(reports[2].up);
  addLink(1, "eth1", false);  // no state change, no report
  EXPECT_EQ(reports.size(), 3u);
  addLink(1, "eth1", true);
  ASSERT_EQ(reports.size(), 4u);
  EXPECT_TRUE(reports[3].up);

  delAddr(1, in4("10.0.0.1"));
  ASSERT_EQ(reports.size(), 5u);
  EXPECT_EQ(reports[4].change, IFC_DELETE | IFC_UPDOWN);  // 0x104: down for good
  EXPECT_FALSE(reports[4].up);
  EXPECT_EQ(if_addr_count(), 0u);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

// The owner's hook sees its routes already set aside when the address goes down, and the daemon
// restores what the owner left set aside once the address is back.
TEST_F(InterfaceTable, RoutesThroughDownAddressAreSetAsideAndRestored) {
  addLink(1, "eth1", true);
  addLink(2, "eth2", true);
  if_addr* a1 = addAddr(1, in4("10.0.1.1"), 24);
  if_addr* a2 = addAddr(2, in4("10.0.2.1"), 24);
  gw_entry* proto = gw_init(nullptr, 7, fwk_task, 0, 0, nullptr, 0x800);
  auto add = [&](sockaddr_un* via, if_addr* ifap, int pref) {
    rt_parms rtp = routeParms(proto, in4("172.16.0.0"), 16, pref, {via});
    if_addr* ifaps[RT_N_MULTIPATH] = {ifap};
    return rt_add(&rtp, ifaps);
  };
  rt_open(fwk_task);
  rt_entry* r1 = add(in4("10.0.1.9"), a1, 10);
  rt_entry* r2 = add(in4("10.0.2.9"), a2, 20);
  rt_close(fwk_task, 0, 1, 0);
  ASSERT_EQ(rt_head_active(r1->rt_head), r1);

  static rt_entry* watched;
  static int prefAtReport;
  watched = r1;
  fwk_task->task_ifachange_method = [](task*, if_addr*) { prefAtReport = watched->rt_preference; };
  addLink(1, "eth1", false);
  EXPECT_EQ(prefAtReport, -10);
  EXPECT_EQ(r1->rt_preference, -10);
  EXPECT_EQ(rt_head_active(r1->rt_head), r2);
  EXPECT_EQ(rt_entry_next(r1->rt_head->rth_routes), r1);  // set aside entries go last
  addLink(1, "eth1", true);
  EXPECT_EQ(r1->rt_preference, 10);
  EXPECT_EQ(rt_head_active(r1->rt_head), r1);

  // A removed address takes the routes that still use it.
  delLink(1);
  EXPECT_FALSE(rt_entry_alive(r1));
  EXPECT_EQ(rt_entry_count(), 1u);
  EXPECT_NE(corvd_show_routes().find("* proto 7 pref 20 tag 0 via 10.0.2.9 dev eth2"),
            std::string::npos)
      << corvd_show_routes();
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

TEST_F(InterfaceTable, RandomAddressChurnResolvesLikeLinearScan) {
  struct Addr {
    uint32_t local;
    int len;
    int link;
  };
  std::vector<Addr> live;
  bool up[5] = {true, true, true, true, true};
  for (int l = 1; l <= 4; ++l) addLink(l, ("e" + std::to_string(l)).c_str(), true);
  uint32_t seed = 7;
  auto rnd = [&]() { return seed = seed * 1103515245 + 12345, (seed >> 8); };
  for (int step = 0; step < 3000; ++step) {
    int op = static_cast<int>(rnd() % 10);
    if (op < 5) {
      Addr a{htonl(0x0A000000u | (rnd() & 0xFFFF)), 16 + static_cast<int>(rnd() % 17),
             1 + static_cast<int>(rnd() % 4)};
      bool dup = false;
      for (auto& x : live) dup = dup || (x.local == a.local && x.link == a.link);
      if (dup) continue;
      ASSERT_NE(addAddr(a.link, sockbuild_in(0, a.local), a.len), nullptr) << misuseText();
      live.push_back(a);
    } else if (op < 7 && !live.empty()) {
      std::size_t k = rnd() % live.size();
      delAddr(live[k].link, sockbuild_in(0, live[k].local));
      live.erase(live.begin() + static_cast<long>(k));
    } else if (op < 8 && !live.empty()) {  // refreshed in place: it keeps its place in add order
      Addr& x = live[rnd() % live.size()];
      x.len = rnd() % 2 ? x.len : 16 + static_cast<int>(rnd() % 17);
      ASSERT_NE(addAddr(x.link, sockbuild_in(0, x.local), x.len), nullptr) << misuseText();
    } else {
      int l = 1 + static_cast<int>(rnd() % 4);
      up[l] = !up[l];
      addLink(l, ("e" + std::to_string(l)).c_str(), up[l]);
    }
    uint32_t probe = htonl(0x0A000000u | (rnd() & 0xFFFF));
    int best = -1;
    const Addr* want = nullptr;
    for (auto& x : live) {
      uint32_t m = htonl(x.len ? ~0u << (32 - x.len) : 0);
      if (up[x.link] && (x.local & m) == (probe & m) && x.len > best) {
        best = x.len;
        want = &x;
      }
    }
    if_addr* got = if_withdst(sockbuild_in(0, probe));
    ASSERT_EQ(got == nullptr, want == nullptr) << "step " << step;
    if (got) {  // the longest prefix, then the address added first
      EXPECT_EQ(sock_mask_len(got->ifa_info.ifi_netmask), best);
      EXPECT_EQ(got->ifa_info.ifi_addr_local->a_in.sin_addr, want->local) << "step " << step;
      EXPECT_EQ(got->ifa_info.ifi_link->ifl_index, static_cast<unsigned long>(want->link));
      EXPECT_TRUE(got->ifa_info.ifi_state & IFS_UP);
    }
  }
  EXPECT_EQ(if_addr_count(), live.size());
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

void delLinkNamed(unsigned long index, const char* name) {
  if_conf_open(fwk_task, 0);
  if_conf_dellink(fwk_task, index, name);
  if_conf_close(fwk_task, 1);
}

TEST_F(InterfaceTable, DellinkByANameTheLinkHeldBeforeARefreshRemovesNothing) {
  // eth0 has index 2; the loopback takes the index over (a refresh under its own name) before
  // eth0's deletion arrives, naming eth0.
  addLink(2, "eth0", true);
  ASSERT_NE(addAddr(2, in4("10.0.0.1"), 24), nullptr) << misuseText();
  addLink(2, "lo", true, IFS_LOOPBACK);
  delLinkNamed(2, "eth0");
  ASSERT_NE(ifl_locate_index(2), nullptr);
  EXPECT_STREQ(ifl_locate_index(2)->ifl_name, "lo");
  EXPECT_EQ(if_addr_count(), 1u);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  // Once per former name; a name the link never held is the caller's fault.
  delLinkNamed(2, "eth0");
  EXPECT_EQ(corvd_misuse_count(), 1u);
  delLinkNamed(2, "eth9");
  EXPECT_EQ(corvd_misuse_count(), 2u);
  EXPECT_NE(ifl_locate_index(2), nullptr);
  // The link's own name removes it, and its former names go with it.
  delLinkNamed(2, "lo");
  EXPECT_EQ(ifl_locate_index(2), nullptr);
  EXPECT_EQ(if_addr_count(), 0u);
  addLink(2, "eth1", true);
  delLinkNamed(2, "eth0");
  EXPECT_EQ(corvd_misuse_count(), 3u);
}

}  // namespace
