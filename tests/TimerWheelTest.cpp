// The timer wheel, mostly in virtual time; fatal destruction and a clock that
// stands still in a child.
#include <Tamlo/Allocator.h>
#include <Tamlo/Debug.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Random.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <regex>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using Tamlo::TimerWheel;
using Tamlo::TimerWheelEvent;
using Tamlo::TimerWheelState;
using ::testing::EndsWith;

using Tamlo::Test::assertionText;
constexpr double infinity = std::numeric_limits<double>::infinity();

std::string ptr(void const* p) {
  return fmt::format("{}", fmt::ptr(p));
}

// A wheel event that journals its deliveries and can run an action in them.
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
    if (journal_)
      journal_->push_back({id_, armedExpiry_, Tamlo::time()});
    if (onTimeout_)
      onTimeout_();
  }

  int id_;
  std::vector<Delivery>* journal_;
  std::shared_ptr<TimerWheel> wheel_;
  double armedExpiry_ = infinity;
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

class TimerWheelTest : public ::testing::Test {
 protected:
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }

  Tamlo::Test::ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<TimerWheel> wheel_ = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
};

TEST_F(TimerWheelTest, ManyTimersFireInExactExpiryOrderAndNeverEarly) {
  constexpr int count = 3000;
  std::vector<ProbeEvent::Delivery> journal;
  std::vector<std::unique_ptr<ProbeEvent>> probes;
  for (int id = 0; id < count; ++id) {
    probes.push_back(std::make_unique<ProbeEvent>(id, &journal));
    ProbeEvent& probe = *probes.back();
    // Every fourth shares the previous one's expiry.
    if (id % 4 == 3)
      probe.armAtOn(wheel_, probes[id - 1]->expirationTime());
    else
      probe.armOn(wheel_, static_cast<double>(Tamlo::Random::rand64() % 3'000'000) / 1e6);
  }
  doEventLoop(4.0);

  ASSERT_EQ(journal.size(), static_cast<size_t>(count));
  for (size_t i = 0; i < journal.size(); ++i) {
    ProbeEvent::Delivery const &now = journal[i], &before = journal[i > 0 ? i - 1 : 0];
    EXPECT_GE(now.at, now.expiry) << "timer " << now.id << " early";
    EXPECT_LE(before.expiry, now.expiry) << "timer " << now.id;
    // Armed straight after its twin of the same expiry: released after it.
    EXPECT_TRUE(now.id % 4 != 3 || before.id == now.id - 1) << "timer " << now.id;
  }
}

// Steps on one wheel, each with the lines it traces ("#" for any number) and
// how often it arms the master timer.
TEST_F(TimerWheelTest, EachStepTracesWhatItDoes) {
  if (std::getenv("TRACEFILE") != nullptr)
    GTEST_SKIP() << "trace lines go to TRACEFILE";
  ProbeEvent probes[3];
  double expireAt = 0;
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
  struct Row {
    std::function<void()> step;
    std::vector<std::string> lines;
    uint64_t arms;
  } const rows[] = {
      {[&] { wheel_->setMasterTimer(); },
       {"TimerWheel::updateCurrentTime() advance time to # tick #",
        "TimerWheel::setMasterTimer() has no timers, del master timer timeout"},
       0},
      {[&] { probes[0].armOn(wheel_, 30); }, {start(0), scheduled}, 1},
      {[&] { probes[1].armOn(wheel_, 60); }, {start(1)}, 0},  // later: master kept
      {[&] { probes[2].armOn(wheel_, 0.5); }, {start(2), scheduled}, 1},
      {[&] { probes[2].armAtOn(wheel_, expireAt = probes[2].expirationTime()); }, {}, 0},
      {[&] { probes[2].armAtOn(wheel_, expireAt + 1); }, {stop(" del timeout"), start(2)}, 0},
      {[&] { probes[2].delTimeout(wheel_); }, {stop(" del timeout")}, 0},
      {[&] { wheel_->timerStop(&probes[2]); }, {stop(" del timeout, not running")}, 0},
  };
  std::regex const number(" [0-9][0-9.e+-]*(?= |$)");  // not the 0x of a pointer
  // Slots follow the clock: just past a boundary of 64 x 64 ticks, the 30 s
  // timer's slot is 29 s away, so the master waits for it and the 0.5 s one
  // re-arms it, at any time of day.
  fastForwardBy(40.96 - std::fmod(Tamlo::time(), 40.96) + 0.001);
  setupTamloDebug("TamloTimerWheel/89");
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    uint64_t const arms = wheel_->masterTimerArmCountForTest();
    ::testing::internal::CaptureStderr();
    rows[i].step();
    std::vector<std::string> lines;  // from "TimerWheel::" on, past any prefix fields
    for (std::string const& line : Tamlo::Test::linesOf(::testing::internal::GetCapturedStderr())) {
      size_t const at = line.find("TimerWheel::");
      if (at != std::string::npos && (i == 0 || line.find(" advance time to ") == line.npos))
        lines.push_back(std::regex_replace(line.substr(at), number, " #"));
    }
    EXPECT_EQ(lines, rows[i].lines);
    EXPECT_EQ(wheel_->masterTimerArmCountForTest() - arms, rows[i].arms);
  }
  clearTamloDebug("TamloTimerWheel/89");
}

// Four timers due together: the first stops the second, the third throws. The
// throw leaves the loop without arming the master timer again; the fourth
// stays due until the next arming, which arms the master for it first.
TEST_F(TimerWheelTest, HandlersMayStopTheNextTimerOfTheirListOrThrowOutOfTheLoop) {
  std::vector<ProbeEvent::Delivery> journal;
  ProbeEvent first(1, &journal), second(2, &journal), thrower(3, &journal), fourth(4, &journal),
      later(5, &journal);
  double const expireAt = Tamlo::time() + 0.5;
  for (ProbeEvent* probe : {&first, &second, &thrower, &fourth})
    probe->armAtOn(wheel_, expireAt);
  first.onTimeout_ = [&] { second.delTimeout(wheel_); };
  thrower.onTimeout_ = [] { throw std::runtime_error("handler failed"); };

  EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
  ASSERT_EQ(journal.size(), 2u);
  EXPECT_EQ(journal[1].id, 3);
  EXPECT_EQ(wheel_->masterExpiry(), infinity);
  doEventLoopInWaitfor(1);
  EXPECT_EQ(journal.size(), 2u);

  later.armOn(wheel_, 1);
  doEventLoop(2.0);
  ASSERT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal[2].id, 4);
  EXPECT_EQ(journal[3].id, 5);
}

TEST_F(TimerWheelTest, ATimerArmedOnOneWheelCannotBeArmedOnAnother) {
  ProbeEvent probe;
  auto const other = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
  probe.armOn(wheel_, 10);
  EXPECT_THAT(assertionText([&] { probe.setTimeout(other, 1); }),
              EndsWith(fmt::format("timer {} is armed on wheel {}, not on wheel {}", ptr(&probe),
                                   ptr(wheel_.get()), ptr(other.get()))));
  EXPECT_EQ(probe.state(), TimerWheelState::inTimerWheel);
}

// The last of a hundred deliveries drops every control and so the only
// reference to their wheel: the loop goes on with other wheels.
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
    EXPECT_EQ(otherHandler.fired_, 1);
  }
  EXPECT_EQ(Tamlo::AllocatorStats::liveAllocations(), live);
}

TEST_F(TimerWheelTest, AStrictHighWheelIsServedFirstInAPass) {
  CountingTimer plain, onWheel;
  plain.onTimeout_ = [&] { EXPECT_EQ(onWheel.fired_, 1) << "the wheel is served first"; };
  auto const plainControl = getTimerControl(&plain);
  auto const wheelControl =
      getTimerControl(&onWheel, Tamlo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh));
  // The wheel timer is due later, but both are due by the one pass.
  plainControl->setTimeout(1);
  wheelControl->setTimeout(1.01);
  fastForwardBy(1.5);
  doEventLoop(2.0);
  EXPECT_EQ(plain.fired_, 1);
}

TEST(TimerWheelGetterTest, OneWheelPerProcessOrPerThread) {
  std::shared_ptr<TimerWheel> const processWheel = Tamlo::getTimerWheel();
  EXPECT_EQ(Tamlo::getTimerWheel(), processWheel);

  std::weak_ptr<TimerWheel> threadWheel;
  std::shared_ptr<TimerWheel> shared;
  std::thread([&] {
    Tamlo::useThreadLocalSingletons();
    threadWheel = Tamlo::getTimerWheel();
    EXPECT_NE(threadWheel.lock(), processWheel);
    Tamlo::leFree();
  }).join();
  EXPECT_TRUE(threadWheel.expired()) << "released at thread exit";
  std::thread([&] {
    shared = Tamlo::getTimerWheel();
    Tamlo::leFree();
  }).join();
  EXPECT_EQ(shared, processWheel);
}

TEST(TimerWheelChildTest, DestroyingAnArmedControlAborts) {
  auto const run = Tamlo::Test::runHelper("TimerWheelHelper", {"armed"}, {}, {"TRACEFILE"});
  EXPECT_EQ(run.signal, SIGABRT);
  EXPECT_THAT(run.err, ::testing::ContainsRegex(
                           "Tamlo::Assert aborting because: .*TimerWheel.cpp:[0-9]+: "
                           "TimerWheelEvent::~TimerWheelEvent\\(\\) TimerWheelEvent 0x[0-9a-f]+ "
                           "destroyed while inTimerWheel\n"));
}

// The child's clock stands still, so "now" is exact and the pass is the only
// thing that can deliver the timer.
TEST(TimerWheelChildTest, ATimerDueExactlyNowIsDeliveredInOnePass) {
  auto const run = Tamlo::Test::runHelper("TimerWheelHelper", {"dueNow"}, {}, {"TRACEFILE"});
  EXPECT_EQ(run.out, "delivered in one pass\n");
}

}  // namespace
