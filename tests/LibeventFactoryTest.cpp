// The libevent backend beyond the control contracts of TaskControlTest.
#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TimerWheel.h>

#include <sys/socket.h>
#include <unistd.h>
#include <csignal>
#include <functional>
#include <limits>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using Tamlo::Test::assertionText;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> journal;  // what Recorders delivered, in order

// Journals its deliveries by name, then runs `also_`; may throw and claim.
struct Recorder : TimeoutHandler, CallbackHandler, FdEventHandler {
  explicit Recorder(std::string name = "") : name_(std::move(name)) {}
  void timeout() override { deliver(); }
  void callback() override { deliver(); }
  void readFdEvent(int fd) override {
    for (char c; ::read(fd, &c, 1) > 0;)
      ;
    deliver();
  }
  void writeFdEvent(int) override {}
  void deliver() {
    journal.push_back(name_);
    if (also_)
      also_();
    if (throws_)
      throw std::runtime_error(name_ + " failed");
  }
  bool handleTimeoutException() override { return ++offered_, claims_; }
  bool handleCallbackException() override { return ++offered_, claims_; }
  std::string name_;
  std::function<void()> also_;
  int offered_ = 0;
  bool throws_ = false, claims_ = false;
};

bool noTimerLeft() {
  timeval first;
  return event_base_get_first_timeout(Tamlo::ev_base, &first) != 0;
}

// What a strict-high handler activates runs in the pass, what it re-arms does not.
TEST(LibeventLoopTest, APassServesStrictHighFirstThenWhatItsHandlersLeftDue) {
  Tamlo::leInit();
  journal.clear();
  Recorder low("default"), high("strict"), rearmed("rearmed");
  auto const lowTimer = getTimerControl(&low, eventPriorityDefault);
  auto highTimer = getTimerControl(&high, eventPriorityStrictHigh);
  auto const rearmedTimer = getTimerControl(&rearmed);
  int plainRuns = 0;
  event* const plain = event_new(
      Tamlo::ev_base, -1, 0, [](evutil_socket_t, short, void* arg) { ++*static_cast<int*>(arg); },
      &plainRuns);
  high.also_ = [&] {
    event_active(plain, EV_TIMEOUT, 1);
    rearmedTimer->setTimeout(3600);
    highTimer.reset();
  };
  for (TimerControl* timer : {lowTimer.get(), rearmedTimer.get(), highTimer.get()})
    timer->setTimeout(0.0);
  Tamlo::eventLoopTimeout(0.0);
  EXPECT_THAT(journal, ElementsAre("strict", "default"));
  EXPECT_EQ(plainRuns, 1);
  EXPECT_GT(rearmedTimer->remainingTimeout(), 3599.0);
  rearmedTimer->delTimeout();
  EXPECT_TRUE(noTimerLeft());
  event_free(plain);

  EXPECT_THAT(assertionText([&] { getTimerControl(&low, static_cast<EventPriority>(7)); }),
              HasSubstr("Failed to set priority on "));
}

// The bounded loop's break event goes with the exception; other due events stay due.
TEST(LibeventLoopTest, AnUnclaimedExceptionLeavesTheLoopAtOnce) {
  journal.clear();
  Recorder failing("failing"), later("later"), called("callback");
  failing.throws_ = called.throws_ = called.claims_ = true;
  auto const failingTimer = getTimerControl(&failing, eventPriorityStrictHigh);
  auto const laterTimer = getTimerControl(&later);
  auto const callback = getCallbackControl(&called);
  callback->requestCallback();
  EXPECT_NO_THROW(doEventLoop());
  failingTimer->setTimeout(0.0);
  laterTimer->setTimeout(0.0);
  EXPECT_THAT([] { doEventLoop(3600.0); },
              testing::ThrowsMessage<std::runtime_error>("failing failed"));
  EXPECT_EQ(failing.offered_ + called.offered_, 2);
  EXPECT_TRUE(noTimerLeft());
  doEventLoop();
  EXPECT_THAT(journal, ElementsAre("callback", "failing", "later"));
}

// With a wheel timer, the wheel's last reference goes too; ASan builds check the way out.
TEST(LibeventLoopTest, AHandlerMayDestroyItsControlAndThrow) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  ASSERT_EQ(::write(fds[1], "x", 1), 1);
  for (std::string const kind : {"libevent timer", "wheel timer", "callback", "fd"}) {
    SCOPED_TRACE(kind);
    Recorder d(kind);
    std::shared_ptr<TimerControl> timer;
    std::shared_ptr<CallbackControl> callback;
    std::shared_ptr<FdControl> fd;
    d.also_ = [&] { timer.reset(), callback.reset(), fd.reset(); };
    d.throws_ = true;
    auto wheel = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);  // moved: d's alone
    if (kind == "callback")
      (callback = getCallbackControl(&d))->requestCallback();
    else if (kind == "fd")
      (fd = getFdControl(&d))->setFd(fds[0]);
    else
      (timer =
           kind == "libevent timer" ? getTimerControl(&d) : getTimerControl(&d, std::move(wheel)))
          ->setTimeout(0);
    EXPECT_THROW(doEventLoop(60.0), std::runtime_error);
    EXPECT_TRUE(!timer && !callback && !fd);
  }
  ::close(fds[0]), ::close(fds[1]);
}

// Nobody could rethrow it later without blaming an unrelated loop call.
TEST(LibeventLoopTest, AnExceptionEscapingADispatchRunDirectlyEndsTheProcess) {
  auto const run = Tamlo::Test::runHelper("LibeventHelper", {"rawdispatch"}, {},
                                          {"TRACE", "TRACEFILE", "TRACEFORMAT"});
  EXPECT_EQ(run.signal, SIGABRT);
  EXPECT_THAT(run.err, AllOf(HasSubstr("A handler exception escaped a dispatch run outside "
                                       "Tamlo's loop functions"),
                             HasSubstr("std::runtime_error"), HasSubstr("raw failed")));
}

TEST(LibeventBaseTest, AnotherBaseAndLibeventErrorsAreAssertions) {
  Tamlo::leInit();
  Tamlo::leRegisterBase(Tamlo::ev_base);  // the same one: allowed
  event_base* const other = Tamlo::leCreateBase();
  EXPECT_THAT(assertionText([&] { Tamlo::leRegisterBase(other); }),
              HasSubstr(fmt::format("Tried to register a base:{} but a thread_local  base "
                                    "already exists: {}",
                                    fmt::ptr(other), fmt::ptr(Tamlo::ev_base))));
  event_base_free(other);
  EXPECT_THAT(assertionText([] { Tamlo::le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

// The leak checker fails this if the thread's base outlives the thread.
TEST(LibeventBaseTest, EachThreadHasItsOwnBaseThatControlsOutlive) {
  Tamlo::leInit();
  event_base* const mainBase = Tamlo::ev_base;
  std::thread([mainBase] {
    EXPECT_FALSE(Tamlo::leInitialized() || Tamlo::mainThread);
    journal.clear();
    Recorder handler;
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    auto const timer = getTimerControl(&handler);
    auto const fd = getFdControl(&handler);
    EXPECT_NE(Tamlo::ev_base, mainBase);
    timer->setTimeout(3600);
    fd->setFd(fds[0]);
    Tamlo::leFree();
    EXPECT_EQ(timer->remainingTimeout(), std::numeric_limits<double>::infinity());
    fd->clearEvents();

    timer->setTimeout(0.0);  // creates and binds to a fresh base
    fd->setFd(fds[0]);
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    doEventLoop(0.0);
    EXPECT_EQ(journal.size(), 2u);
    fd->delFd();
    ::close(fds[0]), ::close(fds[1]);
  }).join();
  EXPECT_EQ(Tamlo::ev_base, mainBase);
}

// (A base re-initialised after fork() is checked with timer tasks.)
TEST(LibeventBaseTest, ChildProcessesRouteLibeventLogsAndAbortOnABadDescriptor) {
  // The default setting "Tamlo*/01" shows warnings and errors only.
  auto const log = Tamlo::Test::runHelper("LibeventHelper", {"log"}, {}, {"TRACE", "TRACEFILE"});
  EXPECT_EQ(log.exitCode, 0) << log.err;
  EXPECT_THAT(log.err, AllOf(HasSubstr("le-warn"), HasSubstr("le-err"), Not(HasSubstr("le-msg"))));

  auto const badFd = Tamlo::Test::runHelper("LibeventHelper", {"badfd"});
  EXPECT_EQ(badFd.signal, SIGABRT);
  EXPECT_THAT(badFd.err, HasSubstr("flags >= 0"));
}

}  // namespace
