// corvd-sim's scenario engine: a bad line is reported with its source, line and reason and changes
// nothing; files are read line by line; the end of a run counts what --strict asks about. (The
// scenario files and the bundled scenario are run by the corvd-sim.* tests, each compared with
// the tables kept beside it; they also pin what show says while changes still wait.)
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/SimWorld.h"

namespace {

using ScenarioTest = SimWorld;

TEST_F(ScenarioTest, BadLinesNameSourceLineAndReasonAndChangeNothing) {
  run("device et1 2\nintf Ethernet1 et1\nip Ethernet1 10.0.1.1/24\n"
      "input default bgp proto 8\nroute default bgp 10.9.0.0/16 via 10.0.1.2\nvrf default\n"
      "run 1\n");
  const std::string tables = "show interfaces\nshow routes\n";
  const std::string before = run(tables);
  const std::pair<const char*, const char*> cases[] = {
      {"frobnicate", "t.scn:1: unknown command 'frobnicate'"},
      {"device et9 0", "t.scn:1: ifIndex '0' out of range 1..4294967295"},
      {"device et9 4294967296", "t.scn:1: ifIndex '4294967296' out of range 1..4294967295"},
      {"device et9 -1", "t.scn:1: bad ifIndex '-1'"},
      {"device et9 +2", "t.scn:1: bad ifIndex '+2'"},
      {"device et9 2", "t.scn:1: ifIndex 2 is the kernel's already (device et1)"},
      {"device waytoolongdevicename 9",
       "t.scn:1: bad device name 'waytoolongdevicename' (1 to 15 bytes, no '/')"},
      {"device et9 9 flags up,sideways", "t.scn:1: unknown flag 'sideways' in 'up,sideways'"},
      {"device et9 9 mac 00:11", nullptr},
      {"nodevice et9", "t.scn:1: no kernel device 'et9'"},
      {"flags et9 up", "t.scn:1: no kernel device 'et9'"},
      {"mtu Ethernet9 1500", "t.scn:1: unknown interface 'Ethernet9' (declare it with intf)"},
      {"mtu Ethernet1 67", "t.scn:1: mtu '67' out of range 68..65535"},
      {"mtu Ethernet1 65536", "t.scn:1: mtu '65536' out of range 68..65535"},
      {"oper Ethernet1 sideways", "t.scn:1: oper status must be up or down"},
      {"intf Ethernet1 et2", "t.scn:1: interface 'Ethernet1' is on device et1 (nointf it first)"},
      {"intf Other et1", "t.scn:1: device et1 has interface 'Ethernet1' already (nointf it first)"},
      {"ip Ethernet1 10.0.1.1/33", nullptr},
      {"ip Ethernet1 10.0.1.300/24", nullptr},
      {"ip Ethernet1 0.0.0.0/8", "t.scn:1: 0.0.0.0 is no interface address"},
      {"ip Ethernet1 10.0.1.1/24 10.0.1.1/16", "t.scn:1: address 10.0.1.1/16 given twice"},
      {"ip6 Ethernet1 2001:db8::1/129", nullptr},
      {"ip9 Ethernet1", "t.scn:1: unknown command 'ip9'"},
      {"novrf x x", "t.scn:1: usage: novrf V"},
      {"run inf", "t.scn:1: bad duration 'inf' (seconds, finite, decimal, not negative)"},
      {"run 1e400", "t.scn:1: bad duration '1e400' (seconds, finite, decimal, not negative)"},
      {"run 0x10", "t.scn:1: bad duration '0x10' (seconds, finite, decimal, not negative)"},
      {"run -0", "t.scn:1: bad duration '-0' (seconds, finite, decimal, not negative)"},
      {"proto default bgp 0", "t.scn:1: a route input's protocol number cannot go back to 0"},
      {"proto default bgp 256", "t.scn:1: protocol '256' out of range 0..255"},
      {"route default bgp 10.1.0.0/16 via 0.0.0.0",
       "t.scn:1: a via needs an interface or a next hop other than 0.0.0.0"},
      {"route default bgp 10.0.0.1/8 via 10.0.1.2",
       "t.scn:1: Prefix::validAsPrefix != true not allowed"},
      {"route default nobody 10.1.0.0/16 via 10.0.1.2",
       "t.scn:1: no route input nobody in vrf default"},
      {"show everything",
       "t.scn:1: show what? routes, interfaces, unresolved, counters or summary"},
      {"show routes vrf green", "t.scn:1: no vrf green"},
      {"vrf default", "t.scn:1: vrf default is already started"},
      {"device et9", "t.scn:1: usage: device DEV IFINDEX [flags F] [mac M]"},
      {"device et9 9 flags", "t.scn:1: 'flags' needs a value"},
      {"device et9 9 colour red", "t.scn:1: unexpected 'colour'"},
      {"flags et1 18446744073709551616",  // past 64 bits: nothing parsed, not 0
       "t.scn:1: flags '18446744073709551616' out of range 0..4294967295"},
      {"flags et1 up,,running", "t.scn:1: unknown flag '' in 'up,,running'"},
      {"flags et1 4294967296", "t.scn:1: flags '4294967296' out of range 0..4294967295"},
      {"mac et1 00:11:22:33:44", nullptr},
      {"intf Ethernet9 et1 mtu 0", "t.scn:1: mtu '0' out of range 68..65535"},
      {"intf Ethernet9 et1 vrf", "t.scn:1: 'vrf' needs a value"},
      {"mtu Ethernet1 -1", "t.scn:1: bad mtu '-1'"},
      {"mtu Ethernet1 1e3", "t.scn:1: bad mtu '1e3'"},
      {"ip Ethernet1 10.0.1.1", nullptr},
      {"ip6 Ethernet1 fe80::1/64 fe80::1/64", "t.scn:1: address fe80::1/64 given twice"},
      {"noip6 Ethernet9", "t.scn:1: unknown interface 'Ethernet9' (declare it with intf)"},
      {"input default ospf proto 7 pref 256", "t.scn:1: preference '256' out of range 0..255"},
      {"input default ospf proto 7 pref -1", "t.scn:1: bad preference '-1'"},
      {"input default bgp proto 9", "t.scn:1: route input bgp exists in vrf default"},
      {"route default bgp 10.1.0.0/16 via", "t.scn:1: 'via' needs a value"},
      {"route default bgp 10.1.0.0/16 via 2001:db8::1", nullptr},
      {"route default bgp 2001:db8::/32 via 2001:db8::1",
       "t.scn:1: no IPv6 route input bgp in vrf default"},
      {"blackhole default bgp 10.1.0.0/16 via 10.0.1.2",
       "t.scn:1: usage: blackhole VRF INPUT PREFIX"},
      {"withdraw default bgp 10.77.0.0/16", "t.scn:1: route input bgp holds no route 10.77.0.0/16"},
      {"unpublish nowhere bgp", "t.scn:1: no route input bgp in vrf nowhere"},
      {"run 1 2", "t.scn:1: usage: run SECONDS"},
      {"run 31536001", "t.scn:1: duration '31536001' longer than a year (31536000 s)"},
      {"run 99999999999999999999999",
       "t.scn:1: duration '99999999999999999999999' longer than a year (31536000 s)"},
      {"show routes json json", "t.scn:1: json given twice"},
      {"show routes vrf", "t.scn:1: 'vrf' needs a value"},
      {"show routes ipv4 ipv6", "t.scn:1: one family at most"},
      {"show interfaces ipv4", "t.scn:1: no interface ipv4"},
      {"show interfaces et1 et2", "t.scn:1: unexpected 'et2'"},
      {"show interfaces brief brief", "t.scn:1: brief given twice"},
      {"show counters vrf default", "t.scn:1: unexpected 'vrf'"},
      {"show unresolved brief", "t.scn:1: unexpected 'brief'"},
      {"show summary extra", "t.scn:1: unexpected 'extra'"},
      {"stop red", "t.scn:1: vrf red is not started"},
      {"trace Kel/0", "t.scn:1: unknown trace facility 'Kel' (InterfaceRouteInfo or *)"},
      {"trace InterfaceRouteInfo/0;Foo",
       "t.scn:1: unknown trace facility 'Foo' (InterfaceRouteInfo or *)"},
      {"trace InterfaceRouteInfo/40",
       "t.scn:1: bad trace configuration \"InterfaceRouteInfo/40\": level 40 out of range 0-31"},
      {"stop default now", "t.scn:1: usage: stop VRF"},
      {"daemon-netmask red et1 10.0.1.1/16", "t.scn:1: no vrf red"},
      {"daemon-netmask default et1 10.0.1.7/16",
       "t.scn:1: et1 holds no address 10.0.1.7 in the daemon"},
      {"daemon-netmask default et1 10.0.1.1/33", nullptr},
  };
  for (const auto& [line, want] : cases) {
    SCOPED_TRACE(line);
    const std::string got = error(line + std::string("\nrun 1"));
    if (want) {
      EXPECT_EQ(got, want);
    } else {
      EXPECT_EQ(got.rfind("t.scn:1: ", 0), 0u) << got;
    }
    EXPECT_EQ(run(tables), before);
  }
  EXPECT_EQ(error("run 31536000"), "no error");  // a year exactly is the longest step
  EXPECT_EQ(error(std::string(5000, 'x')), "t.scn:1: line longer than 4096 bytes");
  EXPECT_EQ(error("vrf " + std::string(101, 'v')), "t.scn:1: VrfName::bytes > 100 not allowed");
}

// Scenario files are read line by line: a last line without a newline still runs, and neither a
// directory nor an endless line is read into memory before it is refused.
TEST_F(ScenarioTest, FilesAreReadLineByLineWithBoundedLines) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("corvd-sim-test-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  auto write = [&](const char* name, const std::string& text) {
    std::ofstream(dir / name, std::ios::binary) << text;
    return (dir / name).string();
  };
  auto read = [](const std::string& path) {
    std::ostringstream out;
    CorvdSim::Scenario s(out);
    try {
      s.runFile(path);
    } catch (const CorvdSim::ScenarioError& e) {
      return std::string(e.what());
    }
    return "ok: " + out.str();
  };
  EXPECT_EQ(read(write("last.scn", "vrf default\nshow routes")), "ok: == routes vrf default\n");
  const std::string longLine = write("long.scn", "run 1\n" + std::string(100000, '#'));
  EXPECT_EQ(read(longLine), longLine + ":2: line longer than 4096 bytes");
  EXPECT_EQ(read(dir.string()), "cannot read " + dir.string() + ": it is a directory");
  EXPECT_EQ(read((dir / "absent.scn").string()), "cannot read " + (dir / "absent.scn").string());
  std::filesystem::remove_all(dir);
}

// What --strict asks at the end of a run: the bundled scenario leaves one route waiting for a
// next hop that no interface serves (10.9.9.9), and its daemons saw no misuse; a route input that
// is given an address for its next hop later leaves none.
TEST_F(ScenarioTest, EndOfRunCountsUnresolvedRoutesAndMisuse) {
  run(CorvdSim::kDefaultScenario);
  EXPECT_EQ(sim_->unresolvedCount(), 1u);
  EXPECT_EQ(sim_->misuseCount(), 0u);
  run("device et9 9\nintf Ethernet9 et9\nip Ethernet9 10.9.9.1/24\nrun 1");
  EXPECT_EQ(sim_->unresolvedCount(), 0u);
}

}  // namespace
