#include <Tamlo/TaskSchedulerSnapshot.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string_view>

#include <Tamlo/TaskGroup.h>
#include <Tamlo/TaskSchedulerPrintContext.h>
#include <fmt/format.h>

namespace Tamlo {

namespace {

double seconds(TaskTimeDuration duration) {
  return static_cast<double>(duration.count()) / 1e9;
}

void writeKey(TaskSchedulerPrintContext::Writer& writer, std::string_view key) {
  writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

// A literal's length is known here; the writer would otherwise measure it
// again for each of the tens of thousands of keys a large tree has.
template <size_t N>
void writeKey(TaskSchedulerPrintContext::Writer& writer, char const (&key)[N]) {
  writer.Key(key, N - 1);
}

void writeString(TaskSchedulerPrintContext::Writer& writer, std::string_view text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

// TaskPriority::toStrep(), made once per priority rather than per task.
void writePriority(TaskSchedulerPrintContext::Writer& writer, TaskPriority priority) {
  static std::string const names[] = {
      TaskPriority(TaskPriority::absolute).toStrep(), TaskPriority(TaskPriority::high).toStrep(),
      TaskPriority(TaskPriority::normal).toStrep(), TaskPriority(TaskPriority::low).toStrep(),
      TaskPriority(TaskPriority::scavenge).toStrep()};
  if (priority.value() < std::size(names))
    writeString(writer, names[priority.value()]);
  else
    writeString(writer, priority.toStrep());
}

}  // namespace

TaskSchedulerSnapshot::TaskSchedulerSnapshot(TaskScheduler const& scheduler,
                                             std::string const& name, bool includeAll,
                                             bool includeCompleted, bool includeHistory,
                                             uint32_t displayOrder)
    : history_(scheduler.history()),
      schedulerName_(name.empty() ? scheduler.schedulerName() : name),
      key_(subSchedulerKey(scheduler)),
      displayOrder_(displayOrder),
      isRootScheduler_(&scheduler == scheduler.root()),
      queueStats_(scheduler.queueStats()),
      maxSchedulerSlip_(scheduler.schedulerLatencyHighWaterMark()) {
  skipped_ = scheduler.getTaskStats(&tasks_, includeAll);
  if (includeCompleted)
    completedSkipped_ = scheduler.getCompletedTaskStats(&completedTasks_, includeAll);
  for (TaskImpl const& task : scheduler.registeredTasks()) {
    TaskGroup const* const group = task.isTaskGroup();
    if (group == nullptr)
      continue;
    subSchedulerKeys_.emplace(TaskKey(&task), subSchedulerKey(*group));
    subSchedulers_.emplace_back(*group, std::string(), includeAll, includeCompleted, false,
                                noDisplayOrder);
  }
  if (includeHistory) {
    includesHistory_ = true;
    historyEntryCount_ = history_->entryCount();
    size_t const count = history_->eventCount();
    historyEvents_.reserve(count);
    for (size_t i = count; i-- > 0;) {
      TaskSchedulerHistory::Event const& event = history_->event(i);
      historyEvents_.push_back(
          {history_->eventsRecorded() - 1 - i, event.eventType(), event.time(), event.name()});
    }
  }
}

std::string TaskSchedulerSnapshot::subSchedulerKey(TaskScheduler const& scheduler) {
  return scheduler.schedulerName() + TaskKey(&scheduler).toStrep();
}

void TaskSchedulerSnapshot::renderJson(TaskSchedulerPrintContext& context) const {
  context.writer().StartObject();
  renderJsonImpl(context);
  context.writer().EndObject();
}

void TaskSchedulerSnapshot::renderJsonImpl(TaskSchedulerPrintContext& context) const {
  renderJsonHeader(context);
  renderJsonTasks(context, tasks_, "tasks", skipped_, false);
  if (!completedTasks_.empty())
    renderJsonTasks(context, completedTasks_, "completedTasks", completedSkipped_, true);

  auto& writer = context.writer();
  writeKey(writer, "subSchedulers");
  writer.StartObject();
  for (TaskSchedulerSnapshot const& sub : subSchedulers_) {
    writeKey(writer, sub.key_);
    sub.renderJson(context);
  }
  writer.EndObject();
  renderJsonHistory(context);
}

void TaskSchedulerSnapshot::renderJsonHeader(TaskSchedulerPrintContext& context) const {
  auto& writer = context.writer();
  writeKey(writer, "schedulerName");
  writeString(writer, schedulerName_);
  if (displayOrder_ != noDisplayOrder) {
    writeKey(writer, "displayOrder");
    writer.Uint(displayOrder_);
  }
  writeKey(writer, "isRootScheduler");
  writer.Bool(isRootScheduler_);

  writeKey(writer, "priorityStats");
  writer.StartObject();
  for (auto const& [priority, counts] : queueStats_) {
    writeKey(writer, priority.toStrep());
    writer.StartObject();
    writeKey(writer, "runnableTasks");
    writer.Uint(counts.runnableTasks);
    writeKey(writer, "idleTasks");
    writer.Uint64(counts.idleTasks);
    writeKey(writer, "completedTasks");
    writer.Uint64(counts.completedTasks);
    writeKey(writer, "totalRunCount");
    writer.Uint64(counts.totalRunCount);
    writer.EndObject();
  }
  writer.EndObject();

  writeKey(writer, "maxSchedulerSlip");
  writer.Double(seconds(maxSchedulerSlip_));
}

void TaskSchedulerSnapshot::renderJsonTasks(TaskSchedulerPrintContext& context,
                                            std::vector<TaskStat> const& stats, char const* key,
                                            uint32_t skipped, bool completedTable) const {
  auto& writer = context.writer();
  writer.Key(key);
  writer.StartObject();
  writeKey(writer, "tasks");
  writer.StartArray();
  for (TaskStat const* stat : sortedByRunTime(stats))
    renderJsonTask(context, *stat, completedTable);
  writer.EndArray();
  writeKey(writer, "skipped");
  writer.Uint(skipped);
  writer.EndObject();
}

std::vector<TaskStat const*> TaskSchedulerSnapshot::sortedByRunTime(
    std::vector<TaskStat> const& stats) {
  std::vector<TaskStat const*> sorted;
  sorted.reserve(stats.size());
  for (TaskStat const& stat : stats)
    sorted.push_back(&stat);
  std::stable_sort(sorted.begin(), sorted.end(), [](TaskStat const* a, TaskStat const* b) {
    return a->taskTotalRunTime() > b->taskTotalRunTime();
  });
  return sorted;
}

void TaskSchedulerSnapshot::renderJsonTask(TaskSchedulerPrintContext& context,
                                           TaskStat const& statRef, bool completedTable) const {
  TaskStat const* const stat = &statRef;
  auto& writer = context.writer();
  TaskStat::TaskStatus const status = stat->taskStatus();
  writer.StartObject();
  writeKey(writer, "name");
  writeString(writer, stat->taskName());
  if (!completedTable) {
    writeKey(writer, "address");
    // As TaskKey::toStrep(), without a string or a format parse per task.
    fmt::format_int const digits(stat->taskKey().value());
    char address[24] = {'@'};
    std::memcpy(address + 1, digits.data(), digits.size());
    writer.String(address, rapidjson::SizeType(digits.size() + 1));
  }
  writeKey(writer, "priority");
  writePriority(writer, stat->taskPriority());
  if (status.taskIsTaskGroup()) {
    // A completed parent task's group is gone; only live ones have a key.
    auto const sub = subSchedulerKeys_.find(stat->taskKey());
    if (!completedTable && sub != subSchedulerKeys_.end()) {
      writeKey(writer, "subScheduler");
      writeString(writer, sub->second);
    }
  }
  writeKey(writer, "onRunQueue");
  writer.Bool(status.taskOnRunQueue());
  writeKey(writer, "currentlyRunning");
  writer.Bool(status.taskCurrentlyRunning());
  writeKey(writer, "suspended");
  writer.Bool(status.taskSuspended());
  writeKey(writer, "hasTimer");
  writer.Bool(status.taskTimer());
  writeKey(writer, "timerRunning");
  writer.Bool(status.taskTimerRunning());
  writeKey(writer, "runCount");
  writer.Uint64(stat->taskRunCount());
  writeKey(writer, "totalRunTime");
  writer.Double(seconds(stat->taskTotalRunTime()));
  writeKey(writer, "lastSchedulingLatency");
  writer.Double(seconds(stat->taskLastSchedulingLatency()));
  writeKey(writer, "schedulingLatencyHighWaterMark");
  writer.Double(seconds(stat->taskSchedulingLatencyHighWaterMark()));
  writeKey(writer, "qv200");
  writer.Uint(stat->taskQuantumViolation200());
  writeKey(writer, "qv500");
  writer.Uint(stat->taskQuantumViolation500());
  writeKey(writer, "maxMs");
  // Truncated to whole milliseconds, as in the text report.
  writer.Uint64(static_cast<uint64_t>(stat->taskRunTimeHighWaterMark().count() / 1'000'000));
  if (completedTable) {
    writeKey(writer, "completedCount");
    writer.Uint64(stat->taskCompletedCount());
  }
  if (stat->taskWorkCountHighWaterMark().hasValue()) {
    writeKey(writer, "workCount");
    writer.StartObject();
    writeKey(writer, "total");
    writer.Uint64(stat->taskWorkCountTotal());
    writeKey(writer, "decayingAvg");
    writer.Double(stat->taskWorkCountDecayingAvg());
    writeKey(writer, "highwater");
    writer.Uint(stat->taskWorkCountHighWaterMark().raw());
    writer.EndObject();
    writeKey(writer, "workPending");
    writer.StartObject();
    writeKey(writer, "pending");
    writer.Uint(stat->taskWorkPending());
    writeKey(writer, "highwater");
    writer.Uint(stat->taskWorkPendingHighWaterMark().valueOr(0));
    writer.EndObject();
  }
  writer.EndObject();
}

void TaskSchedulerSnapshot::renderJsonHistory(TaskSchedulerPrintContext& context) const {
  if (!includesHistory_)
    return;
  auto& writer = context.writer();
  writeKey(writer, "historyEntryCount");
  writer.Uint(historyEntryCount_);
  writeKey(writer, "history");
  writer.StartArray();
  for (HistoryEvent const& event : historyEvents_) {
    writer.StartObject();
    writeKey(writer, "eventId");
    writer.Uint64(event.eventId);
    writeKey(writer, "nsSinceBoot");
    writer.Int64(event.time.time_since_epoch().count());
    writeKey(writer, "eventType");
    writeString(writer, TaskSchedulerHistory::eventTypeDisplay(event.eventType));
    writeKey(writer, "name");
    writeString(writer, event.name.text());
    writer.EndObject();
  }
  writer.EndArray();
}

std::string TaskSchedulerSnapshot::renderJsonToString() const {
  TaskSchedulerPrintContext context;
  renderJson(context);
  return context.takeText();
}

TaskSchedulerSnapshot TaskScheduler::snapshot(std::string const& name, bool includeAll,
                                              bool includeCompleted, bool includeHistory,
                                              unsigned displayOrder) const {
  root_->sanityCheckCurrentRunningThread();
  return TaskSchedulerSnapshot(*this, name, includeAll, includeCompleted, includeHistory,
                               displayOrder);
}

void TaskScheduler::statsRenderJson(std::ostream& os, bool includeAll, bool includeCompleted,
                                    bool includeHistory) const {
  os << statsRenderJsonToString(includeAll, includeCompleted, includeHistory);
}

std::string TaskScheduler::statsRenderJsonToString(bool includeAll, bool includeCompleted,
                                                   bool includeHistory) const {
  return snapshot(std::string(), includeAll, includeCompleted, includeHistory,
                  TaskSchedulerSnapshot::noDisplayOrder)
      .renderJsonToString();
}

}  // namespace Tamlo
