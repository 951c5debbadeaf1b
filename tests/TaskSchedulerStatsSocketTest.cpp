// Reports that leave the scheduler while it keeps running: the JSON snapshot
// written to a slow pipe by tasks, and the stats socket's answers to good,
// bad, silent and vanishing clients.
#include <Tamlo/TaskSchedulerStatsSocket.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include <Tamlo/Exception.h>
#include <Tamlo/Socket.h>
#include "SchedulerTestSupport.h"

namespace Tamlo::Test {
namespace {

using ::testing::StartsWith;

void runUntil(std::function<bool()> const& done) {
  for (int pass = 0; pass < 5000 && !done(); ++pass)
    Platform::doEventLoopInWaitfor(0.01);
  ASSERT_TRUE(done());
}

size_t openDescriptorCount() {
  size_t count = 0;
  DIR* const dir = ::opendir("/proc/self/fd");
  while (::readdir(dir) != nullptr)
    ++count;
  ::closedir(dir);
  return count;
}

std::string readAll(int fd) {
  std::string text;
  char buffer[65536];
  ssize_t count;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, size_t(count));
  return text;
}

std::vector<std::shared_ptr<FunctionTask>> makeTasks(std::shared_ptr<TaskScheduler> scheduler,
                                                     int count) {
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (int i = 0; i < count; ++i)
    tasks.push_back(makeTask(scheduler, TaskPriority::normal, "task" + std::to_string(i)));
  return tasks;
}

TEST(SnapshotRenderJsonAsync, LargeTreeReachesASlowReaderWhileOtherTasksRun) {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("async");
  auto const tasks = makeTasks(root, 3000);
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
  ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
  int ended = 0;
  bool written = false;
  root->snapshotRenderJsonAsync(pipeFds[1], true, false, true, [&](bool ok) {
    ++ended;
    written = ok;
  });
  // Drains 4 KB a run: the writer must wait for it many times.
  std::string text;
  int runsWhileWriting = 0;
  auto const reader = makeTask(root, TaskPriority::normal, "reader", [&](FunctionTask& self) {
    char buffer[4096];
    ssize_t const count = ::read(pipeFds[0], buffer, sizeof buffer);
    if (count > 0)
      text.append(buffer, size_t(count));
    if (ended == 0) {
      ++runsWhileWriting;
      self.scheduleTask();
    }
  });
  reader->scheduleTask();
  runUntil([&] { return ended != 0; });
  text += readAll(pipeFds[0]);

  EXPECT_TRUE(written);
  EXPECT_GT(text.size(), size_t(40 * 4096));
  EXPECT_GT(runsWhileWriting, 40);
  EXPECT_EQ(::fcntl(pipeFds[1], F_GETFL) & O_NONBLOCK, 0) << "the caller's flags are restored";
  rapidjson::Document document;
  document.Parse(text.c_str());
  ASSERT_FALSE(document.HasParseError()) << text.substr(0, 200);
  ASSERT_EQ(document["schedulers"].Size(), 1u);
  EXPECT_EQ(document["schedulers"][0]["tasks"]["tasks"].Size(), tasks.size())
      << "taken before the reader and the writing tasks existed";
  EXPECT_TRUE(document["history"].IsArray());
  EXPECT_EQ(document["historyEntryCount"].GetUint(), root->historyEntryCount());
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
}

TEST(SnapshotRenderJsonAsync, DescriptorsItCannotServeAreRefusedOrEndTheWriting) {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("async");
  auto const tasks = makeTasks(root, 500);
  struct Case {
    int pipeFlags;
    bool closeReader;
    bool closeWriter;
    char const* error;  // message after "fd <n>", or null when accepted
  } const cases[] = {
      {O_NONBLOCK, false, false, " is non-blocking, not supported"},
      {0, false, true, " cannot be written: Bad file descriptor"},
      // EPIPE: the writing ends with done(false), and no SIGPIPE kills us.
      {0, true, false, nullptr},
  };
  for (Case const& row : cases) {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC | row.pipeFlags), 0);
    if (row.closeReader)
      ::close(fds[0]);
    if (row.closeWriter)
      ::close(fds[1]);
    int ended = 0;
    bool written = true;
    auto const render = [&] {
      root->snapshotRenderJsonAsync(fds[1], true, false, false, [&](bool ok) {
        ++ended;
        written = ok;
      });
    };
    if (row.error != nullptr) {
      try {
        render();
        ADD_FAILURE() << row.error;
      } catch (Exception const& e) {
        EXPECT_EQ(e.message(), "fd " + std::to_string(fds[1]) + row.error);
      }
    } else {
      render();
      runUntil([&] { return ended != 0; });
      EXPECT_FALSE(written);
      EXPECT_EQ(ended, 1);
    }
    if (!row.closeReader)
      ::close(fds[0]);
    if (!row.closeWriter)
      ::close(fds[1]);
  }
}

class StatsSocketTest : public ::testing::Test {
 protected:
  ~StatsSocketTest() override { Platform::setFastForward(false); }

  std::string const name_ = "tamlo-stats-test-" + std::to_string(::getpid());
};

TEST_F(StatsSocketTest, EachRequestGetsItsAnswerAndTheConnectionCloses) {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("stats");
  auto const tasks = makeTasks(root, 20);
  auto const server = root->statsSocketListen("@" + name_);
  struct Case {
    std::string request;
    bool shutDownAfter;
    std::string answerStart;
  } const cases[] = {
      {"text\n", false, "Priority "},
      {"text", true, "Priority "},
      {"json\r\n", false, "{\"schedulers\":[{\"schedulerName\":\"stats\""},
      {"trace\n", false, "{\"traceEvents\":["},
      {"bogus\n", false, "error: unknown request \"bogus\"; send text, json or trace\n"},
      {"\x01x\n", false, "error: unknown request \"?x\"; send text, json or trace\n"},
      {std::string(100, 'a'), false, "error: request longer than 64 bytes\n"},
      {"", true, ""},
  };
  uint64_t served = 0;
  for (Case const& row : cases) {
    ++served;
    int const client = connectAbstract(name_);
    ASSERT_EQ(::write(client, row.request.data(), row.request.size()), ssize_t(row.request.size()));
    if (row.shutDownAfter)
      ::shutdown(client, SHUT_WR);
    runUntil([&] { return server->acceptedCount() == served && server->connectionCount() == 0; });
    std::string const answer = readAll(client);
    EXPECT_THAT(answer, StartsWith(row.answerStart)) << row.request;
    if (row.answerStart.empty() || row.answerStart.back() == '\n') {
      EXPECT_EQ(answer, row.answerStart);
    }
    ::close(client);
  }
  EXPECT_EQ(server->acceptedCount(), std::size(cases));
}

TEST_F(StatsSocketTest, AHundredClientsSomeVanishingCostNothingButTheirConnections) {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("stats");
  auto const tasks = makeTasks(root, 300);
  size_t const descriptorsBefore = openDescriptorCount();
  {
    auto const server = root->statsSocketListen(name_);
    char const* const requests[] = {"text\n", "json\n", "trace\n"};
    std::vector<int> clients;
    for (int i = 0; i < 100; ++i) {
      clients.push_back(connectAbstract(name_));
      std::string const request = requests[i % 3];
      ASSERT_EQ(::write(clients.back(), request.data(), request.size()), ssize_t(request.size()));
      if (i % 10 == 0) {
        // Gone before its answer: the server's writes fail with EPIPE.
        ::close(clients.back());
        clients.back() = -1;
      }
    }
    // The json answers exceed the socket buffers: read while serving.
    std::vector<std::string> answers(clients.size());
    for (int client : clients)
      if (client >= 0)
        ::fcntl(client, F_SETFL, O_NONBLOCK);
    runUntil([&] {
      for (size_t i = 0; i < clients.size(); ++i)
        if (clients[i] >= 0)
          answers[i] += readAll(clients[i]);
      return server->acceptedCount() == 100 && server->connectionCount() == 0;
    });
    for (size_t i = 0; i < clients.size(); ++i) {
      if (clients[i] < 0)
        continue;
      answers[i] += readAll(clients[i]);
      EXPECT_THAT(answers[i], StartsWith(i % 3 == 0 ? "Priority" : "{")) << i;
      if (i % 3 == 1) {
        rapidjson::Document document;
        document.Parse(answers[i].c_str());
        EXPECT_FALSE(document.HasParseError()) << i;
      }
      ::close(clients[i]);
    }
  }
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST_F(StatsSocketTest, SilentOrStalledClientsAreClosedAfterTheIdleTimeout) {
  auto const root = virtualTimeRoot("stats");
  auto const server = root->statsSocketListen(name_);
  int const silent = connectAbstract(name_);
  int const stalled = connectAbstract(name_);
  runUntil([&] { return server->acceptedCount() == 2; });
  ASSERT_EQ(::write(stalled, "te", 2), 2);
  double const timeout = double(TaskSchedulerStatsSocket::idleTimeout.count());
  // Virtual seconds since the connections: the sum of runFor.
  struct Step {
    double runFor;
    size_t openAfter;
  } const steps[] = {
      {timeout - 0.5, 2},  // not yet
      {3.0, 1},            // the silent one is gone
      {timeout + 4.5, 0},  // the stalled one, after two checks
  };
  for (Step const& step : steps) {
    Platform::doEventLoop(step.runFor);
    EXPECT_EQ(server->connectionCount(), step.openAfter) << step.runFor;
  }
  char byte;
  EXPECT_EQ(::read(silent, &byte, 1), 0);
  EXPECT_EQ(::read(stalled, &byte, 1), 0);
  ::close(silent);
  ::close(stalled);
}

}  // namespace
}  // namespace Tamlo::Test
