// What serving descriptors through tasks costs against serving them straight
// from libevent. Both servers echo TCP on loopback, in the benchmark thread,
// on the thread's event base; a client thread keeps 16-byte messages in
// flight on each of 64 connections, one at a time (/1) or eight (/8), until
// every connection has had messagesPerConnection messages echoed. With one
// in flight most readiness carries one message; with eight, several, so the
// cost per readiness is shared. Measured in the same run:
//   bareLibeventEcho   the baseline: one persistent libevent read event per
//                      connection whose callback reads and writes back
//   fileDescriptorTaskEcho  one FileDescriptorTask per connection whose
//                      taskExecuteReadable() does the same, run by the
//                      scheduler at each readiness
// The ratios of the time per message are printed at the end (the goal is at
// least 0.9x the bare server's messages per second, a time ratio of at most
// 1.11), with the bytes one FileDescriptorTask occupies.
#include <benchmark/benchmark.h>

#include "Footprint.h"
#include "RatioReporter.h"

#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <event2/event.h>
#include <fmt/format.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>

namespace {

constexpr int connectionCount = 64;
constexpr int messagesPerConnection = 100;
constexpr size_t messageSize = 16;
constexpr int64_t messagesPerRound = int64_t{connectionCount} * messagesPerConnection;
constexpr uint64_t bytesPerRound = messagesPerRound * messageSize;

void check(bool ok, char const* what) {
  if (!ok) {
    std::perror(what);
    std::abort();
  }
}

void noDelay(int fd) {
  int const on = 1;
  check(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "TCP_NODELAY");
}

// 64 loopback connections and the client thread that pumps them. The server
// ends of the connections are for the benchmark thread to serve.
class EchoRig {
 public:
  EchoRig() {
    int const listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
    check(listen(listener, connectionCount) == 0, "listen");
    check(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0, "name");
    for (int i = 0; i < connectionCount; ++i) {
      clientFds_[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      check(connect(clientFds_[i], reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "connect");
      serverFds_[i] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      check(serverFds_[i] >= 0, "accept");
      noDelay(clientFds_[i]);
      noDelay(serverFds_[i]);
    }
    close(listener);
    client_ = std::thread([this] { clientMain(); });
  }

  ~EchoRig() {
    stop_ = true;
    start_.release();
    client_.join();
    for (int i = 0; i < connectionCount; ++i) {
      close(clientFds_[i]);
      close(serverFds_[i]);
    }
  }

  std::array<int, connectionCount> const& serverFds() const { return serverFds_; }
  // Starts the client's round; serve until the round's bytes are echoed.
  void startRound(int inFlight) {
    inFlight_ = inFlight;
    start_.release();
  }
  void waitRoundDone() { done_.acquire(); }

 private:
  void clientMain() {
    int const poller = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < connectionCount; ++i) {
      epoll_event event{EPOLLIN, {}};
      event.data.u32 = static_cast<uint32_t>(i);
      check(epoll_ctl(poller, EPOLL_CTL_ADD, clientFds_[i], &event) == 0, "epoll_ctl");
    }
    for (;;) {
      start_.acquire();
      if (stop_)
        break;
      pumpRound(poller);
      done_.release();
    }
    close(poller);
  }

  void send(int connection) {
    static char const message[messageSize + 1] = "0123456789abcdef";
    check(write(clientFds_[connection], message, messageSize) == ssize_t{messageSize},
          "client write");
  }

  void pumpRound(int poller) {
    std::array<int, connectionCount> sent{};
    std::array<uint64_t, connectionCount> received{};
    for (int i = 0; i < connectionCount; ++i)
      for (; sent[i] < inFlight_; ++sent[i])
        send(i);
    uint64_t outstanding = bytesPerRound;
    epoll_event events[connectionCount];
    char buffer[4096];
    while (outstanding > 0) {
      int const ready = epoll_wait(poller, events, connectionCount, -1);
      check(ready > 0, "epoll_wait");
      for (int e = 0; e < ready; ++e) {
        int const i = static_cast<int>(events[e].data.u32);
        ssize_t const n = read(clientFds_[i], buffer, sizeof buffer);
        check(n > 0, "client read");
        received[i] += static_cast<uint64_t>(n);
        outstanding -= static_cast<uint64_t>(n);
        // Whole messages back make room for as many new ones.
        while (sent[i] < messagesPerConnection &&
               sent[i] - static_cast<int>(received[i] / messageSize) < inFlight_) {
          send(i);
          ++sent[i];
        }
      }
    }
  }

  std::array<int, connectionCount> clientFds_{};
  std::array<int, connectionCount> serverFds_{};
  std::binary_semaphore start_{0};
  std::binary_semaphore done_{0};
  std::atomic<bool> stop_{false};
  int inFlight_ = 1;  // written before start_ is released
  std::thread client_;
};

// The server's work per readiness, shared by both servers: read what is
// there, write it back, and end the loop once the round's bytes are echoed.
struct EchoCount {
  uint64_t echoed = 0;

  void echo(int fd) {
    char buffer[4096];
    ssize_t const n = read(fd, buffer, sizeof buffer);
    if (n <= 0)
      return;
    check(write(fd, buffer, static_cast<size_t>(n)) == n, "server write");
    echoed += static_cast<uint64_t>(n);
    if (echoed == bytesPerRound)
      event_base_loopbreak(Tamlo::ev_base);
  }
};

void reportMessages(benchmark::State& state) {
  state.counters["msgs"] = static_cast<double>(messagesPerRound);
  state.SetItemsProcessed(state.iterations() * messagesPerRound);
}

// ---- Baseline ----

struct BareConnection {
  event ev;
  EchoCount* count;
};

void bareRead(evutil_socket_t fd, short, void* arg) {
  static_cast<BareConnection*>(arg)->count->echo(fd);
}

void bareLibeventEcho(benchmark::State& state) {
  Tamlo::leInit();
  EchoRig rig;
  EchoCount count;
  std::vector<BareConnection> connections(connectionCount);
  for (int i = 0; i < connectionCount; ++i) {
    connections[i].count = &count;
    event_assign(&connections[i].ev, Tamlo::ev_base, rig.serverFds()[i], EV_READ | EV_PERSIST,
                 bareRead, &connections[i]);
    event_priority_set(&connections[i].ev, Tamlo::Platform::eventPriorityDefault);
    event_add(&connections[i].ev, nullptr);
  }
  for (auto _ : state) {
    count.echoed = 0;
    rig.startRound(static_cast<int>(state.range(0)));
    event_base_dispatch(Tamlo::ev_base);
    rig.waitRoundDone();
  }
  for (BareConnection& connection : connections)
    event_del(&connection.ev);
  reportMessages(state);
}
BENCHMARK(bareLibeventEcho)->Arg(1)->Arg(8)->UseRealTime();

// ---- Tasks ----

class EchoTask : public Tamlo::FileDescriptorTask {
 public:
  EchoTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler, int fd, EchoCount* count)
      : FileDescriptorTask(std::move(scheduler), Tamlo::TaskPriority::normal,
                           fmt::format("echo{}", fd)),
        count_(count) {
    taskWatchFdIs(fd);
  }
  void taskExecuteReadable() override { count_->echo(taskWatchFd()); }
  void taskExecuteWritable() override {}

 private:
  EchoCount* count_;
};

void fileDescriptorTaskEcho(benchmark::State& state) {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  EchoRig rig;
  EchoCount count;
  std::vector<std::shared_ptr<EchoTask>> tasks;
  for (int fd : rig.serverFds())
    tasks.push_back(Tamlo::makeShared<EchoTask>(root, fd, &count));
  for (auto _ : state) {
    count.echoed = 0;
    rig.startRound(static_cast<int>(state.range(0)));
    Tamlo::Platform::doEventLoop();
    rig.waitRoundDone();
  }
  reportMessages(state);
}
BENCHMARK(fileDescriptorTaskEcho)->Arg(1)->Arg(8)->UseRealTime();

// ---- Footprint ----

class IdleFdTask : public Tamlo::FileDescriptorTask {
 public:
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
};

// Through the library's allocator: the task, its read task and its libevent
// fd control, each with its shared-pointer block; the heap per task includes
// four interned names (name, display name, and the read task's two).
void printFileDescriptorTaskFootprint() {
  auto const root = Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("footprint");
  Tamlo::Bench::printFootprint(
      "FileDescriptorTask:", sizeof(IdleFdTask), [&](std::string const& name) {
        return Tamlo::makeShared<IdleFdTask>(root, Tamlo::TaskPriority::normal, name);
      });
}

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter("msgs");
  if (!reporter.run(argc, argv, 9))
    return 1;
  std::printf("\nTime per message (real: the client's view; cpu: the server thread's):\n");
  reporter.printRatio("echo, 1 in flight:", "fileDescriptorTaskEcho/1", "bareLibeventEcho/1",
                      1.0 / 0.9);
  reporter.printRatio("echo, 8 in flight:", "fileDescriptorTaskEcho/8", "bareLibeventEcho/8",
                      1.0 / 0.9);
  printFileDescriptorTaskFootprint();
  return 0;
}
