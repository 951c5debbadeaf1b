// For the system utility tests (run as root: a child may drop to nobody).
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include <Tamlo/Util.h>

#include "TestSupport.h"

namespace Tamlo::Test {

inline int openDescriptorCount() {
  return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// A directory under /tmp that everybody may enter, removed with its contents.
struct ScratchDirectory {
  ScratchDirectory() : path_(::mkdtemp(std::string("/tmp/tamlo-test-XXXXXX").data())) {
    std::filesystem::permissions(path_, std::filesystem::perms::all);
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }
  std::string path_;
};

// "Class: message" of what `body` throws, or "(none)"; fails on a descriptor leak.
inline std::string errorOf(std::function<void()> const& body) {
  // The first backtrace makes libunwind open a pipe that it keeps.
  [[maybe_unused]] static bool const warmedUp = (RuntimeException("warm-up"), true);
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

// A forked child running `body`, its stderr captured, alive until wait() or destruction.
struct LiveChild {
  explicit LiveChild(std::function<void()> const& setUp)
      : LiveChild([&] { return setUp(), 0; }, false) {}
  LiveChild(std::function<int()> const& body, bool asNobody) {
    int errors[2], done[2];
    EXPECT_TRUE(::pipe(errors) == 0 && ::pipe(done) == 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(errors[1], 2);
      if (asNobody && (::setgroups(0, nullptr) != 0 || ::setgid(65534) || ::setuid(65534)))
        ::_exit(126);
      int const code = body();
      char byte;
      for (int fd : {2, errors[1], done[1]})  // the parent reads stderr up to here
        ::close(fd);
      ::_exit(::read(done[0], &byte, 1) == 0 ? code : 125);
    }
    ::close(errors[1]), ::close(done[0]);
    char buffer[4096];
    for (ssize_t n; (n = ::read(errors[0], buffer, sizeof buffer)) > 0;)
      result_.err.append(buffer, static_cast<size_t>(n));
    ::close(errors[0]);
    done_ = done[1];
  }
  ~LiveChild() { wait(); }
  pid_t pid() const { return pid_; }
  ChildResult const& wait() {
    if (done_ >= 0) {
      ::close(std::exchange(done_, -1));
      int status = 0;
      ::waitpid(pid_, &status, 0);
      result_.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      result_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return result_;
  }
  pid_t pid_;
  int done_;
  ChildResult result_;
};

inline ChildResult runInChild(std::function<int()> const& body, bool asNobody = false) {
  return LiveChild(body, asNobody).wait();
}

}  // namespace Tamlo::Test
