// The statistics record of one task, or the sum of the records of all
// completed tasks sharing a stats name. Records are snapshots: a task builds
// one on request and the reports sort and print them without touching the
// task again. A record holds a reference into its scheduler's name cache, so
// it belongs to that scheduler's thread like the cache does.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <Tamlo/Assert.h>
#include <Tamlo/ConstStringCache.h>
#include <Tamlo/TaskKey.h>
#include <Tamlo/TaskMaybeU32.h>
#include <Tamlo/TaskPriority.h>
#include <Tamlo/TaskTime.h>

namespace Tamlo {

class TaskStat {
 public:
  // The state bits of a task at the time of the snapshot.
  class TaskStatus {
   public:
    enum Bit : uint8_t {
      taskTimerBit = 0,
      taskTimerRunningBit = 1,
      taskOnRunQueueBit = 2,
      taskCurrentlyRunningBit = 3,
      taskSuspendedBit = 4,
      taskIsTaskGroupBit = 5,
    };

    constexpr TaskStatus() = default;
    constexpr explicit TaskStatus(uint8_t bits) : bits_(bits) {}

    constexpr uint8_t bits() const { return bits_; }

    bool bitmaskHasBitSet(Bit bit) const { return (bits_ & mask(bit)) != 0; }
    void bitmaskSetBit(Bit bit, bool value) {
      uint8_t const m = mask(bit);
      bits_ = value ? uint8_t(bits_ | m) : uint8_t(bits_ & ~m);
    }

    // taskTimer marks a timer task, whether or not its timer is running.
    bool taskTimer() const { return bitmaskHasBitSet(taskTimerBit); }
    void taskTimerIs(bool value) { bitmaskSetBit(taskTimerBit, value); }
    bool taskTimerRunning() const { return bitmaskHasBitSet(taskTimerRunningBit); }
    void taskTimerRunningIs(bool value) { bitmaskSetBit(taskTimerRunningBit, value); }
    bool taskOnRunQueue() const { return bitmaskHasBitSet(taskOnRunQueueBit); }
    void taskOnRunQueueIs(bool value) { bitmaskSetBit(taskOnRunQueueBit, value); }
    bool taskCurrentlyRunning() const { return bitmaskHasBitSet(taskCurrentlyRunningBit); }
    void taskCurrentlyRunningIs(bool value) { bitmaskSetBit(taskCurrentlyRunningBit, value); }
    bool taskSuspended() const { return bitmaskHasBitSet(taskSuspendedBit); }
    void taskSuspendedIs(bool value) { bitmaskSetBit(taskSuspendedBit, value); }
    bool taskIsTaskGroup() const { return bitmaskHasBitSet(taskIsTaskGroupBit); }
    void taskIsTaskGroupIs(bool value) { bitmaskSetBit(taskIsTaskGroupBit, value); }

    constexpr bool operator==(TaskStatus const&) const = default;

   private:
    static uint8_t mask(Bit bit) {
      TAMLO_ASSERT(bit < 8, "status bit {} out of range", unsigned{bit});
      return uint8_t(1u << bit);
    }

    uint8_t bits_ = 0;
  };

  // Every field zero, the name null.
  TaskStat() = default;
  TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
           uint64_t taskRunCount, TaskTimeDuration taskTotalRunTime, uint64_t taskWorkCountTotal,
           float taskWorkCountDecayingAvg, TaskMaybeU32 taskWorkCountHighWaterMark,
           uint32_t taskWorkPending, TaskMaybeU32 taskWorkPendingHighWaterMark,
           uint32_t taskQuantumViolation500, uint32_t taskQuantumViolation200,
           TaskTimeDuration taskRunTimeHighWaterMark, TaskTimeDuration taskLastSchedulingLatency,
           TaskTimeDuration taskSchedulingLatencyHighWaterMark, TaskStatus taskStatus);

  // Empty for a null name.
  std::string const& taskName() const { return taskName_.text(); }
  ConstStringRef const& taskNameRef() const { return taskName_; }
  void taskNameIs(ConstStringRef taskName) { taskName_ = std::move(taskName); }
  TaskKey taskKey() const { return taskKey_; }
  TaskPriority taskPriority() const { return taskPriority_; }
  TaskStatus taskStatus() const { return taskStatus_; }
  void taskStatusIs(TaskStatus taskStatus) { taskStatus_ = taskStatus; }

  uint64_t taskRunCount() const { return taskRunCount_; }
  void taskRunInc(uint64_t n = 1) { taskRunCount_ += n; }
  TaskTimeDuration taskTotalRunTime() const { return taskTotalRunTime_; }
  void taskTotalRunTimeInc(TaskTimeDuration d) { taskTotalRunTime_ += d; }

  uint64_t taskWorkCountTotal() const { return taskWorkCountTotal_; }
  void taskWorkCountTotalInc(uint64_t n = 1) { taskWorkCountTotal_ += n; }
  float taskWorkCountDecayingAvg() const { return taskWorkCountDecayingAvg_; }
  TaskMaybeU32 taskWorkCountHighWaterMark() const { return taskWorkCountHighWaterMark_; }
  uint32_t taskWorkPending() const { return taskWorkPending_; }
  TaskMaybeU32 taskWorkPendingHighWaterMark() const { return taskWorkPendingHighWaterMark_; }

  uint32_t taskQuantumViolation500() const { return taskQuantumViolation500_; }
  void taskQuantumViolation500Inc(uint32_t n = 1) { taskQuantumViolation500_ += n; }
  uint32_t taskQuantumViolation200() const { return taskQuantumViolation200_; }
  void taskQuantumViolation200Inc(uint32_t n = 1) { taskQuantumViolation200_ += n; }

  TaskTimeDuration taskRunTimeHighWaterMark() const { return taskRunTimeHighWaterMark_; }
  void taskRunTimeHighWaterMarkIs(TaskTimeDuration d) { taskRunTimeHighWaterMark_ = d; }
  TaskTimeDuration taskLastSchedulingLatency() const { return taskLastSchedulingLatency_; }
  void taskLastSchedulingLatencyIs(TaskTimeDuration d) { taskLastSchedulingLatency_ = d; }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const {
    return taskSchedulingLatencyHighWaterMark_;
  }
  void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration d) {
    taskSchedulingLatencyHighWaterMark_ = d;
  }

  uint64_t taskCompletedCount() const { return taskCompletedCount_; }
  void taskCompletedCountInc(uint64_t n = 1) { taskCompletedCount_ += n; }
  void taskCompletedCountIs(uint64_t n) { taskCompletedCount_ = n; }

  // Two characters for the "SP" column. The first: "*" running, else "S"
  // suspended, else for a timer task "T" (timer running) or "t", else a
  // blank. The second: the priority's character, lower case when the task is
  // not on a run queue.
  std::string taskStatusString() const;

  // Folds `other`, a later record under the same name, into this one: counts
  // add up, current values follow `other`, high-water marks keep the larger,
  // and the completed count goes up by one. Different names are an assertion
  // failure ("<this name> != <other name>").
  TaskStat& operator+=(TaskStat const& other);

 private:
  ConstStringRef taskName_;
  TaskKey taskKey_;
  TaskPriority taskPriority_ = TaskPriority::absolute;
  TaskStatus taskStatus_;
  uint64_t taskRunCount_ = 0;
  TaskTimeDuration taskTotalRunTime_{0};
  uint64_t taskWorkCountTotal_ = 0;
  float taskWorkCountDecayingAvg_ = 0;
  TaskMaybeU32 taskWorkCountHighWaterMark_{0};
  uint32_t taskWorkPending_ = 0;
  TaskMaybeU32 taskWorkPendingHighWaterMark_{0};
  uint32_t taskQuantumViolation500_ = 0;
  uint32_t taskQuantumViolation200_ = 0;
  TaskTimeDuration taskRunTimeHighWaterMark_{0};
  TaskTimeDuration taskLastSchedulingLatency_{0};
  TaskTimeDuration taskSchedulingLatencyHighWaterMark_{0};
  uint64_t taskCompletedCount_ = 0;
};

}  // namespace Tamlo
