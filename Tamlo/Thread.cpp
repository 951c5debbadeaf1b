#include <Tamlo/Thread.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>

#include <Tamlo/Assert.h>

namespace Tamlo {

thread_local bool mainThread = false;

namespace {
thread_local bool threadLocalSingletons_ = false;
thread_local bool threadLocalSingletonsLocked_ = false;
// 15 characters and the terminating zero: the kernel's limit.
thread_local char threadNameCache_[16] = {};
}  // namespace

pid_t gettid() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

bool isMainThread() {
  return gettid() == getpid();
}

void setMainThread() {
  mainThread = isMainThread();
}

void threadNameIs(char const* name) {
  // The main thread's name is the process name; it is never changed.
  if (isMainThread())
    return;
  TAMLO_ASSERT(name != nullptr, "null thread name");
  int const error = pthread_setname_np(pthread_self(), name);
  TAMLO_ASSERT(error == 0, "pthread_setname_np() failed:{} for name:{}", error, name);
  // The system accepted it, so it fits; the cut is only a safeguard.
  std::strncpy(threadNameCache_, name, sizeof threadNameCache_);
  threadNameCache_[sizeof threadNameCache_ - 1] = '\0';
}

char const* threadName() {
  if (threadNameCache_[0] == '\0') {
    int const error = pthread_getname_np(pthread_self(), threadNameCache_, sizeof threadNameCache_);
    TAMLO_ASSERT(error == 0, "pthread_getname_np() failed:{}", error);
  }
  return threadNameCache_;
}

std::string toThreadIdString(std::thread::id id) {
  if (id == std::thread::id())
    return "thread::id of a non-executing thread";
  static_assert(sizeof(std::thread::id) == sizeof(pthread_t));
  pthread_t native;
  std::memcpy(&native, static_cast<void const*>(&id), sizeof native);
  return std::to_string(static_cast<unsigned long>(native));
}

void useThreadLocalSingletons() {
  TAMLO_ASSERT(threadLocalSingletons_ || !threadLocalSingletonsLocked_,
               "Attempt to change threadLocalSingletons after a global singleton has already "
               "been created. Please call useThreadLocalSingletons() immediately after spawning "
               "your thread.");
  threadLocalSingletons_ = true;
}

bool hasThreadLocalSingletons() {
  threadLocalSingletonsLocked_ = true;
  return threadLocalSingletons_;
}

}  // namespace Tamlo
