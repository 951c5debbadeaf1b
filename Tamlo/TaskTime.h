// The time units of the scheduler: durations are signed 64-bit nanosecond
// counts, instants are steady-clock (boot-relative) time points, and `Time` is
// the double in seconds that Tamlo::time() returns, real or virtual. All of
// these are plain values and functions, safe to use from any thread.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>

namespace Tamlo {

using TaskTimeDuration = std::chrono::nanoseconds;
using TaskTimePoint = std::chrono::time_point<std::chrono::steady_clock, TaskTimeDuration>;
using Time = double;

// t seconds as nanoseconds, truncated toward zero. A negative (or NaN) t, or
// one too large for the duration type, is an assertion failure.
TaskTimeDuration time2Duration(Time t);

// The duration in the largest unit it fills, as a whole number without a
// blank: "999ns", "1µs", "59999ms", "60s", "60min". Seconds are used only from
// one minute on and minutes only from one hour on, so short runs keep their
// precision.
std::string durationToString(TaskTimeDuration duration);

// Writes durationToString(duration). Declared in Tamlo, so code outside the
// namespace needs `using Tamlo::operator<<;`.
std::ostream& operator<<(std::ostream& os, TaskTimeDuration duration);

}  // namespace Tamlo
