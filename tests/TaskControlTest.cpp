// Timer and callback controls served by scheduler tasks: the handler is
// called from a task run, requests collapse, exceptions are not offered to
// the handler, and each control is one allocation.
#include <Tamlo/TaskControl.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "SchedulerTestSupport.h"

namespace {

using Tamlo::TaskPriority;
using namespace Tamlo::Platform;

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

TEST(TaskControlTest, RequestsCallTheHandlerOnceFromTheNextSchedulerRun) {
  Recorder recorder;
  auto const timer = getTimerControl(&recorder, recorder.root, TaskPriority::high, "timer");
  auto const callback = getCallbackControl(&recorder, recorder.root, TaskPriority::low, "cb");
  timer->setTimeout(0.0);
  EXPECT_EQ(timer->remainingTimeout(), std::numeric_limits<double>::infinity()) << "no timer";
  callback->requestCallback();
  callback->requestCallback();
  EXPECT_TRUE(callback->pendingCallback());
  EXPECT_EQ(recorder.calls, 0);
  doEventLoop();
  EXPECT_EQ(recorder.calls, 2);
  EXPECT_FALSE(callback->pendingCallback());
  callback->requestCallback();
  callback->cancelCallback();
  timer->setTimeout(5.0);
  timer->delTimeout();
  doEventLoop(10.0);
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

}  // namespace
