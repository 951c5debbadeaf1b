// The identity of a task in reports: the task object's address as a 64-bit
// value. A key is only a label; it never keeps the task alive or reaches it.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include <fmt/format.h>

namespace Tamlo {

class TaskKey {
 public:
  constexpr TaskKey() = default;
  constexpr explicit TaskKey(uint64_t value) : value_(value) {}
  explicit TaskKey(void const* address) : value_(reinterpret_cast<uintptr_t>(address)) {}

  constexpr uint64_t value() const { return value_; }
  // "@" and the value in decimal, as the statistics tables show it.
  std::string toStrep() const { return fmt::format("@{}", value_); }

  constexpr bool operator==(TaskKey const&) const = default;
  constexpr auto operator<=>(TaskKey const&) const = default;

 private:
  uint64_t value_ = 0;
};

}  // namespace Tamlo
