#include "fwk/framework/MonotonicClock.h"

#include <chrono>
#include <fstream>
#include <string>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace Kel {

namespace {
// A pair of reads (counter, system clock, counter) whose counter reads are further apart than
// this was split by a preemption or an interrupt: the clock's time cannot be placed on the
// counter, and the pair is not used. About 10 to 50 microseconds at the counters' rates.
constexpr std::uint64_t kPairTicks = 50000;

bool invariantCounter() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1u << 8)) != 0;
#else
  return false;
#endif
}
// Whether the system keeps its own time with the counter: then reading it is cheap and its ticks
// agree across processors (a system that distrusts it, or a virtual machine that makes reading
// it a trap, keeps time with another source).
bool systemCountsWithIt() {
  std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string source;
  return static_cast<bool>(in >> source) && source == "tsc";
}
}  // namespace

MonotonicClock::MonotonicClock(double window)
    : usable_(invariantCounter() && systemCountsWithIt()), window_(window) {}

double MonotonicClock::systemSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double MonotonicClock::resync() {
  ++systemReads_;
  if (!usable_) return settled(systemSeconds());
  const std::uint64_t before = counter();
  const double s = systemSeconds();
  const std::uint64_t after = counter();
  if (after < before || after - before > kPairTicks) return settled(s);
  const Pair now{s, before + (after - before) / 2};
  if (older_.ticks == 0 || now.ticks <= older_.ticks) {
    // The first pair, or a counter that went back (a virtual machine moved to another host):
    // the rate is measured afresh.
    older_ = newer_ = now;
    spanTicks_ = 0;
  } else {
    if (now.seconds - older_.seconds >= kSpan) {
      rate_ = (now.seconds - older_.seconds) / static_cast<double>(now.ticks - older_.ticks);
      spanTicks_ = static_cast<std::uint64_t>(kSpan / rate_);
    }
    // The rate is measured over the last one to two windows, so a change of the counter's rate
    // is followed within two.
    if (now.seconds - newer_.seconds >= window_) {
      older_ = newer_;
      newer_ = now;
    }
  }
  anchorTicks_ = now.ticks;
  anchorSeconds_ = s;
  return settled(s);
}

}  // namespace Kel
