#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetIpAddr.h"
#include "fwk/model/KanetNames.h"
#include "fwk/model/RouteKey.h"
#include "tests/support/ErrorText.h"

namespace {

using Kanet::Ip6Addr;
using Kanet::IpAddr;

// Addresses rich in zero and 0xffff groups, so that every compression case comes up.
Ip6Addr randomIp6(std::mt19937& rng) {
  Ip6Addr a;
  for (int w = 0; w < 8; ++w) {
    const unsigned r = rng() % 8;
    const unsigned v = r < 4 ? 0 : r == 4 ? 0xffff : r == 5 ? rng() % 16 : rng() & 0xffff;
    a.u8Is(2 * w, static_cast<std::uint8_t>(v >> 8));
    a.u8Is(2 * w + 1, static_cast<std::uint8_t>(v));
  }
  return a;
}

std::string ntop6(const Ip6Addr& a) {
  char buf[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, a.bytes().data(), buf, sizeof buf);
}

// Inserts, deletes or replaces one character of s.
std::string mangle(std::string s, std::mt19937& rng) {
  static const std::string kAlphabet = "0123456789abcdefABCDEFg:.:. /";
  const char c = kAlphabet[rng() % kAlphabet.size()];
  const std::size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
  switch (rng() % 3) {
    case 0:
      s.insert(at, 1, c);
      break;
    case 1:
      if (at < s.size()) s.erase(at, 1);
      break;
    default:
      if (at < s.size()) s[at] = c;
  }
  return s;
}

TEST(Ip6Addr, TextIsInetNtopTextAndParsesBackOnRandomAddresses) {
  std::mt19937 rng(7);
  for (int i = 0; i < 20000; ++i) {
    Ip6Addr a = randomIp6(rng);
    if (i % 10 == 0) {  // IPv4-mapped and IPv4-compatible forms
      for (int b = 0; b < 10; ++b) a.u8Is(b, 0);
      a.u8Is(10, i % 20 ? 0xff : 0);
      a.u8Is(11, i % 20 ? 0xff : 0);
    }
    ASSERT_EQ(a.toString(), ntop6(a));
    ASSERT_EQ(Ip6Addr::fromString(a.toString()), a);
    // The uncompressed, upper-case form with leading zeros reads to the same address.
    char full[64];
    std::snprintf(full, sizeof full,
                  "%02X%02X:%02X%02X:%02X%02X:%02X%02X:%02X%02X:%02X%02X:%02X%02X:%02X%02X",
                  a.u8(0), a.u8(1), a.u8(2), a.u8(3), a.u8(4), a.u8(5), a.u8(6), a.u8(7), a.u8(8),
                  a.u8(9), a.u8(10), a.u8(11), a.u8(12), a.u8(13), a.u8(14), a.u8(15));
    ASSERT_EQ(Ip6Addr::fromString(full), a) << full;
  }
  EXPECT_EQ(Kanet::ip6AddrLoopback.toString(), ntop6(Kanet::ip6AddrLoopback));
  EXPECT_EQ(Kanet::ip6AddrLoopback, Ip6Addr::fromString("::1"));
  // Link-local is fe80::/10 exactly.
  for (const char* a : {"fe80::1", "febf:ffff::1"})
    EXPECT_TRUE(Ip6Addr::fromString(a).isLinkLocal());
  for (const char* a : {"fe7f::1", "fec0::1", "7e80::1"}) {
    EXPECT_FALSE(Ip6Addr::fromString(a).isLinkLocal()) << a;
  }
}

TEST(AddressParsers, AgreeWithInetPtonOnMangledTexts) {
  std::mt19937 rng(11);
  int accepted6 = 0;
  for (int i = 0; i < 40000; ++i) {
    std::string text = randomIp6(rng).toString();
    for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) text = mangle(text, rng);
    std::uint8_t want[16];
    const bool ok = inet_pton(AF_INET6, text.c_str(), want) == 1;
    const std::string err = errorOf([&] { Ip6Addr::fromString(text); });
    ASSERT_EQ(err.empty(), ok) << text << " " << err;
    if (!ok) {
      ASSERT_EQ(err, "Ip6Addr::fromString: invalid text '" + text + "'");
      continue;
    }
    ++accepted6;
    ASSERT_EQ(Ip6Addr::fromString(text), Ip6Addr::fromBytes(want)) << text;
  }
  EXPECT_GT(accepted6, 2000);  // the mangling must also produce valid texts
  for (int i = 0; i < 20000; ++i) {
    std::string text = IpAddr(static_cast<std::uint32_t>(rng() >> (rng() % 32))).toString();
    if (i % 2) text = mangle(text, rng);
    std::uint32_t want = 0;
    const bool ok = inet_pton(AF_INET, text.c_str(), &want) == 1;
    const std::string err = errorOf([&] { IpAddr::fromString(text); });
    ASSERT_EQ(err.empty(), ok) << text;
    if (!ok) continue;
    const IpAddr a = IpAddr::fromString(text);
    ASSERT_EQ(a.valueNetworkOrder(), want) << text;  // same bytes in memory as the system's
    ASSERT_EQ(IpAddr::fromNetworkOrder(want), a);
    ASSERT_EQ(a.value(), ntohl(want));
    ASSERT_EQ(a.u8(0), reinterpret_cast<const std::uint8_t*>(&want)[0]);
    ASSERT_EQ(a.toString(), text);
  }
}

// Equality compares the address a word at a time: every bit of both halves counts, and it
// agrees with the byte order that <=> gives.
TEST(AddressTypes, Ip6EqualityTellsEveryBit) {
  std::mt19937 rng(5);
  for (int i = 0; i < 200; ++i) {
    const Ip6Addr a = randomIp6(rng);
    Ip6Addr same;
    for (int b = 0; b < 16; ++b) same.u8Is(b, a.u8(b));
    ASSERT_TRUE(a == same);
    for (int bit = 0; bit < 128; ++bit) {
      Ip6Addr other = a;
      other.u8Is(bit / 8, static_cast<std::uint8_t>(a.u8(bit / 8) ^ (0x80 >> (bit % 8))));
      ASSERT_FALSE(a == other) << bit;
      ASSERT_TRUE(a != other) << bit;
      ASSERT_EQ(a < other, a.bytes() < other.bytes()) << bit;
    }
  }
}

TEST(AddressTypes, IndexOutOfRangeRaisesExactTexts) {
  Ip6Addr a;
  a.u8Is(15, 7);
  a.u8Is(0, 0x20);
  EXPECT_EQ(a.u8(15), 7);
  EXPECT_EQ(a.toString(), "2000::7");
  for (int bad : {-1, 16}) {
    EXPECT_EQ(errorOf([&] { a.u8(bad); }), "Ip6Addr::u8: index out of range");
    EXPECT_EQ(errorOf([&] { a.u8Is(bad, 1); }), "Ip6Addr::u8Is: index out of range");
  }
  EXPECT_EQ(a.toString(), "2000::7");  // a refused write changes nothing
  EXPECT_EQ(errorOf([] { IpAddr().u8(4); }), "IpAddr::u8: index out of range");
  EXPECT_EQ(errorOf([] { Kanet::EthAddr().word(3); }), "EthAddr::word: index out of range");
}

TEST(EthAddr, WordsAreNetworkOrderPairsOfBytes) {
  const Kanet::EthAddr e(0x001a, 0x2b3c, 0x4dfe);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(e.word(i), e.u8(2 * i) << 8 | e.u8(2 * i + 1));
  EXPECT_EQ(e.u8(0), 0x00);
  EXPECT_EQ(e.u8(5), 0xfe);
  EXPECT_EQ(e.toString(), "00:1a:2b:3c:4d:fe");
  EXPECT_EQ(Kanet::EthAddr::fromString("0:1A:2b:3c:4d:FE"), e);
  for (const char* bad : {"", "00:1a:2b:3c:4d", "00:1a:2b:3c:4d:fe:", "001:a:2b:3c:4d:fe",
                          "00:1a:2b:3c:4d:fg", "00-1a-2b-3c-4d-fe"}) {
    EXPECT_EQ(errorOf([&] { Kanet::EthAddr::fromString(bad); }),
              std::string("EthAddr::fromString: invalid text '") + bad + "'");
  }
}

TEST(Names, ByteLimitsAreEnforcedWheneverANameIsMade) {
  EXPECT_EQ(Ip::VrfName(std::string(100, 'v')).bytes(), 100u);
  EXPECT_EQ(Kanet::NamespaceName(std::string(150, 'n')).bytes(), 150u);
  const std::string vrf101(101, 'v');
  const std::string ns151(151, 'n');
  const std::string vrfError = "VrfName::bytes > 100 not allowed";
  const std::string nsError = "NamespaceName::bytes > 150 not allowed";
  EXPECT_EQ(errorOf([&] { Ip::VrfName v(vrf101); }), vrfError);
  EXPECT_EQ(errorOf([&] { Ip::VrfName v(vrf101.c_str()); }), vrfError);
  EXPECT_EQ(errorOf([&] { Ip::VrfName v{std::string_view(vrf101)}; }), vrfError);
  EXPECT_EQ(errorOf([&] { Kanet::NamespaceName n(ns151); }), nsError);
  EXPECT_EQ(errorOf([&] { Kanet::NamespaceName n(ns151.c_str()); }), nsError);
  // Exact, case-sensitive comparison with a literal.
  EXPECT_TRUE(Ip::VrfName("default") == "default");
  EXPECT_FALSE(Ip::VrfName("Default") == "default");
  EXPECT_FALSE(Ip::VrfName("default ") == "default");
  EXPECT_TRUE(Ip::VrfName().empty());
}

TEST(Prefixes, ValidityMatchesABitwiseReference) {
  std::mt19937 rng(3);
  for (int i = 0; i < 20000; ++i) {
    const unsigned zeros = rng() % 33;  // trailing zero bits
    const std::uint32_t v = zeros == 32 ? 0 : static_cast<std::uint32_t>(rng()) << zeros;
    const int len = static_cast<int>(rng() % 36);
    const std::uint64_t hostBits = len >= 32 ? 0 : (std::uint64_t{1} << (32 - len)) - 1;
    const bool valid = len <= 32 && (v & hostBits) == 0;
    const Kanet::IpPrefix p(IpAddr(v), len);
    ASSERT_EQ(p.validAsPrefix(), valid) << p;
    const std::string err = errorOf([&] { Routing::RouteKey k(p); });
    ASSERT_EQ(err, valid ? "" : "Prefix::validAsPrefix != true not allowed") << p;
    ASSERT_EQ(errorOf([&] { Routing::RouteKey k(IpAddr(v), len); }), err) << p;
    if (valid) {
      ASSERT_EQ(Routing::RouteKey::fromString(p.toString()).prefix(), p);
    }
    if (len <= 32) {  // the subnet of any address is a valid prefix containing it
      const Kanet::IpAddrWithMask am(IpAddr(v), len);
      ASSERT_TRUE(am.subnet().validAsPrefix());
      ASSERT_EQ(am.subnet().address().value(), v & ~static_cast<std::uint32_t>(hostBits));
      ASSERT_EQ(am.mask().value(), ~static_cast<std::uint32_t>(hostBits));
      ASSERT_EQ(Kanet::IpAddrWithMask::fromString(am.toString()), am);
    }
  }
  for (int i = 0; i < 20000; ++i) {
    const Ip6Addr a = randomIp6(rng) & Ip6Addr::maskOfLength(static_cast<int>(rng() % 129));
    const int len = static_cast<int>(rng() % 132);
    bool valid = len <= 128;
    for (int bit = len; bit < 128; ++bit) valid = valid && !(a.u8(bit / 8) & (0x80 >> (bit % 8)));
    ASSERT_EQ(Kanet::Ip6Prefix(a, len).validAsPrefix(), valid) << a << "/" << len;
    if (len > 128) continue;
    const Kanet::Ip6AddrWithMask am(a, len);
    ASSERT_EQ(am.subnet(), Kanet::Ip6Prefix(a & Ip6Addr::maskOfLength(len), len));
    ASSERT_EQ(am.subnet() == Kanet::Ip6Prefix(a, len), valid);
    ASSERT_EQ(Kanet::Ip6AddrWithMask::fromString(am.toString()), am);
  }
  EXPECT_EQ(errorOf([] { Routing6::RouteKey k(Ip6Addr(), 129); }),
            "Prefix::validAsPrefix != true not allowed");
  EXPECT_EQ(errorOf([] { Kanet::IpAddrWithMask(IpAddr(), 33); }),
            "IpAddrWithMask::maskLen > 32 not allowed");
  EXPECT_EQ(Kanet::Ip6AddrWithMask(Kanet::ip6AddrLoopback).toString(), "::1/0");
  for (const char* bad :
       {"10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/08", "10.0.0/8", "10.0.0.0/8/8", "/8"}) {
    EXPECT_EQ(errorOf([&] { Kanet::IpPrefix::fromString(bad); }),
              std::string("IpPrefix::fromString: invalid text '") + bad + "'");
  }
}

// Buckets used and the longest chain when `n` hashes fall into n buckets by the given bits.
template <class Key>
void expectSpread(const std::vector<Key>& keys) {
  const std::size_t n = keys.size();
  for (int shift : {0, 44}) {  // low bits (power-of-two tables) and high bits
    std::vector<unsigned> load(n);
    for (const Key& k : keys) ++load[(std::hash<Key>()(k) >> shift) % n];
    unsigned longest = 0;
    std::size_t empty = 0;
    for (unsigned l : load) {
      longest = std::max(longest, l);
      empty += l == 0;
    }
    // A random hash leaves about 1/e of the buckets empty, its longest chain about 9.
    EXPECT_LT(longest, 16u) << "shift " << shift;
    EXPECT_NEAR(static_cast<double>(empty) / n, 0.368, 0.01) << "shift " << shift;
  }
}

TEST(RouteKey, HashSpreadsSequentialPrefixes) {
  constexpr std::uint32_t kCount = 1u << 20;
  std::vector<Routing::RouteKey> slash24, hosts;
  std::vector<Routing6::RouteKey> slash64, slash48, hosts6;
  for (std::uint32_t i = 0; i < kCount; ++i) {
    slash24.emplace_back(IpAddr(0x0a000000 + (i << 8)), 24);
    hosts.emplace_back(IpAddr(0x0b000000 + i), 32);
    // The counter in the high half's last bytes, its first bytes, and the low half.
    Ip6Addr a = Ip6Addr::fromString("2001:db8::");
    Ip6Addr b = Ip6Addr::fromString("2001::");
    Ip6Addr h = Ip6Addr::fromString("2001:db8:0:1::");
    for (int j = 0; j < 4; ++j) {
      const auto byte = static_cast<std::uint8_t>(i >> (24 - 8 * j));
      a.u8Is(4 + j, byte);
      b.u8Is(2 + j, byte);
      h.u8Is(12 + j, byte);
    }
    slash64.emplace_back(a, 64);
    slash48.emplace_back(b, 48);
    hosts6.emplace_back(h, 128);
  }
  expectSpread(slash24);
  expectSpread(hosts);
  expectSpread(slash64);
  expectSpread(slash48);
  expectSpread(hosts6);
  // Same address, different lengths: distinct keys, distinct hashes.
  EXPECT_NE(std::hash<Routing::RouteKey>()(Routing::RouteKey(IpAddr(0x0a000000), 8)),
            std::hash<Routing::RouteKey>()(Routing::RouteKey(IpAddr(0x0a000000), 16)));
}

TEST(IntfId, LoopbackIdsAreLoopbackFollowedByDigitsOnly) {
  for (const char* id : {"Loopback0", "Loopback12", "Loopback007"}) {
    EXPECT_TRUE(Kanet::LoopbackIntfId::isLoopbackIntfId(id)) << id;
  }
  for (const char* id :
       {"Loopback", "loopback0", "Loopback1.5", "Loopback1a", "Ethernet1", "", "XLoopback1"}) {
    EXPECT_FALSE(Kanet::LoopbackIntfId::isLoopbackIntfId(id)) << id;
  }
  EXPECT_TRUE(Kanet::LoopbackIntfId::isLoopbackIntfId(Kanet::LoopbackIntfId(42)));
}

// Ids share one held text per name: equal texts make equal ids however they were made, order
// and hash follow the text, and the text goes once the last id naming it does (copies, moves and
// assignments included).
TEST(IntfId, IdsOfOneTextAreEqualAndTheTextGoesWithTheLastId) {
  using Kanet::IntfId;
  const std::size_t before = IntfId::textCount();
  {
    std::string text = "Ethernet";
    text += "7";
    IntfId a(text), b(std::string_view("Ethernet7")), c("Ethernet10"), none(""), null(nullptr);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_EQ(none, IntfId());
    EXPECT_EQ(null, IntfId());
    EXPECT_TRUE(none.empty() && !a.empty());
    EXPECT_EQ(IntfId::textCount(), before + 2);
    // Text order, not the order the texts were first held in.
    EXPECT_LT(c, a);
    EXPECT_LT(none, c);
    EXPECT_EQ(a <=> b, std::strong_ordering::equal);
    EXPECT_EQ(std::hash<IntfId>()(a), std::hash<std::string>()("Ethernet7"));
    EXPECT_EQ(std::hash<IntfId>()(none), std::hash<std::string>()(""));
    EXPECT_EQ(a.toString(), "Ethernet7");
    EXPECT_EQ(none.toString(), "");

    IntfId moved(std::move(c));
    EXPECT_TRUE(c.empty());  // NOLINT(bugprone-use-after-move): a moved-from id is empty
    EXPECT_EQ(IntfId::textCount(), before + 2);
    moved = a;  // "Ethernet10" loses its last id
    EXPECT_EQ(IntfId::textCount(), before + 1);
    const IntfId& same = moved;
    moved = same;  // assigned to itself
    EXPECT_EQ(moved.toString(), "Ethernet7");
    a = IntfId();
    b = IntfId("Ethernet7");
    EXPECT_EQ(IntfId::textCount(), before + 1);
  }
  EXPECT_EQ(IntfId::textCount(), before);
  EXPECT_EQ(IntfId("Ethernet7").toString(), "Ethernet7");  // held again after going
}

}  // namespace
