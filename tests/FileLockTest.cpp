#include <Tamlo/Debug.h>
#include <Tamlo/FileLock.h>

#include <csignal>

#include "SysTestSupport.h"

namespace {

using Tamlo::FileLock;
using testing::HasSubstr;
using testing::Pair;

class FileLockTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("TRACEFILE") != nullptr)
      GTEST_SKIP() << "trace lines go to TRACEFILE";
    handle_->enabledIs(5, true), handle_->enabledIs(1, true);
  }

  std::pair<bool, std::string> traced(std::function<bool()> const& action) {
    testing::internal::CaptureStderr();
    bool const result = action();
    return {result, testing::internal::GetCapturedStderr()};
  }

  Tamlo::Test::ScratchDirectory const scratch_;
  std::string const directory_ = scratch_ / "locks/sub";
  std::string const file_ = directory_ + "/svc.lock";
  std::shared_ptr<Tamlo::Platform::DebugHandler> handle_ =
      Tamlo::Platform::getDebugHandler("FileLockTest");
};

TEST_F(FileLockTest, LockConflictsReentersAndReleasesWithItsTraces) {
  FileLock first(*handle_, directory_, "svc.lock"), second(*handle_, directory_, "svc.lock");
  mode_t const oldMask = ::umask(077);
  EXPECT_THAT(traced([&] { return first.lock(false); }),
              Pair(true, HasSubstr("acquired lock on file:" + file_ + "\n")));
  ::umask(oldMask);
  EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0666));
  EXPECT_EQ(Tamlo::Util::readLockPid(file_), ::getpid());
  std::error_code error;  // programs this process runs inherit no lock
  for (auto const& fd : std::filesystem::directory_iterator("/proc/self/fd"))
    EXPECT_TRUE(std::filesystem::read_symlink(fd.path(), error) != file_ ||
                ::fcntl(std::stoi(fd.path().filename()), F_GETFD) == FD_CLOEXEC);

  ASSERT_TRUE(std::filesystem::create_directory(directory_ + "/dir.lock"));
  FileLock unopenable(*handle_, directory_, "dir.lock");
  int const descriptors = Tamlo::Test::openDescriptorCount();
  std::pair<std::function<bool()>, std::string> const attempts[] = {
      {[&] { return second.lock(false); }, "error: conflicting lock held on file:" + file_},
      {[&] { return first.lock(true); },
       "re-entry held by pid:" + std::to_string(::getpid()) + " on file:" + file_},
      {[&] { return unopenable.lock(false); },
       "error: could not open lock file:" + directory_ + "/dir.lock Is a directory"},
  };
  for (auto const& [attempt, expected] : attempts) {
    EXPECT_THAT(traced(attempt),
                Pair(expected.starts_with("re-entry"), HasSubstr(expected + "\n")));
    EXPECT_EQ(Tamlo::Test::openDescriptorCount(), descriptors) << expected;
  }

  EXPECT_THAT(traced([&] { return first.release(), true; }).second,
              HasSubstr("released lock on file:" + file_ + "\n"));
  EXPECT_TRUE(second.lock(false));
  EXPECT_EQ(Tamlo::Test::openDescriptorCount(), descriptors);
}

TEST_F(FileLockTest, MisuseIsAnAssertionFailure) {
  Tamlo::Util::touch(scratch_ / "plain");
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { FileLock(*handle_, directory_, "a/b"); }, "unexpected '/' in filename: a/b"},
      {[&] { FileLock(*handle_, directory_, "svc.lock").release(); },
       "attempting to release a lock that is not currently held. File:" + file_},
      {[&] { FileLock(*handle_, scratch_ / "plain/sub", "x").lock(false); },
       "unexpected mkpath() error " + scratch_ / "plain/sub" + ": Not a directory"},
  };
  for (auto const& [misuse, message] : cases)
    EXPECT_THAT(Tamlo::Test::assertionText(misuse), testing::EndsWith(message));
}

// Its destructor releases the same way.
TEST_F(FileLockTest, ForkedChildCannotReleaseTheParentsLock) {
  FileLock lock(*handle_, directory_, "svc.lock");
  ASSERT_TRUE(lock.lock(true));
  auto const child = Tamlo::Test::runInChild([&] { return lock.release(), 0; });
  EXPECT_EQ(child.signal, SIGABRT);
  std::string const owner = std::to_string(::getpid());
  EXPECT_THAT(child.err,
              testing::ContainsRegex(
                  R"(release\(\) called from child process:[0-9]+ of owner pid:)" + owner));
  EXPECT_FALSE(FileLock(*handle_, directory_, "svc.lock").lock(false));  // still the parent's
}

}  // namespace
