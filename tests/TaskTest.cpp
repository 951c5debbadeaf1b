// Tasks: names, scheduling and suspension, the status and statistics
// snapshot, the quantum and its violations (in virtual time, so that run
// lengths are set by the test), the three yield modes, work counts, runs from
// tests, and a task destroyed by its own run.
#include <Tamlo/Task.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>

#include "SchedulerTestSupport.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using Tamlo::TaskImpl;
using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using Tamlo::Test::assertionText;
using Tamlo::Test::FunctionTask;
using Tamlo::Test::journalRuns;
using Tamlo::Test::makeTask;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using EventType = Tamlo::TaskSchedulerHistory::EventType;
using Mode = TaskImpl::TaskShouldYieldMode;

void runLoop() {
  Tamlo::Platform::doEventLoop();
}

class TaskTest : public ::testing::Test {
 protected:
  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> const root_ = TaskSchedulerRoot::TaskSchedulerRootIs("tasks");
};

// A root built while fast-forward is on: its tasks measure runs on the
// virtual clock, which the tests move with fastForwardBy().
class TaskVirtualTimeTest : public ::testing::Test {
 protected:
  TaskVirtualTimeTest() {
    Tamlo::Platform::setFastForward(true);
    root_ = TaskSchedulerRoot::TaskSchedulerRootIs("virtual");
  }
  ~TaskVirtualTimeTest() override { Tamlo::Platform::setFastForward(false); }

  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> root_;
};

// ---- Names and registration ----

TEST_F(TaskTest, NamesAreInternedAndShownWithThePriority) {
  auto const task = makeTask(root_, TaskPriority::normal, "reader");
  Tamlo::ConstStringCache& cache = root_->history()->stringCache();
  EXPECT_EQ(task->taskName(), "reader");
  EXPECT_EQ(task->taskStatsName(), "reader");
  EXPECT_EQ(task->taskDisplayName(), "N reader");
  EXPECT_EQ(cache.refCount("reader"), 2u) << "task name and stats name share one entry";

  task->taskStatsNameIs("readers");
  EXPECT_EQ(task->taskStatsName(), "readers");
  EXPECT_EQ(cache.refCount("reader"), 1u);
  EXPECT_EQ(makeTask(root_, TaskPriority::scavenge, "sweep")->taskDisplayName(), "S sweep");
  EXPECT_EQ(root_->history()->event(0).display(), "delete       S sweep");
}

// A task made through the constructor that takes a plain scheduler pointer.
class PointerTask : public Tamlo::Task {
 public:
  explicit PointerTask(Tamlo::TaskScheduler* scheduler)
      : Task(scheduler, TaskPriority::low, "pointer") {}
  void taskExecute() override {}
};

TEST_F(TaskTest, SchedulerPointerMustBeOwned) {
  EXPECT_EQ(Tamlo::makeShared<PointerTask>(root_.get())->taskScheduler(), root_.get());
  EXPECT_THAT(assertionText([] { PointerTask task(nullptr); }), EndsWith("Need a TaskScheduler"));
  TaskSchedulerRoot unowned("unowned");
  EXPECT_THROW(PointerTask task(&unowned), std::bad_weak_ptr);
  EXPECT_EQ(unowned.registeredTaskCount(), 0u);
}

TEST_F(TaskTest, DestroyingAQueuedTaskUnschedulesAndUnregistersIt) {
  auto task = makeTask(root_, TaskPriority::high, "short");
  task->scheduleTask();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::high), 1u);
  task.reset();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::high), 0u);
  EXPECT_EQ(root_->registeredTaskCount(), 0u);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::destroy);
  EXPECT_EQ(root_->history()->event(2).eventType(), EventType::unschedule);
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::high), 1u);
}

TEST_F(TaskTest, TasksLeftOutOfCompletedStatisticsLeaveNoLine) {
  auto task = makeTask(root_, TaskPriority::normal, "quiet");
  EXPECT_TRUE(task->includeInCompletedTask());
  task->includeInCompletedTaskIs(false);
  task.reset();
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::normal), 0u);
}

// ---- Scheduling and suspension ----

TEST_F(TaskTest, SchedulingAQueuedTaskAgainKeepsItsPlace) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::normal, "a", journalRuns(journal, 1));
  auto const second = makeTask(root_, TaskPriority::normal, "b", journalRuns(journal, 1));
  first->scheduleTask();
  second->scheduleTask();
  first->scheduleTask();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 2u);
  runLoop();
  EXPECT_EQ(journal, "ab");
}

// Counts the busy-state notifications.
class BusyTask : public Tamlo::Task {
 public:
  BusyTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler, std::string* journal)
      : Task(std::move(scheduler), TaskPriority::normal, "busy"), journal_(journal) {}
  void taskExecute() override { *journal_ += "run;"; }
  void handleTaskBusy() override { *journal_ += taskBusy() ? "busy;" : "idle;"; }

 private:
  std::string* journal_;
};

TEST_F(TaskTest, SuspendedTasksRefuseSchedulingAndAreScheduledOnceWhenUnsuspended) {
  std::string journal;
  auto const task = Tamlo::makeShared<BusyTask>(root_, &journal);
  task->scheduleTask();
  task->taskSuspendedIs(true);
  EXPECT_TRUE(task->taskSuspended());
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_TRUE(task->taskStatus().taskSuspended());
  EXPECT_EQ(task->getStats().taskStatusString(), "Sn");

  task->scheduleTask();
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::scheduleSus);
  runLoop();

  task->taskSuspendedIs(false);
  EXPECT_TRUE(task->taskScheduled());
  runLoop();
  // Suspending a task that is not queued, and unsuspending it, queues it too.
  task->taskSuspendedIs(true);
  task->taskSuspendedIs(false);
  runLoop();
  EXPECT_EQ(journal, "busy;idle;busy;run;idle;busy;run;idle;");
  EXPECT_EQ(task->taskRunCount(), 2u);
}

// ---- Status and statistics ----

TEST_F(TaskTest, StatusAndStatisticsFollowTheTask) {
  std::string runningStatus;
  auto const task = makeTask(root_, TaskPriority::normal, "snap", [&](FunctionTask& self) {
    runningStatus = self.getStats().taskStatusString();
    EXPECT_EQ(root_->runningTask(), &self);
  });
  EXPECT_EQ(task->getStats().taskStatusString(), " n");
  task->scheduleTask();
  Tamlo::TaskStat const queued = task->getStats();
  EXPECT_EQ(queued.taskStatusString(), " N");
  EXPECT_EQ(queued.taskName(), "snap");
  EXPECT_EQ(queued.taskKey(), Tamlo::TaskKey(static_cast<TaskImpl const*>(task.get())));
  EXPECT_EQ(queued.taskPriority(), TaskPriority::normal);
  EXPECT_TRUE(queued.taskStatus().taskOnRunQueue());
  runLoop();
  EXPECT_EQ(runningStatus, "*n");

  Tamlo::TaskStat const done = task->getStats();
  EXPECT_EQ(done.taskRunCount(), 1u);
  EXPECT_EQ(done.taskCompletedCount(), 0u);
  EXPECT_EQ(done.taskTotalRunTime(), task->taskTotalRunTime());
  EXPECT_EQ(done.taskRunTimeHighWaterMark(), task->taskRunTimeHighWaterMark());
  EXPECT_GE(done.taskSchedulingLatencyHighWaterMark(), done.taskLastSchedulingLatency());
  EXPECT_FALSE(done.taskStatus().taskIsTaskGroup());
}

TEST_F(TaskTest, WorkCountAverageStartsAtTheFirstSampleAndMovesATenth) {
  auto const task = makeTask(root_, TaskPriority::normal, "worker");
  EXPECT_FALSE(task->taskWorkCountHighWaterMark().hasValue());
  task->taskWorkCountInc(10);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayingAvg(), 10.0f);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 10u);
  task->taskWorkCountInc(20);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayingAvg(), 11.0f);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 20u);
  task->taskWorkCountInc(0);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayingAvg(), 9.9f);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 20u);
  EXPECT_EQ(task->taskWorkCountTotal(), 30u);
  task->taskWorkCountInc(uint64_t{1} << 40);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 0xfffffffeu);

  auto const idle = makeTask(root_, TaskPriority::normal, "idler");
  idle->taskWorkCountInc(0);
  EXPECT_EQ(idle->taskWorkCountHighWaterMark().value(), 0u);

  EXPECT_FALSE(task->taskWorkPendingHighWaterMark().hasValue());
  task->taskWorkPendingIs(5);
  task->taskWorkPendingIs(3);
  EXPECT_EQ(task->taskWorkPending(), 3u);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark().value(), 5u);
  task->taskWorkPendingIs(0xffffffffu);
  EXPECT_EQ(task->taskWorkPending(), 0xffffffffu);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark().value(), 0xfffffffeu);

  Tamlo::TaskStat const stats = task->getStats();
  EXPECT_EQ(stats.taskWorkCountTotal(), 30u + (uint64_t{1} << 40));
  EXPECT_EQ(stats.taskWorkPending(), 0xffffffffu);
}

// ---- Quantum ----

TEST_F(TaskTest, QuantumMustLieBetweenOneNanosecondAndOneSecond) {
  auto const task = makeTask(root_, TaskPriority::normal, "q");
  EXPECT_EQ(task->taskQuantum(), 20ms);
  EXPECT_THAT(assertionText([&] { task->taskQuantumIs(0ns); }), EndsWith("Quantum: 0ns"));
  EXPECT_THAT(assertionText([&] { task->taskQuantumIs(1s + 1ns); }), EndsWith("Quantum: 1000ms"));
  EXPECT_THAT(assertionText([&] { task->taskQuantumNoCheckIs(0ns); }), EndsWith("Quantum: 0ns"));
  EXPECT_EQ(task->taskQuantum(), 20ms);
  task->taskQuantumIs(1s);
  EXPECT_EQ(task->taskQuantum(), 1s);
  task->taskQuantumNoCheckIs(5s);
  EXPECT_EQ(task->taskQuantum(), 5s);
  task->taskQuantumNoCheckIs(1ns);
  EXPECT_EQ(task->taskQuantum(), 1ns);

  root_->defaultTaskQuantumIs(5ms);
  EXPECT_EQ(makeTask(root_, TaskPriority::normal, "later")->taskQuantum(), 5ms);
}

// Moves the virtual clock by the next of `steps` seconds in each run.
FunctionTask::Body advanceBy(std::vector<double> steps) {
  return [steps = std::move(steps)](FunctionTask& self) {
    Tamlo::Platform::fastForwardBy(steps.at(self.taskRunCount() - 1));
  };
}

// The clock also moves by the real time a run takes, so each run lasts its
// step and a little more: 2.0 and 5.0 are the boundaries reached.
TEST_F(TaskVirtualTimeTest, ViolationsAreCountedAtTwiceAndAtFiveTimesTheQuantum) {
  auto const task =
      makeTask(root_, TaskPriority::normal, "slow", advanceBy({1.5, 2.0, 4.5, 5.0, 12.0}));
  task->taskQuantumIs(1s);
  EXPECT_EQ(task->taskShouldYieldMode(), Mode::virtualTime);
  std::vector<std::pair<uint32_t, uint32_t>> counts;
  for (int run = 0; run < 5; ++run) {
    task->taskRunFromTest();
    counts.emplace_back(task->taskQuantumViolation200(), task->taskQuantumViolation500());
  }
  EXPECT_THAT(counts, ElementsAre(std::pair(0u, 0u), std::pair(1u, 0u), std::pair(2u, 0u),
                                  std::pair(2u, 1u), std::pair(2u, 2u)));
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 12s);
  EXPECT_LT(task->taskRunTimeHighWaterMark(), 13s);
  EXPECT_GE(task->taskTotalRunTime(), 25s);
}

TEST_F(TaskVirtualTimeTest, ZeroQuantumCountsNoViolations) {
  root_->defaultTaskQuantumIs(0ns);
  auto const task = makeTask(root_, TaskPriority::normal, "unbounded", advanceBy({30.0}));
  task->taskRunFromTest();
  EXPECT_EQ(task->taskQuantumViolation200() + task->taskQuantumViolation500(), 0u);
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 30s);
}

// ---- Yielding ----

TEST_F(TaskVirtualTimeTest, YieldsOnceTheQuantumHasPassedInVirtualTime) {
  std::vector<bool> answers;
  Tamlo::TaskTimeDuration runTime{0};
  auto const task = makeTask(root_, TaskPriority::normal, "slicer", [&](FunctionTask& self) {
    answers.push_back(self.taskShouldYield());
    Tamlo::Platform::fastForwardBy(0.6);
    answers.push_back(self.taskShouldYield());
    Tamlo::Platform::fastForwardBy(0.4);
    answers.push_back(self.taskShouldYield());
    runTime = self.taskCurrentRunTime();
  });
  task->taskQuantumIs(1s);
  task->scheduleTask();
  runLoop();
  EXPECT_THAT(answers, ElementsAre(false, false, true));
  EXPECT_GE(runTime, 1s);
}

// Asks taskShouldYield() `calls` times in each run and records the answers.
FunctionTask::Body askYield(std::vector<bool>& answers, int calls) {
  return [&answers, calls](FunctionTask& self) {
    for (int i = 0; i < calls; ++i)
      answers.push_back(self.taskShouldYield());
  };
}

TEST_F(TaskTest, TestYieldRatioOfThreeYieldsOnEveryThirdCall) {
  std::vector<bool> answers;
  auto const task = makeTask(root_, TaskPriority::normal, "ratio", askYield(answers, 6));
  task->taskTestYieldRatioIs(3);
  EXPECT_EQ(task->taskShouldYieldMode(), Mode::testYieldRatio);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::frcYieldOn);
  EXPECT_EQ(root_->taskForceYieldInTestCount(), 1u);
  task->taskRunFromTest();
  EXPECT_THAT(answers, ElementsAre(false, false, true, false, false, true));

  // A change of the ratio starts the count again: after seven calls a ratio
  // of 2 answers false first, as on a fresh count.
  answers.clear();
  task->bodyIs(askYield(answers, 1));
  task->taskRunFromTest();
  task->taskTestYieldRatioIs(2);
  task->bodyIs(askYield(answers, 2));
  task->taskRunFromTest();
  task->taskTestYieldRatioIs(3);
  task->bodyIs(askYield(answers, 3));
  task->taskRunFromTest();
  task->taskForceYieldInTestIs(true);
  task->taskRunFromTest();
  EXPECT_THAT(answers, ElementsAre(false, false, true, false, false, true, true, true, true));

  task->taskTestYieldRatioIs(0);
  EXPECT_EQ(task->taskShouldYieldMode(), Mode::realTime);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::frcYieldOff);
  EXPECT_EQ(root_->taskForceYieldInTestCount(), 0u);
}

TEST_F(TaskTest, RootRatioAppliesToTasksWithoutTheirOwn) {
  std::vector<bool> answers;
  auto const plain = makeTask(root_, TaskPriority::normal, "plain", askYield(answers, 3));
  auto const own = makeTask(root_, TaskPriority::normal, "own");
  own->taskTestYieldRatioIs(2);
  root_->taskTestYieldRatioIs(3);
  root_->taskTestYieldRatioIs(3);
  EXPECT_EQ(plain->taskTestYieldRatioEffective(), 3);
  EXPECT_EQ(own->taskTestYieldRatioEffective(), 2);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::schedulerTestYieldRatioOn);
  plain->taskRunFromTest();
  EXPECT_THAT(answers, ElementsAre(false, false, true));

  root_->taskTestYieldRatioIs(0);
  EXPECT_EQ(plain->taskShouldYieldMode(), Mode::realTime);
  EXPECT_EQ(own->taskShouldYieldMode(), Mode::testYieldRatio);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::schedulerTestYieldRatioOff);
}

TEST_F(TaskTest, RunQuestionsOutsideARunAreRefused) {
  auto const task = makeTask(root_, TaskPriority::normal, "reader");
  task->taskShouldYield();
  EXPECT_THAT(assertionText([&] { task->taskCurrentRunTime(); }),
              EndsWith("Task: reader not currently running"));
  task->taskRunFromTest();
  EXPECT_THAT(assertionText([&] { task->taskShouldYield(); }),
              EndsWith("taskCurrentlyRunning: false taskRunCount: 1"));
}

// ---- Runs from tests ----

TEST_F(TaskTest, RunFromTestTakesTheTaskOffItsQueueAsAPickWould) {
  std::string journal;
  auto const task = makeTask(root_, TaskPriority::low, "direct", journalRuns(journal, 1));
  task->taskRunFromTest();
  EXPECT_EQ(root_->runTaskCount(TaskPriority::low), 0u) << "not queued, so no pick";
  task->scheduleTask();
  task->taskRunFromTest();
  EXPECT_EQ(journal, "directdirect");
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root_->runTaskCount(TaskPriority::low), 1u);
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::low), 0u);
  runLoop();
  EXPECT_EQ(journal, "directdirect");
}

TEST_F(TaskTest, RunAndRecordFromTestDoesTheBookkeepingOfATurn) {
  std::string journal;
  auto const task = makeTask(root_, TaskPriority::low, "turn", journalRuns(journal, 1));
  EXPECT_FALSE(root_->schedulerRunPending());
  root_->doUpdateSchedulerLatency();
  Tamlo::TaskTimePoint const before = root_->runStart();
  task->taskRunAndRecordFromTest();
  EXPECT_EQ(journal, "turn");
  EXPECT_GE(root_->runStart(), before);
  EXPECT_EQ(task->taskRunStart(), root_->runStart());
  EXPECT_TRUE(root_->schedulerRunPending()) << "the next turn is asked for";
  runLoop();
  EXPECT_FALSE(root_->schedulerRunPending());
}

// ---- Fatal paths ----

TEST(TaskFatalTest, ATaskDestroyedByItsOwnRunEndsTheProcess) {
  auto const result = Tamlo::Test::runHelper("SchedulerHelper", {"selfdestroy"}, {},
                                             {"TRACE", "TRACEFILE", "TRACEFORMAT"});
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_THAT(result.err,
              HasSubstr("TaskImpl::taskDoRun() Task: doomed taskMagicNumber: 3735936685 "
                        "taskMagicNumberConstructed: 1119771390\n"));
}

}  // namespace
