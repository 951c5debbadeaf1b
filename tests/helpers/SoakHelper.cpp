// SoakHelper [scale, else TAMLO_SOAK_SCALE]: eight threads, each with its own event loop, run
// jittered timer tasks of every priority; each run traces a line and messages the next thread
// over fd tasks. Prints a summary, then a FAIL line per broken promise (exit code 1).
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>

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

std::mutex failuresLock;
std::vector<std::string> failures;

template <typename... Args>
void fail(fmt::format_string<Args...> format, Args&&... args) {
  std::lock_guard const guard(failuresLock);
  if (failures.size() < 20)
    failures.push_back(fmt::format(format, std::forward<Args>(args)...));
}

// Open descriptors and live allocations, which a run must leave as it found them.
std::pair<size_t, uint64_t> held() {
  return {size_t(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})),
          Tamlo::AllocatorStats::liveAllocations()};
}

struct SoakThread {
  struct Timer : Tamlo::TimerTask {
    using TimerTask::TimerTask;
    void arm() {
      double const delay = double(1 + owner->random() % 20) / 1000;  // 1 to 20 ms, +-50%
      owner->random() % 2 ? scheduleTaskJitterUp(delay, 50) : scheduleTaskJitterDown(delay, 50);
      expiry = currentExpirationTime(), armed = true;
    }
    void taskExecute() override {
      if (!std::exchange(armed, false) || Tamlo::time() < expiry)
        fail("thread {}: timer {} ran unarmed or before {:.6f}", owner->index, index, expiry);
      owner->deliver(index, ++runs);
      if (runs < 3)
        arm();
    }
    SoakThread* owner;
    uint32_t index;
    double expiry = 0;
    bool armed = false;
    int runs = 0;
  };

  struct Link : Tamlo::FileDescriptorTask {
    using FileDescriptorTask::FileDescriptorTask;
    void taskExecuteReadable() override { owner->receive(); }
    void taskExecuteWritable() override { owner->flush(); }
    SoakThread* owner;
  };

  void run() {
    trace = Tamlo::Platform::getDebugHandler("Soak");
    {
      auto const root = Tamlo::schedulerRootTamlo();
      auto const out = Tamlo::makeShared<Link>(root, TaskPriority::normal, "link");
      auto const in = Tamlo::makeShared<Link>(root, TaskPriority::normal, "link");
      out->owner = in->owner = this, sender = out.get();
      out->taskWatchFdIs(sendFd), out->taskWatchReadableIs(false), in->taskWatchFdIs(receiveFd);
      std::vector<std::shared_ptr<Timer>> timers;
      for (uint32_t i = 0; i < timerCount; ++i) {  // high to scavenge
        timers.push_back(Tamlo::makeShared<Timer>(root, TaskPriority(uint8_t(1 + i % 4)), "soak"));
        timers.back()->owner = this, timers.back()->index = i, timers.back()->arm();
      }
      uint64_t const expected = timerCount * 3;  // an arming and two re-armings each
      while (delivered != expected || !outbox.empty() || received != expected)
        Tamlo::Platform::doEventLoopInWaitfor(0.05);
      for (auto const& timer : timers)
        if (timer->taskScheduled())
          fail("thread {}: timer {} still scheduled at the end", index, timer->index);
    }
    trace.reset();
    Tamlo::leFree();
  }

  void deliver(uint32_t timer, int run) {
    ++delivered;
    TAMLO_TRACE(trace, 1, "soak thread {} timer {} run {} {:0>40}", index, timer, run, delivered);
    outbox.push_back(uint64_t{index} << 32 | sent++);  // the sender and its count
    sender->taskWatchWritableIs(true);
  }

  void flush() {
    while (!outbox.empty() && ::write(sendFd, &outbox.front(), 8) == 8)
      outbox.pop_front();
    if (!outbox.empty())
      sender->taskWatchWritableIs(true);
  }

  void receive() {
    uint64_t const from = (index + kThreads - 1) % kThreads;
    for (uint64_t message; ::read(receiveFd, &message, 8) == 8;)
      if (message != (from << 32 | received++))
        fail("thread {}: message {:#x} where {}:{} was due", index, message, from, received - 1);
  }

  uint32_t index;
  size_t timerCount;
  int sendFd, receiveFd;
  std::minstd_rand random{index + 1};
  std::shared_ptr<Tamlo::Platform::DebugHandler> trace{};
  Link* sender = nullptr;
  std::deque<uint64_t> outbox{};
  uint64_t delivered = 0;
  uint32_t sent = 0, received = 0;
};

}  // namespace

int main(int argc, char** argv) {
  char const* const scale = argc > 1 ? argv[1] : std::getenv("TAMLO_SOAK_SCALE");
  size_t const timersPerThread = 500 * std::max(scale ? std::strtoul(scale, nullptr, 10) : 1, 1ul);
  auto const before = held();
  uint64_t runs = 0;
  {
    int links[kThreads][2];  // links[i] carries thread i's messages to thread i + 1
    for (auto& link : links)
      if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, link) != 0)
        return std::perror("socketpair"), 1;
    std::vector<SoakThread> soaks;
    for (uint32_t i = 0; i < kThreads; ++i)
      soaks.push_back({i, timersPerThread, links[i][0], links[(i + kThreads - 1) % kThreads][1]});
    for (std::vector<std::jthread> threads; SoakThread & soak : soaks)  // joined after the loop
      threads.emplace_back([&soak] { soak.run(); });
    for (uint32_t i = 0; i < kThreads; ++i)
      runs += soaks[i].delivered, ::close(links[i][0]), ::close(links[i][1]);
  }
  if (auto const after = held(); after != before)
    fail("{} descriptors and {} allocations before, {} and {} after", before.first, before.second,
         after.first, after.second);
  fmt::print("soak: {} threads, {} timer tasks, {} runs\n", kThreads, kThreads * timersPerThread,
             runs);
  for (std::string const& failure : failures)
    fmt::print("FAIL {}\n", failure);
  return failures.empty() ? 0 : 1;
}
