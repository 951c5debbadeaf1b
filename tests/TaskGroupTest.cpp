// Task groups: the parent task that stands for a group, and the turns of its run (virtual time).
#include <Tamlo/TaskGroup.h>

#include "SchedulerTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Tamlo::TaskGroup;
using Tamlo::TaskPriority;
using namespace Tamlo::Test;

class TaskGroupTest : public ::testing::Test {
 protected:
  ~TaskGroupTest() override { Tamlo::Platform::setFastForward(false); }
  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ = virtualTimeRoot("groups");
};

TEST_F(TaskGroupTest, ParentTaskRunsTheGroupAsOneTaskOfItsParent) {
  std::string journal;
  auto group = TaskGroup::TaskGroupIs("io", TaskPriority::normal, false, root_);
  // Any priority may join an unenforced group; they run by priority in the parent task's run.
  auto low = makeTask(group, TaskPriority::low, "b", journalRuns(journal, 1));
  auto high = makeTask(group, TaskPriority::high, "a", journalRuns(journal, 1));
  auto const outside = makeTask(root_, TaskPriority::normal, "r", journalRuns(journal, 1));
  for (FunctionTask* task : {low.get(), high.get(), outside.get()})
    task->scheduleTask();
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(journal, "abr");

  // The tasks keep the group alive; the last to go takes it and its parent task out.
  group.reset();
  low.reset();
  EXPECT_EQ(root_->taskGroupCount(), 1u);
  high.reset();
  EXPECT_EQ(root_->taskGroupCount(), 0u);
  EXPECT_EQ(root_->registeredTaskCount(), 1u);
}

// Three tasks that each take a quarter second and reschedule: what two parent runs get through.
TEST_F(TaskGroupTest, GroupTurnsPerParentRunFollowModeQuantumAndForcedYields) {
  enum class Force { none, group, task };
  struct Row {
    bool multipleRuns;
    Tamlo::TaskTimeDuration quantum;
    Force force;
    char const* twoRuns;
    bool rootSuspended = false;
  } const rows[] = {
      {false, 1s, Force::none, "abcabc"},   // each task once per run
      {false, 500ms, Force::none, "abca"},  // the rest of a cut run goes first
      {true, 1s, Force::none, "abcabcab"}, {true, 1s, Force::group, "ab"},
      {true, 1s, Force::task, "ab"},        // a task forced to yield forces the group
      {false, 1s, Force::group, "", true},  // runs that did nothing leave the work for later
  };
  for (Row const& row : rows) {
    std::string journal;
    auto const group = TaskGroup::TaskGroupIs("g", TaskPriority::normal, true, root_);
    group->tasksPermittedMultipleRunsIs(row.multipleRuns);
    group->taskGroupQuantumIs(row.quantum);
    auto const body = [&journal](FunctionTask& self) {
      journal += self.taskName();
      Tamlo::Platform::fastForwardBy(0.25);
      self.scheduleTask();
    };
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (char const* name : {"a", "b", "c"})
      tasks.emplace_back(makeTask(group, TaskPriority::normal, name, body))->scheduleTask();
    group->taskGroupForceYieldInTestIs(row.force == Force::group);
    tasks[0]->taskForceYieldInTestIs(row.force == Force::task);
    root_->suspendedIs(row.rootSuspended);
    group->taskGroupRunFromTest();
    group->taskGroupRunFromTest();
    root_->suspendedIs(false);
    EXPECT_EQ(journal, row.twoRuns);
    EXPECT_TRUE(group->parentTaskScheduled());
  }
}

}  // namespace
