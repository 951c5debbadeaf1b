#include <Tamlo/ProcInfo.h>

#include <sys/prctl.h>

#include <ctime>

#include "SysTestSupport.h"

namespace {

namespace ProcInfo = Tamlo::ProcInfo;
using Tamlo::Test::errorOf;

// The other parsers, refusals and odd text are left to fuzz/ProcInfoFuzz.cpp.
TEST(ProcInfoTest, StartTicksAreField22CountedPastTheLastParenthesis) {
  // The title may hold ") (" and blanks.
  std::string const stat = "42 (a) b (c) S" + std::string(18, ' ') +
                           " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 777 19 20\n";
  EXPECT_EQ(ProcInfo::parseStartTicks(stat), 777u);
}

TEST(ProcInfoTest, ReadersDescribeALiveProcessAndRefuseAGoneOne) {
  auto child =
      std::make_optional<Tamlo::Test::LiveChild>([] { ::prctl(PR_SET_NAME, "tamlo (child)"); });
  pid_t const pid = child->pid();
  EXPECT_EQ(ProcInfo::title(pid), "tamlo (child)");
  EXPECT_THAT(ProcInfo::commandLine(pid).at(0), testing::EndsWith("/ProcInfoTest"));
  auto const self = ProcInfo::startTime(::getpid()), started = ProcInfo::startTime(pid);
  EXPECT_GE(started.sinceBoot, self.sinceBoot);
  // Both rest on the same boot time, which a clock step can move by a second.
  EXPECT_NEAR(started.wallClock - started.sinceBoot, self.wallClock - self.sinceBoot, 1.0);
  EXPECT_NEAR(started.wallClock, static_cast<double>(std::time(nullptr)), 600);
  child.reset();
  EXPECT_EQ(errorOf([&] { ProcInfo::startTime(pid); }),
            "Tamlo::RuntimeException: no process with pid:" + std::to_string(pid));
  EXPECT_EQ(errorOf([] { ProcInfo::title(0); }), "Tamlo::OutOfRangeException: invalid pid:0");
}

}  // namespace
