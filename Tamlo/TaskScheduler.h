// The cooperative task scheduler: tasks with one of five priorities and a
// time quantum are queued in the run queues of a TaskScheduler and run one at
// a time from the thread's event loop. Every thread reaches its own tree of
// schedulers through schedulerRootTamlo(); the root owns the one event-loop
// callback through which every run is requested, so tasks interleave with all
// other events of the loop: one task per loop callback, the next run
// requested after each.
//
// Threads: a root, the schedulers registered under it and their tasks belong
// to the thread that built the root and take no locks. scheduleTask,
// unscheduleTask, taskScheduled, taskRegister and taskUnregister check the
// calling thread and fail with "Executing in wrong thread ..." elsewhere,
// unless the root's check is switched off (threadSanityDisabledIs) or some
// thread has declared itself through ::auxThreadCount.
//
// Client code derives from Tamlo::Task (Task.h) and implements taskExecute().
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <Tamlo/ConstStringCache.h>
#include <Tamlo/IntrusiveBookmarkLinkedList.h>
#include <Tamlo/IntrusiveLinkedListBase.h>
#include <Tamlo/Platform.h>
#include <Tamlo/TaskKey.h>
#include <Tamlo/TaskMaybeU32.h>
#include <Tamlo/TaskPriority.h>
#include <Tamlo/TaskSchedulerHistory.h>
#include <Tamlo/TaskStat.h>
#include <Tamlo/TaskTime.h>

// Threads other than a root's owner that touch scheduler trees on purpose
// (under their own locking) count themselves in here; while it is non-zero
// no root checks the calling thread. Process-wide, atomic.
extern std::atomic<uint32_t> auxThreadCount;

namespace Tamlo {

class TaskGroup;
class TaskImpl;
class TaskScheduler;
class TaskSchedulerRoot;
class TaskSchedulerSnapshot;
class TaskSchedulerStatsSocket;
class TimerWheel;

namespace Impl {
// The "TaskScheduler" trace handle, shared by the scheduler and its tasks.
Platform::DebugHandler const* taskSchedulerDebugHandle();
}  // namespace Impl

// The part of a task that names it and reports its busy state: its
// scheduler, the interned names, the priority and the test-yield counters;
// and the operations every kind of task answers, whether it runs itself
// (TaskImpl) or has subtasks run for it (FileDescriptorTask). Never used on
// its own.
class _TaskBase : public std::enable_shared_from_this<_TaskBase> {
 public:
  _TaskBase(_TaskBase const&) = delete;
  _TaskBase& operator=(_TaskBase const&) = delete;

  // Tasks with the same stats name share one line of completed-task
  // statistics.
  virtual void taskStatsNameIs(std::string const& name);
  // On a run queue. Checks the thread.
  virtual bool taskScheduled() const = 0;
  // Whether the running task has used its quantum, by the yield mode.
  virtual bool taskShouldYield() const = 0;
  // Work done in one call: the total and a decaying average of the samples.
  virtual void taskWorkCountInc(uint64_t count) = 0;
  // Work still waiting; its high-water mark is kept.
  virtual void taskWorkPendingIs(uint32_t pending) = 0;
  // Called after every change of the busy state; plain tasks do nothing.
  virtual void handleTaskBusy() {}
  // Called after the task's statistics were reset; plain tasks do nothing.
  virtual void handleResetStats() {}
  virtual ~_TaskBase();

  TaskScheduler* taskScheduler() const { return taskScheduler_.get(); }
  std::string const& taskName() const { return taskName_.text(); }
  ConstStringRef const& taskNameRef() const { return taskName_; }
  // Tasks with the same stats name share one line of completed-task
  // statistics. Initially the task name.
  std::string const& taskStatsName() const { return taskStatsName_.text(); }
  ConstStringRef const& taskStatsNameRef() const { return taskStatsName_; }
  // The priority's character, a blank and the name: "N reader". Names the
  // task in the history and in failure texts.
  std::string const& taskDisplayName() const { return taskDisplayName_.text(); }
  ConstStringRef const& taskDisplayNameRef() const { return taskDisplayName_; }
  TaskPriority taskPriority() const { return taskPriority_; }

  // The ratio the task asked for itself (0 = none) and the one in force
  // (its own, else the root's).
  uint8_t taskTestYieldRatio() const { return taskTestYieldRatio_; }
  uint8_t taskTestYieldRatioEffective() const { return taskTestYieldRatioEffective_; }

  // Whether the task was last reported as queued. A change is recorded as
  // "busy" or "idle" and announced through handleTaskBusy().
  bool taskBusy() const { return taskBusy_; }
  void taskBusyIs(bool busy, TaskTimePoint now) {
    if (busy != taskBusy_)
      taskBusyChange(busy, now);
  }

  void taskHistoryInsert(TaskTimePoint now, TaskSchedulerHistory::EventType type) const;

 protected:
  _TaskBase(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
            std::string const& name);
  void taskBusyChange(bool busy, TaskTimePoint now);

  // First, so that the names below are released while the scheduler (and
  // with it the cache they live in) is still there.
  std::shared_ptr<TaskScheduler> taskScheduler_;
  ConstStringRef taskName_;
  ConstStringRef taskStatsName_;
  ConstStringRef taskDisplayName_;
  TaskPriority taskPriority_;
  uint8_t taskTestYieldRatio_ = 0;
  uint8_t taskTestYieldRatioEffective_ = 0;
  // Counts taskShouldYield() calls in test-yield-ratio mode.
  mutable uint8_t taskTestYieldCounter_ = 0;
  bool taskBusy_ = false;
};

// A unit of work that its scheduler runs once each time it has been
// scheduled. taskExecute() must return promptly: a long job does a slice,
// asks taskShouldYield() whether its quantum is used up, and if so schedules
// itself again and returns. Each run is measured against the quantum; runs of
// twice and of five times the quantum are counted as violations.
//
// Registered with its scheduler from construction to destruction. A task
// must be owned by a std::shared_ptr when it runs: the scheduler keeps it
// alive for the length of the run, so a task may drop its last owner from
// taskExecute(). Single-thread, like its scheduler.
class TaskImpl : public _TaskBase {
 public:
  enum class TaskShouldYieldMode : uint8_t {
    realTime = 0,
    // Runs are measured on Tamlo::time(), which tests fast-forward.
    virtualTime = 1,
    // taskShouldYield() answers true on every n-th call, for tests.
    testYieldRatio = 2,
  };

  static constexpr uint32_t taskMagicNumberConstructed = 0x42be5afe;
  static constexpr uint32_t taskMagicNumberDestroyed = 0xdeaddead;
  // taskQuantumIs() refuses longer quanta.
  static constexpr TaskTimeDuration taskQuantumMax{1'000'000'000};

  bool taskScheduled() const override;
  bool taskShouldYield() const override;
  void taskWorkCountInc(uint64_t count) override;
  void taskWorkPendingIs(uint32_t pending) override;
  ~TaskImpl() override;
  // Appends the task to its priority's run queue; nothing when it is queued
  // already (its place is kept); refused, and recorded, while suspended.
  virtual void scheduleTask();
  // Runs the task now, outside the event loop, taking it off its run queue
  // as a pick would.
  virtual void taskRunFromTest();
  virtual TaskStat::TaskStatus taskStatus() const;
  virtual void taskExecute() = 0;

  // The group whose parent task this is, told by the task's dynamic type;
  // null for every other task. A parent task whose group is gone aborts.
  TaskGroup* isTaskGroup() const;

  void unscheduleTask();
  // A snapshot of the counters under the task name; completed count 0.
  TaskStat getStats() const;
  // How long the current run has lasted so far. Only while running.
  TaskTimeDuration taskCurrentRunTime() const;

  TaskTimeDuration taskQuantum() const { return taskQuantum_; }
  // 1 ns to 1 s; anything else fails with "Quantum: <d>".
  void taskQuantumIs(TaskTimeDuration quantum);
  // Any quantum from 1 ns.
  void taskQuantumNoCheckIs(TaskTimeDuration quantum);

  bool taskSuspended() const { return (taskFlags_ & taskFlagSuspended) != 0; }
  // Suspending unschedules; unsuspending always schedules once.
  void taskSuspendedIs(bool suspended);

  bool includeInCompletedTask() const { return (taskFlags_ & taskFlagIncludeInCompleted) != 0; }
  // Whether the task's counters are folded into its scheduler's completed-task
  // statistics when it is destroyed. On by default.
  void includeInCompletedTaskIs(bool include);

  TaskShouldYieldMode taskShouldYieldMode() const { return taskShouldYieldMode_; }
  void taskShouldYieldModeIs(TaskShouldYieldMode mode);
  // Picks the mode from the ratios and the root's virtual-time switch.
  void taskShouldYieldModeReevaluate();
  // The task's own test-yield ratio: yield on every n-th call; 0 = none.
  void taskTestYieldRatioIs(uint8_t ratio);
  void taskTestYieldRatioEffectiveIs(uint8_t ratio);
  void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }

  // Zeroes the counters (run count, run times, latencies, work counts,
  // violations); quantum, times and names stay. Then handleResetStats().
  void resetStats();
  // Unschedules, unregisters and marks the task destroyed, as destruction
  // would; a task doing this from its own run is caught after taskExecute().
  void handleDestroy();
  // As taskRunFromTest(), with the scheduler's bookkeeping around it as an
  // event-loop turn would do it: latency recorded, next run requested.
  void taskRunAndRecordFromTest();

  bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }
  uint32_t taskMagicNumber() const { return taskMagicNumber_; }
  TaskTimePoint taskTimeScheduled() const { return taskTimeScheduled_; }
  TaskTimePoint taskRunStart() const { return taskRunStart_; }
  uint64_t taskRunCount() const { return taskRunCount_; }
  TaskTimeDuration taskTotalRunTime() const { return taskTotalRunTime_; }
  TaskTimeDuration taskRunTimeHighWaterMark() const { return taskRunTimeHighWaterMark_; }
  TaskTimeDuration taskLastSchedulingLatency() const { return taskLastSchedulingLatency_; }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const {
    return taskSchedulingLatencyHighWaterMark_;
  }
  uint64_t taskWorkCountTotal() const { return taskWorkCountTotal_; }
  float taskWorkCountDecayingAvg() const { return taskWorkCountDecayingAvg_; }
  TaskMaybeU32 taskWorkCountHighWaterMark() const { return taskWorkCountHighWaterMark_; }
  uint32_t taskWorkPending() const { return taskWorkPending_; }
  TaskMaybeU32 taskWorkPendingHighWaterMark() const { return taskWorkPendingHighWaterMark_; }
  uint32_t taskQuantumViolation200() const { return taskQuantumViolation200_; }
  uint32_t taskQuantumViolation500() const { return taskQuantumViolation500_; }

 protected:
  TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
           std::string const& name);

  // Off the run queue, if on it, with the latency recorded; then the busy
  // state. For the scheduler and for specialised tasks.
  void unscheduleTaskPrivate(TaskTimePoint now);

  // Set by a task group's parent task for its lifetime, so that
  // isTaskGroup() tells the type without a dynamic_cast: it is asked for
  // every task whose statistics are read.
  void taskIsGroupParentIs(bool on) {
    taskFlags_ =
        on ? uint8_t(taskFlags_ | taskFlagGroupParent) : uint8_t(taskFlags_ & ~taskFlagGroupParent);
  }

 private:
  friend class TaskScheduler;
  friend class TaskRunQueue;

  static constexpr uint8_t taskFlagSuspended = 0x01;
  static constexpr uint8_t taskFlagIncludeInCompleted = 0x02;
  static constexpr uint8_t taskFlagGroupParent = 0x04;

  void handleInitialized();
  // The measured run, after the scheduler picked the task. `end` receives the
  // time taskExecute() returned. (The run path's helpers are not exported, so
  // that calls between them are bound and inlined inside the library.)
  [[gnu::visibility("hidden")]] void taskDoRun(TaskTimePoint now, TaskTimePoint& end);
  [[gnu::visibility("hidden")]] void taskRunAccount(TaskTimeDuration used);
  void doUpdateSchedulingLatency(TaskTimePoint now) {
    taskLastSchedulingLatency_ = now - taskTimeScheduled_;
    if (taskLastSchedulingLatency_ > taskSchedulingLatencyHighWaterMark_)
      taskSchedulingLatencyHighWaterMark_ = taskLastSchedulingLatency_;
  }

  uint8_t taskFlags_ = 0;
  TaskShouldYieldMode taskShouldYieldMode_ = TaskShouldYieldMode::realTime;
  bool taskCurrentlyRunning_ = false;
  TaskTimeDuration taskQuantum_;
  TaskTimePoint taskTimeScheduled_{};
  TaskTimePoint taskRunStart_{};
  TaskTimeDuration taskLastSchedulingLatency_{0};
  TaskTimeDuration taskSchedulingLatencyHighWaterMark_{0};
  TaskTimeDuration taskTotalRunTime_{0};
  TaskTimeDuration taskRunTimeHighWaterMark_{0};
  uint64_t taskWorkCountTotal_ = 0;
  float taskWorkCountDecayingAvg_ = 0;
  TaskMaybeU32 taskWorkCountHighWaterMark_;
  uint32_t taskWorkPending_ = 0;
  TaskMaybeU32 taskWorkPendingHighWaterMark_;
  uint32_t taskQuantumViolation500_ = 0;
  uint32_t taskQuantumViolation200_ = 0;
  uint64_t taskRunCount_ = 0;
  uint32_t taskMagicNumber_ = taskMagicNumberConstructed;
  ListLinkNode taskRunQueueLink_;
  BookmarkListLinkNode taskRegisteredLink_;
};

// Writes the task's display name ("N reader").
std::ostream& operator<<(std::ostream& os, TaskImpl const& task);

// The runnable tasks of one priority in one scheduler. Scheduling appends to
// `persistent`; picking takes from the active list, which is `persistent`
// except while a task group moved its queue aside (movePersistentToTemporary)
// so that tasks scheduled during the group's run wait for its next one.
class TaskRunQueue {
 public:
  using List = IntrusiveLinkedList<TaskImpl, ListLinkNode, &TaskImpl::taskRunQueueLink_>;

  TaskRunQueue() = default;
  TaskRunQueue(TaskRunQueue const&) = delete;
  TaskRunQueue& operator=(TaskRunQueue const&) = delete;

  List const& persistent() const { return persistent_; }
  List const& temporary() const { return temporary_; }
  bool temporaryActive() const { return active_ == &temporary_; }
  // The task a pick would take; null when the active list is empty.
  TaskImpl* front() const {
    auto const first = active_->begin();
    return first == active_->end() ? nullptr : &*first;
  }

  void append(TaskImpl& task) {
    persistent_.pushBack(task);
    ++scheduledCount_;
  }
  // Requires an empty temporary list ("The temporary run queue should
  // always be empty at this point"); moves everything queued there, in order,
  // and makes it the active list.
  void movePersistentToTemporary();
  // Puts what is left of the temporary list back in front of the persistent
  // list and makes that the active list again.
  void moveTemporaryToPersistent();

  uint32_t consecutiveRunCount() const { return consecutiveRunCount_; }
  void consecutiveRunCountIs(uint32_t count) { consecutiveRunCount_ = count; }
  // +1 for every append, -1 for every unschedule.
  uint64_t scheduledCount() const { return scheduledCount_; }
  void scheduledCountDec() { --scheduledCount_; }
  // +1 for every pick.
  uint64_t runCount() const { return runCount_; }
  void runCountInc() { ++runCount_; }
  uint64_t runCountAtReset() const { return runCountAtReset_; }
  void runCountAtResetIs(uint64_t count) { runCountAtReset_ = count; }

 private:
  List persistent_;
  List temporary_;
  List* active_ = &persistent_;
  uint32_t consecutiveRunCount_ = 0;
  uint64_t scheduledCount_ = 0;
  uint64_t runCount_ = 0;
  uint64_t runCountAtReset_ = 0;
};

// The counts of one priority of one scheduler (or, summed, of a tree).
struct TaskSchedulerPriorityStats {
  TaskPriority priority = TaskPriority::absolute;
  uint32_t runnableTasks = 0;
  // Registered and not runnable.
  uint64_t idleTasks = 0;
  uint64_t completedTasks = 0;
  // Runs since the last statistics reset.
  uint64_t totalRunCount = 0;

  // Adds the counts of the same priority; another priority fails with
  // "<p> != <q>".
  TaskSchedulerPriorityStats& operator+=(TaskSchedulerPriorityStats const& other);
};

// One entry per priority.
class TaskSchedulerQueueStats : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
 public:
  // Adds entry by entry; priorities missing here are taken over.
  TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats const& other);
};

// A set of run queues, one per priority absolute..scavenge, with the tasks
// registered with it and their statistics, and the run loop that picks one
// task per turn. The root is the scheduler that owns the event-loop callback;
// task groups are schedulers that run as one task of a parent.
//
// Owned by shared pointers (tasks hold one to their scheduler). Belongs to
// its root's thread.
class TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  using RegisteredTaskList =
      IntrusiveBookmarkLinkedList<TaskImpl, BookmarkListLinkNode, &TaskImpl::taskRegisteredLink_>;
  using CompletedTaskStats = std::unordered_map<ConstStringRef, TaskStat>;
  // absolute..scavenge: one run queue each.
  static constexpr unsigned runQueueCount = 5;
  static constexpr TaskTimeDuration defaultTaskQuantumInitial{20'000'000};

  TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                std::shared_ptr<TaskSchedulerHistory> history);
  TaskScheduler(TaskScheduler const&) = delete;
  TaskScheduler& operator=(TaskScheduler const&) = delete;

  // While an incremental statistics reset has work queued.
  virtual bool resetStatsInProgress() const;
  // Asks for one call of handleSchedulerRun(): a root asks its event loop, a
  // task group schedules its parent task.
  virtual void requestSchedulerRun() = 0;
  // The set of tasks with a test-yield ratio in force turned empty or
  // non-empty.
  virtual void handleTaskForceYieldInTest() = 0;
  virtual void taskRegister(TaskImpl* task);
  virtual ~TaskScheduler();

  std::string const& schedulerName() const { return schedulerName_.text(); }
  ConstStringRef const& schedulerNameRef() const { return schedulerName_; }
  TaskSchedulerRoot* root() const { return root_; }
  std::shared_ptr<TaskSchedulerHistory> const& history() const { return history_; }

  // One turn: picks one task and runs it, then requests the next turn;
  // a turn that finds nothing turns the scheduler idle.
  void handleSchedulerRun();
  void requestSchedulerRunAndRecord(TaskTimePoint now);

  // The task to run next, from priority `start` down, with the lower-priority
  // bump applied; taken off its run queue. Null when nothing is runnable.
  TaskImpl* pickOneTask(TaskTimePoint now, TaskPriority start);
  // Whether `consecutiveRuns` picks in a row at high or normal priority are
  // enough to give one pick to the levels below (weights 64/8/1).
  bool attemptLowerPriorityBump(TaskPriority priority, uint32_t consecutiveRuns) const;

  bool schedulerHasRunnableTasks() const { return schedulerHasRunnableTasks_; }
  void schedulerHasRunnableTasksIs(bool runnable, TaskTimePoint now);

  // Takes a picked task off its queue, counting the run and its latency.
  void taskSchedulerUnlinkTask(TaskTimePoint now, TaskImpl& task);
  // Takes a queued task off its queue without running it.
  void unscheduleTask(TaskTimePoint now, TaskImpl* task);
  void taskUnregister(TaskImpl* task);

  TaskRunQueue& taskRunQueue(TaskPriority priority);
  TaskRunQueue const& taskRunQueue(TaskPriority priority) const;
  // Queued tasks of one priority, or of all.
  uint32_t runnableTaskCount(TaskPriority priority) const;
  uint32_t runnableTaskCount() const;
  // Picks of one priority since the last statistics reset.
  uint64_t runTaskCount(TaskPriority priority) const;

  // Registered tasks per priority; 0 for a priority never seen.
  uint32_t tasksPerPriority(TaskPriority priority) const;
  void tasksPerPriorityInc(TaskPriority priority);
  void tasksPerPriorityDec(TaskPriority priority);
  uint32_t registeredTaskCount() const;
  RegisteredTaskList const& registeredTasks() const { return registeredTasks_; }

  // Destroyed tasks per priority, and their statistics folded by stats name.
  uint32_t completedTasksPerPriority(TaskPriority priority) const;
  void completedTasksPerPriorityInc(TaskPriority priority);
  CompletedTaskStats const& completedTaskStats() const { return completedTaskStats_; }
  void completedTaskStatsInc(ConstStringRef const& statsName, TaskStat const& stat);
  void updateCompletedTaskStats(TaskImpl* task);

  void taskForceYieldInTestNotify(TaskImpl* task, bool on);
  size_t taskForceYieldInTestCount() const { return forceYieldTasks_.size(); }

  // The quantum of tasks created from now on.
  TaskTimeDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
  void defaultTaskQuantumIs(TaskTimeDuration quantum) { defaultTaskQuantum_ = quantum; }

  // All five queues at once (task groups that run each task once per turn).
  void taskRunQueuesMovePersistentToTemporary();
  void taskRunQueuesMoveTemporaryToPersistent();

  // Starts an incremental reset of every registered task's statistics, done
  // by a task of this scheduler that yields when its quantum is used; the
  // scheduler's own counters are cleared when it reaches the end.
  void resetStats();
  // The whole reset at once.
  void clearStats();

  TaskSchedulerQueueStats queueStats() const;

  // The task being run by this scheduler, null between runs.
  TaskImpl* runningTask() const { return runningTask_.get(); }
  TaskTimePoint lastRunRequest() const { return lastRunRequest_; }
  TaskTimePoint runStart() const { return runStart_; }
  // Tamlo::time() at the start of the current run, for tasks in virtual time.
  Time runStartTime() const { return runStartTime_; }
  void runStartTimeIs(Time time) { runStartTime_ = time; }
  // The largest delay between a run request and its turn since the last
  // statistics reset.
  TaskTimeDuration schedulerLatencyHighWaterMark() const { return schedulerLatencyHighWaterMark_; }

  // ---- Reports (TaskSchedulerStats.cpp, TaskSchedulerSnapshot.cpp) ----
  // Append the records of the registered tasks, or of the completed-task
  // statistics, that have run at least once (all with includeAll); return
  // how many were left out.
  uint32_t getTaskStats(std::vector<TaskStat>* stats, bool includeAll) const;
  uint32_t getCompletedTaskStats(std::vector<TaskStat>* stats, bool includeAll) const;
  // A copy of this scheduler's statistics and, nested, of its task groups'
  // (TaskSchedulerSnapshot.h). `name` replaces the scheduler's name unless
  // empty; includeCompleted adds the completed-task tables, includeHistory
  // the root's history; displayOrder is TaskSchedulerSnapshot::noDisplayOrder
  // for none. Checks the thread.
  TaskSchedulerSnapshot snapshot(std::string const& name, bool includeAll, bool includeCompleted,
                                 bool includeHistory, unsigned displayOrder) const;
  // snapshot("", ...) rendered as one JSON object.
  void statsRenderJson(std::ostream& os, bool includeAll, bool includeCompleted,
                       bool includeHistory) const;
  std::string statsRenderJsonToString(bool includeAll, bool includeCompleted,
                                      bool includeHistory) const;
  // The snapshot written to `fd` by tasks of this scheduler, a slice at a
  // time, so that a large tree never holds the event loop for much more than
  // a quantum (TaskSchedulerRenderJson.h): {"schedulers": [<this
  // scheduler>], "historyEntryCount", "history" (with includeHistory)}.
  // Returns at once; `done` is called from the loop when the writing ended,
  // true when every byte was written. The descriptor stays the caller's, who
  // closes it (after `done`); it must be blocking, and is non-blocking only
  // while written. A bad descriptor throws RuntimeException, a non-blocking
  // one UnimplementedException ("fd <n> is non-blocking, not supported"); a
  // reader that goes away (EPIPE) ends the writing with `done(false)`, never
  // with SIGPIPE. Checks the thread.
  void snapshotRenderJsonAsync(int fd, bool includeAll, bool includeCompleted, bool includeHistory,
                               std::function<void(bool written)> done = {});

 protected:
  // Turn bookkeeping: the run starts now; the delay since the last request is
  // its latency.
  TaskTimeDuration recordRunStart(TaskTimePoint now) {
    runStart_ = now;
    TaskTimeDuration const latency = now - lastRunRequest_;
    if (latency > schedulerLatencyHighWaterMark_)
      schedulerLatencyHighWaterMark_ = latency;
    return latency;
  }
  void lastRunRequestIs(TaskTimePoint time) { lastRunRequest_ = time; }
  void clearStatsCommon();
  // Derived schedulers call this first in their destructor, while they are
  // whole: the reset task unregisters itself through them.
  void destroyResetStatsTask();

 private:
  class ResetStatsTask;
  friend class TaskImpl;

  void handleResetStatsTaskRun();
  void checkPriority(TaskPriority priority) const;
  // The run path behind pickOneTask(), attemptLowerPriorityBump(),
  // taskSchedulerUnlinkTask() and runnableTaskCount(), for priorities known
  // to have a queue. Not exported, so that calls between them are bound and
  // inlined inside the library.
  [[gnu::visibility("hidden")]] TaskImpl* pickTask(TaskTimePoint now, unsigned start);
  [[gnu::visibility("hidden")]] bool lowerPriorityBump(unsigned priority,
                                                       uint32_t consecutiveRuns) const;
  [[gnu::visibility("hidden")]] void unlinkPicked(TaskTimePoint now, TaskImpl& task);
  [[gnu::visibility("hidden")]] uint32_t runnableCount(unsigned priority) const;

  // First: the names held below live in its cache and must go before it.
  std::shared_ptr<TaskSchedulerHistory> history_;
  ConstStringRef schedulerName_;
  TaskSchedulerRoot* root_;
  CompletedTaskStats completedTaskStats_;
  RegisteredTaskList registeredTasks_;
  std::array<TaskRunQueue, runQueueCount> taskRunQueues_;
  TaskTimePoint lastRunRequest_;
  TaskTimePoint runStart_{};
  TaskTimeDuration defaultTaskQuantum_ = defaultTaskQuantumInitial;
  TaskTimeDuration schedulerLatencyHighWaterMark_{0};
  Time runStartTime_ = 0;
  std::map<TaskPriority, uint32_t> tasksPerPriority_;
  std::map<TaskPriority, uint32_t> completedTasksPerPriority_;
  bool schedulerHasRunnableTasks_ = false;
  std::shared_ptr<TaskImpl> runningTask_;
  std::unordered_set<TaskImpl*> forceYieldTasks_;
  BookmarkListLinkNode resetBookmark_{BookmarkListLinkNode::Role::bookmark};
  std::shared_ptr<ResetStatsTask> resetStatsTask_;
};

// The scheduler at the top of a thread's tree. It owns the event-loop
// callback through which every run of the tree is requested, the set of
// schedulers registered under it, the history they share, the timer wheel of
// the tree's timer tasks, and the switches that apply to the whole tree:
// suspension, virtual time (following fast-forward on the main thread), the
// owning-thread check and the test-yield ratio.
class TaskSchedulerRoot : public TaskScheduler, private Platform::CallbackHandler {
 public:
  static constexpr unsigned historyEntryCountInitial = 100;

  // Use TaskSchedulerRootIs(): a root must be owned by a shared pointer.
  explicit TaskSchedulerRoot(std::string const& name);
  ~TaskSchedulerRoot() override;
  static std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(std::string const& name);

  bool resetStatsInProgress() const override;
  // Nothing while suspended; else one callback of the event loop.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override {}

  // A turn of the event loop: follows fast-forward, then runs one task.
  void handleSchedulerRun();

  // Task groups register from construction to destruction; the root
  // registers itself. A duplicate or missing entry is an assertion failure.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  std::set<TaskScheduler*> const& registeredSchedulers() const { return registeredSchedulers_; }
  uint32_t totalRegisteredTaskCount() const;
  uint32_t taskGroupCount() const;
  TaskSchedulerQueueStats queueStatsRoot() const;

  bool suspended() const { return suspended_; }
  // While suspended, requested runs are dropped (and recorded); queued tasks
  // stay. Unsuspending requests a run.
  void suspendedIs(bool suspended);
  bool virtualTime() const { return virtualTime_; }
  void virtualTimeIs(bool virtualTime);
  // True for a root built on the main thread: its virtual time follows the
  // fast-forward switch at every turn.
  bool followFastForward() const { return followFastForward_; }
  bool threadSanityDisabled() const { return threadSanityDisabled_; }
  void threadSanityDisabledIs(bool disabled);
  uint8_t taskTestYieldRatio() const { return taskTestYieldRatio_; }
  // Applies to every task of the tree that has no ratio of its own.
  void taskTestYieldRatioIs(uint8_t ratio);

  // Fails unless called on the owning thread (see the top of this file).
  void sanityCheckCurrentRunningThread() const;
  pthread_t thread() const { return thread_; }
  pid_t pid() const { return pid_; }
  // The owning thread's name when the root was built; empty if unknown.
  char const* ownerThreadName() const { return ownerThreadName_; }
  // The calling thread's name; empty if unknown.
  static std::string currentThreadName();

  // 0..100 from the root's rand_r seed, which starts at 0: repeatable.
  uint32_t randomPercent();
  // The delay since the last run request, kept as the high-water mark; the
  // run starts now.
  TaskTimeDuration checkSchedulerLatency();
  // The same, then the next latency counts from now.
  TaskTimeDuration doUpdateSchedulerLatency();
  // Every task of every registered scheduler picks its yield mode again.
  void taskShouldYieldModeReevaluate();

  std::shared_ptr<TimerWheel> const& timerWheel() const { return timerWheel_; }
  // Whether an event-loop callback is outstanding.
  bool schedulerRunPending() const { return callbackControl_->pendingCallback(); }

  // The capacity of the shared history ring (100 at construction).
  unsigned int historyEntryCount() const { return history()->entryCount(); }
  void historyEntryCountIs(unsigned int entries) { history()->entryCountIs(entries); }
  void clearHistory() { history()->clear(); }
  void historyRenderTextForDebug(std::ostream& os) const { history()->renderTextForDebug(os); }
  std::string historyRenderTextForDebugToString() const {
    return history()->renderTextForDebugToString();
  }
  void historyRenderTextForDebugStdErr() const { history()->renderTextForDebugStdErr(); }
  // Leaves `fd` open.
  void historyRenderTextForDebug(int fd) const { history()->renderTextForDebug(fd); }

  // ---- Reports (TaskSchedulerStats.cpp, TaskSchedulerTraceEvents.cpp) ----
  // The text report of the whole tree: run-queue counts per priority, the
  // largest slip, a legend, the live tasks of every registered scheduler
  // (those that never ran only with includeAll; keys after the names with
  // showKeys) and, with includeCompleted, the completed-task statistics.
  // `reserved` does not change the text. Checks the thread.
  void statsRenderTextForDebug(std::ostream& os, bool includeAll, bool showKeys,
                               bool includeCompleted, bool reserved) const;
  // Leaves `fd` open.
  void statsRenderTextForDebug(int fd, bool includeAll, bool showKeys, bool includeCompleted,
                               bool reserved) const;
  std::string statsRenderTextForDebugToString(bool includeAll, bool showKeys, bool includeCompleted,
                                              bool reserved) const;
  // Everything: all tasks, keys, completed tasks.
  void statsRenderTextForDebugStdErr() const;
  // The report from collected data; a null `completed` leaves out the
  // completed-task table (and its legend line).
  static void statsRenderTextImpl(std::ostream& os, TaskSchedulerQueueStats const& queues,
                                  TaskTimeDuration maxSlip, std::vector<TaskStat> const* tasks,
                                  unsigned skipped, std::vector<TaskStat> const* completed,
                                  unsigned completedSkipped, bool showKeys);
  // One task table, by total run time, largest first.
  static void statsRenderTextTasks(std::ostream& os, std::vector<TaskStat> const& stats,
                                   std::string const& title, unsigned skipped, bool completedTable,
                                   bool showKeys);
  // The history as a trace for trace viewers (TaskSchedulerHistory.h).
  void historyRenderTraceEvents(std::ostream& os) const {
    history()->renderTraceEvents(os, schedulerName(), pid_);
  }
  std::string historyRenderTraceEventsToString() const {
    return history()->renderTraceEventsToString(schedulerName(), pid_);
  }
  // Listens on the abstract Unix socket `name` ("myserver-stats" or
  // "@myserver-stats") and answers every client with a report of this tree
  // until the returned object is destroyed (TaskSchedulerStatsSocket.h).
  // Opt-in; checks the thread.
  std::unique_ptr<TaskSchedulerStatsSocket> statsSocketListen(std::string const& name);
  // Leaves `fd` open; false when the trace could not be written whole.
  bool historyRenderTraceEvents(int fd) const {
    return history()->renderTraceEvents(fd, schedulerName(), pid_);
  }

 private:
  void callback() override;

  std::set<TaskScheduler*> registeredSchedulers_;
  std::shared_ptr<Platform::CallbackControl> callbackControl_;
  std::shared_ptr<TimerWheel> timerWheel_;
  pthread_t thread_;
  pid_t pid_;
  char ownerThreadName_[16] = {};
  bool threadSanityDisabled_ = false;
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool followFastForward_;
  uint8_t taskTestYieldRatio_ = 0;
  unsigned int randomSeed_ = 0;
};

// The calling thread's root, made on first use: named "main" on the main
// thread and "thread:<pthread_self>" elsewhere, released at thread exit.
std::shared_ptr<TaskSchedulerRoot> schedulerRootTamlo();
// A new root of the given name, apart from the thread's own.
std::shared_ptr<TaskSchedulerRoot> schedulerRootTamloNonShared(std::string const& name);

}  // namespace Tamlo

#include <Tamlo/TaskSchedulerCpp.h>
