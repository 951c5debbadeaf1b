// Task groups: the parent task that stands for the group in its parent, and
// how many group turns one parent run makes by mode, quantum and forced
// yields (in virtual time, so that the test sets run lengths).
#include <Tamlo/TaskGroup.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>

#include "SchedulerTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Tamlo::TaskGroup;
using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using namespace Tamlo::Test;

class TaskGroupTest : public ::testing::Test {
 protected:
  ~TaskGroupTest() override { Tamlo::Platform::setFastForward(false); }

  std::shared_ptr<TaskSchedulerRoot> root_ = Tamlo::Test::virtualTimeRoot("groups");
};

TEST_F(TaskGroupTest, ParentTaskRunsTheGroupAsOneTaskOfItsParent) {
  std::string journal;
  auto group = TaskGroup::TaskGroupIs("io", TaskPriority::normal, false, root_);
  TaskGroup::ParentTask const& parent = group->parentTask();
  EXPECT_EQ(parent.taskName(), "TaskGroup;io");
  EXPECT_EQ(parent.taskPriority(), TaskPriority::normal);
  EXPECT_EQ(parent.taskScheduler(), root_.get());
  EXPECT_EQ(parent.isTaskGroup(), group.get());
  EXPECT_TRUE(parent.taskStatus().taskIsTaskGroup());
  EXPECT_EQ(root_->taskGroupCount(), 1u);

  // Without enforcement any priority may join; the group's tasks register
  // with the group and run by their priorities inside the parent's run.
  auto low = makeTask(group, TaskPriority::low, "b", journalRuns(journal, 1));
  auto high = makeTask(group, TaskPriority::high, "a", journalRuns(journal, 1));
  auto const outside = makeTask(root_, TaskPriority::normal, "r", journalRuns(journal, 1));
  EXPECT_EQ(group->registeredTaskCount(), 2u);
  EXPECT_EQ(root_->registeredTaskCount(), 2u);
  low->scheduleTask();
  EXPECT_TRUE(group->parentTaskScheduled());
  high->scheduleTask();
  outside->scheduleTask();
  runLoop();
  EXPECT_EQ(journal, "abr");
  EXPECT_FALSE(group->parentTaskScheduled());
  EXPECT_EQ(group->parentTaskRunCount(), 1u);

  // An empty group leaves its parent task idle after a run.
  group->taskGroupRunFromTest();
  EXPECT_FALSE(group->parentTaskScheduled());

  // The tasks keep the group alive; the last one to go takes it and its
  // parent task out of the root.
  group.reset();
  EXPECT_EQ(root_->taskGroupCount(), 1u);
  low.reset();
  high.reset();
  EXPECT_EQ(root_->taskGroupCount(), 0u);
  EXPECT_EQ(root_->registeredTaskCount(), 1u);
  EXPECT_EQ(
      root_->completedTaskStats().count(root_->history()->stringCache().intern("TaskGroup;io")),
      1u);
}

// Three tasks that each take a quarter of a virtual second and always
// schedule themselves again: what one parent run gets through.
TEST_F(TaskGroupTest, GroupTurnsPerParentRunFollowModeQuantumAndForcedYields) {
  enum class Force { none, group, task };
  struct Row {
    char const* name;
    bool multipleRuns;
    Tamlo::TaskTimeDuration quantum;
    Force force;
    char const* twoRuns;
  } const rows[] = {
      {"each task once per run", false, 1s, Force::none, "abcabc"},
      {"single run cut by the quantum", false, 500ms, Force::none, "abca"},
      {"multiple runs up to the quantum", true, 1s, Force::none, "abcabcab"},
      {"a shorter quantum", true, 500ms, Force::none, "abca"},
      {"group forced to yield", true, 1s, Force::group, "ab"},
      {"a task forced to yield", true, 1s, Force::task, "ab"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    std::string journal;
    auto const group = TaskGroup::TaskGroupIs("g", TaskPriority::normal, true, root_);
    group->tasksPermittedMultipleRunsIs(row.multipleRuns);
    group->taskGroupQuantumIs(row.quantum);
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (char const* name : {"a", "b", "c"}) {
      tasks.push_back(makeTask(group, TaskPriority::normal, name, [&journal](FunctionTask& self) {
        journal += self.taskName();
        Tamlo::Platform::fastForwardBy(0.25);
        self.scheduleTask();
      }));
      tasks.back()->scheduleTask();
    }
    group->taskGroupForceYieldInTestIs(row.force == Force::group);
    tasks[0]->taskForceYieldInTestIs(row.force == Force::task);
    group->taskGroupRunFromTest();
    group->taskGroupRunFromTest();
    EXPECT_EQ(journal, row.twoRuns);
    EXPECT_TRUE(group->parentTaskScheduled());
    EXPECT_EQ(group->taskGroupQuantum(), row.quantum);
    EXPECT_EQ(tasks[0]->taskQuantum(), 20ms) << "the tasks keep their own quanta";
    tasks[0]->taskForceYieldInTestIs(false);
    for (auto const& task : tasks)
      task->unscheduleTask();
  }
}

}  // namespace
