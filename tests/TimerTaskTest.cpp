// Timer tasks: schedule forms in virtual time, trace lines and jitter, forks, fatal checks.
#include <Tamlo/TimerTask.h>

#include <csignal>
#include <limits>

#include <fmt/chrono.h>

#include "SchedulerTestSupport.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Tamlo::TimerTask;

constexpr double never = std::numeric_limits<double>::infinity();

struct RecordingTimer : TimerTask {
  using TimerTask::TimerTask;
  void taskExecute() override { runs.push_back(Tamlo::time()); }
  std::vector<double> runs;
};

// `fires`: seconds from the start to the expiry; 0: runnable at once, no timer; never: idle.
TEST(TimerTaskTest, ScheduleFormsSetKeepOrStopTheExpiry) {
  auto const root = Tamlo::Test::virtualTimeRoot("timers");
  using Timer = TimerTask&;
  std::pair<std::function<void(Timer)>, double> const rows[] = {
      {[](Timer t) { t.scheduleTaskDelay(3.0), t.scheduleTaskDelay(10s); }, 10},
      {[](Timer t) { t.scheduleTaskDelay(3.0), t.scheduleTaskLowestDelay(5.0); }, 3},
      {[](Timer t) { t.scheduleTaskDelay(10.0), t.scheduleTaskLowestDelay(5s); }, 5},
      {[](Timer t) { t.scheduleTask(), t.scheduleTaskLowestDelay(5.0); }, 0},
      {[](Timer t) { t.scheduleTaskDelay(3.0), t.scheduleTaskDelay(0ns); }, 0},
      {[](Timer t) { t.scheduleTaskDelay(3.0), t.scheduleTaskDelay(never); }, never},
      {[](Timer t) { t.scheduleTaskDelay(3.0), t.scheduleTaskDelay(nanoseconds::max()); }, never},
      {[](Timer t) { t.scheduleTask(), t.scheduleTaskJitterDown(never, 10); }, never},
      {[](Timer t) { t.scheduleTaskDelay(10.0), t.scheduleTaskJitterUp(3s, 0); }, 3},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(&row - rows);
    auto const& [schedule, fires] = row;
    auto const timer = Tamlo::makeShared<RecordingTimer>(root, Tamlo::TaskPriority::normal, "tick");
    double const before = Tamlo::time();
    schedule(*timer);
    double const due = timer->currentExpirationTime(), after = Tamlo::time();
    bool const timed = fires != 0 && fires != never;
    EXPECT_EQ(timer->taskStatus().taskTimerRunning(), timed);
    EXPECT_TRUE(fires == never ? due == never : due >= before + fires && due <= after + fires)
        << due - after;
    Tamlo::Platform::doEventLoop(20.0);
    EXPECT_EQ(timer->runs.size(), fires == never ? 0u : 1u);
    for (double const at : timer->runs)  // never early; late by the real time a pass takes
      EXPECT_TRUE(!timed || (at >= due && at < due + 0.5));
  }
  Tamlo::Platform::setFastForward(false);
}

// A fresh process draws as a fresh root here does: both seeds start at 0.
TEST(TimerTaskTraceTest, TraceLinesAndJitterRepeatInAFreshProcess) {
  auto const twin = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("twin");
  std::vector<std::string> expected;
  nanoseconds const delay = 1s + 4321ns;  // whole 10000 ns would hide a lost remainder
  for (int i = 0; i < 4; ++i) {
    nanoseconds const offset{twin->randomPercent() * (50 * delay.count()) / 10000};
    expected.insert(
        expected.end(),
        {fmt::format("Timer jitterUp N tick delay {} + {} = {}", delay, offset, delay + offset),
         fmt::format("Timer started N tick delay {}", (delay + offset).count() / 1e9)});
  }
  double const down = twin->randomPercent() * (30 * 2.5) / 10000.0;
  expected.insert(expected.end(),
                  {fmt::format("Timer jitterDown N tick delay 2.5 - {} = {}", down, 2.5 - down),
                   fmt::format("Timer started N tick delay {}", 2.5 - down),
                   "Timer started N tick delay 1.23", "Timer already running N tick expire ",
                   "Timer stopped N tick, was running", "Timer stopped N tick, was not running",
                   "Already on runQueue N tick", "Timer stopped N tick, was not running"});
  auto const result = Tamlo::Test::runHelper("SchedulerHelper", {"timertrace"},
                                             {"TRACE=TaskScheduler/89"}, {"TRACEFILE"});
  std::vector<std::string> lines;
  for (std::string const& line : Tamlo::Test::linesOf(result.err)) {
    size_t const at = std::min(line.find("Timer "), line.find("Already on runQueue"));
    size_t const expire = line.find("expire ", at);  // an absolute time, cut off
    if (at != std::string::npos)
      lines.push_back(line.substr(at, expire == std::string::npos ? expire : expire + 7 - at));
  }
  EXPECT_EQ(lines, expected);
}

// Of timers, groups and fd tasks; a fork keeps the timers of both processes.
TEST(TaskChildTest, BrokenChecksAbortWithTheirMessageAndAForkedTimerRunsInBoth) {
  std::pair<char const*, char const*> const rows[] = {
      {"jitter101", "Assertion `maxJitterPercentage: e > 100' failed"},
      {"lowestnever", "Assertion `delayIntoFuture: 9223372036854775807ns' failed"},
      {"lowestinfinity", "Assertion `delayIntoFuture: inf' failed"},
      {"jitternegative", "Assertion `offset( 0ns ) > delayIntoFuture( -10ns )' failed"},
      {"grouppriority", "Assertion `taskPriority( normal ) != taskGroupPriority( high )' failed"},
      {"orphanparent", "Assertion `TaskGroup is non-null' failed"},
      {"groupsuspended", "Assertion `TaskGroup parentTask should be scheduled.' failed"},
      {"fdreadoff", "Assertion `readFdEvent() called with taskWatchReadable off' failed"},
      {"fdwriteoff", "Assertion `writeFdEvent() called with taskWatchWritable off' failed"},
      {"fdother", "Assertion `Notified about 21 watching 20' failed"},
      {"fork", "child: forked 1 inherited 1 own 1\nparent: forked 0 inherited 1 child status 0\n"},
  };
  for (auto const& [mode, message] : rows) {
    auto const result = Tamlo::Test::runHelper("SchedulerHelper", {mode}, {},
                                               {"TRACE", "TRACEFILE", "TRACEFORMAT"});
    bool const fork = std::string_view(mode) == "fork";
    EXPECT_EQ(result.signal, fork ? 0 : SIGABRT) << mode;
    EXPECT_THAT(fork ? result.out : result.err, ::testing::HasSubstr(message)) << result.err;
  }
}

}  // namespace
