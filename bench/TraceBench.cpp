// The cost of a trace call: disabled (the level test alone) and enabled (one
// whole line with the default prefix written to a TRACEFILE). With spdlog
// available the same two are measured for spdlog in the same run, writing
// the same text to a file and flushing every line, and the ratios are
// printed at the end.
#include <benchmark/benchmark.h>

#include "RatioReporter.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Tamlo/Debug.h>
#include <Tamlo/FmtraceCpp.h>

#if TAMLO_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

std::string benchDirectory;

// Traces from a member, as library code does, so that the line carries
// "Queue::push() " like any member's trace.
class Queue {
 public:
  explicit Queue(char const* name) : trace_(Tamlo::Platform::getDebugHandler(name)) {
    trace_->enabledIs(1, true);
  }
  void push(int count) { TAMLO_TRACE(trace_, 1, "queued {}", count); }
  void pushDetail(int count) { TAMLO_TRACE(trace_, 5, "queued {}", count); }

 private:
  std::shared_ptr<Tamlo::Platform::DebugHandler> trace_;
};

void tamloDisabled(benchmark::State& state) {
  Queue queue("TamloBench");
  int count = 0;
  for (auto _ : state) {
    queue.pushDetail(++count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(tamloDisabled);

void tamloEnabledToFile(benchmark::State& state) {
  Queue queue("TamloBench");
  int count = 0;
  for (auto _ : state) {
    queue.push(++count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(tamloEnabledToFile);

#if TAMLO_HAVE_SPDLOG
// The same line as the library's default format: date, time, thread id,
// name, level, message.
std::shared_ptr<spdlog::logger> spdlogToFile() {
  auto sink =
      std::make_shared<spdlog::sinks::basic_file_sink_mt>(benchDirectory + "/spdlog.log", true);
  auto logger = std::make_shared<spdlog::logger>("TamloBench", std::move(sink));
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%f %t %n 1 %v");
  logger->set_level(spdlog::level::info);
  logger->flush_on(spdlog::level::trace);
  return logger;
}

void spdlogDisabled(benchmark::State& state) {
  auto const logger = spdlogToFile();
  int count = 0;
  for (auto _ : state) {
    ++count;
    logger->debug("Queue::pushDetail() queued {}", count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(spdlogDisabled);

// The cheapest disabled call spdlog offers at run time: its level test
// written out by the caller.
void spdlogDisabledGuarded(benchmark::State& state) {
  auto const logger = spdlogToFile();
  int count = 0;
  for (auto _ : state) {
    ++count;
    if (logger->should_log(spdlog::level::debug))
      logger->debug("Queue::pushDetail() queued {}", count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(spdlogDisabledGuarded);

void spdlogEnabledToFile(benchmark::State& state) {
  auto const logger = spdlogToFile();
  int count = 0;
  for (auto _ : state) {
    ++count;
    logger->info("Queue::push() queued {}", count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(spdlogEnabledToFile);
#endif

}  // namespace

int main(int argc, char** argv) {
  char pattern[] = "/tmp/TraceBench.XXXXXX";
  if (!mkdtemp(pattern)) {
    std::perror("mkdtemp");
    return 1;
  }
  benchDirectory = pattern;
  setenv("TRACEFILE", (benchDirectory + "/tamlo.log").c_str(), 1);
  Tamlo::Platform::setTraceFormat("date,time,tid,handle,level");
  Tamlo::Platform::setupTamloDebug("");

  Tamlo::Bench::RatioReporter reporter;
  if (!reporter.run(argc, argv))
    return 1;
  std::printf("\n");
  reporter.printRatio("disabled trace:", "tamloDisabled", "spdlogDisabled", 1.0);
  reporter.printRatio("disabled trace:", "tamloDisabled", "spdlogDisabledGuarded", 1.0);
  reporter.printRatio("enabled line to a file:", "tamloEnabledToFile", "spdlogEnabledToFile", 1.5);

  std::system(("rm -rf '" + benchDirectory + "'").c_str());
  return 0;
}
