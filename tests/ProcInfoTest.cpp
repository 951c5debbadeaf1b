#include <Tamlo/ProcInfo.h>

#include <sys/prctl.h>

#include <ctime>

#include "SysTestSupport.h"

namespace {

namespace ProcInfo = Tamlo::ProcInfo;
using Tamlo::Test::errorOf;
using namespace std::string_literals;

// Refusals and odd text are left to fuzz/ProcInfoFuzz.cpp, which re-reads each field.
TEST(ProcInfoTest, ParsersFindTheirField) {
  // The title may hold ") (" and blanks; the start time is field 22.
  std::string const stat = "42 (a) b (c) S" + std::string(18, ' ') +
                           " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 777 19 20\n";
  EXPECT_EQ(ProcInfo::parseStartTicks(stat), 777u);
  EXPECT_EQ(ProcInfo::parseBootTime("cpu 1 2\nbtime 1700000000\nprocesses 5\n"), 1700000000u);
  EXPECT_EQ(ProcInfo::splitCommandLine("a\0\0b\0"s), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(ProcInfo::parseSocketInode("socket:[123]"), 123u);
  EXPECT_EQ(ProcInfo::parseTitle("a\n\n"), "a\n");
}

TEST(ProcInfoTest, ReadersDescribeALiveProcessAndRefuseAGoneOne) {
  pid_t pid;
  {
    Tamlo::Test::LiveChild const child([] { ::prctl(PR_SET_NAME, "tamlo (child)"); });
    pid = child.pid();
    EXPECT_EQ(ProcInfo::title(pid), "tamlo (child)");
    EXPECT_THAT(ProcInfo::commandLine(pid).at(0), testing::EndsWith("/ProcInfoTest"));
    ProcInfo::StartTime const self = ProcInfo::startTime(::getpid());
    ProcInfo::StartTime const started = ProcInfo::startTime(pid);
    EXPECT_GE(started.sinceBoot, self.sinceBoot);
    // Both rest on the same boot time, which a clock step can move by a second.
    EXPECT_NEAR(started.wallClock - started.sinceBoot, self.wallClock - self.sinceBoot, 1.0);
    EXPECT_NEAR(started.wallClock, static_cast<double>(std::time(nullptr)), 600);
  }
  std::string const gone = "Tamlo::RuntimeException: no process with pid:" + std::to_string(pid);
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { ProcInfo::startTime(pid); }, gone},
      {[&] { ProcInfo::title(0); }, "Tamlo::OutOfRangeException: invalid pid:0"},
  };
  for (auto const& [call, message] : cases)
    EXPECT_EQ(errorOf(call), message);
}

}  // namespace
