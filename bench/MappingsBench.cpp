// What reading and searching the memory mappings cost.
//
// Read: /proc/self/maps read and parsed into a Mappings, against reading the
// same file, in the same chunks, into a string without parsing it.
//
// Find: 1,000,000 addresses (nine in ten inside a mapping, the rest anywhere
// in the mapped span, mostly in gaps) looked up with Mappings::find, against
// std::upper_bound over a plain sorted vector of (start, end) ranges built
// from the same mappings. The ratios printed at the end compare runs of this
// one process.
#include <benchmark/benchmark.h>

#include "RatioReporter.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <Tamlo/Mappings.h>

namespace {

constexpr size_t lookupCount = 1'000'000;

std::vector<uintptr_t> const& addresses() {
  static std::vector<uintptr_t> const drawn = [] {
    Tamlo::Mappings const mappings = Tamlo::Mappings::ofSelf();
    auto const& all = mappings.mappings();
    std::mt19937_64 random(20261122);
    std::vector<uintptr_t> result(lookupCount);
    for (uintptr_t& address : result) {
      Tamlo::Mapping const& mapping = all[random() % all.size()];
      if (random() % 10 != 0)
        address = mapping.start + random() % (mapping.end - mapping.start);
      else
        address = all.front().start + random() % (all.back().end - all.front().start);
    }
    return result;
  }();
  return drawn;
}

void BM_ReadAndParseSelfMaps(benchmark::State& state) {
  size_t count = 0;
  for (auto _ : state)
    count = Tamlo::Mappings::ofSelf().size();
  state.counters["mappings"] = static_cast<double>(count);
}
BENCHMARK(BM_ReadAndParseSelfMaps);

void BM_ReadSelfMapsOnly(benchmark::State& state) {
  std::string text;
  for (auto _ : state) {
    int const fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    text.clear();
    char buffer[16384];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<size_t>(got));
    ::close(fd);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(BM_ReadSelfMapsOnly);

void BM_FindMillion(benchmark::State& state) {
  Tamlo::Mappings const mappings = Tamlo::Mappings::ofSelf();
  std::vector<uintptr_t> const& lookups = addresses();
  size_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (uintptr_t const address : lookups)
      hits += mappings.find(address) != nullptr;
    benchmark::DoNotOptimize(hits);
  }
  state.counters["hitShare"] = static_cast<double>(hits) / lookupCount;
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lookupCount));
}
BENCHMARK(BM_FindMillion);

void BM_UpperBoundMillion(benchmark::State& state) {
  struct Range {
    uintptr_t start, end;
  };
  Tamlo::Mappings const mappings = Tamlo::Mappings::ofSelf();
  std::vector<Range> ranges;
  for (Tamlo::Mapping const& mapping : mappings.mappings())
    ranges.push_back({mapping.start, mapping.end});
  std::vector<uintptr_t> const& lookups = addresses();
  size_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (uintptr_t const address : lookups) {
      auto const after =
          std::upper_bound(ranges.begin(), ranges.end(), address,
                           [](uintptr_t value, Range const& range) { return value < range.start; });
      hits += after != ranges.begin() && address < (after - 1)->end;
    }
    benchmark::DoNotOptimize(hits);
  }
  state.counters["hitShare"] = static_cast<double>(hits) / lookupCount;
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lookupCount));
}
BENCHMARK(BM_UpperBoundMillion);

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter;
  if (!reporter.run(argc, argv))
    return 1;
  std::printf("\nCPU time as ratios:\n");
  reporter.printRatio("read /proc/self/maps:", "BM_ReadAndParseSelfMaps", "BM_ReadSelfMapsOnly");
  reporter.printRatio("find 1,000,000:", "BM_FindMillion", "BM_UpperBoundMillion");
  return 0;
}
