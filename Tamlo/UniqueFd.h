// Owns one file descriptor and closes it when it goes out of scope, so that
// no error path of the system utilities leaks one. Movable, not copyable;
// one owner, no locking.
#pragma once

#include <unistd.h>

#include <utility>

namespace Tamlo::Impl {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(UniqueFd const&) = delete;
  UniqueFd& operator=(UniqueFd const&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Hands the descriptor to the caller, who closes it.
  int release() { return std::exchange(fd_, -1); }
  // Close errors are ignored: the descriptor is gone either way, and callers
  // that need them (writes) close explicitly first.
  void reset(int fd = -1) {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace Tamlo::Impl
