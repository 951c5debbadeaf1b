// Scheduler failures that end the process. Usage: SchedulerHelper <mode>
//   selfdestroy   a task destroys itself from inside its own run
//   destroyagain  a task scheduled after handleDestroy() is destroyed
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

int destroyAgainMode() {
  auto const root = Tamlo::schedulerRootTamlo();
  auto const bystander = Tamlo::makeShared<DoomedTask>(root);  // keeps the count above 0
  auto task = Tamlo::makeShared<DoomedTask>(root);
  task->handleDestroy();
  task->scheduleTask();
  task.reset();
  std::puts("destroyed silently");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "selfdestroy") == 0)
    return selfDestroyMode();
  if (argc == 2 && std::strcmp(argv[1], "destroyagain") == 0)
    return destroyAgainMode();
  std::fprintf(stderr, "usage: SchedulerHelper selfdestroy|destroyagain\n");
  return 2;
}
