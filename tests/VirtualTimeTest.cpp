#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using ::testing::HasSubstr;

// libevent keeps microseconds; a jump to a timer may round one away.
constexpr double microsecond = 1e-6;
// Offsets are whole microseconds; differences of large offsets lose a few ulps.
constexpr double exact = 1e-9;

using Tamlo::Test::assertionText;

// Journals its id when it expires.
struct JournalTimer : TimeoutHandler {
  JournalTimer(std::vector<int>* journal, int id, double delay)
      : journal_(journal), id_(id), control_(getTimerControl(this)) {
    control_->setTimeout(delay);
  }
  void timeout() override { journal_->push_back(id_); }
  std::vector<int>* journal_;
  int id_;
  std::shared_ptr<TimerControl> control_;
};

void countFire(evutil_socket_t, short, void* arg) {
  ++*static_cast<int*>(arg);
}

class VirtualTimeTest : public ::testing::Test {
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }
};

TEST_F(VirtualTimeTest, FastForwardByMovesTimeByExactlyTheAmount) {
  double const offset = Tamlo::leVirtualTimeOffset();
  // Microseconds carry into seconds; zero moves nothing.
  for (double step : {1.25, 0.75, 0.75, 0.0})
    fastForwardBy(step);
  EXPECT_NEAR(Tamlo::leVirtualTimeOffset() - offset, 2.75, exact);
  EXPECT_THAT(assertionText([] { fastForwardBy(-1); }),
              HasSubstr("Cannot fast-forward by -1 seconds"));

  std::vector<int> journal;
  JournalTimer timer(&journal, 0, 2.0);
  // A zero delta touches no timer: re-adding would push each a little later.
  timeval const zero{0, 0};
  EXPECT_EQ(event_base_timeout_subtract_offset(Tamlo::ev_base, &zero), 0);
  fastForwardBy(5);
  timeval delay{7, 7};
  ASSERT_TRUE(Tamlo::fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);  // already due: no jump
}

TEST_F(VirtualTimeTest, WaitforJumpsToTheFirstTimerButNotBeyondItsBound) {
  double const start = Tamlo::leVirtualTimeOffset();
  doEventLoopInWaitfor(5);  // no timer: the whole bound
  EXPECT_NEAR(Tamlo::leVirtualTimeOffset() - start, 5.0, exact);

  std::vector<int> journal;
  auto const armedAtReal = std::chrono::steady_clock::now();
  JournalTimer timer(&journal, 0, 10.0);
  doEventLoopInWaitfor(3);
  EXPECT_NEAR(Tamlo::leVirtualTimeOffset() - start, 8.0, exact);
  EXPECT_TRUE(journal.empty());

  doEventLoopInWaitfor(60);
  double const jumped = Tamlo::leVirtualTimeOffset() - start - 5.0;
  std::chrono::duration<double> const realElapsed = std::chrono::steady_clock::now() - armedAtReal;
  ASSERT_EQ(journal.size(), 1u);
  // 10 s plus the 100 us margin, less the real time that passed meanwhile.
  EXPECT_LE(jumped, 10.0001 + microsecond);
  EXPECT_GE(jumped + realElapsed.count(), 10.0001 - microsecond);
}

TEST_F(VirtualTimeTest, ManyTimersDueTogetherKeepTheirOrder) {
  std::vector<int> journal;
  std::vector<std::unique_ptr<JournalTimer>> timers;
  // Deadlines 0.1 s apart from one start: arming may take longer than a small gap under load.
  double const start = Tamlo::time();
  for (int i = 0; i < 40; ++i) {
    int const slot = (i * 17) % 40;  // armed out of order
    double const delay = 1.0 + slot * 0.1 - (Tamlo::time() - start);
    timers.push_back(std::make_unique<JournalTimer>(&journal, slot, delay));
  }
  fastForwardBy(100);
  doEventLoopInWaitfor(0);
  EXPECT_EQ(journal.size(), 40u);
  EXPECT_TRUE(std::is_sorted(journal.begin(), journal.end()));
}

TEST_F(VirtualTimeTest, TimersAddedWithPlainLibeventAreFastForwardedToo) {
  Tamlo::leInit();
  timeval const three{3, 0}, five{5, 0}, two{2, 0};
  // Common timeouts keep a queue mark in tv_usec, which a move must keep.
  timeval const* const common = event_base_init_common_timeout(Tamlo::ev_base, &three);
  std::pair<short, timeval const*> const timers[] = {
      {0, &five}, {EV_PERSIST, &two}, {0, common}, {EV_PERSIST, common}};
  std::array<int, 4> fired{};
  std::vector<event*> events;
  for (size_t i = 0; i < 4; ++i) {
    events.push_back(event_new(Tamlo::ev_base, -1, timers[i].first, countFire, &fired[i]));
    event_add(events.back(), timers[i].second);
  }
  double const offset = Tamlo::leVirtualTimeOffset();
  doEventLoopInWaitfor(60);  // to the persistent 2 s timer
  EXPECT_EQ(fired, (std::array{0, 1, 0, 0}));
  EXPECT_LE(Tamlo::leVirtualTimeOffset() - offset, 2.0001 + microsecond);
  // Persistent timers keep their intervals when moved: at 2, 4, 6, 8, 10 and 3, 6, 9.
  doEventLoop(8.0);
  EXPECT_EQ(fired, (std::array{1, 5, 1, 3}));
  for (event* ev : events)
    event_free(ev);
}

TEST_F(VirtualTimeTest, TheSwitchIsMainThreadOnlyOffsetsPerThreadMisuseAsserts) {
  fastForwardBy(3);
  double const mainOffset = Tamlo::leVirtualTimeOffset();
  std::string text;
  double threadOffset = -1;
  std::thread([&] {
    threadOffset = Tamlo::leVirtualTimeOffset();
    text = assertionText([] { setFastForward(false); });
    Tamlo::leFree();
  }).join();
  EXPECT_EQ(threadOffset, 0.0);
  EXPECT_THAT(text, HasSubstr("FastForward invoked from non-main thread"));
  EXPECT_TRUE(fastForward());
  setFastForward(false);  // the offset stays
  EXPECT_EQ(Tamlo::leVirtualTimeOffset(), mainOffset);
  EXPECT_THAT(assertionText([] { fastForwardBy(1); }),
              HasSubstr("Tamlo::Platform::fastForwardBy() fast-forwarding disabled"));
}

TEST_F(VirtualTimeTest, ChangeNotifiersRunOncePerChangeAfterIt) {
  static std::vector<bool> seen;  // the switch as each call saw it
  seen.clear();                   // notifiers stay registered for the process's life
  void (*const notifier)() = [] { seen.push_back(fastForward()); };
  registerFastForwardChangeNotifier(notifier);
  registerFastForwardChangeNotifier(notifier);  // no duplicate
  EXPECT_TRUE(seen.empty());                    // not called at registration
  for (bool on : {true, false, false, true})
    setFastForward(on);
  EXPECT_EQ(seen, (std::vector<bool>{false, true}));
}

TEST(WaitForDefaultTest, ReadOnceFromTheEnvironment) {
  std::string const failed = "Parsing the WAITFOR_DEFAULT env. variable failed";
  // {value, read as, error}; an empty value leaves the variable unset.
  for (auto const& [value, out, err] :
       std::vector<std::array<std::string, 3>>{{"  3.5s", "3.5", ""},
                                               {"", "inf", ""},
                                               {"abc", "inf", failed},
                                               {"1e999", "inf", failed}}) {
    std::vector<std::string> env;
    if (!value.empty())
      env.push_back("WAITFOR_DEFAULT=" + value);
    auto const run =
        Tamlo::Test::runHelper("LibeventHelper", {"waitfor"}, env, {"WAITFOR_DEFAULT"});
    EXPECT_EQ(run.out, "first " + out + " second " + out + "\n") << value;
    EXPECT_EQ(run.err, err) << value;
  }
}

}  // namespace
