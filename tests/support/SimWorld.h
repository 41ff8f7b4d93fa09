// What the corvd-sim tests share: a scenario engine on manual time from 0 with a fresh daemon, its
// output read line by line, and at the end no misuse in the daemon and nothing left behind.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "tools/corvd-sim/Scenario.h"

class SimWorld : public ::testing::Test {
 protected:
  void SetUp() override {
    corvd_reset();
    Kel::activityManager()->reset();
    Kel::activityManager()->manualTimeIs(0.0);
    sim_ = std::make_unique<CorvdSim::Scenario>(out_);
  }
  void TearDown() override {
    sim_.reset();
    InterfaceRouteInfo::theRootDel();
    EXPECT_EQ(corvd_misuse_count(), 0u);
    corvd_reset();
    Kel::activityManager()->reset();
  }
  // What the lines of `text` print (source "t.scn").
  std::string run(const std::string& text) {
    out_.str("");
    sim_->runText(text, "t.scn");
    return out_.str();
  }
  // The error the lines of `text` raise, or "no error".
  std::string error(const std::string& text) {
    try {
      run(text);
    } catch (const CorvdSim::ScenarioError& e) {
      return e.what();
    }
    return "no error";
  }

  std::ostringstream out_;
  std::unique_ptr<CorvdSim::Scenario> sim_;
};
