// The contracts of the platform's timer, callback and fd controls, a row per
// backend; then what controls served by scheduler tasks do beyond them: the
// handler is called from a task run, timer and callback exceptions are not
// offered to the handler, clearEvents forgets the descriptor, and each
// control is one allocation.
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

// ---- The platform contracts, kept by every backend that makes the control ----

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double microsecond = 1e-6;  // what libevent keeps

// Records what every kind of control delivers; fd exceptions it may claim.
struct ContractHandler : TimeoutHandler, CallbackHandler, FdEventHandler {
  void timeout() override { firedAt.push_back(Tamlo::time()); }
  void callback() override {
    ++calls;
    if (rerequests > 0 && rerequests--)
      callbackControl->requestCallback();
  }
  void readFdEvent(int fd) override {
    char buffer[16];
    while (read(fd, buffer, sizeof buffer) > 0)
      ++bytesRead;
    ++reads;
    if (throws)
      throw std::runtime_error("read failed");
  }
  void writeFdEvent(int fd) override { lastFd = fd, ++writes; }
  bool handleFdException(int fd) override { return lastFd = fd, ++offered, claims; }

  std::vector<double> firedAt;
  CallbackControl* callbackControl = nullptr;
  int calls = 0, rerequests = 0, reads = 0, writes = 0, bytesRead = 0, offered = 0, lastFd = -1;
  bool throws = false, claims = false;
};

// A row per backend: how it makes each kind of control (none: it makes no
// such control), the longest delay it holds (2^62 s for libevent, the last
// expiry whose tick fits in 64 bits for a wheel), and whether a NaN delay is
// a Tamlo assertion (a timer task's is a plain assert()).
struct Backend {
  char const* name;
  std::function<std::shared_ptr<TimerControl>(TimeoutHandler*)> timer;
  std::function<std::shared_ptr<CallbackControl>(CallbackHandler*)> callback;
  std::function<std::shared_ptr<FdControl>(FdEventHandler*)> fd;
  double limit;
  bool nanAsserts = true;
};

class ControlContractTest : public ::testing::Test {
 protected:
  ~ControlContractTest() override { setFastForward(false); }
  static void runOnePass() { Tamlo::eventLoopTimeout(0.0); }

  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ = Tamlo::Test::virtualTimeRoot("controls");
  std::shared_ptr<Tamlo::TimerWheel> wheel_ =
      Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
  Backend const backends_[3] = {
      {"libevent", [](TimeoutHandler* h) { return getTimerControl(h); },
       [](CallbackHandler* h) { return getCallbackControl(h); },
       [](FdEventHandler* h) { return getFdControl(h); }, 0x1p62},
      {"wheel", [this](TimeoutHandler* h) { return getTimerControl(h, wheel_); }, nullptr, nullptr,
       0x1p64 / 100},
      {"tasks",
       [this](TimeoutHandler* h) { return getTimerControl(h, root_, TaskPriority::normal, "t"); },
       [this](CallbackHandler* h) {
         return getCallbackControl(h, root_, TaskPriority::normal, "c");
       },
       [this](FdEventHandler* h) { return getFdControl(h, root_, TaskPriority::normal, "f"); },
       0x1p64 / 100, false},
  };
};

// A timer fires once and not early; a new expiry replaces the old one, also a
// due one; the time left counts down to zero until delivery; idle reads
// infinity. Every delay a backend can hold is kept; longer ones are cut.
TEST_F(ControlContractTest, TimerControlsFireOnceNotEarlyAtTheLatestExpiry) {
  for (Backend const& backend : backends_) {
    SCOPED_TRACE(backend.name);
    Tamlo::Test::ThrowOnAssert const throwOnAssert;
    ContractHandler handler;
    auto const control = backend.timer(&handler);
    EXPECT_EQ(control->remainingTimeout(), infinity);
    if (backend.nanAsserts) {
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
    double const remaining = control->remainingTimeout(), after = Tamlo::time();
    EXPECT_LE(remaining, 3 + microsecond);
    EXPECT_GE(remaining, 3 - (after - before) - microsecond);
    doEventLoop(5.0);
    ASSERT_EQ(handler.firedAt.size(), 1u);
    EXPECT_GE(handler.firedAt[0], before + 3 - microsecond);
    EXPECT_EQ(control->remainingTimeout(), infinity);

    control->setTimeout(2);
    fastForwardBy(3);
    EXPECT_EQ(control->remainingTimeout(), 0);  // due, not yet delivered
    control->delTimeout();
    doEventLoop(2.0);
    EXPECT_EQ(handler.firedAt.size(), 1u);

    control->setTimeout(1e15);
    EXPECT_NEAR(control->remainingTimeout(), 1e15, 1.0);
    control->setTimeout(1e300);
    EXPECT_NEAR(control->remainingTimeout(), backend.limit, backend.limit * 1e-9);
    control->delTimeout();
  }
}

// Requests before a run collapse into one call, cancel withdraws, a request
// from inside the call waits for a later pass, and a control dies with its
// request.
TEST_F(ControlContractTest, CallbackRequestsCollapseCancelWithdrawsAndRerequestsWait) {
  for (Backend const& backend : backends_) {
    if (!backend.callback)
      continue;
    SCOPED_TRACE(backend.name);
    ContractHandler handler;
    auto const callback = backend.callback(&handler);
    EXPECT_FALSE(callback->pendingCallback());
    callback->requestCallback();
    callback->requestCallback();
    EXPECT_TRUE(callback->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 1);
    callback->requestCallback();
    callback->cancelCallback();
    EXPECT_FALSE(callback->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 1);

    handler.callbackControl = callback.get();
    handler.rerequests = 2;
    callback->requestCallback();
    runOnePass();
    EXPECT_EQ(handler.calls, 2);
    EXPECT_TRUE(callback->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 4);

    backend.callback(&handler)->requestCallback();
    doEventLoop();
    EXPECT_EQ(handler.calls, 4);
  }
}

// Reads are wanted from setFd on and persist; writes fire once per wish; the
// descriptor is made non-blocking; exceptions are offered with it, a claimed
// one is dropped and an unclaimed one leaves the loop; delFd does not close.
TEST_F(ControlContractTest, FdReadsPersistWritesFireOnceAndExceptionsAreOffered) {
  for (Backend const& backend : backends_) {
    if (!backend.fd)
      continue;
    SCOPED_TRACE(backend.name);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    // A notification may queue a task that a later pass runs.
    auto const serve = [] {
      for (int i = 0; i < 3; ++i)
        runOnePass();
    };
    auto const sendAndPass = [&] {
      EXPECT_EQ(write(fds[1], "x", 1), 1);
      serve();
    };
    ContractHandler handler;
    auto const control = backend.fd(&handler);
    EXPECT_EQ(control->getFd(), -1);
    control->setFd(fds[0]);
    EXPECT_EQ(control->getFd(), fds[0]);
    EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    sendAndPass();
    sendAndPass();
    serve();  // nothing to read: no call
    EXPECT_EQ(handler.reads, 2);
    EXPECT_EQ(handler.bytesRead, 2);

    control->setWrites(true);  // one-shot until wanted again
    serve();
    serve();
    EXPECT_EQ(handler.writes, 1);
    EXPECT_EQ(handler.lastFd, fds[0]);
    control->setWrites(true);
    serve();
    EXPECT_EQ(handler.writes, 2);
    control->setReads(false);
    sendAndPass();
    EXPECT_EQ(handler.reads, 2);

    control->setReads(true);
    handler.throws = handler.claims = true;
    handler.lastFd = -1;
    serve();
    EXPECT_EQ(handler.offered, 1);
    EXPECT_EQ(handler.lastFd, fds[0]);
    handler.claims = false;
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_THROW(serve(), std::runtime_error);
    EXPECT_EQ(handler.offered, 2);

    control->delFd();
    EXPECT_EQ(control->getFd(), -1);
    EXPECT_GE(fcntl(fds[0], F_GETFD), 0);  // not closed
    close(fds[0]), close(fds[1]);
  }
}

// ---- Controls served by scheduler tasks ----

// Counts the calls made from a task run, throws when asked to, and claims
// every exception offered to it.
struct Recorder : TimeoutHandler, CallbackHandler {
  void record() {
    calls += root->runningTask() != nullptr ? 1 : 100;
    if (throwing)
      throw std::runtime_error("handler failed");
  }
  void timeout() override { record(); }
  void callback() override { record(); }
  bool handleTimeoutException() override { return ++offered, true; }
  bool handleCallbackException() override { return ++offered, true; }

  // In virtual time: the loop does not wait for the wheel's master timer.
  ~Recorder() override { setFastForward(false); }
  std::shared_ptr<Tamlo::TaskSchedulerRoot> root = Tamlo::Test::virtualTimeRoot("controls");
  int calls = 0, offered = 0;
  bool throwing = false;
};

TEST(TaskControlTest, HandlersAreCalledFromTaskRuns) {
  Recorder recorder;
  auto const timer = getTimerControl(&recorder, recorder.root, TaskPriority::high, "timer");
  auto const callback = getCallbackControl(&recorder, recorder.root, TaskPriority::low, "cb");
  timer->setTimeout(0.0);
  callback->requestCallback();
  doEventLoop();
  EXPECT_EQ(recorder.calls, 2);
}

TEST(TaskControlTest, HandlerExceptionsLeaveTheRunUnoffered) {
  Recorder recorder;
  recorder.throwing = true;
  auto const timer = getTimerControl(&recorder, recorder.root, TaskPriority::normal, "timer");
  auto const callback = getCallbackControl(&recorder, recorder.root, TaskPriority::normal, "cb");
  timer->setTimeout(0.0);
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  callback->requestCallback();
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  EXPECT_EQ(recorder.calls, 2);
  EXPECT_EQ(recorder.offered, 0);
  doEventLoop();
}

TEST(TaskControlTest, EachControlIsOneAllocationRegisteredAsATask) {
  Recorder recorder;
  // Names interned first, so that only the controls allocate.
  auto const names = getTimerControl(&recorder, recorder.root, TaskPriority::low, "t");
  uint64_t const before = Tamlo::AllocatorStats::totalAllocations();
  std::shared_ptr<TimerControl> const timer =
      getTimerControl(&recorder, recorder.root, TaskPriority::low, "t");
  std::shared_ptr<CallbackControl> const callback =
      getCallbackControl(&recorder, recorder.root, TaskPriority::low, "t");
  EXPECT_EQ(Tamlo::AllocatorStats::totalAllocations() - before, 2u);
  EXPECT_EQ(recorder.root->tasksPerPriority(TaskPriority::low), 3u);
}

TEST(TaskFdControlTest, NotificationsRunAsTasksAndClearEventsForgetsTheFd) {
  ContractHandler handler;
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("controls");
  auto const control = getFdControl(&handler, root, TaskPriority::high, "ctl");
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  control->setFd(fds[0]);
  control->setWrites(true);
  EXPECT_EQ(write(fds[1], "x", 1), 1);
  for (int i = 0; i < 3; ++i)
    Tamlo::eventLoopTimeout(0.0);
  EXPECT_EQ(handler.reads + handler.writes, 2);
  EXPECT_EQ(control->taskRunCountReadable() + control->taskRunCountWritable(), 2u);
  control->clearEvents();
  EXPECT_EQ(control->getFd(), -1);
  close(fds[0]), close(fds[1]);
}

}  // namespace
