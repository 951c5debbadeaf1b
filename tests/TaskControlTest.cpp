// Controls served by scheduler tasks: the handler is called from a task run,
// requests collapse, timer and callback exceptions are not offered to the
// handler while fd exceptions are, clearEvents forgets the descriptor, and
// each control is one allocation.
#include <Tamlo/TaskControl.h>

#include <sys/socket.h>
#include <unistd.h>

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
  EXPECT_EQ(recorder.calls, 0);
  doEventLoop();
  EXPECT_EQ(recorder.calls, 2);
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

// Journals its notifications. A read notification consumes the input and
// asks for one write notification, or with `throwing` throws instead; the
// exception's offer turns reads off and answers `claims`.
class TaskFdControlTest : public ::testing::Test, public FdEventHandler {
 protected:
  TaskFdControlTest() {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_);
    control_->setFd(fds_[0]);
    EXPECT_EQ(write(fds_[1], "x", 1), 1);
  }
  ~TaskFdControlTest() override {
    control_.reset();
    close(fds_[0]);
    close(fds_[1]);
  }
  void readFdEvent(int fd) override {
    char buffer[16];
    journal_ += "read " + std::to_string(read(fd, buffer, sizeof buffer)) + ";";
    if (throwing_)
      throw std::runtime_error("handler failed");
    control_->setReads(false);
    control_->setWrites(true);
  }
  void writeFdEvent(int fd) override { journal_ += "write " + std::to_string(fd == fds_[0]) + ";"; }
  bool handleFdException(int fd) override {
    journal_ += "offered " + std::to_string(fd == fds_[0]) + ";";
    control_->setReads(false);
    return claims_;
  }

  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ =
      Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("controls");
  std::shared_ptr<TaskFdControl> control_ = getFdControl(this, root_, TaskPriority::high, "ctl");
  int fds_[2] = {-1, -1};
  std::string journal_;
  bool throwing_ = false, claims_ = false;
};

TEST_F(TaskFdControlTest, NotificationsRunAsTasksAndClearEventsForgetsTheFd) {
  doEventLoop();
  EXPECT_EQ(journal_, "read 1;write 1;");
  EXPECT_EQ(control_->taskRunCountWritable(), 1u);
  control_->clearEvents();
  EXPECT_EQ(control_->getFd(), -1);
}

TEST_F(TaskFdControlTest, AClaimedHandlerExceptionEndsTheRunAnUnclaimedOneLeavesIt) {
  throwing_ = claims_ = true;
  doEventLoop();
  EXPECT_EQ(journal_, "read 1;offered 1;");
  claims_ = false;
  control_->setReads(true);
  EXPECT_EQ(write(fds_[1], "y", 1), 1);
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  EXPECT_EQ(journal_, "read 1;offered 1;read 1;offered 1;");
}

}  // namespace
