// Timer tasks: delays, jitter and lowest delays on the root's timer wheel.
#include <Tamlo/TimerTask.h>

#include <cmath>
#include <limits>
#include <type_traits>

#include <fmt/chrono.h>

#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Platform.h>

namespace Tamlo {

namespace {

using EventType = TaskSchedulerHistory::EventType;
using std::chrono::nanoseconds;

constexpr double infinity = std::numeric_limits<double>::infinity();

Platform::DebugHandler const* const traceHandle = Impl::taskSchedulerDebugHandle();

Platform::DebugHandler const* trace() {
  return traceHandle;
}

bool isNever(nanoseconds delay) {
  return delay == nanoseconds::max();
}
bool isNever(double seconds) {
  return seconds == infinity;
}

double toSeconds(nanoseconds delay) {
  return static_cast<double>(delay.count()) / 1e9;
}
double toSeconds(double seconds) {
  return seconds;
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name)
    : TaskImpl(scheduler != nullptr ? scheduler->shared_from_this() : nullptr, priority, name) {}

TimerTask::~TimerTask() {
  stopTimerTask();
}

// ---- TaskImpl overrides ----

bool TimerTask::taskScheduled() const noexcept {
  return TaskImpl::taskScheduled() || timerRunning_;
}

void TimerTask::scheduleTask() {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (timerRunning_)
    doStopTimer();
  TaskImpl::scheduleTask();
}

void TimerTask::taskRunFromTest() {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (timerRunning_)
    doStopTimer();
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning_);
  return status;
}

void TimerTask::timeout() {
  timerRunning_ = false;
  TaskImpl::scheduleTask();
}

// ---- Schedule forms ----

void TimerTask::scheduleTaskDelay(nanoseconds delay) {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (isNever(delay))
    stopTimerTask();
  else
    scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskDelay(double seconds) {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (isNever(seconds))
    stopTimerTask();
  else
    scheduleTaskDelayedPrivate(seconds, true);
}

void TimerTask::scheduleTaskJitterUp(nanoseconds delay, uint8_t maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterUp(double seconds, uint8_t maxJitterPercentage) {
  _scheduleTaskJitterUp(seconds, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(nanoseconds delay, uint8_t maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(double seconds, uint8_t maxJitterPercentage) {
  _scheduleTaskJitterDown(seconds, maxJitterPercentage);
}

void TimerTask::scheduleTaskLowestDelay(nanoseconds delay) {
  _scheduleTaskLowestDelay(delay);
}

void TimerTask::scheduleTaskLowestDelay(double seconds) {
  _scheduleTaskLowestDelay(seconds);
}

// The offset is drawn in hundredths of the largest one, p = 0..100, so that
// it depends on the draw alone and not on the unit of the delay.
template <>
nanoseconds TimerTask::jitterOffset(nanoseconds delay, uint8_t maxJitterPercentage) {
  // The percentage is shown as the byte itself, as it always has been.
  TAMLO_TASK_FATAL_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: {} > 100",
                          static_cast<char>(maxJitterPercentage));
  int64_t const p = taskScheduler()->root()->randomPercent();
  // (p * (max * delay)) / 10000, truncated toward zero, without the overflow
  // of the product for delays beyond about ten days: p * max <= 10000, so
  // splitting delay at 10000 gives the same quotient.
  int64_t const scale = p * maxJitterPercentage;
  int64_t const count = delay.count();
  nanoseconds const offset{count / 10000 * scale + count % 10000 * scale / 10000};
  TAMLO_TASK_FATAL_ASSERT(offset <= delay, "offset( {} ) > delayIntoFuture( {} )", offset, delay);
  return offset;
}

template <>
double TimerTask::jitterOffset(double delay, uint8_t maxJitterPercentage) {
  TAMLO_TASK_FATAL_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: {} > 100",
                          static_cast<char>(maxJitterPercentage));
  double const p = taskScheduler()->root()->randomPercent();
  double const offset = p * (maxJitterPercentage * delay) / 10000.0;
  TAMLO_TASK_FATAL_ASSERT(delay >= offset, "offset( {} ) > delayIntoFuture( {} )", offset, delay);
  return offset;
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, uint8_t maxJitterPercentage) {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) {
    stopTimerTask();
    return;
  }
  Delay const offset = jitterOffset(delay, maxJitterPercentage);
  TAMLO_TRACE(trace(), 9, "Timer jitterUp {} delay {} + {} = {}", taskDisplayName(), delay, offset,
              delay + offset);
  scheduleTaskDelayedPrivate(delay + offset, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, uint8_t maxJitterPercentage) {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) {
    stopTimerTask();
    return;
  }
  Delay const offset = jitterOffset(delay, maxJitterPercentage);
  TAMLO_TRACE(trace(), 9, "Timer jitterDown {} delay {} - {} = {}", taskDisplayName(), delay,
              offset, delay - offset);
  scheduleTaskDelayedPrivate(delay - offset, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delay) {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  TAMLO_TASK_FATAL_ASSERT(!isNever(delay), "delayIntoFuture: {}", delay);
  scheduleTaskDelayedPrivate(delay, false);
}

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool restart) {
  if (delay == Delay{}) {
    scheduleTask();
    return;
  }
  // The wheel cannot place a NaN expiry on a tick.
  double const seconds = toSeconds(delay);
  TAMLO_TASK_FATAL_ASSERT(!std::isnan(seconds), "delayIntoFuture: {}", delay);
  TaskTimePoint const now = Impl::taskTimeNow();
  if (!restart && TaskImpl::taskScheduled()) {
    TAMLO_TRACE(trace(), 8, "Already on runQueue {}", taskDisplayName());
    return;
  }
  if (restart)
    TaskImpl::unscheduleTaskPrivate(now);
  if (doStartTimer(seconds, restart)) {
    timerRunning_ = true;
    TAMLO_TRACE(trace(), 8, "Timer started {} delay {}", taskDisplayName(), seconds);
    taskHistoryInsert(now, EventType::timerStart);
    taskBusyIs(taskScheduled(), now);
    return;
  }
  TAMLO_TRACE(trace(), 8, "Timer already running {} expire {}", taskDisplayName(),
              expirationTime());
  TAMLO_TASK_FATAL_ASSERT(timerRunning_, "Task: {}", taskDisplayName());
}

bool TimerTask::doStartTimer(double seconds, bool restart) {
  // Ties keep the running expiry; an idle timer has infinite time left.
  if (!restart && seconds >= timerRemaining())
    return false;
  setTimeout(taskScheduler()->root()->timerWheel(), seconds);
  return true;
}

void TimerTask::doStopTimer() noexcept {
  timerRunning_ = false;
  delTimeout(taskScheduler()->root()->timerWheel());
}

// ---- Stop and queries ----

void TimerTask::stopTimerTask() {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  TaskTimePoint const now = Impl::taskTimeNow();
  if (timerRunning_) {
    TAMLO_TRACE(trace(), 9, "Timer stopped {}, was running", taskDisplayName());
    taskHistoryInsert(now, EventType::timerStop);
    doStopTimer();
  } else {
    TAMLO_TRACE(trace(), 9, "Timer stopped {}, was not running", taskDisplayName());
  }
  TaskImpl::unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

double TimerTask::timerRemaining() const {
  taskScheduler()->root()->sanityCheckCurrentRunningThread();
  return remainingTimeout();
}

double TimerTask::currentExpirationTime() const {
  if (TaskImpl::taskScheduled())
    return Tamlo::time();
  if (!timerRunning_)
    return infinity;
  return expirationTime();
}

}  // namespace Tamlo
