// The timer wheel, mostly in virtual time; fatal destruction in a child.
#include <Tamlo/Allocator.h>
#include <Tamlo/Debug.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Random.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>
#include <algorithm>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using Tamlo::TimerWheel;
using Tamlo::TimerWheelEvent;
using Tamlo::TimerWheelState;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
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
    double expiry, at;  // as armed, and Tamlo::time() when delivered
  };

  explicit ProbeEvent(int id = 0, std::vector<Delivery>* journal = nullptr)
      : id_(id), journal_(journal) {}
  ~ProbeEvent() override {  // nothing left linked after a failed expectation
    if (state() != TimerWheelState::notLinked && wheel_)
      wheel_->timerStop(this);
  }

  void armOn(std::shared_ptr<TimerWheel> const& wheel, double seconds) {
    setTimeout(wheel_ = wheel, seconds);
    armedExpiry_ = expirationTime();
  }
  void armAtOn(std::shared_ptr<TimerWheel> const& wheel, double at) {
    (wheel_ = wheel)->timerStartAtForTest(this, at);
    armedExpiry_ = expirationTime();
  }

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
    if (onTimeout_)
      onTimeout_();
  }
  int fired_ = 0;
  std::function<void()> onTimeout_;
};

// The wheel's trace lines from "TimerWheel::" on (past any prefix fields),
// captured from stderr while the object lives.
class WheelTraces {
 public:
  WheelTraces() {
    setupTamloDebug("TamloTimerWheel/89");
    ::testing::internal::CaptureStderr();
  }
  ~WheelTraces() {
    (void)::testing::internal::GetCapturedStderr();
    clearTamloDebug("TamloTimerWheel/89");
  }

  // Lines since the last call; the "advance time to" ones only on request.
  std::vector<std::string> take(bool withClockLines = false) {
    std::istringstream text(::testing::internal::GetCapturedStderr());
    ::testing::internal::CaptureStderr();
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      size_t const at = line.find("TimerWheel::");
      if (at != std::string::npos &&
          (withClockLines || line.find(" advance time to ") == std::string::npos))
        lines.push_back(line.substr(at));
    }
    return lines;
  }
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
}

// An expected trace line: "#" stands for a number, the rest is literal.
::testing::Matcher<std::string> traced(std::string const& line) {
  std::string regex;
  for (char c : line)
    regex += c == '#' ? std::string("[0-9.e+-]+")
                      : (std::strchr("()[].*+?^$|\\", c) ? "\\" : "") + std::string(1, c);
  return MatchesRegex(regex);
}

std::vector<::testing::Matcher<std::string>> traced(std::vector<std::string> const& lines) {
  std::vector<::testing::Matcher<std::string>> matchers;
  for (std::string const& line : lines)
    matchers.push_back(traced(line));
  return matchers;
}

TEST_F(TimerWheelTraceTest, FiveMillisecondTimerWaitsInTheMapForItsExactExpiry) {
  std::vector<ProbeEvent::Delivery> journal;
  ProbeEvent probe(1, &journal);
  WheelTraces traces;
  armForFiveMilliseconds(probe);
  std::string const p = ptr(&probe);
  double const expiry = probe.expirationTime();
  std::string const e = fmt::format("{}", expiry);
  EXPECT_THAT(
      traces.take(),
      ElementsAreArray(
          traced({"TimerWheel::setMasterTimer() has no timers, del master timer timeout",
                  fmt::format("TimerWheel::timerStart() timer {} set timeout 0.005 expire at {} "
                              "tick {}",
                              p, e, static_cast<uint64_t>(expiry * 100)),
                  "TimerWheel::setMasterTimer() has expired timers, set master timer timeout 0"})));
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
  EXPECT_THAT(traces.take(),
              ElementsAreArray(traced({"TimerWheel::timeout() master timer expired",
                                       "TimerWheel::timeout() Defer processing timers with expiry "
                                       "time " +
                                           e + " > now #",
                                       "TimerWheel::setMasterTimer() has scheduled timers, "
                                       "firstExpiryTime=" +
                                           e + " now=#, set master timer timeout #"})));

  doEventLoopInWaitfor(1);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_GE(journal[0].at, expiry);
  EXPECT_THAT(traces.take(),
              ElementsAre("TimerWheel::timeout() master timer expired",
                          "TimerWheel::timerExpired() timer " + p + " expired",
                          "TimerWheel::setMasterTimer() has no timers, del master timer timeout"));
  EXPECT_EQ(wheel_->masterExpiry(), infinity);
  EXPECT_EQ(wheel_->timersExpiryingSoonSizeForTest(), 0u);
}

// Steps on one wheel, each with the lines it traces and how often it arms
// the master timer.
TEST_F(TimerWheelTraceTest, EachStepTracesWhatItDoes) {
  ProbeEvent probes[3];
  double expireAt = 0;
  struct Row {
    std::function<void()> step;
    std::vector<std::string> lines;
    uint64_t arms;
  };
  auto const start = [&](int i) {
    return "TimerWheel::timerStart() timer " + ptr(&probes[i]) +
           " set timeout # expire at # tick #";
  };
  auto const stop = [&](char const* how) {
    return "TimerWheel::timerStop() timer " + ptr(&probes[2]) + how;
  };
  std::string const scheduled =
      "TimerWheel::setMasterTimer() has scheduled timers, first timer "
      "expiry in # ticks, set master timer timeout #";
  Row const rows[] = {
      {[&] { wheel_->setMasterTimer(); },
       {"TimerWheel::updateCurrentTime() advance time to # tick #",
        "TimerWheel::setMasterTimer() has no timers, del master timer timeout"},
       0},
      {[&] { probes[0].armOn(wheel_, 30); }, {start(0), scheduled}, 1},
      {[&] { probes[1].armOn(wheel_, 60); }, {start(1)}, 0},  // later: master kept
      // The master may be armed well before the far timers (when a higher
      // wheel must cascade first): "earlier" is against its own expiry.
      {[&] {
         probes[2].armOn(wheel_, std::min(0.5, (wheel_->masterExpiry() - Tamlo::time()) / 2));
       },
       {start(2), scheduled},
       1},
      {[&] { probes[2].armAtOn(wheel_, expireAt = probes[2].expirationTime()); }, {}, 0},
      {[&] { probes[2].armAtOn(wheel_, expireAt + 1); }, {stop(" del timeout"), start(2)}, 0},
      {[&] { probes[2].delTimeout(wheel_); }, {stop(" del timeout")}, 0},
      {[&] { wheel_->timerStop(&probes[2]); }, {stop(" del timeout, not running")}, 0},
  };
  WheelTraces traces;
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    uint64_t const arms = wheel_->masterTimerArmCountForTest();
    rows[i].step();
    std::vector<std::string> const lines = traces.take(i == 0);
    EXPECT_THAT(lines, ElementsAreArray(traced(rows[i].lines)));
    EXPECT_EQ(wheel_->masterTimerArmCountForTest() - arms, rows[i].arms);
    // Ticks round the time up; the master's timeout is its ticks in seconds.
    std::smatch match;
    for (std::string const& line : lines) {
      if (std::regex_search(line, match, std::regex("time to ([0-9.e+]+) tick ([0-9]+)$"))) {
        EXPECT_EQ(std::stoull(match[2]),
                  static_cast<uint64_t>(std::ceil(std::stod(match[1]) * 100)));
      }
      if (std::regex_search(line, match, std::regex("in ([0-9]+) ticks.* ([0-9.e+-]+)$"))) {
        EXPECT_EQ(std::stod(match[2]), static_cast<double>(std::stoull(match[1])) / 100.0);
      }
    }
  }
  EXPECT_LE(wheel_->masterExpiry(), probes[0].expirationTime());
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

// (The contract every timer control keeps is checked in TaskControlTest.)
TEST_F(TimerWheelTest, InconsistentStopsAndAMissingWheelAreAssertions) {
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

  CountingTimer handler;
  EXPECT_THAT(
      assertionText([&] { getTimerControl(&handler, std::shared_ptr<TimerWheel>()); }),
      EndsWith(fmt::format("Tamlo::Platform::getTimerControl() No timer wheel for handler {}",
                           fmt::ptr(&handler))));
}

// The last of a hundred deliveries drops every control, and with them the
// only reference to their wheel: the loop goes on with other wheels, and
// nothing allocated is left.
TEST_F(TimerWheelTest, AHandlerMayDropTheLastReferenceToItsWheelAndNothingIsLeft) {
  uint64_t const live = Tamlo::AllocatorStats::liveAllocations();
  {
    CountingTimer handler, otherHandler;
    auto wheel = Tamlo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh);
    std::vector<std::shared_ptr<TimerControl>> controls;
    for (int i = 0; i < 100; ++i) {
      controls.push_back(getTimerControl(&handler, wheel));
      controls.back()->setTimeout(0.004 * i);
    }
    wheel.reset();
    handler.onTimeout_ = [&] {
      if (handler.fired_ == 100)
        controls.clear();
    };
    auto const other = getTimerControl(&otherHandler, wheel_);
    other->setTimeout(0.5);
    doEventLoop(1.0);
    EXPECT_EQ(handler.fired_, 100);
    EXPECT_TRUE(controls.empty());
    EXPECT_EQ(otherHandler.fired_, 1);
  }
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), live);
}

TEST_F(TimerWheelTest, AStrictHighWheelIsServedFirstInAPass) {
  std::vector<std::string> order;
  CountingTimer plain, onWheel;
  plain.onTimeout_ = [&] { order.push_back("libevent"); };
  onWheel.onTimeout_ = [&] { order.push_back("wheel"); };
  auto const plainControl = getTimerControl(&plain);
  auto const wheelControl =
      getTimerControl(&onWheel, Tamlo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh));
  // The wheel timer is due after the libevent one; moving the clock past
  // both before the loop runs makes them due in one pass, however long the
  // machine took between the two calls.
  plainControl->setTimeout(1);
  wheelControl->setTimeout(1.01);
  fastForwardBy(1.5);
  doEventLoop(2.0);
  EXPECT_THAT(order, ElementsAre("wheel", "libevent"));
}

TEST(TimerWheelGetterTest, OneWheelPerProcessOrPerThread) {
  std::shared_ptr<TimerWheel> const processWheel = Tamlo::getTimerWheel();
  EXPECT_EQ(Tamlo::getTimerWheel(), processWheel);
  EXPECT_NE(Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault),
            Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault));

  std::weak_ptr<TimerWheel> threadWheel;
  std::thread([&] {
    Tamlo::useThreadLocalSingletons();
    threadWheel = Tamlo::getTimerWheel();
    EXPECT_EQ(Tamlo::getTimerWheel(), threadWheel.lock());
    Tamlo::leFree();
  }).join();
  EXPECT_TRUE(threadWheel.expired()) << "released at thread exit";
  std::shared_ptr<TimerWheel> shared;
  std::thread([&] {
    shared = Tamlo::getTimerWheel();
    Tamlo::leFree();
  }).join();
  EXPECT_EQ(shared, processWheel);
}

// ---- In a child process: fatal destruction, and a clock that stands still ----

// "dueNow" stops the child's clock (by pushing virtual time so far that one
// second is below the precision of a double) and arms a timer for exactly
// now: one pass must deliver it.
TEST(TimerWheelChildTest, EndsOrExitsAsEachCaseRequires) {
  struct Row {
    char const* mode;
    int signal;
    char const* outRegex;
    char const* errRegex;
  };
  Row const rows[] = {
      {"armed", SIGABRT, "",
       "Tamlo::Assert aborting because: .*TimerWheel.cpp:[0-9]+: "
       "TimerWheelEvent::~TimerWheelEvent\\(\\) TimerWheelEvent 0x[0-9a-f]+ destroyed while "
       "inTimerWheel\n"},
      {"expiringSoon", SIGABRT, "event 0x[0-9a-f]+\n",
       "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimersExpiryingSoon"},
      {"nonEmptyList", SIGABRT, "",
       "TimersAtTimeout::~TimersAtTimeout\\(\\) Destroyed while non-empty"},
      {"stopped", 0, "^stopped\n$", "^$"},
      {"dueNow", 0, "^delivered in one pass\n$", "^$"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.mode);
    auto const result = Tamlo::Test::runHelper("TimerWheelHelper", {row.mode}, {}, {"TRACEFILE"});
    EXPECT_EQ(result.signal, row.signal);
    EXPECT_EQ(result.exitCode, row.signal != 0 ? -1 : 0);
    EXPECT_THAT(result.out, ::testing::ContainsRegex(row.outRegex));
    EXPECT_THAT(result.err, ::testing::ContainsRegex(row.errRegex));
    if (row.signal != 0 && !result.out.empty()) {  // the announced event is the one named
      EXPECT_THAT(result.err,
                  HasSubstr(result.out.substr(6, result.out.size() - 7) + " destroyed"));
    }
  }
}

}  // namespace
