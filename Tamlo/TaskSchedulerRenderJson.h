// Scheduler snapshots rendered as JSON to a descriptor by tasks, a slice at
// a time: the render task "TaskSchedulerRenderJson" writes the envelope
//
//   {"schedulers": [<scheduler object>, ...],
//    "historyEntryCount": n, "history": [...]}   (history when asked for)
//
// into a buffer, one step (a scheduler's opening members, up to 256 task
// objects, a closing) at a time, stops when its quantum is used or when the
// writer (FdTextWriter.h) has more than highWaterBytes waiting, and hands the
// text to the writer, whose fd task writes what the descriptor takes. So a
// large rendering never holds the event loop for much more than a quantum,
// and memory stays bounded whatever the reader's pace.
//
// `onEnd` is called once, from the render task's run, after the writer
// completed or failed; it may destroy the job. The descriptor is the
// caller's and is never closed here. Single-thread: the scheduler's thread.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include <Tamlo/FdTextWriter.h>
#include <Tamlo/TaskSchedulerSnapshot.h>

namespace Tamlo {

class TaskSchedulerPrintContext;

namespace Impl {

class JsonRenderJob {
 public:
  static constexpr size_t highWaterBytes = 256 * 1024;
  static constexpr size_t tasksPerStep = 256;

  JsonRenderJob(std::shared_ptr<TaskScheduler> const& scheduler, int fd,
                std::vector<TaskSchedulerSnapshot> snapshots, bool includeHistory,
                std::function<void(JsonRenderJob&)> onEnd);
  ~JsonRenderJob();
  JsonRenderJob(JsonRenderJob const&) = delete;
  JsonRenderJob& operator=(JsonRenderJob const&) = delete;

  FdTextWriter const& writer() const { return *writer_; }
  TaskImpl const& renderTask() const;

 private:
  class RenderTask;
  using Step = std::function<void(TaskSchedulerPrintContext&)>;

  void addSchedulerSteps(TaskSchedulerSnapshot const& snapshot);
  void addTableSteps(TaskSchedulerSnapshot const& snapshot, std::vector<TaskStat> const& stats,
                     char const* key, uint32_t skipped, bool completedTable);
  void run();
  void handOver();

  std::vector<TaskSchedulerSnapshot> snapshots_;
  std::vector<std::vector<TaskStat const*>> sortedTables_;
  std::vector<Step> steps_;
  size_t nextStep_ = 0;
  std::unique_ptr<TaskSchedulerPrintContext> context_;
  std::function<void(JsonRenderJob&)> onEnd_;
  std::shared_ptr<RenderTask> renderTask_;
  std::shared_ptr<FdTextWriter> writer_;
};

}  // namespace Impl
}  // namespace Tamlo
