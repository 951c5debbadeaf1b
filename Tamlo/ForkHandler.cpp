#include <Tamlo/ForkHandler.h>

#include <pthread.h>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdio>

#include <Tamlo/Errno.h>

namespace Tamlo::Platform {

namespace {
// Written in the child right after fork, while it has one thread; atomic only
// so that later reads and writes from several threads are not a data race.
std::atomic<bool> forkedChild_{false};
}  // namespace

void setupHandler() {
  if (pthread_atfork(nullptr, nullptr, handleFork) == 0)
    return;
  // The text is errno's, not the returned code's: pthread_atfork only fails
  // for lack of memory, which errno then also says.
  std::fprintf(stderr, "Tamlo failed to register atfork handler, reason: %s\n",
               Tamlo::strerror(errno));
  assert(false && "Failed to register Tamlo atfork handler");
}

void handleFork() {
  forkedChild_.store(true, std::memory_order_relaxed);
}
bool isForkedChild() {
  return forkedChild_.load(std::memory_order_relaxed);
}
void forkedChildIs(bool forkedChild) {
  forkedChild_.store(forkedChild, std::memory_order_relaxed);
}

}  // namespace Tamlo::Platform
