#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <limits>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr double infinity = std::numeric_limits<double>::infinity();

using Tamlo::Test::assertionText;

// What every recording handler counts; it may throw and claim the exception.
struct Recording {
  int offered_ = 0;
  bool throws_ = false, claims_ = false;
  bool offer() { return ++offered_, claims_; }
};

struct RecordingTimer : TimeoutHandler, Recording {
  RecordingTimer(std::vector<std::string>* journal, std::string name)
      : journal_(journal), name_(std::move(name)) {}
  void timeout() override {
    ++fired_;
    if (journal_)
      journal_->push_back(name_);
    if (throws_)
      throw std::runtime_error(name_ + " failed");
  }
  bool handleTimeoutException() override { return offer(); }
  std::vector<std::string>* journal_;
  std::string name_;
  int fired_ = 0;
};

struct RecordingCallback : CallbackHandler, Recording {
  void callback() override {
    if (throws_)
      throw std::logic_error("callback failed");
  }
  bool handleCallbackException() override { return offer(); }
};

struct RecordingFd : FdEventHandler {
  void readFdEvent(int fd) override {
    for (char c; ::read(fd, &c, 1) > 0;)
      ++reads_;
  }
  void writeFdEvent(int) override {}
  int reads_ = 0;
};

// One loop pass that serves whatever is ready now.
void runOnePass() {
  Tamlo::eventLoopTimeout(0.0);
}
bool noTimerLeft() {
  timeval first;
  return event_base_get_first_timeout(Tamlo::ev_base, &first) != 0;
}

// The contract every backend's controls keep is checked in TaskControlTest.
TEST(LibeventTimerControlTest, HandlersMayReArmOthersInThePassAndDestroyTheirOwnControl) {
  RecordingTimer second(nullptr, "second");
  auto const secondTimer = getTimerControl(&second);
  struct Rearming : TimeoutHandler {
    void timeout() override {
      other->setTimeout(3600);  // cancels the other's delivery in this pass
      self.reset();
    }
    TimerControl* other = nullptr;
    std::shared_ptr<TimerControl> self;
  } first;
  first.other = secondTimer.get();
  first.self = getTimerControl(&first, eventPriorityStrictHigh);
  secondTimer->setTimeout(0.0);
  first.self->setTimeout(0.0);
  runOnePass();
  EXPECT_EQ(second.fired_, 0);
  EXPECT_GT(secondTimer->remainingTimeout(), 3599.0);
  EXPECT_EQ(first.self, nullptr);
}

TEST(LibeventTimerControlTest, StrictHighIsServedBeforeDefaultInOnePass) {
  std::vector<std::string> journal;
  RecordingTimer low(&journal, "default"), high(&journal, "strict");
  auto const lowTimer = getTimerControl(&low, eventPriorityDefault);
  auto const highTimer = getTimerControl(&high, eventPriorityStrictHigh);
  lowTimer->setTimeout(0.0);
  highTimer->setTimeout(0.0);
  runOnePass();
  EXPECT_THAT(journal, ::testing::ElementsAre("strict", "default"));

  EXPECT_THAT(assertionText([&] { getTimerControl(&low, static_cast<EventPriority>(7)); }),
              AllOf(HasSubstr("Failed to set priority on "),
                    HasSubstr(" to Invalid EventPriority=7 rc -1")));
}

TEST(LibeventLoopTest, ClaimedExceptionsAreSwallowedUnclaimedLeaveTheLoop) {
  std::vector<std::string> journal;
  RecordingTimer failing(&journal, "failing"), later(&journal, "later");
  RecordingCallback callbackHandler;
  failing.throws_ = failing.claims_ = callbackHandler.throws_ = callbackHandler.claims_ = true;
  auto const failingTimer = getTimerControl(&failing, eventPriorityStrictHigh);
  auto const laterTimer = getTimerControl(&later);
  auto const callback = getCallbackControl(&callbackHandler);
  failingTimer->setTimeout(0.0);
  callback->requestCallback();
  laterTimer->setTimeout(0.0);
  EXPECT_NO_THROW(doEventLoop());
  EXPECT_EQ(failing.offered_, 1);
  EXPECT_EQ(callbackHandler.offered_, 1);
  EXPECT_THAT(journal, ::testing::ElementsAre("failing", "later"));

  journal.clear();
  failing.claims_ = callbackHandler.claims_ = false;
  failingTimer->setTimeout(0.0);
  laterTimer->setTimeout(0.0);
  try {
    doEventLoop(3600.0);  // must not wait for its bound
    ADD_FAILURE() << "no exception";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "failing failed");
  }
  EXPECT_EQ(failing.offered_, 2);
  EXPECT_THAT(journal, ::testing::ElementsAre("failing"));
  EXPECT_TRUE(noTimerLeft());  // the break event went with the unwinding
  EXPECT_EQ(laterTimer->remainingTimeout(), 0.0);
  doEventLoop();
  EXPECT_THAT(journal, ::testing::ElementsAre("failing", "later"));
  callback->requestCallback();
  EXPECT_THROW(doEventLoop(), std::logic_error);
  EXPECT_EQ(callbackHandler.offered_, 2);
}

// A handler may destroy its own control, for a wheel timer the last reference
// to its wheel, and then throw: the exception leaves the loop, and nothing
// freed is touched on its way (AddressSanitizer builds check that).
TEST(LibeventLoopTest, AHandlerMayDestroyItsControlAndThrow) {
  struct Destroyer : TimeoutHandler, CallbackHandler, FdEventHandler {
    void timeout() override { destroyAndThrow(); }
    void callback() override { destroyAndThrow(); }
    void readFdEvent(int) override { destroyAndThrow(); }
    void writeFdEvent(int) override {}
    void destroyAndThrow() {
      timer_.reset(), callback_.reset(), fd_.reset();
      throw std::runtime_error("destroyed");
    }
    std::shared_ptr<TimerControl> timer_;
    std::shared_ptr<CallbackControl> callback_;
    std::shared_ptr<FdControl> fd_;
  };
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  ASSERT_EQ(::write(fds[1], "x", 1), 1);
  for (std::string const kind : {"libevent timer", "wheel timer", "callback", "fd"}) {
    SCOPED_TRACE(kind);
    Destroyer d;
    auto wheel = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);  // moved: d's alone
    if (kind == "callback")
      (d.callback_ = getCallbackControl(&d))->requestCallback();
    else if (kind == "fd")
      (d.fd_ = getFdControl(&d))->setFd(fds[0]);
    else
      (d.timer_ =
           kind == "libevent timer" ? getTimerControl(&d) : getTimerControl(&d, std::move(wheel)))
          ->setTimeout(0);
    EXPECT_THROW(doEventLoop(60.0), std::runtime_error);
    EXPECT_TRUE(!d.timer_ && !d.callback_ && !d.fd_);
  }
  ::close(fds[0]), ::close(fds[1]);
}

// Nobody could rethrow it later without blaming an unrelated loop call.
TEST(LibeventLoopTest, AnExceptionEscapingADispatchRunDirectlyEndsTheProcess) {
  auto const run = Tamlo::Test::runHelper("LibeventHelper", {"rawdispatch"}, {},
                                          {"TRACE", "TRACEFILE", "TRACEFORMAT"});
  EXPECT_EQ(run.signal, SIGABRT);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, AllOf(HasSubstr("A handler exception escaped a dispatch run outside "
                                       "Tamlo's loop functions"),
                             HasSubstr("std::runtime_error"), HasSubstr("raw failed")));
}

TEST(LibeventLoopTest, EvLoopBreakEndsTheDispatchAndRemovesItsEvent) {
  RecordingTimer handler(nullptr, "t");
  auto const timer = getTimerControl(&handler);
  timer->setTimeout(3600);
  Tamlo::eventLoopTimeout(0.002);
  EXPECT_EQ(handler.fired_, 0);
  timer->delTimeout();
  EXPECT_TRUE(noTimerLeft());
}

TEST(LibeventLoopTest, APassEndsAfterEventsThatStrictHighHandlersActivated) {
  Tamlo::leInit();
  int plainRuns = 0;
  event* const plain = event_new(
      Tamlo::ev_base, -1, 0, [](evutil_socket_t, short, void* arg) { ++*static_cast<int*>(arg); },
      &plainRuns);
  struct Activating : TimeoutHandler {
    void timeout() override { event_active(target, EV_TIMEOUT, 1); }
    event* target = nullptr;
  } activating;
  activating.target = plain;
  auto const strict = getTimerControl(&activating, eventPriorityStrictHigh);
  strict->setTimeout(0.0);
  runOnePass();
  EXPECT_EQ(plainRuns, 1);
  event_free(plain);
}

std::atomic<int> signalsCaught{0};

// Rows: an interval timer and another thread keep interrupting the loop's
// wait with a signal whose handler does not restart calls. The timer still
// fires once and not before its time: real time here, since an interrupted
// wait is the point, and the checks hold however late the loop gets.
TEST(LibeventLoopTest, SignalsInterruptingTheWaitDelayNoTimer) {
  struct sigaction action = {}, previous = {};
  action.sa_handler = [](int) { ++signalsCaught; };
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  for (bool const fromThread : {false, true}) {
    signalsCaught = 0;
    std::atomic<bool> looping{true};
    std::thread sender;
    itimerval const every1ms{{0, 1000}, {0, 1000}}, off{};
    struct : TimeoutHandler {
      void timeout() override { ++fired, at = Tamlo::time(); }
      int fired = 0;
      double at = 0;
    } handler;
    auto const timer = getTimerControl(&handler);
    if (fromThread) {
      sender = std::thread([&looping, main = pthread_self()] {
        while (looping)
          pthread_kill(main, SIGALRM), std::this_thread::sleep_for(std::chrono::milliseconds(1));
      });
    } else {
      setitimer(ITIMER_REAL, &every1ms, nullptr);
    }
    // Again until a signal came during a wait: a loaded machine may not run
    // the sender within one timer's span.
    for (int round = 0; round < 200 && (round == 0 || signalsCaught == 0); ++round) {
      handler.fired = 0;
      double const expiry = Tamlo::time() + 0.03;
      timer->setTimeout(0.03);
      doEventLoop();
      EXPECT_EQ(handler.fired, 1) << fromThread;
      EXPECT_GE(handler.at, expiry - 1e-5) << fromThread;  // libevent keeps microseconds
    }
    looping = false;
    fromThread ? sender.join() : (void)setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GT(signalsCaught.load(), 0) << fromThread;
  }
  sigaction(SIGALRM, &previous, nullptr);
}

TEST(LibeventBaseTest, RegisteringAnotherBaseFails) {
  Tamlo::leInit();
  Tamlo::leRegisterBase(Tamlo::ev_base);  // the same one: allowed
  event_base* const other = Tamlo::leCreateBase();
  EXPECT_THAT(assertionText([&] { Tamlo::leRegisterBase(other); }),
              HasSubstr(fmt::format("Tried to register a base:{} but a thread_local  base "
                                    "already exists: {}",
                                    fmt::ptr(other), fmt::ptr(Tamlo::ev_base))));
  event_base_free(other);
}

// Each thread gets its own base, left to the thread's exit to free (under the
// leak checker this fails if the base outlives the thread). Controls outlive
// leFree() and bind to the next base.
TEST(LibeventBaseTest, EachThreadHasItsOwnBaseThatControlsOutlive) {
  Tamlo::leInit();
  event_base* const mainBase = Tamlo::ev_base;
  EXPECT_TRUE(Tamlo::mainThread);
  std::thread([mainBase] {
    EXPECT_FALSE(Tamlo::leInitialized() || Tamlo::mainThread);
    RecordingTimer timerHandler(nullptr, "t");
    RecordingFd fdHandler;
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    auto const timer = getTimerControl(&timerHandler);
    auto const fd = getFdControl(&fdHandler);
    EXPECT_NE(Tamlo::ev_base, mainBase);
    timer->setTimeout(3600);
    fd->setFd(fds[0]);
    Tamlo::leFree();
    EXPECT_FALSE(Tamlo::leInitialized());
    EXPECT_EQ(timer->remainingTimeout(), infinity);
    timer->delTimeout();
    fd->clearEvents();

    timer->setTimeout(0.0);  // creates and binds to a fresh base
    EXPECT_TRUE(Tamlo::leInitialized());
    fd->setFd(fds[0]);
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    doEventLoop(0.0);
    EXPECT_EQ(timerHandler.fired_, 1);
    EXPECT_EQ(fdHandler.reads_, 1);
    EXPECT_TRUE(Tamlo::leInitialized());
    fd->delFd();
    ::close(fds[0]), ::close(fds[1]);
  }).join();
  EXPECT_EQ(Tamlo::ev_base, mainBase);
}

TEST(LibeventBaseTest, LibeventMessagesOfUnknownSeverityAndFatalErrorsAreAssertions) {
  EXPECT_THAT(assertionText([] { Tamlo::le_debug_cb(7, "boom"); }),
              HasSubstr("invalid libevent severity:7 msg:boom"));
  EXPECT_THAT(assertionText([] { Tamlo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

// (A base re-initialised after fork() is checked with timer tasks.)
TEST(LibeventBaseTest, ChildProcessesRouteLibeventLogsAndAbortOnABadDescriptor) {
  // The default setting "Tamlo*/01" shows warnings and errors only.
  auto const log = Tamlo::Test::runHelper("LibeventHelper", {"log"}, {}, {"TRACE", "TRACEFILE"});
  EXPECT_EQ(log.exitCode, 0) << log.err;
  EXPECT_THAT(log.err, AllOf(HasSubstr("le-warn"), HasSubstr("le-err"), Not(HasSubstr("le-msg")),
                             Not(HasSubstr("le-debug"))));

  auto const badFd = Tamlo::Test::runHelper("LibeventHelper", {"badfd"});
  EXPECT_EQ(badFd.signal, SIGABRT);
  EXPECT_THAT(badFd.err, HasSubstr("flags >= 0"));
}

}  // namespace
