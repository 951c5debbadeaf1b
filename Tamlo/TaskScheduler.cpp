// The scheduler: run queues, the one-task-per-turn run loop with its
// lower-priority bump, registration, completed-task and queue statistics,
// and the incremental statistics reset.
#include <Tamlo/TaskScheduler.h>

#include <assert.h>

#include <iterator>
#include <limits>
#include <utility>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Task.h>

namespace Tamlo {

namespace Impl {

Platform::DebugHandler const* taskSchedulerDebugHandle() {
  static std::shared_ptr<Platform::DebugHandler> const handle =
      Platform::getDebugHandler("TaskScheduler");
  return handle.get();
}

void taskFatalAssertFail(std::string const& message, unsigned line, char const* function) {
  __assert_fail(message.c_str(), "TaskSchedulerCpp", line, function);
}

}  // namespace Impl

namespace {

using EventType = TaskSchedulerHistory::EventType;

// Taken once at load, so that a trace call on the run path costs one load and
// one bit test.
Platform::DebugHandler const* const traceHandle = Impl::taskSchedulerDebugHandle();

Platform::DebugHandler const* trace() {
  return traceHandle;
}

unsigned number(TaskPriority priority) {
  return priority.value();
}

// How much one runnable task of a level weighs when the levels above decide
// whether to give way to it.
uint32_t bumpWeight(unsigned priority) {
  switch (priority) {
    case TaskPriority::high:
      return 64;
    case TaskPriority::normal:
      return 8;
    case TaskPriority::low:
      return 1;
  }
  return 0;
}

}  // namespace

// ---- Statistics records ----

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    TaskSchedulerPriorityStats const& other) {
  TAMLO_ASSERT(priority == other.priority, "{} != {}", priority, other.priority);
  runnableTasks += other.runnableTasks;
  idleTasks += other.idleTasks;
  completedTasks += other.completedTasks;
  totalRunCount += other.totalRunCount;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(TaskSchedulerQueueStats const& other) {
  for (auto const& [priority, stats] : other) {
    auto const [it, inserted] = try_emplace(priority, stats);
    if (!inserted)
      it->second += stats;
  }
  return *this;
}

// ---- Run queue ----

void TaskRunQueue::movePersistentToTemporary() {
  TAMLO_ASSERT(temporary_.empty(), "The temporary run queue should always be empty at this point");
  temporary_.spliceToFront(persistent_);
  active_ = &temporary_;
}

void TaskRunQueue::moveTemporaryToPersistent() {
  persistent_.spliceToFront(temporary_);
  active_ = &persistent_;
}

// ---- The statistics reset task ----

// Resets the statistics of a few registered tasks per run, from the reset
// bookmark on, and schedules itself again until it reaches the end.
class TaskScheduler::ResetStatsTask final : public Task {
 public:
  // The scheduler owns this task, so the task must not own the scheduler:
  // it holds a pointer that shares no ownership.
  explicit ResetStatsTask(TaskScheduler& scheduler)
      : Task(std::shared_ptr<TaskScheduler>(std::shared_ptr<void>(), &scheduler),
             TaskPriority::normal, scheduler.schedulerName() + ";ResetStats") {}

  void taskExecute() override {
    std::shared_ptr<TaskScheduler> const scheduler = taskScheduler()->shared_from_this();
    scheduler->handleResetStatsTaskRun();
  }
};

// ---- Life ----

TaskScheduler::TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : history_(std::move(history)), root_(root), lastRunRequest_(Impl::taskTimeNow()) {
  TAMLO_ASSERT(history_ != nullptr, "Scheduler {} needs a history", name);
  schedulerName_ = history_->stringCache().intern(name);
}

TaskScheduler::~TaskScheduler() {
  // Derived schedulers normally did this already. Emptied first so that the
  // task's leaving cannot reach the (by now pure) force-yield handler.
  forceYieldTasks_.clear();
  destroyResetStatsTask();
}

void TaskScheduler::destroyResetStatsTask() {
  if (resetBookmark_.isLinked())
    RegisteredTaskList::unlinkBookmark(resetBookmark_);
  resetStatsTask_.reset();
}

// ---- The run loop ----

void TaskScheduler::handleSchedulerRun() {
  TaskTimePoint const now = Impl::taskTimeNow();
  recordRunStart(now);
  if (root_->suspended()) {
    TAMLO_TRACE(trace(), 5, "{} Suspended", schedulerName());
    history_->insertSchedulerEvent(now, EventType::schedulerRunIgnoredWhileSuspended,
                                   schedulerName_);
    return;
  }
  TaskImpl* const task = pickTask(now, TaskPriority::absolute);
  if (task == nullptr) {
    schedulerHasRunnableTasksIs(false, now);
    return;
  }
  TaskTimePoint end;
  try {
    // Held for the whole run: the task may drop its last owner while running.
    // A task no shared pointer owns throws std::bad_weak_ptr here.
    runningTask_ = std::static_pointer_cast<TaskImpl>(task->shared_from_this());
    task->taskDoRun(now, end);
  } catch (...) {
    runningTask_.reset();
    // The scheduler still counts as runnable, so only a turn can end the
    // series: without one, later schedulings would never be run.
    requestSchedulerRunAndRecord(Impl::taskTimeNow());
    throw;
  }
  runningTask_.reset();
  TAMLO_TRACE(trace(), 9, "{} Scheduler completed task, request run", schedulerName());
  // Asked after every task, so that the loop serves its other events between
  // any two tasks; a turn that finds nothing ends the series.
  lastRunRequest_ = end;
  requestSchedulerRun();
}

void TaskScheduler::requestSchedulerRunAndRecord(TaskTimePoint now) {
  lastRunRequest_ = now;
  requestSchedulerRun();
}

TaskImpl* TaskScheduler::pickOneTask(TaskTimePoint now, TaskPriority start) {
  return pickTask(now, start.value());
}

TaskImpl* TaskScheduler::pickTask(TaskTimePoint now, unsigned start) {
  for (unsigned p = start; p < runQueueCount; ++p) {
    TaskRunQueue& queue = taskRunQueues_[p];
    // The counts tell an empty queue without a walk; only a queue whose
    // tasks wait in the inactive list needs one to be found empty.
    TaskImpl* const task = queue.scheduledCount() != queue.runCount() ? queue.front() : nullptr;
    if (task == nullptr) {
      queue.consecutiveRunCountIs(0);
      continue;
    }
    if (lowerPriorityBump(p, queue.consecutiveRunCount())) {
      TaskImpl* const lower = pickTask(now, p + 1);
      if (lower != nullptr) {
        queue.consecutiveRunCountIs(0);
        return lower;
      }
    }
    queue.consecutiveRunCountIs(queue.consecutiveRunCount() + 1);
    unlinkPicked(now, *task);
    return task;
  }
  return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority,
                                             uint32_t consecutiveRuns) const {
  return lowerPriorityBump(priority.value(), consecutiveRuns);
}

bool TaskScheduler::lowerPriorityBump(unsigned priority, uint32_t consecutiveRuns) const {
  // Absolute always runs first, low has nothing below it worth waiting for,
  // and scavenge work never counts as waiting.
  if (priority != TaskPriority::high && priority != TaskPriority::normal)
    return false;
  uint32_t waiting = 0;
  for (unsigned q = priority + 1; q <= TaskPriority::low; ++q)
    waiting += runnableCount(q) * bumpWeight(q);
  if (waiting == 0)
    return false;
  return waiting * consecutiveRuns > runnableCount(priority) * bumpWeight(priority);
}

void TaskScheduler::schedulerHasRunnableTasksIs(bool runnable, TaskTimePoint now) {
  if (runnable == schedulerHasRunnableTasks_)
    return;
  schedulerHasRunnableTasks_ = runnable;
  if (runnable) {
    TAMLO_TRACE(trace(), 6, "{} Runnable", schedulerName());
    history_->insertSchedulerEvent(now, EventType::schedulerRunnable, schedulerName_);
    requestSchedulerRunAndRecord(now);
  } else {
    history_->insertSchedulerEvent(now, EventType::schedulerIdle, schedulerName_);
    TAMLO_TRACE(trace(), 6, "{} Idle", schedulerName());
  }
}

// ---- Run queues ----

void TaskScheduler::taskSchedulerUnlinkTask(TaskTimePoint now, TaskImpl& task) {
  checkPriority(task.taskPriority());
  unlinkPicked(now, task);
}

void TaskScheduler::unlinkPicked(TaskTimePoint now, TaskImpl& task) {
  unsigned const priority = task.taskPriority().value();
  taskRunQueues_[priority].runCountInc();
  // A pick of a task that was never counted in shows up as a negative count.
  runnableCount(priority);
  TaskRunQueue::List::unlink(task);
  task.doUpdateSchedulingLatency(now);
}

void TaskScheduler::unscheduleTask(TaskTimePoint now, TaskImpl* task) {
  TAMLO_ASSERT(task->taskRunQueueLink_.isLinked(), "Task: {} not on run queue",
               task->taskDisplayName());
  TaskRunQueue::List::unlink(*task);
  task->doUpdateSchedulingLatency(now);
  taskRunQueue(task->taskPriority()).scheduledCountDec();
}

uint32_t TaskScheduler::runnableTaskCount(TaskPriority priority) const {
  checkPriority(priority);
  return runnableCount(priority.value());
}

uint32_t TaskScheduler::runnableCount(unsigned priority) const {
  TaskRunQueue const& queue = taskRunQueues_[priority];
  auto const runnable = static_cast<int64_t>(queue.scheduledCount() - queue.runCount());
  TAMLO_ASSERT(runnable >= 0, "Priority: {} runnableTasks: {}", priority, runnable);
  return static_cast<uint32_t>(runnable);
}

uint32_t TaskScheduler::runnableTaskCount() const {
  uint32_t runnable = 0;
  for (unsigned p = 0; p < runQueueCount; ++p)
    runnable += runnableTaskCount(TaskPriority(static_cast<uint8_t>(p)));
  return runnable;
}

uint64_t TaskScheduler::runTaskCount(TaskPriority priority) const {
  TaskRunQueue const& queue = taskRunQueue(priority);
  return queue.runCount() - queue.runCountAtReset();
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
  for (TaskRunQueue& queue : taskRunQueues_)
    queue.movePersistentToTemporary();
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
  for (TaskRunQueue& queue : taskRunQueues_)
    queue.moveTemporaryToPersistent();
}

// ---- Registration ----

void TaskScheduler::taskRegister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  checkPriority(task->taskPriority());
  TAMLO_TRACE(trace(), 6, "{} Register {}", schedulerName(), task->taskDisplayName());
  TAMLO_ASSERT(!task->taskRegisteredLink_.isLinked(), "Task: {} already registered",
               task->taskDisplayName());
  registeredTasks_.pushFront(*task);
  tasksPerPriorityInc(task->taskPriority());
  task->taskHistoryInsert(Impl::taskTimeNow(), EventType::create);
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  TAMLO_TRACE(trace(), 6, "{} Unregister {}", schedulerName(), task->taskDisplayName());
  TAMLO_ASSERT(!task->taskRunQueueLink_.isLinked(), "Task: {} scheduled on unregister",
               task->taskDisplayName());
  updateCompletedTaskStats(task);
  tasksPerPriorityDec(task->taskPriority());
  TAMLO_ASSERT(task->taskRegisteredLink_.isLinked(), "Task: {} not registered",
               task->taskDisplayName());
  RegisteredTaskList::unlink(*task);
  task->taskHistoryInsert(Impl::taskTimeNow(), EventType::destroy);
}

uint32_t TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  auto const it = tasksPerPriority_.find(priority);
  return it == tasksPerPriority_.end() ? 0 : it->second;
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
  uint32_t& count = tasksPerPriority_[priority];
  ++count;
  TAMLO_ASSERT(count != 0, "Priority: {} count: {}", number(priority), count);
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
  uint32_t& count = tasksPerPriority_[priority];
  --count;
  TAMLO_ASSERT(count != std::numeric_limits<uint32_t>::max(), "Priority: {} count: {}",
               number(priority), count);
}

uint32_t TaskScheduler::registeredTaskCount() const {
  uint32_t count = 0;
  for (auto const& [priority, tasks] : tasksPerPriority_)
    count += tasks;
  return count;
}

// ---- Completed-task statistics ----

uint32_t TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
  auto const it = completedTasksPerPriority_.find(priority);
  return it == completedTasksPerPriority_.end() ? 0 : it->second;
}

void TaskScheduler::completedTasksPerPriorityInc(TaskPriority priority) {
  uint32_t& count = completedTasksPerPriority_[priority];
  ++count;
  TAMLO_ASSERT(count != 0, "Priority: {} count: {}", number(priority), count);
}

void TaskScheduler::completedTaskStatsInc(ConstStringRef const& statsName, TaskStat const& stat) {
  auto const it = completedTaskStats_.find(statsName);
  if (it != completedTaskStats_.end())
    it->second += stat;
  else
    completedTaskStats_.emplace(statsName, stat);
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
  if (!task->includeInCompletedTask())
    return;
  checkPriority(task->taskPriority());
  TaskStat stat = task->getStats();
  stat.taskNameIs(task->taskStatsNameRef());
  TAMLO_ASSERT(stat.taskCompletedCount() == 0, "Task: {} completedCount: {}",
               task->taskDisplayName(), stat.taskCompletedCount());
  stat.taskCompletedCountIs(1);
  completedTaskStatsInc(task->taskStatsNameRef(), stat);
  completedTasksPerPriorityInc(task->taskPriority());
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
  bool const wasEmpty = forceYieldTasks_.empty();
  if (on)
    forceYieldTasks_.insert(task);
  else
    forceYieldTasks_.erase(task);
  if (wasEmpty != forceYieldTasks_.empty())
    handleTaskForceYieldInTest();
}

// ---- Statistics reset ----

void TaskScheduler::resetStats() {
  if (resetStatsTask_ == nullptr)
    resetStatsTask_ = makeShared<ResetStatsTask>(*this);
  resetStatsTask_->scheduleTask();
  // A reset started again begins again from the front.
  if (resetBookmark_.isLinked())
    RegisteredTaskList::unlinkBookmark(resetBookmark_);
  registeredTasks_.linkBookmark(resetBookmark_, registeredTasks_.begin());
}

bool TaskScheduler::resetStatsInProgress() const {
  return resetStatsTask_ != nullptr && resetStatsTask_->taskScheduled();
}

void TaskScheduler::handleResetStatsTaskRun() {
  RegisteredTaskList::Iterator it = registeredTasks_.begin();
  if (resetBookmark_.isLinked()) {
    it = registeredTasks_.beginAt(resetBookmark_);
    RegisteredTaskList::unlinkBookmark(resetBookmark_);
  }
  uint64_t resetCount = 0;
  while (it != registeredTasks_.end()) {
    if (resetCount > 0 && resetStatsTask_->taskShouldYield()) {
      registeredTasks_.linkBookmark(resetBookmark_, it);
      resetStatsTask_->taskWorkCountInc(resetCount);
      resetStatsTask_->scheduleTask();
      return;
    }
    TaskImpl& task = *it;
    // Parked behind the task, the bookmark keeps the walk's place whatever
    // the task's reset handler does to the list.
    registeredTasks_.linkBookmark(resetBookmark_, std::next(it));
    task.resetStats();
    ++resetCount;
    it = registeredTasks_.beginAt(resetBookmark_);
    RegisteredTaskList::unlinkBookmark(resetBookmark_);
  }
  resetStatsTask_->taskWorkCountInc(resetCount);
  clearStatsCommon();
}

void TaskScheduler::clearStatsCommon() {
  schedulerLatencyHighWaterMark_ = TaskTimeDuration::zero();
  for (TaskRunQueue& queue : taskRunQueues_)
    queue.runCountAtResetIs(queue.runCount());
  completedTaskStats_.clear();
  completedTasksPerPriority_.clear();
}

void TaskScheduler::clearStats() {
  clearStatsCommon();
  BookmarkListLinkNode cursor(BookmarkListLinkNode::Role::bookmark);
  for (auto it = registeredTasks_.begin(); it != registeredTasks_.end();) {
    TaskImpl& task = *it;
    registeredTasks_.linkBookmark(cursor, std::next(it));
    task.resetStats();
    it = registeredTasks_.beginAt(cursor);
    RegisteredTaskList::unlinkBookmark(cursor);
  }
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (unsigned p = 0; p < runQueueCount; ++p) {
    TaskPriority const priority(static_cast<uint8_t>(p));
    uint32_t const runnable = runnableTaskCount(priority);
    TaskSchedulerPriorityStats const entry{
        priority, runnable, uint64_t{tasksPerPriority(priority)} - runnable,
        completedTasksPerPriority(priority), runTaskCount(priority)};
    bool const inserted = stats.emplace(priority, entry).second;
    TAMLO_ASSERT(inserted, "Priority: {} insert failed", p);
  }
  return stats;
}

}  // namespace Tamlo
