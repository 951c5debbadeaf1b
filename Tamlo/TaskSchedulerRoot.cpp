// The root of a thread's scheduler tree: the event-loop callback, the
// registered schedulers, the tree-wide switches and the owning-thread check;
// and the thread's own root.
#include <Tamlo/TaskScheduler.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>

std::atomic<uint32_t> auxThreadCount{0};

namespace Tamlo {

namespace {

using EventType = TaskSchedulerHistory::EventType;

Platform::DebugHandler const* trace() {
  return Impl::taskSchedulerDebugHandle();
}

unsigned long threadNumber(pthread_t thread) {
  return static_cast<unsigned long>(thread);
}

}  // namespace

TaskSchedulerRoot::TaskSchedulerRoot(std::string const& name)
    : TaskScheduler(name, this, makeShared<TaskSchedulerHistory>(historyEntryCountInitial)),
      callbackControl_(Platform::getCallbackControl(this)),
      // The one place the tree's timer wheel comes from. Its master timer is
      // served before the default-priority events of a loop pass, so timer
      // tasks become runnable before the turn that may pick them.
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh)),
      thread_(pthread_self()),
      pid_(getpid()),
      followFastForward_(isMainThread()) {
  if (pthread_getname_np(thread_, ownerThreadName_, sizeof ownerThreadName_) != 0)
    ownerThreadName_[0] = '\0';
  registerScheduler(this);
  if (followFastForward_) {
    bool const fastForward = Platform::fastForward();
    if (fastForward != virtualTime_)
      virtualTimeIs(fastForward);
  }
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  // While the root is whole: the reset task's leaving checks the thread.
  destroyResetStatsTask();
  callbackControl_->cancelCallback();
  unregisterScheduler(this);
  if (!registeredSchedulers_.empty())
    TAMLO_TRACE(trace(), 0, "{} destroyed with {} schedulers still registered", schedulerName(),
                registeredSchedulers_.size());
}

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(std::string const& name) {
  return makeShared<TaskSchedulerRoot>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTamloNonShared(std::string const& name) {
  return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTamlo() {
  thread_local std::shared_ptr<TaskSchedulerRoot> threadRoot;
  if (threadRoot == nullptr) [[unlikely]] {
    threadRoot = TaskSchedulerRoot::TaskSchedulerRootIs(
        isMainThread() ? std::string("main")
                       : fmt::format("thread:{}", threadNumber(pthread_self())));
  }
  return threadRoot;
}

// ---- Turns ----

void TaskSchedulerRoot::callback() {
  handleSchedulerRun();
}

void TaskSchedulerRoot::handleSchedulerRun() {
  bool const fastForward = followFastForward_ && Platform::fastForward();
  if (fastForward != virtualTime_) [[unlikely]]
    virtualTimeIs(fastForward);
  TaskScheduler::handleSchedulerRun();
}

void TaskSchedulerRoot::requestSchedulerRun() {
  if (suspended_) {
    TAMLO_TRACE(trace(), 7, "{} ignore requestSchedulerRun, scheduler is suspended",
                schedulerName());
    return;
  }
  callbackControl_->requestCallback();
}

TaskTimeDuration TaskSchedulerRoot::checkSchedulerLatency() {
  return recordRunStart(Impl::taskTimeNow());
}

TaskTimeDuration TaskSchedulerRoot::doUpdateSchedulerLatency() {
  TaskTimeDuration const latency = checkSchedulerLatency();
  lastRunRequestIs(Impl::taskTimeNow());
  return latency;
}

// ---- Registered schedulers ----

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  bool const inserted = registeredSchedulers_.insert(scheduler).second;
  TAMLO_ASSERT(inserted, "insert failed for {}", scheduler->schedulerName());
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  size_t const erased = registeredSchedulers_.erase(scheduler);
  TAMLO_ASSERT(erased == 1, "delete failed for {}", scheduler->schedulerName());
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
  for (TaskScheduler const* scheduler : registeredSchedulers_) {
    bool const inProgress = scheduler == this ? TaskScheduler::resetStatsInProgress()
                                              : scheduler->resetStatsInProgress();
    if (inProgress)
      return true;
  }
  return false;
}

uint32_t TaskSchedulerRoot::totalRegisteredTaskCount() const {
  uint32_t count = 0;
  for (TaskScheduler const* scheduler : registeredSchedulers_)
    count += scheduler->registeredTaskCount();
  return count;
}

uint32_t TaskSchedulerRoot::taskGroupCount() const {
  return static_cast<uint32_t>(registeredSchedulers_.size() -
                               registeredSchedulers_.count(const_cast<TaskSchedulerRoot*>(this)));
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats total;
  for (TaskScheduler const* scheduler : registeredSchedulers_)
    total += scheduler->queueStats();
  return total;
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (TaskScheduler* scheduler : registeredSchedulers_) {
    for (TaskImpl& task : scheduler->registeredTasks())
      task.taskShouldYieldModeReevaluate();
  }
}

// ---- Switches ----

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  if (suspended == suspended_)
    return;
  suspended_ = suspended;
  TaskTimePoint const now = Impl::taskTimeNow();
  if (suspended) {
    TAMLO_TRACE(trace(), 3, "{} suspended", schedulerName());
    history()->insertSchedulerEvent(now, EventType::schedulerSuspended, schedulerNameRef());
  } else {
    TAMLO_TRACE(trace(), 3, "{} unsuspended", schedulerName());
    history()->insertSchedulerEvent(now, EventType::schedulerUnsuspended, schedulerNameRef());
    requestSchedulerRunAndRecord(now);
  }
}

void TaskSchedulerRoot::virtualTimeIs(bool virtualTime) {
  virtualTime_ = virtualTime;
  history()->insertSchedulerEvent(
      Impl::taskTimeNow(),
      virtualTime ? EventType::schedulerVirtualTimeOn : EventType::schedulerVirtualTimeOff,
      schedulerNameRef());
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_)
    return;
  TAMLO_TRACE(trace(), 1, "{} thread sanity check {}", schedulerName(),
              disabled ? "disabled" : "enabled");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::taskTestYieldRatioIs(uint8_t ratio) {
  if (ratio == taskTestYieldRatio_)
    return;
  taskTestYieldRatio_ = ratio;
  history()->insertSchedulerEvent(
      Impl::taskTimeNow(),
      ratio != 0 ? EventType::schedulerTestYieldRatioOn : EventType::schedulerTestYieldRatioOff,
      schedulerNameRef());
  taskShouldYieldModeReevaluate();
}

uint32_t TaskSchedulerRoot::randomPercent() {
  return static_cast<uint32_t>(rand_r(&randomSeed_)) / 21474836u;
}

// ---- The owning thread ----

std::string TaskSchedulerRoot::currentThreadName() {
  char name[16] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof name) != 0)
    return std::string();
  return std::string(name);
}

}  // namespace Tamlo
