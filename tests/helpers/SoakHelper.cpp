// A soak run: eight threads, each with its own scheduler root and event
// loop, run timer tasks of mixed priorities that re-arm themselves with
// jittered delays, pass one message per timer run to the next thread over a
// socketpair watched by fd tasks, and trace a line for every run into the one
// trace file. Usage: SoakHelper [scale] (TAMLO_SOAK_SCALE when not given;
// 1 is a few seconds under sanitizers, 200 gives 100,000 timer tasks a thread).
//
// It checks what load cannot break: a timer never runs before its expiry
// (compared with Tamlo::time() at the run), runs exactly once per arming,
// every message arrives once and in order, and descriptors and the library's
// allocations are back where they were. Prints one summary line, then a line
// per failure; exits 1 on any failure.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
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

constexpr int kThreads = 8;
constexpr int kArmingsPerTimer = 3;  // the first arming and two re-arms from its own runs
constexpr TaskPriority kPriorities[] = {TaskPriority::high, TaskPriority::normal, TaskPriority::low,
                                        TaskPriority::scavenge};

std::mutex failuresLock;
std::vector<std::string> failures;

void fail(std::string text) {
  std::lock_guard const guard(failuresLock);
  if (failures.size() < 20)
    failures.push_back(std::move(text));
}

size_t openDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator{}));
}

// One message: the sending thread and its running count, fixed-size so the
// reader can cut the stream at any point.
struct Message {
  uint32_t sender;
  uint32_t sequence;
};

class SoakThread;

class SoakTimer : public Tamlo::TimerTask {
 public:
  SoakTimer(SoakThread& owner, TaskPriority priority, uint32_t index)
      : TimerTask(Tamlo::schedulerRootTamlo(), priority, "soak"), owner_(owner), index_(index) {}
  void arm();
  void taskExecute() override;

 private:
  SoakThread& owner_;
  uint32_t index_;
  double expiry_ = 0;  // of the arming in force
  bool armed_ = false;
  int runs_ = 0;
};

// The fd task on both ends a thread holds: it writes to the next thread and
// reads from the one before.
class SoakLink : public Tamlo::FileDescriptorTask {
 public:
  SoakLink(SoakThread& owner, int fd)
      : FileDescriptorTask(Tamlo::schedulerRootTamlo(), TaskPriority::normal, "link"),
        owner_(owner) {
    taskWatchFdIs(fd);
  }
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

 private:
  SoakThread& owner_;
};

class SoakThread {
 public:
  SoakThread(uint32_t index, size_t timers, int sendFd, int receiveFd)
      : index_(index), timerCount_(timers), sendFd_(sendFd), receiveFd_(receiveFd) {}

  void run() {
    random_.seed(index_ + 1);
    trace_ = Tamlo::Platform::getDebugHandler("Soak");
    {
      auto sender = Tamlo::makeShared<SoakLink>(*this, sendFd_);
      auto receiver = Tamlo::makeShared<SoakLink>(*this, receiveFd_);
      sender->taskWatchReadableIs(false);
      sender_ = sender.get();
      std::vector<std::shared_ptr<SoakTimer>> timers;
      timers.reserve(timerCount_);
      for (uint32_t i = 0; i < timerCount_; ++i) {
        timers.push_back(Tamlo::makeShared<SoakTimer>(*this, kPriorities[i % 4], i));
        timers.back()->arm();
      }
      expected_ = timerCount_ * kArmingsPerTimer;
      while (!finished())
        Tamlo::Platform::doEventLoopInWaitfor(0.05);
      for (auto const& timer : timers)
        if (timer->taskScheduled())
          fail(fmt::format("thread {}: a timer is still scheduled at the end", index_));
    }
    trace_.reset();
    Tamlo::leFree();
  }

  bool finished() const {
    return delivered_ == expected_ && outbox_.empty() && received_ == expected_;
  }

  // From a timer's run: one message to the next thread.
  void delivered(uint32_t timer, int run) {
    ++delivered_;
    TAMLO_TRACE(trace_, 1, "soak thread {} timer {} run {} {:0>40}", index_, timer, run,
                delivered_);
    Message const message{index_, sent_++};
    auto const bytes = reinterpret_cast<char const*>(&message);
    outbox_.append(bytes, sizeof message);
    sender_->taskWatchWritableIs(true);
  }

  void flush() {
    ssize_t const written = ::write(sendFd_, outbox_.data(), outbox_.size());
    if (written > 0)
      outbox_.erase(0, static_cast<size_t>(written));
    if (!outbox_.empty())
      sender_->taskWatchWritableIs(true);
  }

  void receive() {
    char buffer[4096];
    ssize_t const got = ::read(receiveFd_, buffer, sizeof buffer);
    if (got <= 0)
      return;
    inbox_.append(buffer, static_cast<size_t>(got));
    uint32_t const from = (index_ + kThreads - 1) % kThreads;
    size_t used = 0;
    for (; inbox_.size() - used >= sizeof(Message); used += sizeof(Message)) {
      Message message;
      std::memcpy(&message, inbox_.data() + used, sizeof message);
      if (message.sender != from || message.sequence != received_)
        fail(fmt::format("thread {}: message {}:{} where {}:{} was due", index_, message.sender,
                         message.sequence, from, received_));
      ++received_;
    }
    inbox_.erase(0, used);
  }

  uint32_t index() const { return index_; }
  uint64_t delivered() const { return delivered_; }
  uint64_t received() const { return received_; }
  uint64_t armed() const { return armed_; }
  void armedInc() { ++armed_; }
  std::minstd_rand& random() { return random_; }

 private:
  uint32_t index_;
  size_t timerCount_;
  int sendFd_, receiveFd_;
  std::minstd_rand random_;
  std::shared_ptr<Tamlo::Platform::DebugHandler> trace_;
  SoakLink* sender_ = nullptr;
  std::string outbox_, inbox_;
  uint64_t armed_ = 0, delivered_ = 0, expected_ = ~uint64_t{0};
  uint32_t sent_ = 0, received_ = 0;
};

void SoakTimer::arm() {
  std::minstd_rand& random = owner_.random();
  // 1 to 20 ms, jittered up or down by up to half.
  double const delay = static_cast<double>(1 + random() % 20) / 1000;
  if (random() % 2)
    scheduleTaskJitterUp(delay, 50);
  else
    scheduleTaskJitterDown(delay, 50);
  expiry_ = currentExpirationTime();
  armed_ = true;
  owner_.armedInc();
}

void SoakTimer::taskExecute() {
  double const now = Tamlo::time();
  if (!armed_)
    fail(fmt::format("thread {}: timer {} ran without an arming", owner_.index(), index_));
  if (now < expiry_)
    fail(fmt::format("thread {}: timer {} ran at {:.6f}, before its expiry {:.6f}", owner_.index(),
                     index_, now, expiry_));
  armed_ = false;
  owner_.delivered(index_, ++runs_);
  if (runs_ < kArmingsPerTimer)
    arm();
}

void SoakLink::taskExecuteReadable() {
  owner_.receive();
}

void SoakLink::taskExecuteWritable() {
  owner_.flush();
}

}  // namespace

int main(int argc, char** argv) {
  char const* const scaleText = argc > 1 ? argv[1] : std::getenv("TAMLO_SOAK_SCALE");
  size_t const scale = scaleText ? std::strtoul(scaleText, nullptr, 10) : 1;
  size_t const timersPerThread = 500 * (scale ? scale : 1);

  size_t const descriptorsBefore = openDescriptors();
  uint64_t const allocationsBefore = Tamlo::AllocatorStats::liveAllocations();
  auto const start = std::chrono::steady_clock::now();
  uint64_t armed = 0, delivered = 0, received = 0;
  {
    // links[i] carries thread i's messages to thread i + 1.
    int links[kThreads][2];
    for (auto& link : links)
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, link) != 0) {
        std::perror("socketpair");
        return 1;
      }
    std::vector<std::unique_ptr<SoakThread>> soaks;
    for (uint32_t i = 0; i < kThreads; ++i)
      soaks.push_back(std::make_unique<SoakThread>(i, timersPerThread, links[i][0],
                                                   links[(i + kThreads - 1) % kThreads][1]));
    std::vector<std::thread> threads;
    for (auto& soak : soaks)
      threads.emplace_back([&soak] { soak->run(); });
    for (auto& thread : threads)
      thread.join();
    for (auto const& soak : soaks) {
      armed += soak->armed();
      delivered += soak->delivered();
      received += soak->received();
    }
    for (auto& link : links) {
      ::close(link[0]);
      ::close(link[1]);
    }
  }
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (armed != delivered)
    fail(fmt::format("{} armings but {} runs", armed, delivered));
  if (received != delivered)
    fail(fmt::format("{} runs sent a message but {} arrived", delivered, received));
  if (openDescriptors() != descriptorsBefore)
    fail(fmt::format("{} descriptors open before, {} after", descriptorsBefore, openDescriptors()));
  if (Tamlo::AllocatorStats::liveAllocations() != allocationsBefore)
    fail(fmt::format("{} live allocations before, {} after", allocationsBefore,
                     Tamlo::AllocatorStats::liveAllocations()));

  fmt::print("soak: {} threads, {} timer tasks, {} runs, {} messages in {:.1f} s\n", kThreads,
             kThreads * timersPerThread, delivered, received, seconds);
  for (std::string const& failure : failures)
    fmt::print("FAIL {}\n", failure);
  return failures.empty() ? 0 : 1;
}
