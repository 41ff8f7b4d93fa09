// The end of a module test world: the root and theRoot go, traces return to their defaults, the
// daemon must have seen no misuse (its log is the failure message), and the daemon and the
// activity manager are reset for the next test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Trace.h"

inline void endModuleWorld(Kel::Ptr<InterfaceRouteInfo::Root>& root) {
  root = nullptr;
  InterfaceRouteInfo::theRootDel();
  Kel::traceSinkIs(nullptr);
  Kel::traceConfigIs("InterfaceRouteInfo/0");
  std::string misuse;
  for (const auto& m : corvd_misuse_log()) misuse += m + "\n";
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuse;
  corvd_reset();
  Kel::activityManager()->reset();
}
