// Kel::ActivityManager: the process-wide activity loop, its main clock and its time source.
// Time: a pluggable TimeSource. RealTimeSource (the default) reads the system's monotonic clock
// in seconds, through MonotonicClock (cheap enough to read after every key of a drain);
// ManualTimeSource is set by hand, and with a step set it advances by that step on every read of
// now(), so code that bounds its work with Kel::now() can be tested deterministically.
// The loop's own bookkeeping reads the time with current(), which never steps.
// Loop:
// - runOnce() makes one pass: it fires the armings that are due (time <= current time) when the
//   pass begins, in (time, arming sequence) order, across all clocks of the manager. A callback
//   may arm or disarm any notifiee: one disarmed or re-armed for another time before its turn is
//   not fired in this pass; anything armed during the pass waits for a later pass, so a pass
//   always ends.
// - runUntil(t): passes until nothing armed is due by t. On manual time the time jumps to each
//   next armed time <= t and ends at t (never moving backwards); on real time the loop sleeps.
// - runUntilIdle(): passes until nothing is armed, jumping (manual) or sleeping (real) to each
//   next armed time; at most maxPasses passes, so a notifiee that re-arms itself forever cannot
//   hang a test.
// - runFirstDue(): fires the earliest due arming alone (0 or 1 callbacks); a host loop that
//   polls its own sources between callbacks uses it, so it never holds the thread for more than
//   one callback at a time.
// - stop() makes the running loop return after the current callback; a later run starts afresh.
// All three return the number of callbacks run. Running the loop from inside one of its callbacks
// raises Kel::Exception. An exception escaping a callback propagates to the loop's caller; the
// notifiee that threw stays disarmed and the rest stay armed.
// reset() (for tests) disarms every notifiee of every clock and restores real time.
// A manager must outlive its clocks (the process-wide one is never destroyed). Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fwk/framework/Clock.h"
#include "fwk/framework/MonotonicClock.h"
#include "fwk/framework/Ptr.h"
#include "fwk/framework/Time.h"

namespace Kel {

class TimeSource {
 public:
  virtual ~TimeSource() = default;
  // One read of the time, in seconds; a source may advance on each read.
  virtual double now() = 0;
  // The time without counting as a read.
  virtual double current() const = 0;
};

class RealTimeSource final : public TimeSource {
 public:
  double now() override { return clock_.seconds(); }
  double current() const override { return clock_.seconds(); }

 private:
  mutable MonotonicClock clock_;
};

class ManualTimeSource final : public TimeSource {
 public:
  explicit ManualTimeSource(double start = 0) : time_(start) {}
  // Returns the time, then advances it by the step.
  double now() override {
    const double t = time_;
    time_ += step_;
    return t;
  }
  double current() const override { return time_; }
  void timeIs(double t) { time_ = t; }
  void advance(double dt) { time_ += dt; }
  double step() const { return step_; }
  void stepIs(double dt) { step_ = dt; }

 private:
  double time_;
  double step_ = 0;
};

class ActivityManager {
 public:
  static constexpr std::size_t kDefaultMaxPasses = 1000000;

  ActivityManager();
  ~ActivityManager();
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The main clock, on which the reactors arm their notifiees.
  const Ptr<Clock>& clock() const { return clock_; }

  double now() { return source_->now(); }
  double currentTime() const { return source_->current(); }
  TimeSource& timeSource() const { return *source_; }
  // Null restores real time.
  void timeSourceIs(std::unique_ptr<TimeSource> source);
  // Switches to a manual time source starting at `start` and returns it (owned by the manager).
  ManualTimeSource& manualTimeIs(double start);
  // The manual time source in use, or null on real time.
  ManualTimeSource* manualTime() const { return manual_; }
  void realTimeIs() { timeSourceIs(nullptr); }

  // The earliest armed time over all clocks; endOfTime when nothing is armed.
  double nextTime() const;
  bool idle() const { return nextTime() == endOfTime; }

  std::size_t runOnce();
  std::size_t runFirstDue();
  std::size_t runUntil(double t, std::size_t maxPasses = kDefaultMaxPasses);
  std::size_t runUntilIdle(std::size_t maxPasses = kDefaultMaxPasses);
  void stop() { stopRequested_ = true; }

  void reset();

  // Callbacks run since construction or the last reset().
  std::uint64_t firedCount() const { return fired_; }

 private:
  friend class Clock;
  friend class Clock::Notifiee;
  void clockAdd(Clock* c) { clocks_.push_back(c); }
  void clockDel(Clock* c);
  std::uint64_t armingSeqNew() { return nextSeq_++; }
  std::size_t firePass();
  // Fires the arming `key` of `c` when it is still armed; returns 1 when a callback ran.
  std::size_t fire(Clock& c, const Clock::Key& key);
  void waitUntil(double t);

  class RunScope;

  std::unique_ptr<TimeSource> source_;
  ManualTimeSource* manual_ = nullptr;
  std::vector<Clock*> clocks_;
  Ptr<Clock> clock_;
  std::uint64_t nextSeq_ = 1;
  std::uint64_t fired_ = 0;
  bool running_ = false;
  bool stopRequested_ = false;
};

// The current activity manager: the process-wide one (made on first use, never destroyed) unless
// a host running one loop per world made another current with activityManagerIs. Kel::now(),
// the main clock of the module's reactors and clocks made without a manager follow it; a clock
// keeps the manager that was current when it was made.
ActivityManager* activityManager();
// Makes `m` current; null restores the process-wide one. The caller keeps `m` alive meanwhile.
void activityManagerIs(ActivityManager* m);

}  // namespace Kel
