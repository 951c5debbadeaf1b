// A tour of the library: trace handles switched on by TRACE and laid out by
// TRACEFORMAT, the settings listing, an exception with its backtrace, a
// plugin loaded by name, tasks of mixed priorities, an echo through
// file-descriptor tasks, a jittered timer task and a task group in virtual
// time, and the text report asked for over the live stats socket.
//
//   TRACE='Demo*/123' TRACEFORMAT=time,handle,level,func-name ./demo
#include <Tamlo/Tamlo.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace {

class Inventory {
 public:
  Inventory() : trace_(Tamlo::Platform::getDebugHandler("DemoInventory")) {}

  void restock(int items) {
    TAMLO_TRACE(trace_, 1, "restocking {} items", items);
    TAMLO_TRACE(trace_, 3, "detail only shown when level 3 is on: {}", items * 2);
    if (items < 0)
      Tamlo::OutOfRangeException::throwException(fmt::format("cannot restock {} items", items));
  }

 private:
  std::shared_ptr<Tamlo::Platform::DebugHandler> trace_;
};

void section(char const* title) {
  std::printf("\n== %s\n", title);
}

// Two file-descriptor tasks on the ends of a socketpair: a client that sends
// three pings, each once the previous reply is in, and a server that answers
// each from its writable run (it asks for writability once per reply). The
// client then shuts its side; the server sees the end and stops watching, and
// with nothing left to watch the loop returns.
void echoOverSocketpair() {
  section("An echo over a socketpair, served by file-descriptor tasks");
  class Peer : public Tamlo::FileDescriptorTask {
   public:
    Peer(char const* name, int fd, int pings)
        : FileDescriptorTask(Tamlo::schedulerRootTamlo(), Tamlo::TaskPriority::normal, name),
          trace_(Tamlo::Platform::getDebugHandler("DemoEcho")),
          pingsLeft_(pings) {
      taskWatchFdIs(fd);
    }
    void send(std::string const& text) {
      TAMLO_TRACE(trace_, 1, "{} sends \"{}\"", taskName(), text);
      [[maybe_unused]] ssize_t const n = write(taskWatchFd(), text.data(), text.size());
    }
    void taskExecuteReadable() override {
      char buffer[64];
      ssize_t const n = read(taskWatchFd(), buffer, sizeof buffer);
      if (n <= 0) {
        TAMLO_TRACE(trace_, 2, "{} sees the end, stops watching", taskName());
        taskWatchReadableIs(false);
        return;
      }
      std::string const text(buffer, static_cast<size_t>(n));
      TAMLO_TRACE(trace_, 1, "{} reads \"{}\"", taskName(), text);
      taskWorkCountInc(static_cast<uint64_t>(n));
      if (pingsLeft_ < 0) {  // the server
        reply_ = "pong" + text.substr(4);
        taskWatchWritableIs(true);
      } else if (pingsLeft_-- > 0) {
        send(fmt::format("ping {}", 3 - pingsLeft_));
      } else {
        shutdown(taskWatchFd(), SHUT_WR);
        taskWatchReadableIs(false);
      }
    }
    void taskExecuteWritable() override {
      TAMLO_TRACE(trace_, 3, "{} writable, watching writability: {}", taskName(),
                  taskWatchWritable());
      send(reply_);
    }

   private:
    std::shared_ptr<Tamlo::Platform::DebugHandler> trace_;
    int pingsLeft_;  // -1 for the server
    std::string reply_;
  };
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    return;
  auto const server = Tamlo::makeShared<Peer>("server", fds[0], -1);
  auto const client = Tamlo::makeShared<Peer>("client", fds[1], 2);
  client->send("ping 1");
  Tamlo::Platform::doEventLoop();
  std::printf("server: %llu readable runs, %llu writable runs, %llu bytes read\n",
              static_cast<unsigned long long>(server->taskRunCountReadable()),
              static_cast<unsigned long long>(server->taskRunCountWritable()),
              static_cast<unsigned long long>(server->taskWorkCountReadableTotal()));
  close(fds[0]);
  close(fds[1]);
}

// A heartbeat timer task with jitter and two workers sharing one slot of the
// scheduler through a task group, in virtual time: the loop jumps to each
// timer instead of waiting for it, so five seconds pass at once.
void timerTaskAndGroupDemo() {
  section("A timer task with jitter and a task group, in virtual time");
  std::shared_ptr<Tamlo::Platform::DebugHandler> const trace =
      Tamlo::Platform::getDebugHandler("DemoTimers");
  Tamlo::Platform::setFastForward(true);
  {
    double const start = Tamlo::time();
    // Beats every second, up to 20% late, drawn from the root's seed: the
    // same offsets on every run of the demo.
    class Heartbeat : public Tamlo::TimerTask {
     public:
      Heartbeat(Tamlo::Platform::DebugHandler const* trace, double start)
          : TimerTask(Tamlo::schedulerRootTamlo(), Tamlo::TaskPriority::high, "heartbeat"),
            trace_(trace),
            start_(start) {}
      void taskExecute() override {
        TAMLO_TRACE(trace_, 1, "heartbeat {} at {:.3f} s", taskRunCount(), Tamlo::time() - start_);
        if (taskRunCount() < 4)
          scheduleTaskJitterUp(1.0, 20);
      }

     private:
      Tamlo::Platform::DebugHandler const* trace_;
      double start_;
    };
    // Does three slices of work, one per run.
    class Worker : public Tamlo::Task {
     public:
      Worker(std::shared_ptr<Tamlo::TaskScheduler> group, char const* name,
             Tamlo::Platform::DebugHandler const* trace)
          : Task(std::move(group), Tamlo::TaskPriority::normal, name), trace_(trace) {}
      void taskExecute() override {
        TAMLO_TRACE(trace_, 2, "{} slice {} inside {}", taskName(), taskRunCount(),
                    taskScheduler()->schedulerName());
        if (taskRunCount() < 3)
          scheduleTask();
      }

     private:
      Tamlo::Platform::DebugHandler const* trace_;
    };
    auto const heartbeat = Tamlo::makeShared<Heartbeat>(trace.get(), start);
    auto const group = Tamlo::TaskGroup::TaskGroupIs("workers", Tamlo::TaskPriority::normal, true,
                                                     Tamlo::schedulerRootTamlo());
    // Each worker once per run of the group: they take turns.
    group->tasksPermittedMultipleRunsIs(false);
    std::shared_ptr<Worker> const workers[] = {
        Tamlo::makeShared<Worker>(group, "reader", trace.get()),
        Tamlo::makeShared<Worker>(group, "writer", trace.get())};
    heartbeat->scheduleTaskJitterUp(1.0, 20);
    for (auto const& worker : workers)
      worker->scheduleTask();
    Tamlo::Platform::doEventLoop(5.0);
    TAMLO_TRACE(trace, 1, "{} ran {} times for {} worker runs", group->parentTask().taskName(),
                group->parentTaskRunCount(),
                workers[0]->taskRunCount() + workers[1]->taskRunCount());
    std::printf("heartbeats: %llu, %s runs: %llu\n",
                static_cast<unsigned long long>(heartbeat->taskRunCount()),
                group->parentTask().taskName().c_str(),
                static_cast<unsigned long long>(group->parentTaskRunCount()));
  }
  Tamlo::Platform::setFastForward(false);
}

// The live stats socket: the main thread's scheduler listens on an abstract
// socket, and a client on a second thread asks for the text report the way
// `echo text | socat - ABSTRACT-CONNECT:<name>` would. The loop serves it
// meanwhile; the first lines of the answer are printed.
void statsSocketDemo() {
  section("The scheduler's text report, asked for over its stats socket");
  std::string const name = "tamlo-demo-stats-" + std::to_string(::getpid());
  auto const server = Tamlo::schedulerRootTamlo()->statsSocketListen("@" + name);
  std::string answer;
  std::atomic<bool> answered{false};
  std::thread client([&] {
    int const fd = Tamlo::connectAbstract(name);
    [[maybe_unused]] ssize_t const sent = ::write(fd, "text\n", 5);
    char buffer[4096];
    ssize_t count;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0)
      answer.append(buffer, size_t(count));
    ::close(fd);
    answered = true;
  });
  while (!answered)
    Tamlo::Platform::doEventLoopInWaitfor(0.01);
  client.join();
  size_t end = 0;
  for (int line = 0; line < 8 && end != std::string::npos; ++line)
    end = answer.find('\n', end + 1);
  std::printf("%s\n", answer.substr(0, end).c_str());
}

}  // namespace

int main() {
  // Trace lines go to stderr unbuffered; keep stdout in step with them.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  section("Trace lines (stderr), levels chosen by TRACE");
  Inventory inventory;
  inventory.restock(12);

  section("Settings and handles");
  Tamlo::Platform::dumpTamloDebugMap();

  section("An exception and the backtrace it carries");
  try {
    inventory.restock(-1);
  } catch (Tamlo::Exception const& e) {
    std::printf("%s\n", e.what());
  }

  section("A plugin loaded by name");
  std::fflush(stdout);
  Tamlo::Platform::Plugin* plugin = Tamlo::Platform::loadPlugin("TamloDemoPlugin");
  std::printf("loaded: %s\n", plugin ? plugin->name() : "(none)");
  Tamlo::Platform::Plugin* missing = Tamlo::Platform::loadPlugin("NoSuchPlugin");
  std::printf("missing plugin gives: %s\n", missing ? missing->name() : "null");

  section("Tasks of mixed priorities on the main thread's scheduler");
  {
    // Writes its priority's letter on each run and schedules itself again
    // until it has run `runs` times.
    class Chatty : public Tamlo::Task {
     public:
      Chatty(Tamlo::TaskPriority priority, char const* name, uint64_t runs, std::string* order)
          : Task(Tamlo::schedulerRootTamlo(), priority, name), runs_(runs), order_(order) {}
      void taskExecute() override {
        *order_ += taskPriority().oneChar();
        if (taskRunCount() < runs_)
          scheduleTask();
      }

     private:
      uint64_t runs_;
      std::string* order_;
    };
    std::string order;
    std::shared_ptr<Chatty> const tasks[] = {
        Tamlo::makeShared<Chatty>(Tamlo::TaskPriority::low, "sweeper", 3, &order),
        Tamlo::makeShared<Chatty>(Tamlo::TaskPriority::normal, "reader", 6, &order),
        Tamlo::makeShared<Chatty>(Tamlo::TaskPriority::high, "alarm", 20, &order)};
    for (auto const& task : tasks)
      task->scheduleTask();
    // One task per loop callback until none is runnable. High goes first but
    // gives a turn to the levels below now and then.
    Tamlo::Platform::doEventLoop();
    std::printf("order of runs: %s\n", order.c_str());
    for (auto const& [priority, stats] : Tamlo::schedulerRootTamlo()->queueStats())
      if (stats.totalRunCount > 0)
        std::printf("%-8s runs %llu\n", priority.toStrep().c_str(),
                    static_cast<unsigned long long>(stats.totalRunCount));
  }

  echoOverSocketpair();
  timerTaskAndGroupDemo();
  statsSocketDemo();
  return 0;
}
