// Scheduler failures that end the process, and runs whose output a test compares.
// Usage: SchedulerHelper <mode>; the modes are in the table below.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <Tamlo/Allocator.h>
#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/ForkHandler.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>
#include <Tamlo/TaskGroup.h>
#include <Tamlo/TimerTask.h>

namespace {

using namespace std::chrono_literals;
using Tamlo::TaskPriority;

constexpr auto root = &Tamlo::schedulerRootTamlo;

struct DoomedTask : Tamlo::Task {
  DoomedTask() : Task(root(), TaskPriority::normal, "doomed") {}
  void taskExecute() override { handleDestroy(); }
};

template <typename Base>
struct IdleTask : Base {
  IdleTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler, TaskPriority priority)
      : Base(std::move(scheduler), priority, "tick") {}
  void taskExecute() override {}
};

std::shared_ptr<Tamlo::TimerTask> timerTask() {
  return Tamlo::makeShared<IdleTask<Tamlo::TimerTask>>(root(), TaskPriority::normal);
}

std::shared_ptr<Tamlo::TaskGroup> group(TaskPriority priority, bool enforced) {
  return Tamlo::TaskGroup::TaskGroupIs("io", priority, enforced, root());
}

// Jitter draws on a fresh root, then each trace line of a timer task once.
int timerTraceMode() {
  auto const timer = timerTask();
  for (int i = 0; i < 4; ++i)
    timer->scheduleTaskJitterUp(1s + 4321ns, 50);
  timer->scheduleTaskJitterDown(2.5, 30);
  timer->scheduleTaskDelay(1230ms);
  timer->scheduleTaskLowestDelay(5.0);
  timer->stopTimerTask();
  timer->stopTimerTask();
  timer->scheduleTask();
  timer->scheduleTaskLowestDelay(5.0);
  return 0;
}

// Watches a socket at descriptor 20, so that messages name known numbers.
struct FdTaskOn20 : Tamlo::FileDescriptorTask {
  explicit FdTaskOn20(bool readable) : FileDescriptorTask(root(), TaskPriority::normal, "fd") {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 || ::dup2(fds[0], 20) != 20)
      std::perror("socket on 20"), std::exit(2);  // else the message would name another number
    taskWatchFdIs(20);
    taskWatchReadableIs(readable);
  }
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
};

// A timer armed before fork() runs in both processes; the child's base is re-initialised.
int forkMode() {
  struct Counting : Tamlo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override { ++runs; }
    int runs = 0;
  };
  auto const inherited = Tamlo::makeShared<Counting>(root(), TaskPriority::normal, "inherited");
  inherited->scheduleTaskDelay(5ms);
  pid_t const child = ::fork();
  if (child == 0) {
    Tamlo::leForkReinit();
    auto const own = Tamlo::makeShared<Counting>(root(), TaskPriority::high, "own");
    own->scheduleTaskDelay(10ms);
    Tamlo::Platform::doEventLoop();
    std::printf("child: forked %d inherited %d own %d\n", Tamlo::Platform::isForkedChild(),
                inherited->runs, own->runs);
    std::fflush(stdout);
    ::_exit(0);
  }
  Tamlo::Platform::doEventLoop();
  int status = -1;
  ::waitpid(child, &status, 0);
  std::printf("parent: forked %d inherited %d child status %d\n", Tamlo::Platform::isForkedChild(),
              inherited->runs, status);
  return 0;
}

constexpr std::pair<std::string_view, int (*)()> modes[] = {
    {"selfdestroy",
     [] {
       auto const task = Tamlo::makeShared<DoomedTask>();
       task->scheduleTask();
       return Tamlo::Platform::doEventLoop(), 0;
     }},
    {"destroyagain",
     [] {
       auto const bystander = Tamlo::makeShared<DoomedTask>();  // keeps the count above 0
       auto task = Tamlo::makeShared<DoomedTask>();
       task->handleDestroy();
       task->scheduleTask();
       return task.reset(), 0;
     }},
    {"timertrace", timerTraceMode},
    {"jitter101", [] { return timerTask()->scheduleTaskJitterUp(1s, 101), 0; }},
    {"lowestnever",
     [] { return timerTask()->scheduleTaskLowestDelay(std::chrono::nanoseconds::max()), 0; }},
    {"lowestinfinity", [] { return timerTask()->scheduleTaskLowestDelay(HUGE_VAL), 0; }},
    // The first draw of a fresh root is 0, and an offset of 0 exceeds -10 ns.
    {"jitternegative", [] { return timerTask()->scheduleTaskJitterDown(-10ns, 100), 0; }},
    {"grouppriority",
     [] {
       return IdleTask<Tamlo::Task>(group(TaskPriority::high, true), TaskPriority::normal), 0;
     }},
    // A ParentTask that outlives its group.
    {"orphanparent",
     [] {
       auto io = group(TaskPriority::normal, false);
       auto const parent = io->parentTask().shared_from_this();
       io.reset();
       return static_cast<Tamlo::TaskImpl const&>(*parent).getStats(), 0;
     }},
    // A suspended root drops the group's requests: the ParentTask's run leaves work unscheduled.
    {"groupsuspended",
     [] {
       auto const io = group(TaskPriority::normal, false);
       io->taskGroupQuantumIs(1ms);
       auto const task = Tamlo::makeShared<IdleTask<Tamlo::Task>>(io, TaskPriority::normal);
       root()->suspendedIs(true);
       task->scheduleTask();
       return io->taskGroupRunFromTest(), 0;
     }},
    {"fdreadoff", [] { return Tamlo::makeShared<FdTaskOn20>(false)->readFdEvent(20), 0; }},
    {"fdwriteoff", [] { return Tamlo::makeShared<FdTaskOn20>(true)->writeFdEvent(20), 0; }},
    {"fdother", [] { return Tamlo::makeShared<FdTaskOn20>(true)->readFdEvent(21), 0; }},
    {"fork", forkMode},
};

}  // namespace

int main(int argc, char** argv) {
  for (auto const& [name, run] : modes)
    if (argc == 2 && name == argv[1])
      return run();
  return std::fprintf(stderr, "usage: SchedulerHelper <mode>\n"), 2;
}
