#include <Tamlo/TaskTime.h>

#include <cstdint>
#include <ostream>

#include <Tamlo/Assert.h>

namespace Tamlo {

TaskTimeDuration time2Duration(Time t) {
  TAMLO_ASSERT(t >= 0, "t >= 0 && \"time2Duration() negative Time input\"");
  // 2^63 ns is about 292 years; anything beyond cannot be represented.
  constexpr double kLimit = 9223372036854775808.0;
  double const nanoseconds = t * 1e9;
  TAMLO_ASSERT(nanoseconds < kLimit, "time2Duration() Time input {} out of range", t);
  return TaskTimeDuration(static_cast<int64_t>(nanoseconds));
}

std::string durationToString(TaskTimeDuration duration) {
  int64_t const ns = duration.count();
  if (ns > 3'599'999'999'999) {
    return fmt::format("{}min", ns / 60'000'000'000);
  }
  if (ns > 59'999'999'999) {
    return fmt::format("{}s", ns / 1'000'000'000);
  }
  if (ns > 999'999) {
    return fmt::format("{}ms", ns / 1'000'000);
  }
  if (ns <= 999) {
    return fmt::format("{}ns", ns);
  }
  return fmt::format("{}\u00b5s", ns / 1000);
}

std::ostream& operator<<(std::ostream& os, TaskTimeDuration duration) {
  return os << durationToString(duration);
}

}  // namespace Tamlo
