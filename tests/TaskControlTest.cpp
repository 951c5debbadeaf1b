// Timer and callback controls served by scheduler tasks, in virtual time:
// when the handler is called, that it runs as a task, and that its
// exceptions are not offered to the handler.
#include <Tamlo/TaskControl.h>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>

#include "SchedulerTestSupport.h"

namespace {

using Tamlo::TaskPriority;
using Tamlo::TaskSchedulerRoot;
using namespace Tamlo::Platform;

constexpr double never = std::numeric_limits<double>::infinity();

// Records the virtual time of each call, whether a task run made it, and
// throws when asked to; claims every exception offered to it.
struct Recorder : TimeoutHandler, CallbackHandler {
  void record() {
    times.push_back(Tamlo::time());
    inTaskRun.push_back(root->runningTask() != nullptr);
    if (throwing)
      throw std::runtime_error("handler failed");
  }
  void timeout() override { record(); }
  void callback() override { record(); }
  bool handleTimeoutException() override { return ++offered, true; }
  bool handleCallbackException() override { return ++offered, true; }

  TaskSchedulerRoot* root = nullptr;
  std::vector<double> times;
  std::vector<bool> inTaskRun;
  bool throwing = false;
  int offered = 0;
};

class TaskControlTest : public ::testing::Test {
 protected:
  TaskControlTest() { recorder_.root = root_.get(); }
  ~TaskControlTest() override { setFastForward(false); }

  std::shared_ptr<TaskSchedulerRoot> root_ = Tamlo::Test::virtualTimeRoot("controls");
  Recorder recorder_;
};

TEST_F(TaskControlTest, TimerControlCallsTimeoutFromATaskRun) {
  // `fires`: seconds from the start to the call; 0 on the next scheduler
  // run; never: no call.
  struct Row {
    char const* name;
    std::function<void(TimerControl&)> arm;
    double fires;
  } const rows[] = {
      {"zero", [](TimerControl& c) { c.setTimeout(0.0); }, 0},
      {"delay", [](TimerControl& c) { c.setTimeout(2.0); }, 2},
      {"re-armed earlier", [](TimerControl& c) { c.setTimeout(5.0), c.setTimeout(1.0); }, 1},
      {"infinity stops", [](TimerControl& c) { c.setTimeout(2.0), c.setTimeout(never); }, never},
      {"deleted", [](TimerControl& c) { c.setTimeout(2.0), c.delTimeout(); }, never},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    recorder_.times.clear();
    std::shared_ptr<TaskTimerControl> const control =
        getTimerControl(&recorder_, root_, TaskPriority::high, "timer");
    double const start = Tamlo::time();
    row.arm(*control);
    EXPECT_TRUE(recorder_.times.empty());
    EXPECT_EQ(control->remainingTimeout() == never, row.fires == 0 || row.fires == never);
    EXPECT_EQ(control->taskScheduled(), row.fires != never);
    doEventLoop(10.0);
    if (row.fires == never) {
      EXPECT_TRUE(recorder_.times.empty());
      continue;
    }
    ASSERT_EQ(recorder_.times.size(), 1u);
    EXPECT_TRUE(recorder_.inTaskRun.back());
    EXPECT_GE(recorder_.times[0] - start, row.fires);
    EXPECT_LT(recorder_.times[0] - start, row.fires == 0 ? 10.5 : row.fires + 0.5);
    EXPECT_FALSE(control->taskScheduled());
  }
}

TEST_F(TaskControlTest, CallbackRequestsBeforeTheRunCollapseIntoOneCall) {
  std::shared_ptr<TaskCallbackControl> const control =
      getCallbackControl(&recorder_, root_, TaskPriority::low, "callback");
  control->requestCallback();
  control->requestCallback();
  EXPECT_TRUE(control->pendingCallback());
  doEventLoop();
  EXPECT_EQ(recorder_.times.size(), 1u);
  EXPECT_TRUE(recorder_.inTaskRun.back());
  EXPECT_FALSE(control->pendingCallback());
  control->requestCallback();
  control->cancelCallback();
  EXPECT_FALSE(control->pendingCallback());
  doEventLoop();
  EXPECT_EQ(recorder_.times.size(), 1u);
}

TEST_F(TaskControlTest, HandlerExceptionsLeaveTheRunUnoffered) {
  recorder_.throwing = true;
  std::shared_ptr<TaskTimerControl> const timer =
      getTimerControl(&recorder_, root_, TaskPriority::normal, "timer");
  std::shared_ptr<TaskCallbackControl> const callback =
      getCallbackControl(&recorder_, root_, TaskPriority::normal, "callback");
  std::function<void()> const requests[] = {[&] { timer->setTimeout(0.0); },
                                            [&] { callback->requestCallback(); }};
  for (auto const& request : requests) {
    request();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
  }
  EXPECT_EQ(recorder_.times.size(), 2u);
  EXPECT_EQ(recorder_.offered, 0);
  doEventLoop();
}

TEST_F(TaskControlTest, EachControlIsOneAllocationRegisteredAsATask) {
  // The names are interned first, so that only the controls allocate.
  auto const keepNames = getTimerControl(&recorder_, root_, TaskPriority::low, "t");
  uint64_t const before = Tamlo::AllocatorStats::totalAllocations();
  std::shared_ptr<TimerControl> const timer =
      getTimerControl(&recorder_, root_, TaskPriority::low, "t");
  EXPECT_EQ(Tamlo::AllocatorStats::totalAllocations() - before, 1u);
  std::shared_ptr<CallbackControl> const callback =
      getCallbackControl(&recorder_, root_, TaskPriority::low, "t");
  EXPECT_EQ(Tamlo::AllocatorStats::totalAllocations() - before, 2u);
  EXPECT_EQ(root_->tasksPerPriority(TaskPriority::low), 3u);
}

}  // namespace
