// What the targets that drive corvd-sim's scenario engine share: a quiet process (traces
// formatted and dropped, manual time at 0) and the check that, once the Scenario is gone, the
// process's own activity manager, theRoot slot and daemon are current again and untouched: each
// world runs on its own, and nothing leaks into the process.
#pragma once

#include <ostream>
#include <streambuf>

#include "fuzz/FuzzSupport.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Trace.h"

namespace fuzz {

// Takes every character and keeps none, so the output is formatted in full but costs no memory.
class DiscardBuf : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Formats each trace record as the default sink does, then drops it.
class DiscardSink : public Kel::TraceSink {
 public:
  void record(const Kel::TraceRecord& r) override { Kel::traceLine(r); }
};

// Traces to a discarding sink, tracing off, the process's clock on manual time 0; returns the
// process's activity manager for checkUntouched.
inline Kel::ActivityManager& quietProcess() {
  static DiscardSink sink;
  Kel::traceSinkIs(&sink);
  Kel::traceConfigIs("");
  Kel::ActivityManager& process = *Kel::activityManager();
  process.manualTimeIs(0.0);
  return process;
}

inline void checkUntouched(Kel::ActivityManager& process) {
  Kel::traceConfigIs("");
  FUZZ_CHECK(Kel::activityManager() == &process, "a world's activity manager is still current");
  FUZZ_CHECK(process.idle() && process.currentTime() == 0.0,
             "the process's activity manager was used");
  FUZZ_CHECK(!InterfaceRouteInfo::theRoot(), "a Root is left in the process's slot");
  FUZZ_CHECK(corvd_misuse_count() == 0 && corvd_call_count("if_conf_addlink") == 0 &&
                 corvd_call_count("rt_add") == 0 && corvd_call_count("sockbuild") == 0,
             "the process's own daemon was used");
}

}  // namespace fuzz
