// corvd-sim's scenario engine: the bundled scenario mirrors its routes, and a bad line is
// reported with its source and line and changes nothing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "tools/corvd-sim/Scenario.h"

namespace {

class ScenarioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    corvd_reset();
    Kel::activityManager()->reset();
    Kel::activityManager()->manualTimeIs(0.0);
  }
  void TearDown() override {
    InterfaceRouteInfo::theRootDel();
    EXPECT_EQ(corvd_misuse_count(), 0u);
    corvd_reset();
    Kel::activityManager()->reset();
  }
};

TEST_F(ScenarioTest, BundledScenarioMirrorsItsRoutes) {
  std::ostringstream out;
  {
    CorvdSim::Scenario s(out);
    s.runText(CorvdSim::kDefaultScenario, "bundled");
  }
  const std::string shown = out.str();
  for (const char* want : {"203.0.113.0/24", "192.168.0.0/16", "198.18.0.0/15", "2001:db8:100::/48",
                           "10.20.0.0/16", "link 3 tun3"}) {
    EXPECT_NE(shown.find(want), std::string::npos) << want << "\n" << shown;
  }
  // Never installed: the default route and the route whose next hop is unreachable.
  EXPECT_EQ(shown.find("0.0.0.0/0"), std::string::npos) << shown;
  EXPECT_EQ(shown.find("100.64.0.0/10"), std::string::npos) << shown;
}

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

// Every scenario kept beside the tests prints exactly the tables kept beside it.
TEST_F(ScenarioTest, ScenarioFilesPrintTheirExpectedTables) {
  const char* root = std::getenv("IRI_SOURCE_DIR");
  ASSERT_NE(root, nullptr) << "run through CTest, which sets IRI_SOURCE_DIR";
  int seen = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(root) / "tests/tools/scenarios")) {
    if (entry.path().extension() != ".scn") continue;
    SCOPED_TRACE(entry.path().filename().string());
    TearDown();
    SetUp();
    std::ostringstream out;
    {
      CorvdSim::Scenario s(out);
      s.runText(readFile(entry.path()), entry.path().string());
    }
    auto expected = entry.path();
    expected.replace_extension(".expected");
    EXPECT_EQ(out.str(), readFile(expected));
    ++seen;
  }
  EXPECT_GE(seen, 2);
}

TEST_F(ScenarioTest, BadLinesNameSourceLineAndReason) {
  std::ostringstream out;
  CorvdSim::Scenario s(out);
  auto error = [&](const std::string& text) {
    try {
      s.runText(text, "t.scn");
    } catch (const CorvdSim::ScenarioError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(error("link 1 et1 Ethernet1\nfrobnicate\n"), "t.scn:2: unknown command 'frobnicate'");
  EXPECT_EQ(error("addr 9 10.0.0.1/24"), "t.scn:1: no link with ifIndex 9");
  EXPECT_EQ(error("\n\ninput default bgp proto 8\nroute default bgp 10.0.0.1/8 via 10.0.0.2"),
            "t.scn:4: Prefix::validAsPrefix != true not allowed");
  EXPECT_EQ(error("route default bgp 10.1.0.0/16 via 10.0.0.300").rfind("t.scn:1: ", 0), 0u);
  EXPECT_EQ(error("run soon"), "t.scn:1: bad duration 'soon'");
  EXPECT_EQ(error("vrf " + std::string(101, 'v')), "t.scn:1: VrfName::bytes > 100 not allowed");
  // The failed lines changed nothing: the input holds no route.
  s.runText("vrf default\nrun 1\n", "t.scn");
  EXPECT_EQ(rt_entry_count(), 0u);
}

}  // namespace
