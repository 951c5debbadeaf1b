// Mutexes that remember their owner, so a thread can assert that it holds a
// lock and releasing a lock one does not hold is an assertion failure rather
// than undefined behaviour.
#pragma once

#include <atomic>
#include <pthread.h>

namespace Tamlo::Locking {

// A normal (non-recursive) mutex with its owner.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(Lock const&) = delete;
  Lock& operator=(Lock const&) = delete;

  // Throws std::system_error when the mutex reports an error.
  void lock();
  bool try_lock();
  // Asserts, naming the owner and the caller, when the caller does not hold it.
  void unlock();
  bool owns_lock() const;

 private:
  pthread_mutex_t mutex_;
  std::atomic<pthread_t> owner_{0};
};

// A recursive mutex with its owner; the depth is the one the mutex keeps.
class RecursiveLock {
 public:
  RecursiveLock();
  ~RecursiveLock();
  RecursiveLock(RecursiveLock const&) = delete;
  RecursiveLock& operator=(RecursiveLock const&) = delete;

  void lock();
  bool try_lock();
  // Asserts when the caller is not the owner or the lock is not held.
  void unlock();
  bool owns_lock() const;
  // How many times the owner holds it (0 when free).
  int lockCount() const;

 private:
  pthread_mutex_t mutex_;
  std::atomic<pthread_t> owner_{0};
};

// Locks in its constructor; unlocks at scope end only if still wanted
// (release()) and still held by this thread, so a scope may unlock early or
// hand the held lock on without a double unlock.
class ConditionalGuard {
 public:
  explicit ConditionalGuard(Lock& lock) : lock_(&lock) { lock_->lock(); }
  ~ConditionalGuard() {
    if (release_ && lock_->owns_lock())
      lock_->unlock();
  }
  ConditionalGuard(ConditionalGuard const&) = delete;
  ConditionalGuard& operator=(ConditionalGuard const&) = delete;

  void releaseIs(bool release) { release_ = release; }
  bool release() const { return release_; }

 private:
  Lock* lock_;
  bool release_ = true;
};

namespace Impl {
// False when the process runs without the threading runtime: locks then only
// record a nominal owner.
bool threadsActive();
pthread_t currentOwnerId();
}  // namespace Impl

}  // namespace Tamlo::Locking
