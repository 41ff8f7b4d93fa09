#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/TimerWheel.h"

namespace {

struct Shot {
  int id;
  double at;
};
std::vector<Shot> shots;

struct WheelProbe : Vek::TimerWheel::Clock {
  int id;
  std::function<void()> action;
  WheelProbe(int i, const Kel::Ptr<Vek::TimerWheel>& w) : Clock(w), id(i) {}
  void onTime() override {
    shots.push_back({id, Kel::activityManager()->currentTime()});
    if (action) action();
  }
};

std::vector<int> ids() {
  std::vector<int> v;
  for (const Shot& s : shots) v.push_back(s.id);
  return v;
}

class TimerWheelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    shots.clear();
    am->manualTimeIs(0);
  }
  void TearDown() override { am->reset(); }
  Kel::Ptr<Vek::TimerWheel> wheel(unsigned ticks, bool preserveOrder = true) {
    return Kel::make<Vek::TimerWheel>(am, am->clock(), 10, ticks, preserveOrder, 4);
  }
  Kel::ActivityManager* am = Kel::activityManager();
};

TEST_F(TimerWheelTest, TimesRoundUpToTheTickAndOneNotifieeServesTheWheel) {
  auto w = wheel(100);
  WheelProbe a(1, w), b(2, w), c(3, w), d(4, w), e(5, w);
  b.timeMinIs(0.0105);
  d.timeMinIs(0.02);
  a.timeMinIs(0.001);
  c.timeMinIs(0.010);
  e.timeMinIs(0.5);
  e.timeMinIs(Kel::endOfTime);
  EXPECT_EQ(w->armedCount(), 4u);
  EXPECT_EQ(am->clock()->armedCount(), 1u);
  EXPECT_DOUBLE_EQ(am->nextTime(), 0.01);
  EXPECT_EQ(a.timeMin(), 0.001);  // as given, not rounded
  am->runUntilIdle();
  EXPECT_EQ(ids(), (std::vector<int>{1, 3, 2, 4}));  // tick, then arming order
  EXPECT_DOUBLE_EQ(shots[0].at, 0.01);
  EXPECT_DOUBLE_EQ(shots[2].at, 0.02);
  EXPECT_EQ(w->armedCount(), 0u);
  EXPECT_TRUE(am->idle());
}

TEST_F(TimerWheelTest, CallbacksDisarmDestroyAndReArmClocksOfTheSameWakeUp) {
  auto w = wheel(16, false);
  WheelProbe a(1, w), b(2, w), c(3, w);
  auto d = std::make_unique<WheelProbe>(4, w);
  a.timeMinIs(0.05);
  b.timeMinIs(0.05);
  d->timeMinIs(0.05);
  c.timeMinIs(0.05);  // most recently armed: first without preserveOrder
  c.action = [&] {
    if (shots.size() > 1) return;
    d.reset();
    a.timeMinIs(Kel::endOfTime);
    c.timeMinIs(0.001);  // already passed: the next tick
  };
  EXPECT_EQ(am->runUntil(0.05), 1u);  // one wake-up of the wheel
  EXPECT_EQ(ids(), (std::vector<int>{3, 2}));
  am->runUntilIdle();
  EXPECT_EQ(ids(), (std::vector<int>{3, 2, 3}));
  EXPECT_DOUBLE_EQ(shots.back().at, 0.06);
  EXPECT_THROW(a.timeMinIs(std::nan("")), Kel::RangeException);
}

class TimerWheelSized : public TimerWheelTest, public ::testing::WithParamInterface<unsigned> {};

// Arming far beyond the wheel's ticks, at random, with disarms, against a plain model: every
// armed clock fires once, at its rounded-up tick, in (tick, arming order). The wheel turns about
// 25 times; at 1100 ticks its buckets span three pages, the last one partly used.
TEST_P(TimerWheelSized, ClocksBeyondTheWheelFireInOrderAgainstAReferenceModel) {
  const unsigned ticks = GetParam();
  auto w = wheel(ticks);
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> usecs(0, static_cast<int>(ticks) * 10000 * 25);
  std::vector<std::unique_ptr<WheelProbe>> clocks;
  struct Expected {
    long tick;
    int armOrder;
    int id;
  };
  std::vector<Expected> model(200);
  int armOrder = 0;
  for (int i = 0; i < 200; ++i) {
    clocks.push_back(std::make_unique<WheelProbe>(i, w));
    // Whole-microsecond times; some share a tick so that order within a tick is exercised.
    const int us = (i % 3 == 0) ? 123456 * static_cast<int>(ticks / 8) : usecs(rng);
    clocks[i]->timeMinIs(us / 1e6);
    model[i] = {(us + 9999) / 10000, armOrder++, i};
    if (i % 5 == 0 && i > 0) {  // re-arm an earlier one: it moves to the back of its tick
      const int j = i - 5, us2 = usecs(rng);
      clocks[j]->timeMinIs(us2 / 1e6);
      model[j] = {(us2 + 9999) / 10000, armOrder++, j};
    }
  }
  for (int i = 1; i < 200; i += 7) {
    clocks[i]->timeMinIs(Kel::endOfTime);
    model[i].tick = -1;
  }
  std::erase_if(model, [](const Expected& e) { return e.tick < 0; });
  std::sort(model.begin(), model.end(), [](const Expected& x, const Expected& y) {
    return x.tick != y.tick ? x.tick < y.tick : x.armOrder < y.armOrder;
  });
  EXPECT_GT(w->overflowCount(), 0u);
  am->runUntilIdle();
  ASSERT_EQ(shots.size(), model.size());
  for (std::size_t k = 0; k < model.size(); ++k) {
    EXPECT_EQ(shots[k].id, model[k].id) << k;
    EXPECT_NEAR(shots[k].at, model[k].tick / 100.0, 1e-9) << k;
  }
  EXPECT_EQ(w->armedCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ticks, TimerWheelSized, ::testing::Values(8u, 1100u));

TEST_F(TimerWheelTest, WheelLivesWhileItsClocksDoAndRejectsBadShapes) {
  const long base = Kel::Entity::liveCount();
  {
    auto probe = std::make_unique<WheelProbe>(1, wheel(8));
    EXPECT_EQ(Kel::Entity::liveCount(), base + 1);
    probe->timeMinIs(3);
    EXPECT_EQ(am->clock()->armedCount(), 1u);
  }
  EXPECT_EQ(Kel::Entity::liveCount(), base);
  EXPECT_TRUE(am->idle());
  EXPECT_THROW(Kel::make<Vek::TimerWheel>(am, am->clock(), 0, 8, true, 1), Kel::RangeException);
  EXPECT_THROW(Kel::make<Vek::TimerWheel>(am, am->clock(), 10, 0, true, 1), Kel::RangeException);
}

}  // namespace
