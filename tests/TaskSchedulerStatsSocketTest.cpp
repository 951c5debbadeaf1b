#include <Tamlo/TaskSchedulerStatsSocket.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <rapidjson/document.h>

#include <Tamlo/Socket.h>
#include "SchedulerTestSupport.h"
#include "SysTestSupport.h"

namespace Tamlo::Test {
namespace {

void runUntil(std::function<bool()> const& done) {
  for (int pass = 0; pass < 5000 && !done(); ++pass)
    Platform::doEventLoopInWaitfor(0.01);
  ASSERT_TRUE(done());
}

struct ReportedRoot {
  explicit ReportedRoot(int count) {
    for (int i = 0; i < count; ++i)
      tasks.push_back(makeTask(root, TaskPriority::normal, "task" + std::to_string(i)));
  }
  std::shared_ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("stats");
  std::vector<std::shared_ptr<FunctionTask>> tasks;
};

TEST(SnapshotRenderJsonAsync, LargeTreeReachesASlowReaderAndUnservableDescriptorsAreRefused) {
  ReportedRoot const tree(3000);
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
  int ended = 0;
  tree.root->snapshotRenderJsonAsync(fds[1], true, false, true,
                                     [&](bool ok) { ended = ok ? 1 : 2; });
  // Drains 4 KB a run: the writer must wait for it many times.
  std::string text;
  int runsWhileWriting = 0;
  auto const reader = makeTask(tree.root, TaskPriority::normal, "reader", [&](FunctionTask& self) {
    char buffer[4096];
    text.append(buffer, size_t(std::max<ssize_t>(::read(fds[0], buffer, sizeof buffer), 0)));
    if (ended == 0) {
      ++runsWhileWriting;
      self.scheduleTask();
    }
  });
  reader->scheduleTask();
  runUntil([&] { return ended != 0; });
  text += readAll(fds[0]);
  EXPECT_EQ(ended, 1) << "written";
  EXPECT_GT(runsWhileWriting, 40);
  EXPECT_EQ(::fcntl(fds[1], F_GETFL) & O_NONBLOCK, 0) << "the caller's flags are restored";
  rapidjson::Document document;
  ASSERT_FALSE(document.Parse(text.c_str()).HasParseError()) << text.substr(0, 200);
  EXPECT_EQ(document["schedulers"][0]["tasks"]["tasks"].Size(), tree.tasks.size())
      << "taken before the reader and the writing tasks existed";
  ::close(fds[0]), ::close(fds[1]);

  // Refusals follow "fd <n>"; EPIPE ends the writing with done(false), no SIGPIPE.
  for (auto [flags, closed, error] : {std::tuple{O_NONBLOCK, -1, " is non-blocking, not supported"},
                                      {0, 1, " cannot be written: Bad file descriptor"},
                                      {0, 0, ""}}) {
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC | flags), 0);
    if (closed >= 0)
      ::close(fds[closed]);
    std::vector<bool> ends;
    std::string refusal;
    try {
      tree.root->snapshotRenderJsonAsync(fds[1], true, false, false,
                                         [&](bool ok) { ends.push_back(ok); });
      runUntil([&] { return !ends.empty(); });
    } catch (Exception const& e) {
      refusal = e.message();
    }
    EXPECT_EQ(refusal, *error ? "fd " + std::to_string(fds[1]) + error : "");
    EXPECT_EQ(ends, *error ? std::vector<bool>{} : std::vector<bool>{false});
    for (int end : {0, 1})
      if (end != closed)
        ::close(fds[end]);
  }
}

std::string const socketName = "tamlo-stats-test-" + std::to_string(::getpid());

// Reports are checked by their start, json ones by parsing; every tenth client leaves: EPIPE.
TEST(StatsSocketTest, AHundredClientsGetTheirAnswersAndVanishingOnesCostNothing) {
  ReportedRoot const tree(300);
  int const descriptorsBefore = openDescriptorCount();
  // Request, shut down after it, answer whole (or only its start), answer.
  std::tuple<std::string, bool, bool, std::string> const cases[] = {
      {"text\n", false, false, "Priority "},
      {"text", true, false, "Priority "},
      {"json\r\n", false, false, "{\"schedulers\":[{\"schedulerName\":\"stats\""},
      {"trace\n", false, false, "{\"traceEvents\":["},
      {"bo\x01gus\n", false, true, "error: unknown request \"bo?gus\"; send text, json or trace\n"},
      {std::string(100, 'a'), false, true, "error: request longer than 64 bytes\n"},
      {"", true, true, ""},
  };
  {
    auto const server = tree.root->statsSocketListen("@" + socketName);
    std::vector<int> clients;
    for (size_t i = 0; i < 100; ++i) {
      auto const& [request, shutDownAfter, whole, answer] = cases[i % std::size(cases)];
      int const client = clients.emplace_back(connectAbstract(socketName));
      ASSERT_EQ(::write(client, request.data(), request.size()), ssize_t(request.size()));
      if (shutDownAfter)
        ::shutdown(client, SHUT_WR);
      if (i % 10 == 0)
        ::close(std::exchange(clients.back(), -1));
      else
        ::fcntl(client, F_SETFL, O_NONBLOCK);
    }
    // The json answers exceed the socket buffers: read while serving.
    std::vector<std::string> answers(clients.size());
    runUntil([&] {
      for (size_t i = 0; i < clients.size(); ++i)
        answers[i] += clients[i] < 0 ? "" : readAll(clients[i]);
      return server->acceptedCount() == 100 && server->connectionCount() == 0;
    });
    for (size_t i = 0; i < clients.size(); ++i) {
      if (clients[i] < 0)
        continue;
      auto const& [request, shutDownAfter, whole, answer] = cases[i % std::size(cases)];
      answers[i] += readAll(clients[i]);
      EXPECT_EQ(whole ? answers[i] : answers[i].substr(0, answer.size()), answer) << i;
      EXPECT_TRUE(whole || answer[0] == 'P' ||
                  !rapidjson::Document().Parse(answers[i].c_str()).HasParseError())
          << i;
      ::close(clients[i]);
    }
  }
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST(StatsSocketTest, SilentOrStalledClientsAreClosedAfterTheIdleTimeout) {
  auto const root = virtualTimeRoot("stats");
  auto const server = root->statsSocketListen(socketName);
  int const silent = connectAbstract(socketName);
  int const stalled = connectAbstract(socketName);
  runUntil([&] { return server->acceptedCount() == 2; });
  ASSERT_EQ(::write(stalled, "te", 2), 2);
  double const timeout = double(TaskSchedulerStatsSocket::idleTimeout.count());
  Platform::doEventLoop(timeout - 0.5);
  EXPECT_EQ(server->connectionCount(), 2u) << "not yet";
  Platform::doEventLoop(3.0);
  EXPECT_EQ(server->connectionCount(), 1u) << "the silent one is gone";
  Platform::doEventLoop(timeout + 4.5);
  EXPECT_EQ(server->connectionCount(), 0u) << "the stalled one, after two checks";
  for (int client : {silent, stalled}) {
    EXPECT_EQ(readAll(client), "");
    ::close(client);
  }
  Platform::setFastForward(false);
}

}  // namespace
}  // namespace Tamlo::Test
