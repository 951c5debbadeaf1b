#include <Tamlo/Locking.h>

#include <bits/gthr.h>
#include <cstring>
#include <system_error>
#include <thread>

#include <Tamlo/Assert.h>
#include <Tamlo/Thread.h>

namespace Tamlo::Locking {
namespace Impl {

namespace {
std::atomic<bool> threadsInactiveInTest{false};
}  // namespace

bool threadsActive() {
  return __gthread_active_p() != 0 && !threadsInactiveInTest.load(std::memory_order_relaxed);
}

pthread_t currentOwnerId() {
  return threadsActive() ? pthread_self() : pthread_t(1);
}

void threadsInactiveInTestIs(bool inactive) {
  threadsInactiveInTest.store(inactive, std::memory_order_relaxed);
}

}  // namespace Impl

namespace {

void initMutex(pthread_mutex_t& mutex, int kind) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, kind);
  pthread_mutex_init(&mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

// Without the threading runtime there is nobody to exclude: the mutex is left
// alone and only the nominal owner is recorded.
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

// pthread_t and std::thread::id hold the same native handle here, so owners
// print like every other thread id of the library.
std::thread::id asThreadId(pthread_t thread) {
  static_assert(sizeof(std::thread::id) == sizeof(pthread_t));
  std::thread::id id;
  std::memcpy(static_cast<void*>(&id), &thread, sizeof thread);
  return id;
}

}  // namespace

Lock::Lock() {
  initMutex(mutex_, PTHREAD_MUTEX_NORMAL);
}
Lock::~Lock() {
  pthread_mutex_destroy(&mutex_);
}

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
  TAMLO_ASSERT(owns_lock(),
               "attempting to release a lock that is not currently held, owner:{} me:{}",
               asThreadId(owner_.load(std::memory_order_relaxed)), asThreadId(pthread_self()));
  owner_.store(0, std::memory_order_relaxed);
  unlockMutex(mutex_);
}

RecursiveLock::RecursiveLock() {
  initMutex(mutex_, PTHREAD_MUTEX_RECURSIVE);
}
RecursiveLock::~RecursiveLock() {
  pthread_mutex_destroy(&mutex_);
}

void RecursiveLock::lock() {
  lockMutex(mutex_);
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
  depth_.fetch_add(1, std::memory_order_relaxed);
}

bool RecursiveLock::try_lock() {
  if (!tryLockMutex(mutex_))
    return false;
  owner_.store(Impl::currentOwnerId(), std::memory_order_relaxed);
  depth_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

bool RecursiveLock::owns_lock() const {
  return owner_.load(std::memory_order_relaxed) == Impl::currentOwnerId();
}

int RecursiveLock::lockCount() const {
  return depth_.load(std::memory_order_relaxed);
}

void RecursiveLock::unlock() {
  int const depth = lockCount();
  TAMLO_ASSERT(
      owns_lock() && depth >= 1,
      "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
      asThreadId(owner_.load(std::memory_order_relaxed)), asThreadId(pthread_self()), depth);
  depth_.store(depth - 1, std::memory_order_relaxed);
  if (depth == 1)
    owner_.store(0, std::memory_order_relaxed);
  unlockMutex(mutex_);
}

}  // namespace Tamlo::Locking
