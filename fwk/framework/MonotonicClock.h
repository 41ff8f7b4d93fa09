// Kel::MonotonicClock: the system's monotonic clock in seconds, cheap enough to read after every
// key of a drain.
//
// Where the processor's time-stamp counter runs at one rate whatever the core's power state (x86
// "invariant TSC") and the system keeps its own time with it, a read within kSpan of the last
// read of the system clock is that read's time plus the counter's ticks since, at the rate
// measured over the last one to two windows (a second each by default): a third of the system
// clock's cost, which orders the counter's read among the surrounding instructions (a bound on a
// batch of work needs no such order).
//
// Guarantees: it never goes backwards; it stays within a few microseconds of the system clock (a
// read of both that a preemption split is not used); until the rate is known (the clock's first
// kSpan, and again after the counter went back), and elsewhere, every read is the system clock's.
// One thread: a clock is read by the loop that owns it.
#pragma once

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace Kel {

class MonotonicClock {
 public:
  // The longest the counter is extrapolated without a read of the system clock, and the least
  // time over which its rate is first measured.
  static constexpr double kSpan = 1e-3;

  explicit MonotonicClock(double window = 1.0);
  double seconds() {
#if defined(__x86_64__) || defined(__i386__)
    // A counter below the anchor (another core's, behind) wraps to a large count: a resync.
    const std::uint64_t ticks = counter() - anchorTicks_;
    if (ticks < spanTicks_) return settled(anchorSeconds_ + static_cast<double>(ticks) * rate_);
#endif
    return resync();
  }
  // Whether the processor's counter may be used, and whether reads now come from it (its rate
  // is known).
  bool counterUsable() const { return usable_; }
  bool counting() const { return spanTicks_ != 0; }
  // Reads that went to the system clock.
  std::uint64_t systemReads() const { return systemReads_; }
  // The system's monotonic clock, read directly.
  static double systemSeconds();

 private:
  static std::uint64_t counter() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return 0;
#endif
  }
  double resync();
  double settled(double t) { return last_ = t > last_ ? t : last_; }

  bool usable_ = false;
  double last_ = 0;
  // The read of the system clock the counter is extrapolated from, and its counter value.
  double anchorSeconds_ = 0;
  std::uint64_t anchorTicks_ = 0;
  // Reads of the system clock and the counter together: the rate is measured from `older_`,
  // which `newer_` replaces once a window has passed since it was taken.
  struct Pair {
    double seconds = 0;
    std::uint64_t ticks = 0;
  };
  double window_;
  Pair older_;
  Pair newer_;
  double rate_ = 0;              // seconds per tick
  std::uint64_t spanTicks_ = 0;  // kSpan in ticks; 0 until the rate is known
  std::uint64_t systemReads_ = 0;
};

}  // namespace Kel
