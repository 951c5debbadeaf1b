// The texts that reports build from task values which may come from anywhere
// (a corrupted record, another process's memory): the priority names, the
// two-character status of a task, the duration printer, and the seconds to
// nanoseconds conversion. Bad values must fail as assertions carrying the
// value, never as undefined behaviour.
//
// Input: priority byte, status byte, 8-byte duration, 8-byte double seconds.
#include <cmath>
#include <sstream>
#include <string_view>

#include <Tamlo/Assert.h>
#include <Tamlo/Exception.h>
#include <Tamlo/TaskPriority.h>
#include <Tamlo/TaskStat.h>
#include <Tamlo/TaskTime.h>

#include "FuzzSupport.h"

namespace {

using Tamlo::TaskPriority;
using Tamlo::TaskStat;
using Tamlo::TaskTimeDuration;

constexpr std::string_view kNames[] = {"absolute", "high",     "normal",
                                       "low",      "scavenge", "oneBeyondLast"};

template <typename Fn>
void expectAssertion(Fn&& fn, std::string_view text) {
  try {
    fn();
  } catch (Tamlo::AssertException const& e) {
    FUZZ_CHECK(e.message().find(text) != std::string::npos, "assertion '{}' lacks '{}'",
               e.message(), text);
    return;
  }
  FUZZ_CHECK(false, "no assertion, expected '{}'", text);
}

void checkPriority(uint8_t value) {
  TaskPriority const priority(value);
  if (value > TaskPriority::oneBeyondLast) {
    expectAssertion([&] { (void)priority.toStrep(); },
                    fmt::format("unexpected priority value {}", value));
    expectAssertion([&] { (void)priority.oneChar(); },
                    fmt::format("unexpected priority {}", value));
    return;
  }
  FUZZ_CHECK(priority.toStrep() == kNames[value], "priority {} is '{}'", value, priority.toStrep());
  FUZZ_CHECK(priority.oneCharString() == std::string(1, "AHNLS-"[value]), "priority {} is '{}'",
             value, priority.oneCharString());
  std::ostringstream streamed;
  streamed << priority;
  FUZZ_CHECK(streamed.str() == kNames[value] && fmt::format("{}", priority) == kNames[value],
             "priority {} prints as '{}'", value, streamed.str());
}

void checkStatus(uint8_t priorityValue, uint8_t bits) {
  TaskStat::TaskStatus const status(bits);
  TaskStat const stat({}, {}, TaskPriority(priorityValue), 0, {}, 0, 0, {}, 0, {}, 0, 0, {}, {}, {},
                      status);
  if (priorityValue > TaskPriority::oneBeyondLast) {
    expectAssertion([&] { (void)stat.taskStatusString(); }, "unexpected priority");
    return;
  }
  std::string const text = stat.taskStatusString();
  FUZZ_CHECK(text.size() == 2, "status {:#x} gives '{}'", bits, text);
  char const expectedFirst = status.taskCurrentlyRunning() ? '*'
                             : status.taskSuspended()      ? 'S'
                             : status.taskTimer()          ? (status.taskTimerRunning() ? 'T' : 't')
                                                           : ' ';
  char const letter = "AHNLS-"[priorityValue];
  char const expectedSecond =
      status.taskOnRunQueue() ? letter : static_cast<char>(std::tolower(letter));
  FUZZ_CHECK(text[0] == expectedFirst && text[1] == expectedSecond,
             "status {:#x} priority {} gives '{}'", bits, priorityValue, text);
}

// Reads the printed duration back: the number must be the duration in the
// printed unit, truncated, and the unit the largest one the duration fills.
void checkDuration(int64_t ns) {
  std::string const text = Tamlo::durationToString(TaskTimeDuration(ns));
  struct Unit {
    std::string_view suffix;
    int64_t size;
    int64_t from;  // smallest duration printed in this unit
  };
  constexpr Unit kUnits[] = {{"min", 60'000'000'000, 3'600'000'000'000},
                             {"ms", 1'000'000, 1'000'000},
                             {"\u00b5s", 1000, 1000},
                             {"ns", 1, INT64_MIN},
                             {"s", 1'000'000'000, 60'000'000'000}};
  for (Unit const& unit : kUnits) {
    if (!text.ends_with(unit.suffix))
      continue;
    std::string const number = text.substr(0, text.size() - unit.suffix.size());
    FUZZ_CHECK(number == fmt::format("{}", ns / unit.size), "{}ns printed as '{}'", ns, text);
    FUZZ_CHECK(ns >= unit.from, "{}ns printed as '{}', too small for the unit", ns, text);
    for (Unit const& larger : kUnits)
      FUZZ_CHECK(larger.from <= unit.from || ns < larger.from, "{}ns printed as '{}', it fills {}",
                 ns, text, larger.suffix);
    std::ostringstream streamed;
    Tamlo::operator<<(streamed, TaskTimeDuration(ns));
    FUZZ_CHECK(streamed.str() == text, "{}ns streams as '{}'", ns, streamed.str());
    return;
  }
  FUZZ_CHECK(false, "{}ns printed as '{}' with no unit", ns, text);
}

void checkSeconds(double t) {
  if (!(t >= 0) || !(t * 1e9 < 9223372036854775808.0)) {
    expectAssertion([&] { (void)Tamlo::time2Duration(t); }, "time2Duration()");
    return;
  }
  auto const expected = static_cast<int64_t>(std::trunc(t * 1e9));
  FUZZ_CHECK(Tamlo::time2Duration(t).count() == expected, "{}s gives {}ns", t,
             Tamlo::time2Duration(t).count());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Tamlo::throwOnAssertFailIs(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  TamloFuzz::ByteReader input(data, size);
  uint8_t const priority = input.byte();
  checkPriority(priority);
  checkStatus(priority, input.byte());
  checkDuration(input.value<int64_t>());
  checkSeconds(input.value<double>());
  return 0;
}
