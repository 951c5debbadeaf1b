#include <Tamlo/ProcInfo.h>

#include <sys/prctl.h>

#include <ctime>
#include <vector>

#include "SysTestSupport.h"

namespace {

namespace ProcInfo = Tamlo::ProcInfo;
using Tamlo::Test::errorOf;
using namespace std::string_literals;

TEST(ProcInfoTest, ParsersAcceptAnyTextAndFindTheirField) {
  std::string const stat = "42 (a) b (c) S" + std::string(18, ' ') +
                           " 1 2 3 4 5 6 7 8 9 10 11 12 " + "13 14 15 16 17 18 777 19 20\n";
  std::pair<std::string, std::optional<uint64_t>> const ticks[] = {
      {stat, 777},
      {"1 (x) S 1 2", std::nullopt},
      {"no parenthesis", std::nullopt},
      {"1 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 -5 1", std::nullopt}};
  for (auto const& [text, expected] : ticks)
    EXPECT_EQ(ProcInfo::parseStartTicks(text), expected) << text;

  std::pair<std::string, std::optional<uint64_t>> const boots[] = {
      {"cpu 1 2\nbtime 1700000000\nprocesses 5\n", 1700000000},
      {"xbtime 5\n", std::nullopt},
      {"btime x\n", std::nullopt},
      {"", std::nullopt}};
  for (auto const& [text, expected] : boots)
    EXPECT_EQ(ProcInfo::parseBootTime(text), expected) << text;

  std::pair<std::string, std::vector<std::string>> const commandLines[] = {
      {"a\0b\0"s, {"a", "b"}}, {"a\0\0b"s, {"a", "", "b"}}, {"", {}}, {"x", {"x"}}};
  for (auto const& [text, expected] : commandLines)
    EXPECT_EQ(ProcInfo::splitCommandLine(text), expected);

  std::pair<std::string, std::optional<ino_t>> const links[] = {{"socket:[123]", 123},
                                                                {"pipe:[1]", std::nullopt},
                                                                {"socket:[]", std::nullopt},
                                                                {"socket:[12x]", std::nullopt}};
  for (auto const& [text, expected] : links)
    EXPECT_EQ(ProcInfo::parseSocketInode(text), expected) << text;

  EXPECT_EQ(ProcInfo::parseTitle("a b\n"), "a b");
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
      {[&] { ProcInfo::title(pid); }, gone},
      {[&] { ProcInfo::startTime(pid); }, gone},
      {[&] { ProcInfo::commandLine(pid); }, gone},
      {[&] { ProcInfo::title(0); }, "Tamlo::OutOfRangeException: invalid pid:0"},
  };
  for (auto const& [call, message] : cases)
    EXPECT_EQ(errorOf(call), message);
}

}  // namespace
