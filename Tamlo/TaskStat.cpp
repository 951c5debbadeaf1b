#include <Tamlo/TaskStat.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace Tamlo {

namespace {

// A mark with no value counts as 0, so an empty mark never replaces a set one.
void keepHigherMark(TaskMaybeU32& mark, TaskMaybeU32 other) {
  if (other.hasValue() && other.value() > mark.valueOr(0)) {
    mark = other;
  }
}

}  // namespace

TaskStat::TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
                   uint64_t taskRunCount, TaskTimeDuration taskTotalRunTime,
                   uint64_t taskWorkCountTotal, float taskWorkCountDecayingAvg,
                   TaskMaybeU32 taskWorkCountHighWaterMark, uint32_t taskWorkPending,
                   TaskMaybeU32 taskWorkPendingHighWaterMark, uint32_t taskQuantumViolation500,
                   uint32_t taskQuantumViolation200, TaskTimeDuration taskRunTimeHighWaterMark,
                   TaskTimeDuration taskLastSchedulingLatency,
                   TaskTimeDuration taskSchedulingLatencyHighWaterMark, TaskStatus taskStatus)
    : taskName_(std::move(taskName)),
      taskKey_(taskKey),
      taskPriority_(taskPriority),
      taskStatus_(taskStatus),
      taskRunCount_(taskRunCount),
      taskTotalRunTime_(taskTotalRunTime),
      taskWorkCountTotal_(taskWorkCountTotal),
      taskWorkCountDecayingAvg_(taskWorkCountDecayingAvg),
      taskWorkCountHighWaterMark_(taskWorkCountHighWaterMark),
      taskWorkPending_(taskWorkPending),
      taskWorkPendingHighWaterMark_(taskWorkPendingHighWaterMark),
      taskQuantumViolation500_(taskQuantumViolation500),
      taskQuantumViolation200_(taskQuantumViolation200),
      taskRunTimeHighWaterMark_(taskRunTimeHighWaterMark),
      taskLastSchedulingLatency_(taskLastSchedulingLatency),
      taskSchedulingLatencyHighWaterMark_(taskSchedulingLatencyHighWaterMark) {}

std::string TaskStat::taskStatusString() const {
  char state = ' ';
  if (taskStatus_.taskCurrentlyRunning()) {
    state = '*';
  } else if (taskStatus_.taskSuspended()) {
    state = 'S';
  } else if (taskStatus_.taskTimer()) {
    state = taskStatus_.taskTimerRunning() ? 'T' : 't';
  }
  char priority = taskPriority_.oneChar();
  if (!taskStatus_.taskOnRunQueue()) {
    priority = static_cast<char>(std::tolower(static_cast<unsigned char>(priority)));
  }
  return std::string{state, priority};
}

TaskStat& TaskStat::operator+=(TaskStat const& other) {
  TAMLO_ASSERT(taskName_ == other.taskName_, "{} != {}", taskName(), other.taskName());

  taskRunCount_ += other.taskRunCount_;
  taskTotalRunTime_ += other.taskTotalRunTime_;
  taskWorkCountTotal_ += other.taskWorkCountTotal_;
  taskQuantumViolation500_ += other.taskQuantumViolation500_;
  taskQuantumViolation200_ += other.taskQuantumViolation200_;

  taskWorkCountDecayingAvg_ = other.taskWorkCountDecayingAvg_;
  taskWorkPending_ = other.taskWorkPending_;
  taskLastSchedulingLatency_ = other.taskLastSchedulingLatency_;
  taskStatus_ = other.taskStatus_;

  keepHigherMark(taskWorkCountHighWaterMark_, other.taskWorkCountHighWaterMark_);
  keepHigherMark(taskWorkPendingHighWaterMark_, other.taskWorkPendingHighWaterMark_);

  taskRunTimeHighWaterMark_ = std::max(taskRunTimeHighWaterMark_, other.taskRunTimeHighWaterMark_);
  taskSchedulingLatencyHighWaterMark_ =
      std::max(taskSchedulingLatencyHighWaterMark_, other.taskSchedulingLatencyHighWaterMark_);

  // Each fold is one more completed task, whatever `other` had counted.
  ++taskCompletedCount_;
  return *this;
}

}  // namespace Tamlo
