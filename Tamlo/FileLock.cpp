#include <Tamlo/FileLock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include <Tamlo/Assert.h>
#include <Tamlo/Errno.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Util.h>

namespace Tamlo {

namespace {

// The whole file, from its start to any length it may grow to.
struct flock wholeFile(short type) {
  struct flock range = {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = 0;
  range.l_len = 0;
  return range;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& handle, std::string const& directory,
                   std::string const& fileName)
    : Debuggable(handle), directory_(directory) {
  TAMLO_ASSERT(fileName.find('/') == std::string::npos, "unexpected '/' in filename: {}", fileName);
  file_ = directory.empty() ? fileName : fmt::format("{}/{}", directory, fileName);
}

FileLock::~FileLock() {
  TAMLO_TRACE(debugHandle_, 5, "file:{}", file_);
  if (fd_ != -1)
    release();
}

bool FileLock::lock(bool reentryCheck) {
  TAMLO_TRACE(debugHandle_, 5, "file:{}", file_);
  if (reentryCheck && pid_ == ::getpid()) {
    TAMLO_TRACE(debugHandle_, 5, "re-entry held by pid:{} on file:{}", pid_, file_);
    return true;
  }
  if (Util::mkpath(directory_, 0777) != 0) {
    int const error = errno;
    TAMLO_ASSERT(error == EEXIST, "unexpected mkpath() error {}: {}", directory_,
                 Tamlo::strerror(error));
  }

  mode_t const oldMask = ::umask(0);
  int const fd = ::open(file_.c_str(), O_RDWR | O_CREAT, 0666);
  int const openError = errno;
  ::umask(oldMask);
  if (fd < 0) {
    TAMLO_TRACE(debugHandle_, 1, "error: could not open lock file:{} {}", file_,
                Tamlo::strerror(openError));
    return false;
  }

  struct flock range = wholeFile(F_WRLCK);
  if (::fcntl(fd, cmd_F_OFD_SETLK(), &range) != 0) {
    int const error = errno;
    if (error == EAGAIN) {
      TAMLO_TRACE(debugHandle_, 1, "error: conflicting lock held on file:{}", file_);
      ::close(fd);
      return false;
    }
    ::close(fd);
    TAMLO_ASSERT_FAIL("unexpected error: {} file:{}", Tamlo::strerror(error), file_);
  }
  if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    int const error = errno;
    ::close(fd);
    TAMLO_ASSERT_FAIL("unexpected error:{} file:{}", Tamlo::strerror(error), file_);
  }

  TAMLO_TRACE(debugHandle_, 5, "acquired lock on file:{}", file_);
  // A descriptor still open here was inherited by a forked child from the
  // parent that holds the lock; closing the child's copy leaves the
  // parent's lock in place.
  if (fd_ != -1)
    ::close(fd_);
  fd_ = fd;
  pid_ = ::getpid();
  return true;
}

void FileLock::release() {
  TAMLO_TRACE(debugHandle_, 5, "file:{}", file_);
  TAMLO_ASSERT(fd_ != -1, "attempting to release a lock that is not currently held. File:{}",
               file_);
  int const caller = ::getpid();
  TAMLO_ASSERT(caller == pid_, "called from child process:{} of owner pid:{}", caller, pid_);
  struct flock range = wholeFile(F_UNLCK);
  if (::fcntl(fd_, cmd_F_OFD_SETLK(), &range) != 0)
    TAMLO_ASSERT_FAIL("unexpected error: {} file:{} fd:{}", Tamlo::strerror(errno), file_, fd_);
  closeFd();
  pid_ = -1;
  TAMLO_TRACE(debugHandle_, 5, "released lock on file:{}", file_);
}

void FileLock::closeFd() {
  TAMLO_TRACE(debugHandle_, 5, "file:{} fd:{}", file_, fd_);
  if (fd_ == -1) {
    TAMLO_TRACE(debugHandle_, 5, "no active fd: nothing to do");
    return;
  }
  if (::close(fd_) == 0)
    TAMLO_TRACE(debugHandle_, 5, "closed fd for file:{}", file_);
  else
    TAMLO_TRACE(debugHandle_, 1, "error: {} file:{} fd:{}", Tamlo::strerror(errno), file_, fd_);
  fd_ = -1;
}

}  // namespace Tamlo
