// Inline parts of the scheduler: the pieces on the path of every schedule and
// every run. Included at the end of TaskScheduler.h.
#pragma once

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include <Tamlo/Assert.h>
#include <Tamlo/TaskScheduler.h>

namespace Tamlo {

namespace Impl {
// The scheduler's clock: steady, nanoseconds since boot. The same reading as
// std::chrono::steady_clock::now(), taken without the detour through the
// C++ runtime: it is on the path of every schedule and every run.
inline TaskTimePoint taskTimeNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return TaskTimePoint(TaskTimeDuration(int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec));
}

// Hands `message` to the C library's assertion failure, attributed to this
// header, and aborts: nothing is traced and nothing can catch it.
[[noreturn, gnu::cold]] void taskFatalAssertFail(std::string const& message, unsigned line,
                                                 char const* function);
}  // namespace Impl

// The internal invariants of timer tasks, descriptor tasks and task groups
// use this check rather than TAMLO_ASSERT: a broken one aborts at once, even
// where assertions are set to throw. The message is an fmt format string.
#define TAMLO_TASK_FATAL_ASSERT(condition, ...)                                           \
  do {                                                                                    \
    if (!(condition)) [[unlikely]]                                                        \
      ::Tamlo::Impl::taskFatalAssertFail(::fmt::format(__VA_ARGS__), __LINE__, __func__); \
  } while (0)

inline void _TaskBase::taskHistoryInsert(TaskTimePoint now,
                                         TaskSchedulerHistory::EventType type) const {
  taskScheduler_->history()->insertTaskEvent(now, type, taskDisplayName_);
}

inline void TaskScheduler::checkPriority(TaskPriority priority) const {
  TAMLO_ASSERT(priority.value() < runQueueCount, "Priority: {} has no run queue",
               unsigned{priority.value()});
}

inline TaskRunQueue& TaskScheduler::taskRunQueue(TaskPriority priority) {
  checkPriority(priority);
  return taskRunQueues_[priority.value()];
}

inline TaskRunQueue const& TaskScheduler::taskRunQueue(TaskPriority priority) const {
  checkPriority(priority);
  return taskRunQueues_[priority.value()];
}

inline void TaskSchedulerRoot::sanityCheckCurrentRunningThread() const {
  if (threadSanityDisabled_ || auxThreadCount.load(std::memory_order_relaxed) != 0)
    return;
  pthread_t const self = pthread_self();
  if (pthread_equal(self, thread_) != 0) [[likely]]
    return;
  // A forked child runs on another thread than the one that built the root,
  // and is the only user of its copy.
  TAMLO_ASSERT(getpid() != pid_,
               "Executing in wrong thread {}({}) pid {} scheduler belongs to thread {}({}) pid {}",
               static_cast<unsigned long>(self), currentThreadName(), getpid(),
               static_cast<unsigned long>(thread_), ownerThreadName_, pid_);
}

}  // namespace Tamlo
