// The kernel source on rtnetlink messages built here, without a kernel: what a Linux VRF device,
// its slaves, their addresses and the VRF's routing table become (the VRF's world starts, slaves
// and their routes go to it, IPv6 there is left out), and what its going away does (the world
// stops, slaves return to default, the table waits for another VRF device). Runs on any machine,
// also where the kernel has no VRF support (the namespace tests cover the same paths against a real
// kernel where it has). Then the faults the netlink fuzz target found, each pinned: every
// message is handed over at the end of a page followed by an inaccessible one, so that a read past
// it faults here too, without a sanitizer.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tests/tools/RtnlBuilder.h"
#include "tools/corvd-sim/KernelSource.h"

namespace {

using CorvdSim::KernelSource;

struct Recorder : CorvdSim::Publisher {
  void line(const std::string& text) override { lines.push_back(text); }
  void vrfGone(const std::string& vrf) override { lines.push_back("(world " + vrf + " stops)"); }
  std::vector<std::string> take() { return std::exchange(lines, {}); }
  std::vector<std::string> lines;
};

class KernelMessages : public ::testing::Test {
 protected:
  // A device, up with carrier; a VRF device carries its table, a slave its master's index.
  void link(std::uint16_t type, int index, const char* name, std::uint32_t table = 0,
            std::uint32_t master = 0) {
    deliver(msg_.link(index, name, RtnlTest::kUp, table, master, type));
  }
  void addr(int family, int index, const char* text, int len) {
    deliver(msg_.addr(family, index, text, len));
  }
  void route(std::uint16_t type, int family, std::uint32_t table, const char* dst, int len,
             const char* gateway, int oif) {
    deliver(msg_.route({.type = type,
                        .family = family,
                        .table = table,
                        .dst = dst,
                        .len = len,
                        .gateway = gateway,
                        .oif = oif}));
  }
  // The message's bytes end where an inaccessible page starts (its length rounded up to 4 bytes,
  // so that it starts aligned).
  void deliver(const nlmsghdr* nlh) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    auto* base = static_cast<char*>(map);
    ASSERT_EQ(mprotect(base + page, page, PROT_NONE), 0);
    char* at = base + page - NLMSG_ALIGN(nlh->nlmsg_len);
    std::memcpy(at, nlh, nlh->nlmsg_len);
    src_.message(reinterpret_cast<const nlmsghdr*>(at));
    munmap(map, 2 * page);
  }
  // Whether `lines` hold `text` (has) or a line containing it (mentions); the lines are the
  // message either way.
  static ::testing::AssertionResult has(const std::vector<std::string>& lines,
                                        const std::string& text) {
    return result(std::find(lines.begin(), lines.end(), text) != lines.end(), lines);
  }
  static ::testing::AssertionResult mentions(const std::vector<std::string>& lines,
                                             const std::string& text) {
    return result(
        std::any_of(lines.begin(), lines.end(),
                    [&](const std::string& l) { return l.find(text) != std::string::npos; }),
        lines);
  }
  static ::testing::AssertionResult result(bool ok, const std::vector<std::string>& lines) {
    return (ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << ::testing::PrintToString(lines);
  }

  Recorder pub_;
  KernelSource src_{pub_};
  RtnlTest::RtnlBuilder msg_;
};

TEST_F(KernelMessages, VrfDeviceStartsItsWorldTakesItsSlavesAndTableAndWithdrawsOnDelete) {
  link(RTM_NEWLINK, 2, "a0");
  addr(AF_INET, 2, "10.1.0.1", 24);
  pub_.take();
  link(RTM_NEWLINK, 10, "blue", 100);
  auto lines = pub_.take();
  EXPECT_TRUE(has(lines, "vrf blue"));

  // a0 becomes blue's slave: its interface and IPv4 address move there, IPv6 on it is left out.
  link(RTM_NEWLINK, 2, "a0", 0, 10);
  addr(AF_INET6, 2, "2001:db8:1::1", 64);
  lines = pub_.take();
  EXPECT_TRUE(mentions(lines, "intf a0 a0 vrf blue"));
  EXPECT_FALSE(mentions(lines, "ip6 a0"));

  // Table 100 is blue's, the main table default's, the local table nobody's; IPv6 only default.
  route(RTM_NEWROUTE, AF_INET, 100, "10.8.0.0", 16, "10.1.0.5", 2);
  route(RTM_NEWROUTE, AF_INET, RT_TABLE_MAIN, "10.9.0.0", 16, "10.1.0.6", 2);
  route(RTM_NEWROUTE, AF_INET, RT_TABLE_LOCAL, "10.7.0.0", 16, "10.1.0.7", 2);
  route(RTM_NEWROUTE, AF_INET6, 100, "2001:db8:9::", 48, "2001:db8:1::5", 2);
  route(RTM_NEWROUTE, AF_INET, 200, "10.6.0.0", 16, "10.1.0.8", 2);  // a table of no VRF
  lines = pub_.take();
  EXPECT_TRUE(has(lines, "route blue rtproto-static 10.8.0.0/16 via 10.1.0.5 dev a0"));
  EXPECT_TRUE(has(lines, "route default rtproto-static 10.9.0.0/16 via 10.1.0.6 dev a0"));
  EXPECT_FALSE(mentions(lines, "10.7.0.0"));
  EXPECT_FALSE(mentions(lines, "2001:db8:9::"));
  EXPECT_FALSE(mentions(lines, "10.6.0.0"));

  // The VRF device goes: its world stops and takes its routes and inputs along; the slave falls
  // back to default, where its IPv6 address is published now.
  link(RTM_DELLINK, 10, "blue", 100);
  lines = pub_.take();
  EXPECT_TRUE(has(lines, "(world blue stops)"));
  EXPECT_TRUE(has(lines, "intf a0 a0 vrf default"));
  EXPECT_TRUE(has(lines, "ip6 a0 2001:db8:1::1/64"));
  EXPECT_FALSE(mentions(lines, "route "));
  // A VRF device taking table 100 again publishes the table's route into the new VRF.
  link(RTM_NEWLINK, 11, "red", 100);
  lines = pub_.take();
  EXPECT_TRUE(has(lines, "vrf red"));
  EXPECT_TRUE(mentions(lines, "route red rtproto-static 10.8.0.0/16 via 10.1.0.5"));

  // VRF devices may share a table: the last one to come has it; when it goes, the one left takes
  // the table back, and when one that does not hold the table goes, the holder keeps it.
  link(RTM_NEWLINK, 12, "green", 100);
  lines = pub_.take();
  EXPECT_TRUE(mentions(lines, "route green rtproto-static 10.8.0.0/16"));
  link(RTM_DELLINK, 12, "green", 100);
  lines = pub_.take();
  EXPECT_TRUE(mentions(lines, "route red rtproto-static 10.8.0.0/16"));
  link(RTM_NEWLINK, 13, "gold", 100);
  link(RTM_DELLINK, 11, "red", 100);
  pub_.take();
  route(RTM_NEWROUTE, AF_INET, 100, "10.5.0.0", 16, "10.1.0.9", 2);
  lines = pub_.take();
  EXPECT_TRUE(mentions(lines, "route gold rtproto-static 10.5.0.0/16"));
}

// A VRF device's change message: without a readable table it changes nothing (the fuzz target
// found the world left running after a table read as 0 turned the device into a plain one); a
// new table restarts the world on that table with the slaves; table 0 stops it for good.
TEST_F(KernelMessages, AVrfDeviceKeepsItsWorldUntilItsTableChanges) {
  link(RTM_NEWLINK, 2, "a0");
  addr(AF_INET, 2, "10.1.0.1", 24);
  link(RTM_NEWLINK, 10, "blue", 100);
  link(RTM_NEWLINK, 2, "a0", 0, 10);
  route(RTM_NEWROUTE, AF_INET, 100, "10.8.0.0", 16, "10.1.0.5", 2);
  route(RTM_NEWROUTE, AF_INET, 200, "10.6.0.0", 16, "10.1.0.6", 2);
  pub_.take();
  // The VRF kind and its data, holding `table` when given.
  const auto vrfLink = [&](const std::optional<std::uint32_t>& table) {
    nlmsghdr* nlh = msg_.link(10, "blue");
    nlattr* info = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
    mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "vrf");
    nlattr* data = mnl_attr_nest_start(nlh, IFLA_INFO_DATA);
    if (table) mnl_attr_put_u32(nlh, IFLA_VRF_TABLE, *table);
    mnl_attr_nest_end(nlh, data);
    mnl_attr_nest_end(nlh, info);
    deliver(nlh);
  };

  vrfLink(std::nullopt);
  auto lines = pub_.take();
  EXPECT_FALSE(mentions(lines, "world") || mentions(lines, "vrf ") || mentions(lines, "route"))
      << ::testing::PrintToString(lines);

  vrfLink(200);
  lines = pub_.take();
  const auto at = [&](const std::string& text) {
    return std::find(lines.begin(), lines.end(), text) - lines.begin();
  };
  ASSERT_TRUE(has(lines, "(world blue stops)"));
  EXPECT_LT(at("(world blue stops)"), at("vrf blue")) << ::testing::PrintToString(lines);
  EXPECT_LT(at("vrf blue"), at("intf a0 a0 vrf blue")) << ::testing::PrintToString(lines);
  EXPECT_TRUE(has(lines, "route blue rtproto-static 10.6.0.0/16 via 10.1.0.6 dev a0"));
  EXPECT_FALSE(mentions(lines, "10.8.0.0"));

  vrfLink(0);
  lines = pub_.take();
  EXPECT_TRUE(has(lines, "(world blue stops)"));
  EXPECT_TRUE(has(lines, "intf a0 a0 vrf default"));
  EXPECT_FALSE(has(lines, "vrf blue") || mentions(lines, "route "))
      << ::testing::PrintToString(lines);
  link(RTM_DELLINK, 10, "blue");
  EXPECT_FALSE(mentions(pub_.take(), "world")) << "a plain device's removal stops no world";
}

TEST_F(KernelMessages, MessagesAreReadWithinTheirLengthAndMalformedOnesIgnored) {
  link(RTM_NEWLINK, 2, "a0");
  link(RTM_NEWLINK, 3, "b0");
  pub_.take();
  const auto ignored = src_.counters().ignored;

  // A multipath route whose next hops end the message: its two hops, nothing read past them.
  nlmsghdr* nlh =
      msg_.route({.dst = "10.2.0.0", .len = 16, .hops = {{"10.1.0.5", 2}, {"10.1.1.5", 3}}});
  deliver(nlh);
  auto lines = pub_.take();
  EXPECT_TRUE(has(lines,
                  "route default rtproto-static 10.2.0.0/16 via 10.1.0.5 dev a0 via "
                  "10.1.1.5 dev b0"));

  // A length the kernel never sends (not a multiple of 4): the destination's last bytes would lie
  // past the message. Ignored, as are a destination with host bits set and an all-zero gateway
  // alone; with a device the zero gateway is left out.
  nlh = msg_.route({.family = AF_INET6, .dst = "2001:db8:7::", .len = 48});
  nlh->nlmsg_len -= 3;
  deliver(nlh);
  route(RTM_NEWROUTE, AF_INET, RT_TABLE_MAIN, "10.0.0.91", 24, "10.1.0.5", 2);
  route(RTM_NEWROUTE, AF_INET, RT_TABLE_MAIN, "10.3.0.0", 16, "0.0.0.0", 0);
  EXPECT_EQ(pub_.take(), std::vector<std::string>{});
  EXPECT_EQ(src_.counters().ignored, ignored + 3);
  route(RTM_NEWROUTE, AF_INET, RT_TABLE_MAIN, "10.4.0.0", 16, "0.0.0.0", 2);
  lines = pub_.take();
  EXPECT_TRUE(has(lines, "route default rtproto-static 10.4.0.0/16 dev a0"));
}

TEST_F(KernelMessages, OnlyNamesALineCarriesAsOneWordAreMirroredAndOneNameIsOneDevice) {
  // A blank (which the kernel refuses) or a '#' (which it allows, and which starts a scenario
  // line's comment) would make the lines name another device: such a device is not mirrored, and
  // one renamed so is gone.
  pub_.take();
  link(RTM_NEWLINK, 2, "a b");
  link(RTM_NEWLINK, 3, "a#b");
  EXPECT_EQ(pub_.take(), std::vector<std::string>{});
  link(RTM_NEWLINK, 4, "a");
  pub_.take();
  link(RTM_NEWLINK, 4, "a#1");
  EXPECT_EQ(pub_.take(), (std::vector<std::string>{"nointf a", "nodevice a"}));

  // A VRF device's name under a new index (the old one's removal lost in an overrun, or still
  // to come after a new dump): the old device and its world go before the new one starts.
  link(RTM_NEWLINK, 10, "blue", 100);
  pub_.take();
  link(RTM_NEWLINK, 12, "blue", 100);
  auto lines = pub_.take();
  ASSERT_TRUE(has(lines, "(world blue stops)"));
  ASSERT_TRUE(has(lines, "vrf blue"));
  EXPECT_LT(std::find(lines.begin(), lines.end(), "(world blue stops)"),
            std::find(lines.begin(), lines.end(), "vrf blue"))
      << ::testing::PrintToString(lines);
  EXPECT_TRUE(has(lines, "device blue 12 flags 65601"));
}

TEST_F(KernelMessages, AddressesOfAnUnknownDeviceSurviveADumpAndWaitForIt) {
  // A dump that no longer shows the address updates a device the source does not know.
  pub_.take();
  addr(AF_INET, 7, "10.7.0.1", 24);
  src_.dumpBegin(KernelSource::kAll);
  EXPECT_NO_THROW(src_.dumpEnd(KernelSource::kAll));
  addr(AF_INET, 7, "10.7.0.2", 24);
  EXPECT_EQ(pub_.take(), std::vector<std::string>{});
  link(RTM_NEWLINK, 7, "c0");
  const auto lines = pub_.take();
  EXPECT_TRUE(has(lines, "ip c0 10.7.0.2/24"));
}

}  // namespace
