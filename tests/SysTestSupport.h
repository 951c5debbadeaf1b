// Shared helpers for the tests of the system utilities: a scratch directory,
// descriptor counting, errors caught as text, and running code as another
// user (the tests run as root, who passes every permission check).
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include <Tamlo/Exception.h>

#include <gtest/gtest.h>

namespace Tamlo::Test {

inline int openDescriptorCount() {
  int count = 0;
  for ([[maybe_unused]] auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// A fresh directory under /tmp that everybody may enter, removed with its
// contents at the end of the test.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char name[] = "/tmp/tamlo-test-XXXXXX";
    path_ = ::mkdtemp(name);
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
  EXPECT_EQ(openDescriptorCount(), before)
      << "descriptors leaked by the call failing with " << error;
  return error;
}

// The exit code of `body` run in a forked child as the unprivileged user
// 65534 (nobody), or 128 + the signal that killed it.
inline int exitCodeAsNobody(std::function<int()> const& body) {
  pid_t const child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
      ::_exit(126);
    int code = 125;
    try {
      code = body();
    } catch (...) {
    }
    ::_exit(code);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Tamlo::Test
