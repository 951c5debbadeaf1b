// Platform controls served by the task scheduler: code written against the
// timer, callback and fd controls of Platform.h can have its notifications
// delivered as task runs of a chosen scheduler, priority and name, ordered
// against that scheduler's other tasks and measured like them. Each control
// is at once the task and the control.
#pragma once

#include <memory>
#include <string>

#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>
#include <Tamlo/TaskPriority.h>
#include <Tamlo/TaskScheduler.h>
#include <Tamlo/TimerTask.h>

namespace Tamlo::Platform {

// A timer control whose expiry runs as a timer task: when the delay has
// passed the task is queued in its scheduler, and its run calls the handler's
// timeout(), at the task's priority and ordered against the scheduler's
// other tasks. setTimeout restarts the timer (0 makes the task runnable at
// once, +infinity stops it); delTimeout stops it and unqueues the task.
//
// An exception from timeout() leaves the task's run as it is:
// handleTimeoutException() is not called. The handler must outlive the
// control. Threads: none; it belongs to its scheduler's thread.
class TaskTimerControl : public TimerTask, public TimerControl {
 public:
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                   TaskPriority priority, std::string const& name);

  void taskExecute() override;
  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
};

// A callback control whose callback runs as a task: requestCallback()
// queues it, so requests made before the run collapse into one call of the
// handler's callback(); cancelCallback() unqueues it.
//
// An exception from callback() leaves the task's run as it is:
// handleCallbackException() is not called. The handler must outlive the
// control. Threads: none; it belongs to its scheduler's thread.
class TaskCallbackControl : public Task, public CallbackControl {
 public:
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                      TaskPriority priority, std::string const& name);

  void taskExecute() override;
  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
};

// Each makes the control and its reference count in one allocation; the
// task registers with `scheduler` under `name` as any task does.
std::shared_ptr<TaskTimerControl> getTimerControl(TimeoutHandler* handler,
                                                  std::shared_ptr<TaskScheduler> scheduler,
                                                  TaskPriority priority, std::string name);
std::shared_ptr<TaskCallbackControl> getCallbackControl(CallbackHandler* handler,
                                                        std::shared_ptr<TaskScheduler> scheduler,
                                                        TaskPriority priority, std::string name);

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
