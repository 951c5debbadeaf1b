#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>
#include <future>
#include <string>
#include <thread>

#include <Tamlo/Exception.h>
#include <Tamlo/Locking.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Thread.h>

#include "TestSupport.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

std::string const notHeld = "attempting to release a lock that is not currently held, ";
std::string const noThread = "thread::id of a non-executing thread";

std::string threadIdText(pthread_t thread) {
  return std::to_string(static_cast<unsigned long>(thread));
}

using Tamlo::Test::assertionText;

// Holds a lock on a thread of its own until destroyed, so that the test
// thread can misuse a lock that somebody else holds.
template <typename LockType>
class Holder {
 public:
  explicit Holder(LockType& lock) {
    std::future<pthread_t> locked = locked_.get_future();
    thread_ = std::thread([this, &lock, released = release_.get_future()] {
      lock.lock();
      locked_.set_value(pthread_self());
      released.wait();
      lock.unlock();
    });
    id_ = locked.get();
  }
  ~Holder() {
    release_.set_value();
    thread_.join();
  }
  pthread_t id() const { return id_; }

 private:
  std::promise<pthread_t> locked_;
  std::promise<void> release_;
  std::thread thread_;
  pthread_t id_{};
};

}  // namespace

TEST(LockTest, OwnerIsTracked) {
  Tamlo::Locking::Lock lock;
  EXPECT_FALSE(lock.owns_lock());
  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  bool ownedElsewhere = true;
  std::thread([&] { ownedElsewhere = lock.owns_lock(); }).join();
  EXPECT_FALSE(ownedElsewhere);
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
}

TEST(LockTest, TryLockFailsWhileHeld) {
  Tamlo::Locking::Lock lock;
  ASSERT_TRUE(lock.try_lock());
  EXPECT_TRUE(lock.owns_lock());
  bool acquiredElsewhere = true;
  std::thread([&] { acquiredElsewhere = lock.try_lock(); }).join();
  EXPECT_FALSE(acquiredElsewhere);
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  std::thread([&] {
    acquiredElsewhere = lock.try_lock();
    lock.unlock();
  }).join();
  EXPECT_TRUE(acquiredElsewhere);
}

TEST(LockTest, UnlockingAFreeLockAsserts) {
  Tamlo::Locking::Lock lock;
  std::string const me = threadIdText(pthread_self());
  EXPECT_THAT(assertionText([&] { lock.unlock(); }),
              EndsWith("Lock::unlock() " + notHeld + "owner:" + noThread + " me:" + me));
  // A double unlock is caught the same way.
  lock.lock();
  lock.unlock();
  EXPECT_THAT(assertionText([&] { lock.unlock(); }),
              EndsWith("Lock::unlock() " + notHeld + "owner:" + noThread + " me:" + me));
}

TEST(LockTest, UnlockFromAnotherThreadNamesBothThreads) {
  Tamlo::Locking::Lock lock;
  Holder<Tamlo::Locking::Lock> holder(lock);
  std::string const text = assertionText([&] { lock.unlock(); });
  EXPECT_THAT(text, EndsWith("Lock::unlock() " + notHeld + "owner:" + threadIdText(holder.id()) +
                             " me:" + threadIdText(pthread_self())));
  // The failed unlock changed nothing: the holder still releases it cleanly.
  EXPECT_FALSE(lock.owns_lock());
}

TEST(RecursiveLockTest, DepthAndOwnerFollowNesting) {
  Tamlo::Locking::RecursiveLock lock;
  EXPECT_EQ(lock.lockCount(), 0);
  lock.lock();
  ASSERT_TRUE(lock.try_lock());
  lock.lock();
  EXPECT_EQ(lock.lockCount(), 3);
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  lock.unlock();
  // Still held at the last level.
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(lock.lockCount(), 1);
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(lock.lockCount(), 0);
}

TEST(RecursiveLockTest, UnlockFromAnotherThreadNamesBothThreadsAndDepth) {
  Tamlo::Locking::RecursiveLock lock;
  Holder<Tamlo::Locking::RecursiveLock> holder(lock);
  EXPECT_FALSE(lock.try_lock());
  std::string const text = assertionText([&] { lock.unlock(); });
  EXPECT_THAT(text,
              EndsWith("RecursiveLock::unlock() " + notHeld + "owner:" + threadIdText(holder.id()) +
                       " me:" + threadIdText(pthread_self()) + " lockCount:1"));
}

TEST(LocoTest, ThreeLocksThreeUnlocksThenTheFourthAsserts) {
  Tamlo::Platform::Loco& loco = Tamlo::Platform::loco();
  ASSERT_FALSE(loco.owns_lock());
  for (int i = 0; i < 3; ++i)
    loco.lock();
  EXPECT_TRUE(loco.owns_lock());
  for (int i = 0; i < 3; ++i)
    loco.unlock();
  EXPECT_FALSE(loco.owns_lock());
  std::string const text = assertionText([&] { loco.unlock(); });
  EXPECT_THAT(text, EndsWith("RecursiveLock::unlock() " + notHeld + "owner:" + noThread +
                             " me:" + threadIdText(pthread_self()) + " lockCount:0"));
  // Still usable afterwards.
  Tamlo::Platform::LocoGuard const guard;
  EXPECT_TRUE(loco.owns_lock());
}

TEST(LocoTest, OneLockForTheProcessAndGuardsNest) {
  EXPECT_EQ(&Tamlo::Platform::loco(), &Tamlo::Platform::loco());
  Tamlo::Platform::Loco* fromThread = nullptr;
  std::thread([&] { fromThread = &Tamlo::Platform::loco(); }).join();
  EXPECT_EQ(fromThread, &Tamlo::Platform::loco());
  {
    Tamlo::Platform::LocoGuard const outer;
    {
      Tamlo::Platform::LocoGuard const inner;
      EXPECT_TRUE(Tamlo::Platform::loco().owns_lock());
    }
    EXPECT_TRUE(Tamlo::Platform::loco().owns_lock());
    bool ownedElsewhere = true;
    std::thread([&] { ownedElsewhere = Tamlo::Platform::loco().owns_lock(); }).join();
    EXPECT_FALSE(ownedElsewhere);
  }
  EXPECT_FALSE(Tamlo::Platform::loco().owns_lock());
}

TEST(ConditionalGuardTest, EarlyUnlockIsNotRepeated) {
  Tamlo::Locking::Lock lock;
  {
    Tamlo::Test::ThrowOnAssert const throwOnAssert;
    Tamlo::Locking::ConditionalGuard const guard(lock);
    lock.unlock();
  }  // A second unlock would assert and throw here.
  EXPECT_FALSE(lock.owns_lock());
}

TEST(ConditionalGuardTest, ReleaseOffHandsTheLockOn) {
  Tamlo::Locking::Lock lock;
  {
    Tamlo::Locking::ConditionalGuard guard(lock);
    guard.releaseIs(false);
    EXPECT_FALSE(guard.release());
  }
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
}

// Without the threading runtime the mutex is left alone and the owner is the
// nominal 1. Only private locks are used while the mode is on.
TEST(ThreadsInactiveTest, LocksRecordTheNominalOwner) {
  Tamlo::Locking::Impl::threadsInactiveInTestIs(true);
  EXPECT_FALSE(Tamlo::Locking::Impl::threadsActive());
  EXPECT_EQ(Tamlo::Locking::Impl::currentOwnerId(), pthread_t(1));

  Tamlo::Locking::Lock lock;
  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  // The mutex itself was never taken.
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());

  Tamlo::Locking::RecursiveLock recursive;
  recursive.lock();
  recursive.lock();
  EXPECT_EQ(recursive.lockCount(), 2);
  recursive.unlock();
  EXPECT_TRUE(recursive.owns_lock());
  recursive.unlock();
  EXPECT_FALSE(recursive.owns_lock());
  Tamlo::Locking::Impl::threadsInactiveInTestIs(false);

  // The mutexes are really free: normal locking works on them.
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
  EXPECT_TRUE(recursive.try_lock());
  recursive.unlock();
}

TEST(ThreadsInactiveTest, UnlockingAFreeLockStillAsserts) {
  Tamlo::Locking::RecursiveLock recursive;
  Tamlo::Locking::Impl::threadsInactiveInTestIs(true);
  std::string const text = assertionText([&] { recursive.unlock(); });
  Tamlo::Locking::Impl::threadsInactiveInTestIs(false);
  EXPECT_THAT(text, EndsWith("RecursiveLock::unlock() " + notHeld + "owner:" + noThread +
                             " me:" + threadIdText(pthread_self()) + " lockCount:0"));
}
