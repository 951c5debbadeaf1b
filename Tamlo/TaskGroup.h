// Task groups: a scheduler that runs as one task of its parent.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <Tamlo/Task.h>
#include <Tamlo/TaskScheduler.h>

namespace Tamlo {

// A set of tasks sharing one slot in a parent scheduler. The group is a
// scheduler of its own, registered with the parent's root; its tasks register
// with the group. In the parent it is represented by its ParentTask, named
// "TaskGroup;<name>", of the group's priority: when a task of the group
// becomes runnable the ParentTask is scheduled, and each run of the
// ParentTask runs the group's tasks, one scheduler turn after another, until
// the ParentTask's quantum (the group quantum) is used or nothing is left.
// So the group competes in its parent at one priority with one quantum, and
// its tasks share that quantum by their own priorities.
//
// Promises: the ParentTask is runnable in the parent exactly while the group
// has runnable tasks. With tasksPermittedMultipleRunsIs(false) each task runs
// at most once per ParentTask run: tasks scheduled during the run wait for
// the next. A group with an enforced priority aborts the process when a task
// of another priority registers with it.
//
// Made by TaskGroupIs (the ParentTask reaches the group through its owning
// pointer); tasks of the group keep it alive, and it keeps its parent alive.
// Threads: none; it belongs to its root's thread, which every entry checks.
class TaskGroup : public TaskScheduler {
 public:
  // The task that stands for the group in the parent scheduler. It holds the
  // group by a plain pointer that the group clears when it goes; a ParentTask
  // that outlives its group does nothing when run.
  class ParentTask : public Task {
   public:
    ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority,
               std::string const& groupName, TaskGroup* group);
    ~ParentTask() override;

    // Null once the group is gone.
    TaskGroup* group() const { return group_; }
    void taskExecute() override;
    void handleResetStats() override;

   private:
    friend class TaskGroup;
    TaskGroup* group_;
  };

  // Use TaskGroupIs(): a group must be owned by a shared pointer.
  TaskGroup(std::string const& name, TaskPriority priority, bool taskGroupPriorityEnforced,
            std::shared_ptr<TaskScheduler> parent);
  ~TaskGroup() override;
  static std::shared_ptr<TaskGroup> TaskGroupIs(std::string const& name, TaskPriority priority,
                                                bool taskGroupPriorityEnforced,
                                                std::shared_ptr<TaskScheduler> parent);

  // Schedules the ParentTask in the parent.
  void requestSchedulerRun() override;
  // The ParentTask yields in tests while any task of the group does.
  void handleTaskForceYieldInTest() override;
  // Aborts for a task of another priority when the priority is enforced.
  void taskRegister(TaskImpl* task) override;

  TaskPriority taskGroupPriority() const { return taskGroupPriority_; }
  bool taskGroupPriorityEnforced() const { return taskGroupPriorityEnforced_; }
  std::shared_ptr<TaskScheduler> const& parentScheduler() const { return parentScheduler_; }
  ParentTask const& parentTask() const { return *parentTask_; }

  // The time the group may run per ParentTask run: the ParentTask's quantum,
  // not its tasks' own quanta. Set with the checks of taskQuantumIs, or
  // without them.
  TaskTimeDuration taskGroupQuantum() const;
  void taskGroupQuantumIs(std::chrono::nanoseconds quantum);
  void taskGroupQuantumNoCheckIs(std::chrono::nanoseconds quantum);

  bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }
  // False: each task runs at most once per ParentTask run. True initially.
  void tasksPermittedMultipleRunsIs(bool permitted);

  // Makes the ParentTask yield after every group turn, in tests.
  bool taskGroupForceYieldInTest() const { return taskGroupForceYieldInTest_; }
  void taskGroupForceYieldInTestIs(bool on);

  bool parentTaskScheduled() const;
  uint64_t parentTaskRunCount() const;
  // Runs the ParentTask now, outside the event loop.
  void taskGroupRunFromTest();

 private:
  std::shared_ptr<ParentTask> parentTask_;
  std::shared_ptr<TaskScheduler> parentScheduler_;
  TaskPriority taskGroupPriority_;
  bool taskGroupPriorityEnforced_;
  bool taskGroupForceYieldInTest_ = false;
  bool tasksPermittedMultipleRuns_ = true;
};

}  // namespace Tamlo
