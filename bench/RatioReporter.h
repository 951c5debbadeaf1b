// Every performance figure of the project is a ratio against a baseline
// measured in the same run. This reporter keeps each benchmark's time (the
// median when repetitions are run) and prints measured / baseline at the end.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace Tamlo::Bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // With `perCounter`, times are divided by that user counter (for example
  // the number of scheduler runs an iteration made); runs without it are
  // not kept.
  explicit RatioReporter(std::string perCounter = {}) : perCounter_(std::move(perCounter)) {}

  void ReportRuns(std::vector<Run> const& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (Run const& run : runs) {
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty())
        name += "/" + run.run_name.args;
      double divisor = 1;
      if (!perCounter_.empty()) {
        auto const counter = run.counters.find(perCounter_);
        if (counter == run.counters.end() || counter->second.value <= 0)
          continue;
        divisor = counter->second.value;
      }
      bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (median || (run.run_type == Run::RT_Iteration && !fromMedian_.count(name)))
        times_[name] = {run.GetAdjustedRealTime() / divisor, run.GetAdjustedCPUTime() / divisor,
                        benchmark::GetTimeUnitString(run.time_unit)};
      if (median)
        fromMedian_[name] = true;
    }
  }

  // One line: label, both times, real and CPU ratios, and the goal when one
  // is given (0: none).
  void printRatio(char const* label, std::string const& measured, std::string const& baseline,
                  double goal = 0) const {
    auto const m = times_.find(measured), b = times_.find(baseline);
    if (m == times_.end() || b == times_.end() || b->second.real <= 0 || b->second.cpu <= 0)
      return;
    double const cpu = m->second.cpu / b->second.cpu;
    std::printf("%-24s %s %.1f %s / %s %.1f %s: real %.3f, cpu %.3f", label, measured.c_str(),
                m->second.cpu, m->second.unit, baseline.c_str(), b->second.cpu, b->second.unit,
                m->second.real / b->second.real, cpu);
    if (goal > 0)
      std::printf("  (goal <= %.2f: %s)", goal, cpu <= goal ? "met" : "MISSED");
    std::printf("\n");
  }

  // Runs the benchmarks chosen on the command line through this reporter;
  // false for a flag it does not know. With `repetitions`, each benchmark
  // runs that many times, interleaved with the others, and only aggregates
  // are reported: the medians of benchmarks run one after the other on a
  // busy machine are steadier. Flags on the command line come later and win.
  bool run(int argc, char** argv, int repetitions = 0) {
    std::vector<char*> args(argv, argv + argc);
    std::string repeated = "--benchmark_repetitions=" + std::to_string(repetitions);
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char aggregatesOnly[] = "--benchmark_report_aggregates_only=true";
    if (repetitions > 0)
      args.insert(args.begin() + 1, {repeated.data(), interleaving, aggregatesOnly});
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
      return false;
    benchmark::RunSpecifiedBenchmarks(this);
    benchmark::Shutdown();
    return true;
  }

 private:
  struct Times {
    double real, cpu;
    char const* unit;  // of both times, as the benchmark reports them
  };
  std::string perCounter_;
  std::map<std::string, Times> times_;
  std::map<std::string, bool> fromMedian_;
};

}  // namespace Tamlo::Bench
