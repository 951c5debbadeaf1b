// The scheduler core, driven through the real event loop: the order of runs
// under mixed priorities, one task per loop callback, suspension, virtual
// time following fast-forward, statistics and their incremental reset, the
// owning-thread check, run-queue moves, the history of a known sequence of
// operations, and that roots and tasks leave nothing behind.
#include <Tamlo/TaskScheduler.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Thread.h>

#include "SchedulerTestSupport.h"
#include "TestSupport.h"

namespace {

using Tamlo::TaskPriority;
using Tamlo::TaskScheduler;
using Tamlo::TaskSchedulerRoot;
using Tamlo::Test::assertionText;
using Tamlo::Test::FunctionTask;
using Tamlo::Test::journalRuns;
using Tamlo::Test::journalUpTo;
using Tamlo::Test::makeTask;
using Tamlo::Test::repeated;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using EventType = Tamlo::TaskSchedulerHistory::EventType;

void runLoop() {
  Tamlo::Platform::doEventLoop();
}

// The displays ("schedule     N reader") of the recorded events, oldest
// first.
std::vector<std::string> historyDisplays(TaskSchedulerRoot const& root) {
  Tamlo::TaskSchedulerHistory const& history = *root.history();
  std::vector<std::string> displays;
  for (size_t i = history.eventCount(); i-- > 0;)
    displays.push_back(history.event(i).display());
  return displays;
}

size_t eventsOf(TaskSchedulerRoot const& root, EventType type, std::string const& name) {
  Tamlo::TaskSchedulerHistory const& history = *root.history();
  size_t count = 0;
  for (size_t i = 0; i < history.eventCount(); ++i)
    count += history.event(i).eventType() == type && history.event(i).name().text() == name;
  return count;
}

class TaskSchedulerTest : public ::testing::Test {
 protected:
  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> const root_ = TaskSchedulerRoot::TaskSchedulerRootIs("test");
};

// ---- The order of runs ----

TEST_F(TaskSchedulerTest, HighGivesOnePickToNormalAfterNinePicksInARow) {
  std::string journal;
  auto const high = makeTask(root_, TaskPriority::high, "H", journalUpTo(journal, 40));
  auto const normal = makeTask(root_, TaskPriority::normal, "N", journalUpTo(journal, 40));
  normal->scheduleTask();
  high->scheduleTask();
  runLoop();
  // 8 x 1 x c > 1 x 64 first holds at c = 9; the count then starts again.
  EXPECT_EQ(journal, repeated("HHHHHHHHHN", 4));
}

TEST_F(TaskSchedulerTest, NormalGivesOnePickToLowAfterNinePicksInARow) {
  std::string journal;
  auto const normal = makeTask(root_, TaskPriority::normal, "N", journalUpTo(journal, 30));
  auto const low = makeTask(root_, TaskPriority::low, "L", journalUpTo(journal, 30));
  low->scheduleTask();
  normal->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, repeated("NNNNNNNNNL", 3));
}

TEST_F(TaskSchedulerTest, GivenWayPicksCascadeDownThreeLevels) {
  std::string journal;
  auto const high = makeTask(root_, TaskPriority::high, "H", journalUpTo(journal, 180));
  auto const normal = makeTask(root_, TaskPriority::normal, "N", journalUpTo(journal, 180));
  auto const low = makeTask(root_, TaskPriority::low, "L", journalUpTo(journal, 180));
  high->scheduleTask();
  normal->scheduleTask();
  low->scheduleTask();
  runLoop();
  // High waits for 8 x 1 + 1 x 1: it gives way after 8 picks. Normal gives
  // its own tenth pick further down to low.
  std::string const cycle = repeated("HHHHHHHHN", 9) + "HHHHHHHHL";
  EXPECT_EQ(journal, cycle + cycle);
}

TEST_F(TaskSchedulerTest, ALevelsCountStartsAgainWhenItsQueueRunsDry) {
  std::string journal;
  auto const high = makeTask(root_, TaskPriority::high, "H", [&journal](FunctionTask& self) {
    if (journal.size() >= 16)
      return;
    journal += "H";
    // Off the queue after its fifth run, so that one pick finds it empty.
    if (self.taskRunCount() != 5)
      self.scheduleTask();
  });
  auto const normal =
      makeTask(root_, TaskPriority::normal, "N", [&journal, &high](FunctionTask& self) {
        if (journal.size() >= 16)
          return;
        journal += "N";
        high->scheduleTask();
        self.scheduleTask();
      });
  high->scheduleTask();
  normal->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, "HHHHHN" + repeated("H", 9) + "N");
}

TEST_F(TaskSchedulerTest, AbsoluteTasksNeverGiveWay) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::absolute, "A", journalRuns(journal, 20));
  auto const second = makeTask(root_, TaskPriority::absolute, "B", journalRuns(journal, 20));
  auto const normal = makeTask(root_, TaskPriority::normal, "N", journalRuns(journal, 2));
  normal->scheduleTask();
  first->scheduleTask();
  second->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, repeated("AB", 20) + "NN");
}

TEST_F(TaskSchedulerTest, ScavengeTasksAreNotWaitingWork) {
  std::string journal;
  auto const high = makeTask(root_, TaskPriority::high, "H", journalRuns(journal, 30));
  auto const scavenge = makeTask(root_, TaskPriority::scavenge, "S", journalRuns(journal, 2));
  scavenge->scheduleTask();
  high->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, repeated("H", 30) + "SS");
}

// Counts its calls into the journal and asks for the next one while tasks
// still run.
class ForeignEvent : public Tamlo::Platform::CallbackHandler {
 public:
  ForeignEvent(std::string& journal, int calls)
      : journal_(journal), callsLeft_(calls), control_(Tamlo::Platform::getCallbackControl(this)) {
    control_->requestCallback();
  }
  void callback() override {
    journal_ += "x";
    if (--callsLeft_ > 0)
      control_->requestCallback();
  }

 private:
  std::string& journal_;
  int callsLeft_;
  std::shared_ptr<Tamlo::Platform::CallbackControl> control_;
};

TEST_F(TaskSchedulerTest, EveryLoopCallbackRunsExactlyOneTask) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 10));
  auto const second = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 10));
  ForeignEvent foreign(journal, 21);
  first->scheduleTask();
  second->scheduleTask();
  runLoop();
  ASSERT_EQ(journal.size(), 41u);
  // Other events of the loop are served between any two tasks.
  EXPECT_EQ(journal.find("TT"), std::string::npos) << journal;
}

TEST_F(TaskSchedulerTest, TurnsStopWhenATurnFindsNothing) {
  std::string journal;
  auto const task = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 1));
  EXPECT_FALSE(root_->schedulerRunPending());
  task->scheduleTask();
  EXPECT_TRUE(root_->schedulerHasRunnableTasks());
  EXPECT_TRUE(root_->schedulerRunPending());
  runLoop();
  EXPECT_EQ(journal, "T");
  EXPECT_FALSE(root_->schedulerHasRunnableTasks());
  EXPECT_FALSE(root_->schedulerRunPending());
  EXPECT_EQ(eventsOf(*root_, EventType::schedulerRunnable, "test"), 1u);
  EXPECT_EQ(eventsOf(*root_, EventType::schedulerIdle, "test"), 1u);
}

// ---- Suspension ----

TEST_F(TaskSchedulerTest, RunRequestedWhileSuspendedIsDroppedAndRecorded) {
  std::string journal;
  auto const task = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 1));
  task->scheduleTask();
  root_->suspendedIs(true);
  root_->suspendedIs(true);
  runLoop();
  EXPECT_EQ(journal, "");
  EXPECT_TRUE(task->taskScheduled());
  EXPECT_FALSE(root_->schedulerRunPending()) << "a dropped run asks for no other";
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::schedulerRunIgnoredWhileSuspended);
  EXPECT_EQ(root_->history()->event(0).name().text(), "test");
  EXPECT_EQ(eventsOf(*root_, EventType::schedulerSuspended, "test"), 1u);

  root_->requestSchedulerRun();
  EXPECT_FALSE(root_->schedulerRunPending());

  root_->suspendedIs(false);
  EXPECT_EQ(root_->history()->event(0).eventType(), EventType::schedulerUnsuspended);
  EXPECT_TRUE(root_->schedulerRunPending());
  runLoop();
  EXPECT_EQ(journal, "T");
}

// ---- Virtual time ----

TEST_F(TaskSchedulerTest, VirtualTimeFollowsFastForwardAtEachTurn) {
  std::vector<Tamlo::TaskImpl::TaskShouldYieldMode> modes;
  auto const task = makeTask(root_, TaskPriority::normal, "T", [&modes](FunctionTask& self) {
    modes.push_back(self.taskShouldYieldMode());
  });
  EXPECT_TRUE(root_->followFastForward());
  EXPECT_FALSE(root_->virtualTime());

  Tamlo::Platform::setFastForward(true);
  task->scheduleTask();
  runLoop();
  EXPECT_TRUE(root_->virtualTime());
  EXPECT_EQ(eventsOf(*root_, EventType::schedulerVirtualTimeOn, "test"), 1u);

  Tamlo::Platform::setFastForward(false);
  task->scheduleTask();
  runLoop();
  EXPECT_FALSE(root_->virtualTime());
  EXPECT_THAT(modes, ElementsAre(Tamlo::TaskImpl::TaskShouldYieldMode::virtualTime,
                                 Tamlo::TaskImpl::TaskShouldYieldMode::realTime));
}

TEST_F(TaskSchedulerTest, RootBuiltDuringFastForwardStartsInVirtualTime) {
  Tamlo::Platform::setFastForward(true);
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("virtual");
  Tamlo::Platform::setFastForward(false);
  EXPECT_TRUE(root->virtualTime());
  auto const task = makeTask(root, TaskPriority::normal, "T");
  EXPECT_EQ(task->taskShouldYieldMode(), Tamlo::TaskImpl::TaskShouldYieldMode::virtualTime);
  // Recorded even when it changes nothing.
  root->virtualTimeIs(true);
  EXPECT_EQ(eventsOf(*root, EventType::schedulerVirtualTimeOn, "virtual"), 2u);
}

// ---- Statistics ----

TEST_F(TaskSchedulerTest, RunsAndCompletedTasksAreCounted) {
  std::string journal;
  auto reader = makeTask(root_, TaskPriority::normal, "reader", journalRuns(journal, 3));
  auto other = makeTask(root_, TaskPriority::normal, "reader2", journalRuns(journal, 1));
  auto const writer = makeTask(root_, TaskPriority::high, "writer", journalRuns(journal, 2));
  other->taskStatsNameIs("reader");
  reader->scheduleTask();
  other->scheduleTask();
  writer->scheduleTask();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 2u);
  EXPECT_EQ(root_->runnableTaskCount(), 3u);
  runLoop();

  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 4u);
  EXPECT_EQ(root_->runTaskCount(TaskPriority::high), 2u);
  EXPECT_EQ(root_->runnableTaskCount(), 0u);
  EXPECT_EQ(reader->taskRunCount(), 3u);
  EXPECT_EQ(root_->tasksPerPriority(TaskPriority::normal), 2u);
  EXPECT_EQ(root_->tasksPerPriority(TaskPriority::low), 0u);

  reader.reset();
  other.reset();
  EXPECT_EQ(root_->tasksPerPriority(TaskPriority::normal), 0u);
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::normal), 2u);
  ASSERT_EQ(root_->completedTaskStats().size(), 1u);
  Tamlo::TaskStat const& completed = root_->completedTaskStats().begin()->second;
  EXPECT_EQ(completed.taskName(), "reader");
  EXPECT_EQ(completed.taskCompletedCount(), 2u);
  EXPECT_EQ(completed.taskRunCount(), 4u);

  Tamlo::TaskSchedulerQueueStats const stats = root_->queueStats();
  ASSERT_EQ(stats.size(), 5u);
  Tamlo::TaskSchedulerPriorityStats const& normal = stats.at(TaskPriority::normal);
  EXPECT_EQ(normal.runnableTasks, 0u);
  EXPECT_EQ(normal.idleTasks, 0u);
  EXPECT_EQ(normal.completedTasks, 2u);
  EXPECT_EQ(normal.totalRunCount, 4u);
  EXPECT_EQ(stats.at(TaskPriority::high).idleTasks, 1u);
  EXPECT_EQ(stats.at(TaskPriority::high).totalRunCount, 2u);

  root_->clearStats();
  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 0u);
  EXPECT_EQ(root_->runTaskCount(TaskPriority::high), 0u);
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::normal), 0u);
  EXPECT_EQ(writer->taskRunCount(), 0u);
  EXPECT_EQ(root_->schedulerLatencyHighWaterMark().count(), 0);
}

TEST_F(TaskSchedulerTest, IncrementalResetSpansRunsAndClearsTheSchedulerAtTheEnd) {
  std::string journal;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (int i = 0; i < 5; ++i) {
    tasks.push_back(
        makeTask(root_, TaskPriority::normal, fmt::format("t{}", i), journalRuns(journal, 2)));
    tasks.back()->taskWorkCountInc(7);
    tasks.back()->scheduleTask();
  }
  makeTask(root_, TaskPriority::low, "gone", journalRuns(journal, 1))->taskRunFromTest();
  runLoop();
  ASSERT_EQ(root_->completedTaskStats().size(), 1u);

  // Every second taskShouldYield() says yes: two tasks per run, since the
  // first of a run is reset without asking.
  root_->taskTestYieldRatioIs(2);
  root_->clearHistory();
  root_->resetStats();
  EXPECT_TRUE(root_->resetStatsInProgress());
  EXPECT_EQ(root_->completedTaskStats().size(), 1u) << "cleared only at the end of the walk";
  runLoop();

  EXPECT_FALSE(root_->resetStatsInProgress());
  // Five tasks and the reset task itself.
  EXPECT_EQ(eventsOf(*root_, EventType::runStart, "N test;ResetStats"), 3u);
  for (auto const& task : tasks) {
    EXPECT_EQ(task->taskRunCount(), 0u) << task->taskName();
    EXPECT_EQ(task->taskTotalRunTime().count(), 0);
    EXPECT_EQ(task->taskWorkCountTotal(), 0u);
    EXPECT_FALSE(task->taskWorkCountHighWaterMark().hasValue());
  }
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 0u);
  EXPECT_EQ(root_->runTaskCount(TaskPriority::low), 0u);
}

TEST_F(TaskSchedulerTest, QueueStatisticsAddUpPerPriority) {
  auto const a = makeTask(root_, TaskPriority::normal, "a");
  auto const b = makeTask(root_, TaskPriority::normal, "b");
  auto const c = makeTask(root_, TaskPriority::high, "c");
  a->scheduleTask();
  Tamlo::TaskSchedulerQueueStats stats = root_->queueStatsRoot();
  EXPECT_EQ(stats.at(TaskPriority::normal).runnableTasks, 1u);
  EXPECT_EQ(stats.at(TaskPriority::normal).idleTasks, 1u);
  EXPECT_EQ(stats.at(TaskPriority::high).idleTasks, 1u);

  stats += root_->queueStats();
  EXPECT_EQ(stats.at(TaskPriority::normal).runnableTasks, 2u);
  EXPECT_EQ(stats.at(TaskPriority::normal).idleTasks, 2u);

  Tamlo::TaskSchedulerPriorityStats high{TaskPriority::high};
  Tamlo::TaskSchedulerPriorityStats const normal{TaskPriority::normal};
  EXPECT_THAT(assertionText([&] { high += normal; }), EndsWith("high != normal"));
  a->unscheduleTask();
}

TEST_F(TaskSchedulerTest, PrioritiesBeyondScavengeHaveNoQueue) {
  TaskPriority const beyond(uint8_t{5});
  EXPECT_THAT(assertionText([&] { root_->runnableTaskCount(beyond); }),
              EndsWith("Priority: 5 has no run queue"));
  EXPECT_THAT(assertionText([&] { root_->runTaskCount(beyond); }),
              EndsWith("Priority: 5 has no run queue"));
  EXPECT_THAT(assertionText([&] { makeTask(root_, beyond, "bad"); }),
              EndsWith("Priority: 5 has no run queue"));
  EXPECT_EQ(root_->registeredTaskCount(), 0u);
  EXPECT_FALSE(root_->attemptLowerPriorityBump(beyond, 1000));
}

// ---- Schedulers under the root ----

// A scheduler registered under a root without being its own event-loop
// client, as task groups are.
class SideScheduler : public TaskScheduler {
 public:
  explicit SideScheduler(std::shared_ptr<TaskSchedulerRoot> root)
      : TaskScheduler("side", root.get(), root->history()), owner_(std::move(root)) {
    owner_->registerScheduler(this);
  }
  ~SideScheduler() override {
    destroyResetStatsTask();
    owner_->unregisterScheduler(this);
  }
  void requestSchedulerRun() override { ++runRequests; }
  void handleTaskForceYieldInTest() override { ++forceYieldChanges; }

  int runRequests = 0;
  int forceYieldChanges = 0;

 private:
  std::shared_ptr<TaskSchedulerRoot> owner_;
};

TEST_F(TaskSchedulerTest, RootSpeaksForEveryRegisteredScheduler) {
  auto const side = std::make_shared<SideScheduler>(root_);
  auto const sideTask = makeTask(side, TaskPriority::low, "s1");
  auto const sideTask2 = makeTask(side, TaskPriority::low, "s2");
  auto const rootTask = makeTask(root_, TaskPriority::normal, "r");
  EXPECT_EQ(root_->taskGroupCount(), 1u);
  EXPECT_EQ(root_->totalRegisteredTaskCount(), 3u);

  sideTask->scheduleTask();
  EXPECT_EQ(side->runRequests, 1);
  EXPECT_FALSE(root_->schedulerRunPending());
  EXPECT_EQ(root_->queueStatsRoot().at(TaskPriority::low).runnableTasks, 1u);

  // The root's ratio reaches the tasks of every scheduler; each scheduler
  // hears once when its set of forced tasks turns non-empty and once when it
  // turns empty.
  root_->taskTestYieldRatioIs(2);
  EXPECT_EQ(sideTask2->taskTestYieldRatioEffective(), 2);
  EXPECT_EQ(side->taskForceYieldInTestCount(), 2u);
  EXPECT_EQ(side->forceYieldChanges, 1);
  root_->taskTestYieldRatioIs(0);
  EXPECT_EQ(side->forceYieldChanges, 2);
  EXPECT_EQ(sideTask2->taskShouldYieldMode(), Tamlo::TaskImpl::TaskShouldYieldMode::realTime);

  // With a ratio of 3 the side's reset task gets through its three tasks
  // (itself included) in one run.
  root_->taskTestYieldRatioIs(3);
  side->resetStats();
  EXPECT_TRUE(root_->resetStatsInProgress());
  EXPECT_FALSE(root_->TaskScheduler::resetStatsInProgress());
  side->handleSchedulerRun();
  EXPECT_FALSE(root_->resetStatsInProgress());
  EXPECT_TRUE(sideTask->taskScheduled()) << "the low task waited behind the normal reset task";

  EXPECT_THAT(assertionText([&] { root_->registerScheduler(side.get()); }),
              EndsWith("insert failed for side"));
  auto const stray = std::make_shared<SideScheduler>(root_);
  root_->unregisterScheduler(stray.get());
  EXPECT_THAT(assertionText([&] { root_->unregisterScheduler(stray.get()); }),
              EndsWith("delete failed for side"));
  root_->registerScheduler(stray.get());
}

TEST_F(TaskSchedulerTest, RandomPercentsAreRepeatableFromAFreshRoot) {
  auto const other = TaskSchedulerRoot::TaskSchedulerRootIs("other");
  std::vector<uint32_t> mine, theirs;
  for (int i = 0; i < 50; ++i) {
    mine.push_back(root_->randomPercent());
    theirs.push_back(other->randomPercent());
  }
  EXPECT_EQ(mine, theirs);
  EXPECT_THAT(mine, ::testing::Each(::testing::Le(100u)));
  EXPECT_THAT(mine, ::testing::Contains(::testing::Ne(mine.front())));
}

// ---- The owning thread ----

TEST_F(TaskSchedulerTest, OtherThreadsAreRefusedWithBothThreadsNamed) {
  auto const task = makeTask(root_, TaskPriority::normal, "T");
  unsigned long intruder = 0;
  std::string scheduleFailure, queryFailure, createFailure;
  std::thread([&] {
    Tamlo::threadNameIs("intruder");
    intruder = static_cast<unsigned long>(pthread_self());
    scheduleFailure = assertionText([&] { task->scheduleTask(); });
    queryFailure = assertionText([&] { task->taskScheduled(); });
    createFailure = assertionText([&] { makeTask(root_, TaskPriority::normal, "late"); });
  }).join();
  std::string const expected = fmt::format(
      "Executing in wrong thread {}(intruder) pid {} scheduler belongs to thread {}({}) pid {}",
      intruder, getpid(), static_cast<unsigned long>(root_->thread()), root_->ownerThreadName(),
      getpid());
  EXPECT_THAT(scheduleFailure, EndsWith(expected));
  EXPECT_THAT(queryFailure, EndsWith(expected));
  EXPECT_THAT(createFailure, EndsWith(expected));
  EXPECT_STRNE(root_->ownerThreadName(), "");
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root_->registeredTaskCount(), 1u);
}

TEST_F(TaskSchedulerTest, ThreadCheckYieldsToTheSwitchAndToAuxiliaryThreads) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::normal, "a", journalRuns(journal, 1));
  auto const second = makeTask(root_, TaskPriority::normal, "b", journalRuns(journal, 1));
  auto const third = makeTask(root_, TaskPriority::normal, "c", journalRuns(journal, 1));
  // Runnable already, so the other threads only queue (event-loop controls
  // belong to the loop's thread).
  first->scheduleTask();

  root_->threadSanityDisabledIs(true);
  std::string failure;
  std::thread([&] { failure = assertionText([&] { second->scheduleTask(); }); }).join();
  EXPECT_EQ(failure, "(no assertion)");
  root_->threadSanityDisabledIs(false);

  ++auxThreadCount;
  std::thread([&] { failure = assertionText([&] { third->scheduleTask(); }); }).join();
  --auxThreadCount;
  EXPECT_EQ(failure, "(no assertion)");

  runLoop();
  EXPECT_EQ(journal, "abc");
}

// ---- Run-queue moves ----

TEST_F(TaskSchedulerTest, TasksScheduledWhileTheTemporaryListIsActiveWaitForTheMoveBack) {
  std::string journal;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (char const* name : {"a", "b", "c", "d"})
    tasks.push_back(makeTask(root_, TaskPriority::normal, name, journalRuns(journal, 1)));
  tasks[0]->scheduleTask();
  tasks[1]->scheduleTask();
  root_->taskRunQueuesMovePersistentToTemporary();
  EXPECT_TRUE(root_->taskRunQueue(TaskPriority::normal).temporaryActive());
  tasks[2]->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, "ab");
  EXPECT_TRUE(tasks[2]->taskScheduled());
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 1u);

  root_->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_FALSE(root_->taskRunQueue(TaskPriority::normal).temporaryActive());
  tasks[3]->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, "abcd");
}

TEST_F(TaskSchedulerTest, MovingBackPutsTheLeftoversInFront) {
  std::string journal;
  auto const a = makeTask(root_, TaskPriority::low, "a", journalRuns(journal, 1));
  auto const b = makeTask(root_, TaskPriority::low, "b", journalRuns(journal, 1));
  auto const c = makeTask(root_, TaskPriority::low, "c", journalRuns(journal, 1));
  b->scheduleTask();
  c->scheduleTask();
  root_->taskRunQueuesMovePersistentToTemporary();
  a->scheduleTask();
  EXPECT_THAT(assertionText([&] { root_->taskRunQueuesMovePersistentToTemporary(); }),
              EndsWith("The temporary run queue should always be empty at this point"));
  root_->taskRunQueuesMoveTemporaryToPersistent();
  runLoop();
  EXPECT_EQ(journal, "bca");
}

// ---- History ----

TEST_F(TaskSchedulerTest, HistoryRecordsAKnownSequence) {
  auto worker = makeTask(root_, TaskPriority::normal, "worker");
  worker->scheduleTask();
  runLoop();
  worker->taskSuspendedIs(true);
  worker->scheduleTask();
  worker->taskSuspendedIs(false);
  worker->unscheduleTask();
  worker.reset();
  runLoop();

  std::vector<std::string> const expected = {
      "create       N worker",  "schedule     N worker", "schedulerRunnable test",
      "busy         N worker",  "run start    N worker", "run end      N worker",
      "idle         N worker",  "schedulerIdle test",    "suspendOn    N worker",
      "scheduleSus  N worker",  "suspendOff   N worker", "schedule     N worker",
      "schedulerRunnable test", "busy         N worker", "unschedule   N worker",
      "idle         N worker",  "delete       N worker", "schedulerIdle test"};
  EXPECT_EQ(historyDisplays(*root_), expected);

  // The rendering lists the same events, newest first, under a header that
  // names the capacity.
  std::istringstream rendering(root_->historyRenderTextForDebugToString());
  std::string line;
  std::getline(rendering, line);
  EXPECT_EQ(line, "Last 100 scheduler events, absolute timestamp and relative to last event");
  std::getline(rendering, line);
  for (auto it = expected.rbegin(); it != expected.rend(); ++it) {
    ASSERT_TRUE(std::getline(rendering, line));
    EXPECT_THAT(line, EndsWith(" µs " + *it));
  }
  EXPECT_TRUE(std::getline(rendering, line));
  EXPECT_EQ(line, "");
  EXPECT_FALSE(std::getline(rendering, line));

  root_->historyEntryCountIs(3);
  EXPECT_EQ(root_->historyEntryCount(), 3u);
  EXPECT_THAT(historyDisplays(*root_),
              ElementsAre("idle         N worker", "delete       N worker", "schedulerIdle test"));
  root_->clearHistory();
  EXPECT_EQ(root_->history()->eventCount(), 0u);
}

// ---- Life ----

TEST(TaskSchedulerLifeTest, TheThreadRootIsNamedAfterItsThreadAndReleasedAtThreadExit) {
  std::shared_ptr<TaskSchedulerRoot> const main = Tamlo::schedulerRootTamlo();
  EXPECT_EQ(main->schedulerName(), "main");
  EXPECT_EQ(Tamlo::schedulerRootTamlo(), main);
  EXPECT_TRUE(main->followFastForward());

  uint64_t const before = Tamlo::AllocatorStats::liveAllocations();
  std::string name;
  std::string expectedName;
  bool same = false;
  bool follows = true;
  std::thread([&] {
    {
      std::shared_ptr<TaskSchedulerRoot> const root = Tamlo::schedulerRootTamlo();
      name = root->schedulerName();
      expectedName = fmt::format("thread:{}", static_cast<unsigned long>(pthread_self()));
      same = root == Tamlo::schedulerRootTamlo();
      follows = root->followFastForward();
    }
    // The thread's event base; the root left over releases its controls at
    // thread exit without it.
    Tamlo::leFree();
  }).join();
  EXPECT_EQ(name, expectedName);
  EXPECT_TRUE(same);
  EXPECT_FALSE(follows);
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), before);
}

TEST(TaskSchedulerLifeTest, RootsAndTasksLeaveNothingBehind) {
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  uint64_t const before = Tamlo::AllocatorStats::liveAllocations();
  {
    std::string journal;
    auto const root = Tamlo::schedulerRootTamloNonShared("leaks");
    auto kept = makeTask(root, TaskPriority::high, "kept", journalRuns(journal, 3));
    std::shared_ptr<FunctionTask> dropped = makeTask(root, TaskPriority::low, "dropped");
    // Drops its own last owner in its run; the scheduler keeps it alive to
    // the end of the run.
    dropped->bodyIs([&dropped, &journal](FunctionTask& self) {
      dropped.reset();
      journal += self.taskName();
    });
    auto const queued = makeTask(root, TaskPriority::normal, "queued");
    kept->scheduleTask();
    dropped->scheduleTask();
    root->resetStats();
    root->taskTestYieldRatioIs(1);
    runLoop();
    EXPECT_EQ(dropped, nullptr);
    EXPECT_EQ(root->completedTaskStats().count(root->history()->stringCache().intern("dropped")),
              1u);
    queued->scheduleTask();
    kept.reset();
  }
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), before);
}

TEST(TaskSchedulerLifeTest, AnExceptionFromARunLeavesTheSchedulerUsable) {
  std::string journal;
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("throws");
  auto const thrower = makeTask(root, TaskPriority::high, "thrower",
                                [](FunctionTask&) { throw std::runtime_error("run failed"); });
  auto const next = makeTask(root, TaskPriority::normal, "next", journalRuns(journal, 1));
  thrower->scheduleTask();
  next->scheduleTask();
  EXPECT_THROW(runLoop(), std::runtime_error);
  EXPECT_EQ(root->runningTask(), nullptr);
  EXPECT_FALSE(thrower->taskCurrentlyRunning());
  EXPECT_EQ(thrower.use_count(), 1);
  runLoop();
  EXPECT_EQ(journal, "next");
}

}  // namespace
