// What the test counters plugin was handed, read back by the tests through
// the plugin's exported vigorCountersRecordForTest().
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Tamlo::Test {

struct VigorCountersRecord {
  std::vector<std::string> openedSets;
  std::vector<std::pair<std::string, uint64_t*>> counters;
};

using VigorCountersRecordFunction = VigorCountersRecord* (*)();

}  // namespace Tamlo::Test
