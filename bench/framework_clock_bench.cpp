// Reading the time; arming and firing clocks: notifiees on the main clock, and light clocks on a
// timer wheel built as the interface backlog builds its own (10 ms ticks, 30000 ticks, order
// preserved).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Clock.h"
#include "fwk/framework/MonotonicClock.h"
#include "fwk/framework/Time.h"
#include "fwk/framework/TimerWheel.h"

namespace {

struct Counting : Kel::Clock::Notifiee {
  std::uint64_t calls = 0;
  void onTime() override { ++calls; }
};

struct WheelCounting : Vek::TimerWheel::Clock {
  using Clock::Clock;
  std::uint64_t calls = 0;
  void onTime() override { ++calls; }
};

// Times spread over `span` seconds, the same sequence on every run.
std::vector<double> times(std::size_t n, double span) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> d(0, span);
  std::vector<double> v(n);
  for (double& t : v) t = d(rng);
  return v;
}

// One read of the real time, as a drain makes after every key: the framework's clock, and the
// system's monotonic clock it stands for.
void timeRead(benchmark::State& state) {
  Kel::activityManager()->realTimeIs();
  for (auto _ : state) benchmark::DoNotOptimize(Kel::now());
}
BENCHMARK(timeRead);

void systemTimeRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Kel::MonotonicClock::systemSeconds());
}
BENCHMARK(systemTimeRead);

// n notifiees armed at spread times, then fired by the loop.
void mainClockArmThenFire(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Kel::ActivityManager* am = Kel::activityManager();
  std::vector<Counting> clocks(n);
  for (Counting& c : clocks) c.notifierIs(am->clock());
  const std::vector<double> at = times(n, 10);
  for (auto _ : state) {
    am->manualTimeIs(0);
    for (std::size_t i = 0; i < n; ++i) clocks[i].timeMinIs(at[i]);
    am->runUntilIdle();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
  am->reset();
}
BENCHMARK(mainClockArmThenFire)->Arg(1000)->Arg(100000);

// One notifiee re-armed again and again: the cost of a drain scheduling itself.
void mainClockReArm(benchmark::State& state) {
  Kel::ActivityManager* am = Kel::activityManager();
  Counting c;
  c.notifierIs(am->clock());
  double t = 0;
  for (auto _ : state) c.timeMinIs(t += 0.001);
  state.SetItemsProcessed(state.iterations());
  am->reset();
}
BENCHMARK(mainClockReArm);

void wheelArmThenFire(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Kel::ActivityManager* am = Kel::activityManager();
  am->manualTimeIs(0);
  auto wheel = Kel::make<Vek::TimerWheel>(am, am->clock(), 10, 30000, true, 1024);
  std::vector<std::unique_ptr<WheelCounting>> clocks;
  for (std::size_t i = 0; i < n; ++i) clocks.push_back(std::make_unique<WheelCounting>(wheel));
  const std::vector<double> at = times(n, 10);
  for (auto _ : state) {
    am->manualTimeIs(0);
    for (std::size_t i = 0; i < n; ++i) clocks[i]->timeMinIs(at[i]);
    am->runUntilIdle();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
  clocks.clear();
  am->reset();
}
BENCHMARK(wheelArmThenFire)->Arg(1000)->Arg(100000);

// Re-arming wheel clocks among many armed ones (the kernel notification clocks of interfaces).
void wheelReArm(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Kel::ActivityManager* am = Kel::activityManager();
  am->manualTimeIs(0);
  auto wheel = Kel::make<Vek::TimerWheel>(am, am->clock(), 10, 30000, true, 1024);
  std::vector<std::unique_ptr<WheelCounting>> clocks;
  const std::vector<double> at = times(n, 100);
  for (std::size_t i = 0; i < n; ++i) {
    clocks.push_back(std::make_unique<WheelCounting>(wheel));
    clocks[i]->timeMinIs(at[i]);
  }
  std::size_t i = 0;
  for (auto _ : state) {
    WheelCounting& c = *clocks[i];
    c.timeMinIs(c.timeMin() == at[i] ? at[(i + 1) % n] : at[i]);
    i = (i + 1) % n;
  }
  state.SetItemsProcessed(state.iterations());
  clocks.clear();
  am->reset();
}
BENCHMARK(wheelReArm)->Arg(1000)->Arg(100000);

// Making the module's wheel (30000 ticks of 10 ms), arming one clock on it and dropping it: what
// every world pays for its wheel when it starts.
void wheelMakeArmDrop(benchmark::State& state) {
  Kel::ActivityManager* am = Kel::activityManager();
  am->manualTimeIs(0);
  for (auto _ : state) {
    auto wheel = Kel::make<Vek::TimerWheel>(am, am->clock(), 10, 30000, true, 1024);
    WheelCounting c(wheel);
    c.timeMinIs(1.0);
    c.timeMinIs(Kel::endOfTime);
  }
  am->reset();
}
BENCHMARK(wheelMakeArmDrop);

}  // namespace
