// Tasks that become runnable after a delay.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <Tamlo/TaskScheduler.h>
#include <Tamlo/TimerWheel.h>

namespace Tamlo {

// A task whose timer, one event on the timer wheel of its scheduler tree's
// root, puts it on its run queue when the delay has passed; it then runs at
// its own priority and within its quantum like any scheduled task. Client
// code derives from it and implements taskExecute().
//
// Delays come as nanoseconds or as seconds in a double. scheduleTaskDelay
// replaces any running expiry, earlier or later; scheduleTaskLowestDelay only
// ever brings it forward; the jitter forms move the delay by a random offset
// of up to a percentage of it. A zero delay makes the task runnable now; the
// largest nanosecond count and +infinity mean never and stop the timer.
//
// Promises: the task is on its run queue, or has its timer running, or
// neither, never both. Jitter is drawn from the root's rand_r seed, which
// starts at 0 and is shared with the root's other draws, so a process that
// makes the same draws gets the same offsets on every run. Misuse that would
// break the timer (jitter above 100%, a lowest delay of never, a NaN delay)
// aborts the process at once through the C library's assertion failure.
//
// Threads: none. Every operation checks that it runs on the root's thread;
// the wheel calls timeout() from the same thread's event loop.
class TimerTask : public TaskImpl, private TimerWheelEvent {
 public:
  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            std::string const& name);
  // Takes the scheduler's owning pointer; throws std::bad_weak_ptr for a
  // scheduler that no shared pointer owns.
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);
  // Stops the timer; a failure doing so terminates the process.
  ~TimerTask() override;

  // On the run queue, or the timer running. Never throws.
  bool taskScheduled() const noexcept override;
  // Runnable now: a running timer is stopped first.
  void scheduleTask() override;
  // Stops a running timer, then runs the task as TaskImpl does.
  void taskRunFromTest() override;
  // The task's status with the timer bit set and the timer-running bit.
  TaskStat::TaskStatus taskStatus() const override;
  // The wheel's expiry: the task goes on its run queue.
  void timeout() override;

  void scheduleTaskDelay(std::chrono::nanoseconds delay);
  void scheduleTaskDelay(double seconds);
  // delay + a random offset of 0..maxJitterPercentage% of delay, in steps of
  // a hundredth of the largest offset. Above 100% aborts.
  void scheduleTaskJitterUp(std::chrono::nanoseconds delay, uint8_t maxJitterPercentage);
  void scheduleTaskJitterUp(double seconds, uint8_t maxJitterPercentage);
  // delay - the same offset.
  void scheduleTaskJitterDown(std::chrono::nanoseconds delay, uint8_t maxJitterPercentage);
  void scheduleTaskJitterDown(double seconds, uint8_t maxJitterPercentage);
  // Arms the timer only if that brings the expiry forward; a queued task
  // stays queued. Never (max or +infinity) aborts.
  void scheduleTaskLowestDelay(std::chrono::nanoseconds delay);
  void scheduleTaskLowestDelay(double seconds);
  // Stops the timer and takes the task off its run queue.
  void stopTimerTask();

  bool timerRunning() const { return timerRunning_; }
  // Seconds until the expiry: +infinity when not armed, 0 once it has passed.
  double timerRemaining() const;
  // When the task is due: now when queued, +infinity when idle, else the
  // timer's expiry on Tamlo::time()'s clock.
  double currentExpirationTime() const;

 private:
  template <typename Delay>
  void _scheduleTaskJitterUp(Delay delay, uint8_t maxJitterPercentage);
  template <typename Delay>
  void _scheduleTaskJitterDown(Delay delay, uint8_t maxJitterPercentage);
  template <typename Delay>
  void _scheduleTaskLowestDelay(Delay delay);
  template <typename Delay>
  void scheduleTaskDelayedPrivate(Delay delay, bool restart);
  template <typename Delay>
  Delay jitterOffset(Delay delay, uint8_t maxJitterPercentage);
  bool doStartTimer(double seconds, bool restart);
  void doStopTimer() noexcept;

  bool timerRunning_ = false;
};

}  // namespace Tamlo
