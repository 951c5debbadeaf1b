#include <Tamlo/TaskSchedulerRenderJson.h>

#include <fcntl.h>

#include <algorithm>
#include <utility>

#include <Tamlo/Allocator.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>
#include <Tamlo/Task.h>
#include <Tamlo/TaskSchedulerPrintContext.h>
#include <fmt/format.h>

namespace Tamlo {
namespace Impl {

class JsonRenderJob::RenderTask : public Task {
 public:
  RenderTask(std::shared_ptr<TaskScheduler> scheduler, JsonRenderJob* job)
      : Task(std::move(scheduler), TaskPriority::low, "TaskSchedulerRenderJson"), job_(job) {}
  void taskExecute() override {
    if (job_ != nullptr)
      job_->run();
  }
  void jobIsGone() { job_ = nullptr; }

 private:
  JsonRenderJob* job_;
};

JsonRenderJob::JsonRenderJob(std::shared_ptr<TaskScheduler> const& scheduler, int fd,
                             std::vector<TaskSchedulerSnapshot> snapshots, bool includeHistory,
                             std::function<void(JsonRenderJob&)> onEnd)
    : snapshots_(std::move(snapshots)),
      context_(std::make_unique<TaskSchedulerPrintContext>()),
      onEnd_(std::move(onEnd)) {
  renderTask_ = makeShared<RenderTask>(scheduler, this);
  writer_ = makeShared<FdTextWriter>(scheduler, TaskPriority::low, "TaskSchedulerWriteJson", fd,
                                     [this] { renderTask_->scheduleTask(); });
  steps_.push_back([](TaskSchedulerPrintContext& context) {
    context.writer().StartObject();
    context.writer().Key("schedulers");
    context.writer().StartArray();
  });
  for (TaskSchedulerSnapshot const& snapshot : snapshots_)
    addSchedulerSteps(snapshot);
  steps_.push_back([this, includeHistory](TaskSchedulerPrintContext& context) {
    context.writer().EndArray();
    if (includeHistory && !snapshots_.empty())
      snapshots_.front().renderJsonHistory(context);
    context.writer().EndObject();
  });
  renderTask_->scheduleTask();
}

JsonRenderJob::~JsonRenderJob() {
  renderTask_->jobIsGone();
}

TaskImpl const& JsonRenderJob::renderTask() const {
  return *renderTask_;
}

void JsonRenderJob::addSchedulerSteps(TaskSchedulerSnapshot const& snapshot) {
  steps_.push_back([&snapshot](TaskSchedulerPrintContext& context) {
    context.writer().StartObject();
    snapshot.renderJsonHeader(context);
  });
  addTableSteps(snapshot, snapshot.tasks(), "tasks", snapshot.skipped(), false);
  if (!snapshot.completedTasks().empty())
    addTableSteps(snapshot, snapshot.completedTasks(), "completedTasks",
                  snapshot.completedSkipped(), true);
  steps_.push_back([](TaskSchedulerPrintContext& context) {
    context.writer().Key("subSchedulers");
    context.writer().StartObject();
  });
  for (TaskSchedulerSnapshot const& sub : snapshot.subSchedulers()) {
    steps_.push_back([&sub](TaskSchedulerPrintContext& context) {
      context.writer().Key(sub.key().data(), rapidjson::SizeType(sub.key().size()));
    });
    addSchedulerSteps(sub);
    // addSchedulerSteps closes the sub-scheduler's object itself.
  }
  steps_.push_back([](TaskSchedulerPrintContext& context) {
    context.writer().EndObject();
    context.writer().EndObject();
  });
}

void JsonRenderJob::addTableSteps(TaskSchedulerSnapshot const& snapshot,
                                  std::vector<TaskStat> const& stats, char const* key,
                                  uint32_t skipped, bool completedTable) {
  size_t const table = sortedTables_.size();
  sortedTables_.emplace_back();
  steps_.push_back([this, &stats, key, table](TaskSchedulerPrintContext& context) {
    sortedTables_[table] = TaskSchedulerSnapshot::sortedByRunTime(stats);
    context.writer().Key(key);
    context.writer().StartObject();
    context.writer().Key("tasks");
    context.writer().StartArray();
  });
  for (size_t first = 0; first < stats.size(); first += tasksPerStep) {
    size_t const last = std::min(stats.size(), first + tasksPerStep);
    steps_.push_back(
        [this, &snapshot, table, first, last, completedTable](TaskSchedulerPrintContext& context) {
          for (size_t i = first; i < last; ++i)
            snapshot.renderJsonTask(context, *sortedTables_[table][i], completedTable);
        });
  }
  steps_.push_back([this, skipped, table](TaskSchedulerPrintContext& context) {
    sortedTables_[table] = {};
    context.writer().EndArray();
    context.writer().Key("skipped");
    context.writer().Uint(skipped);
    context.writer().EndObject();
  });
}

void JsonRenderJob::handOver() {
  if (!context_->text().empty())
    writer_->append(context_->takeText());
}

void JsonRenderJob::run() {
  if (writer_->ended()) {
    // The caller may destroy the job: nothing of it is touched afterwards.
    auto onEnd = std::move(onEnd_);
    if (onEnd)
      onEnd(*this);
    return;
  }
  while (nextStep_ < steps_.size()) {
    if (writer_->pendingBytes() + context_->text().size() > highWaterBytes) {
      // The writer's progress schedules the next run.
      handOver();
      return;
    }
    steps_[nextStep_++](*context_);
    if (renderTask_->taskShouldYield()) {
      handOver();
      renderTask_->scheduleTask();
      return;
    }
  }
  handOver();
  writer_->finish();
}

}  // namespace Impl

void TaskScheduler::snapshotRenderJsonAsync(int fd, bool includeAll, bool includeCompleted,
                                            bool includeHistory,
                                            std::function<void(bool written)> done) {
  root_->sanityCheckCurrentRunningThread();
  int const flags = ::fcntl(fd, F_GETFL);
  if (flags < 0)
    RuntimeException::throwException(
        fmt::format("fd {} cannot be written: {}", fd, Tamlo::strerror(errno)));
  if ((flags & O_NONBLOCK) != 0)
    UnimplementedException::throwException(fmt::format("fd {} is non-blocking, not supported", fd));
  std::vector<TaskSchedulerSnapshot> snapshots;
  snapshots.push_back(snapshot(std::string(), includeAll, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::noDisplayOrder));
  // The job owns itself until it ends.
  auto holder = std::make_shared<std::shared_ptr<Impl::JsonRenderJob>>();
  *holder = makeShared<Impl::JsonRenderJob>(
      std::static_pointer_cast<TaskScheduler>(shared_from_this()), fd, std::move(snapshots),
      includeHistory, [holder, done = std::move(done)](Impl::JsonRenderJob& job) {
        bool const written = job.writer().completed();
        std::shared_ptr<Impl::JsonRenderJob> const keep = std::move(*holder);
        if (done)
          done(written);
      });
}

}  // namespace Tamlo
