// The timer wheel, mostly in virtual time; fatal destruction in a child.
#include <Tamlo/Allocator.h>
#include <Tamlo/Debug.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Random.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using Tamlo::TimerWheel;
using Tamlo::TimerWheelEvent;
using Tamlo::TimerWheelState;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

using Tamlo::Test::assertionText;
constexpr double infinity = std::numeric_limits<double>::infinity();

std::string ptr(TimerWheelEvent const* event) {
  return fmt::format("{}", fmt::ptr(event));
}

// A wheel event that records its deliveries and can run an action in them.
struct ProbeEvent : TimerWheelEvent {
  struct Delivery {
    int id;
    double expiry;  // as armed
    double at;      // Tamlo::time() when delivered
  };

  ProbeEvent(int id = 0, std::vector<Delivery>* journal = nullptr) : id_(id), journal_(journal) {}
  ~ProbeEvent() override {  // nothing left linked after a failed expectation
    if (state() != TimerWheelState::notLinked && wheel_)
      wheel_->timerStop(this);
  }

  // Arms for `seconds` from now, or at `expireAt` when `absolute`.
  void armOn(std::shared_ptr<TimerWheel> const& wheel, double when, bool absolute = false) {
    wheel_ = wheel;
    if (absolute)
      wheel->timerStartAtForTest(this, when);
    else
      setTimeout(wheel, when);
    armedExpiry_ = expirationTime();
  }
  void armAtOn(std::shared_ptr<TimerWheel> const& wheel, double at) { armOn(wheel, at, true); }

  void timeout() override {
    ++delivered_;
    if (journal_)
      journal_->push_back({id_, armedExpiry_, Tamlo::time()});
    if (onTimeout_)
      onTimeout_();
  }

  using TimerWheelEvent::expirationTime_;

  int id_;
  std::vector<Delivery>* journal_;
  std::shared_ptr<TimerWheel> wheel_;
  double armedExpiry_ = infinity;
  int delivered_ = 0;
  std::function<void()> onTimeout_;
};

// Counts expiries of a platform timer and runs an optional action in them.
struct CountingTimer : TimeoutHandler {
  void timeout() override {
    ++fired_;
    firedAt_.push_back(Tamlo::time());
    if (onTimeout_)
      onTimeout_();
  }
  int fired_ = 0;
  std::vector<double> firedAt_;
  std::function<void()> onTimeout_;
};

// The wheel's trace lines, without prefix fields, captured from stderr while
// the object lives; the previous trace format is restored afterwards.
class WheelTraces {
 public:
  WheelTraces() : format_(currentTraceFormat()) {
    clearTraceFormat();
    setupTamloDebug("TamloTimerWheel/89");
    ::testing::internal::CaptureStderr();
  }
  ~WheelTraces() {
    (void)::testing::internal::GetCapturedStderr();
    clearTamloDebug("TamloTimerWheel/89");
    setTraceFormat(format_.c_str());
  }
  WheelTraces(WheelTraces const&) = delete;
  WheelTraces& operator=(WheelTraces const&) = delete;

  // Lines since the last call; the "advance time to" ones only on request.
  std::vector<std::string> take(bool withClockLines = false) {
    std::istringstream text(::testing::internal::GetCapturedStderr());
    ::testing::internal::CaptureStderr();
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      if (line.rfind("TimerWheel::", 0) != 0)
        continue;
      if (!withClockLines && line.find(" advance time to ") != std::string::npos)
        continue;
      lines.push_back(line);
    }
    return lines;
  }

 private:
  // The shown fields, from the 0/1 flags printAllTraceFormat() writes.
  static std::string currentTraceFormat() {
    static char const* const fields[] = {"date",   "time",  "pid",       "tid",
                                         "handle", "level", "line-info", "func-name"};
    ::testing::internal::CaptureStdout();
    printAllTraceFormat();
    std::istringstream flags(::testing::internal::GetCapturedStdout());
    std::string format;
    int shown = 0;
    for (char const* field : fields) {
      if (flags >> shown && shown == 1)
        format.append(format.empty() ? "" : ",").append(field);
    }
    return format;
  }

  std::string const format_;
};

class TimerWheelTest : public ::testing::Test {
 protected:
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }

  // 5 ms on a wheel whose clock was just read: its tick is never after the
  // wheel's, so the wheel has it expired at once.
  void armForFiveMilliseconds(ProbeEvent& probe) {
    wheel_->setMasterTimer();
    probe.armOn(wheel_, 0.005);
  }

  // One loop pass without moving virtual time: a master armed with 0 fires.
  static void onePass() { doEventLoopInWaitfor(0); }

  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TimerWheel> wheel_ = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
};

// Tests reading trace lines, which go elsewhere when TRACEFILE is set.
class TimerWheelTraceTest : public TimerWheelTest {
 protected:
  void SetUp() override {
    TimerWheelTest::SetUp();
    if (std::getenv("TRACEFILE") != nullptr)
      GTEST_SKIP() << "trace lines go to TRACEFILE";
  }
};

// ---- States ----

TEST(TimerWheelStateTest, NamesAndFormatting) {
  std::pair<int, char const*> const names[] = {
      {0, "notLinked"}, {1, "inTimerWheel"}, {2, "inTimersExpiryingSoon"}, {3, "unknownState"}};
  for (auto const& [value, name] : names) {
    auto const state = static_cast<TimerWheelState>(value);
    EXPECT_EQ(Tamlo::timerWheelStateToString(state), name);
    EXPECT_EQ(fmt::format("{}", state), name);
  }
}

TEST(TimerWheelEventTest, FreshEventIsIdleAbsoluteAndNotLinked) {
  ProbeEvent probe;
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);
  EXPECT_EQ(probe.expirationTime(), infinity);
  EXPECT_EQ(probe.remainingTimeout(), infinity);
  EXPECT_EQ(probe.link()->flags, TIMEOUT_ABS | 0x04);
  EXPECT_EQ(probe.link()->pending, nullptr);
  EXPECT_EQ(Tamlo::timeoutLink2TimerWheelEvent(probe.link()), &probe);
}

TEST(TimerWheelEventTest, StateChangesGoViaNotLinkedAndKeepOtherFlags) {
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  ProbeEvent probe;
  probe.link()->flags |= 0x01;
  probe.stateIs(TimerWheelState::inTimerWheel);
  EXPECT_EQ(probe.link()->flags, 0x01 | TIMEOUT_ABS | 0x08);
  probe.stateIs(TimerWheelState::inTimerWheel);  // the same state: nothing
  EXPECT_THAT(assertionText([&] { probe.stateIs(TimerWheelState::inTimersExpiryingSoon); }),
              EndsWith("TimerWheelEvent::stateIs() State change inTimerWheel -> "
                       "inTimersExpiryingSoon must go via notLinked"));
  EXPECT_EQ(probe.state(), TimerWheelState::inTimerWheel);

  probe.stateIs(TimerWheelState::notLinked);
  probe.stateIs(TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(probe.link()->flags, 0x01 | TIMEOUT_ABS | 0x10);
  EXPECT_THAT(assertionText([&] { probe.stateIs(TimerWheelState::inTimerWheel); }),
              EndsWith("State change inTimersExpiryingSoon -> inTimerWheel must go via notLinked"));
  probe.stateIs(TimerWheelState::notLinked);

  EXPECT_THAT(assertionText([&] { probe.stateIs(static_cast<TimerWheelState>(3)); }),
              EndsWith("TimerWheelEvent::stateToTimeoutFlags() invalid state 3"));
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);

  // The state bits must hold exactly one state.
  probe.link()->flags |= 0x08;
  EXPECT_THAT(assertionText([&] { (void)probe.state(); }),
              EndsWith("TimerWheelEvent::timeoutFlagsToState() None or multiple of our flags "
                       "set 12"));
  probe.link()->flags &= ~TIMEOUT_CALLER_BITS;
  EXPECT_THAT(assertionText([&] { (void)probe.state(); }),
              EndsWith("None or multiple of our flags set 0"));
  probe.link()->flags |= 0x04;
}

TEST(TimersAtTimeoutTest, KeepsArrivalOrderAndChecksMembership) {
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  ProbeEvent a(1), b(2), c(3);
  TimerWheel::TimersAtTimeout timers, other;
  EXPECT_TRUE(timers.empty());
  EXPECT_EQ(timers.first(), nullptr);
  for (ProbeEvent* event : {&a, &b, &c})
    timers.pushBack(event);
  EXPECT_EQ(timers.first(), &a);
  timers.unlink(&b);
  EXPECT_EQ(b.link()->pending, nullptr);
  timers.unlink(&a);
  EXPECT_EQ(timers.first(), &c);

  std::string const list = fmt::format("{}", fmt::ptr(c.link()->pending));
  EXPECT_THAT(assertionText([&] { other.pushBack(&c); }),
              EndsWith("TimersAtTimeout::pushBack() pending set to " + list));
  EXPECT_THAT(assertionText([&] { other.unlink(&c); }),
              EndsWith("TimersAtTimeout::unlink() Event " + ptr(&c) + " linked to " + list));
  EXPECT_EQ(timers.first(), &c);
  timers.unlink(&c);
  EXPECT_TRUE(timers.empty());
}

// ---- Delivery ----

TEST_F(TimerWheelTest, ManyTimersFireInExactExpiryOrderAndNeverEarly) {
  constexpr int count = 3000;
  std::vector<ProbeEvent::Delivery> journal;
  std::vector<std::unique_ptr<ProbeEvent>> probes;
  for (int id = 0; id < count; ++id) {
    probes.push_back(std::make_unique<ProbeEvent>(id, &journal));
    ProbeEvent& probe = *probes.back();
    // Every fourth shares the previous one's expiry; arming it straight after
    // puts it behind that one on the wheel.
    if (id % 4 == 3)
      probe.armAtOn(wheel_, probes[id - 1]->expirationTime());
    else
      probe.armOn(wheel_, static_cast<double>(Tamlo::Random::rand64() % 3'000'000) / 1e6);
  }
  doEventLoop(4.0);

  ASSERT_EQ(journal.size(), static_cast<size_t>(count));
  for (size_t i = 0; i < journal.size(); ++i) {
    EXPECT_GE(journal[i].at, journal[i].expiry) << "timer " << journal[i].id << " early";
    if (i > 0) {
      EXPECT_LE(journal[i - 1].expiry, journal[i].expiry) << "timer " << journal[i].id;
      if (journal[i].id % 4 == 3) {
        EXPECT_EQ(journal[i - 1].id, journal[i].id - 1) << "same expiry out of release order";
      }
    }
  }
  for (auto const& probe : probes) {
    EXPECT_EQ(probe->state(), TimerWheelState::notLinked);
    EXPECT_EQ(probe->remainingTimeout(), infinity);
  }
  EXPECT_EQ(wheel_->masterExpiry(), infinity);
  EXPECT_EQ(wheel_->timersExpiryingSoonSizeForTest(), 0u);
}

TEST_F(TimerWheelTraceTest, FiveMillisecondTimerWaitsInTheMapForItsExactExpiry) {
  std::vector<ProbeEvent::Delivery> journal;
  ProbeEvent probe(1, &journal);
  WheelTraces traces;
  armForFiveMilliseconds(probe);
  std::string const p = ptr(&probe);
  double const expiry = probe.expirationTime();
  std::string const e = fmt::format("{}", expiry);
  std::string const number = R"([0-9.e+-]+)";
  EXPECT_THAT(traces.take(),
              ElementsAre("TimerWheel::setMasterTimer() has no timers, del master timer timeout",
                          fmt::format("TimerWheel::timerStart() timer {} set timeout 0.005 expire "
                                      "at {} tick {}",
                                      p, e, static_cast<uint64_t>(expiry * 100)),
                          "TimerWheel::setMasterTimer() has expired timers, set master timer "
                          "timeout 0"));
  EXPECT_EQ(wheel_->masterExpiry(), 0);
  EXPECT_EQ(wheel_->masterTimerArmCountForTest(), 1u);

  onePass();
  if (Tamlo::time() >= expiry)
    GTEST_SKIP() << "more than 5 ms passed in one loop pass";
  EXPECT_EQ(probe.state(), TimerWheelState::inTimersExpiryingSoon);
  EXPECT_TRUE(journal.empty());
  EXPECT_GT(probe.remainingTimeout(), 0);
  EXPECT_EQ(wheel_->masterExpiry(), expiry);
  EXPECT_EQ(wheel_->masterTimerArmCountForTest(), 2u);
  std::vector<std::string> const released = traces.take();
  ASSERT_EQ(released.size(), 3u);
  EXPECT_EQ(released[0], "TimerWheel::timeout() master timer expired");
  EXPECT_THAT(released[1], MatchesRegex("TimerWheel::timeout\\(\\) Defer processing timers with "
                                        "expiry time " +
                                        e + " > now " + number));
  EXPECT_THAT(
      released[2],
      MatchesRegex("TimerWheel::setMasterTimer\\(\\) has scheduled timers, firstExpiryTime=" + e +
                   " now=" + number + ", set master timer timeout " + number));

  doEventLoopInWaitfor(1);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_GE(journal[0].at, expiry);
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);
  EXPECT_THAT(traces.take(),
              ElementsAre("TimerWheel::timeout() master timer expired",
                          "TimerWheel::timerExpired() timer " + p + " expired",
                          "TimerWheel::setMasterTimer() has no timers, del master timer timeout"));
  EXPECT_EQ(wheel_->masterExpiry(), infinity);
  EXPECT_EQ(wheel_->timersExpiryingSoonSizeForTest(), 0u);
}

TEST_F(TimerWheelTraceTest, SettingTheClockTracesTimeAndTick) {
  WheelTraces traces;
  wheel_->setMasterTimer();
  std::vector<std::string> const lines = traces.take(true);
  ASSERT_EQ(lines.size(), 2u);
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[0], match,
                               std::regex(R"(TimerWheel::updateCurrentTime\(\) advance time to )"
                                          R"(([0-9.e+]+) tick ([0-9]+))")));
  double const now = std::stod(match[1]);
  EXPECT_EQ(std::stoull(match[2]), static_cast<uint64_t>(std::ceil(now * 100)));
}

TEST_F(TimerWheelTraceTest, ScheduledWheelTimersArmTheMasterForTheWheelsNextWork) {
  ProbeEvent far(1), farther(2), nearer(3);
  WheelTraces traces;
  far.armOn(wheel_, 30);
  std::vector<std::string> const lines = traces.take();
  ASSERT_EQ(lines.size(), 2u);
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[1], match,
                               std::regex(R"(TimerWheel::setMasterTimer\(\) has scheduled timers, )"
                                          R"(first timer expiry in ([0-9]+) ticks, set master )"
                                          R"(timer timeout ([0-9.e+-]+))")));
  uint64_t const ticks = std::stoull(match[1]);
  EXPECT_GE(ticks, 1u);
  EXPECT_LE(ticks, 3000u);
  EXPECT_EQ(std::stod(match[2]), static_cast<double>(ticks) / 100.0);
  EXPECT_LE(wheel_->masterExpiry(), far.expirationTime());

  // A later timer leaves the master timer alone.
  uint64_t const arms = wheel_->masterTimerArmCountForTest();
  farther.armOn(wheel_, 60);
  EXPECT_EQ(traces.take().size(), 1u);
  EXPECT_EQ(wheel_->masterTimerArmCountForTest(), arms);
  // An earlier one arms it again. The wheel may have armed its master well
  // before the far timers (when a higher wheel must cascade first), so
  // "earlier" is measured against the master's own expiry.
  double const beforeMaster = (wheel_->masterExpiry() - Tamlo::time()) / 2;
  ASSERT_GT(beforeMaster, 0);
  nearer.armOn(wheel_, std::min(0.5, beforeMaster));
  EXPECT_EQ(traces.take().size(), 2u);
  EXPECT_EQ(wheel_->masterTimerArmCountForTest(), arms + 1);
  EXPECT_LE(wheel_->masterExpiry(), nearer.expirationTime());
}

TEST_F(TimerWheelTraceTest, RearmingWithTheSameExpiryChangesAndTracesNothing) {
  ProbeEvent probe;
  double const expireAt = Tamlo::time() + 2;
  probe.armAtOn(wheel_, expireAt);
  uint64_t const arms = wheel_->masterTimerArmCountForTest();
  double const masterExpiry = wheel_->masterExpiry();
  WheelTraces traces;
  probe.armAtOn(wheel_, expireAt);
  EXPECT_TRUE(traces.take(true).empty());
  EXPECT_EQ(probe.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(probe.expirationTime(), expireAt);
  EXPECT_EQ(wheel_->masterTimerArmCountForTest(), arms);
  EXPECT_EQ(wheel_->masterExpiry(), masterExpiry);

  // Another expiry stops the timer first.
  probe.armAtOn(wheel_, expireAt + 1);
  std::vector<std::string> const lines = traces.take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "TimerWheel::timerStop() timer " + ptr(&probe) + " del timeout");
  EXPECT_THAT(lines[1], HasSubstr(" set timeout "));
  EXPECT_EQ(probe.expirationTime(), expireAt + 1);

  // Stopping an idle timer only says so.
  probe.delTimeout(wheel_);
  (void)traces.take(true);
  wheel_->timerStop(&probe);
  EXPECT_THAT(traces.take(true), ElementsAre("TimerWheel::timerStop() timer " + ptr(&probe) +
                                             " del timeout, not running"));
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);
}

TEST_F(TimerWheelTest, StoppingInTheMapLeavesAnEmptyEntryUntilTheNextPass) {
  ProbeEvent probe(1), later(2);
  armForFiveMilliseconds(probe);
  onePass();
  if (probe.delivered_ > 0)
    GTEST_SKIP() << "more than 5 ms passed in one loop pass";
  ASSERT_EQ(probe.state(), TimerWheelState::inTimersExpiryingSoon);

  probe.delTimeout(wheel_);
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);
  EXPECT_EQ(probe.expirationTime(), infinity);
  EXPECT_EQ(probe.link()->pending, nullptr);
  EXPECT_EQ(wheel_->timersExpiryingSoonSizeForTest(), 1u);
  // The empty entry does not count as work.
  wheel_->setMasterTimer();
  EXPECT_EQ(wheel_->masterExpiry(), infinity);

  later.armOn(wheel_, 0.5);
  doEventLoop(1.0);
  EXPECT_EQ(probe.delivered_, 0);
  EXPECT_EQ(later.delivered_, 1);
  EXPECT_EQ(wheel_->timersExpiryingSoonSizeForTest(), 0u);
}

TEST_F(TimerWheelTest, HandlerStoppingTheNextTimerOfItsListPreventsItsDelivery) {
  std::vector<ProbeEvent::Delivery> journal;
  ProbeEvent first(1, &journal), second(2, &journal), third(3, &journal);
  double const expireAt = Tamlo::time() + 0.5;
  for (ProbeEvent* probe : {&first, &second, &third})
    probe->armAtOn(wheel_, expireAt);
  first.onTimeout_ = [&] {
    EXPECT_EQ(second.state(), TimerWheelState::inTimersExpiryingSoon);
    second.delTimeout(wheel_);
  };
  doEventLoop(1.0);
  ASSERT_EQ(journal.size(), 2u);
  EXPECT_EQ(journal[0].id, 1);
  EXPECT_EQ(journal[1].id, 3);
  EXPECT_EQ(second.state(), TimerWheelState::notLinked);
  EXPECT_EQ(second.expirationTime(), infinity);
}

TEST_F(TimerWheelTest, HandlerMayRearmItsOwnTimer) {
  CountingTimer handler;
  auto const control = getTimerControl(&handler, wheel_);
  std::vector<double> notBefore{Tamlo::time() + 0.25};
  handler.onTimeout_ = [&] {
    EXPECT_EQ(control->remainingTimeout(), infinity);
    if (handler.fired_ < 4) {
      notBefore.push_back(Tamlo::time() + 0.25);
      control->setTimeout(0.25);
      EXPECT_GT(control->remainingTimeout(), 0);
    }
  };
  control->setTimeout(0.25);
  doEventLoop(2.0);
  ASSERT_EQ(handler.fired_, 4);
  for (int i = 0; i < 4; ++i)
    EXPECT_GE(handler.firedAt_[i], notBefore[i]);
}

TEST_F(TimerWheelTest, HandlerExceptionLeavesTheLoopAndTheRestStayDue) {
  std::vector<ProbeEvent::Delivery> journal;
  ProbeEvent thrower(1, &journal), second(2, &journal), third(3, &journal), later(4, &journal);
  double const expireAt = Tamlo::time() + 0.5;
  for (ProbeEvent* probe : {&thrower, &second, &third})
    probe->armAtOn(wheel_, expireAt);
  thrower.onTimeout_ = [] { throw std::runtime_error("handler failed"); };

  std::string caught;
  for (int pass = 0; pass < 100 && caught.empty(); ++pass) {
    try {
      doEventLoopInWaitfor(1);
    } catch (std::runtime_error const& e) {
      caught = e.what();
    }
  }
  EXPECT_EQ(caught, "handler failed");
  ASSERT_EQ(journal.size(), 1u);
  for (ProbeEvent* probe : {&second, &third}) {
    EXPECT_EQ(probe->state(), TimerWheelState::inTimersExpiryingSoon);
    EXPECT_EQ(probe->remainingTimeout(), 0);
  }
  // The pass did not arm the master timer again.
  EXPECT_EQ(wheel_->masterExpiry(), infinity);
  doEventLoopInWaitfor(1);
  EXPECT_EQ(journal.size(), 1u);

  // The next arming arms it for what is left, first.
  later.armOn(wheel_, 1);
  doEventLoop(2.0);
  ASSERT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal[1].id, 2);
  EXPECT_EQ(journal[2].id, 3);
  EXPECT_EQ(journal[3].id, 4);
}

TEST_F(TimerWheelTest, RemainingTimeoutCountsDownToZeroUntilDelivered) {
  ProbeEvent probe;
  probe.armOn(wheel_, 2);
  double const before = Tamlo::time();
  double const remaining = probe.remainingTimeout();
  double const after = Tamlo::time();
  EXPECT_LE(remaining, probe.expirationTime() - before);
  EXPECT_GE(remaining, probe.expirationTime() - after);
  fastForwardBy(3);
  EXPECT_EQ(probe.remainingTimeout(), 0);  // due, not yet delivered
  EXPECT_EQ(probe.delivered_, 0);
  doEventLoopInWaitfor(1);
  EXPECT_EQ(probe.delivered_, 1);
  EXPECT_EQ(probe.remainingTimeout(), infinity);
}

TEST_F(TimerWheelTest, InconsistentStopsAreAssertions) {
  ProbeEvent probe;
  probe.expirationTime_ = 7.5;
  EXPECT_THAT(assertionText([&] { wheel_->timerStop(&probe); }),
              EndsWith("TimerWheel::timerStop() Not linked but expirationTime=7.5"));
  probe.stateIs(TimerWheelState::inTimersExpiryingSoon);
  EXPECT_THAT(assertionText([&] { wheel_->timerStop(&probe); }),
              EndsWith("TimerWheel::timersExpiryingSoonRemove() No timersAtTimeout"));
  probe.stateIs(TimerWheelState::notLinked);
  probe.expirationTime_ = infinity;
  EXPECT_THAT(assertionText([&] { probe.setTimeout(wheel_, std::nan("")); }),
              EndsWith("TimerWheel::timerStart() Invalid timeout nan"));
  EXPECT_EQ(probe.state(), TimerWheelState::notLinked);

  // Armed on one wheel, then stopped or armed on another.
  auto const other = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
  probe.armOn(wheel_, 10);
  std::string const mismatch =
      fmt::format("timer {} is armed on wheel {}, not on wheel {}", ptr(&probe),
                  fmt::ptr(wheel_.get()), fmt::ptr(other.get()));
  EXPECT_THAT(assertionText([&] { other->timerStop(&probe); }), EndsWith(mismatch));
  EXPECT_THAT(assertionText([&] { probe.setTimeout(other, 1); }), EndsWith(mismatch));
  EXPECT_EQ(probe.state(), TimerWheelState::inTimerWheel);
}

// ---- Timer controls on a wheel ----

TEST_F(TimerWheelTest, WheelControlsKeepTheTimerControlContract) {
  CountingTimer handler;
  uint64_t const allocations = Tamlo::AllocatorStats::totalAllocations();
  auto const control = getTimerControl(&handler, wheel_);
  EXPECT_EQ(Tamlo::AllocatorStats::totalAllocations() - allocations, 1u);
  EXPECT_EQ(control->remainingTimeout(), infinity);

  control->delTimeout();  // idle: harmless
  control->setTimeout(1);
  EXPECT_GT(control->remainingTimeout(), 0);
  control->setTimeout(infinity);  // never expiring: idle
  EXPECT_EQ(control->remainingTimeout(), infinity);

  double const armedAt = Tamlo::time();
  control->setTimeout(1);
  control->setTimeout(3);  // replaces the first expiry
  doEventLoop(5.0);
  ASSERT_EQ(handler.fired_, 1);
  EXPECT_GE(handler.firedAt_[0], armedAt + 3);
  EXPECT_EQ(control->remainingTimeout(), infinity);

  control->setTimeout(1);
  control->delTimeout();
  doEventLoop(2.0);
  EXPECT_EQ(handler.fired_, 1);

  EXPECT_THAT(
      assertionText([&] { getTimerControl(&handler, std::shared_ptr<TimerWheel>()); }),
      EndsWith(fmt::format("Tamlo::Platform::getTimerControl() No timer wheel for handler {}",
                           fmt::ptr(&handler))));
}

// Every delay a backend can hold is kept; longer ones are cut to its limit:
// 2^62 s for libevent, the last expiry whose tick fits in 64 bits for a wheel.
TEST_F(TimerWheelTest, LongDelaysAreKeptAndOnlyWhatCannotBeHeldIsCut) {
  CountingTimer handler;
  struct Row {
    char const* backend;
    std::shared_ptr<TimerControl> control;
    double limit;
  };
  for (Row const& row : {Row{"libevent", getTimerControl(&handler), 0x1p62},
                         Row{"wheel", getTimerControl(&handler, wheel_), 0x1p64 / 100}}) {
    SCOPED_TRACE(row.backend);
    row.control->setTimeout(1e15);
    EXPECT_NEAR(row.control->remainingTimeout(), 1e15, 1.0);
    row.control->setTimeout(1e300);
    EXPECT_NEAR(row.control->remainingTimeout(), row.limit, row.limit * 1e-9);
    row.control->delTimeout();
  }
}

TEST_F(TimerWheelTest, ControlsAndWheelsLeaveNoAllocationBehind) {
  uint64_t const live = Tamlo::AllocatorStats::liveAllocations();
  {
    CountingTimer handler;
    auto wheel = Tamlo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh);
    std::vector<std::shared_ptr<TimerControl>> controls;
    for (int i = 0; i < 100; ++i) {
      controls.push_back(getTimerControl(&handler, wheel));
      controls.back()->setTimeout(0.004 * i);
    }
    doEventLoop(0.5);
    EXPECT_EQ(handler.fired_, 100);
  }
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), live);
}

TEST_F(TimerWheelTest, HandlerMayDropTheLastReferenceToItsWheel) {
  CountingTimer handler;
  std::shared_ptr<TimerControl> control =
      getTimerControl(&handler, Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault));
  CountingTimer otherHandler;
  auto const other = getTimerControl(&otherHandler, wheel_);
  handler.onTimeout_ = [&] { control.reset(); };
  control->setTimeout(0.1);
  other->setTimeout(0.2);
  doEventLoop(1.0);
  EXPECT_EQ(handler.fired_, 1);
  EXPECT_EQ(control, nullptr);
  EXPECT_EQ(otherHandler.fired_, 1);
}

TEST_F(TimerWheelTest, AStrictHighWheelIsServedFirstInAPass) {
  std::vector<std::string> order;
  CountingTimer plain, onWheel;
  plain.onTimeout_ = [&] { order.push_back("libevent"); };
  onWheel.onTimeout_ = [&] { order.push_back("wheel"); };
  auto const plainControl = getTimerControl(&plain);
  auto const wheelControl =
      getTimerControl(&onWheel, Tamlo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh));
  // The wheel timer is due 50 us after the libevent one; the jump to the
  // first timer goes 100 us beyond it, so both are due in one pass.
  plainControl->setTimeout(1);
  wheelControl->setTimeout(1.00005);
  doEventLoop(2.0);
  EXPECT_THAT(order, ElementsAre("wheel", "libevent"));
}

// ---- Getters ----

TEST(TimerWheelGetterTest, OneWheelPerProcessOrPerThread) {
  std::shared_ptr<TimerWheel> const processWheel = Tamlo::getTimerWheel();
  EXPECT_EQ(Tamlo::getTimerWheel(), processWheel);
  EXPECT_NE(Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault),
            Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault));

  std::weak_ptr<TimerWheel> threadWheel;
  bool sameWithinThread = false;
  std::thread own([&] {
    Tamlo::useThreadLocalSingletons();
    std::shared_ptr<TimerWheel> const wheel = Tamlo::getTimerWheel();
    sameWithinThread = Tamlo::getTimerWheel() == wheel;
    threadWheel = wheel;
    Tamlo::leFree();
  });
  own.join();
  EXPECT_TRUE(sameWithinThread);
  EXPECT_TRUE(threadWheel.expired()) << "released at thread exit";

  std::shared_ptr<TimerWheel> shared;
  std::thread plain([&] {
    shared = Tamlo::getTimerWheel();
    Tamlo::leFree();
  });
  plain.join();
  EXPECT_EQ(shared, processWheel);
}

// ---- Fatal paths, in a child process ----

std::string const eventPointer = "0x[0-9a-f]+";

Tamlo::Test::ChildResult runWheelHelper(std::string const& what) {
  return Tamlo::Test::runHelper("TimerWheelHelper", {what}, {}, {"TRACEFILE"});
}

TEST(TimerWheelFatalTest, DestroyingAnArmedControlEndsTheProcess) {
  auto const result = runWheelHelper("armed");
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_THAT(result.err,
              ::testing::ContainsRegex("Tamlo::Assert aborting because: .*TimerWheel.cpp:[0-9]+: "
                                       "TimerWheelEvent::~TimerWheelEvent\\(\\) TimerWheelEvent " +
                                       eventPointer + " destroyed while inTimerWheel\n"));
}

TEST(TimerWheelFatalTest, DestroyingAnEventInTheMapEndsTheProcess) {
  auto const result = runWheelHelper("expiringSoon");
  EXPECT_EQ(result.signal, SIGABRT);
  std::string const announced = result.out.substr(0, result.out.find('\n'));
  ASSERT_THAT(announced, MatchesRegex("event " + eventPointer));
  EXPECT_THAT(result.err, HasSubstr("TimerWheelEvent " + announced.substr(6) +
                                    " destroyed while inTimersExpiryingSoon"));
}

TEST(TimerWheelFatalTest, DestroyingANonEmptyListEndsTheProcess) {
  auto const result = runWheelHelper("nonEmptyList");
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_THAT(result.err,
              HasSubstr("TimersAtTimeout::~TimersAtTimeout() Destroyed while non-empty"));
}

TEST(TimerWheelFatalTest, StoppedControlsAreDestroyedQuietly) {
  auto const result = runWheelHelper("stopped");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "stopped\n");
}

}  // namespace
