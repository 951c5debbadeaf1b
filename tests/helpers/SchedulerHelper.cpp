// Scheduler failures that end the process. Usage: SchedulerHelper <mode>
//   selfdestroy  a task destroys itself from inside its own run
//   fdreadoff    an fd task told of readability it does not watch
//   fdwriteoff   an fd task told of writability it does not watch
//   fdother      an fd task told of another descriptor than its own
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include <Tamlo/Allocator.h>
#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>

namespace {

class DoomedTask : public Tamlo::Task {
 public:
  explicit DoomedTask(std::shared_ptr<Tamlo::TaskScheduler> scheduler)
      : Task(std::move(scheduler), Tamlo::TaskPriority::normal, "doomed") {}
  void taskExecute() override { handleDestroy(); }
};

int selfDestroyMode() {
  auto const task = Tamlo::makeShared<DoomedTask>(Tamlo::schedulerRootTamlo());
  task->scheduleTask();
  Tamlo::Platform::doEventLoop();
  std::puts("the run returned");
  return 0;
}

class IdleFdTask : public Tamlo::FileDescriptorTask {
 public:
  IdleFdTask()
      : FileDescriptorTask(Tamlo::schedulerRootTamlo(), Tamlo::TaskPriority::normal, "fd") {}
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
};

// Watches a socket at descriptor 20, so that messages name known numbers.
std::shared_ptr<IdleFdTask> fdTaskOn20() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 || dup2(fds[0], 20) != 20)
    return nullptr;
  auto task = Tamlo::makeShared<IdleFdTask>();
  task->taskWatchFdIs(20);
  return task;
}

int fdReadOffMode() {
  auto const task = fdTaskOn20();
  task->taskWatchReadableIs(false);
  task->readFdEvent(20);
  return 0;
}

struct Mode {
  char const* name;
  int (*run)();
};
constexpr Mode modes[] = {
    {"selfdestroy", selfDestroyMode},
    {"fdreadoff", fdReadOffMode},
    {"fdwriteoff",
     [] {
       fdTaskOn20()->writeFdEvent(20);
       return 0;
     }},
    {"fdother",
     [] {
       fdTaskOn20()->readFdEvent(21);
       return 0;
     }},
};

}  // namespace

int main(int argc, char** argv) {
  for (Mode const& mode : modes)
    if (argc == 2 && std::strcmp(argv[1], mode.name) == 0)
      return mode.run();
  std::fprintf(stderr, "usage: SchedulerHelper <mode> (see the source)\n");
  return 2;
}
