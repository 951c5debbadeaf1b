// The soak in a child, which reads TRACEFILE at load and inherits TAMLO_SOAK_SCALE; its trace
// file must hold one whole line per timer run, none cut into by another thread's.
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "TestSupport.h"

TEST(SoakTest, TimersMessagesAndTraceLinesSurviveEightLoadedThreads) {
  std::string const traceFile = ::testing::TempDir() + "soak-trace-" + std::to_string(::getpid());
  auto const soak =
      Tamlo::Test::runHelper("SoakHelper", {}, {"TRACEFILE=" + traceFile, "TRACE=Soak/1"}, {});
  EXPECT_EQ(soak.exitCode, 0) << soak.out << soak.err;
  size_t const runs = std::stoull(soak.out.substr(soak.out.find(" tasks, ") + 8));
  std::printf("%s", soak.out.c_str());
  std::ifstream trace(traceFile);
  size_t whole = 0, broken = 0;
  for (std::string line; std::getline(trace, line);) {
    size_t const at = line.find("soak thread ");
    int count = 0, end = 0;  // where the 40-digit count starts and the line ends
    if (at == std::string::npos)
      continue;
    std::sscanf(line.c_str() + at, "soak thread %*u timer %*u run %*u %n%*[0-9]%n", &count, &end);
    bool const ok = at + size_t(end) == line.size() && end - count == 40;
    whole += ok;
    if (!ok && ++broken < 5)
      ADD_FAILURE() << "cut line: " << line;
  }
  EXPECT_EQ(whole, runs);  // a timer run twice is the helper's to catch
  std::remove(traceFile.c_str());
}
