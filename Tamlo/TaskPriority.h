// The priority of a task: one byte, lower values more urgent. The scheduler
// keeps one run queue for each of absolute..scavenge; oneBeyondLast only marks
// the end of that range. A priority is a plain value, safe to share between
// threads.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>

#include <fmt/format.h>

namespace Tamlo {

class TaskPriority {
 public:
  enum Value : uint8_t {
    absolute = 0,
    high = 1,
    normal = 2,
    low = 3,
    scavenge = 4,
    oneBeyondLast = 5,
  };

  constexpr TaskPriority(Value value) : value_(value) {}
  // Any byte is accepted so that bad values read from elsewhere can be held;
  // they fail on first display.
  constexpr explicit TaskPriority(uint8_t value) : value_(value) {}

  constexpr uint8_t value() const { return value_; }

  // "absolute", "high", "normal", "low", "scavenge" or "oneBeyondLast".
  std::string toStrep() const;
  // One of "AHNLS-": the column the statistics tables and display names use.
  char oneChar() const;
  std::string oneCharString() const { return std::string(1, oneChar()); }

  constexpr bool operator==(TaskPriority const&) const = default;
  constexpr auto operator<=>(TaskPriority const&) const = default;

 private:
  uint8_t value_;
};

// Writes toStrep().
std::ostream& operator<<(std::ostream& os, TaskPriority priority);

}  // namespace Tamlo

// Formats as toStrep().
template <>
struct fmt::formatter<Tamlo::TaskPriority> : fmt::formatter<std::string_view> {
  auto format(Tamlo::TaskPriority priority, fmt::format_context& context) const {
    return fmt::formatter<std::string_view>::format(priority.toStrep(), context);
  }
};
