// Platform controls served by the task scheduler.
#pragma once

#include <memory>
#include <string>

#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>
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
                                                  TaskPriority priority, std::string const& name);
std::shared_ptr<TaskCallbackControl> getCallbackControl(CallbackHandler* handler,
                                                        std::shared_ptr<TaskScheduler> scheduler,
                                                        TaskPriority priority,
                                                        std::string const& name);

}  // namespace Tamlo::Platform
