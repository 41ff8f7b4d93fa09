// The socket-address and mask helpers: every one of them refuses a recycled temporary with a
// misuse, and none reads or writes past a hand-built record or a buffer.
#include <cstring>

#include "DaemonTestUtil.h"

namespace {

class Sockaddr : public DaemonTest {};

// A recycled temporary (the pool moved on by SOCK_POOL_LIVE builds).
sockaddr_un* recycled(const char* text) {
  sockaddr_un* t = in4(text);
  for (int i = 0; i < SOCK_POOL_LIVE; ++i) in4("1.1.1.1");
  return t;
}

TEST_F(Sockaddr, EveryHelperCountsOneMisuseForARecycledTemporary) {
  sockaddr_un* live = sockdup(in4("255.255.0.0"));
  sockaddr_un* t = recycled("255.255.0.0");
  sockaddr_un* u = recycled("255.255.0.0");
  const auto once = [&](const char* name, auto&& call) {
    const uint64_t before = corvd_misuse_count();
    call();
    EXPECT_EQ(corvd_misuse_count(), before + 1) << name << "\n" << misuseText();
  };
  once("mask_contig", [&] { EXPECT_EQ(mask_contig(t), 0); });
  once("sock_mask_len", [&] { EXPECT_EQ(sock_mask_len(t), -1); });
  once("inet_prefix_mask_locate_internal",
       [&] { EXPECT_EQ(inet_prefix_mask_locate_internal(t), nullptr); });
  once("inet6_prefix_mask_locate_internal",
       [&] { EXPECT_EQ(inet6_prefix_mask_locate_internal(t), nullptr); });
  // Two recycled temporaries hold the same poison: they must not compare equal.
  once("sockaddr_equal(t,u)", [&] { EXPECT_FALSE(sockaddr_equal(t, u)); });
  once("sockaddr_equal(t,t)", [&] { EXPECT_FALSE(sockaddr_equal(t, t)); });
  once("sockaddr_equal(live,t)", [&] { EXPECT_FALSE(sockaddr_equal(live, t)); });
  once("sockaddr_bytes", [&] {
    int n = -1;
    EXPECT_EQ(sockaddr_bytes(t, &n), nullptr);
  });
  once("sockaddr_format", [&] {
    char buf[32] = "unchanged";
    sockaddr_format(t, buf, sizeof buf);
    EXPECT_STREQ(buf, "");
  });
  // A live copy and a live temporary are fine.
  const uint64_t before = corvd_misuse_count();
  EXPECT_EQ(sock_mask_len(live), 16);
  EXPECT_EQ(mask_contig(in4("255.0.0.0")), 1);
  EXPECT_TRUE(sockaddr_equal(live, in4("255.255.0.0")));
  EXPECT_EQ(corvd_misuse_count(), before);
  sockfree(live);
}

// A link-layer record claiming more than SA_LL_MAXLEN bytes, followed in memory by bytes that
// differ between `a` and `b`: only sll_addr may be read (and written).
struct Padded {
  sockaddr_un rec;
  uint8_t after[64];
};

Padded longLinkLayer(uint8_t tail) {
  Padded p;
  std::memset(&p, tail, sizeof p);
  p.rec.sa_family = SA_FAMILY_LINK;
  p.rec.sa_plen = SA_PLEN_NONE;
  p.rec.a_ll.sll_type = 1;
  p.rec.a_ll.sll_alen = 40;
  for (int i = 0; i < SA_LL_MAXLEN; ++i) p.rec.a_ll.sll_addr[i] = static_cast<uint8_t>(i);
  return p;
}

TEST_F(Sockaddr, LinkLayerLengthBeyondTheRecordReadsAndWritesOnlySllAddr) {
  Padded a = longLinkLayer(0xAA);
  Padded b = longLinkLayer(0xBB);
  EXPECT_TRUE(sockaddr_equal(&a.rec, &b.rec));
  int n = 0;
  ASSERT_NE(sockaddr_bytes(&a.rec, &n), nullptr);
  EXPECT_EQ(n, SA_LL_MAXLEN);

  char text[256];
  sockaddr_format(&a.rec, text, sizeof text);
  EXPECT_STREQ(text, "ll:1/00:01:02:03:04:05:06:07:08:09:0a:0b:0c:0d:0e:0f:10:11:12:13");

  Padded mask = longLinkLayer(0x00);
  sockmask(&a.rec, &mask.rec);
  for (uint8_t byte : a.after) EXPECT_EQ(byte, 0xAA);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

TEST_F(Sockaddr, FormatIntoABufferOfSizeZeroWritesNothing) {
  char buf[2] = {'x', 'y'};
  sockaddr_format(in4("10.1.2.3"), buf, 0);
  sockaddr_format(in6("2001:db8::1"), buf, 0);
  sockaddr_format(nullptr, buf, 0);
  EXPECT_EQ(buf[0], 'x');
  sockaddr_format(in4("10.1.2.3"), buf, 2);  // too short for an IP address: ""
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'y');
}

}  // namespace
