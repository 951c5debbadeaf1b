// The scheduler core through the real event loop: order of runs under mixed
// priorities, one task per loop callback, suspension, virtual time,
// statistics and their incremental reset, the owning-thread check, run-queue
// moves, history, and that roots and tasks leave nothing behind.
#include <Tamlo/TaskScheduler.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <stdexcept>

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
using namespace Tamlo::Test;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using EventType = Tamlo::TaskSchedulerHistory::EventType;
using Mode = Tamlo::TaskImpl::TaskShouldYieldMode;

// The displays of the recorded events, oldest first.
std::vector<std::string> historyDisplays(TaskSchedulerRoot const& root) {
  std::vector<std::string> displays;
  for (size_t i = root.history()->eventCount(); i-- > 0;)
    displays.push_back(root.history()->event(i).display());
  return displays;
}

size_t eventsOf(TaskSchedulerRoot const& root, std::string const& display) {
  return std::ranges::count(historyDisplays(root), display);
}

class TaskSchedulerTest : public ::testing::Test {
 protected:
  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> const root_ = TaskSchedulerRoot::TaskSchedulerRootIs("test");
};

// ---- The order of runs ----

TEST_F(TaskSchedulerTest, PicksUnderMixedPriorities) {
  // A level gives one pick to the next after nine in a row (8 x 1 x c > 64
  // first holds at c = 9), cascading; absolute and scavenge never take part.
  std::map<char, TaskPriority> const priorities = {
      {'A', TaskPriority::absolute}, {'B', TaskPriority::absolute}, {'H', TaskPriority::high},
      {'N', TaskPriority::normal},   {'L', TaskPriority::low},      {'S', TaskPriority::scavenge}};
  std::string const cascade = repeated("HHHHHHHHN", 9) + "HHHHHHHHL";
  struct {
    std::string scheduled;
    size_t length;
    std::string expected;
  } const cases[] = {{"NH", 40, repeated("HHHHHHHHHN", 4)},
                     {"LN", 30, repeated("NNNNNNNNNL", 3)},
                     {"HNL", 180, cascade + cascade},
                     {"NAB", 42, repeated("AB", 21)},
                     {"SH", 32, repeated("H", 32)}};
  for (auto const& c : cases) {
    std::string journal;
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (char name : c.scheduled) {
      tasks.push_back(makeTask(root_, priorities.at(name), std::string(1, name),
                               journalUpTo(journal, c.length)));
      tasks.back()->scheduleTask();
    }
    runLoop();
    EXPECT_EQ(journal, c.expected) << c.scheduled;
  }
}

// Journals its calls and asks for the next one until `calls` are made.
struct ForeignEvent : Tamlo::Platform::CallbackHandler {
  ForeignEvent(std::string& journal, int calls) : journal(journal), callsLeft(calls) {
    control->requestCallback();
  }
  void callback() override {
    journal += "x";
    if (--callsLeft > 0)
      control->requestCallback();
  }
  std::string& journal;
  int callsLeft;
  std::shared_ptr<Tamlo::Platform::CallbackControl> const control =
      Tamlo::Platform::getCallbackControl(this);
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
  EXPECT_EQ(journal.find("TT"), std::string::npos) << journal;
  // Turns stop once a turn finds nothing.
  EXPECT_FALSE(root_->schedulerHasRunnableTasks());
  EXPECT_FALSE(root_->schedulerRunPending());
}

// ---- Suspension and virtual time ----

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
  EXPECT_EQ(eventsOf(*root_, "schedulerSuspended test"), 1u);
  root_->suspendedIs(false);
  EXPECT_TRUE(root_->schedulerRunPending());
  runLoop();
  EXPECT_EQ(journal, "T");
}

TEST_F(TaskSchedulerTest, VirtualTimeFollowsFastForwardAtEachTurn) {
  std::vector<Mode> modes;
  auto const task = makeTask(root_, TaskPriority::normal, "T", [&modes](FunctionTask& self) {
    modes.push_back(self.taskShouldYieldMode());
  });
  Tamlo::Platform::setFastForward(true);
  task->scheduleTask();
  runLoop();
  EXPECT_TRUE(root_->virtualTime());
  root_->virtualTimeIs(true);  // recorded even when it changes nothing
  EXPECT_EQ(eventsOf(*root_, "schedulerVirtualTimeOn test"), 2u);

  Tamlo::Platform::setFastForward(false);
  task->scheduleTask();
  runLoop();
  EXPECT_FALSE(root_->virtualTime());
  EXPECT_THAT(modes, ElementsAre(Mode::virtualTime, Mode::realTime));
}

// ---- Statistics ----

TEST_F(TaskSchedulerTest, RunsAndCompletedTasksAreCounted) {
  std::string journal;
  auto reader = makeTask(root_, TaskPriority::normal, "reader", journalRuns(journal, 3));
  auto other = makeTask(root_, TaskPriority::normal, "reader2", journalRuns(journal, 1));
  auto const writer = makeTask(root_, TaskPriority::high, "writer", journalRuns(journal, 2));
  auto quiet = makeTask(root_, TaskPriority::normal, "quiet");
  quiet->includeInCompletedTaskIs(false);
  other->taskStatsNameIs("reader");
  for (FunctionTask* task : {reader.get(), other.get(), writer.get()})
    task->scheduleTask();
  runLoop();

  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 4u);
  EXPECT_EQ(root_->runTaskCount(TaskPriority::high), 2u);
  other->scheduleTask();
  reader.reset();
  other.reset();
  quiet.reset();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 0u) << "a destroyed task is unqueued";
  EXPECT_EQ(root_->tasksPerPriority(TaskPriority::normal), 0u);
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::normal), 2u) << "quiet is left out";
  ASSERT_EQ(root_->completedTaskStats().size(), 1u);
  Tamlo::TaskStat const& completed = root_->completedTaskStats().begin()->second;
  EXPECT_EQ(completed.taskCompletedCount(), 2u);
  EXPECT_EQ(completed.taskRunCount(), 4u);

  Tamlo::TaskSchedulerQueueStats stats = root_->queueStats();
  Tamlo::TaskSchedulerPriorityStats const& normal = stats.at(TaskPriority::normal);
  EXPECT_EQ(normal.completedTasks, 2u);
  EXPECT_EQ(stats.at(TaskPriority::high).idleTasks, 1u);
  Tamlo::TaskSchedulerPriorityStats high{TaskPriority::high};
  EXPECT_THAT(assertionText([&] { high += normal; }), EndsWith("high != normal"));

  root_->clearStats();
  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal) + root_->runTaskCount(TaskPriority::high),
            0u);
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(writer->taskRunCount(), 0u);
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

  // Every second taskShouldYield() says yes, and the first task of a run is
  // reset without asking: two tasks per run.
  root_->taskTestYieldRatioIs(2);
  root_->clearHistory();
  root_->resetStats();
  EXPECT_TRUE(root_->resetStatsInProgress());
  EXPECT_EQ(root_->completedTaskStats().size(), 1u) << "cleared only at the end of the walk";
  runLoop();
  EXPECT_FALSE(root_->resetStatsInProgress());
  // Five tasks and the reset task itself.
  EXPECT_EQ(eventsOf(*root_, "run start    N test;ResetStats"), 3u);
  for (auto const& task : tasks) {
    EXPECT_EQ(task->taskRunCount(), 0u) << task->taskName();
    EXPECT_FALSE(task->taskWorkCountHighWaterMark().hasValue());
  }
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal) + root_->runTaskCount(TaskPriority::low), 0u);
}

TEST_F(TaskSchedulerTest, PrioritiesBeyondScavengeHaveNoQueue) {
  TaskPriority const beyond(uint8_t{5});
  for (std::function<void()> const& call : std::vector<std::function<void()>>{
           [&] { root_->runnableTaskCount(beyond); }, [&] { root_->runTaskCount(beyond); },
           [&] { makeTask(root_, beyond, "bad"); }})
    EXPECT_THAT(assertionText(call), EndsWith("Priority: 5 has no run queue"));
  EXPECT_EQ(root_->registeredTaskCount(), 0u);
  EXPECT_FALSE(root_->attemptLowerPriorityBump(beyond, 1000));
}

// ---- Schedulers under the root ----

// Registered under a root without being its own event-loop client, as task
// groups are.
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
  EXPECT_EQ(root_->totalRegisteredTaskCount(), 3u);
  sideTask->scheduleTask();
  EXPECT_EQ(side->runRequests, 1);
  EXPECT_FALSE(root_->schedulerRunPending());
  EXPECT_EQ(root_->queueStatsRoot().at(TaskPriority::low).runnableTasks, 1u);

  // The root's ratio reaches every scheduler's tasks; a scheduler hears when
  // its set of forced tasks turns non-empty and when it turns empty.
  root_->taskTestYieldRatioIs(2);
  EXPECT_EQ(sideTask2->taskTestYieldRatioEffective(), 2);
  EXPECT_EQ(side->taskForceYieldInTestCount(), 2u);
  EXPECT_EQ(side->forceYieldChanges, 1);
  root_->taskTestYieldRatioIs(0);
  EXPECT_EQ(side->forceYieldChanges, 2);
  EXPECT_EQ(sideTask2->taskShouldYieldMode(), Mode::realTime);

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
  EXPECT_THAT(mine, ::testing::Contains(::testing::Ne(mine.front())));
}

// ---- The owning thread ----

TEST_F(TaskSchedulerTest, OtherThreadsAreRefusedWithBothThreadsNamed) {
  auto const task = makeTask(root_, TaskPriority::normal, "T");
  unsigned long intruder = 0;
  std::vector<std::string> failures;
  std::thread([&] {
    Tamlo::threadNameIs("intruder");
    intruder = static_cast<unsigned long>(pthread_self());
    failures.push_back(assertionText([&] { task->scheduleTask(); }));
    failures.push_back(assertionText([&] { task->taskScheduled(); }));
    failures.push_back(assertionText([&] { makeTask(root_, TaskPriority::normal, "late"); }));
  }).join();
  std::string const expected = fmt::format(
      "Executing in wrong thread {}(intruder) pid {} scheduler belongs to thread {}({}) pid {}",
      intruder, getpid(), static_cast<unsigned long>(root_->thread()), root_->ownerThreadName(),
      getpid());
  EXPECT_THAT(failures, ElementsAre(EndsWith(expected), EndsWith(expected), EndsWith(expected)));
}

TEST_F(TaskSchedulerTest, ThreadCheckYieldsToTheSwitchAndToAuxiliaryThreads) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::normal, "a", journalRuns(journal, 1));
  auto const second = makeTask(root_, TaskPriority::normal, "b", journalRuns(journal, 1));
  auto const third = makeTask(root_, TaskPriority::normal, "c", journalRuns(journal, 1));
  first->scheduleTask();  // so that the other threads only queue
  std::string failure;
  root_->threadSanityDisabledIs(true);
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

TEST_F(TaskSchedulerTest, TemporaryRunQueueHoldsBackNewTasksAndReturnsLeftoversInFront) {
  std::string journal;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (char const* name : {"a", "b", "c", "d"})
    tasks.push_back(makeTask(root_, TaskPriority::normal, name, journalRuns(journal, 1)));
  // Scheduling a queued task again keeps its place.
  for (int i : {0, 1, 0})
    tasks[i]->scheduleTask();
  root_->taskRunQueuesMovePersistentToTemporary();
  EXPECT_TRUE(root_->taskRunQueue(TaskPriority::normal).temporaryActive());
  tasks[2]->scheduleTask();
  EXPECT_THAT(assertionText([&] { root_->taskRunQueuesMovePersistentToTemporary(); }),
              EndsWith("The temporary run queue should always be empty at this point"));
  runLoop();
  EXPECT_EQ(journal, "ab");
  EXPECT_TRUE(tasks[2]->taskScheduled());
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 1u);
  root_->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_FALSE(root_->taskRunQueue(TaskPriority::normal).temporaryActive());

  // c goes to the temporary queue, d to the persistent one behind it.
  root_->taskRunQueuesMovePersistentToTemporary();
  tasks[3]->scheduleTask();
  root_->taskRunQueuesMoveTemporaryToPersistent();
  runLoop();
  EXPECT_EQ(journal, "abcd");
}

// ---- History ----

// Suspending a queued task unqueues it; unsuspending queues it again, whether
// or not it was scheduled meanwhile.
TEST_F(TaskSchedulerTest, HistoryRecordsAKnownSequence) {
  auto worker = makeTask(root_, TaskPriority::normal, "worker");
  worker->scheduleTask();
  runLoop();
  worker->scheduleTask();
  worker->taskSuspendedIs(true);
  worker->scheduleTask();
  runLoop();
  worker->taskSuspendedIs(false);
  runLoop();
  worker->taskSuspendedIs(true);
  worker->taskSuspendedIs(false);
  worker->unscheduleTask();
  worker.reset();
  runLoop();
  std::vector<std::string> const expected = {
      "create       N worker",  "schedule     N worker", "schedulerRunnable test",
      "busy         N worker",  "run start    N worker", "run end      N worker",
      "idle         N worker",  "schedulerIdle test",    "schedule     N worker",
      "schedulerRunnable test", "busy         N worker", "suspendOn    N worker",
      "unschedule   N worker",  "idle         N worker", "scheduleSus  N worker",
      "schedulerIdle test",     "suspendOff   N worker", "schedule     N worker",
      "schedulerRunnable test", "busy         N worker", "run start    N worker",
      "run end      N worker",  "idle         N worker", "schedulerIdle test",
      "suspendOn    N worker",  "suspendOff   N worker", "schedule     N worker",
      "schedulerRunnable test", "busy         N worker", "unschedule   N worker",
      "idle         N worker",  "delete       N worker", "schedulerIdle test"};
  EXPECT_EQ(historyDisplays(*root_), expected);
}

// ---- Life ----

TEST(TaskSchedulerLifeTest, TheThreadRootIsNamedAfterItsThreadAndReleasedAtThreadExit) {
  EXPECT_TRUE(Tamlo::schedulerRootTamlo()->followFastForward());
  uint64_t const before = Tamlo::AllocatorStats::liveAllocations();
  std::thread([] {
    {
      std::shared_ptr<TaskSchedulerRoot> const root = Tamlo::schedulerRootTamlo();
      EXPECT_EQ(root->schedulerName(),
                fmt::format("thread:{}", static_cast<unsigned long>(pthread_self())));
      EXPECT_EQ(root, Tamlo::schedulerRootTamlo());
      EXPECT_FALSE(root->followFastForward());
    }
    Tamlo::leFree();  // the leftover root releases its controls at thread exit without it
  }).join();
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
    // Drops its own last owner in its run; the scheduler keeps it to the end.
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

// Rows: a run that throws, and a task that no shared pointer owns, whose turn
// fails with std::bad_weak_ptr before its run starts.
TEST(TaskSchedulerLifeTest, AnExceptionFromARunLeavesTheSchedulerUsable) {
  for (bool const owned : {true, false}) {
    SCOPED_TRACE(owned ? "throwing run" : "unowned task");
    std::string journal;
    auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("throws");
    std::shared_ptr<FunctionTask> const shared =
        owned ? makeTask(root, TaskPriority::high, "thrower",
                         [](FunctionTask&) { throw std::runtime_error("run failed"); })
              : nullptr;
    std::unique_ptr<FunctionTask> const unowned =
        owned ? nullptr : std::make_unique<FunctionTask>(root, TaskPriority::high, "unowned");
    FunctionTask& thrower = owned ? *shared : *unowned;
    auto const next = makeTask(root, TaskPriority::normal, "next", journalRuns(journal, 1));
    thrower.scheduleTask();
    next->scheduleTask();
    EXPECT_THROW(runLoop(), std::exception);
    EXPECT_EQ(root->runningTask(), nullptr);
    EXPECT_FALSE(thrower.taskCurrentlyRunning());
    EXPECT_EQ(shared.use_count(), owned ? 1 : 0);
    runLoop();
    EXPECT_EQ(journal, "next");
    // The failed run is counted as a run; the unowned task never started one.
    EXPECT_EQ(thrower.taskRunCount(), owned ? 1u : 0u);
    EXPECT_EQ(next->taskRunCount(), 1u);
    EXPECT_FALSE(thrower.taskScheduled());
  }
}

}  // namespace
