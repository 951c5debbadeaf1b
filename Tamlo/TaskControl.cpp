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
                                                  TaskPriority priority, std::string name) {
  return makeShared<TaskTimerControl>(handler, std::move(scheduler), priority, std::move(name));
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
                                                        TaskPriority priority, std::string name) {
  return makeShared<TaskCallbackControl>(handler, std::move(scheduler), priority, std::move(name));
}

// ---- TaskFdControl ----

TaskFdControl::TaskFdControl(Platform::FdEventHandler* handler,
                             std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                             std::string const& name)
    : FileDescriptorTask(std::move(scheduler), priority, name), FdControl(handler) {}

TaskFdControl::~TaskFdControl() = default;

void TaskFdControl::taskExecuteReadable() {
  int const fd = getFd();
  try {
    handler_->readFdEvent(fd);
  } catch (...) {
    if (!handler_->handleFdException(fd))
      throw;
  }
}

void TaskFdControl::taskExecuteWritable() {
  int const fd = getFd();
  try {
    handler_->writeFdEvent(fd);
  } catch (...) {
    if (!handler_->handleFdException(fd))
      throw;
  }
}

void TaskFdControl::setReads(bool on) {
  taskWatchReadableIs(on);
}

void TaskFdControl::setWrites(bool on) {
  taskWatchWritableIs(on);
}

void TaskFdControl::setFd(int fd) {
  taskWatchFdIs(fd);
}

void TaskFdControl::delFd() {
  taskWatchFdDel();
}

int TaskFdControl::getFd() const {
  return taskWatchFd();
}

// Deliberately the same as delFd(): the descriptor is forgotten, not only
// disarmed.
void TaskFdControl::clearEvents() {
  taskWatchFdDel();
}

std::shared_ptr<TaskFdControl> getFdControl(FdEventHandler* handler,
                                            std::shared_ptr<TaskScheduler> scheduler,
                                            TaskPriority priority, std::string name) {
  return makeShared<TaskFdControl>(handler, std::move(scheduler), priority, std::move(name));
}

}  // namespace Tamlo::Platform
