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

  // Links in index order with their addresses (a point-to-point one with its peer, the others
  // their own); routes IPv4 first, entries in selection order (lower preference first). States:
  // 3 is up and broadcast, 5 up and point-to-point.
  EXPECT_EQ(j["links"], Json::parse(R"([
    {"index": 1, "name": "eth0", "state": 3, "mtu": 9000, "metric": 0,
     "lladdr": "ll:2/00:11:22:33:44:55", "addrs": [
       {"local": "10.0.0.1", "len": 24, "peer": "10.0.0.1", "state": 3},
       {"local": "2001:db8::1", "len": 64, "peer": "2001:db8::1", "state": 3}]},
    {"index": 2, "name": "p\"2\\p\t", "state": 5, "mtu": 1500, "metric": 0, "lladdr": "-",
     "addrs": [{"local": "192.0.2.1", "len": 32, "peer": "198.51.100.7", "state": 5}]}])"));
  EXPECT_EQ(j["routes"], Json::parse(R"([
    {"prefix": "20.1.0.0/16", "entries": [
      {"proto": 11, "pref": 10, "tag": 8, "active": true,
       "gateways": [{"via": "198.51.100.7", "dev": "p\"2\\p\t"}]},
      {"proto": 10, "pref": 20, "tag": 7, "active": false,
       "gateways": [{"via": "10.0.0.2", "dev": "eth0"}]}]},
    {"prefix": "2001:db8:5::/48", "entries": [
      {"proto": 10, "pref": 5, "tag": 0, "active": true, "gateways": []}]}])"));
  EXPECT_EQ(eth->ifl_state, IFS_UP | IFS_BROADCAST);
  EXPECT_EQ(p2p->ifa_info.ifi_state, IFS_UP | IFS_POINTOPOINT);

  ASSERT_EQ(j["misuse"].size(), 1u);
  EXPECT_EQ(j["misuse"][0], corvd_misuse_log()[0]);
  Json& calls = j["calls"];
  EXPECT_EQ(calls.size(), static_cast<std::size_t>(CORVD_FN_COUNT));
  EXPECT_EQ(calls["rt_add"], 3);
  EXPECT_EQ(calls["rt_close"], corvd_call_count("rt_close"));
}

}  // namespace
