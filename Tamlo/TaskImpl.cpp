// Tasks: names, registration, scheduling, the measured run with its quantum
// check, the yield modes, suspension and work counts.
#include <Tamlo/Task.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <ostream>
#include <utility>

#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Platform.h>

namespace Tamlo {

namespace {

using EventType = TaskSchedulerHistory::EventType;

// Taken once at load, so that a trace call on the run path costs one load and
// one bit test.
Platform::DebugHandler const* const traceHandle = Impl::taskSchedulerDebugHandle();

Platform::DebugHandler const* trace() {
  return traceHandle;
}

uint32_t saturatedU32(uint64_t value) {
  return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

}  // namespace

// ---- _TaskBase ----

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
                     std::string const& name)
    : taskScheduler_(std::move(scheduler)), taskPriority_(priority) {
  TAMLO_ASSERT(taskScheduler_ != nullptr, "Need a TaskScheduler");
  ConstStringCache& cache = taskScheduler_->history()->stringCache();
  taskName_ = cache.intern(name);
  taskStatsName_ = taskName_;
  // A bad priority is reported by the registration, with its number.
  char const priorityChar =
      priority.value() <= TaskPriority::oneBeyondLast ? priority.oneChar() : '?';
  std::string displayName;
  displayName.reserve(name.size() + 2);
  displayName += priorityChar;
  displayName += ' ';
  displayName += name;
  taskDisplayName_ = cache.intern(displayName);
}

_TaskBase::~_TaskBase() = default;

void _TaskBase::taskStatsNameIs(std::string const& name) {
  if (name == taskStatsName_.text())
    return;
  taskStatsName_ = taskScheduler_->history()->stringCache().intern(name);
}

void _TaskBase::taskBusyChange(bool busy, TaskTimePoint now) {
  taskBusy_ = busy;
  taskHistoryInsert(now, busy ? EventType::busy : EventType::idle);
  handleTaskBusy();
}

// ---- TaskImpl: life ----

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
                   std::string const& name)
    : _TaskBase(std::move(scheduler), priority, name),
      taskQuantum_(taskScheduler_->defaultTaskQuantum()) {
  includeInCompletedTaskIs(true);
  taskShouldYieldModeReevaluate();
  try {
    handleInitialized();
  } catch (...) {
    // No destructor will run: the scheduler must not keep this task.
    taskTestYieldRatioEffectiveIs(0);
    throw;
  }
}

void TaskImpl::handleInitialized() {
  TAMLO_ASSERT(taskScheduler_ != nullptr, "Need a TaskScheduler");
  taskScheduler_->taskRegister(this);
}

TaskImpl::~TaskImpl() {
  taskForceYieldInTestIs(false);
  // The root's ratio may still be in force; the scheduler must forget us.
  taskTestYieldRatioEffectiveIs(0);
  // Also after an earlier handleDestroy(): a task scheduled since then leaves
  // its queue counted, and unregistering it twice is reported.
  handleDestroy();
}

void TaskImpl::handleDestroy() {
  unscheduleTask();
  taskScheduler_->taskUnregister(this);
  taskMagicNumber_ = taskMagicNumberDestroyed;
}

// ---- TaskImpl: scheduling ----

bool TaskImpl::taskScheduled() const {
  taskScheduler_->root()->sanityCheckCurrentRunningThread();
  return taskRunQueueLink_.isLinked();
}

void TaskImpl::scheduleTask() {
  TaskScheduler& scheduler = *taskScheduler_;
  scheduler.root()->sanityCheckCurrentRunningThread();
  if (taskRunQueueLink_.isLinked())
    return;
  TaskTimePoint const now = Impl::taskTimeNow();
  if (taskSuspended()) {
    taskHistoryInsert(now, EventType::scheduleSus);
    return;
  }
  TAMLO_TRACE(trace(), 8, "Scheduled {}", taskDisplayName());
  taskHistoryInsert(now, EventType::schedule);
  taskTimeScheduled_ = now;
  scheduler.taskRunQueue(taskPriority_).append(*this);
  if (!scheduler.schedulerHasRunnableTasks())
    scheduler.schedulerHasRunnableTasksIs(true, now);
  // Queued now, so busy whatever else a specialised task counts as busy.
  taskBusyIs(true, now);
}

void TaskImpl::unscheduleTask() {
  taskScheduler_->root()->sanityCheckCurrentRunningThread();
  unscheduleTaskPrivate(Impl::taskTimeNow());
}

void TaskImpl::unscheduleTaskPrivate(TaskTimePoint now) {
  if (taskRunQueueLink_.isLinked()) {
    TAMLO_TRACE(trace(), 8, "Unscheduled {}", taskDisplayName());
    taskHistoryInsert(now, EventType::unschedule);
    taskScheduler_->unscheduleTask(now, this);
  }
  taskBusyIs(taskScheduled(), now);
}

// ---- TaskImpl: the run ----

void TaskImpl::taskDoRun(TaskTimePoint now, TaskTimePoint& end) {
  TaskScheduler& scheduler = *taskScheduler_;
  taskHistoryInsert(now, EventType::runStart);
  TAMLO_ASSERT(!taskRunQueueLink_.isLinked(), "Task: {} on a run queue when its run starts",
               taskDisplayName());
  TAMLO_TRACE(trace(), 8, "Running {}", taskDisplayName());
  taskRunStart_ = now;
  if (taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime)
    scheduler.runStartTimeIs(Tamlo::time());
  ++taskRunCount_;
  taskCurrentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    taskCurrentlyRunning_ = false;
    throw;
  }
  taskCurrentlyRunning_ = false;
  // Destroyed by its own run: the object is a shell from here on.
  TAMLO_ASSERT(taskMagicNumber_ == taskMagicNumberConstructed,
               "Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}", taskName(),
               taskMagicNumber_, taskMagicNumberConstructed);

  end = Impl::taskTimeNow();
  // The mode in force now counts: a run that switched to virtual time has
  // been re-stamped at the switch.
  TaskTimeDuration const used = taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime
                                    ? time2Duration(Tamlo::time() - scheduler.runStartTime())
                                    : end - taskRunStart_;
  taskRunAccount(used);
  taskHistoryInsert(end, EventType::runEnd);
  taskBusyIs(taskScheduled(), end);
}

void TaskImpl::taskRunAccount(TaskTimeDuration used) {
  TaskTimeDuration const quantum = taskQuantum_;
  if (quantum.count() == 0 || used < 2 * quantum) {
    TAMLO_TRACE(trace(), 7, "Ran {} used {}", taskDisplayName(), durationToString(used));
  } else {
    TAMLO_TRACE(trace(), 5, "Ran {} used {} {}% violation", taskDisplayName(),
                durationToString(used),
                static_cast<int64_t>(static_cast<double>(used.count()) / 1e9 /
                                     (static_cast<double>(quantum.count()) / 1e9) * 100));
    if (used < 5 * quantum)
      ++taskQuantumViolation200_;
    else
      ++taskQuantumViolation500_;
  }
  taskRunTimeHighWaterMark_ = std::max(taskRunTimeHighWaterMark_, used);
  taskTotalRunTime_ += used;
}

void TaskImpl::taskRunFromTest() {
  TaskTimePoint const now = Impl::taskTimeNow();
  if (taskRunQueueLink_.isLinked())
    taskScheduler_->taskSchedulerUnlinkTask(now, *this);
  TaskTimePoint end;
  taskDoRun(now, end);
}

void TaskImpl::taskRunAndRecordFromTest() {
  TaskScheduler& scheduler = *taskScheduler_;
  TaskTimePoint const now = Impl::taskTimeNow();
  scheduler.recordRunStart(now);
  if (taskRunQueueLink_.isLinked())
    scheduler.taskSchedulerUnlinkTask(now, *this);
  TaskTimePoint end;
  taskDoRun(scheduler.runStart(), end);
  scheduler.requestSchedulerRun();
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
  TAMLO_ASSERT(taskCurrentlyRunning_, "Task: {} not currently running", taskName());
  if (taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime)
    return time2Duration(Tamlo::time() - taskScheduler_->runStartTime());
  return Impl::taskTimeNow() - taskRunStart_;
}

// ---- TaskImpl: yielding ----

bool TaskImpl::taskShouldYield() const {
  TAMLO_ASSERT(taskCurrentlyRunning_ || taskRunCount_ == 0,
               "taskCurrentlyRunning: {} taskRunCount: {}", taskCurrentlyRunning_, taskRunCount_);
  switch (taskShouldYieldMode_) {
    case TaskShouldYieldMode::realTime: {
      TaskTimePoint const now = Impl::taskTimeNow();
      return !(now >= taskRunStart_ && now - taskRunStart_ < taskQuantum_);
    }
    case TaskShouldYieldMode::virtualTime:
      return Tamlo::time() - taskScheduler_->runStartTime() >=
             static_cast<double>(taskQuantum_.count()) / 1e9;
    case TaskShouldYieldMode::testYieldRatio:
      ++taskTestYieldCounter_;
      // A mode forced without a ratio yields every time, as a ratio of 1.
      return taskTestYieldRatioEffective_ == 0 ||
             taskTestYieldCounter_ % taskTestYieldRatioEffective_ == 0;
  }
  TAMLO_ASSERT_FAIL("Unexpected value {}", static_cast<unsigned>(taskShouldYieldMode_));
}

void TaskImpl::taskShouldYieldModeIs(TaskShouldYieldMode mode) {
  if (mode == taskShouldYieldMode_)
    return;
  taskShouldYieldMode_ = mode;
  // A run that switches to virtual time is measured from the switch on.
  if (mode == TaskShouldYieldMode::virtualTime && taskCurrentlyRunning_)
    taskScheduler_->runStartTimeIs(Tamlo::time());
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  TaskSchedulerRoot const& root = *taskScheduler_->root();
  uint8_t const ratio = taskTestYieldRatio_ != 0 ? taskTestYieldRatio_ : root.taskTestYieldRatio();
  taskTestYieldRatioEffectiveIs(ratio);
  if (ratio != 0)
    taskShouldYieldModeIs(TaskShouldYieldMode::testYieldRatio);
  else if (root.virtualTime())
    taskShouldYieldModeIs(TaskShouldYieldMode::virtualTime);
  else
    taskShouldYieldModeIs(TaskShouldYieldMode::realTime);
}

void TaskImpl::taskTestYieldRatioEffectiveIs(uint8_t ratio) {
  if (ratio == taskTestYieldRatioEffective_)
    return;
  taskTestYieldCounter_ = 0;
  bool const wasOn = taskTestYieldRatioEffective_ != 0;
  taskTestYieldRatioEffective_ = ratio;
  if (wasOn != (ratio != 0))
    taskScheduler_->taskForceYieldInTestNotify(this, ratio != 0);
}

void TaskImpl::taskTestYieldRatioIs(uint8_t ratio) {
  if (ratio == taskTestYieldRatio_)
    return;
  taskTestYieldRatio_ = ratio;
  taskHistoryInsert(Impl::taskTimeNow(),
                    ratio != 0 ? EventType::frcYieldOn : EventType::frcYieldOff);
  taskShouldYieldModeReevaluate();
}

// ---- TaskImpl: settings ----

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
  TAMLO_ASSERT(quantum <= taskQuantumMax, "Quantum: {}", durationToString(quantum));
  taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
  if (quantum == taskQuantum_)
    return;
  TAMLO_ASSERT(quantum.count() >= 1, "Quantum: {}", durationToString(quantum));
  taskQuantum_ = quantum;
  if (quantum == taskScheduler_->defaultTaskQuantum())
    TAMLO_TRACE(trace(), 9, "Set quantum {} to {}", taskDisplayName(), durationToString(quantum));
  else
    TAMLO_TRACE(trace(), 4, "Set quantum {} to {}", taskDisplayName(), durationToString(quantum));
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  if (suspended == taskSuspended())
    return;
  taskFlags_ = suspended ? uint8_t(taskFlags_ | taskFlagSuspended)
                         : uint8_t(taskFlags_ & ~taskFlagSuspended);
  TaskTimePoint const now = Impl::taskTimeNow();
  if (suspended) {
    TAMLO_TRACE(trace(), 4, "Suspend {}", taskDisplayName());
    taskHistoryInsert(now, EventType::suspendOn);
    unscheduleTask();
  } else {
    TAMLO_TRACE(trace(), 4, "Unsuspend {}", taskDisplayName());
    taskHistoryInsert(now, EventType::suspendOff);
    if (!taskRunQueueLink_.isLinked())
      scheduleTask();
  }
}

void TaskImpl::includeInCompletedTaskIs(bool include) {
  taskFlags_ = include ? uint8_t(taskFlags_ | taskFlagIncludeInCompleted)
                       : uint8_t(taskFlags_ & ~taskFlagIncludeInCompleted);
}

// ---- TaskImpl: statistics ----

void TaskImpl::taskWorkCountInc(uint64_t count) {
  taskWorkCountTotal_ += count;
  if (!taskWorkCountHighWaterMark_.hasValue()) {
    taskWorkCountDecayingAvg_ = static_cast<float>(count);
    taskWorkCountHighWaterMark_.valueIs(saturatedU32(count));
    return;
  }
  taskWorkCountDecayingAvg_ =
      (9.0f * taskWorkCountDecayingAvg_ + static_cast<float>(count)) / 10.0f;
  if (count > taskWorkCountHighWaterMark_.value())
    taskWorkCountHighWaterMark_.valueIs(saturatedU32(count));
}

void TaskImpl::taskWorkPendingIs(uint32_t pending) {
  taskWorkPending_ = pending;
  if (!taskWorkPendingHighWaterMark_.hasValue() || pending > taskWorkPendingHighWaterMark_.value())
    taskWorkPendingHighWaterMark_.valueIs(pending);
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
  status.taskSuspendedIs(taskSuspended());
  status.taskIsTaskGroupIs(isTaskGroup() != nullptr);
  return status;
}

TaskStat TaskImpl::getStats() const {
  return TaskStat(taskName_, TaskKey(this), taskPriority_, taskRunCount_, taskTotalRunTime_,
                  taskWorkCountTotal_, taskWorkCountDecayingAvg_, taskWorkCountHighWaterMark_,
                  taskWorkPending_, taskWorkPendingHighWaterMark_, taskQuantumViolation500_,
                  taskQuantumViolation200_, taskRunTimeHighWaterMark_, taskLastSchedulingLatency_,
                  taskSchedulingLatencyHighWaterMark_, taskStatus());
}

void TaskImpl::resetStats() {
  taskRunCount_ = 0;
  taskTotalRunTime_ = TaskTimeDuration::zero();
  taskRunTimeHighWaterMark_ = TaskTimeDuration::zero();
  taskLastSchedulingLatency_ = TaskTimeDuration::zero();
  taskSchedulingLatencyHighWaterMark_ = TaskTimeDuration::zero();
  taskWorkCountTotal_ = 0;
  taskWorkCountDecayingAvg_ = 0;
  taskWorkPending_ = 0;
  taskQuantumViolation500_ = 0;
  taskQuantumViolation200_ = 0;
  taskWorkCountHighWaterMark_.clear();
  taskWorkPendingHighWaterMark_.clear();
  handleResetStats();
}

std::ostream& operator<<(std::ostream& os, TaskImpl const& task) {
  return os << task.taskDisplayName();
}

// ---- Task ----

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, std::string const& name)
    : TaskImpl(scheduler != nullptr ? scheduler->shared_from_this() : nullptr, priority, name) {}

bool Task::taskScheduled() const {
  return TaskImpl::taskScheduled();
}

void Task::scheduleTask() {
  TaskImpl::scheduleTask();
}

void Task::taskRunFromTest() {
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus Task::taskStatus() const {
  return TaskImpl::taskStatus();
}

}  // namespace Tamlo
