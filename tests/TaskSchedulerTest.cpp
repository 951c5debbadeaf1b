// The scheduler core through the real event loop: picks, suspension, statistics, the thread
// check, run-queue moves, history, exceptions, and that roots and tasks leave nothing behind.
#include <Tamlo/TaskScheduler.h>

#include <algorithm>
#include <regex>
#include <stdexcept>

#include <Tamlo/LibeventFactory.h>
#include <Tamlo/TaskGroup.h>
#include <Tamlo/Thread.h>

#include "SchedulerTestSupport.h"

namespace {

using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using namespace Tamlo::Test;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using Mode = Tamlo::TaskImpl::TaskShouldYieldMode;

// The displays of the recorded events, oldest first, without their padding.
std::vector<std::string> historyDisplays(TaskSchedulerRoot const& root) {
  std::vector<std::string> displays;
  std::regex const padding(" +");
  for (size_t i = root.history()->eventCount(); i-- > 0;)
    displays.push_back(std::regex_replace(root.history()->event(i).display(), padding, " "));
  return displays;
}

std::string repeated(std::string const& text, size_t times) {
  return fmt::to_string(fmt::join(std::vector(times, text), ""));
}

class TaskSchedulerTest : public ::testing::Test {
 protected:
  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TaskSchedulerRoot> const root_ = TaskSchedulerRoot::TaskSchedulerRootIs("test");
};

TEST_F(TaskSchedulerTest, PicksUnderMixedPriorities) {
  // A level gives one pick to the next after nine in a row (8 x 1 x c > 64 first holds at c = 9),
  // cascading; absolute and scavenge are never bumped, so N waits for A and B, and S for H.
  std::string const cascade = repeated("HHHHHHHHN", 9) + "HHHHHHHHL";
  std::pair<std::string, std::string> const rows[] = {{"HNL", cascade + cascade},
                                                      {"NAB", repeated("AB", 21) + "N"},
                                                      {"SH", repeated("H", 32) + "S"}};
  for (auto const& [scheduled, expected] : rows) {
    std::string journal;
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (char name : scheduled) {
      TaskPriority const priority(
          uint8_t(std::string_view("AHNLS").find(name == 'B' ? 'A' : name)));
      tasks.push_back(makeTask(root_, priority, std::string(1, name),
                               journalRuns(journal, std::ranges::count(expected, name))));
      tasks.back()->scheduleTask();
    }
    Tamlo::Platform::doEventLoop();
    EXPECT_EQ(journal, expected) << scheduled;
  }
}

// Journals "x" per call and asks for the next one until it has made 21.
struct ForeignEvent : Tamlo::Platform::CallbackHandler {
  explicit ForeignEvent(std::string& journal) : journal(journal) { control->requestCallback(); }
  void callback() override {
    if (std::ranges::count(journal += "x", 'x') < 21)
      control->requestCallback();
  }
  std::string& journal;
  std::shared_ptr<Tamlo::Platform::CallbackControl> const control =
      Tamlo::Platform::getCallbackControl(this);
};

TEST_F(TaskSchedulerTest, EveryLoopCallbackRunsExactlyOneTask) {
  std::string journal;
  auto const first = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 10));
  auto const second = makeTask(root_, TaskPriority::normal, "T", journalRuns(journal, 10));
  ForeignEvent foreign(journal);
  first->scheduleTask();
  second->scheduleTask();
  Tamlo::Platform::doEventLoop();
  EXPECT_TRUE(journal.size() == 41 && journal.find("TT") == std::string::npos) << journal;
  EXPECT_FALSE(root_->schedulerRunPending()) << "turns stop once a turn finds nothing";
}

TEST_F(TaskSchedulerTest, RunsAndCompletedTasksAreCountedAndResetAcrossRuns) {
  std::string journal;
  auto reader = makeTask(root_, TaskPriority::normal, "reader", journalRuns(journal, 3));
  auto other = makeTask(root_, TaskPriority::normal, "reader2", journalRuns(journal, 1));
  auto const writer = makeTask(root_, TaskPriority::high, "writer", journalRuns(journal, 2));
  auto const idle = makeTask(root_, TaskPriority::high, "idle");  // never runs, still walked
  auto quiet = makeTask(root_, TaskPriority::normal, "quiet");
  quiet->includeInCompletedTaskIs(false);
  other->taskStatsNameIs("reader");
  writer->taskWorkCountInc(7);
  for (FunctionTask* task : {reader.get(), other.get(), writer.get()})
    task->scheduleTask();
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(root_->runTaskCount(TaskPriority::normal), 4u);
  other->scheduleTask();
  for (auto* task : {&reader, &other, &quiet})
    task->reset();
  EXPECT_EQ(root_->runnableTaskCount(TaskPriority::normal), 0u) << "a destroyed task is unqueued";
  EXPECT_EQ(root_->completedTasksPerPriority(TaskPriority::normal), 2u) << "quiet is left out";
  ASSERT_EQ(root_->completedTaskStats().size(), 1u);
  EXPECT_EQ(root_->completedTaskStats().begin()->second.taskCompletedCount(), 2u);

  // Yielding at every second ask, the walk over three tasks (the reset task too) takes two runs.
  root_->taskTestYieldRatioIs(2);
  root_->clearHistory();
  root_->resetStats();
  EXPECT_EQ(root_->completedTaskStats().size(), 1u) << "cleared only at the end of the walk";
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(std::ranges::count(historyDisplays(*root_), "run start N test;ResetStats"), 2u);
  EXPECT_FALSE(writer->taskRunCount() || writer->taskWorkCountHighWaterMark().hasValue());
  EXPECT_TRUE(root_->completedTaskStats().empty());
  EXPECT_EQ(root_->runTaskCount(TaskPriority::high), 0u);
  writer->taskRunFromTest();
  root_->clearStats();
  EXPECT_EQ(writer->taskRunCount(), 0u);
}

TEST_F(TaskSchedulerTest, PrioritiesBeyondScavengeHaveNoQueue) {
  EXPECT_THAT(assertionText([&] { makeTask(root_, TaskPriority(uint8_t{5}), "bad"); }),
              EndsWith("Priority: 5 has no run queue"));
  EXPECT_EQ(root_->registeredTaskCount(), 0u);
}

// A task group is a scheduler under the root that is not its own event-loop client.
TEST_F(TaskSchedulerTest, RootSpeaksForEveryRegisteredScheduler) {
  auto const side = Tamlo::TaskGroup::TaskGroupIs("side", TaskPriority::normal, false, root_);
  auto const sideTask = makeTask(side, TaskPriority::low, "s1");
  EXPECT_EQ(root_->totalRegisteredTaskCount(), 2u) << "one and the group's parent task";
  sideTask->scheduleTask();
  EXPECT_EQ(root_->queueStatsRoot().at(TaskPriority::low).runnableTasks, 1u);

  // The root's ratio reaches every scheduler's tasks.
  root_->taskTestYieldRatioIs(2);
  EXPECT_EQ(sideTask->taskTestYieldRatioEffective(), 2);
  EXPECT_EQ(side->taskForceYieldInTestCount(), 1u);
  side->resetStats();
  EXPECT_TRUE(root_->resetStatsInProgress());
  Tamlo::Platform::doEventLoop();
  EXPECT_FALSE(root_->resetStatsInProgress());
  EXPECT_THAT(assertionText([&] { root_->registerScheduler(side.get()); }),
              EndsWith("insert failed for side"));
}

TEST_F(TaskSchedulerTest, OtherThreadsAreRefusedUnlessTheCheckIsOffOrTheyAreAuxiliary) {
  std::string journal;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (char const* name : {"a", "b", "c"})
    tasks.push_back(makeTask(root_, TaskPriority::normal, name, journalRuns(journal, 1)));
  tasks[0]->scheduleTask();  // so that the other threads only queue
  std::vector<std::string> failures;
  unsigned long intruder = 0;
  auto const scheduleElsewhere = [&](FunctionTask& task) {
    std::thread([&] {
      Tamlo::threadNameIs("intruder");
      intruder = intruder ? intruder : static_cast<unsigned long>(pthread_self());
      failures.push_back(assertionText([&] { task.scheduleTask(); }));
    }).join();
  };
  scheduleElsewhere(*tasks[1]);
  root_->threadSanityDisabledIs(true);
  scheduleElsewhere(*tasks[1]);
  root_->threadSanityDisabledIs(false);
  ++auxThreadCount;
  scheduleElsewhere(*tasks[2]);
  --auxThreadCount;
  std::string const expected = fmt::format(
      "Executing in wrong thread {}(intruder) pid {} scheduler belongs to thread {}({}) pid {}",
      intruder, getpid(), static_cast<unsigned long>(root_->thread()), root_->ownerThreadName(),
      getpid());
  EXPECT_THAT(failures, ElementsAre(EndsWith(expected), "(no assertion)", "(no assertion)"));
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(journal, "abc");
}

TEST_F(TaskSchedulerTest, TemporaryRunQueueHoldsBackNewTasksAndReturnsLeftoversInFront) {
  std::string journal;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (char const* name : {"a", "b", "c", "d"})
    tasks.push_back(makeTask(root_, TaskPriority::normal, name, journalRuns(journal, 1)));
  // Scheduling a queued task again keeps its place.
  for (int i : {0, 1, 0})
    tasks[i]->scheduleTask();
  root_->taskRunQueuesMovePersistentToTemporary();
  tasks[2]->scheduleTask();
  EXPECT_THAT(assertionText([&] { root_->taskRunQueuesMovePersistentToTemporary(); }),
              EndsWith("The temporary run queue should always be empty at this point"));
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(journal, "ab");
  root_->taskRunQueuesMoveTemporaryToPersistent();

  // c goes to the temporary queue, d to the persistent one behind it.
  root_->taskRunQueuesMovePersistentToTemporary();
  tasks[3]->scheduleTask();
  root_->taskRunQueuesMoveTemporaryToPersistent();
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(journal, "abcd");
}

// Unsuspending a task queues it again whether or not it was scheduled meanwhile; unsuspending a
// root asks again for the run it dropped. Turns follow fast-forward.
TEST_F(TaskSchedulerTest, HistoryRecordsAKnownSequence) {
  std::vector<Mode> modes;
  auto worker = makeTask(root_, TaskPriority::normal, "worker", [&modes](FunctionTask& self) {
    modes.push_back(self.taskShouldYieldMode());
  });
  Tamlo::Platform::setFastForward(true);  // followed at each turn
  worker->scheduleTask();
  Tamlo::Platform::doEventLoop();
  Tamlo::Platform::setFastForward(false);
  worker->scheduleTask();
  worker->taskSuspendedIs(true);
  worker->scheduleTask();
  Tamlo::Platform::doEventLoop();
  worker->taskSuspendedIs(false);
  root_->suspendedIs(true);
  root_->suspendedIs(true);
  Tamlo::Platform::doEventLoop();
  EXPECT_FALSE(root_->schedulerRunPending()) << "a dropped run asks for no other";
  root_->suspendedIs(false);
  Tamlo::Platform::doEventLoop();
  worker->taskSuspendedIs(true);
  worker->taskSuspendedIs(false);
  worker->unscheduleTask();
  worker.reset();
  Tamlo::Platform::doEventLoop();
  root_->virtualTimeIs(false);  // recorded even when it changes nothing
  EXPECT_THAT(modes, ElementsAre(Mode::virtualTime, Mode::realTime));
  EXPECT_EQ(fmt::format("{}", fmt::join(historyDisplays(*root_), ",")),
            "create N worker,schedule N worker,schedulerRunnable test,busy N worker,"
            "schedulerVirtualTimeOn test,run start N worker,run end N worker,idle N worker,"
            "schedulerIdle test,schedule N worker,schedulerRunnable test,busy N worker,"
            "suspendOn N worker,unschedule N worker,idle N worker,scheduleSus N worker,"
            "schedulerVirtualTimeOff test,schedulerIdle test,suspendOff N worker,schedule N worker,"
            "schedulerRunnable test,busy N worker,schedulerSuspended test,"
            "schedulerRunIgnoredWhileSuspended test,schedulerUnsuspended test,run start N worker,"
            "run end N worker,idle N worker,schedulerIdle test,suspendOn N worker,"
            "suspendOff N worker,schedule N worker,schedulerRunnable test,busy N worker,"
            "unschedule N worker,idle N worker,delete N worker,schedulerIdle test,"
            "schedulerVirtualTimeOff test");
}

// A thread's own root is named after it and released at the thread's exit.
TEST(TaskSchedulerLifeTest, RootsAndTasksLeaveNothingBehind) {
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
  {
    std::string journal;
    auto const root = Tamlo::schedulerRootTamloNonShared("leaks");
    auto kept = makeTask(root, TaskPriority::high, "kept", journalRuns(journal, 3));
    // Drops its own last owner in its run; the scheduler keeps it to the end.
    std::shared_ptr<FunctionTask> dropped =
        makeTask(root, TaskPriority::low, "dropped", [&](FunctionTask&) { dropped.reset(); });
    auto const queued = makeTask(root, TaskPriority::normal, "queued");
    kept->scheduleTask();
    dropped->scheduleTask();
    root->resetStats();
    root->taskTestYieldRatioIs(1);
    Tamlo::Platform::doEventLoop();
    EXPECT_EQ(dropped, nullptr);
    queued->scheduleTask();
    kept.reset();
  }
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), before);
}

// The unowned task's turn fails with std::bad_weak_ptr before its run starts.
TEST(TaskSchedulerLifeTest, AnExceptionFromARunLeavesTheSchedulerUsable) {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("throws");
  auto const thrower = makeTask(root, TaskPriority::high, "thrower",
                                [](FunctionTask&) { throw std::runtime_error("run failed"); });
  FunctionTask unowned(root, TaskPriority::high, "unowned");
  auto const next = makeTask(root, TaskPriority::normal, "next");
  for (FunctionTask* failing : {thrower.get(), &unowned}) {
    failing->scheduleTask();
    next->scheduleTask();
    EXPECT_THROW(Tamlo::Platform::doEventLoop(), std::exception);
    EXPECT_FALSE(root->runningTask() || failing->taskCurrentlyRunning() ||
                 failing->taskScheduled());
  }
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(next->taskRunCount(), 1u);
  EXPECT_EQ(thrower->taskRunCount() + unowned.taskRunCount(), 1u) << "a failed run counts";
}

}  // namespace
