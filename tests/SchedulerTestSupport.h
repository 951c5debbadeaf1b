// Shared by the scheduler tests: a task running a body given by the test.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>

#include "TestSupport.h"

namespace Tamlo::Test {

struct FunctionTask : Task {
  using Body = std::function<void(FunctionTask&)>;
  FunctionTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
               std::string const& name, Body body = {})
      : Task(std::move(scheduler), priority, name), body(std::move(body)) {}
  void taskExecute() override { body ? body(*this) : void(); }
  Body body;
};

// makeTask(scheduler, priority, name[, body])
inline std::shared_ptr<FunctionTask> makeTask(auto&&... arguments) {
  return makeShared<FunctionTask>(std::forward<decltype(arguments)>(arguments)...);
}

// A root that measures runs in virtual time; the caller switches fast-forward off.
inline std::shared_ptr<TaskSchedulerRoot> virtualTimeRoot(std::string const& name) {
  Platform::setFastForward(true);
  return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

// Journals the task's name and schedules it again until it has run `runs` times.
inline FunctionTask::Body journalRuns(std::string& journal, uint64_t runs) {
  return [&journal, runs](FunctionTask& task) {
    journal += task.taskName();
    if (task.taskRunCount() < runs)
      task.scheduleTask();
  };
}

// Reads to the end, or until a non-blocking descriptor has nothing more.
inline std::string readAll(int fd) {
  std::string text;
  char buffer[65536];
  for (ssize_t count; (count = ::read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, size_t(count));
  return text;
}

// What `render` writes to a descriptor; the seek fails if it closed it.
inline std::string renderedTo(auto render) {
  int const fd = ::memfd_create("report", MFD_CLOEXEC);
  render(fd);
  EXPECT_EQ(::lseek(fd, 0, SEEK_SET), 0);
  std::string const text = readAll(fd);
  ::close(fd);
  return text;
}

}  // namespace Tamlo::Test
