// Small helpers: the library's standard string hashes, a compact text form of
// 32-bit values, and the file and path helpers of the system utilities.
//
// Errors: the file helpers throw NoPermissionException when the system says
// EACCES or EPERM and RuntimeException otherwise, with a message naming the
// operation, the path and the system's error text ("read /etc/x: No such
// file or directory"); mkpath alone reports through errno, as mkdir does.
// Every descriptor they open is close-on-exec and closed on every path.
// Interrupted and short reads and writes are retried.
//
// Thread-safety: all functions are safe from any thread; calls on the same
// file race as the system calls under them do.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tamlo::Util {

// Word-wise FNV-1a (see HashMix.h) from the standard offset basis. Not equal
// to byte-wise FNV-1a; stored hashes depend on this exact form.
uint32_t hash(std::string const& text);
uint32_t hash(void const* data, unsigned length);
uint64_t hash64(std::string const& text);
uint64_t hash64(void const* data, unsigned length);

// Always six characters from "A-Za-z0-9_=" (62 is '_', 63 is '='), six bits
// each, least significant group first, covering all 32 bits. No padding.
std::string base64Encode(unsigned value);

// Throws the exception the file helpers throw for `error` (an errno value):
// "{operation} {subject}: {strerror(error)}".
[[noreturn]] void throwSystemError(std::string_view operation, std::string_view subject, int error);

// The whole content of `path`. Files that report no size (those of /proc)
// are read to their end.
std::string readFile(std::string const& path);

struct WriteOptions {
  // fsync the file and then its directory before returning, so the new
  // content survives a crash of the machine.
  bool fsync = false;
  // The mode of the new file, less the process umask.
  mode_t mode = 0666;
};

// Replaces `path` with `contents` atomically: readers see the old content or
// the new, never a part. Written to a temporary file beside `path` that is
// then renamed over it, and removed if anything fails.
void writeFile(std::string const& path, std::string_view contents, WriteOptions options = {});

// Creates `path` empty (mode 0666 less the umask) if it does not exist and
// sets its access and modification times to now.
void touch(std::string const& path);

// Cuts or extends `path` to `size` bytes.
void truncate(std::string const& path, uint64_t size);

// Removes a file, symlink or empty directory. False when nothing was there.
bool remove(std::string const& path);

// Size in bytes of `path`, following symlinks.
uint64_t fileSize(std::string const& path);

// Creates every missing directory of `path` with `mode` (less the umask);
// "" is the current directory.
// Returns 0, or -1 with errno set as mkdir sets it: EEXIST when `path` itself
// already was a directory (0 instead when `existingIsOk`), ENOTDIR when it or
// a parent exists but is not a directory.
int mkpath(std::string const& path, mode_t mode, bool existingIsOk = false);

// `path` cleaned lexically, without looking at the file system: repeated '/'
// become one, "." components and trailing '/' go, "x/.." pairs cancel, and
// ".." directly under "/" is dropped. "" and "." give ".".
std::string trimpath(std::string_view path);

// The pid of a process that holds a lock on `path` (POSIX, flock or
// open-file-description lock), found in /proc/locks by the file's device and
// inode; for open-file-description locks, which /proc/locks shows without a
// pid, by the /proc/<pid>/fdinfo of the descriptors that hold them (one of
// them when a fork shares the open file). -1 when no lock is held. Throws
// when `path` cannot be examined.
pid_t readLockPid(std::string const& path);

// The pid in the first holding (not waiting) lock of `locksText` (the text
// of /proc/locks, or the "lock:" lines of an fdinfo file) on the file with
// device `major`:`minor` and inode `inode`: -1 for a lock shown without a
// pid (an open-file-description lock), nullopt when there is none. Any text
// is accepted; lines that do not parse are skipped.
std::optional<pid_t> parseLockPid(std::string_view locksText, unsigned major, unsigned minor,
                                  uint64_t inode);

}  // namespace Tamlo::Util

namespace Tamlo::Platform {
class DebugHandler;
}

namespace Tamlo::Impl {
// The "TamloUtil" trace handle of the system utilities, made on first use.
Platform::DebugHandler const* utilTrace();
}  // namespace Tamlo::Impl
