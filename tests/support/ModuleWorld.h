// What the module test worlds share: the messages traced at one level, and the end of a world
// (the root and theRoot go, traces return to their defaults, the daemon must have seen no misuse,
// its log being the failure message, and the daemon and the activity manager are reset).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Trace.h"

// The messages recorded at `level`, in order.
inline std::vector<std::string> messages(const Kel::TraceRecorder& rec, int level) {
  std::vector<std::string> out;
  for (const auto& r : rec.records()) {
    if (r.level == level) out.push_back(r.message);
  }
  return out;
}

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
