// corvd_json: the text is one well-formed JSON value (read back by a strict parser) that holds
// what the tables hold, with names that need escapes escaped.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "DaemonTestUtil.h"

namespace {

// Keeps the members in the order printed.
using Json = nlohmann::ordered_json;

rt_entry* addRoute(sockaddr_un* dest, int len, gw_entry* gw, int pref, uint32_t tag,
                   sockaddr_un* via) {
  rt_parms rtp = via ? routeParms(gw, dest, len, pref, {via}) : routeParms(gw, dest, len, pref);
  rtp.rtp_tag = tag;
  if_addr* ifaps[RT_N_MULTIPATH] = {via ? if_withdst(via) : nullptr};
  rt_open(fwk_task);
  rt_entry* rt = rt_add(&rtp, ifaps);
  rt_close(fwk_task, 0, 1, 0);
  return rt;
}

class ShowJson : public DaemonTest {};

TEST_F(ShowJson, JsonIsWellFormedHoldsTheTablesAndEscapesNames) {
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  if_conf_open(fwk_task, 0);
  if_link* eth = if_conf_addlink(fwk_task, nullptr, 1, IFS_UP | IFS_BROADCAST, 0, 9000, "eth0", 4,
                                 sockbuild_ll(2, mac, 6));
  if_conf_close(fwk_task, 1);
  const std::string odd = "p\"2\\p\t";  // a quote, a backslash and a control character
  if_link* ppp = addLink(2, odd.c_str(), true, IFS_POINTOPOINT);
  if_addr* a4 = addAddr(1, in4("10.0.0.1"), 24);
  if_addr* a6 = addAddr(1, in6("2001:db8::1"), 64);
  if_addr* p2p = addAddr(2, in4("192.0.2.1"), 32, in4("198.51.100.7"));
  ASSERT_TRUE(eth && ppp && a4 && a6 && p2p) << misuseText();
  gw_entry* g10 = gw_init(nullptr, 10, fwk_task, 0, 0, nullptr, 0);
  gw_entry* g11 = gw_init(nullptr, 11, fwk_task, 0, 0, nullptr, 0);
  ASSERT_TRUE(addRoute(in6("2001:db8:5::"), 48, g10, 5, 0, nullptr));
  ASSERT_TRUE(addRoute(in4("20.1.0.0"), 16, g10, 20, 7, in4("10.0.0.2")));
  ASSERT_TRUE(addRoute(in4("20.1.0.0"), 16, g11, 10, 8, in4("198.51.100.7")));
  rt_close(fwk_task, 0, 1, 0);  // one misuse for the log

  std::string text = corvd_json();
  EXPECT_NE(text.find(R"(p\"2\\p\u0009)"), std::string::npos) << text;
  Json j = Json::parse(text);  // raises on anything but exactly one valid document
  std::vector<std::string> keys;
  for (const auto& [key, value] : j.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"links", "routes", "misuse", "calls"}));

  Json& links = j["links"];
  ASSERT_EQ(links.size(), 2u);
  EXPECT_EQ(links[0]["index"], 1);
  EXPECT_EQ(links[0]["name"], "eth0");
  EXPECT_EQ(links[0]["mtu"], 9000);
  EXPECT_EQ(links[0]["state"], eth->ifl_state);
  EXPECT_EQ(links[0]["lladdr"], "ll:2/00:11:22:33:44:55");
  Json& addrs = links[0]["addrs"];
  ASSERT_EQ(addrs.size(), 2u);
  EXPECT_EQ(addrs[0]["local"], "10.0.0.1");
  EXPECT_EQ(addrs[0]["len"], 24);
  EXPECT_EQ(addrs[0]["state"], a4->ifa_info.ifi_state);
  EXPECT_EQ(addrs[1]["local"], "2001:db8::1");
  EXPECT_EQ(addrs[1]["len"], 64);
  EXPECT_EQ(links[1]["name"], odd);
  EXPECT_EQ(links[1]["lladdr"], "-");
  EXPECT_EQ(links[1]["addrs"][0]["peer"], "198.51.100.7");
  EXPECT_EQ(links[1]["addrs"][0]["len"], 32);
  EXPECT_NE(links[1]["addrs"][0]["state"].get<unsigned>() & IFS_POINTOPOINT, 0u);

  // IPv4 before IPv6; entries in selection order (lower preference first).
  Json& routes = j["routes"];
  ASSERT_EQ(routes.size(), 2u);
  EXPECT_EQ(routes[0]["prefix"], "20.1.0.0/16");
  Json& e = routes[0]["entries"];
  ASSERT_EQ(e.size(), 2u);
  EXPECT_EQ(e[0]["proto"], 11);
  EXPECT_EQ(e[0]["pref"], 10);
  EXPECT_EQ(e[0]["tag"], 8);
  EXPECT_EQ(e[0]["active"], true);
  EXPECT_EQ(e[0]["gateways"][0]["via"], "198.51.100.7");
  EXPECT_EQ(e[0]["gateways"][0]["dev"], odd);
  EXPECT_EQ(e[1]["proto"], 10);
  EXPECT_EQ(e[1]["active"], false);
  EXPECT_EQ(e[1]["gateways"][0]["dev"], "eth0");
  EXPECT_EQ(routes[1]["prefix"], "2001:db8:5::/48");
  EXPECT_TRUE(routes[1]["entries"][0]["gateways"].is_array());
  EXPECT_TRUE(routes[1]["entries"][0]["gateways"].empty());

  ASSERT_EQ(j["misuse"].size(), 1u);
  EXPECT_EQ(j["misuse"][0], corvd_misuse_log()[0]);
  Json& calls = j["calls"];
  EXPECT_EQ(calls.size(), static_cast<std::size_t>(CORVD_FN_COUNT));
  EXPECT_EQ(calls["rt_add"], 3);
  EXPECT_EQ(calls["rt_close"], corvd_call_count("rt_close"));
}

}  // namespace
