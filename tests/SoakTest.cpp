// The soak run (tests/helpers/SoakHelper.cpp) in a child process, so that its
// TRACEFILE is read at load; its size follows TAMLO_SOAK_SCALE, which the
// child inherits. Here the trace file is checked: one whole line per timer
// run from all eight threads, none cut into by another.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <unordered_set>

#include "TestSupport.h"

namespace {

TEST(SoakTest, TimersMessagesAndTraceLinesSurviveEightLoadedThreads) {
  std::string const traceFile =
      fmt::format("{}/soak-trace-{}.txt", ::testing::TempDir(), ::getpid());
  auto const soak =
      Tamlo::Test::runHelper("SoakHelper", {}, {"TRACEFILE=" + traceFile, "TRACE=Soak/1"}, {});
  EXPECT_EQ(soak.exitCode, 0) << soak.out << soak.err;
  unsigned long long runs = 0;
  ASSERT_EQ(std::sscanf(soak.out.c_str(), "soak: %*u threads, %*u timer tasks, %llu runs", &runs),
            1)
      << soak.out;
  std::printf("%s", soak.out.c_str());

  std::ifstream trace(traceFile);
  std::unordered_set<unsigned long long> seen;
  size_t soakLines = 0, broken = 0;
  for (std::string line; std::getline(trace, line);) {
    size_t const at = line.find("soak thread ");
    if (at == std::string::npos)
      continue;
    ++soakLines;
    unsigned thread, timer, run;
    int end = 0;
    char count[41] = {};
    bool const whole = std::sscanf(line.c_str() + at, "soak thread %u timer %u run %u %40[0-9]%n",
                                   &thread, &timer, &run, count, &end) == 4 &&
                       at + size_t(end) == line.size() && std::string(count).size() == 40;
    if (whole) {
      EXPECT_TRUE(seen.insert((1ull * thread << 40) | (1ull * timer << 8) | run).second) << line;
    } else if (++broken < 5) {
      ADD_FAILURE() << "cut line: " << line;
    }
  }
  EXPECT_EQ(soakLines, runs);
  EXPECT_EQ(seen.size(), runs);
  std::remove(traceFile.c_str());
}

}  // namespace
