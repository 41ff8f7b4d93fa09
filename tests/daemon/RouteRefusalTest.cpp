// A refusal that the state of the table explains is reported by result, not as a misuse: the
// module re-adds a blackhole every time its route is drained, and may change an entry to a
// gateway set that another entry of its gateway already has.
#include <random>
#include <string>
#include <vector>

#include "DaemonTestUtil.h"

namespace {

class RouteRefusal : public DaemonTest {};

TEST_F(RouteRefusal, SameGatewayAndGatewaySetAgainIsRefusedByResultOnly) {
  addLink(1, "et1", true);
  addAddr(1, in4("10.0.1.1"), 24);
  gw_entry* gw = gw_init(nullptr, 8, fwk_task, 0, 0, nullptr, 0x800);
  gw_entry* other = gw_init(nullptr, 9, fwk_task, 0, 0, nullptr, 0x800);
  rt_open(fwk_task);
  rt_parms hole = routeParms(gw, in4("203.0.113.0"), 24, 20);
  rt_entry* first = rt_add(&hole, nullptr);
  ASSERT_NE(first, nullptr);
  hole = routeParms(gw, in4("203.0.113.0"), 24, 20);
  EXPECT_EQ(rt_add(&hole, nullptr), nullptr);  // the blackhole again
  hole = routeParms(other, in4("203.0.113.0"), 24, 20);
  EXPECT_NE(rt_add(&hole, nullptr), nullptr);  // another gateway's blackhole is a new entry

  // An entry of the same gateway through 10.0.1.2; changing it to a blackhole is refused.
  rt_parms via = routeParms(gw, in4("203.0.113.0"), 24, 20, {in4("10.0.1.2")});
  if_addr* ifaps[1] = {if_withdst(via.rtp_routers[0])};
  rt_entry* second = rt_add(&via, ifaps);
  ASSERT_NE(second, nullptr);
  rt_change_parms toHole{30, 0, nullptr, nullptr};
  EXPECT_EQ(rt_change_s(second, &toHole), nullptr);
  EXPECT_EQ(second->rt_adj.adj_n_gw, 1);
  EXPECT_EQ(second->rt_preference, 20);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(rt_entry_count(), 3u);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  EXPECT_EQ(corvd_call_count("rt_add"), 4u);
}

// The daemon calls of the module's route drain (adding and deleting a route), for one protocol's
// route that is absent, a blackhole, or a set of next hops.
struct Route {
  bool present = false;
  bool blackhole = false;
  std::vector<std::string> hops;
};

void drain(gw_entry* gw, const std::string& prefix, const Route& r) {
  sockaddr_un dest = *in4(prefix.c_str());
  sockaddr_un* mask = sock_mask_by_len(SA_FAMILY_INET, 24);
  rt_open(fwk_task);
  if (!r.present) {
    rt_head* h = rt_table_locate(&dest, mask);
    for (rt_entry* rt = h ? h->rth_routes : nullptr; rt;) {
      rt_entry* next = rt->rt_next;
      if (rt->rt_gwp->gw_proto == gw->gw_proto) rt_delete(rt);
      rt = next;
    }
  } else {
    rt_parms rtp = routeParms(gw, &dest, 24, 20);
    if_addr* ifaps[RT_N_MULTIPATH] = {};
    sockaddr_un hops[RT_N_MULTIPATH];
    bool resolved = true;
    for (std::size_t j = 0; j < r.hops.size() && !r.blackhole; ++j) {
      hops[j] = *in4(r.hops[j].c_str());
      rtp.rtp_routers[j] = &hops[j];
      ifaps[j] = if_withdst(&hops[j]);
      resolved = resolved && ifaps[j];
      rtp.rtp_n_gw = static_cast<int>(j + 1);
    }
    if (r.blackhole) {
      rt_add(&rtp, ifaps);  // null when already held: traced by the module, nothing more
    } else if (resolved && rtp.rtp_n_gw > 0) {
      rt_bits bits;
      rt_make_bits(&bits, 1, static_cast<int>(gw->gw_proto));
      rt_entry* rt = rt_locate(rtp.rtp_state, rtp.rtp_dest, rtp.rtp_dest_mask, &bits);
      if (!rt) {
        rt_add(&rtp, ifaps);
      } else {
        rt_change_parms rtcp{rtp.rtp_preference, rtp.rtp_n_gw, rtp.rtp_routers, ifaps};
        rt_change_s(rt, &rtcp);
      }
    }
  }
  rt_close(fwk_task, 0, 1, 0);
}

TEST_F(RouteRefusal, LongRandomHistoryWithBlackholesCountsNoMisuse) {
  constexpr int kLinks = 3;
  for (int l = 0; l < kLinks; ++l) {
    addLink(l + 1, ("et" + std::to_string(l)).c_str(), true);
    addAddr(l + 1, in4(("10.0." + std::to_string(l) + ".1").c_str()), 24);
  }
  gw_entry* gw[2] = {gw_init(nullptr, 8, fwk_task, 0, 0, nullptr, 0x800),
                     gw_init(nullptr, 9, fwk_task, 0, 0, nullptr, 0x800)};
  bool up[kLinks] = {true, true, true};
  std::mt19937 rng(2026);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  uint64_t blackholesAgain = 0;
  for (int step = 0; step < 40000; ++step) {
    int op = pick(100);
    if (op < 10) {  // an oper flap sets entries aside and brings them back
      int l = pick(kLinks);
      up[l] = !up[l];
      addLink(l + 1, ("et" + std::to_string(l)).c_str(), up[l]);
      continue;
    }
    std::string prefix = "198.51." + std::to_string(pick(6)) + ".0";
    Route r;
    r.present = op >= 25;
    r.blackhole = r.present && op < 60;
    for (int n = 1 + pick(2); r.present && !r.blackhole && n > 0; --n) {
      r.hops.push_back("10.0." + std::to_string(pick(kLinks)) + "." + std::to_string(2 + pick(2)));
    }
    const uint64_t adds = corvd_call_count("rt_add");
    const std::size_t entries = rt_entry_count();
    drain(gw[pick(2)], prefix, r);
    if (r.blackhole && corvd_call_count("rt_add") > adds && rt_entry_count() == entries) {
      ++blackholesAgain;
    }
    ASSERT_EQ(corvd_misuse_count(), 0u) << "step " << step << "\n" << misuseText();
  }
  EXPECT_GT(blackholesAgain, 1000u);  // the history does exercise the refusal
  rt_open(fwk_task);
  gw_free(gw[0]);
  gw_free(gw[1]);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

}  // namespace
