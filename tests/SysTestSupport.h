// Helpers for the tests of the system utilities: a scratch directory,
// descriptor counting, errors caught as text, and forked children (the tests
// run as root, who passes every permission check, so a child can drop to
// the user nobody).
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <Tamlo/Exception.h>

#include "TestSupport.h"

namespace Tamlo::Test {

inline int openDescriptorCount() {
  auto const fds = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<int>(std::distance(begin(fds), end(fds)));
}

// A directory under /tmp that everybody may enter, removed with its contents.
class ScratchDirectory {
 public:
  ScratchDirectory() : path_(::mkdtemp(std::string("/tmp/tamlo-test-XXXXXX").data())) {
    std::filesystem::permissions(path_, std::filesystem::perms::all);
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// "Class: message" of the Tamlo exception `body` throws, or "(none)"; fails
// the test if `body` leaves a descriptor more or less open.
inline std::string errorOf(std::function<void()> const& body) {
  // The first backtrace makes libunwind open a pipe that it keeps.
  [[maybe_unused]] static bool const warmedUp = [] {
    try {
      RuntimeException::throwException("warm-up");
    } catch (Exception const&) {
    }
    return true;
  }();
  int const before = openDescriptorCount();
  std::string error = "(none)";
  try {
    body();
  } catch (Exception const& e) {
    error = std::string(e.name()) + ": " + e.message();
  }
  EXPECT_EQ(openDescriptorCount(), before) << "leaked by the call failing with " << error;
  return error;
}

// `body` run in a forked child (as the user nobody when `asNobody`): its exit
// code or signal and its standard error.
inline ChildResult runInChild(std::function<int()> const& body, bool asNobody = false) {
  int errors[2];
  EXPECT_EQ(::pipe(errors), 0);
  pid_t const child = ::fork();
  if (child == 0) {
    ::dup2(errors[1], 2);
    if (asNobody && (::setgroups(0, nullptr) != 0 || ::setgid(65534) || ::setuid(65534)))
      ::_exit(126);
    ::_exit(body());
  }
  ::close(errors[1]);
  ChildResult result;
  char buffer[4096];
  for (ssize_t n; (n = ::read(errors[0], buffer, sizeof buffer)) > 0;)
    result.err.append(buffer, static_cast<size_t>(n));
  ::close(errors[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return result;
}

// A forked child that runs `setUp` and then lives until this object dies.
class LiveChild {
 public:
  explicit LiveChild(std::function<void()> const& setUp) {
    int ready[2], done[2];
    EXPECT_TRUE(::pipe(ready) == 0 && ::pipe(done) == 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(done[1]);
      setUp();
      char byte = 'x';
      ::_exit(::write(ready[1], &byte, 1) != 1 || ::read(done[0], &byte, 1) != 0);
    }
    char byte;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    for (int fd : {ready[0], ready[1], done[0]})
      ::close(fd);
    done_ = done[1];
  }
  ~LiveChild() {
    ::close(done_);
    ::waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
  int done_;
};

}  // namespace Tamlo::Test
