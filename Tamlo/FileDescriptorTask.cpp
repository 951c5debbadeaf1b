// File-descriptor tasks: readiness from a platform fd control turned into
// runs of a read and a write subtask, which call the owner's handlers.
#include <Tamlo/FileDescriptorTask.h>

#include <exception>
#include <utility>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>

namespace Tamlo {

using EventType = TaskSchedulerHistory::EventType;

// A direction of a FileDescriptorTask: a task at the owner's priority in the
// owner's scheduler, named after the owner. The owner pointer is cleared by
// the owner's destructor; a subtask that outlives its owner does nothing.
class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
  ReadWriteTaskBase(FileDescriptorTask* owner, char const* suffix)
      : Task(std::shared_ptr<TaskScheduler>(owner->taskScheduler_), owner->taskPriority(),
             owner->taskName() + suffix),
        owner_(owner) {
    if (owner->taskStatsName() != owner->taskName())
      taskStatsNameIs(owner->taskStatsName() + suffix);
  }

  void ownerIsGone() { owner_ = nullptr; }

  // The owner is busy while either direction is.
  void handleTaskBusy() override {
    if (owner_ != nullptr)
      owner_->taskBusyIs(owner_->taskScheduled(), Impl::taskTimeNow());
  }

 protected:
  // Runs the owner's `handler` with this direction as the executing one.
  // The caller holds the owner: the handler may drop its last owner.
  void executeOwner(void (FileDescriptorTask::*handler)()) {
    owner_->executingTask_ = this;
    (owner_->*handler)();
    // Not reached when the handler throws, on purpose (see the header).
    owner_->executingTask_ = nullptr;
  }

  FileDescriptorTask* owner_;
};

class FileDescriptorTask::ReadTask final : public ReadWriteTaskBase {
 public:
  using ReadWriteTaskBase::ReadWriteTaskBase;

  void taskExecute() override {
    if (owner_ == nullptr)
      return;
    std::shared_ptr<_TaskBase> const ownerHeld = owner_->shared_from_this();
    TAMLO_ASSERT(owner_->watchReadable_, "ReadTask should only run if taskWatchReadable");
    TAMLO_ASSERT(owner_->executingTask_ == nullptr, "Executing task already set");
    executeOwner(&FileDescriptorTask::taskExecuteReadable);
  }

  void handleResetStats() override {
    if (owner_ != nullptr)
      owner_->handleResetStats();
  }
};

class FileDescriptorTask::WriteTask final : public ReadWriteTaskBase {
 public:
  using ReadWriteTaskBase::ReadWriteTaskBase;

  // Unlike the read side, no check that writability is watched: a write
  // task queued by scheduleTaskWritable() runs whatever is watched.
  void taskExecute() override {
    if (owner_ == nullptr)
      return;
    std::shared_ptr<_TaskBase> const ownerHeld = owner_->shared_from_this();
    owner_->taskWatchWritableIs(false);
    TAMLO_ASSERT(owner_->executingTask_ == nullptr, "Executing task already set");
    executeOwner(&FileDescriptorTask::taskExecuteWritable);
  }
};

// ---- Life ----

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string const& name)
    : _TaskBase(std::move(scheduler), priority, name) {
  checkThread();
  fdControl_ = Platform::getFdControl(this);
  readTask_ = makeShared<ReadTask>(this, ":read");
  taskWatchReadableIs(true);
  taskWatchWritableIs(false);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       std::string const& name)
    : FileDescriptorTask(scheduler != nullptr ? scheduler->shared_from_this() : nullptr, priority,
                         name) {}

FileDescriptorTask::~FileDescriptorTask() {
  readTask_->ownerIsGone();
  if (writeTask_ != nullptr)
    writeTask_->ownerIsGone();
  writeTask_.reset();
  readTask_.reset();
  fdControl_.reset();
}

void FileDescriptorTask::checkThread() const {
  taskScheduler_->root()->sanityCheckCurrentRunningThread();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_ != nullptr)
    return;
  writeTask_ = makeShared<WriteTask>(this, ":write");
  // A quantum forced on the read side by a test ratio of 1 is not copied.
  if (readTask_->taskTestYieldRatio() != 1)
    writeTask_->taskQuantumNoCheckIs(readTask_->taskQuantum());
  writeTask_->taskSuspendedIs(readTask_->taskSuspended());
  writeTask_->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
}

FileDescriptorTask::WriteTask& FileDescriptorTask::writeTaskOrFail() const {
  TAMLO_ASSERT(writeTask_ != nullptr, "WriteTask not created by taskWatchWritableIs( true )");
  return *writeTask_;
}

// ---- The descriptor and what is watched ----

int FileDescriptorTask::taskWatchFd() const {
  checkThread();
  return fdControl_->getFd();
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
  checkThread();
  if (fd == fdControl_->getFd())
    return;
  readTask_->unscheduleTask();
  if (writeTask_ != nullptr)
    writeTask_->unscheduleTask();
  fdControl_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
  checkThread();
  readTask_->unscheduleTask();
  if (writeTask_ != nullptr)
    writeTask_->unscheduleTask();
  fdControl_->delFd();
}

bool FileDescriptorTask::taskWatchReadable() const {
  checkThread();
  return watchReadable_;
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  checkThread();
  if (on == watchReadable_)
    return;
  watchReadable_ = on;
  fdControl_->setReads(on);
  if (!on)
    readTask_->unscheduleTask();
}

bool FileDescriptorTask::taskWatchWritable() const {
  checkThread();
  return watchWritable_;
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  checkThread();
  if (on == watchWritable_)
    return;
  checkCreateWriteTask();
  watchWritable_ = on;
  fdControl_->setWrites(on);
  if (!on)
    writeTask_->unscheduleTask();
}

void FileDescriptorTask::scheduleTaskReadable() {
  checkThread();
  readTask_->TaskImpl::scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() {
  checkThread();
  try {
    checkCreateWriteTask();
  } catch (...) {
    // Called from the fd control, which cannot hand a failure to anyone.
    std::terminate();
  }
  writeTask_->TaskImpl::scheduleTask();
}

// ---- Readiness ----

void FileDescriptorTask::readFdEvent(int fd) {
  checkThread();
  TAMLO_TASK_FATAL_ASSERT(watchReadable_, "readFdEvent() called with taskWatchReadable off");
  TAMLO_TASK_FATAL_ASSERT(fd == fdControl_->getFd(), "Notified about {} watching {}", fd,
                          fdControl_->getFd());
  taskHistoryInsert(Impl::taskTimeNow(), EventType::fdReadable);
  readTask_->TaskImpl::scheduleTask();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  checkThread();
  TAMLO_TASK_FATAL_ASSERT(watchWritable_, "writeFdEvent() called with taskWatchWritable off");
  TAMLO_TASK_FATAL_ASSERT(fd == fdControl_->getFd(), "Notified about {} watching {}", fd,
                          fdControl_->getFd());
  taskHistoryInsert(Impl::taskTimeNow(), EventType::fdWritable);
  scheduleTaskWritable();
}

// ---- The executing direction ----

bool FileDescriptorTask::taskShouldYield() const {
  checkThread();
  TAMLO_ASSERT(executingTask_ != nullptr, "Task: {} has no direction running", taskName());
  return executingTask_->TaskImpl::taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(uint64_t count) {
  checkThread();
  TAMLO_ASSERT(executingTask_ != nullptr, "Task: {} has no direction running", taskName());
  executingTask_->TaskImpl::taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkPendingIs(uint32_t pending) {
  checkThread();
  TAMLO_ASSERT(executingTask_ != nullptr, "Task: {} has no direction running", taskName());
  executingTask_->TaskImpl::taskWorkPendingIs(pending);
}

bool FileDescriptorTask::taskScheduled() const {
  checkThread();
  return taskScheduledReadable() || taskScheduledWritable();
}

void FileDescriptorTask::taskStatsNameIs(std::string const& name) {
  checkThread();
  _TaskBase::taskStatsNameIs(name);
  readTask_->taskStatsNameIs(name + ":read");
  if (writeTask_ != nullptr)
    writeTask_->taskStatsNameIs(name + ":write");
}

// ---- Statistics of each direction ----

uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
  checkThread();
  return readTask_->taskWorkCountTotal();
}

uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskWorkCountTotal() : 0;
}

float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
  checkThread();
  return readTask_->taskWorkCountDecayingAvg();
}

float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskWorkCountDecayingAvg() : 0;
}

uint32_t FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  checkThread();
  return readTask_->taskWorkCountHighWaterMark().valueOr(0);
}

uint32_t FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskWorkCountHighWaterMark().valueOr(0) : 0;
}

void FileDescriptorTask::taskWorkCountReadableInc(uint64_t count) {
  checkThread();
  readTask_->TaskImpl::taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkCountWritableInc(uint64_t count) {
  checkThread();
  writeTaskOrFail().TaskImpl::taskWorkCountInc(count);
}

uint32_t FileDescriptorTask::taskWorkPendingReadable() const {
  checkThread();
  return readTask_->taskWorkPending();
}

uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskWorkPending() : 0;
}

uint32_t FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
  checkThread();
  return readTask_->taskWorkPendingHighWaterMark().valueOr(0);
}

uint32_t FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskWorkPendingHighWaterMark().valueOr(0) : 0;
}

void FileDescriptorTask::taskWorkPendingReadableIs(uint32_t pending) {
  checkThread();
  readTask_->TaskImpl::taskWorkPendingIs(pending);
}

void FileDescriptorTask::taskWorkPendingWritableIs(uint32_t pending) {
  checkThread();
  writeTaskOrFail().TaskImpl::taskWorkPendingIs(pending);
}

uint64_t FileDescriptorTask::taskRunCountReadable() const {
  checkThread();
  return readTask_->taskRunCount();
}

uint64_t FileDescriptorTask::taskRunCountWritable() const {
  checkThread();
  return writeTask_ != nullptr ? writeTask_->taskRunCount() : 0;
}

uint64_t FileDescriptorTask::taskRunCount() const {
  checkThread();
  return taskRunCountReadable() + taskRunCountWritable();
}

bool FileDescriptorTask::taskScheduledReadable() const {
  checkThread();
  return readTask_->TaskImpl::taskScheduled();
}

bool FileDescriptorTask::taskScheduledWritable() const {
  checkThread();
  return writeTask_ != nullptr && writeTask_->TaskImpl::taskScheduled();
}

// ---- Settings ----

TaskTimeDuration FileDescriptorTask::taskQuantum() const {
  checkThread();
  return readTask_->taskQuantum();
}

void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
  checkThread();
  readTask_->taskQuantumIs(quantum);
  if (writeTask_ != nullptr)
    writeTask_->taskQuantumIs(quantum);
}

bool FileDescriptorTask::taskSuspended() const {
  checkThread();
  return readTask_->taskSuspended();
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  checkThread();
  readTask_->taskSuspendedIs(suspended);
  if (writeTask_ != nullptr)
    writeTask_->taskSuspendedIs(suspended);
}

uint8_t FileDescriptorTask::taskTestYieldRatio() const {
  checkThread();
  return readTask_->taskTestYieldRatio();
}

void FileDescriptorTask::taskTestYieldRatioIs(uint8_t ratio) {
  checkThread();
  readTask_->taskTestYieldRatioIs(ratio);
  if (writeTask_ != nullptr)
    writeTask_->taskTestYieldRatioIs(ratio);
}

bool FileDescriptorTask::taskForceYieldInTest() const {
  checkThread();
  return readTask_->taskTestYieldRatio() == 1;
}

void FileDescriptorTask::taskForceYieldInTestIs(bool on) {
  checkThread();
  taskTestYieldRatioIs(on ? 1 : 0);
}

}  // namespace Tamlo
