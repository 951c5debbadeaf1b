// Scheduler failures that end the process. Usage: SchedulerHelper <mode>
//   selfdestroy  a task destroys itself from inside its own run
#include <cstdio>
#include <cstring>
#include <memory>

#include <Tamlo/Allocator.h>
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

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "selfdestroy") == 0)
    return selfDestroyMode();
  std::fprintf(stderr, "usage: SchedulerHelper selfdestroy\n");
  return 2;
}
