// corvd-sim's show commands: every JSON form parses back as one document with the names iproute2
// uses, and says what the tables and the host's observations hold (selection, multipath,
// blackholes, entries whose input is gone, set-aside routes with the module's reason, backlog
// counters, per-VRF summaries); the filters pick exactly what they name.
#include <nlohmann/json.hpp>

#include "tests/support/SimWorld.h"

namespace {

using nlohmann::json;

class ShowTest : public SimWorld {
 protected:
  void SetUp() override {
    SimWorld::SetUp();
    run(R"(device et1 2 mac 02:00:00:00:00:01
device et2 3
intf Ethernet1 et1
intf Ethernet2 et2 mtu 9000
ip Ethernet1 10.0.1.1/24
ip Ethernet2 10.0.2.1/24 10.0.22.1/24
ip6 Ethernet1 2001:db8:1::1/64
vrf default
vrf red
input default bgp proto 8 pref 20
input default static proto 3 pref 1
input default bgp6 proto 8 pref 20 ipv6
route default bgp 203.0.113.0/24 via 10.0.1.2 via 10.0.2.2
route default static 203.0.113.0/24 via 10.0.2.9
route default bgp 100.64.0.0/10 via 10.9.9.9
route default bgp 100.65.0.0/16 dev Ethernet7
blackhole default bgp 192.0.2.0/24
route default bgp6 2001:db8:99::/48 via 2001:db8:1::2)");
  }
  // One line's output parsed as exactly one JSON document (parse raises on anything else).
  json doc(const std::string& line) { return json::parse(run(line)); }
};

json find(const json& array, const std::string& key, const std::string& value) {
  json out = json::array();
  for (const auto& e : array) {
    if (e.at(key) == value) out.push_back(e);
  }
  return out;
}

TEST_F(ShowTest, RoutesAndSummaryInJsonNameInputsSelectionAndFamilies) {
  // Before the drain the keys are pending and nothing is in the daemon.
  json summary = doc("show summary json");
  ASSERT_TRUE(summary.is_array());
  ASSERT_EQ(summary.size(), 2u);  // default, red
  EXPECT_EQ(summary[0]["vrf"], "default");
  EXPECT_EQ(summary[0]["pending"], 8);  // 6 route keys, 2 interfaces
  EXPECT_EQ(summary[0]["entries"], 0);
  run("run 1");

  const json routes = doc("show routes json");
  const json same = find(routes, "dst", "203.0.113.0/24");
  ASSERT_EQ(same.size(), 2u);
  // Selection order: the static entry (pref 1) is selected, bgp's multipath entry is not.
  EXPECT_EQ(same[0]["protocol"], "static");
  EXPECT_EQ(same[0]["proto"], 3);
  EXPECT_EQ(same[0]["selected"], true);
  EXPECT_EQ(same[0]["gateway"], "10.0.2.9");
  EXPECT_EQ(same[0]["dev"], "et2");
  EXPECT_FALSE(same[0].contains("nexthops"));
  EXPECT_EQ(same[1]["protocol"], "bgp");
  EXPECT_EQ(same[1]["selected"], false);
  EXPECT_FALSE(same[1].contains("gateway"));
  ASSERT_EQ(same[1]["nexthops"].size(), 2u);
  EXPECT_EQ(same[1]["nexthops"][1], (json{{"gateway", "10.0.2.2"}, {"dev", "et2"}}));
  const json hole = find(routes, "dst", "192.0.2.0/24");
  ASSERT_EQ(hole.size(), 1u);
  EXPECT_EQ(hole[0]["type"], "blackhole");
  EXPECT_FALSE(hole[0].contains("gateway"));
  EXPECT_EQ(find(routes, "dst", "2001:db8:99::/48")[0]["protocol"], "bgp6");
  EXPECT_TRUE(find(routes, "dst", "100.64.0.0/10").empty());  // set aside, not in the daemon

  // Family and VRF filters.
  for (const auto& r : doc("show routes ipv4 json"))
    EXPECT_EQ(r["dst"].get<std::string>().find(':'), std::string::npos);
  const json v6 = doc("show routes vrf default ipv6 json");
  ASSERT_EQ(v6.size(), 1u);
  EXPECT_EQ(v6[0]["dst"], "2001:db8:99::/48");
  EXPECT_EQ(doc("show routes vrf red json"), json::array());

  // A protocol change keeps the old gateway's entries: they outlive their input.
  run("proto default static 4\nrun 1");
  const json gone = find(doc("show routes json"), "proto", "3");
  EXPECT_TRUE(gone.empty());  // proto is a number, not text
  bool sawGone = false;
  for (const auto& r : doc("show routes json")) {
    if (r["proto"] == 3) {
      sawGone = true;
      EXPECT_EQ(r["protocol"], "3");
      EXPECT_EQ(r["input_gone"], true);
    }
  }
  EXPECT_TRUE(sawGone);
  EXPECT_NE(run("show routes").find("proto 3 (input gone)"), std::string::npos);

  summary = doc("show summary vrf default json");
  ASSERT_EQ(summary.size(), 1u);
  EXPECT_EQ(summary[0]["pending"], 0);
  EXPECT_EQ(summary[0]["unresolved"], 2);
  EXPECT_EQ(summary[0]["addresses"], (json{{"inet", 3}, {"inet6", 1}}));
  EXPECT_EQ(summary[0]["links"], 2);
}

TEST_F(ShowTest, InterfacesUnresolvedAndCountersSayWhatTheHostObserved) {
  run("run 1");
  const json intfs = doc("show interfaces json");
  const json et1 = find(intfs, "ifname", "et1");
  ASSERT_EQ(et1.size(), 1u);
  EXPECT_EQ(et1[0]["ifindex"], 2);
  EXPECT_EQ(et1[0]["address"], "02:00:00:00:00:01");
  EXPECT_EQ(et1[0]["operstate"], "UP");
  ASSERT_EQ(et1[0]["addr_info"].size(), 2u);
  EXPECT_EQ(et1[0]["addr_info"][0]["family"], "inet");
  EXPECT_EQ(et1[0]["addr_info"][0]["local"], "10.0.1.1");
  EXPECT_EQ(et1[0]["addr_info"][0]["prefixlen"], 24);
  EXPECT_EQ(et1[0]["addr_info"][1]["family"], "inet6");
  EXPECT_EQ(find(intfs, "ifname", "et2")[0]["mtu"], 9000);
  const json one = doc("show interfaces et2 json");
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0]["ifname"], "et2");
  EXPECT_EQ(run("show interfaces brief vrf default et1"),
            "== interfaces vrf default\net1              UP    10.0.1.1/24 2001:db8:1::1/64\n");

  // Set aside with the module's own reason; the one whose address arrives leaves the list.
  json parked = doc("show unresolved json");
  ASSERT_EQ(parked.size(), 2u);
  EXPECT_EQ(parked[0], (json{{"vrf", "default"},
                             {"input", "bgp"},
                             {"family", "inet"},
                             {"dst", "100.64.0.0/10"},
                             {"reason", "There is no interface with nexthop 10.9.9.9"}}));
  EXPECT_EQ(parked[1]["reason"], "Interface Ethernet7is not local to us");
  run("ip Ethernet2 10.0.2.1/24 10.9.9.1/24\nrun 1");
  parked = doc("show unresolved json");
  ASSERT_EQ(parked.size(), 1u);
  EXPECT_EQ(parked[0]["dst"], "100.65.0.0/16");
  EXPECT_EQ(run("show unresolved vrf red"), "== unresolved vrf red\n  (none)\n");

  // Counters. The routes drain before the interfaces (both wait the same delay, the routes were
  // scheduled first): bgp's first run finds no address, adds the blackhole and parks 3 keys; the
  // addresses' arrival retries all 3 in a second run; the new address above retries the 2 still
  // parked in a third. bgp6 the same: parked once, retried once.
  const json counters = doc("show counters json");
  ASSERT_EQ(counters["vrfs"].size(), 2u);
  const json& d = counters["vrfs"][0];
  EXPECT_EQ(d["vrf"], "default");
  EXPECT_EQ(d["misuse"], 0);
  EXPECT_GE(d["calls"]["rt_add"].get<int>(), 5);
  const json bgp = find(d["backlogs"], "name", "routeBacklog bgp");
  ASSERT_EQ(bgp.size(), 1u);
  EXPECT_EQ(bgp[0]["depth"], 0);
  EXPECT_EQ(bgp[0]["max_depth"], 4);
  EXPECT_EQ(bgp[0]["queued"], 4 + 3 + 2);
  EXPECT_EQ(bgp[0]["drained"], 4 + 3 + 2);
  EXPECT_EQ(bgp[0]["drain_runs"], 3);
  EXPECT_GT(bgp[0]["longest_slice_s"].get<double>(), 0.0);
  EXPECT_EQ(find(d["backlogs"], "name", "route6Backlog bgp6")[0]["drained"], 2);
  EXPECT_GE(counters["loop"]["callbacks"].get<int>(), 3);
  EXPECT_EQ(counters["vrfs"][1]["calls"].value("rt_add", 0), 0);  // red has no routes
}

// A device name need not be UTF-8 (the kernel takes any bytes): the JSON is still one valid
// document, the stray byte shown as U+FFFD.
TEST_F(ShowTest, NamesThatAreNotUtf8StillGiveValidJson) {
  run("device et\xb4 4\nintf Odd et\xb4\nip Odd 10.0.4.1/24\nrun 1");
  bool odd = false;
  for (const auto& e : doc("show interfaces json")) {
    if (e["ifindex"] == 4) odd = e["ifname"] == "et\xef\xbf\xbd";
  }
  EXPECT_TRUE(odd);
}

}  // namespace
