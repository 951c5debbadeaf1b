// Tasks: work counts, quantum violations (in virtual time), yield modes, runs from tests.
#include <Tamlo/Task.h>

#include <csignal>

#include "SchedulerTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Tamlo::TaskImpl;
using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using namespace Tamlo::Test;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using Mode = TaskImpl::TaskShouldYieldMode;

class TaskTest : public ::testing::Test {
 protected:
  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> root_ = TaskSchedulerRoot::TaskSchedulerRootIs("tasks");
};

// Its root measures runs on the virtual clock, which the tests move with fastForwardBy().
class TaskVirtualTimeTest : public TaskTest {
 protected:
  TaskVirtualTimeTest() { root_ = virtualTimeRoot("virtual"); }
  ~TaskVirtualTimeTest() override { Tamlo::Platform::setFastForward(false); }
};

struct PointerTask : Tamlo::Task {
  explicit PointerTask(Tamlo::TaskScheduler* scheduler) : Task(scheduler, TaskPriority::low, "p") {}
  void taskExecute() override {}
};

TEST_F(TaskTest, NamesAreInternedAndTheSchedulerMustBeOwned) {
  auto const task = makeTask(root_, TaskPriority::normal, "reader");
  Tamlo::ConstStringCache& cache = root_->history()->stringCache();
  EXPECT_EQ(cache.refCount("reader"), 2u) << "task name and stats name share one entry";
  task->taskStatsNameIs("readers");
  EXPECT_EQ(cache.refCount("reader"), 1u);

  EXPECT_THAT(assertionText([] { PointerTask task(nullptr); }), EndsWith("Need a TaskScheduler"));
  TaskSchedulerRoot unowned("unowned");
  EXPECT_THROW(PointerTask task(&unowned), std::bad_weak_ptr);
  EXPECT_EQ(unowned.registeredTaskCount(), 0u);
}

TEST_F(TaskTest, WorkCountsAverageAndSaturate) {
  auto const task = makeTask(root_, TaskPriority::normal, "worker");
  // The average starts at the first sample and moves a tenth of the way: 10, 11, 9.9.
  for (uint64_t count : {10, 20, 0})
    task->taskWorkCountInc(count);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayingAvg(), 9.9f);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 20u);
  EXPECT_EQ(task->taskWorkCountTotal(), 30u);
  task->taskWorkCountInc(uint64_t{1} << 40);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 0xfffffffeu);
  task->taskWorkPendingIs(5);
  task->taskWorkPendingIs(3);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark().value(), 5u);
}

// A run lasts its step and the little real time it takes, so 2.0 and 5.0 reach the boundaries.
TEST_F(TaskVirtualTimeTest, QuantumLiesWithinASecondAndViolationsCountAtTwiceAndFiveTimesIt) {
  std::vector<double> const steps = {0.5, 1.5, 2.0, 4.5, 5.0, 12.0};
  std::string journal;  // per run: yield asked at its end, then the two violation counts
  auto const task = makeTask(root_, TaskPriority::normal, "slow", [&](FunctionTask& self) {
    Tamlo::Platform::fastForwardBy(steps.at(self.taskRunCount() - 1));
    journal += self.taskShouldYield() ? "y" : "n";
  });
  EXPECT_THAT(assertionText([&] { task->taskQuantumIs(0ns); }), EndsWith("Quantum: 0ns"));
  EXPECT_THAT(assertionText([&] { task->taskQuantumIs(1s + 1ns); }), EndsWith("Quantum: 1000ms"));
  task->taskQuantumIs(1s);
  for (size_t run = 0; run < steps.size(); ++run) {
    task->taskRunFromTest();
    journal +=
        fmt::format("{}{} ", task->taskQuantumViolation200(), task->taskQuantumViolation500());
  }
  EXPECT_EQ(journal, "n00 y00 y10 y20 y21 y22 ");
  EXPECT_GE(task->taskTotalRunTime(), 25s);

  root_->defaultTaskQuantumIs(0ns);  // counts none
  auto const unbounded = makeTask(root_, TaskPriority::normal, "unbounded",
                                  [](FunctionTask&) { Tamlo::Platform::fastForwardBy(30.0); });
  unbounded->taskRunFromTest();
  EXPECT_EQ(unbounded->taskQuantumViolation200() + unbounded->taskQuantumViolation500(), 0u);
}

// The mode at the end of a run measures it, a switch to virtual time from the switch on.
TEST_F(TaskVirtualTimeTest, TheModeAtTheEndOfARunMeasuresIt) {
  for (Mode const before : {Mode::realTime, Mode::virtualTime}) {
    Mode const after = before == Mode::realTime ? Mode::virtualTime : Mode::realTime;
    auto const task = makeTask(root_, TaskPriority::normal, "switcher", [&](FunctionTask& self) {
      if (after == Mode::virtualTime)
        self.taskShouldYieldModeIs(after);
      Tamlo::Platform::fastForwardBy(1.0);
      self.taskShouldYieldModeIs(after);
    });
    task->taskShouldYieldModeIs(before);
    task->taskRunFromTest();
    EXPECT_EQ(task->taskQuantumViolation500(), after == Mode::virtualTime ? 1u : 0u);
  }
}

// Asks taskShouldYield() `calls` times in each run and records the answers.
FunctionTask::Body askYield(std::string& answers, int calls) {
  return [&answers, calls](FunctionTask& self) {
    for (int i = 0; i < calls; ++i)
      answers += self.taskShouldYield() ? "y" : "n";
    answers += ' ';
  };
}

// A task's own ratio wins over its root's, which applies to the others.
TEST_F(TaskTest, TestYieldRatioYieldsOnEveryNthCall) {
  std::string answers;
  auto const task = makeTask(root_, TaskPriority::normal, "ratio", askYield(answers, 6));
  auto const plain = makeTask(root_, TaskPriority::normal, "plain", askYield(answers, 3));
  task->taskTestYieldRatioIs(3);
  root_->taskTestYieldRatioIs(2);
  task->taskRunFromTest();
  plain->taskRunFromTest();
  root_->taskTestYieldRatioIs(0);
  EXPECT_EQ(task->taskShouldYieldMode(), Mode::testYieldRatio);

  // A new ratio starts the count again (after seven calls, 2 answers no); forcing answers yes.
  for (auto [ratio, calls] : {std::pair(3, 1), std::pair(2, 2), std::pair(3, 3)}) {
    task->taskTestYieldRatioIs(ratio);
    task->body = askYield(answers, calls);
    task->taskRunFromTest();
  }
  task->taskForceYieldInTestIs(true);
  task->taskRunFromTest();
  EXPECT_EQ(answers, "nnynny nyn n ny nny yyy ");
  EXPECT_EQ(root_->taskForceYieldInTestCount(), 1u);
  task->taskTestYieldRatioIs(0);
  EXPECT_EQ(root_->taskForceYieldInTestCount(), 0u);
}

// Each run journals the status it sees, and "@" when it is the root's running task.
TEST_F(TaskTest, RunsFromTestsActAsPicksAndTurnsWould) {
  std::string journal;
  auto const task = makeTask(root_, TaskPriority::low, "direct", [&](FunctionTask& self) {
    journal += self.getStats().taskStatusString() + (root_->runningTask() == &self ? "@" : "");
  });
  task->taskShouldYield();  // no run yet: nothing to ask about
  task->taskRunFromTest();
  EXPECT_EQ(root_->runTaskCount(TaskPriority::low), 0u) << "not queued, so no pick";
  task->scheduleTask();
  task->taskRunFromTest();
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root_->runTaskCount(TaskPriority::low), 1u);

  // Recording does the bookkeeping of a turn, and asks for the next one.
  root_->doUpdateSchedulerLatency();
  task->taskRunAndRecordFromTest();
  EXPECT_EQ(task->taskRunStart(), root_->runStart());
  EXPECT_TRUE(root_->schedulerRunPending());
  task->scheduleTask();
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(journal, "*l*l*l*l@");
  EXPECT_THAT(assertionText([&] { task->taskCurrentRunTime(); }),
              EndsWith("Task: direct not currently running"));
}

TEST(TaskFatalTest, ATaskDestroyedTwiceEndsTheProcess) {
  std::pair<char const*, char const*> const rows[] = {
      {"selfdestroy",
       "TaskImpl::taskDoRun() Task: doomed taskMagicNumber: 3735936685 "
       "taskMagicNumberConstructed: 1119771390\n"},
      // Unscheduled first, or the message would be "scheduled on unregister".
      {"destroyagain", "TaskScheduler::taskUnregister() Task: N doomed not registered\n"}};
  for (auto const& [mode, message] : rows) {
    auto const result = Tamlo::Test::runHelper("SchedulerHelper", {mode}, {},
                                               {"TRACE", "TRACEFILE", "TRACEFORMAT"});
    EXPECT_EQ(result.signal, SIGABRT) << mode;
    EXPECT_THAT(result.err, ::testing::HasSubstr(message));
  }
}

}  // namespace
