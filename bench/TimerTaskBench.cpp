// The cost of timer tasks and task groups against the bare mechanisms they
// are built on, measured in the same run:
//   wheelTimerChurn   100,000 timer-wheel controls (getTimerControl(handler,
//                     wheel)) with random delays of 1 ms to 10 s, each armed
//                     again with a new random delay when it fires; virtual
//                     time runs 2 s per iteration. The baseline of (a).
//   timerTaskChurn    the same with 100,000 timer tasks re-arming from their
//                     run: the wheel's expiry, the run queue and the run.
//   Both run with two drivers of virtual time: /0 the library's fast-forward
//   loop, doEventLoop(2.0), whose every pass ends after one scheduler run;
//   /1 a tick at a time, fastForwardBy(10 ms) and then a non-blocking loop
//   that serves everything that became due and every scheduler run.
//   taskDispatch      one task that schedules itself again, runsPerBatch runs:
//                     the event-loop turn every task run costs, for reading
//                     the churn figures.
//   rootTasks         1,000 tasks that schedule themselves again, directly
//                     under a root, until runsPerBatch runs. The baseline of (b).
//   groupTasks        the same tasks inside one TaskGroup.
// Times are per delivered run. The ratios and the bytes one TimerTask and one
// TaskTimerControl occupy are printed at the end.
#include <benchmark/benchmark.h>

#include "Footprint.h"
#include "RatioReporter.h"

#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <event2/event.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>
#include <Tamlo/TaskControl.h>
#include <Tamlo/TaskGroup.h>
#include <Tamlo/TimerTask.h>
#include <Tamlo/TimerWheel.h>

namespace {

constexpr int churnTimerCount = 100'000;
constexpr double churnVirtualSeconds = 2.0;
constexpr int groupTaskCount = 1000;
constexpr int64_t runsPerBatch = 100'000;

// Delays of 1 ms to 10 s from a fixed xorshift sequence, the same for both
// sides of the comparison.
class RandomDelay {
 public:
  double next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return 0.001 + static_cast<double>(state_ >> 11) / 9007199254740992.0 * (10.0 - 0.001);
  }

 private:
  uint64_t state_ = 0x9e3779b97f4a7c15u;
};

// Fast-forward for the length of one benchmark: the loop jumps to each
// master-timer expiry instead of waiting for it.
class VirtualTime {
 public:
  VirtualTime() { Tamlo::Platform::setFastForward(true); }
  ~VirtualTime() { Tamlo::Platform::setFastForward(false); }
  VirtualTime(VirtualTime const&) = delete;
  VirtualTime& operator=(VirtualTime const&) = delete;
};

// Runs `seconds` of virtual time with the driver `tickByTick` selects.
void runVirtualTime(double seconds, bool tickByTick) {
  if (!tickByTick) {
    Tamlo::Platform::doEventLoop(seconds);
    return;
  }
  double const deadline = Tamlo::time() + seconds;
  while (Tamlo::time() < deadline) {
    Tamlo::Platform::fastForwardBy(0.01);
    event_base_loop(Tamlo::ev_base, EVLOOP_NONBLOCK);
  }
}

// ---- (a) timer churn ----

class WheelTimer : public Tamlo::Platform::TimeoutHandler {
 public:
  WheelTimer(std::shared_ptr<Tamlo::TimerWheel> wheel, RandomDelay* random, int64_t* runs)
      : control_(Tamlo::Platform::getTimerControl(this, std::move(wheel))),
        random_(random),
        runs_(runs) {
    control_->setTimeout(random_->next());
  }
  ~WheelTimer() override { control_->delTimeout(); }
  WheelTimer(WheelTimer const&) = delete;
  WheelTimer& operator=(WheelTimer const&) = delete;

  void timeout() override {
    ++*runs_;
    control_->setTimeout(random_->next());
  }

 private:
  std::shared_ptr<Tamlo::Platform::TimerControl> control_;
  RandomDelay* random_;
  int64_t* runs_;
};

void wheelTimerChurn(benchmark::State& state) {
  VirtualTime const virtualTime;
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityStrictHigh);
  RandomDelay random;
  int64_t runs = 0;
  std::vector<std::unique_ptr<WheelTimer>> timers;
  timers.reserve(churnTimerCount);
  for (int i = 0; i < churnTimerCount; ++i)
    timers.push_back(std::make_unique<WheelTimer>(wheel, &random, &runs));
  for (auto _ : state)
    runVirtualTime(churnVirtualSeconds, state.range(0) != 0);
  state.counters["runs"] = static_cast<double>(runs) / static_cast<double>(state.iterations());
}
BENCHMARK(wheelTimerChurn)->Arg(0)->Arg(1);

class ChurnTask : public Tamlo::TimerTask {
 public:
  ChurnTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler, RandomDelay* random, int64_t* runs)
      : TimerTask(std::move(scheduler), Tamlo::TaskPriority::normal, "churn"),
        random_(random),
        runs_(runs) {
    scheduleTaskDelay(random_->next());
  }

  void taskExecute() override {
    ++*runs_;
    scheduleTaskDelay(random_->next());
  }

 private:
  RandomDelay* random_;
  int64_t* runs_;
};

void timerTaskChurn(benchmark::State& state) {
  VirtualTime const virtualTime;
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("churn");
  RandomDelay random;
  int64_t runs = 0;
  std::vector<std::shared_ptr<ChurnTask>> tasks;
  tasks.reserve(churnTimerCount);
  for (int i = 0; i < churnTimerCount; ++i)
    tasks.push_back(Tamlo::makeShared<ChurnTask>(root, &random, &runs));
  for (auto _ : state)
    runVirtualTime(churnVirtualSeconds, state.range(0) != 0);
  state.counters["runs"] = static_cast<double>(runs) / static_cast<double>(state.iterations());
}
BENCHMARK(timerTaskChurn)->Arg(0)->Arg(1);

// ---- (b) group overhead ----

class Rescheduler : public Tamlo::Task {
 public:
  Rescheduler(std::shared_ptr<Tamlo::TaskScheduler> scheduler, int64_t* runs)
      : Task(std::move(scheduler), Tamlo::TaskPriority::normal, "spin"), runs_(runs) {}
  void taskExecute() override {
    if (++*runs_ < runsPerBatch)
      scheduleTask();
  }

 private:
  int64_t* runs_;
};

void runTasks(benchmark::State& state, std::shared_ptr<Tamlo::TaskScheduler> const& scheduler) {
  int64_t runs = 0;
  std::vector<std::shared_ptr<Rescheduler>> tasks;
  for (int i = 0; i < groupTaskCount; ++i)
    tasks.push_back(Tamlo::makeShared<Rescheduler>(scheduler, &runs));
  int64_t total = 0;
  for (auto _ : state) {
    runs = 0;
    for (auto const& task : tasks)
      task->scheduleTask();
    Tamlo::Platform::doEventLoop();
    total += runs;
  }
  state.counters["runs"] = static_cast<double>(total) / static_cast<double>(state.iterations());
}

void taskDispatch(benchmark::State& state) {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("dispatch");
  int64_t runs = 0;
  auto const task = Tamlo::makeShared<Rescheduler>(root, &runs);
  for (auto _ : state) {
    runs = 0;
    task->scheduleTask();
    Tamlo::Platform::doEventLoop();
  }
  state.counters["runs"] = static_cast<double>(runs);
}
BENCHMARK(taskDispatch);

void rootTasks(benchmark::State& state) {
  runTasks(state, Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("flat"));
}
BENCHMARK(rootTasks);

void groupTasks(benchmark::State& state) {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("grouped");
  runTasks(state, Tamlo::TaskGroup::TaskGroupIs("group", Tamlo::TaskPriority::normal, true, root));
}
BENCHMARK(groupTasks);

// ---- (c) footprint ----

class IdleTimerTask : public Tamlo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {}
};

class IgnoreTimeout : public Tamlo::Platform::TimeoutHandler {
 public:
  void timeout() override {}
};

void printFootprints() {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("footprint");
  IgnoreTimeout handler;
  Tamlo::Bench::printFootprint("TimerTask:", sizeof(IdleTimerTask), [&](std::string const& name) {
    return Tamlo::makeShared<IdleTimerTask>(root, Tamlo::TaskPriority::normal, name);
  });
  Tamlo::Bench::printFootprint(
      "TaskTimerControl:", sizeof(Tamlo::Platform::TaskTimerControl), [&](std::string const& name) {
        return Tamlo::Platform::getTimerControl(&handler, root, Tamlo::TaskPriority::normal, name);
      });
}

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter("runs");
  if (!reporter.run(argc, argv, 5))
    return 1;
  std::printf("\n");
  reporter.printRatio("timer churn, loop:", "timerTaskChurn/0", "wheelTimerChurn/0", 1.5);
  reporter.printRatio("timer churn, ticks:", "timerTaskChurn/1", "wheelTimerChurn/1", 1.5);
  std::printf("Of which every task run's event-loop turn:\n");
  reporter.printRatio("task dispatch:", "taskDispatch", "wheelTimerChurn/1", 0);
  reporter.printRatio("group overhead:", "groupTasks", "rootTasks", 1.15);
  printFootprints();
  return 0;
}
