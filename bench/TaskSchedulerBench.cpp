// The cost of a scheduler run against the bare event loop it sits on. The
// baseline is a libevent zero-delay timer that re-adds itself: one loop pass
// per fire, which is what the scheduler needs per run. Measured in the same
// run:
//   bareTimerLoop       the baseline, runsPerBatch fires per iteration
//   platformCallbackLoop the platform's callback control re-requested from
//                       its callback: what the scheduler's binding to the
//                       loop costs before it does any work
//   schedulerDispatch   one task that schedules itself again, runsPerBatch runs
//   schedulerMixed      1000 tasks of mixed priorities, each scheduling itself
//                       again, until runsPerBatch runs (plus the ones queued
//                       then, which run once more)
// The ratios of the cost per run are printed at the end, with the bytes one
// task occupies.
#include <benchmark/benchmark.h>

#include "Footprint.h"
#include "RatioReporter.h"

#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>
#include <fmt/format.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>

namespace {

constexpr int64_t runsPerBatch = 10000;
constexpr int mixedTaskCount = 1000;

// ---- Baseline ----

struct BareTimer {
  event ev;
  int64_t firesLeft = 0;
};

void bareFire(evutil_socket_t, short, void* arg) {
  auto* const timer = static_cast<BareTimer*>(arg);
  if (--timer->firesLeft > 0) {
    timeval const zero{0, 0};
    event_add(&timer->ev, &zero);
  }
}

void bareTimerLoop(benchmark::State& state) {
  Tamlo::leInit();
  event_base* const base = Tamlo::ev_base;
  BareTimer timer;
  event_assign(&timer.ev, base, -1, 0, bareFire, &timer);
  event_priority_set(&timer.ev, Tamlo::Platform::eventPriorityDefault);
  for (auto _ : state) {
    timer.firesLeft = runsPerBatch;
    timeval const zero{0, 0};
    event_add(&timer.ev, &zero);
    event_base_dispatch(base);
  }
  state.counters["runs"] = static_cast<double>(runsPerBatch);
}
BENCHMARK(bareTimerLoop);

// The platform's callback control alone, re-requested from its own
// callback: the part of a scheduler run that the event-loop binding costs.
class CallbackLoop : public Tamlo::Platform::CallbackHandler {
 public:
  CallbackLoop() : control_(Tamlo::Platform::getCallbackControl(this)) {}
  void start(int64_t calls) {
    callsLeft_ = calls;
    control_->requestCallback();
  }
  void callback() override {
    if (--callsLeft_ > 0)
      control_->requestCallback();
  }

 private:
  std::shared_ptr<Tamlo::Platform::CallbackControl> control_;
  int64_t callsLeft_ = 0;
};

void platformCallbackLoop(benchmark::State& state) {
  CallbackLoop loop;
  for (auto _ : state) {
    loop.start(runsPerBatch);
    Tamlo::Platform::doEventLoop();
  }
  state.counters["runs"] = static_cast<double>(runsPerBatch);
}
BENCHMARK(platformCallbackLoop);

// ---- Scheduler ----

// Schedules itself again until the shared budget of runs is spent.
class Rescheduler : public Tamlo::Task {
 public:
  Rescheduler(std::shared_ptr<Tamlo::TaskScheduler> scheduler, Tamlo::TaskPriority priority,
              std::string const& name, int64_t* runs, int64_t runsWanted)
      : Task(std::move(scheduler), priority, name), runs_(runs), runsWanted_(runsWanted) {}

  void taskExecute() override {
    if (++*runs_ < runsWanted_)
      scheduleTask();
  }

 private:
  int64_t* runs_;
  int64_t runsWanted_;
};

void schedulerDispatch(benchmark::State& state) {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  int64_t runs = 0;
  auto const task = Tamlo::makeShared<Rescheduler>(root, Tamlo::TaskPriority::normal, "spin", &runs,
                                                   runsPerBatch);
  for (auto _ : state) {
    runs = 0;
    task->scheduleTask();
    Tamlo::Platform::doEventLoop();
  }
  state.counters["runs"] = static_cast<double>(runs);
}
BENCHMARK(schedulerDispatch);

void schedulerMixed(benchmark::State& state) {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  int64_t runs = 0;
  std::vector<std::shared_ptr<Rescheduler>> tasks;
  for (int i = 0; i < mixedTaskCount; ++i) {
    // Mostly high, normal and low, so that the lower-priority bump is busy;
    // a few absolute and scavenge tasks at the ends.
    static constexpr Tamlo::TaskPriority::Value mix[] = {
        Tamlo::TaskPriority::high,   Tamlo::TaskPriority::normal, Tamlo::TaskPriority::normal,
        Tamlo::TaskPriority::low,    Tamlo::TaskPriority::low,    Tamlo::TaskPriority::high,
        Tamlo::TaskPriority::normal, Tamlo::TaskPriority::low,    Tamlo::TaskPriority::scavenge};
    Tamlo::TaskPriority const priority =
        i == 0 ? Tamlo::TaskPriority::absolute : mix[i % std::size(mix)];
    tasks.push_back(Tamlo::makeShared<Rescheduler>(root, priority, fmt::format("task{}", i), &runs,
                                                   runsPerBatch));
  }
  for (auto _ : state) {
    runs = 0;
    for (auto const& task : tasks)
      task->scheduleTask();
    Tamlo::Platform::doEventLoop();
  }
  state.counters["runs"] = static_cast<double>(runs);
}
BENCHMARK(schedulerMixed);

// ---- Ratios ----

// A task with no state of its own, as small as a client task can be.
class EmptyTask : public Tamlo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

void printTaskFootprint() {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("footprint");
  Tamlo::Bench::printFootprint("Task:", sizeof(EmptyTask), [&](std::string const& name) {
    return Tamlo::makeShared<EmptyTask>(root, Tamlo::TaskPriority::normal, name);
  });
}

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter("runs");
  if (!reporter.run(argc, argv, 9))
    return 1;
  std::printf("\n");
  reporter.printRatio("dispatch:", "schedulerDispatch", "bareTimerLoop", 1.25);
  reporter.printRatio("1000 mixed tasks:", "schedulerMixed", "bareTimerLoop", 1.4);
  std::printf("Of which the platform's callback control:\n");
  reporter.printRatio("callback control:", "platformCallbackLoop", "bareTimerLoop", 0);
  reporter.printRatio("scheduler on it:", "schedulerDispatch", "platformCallbackLoop", 0);
  printTaskFootprint();
  return 0;
}
