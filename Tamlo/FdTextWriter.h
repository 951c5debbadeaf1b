// Text written to a descriptor a slice at a time from the write side of an
// fd task, so that a long answer never holds the event loop: each writable
// run makes one write() of everything pending and waits for writability again
// if the descriptor took only part of it. Text may be appended while earlier
// text is still being written; finish() says no more will come.
//
// The descriptor belongs to the caller and is never closed here. While the
// writer watches it, it is non-blocking (the fd task makes it so); its file
// status flags are put back as they were when the writer is destroyed. A
// reader that went away (EPIPE) or any other write error ends the writing
// with a trace, and the rest is dropped; SIGPIPE is never delivered for it
// (sockets are written with MSG_NOSIGNAL, pipes with the signal blocked on
// this thread for the one call), and the process's signal dispositions are
// left alone.
//
// `onProgress` is called, from the writer's run, when the backlog has fallen
// to lowWaterBytes or below, and once when the writing ends (completed or
// failed). It must not destroy the writer; scheduling a task that does is
// the way.
//
// Traces on "TaskScheduler": level 3 "Request write to fd {} of {} bytes" for
// each append, level 4 one line per write, level 3 "Completed writing to fd
// {}", level 1 for a failure. Single-thread, like every fd task.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <Tamlo/FileDescriptorTask.h>

namespace Tamlo::Impl {

class FdTextWriter : public FileDescriptorTask {
 public:
  static constexpr size_t lowWaterBytes = 64 * 1024;

  FdTextWriter(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
               std::string const& name, int fd, std::function<void()> onProgress);
  ~FdTextWriter() override;

  void append(std::string_view text);
  void finish();

  size_t pendingBytes() const { return pending_.size() - offset_; }
  uint64_t writtenBytes() const { return written_; }
  bool ended() const { return completed_ || failed_; }
  bool completed() const { return completed_; }
  bool failed() const { return failed_; }
  // The errno that ended the writing; 0 while none.
  int error() const { return error_; }

  void taskExecuteReadable() override {}
  void taskExecuteWritable() override;

 private:
  void end(bool completed, int error);

  int fd_;
  int savedFlags_;
  std::function<void()> onProgress_;
  std::string pending_;
  size_t offset_ = 0;
  uint64_t requested_ = 0;
  uint64_t written_ = 0;
  bool finishing_ = false;
  bool completed_ = false;
  bool failed_ = false;
  int error_ = 0;
};

// One write() that never raises SIGPIPE: send(MSG_NOSIGNAL) on a socket,
// write() with SIGPIPE blocked on the calling thread (and a SIGPIPE it caused
// taken back) otherwise. Retries EINTR. As write(): bytes or -1 with errno.
ssize_t writeNoSigpipe(int fd, void const* data, size_t size);

}  // namespace Tamlo::Impl
