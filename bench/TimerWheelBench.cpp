// What a timer wheel costs next to libevent's own timers.
//
// Re-arm: N timers are pending, each between one second and one hour ahead;
// every iteration re-arms the next one (round robin) to another such expiry,
// through a wheel-backed TimerControl and, as the baseline, a libevent one.
// The ratios printed at the end compare runs of this one process.
//
// Expiry: a million wheel timers spread over ten seconds are delivered in
// virtual time (fast-forward); the counters give the cost per delivered
// timer, how often the master timer was armed per second of virtual time,
// and any timer delivered early or out of order (both must be 0). A tenth
// as many timers over the same time shows the share of the loop passes,
// whose number hardly depends on the timer count.
//
// Footprint: the bytes one timer control takes, allocation included.
#include <benchmark/benchmark.h>

#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/TimerWheel.h>

namespace {

using Tamlo::Platform::TimeoutHandler;
using Tamlo::Platform::TimerControl;

struct IgnoringHandler : TimeoutHandler {
  void timeout() override {}
};

// Drawn once, so that the timed loops only index.
constexpr size_t delayCount = 1 << 16;

std::vector<double> drawDelays(double low, double high) {
  std::mt19937_64 generator(20240611);
  std::uniform_real_distribution<double> distribution(low, high);
  std::vector<double> delays(delayCount);
  for (double& delay : delays)
    delay = distribution(generator);
  return delays;
}

std::vector<double> const& oneSecondToOneHour() {
  static std::vector<double> const delays = drawDelays(1, 3600);
  return delays;
}

// Re-arms the controls in turn: in creation order, or in one fixed random
// order, which defeats the caches that creation order leaves warm.
template <typename MakeControl>
void rearm(benchmark::State& state, MakeControl const& makeControl, bool shuffled) {
  std::vector<double> const& delays = oneSecondToOneHour();
  size_t const count = static_cast<size_t>(state.range(0));
  IgnoringHandler handler;
  std::vector<std::shared_ptr<TimerControl>> controls;
  controls.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    controls.push_back(makeControl(&handler));
    controls.back()->setTimeout(delays[i % delayCount]);
  }
  std::vector<TimerControl*> order;
  order.reserve(count);
  for (auto const& control : controls)
    order.push_back(control.get());
  if (shuffled)
    std::shuffle(order.begin(), order.end(), std::mt19937_64(7));
  size_t next = 0;
  size_t draw = count;
  for (auto _ : state) {
    order[next]->setTimeout(delays[draw % delayCount]);
    ++draw;
    if (++next == count)
      next = 0;
  }
  state.SetItemsProcessed(state.iterations());
  for (auto const& control : controls)
    control->delTimeout();
}

std::shared_ptr<TimerControl> libeventControl(TimeoutHandler* handler) {
  return Tamlo::Platform::getTimerControl(handler);
}

void wheelRearm(benchmark::State& state, bool shuffled) {
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityDefault);
  rearm(
      state,
      [&](TimeoutHandler* handler) { return Tamlo::Platform::getTimerControl(handler, wheel); },
      shuffled);
  state.counters["masterArms"] = static_cast<double>(wheel->masterTimerArmCountForTest());
}

void BM_RearmWheel(benchmark::State& state) {
  wheelRearm(state, false);
}
BENCHMARK(BM_RearmWheel)->Arg(1'000)->Arg(100'000)->Arg(1'000'000);

void BM_RearmLibevent(benchmark::State& state) {
  rearm(state, libeventControl, false);
}
BENCHMARK(BM_RearmLibevent)->Arg(1'000)->Arg(100'000)->Arg(1'000'000);

void BM_RearmWheelShuffled(benchmark::State& state) {
  wheelRearm(state, true);
}
BENCHMARK(BM_RearmWheelShuffled)->Arg(1'000)->Arg(1'000'000);

void BM_RearmLibeventShuffled(benchmark::State& state) {
  rearm(state, libeventControl, true);
}
BENCHMARK(BM_RearmLibeventShuffled)->Arg(1'000'000);

// A wheel timer that checks the order and time of its own delivery.
class OrderedTimer : public Tamlo::TimerWheelEvent {
 public:
  struct Check {
    double lastExpiry = -std::numeric_limits<double>::infinity();
    uint64_t delivered = 0;
    uint64_t early = 0;
    uint64_t outOfOrder = 0;
  };
  static Check check;

  void armedAt(double expiry) { armedExpiry_ = expiry; }

  void timeout() override {
    ++check.delivered;
    check.early += Tamlo::time() < armedExpiry_;
    check.outOfOrder += armedExpiry_ < check.lastExpiry;
    check.lastExpiry = armedExpiry_;
  }

 private:
  double armedExpiry_ = 0;
};

OrderedTimer::Check OrderedTimer::check;

void BM_WheelExpiry(benchmark::State& state) {
  size_t const count = static_cast<size_t>(state.range(0));
  constexpr double spread = 10;
  std::vector<double> const delays = drawDelays(0, spread);
  std::vector<OrderedTimer> timers(count);
  Tamlo::Platform::setFastForward(true);
  double virtualSeconds = 0;
  uint64_t masterArms = 0, delivered = 0, early = 0, outOfOrder = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityDefault);
    // Index mixing so that the million expiries are not the table repeated.
    for (size_t i = 0; i < count; ++i) {
      timers[i].setTimeout(wheel, delays[i % delayCount] + static_cast<double>(i % 997) * 1e-7);
      timers[i].armedAt(timers[i].expirationTime());
    }
    OrderedTimer::check = {};
    uint64_t const armsBefore = wheel->masterTimerArmCountForTest();
    double const start = Tamlo::time();
    state.ResumeTiming();

    // Loop passes jump from one master expiry to the next until every timer
    // is delivered, however much real time passes meanwhile.
    for (uint64_t pass = 0; OrderedTimer::check.delivered < count && pass < 10 * count; ++pass)
      Tamlo::Platform::doEventLoopInWaitfor(spread);

    state.PauseTiming();
    for (OrderedTimer& timer : timers)
      timer.delTimeout(wheel);
    virtualSeconds += Tamlo::time() - start;
    masterArms += wheel->masterTimerArmCountForTest() - armsBefore;
    delivered += OrderedTimer::check.delivered;
    early += OrderedTimer::check.early;
    outOfOrder += OrderedTimer::check.outOfOrder;
    state.ResumeTiming();
  }
  Tamlo::Platform::setFastForward(false);
  state.counters["timePerTimer"] = benchmark::Counter(
      static_cast<double>(delivered), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["masterArmsPerVirtualSecond"] = static_cast<double>(masterArms) / virtualSeconds;
  state.counters["delivered"] =
      static_cast<double>(delivered) / static_cast<double>(state.iterations());
  state.counters["early"] = static_cast<double>(early);
  state.counters["outOfOrder"] = static_cast<double>(outOfOrder);
}
BENCHMARK(BM_WheelExpiry)
    ->Arg(1'000'000)
    ->Arg(100'000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Bytes per control as the counting allocator sees them: the object and the
// shared pointer's control block, in one allocation. The control block is
// what remains of a libevent control's allocation after its sizeof.
template <typename MakeControl>
double allocatedBytesPerControl(MakeControl const& makeControl) {
  constexpr int count = 1000;
  IgnoringHandler handler;
  std::vector<std::shared_ptr<TimerControl>> controls;
  controls.reserve(count);
  uint64_t const before = Tamlo::AllocatorStats::liveBytes();
  for (int i = 0; i < count; ++i)
    controls.push_back(makeControl(&handler));
  return static_cast<double>(Tamlo::AllocatorStats::liveBytes() - before) / count;
}

void BM_ControlFootprint(benchmark::State& state) {
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityDefault);
  double wheelBytes = 0, libeventBytes = 0;
  for (auto _ : state) {
    wheelBytes = allocatedBytesPerControl(
        [&](TimeoutHandler* handler) { return Tamlo::Platform::getTimerControl(handler, wheel); });
    libeventBytes = allocatedBytesPerControl(
        [](TimeoutHandler* handler) { return Tamlo::Platform::getTimerControl(handler); });
  }
  double const controlBlock = libeventBytes - sizeof(Tamlo::LibeventTimerControl);
  state.counters["wheelControlAllocated"] = wheelBytes;
  state.counters["wheelControlSizeof"] = wheelBytes - controlBlock;
  state.counters["libeventControlAllocated"] = libeventBytes;
  state.counters["libeventControlSizeof"] = sizeof(Tamlo::LibeventTimerControl);
}
BENCHMARK(BM_ControlFootprint)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter;
  if (!reporter.run(argc, argv))
    return 1;
  std::printf("\nCPU time per re-arm, as ratios:\n");
  reporter.printRatio("re-arm:", "BM_RearmWheel/1000000", "BM_RearmLibevent/1000000", 0.4);
  reporter.printRatio("re-arm:", "BM_RearmWheel/1000000", "BM_RearmWheel/1000", 2.0);
  reporter.printRatio("re-arm:", "BM_RearmWheel/100000", "BM_RearmLibevent/100000");
  reporter.printRatio("re-arm:", "BM_RearmWheel/1000", "BM_RearmLibevent/1000");
  reporter.printRatio("re-arm:", "BM_RearmWheelShuffled/1000000",
                      "BM_RearmLibeventShuffled/1000000");
  reporter.printRatio("re-arm:", "BM_RearmWheelShuffled/1000000", "BM_RearmWheelShuffled/1000");
  return 0;
}
