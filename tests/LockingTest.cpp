#include <pthread.h>
#include <latch>

#include <Tamlo/Locking.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Thread.h>

#include "TestSupport.h"

namespace {

using Tamlo::Test::assertionText;
using ::testing::EndsWith;

std::string const noThread = "thread::id of a non-executing thread";

std::string threadIdText(pthread_t thread) {
  return std::to_string(static_cast<unsigned long>(thread));
}

// The end of the assertion for releasing a lock that `owner` holds, or nobody
// (`noThread`); recursive locks add their depth.
std::string notHeld(char const* lock, std::string const& owner, char const* depth = "") {
  return std::string(lock) +
         "::unlock() attempting to release a lock that is not currently held, " + "owner:" + owner +
         " me:" + threadIdText(pthread_self()) + depth;
}

// Holds a lock on a thread of its own until destroyed, so that the test
// thread can misuse a lock that somebody else holds.
template <typename LockType>
struct Holder {
  explicit Holder(LockType& lock)
      : thread_([this, &lock] {
          lock.lock();
          id = threadIdText(pthread_self());
          locked.count_down();
          release.wait();
          lock.unlock();
        }) {
    locked.wait();
  }
  ~Holder() {
    release.count_down();
    thread_.join();
  }
  std::latch locked{1}, release{1};
  std::string id;
  std::thread thread_;  // last: started once the rest is made
};

TEST(LockTest, ExcludesOtherThreadsAndTracksTheOwner) {
  Tamlo::Locking::Lock lock;
  ASSERT_TRUE(lock.try_lock());
  EXPECT_TRUE(lock.owns_lock());
  bool ownedElsewhere = true, acquiredElsewhere = true;
  std::thread([&] {
    ownedElsewhere = lock.owns_lock();
    acquiredElsewhere = lock.try_lock();
  }).join();
  EXPECT_FALSE(ownedElsewhere);
  EXPECT_FALSE(acquiredElsewhere);
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  std::thread([&] {
    acquiredElsewhere = lock.try_lock();
    lock.unlock();
  }).join();
  EXPECT_TRUE(acquiredElsewhere);
  // Unlocking a free lock (a double unlock, say) names no owner.
  EXPECT_THAT(assertionText([&] { lock.unlock(); }), EndsWith(notHeld("Lock", noThread)));
}

// The failed unlock changes nothing: the holder still releases it cleanly.
TEST(LockTest, UnlockFromAnotherThreadNamesBothThreads) {
  Tamlo::Locking::Lock lock;
  Holder holder(lock);
  EXPECT_THAT(assertionText([&] { lock.unlock(); }), EndsWith(notHeld("Lock", holder.id)));
  EXPECT_FALSE(lock.owns_lock());
  Tamlo::Locking::RecursiveLock recursive;
  Holder recursiveHolder(recursive);
  EXPECT_FALSE(recursive.try_lock());
  EXPECT_THAT(assertionText([&] { recursive.unlock(); }),
              EndsWith(notHeld("RecursiveLock", recursiveHolder.id, " lockCount:1")));
}

TEST(RecursiveLockTest, DepthAndOwnerFollowNestingAndAnExtraUnlockAsserts) {
  Tamlo::Locking::RecursiveLock lock;
  lock.lock();
  ASSERT_TRUE(lock.try_lock());
  lock.lock();
  EXPECT_EQ(lock.lockCount(), 3);
  lock.unlock();
  lock.unlock();
  EXPECT_TRUE(lock.owns_lock());  // still held at the last level
  EXPECT_EQ(lock.lockCount(), 1);
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_THAT(assertionText([&] { lock.unlock(); }),
              EndsWith(notHeld("RecursiveLock", noThread, " lockCount:0")));
}

// Guards of the library lock nest; unlocking it once more than it was locked
// asserts as a free recursive lock does.
TEST(LocoTest, OneLockForTheProcessAndGuardsNest) {
  Tamlo::Platform::Loco* fromThread = nullptr;
  std::thread([&] { fromThread = &Tamlo::Platform::loco(); }).join();
  EXPECT_EQ(fromThread, &Tamlo::Platform::loco());
  {
    Tamlo::Platform::LocoGuard const outer;
    { Tamlo::Platform::LocoGuard const inner; }
    EXPECT_TRUE(Tamlo::Platform::loco().owns_lock());
    bool ownedElsewhere = true;
    std::thread([&] { ownedElsewhere = Tamlo::Platform::loco().owns_lock(); }).join();
    EXPECT_FALSE(ownedElsewhere);
  }
  EXPECT_FALSE(Tamlo::Platform::loco().owns_lock());
  EXPECT_THAT(assertionText([] { Tamlo::Platform::loco().unlock(); }),
              EndsWith(notHeld("RecursiveLock", noThread, " lockCount:0")));
}

TEST(ConditionalGuardTest, EarlyUnlockIsNotRepeatedAndReleaseOffHandsTheLockOn) {
  Tamlo::Locking::Lock lock;
  {
    Tamlo::Test::ThrowOnAssert const throwOnAssert;
    Tamlo::Locking::ConditionalGuard const guard(lock);
    lock.unlock();
  }  // a second unlock would assert and throw here
  EXPECT_FALSE(lock.owns_lock());
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
TEST(ThreadsInactiveTest, LocksRecordTheNominalOwnerAndStillCatchMisuse) {
  Tamlo::Locking::Impl::threadsInactiveInTestIs(true);
  Tamlo::Locking::Lock lock;
  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_TRUE(lock.try_lock());  // the mutex itself was never taken
  lock.unlock();
  Tamlo::Locking::RecursiveLock recursive;
  recursive.lock();
  recursive.lock();
  recursive.unlock();
  EXPECT_TRUE(recursive.owns_lock());
  recursive.unlock();
  EXPECT_FALSE(recursive.owns_lock());
  std::string const text = assertionText([&] { recursive.unlock(); });
  Tamlo::Locking::Impl::threadsInactiveInTestIs(false);
  EXPECT_THAT(text, EndsWith(notHeld("RecursiveLock", noThread, " lockCount:0")));
  // The mutexes are really free: normal locking works on them.
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
  EXPECT_TRUE(recursive.try_lock());
  recursive.unlock();
}

}  // namespace
