// File-descriptor tasks over socketpairs through the real event loop (the
// checks that end the process are with the other tasks' in TimerTaskTest).
#include <Tamlo/FileDescriptorTask.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <stdexcept>

#include <Tamlo/Allocator.h>

#include "TestSupport.h"

namespace {

using Tamlo::TaskPriority;
using namespace Tamlo::Test;
using ::testing::HasSubstr;

struct FdTask : Tamlo::FileDescriptorTask {
  using Body = std::function<void(FdTask&)>;
  FdTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler, Body onRead, Body onWrite)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, "net"),
        onRead(std::move(onRead)),
        onWrite(std::move(onWrite)) {}
  void taskExecuteReadable() override { onRead(*this); }
  void taskExecuteWritable() override { onWrite(*this); }
  Body onRead, onWrite;
};

class FileDescriptorTaskTest : public ::testing::Test {
 protected:
  FileDescriptorTaskTest() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_); }
  ~FileDescriptorTaskTest() override {
    close(fds_[0]);
    close(fds_[1]);
  }
  std::shared_ptr<FdTask> makeTask(
      FdTask::Body onRead = [](FdTask&) {}, FdTask::Body onWrite = [](FdTask&) {}) {
    auto task = Tamlo::makeShared<FdTask>(root_, std::move(onRead), std::move(onWrite));
    task->taskWatchFdIs(fds_[0]);
    return task;
  }

  ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ =
      Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("fd");
  int fds_[2] = {-1, -1};
};

// An echo: "ping" read, then "pong" written once writable. Writability is
// asked for once and reads are turned off, so the loop ends by itself after
// one run of each direction.
TEST_F(FileDescriptorTaskTest, EachDirectionRunsOnItsReadinessAndIsChargedItsWork) {
  auto const task = makeTask(
      [](FdTask& t) {
        char buffer[8];
        t.taskWorkCountInc(static_cast<uint64_t>(read(t.taskWatchFd(), buffer, sizeof buffer)));
        t.taskWorkPendingIs(1);
        t.taskWatchReadableIs(false);
        t.taskWatchWritableIs(true);
      },
      [](FdTask& t) {
        EXPECT_FALSE(t.taskWatchWritable());
        t.taskWorkCountInc(static_cast<uint64_t>(write(t.taskWatchFd(), "pong", 4)) / 2);
      });
  EXPECT_THAT(assertionText([&] { task->taskWorkPendingWritableIs(1); }),
              HasSubstr("WriteTask not created by taskWatchWritableIs( true )"));
  ASSERT_EQ(write(fds_[1], "ping", 4), 4);
  Tamlo::Platform::doEventLoop();
  char reply[8] = {};
  EXPECT_EQ(read(fds_[1], reply, sizeof reply), 4);
  EXPECT_STREQ(reply, "pong");
  EXPECT_EQ(task->taskRunCountReadable(), 1u);
  EXPECT_EQ(task->taskRunCountWritable(), 1u);
  EXPECT_EQ(task->taskWorkCountReadableTotal(), 4u);
  EXPECT_EQ(task->taskWorkCountWritableTotal(), 2u);
  EXPECT_EQ(task->taskWorkPendingReadable(), 1u);
  EXPECT_THAT(root_->historyRenderTextForDebugToString(), HasSubstr("fdWritable   N net\n"));
}

TEST_F(FileDescriptorTaskTest, OnlyAnotherDescriptorUnschedulesBothDirections) {
  for (bool const sameFd : {true, false}) {
    auto const task = makeTask();
    task->scheduleTaskReadable();
    task->scheduleTaskWritable();
    task->taskWatchFdIs(sameFd ? fds_[0] : fds_[1]);
    EXPECT_EQ(task->taskScheduledReadable(), sameFd);
    EXPECT_EQ(task->taskScheduledWritable(), sameFd);
    // The owner's busy state follows its directions.
    EXPECT_EQ(task->taskBusy(), sameFd);
    task->taskWatchFdDel();
  }
}

TEST_F(FileDescriptorTaskTest, SubtaskStatsNamesFollowTheOwnersStatsName) {
  // The stats name, if set, and whether the write side was made before it.
  for (auto const& [statsName, writeSideFirst] :
       {std::pair{"", false}, std::pair{"netStats", false}, std::pair{"netStats", true}}) {
    auto const task = makeTask();
    task->taskWatchWritableIs(writeSideFirst);
    if (*statsName != '\0')
      task->taskStatsNameIs(statsName);
    task->taskWatchWritableIs(true);
    std::set<std::string> names;
    for (Tamlo::TaskImpl const& subtask : root_->registeredTasks())
      names.insert(subtask.taskStatsName());
    std::string const prefix = *statsName != '\0' ? statsName : "net";
    EXPECT_EQ(names, (std::set{prefix + ":read", prefix + ":write"})) << writeSideFirst;
  }
}

TEST_F(FileDescriptorTaskTest, TheReadSideRefusesRunsItMustNotMake) {
  struct Row {
    std::function<void(FdTask&, int peer)> arrange;
    char const* message;
    uint64_t runsCounted;  // the refused run included
  };
  Row const rows[] = {
      {[](FdTask& task, int) {
         task.taskWatchReadableIs(false);
         task.scheduleTaskReadable();
       },
       "ReadTask should only run if taskWatchReadable", 1},
      // The handler's exception leaves the task executing.
      {[](FdTask&, int peer) {
         ASSERT_EQ(write(peer, "x", 1), 1);
         EXPECT_THROW(Tamlo::Platform::doEventLoop(), std::runtime_error);
         ASSERT_EQ(write(peer, "y", 1), 1);
       },
       "Executing task already set", 2},
  };
  for (Row const& row : rows) {
    auto const task = makeTask([](FdTask&) { throw std::runtime_error("broke off"); });
    row.arrange(*task, fds_[1]);
    EXPECT_THAT(assertionText([] { Tamlo::Platform::doEventLoop(); }), HasSubstr(row.message));
    EXPECT_EQ(task->taskRunCountReadable(), row.runsCounted) << row.message;
  }
}

// Rows: the peer goes away (the end of the stream is readable once and the
// handler drops the watch), and the watched descriptor is closed under the
// watch and its number reused by a new connection, which is watched afresh
// after taskWatchFdDel(). Either way the loop ends by itself.
TEST_F(FileDescriptorTaskTest, APeerGoneOrADescriptorClosedUnderTheWatchIsSurvived) {
  for (bool const reuseNumber : {false, true}) {
    std::string got;
    auto const task = makeTask([&got](FdTask& t) {
      char buffer[8];
      ssize_t const n = read(t.taskWatchFd(), buffer, sizeof buffer);
      got += n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "<end>";
      t.taskWatchFdDel();
    });
    if (reuseNumber) {
      int fresh[2];
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fresh), 0);
      close(fds_[0]);
      ASSERT_EQ(dup3(fresh[0], fds_[0], O_CLOEXEC), fds_[0]);
      close(fresh[0]);
      task->taskWatchFdDel();
      task->taskWatchFdIs(fds_[0]);
      close(fds_[1]);
      fds_[1] = fresh[1];
      ASSERT_EQ(write(fds_[1], "new", 3), 3);
    } else {
      close(fds_[1]);
      fds_[1] = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // closed by the fixture
    }
    Tamlo::Platform::doEventLoop();
    EXPECT_EQ(got, reuseNumber ? "new" : "<end>");
    EXPECT_EQ(task->taskRunCountReadable(), 1u);
  }
}

}  // namespace
