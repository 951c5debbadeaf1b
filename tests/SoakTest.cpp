// The soak in a child, which reads TRACEFILE at load and inherits TAMLO_SOAK_SCALE; its trace
// file must hold one whole line per timer run, none cut into by another thread's.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "TestSupport.h"

TEST(SoakTest, TimersMessagesAndTraceLinesSurviveEightLoadedThreads) {
  std::string const traceFile = ::testing::TempDir() + "soak-trace-" + std::to_string(::getpid());
  auto const soak =
      Tamlo::Test::runHelper("SoakHelper", {}, {"TRACEFILE=" + traceFile, "TRACE=Soak/1"}, {});
  EXPECT_EQ(soak.exitCode, 0) << soak.out << soak.err;
  std::printf("%s", soak.out.c_str());
  std::regex const whole(R"(soak thread \d+ timer \d+ run \d+ \d{40})");
  std::ifstream trace(traceFile);
  size_t wholeLines = 0, cut = 0;
  for (std::string line; std::getline(trace, line);) {
    std::string const run = line.substr(std::min(line.find("soak thread "), line.size()));
    if (std::regex_match(run, whole))
      ++wholeLines;
    else if (!run.empty() && ++cut < 5)
      ADD_FAILURE() << "cut line: " << line;
  }
  // A timer run twice is the helper's to catch.
  EXPECT_EQ(wholeLines, std::stoull(soak.out.substr(soak.out.find(" tasks, ") + 8)));
  std::remove(traceFile.c_str());
}
