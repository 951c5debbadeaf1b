#include <Tamlo/TaskControl.h>

#include <utility>

#include <Tamlo/Allocator.h>

// ---- TaskFdControl ----

namespace Tamlo::Platform {

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
  return makeShared<TaskFdControl>(handler, std::move(scheduler), priority, name);
}

}  // namespace Tamlo::Platform
