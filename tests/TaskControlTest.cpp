// The platform controls' contracts, a row per backend; then what task-served ones add.
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/TaskControl.h>
#include <Tamlo/TimerWheel.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "SchedulerTestSupport.h"

namespace {

using Tamlo::TaskPriority;
using namespace Tamlo::Platform;
using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double microsecond = 1e-6;  // what libevent keeps

// May re-arm or re-request `again` times, throw, and claim fd exceptions.
struct Handler : TimeoutHandler, CallbackHandler, FdEventHandler {
  void timeout() override {
    firedAt.push_back(Tamlo::time());
    EXPECT_TRUE(!timer || timer->remainingTimeout() == infinity);
    if (timer && again > 0 && again--)
      timer->setTimeout(0.25);
    note();
  }
  void callback() override {
    ++calls;
    if (callbackControl && again > 0 && again--)
      callbackControl->requestCallback();
    note();
  }
  void readFdEvent(int fd) override {
    for (char c; read(fd, &c, 1) > 0;)
      ++bytesRead;
    ++reads;
    note();
  }
  void writeFdEvent(int fd) override { lastFd = fd, ++writes, note(); }
  bool handleTimeoutException() override { return ++offered, true; }
  bool handleCallbackException() override { return ++offered, true; }
  bool handleFdException(int fd) override { return lastFd = fd, ++offered, claims; }
  void note() {
    outsideTasks += root && !root->runningTask();
    if (throws)
      throw std::runtime_error("handler failed");
  }

  Tamlo::TaskSchedulerRoot* root = nullptr;
  TimerControl* timer = nullptr;
  CallbackControl* callbackControl = nullptr;
  std::vector<double> firedAt;
  int again = 0, calls = 0, reads = 0, writes = 0, bytesRead = 0, offered = 0, lastFd = -1;
  int outsideTasks = 0;
  bool throws = false, claims = false;
};

// `limit`: 2^62 s, or the last expiry whose tick fits in 64 bits. Task controls
// take NaN to a plain assert() and forget the descriptor on clearEvents.
struct Backend {
  char const* name;
  std::function<std::shared_ptr<TimerControl>(TimeoutHandler*)> timer;
  std::function<std::shared_ptr<CallbackControl>(CallbackHandler*)> callback;
  std::function<std::shared_ptr<FdControl>(FdEventHandler*)> fd;
  double limit;
  bool tasks = false;
};

class PlatformControlTest : public ::testing::Test {
 protected:
  ~PlatformControlTest() override { setFastForward(false); }
  // A notification may queue a task that a later pass runs.
  static void serve() {
    for (int i = 0; i < 3; ++i)
      Tamlo::eventLoopTimeout(0.0);
  }

  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ = Tamlo::Test::virtualTimeRoot("controls");
  std::shared_ptr<Tamlo::TimerWheel> wheel_ =
      Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
  TaskPriority const normal_ = TaskPriority::normal;
  Backend const backends_[3] = {
      {"libevent", [](TimeoutHandler* h) { return getTimerControl(h); },
       [](CallbackHandler* h) { return getCallbackControl(h); },
       [](FdEventHandler* h) { return getFdControl(h); }, 0x1p62},
      {"wheel", [this](TimeoutHandler* h) { return getTimerControl(h, wheel_); }, nullptr, nullptr,
       0x1p64 / 100},
      {"tasks", [this](TimeoutHandler* h) { return getTimerControl(h, root_, normal_, "t"); },
       [this](CallbackHandler* h) { return getCallbackControl(h, root_, normal_, "c"); },
       [this](FdEventHandler* h) { return getFdControl(h, root_, normal_, "f"); }, 0x1p64 / 100,
       true},
  };
};

// Idle reads infinity, also in the delivery; delays longer than a backend holds are cut.
TEST_F(PlatformControlTest, TimerControlsFireOnceNotEarlyAtTheLatestExpiry) {
  for (Backend const& backend : backends_) {
    SCOPED_TRACE(backend.name);
    Tamlo::Test::ThrowOnAssert const throwOnAssert;
    Handler handler;
    auto const control = backend.timer(&handler);
    if (!backend.tasks) {
      EXPECT_THAT(Tamlo::Test::assertionText([&] { control->setTimeout(std::nan("")); }),
                  HasSubstr("Invalid timeout nan"));
    }
    control->delTimeout();          // idle: harmless
    control->setTimeout(infinity);  // never expiring: idle
    EXPECT_EQ(control->remainingTimeout(), infinity);
    control->setTimeout(-2);  // in the past: due at once
    EXPECT_EQ(control->remainingTimeout(), 0);

    control->setTimeout(1);
    double const before = Tamlo::time();
    control->setTimeout(3);
    doEventLoop(5.0);
    ASSERT_EQ(handler.firedAt.size(), 1u);
    EXPECT_GE(handler.firedAt[0], before + 3 - microsecond);

    control->setTimeout(2);
    fastForwardBy(3);
    EXPECT_EQ(control->remainingTimeout(), 0);  // due, not yet delivered
    control->delTimeout();
    doEventLoop(2.0);
    EXPECT_EQ(handler.firedAt.size(), 1u);

    handler.timer = control.get();
    handler.again = 3;
    double const rearmed = Tamlo::time();
    control->setTimeout(0.25);
    doEventLoop(2.0);
    ASSERT_EQ(handler.firedAt.size(), 5u);
    EXPECT_GE(handler.firedAt[4], rearmed + 1 - 4 * microsecond);  // each 0.25 s after the last

    control->setTimeout(1e300);
    EXPECT_NEAR(control->remainingTimeout(), backend.limit, backend.limit * 1e-9);
    control->delTimeout();
  }
}

// A request made in the call waits for a later pass; a control dies with its request.
TEST_F(PlatformControlTest, CallbackRequestsCollapseCancelWithdrawsAndRerequestsWait) {
  for (Backend const& backend : backends_) {
    if (!backend.callback)
      continue;
    SCOPED_TRACE(backend.name);
    Handler handler;
    auto const callback = backend.callback(&handler);
    callback->requestCallback();
    callback->requestCallback();
    EXPECT_TRUE(callback->pendingCallback());
    doEventLoop();
    callback->requestCallback();
    callback->cancelCallback();
    EXPECT_FALSE(callback->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 1);

    handler.callbackControl = callback.get();
    handler.again = 2;
    callback->requestCallback();
    Tamlo::eventLoopTimeout(0.0);
    EXPECT_TRUE(handler.calls == 2 && callback->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 4);

    backend.callback(&handler)->requestCallback();
    doEventLoop();
    EXPECT_EQ(handler.calls, 4);
  }
}

// Wishes made before setFd, which makes the descriptor non-blocking, apply from it on.
TEST_F(PlatformControlTest, FdReadsPersistWritesFireOnceAndExceptionsAreOffered) {
  for (Backend const& backend : backends_) {
    if (!backend.fd)
      continue;
    SCOPED_TRACE(backend.name);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    auto const sendAndPass = [&] {
      EXPECT_EQ(write(fds[1], "x", 1), 1);
      serve();
    };
    Handler handler;
    auto const control = backend.fd(&handler);
    control->setReads(false);
    control->setWrites(true);
    serve();
    EXPECT_EQ(handler.writes, 0);
    control->setFd(fds[0]);
    EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    sendAndPass();
    sendAndPass();
    EXPECT_EQ(std::tuple(handler.reads, handler.writes, handler.lastFd), std::tuple(0, 1, fds[0]));
    control->setReads(true);
    serve();
    sendAndPass();
    serve();  // nothing to read: no call
    EXPECT_EQ(std::pair(handler.reads, handler.bytesRead), std::pair(2, 3));
    control->setWrites(true);  // with a descriptor: once too
    serve();
    EXPECT_EQ(handler.writes, 2);

    control->setWrites(true);
    control->clearEvents();
    EXPECT_EQ(control->getFd(), backend.tasks ? -1 : fds[0]);
    sendAndPass();
    EXPECT_EQ(handler.reads + handler.writes, 4);  // no calls
    control->setFd(fds[0]);
    serve();
    EXPECT_EQ(std::pair(handler.reads, handler.writes), std::pair(3, 3));

    handler.throws = handler.claims = true;
    handler.lastFd = -1;
    sendAndPass();
    EXPECT_EQ(std::pair(handler.offered, handler.lastFd), std::pair(1, fds[0]));
    handler.claims = false;
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_THROW(serve(), std::runtime_error);
    EXPECT_EQ(handler.offered, 2);
    control->delFd();
    EXPECT_GE(fcntl(fds[0], F_GETFD), 0);  // not closed
    close(fds[0]), close(fds[1]);
  }
}

// Handlers are called from task runs; a task timer set to 0 is runnable at once,
// without a timer; exceptions from task timers and callbacks are not offered.
TEST_F(PlatformControlTest, TaskControlsRunAsTasksAndDoNotOfferExceptions) {
  Handler handler;
  handler.root = root_.get();
  auto const timer = getTimerControl(&handler, root_, TaskPriority::low, "t");
  auto const callback = getCallbackControl(&handler, root_, TaskPriority::low, "t");
  handler.throws = true;
  timer->setTimeout(0.0);
  EXPECT_EQ(timer->remainingTimeout(), infinity);
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  callback->requestCallback();
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  EXPECT_EQ(handler.firedAt.size() + handler.calls, 2u);
  EXPECT_EQ(std::pair(handler.offered, handler.outsideTasks), std::pair(0, 0));
  doEventLoop();
}

}  // namespace
