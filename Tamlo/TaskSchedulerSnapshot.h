// A copy of the statistics of one scheduler and, nested, of its task groups,
// taken at one moment so that rendering needs no access to the live tree. The
// JSON rendering writes through a TaskSchedulerPrintContext
// (TaskSchedulerPrintContext.h), whose text can be taken away in slices while
// rendering goes on: a writer that must not hold the event loop renders one
// scheduler object per step and writes what the descriptor takes.
//
// Threads: a snapshot holds counted references to names interned in its
// root's cache, and keeps that cache (the root's history) alive; it belongs to
// the root's thread. Render it there and hand the text to other threads.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Tamlo/ConstStringCache.h>
#include <Tamlo/TaskKey.h>
#include <Tamlo/TaskScheduler.h>
#include <Tamlo/TaskSchedulerHistory.h>
#include <Tamlo/TaskStat.h>
#include <Tamlo/TaskTime.h>

namespace Tamlo {

class TaskSchedulerPrintContext;

class TaskSchedulerSnapshot {
 public:
  // The display order's value for none: no "displayOrder" member.
  static constexpr uint32_t noDisplayOrder = 0xffffffffu;

  // One event of the history, numbered among all events the root recorded.
  struct HistoryEvent {
    uint64_t eventId;
    TaskSchedulerHistory::EventType eventType;
    TaskTimePoint time;
    ConstStringRef name;
  };

  // Use TaskScheduler::snapshot(), which checks the thread. Task groups are
  // found through their parent tasks among the registered tasks and copied
  // with the same flags, without history or display order.
  TaskSchedulerSnapshot(TaskScheduler const& scheduler, std::string const& name, bool includeAll,
                        bool includeCompleted, bool includeHistory, uint32_t displayOrder);

  // A scheduler's member name among its parent's "subSchedulers" and its
  // parent task's "subScheduler": the name and the address, "io@1402...".
  static std::string subSchedulerKey(TaskScheduler const& scheduler);

  std::string const& schedulerName() const { return schedulerName_; }
  std::string const& key() const { return key_; }
  uint32_t displayOrder() const { return displayOrder_; }
  bool isRootScheduler() const { return isRootScheduler_; }
  TaskSchedulerQueueStats const& queueStats() const { return queueStats_; }
  TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }
  std::vector<TaskStat> const& tasks() const { return tasks_; }
  uint32_t skipped() const { return skipped_; }
  std::vector<TaskStat> const& completedTasks() const { return completedTasks_; }
  uint32_t completedSkipped() const { return completedSkipped_; }
  std::vector<TaskSchedulerSnapshot> const& subSchedulers() const { return subSchedulers_; }
  bool includesHistory() const { return includesHistory_; }
  unsigned historyEntryCount() const { return historyEntryCount_; }
  // Oldest first.
  std::vector<HistoryEvent> const& historyEvents() const { return historyEvents_; }

  // The scheduler object, sub-schedulers nested.
  void renderJson(TaskSchedulerPrintContext& context) const;
  // The members of the scheduler object, for callers that add their own
  // members to the same object.
  void renderJsonImpl(TaskSchedulerPrintContext& context) const;
  // One task table ({"tasks": [...], "skipped": n}) under `key`.
  void renderJsonTasks(TaskSchedulerPrintContext& context, std::vector<TaskStat> const& stats,
                       char const* key, uint32_t skipped, bool completedTable) const;
  // The members before the task tables ("schedulerName" .. "maxSchedulerSlip"),
  // one task object, and the task records in table order (by total run time,
  // largest first): the pieces of renderJsonImpl, for renderers that write a
  // large scheduler a slice at a time.
  void renderJsonHeader(TaskSchedulerPrintContext& context) const;
  void renderJsonTask(TaskSchedulerPrintContext& context, TaskStat const& stat,
                      bool completedTable) const;
  static std::vector<TaskStat const*> sortedByRunTime(std::vector<TaskStat> const& stats);
  // "historyEntryCount" and "history", when the snapshot has them.
  void renderJsonHistory(TaskSchedulerPrintContext& context) const;
  std::string renderJsonToString() const;

 private:
  // First, so that the names below are released while their cache is there.
  std::shared_ptr<TaskSchedulerHistory> history_;
  std::string schedulerName_;
  std::string key_;
  uint32_t displayOrder_;
  bool isRootScheduler_;
  TaskSchedulerQueueStats queueStats_;
  TaskTimeDuration maxSchedulerSlip_;
  std::vector<TaskStat> tasks_;
  uint32_t skipped_ = 0;
  std::vector<TaskStat> completedTasks_;
  uint32_t completedSkipped_ = 0;
  // The parent tasks' keys and the keys of their groups.
  std::map<TaskKey, std::string> subSchedulerKeys_;
  std::vector<TaskSchedulerSnapshot> subSchedulers_;
  bool includesHistory_ = false;
  unsigned historyEntryCount_ = 0;
  std::vector<HistoryEvent> historyEvents_;
};

}  // namespace Tamlo
