#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <Tamlo/Thread.h>

#include "TestSupport.h"

namespace {

using Tamlo::Test::assertionText;
using ::testing::EndsWith;

std::string kernelThreadName() {
  char name[16] = {};
  prctl(PR_GET_NAME, name);
  return name;
}

TEST(ThreadTest, MainThreadIsTheProcess) {
  EXPECT_EQ(Tamlo::gettid(), getpid());
  EXPECT_TRUE(Tamlo::isMainThread());
  Tamlo::setMainThread();
  EXPECT_TRUE(Tamlo::mainThread);
  std::thread([] {
    EXPECT_NE(Tamlo::gettid(), getpid());
    EXPECT_FALSE(Tamlo::isMainThread());
    EXPECT_FALSE(Tamlo::mainThread);  // per thread, and false until set
    Tamlo::setMainThread();
    EXPECT_FALSE(Tamlo::mainThread);
  }).join();
}

// The main thread keeps the process's name; another reports the system's
// name until given one of at most fifteen characters.
TEST(ThreadTest, OnlyOtherThreadsAreNamedAndWithinFifteenCharacters) {
  std::string const processName = kernelThreadName();
  Tamlo::threadNameIs("worker");
  EXPECT_EQ(kernelThreadName() + "/" + Tamlo::threadName(), processName + "/" + processName);
  std::thread([] {
    pthread_setname_np(pthread_self(), "fromsystem");
    EXPECT_STREQ(Tamlo::threadName(), "fromsystem");
    Tamlo::threadNameIs("abcdefghijklmno");
    EXPECT_EQ(kernelThreadName(), "abcdefghijklmno");
    std::string const text = assertionText([] { Tamlo::threadNameIs("abcdefghijklmnop"); });
    EXPECT_THAT(text, EndsWith(": Tamlo::threadNameIs() pthread_setname_np() failed:" +
                               std::to_string(ERANGE) + " for name:abcdefghijklmnop"));
    EXPECT_STREQ(Tamlo::threadName(), "abcdefghijklmno");  // replaced, and kept on failure
  }).join();
}

// The choice is per thread, and made before the thread's first singleton.
TEST(ThreadTest, ThreadLocalSingletonsChosenBeforeFirstUse) {
  std::thread([] {
    Tamlo::useThreadLocalSingletons();
    Tamlo::useThreadLocalSingletons();  // harmless again
    EXPECT_TRUE(Tamlo::hasThreadLocalSingletons());
  }).join();
  std::thread([] {
    EXPECT_FALSE(Tamlo::hasThreadLocalSingletons());
    EXPECT_THAT(assertionText([] { Tamlo::useThreadLocalSingletons(); }),
                EndsWith(": Tamlo::useThreadLocalSingletons() Attempt to change "
                         "threadLocalSingletons after a global singleton has already been "
                         "created. Please call useThreadLocalSingletons() immediately after "
                         "spawning your thread."));
  }).join();
}

}  // namespace
