// Mutexes that remember their owner, so that a thread can ask and assert
// whether it holds a lock, and releasing a lock one does not hold is an
// assertion failure naming both threads rather than undefined behaviour.
#pragma once

#include <pthread.h>
#include <atomic>

namespace Tamlo::Locking {

// A normal (non-recursive) mutex with its owner. Locking it again on the
// owning thread deadlocks, as with any normal mutex. All operations may be
// called from any thread.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(Lock const&) = delete;
  Lock& operator=(Lock const&) = delete;

  // Throws std::system_error with the mutex's error code when it fails.
  void lock();
  bool try_lock();
  // Asserts, naming the owner and the caller, when the caller does not hold
  // the lock.
  void unlock();
  bool owns_lock() const;

 private:
  pthread_mutex_t mutex_;
  // 0 when free. Only the holder writes it; others read it for messages.
  std::atomic<pthread_t> owner_{0};
};

// A recursive mutex with its owner and depth. All operations may be called
// from any thread.
class RecursiveLock {
 public:
  RecursiveLock();
  ~RecursiveLock();
  RecursiveLock(RecursiveLock const&) = delete;
  RecursiveLock& operator=(RecursiveLock const&) = delete;

  // Throws std::system_error with the mutex's error code when it fails.
  void lock();
  bool try_lock();
  // Releases one level; the outermost unlock also forgets the owner. Asserts,
  // naming owner, caller and depth, when the caller does not hold the lock.
  void unlock();
  bool owns_lock() const;
  // How many times the owner holds it (0 when free). Exact for the owner; a
  // snapshot for any other thread.
  int lockCount() const;

 private:
  pthread_mutex_t mutex_;
  std::atomic<pthread_t> owner_{0};
  // Written only by the holder, under the mutex.
  std::atomic<int> depth_{0};
};

// Locks in its constructor; at scope end unlocks only if still wanted
// (release()) and still held by this thread, so that a scope may unlock early
// or hand the held lock on (releaseIs(false)) without a double unlock.
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

// False when the process runs without the threading runtime active. Locks
// then leave their mutex alone and record the nominal owner 1.
bool threadsActive();
// The owner a lock taken now records: pthread_self(), or 1 without threads.
pthread_t currentOwnerId();
// Makes threadsActive() report false, to exercise the threads-inactive mode.
// Only while no lock (the library lock included) is held anywhere.
void threadsInactiveInTestIs(bool inactive);

}  // namespace Impl

}  // namespace Tamlo::Locking
