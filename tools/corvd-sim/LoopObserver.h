// What corvd-sim observes of the module from outside, for `show counters`, `show unresolved`,
// the progress line and stamped trace lines. Nothing here is part of the module's model.
// - Backlog depths (the interface backlog, every route input's route backlog) are sampled after
//   every scenario line and around every activity callback the host runs. A callback during which
//   a backlog's depth fell is one drain run of it: the fall is the keys it drained, the callback's
//   wall time its slice. A rise, wherever it happens, is keys queued.
// - The reason a route was set aside is the module's own trace: the last level-0 message of the
//   module's facility before the key entered its input's unresolved backlog (the module traces the
//   reason, then adds the key, and delivers the change to notifiees at once). So the observer keeps
//   that level enabled and passes its records on only when the user's configuration asked for it.
// - It is the process's trace sink while it lives: records go on to the sink that was in place
//   before it; with stamping on, records of a world go to stderr as "[t=TIME vrf=NAME] " and the
//   usual trace line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fwk/framework/Trace.h"

namespace CorvdSim {

class World;

class LoopObserver : public Kel::TraceSink {
 public:
  struct BacklogStats {
    std::string vrf;
    std::string name;  // "intfBacklog", "routeBacklog INPUT", "route6Backlog INPUT"
    std::size_t depth = 0;
    std::size_t maxDepth = 0;
    std::uint64_t queued = 0;
    std::uint64_t drained = 0;
    std::uint64_t drainRuns = 0;
    double longestSlice = 0;  // seconds of wall time
  };
  // A route set aside in an unresolved backlog, and why.
  struct Unresolved {
    std::string vrf;
    std::string input;
    bool ipv6 = false;
    std::string key;
    std::string reason;
  };

  LoopObserver();
  ~LoopObserver() override;
  LoopObserver(const LoopObserver&) = delete;
  LoopObserver& operator=(const LoopObserver&) = delete;

  // Trace configuration text as --trace takes it ("" is silence); raises Kel::RangeException.
  void traceConfigIs(const std::string& text);
  void traceStampIs(bool on) { stamp_ = on; }
  // A line on stderr every second of wall time while `run` steps: keys queued, drained, pending.
  void progressIs(bool on) { progress_ = on; }

  void record(const Kel::TraceRecord& r) override;

  // Samples `w`'s backlogs and starts watching unresolved backlogs that appeared (after a line).
  void observe(World& w);
  // Runs one due callback of `w` (entered), observed; returns what runFirstDue returned.
  std::size_t runFirstDue(World& w);
  // Runs `w`'s manual-time loop up to `until`, one observed callback at a time.
  void runUntil(World& w, double until);
  // Forgets a VRF whose world goes (its stats stay: the counters are for the whole run).
  void dropVrf(const std::string& vrf);

  std::vector<BacklogStats> backlogs() const;
  std::vector<Unresolved> unresolved() const;
  std::uint64_t callbacks() const { return callbacks_; }
  double longestCallback() const { return longestCallback_; }

 private:
  struct Tap;
  template <class Backlog>
  struct TapOf;
  void sample(World& w, double slice);
  void progressTick();

  Kel::TraceSink* previous_;
  bool stamp_ = false;
  bool progress_ = false;
  bool showLevel0_ = true;  // the user's configuration enables the module's level 0
  std::string lastReason_;  // the module's last level-0 message
  std::map<std::string, BacklogStats> stats_;         // by vrf '\n' name
  std::map<const void*, std::unique_ptr<Tap>> taps_;  // by unresolved backlog, with its reasons
  std::uint64_t callbacks_ = 0;
  double longestCallback_ = 0;
  double lastProgress_ = 0;
};

}  // namespace CorvdSim
