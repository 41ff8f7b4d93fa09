#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Clock.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Time.h"

namespace {

std::vector<std::string> fired;

struct Probe : Kel::Clock::Notifiee {
  std::string label;
  std::function<void()> action;
  explicit Probe(std::string l, const Kel::Ptr<Kel::Clock>& c = Kel::activityManager()->clock())
      : label(std::move(l)) {
    notifierIs(c);
  }
  void onTime() override {
    fired.push_back(label);
    if (action) action();
  }
};

class ClockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fired.clear();
    am->manualTimeIs(0);
  }
  void TearDown() override { am->reset(); }
  Kel::ActivityManager* am = Kel::activityManager();
};

TEST_F(ClockTest, EqualTimesFireInArmingOrderAndReArmingMovesToTheBack) {
  Probe a("a"), b("b"), c("c"), d("d");
  a.timeMinIs(2);
  b.timeMinIs(1);
  c.timeMinIs(1);
  d.timeMinIs(1);
  a.timeMinIs(1);  // replaces 2, armed after c
  b.timeMinIs(1);  // unchanged: keeps its place
  d.timeMinIs(Kel::endOfTime);
  EXPECT_EQ(am->clock()->timeMin(), 1);
  EXPECT_EQ(am->clock()->armedCount(), 3u);
  EXPECT_EQ(am->runUntil(0.5), 0u);
  EXPECT_EQ(Kel::now(), 0.5);
  EXPECT_EQ(am->runOnce(), 0u);  // nothing is due before its time
  EXPECT_EQ(am->runUntil(3), 3u);
  EXPECT_EQ(fired, (std::vector<std::string>{"b", "c", "a"}));
  EXPECT_EQ(Kel::now(), 3);
  EXPECT_EQ(a.timeMin(), Kel::endOfTime);
  EXPECT_TRUE(am->idle());
}

// One callback at a time, across clocks, in (time, arming) order; nothing before its time.
TEST_F(ClockTest, RunFirstDueFiresTheEarliestDueArmingAlone) {
  auto other = Kel::make<Kel::Clock>("other", am);
  Probe a("a"), b("b", other), c("c", other), d("d");
  a.timeMinIs(1.5);
  b.timeMinIs(1);
  c.timeMinIs(1.5);  // armed after a, at the same time
  d.timeMinIs(2.5);
  am->manualTime()->timeIs(0.5);
  EXPECT_EQ(am->runFirstDue(), 0u);
  am->manualTime()->timeIs(2);
  b.action = [&] { d.timeMinIs(1.75); };  // armed by a callback: due at its turn, not at once
  for (const char* want : {"b", "a", "c", "d"}) {
    EXPECT_EQ(am->runFirstDue(), 1u);
    EXPECT_EQ(fired.back(), want);
    EXPECT_EQ(fired.size(), std::string("bacd").find(want[0]) + 1);
  }
  EXPECT_EQ(am->runFirstDue(), 0u);
  EXPECT_EQ(Kel::now(), 2);  // it never moves the time
}

TEST_F(ClockTest, CallbacksChangeOtherArmingsAndArmingsMadeDuringAPassWait) {
  Probe a("a"), b("b"), c("c"), d("d");
  auto e = std::make_unique<Probe>("e");
  am->manualTime()->timeIs(1);
  a.action = [&] {
    b.timeMinIs(Kel::endOfTime);  // due, cancelled
    c.timeMinIs(5);               // due, moved later
    e.reset();                    // due, destroyed while armed
    d.timeMinIs(0.5);             // in the past: next pass
    a.timeMinIs(1);               // itself, again now
    EXPECT_THROW(am->runOnce(), Kel::Exception);
  };
  a.timeMinIs(1);
  b.timeMinIs(1);
  c.timeMinIs(1);
  e->timeMinIs(1);
  EXPECT_EQ(am->runOnce(), 1u);
  a.action = nullptr;
  EXPECT_EQ(am->runOnce(), 2u);
  EXPECT_EQ(am->runUntilIdle(), 1u);
  EXPECT_EQ(fired, (std::vector<std::string>{"a", "d", "a", "c"}));
  EXPECT_EQ(Kel::now(), 5);
}

TEST_F(ClockTest, SilencedDetachedAndMovedNotifiees) {
  auto other = Kel::make<Kel::Clock>("other");
  Probe a("a"), b("b"), c("c"), d("d", other);
  a.hasNotificationActiveIs(false);
  a.timeMinIs(1);
  b.timeMinIs(1);
  b.isRegisteredNotifieeIs(false);
  c.timeMinIs(2);
  c.notifierIs(nullptr);
  EXPECT_EQ(c.timeMin(), Kel::endOfTime);
  d.timeMinIs(1);
  c.timeMinIs(0.5);  // kept without a clock, armed once given one
  c.notifierIs(other);
  d.notifierIs(am->clock());  // keeps its time, armed after c on the other clock
  EXPECT_THROW(d.timeMinIs(std::nan("")), Kel::RangeException);
  EXPECT_EQ(am->runUntilIdle(), 2u);
  EXPECT_EQ(fired, (std::vector<std::string>{"c", "d"}));
  EXPECT_EQ(a.timeMin(), Kel::endOfTime);
  EXPECT_EQ(b.timeMin(), Kel::endOfTime);
}

// A drain that works until `quantum` seconds have passed, as the backlogs do, on a manual clock
// that advances at every read.
TEST_F(ClockTest, SteppedManualTimeEndsEachBatchAfterItsQuantum) {
  const double step = 1.0 / 64, quantum = 0.125, delay = 0.0625;
  am->manualTime()->stepIs(step);
  std::deque<int> work(20);
  std::vector<std::size_t> batches;
  Probe drain("drain");
  drain.action = [&] {
    const double start = Kel::now();
    std::size_t done = 0;
    while (!work.empty()) {
      work.pop_front();
      ++done;
      if (Kel::now() >= start + quantum) break;
    }
    batches.push_back(done);
    if (!work.empty()) drain.timeMinIs(Kel::now() + delay);
  };
  drain.timeMinIs(0);
  am->runUntilIdle();
  const auto perBatch = static_cast<std::size_t>(quantum / step);
  EXPECT_EQ(batches, (std::vector<std::size_t>{perBatch, perBatch, 20 - 2 * perBatch}));
}

TEST_F(ClockTest, LoopGuardsStopAndExceptions) {
  Probe spin("spin"), thrower("thrower"), later("later");
  spin.action = [&] { spin.timeMinIs(Kel::now()); };
  spin.timeMinIs(0);
  EXPECT_EQ(am->runUntilIdle(10), 10u);
  spin.timeMinIs(Kel::endOfTime);

  thrower.action = [&] { throw Kel::Exception("boom"); };
  thrower.timeMinIs(1);
  later.timeMinIs(1);
  EXPECT_THROW(am->runUntil(2), Kel::Exception);
  EXPECT_EQ(later.timeMin(), 1);
  EXPECT_EQ(thrower.timeMin(), Kel::endOfTime);

  later.action = [&] { am->stop(); };
  spin.action = nullptr;
  spin.timeMinIs(1);
  EXPECT_EQ(am->runUntil(2), 1u);  // stopped after `later`, before `spin`
  EXPECT_EQ(Kel::now(), 1);
  EXPECT_EQ(spin.timeMin(), 1);
}

TEST_F(ClockTest, ClocksLiveWhileWatchedAndResetRestoresRealTime) {
  const long base = Kel::Entity::liveCount();
  {
    auto probe = std::make_unique<Probe>("p", Kel::make<Kel::Clock>("own"));
    EXPECT_EQ(Kel::Entity::liveCount(), base + 1);
    probe->timeMinIs(3);
    EXPECT_EQ(am->nextTime(), 3);
  }
  EXPECT_EQ(Kel::Entity::liveCount(), base);
  EXPECT_TRUE(am->idle());

  Probe past("past");
  past.timeMinIs(2);
  am->reset();
  EXPECT_EQ(am->manualTime(), nullptr);
  EXPECT_EQ(past.timeMin(), Kel::endOfTime);
  const double t0 = Kel::now();
  past.timeMinIs(t0 - 1);
  EXPECT_EQ(am->runOnce(), 1u);
  EXPECT_GE(Kel::now(), t0);
}

// Two activity managers, one per world: each has its own time and clocks; switching the current
// one decides what Kel::now() reads and where new clocks go, and never fires the other's clocks.
TEST(ActivityManagerSwitch, EachWorldRunsItsOwnLoopAndTime) {
  Kel::ActivityManager a;
  Kel::ActivityManager b;
  a.manualTimeIs(10.0);
  b.manualTimeIs(500.0);
  struct Count : Kel::Clock::Notifiee {
    int fired = 0;
    void onTime() override { ++fired; }
  };
  Count inA;
  Count inB;
  Kel::activityManagerIs(&a);
  EXPECT_EQ(Kel::now(), 10.0);
  inA.notifierIs(Kel::make<Kel::Clock>("clockA"));
  inA.timeMinIs(11.0);
  Kel::activityManagerIs(&b);
  EXPECT_EQ(Kel::now(), 500.0);
  inB.notifierIs(Kel::activityManager()->clock());
  inB.timeMinIs(501.0);
  EXPECT_EQ(inA.notifier()->activityManager(), &a);  // a clock keeps its manager
  b.runUntil(600.0);
  EXPECT_EQ(inB.fired, 1);
  EXPECT_EQ(inA.fired, 0);
  Kel::activityManagerIs(nullptr);
  EXPECT_NE(Kel::activityManager(), &a);
  EXPECT_NE(Kel::activityManager(), &b);
  a.runUntil(20.0);
  EXPECT_EQ(inA.fired, 1);
  inA.notifierIs(nullptr);
  inB.notifierIs(nullptr);
}

}  // namespace
