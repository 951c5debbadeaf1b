// The tracker of exception backtraces: a ring of the newest, and its rendering.
#include <atomic>
#include <chrono>
#include <regex>

#include <Tamlo/Backtrace.h>
#include <Tamlo/Thread.h>

#include "TestSupport.h"

namespace {

using Tamlo::BacktraceTracker;

class TrackerTest : public ::testing::Test {
 protected:
  void TearDown() override { BacktraceTracker::capacityIs(BacktraceTracker::defaultCapacity); }
  static std::vector<std::string> messages() {
    std::vector<std::string> messages;
    for (auto const& entry : BacktraceTracker::entries())
      messages.push_back(entry.message);
    return messages;
  }
};

TEST_F(TrackerTest, RendersTheNewestEntriesOldestFirstWithTheirFramesIndented) {
  auto const before = std::chrono::system_clock::now();
  BacktraceTracker::capacityIs(3);
  Tamlo::RuntimeException const dropped("dropped");
  uint64_t const first = BacktraceTracker::entries().back().sequence;
  // Stopped tracking neither keeps nor counts.
  BacktraceTracker::capacityIs(0);
  Tamlo::RuntimeException const untracked("untracked");
  EXPECT_TRUE(messages().empty());
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
  pid_t const threads[] = {otherThread, Tamlo::gettid(), Tamlo::gettid()};
  std::string expected =
      fmt::format("Tracked backtraces: 3 kept of {} recorded, capacity 3\n", first + 3);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(before <= entries[i].time && entries[i].time <= after);
    expected +=
        fmt::format("[{}] TIME thread {}: {}\n", first + 1 + i, threads[i], entries[i].message);
    for (std::string const& frame : Tamlo::Test::linesOf(entries[i].backtrace.pretty()))
      expected += "  " + frame + "\n";
  }
  EXPECT_EQ(entries[2].backtrace.pretty(), newest.backtrace().pretty());
  std::regex const time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})");
  EXPECT_EQ(std::regex_replace(BacktraceTracker::renderString(), time, "TIME"), expected);

  // Shrinking keeps the newest; growing keeps what is there.
  BacktraceTracker::capacityIs(2);
  BacktraceTracker::capacityIs(4);
  for (char const* message : {"f", "g", "h"})
    Tamlo::RuntimeException const e(message);
  EXPECT_EQ(messages(), (std::vector<std::string>{"newest", "f", "g", "h"}));
}

TEST_F(TrackerTest, ConcurrentExceptionsAndResizes) {
  std::atomic<int> running{4};
  std::vector<std::thread> throwers;
  for (int t = 0; t < 4; ++t)
    throwers.emplace_back([&] {
      for (int i = 0; i < 200; ++i)
        Tamlo::RuntimeException const e("during");
      --running;
    });
  for (size_t capacity = 1; running > 0; capacity = capacity % 8 + 1)
    BacktraceTracker::capacityIs(capacity);  // all the while they throw
  for (auto& thrower : throwers)
    thrower.join();
  BacktraceTracker::capacityIs(5);  // what remains is whole and usable
  for (int i = 0; i < 5; ++i)
    Tamlo::RuntimeException const e("last");
  EXPECT_EQ(messages(), std::vector<std::string>(5, "last"));
}

}  // namespace
