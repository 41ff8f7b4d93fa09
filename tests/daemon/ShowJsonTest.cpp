// corvd_json: the text is one well-formed JSON value (checked by a strict recursive-descent
// parser) that holds what the tables hold, with names that need escapes escaped.
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "DaemonTestUtil.h"

namespace {

struct Json {
  enum Kind { null, boolean, number, string, array, object } kind = null;
  bool b = false;
  double num = 0;
  std::string str;
  std::vector<std::string> keys;  // of an object, parallel to items
  std::vector<Json> items;

  const Json& operator[](const std::string& key) const {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (keys[i] == key) return items[i];
    }
    ADD_FAILURE() << "no member " << key;
    static const Json none;
    return none;
  }
  const Json& operator[](std::size_t i) const {
    static const Json none;
    if (i < items.size()) return items[i];
    ADD_FAILURE() << "no item " << i;
    return none;
  }
};

// Accepts exactly one JSON value (RFC 8259 grammar, ASCII \u escapes only) and nothing else.
class JsonParser {
 public:
  explicit JsonParser(std::string text) : s_(std::move(text)) {}
  bool parse(Json& out) { return value(out) && (ws(), p_ == s_.size()); }

 private:
  void ws() {
    while (p_ < s_.size() && std::strchr(" \t\r\n", s_[p_]) && s_[p_]) ++p_;
  }
  bool eat(char c) {
    ws();
    if (p_ >= s_.size() || s_[p_] != c) return false;
    ++p_;
    return true;
  }
  bool word(const char* w) {
    std::size_t n = std::strlen(w);
    if (s_.compare(p_, n, w) != 0) return false;
    p_ += n;
    return true;
  }
  bool digits() {
    std::size_t from = p_;
    while (p_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[p_]))) ++p_;
    return p_ > from;
  }
  bool value(Json& v) {
    ws();
    if (p_ >= s_.size()) return false;
    char c = s_[p_];
    if (c == '{' || c == '[') {
      ++p_;
      v.kind = c == '{' ? Json::object : Json::array;
      char close = c == '{' ? '}' : ']';
      if (eat(close)) return true;
      do {
        Json item;
        if (v.kind == Json::object && !(ws(), string(v.keys.emplace_back()) && eat(':'))) {
          return false;
        }
        if (!value(item)) return false;
        v.items.push_back(std::move(item));
      } while (eat(','));
      return eat(close);
    }
    if (c == '"') {
      v.kind = Json::string;
      return string(v.str);
    }
    if (word("true") || word("false")) {
      v.kind = Json::boolean;
      v.b = c == 't';
      return true;
    }
    if (word("null")) return true;
    std::size_t from = p_;
    if (s_[p_] == '-') ++p_;
    if (p_ < s_.size() && s_[p_] == '0') {
      ++p_;
    } else if (!digits()) {
      return false;
    }
    if (p_ < s_.size() && s_[p_] == '.' && (++p_, !digits())) return false;
    if (p_ < s_.size() && (s_[p_] == 'e' || s_[p_] == 'E')) {
      ++p_;
      if (p_ < s_.size() && (s_[p_] == '+' || s_[p_] == '-')) ++p_;
      if (!digits()) return false;
    }
    v.kind = Json::number;
    v.num = std::stod(s_.substr(from, p_ - from));
    return true;
  }
  bool string(std::string& out) {
    if (p_ >= s_.size() || s_[p_++] != '"') return false;
    while (p_ < s_.size()) {
      char c = s_[p_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20 || p_ >= s_.size()) return false;
      if (c != '\\') {
        out += c;
        continue;
      }
      static const char from[] = "\"\\/bfnrt", to[] = "\"\\/\b\f\n\r\t";
      const char* e = std::strchr(from, s_[p_++]);
      if (e && *e) {
        out += to[e - from];
        continue;
      }
      if (s_[p_ - 1] != 'u' || p_ + 4 > s_.size()) return false;
      for (std::size_t i = 0; i < 4; ++i) {
        if (!std::isxdigit(static_cast<unsigned char>(s_[p_ + i]))) return false;
      }
      unsigned long code = std::stoul(s_.substr(p_, 4), nullptr, 16);
      if (code > 0x7F) return false;
      out += static_cast<char>(code);
      p_ += 4;
    }
    return false;
  }

  std::string s_;
  std::size_t p_ = 0;
};

Json parsed(const std::string& text) {
  Json j;
  EXPECT_TRUE(JsonParser(text).parse(j)) << text;
  return j;
}

bool wellFormed(const char* text) {
  Json j;
  return JsonParser(text).parse(j);
}

rt_entry* addRoute(sockaddr_un* dest, int len, gw_entry* gw, int pref, uint32_t tag,
                   sockaddr_un* via) {
  rt_parms rtp{};
  rtp.rtp_dest = dest;
  rtp.rtp_dest_mask = sock_mask_by_len(dest->sa_family, len);
  rtp.rtp_gwp = gw;
  rtp.rtp_preference = pref;
  rtp.rtp_tag = tag;
  rtp.rtp_n_gw = via ? 1 : 0;
  rtp.rtp_routers[0] = via;
  if_addr* ifaps[RT_N_MULTIPATH] = {via ? if_withdst(via) : nullptr};
  rt_open(fwk_task);
  rt_entry* rt = rt_add(&rtp, ifaps);
  rt_close(fwk_task, 0, 1, 0);
  return rt;
}

class ShowJson : public DaemonTest {};

TEST_F(ShowJson, JsonIsWellFormedHoldsTheTablesAndEscapesNames) {
  // The checker itself rejects what a careless printer produces.
  EXPECT_TRUE(wellFormed(R"({"a":[1,-2.5e3,true,null,"x\"\\\u0009"],"b":{}})"));
  for (const char* bad :
       {R"({"a":1,})", "[1 2]", "[\"\t\"]", R"(["\x"])", "{\"a\"}", "01", "[]]"}) {
    EXPECT_FALSE(wellFormed(bad)) << bad;
  }

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
  Json j = parsed(text);
  ASSERT_EQ(j.kind, Json::object);
  EXPECT_EQ(j.keys, (std::vector<std::string>{"links", "routes", "misuse", "calls"}));

  const Json& links = j["links"];
  ASSERT_EQ(links.items.size(), 2u);
  EXPECT_EQ(links[0]["index"].num, 1);
  EXPECT_EQ(links[0]["name"].str, "eth0");
  EXPECT_EQ(links[0]["mtu"].num, 9000);
  EXPECT_EQ(links[0]["state"].num, eth->ifl_state);
  EXPECT_EQ(links[0]["lladdr"].str, "ll:2/00:11:22:33:44:55");
  const Json& addrs = links[0]["addrs"];
  ASSERT_EQ(addrs.items.size(), 2u);
  EXPECT_EQ(addrs[0]["local"].str, "10.0.0.1");
  EXPECT_EQ(addrs[0]["len"].num, 24);
  EXPECT_EQ(addrs[0]["state"].num, a4->ifa_info.ifi_state);
  EXPECT_EQ(addrs[1]["local"].str, "2001:db8::1");
  EXPECT_EQ(addrs[1]["len"].num, 64);
  EXPECT_EQ(links[1]["name"].str, odd);
  EXPECT_EQ(links[1]["lladdr"].str, "-");
  EXPECT_EQ(links[1]["addrs"][0]["peer"].str, "198.51.100.7");
  EXPECT_EQ(links[1]["addrs"][0]["len"].num, 32);
  EXPECT_NE(static_cast<unsigned>(links[1]["addrs"][0]["state"].num) & IFS_POINTOPOINT, 0u);

  // IPv4 before IPv6; entries in selection order (lower preference first).
  const Json& routes = j["routes"];
  ASSERT_EQ(routes.items.size(), 2u);
  EXPECT_EQ(routes[0]["prefix"].str, "20.1.0.0/16");
  const Json& e = routes[0]["entries"];
  ASSERT_EQ(e.items.size(), 2u);
  EXPECT_EQ(e[0]["proto"].num, 11);
  EXPECT_EQ(e[0]["pref"].num, 10);
  EXPECT_EQ(e[0]["tag"].num, 8);
  EXPECT_TRUE(e[0]["active"].b);
  EXPECT_EQ(e[0]["gateways"][0]["via"].str, "198.51.100.7");
  EXPECT_EQ(e[0]["gateways"][0]["dev"].str, odd);
  EXPECT_EQ(e[1]["proto"].num, 10);
  EXPECT_EQ(e[1]["active"].kind, Json::boolean);
  EXPECT_FALSE(e[1]["active"].b);
  EXPECT_EQ(e[1]["gateways"][0]["dev"].str, "eth0");
  EXPECT_EQ(routes[1]["prefix"].str, "2001:db8:5::/48");
  EXPECT_EQ(routes[1]["entries"][0]["gateways"].kind, Json::array);
  EXPECT_TRUE(routes[1]["entries"][0]["gateways"].items.empty());

  ASSERT_EQ(j["misuse"].items.size(), 1u);
  EXPECT_EQ(j["misuse"][0].str, corvd_misuse_log()[0]);
  const Json& calls = j["calls"];
  EXPECT_EQ(calls.items.size(), static_cast<std::size_t>(CORVD_FN_COUNT));
  EXPECT_EQ(calls["rt_add"].num, 3);
  EXPECT_EQ(calls["rt_close"].num, corvd_call_count("rt_close"));
}

}  // namespace
