// The framework's time: seconds as a double, read from the activity manager's time source.
// Kel::now() is the time every reactor uses (a real monotonic clock in programs, a manual clock in
// tests; see ActivityManager.h). A read of a manual clock that has a step set advances it, so
// code that measures its own work with now() sees time pass. Kel::endOfTime means "never": a
// clock notifiee armed for it is disarmed, and it compares greater than every finite time.
#pragma once

#include <limits>

namespace Kel {

inline constexpr double endOfTime = std::numeric_limits<double>::infinity();

// The current time in seconds, from the process-wide activity manager's time source.
double now();

}  // namespace Kel
