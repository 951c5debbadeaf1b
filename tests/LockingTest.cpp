#include <pthread.h>

#include <Tamlo/Locking.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Thread.h>

#include "TestSupport.h"

namespace {

using Tamlo::Platform::loco;
using Tamlo::Test::assertionText;
using ::testing::EndsWith;

std::string const noThread = "thread::id of a non-executing thread";

std::string self() {
  return std::to_string(static_cast<unsigned long>(pthread_self()));
}

// The assertion for `me` releasing a lock `owner` holds; recursive locks add their depth.
std::string notHeld(std::string lock, std::string owner, std::string me, char const* depth = "") {
  return lock +
         "::unlock() attempting to release a lock that is not currently held, owner:" + owner +
         " me:" + me + depth;
}

// Another thread can neither take nor release a held lock (its failed unlock
// names both threads and changes nothing) and takes it once it is free;
// releasing a free lock names no owner.
template <typename LockType>
void excludesOtherThreads(char const* name, int depth, char const* held, char const* free) {
  LockType lock;
  for (int i = 0; i < depth; ++i)
    ASSERT_TRUE(lock.try_lock());
  bool ownedElsewhere = true, acquiredElsewhere = true;
  std::string misuse, other;
  std::thread([&] {
    ownedElsewhere = lock.owns_lock();
    acquiredElsewhere = lock.try_lock();
    misuse = assertionText([&] { lock.unlock(); });
    other = self();
  }).join();
  EXPECT_FALSE(ownedElsewhere || acquiredElsewhere);
  EXPECT_THAT(misuse, EndsWith(notHeld(name, self(), other, held)));
  for (int i = 0; i < depth; ++i)
    lock.unlock();  // asserts if the failed unlock changed the owner or the depth
  std::thread([&] {
    acquiredElsewhere = lock.try_lock();
    lock.unlock();
  }).join();
  EXPECT_TRUE(acquiredElsewhere);
  EXPECT_THAT(assertionText([&] { lock.unlock(); }),
              EndsWith(notHeld(name, noThread, self(), free)));
}

TEST(LockTest, ExcludesOtherThreadsAndTracksTheOwner) {
  excludesOtherThreads<Tamlo::Locking::Lock>("Lock", 1, "", "");
  excludesOtherThreads<Tamlo::Locking::RecursiveLock>("RecursiveLock", 3, " lockCount:3",
                                                      " lockCount:0");
}

TEST(LocoTest, OneLockForTheProcessAndGuardsNest) {
  {
    Tamlo::Platform::LocoGuard const outer;
    { Tamlo::Platform::LocoGuard const inner; }
    EXPECT_TRUE(loco().owns_lock());
    Tamlo::Platform::Loco* fromThread = nullptr;
    bool ownedElsewhere = true;
    std::thread([&] { ownedElsewhere = (fromThread = &loco())->owns_lock(); }).join();
    EXPECT_TRUE(fromThread == &loco() && !ownedElsewhere);
  }
  EXPECT_FALSE(loco().owns_lock());
}

TEST(ConditionalGuardTest, EarlyUnlockIsNotRepeatedAndReleaseOffHandsTheLockOn) {
  Tamlo::Locking::Lock lock;
  {
    Tamlo::Test::ThrowOnAssert const throwOnAssert;
    Tamlo::Locking::ConditionalGuard const guard(lock);
    lock.unlock();
  }  // a second unlock would assert and throw here
  {
    Tamlo::Locking::ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  lock.unlock();  // asserts unless the guard left the lock held
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
  std::string const text = assertionText([&] { lock.unlock(); });
  Tamlo::Locking::Impl::threadsInactiveInTestIs(false);
  EXPECT_THAT(text, EndsWith(notHeld("Lock", noThread, self())));
  EXPECT_TRUE(lock.try_lock());  // the mutex is really free
  lock.unlock();
}

}  // namespace
