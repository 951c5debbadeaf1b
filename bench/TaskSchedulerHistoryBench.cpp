// The cost of recording one scheduler event, which sits on the path of every
// schedule and run: a full ring, so each insert overwrites the oldest event
// and releases its name.
#include <benchmark/benchmark.h>

#include <Tamlo/TaskSchedulerHistory.h>

namespace {

using EventType = Tamlo::TaskSchedulerHistory::EventType;

void BM_InsertIntoFullRing(benchmark::State& state) {
  Tamlo::TaskSchedulerHistory history(100);
  Tamlo::ConstStringRef const names[] = {history.stringCache().intern("N reader"),
                                         history.stringCache().intern("H writer")};
  int64_t ns = 0;
  while (history.eventCount() < history.entryCount()) {
    history.insertTaskEvent(Tamlo::TaskTimePoint(std::chrono::nanoseconds(++ns)),
                            EventType::schedule, names[0]);
  }
  for (auto _ : state) {
    ++ns;
    history.insertTaskEvent(Tamlo::TaskTimePoint(std::chrono::nanoseconds(ns)), EventType::runStart,
                            names[ns & 1]);
  }
  benchmark::DoNotOptimize(history.eventCount());
}
BENCHMARK(BM_InsertIntoFullRing);

void BM_RenderFullRingToString(benchmark::State& state) {
  Tamlo::TaskSchedulerHistory history(100);
  Tamlo::ConstStringRef const name = history.stringCache().intern("N reader");
  for (int64_t ns = 0; ns < 100; ++ns) {
    history.insertTaskEvent(Tamlo::TaskTimePoint(std::chrono::nanoseconds(ns * 1000)),
                            EventType::schedule, name);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(history.renderTextForDebugToString());
  }
}
BENCHMARK(BM_RenderFullRingToString);

}  // namespace

BENCHMARK_MAIN();
