// An exclusive, advisory lock on a named lock file, for example so that only
// one instance of a service runs per host.
//
// The lock is a Linux open-file-description lock (F_OFD_SETLK): it belongs to
// the open file, not to the process, so two FileLock objects conflict even
// in one process, and a lock is never lost because some other descriptor of
// the same file is closed. The object remembers the pid that took the lock: a
// forked child shares the open file and must not release its parent's lock,
// so release() from it is an assertion failure (and so is destroying the
// child's copy while the lock is held).
//
// Contention and an unopenable lock file are ordinary results (lock() returns
// false and traces at level 1); everything unexpected is an assertion
// failure. Normal events trace at level 5 on the handle given at
// construction.
//
// Threads: one object belongs to one thread; there is no lock inside. lock()
// sets the process umask to 0 for the moment of the open so that the file is
// created 0666; a file created by another thread at that moment is created
// without its umask.
#pragma once

#include <string>

#include <Tamlo/Debug.h>

namespace Tamlo {

// The Linux command numbers, for C libraries whose headers lack them.
constexpr int cmd_F_OFD_SETLK() {
  return 37;
}
constexpr int cmd_F_OFD_GETLK() {
  return 36;
}

class FileLock : public Debuggable {
 public:
  // `handle` must be owned by a shared pointer (getDebugHandler gives such
  // handles). A '/' in `fileName` is an assertion failure. The lock file is
  // `directory`/`fileName`, or `fileName` alone when `directory` is empty.
  FileLock(Platform::DebugHandler& handle, std::string const& directory,
           std::string const& fileName);
  // Releases the lock if a descriptor is open.
  ~FileLock();
  FileLock(FileLock const&) = delete;
  FileLock& operator=(FileLock const&) = delete;

  // Takes the lock without waiting; true when it is held afterwards. With
  // `reentryCheck`, an object whose process already holds the lock returns
  // true at once; without it a second open is tried, which conflicts with
  // the first. Creates the directory (mode 0777 less the umask) and the file
  // (mode 0666) as needed.
  bool lock(bool reentryCheck);
  // Gives the lock up and closes the file. Only the process that took it may.
  void release();
  // Closes the lock file's descriptor, if one is open.
  void closeFd();
  std::string const& file() const { return file_; }

 private:
  std::string directory_;
  std::string file_;
  int fd_ = -1;
  int pid_ = -1;
};

}  // namespace Tamlo
