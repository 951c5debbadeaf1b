// A soak run: eight threads, each with its own scheduler root and event loop,
// run timer tasks of mixed priorities that re-arm themselves with jittered
// delays, send a message per timer run to the next thread over a socketpair
// watched by fd tasks, and trace a line per run into the one trace file.
// Usage: SoakHelper [scale] (else TAMLO_SOAK_SCALE; 1 takes a few seconds under
// sanitizers, 200 gives 100,000 timer tasks a thread). Prints a summary line,
// then a line per broken promise (a timer early or run other than once per
// arming, a message lost or out of order, descriptors or allocations left
// behind), and exits 1 if there was any.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/Debug.h>
#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/TimerTask.h>

namespace {

using Tamlo::TaskPriority;

constexpr uint32_t kThreads = 8;
constexpr int kArmingsPerTimer = 3;  // the first arming and two re-arms from its own runs

std::mutex failuresLock;
std::vector<std::string> failures;

template <typename... Args>
void fail(fmt::format_string<Args...> format, Args&&... args) {
  std::lock_guard const guard(failuresLock);
  if (failures.size() < 20)
    failures.push_back(fmt::format(format, std::forward<Args>(args)...));
}

size_t openDescriptors() {
  return size_t(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                              std::filesystem::directory_iterator{}));
}

struct SoakThread {
  struct Timer : Tamlo::TimerTask {
    Timer(SoakThread& owner, TaskPriority priority, uint32_t index)
        : TimerTask(Tamlo::schedulerRootTamlo(), priority, "soak"), owner(owner), index(index) {}
    void arm() {
      // 1 to 20 ms, jittered up or down by up to half.
      double const delay = double(1 + owner.random() % 20) / 1000;
      if (owner.random() % 2)
        scheduleTaskJitterUp(delay, 50);
      else
        scheduleTaskJitterDown(delay, 50);
      expiry = currentExpirationTime();
      armed = true;
      ++owner.armed;
    }
    void taskExecute() override {
      double const now = Tamlo::time();
      if (!armed)
        fail("thread {}: timer {} ran without an arming", owner.index, index);
      if (now < expiry)
        fail("thread {}: timer {} ran at {:.6f}, before its expiry {:.6f}", owner.index, index, now,
             expiry);
      armed = false;
      owner.deliver(index, ++runs);
      if (runs < kArmingsPerTimer)
        arm();
    }
    SoakThread& owner;
    uint32_t index;
    double expiry = 0;  // of the arming in force
    bool armed = false;
    int runs = 0;
  };

  // The fd task on either end a thread holds: it writes to the next thread
  // and reads from the one before.
  struct Link : Tamlo::FileDescriptorTask {
    Link(SoakThread& owner, int fd)
        : FileDescriptorTask(Tamlo::schedulerRootTamlo(), TaskPriority::normal, "link"),
          owner(owner) {
      taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override { owner.receive(); }
    void taskExecuteWritable() override { owner.flush(); }
    SoakThread& owner;
  };

  SoakThread(uint32_t index, size_t timers, int sendFd, int receiveFd)
      : index(index), timerCount(timers), sendFd(sendFd), receiveFd(receiveFd) {}

  void run() {
    trace = Tamlo::Platform::getDebugHandler("Soak");
    {
      auto const out = Tamlo::makeShared<Link>(*this, sendFd);
      auto const in = Tamlo::makeShared<Link>(*this, receiveFd);
      out->taskWatchReadableIs(false);
      sender = out.get();
      TaskPriority const priorities[] = {TaskPriority::high, TaskPriority::normal,
                                         TaskPriority::low, TaskPriority::scavenge};
      std::vector<std::shared_ptr<Timer>> timers;
      for (uint32_t i = 0; i < timerCount; ++i) {
        timers.push_back(Tamlo::makeShared<Timer>(*this, priorities[i % 4], i));
        timers.back()->arm();
      }
      uint64_t const expected = timerCount * kArmingsPerTimer;
      while (delivered != expected || !outbox.empty() || received != expected)
        Tamlo::Platform::doEventLoopInWaitfor(0.05);
      for (auto const& timer : timers)
        if (timer->taskScheduled())
          fail("thread {}: a timer is still scheduled at the end", index);
    }
    trace.reset();
    Tamlo::leFree();
  }

  // From a timer's run: one message to the next thread.
  void deliver(uint32_t timer, int run) {
    ++delivered;
    TAMLO_TRACE(trace, 1, "soak thread {} timer {} run {} {:0>40}", index, timer, run, delivered);
    // The sending thread and its running count, fixed-size so that the reader
    // can cut the stream at any point.
    uint64_t const message = uint64_t{index} << 32 | sent++;
    outbox.append(reinterpret_cast<char const*>(&message), sizeof message);
    sender->taskWatchWritableIs(true);
  }

  void flush() {
    outbox.erase(0, size_t(std::max<ssize_t>(::write(sendFd, outbox.data(), outbox.size()), 0)));
    if (!outbox.empty())
      sender->taskWatchWritableIs(true);
  }

  void receive() {
    char buffer[4096];
    inbox.append(buffer, size_t(std::max<ssize_t>(::read(receiveFd, buffer, sizeof buffer), 0)));
    uint32_t const from = (index + kThreads - 1) % kThreads;
    size_t used = 0;
    for (uint64_t message; inbox.size() - used >= sizeof message; used += sizeof message) {
      std::memcpy(&message, inbox.data() + used, sizeof message);
      if (message != (uint64_t{from} << 32 | received++))
        fail("thread {}: message {}:{} where {}:{} was due", index, message >> 32,
             uint32_t(message), from, received - 1);
    }
    inbox.erase(0, used);
  }

  uint32_t index;
  size_t timerCount;
  int sendFd, receiveFd;
  std::minstd_rand random{index + 1};
  std::shared_ptr<Tamlo::Platform::DebugHandler> trace;
  Link* sender = nullptr;
  std::string outbox, inbox;
  uint64_t armed = 0, delivered = 0;
  uint32_t sent = 0, received = 0;
};

}  // namespace

int main(int argc, char** argv) {
  char const* const scale = argc > 1 ? argv[1] : std::getenv("TAMLO_SOAK_SCALE");
  size_t const timersPerThread =
      500 * std::max<size_t>(scale ? std::strtoul(scale, nullptr, 10) : 1, 1);

  size_t const descriptorsBefore = openDescriptors();
  uint64_t const allocationsBefore = Tamlo::AllocatorStats::liveAllocations();
  auto const start = std::chrono::steady_clock::now();
  uint64_t armed = 0, delivered = 0, received = 0;
  {
    // links[i] carries thread i's messages to thread i + 1.
    int links[kThreads][2];
    for (auto& link : links)
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, link) != 0)
        return std::perror("socketpair"), 1;
    std::vector<SoakThread> soaks;
    soaks.reserve(kThreads);
    for (uint32_t i = 0; i < kThreads; ++i)
      soaks.emplace_back(i, timersPerThread, links[i][0], links[(i + kThreads - 1) % kThreads][1]);
    {
      std::vector<std::jthread> threads;
      for (SoakThread& soak : soaks)
        threads.emplace_back([&soak] { soak.run(); });
    }
    for (SoakThread const& soak : soaks) {
      armed += soak.armed;
      delivered += soak.delivered;
      received += soak.received;
    }
    for (auto& link : links)
      ::close(link[0]), ::close(link[1]);
  }
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (armed != delivered)
    fail("{} armings but {} runs", armed, delivered);
  if (received != delivered)
    fail("{} runs sent a message but {} arrived", delivered, received);
  if (openDescriptors() != descriptorsBefore)
    fail("{} descriptors open before, {} after", descriptorsBefore, openDescriptors());
  if (Tamlo::AllocatorStats::liveAllocations() != allocationsBefore)
    fail("{} live allocations before, {} after", allocationsBefore,
         Tamlo::AllocatorStats::liveAllocations());

  fmt::print("soak: {} threads, {} timer tasks, {} runs, {} messages in {:.1f} s\n", kThreads,
             kThreads * timersPerThread, delivered, received, seconds);
  for (std::string const& failure : failures)
    fmt::print("FAIL {}\n", failure);
  return failures.empty() ? 0 : 1;
}
