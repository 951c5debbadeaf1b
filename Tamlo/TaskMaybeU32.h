// An unsigned 32-bit statistic that may not have been stored yet, such as a
// high-water mark before the first sample. All ones means "no value"; storing
// a real all-ones value keeps all ones minus one instead, so the marker can
// never be stored by accident. A plain value type.
#pragma once

#include <cstdint>

#include <Tamlo/Assert.h>

namespace Tamlo {

class TaskMaybeU32 {
 public:
  static constexpr uint32_t noValue = 0xffffffffu;

  constexpr TaskMaybeU32() = default;
  constexpr explicit TaskMaybeU32(uint32_t value) : raw_(storable(value)) {}

  constexpr bool hasValue() const { return raw_ != noValue; }
  // Asking for the value of an empty one is an assertion failure.
  uint32_t value() const {
    TAMLO_ASSERT(hasValue(), "TaskMaybeU32 holds no value");
    return raw_;
  }
  constexpr uint32_t valueOr(uint32_t fallback) const { return hasValue() ? raw_ : fallback; }
  // The stored bits, noValue included.
  constexpr uint32_t raw() const { return raw_; }

  void valueIs(uint32_t value) { raw_ = storable(value); }
  void clear() { raw_ = noValue; }

  constexpr bool operator==(TaskMaybeU32 const&) const = default;

 private:
  static constexpr uint32_t storable(uint32_t value) {
    return value == noValue ? noValue - 1 : value;
  }

  uint32_t raw_ = noValue;
};

}  // namespace Tamlo
