// A task driven by the readiness of one file descriptor. Client code derives
// from FileDescriptorTask, implements taskExecuteReadable() and
// taskExecuteWritable(), names the descriptor with taskWatchFdIs(), and the
// scheduler runs those operations, at the task's priority and like any other
// task, whenever the descriptor has become readable or writable.
//
//   class Echo : public Tamlo::FileDescriptorTask {
//    public:
//     Echo(std::shared_ptr<Tamlo::TaskScheduler> scheduler, int fd)
//         : FileDescriptorTask(std::move(scheduler), Tamlo::TaskPriority::normal, "echo") {
//       taskWatchFdIs(fd);
//     }
//     void taskExecuteReadable() override { ...read, write back... }
//     void taskExecuteWritable() override { ...flush what did not fit... }
//   };
//
// Each direction runs as a hidden subtask (":read", ":write" after the name),
// so each has its own run count, work counts and statistics line; yield
// checks and work counts made from inside a handler are charged to the
// direction that runs. The read side is watched from construction; the write
// side exists from its first use on and is one-shot: after each writable run
// the task watches writability again only if the handler asks for it with
// taskWatchWritableIs(true).
//
// A handler that throws leaves the task marked as executing, so that its next
// run fails with "Executing task already set": a task whose handler broke
// off half-way is not run again as if nothing happened.
//
// Must be owned by a std::shared_ptr while it runs. Single-thread: every
// operation checks that it is called on the thread of the scheduler's root.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>

namespace Tamlo {

class FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
 public:
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name);
  // Takes the scheduler's owning pointer; throws std::bad_weak_ptr for a
  // scheduler that no shared pointer owns.
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);

  // Also names the subtasks' lines: name + ":read" and name + ":write".
  void taskStatsNameIs(std::string const& name) override;
  // Either direction queued.
  bool taskScheduled() const override;
  // These three act on the direction now running: call them only from inside
  // taskExecuteReadable() or taskExecuteWritable().
  bool taskShouldYield() const override;
  void taskWorkCountInc(uint64_t count) override;
  void taskWorkPendingIs(uint32_t pending) override;
  ~FileDescriptorTask() override;
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;
  // Readiness reported by the fd control. Called with a direction that is
  // not watched, or for another descriptor, they abort the process.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  // ---- The descriptor and what is watched ----

  // -1 when none.
  int taskWatchFd() const;
  // Another descriptor takes both directions off their run queues first;
  // the same one changes nothing. The descriptor is made non-blocking and is
  // never closed here. Closing a watched descriptor: call taskWatchFdDel()
  // first, or a new file that reuses the number is taken for the old one.
  void taskWatchFdIs(int fd);
  // Unschedules both directions and forgets the descriptor.
  void taskWatchFdDel();
  bool taskWatchReadable() const;
  // Turning it off also unschedules the read side.
  void taskWatchReadableIs(bool on);
  bool taskWatchWritable() const;
  // Creates the write side on first use. One-shot: turned off again before
  // every writable run. Turning it off unschedules the write side.
  void taskWatchWritableIs(bool on);
  // Queue a direction without waiting for readiness.
  void scheduleTaskReadable();
  void scheduleTaskWritable();

  // ---- Statistics of each direction (0 or false while the write side does
  // not exist; its setters then fail with "WriteTask not created by
  // taskWatchWritableIs( true )"). High-water marks are 0 before the first
  // sample. ----

  uint64_t taskWorkCountReadableTotal() const;
  uint64_t taskWorkCountWritableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  float taskWorkCountWritableDecayAvg() const;
  uint32_t taskWorkCountReadableHighWaterMark() const;
  uint32_t taskWorkCountWritableHighWaterMark() const;
  void taskWorkCountReadableInc(uint64_t count);
  void taskWorkCountWritableInc(uint64_t count);
  uint32_t taskWorkPendingReadable() const;
  uint32_t taskWorkPendingWritable() const;
  uint32_t taskWorkPendingReadableHighWaterMark() const;
  uint32_t taskWorkPendingWritableHighWaterMark() const;
  void taskWorkPendingReadableIs(uint32_t pending);
  void taskWorkPendingWritableIs(uint32_t pending);
  uint64_t taskRunCountReadable() const;
  uint64_t taskRunCountWritable() const;
  // Both directions.
  uint64_t taskRunCount() const;
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;

  // ---- Settings: read from the read side, applied to both ----

  TaskTimeDuration taskQuantum() const;
  void taskQuantumIs(TaskTimeDuration quantum);
  bool taskSuspended() const;
  void taskSuspendedIs(bool suspended);
  uint8_t taskTestYieldRatio() const;
  void taskTestYieldRatioIs(uint8_t ratio);
  bool taskForceYieldInTest() const;
  void taskForceYieldInTestIs(bool on);

 private:
  class ReadWriteTaskBase;
  class ReadTask;
  class WriteTask;

  void checkThread() const;
  void checkCreateWriteTask();
  WriteTask& writeTaskOrFail() const;

  bool watchReadable_ = false;
  bool watchWritable_ = false;
  std::shared_ptr<Platform::FdControl> fdControl_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  // The direction whose handler is running; stays set when a handler throws.
  TaskImpl* executingTask_ = nullptr;
};

}  // namespace Tamlo
