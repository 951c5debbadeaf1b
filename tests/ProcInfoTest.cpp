#include <Tamlo/ProcInfo.h>

#include <sys/prctl.h>

#include <ctime>

#include "SysTestSupport.h"

namespace {

namespace ProcInfo = Tamlo::ProcInfo;
using Tamlo::Test::errorOf;
using namespace std::string_literals;

template <typename Result>
void expectParses(Result (*parse)(std::string_view),
                  std::vector<std::pair<std::string, Result>> const& cases) {
  for (auto const& [text, expected] : cases)
    EXPECT_EQ(parse(text), expected) << text;
}

TEST(ProcInfoTest, ParsersAcceptAnyTextAndFindTheirField) {
  std::string const stat = "42 (a) b (c) S" + std::string(18, ' ') +
                           " 1 2 3 4 5 6 7 8 9 10 11 12 " + "13 14 15 16 17 18 777 19 20\n";
  auto const none = std::nullopt;
  expectParses(ProcInfo::parseStartTicks,
               {{stat, 777},
                {"1 (x) S 1 2", none},
                {"no parenthesis", none},
                {"1 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 -5 1", none}});
  expectParses(ProcInfo::parseBootTime, {{"cpu 1 2\nbtime 1700000000\nprocesses 5\n", 1700000000},
                                         {"xbtime 5\n", none},
                                         {"btime x\n", none},
                                         {"", none}});
  expectParses(ProcInfo::splitCommandLine,
               {{"a\0b\0"s, {"a", "b"}}, {"a\0\0b"s, {"a", "", "b"}}, {"", {}}, {"x", {"x"}}});
  expectParses(
      ProcInfo::parseSocketInode,
      {{"socket:[123]", 123}, {"pipe:[1]", none}, {"socket:[]", none}, {"socket:[12x]", none}});
  expectParses(ProcInfo::parseTitle, {{"a b\n", "a b"}, {"a\n\n", "a\n"}});
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
      {[&] { ProcInfo::title(pid); }, gone},
      {[&] { ProcInfo::startTime(pid); }, gone},
      {[&] { ProcInfo::commandLine(pid); }, gone},
      {[&] { ProcInfo::title(0); }, "Tamlo::OutOfRangeException: invalid pid:0"},
  };
  for (auto const& [call, message] : cases)
    EXPECT_EQ(errorOf(call), message);
}

}  // namespace
