// Timer and callback controls served by scheduler tasks.
#include <Tamlo/TaskControl.h>

#include <utility>

#include <Tamlo/Allocator.h>

namespace Tamlo::Platform {

// ---- TaskTimerControl ----

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   std::string const& name)
    : TimerTask(std::move(scheduler), priority, name), TimerControl(handler) {}

void TaskTimerControl::taskExecute() {
  handler_->timeout();
}

void TaskTimerControl::setTimeout(double seconds) {
  scheduleTaskDelay(seconds);
}

void TaskTimerControl::delTimeout() {
  stopTimerTask();
}

double TaskTimerControl::remainingTimeout() const {
  return timerRemaining();
}

std::shared_ptr<TaskTimerControl> getTimerControl(TimeoutHandler* handler,
                                                  std::shared_ptr<TaskScheduler> scheduler,
                                                  TaskPriority priority, std::string const& name) {
  return makeShared<TaskTimerControl>(handler, std::move(scheduler), priority, name);
}

// ---- TaskCallbackControl ----

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, std::string const& name)
    : Task(std::move(scheduler), priority, name), CallbackControl(handler) {}

void TaskCallbackControl::taskExecute() {
  handler_->callback();
}

void TaskCallbackControl::requestCallback() {
  TaskImpl::scheduleTask();
}

void TaskCallbackControl::cancelCallback() {
  TaskImpl::unscheduleTask();
}

bool TaskCallbackControl::pendingCallback() const {
  return TaskImpl::taskScheduled();
}

std::shared_ptr<TaskCallbackControl> getCallbackControl(CallbackHandler* handler,
                                                        std::shared_ptr<TaskScheduler> scheduler,
                                                        TaskPriority priority,
                                                        std::string const& name) {
  return makeShared<TaskCallbackControl>(handler, std::move(scheduler), priority, name);
}

}  // namespace Tamlo::Platform
