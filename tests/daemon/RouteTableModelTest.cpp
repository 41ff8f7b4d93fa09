// Randomized route and interface operations against a plain reference model: selection order,
// set-aside entries, duplicates refused by result, lookups, the prefix trees and call counts.
#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "DaemonTestUtil.h"

namespace {

constexpr int kLinks = 4;
constexpr int kProtos = 3;

struct ModelEntry {
  int gw;                 // index of the protocol gateway
  std::vector<int> hops;  // gateway numbers: link * 8 + host
  int pref;               // preference as the caller last set it
  uint64_t seq;           // add order
  rt_entry* rt;           // the daemon's entry
  int pref2;              // second preference and metric, stored only
  uint32_t metric;
};

struct Model {
  std::map<int, std::vector<ModelEntry>> byPrefix;  // prefix number -> entries
  bool linkUp[kLinks] = {true, true, true, true};
  bool hasAddr[kLinks] = {true, true, true, true};
  uint64_t seq = 0;

  static int linkOf(int hop) { return hop / 8; }
  int effective(const ModelEntry& e) const {
    bool down =
        std::any_of(e.hops.begin(), e.hops.end(), [&](int h) { return !linkUp[linkOf(h)]; });
    if (e.pref < 0 || !down) return e.pref;
    return e.pref == 0 ? -1 : -e.pref;
  }
  bool exists(int prefix, int gw, const std::vector<int>& hops, const rt_entry* self) const {
    auto it = byPrefix.find(prefix);
    if (it == byPrefix.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(), [&](const ModelEntry& e) {
      return e.rt != self && e.gw == gw && e.hops == hops;
    });
  }
};

bool v6(int prefix) { return prefix >= 12; }

// Prefix number -> destination and mask (IPv4 0..11, IPv6 12..19; some share an address).
std::pair<sockaddr_un*, sockaddr_un*> prefixOf(int p) {
  static const int len4[] = {8, 16, 24, 32};
  if (!v6(p)) {
    std::string a = std::to_string(20 + p / 4) + ".168.0.0";
    return {in4(a.c_str()), sock_mask_by_len(SA_FAMILY_INET, len4[p % 4])};
  }
  std::string a = "2001:db8:" + std::to_string(p / 2) + "::";
  return {in6(a.c_str()), sock_mask_by_len(SA_FAMILY_INET6, p % 2 ? 64 : 48)};
}

sockaddr_un* hopAddr(int hop, bool six) {
  int link = hop / 8;
  int host = hop % 8 + 2;
  if (six) return in6(("2001:db8:ff" + std::to_string(link) + "::" + std::to_string(host)).c_str());
  return in4(("10.0." + std::to_string(link) + "." + std::to_string(host)).c_str());
}

void addLinkAddrs(int link) {
  addAddr(link + 1, in4(("10.0." + std::to_string(link) + ".1").c_str()), 24);
  addAddr(link + 1, in6(("2001:db8:ff" + std::to_string(link) + "::1").c_str()), 64);
}

class RouteTableModel : public DaemonTest {};

TEST_F(RouteTableModel, RandomOperationsKeepSelectionAndSetAsideInStepWithModel) {
  for (int l = 0; l < kLinks; ++l) {
    addLink(l + 1, ("eth" + std::to_string(l)).c_str(), true);
    addLinkAddrs(l);
  }
  gw_list gws = nullptr;
  gw_entry* gw[kProtos];
  for (int i = 0; i < kProtos; ++i) gw[i] = gw_init(&gws, 10 + i, fwk_task, 0, 0, nullptr, 0x800);
  Model m;
  std::mt19937 rng(12345);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  // A duplicate add or change is refused by result only, never as a misuse (the module re-adds
  // a blackhole each time its route is drained), and counted as a call all the same.
  uint64_t adds = 0;
  uint64_t changes = 0;

  // Fills gateways and their interface addresses as the module does (if_withdst per hop).
  auto resolve = [&](const std::vector<int>& hops, bool six, sockaddr_un** routers,
                     if_addr** ifaps) {
    for (std::size_t j = 0; j < hops.size(); ++j) {
      routers[j] = hopAddr(hops[j], six);
      ifaps[j] = if_withdst(routers[j]);
    }
  };
  auto randomHops = [&]() {
    std::vector<int> hops;
    int n = 1 + pick(3);
    for (int j = 0; j < n; ++j) {
      int link = pick(kLinks);
      if (m.linkUp[link] && m.hasAddr[link]) hops.push_back(link * 8 + pick(3));
    }
    return hops;
  };

  for (int step = 0; step < 6000; ++step) {
    int op = pick(100);
    if (op < 40) {  // add
      int p = pick(20);
      int g = pick(kProtos);
      std::vector<int> hops = randomHops();
      rt_parms rtp{};
      auto [dest, mask] = prefixOf(p);
      rtp.rtp_dest = dest;
      rtp.rtp_dest_mask = mask;
      rtp.rtp_gwp = gw[g];
      rtp.rtp_preference = pick(5) * 10;
      rtp.rtp_preference2 = pick(3) == 0 ? pick(100) - 50 : 0;
      rtp.rtp_metric = pick(3) == 0 ? static_cast<uint32_t>(pick(1000)) : 0;
      rtp.rtp_state = pick(2) ? RTS_EXTRA : 0;  // the daemon's own bit, not the caller's to set
      rtp.rtp_n_gw = static_cast<int>(hops.size());
      if_addr* ifaps[RT_N_MULTIPATH] = {};
      resolve(hops, v6(p), rtp.rtp_routers, ifaps);
      rt_open(fwk_task);
      rt_entry* rt = rt_add(&rtp, ifaps);
      ++adds;
      rt_close(fwk_task, 0, 1, 0);
      if (m.exists(p, g, hops, nullptr)) {
        ASSERT_EQ(rt, nullptr);  // refused by result: not a misuse
        continue;
      }
      ASSERT_NE(rt, nullptr) << misuseText();
      m.byPrefix[p].push_back(
          {g, hops, rtp.rtp_preference, ++m.seq, rt, rtp.rtp_preference2, rtp.rtp_metric});
    } else if (op < 75) {  // change (op < 60) or delete
      if (m.byPrefix.empty()) continue;
      auto it = std::next(m.byPrefix.begin(), pick(static_cast<int>(m.byPrefix.size())));
      auto& list = it->second;
      std::size_t k = static_cast<std::size_t>(pick(static_cast<int>(list.size())));
      ModelEntry& e = list[k];
      rt_open(fwk_task);
      if (op < 60) {
        std::vector<int> hops = randomHops();
        sockaddr_un* routers[RT_N_MULTIPATH] = {};
        if_addr* ifaps[RT_N_MULTIPATH] = {};
        resolve(hops, v6(it->first), routers, ifaps);
        rt_change_parms rtcp{pick(6) * 10 - 10, static_cast<int>(hops.size()), routers, ifaps};
        if (op < 45) {  // the entry's own gateway set, as a caller re-pointing its routes passes it
          hops = e.hops;
          rtcp = {rtcp.rtcp_preference, e.rt->rt_adj.adj_n_gw, e.rt->rt_adj.adj_routers,
                  e.rt->rt_adj.adj_ifaps};
        }
        rt_entry* rt = rt_change_s(e.rt, &rtcp);
        ++changes;
        if (m.exists(it->first, e.gw, hops, e.rt)) {
          ASSERT_EQ(rt, nullptr);  // refused by result: not a misuse
        } else {
          ASSERT_EQ(rt, e.rt) << misuseText();
          e.hops = hops;
          e.pref = rtcp.rtcp_preference;
        }
      } else {
        rt_delete(e.rt);
        list.erase(list.begin() + static_cast<long>(k));
        if (list.empty()) m.byPrefix.erase(it);
      }
      rt_close(fwk_task, 0, 1, 0);
    } else if (op < 90) {  // link flap
      int l = pick(kLinks);
      m.linkUp[l] = !m.linkUp[l];
      addLink(l + 1, ("eth" + std::to_string(l)).c_str(), m.linkUp[l]);
    } else {  // address removed (its routes go) or re-added
      int l = pick(kLinks);
      if (m.hasAddr[l]) {
        delAddr(l + 1, in4(("10.0." + std::to_string(l) + ".1").c_str()));
        delAddr(l + 1, in6(("2001:db8:ff" + std::to_string(l) + "::1").c_str()));
        for (auto it = m.byPrefix.begin(); it != m.byPrefix.end();) {
          auto& list = it->second;
          std::erase_if(list, [&](const ModelEntry& e) {
            return std::any_of(e.hops.begin(), e.hops.end(),
                               [&](int h) { return Model::linkOf(h) == l; });
          });
          it = list.empty() ? m.byPrefix.erase(it) : std::next(it);
        }
      } else {
        addLinkAddrs(l);
      }
      m.hasAddr[l] = !m.hasAddr[l];
    }

    ASSERT_EQ(corvd_misuse_count(), 0u) << misuseText();
    if (step % 50 != 0) continue;
    std::size_t entries = 0;
    std::set<int> gateways;  // distinct gateway addresses in use: hop number and family
    for (auto& [p, list] : m.byPrefix) {
      entries += list.size();
      std::vector<const ModelEntry*> order;
      for (auto& e : list) order.push_back(&e);
      std::sort(order.begin(), order.end(), [&](const ModelEntry* a, const ModelEntry* b) {
        int x = m.effective(*a);
        int y = m.effective(*b);
        return std::make_tuple(x < 0, x < 0 ? 0 : x, a->seq) <
               std::make_tuple(y < 0, y < 0 ? 0 : y, b->seq);
      });
      auto [dest, mask] = prefixOf(p);
      rt_head* h = rt_table_locate(dest, mask);
      ASSERT_NE(h, nullptr);
      const rt_entry* rt = h->rth_routes;
      for (const ModelEntry* e : order) {
        ASSERT_EQ(rt, e->rt) << "prefix " << p << " step " << step << "\n" << corvd_show_routes();
        EXPECT_EQ(rt->rt_preference, m.effective(*e));
        EXPECT_EQ((rt->rt_state & RTS_ACTIVE) != 0, e == order.front() && m.effective(*e) >= 0);
        EXPECT_EQ(rt_entry_preference2(rt), e->pref2);
        EXPECT_EQ(rt_entry_metric(rt), e->metric);
        EXPECT_EQ(rt->rt_adj.adj_n_gw, static_cast<int>(e->hops.size()));
        for (std::size_t j = 0; j < e->hops.size(); ++j) {
          gateways.insert(e->hops[j] * 2 + (v6(p) ? 1 : 0));
          EXPECT_TRUE(sockaddr_equal(rt->rt_adj.adj_routers[j], hopAddr(e->hops[j], v6(p))));
        }
        EXPECT_EQ(rt->rt_head, h);
        rt = rt_entry_next(rt);
      }
      EXPECT_EQ(rt, nullptr);
      const ModelEntry* first = order.front();
      EXPECT_EQ(rt_head_active(h), m.effective(*first) >= 0 ? first->rt : nullptr);
      // The gateway addresses built above may have recycled the temporaries dest and mask.
      std::tie(dest, mask) = prefixOf(p);
      for (int g = 0; g < kProtos; ++g) {
        rt_bits bits;
        rt_make_bits(&bits, 1, gw[g]->gw_proto);
        auto found = std::find_if(order.begin(), order.end(),
                                  [&](const ModelEntry* e) { return e->gw == g; });
        EXPECT_EQ(rt_locate(0, dest, mask, &bits), found == order.end() ? nullptr : (*found)->rt);
        // Two protocols: the first entry in selection order of either.
        int g2 = (g + 1) % kProtos;
        rt_make_bits(&bits, 2, gw[g2]->gw_proto, gw[g]->gw_proto);
        auto either = std::find_if(order.begin(), order.end(),
                                   [&](const ModelEntry* e) { return e->gw == g || e->gw == g2; });
        EXPECT_EQ(rt_locate(0, dest, mask, &bits), either == order.end() ? nullptr : (*either)->rt);
        if (v6(p)) {
          rt_entry* t = ptree_find(gw[g]->gw_ptree, dest, mask);
          EXPECT_EQ(t != nullptr, found != order.end());
          if (t) {
            EXPECT_EQ(t->rt_gwp, gw[g]);
          }
        }
      }
    }
    ASSERT_EQ(rt_entry_count(), entries);
    ASSERT_EQ(rt_head_count(), m.byPrefix.size());
    ASSERT_EQ(rt_gateway_addr_count(), gateways.size());
    std::size_t queued = 0;
    for (auto* g : gw) queued += g->gw_n_routes;
    ASSERT_EQ(queued, entries);
  }
  rt_open(fwk_task);
  for (auto* g : gw) gw_free(g);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_EQ(rt_head_count(), 0u);
  EXPECT_EQ(rt_gateway_addr_count(), 0u);
  EXPECT_EQ(gws, nullptr);
  EXPECT_EQ(corvd_misuse_count(), 0u);
  EXPECT_EQ(corvd_call_count("rt_add"), adds);
  EXPECT_EQ(corvd_call_count("rt_change_s"), changes);
}

// Add order is kept per prefix in 32 bits; when the last number is taken, the prefix's entries
// are numbered again in the order they were added, whatever their order on the list.
TEST_F(RouteTableModel, AddOrderNumberedAgainWhenItRunsOutKeepsTies) {
  gw_entry* gw[3];
  for (int i = 0; i < 3; ++i) gw[i] = gw_init(nullptr, 10 + i, fwk_task, 0, 0, nullptr, 0);
  auto add = [&](int g, int pref) {
    rt_parms rtp = routeParms(gw[g], in4("20.1.0.0"), 16, pref);
    rt_open(fwk_task);
    rt_entry* rt = rt_add(&rtp, nullptr);
    rt_close(fwk_task, 0, 1, 0);
    return rt;
  };
  auto order = [](const rt_entry* rt) {
    std::vector<const rt_entry*> out;
    for (const rt_entry* e = rt->rt_head->rth_routes; e; e = rt_entry_next(e)) out.push_back(e);
    return out;
  };
  rt_entry* a = add(0, 9);
  rt_entry* b = add(1, 5);  // listed before a, added after it
  ASSERT_TRUE(a && b) << misuseText();
  EXPECT_EQ(b->rt_seq, 2u);
  b->rt_seq = UINT32_MAX;  // as after four billion adds to this prefix
  rt_entry* c = add(2, 9);
  ASSERT_TRUE(c) << misuseText();
  EXPECT_EQ(a->rt_seq, 1u);
  EXPECT_EQ(b->rt_seq, 2u);
  EXPECT_EQ(c->rt_seq, 3u);
  // Tied with a and c, b goes between them: after a, added before it, and before c.
  rt_change_parms cp{9, 0, nullptr, nullptr};
  rt_open(fwk_task);
  ASSERT_EQ(rt_change_s(b, &cp), b) << misuseText();
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(order(a), (std::vector<const rt_entry*>{a, b, c}));
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

TEST_F(RouteTableModel, PtreeInsertAndRemoveAnswerWhetherTheEntryIsHeld) {
  gw_entry* gw = gw_init(nullptr, 10, fwk_task, 0, 0, nullptr, 0);
  gw_entry* other = gw_init(nullptr, 11, fwk_task, 0, 0, nullptr, 0);
  auto add = [&](int p, int pref, gw_entry* by) {
    rt_parms rtp{};
    std::tie(rtp.rtp_dest, rtp.rtp_dest_mask) = prefixOf(p);
    rtp.rtp_gwp = by;
    rtp.rtp_preference = pref;
    rtp.rtp_n_gw = pref / 10;  // distinct gateway sets: blackhole, one gateway
    rtp.rtp_routers[0] = hopAddr(0, v6(p));
    rt_open(fwk_task);
    rt_entry* rt = rt_add(&rtp, nullptr);
    rt_close(fwk_task, 0, 1, 0);
    return rt;
  };
  rt_entry* first = add(13, 0, gw);
  rt_entry* second = add(13, 10, gw);
  rt_entry* four = add(1, 0, gw);
  ASSERT_TRUE(first && second && four) << misuseText();
  ptree* tree = gw->gw_ptree;
  auto held = [&] { return ptree_find(tree, prefixOf(13).first, prefixOf(13).second); };
  EXPECT_EQ(held(), first);
  EXPECT_EQ(ptree_insert(tree, second), 0);  // the prefix is held already
  EXPECT_EQ(ptree_remove(tree, second), 0);
  EXPECT_EQ(ptree_remove(tree, first), 1);
  EXPECT_EQ(held(), nullptr);
  EXPECT_EQ(ptree_insert(tree, second), 1);
  EXPECT_EQ(ptree_insert(tree, four), 0);  // IPv4
  // Deleting the held entry hands the prefix to the gateway's next entry there.
  rt_open(fwk_task);
  rt_delete(second);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(held(), first);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  EXPECT_EQ(ptree_remove(tree, second), 0);
  EXPECT_EQ(corvd_misuse_count(), 1u);
  // Another gateway's entry entered in this tree is held for the prefix in place of the tree's
  // own, in its own gateway's tree as well, until it is removed again.
  rt_entry* foreign = add(13, 5, other);
  ASSERT_TRUE(foreign) << misuseText();
  EXPECT_EQ(ptree_find(other->gw_ptree, prefixOf(13).first, prefixOf(13).second), foreign);
  EXPECT_EQ(ptree_insert(tree, foreign), 0);
  EXPECT_EQ(ptree_remove(tree, first), 1);
  EXPECT_EQ(ptree_insert(tree, foreign), 1);
  EXPECT_EQ(held(), foreign);
  rt_entry* third = add(13, 15, gw);  // the tree holds the prefix: the new entry is not entered
  ASSERT_TRUE(third) << misuseText();
  EXPECT_EQ(ptree_insert(tree, first), 0);
  EXPECT_EQ(ptree_remove(tree, first), 0);
  EXPECT_EQ(ptree_remove(tree, foreign), 1);
  EXPECT_EQ(held(), nullptr);
  EXPECT_EQ(ptree_find(other->gw_ptree, prefixOf(13).first, prefixOf(13).second), foreign);
  EXPECT_EQ(ptree_insert(tree, third), 1);
  EXPECT_EQ(held(), third);
  EXPECT_EQ(corvd_misuse_count(), 1u) << misuseText();
}

}  // namespace
