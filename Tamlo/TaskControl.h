#pragma once

#include <memory>
#include <string>

#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/Platform.h>
#include <Tamlo/TaskPriority.h>
#include <Tamlo/TaskScheduler.h>

// ---- TaskFdControl: descriptor readiness delivered by the task scheduler ----
//
// A platform fd control whose notifications run as the two directions of a
// FileDescriptorTask: readFdEvent() and writeFdEvent() of the handler are
// called from scheduler runs, at the control's priority and in order with the
// other tasks of its scheduler, with quantum and statistics per direction.
// The object is at once the task and the control.
//
// Promises beyond the FdControl contract: an exception from the handler is
// offered to its handleFdException(fd); true drops it, false lets it out of
// the task's run (and, the task being left marked as executing, its next run
// fails). Writability stays one-shot: call setWrites(true) again after each
// writable notification. clearEvents() forgets the descriptor, as delFd().
//
// The handler must outlive the control. Single-thread: use it on the thread
// of the scheduler it was made in.
namespace Tamlo::Platform {

class TaskFdControl : public FileDescriptorTask, public FdControl {
 public:
  // Use getFdControl(handler, scheduler, priority, name). (The handler type
  // is qualified: inside this class the bare name is the task's private base.)
  TaskFdControl(Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, std::string const& name);
  ~TaskFdControl() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;
};

// Made in one allocation with its reference count, through Tamlo::Allocator;
// the task registers with `scheduler`.
std::shared_ptr<TaskFdControl> getFdControl(FdEventHandler* handler,
                                            std::shared_ptr<TaskScheduler> scheduler,
                                            TaskPriority priority, std::string name);

}  // namespace Tamlo::Platform
