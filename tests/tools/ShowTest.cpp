// corvd-sim's show commands in JSON, beyond the single-gateway forms the json example pins: whole
// multipath and blackhole entries, selection, entries whose input is gone, per-VRF summaries
// before and after a drain, the filters picking exactly what they name, set-aside routes, backlog
// counters, and names that are not UTF-8.
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

std::vector<std::string> dsts(const json& routes) {
  std::vector<std::string> out;
  for (const auto& r : routes) out.push_back(r.at("dst"));
  return out;
}

TEST_F(ShowTest, RoutesAndSummaryInJsonNameInputsSelectionAndFamilies) {
  // Before the drain the keys are pending and nothing is in the daemon; every VRF is listed.
  json summary = doc("show summary json");
  ASSERT_EQ(summary.size(), 2u);
  EXPECT_EQ(summary[1]["vrf"], "red");
  EXPECT_EQ(summary[0]["pending"], 8);  // 6 route keys, 2 interfaces
  EXPECT_EQ(summary[0]["entries"], 0);
  run("run 1");

  // The static entry (pref 1) is selected and listed first; bgp's multipath entry, its next
  // hops in a list, is not. A blackhole has no gateway; a set-aside route is not in the daemon.
  const json routes = doc("show routes json");
  EXPECT_EQ(find(routes, "dst", "203.0.113.0/24"), json::parse(R"([
    {"vrf": "default", "type": "unicast", "dst": "203.0.113.0/24", "gateway": "10.0.2.9",
     "dev": "et2", "protocol": "static", "proto": 3, "pref": 1, "tag": 0, "selected": true,
     "flags": []},
    {"vrf": "default", "type": "unicast", "dst": "203.0.113.0/24",
     "nexthops": [{"gateway": "10.0.1.2", "dev": "et1"}, {"gateway": "10.0.2.2", "dev": "et2"}],
     "protocol": "bgp", "proto": 8, "pref": 20, "tag": 0, "selected": false, "flags": []}])"));
  EXPECT_EQ(find(routes, "dst", "192.0.2.0/24"), json::parse(R"([
    {"vrf": "default", "type": "blackhole", "dst": "192.0.2.0/24", "protocol": "bgp", "proto": 8,
     "pref": 20, "tag": 0, "selected": true, "flags": []}])"));
  EXPECT_TRUE(find(routes, "dst", "100.64.0.0/10").empty());

  // Family and VRF filters.
  EXPECT_EQ(dsts(doc("show routes ipv4 json")),
            (std::vector<std::string>{"192.0.2.0/24", "203.0.113.0/24", "203.0.113.0/24"}));
  EXPECT_EQ(dsts(doc("show routes vrf default ipv6 json")),
            std::vector<std::string>{"2001:db8:99::/48"});
  EXPECT_EQ(doc("show routes vrf red json"), json::array());

  // A protocol change leaves the old number's entry behind: it outlives its input, which the
  // summary shows with no name.
  run("proto default static 4\nrun 1");
  EXPECT_EQ(find(doc("show routes json"), "protocol", "3"), json::parse(R"([
    {"vrf": "default", "type": "unicast", "dst": "203.0.113.0/24", "gateway": "10.0.2.9",
     "dev": "et2", "protocol": "3", "proto": 3, "pref": 1, "tag": 0, "selected": true,
     "flags": [], "input_gone": true}])"));
  EXPECT_NE(run("show routes").find("proto 3 (input gone)"), std::string::npos);
  EXPECT_EQ(doc("show summary vrf default json"), json::parse(R"([
    {"vrf": "default", "started": true, "prefixes": 3, "entries": 5,
     "protocols": [{"family": "inet", "proto": 3, "input": "", "entries": 1},
                   {"family": "inet", "proto": 4, "input": "static", "entries": 1},
                   {"family": "inet", "proto": 8, "input": "bgp", "entries": 2},
                   {"family": "inet6", "proto": 8, "input": "bgp6", "entries": 1}],
     "links": 2, "addresses": {"inet": 3, "inet6": 1}, "pending": 0, "unresolved": 2}])"));
}

TEST_F(ShowTest, InterfacesUnresolvedAndCountersSayWhatTheHostObserved) {
  run("run 1");
  // One interface by name, with its own MTU and both addresses.
  EXPECT_EQ(doc("show interfaces et2 json"), json::parse(R"([
    {"vrf": "default", "ifindex": 3, "ifname": "et2", "flags": ["UP", "RUNNING", "NOAGE"],
     "mtu": 9000, "metric": 0, "operstate": "UP", "link_type": "ether",
     "address": "00:00:00:00:00:00",
     "addr_info": [
       {"family": "inet", "local": "10.0.2.1", "prefixlen": 24, "state": "up", "flags": []},
       {"family": "inet", "local": "10.0.22.1", "prefixlen": 24, "state": "up", "flags": []}]}])"));
  EXPECT_EQ(run("show interfaces brief vrf default et1"),
            "== interfaces vrf default\net1              UP    10.0.1.1/24 2001:db8:1::1/64\n");

  // Set aside with the module's own reason; the one whose address arrives leaves the list.
  EXPECT_EQ(doc("show unresolved json").size(), 2u);
  run("ip Ethernet2 10.0.2.1/24 10.9.9.1/24\nrun 1");
  EXPECT_EQ(doc("show unresolved json"), json::parse(R"([
    {"vrf": "default", "input": "bgp", "family": "inet", "dst": "100.65.0.0/16",
     "reason": "Interface Ethernet7is not local to us"}])"));
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
  json bgp = find(d["backlogs"], "name", "routeBacklog bgp");
  ASSERT_EQ(bgp.size(), 1u);
  EXPECT_GT(bgp[0]["longest_slice_s"].get<double>(), 0.0);
  bgp[0].erase("longest_slice_s");
  EXPECT_EQ(bgp[0], json::parse(R"({"name": "routeBacklog bgp", "depth": 0, "max_depth": 4,
                                    "queued": 9, "drained": 9, "drain_runs": 3})"));
  EXPECT_EQ(find(d["backlogs"], "name", "route6Backlog bgp6")[0]["drained"], 2);
  EXPECT_GE(counters["loop"]["callbacks"].get<int>(), 3);
  EXPECT_EQ(counters["vrfs"][1]["calls"].value("rt_add", 0), 0);  // red has no routes

  // An IPv6 route parked with the IPv6 reason (which says "for" where IPv4 says "with").
  run("route default bgp6 2001:db8:77::/48 via 2001:db8:7::2\nrun 1");
  EXPECT_EQ(find(doc("show unresolved json"), "family", "inet6"), json::parse(R"([
    {"vrf": "default", "input": "bgp6", "family": "inet6", "dst": "2001:db8:77::/48",
     "reason": "There is no interface for nexthop 2001:db8:7::2"}])"));
  EXPECT_NE(
      run("show unresolved")
          .find(
              "  bgp6 (ipv6) 2001:db8:77::/48: There is no interface for nexthop 2001:db8:7::2\n"),
      std::string::npos);
}

// A device name need not be UTF-8 (the kernel takes any bytes): the JSON is still one valid
// document, the stray byte shown as U+FFFD.
TEST_F(ShowTest, NamesThatAreNotUtf8StillGiveValidJson) {
  run("device et\xb4 4\nintf Odd et\xb4\nip Odd 10.0.4.1/24\nrun 1");
  EXPECT_EQ(find(doc("show interfaces json"), "ifname", "et\xef\xbf\xbd").size(), 1u);
}

}  // namespace
