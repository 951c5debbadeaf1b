// Timer tasks in virtual time: how each schedule form sets, keeps or stops
// the expiry, jitter drawn from the root's seed, the history and status of
// the timer, its trace lines, and the checks that abort.
#include <Tamlo/TimerTask.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>

#include "SchedulerTestSupport.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using Tamlo::TimerTask;
using EventType = Tamlo::TaskSchedulerHistory::EventType;

constexpr double never = std::numeric_limits<double>::infinity();

// Records the virtual time of each expiry and counts its runs.
class RecordingTimer : public TimerTask {
 public:
  explicit RecordingTimer(std::shared_ptr<Tamlo::TaskScheduler> scheduler)
      : TimerTask(std::move(scheduler), TaskPriority::normal, "tick") {}
  void timeout() override {
    expiries.push_back(Tamlo::time());
    TimerTask::timeout();
  }
  void taskExecute() override {}
  std::vector<double> expiries;
};

class TimerTaskTest : public ::testing::Test {
 protected:
  ~TimerTaskTest() override { Tamlo::Platform::setFastForward(false); }

  std::shared_ptr<TaskSchedulerRoot> root_ = Tamlo::Test::virtualTimeRoot("timers");
  std::shared_ptr<RecordingTimer> timer_ = Tamlo::makeShared<RecordingTimer>(root_);
};

using Step = std::function<void(TimerTask&)>;

Step delay(double seconds) {
  return [seconds](TimerTask& t) { t.scheduleTaskDelay(seconds); };
}

TEST_F(TimerTaskTest, ScheduleFormsSetKeepOrStopTheExpiry) {
  // `expected`: seconds from the start to the expiry; 0 runnable at once
  // (no timer); never: idle.
  struct Row {
    char const* name;
    Step first, second;
    double expected;
  } const rows[] = {
      {"restart later", delay(3), delay(10), 10},
      {"restart earlier", delay(10), delay(3), 3},
      {"restart in nanoseconds", delay(10), [](TimerTask& t) { t.scheduleTaskDelay(4s); }, 4},
      {"lowest keeps sooner", delay(3), [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, 3},
      {"lowest moves later", delay(10), [](TimerTask& t) { t.scheduleTaskLowestDelay(5s); }, 5},
      {"lowest arms idle", [](TimerTask&) {}, [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); },
       5},
      {"lowest leaves runnable", [](TimerTask& t) { t.scheduleTask(); },
       [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, 0},
      {"zero stops timer", delay(3), delay(0), 0},
      {"zero ns stops timer", delay(3), [](TimerTask& t) { t.scheduleTaskDelay(0ns); }, 0},
      {"schedule stops timer", delay(3), [](TimerTask& t) { t.scheduleTask(); }, 0},
      {"delay restarts runnable", [](TimerTask& t) { t.scheduleTask(); }, delay(2), 2},
      {"infinity stops", delay(3), delay(never), never},
      {"max stops", delay(3), [](TimerTask& t) { t.scheduleTaskDelay(nanoseconds::max()); }, never},
      {"jitter up never stops", delay(3), [](TimerTask& t) { t.scheduleTaskJitterUp(never, 10); },
       never},
      {"jitter down never stops", [](TimerTask& t) { t.scheduleTask(); },
       [](TimerTask& t) { t.scheduleTaskJitterDown(nanoseconds::max(), 10); }, never},
      {"no jitter", delay(10), [](TimerTask& t) { t.scheduleTaskJitterUp(3s, 0); }, 3},
      {"stop", delay(3), [](TimerTask& t) { t.stopTimerTask(); }, never},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    auto const timer = Tamlo::makeShared<RecordingTimer>(root_);
    // The expiry is set between these two instants; the clock also moves by
    // the real time the calls take.
    double const before = Tamlo::time();
    row.first(*timer);
    row.second(*timer);
    double const after = Tamlo::time();
    double const due = timer->currentExpirationTime();
    if (row.expected == never) {
      EXPECT_EQ(due, never);
      EXPECT_EQ(timer->timerRemaining(), never);
    } else if (row.expected == 0) {
      EXPECT_GE(due, after);
      EXPECT_LE(due, Tamlo::time());
    } else {
      EXPECT_GE(due, before + row.expected);
      EXPECT_LE(due, after + row.expected);
    }
    EXPECT_EQ(timer->timerRunning(), row.expected != 0 && row.expected != never);
    Tamlo::Platform::doEventLoop(20.0);
    if (row.expected == never || row.expected == 0) {
      EXPECT_TRUE(timer->expiries.empty());
    } else {
      // Never early; late by the real time a loop pass takes.
      ASSERT_EQ(timer->expiries.size(), 1u);
      EXPECT_GE(timer->expiries[0], due);
      EXPECT_LT(timer->expiries[0], due + 0.5);
    }
    EXPECT_EQ(timer->taskRunCount(), row.expected == never ? 0u : 1u);
    EXPECT_FALSE(timer->taskScheduled());
  }
}

// The offsets follow the draws of a second fresh root: both seeds start at 0.
TEST_F(TimerTaskTest, JitterIsDrawnInHundredthsOfTheLargestOffset) {
  auto const twin = TaskSchedulerRoot::TaskSchedulerRootIs("twin");
  struct Row {
    bool nanoseconds, up;
    double seconds;
    uint8_t percent;
  } const rows[] = {{true, true, 100, 10},
                    {true, false, 7, 100},
                    {false, true, 2.5, 30},
                    {false, false, 100, 100}};
  uint32_t lowest = 100, highest = 0;
  for (Row const& row : rows) {
    for (int draw = 0; draw < 50; ++draw) {
      uint32_t const p = twin->randomPercent();
      lowest = std::min(lowest, p), highest = std::max(highest, p);
      double offset = p * (row.percent * row.seconds) / 10000.0;
      nanoseconds const delay{static_cast<int64_t>(row.seconds * 1e9)};
      if (row.nanoseconds)
        offset = static_cast<double>(p * (row.percent * delay.count()) / 10000) / 1e9;
      double const expected = row.seconds + (row.up ? offset : -offset);
      double const before = Tamlo::time();
      if (row.nanoseconds)
        row.up ? timer_->scheduleTaskJitterUp(delay, row.percent)
               : timer_->scheduleTaskJitterDown(delay, row.percent);
      else
        row.up ? timer_->scheduleTaskJitterUp(row.seconds, row.percent)
               : timer_->scheduleTaskJitterDown(row.seconds, row.percent);
      double const after = Tamlo::time();
      double const armed = timer_->currentExpirationTime();
      ASSERT_GE(armed - before + 1e-9, expected) << row.seconds << " draw " << p;
      ASSERT_LE(armed - after - 1e-9, expected) << row.seconds << " draw " << p;
    }
  }
  EXPECT_EQ(lowest, 0u);
  EXPECT_GE(highest, 98u);
}

TEST_F(TimerTaskTest, TimerStartAndStopAreRecordedAndShownInTheStatus) {
  auto const lastEvent = [&] { return root_->history()->event(0).eventType(); };
  timer_->stopTimerTask();
  EXPECT_EQ(lastEvent(), EventType::create) << "stopping an idle timer records nothing";
  Tamlo::TaskStat::TaskStatus status = timer_->taskStatus();
  EXPECT_TRUE(status.taskTimer());
  EXPECT_FALSE(status.taskTimerRunning());
  timer_->scheduleTaskDelay(1.0);
  EXPECT_EQ(root_->history()->event(1).eventType(), EventType::timerStart);
  EXPECT_EQ(lastEvent(), EventType::busy);
  EXPECT_TRUE(timer_->taskStatus().taskTimerRunning());
  EXPECT_TRUE(timer_->taskScheduled()) << "a running timer counts as scheduled";
  timer_->stopTimerTask();
  EXPECT_EQ(root_->history()->event(1).eventType(), EventType::timerStop);
  EXPECT_EQ(lastEvent(), EventType::idle);
  EXPECT_FALSE(timer_->taskStatus().taskTimerRunning());
}

// The timer's trace lines at levels 8 and 9, from a fresh process whose root
// makes the same draws as a fresh root here.
TEST(TimerTaskTraceTest, TracesAndJitterRepeatInAFreshProcess) {
  auto const twin = TaskSchedulerRoot::TaskSchedulerRootIs("twin");
  std::vector<std::string> expected;
  for (int i = 0; i < 4; ++i) {
    nanoseconds const offset{twin->randomPercent() * (50 * nanoseconds(1s).count()) / 10000};
    expected.push_back(
        fmt::format("Timer jitterUp N tick delay 1000000000ns + {} = {}", offset, 1s + offset));
    expected.push_back(fmt::format("Timer started N tick delay {}", (1s + offset).count() / 1e9));
  }
  double const down = twin->randomPercent() * (30 * 2.5) / 10000.0;
  expected.push_back(fmt::format("Timer jitterDown N tick delay 2.5 - {} = {}", down, 2.5 - down));
  expected.push_back(fmt::format("Timer started N tick delay {}", 2.5 - down));
  expected.push_back("Timer started N tick delay 1.23");
  expected.push_back("Timer already running N tick expire ");
  expected.push_back("Timer stopped N tick, was running");
  expected.push_back("Timer stopped N tick, was not running");
  expected.push_back("Already on runQueue N tick");
  expected.push_back("Timer stopped N tick, was not running");

  std::vector<std::string> runs[2];
  for (auto& lines : runs) {
    auto const result = Tamlo::Test::runHelper("SchedulerHelper", {"timertrace"},
                                               {"TRACE=TaskScheduler/89"}, {"TRACEFILE"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    for (std::string const& line : Tamlo::Test::linesOf(result.err)) {
      size_t const at = std::min(line.find("Timer "), line.find("Already on runQueue"));
      if (at == std::string::npos)
        continue;
      std::string text = line.substr(at);
      // The absolute expiry differs between runs.
      if (text.rfind("Timer already running", 0) == 0)
        text.erase(text.find("expire ") + 7);
      lines.push_back(text);
    }
  }
  EXPECT_EQ(runs[0], expected);
  EXPECT_EQ(runs[1], expected);
}

TEST(TimerAndGroupFatalTest, BrokenChecksAbortWithTheirMessage) {
  struct Row {
    char const* mode;
    char const* message;
  } const rows[] = {
      {"jitter101", "maxJitterPercentage: e > 100"},
      {"lowestnever", "delayIntoFuture: 9223372036854775807ns"},
      {"lowestinfinity", "delayIntoFuture: inf"},
      {"jitternegative", "offset( 0ns ) > delayIntoFuture( -10ns )"},
      {"grouppriority", "taskPriority( normal ) != taskGroupPriority( high )"},
      {"orphanparent", "TaskGroup is non-null"},
      {"groupsuspended", "TaskGroup parentTask should be scheduled."},
  };
  for (Row const& row : rows) {
    auto const result = Tamlo::Test::runHelper("SchedulerHelper", {row.mode}, {},
                                               {"TRACE", "TRACEFILE", "TRACEFORMAT"});
    EXPECT_EQ(result.signal, SIGABRT) << row.mode;
    EXPECT_THAT(result.err, ::testing::HasSubstr("TaskSchedulerCpp:")) << row.mode;
    EXPECT_THAT(result.err, ::testing::HasSubstr(fmt::format("Assertion `{}' failed", row.message)))
        << row.mode;
  }
}

}  // namespace
