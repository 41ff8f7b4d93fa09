#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fwk/IpAddrSet.h"
#include "tests/support/ErrorText.h"

namespace {

using InterfaceRouteInfo::IpAddrSet;
using Kanet::Ip6AddrWithMask;
using Kanet::IpAddrWithMask;

const std::string kTextForm =
    "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': None, 'ip6AddrWithMask': None})";

struct Members {
  std::vector<std::pair<IpAddrWithMask, bool>> v4;
  std::vector<std::pair<Ip6AddrWithMask, bool>> v6;
};

Members randomMembers(std::mt19937& rng, int n) {
  Members m;
  for (int i = 0; i < n; ++i) {
    m.v4.push_back({IpAddrWithMask(Kanet::IpAddr(static_cast<std::uint32_t>(rng())),
                                   static_cast<int>(rng() % 33)),
                    rng() % 2 == 0});
    Kanet::Ip6Addr a;
    for (int b = 0; b < 16; b += 1 + static_cast<int>(rng() % 4)) a.u8Is(b, rng() & 0xff);
    m.v6.push_back({Ip6AddrWithMask(a, static_cast<int>(rng() % 129)), rng() % 2 == 0});
  }
  return m;
}

IpAddrSet build(const Members& m) {
  IpAddrSet s;
  for (auto& [a, f] : m.v4) s.ipAddrWithMaskIs(a, f);
  for (auto& [a, f] : m.v6) s.newIp6AddrWithMask(a, f);
  return s;
}

std::string fullText(const IpAddrSet& s, const char* sep = ", ") {
  return std::string("Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': ") +
         Kel::collectionText(s.ipAddrWithMaskCollection()) + sep +
         "'ip6AddrWithMask': " + Kel::collectionText(s.ip6AddrWithMaskCollection()) + "})";
}

TEST(IpAddrSet, EqualityIgnoresInsertionOrderButNotOneMember) {
  std::mt19937 rng(5);
  for (int round = 0; round < 50; ++round) {
    Members m = randomMembers(rng, 1 + round % 12);
    const IpAddrSet a = build(m);
    std::shuffle(m.v4.begin(), m.v4.end(), rng);
    std::shuffle(m.v6.begin(), m.v6.end(), rng);
    IpAddrSet b = build(m);
    ASSERT_TRUE(a == b);
    ASSERT_FALSE(a != b);

    IpAddrSet c = b;  // a copy is equal and independent
    const auto [v6, flag] = m.v6[rng() % m.v6.size()];
    c.ip6AddrWithMaskDel(v6);
    ASSERT_FALSE(a == c);
    ASSERT_TRUE(a == b);
    c.ip6AddrWithMaskIs(v6, !flag);  // same keys, one bool differs
    ASSERT_FALSE(a == c);
    c.ip6AddrWithMaskIs(v6, flag);
    ASSERT_TRUE(a == c);
    const Ip6AddrWithMask extra(Kanet::ip6AddrLoopback, 128);
    c.ip6AddrWithMaskIs(extra, true);
    ASSERT_EQ(a == c, a.ip6AddrWithMask(extra));
    b.ipAddrWithMaskDelAll();
    ASSERT_EQ(a == b, a.ipAddrWithMaskCount() == 0);
  }
}

TEST(IpAddrSet, TextFormIsFixedAndReadsBack) {
  std::mt19937 rng(9);
  const IpAddrSet full = build(randomMembers(rng, 20));
  std::ostringstream os;
  os << full;
  EXPECT_EQ(os.str(), kTextForm);
  EXPECT_EQ(IpAddrSet().toString(), kTextForm);
  EXPECT_TRUE(IpAddrSet::fromString(full.toString()) == IpAddrSet());

  // Members written in the collection syntax read back, with any blanks between tokens.
  EXPECT_TRUE(IpAddrSet::fromString(fullText(full)) == full);
  std::string spaced = fullText(full, " ,\n\t ");
  for (const char* token : {"Value", "(", "**", "{", ")"}) {
    spaced.replace(spaced.find(token), std::string(token).size(), std::string(" ") + token + " ");
  }
  EXPECT_TRUE(IpAddrSet::fromString(spaced + "  \n") == full);
  EXPECT_TRUE(IpAddrSet::fromString("Value('InterfaceRouteInfo::IpAddrSet',**{})") == IpAddrSet());

  // Parsing from a position stops after the value's ")".
  const std::string two = fullText(full) + kTextForm;
  const char* pos = two.data();
  const IpAddrSet first(pos, two.data() + two.size());
  EXPECT_TRUE(first == full);
  EXPECT_EQ(pos - two.data(), static_cast<long>(fullText(full).size()));
}

TEST(IpAddrSet, ParseErrorsHaveExactTextsAndLeaveNothingBehind) {
  const IpAddrSet one = build({{{IpAddrWithMask(Kanet::IpAddr(0x0a000001), 24), true}},
                               {{Ip6AddrWithMask(Kanet::ip6AddrLoopback, 128), false}}});
  const std::string text = fullText(one);
  // Every cut before the closing ")" is a premature end, and the position stays put.
  for (std::size_t cut = 0; cut < text.size(); ++cut) {
    const char* pos = text.data();
    ASSERT_EQ(errorOf([&] { IpAddrSet v(pos, text.data() + cut); }),
              "premature end of value type IpAddrSet")
        << text.substr(0, cut);
    ASSERT_EQ(pos, text.data());
  }
  for (const char* junk : {"x", ")", " ,"}) {
    const std::string bad = text + junk;
    const long long column = static_cast<long long>(bad.find_first_not_of(' ', text.size()));
    EXPECT_EQ(errorOf([&] { IpAddrSet::fromString(bad); }),
              "junk at column " + std::to_string(column) + " deserializing " + bad);
  }
  EXPECT_EQ(errorOf([] {
              IpAddrSet::fromString(
                  "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': None, "
                  "'ipAddrs': None})");
            }),
            "IpAddrSet has no such attribute: ipAddrs");
  EXPECT_EQ(errorOf([] { IpAddrSet::fromString("Value('InterfaceRouteInfo::Other', ** {})"); }),
            "expected ''InterfaceRouteInfo::IpAddrSet'' at column 6");
  const std::string yes =
      "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': {'10.0.0.1/24': Yes}})";
  EXPECT_EQ(errorOf([&] { IpAddrSet::fromString(yes); }),
            "expected 'True' or 'False' at column " + std::to_string(yes.find("Yes")));
  EXPECT_EQ(errorOf([] {
              IpAddrSet::fromString(
                  "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': "
                  "{'10.0.0.256/24': True}})");
            }),
            "IpAddrWithMask::fromString: invalid text '10.0.0.256/24'");
}

}  // namespace
