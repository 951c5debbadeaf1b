#include <Tamlo/FdTextWriter.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include <Tamlo/Errno.h>
#include <Tamlo/FmtraceCpp.h>

namespace Tamlo::Impl {

namespace {

Platform::DebugHandler const* const traceHandle = taskSchedulerDebugHandle();

ssize_t writeBlockingSigpipe(int fd, void const* data, size_t size) {
  sigset_t pipeOnly, previous;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigset_t pendingBefore;
  sigpending(&pendingBefore);
  bool const wasPending = sigismember(&pendingBefore, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
  ssize_t result;
  do {
    result = ::write(fd, data, size);
  } while (result < 0 && errno == EINTR);
  int const savedErrno = errno;
  if (result < 0 && savedErrno == EPIPE && !wasPending) {
    // Take back the signal this write raised, so that unblocking does not
    // deliver it.
    timespec const now{0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &now) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = savedErrno;
  return result;
}

}  // namespace

ssize_t writeNoSigpipe(int fd, void const* data, size_t size) {
  ssize_t result;
  do {
    result = ::send(fd, data, size, MSG_NOSIGNAL);
  } while (result < 0 && errno == EINTR);
  if (result >= 0 || errno != ENOTSOCK)
    return result;
  return writeBlockingSigpipe(fd, data, size);
}

FdTextWriter::FdTextWriter(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                           std::string const& name, int fd, std::function<void()> onProgress)
    : FileDescriptorTask(std::move(scheduler), priority, name),
      fd_(fd),
      savedFlags_(::fcntl(fd, F_GETFL)),
      onProgress_(std::move(onProgress)) {
  taskWatchReadableIs(false);
  taskWatchFdIs(fd);
}

FdTextWriter::~FdTextWriter() {
  taskWatchFdDel();
  if (savedFlags_ >= 0)
    ::fcntl(fd_, F_SETFL, savedFlags_);
}

void FdTextWriter::append(std::string_view text) {
  if (ended() || text.empty())
    return;
  TAMLO_TRACE(traceHandle, 3, "Request write to fd {} of {} bytes", fd_, text.size());
  if (offset_ > 0 && offset_ >= pending_.size() / 2) {
    pending_.erase(0, offset_);
    offset_ = 0;
  }
  pending_.append(text);
  requested_ += text.size();
  taskWatchWritableIs(true);
}

void FdTextWriter::finish() {
  finishing_ = true;
  if (!ended() && pendingBytes() == 0)
    end(true, 0);
}

void FdTextWriter::taskExecuteWritable() {
  if (ended() || pendingBytes() == 0)
    return;
  size_t const remaining = pendingBytes();
  ssize_t const wrote = writeNoSigpipe(fd_, pending_.data() + offset_, remaining);
  if (wrote < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      taskWatchWritableIs(true);
      return;
    }
    int const error = errno;
    TAMLO_TRACE(traceHandle, 1, "Writing to fd {} failed at offset {} of {}: {}", fd_, written_,
                requested_, Tamlo::strerror(error));
    end(false, error);
    return;
  }
  size_t const count = size_t(wrote);
  bool const all = count == remaining;
  TAMLO_TRACE(traceHandle, 4,
              "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", fd_, written_,
              requested_, count, remaining, all ? "" : ", waiting for writable");
  written_ += count;
  offset_ += count;
  taskWorkCountInc(count);
  taskWorkPendingIs(uint32_t(std::min<size_t>(pendingBytes(), UINT32_MAX)));
  if (all) {
    pending_.clear();
    offset_ = 0;
  } else {
    taskWatchWritableIs(true);
  }
  if (finishing_ && all) {
    end(true, 0);
    return;
  }
  if (pendingBytes() <= lowWaterBytes && onProgress_)
    onProgress_();
}

void FdTextWriter::end(bool completed, int error) {
  completed_ = completed;
  failed_ = !completed;
  error_ = error;
  pending_.clear();
  offset_ = 0;
  taskWatchWritableIs(false);
  if (completed)
    TAMLO_TRACE(traceHandle, 3, "Completed writing to fd {}", fd_);
  if (onProgress_)
    onProgress_();
}

}  // namespace Tamlo::Impl
