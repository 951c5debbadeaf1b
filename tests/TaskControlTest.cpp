// ---- TaskFdControl: notifications as task runs, clearEvents forgetting the
// descriptor, handler exceptions offered to the handler ----
#include <Tamlo/TaskControl.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

// Journals its notifications. A read notification consumes the input and
// asks for one write notification, or with `throwing` throws instead; the
// exception's offer turns reads off and answers `claims`.
class RecordingFdHandler : public Tamlo::Platform::FdEventHandler {
 public:
  void readFdEvent(int fd) override {
    char buffer[16];
    journal += "read " + std::to_string(read(fd, buffer, sizeof buffer)) + ";";
    if (throwing)
      throw std::runtime_error("handler failed");
    control->setReads(false);
    control->setWrites(true);
  }
  void writeFdEvent(int fd) override { journal += "write " + std::to_string(fd == fd_) + ";"; }
  bool handleFdException(int fd) override {
    journal += "offered " + std::to_string(fd == fd_) + ";";
    control->setReads(false);
    return claims;
  }

  std::shared_ptr<Tamlo::Platform::TaskFdControl> control;
  int fd_ = -1;
  std::string journal;
  bool throwing = false;
  bool claims = false;
};

class TaskFdControlTest : public ::testing::Test {
 protected:
  TaskFdControlTest() {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_);
    handler_.control =
        Tamlo::Platform::getFdControl(&handler_, root_, Tamlo::TaskPriority::high, "ctl");
    handler_.fd_ = fds_[0];
    handler_.control->setFd(fds_[0]);
    EXPECT_EQ(write(fds_[1], "x", 1), 1);
  }
  ~TaskFdControlTest() override {
    handler_.control.reset();
    close(fds_[0]);
    close(fds_[1]);
  }

  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ =
      Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("controls");
  int fds_[2] = {-1, -1};
  RecordingFdHandler handler_;
};

TEST_F(TaskFdControlTest, NotificationsRunAsTasksAndClearEventsForgetsTheFd) {
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(handler_.journal, "read 1;write 1;");
  EXPECT_EQ(handler_.control->taskRunCountReadable(), 1u);
  EXPECT_EQ(handler_.control->taskRunCountWritable(), 1u);
  handler_.control->clearEvents();
  EXPECT_EQ(handler_.control->getFd(), -1);
}

TEST_F(TaskFdControlTest, AClaimedHandlerExceptionEndsTheRunAnUnclaimedOneLeavesIt) {
  handler_.throwing = handler_.claims = true;
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(handler_.journal, "read 1;offered 1;");

  handler_.claims = false;
  handler_.control->setReads(true);
  EXPECT_EQ(write(fds_[1], "y", 1), 1);
  EXPECT_THROW(Tamlo::Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(handler_.journal, "read 1;offered 1;read 1;offered 1;");
}

}  // namespace
