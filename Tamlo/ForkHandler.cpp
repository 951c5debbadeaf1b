#include <Tamlo/ForkHandler.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <pthread.h>

#include <Tamlo/Errno.h>

namespace Tamlo::Platform {

namespace {
// Written in the child right after fork, while it has one thread.
bool forkedChild_ = false;
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

void handleFork() { forkedChild_ = true; }
bool isForkedChild() { return forkedChild_; }
void forkedChildIs(bool forkedChild) { forkedChild_ = forkedChild; }

}  // namespace Tamlo::Platform
