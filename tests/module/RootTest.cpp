// Start-up of the module root: the trace sequence, the required inputs (assertion deaths), the
// exact VRF comparison, theRoot and the daemon hook.
#include "tests/module/World.h"

namespace ModuleTest {
namespace {

using RootStart = World;

std::vector<std::string> startTrace(const Kel::TraceRecorder& rec) {
  std::vector<std::string> out;
  for (const auto& r : rec.records()) {
    if (r.level == 0 || r.message.rfind("void InterfaceRouteInfo::Root::", 0) == 0) {
      out.push_back(std::to_string(r.level) + " " + r.message);
    }
  }
  return out;
}

TEST_F(RootStart, StartUpOrderInTheDefaultVrf) {
  start("default");
  const std::string sig = "void InterfaceRouteInfo::Root::handleInitialized()";
  const std::vector<std::string> want = {
      "8 " + sig + "BEGIN",
      "0 All our needs are satisfied. Instantiating state machines",
      "0 Instantiating intfBacklogSm for vrf default",
      "0 Instantiating vrfIpIntfStatusSm",
      "0 VrfIpIntfStatusSm initialized",
      "0 Instantiating RoutingConfigSm",
      "0 Instantiating vrfIp6IntfStatusSm",
      "0 VrfIpIntfStatusSm initialized",
      "0 Instantiating Route6InputDirSm",
      "8 " + sig + "END",
  };
  EXPECT_EQ(startTrace(rec_), want);
  EXPECT_EQ(root_->kernelIntfStatusDir()->name().string(), "fwk");
  EXPECT_EQ(root_->intfBacklog()->name().string(), "default");
  EXPECT_EQ(theRoot(), root_);
  EXPECT_EQ(fwk_task->task_ifachange_method, &Root::handleIfaChange);

  // Setting initialized true again is no change; false only traces, with no END.
  rec_.clear();
  root_->initializedIs(true);
  EXPECT_TRUE(rec_.records().empty());
  root_->initializedIs(false);
  EXPECT_EQ(startTrace(rec_),
            (std::vector<std::string>{"8 " + sig + "BEGIN", "0 Initialized flag is not true"}));
  EXPECT_TRUE(root_->routingConfigSm());
}

// The comparison with "default" is exact: "Default" is another VRF.
TEST_F(RootStart, SecondVrfBecomesTheRootAndHasNoIpv6) {
  start("default");
  auto first = root_;
  root_ = makeRoot("other", "Default", {"ip6", "routing6"});
  root_->initializedIs(true);  // ip6Status and routing6Config null: fine outside "default"
  EXPECT_FALSE(root_->routing6ConfigSm());
  EXPECT_FALSE(root_->vrfIp6IntfStatusSm());
  EXPECT_TRUE(root_->vrfIpIntfStatusSm());
  EXPECT_EQ(theRoot(), root_);
  EXPECT_NE(theRoot(), first);
}

using RootDeath = World;

TEST_F(RootDeath, MissingRequiredInputsStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string fn = "void InterfaceRouteInfo::Root::handleInitialized\\(\\)";
  auto startWithout = [this](const std::string& missing, const char* vrf) {
    makeRoot("r", vrf, {missing})->initializedIs(true);
  };
  const std::string file = "InterfaceRouteInfo\\.tin:[0-9]+: ";
  EXPECT_DEATH(startWithout("all", "red"),
               file + fn + ": Assertion `allIntfStatusDir\\(\\)' failed\\.");
  EXPECT_DEATH(startWithout("local", "red"), "Assertion `allIntfStatusLocalDir\\(\\)' failed");
  EXPECT_DEATH(startWithout("ip", "red"), "Assertion `ipStatus\\(\\)' failed");
  EXPECT_DEATH(startWithout("routing", "red"), "Assertion `routingConfig\\(\\)' failed");
  EXPECT_DEATH(startWithout("ip6", "default"), "Assertion `ip6Status\\(\\)' failed");
  EXPECT_DEATH(startWithout("routing6", "default"), "Assertion `routing6Config\\(\\)' failed");
}

}  // namespace
}  // namespace ModuleTest
