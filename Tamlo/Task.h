// The task that client code derives from: implement taskExecute(), create the
// task through makeShared (a task must be owned by a shared pointer), and
// call scheduleTask() whenever there is work.
//
//   class Reader : public Tamlo::Task {
//    public:
//     explicit Reader(std::shared_ptr<Tamlo::TaskScheduler> scheduler)
//         : Task(std::move(scheduler), Tamlo::TaskPriority::normal, "reader") {}
//     void taskExecute() override {
//       while (haveInput()) {
//         consumeOne();
//         if (taskShouldYield()) {
//           scheduleTask();
//           return;
//         }
//       }
//     }
//   };
//
// Single-thread, like the scheduler it belongs to.
#pragma once

#include <memory>
#include <string>

#include <Tamlo/TaskScheduler.h>

namespace Tamlo {

class Task : public TaskImpl {
 public:
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name);
  // Takes the scheduler's owning pointer; throws std::bad_weak_ptr for a
  // scheduler that no shared pointer owns.
  Task(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);

  bool taskScheduled() const override;
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;
};

}  // namespace Tamlo
