// What one object costs in memory: its allocation through the library's
// allocator (object and shared-pointer block together, and any parts it
// allocates alongside), and the whole heap per object over many of them,
// interned unique 7-character names included.
#pragma once

#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Allocator.h>

namespace Tamlo::Bench {

// `make(name)` returns a shared pointer to a new object named `name`.
template <typename Make>
void printFootprint(char const* label, size_t size, Make make) {
  uint64_t const bytesBefore = Tamlo::AllocatorStats::liveBytes();
  uint64_t const allocationsBefore = Tamlo::AllocatorStats::liveAllocations();
  auto one = make("single");
  uint64_t const bytes = Tamlo::AllocatorStats::liveBytes() - bytesBefore;
  uint64_t const allocations = Tamlo::AllocatorStats::liveAllocations() - allocationsBefore;
  one.reset();
  constexpr int count = 1000;
  std::vector<decltype(one)> many;
  many.reserve(count);
  size_t const heapBefore = mallinfo2().uordblks;
  for (int i = 0; i < count; ++i)
    many.push_back(make(fmt::format("t{:06}", i)));
  size_t const heapPerObject = (mallinfo2().uordblks - heapBefore) / count;
  std::printf(
      "%-20s sizeof %zu bytes; through the library's allocator %llu bytes in %llu "
      "allocation(s); heap per object with a unique name %zu bytes\n",
      label, size, static_cast<unsigned long long>(bytes),
      static_cast<unsigned long long>(allocations), heapPerObject);
}

}  // namespace Tamlo::Bench
