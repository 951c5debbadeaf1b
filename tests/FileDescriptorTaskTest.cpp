// Fd tasks over socketpairs in the real event loop (the fatal checks are in TimerTaskTest).
#include <Tamlo/Allocator.h>
#include <Tamlo/FileDescriptorTask.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Test;
using ::testing::HasSubstr;

struct FdTask : Tamlo::FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override { onRead(*this); }
  void taskExecuteWritable() override { onWrite(*this); }
  std::function<void(FdTask&)> onRead, onWrite;
};
using Handler = std::function<void(FdTask&)>;

class FileDescriptorTaskTest : public ::testing::Test {
 protected:
  FileDescriptorTaskTest() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_); }
  ~FileDescriptorTaskTest() override { close(fds_[0]), close(fds_[1]); }
  std::shared_ptr<FdTask> makeTask(Handler onRead = {}, Handler onWrite = {}) {
    auto task = Tamlo::makeShared<FdTask>(root_, Tamlo::TaskPriority::normal, "net");
    task->onRead = std::move(onRead), task->onWrite = std::move(onWrite);
    task->taskWatchFdIs(fds_[0]);
    return task;
  }

  ThrowOnAssert const throwOnAssert_;
  std::shared_ptr<Tamlo::TaskSchedulerRoot> root_ =
      Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("fd");
  int fds_[2] = {-1, -1};
};

// An echo that asks for writability once and then stops reading, so the loop ends by itself.
TEST_F(FileDescriptorTaskTest, EachDirectionRunsOnItsReadinessAndIsChargedItsWork) {
  auto const task = makeTask(
      [](FdTask& t) {
        char buffer[8];
        t.taskWorkCountInc(static_cast<uint64_t>(read(t.taskWatchFd(), buffer, sizeof buffer)));
        t.taskWorkPendingIs(1), t.taskWatchReadableIs(false), t.taskWatchWritableIs(true);
      },
      [](FdTask& t) {
        EXPECT_FALSE(t.taskWatchWritable());
        t.taskWorkCountInc(static_cast<uint64_t>(write(t.taskWatchFd(), "pong", 4)) / 2);
      });
  EXPECT_THAT(assertionText([&] { task->taskWorkPendingWritableIs(1); }),
              HasSubstr("WriteTask not created by taskWatchWritableIs( true )"));
  ASSERT_EQ(write(fds_[1], "ping", 4), 4);
  Tamlo::Platform::doEventLoop();
  char reply[8];
  EXPECT_EQ(std::string(reply, size_t(read(fds_[1], reply, sizeof reply))), "pong");
  EXPECT_EQ(
      std::vector<uint64_t>({task->taskRunCountReadable(), task->taskRunCountWritable(),
                             task->taskWorkCountReadableTotal(), task->taskWorkCountWritableTotal(),
                             task->taskWorkPendingReadable()}),
      std::vector<uint64_t>({1, 1, 4, 2, 1}));
  EXPECT_THAT(root_->historyRenderTextForDebugToString(), HasSubstr("fdWritable   N net\n"));
}

TEST_F(FileDescriptorTaskTest, AnotherDescriptorUnschedulesAndSubtasksTakeTheOwnersStatsName) {
  for (auto const& [sameFd, statsName, writeSideFirst] :
       {std::tuple{true, "", false}, std::tuple{false, "netStats", false},
        std::tuple{true, "netStats", true}}) {
    auto const task = makeTask();
    task->taskWatchWritableIs(writeSideFirst);
    if (*statsName)
      task->taskStatsNameIs(statsName);
    task->taskWatchWritableIs(true);
    std::set<std::string> names;
    for (Tamlo::TaskImpl const& subtask : root_->registeredTasks())
      names.insert(subtask.taskStatsName());
    std::string const prefix = *statsName ? statsName : "net";
    EXPECT_EQ(names, (std::set{prefix + ":read", prefix + ":write"})) << writeSideFirst;
    task->scheduleTaskReadable(), task->scheduleTaskWritable();
    task->taskWatchFdIs(sameFd ? fds_[0] : fds_[1]);
    EXPECT_EQ(std::vector(
                  {task->taskScheduledReadable(), task->taskScheduledWritable(), task->taskBusy()}),
              std::vector(3, sameFd));
    task->taskWatchFdDel();
  }
}

// Reads unwatched, or a run that threw still executing: the run is refused but counted.
TEST_F(FileDescriptorTaskTest, TheReadSideRefusesRunsItMustNotMake) {
  auto const task = makeTask([](FdTask&) { throw std::runtime_error("broke off"); });
  task->taskWatchReadableIs(false);
  task->scheduleTaskReadable();
  EXPECT_THAT(assertionText([] { Tamlo::Platform::doEventLoop(); }),
              HasSubstr("ReadTask should only run if taskWatchReadable"));
  task->taskWatchReadableIs(true);
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_THROW(Tamlo::Platform::doEventLoop(), std::runtime_error);  // "x" is still unread
  EXPECT_THAT(assertionText([] { Tamlo::Platform::doEventLoop(); }),
              HasSubstr("Executing task already set"));
  EXPECT_EQ(task->taskRunCountReadable(), 3u);
}

TEST_F(FileDescriptorTaskTest, ADescriptorNumberReusedUnderTheWatchIsWatchedAfresh) {
  std::string got;
  auto const task = makeTask([&got](FdTask& t) {
    char buffer[8];
    got.append(buffer, static_cast<size_t>(read(t.taskWatchFd(), buffer, sizeof buffer)));
    t.taskWatchFdDel();
  });
  int fresh[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fresh), 0);
  ASSERT_EQ(dup3(fresh[0], fds_[0], O_CLOEXEC), fds_[0]);
  close(fresh[0]), task->taskWatchFdDel(), task->taskWatchFdIs(fds_[0]);
  close(std::exchange(fds_[1], fresh[1]));
  ASSERT_EQ(write(fds_[1], "new", 3), 3);
  Tamlo::Platform::doEventLoop();
  EXPECT_EQ(got, "new");
}

}  // namespace
