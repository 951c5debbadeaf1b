#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/Exception.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <time.h>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();
// libevent keeps microseconds; a jump to a timer may round one away.
constexpr double microsecond = 1e-6;

double monotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

using Tamlo::Test::assertionText;

// Records the virtual time of each expiry under its name.
struct JournalTimer : TimeoutHandler {
  struct Entry {
    std::string name;
    double at;
  };
  JournalTimer(std::vector<Entry>* journal, std::string name, double delay,
               EventPriority priority = eventPriorityDefault)
      : journal_(journal), name_(std::move(name)), control_(getTimerControl(this, priority)) {
    control_->setTimeout(delay);
  }
  void timeout() override { journal_->push_back({name_, Tamlo::time()}); }
  std::vector<Entry>* journal_;
  std::string name_;
  std::shared_ptr<TimerControl> control_;
};

void countFire(evutil_socket_t, short, void* arg) {
  ++*static_cast<int*>(arg);
}

class VirtualTimeTest : public ::testing::Test {
 protected:
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }

  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
};

TEST_F(VirtualTimeTest, FastForwardByMovesTimeByExactlyTheAmount) {
  double const offset = Tamlo::leVirtualTimeOffset();
  double const before = Tamlo::time();
  fastForwardBy(1.25);
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset() - offset, 1.25);
  EXPECT_GE(Tamlo::time() - before, 1.25);
  // Microseconds carry into seconds and stay below one second.
  fastForwardBy(0.75);
  fastForwardBy(0.75);
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset() - offset, 2.75);
  double const fraction = Tamlo::leVirtualTimeOffset() - std::floor(Tamlo::leVirtualTimeOffset());
  EXPECT_LT(fraction, 1.0);
  fastForwardBy(0);
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset() - offset, 2.75);
  EXPECT_THAT(assertionText([] { fastForwardBy(-1); }),
              HasSubstr("Cannot fast-forward by -1 seconds"));
}

TEST_F(VirtualTimeTest, FastForwardByMakesTimersDueForTheNextPass) {
  std::vector<JournalTimer::Entry> journal;
  JournalTimer timer(&journal, "t", 2.0);
  fastForwardBy(5);
  EXPECT_TRUE(journal.empty());  // the loop is not run here
  EXPECT_EQ(timer.control_->remainingTimeout(), 0.0);
  timeval delay{7, 7};
  ASSERT_TRUE(Tamlo::fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec, 0);  // already due: no jump
  EXPECT_EQ(delay.tv_usec, 0);
  double const offset = Tamlo::leVirtualTimeOffset();
  doEventLoopInWaitfor(60);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset(), offset);
}

TEST_F(VirtualTimeTest, WaitforJumpsToTheFirstTimerButNotBeyondItsBound) {
  timeval untouched{7, 7};
  EXPECT_FALSE(Tamlo::fastForwardDelayToFirstTimer(&untouched));
  EXPECT_EQ(untouched.tv_sec, 7);
  EXPECT_EQ(untouched.tv_usec, 7);
  double const start = Tamlo::leVirtualTimeOffset();
  doEventLoopInWaitfor(5);  // no timer: the whole bound
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset() - start, 5.0);

  std::vector<JournalTimer::Entry> journal;
  double const offset = Tamlo::leVirtualTimeOffset();
  double const armedAt = Tamlo::time();
  double const armedAtReal = monotonicSeconds();
  JournalTimer timer(&journal, "t", 10.0);

  doEventLoopInWaitfor(3);
  EXPECT_DOUBLE_EQ(Tamlo::leVirtualTimeOffset() - offset, 3.0);
  EXPECT_TRUE(journal.empty());
  EXPECT_LE(timer.control_->remainingTimeout(), 7.0);

  doEventLoopInWaitfor(60);
  double const jumped = Tamlo::leVirtualTimeOffset() - offset;
  double const realElapsed = monotonicSeconds() - armedAtReal;
  ASSERT_EQ(journal.size(), 1u);
  // 10 s plus the 100 us margin, less the real time that passed meanwhile.
  EXPECT_LE(jumped, 10.0001 + microsecond);
  EXPECT_GE(jumped + realElapsed, 10.0001 - microsecond);
  EXPECT_GE(journal[0].at - armedAt, 10.0001 - microsecond);
  EXPECT_EQ(timer.control_->remainingTimeout(), infinity);
}

TEST_F(VirtualTimeTest, TimersFireInOrderAtTheirVirtualTimes) {
  std::vector<JournalTimer::Entry> journal;
  double const start = Tamlo::time();
  JournalTimer three(&journal, "3", 3.0), one(&journal, "1", 1.0), two(&journal, "2", 2.0);
  JournalTimer strict(&journal, "2.5", 2.5, eventPriorityStrictHigh);
  doEventLoop(10.0);
  EXPECT_GE(Tamlo::time() - start, 10.0);
  ASSERT_EQ(journal.size(), 4u);
  std::vector<std::string> order;
  for (auto const& entry : journal)
    order.push_back(entry.name);
  EXPECT_THAT(order, ::testing::ElementsAre("1", "2", "2.5", "3"));
  EXPECT_GE(journal[0].at - start, 1.0);
  EXPECT_GE(journal[1].at - start, 2.0);
  EXPECT_GE(journal[2].at - start, 2.5);
  EXPECT_GE(journal[3].at - start, 3.0);
  EXPECT_LT(journal[3].at - start, 10.0);
}

TEST_F(VirtualTimeTest, ManyTimersDueTogetherKeepTheirOrder) {
  std::vector<JournalTimer::Entry> journal;
  std::vector<std::unique_ptr<JournalTimer>> timers;
  for (int i = 0; i < 40; ++i) {
    int const slot = (i * 17) % 40;  // armed out of order
    timers.push_back(
        std::make_unique<JournalTimer>(&journal, std::to_string(slot), 1.0 + slot * 0.01));
  }
  fastForwardBy(100);
  doEventLoopInWaitfor(0);
  ASSERT_EQ(journal.size(), 40u);
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(journal[i].name, std::to_string(i));
}

TEST_F(VirtualTimeTest, TimersAddedWithPlainLibeventAreFastForwardedToo) {
  Tamlo::leInit();
  int plainFired = 0, persistFired = 0, commonFired = 0, commonPersistFired = 0;
  event* const plain = evtimer_new(Tamlo::ev_base, countFire, &plainFired);
  event* const persist = event_new(Tamlo::ev_base, -1, EV_PERSIST, countFire, &persistFired);
  timeval const three{3, 0};
  timeval const* const common = event_base_init_common_timeout(Tamlo::ev_base, &three);
  event* const commonOnce = evtimer_new(Tamlo::ev_base, countFire, &commonFired);
  event* const commonPersist =
      event_new(Tamlo::ev_base, -1, EV_PERSIST, countFire, &commonPersistFired);
  timeval const five{5, 0}, two{2, 0};
  evtimer_add(plain, &five);
  event_add(persist, &two);
  evtimer_add(commonOnce, common);
  event_add(commonPersist, common);

  timeval first;
  ASSERT_EQ(event_base_get_first_timeout(Tamlo::ev_base, &first), 0);
  timeval now;
  Tamlo::Impl::eventBaseNow(Tamlo::ev_base, &now);
  double const firstIn = Tamlo::Impl::secondsFromTimeval(Tamlo::Impl::timevalSubtract(first, now));
  EXPECT_GT(firstIn, 1.9);  // the persistent 2 s timer, decoded plainly
  EXPECT_LE(firstIn, 2.0);

  double const offset = Tamlo::leVirtualTimeOffset();
  doEventLoopInWaitfor(60);  // to the persistent timer
  EXPECT_EQ(persistFired, 1);
  EXPECT_LE(Tamlo::leVirtualTimeOffset() - offset, 2.0001 + microsecond);
  EXPECT_EQ(plainFired + commonFired + commonPersistFired, 0);

  // Moving a persistent timer keeps its interval: 2 s apart on its own queue
  // and 3 s apart on the common-timeout queue.
  doEventLoop(8.0);
  EXPECT_EQ(plainFired, 1);
  EXPECT_EQ(commonFired, 1);
  EXPECT_EQ(persistFired, 5);        // at 2, 4, 6, 8, 10 (less margins)
  EXPECT_EQ(commonPersistFired, 3);  // at 3, 6, 9
  EXPECT_EQ(persist->ev_.ev_io.ev_timeout.tv_sec, 2);
  EXPECT_EQ(persist->ev_.ev_io.ev_timeout.tv_usec, 0);
  for (event* ev : {plain, persist, commonOnce, commonPersist})
    event_free(ev);
}

TEST_F(VirtualTimeTest, TheSwitchIsRefusedOffTheMainThreadAndOffsetsArePerThread) {
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
}

TEST_F(VirtualTimeTest, MisuseWithoutFastForwardIsAnAssertion) {
  setFastForward(false);
  timeval delay;
  EXPECT_THAT(assertionText([&] { Tamlo::fastForwardDelayToFirstTimer(&delay); }),
              HasSubstr("Called without fast forward enabled"));
  EXPECT_THAT(assertionText([] { Tamlo::eventLoopFastForwardToFirstTimer(1); }),
              HasSubstr("Called without fastForward enabled"));
  EXPECT_THAT(assertionText([] { fastForwardBy(1); }),
              HasSubstr("Tamlo::Platform::fastForwardBy() fast-forwarding disabled"));
}

int notified = 0;
void countNotification() {
  ++notified;
}
bool seenOn = false;
void recordSwitch() {
  seenOn = fastForward();
}

TEST_F(VirtualTimeTest, ChangeNotifiersRunOncePerChange) {
  notified = 0;  // notifiers stay registered for the process's life
  registerFastForwardChangeNotifier(countNotification);
  registerFastForwardChangeNotifier(countNotification);  // no duplicate
  registerFastForwardChangeNotifier(recordSwitch);
  EXPECT_EQ(notified, 0);  // not called at registration
  setFastForward(true);    // already on
  EXPECT_EQ(notified, 0);
  setFastForward(false);
  EXPECT_EQ(notified, 1);
  EXPECT_FALSE(seenOn);
  setFastForward(false);
  EXPECT_EQ(notified, 1);
  setFastForward(true);
  EXPECT_EQ(notified, 2);
  EXPECT_TRUE(seenOn);
}

TEST(WaitForDefaultTest, ReadOnceFromTheEnvironment) {
  auto const set = Tamlo::Test::runHelper("LibeventHelper", {"waitfor"}, {"WAITFOR_DEFAULT=2.5"});
  EXPECT_EQ(set.exitCode, 0);
  EXPECT_EQ(set.out, "first 2.5 second 2.5\n");
  EXPECT_EQ(set.err, "");

  auto const trailing =
      Tamlo::Test::runHelper("LibeventHelper", {"waitfor"}, {"WAITFOR_DEFAULT=  3.5s"});
  EXPECT_EQ(trailing.out, "first 3.5 second 3.5\n");

  auto const unset = Tamlo::Test::runHelper("LibeventHelper", {"waitfor"}, {}, {"WAITFOR_DEFAULT"});
  EXPECT_EQ(unset.out, "first inf second inf\n");
  EXPECT_EQ(unset.err, "");

  for (char const* bad : {"WAITFOR_DEFAULT=abc", "WAITFOR_DEFAULT=1e999"}) {
    auto const parsed = Tamlo::Test::runHelper("LibeventHelper", {"waitfor"}, {bad});
    EXPECT_EQ(parsed.out, "first inf second inf\n") << bad;
    EXPECT_EQ(parsed.err, "Parsing the WAITFOR_DEFAULT env. variable failed") << bad;
  }
}

}  // namespace
