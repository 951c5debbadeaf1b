// The text report of a scheduler tree. The column layouts are printf-style
// formats applied with Boost.Format, so that every line keeps its exact width
// whatever the values; tools that read these reports rely on that.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <boost/format.hpp>

#include <Tamlo/FdToStream.h>
#include <Tamlo/TaskScheduler.h>
#include <Tamlo/TaskSchedulerSnapshot.h>

namespace Tamlo {

namespace {

struct LegendLine {
  char const* label;
  char const* explanation;
};

// Up to "MaxMs", then the "Completed" line when a completed table follows,
// then the work columns.
constexpr LegendLine kLegendRunColumns[] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task or blank"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
};
constexpr LegendLine kLegendCompleted = {"Completed",
                                         "= Number of times a task with this name has completed"};
constexpr LegendLine kLegendWorkColumns[] = {
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

constexpr char kHeaderLive[] = "%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s";
constexpr char kHeaderCompleted[] = "%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s";
constexpr char kRowLive[] = "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s";
constexpr char kRowCompleted[] =
    "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s";

double seconds(TaskTimeDuration duration) {
  return static_cast<double>(duration.count()) / 1e9;
}

std::string markText(TaskMaybeU32 mark) {
  return mark.hasValue() ? boost::str(boost::format("%u") % mark.raw()) : std::string("-");
}

void writeLegendLine(std::ostream& os, LegendLine const& line) {
  // The explanation is an argument, so its "%" is printed as it stands.
  os << boost::format("%-17s %s\n") % line.label % line.explanation;
}

}  // namespace

uint32_t TaskScheduler::getTaskStats(std::vector<TaskStat>* stats, bool includeAll) const {
  uint32_t skipped = 0;
  for (TaskImpl const& task : registeredTasks_) {
    if (includeAll || task.taskRunCount() > 0)
      stats->push_back(task.getStats());
    else
      ++skipped;
  }
  return skipped;
}

uint32_t TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* stats, bool includeAll) const {
  uint32_t skipped = 0;
  for (auto const& [statsName, stat] : completedTaskStats_) {
    if (includeAll || stat.taskRunCount() > 0)
      stats->push_back(stat);
    else
      ++skipped;
  }
  return skipped;
}

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& os, bool includeAll, bool showKeys,
                                                bool includeCompleted, bool /*reserved*/) const {
  sanityCheckCurrentRunningThread();
  std::vector<TaskStat> tasks;
  std::vector<TaskStat> completed;
  unsigned skipped = 0;
  unsigned completedSkipped = 0;
  for (TaskScheduler const* scheduler : registeredSchedulers_) {
    skipped += scheduler->getTaskStats(&tasks, includeAll);
    if (includeCompleted)
      completedSkipped += scheduler->getCompletedTaskStats(&completed, includeAll);
  }
  statsRenderTextImpl(os, queueStatsRoot(), schedulerLatencyHighWaterMark(), &tasks, skipped,
                      includeCompleted ? &completed : nullptr, completedSkipped, showKeys);
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeAll, bool showKeys,
                                                bool includeCompleted, bool reserved) const {
  FdToStream out(fd, boost::iostreams::never_close_handle);
  statsRenderTextForDebug(out, includeAll, showKeys, includeCompleted, reserved);
  out.close();
}

std::string TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeAll, bool showKeys,
                                                               bool includeCompleted,
                                                               bool reserved) const {
  std::ostringstream os;
  statsRenderTextForDebug(os, includeAll, showKeys, includeCompleted, reserved);
  return std::move(os).str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
  statsRenderTextForDebug(std::cerr, true, true, true, false);
  std::cerr.flush();
}

void TaskSchedulerRoot::statsRenderTextImpl(std::ostream& os, TaskSchedulerQueueStats const& queues,
                                            TaskTimeDuration maxSlip,
                                            std::vector<TaskStat> const* tasks, unsigned skipped,
                                            std::vector<TaskStat> const* completed,
                                            unsigned completedSkipped, bool showKeys) {
  os << boost::format("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
            "DoneCount" % "TotalRunCount";
  for (auto const& [priority, counts] : queues) {
    os << boost::format("%-8s %13u %13u %9u %15lu\n") % priority.toStrep() % counts.runnableTasks %
              counts.idleTasks % counts.completedTasks % counts.totalRunCount;
  }
  os << boost::format("Maximum scheduler slip %.6f seconds\n") % seconds(maxSlip) << '\n';

  for (LegendLine const& line : kLegendRunColumns)
    writeLegendLine(os, line);
  if (completed != nullptr)
    writeLegendLine(os, kLegendCompleted);
  for (LegendLine const& line : kLegendWorkColumns)
    writeLegendLine(os, line);

  statsRenderTextTasks(os, tasks != nullptr ? *tasks : std::vector<TaskStat>(), "TaskName", skipped,
                       false, showKeys);
  if (completed != nullptr)
    statsRenderTextTasks(os, *completed, "TaskName (completed)", completedSkipped, true, false);
}

void TaskSchedulerRoot::statsRenderTextTasks(std::ostream& os, std::vector<TaskStat> const& stats,
                                             std::string const& title, unsigned skipped,
                                             bool completedTable, bool showKeys) {
  std::vector<TaskStat const*> const sorted = TaskSchedulerSnapshot::sortedByRunTime(stats);
  std::vector<std::string> names;
  names.reserve(sorted.size());
  size_t width = 0;
  for (TaskStat const* stat : sorted) {
    names.push_back(showKeys ? stat->taskName() + stat->taskKey().toStrep() : stat->taskName());
    width = std::max(width, names.back().size());
  }
  auto const padding = [width](std::string const& text) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ');
  };

  boost::format header(completedTable ? kHeaderCompleted : kHeaderLive);
  header % title % padding(title) % "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" %
      "500%" % "MaxMs";
  if (completedTable)
    header % "Completed";
  os << header % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending" << '\n';

  for (size_t i = 0; i < sorted.size(); ++i) {
    TaskStat const& stat = *sorted[i];
    boost::format row(completedTable ? kRowCompleted : kRowLive);
    // Truncated: a run shorter than a millisecond shows 0.
    auto const maxMs = static_cast<unsigned>(stat.taskRunTimeHighWaterMark().count() / 1'000'000);
    row % names[i] % padding(names[i]) % stat.taskStatusString() % stat.taskRunCount() %
        seconds(stat.taskTotalRunTime()) % seconds(stat.taskLastSchedulingLatency()) %
        seconds(stat.taskSchedulingLatencyHighWaterMark()) % stat.taskQuantumViolation200() %
        stat.taskQuantumViolation500() % maxMs;
    if (completedTable)
      row % stat.taskCompletedCount();
    row % boost::str(boost::format("%lu") % stat.taskWorkCountTotal()) %
        boost::str(boost::format("%6.1f") % double{stat.taskWorkCountDecayingAvg()}) %
        markText(stat.taskWorkCountHighWaterMark()) %
        boost::str(boost::format("%u") % stat.taskWorkPending()) %
        markText(stat.taskWorkPendingHighWaterMark());
    os << row << '\n';
  }
  if (skipped != 0)
    os << boost::format("Skipped %u task%s with no runs\n") % skipped % (skipped >= 2 ? "s" : "");
}

}  // namespace Tamlo
