// Inline parts of the libevent backend: conversions between seconds and
// libevent's timeval, and timeval arithmetic. Every timeval made here is
// normalised: microseconds in 0..999999, the sign carried by the seconds.
#pragma once

#include <sys/time.h>
#include <cmath>

#include <fmt/format.h>

#include <Tamlo/Assert.h>

namespace Tamlo::Impl {

// Longer timeouts are cut to this, 2^62 seconds: libevent adds its clock to
// the delay, and half of time_t's range is left for that sum.
inline constexpr double maxTimeoutSeconds = 0x1p62;

// Seconds truncated toward zero, then the fraction as truncated microseconds.
// Negative values mean "now"; NaN is a caller's bug.
inline timeval timevalFromSeconds(double seconds) {
  TAMLO_ASSERT(!std::isnan(seconds), "Invalid timeout {}", seconds);
  if (seconds <= 0)
    return timeval{0, 0};
  if (seconds >= maxTimeoutSeconds)
    return timeval{static_cast<time_t>(maxTimeoutSeconds), 0};
  time_t const whole = static_cast<time_t>(seconds);
  return timeval{whole, static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6)};
}

inline double secondsFromTimeval(timeval const& tv) {
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

inline timeval timevalAdd(timeval const& a, timeval const& b) {
  timeval sum{a.tv_sec + b.tv_sec, a.tv_usec + b.tv_usec};
  if (sum.tv_usec > 999999) {
    sum.tv_sec += 1;
    sum.tv_usec -= 1000000;
  }
  return sum;
}

inline timeval timevalSubtract(timeval const& a, timeval const& b) {
  timeval difference{a.tv_sec - b.tv_sec, a.tv_usec - b.tv_usec};
  if (difference.tv_usec < 0) {
    difference.tv_sec -= 1;
    difference.tv_usec += 1000000;
  }
  return difference;
}

// Seconds first, then microseconds.
inline bool timevalLess(timeval const& a, timeval const& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec < b.tv_usec);
}

}  // namespace Tamlo::Impl

// Prints a normalised timeval as seconds with six decimals ("1.500000").
template <>
struct fmt::formatter<timeval> : fmt::formatter<std::string_view> {
  auto format(timeval const& tv, fmt::format_context& context) const {
    if (tv.tv_sec < 0 && tv.tv_usec > 0)
      return fmt::format_to(context.out(), "-{}.{:06}", -(tv.tv_sec + 1), 1000000 - tv.tv_usec);
    return fmt::format_to(context.out(), "{}.{:06}", tv.tv_sec, tv.tv_usec);
  }
};
