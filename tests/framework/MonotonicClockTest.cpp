// The framework's real time: the counter-based clock against the system clock it stands for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "fwk/framework/MonotonicClock.h"

namespace {

using Kel::MonotonicClock;

// Each read is bracketed by two reads of the system clock; a preemption only widens the bracket.
// Returns how far, at worst, reads fell outside their brackets; counts reads that went back.
struct Bracket {
  double worst = 0;
  int backwards = 0;
  double last = 0;
  void read(MonotonicClock& c) {
    const double before = MonotonicClock::systemSeconds();
    const double t = c.seconds();
    const double after = MonotonicClock::systemSeconds();
    worst = std::max({worst, before - t, t - after});
    backwards += t < last;
    last = t;
  }
};

// With the default window of a second, and one of 5 ms, which the rate's measure moves across
// several times within the test.
class MonotonicClockTest : public ::testing::TestWithParam<double> {};

TEST_P(MonotonicClockTest, FollowsTheSystemClockAndNeverGoesBack) {
  MonotonicClock c(GetParam());
  Bracket b;
  // Busy reads for 20 ms: every read goes to the system clock until the counter's rate is known
  // (a millisecond or two), then most come from the counter, with a read of the system clock
  // every millisecond.
  const double end = MonotonicClock::systemSeconds() + 0.02;
  int reads = 0;
  std::uint64_t calibrated = 0;  // system reads until the counter served
  for (; MonotonicClock::systemSeconds() < end; ++reads) {
    b.read(c);
    if (calibrated == 0 && c.counting()) calibrated = c.systemReads();
  }
  EXPECT_EQ(c.counting(), c.counterUsable());
  EXPECT_GT(reads, 1000);
  if (c.counterUsable()) {
    EXPECT_LE(c.systemReads() - calibrated, 100u);
  }
  // After pauses (without reads) longer and shorter than the span the counter is extrapolated
  // over.
  for (const double pause : {3e-3, 2e-4, 1.5e-3, 5e-5}) {
    const double until = MonotonicClock::systemSeconds() + pause;
    while (MonotonicClock::systemSeconds() < until) {
    }
    b.read(c);
    b.read(c);
  }
  EXPECT_EQ(b.backwards, 0);
  EXPECT_LT(b.worst, 50e-6);
}

INSTANTIATE_TEST_SUITE_P(Windows, MonotonicClockTest, ::testing::Values(1.0, 0.005));

}  // namespace
