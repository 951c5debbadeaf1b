#include <Tamlo/Locking.h>

#include <bits/gthr.h>
#include <system_error>
#include <thread>

#include <Tamlo/Assert.h>
#include <Tamlo/Thread.h>

namespace Tamlo::Locking {
namespace Impl {

bool threadsActive() { return __gthread_active_p() != 0; }

pthread_t currentOwnerId() { return threadsActive() ? pthread_self() : pthread_t(1); }

}  // namespace Impl

namespace {

void initMutex(pthread_mutex_t& mutex, int kind) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, kind);
  pthread_mutex_init(&mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

void lockMutex(pthread_mutex_t& mutex) {
  if (!Impl::threadsActive())
    return;
  if (int const error = pthread_mutex_lock(&mutex); error != 0)
    throw std::system_error(error, std::system_category(), "pthread_mutex_lock");
}

bool tryLockMutex(pthread_mutex_t& mutex) {
  return !Impl::threadsActive() || pthread_mutex_trylock(&mutex) == 0;
}

void unlockMutex(pthread_mutex_t& mutex) {
  if (Impl::threadsActive())
    pthread_mutex_unlock(&mutex);
}

// pthread_t and std::thread::id hold the same native handle on this platform.
std::thread::id asThreadId(pthread_t thread) {
  static_assert(sizeof(std::thread::id) == sizeof(pthread_t));
  std::thread::id id;
  __builtin_memcpy(static_cast<void*>(&id), &thread, sizeof thread);
  return id;
}

}  // namespace

Lock::Lock() { initMutex(mutex_, PTHREAD_MUTEX_NORMAL); }
Lock::~Lock() { pthread_mutex_destroy(&mutex_); }

void Lock::lock() {
  lockMutex(mutex_);
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
}

bool Lock::try_lock() {
  if (!tryLockMutex(mutex_))
    return false;
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
  return true;
}

bool Lock::owns_lock() const {
  return owner_.load(std::memory_order_relaxed) == Impl::currentOwnerId();
}

void Lock::unlock() {
  pthread_t const owner = owner_.load(std::memory_order_relaxed);
  TAMLO_ASSERT(owns_lock(),
               "attempting to release a lock that is not currently held, owner:{} me:{}",
               asThreadId(owner), asThreadId(pthread_self()));
  owner_.store(0, std::memory_order_relaxed);
  unlockMutex(mutex_);
}

RecursiveLock::RecursiveLock() { initMutex(mutex_, PTHREAD_MUTEX_RECURSIVE); }
RecursiveLock::~RecursiveLock() { pthread_mutex_destroy(&mutex_); }

void RecursiveLock::lock() {
  lockMutex(mutex_);
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
}

bool RecursiveLock::try_lock() {
  if (!tryLockMutex(mutex_))
    return false;
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
  return true;
}

bool RecursiveLock::owns_lock() const {
  return owner_.load(std::memory_order_relaxed) == Impl::currentOwnerId();
}

int RecursiveLock::lockCount() const {
  if (!Impl::threadsActive())
    return owner_.load(std::memory_order_relaxed) != 0 ? 1 : 0;
  // The depth the recursive mutex itself keeps (glibc); meaningful to its owner.
  return owns_lock() ? static_cast<int>(mutex_.__data.__count) : 0;
}

void RecursiveLock::unlock() {
  int const depth = lockCount();
  pthread_t const owner = owner_.load(std::memory_order_relaxed);
  TAMLO_ASSERT(
      owns_lock() && depth >= 1,
      "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
      asThreadId(owner), asThreadId(pthread_self()), depth);
  if (depth == 1)
    owner_.store(0, std::memory_order_relaxed);
  unlockMutex(mutex_);
}

}  // namespace Tamlo::Locking
