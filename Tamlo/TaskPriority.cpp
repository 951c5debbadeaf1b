#include <Tamlo/TaskPriority.h>

#include <ostream>
#include <string_view>

#include <Tamlo/Assert.h>

namespace Tamlo {

namespace {

constexpr std::string_view kOneChars = "AHNLS-";

}  // namespace

std::string TaskPriority::toStrep() const {
  switch (value_) {
    case absolute:
      return "absolute";
    case high:
      return "high";
    case normal:
      return "normal";
    case low:
      return "low";
    case scavenge:
      return "scavenge";
    case oneBeyondLast:
      return "oneBeyondLast";
  }
  TAMLO_ASSERT_FAIL("unexpected priority value {}", unsigned{value_});
}

char TaskPriority::oneChar() const {
  TAMLO_ASSERT(value_ < kOneChars.size(), "unexpected priority {}", unsigned{value_});
  return kOneChars[value_];
}

std::ostream& operator<<(std::ostream& os, TaskPriority priority) {
  return os << priority.toStrep();
}

}  // namespace Tamlo
