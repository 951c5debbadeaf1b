// Task groups: the group as a scheduler under its parent's root, and the
// parent task that runs it.
#include <Tamlo/TaskGroup.h>

#include <utility>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>

namespace Tamlo {

namespace {

TaskSchedulerRoot* rootOf(std::shared_ptr<TaskScheduler> const& parent, std::string const& name) {
  TAMLO_ASSERT_IN("TaskGroup", parent != nullptr, "TaskGroup {} needs a parent scheduler", name);
  return parent->root();
}

// Null for a missing parent, which rootOf() reports.
std::shared_ptr<TaskSchedulerHistory> historyOf(std::shared_ptr<TaskScheduler> const& parent) {
  return parent != nullptr ? parent->history() : nullptr;
}

// Puts the run queues back in place however the group's run ends, so that a
// task that threw does not leave the next run to find them moved.
class TemporaryRunQueues {
 public:
  TemporaryRunQueues(TaskScheduler& group, bool active) : group_(group), active_(active) {
    if (active_)
      group_.taskRunQueuesMovePersistentToTemporary();
  }
  ~TemporaryRunQueues() {
    if (active_)
      group_.taskRunQueuesMoveTemporaryToPersistent();
  }
  TemporaryRunQueues(TemporaryRunQueues const&) = delete;
  TemporaryRunQueues& operator=(TemporaryRunQueues const&) = delete;

 private:
  TaskScheduler& group_;
  bool active_;
};

}  // namespace

// ---- ParentTask ----

TaskGroup::ParentTask::ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority,
                                  std::string const& groupName, TaskGroup* group)
    : Task(std::move(parent), priority, "TaskGroup;" + groupName), group_(group) {
  taskIsGroupParentIs(true);
}

// The task's own destructor, which folds its statistics, then sees a plain
// task, as the type it destroys is one by then.
TaskGroup::ParentTask::~ParentTask() {
  taskIsGroupParentIs(false);
}

// Here rather than with the other task operations: only this module knows
// the parent task's type.
TaskGroup* TaskImpl::isTaskGroup() const {
  if ((taskFlags_ & taskFlagGroupParent) == 0)
    return nullptr;
  auto const* const parent = static_cast<TaskGroup::ParentTask const*>(this);
  TAMLO_TASK_FATAL_ASSERT(parent->group() != nullptr, "TaskGroup is non-null");
  return parent->group();
}

void TaskGroup::ParentTask::taskExecute() {
  if (group_ == nullptr)
    return;
  // Held to the end: a task of the group may drop the group's last owner.
  std::shared_ptr<TaskScheduler> const hold = group_->shared_from_this();
  TaskGroup& group = *group_;
  bool const multipleRuns = group.tasksPermittedMultipleRuns_;
  uint64_t runs = 0;
  {
    TemporaryRunQueues const onlyQueuedBefore(group, !multipleRuns);
    while (group.schedulerHasRunnableTasks()) {
      ++runs;
      group.handleSchedulerRun();
      if (taskShouldYield())
        break;
    }
  }
  taskWorkCountInc(runs);
  uint32_t const pending = group.runnableTaskCount();
  taskWorkPendingIs(pending);
  TaskTimePoint const now = Impl::taskTimeNow();
  if (pending == 0) {
    if (group.schedulerHasRunnableTasks())
      group.schedulerHasRunnableTasksIs(false, now);
    if (taskScheduled())
      unscheduleTask();
  } else if (multipleRuns) {
    // Every group turn that ran a task asked for the next one.
    TAMLO_TASK_FATAL_ASSERT(taskScheduled(), "TaskGroup parentTask should be scheduled.");
    TAMLO_TASK_FATAL_ASSERT(group.schedulerHasRunnableTasks(),
                            "The TaskGroup should have runnable tasks");
  } else {
    // The last turn found the moved queues empty and turned the group idle,
    // though tasks wait in the persistent lists.
    scheduleTask();
    group.schedulerHasRunnableTasksIs(true, now);
  }
}

void TaskGroup::ParentTask::handleResetStats() {
  if (group_ != nullptr)
    group_->resetStats();
}

// ---- TaskGroup ----

TaskGroup::TaskGroup(std::string const& name, TaskPriority priority, bool taskGroupPriorityEnforced,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(name, rootOf(parent, name), historyOf(parent)),
      parentScheduler_(std::move(parent)),
      taskGroupPriority_(priority),
      taskGroupPriorityEnforced_(taskGroupPriorityEnforced) {
  root()->sanityCheckCurrentRunningThread();
  defaultTaskQuantumIs(parentScheduler_->defaultTaskQuantum());
  root()->registerScheduler(this);
  try {
    parentTask_ = makeShared<ParentTask>(parentScheduler_, priority, name, this);
  } catch (...) {
    root()->unregisterScheduler(this);
    throw;
  }
}

TaskGroup::~TaskGroup() {
  taskGroupForceYieldInTestIs(false);
  // While the group is whole: the reset task leaves through it.
  destroyResetStatsTask();
  root()->unregisterScheduler(this);
  parentTask_->group_ = nullptr;
  parentTask_.reset();
  parentScheduler_.reset();
}

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs(std::string const& name, TaskPriority priority,
                                                  bool taskGroupPriorityEnforced,
                                                  std::shared_ptr<TaskScheduler> parent) {
  return makeShared<TaskGroup>(name, priority, taskGroupPriorityEnforced, std::move(parent));
}

void TaskGroup::requestSchedulerRun() {
  parentTask_->scheduleTask();
}

void TaskGroup::handleTaskForceYieldInTest() {
  parentTask_->taskForceYieldInTestIs(taskForceYieldInTestCount() != 0);
}

void TaskGroup::taskRegister(TaskImpl* task) {
  root()->sanityCheckCurrentRunningThread();
  TAMLO_TASK_FATAL_ASSERT(!taskGroupPriorityEnforced_ || task->taskPriority() == taskGroupPriority_,
                          "taskPriority( {} ) != taskGroupPriority( {} )", task->taskPriority(),
                          taskGroupPriority_);
  TaskScheduler::taskRegister(task);
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const {
  root()->sanityCheckCurrentRunningThread();
  return parentTask_->taskQuantum();
}

void TaskGroup::taskGroupQuantumIs(std::chrono::nanoseconds quantum) {
  root()->sanityCheckCurrentRunningThread();
  parentTask_->taskQuantumIs(quantum);
}

void TaskGroup::taskGroupQuantumNoCheckIs(std::chrono::nanoseconds quantum) {
  root()->sanityCheckCurrentRunningThread();
  parentTask_->taskQuantumNoCheckIs(quantum);
}

void TaskGroup::tasksPermittedMultipleRunsIs(bool permitted) {
  root()->sanityCheckCurrentRunningThread();
  tasksPermittedMultipleRuns_ = permitted;
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
  root()->sanityCheckCurrentRunningThread();
  if (on == taskGroupForceYieldInTest_)
    return;
  taskGroupForceYieldInTest_ = on;
  taskForceYieldInTestNotify(parentTask_.get(), on);
}

bool TaskGroup::parentTaskScheduled() const {
  return parentTask_->taskScheduled();
}

uint64_t TaskGroup::parentTaskRunCount() const {
  root()->sanityCheckCurrentRunningThread();
  return parentTask_->taskRunCount();
}

void TaskGroup::taskGroupRunFromTest() {
  root()->sanityCheckCurrentRunningThread();
  parentTask_->taskRunFromTest();
}

}  // namespace Tamlo
