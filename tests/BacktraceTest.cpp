// The rendering of the tracked backtraces: a heading, then per entry a line
// with its sequence number, time, thread and message and its frames indented.
#include <chrono>
#include <regex>
#include <sstream>

#include <Tamlo/Backtrace.h>
#include <Tamlo/Thread.h>

#include "SysTestSupport.h"

using Tamlo::BacktraceTracker;

class RenderTest : public ::testing::Test {
 protected:
  void TearDown() override { BacktraceTracker::capacityIs(BacktraceTracker::defaultCapacity); }
};

TEST_F(RenderTest, ShowsKeptEntriesOldestFirstWithTheirFramesIndented) {
  auto const before = std::chrono::system_clock::now();
  BacktraceTracker::capacityIs(3);
  Tamlo::RuntimeException const dropped("dropped");
  uint64_t const first = BacktraceTracker::entries().back().sequence;
  // Stopped tracking neither keeps nor counts.
  BacktraceTracker::capacityIs(0);
  Tamlo::RuntimeException const untracked("untracked");
  BacktraceTracker::capacityIs(3);
  pid_t otherThread = 0;
  std::thread([&] {
    otherThread = Tamlo::gettid();
    Tamlo::RuntimeException const e("from another thread");
  }).join();
  Tamlo::Exception const quiet("without frames", false);
  Tamlo::RuntimeException const newest("newest");
  auto const after = std::chrono::system_clock::now();

  auto const entries = BacktraceTracker::entries();
  ASSERT_EQ(entries.size(), 3u);
  std::string expected =
      fmt::format("Tracked backtraces: 3 kept of {} recorded, capacity 3\n", first + 3);
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].sequence, first + 1 + i);
    EXPECT_TRUE(before <= entries[i].time && entries[i].time <= after);
    expected += fmt::format("[{}] TIME thread {}: {}\n", entries[i].sequence, entries[i].threadId,
                            entries[i].message);
    for (std::string const& frame : Tamlo::Test::linesOf(entries[i].backtrace.pretty()))
      expected += "  " + frame + "\n";
  }
  EXPECT_EQ(entries[0].threadId, otherThread);
  EXPECT_EQ(entries[2].threadId, Tamlo::gettid());

  std::string const text = BacktraceTracker::renderString();
  std::regex const time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})");
  EXPECT_EQ(std::regex_replace(text, time, "TIME"), expected);
  std::ostringstream stream;
  BacktraceTracker::render(stream);
  EXPECT_EQ(stream.str(), text);
}
