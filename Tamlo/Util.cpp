#include <Tamlo/Util.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/HashMix.h>
#include <Tamlo/UniqueFd.h>

namespace Tamlo::Util {

namespace {

template <typename T>
T hashBytes(void const* data, size_t length) {
  Impl::HashMix<T> mixer;
  mixer.mixInline(data, length);
  return mixer.value();
}

}  // namespace

// The string forms take the full size_t length: a string past 4 GiB is not
// silently cut short.
uint32_t hash(std::string const& text) {
  return hashBytes<uint32_t>(text.data(), text.size());
}

uint32_t hash(void const* data, unsigned length) {
  return hashBytes<uint32_t>(data, length);
}

uint64_t hash64(std::string const& text) {
  return hashBytes<uint64_t>(text.data(), text.size());
}

uint64_t hash64(void const* data, unsigned length) {
  return hashBytes<uint64_t>(data, length);
}

std::string base64Encode(unsigned value) {
  static constexpr char digits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  std::string text(6, '\0');
  for (char& c : text) {
    c = digits[value & 63u];
    value >>= 6;
  }
  return text;
}

}  // namespace Tamlo::Util

// ---- Files and paths ----

namespace Tamlo::Impl {

Platform::DebugHandler const* utilTrace() {
  static std::shared_ptr<Platform::DebugHandler> const* const handle =
      new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler("TamloUtil"));
  return handle->get();
}

}  // namespace Tamlo::Impl

namespace Tamlo::Util {

void throwSystemError(std::string_view operation, std::string_view subject, int error) {
  std::string const message = fmt::format("{} {}: {}", operation, subject, Tamlo::strerror(error));
  if (error == EACCES || error == EPERM)
    NoPermissionException::throwException(message);
  RuntimeException::throwException(message);
}

namespace {

Impl::UniqueFd openOrThrow(std::string const& path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0)
    throwSystemError("open", path, errno);
  return Impl::UniqueFd(fd);
}

void writeAll(int fd, std::string_view data, std::string const& path) {
  while (!data.empty()) {
    ssize_t const n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throwSystemError("write", path, errno);
    data.remove_prefix(static_cast<size_t>(n));
  }
}

std::string directoryOf(std::string const& path) {
  size_t const slash = path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A name beside `path` that no other writer of this process uses at once;
// O_EXCL settles collisions with other processes and leftovers.
std::string temporaryNameFor(std::string const& path) {
  static std::atomic<unsigned> counter{0};
  return fmt::format("{}.tmp.{}.{}", path, ::getpid(), counter.fetch_add(1));
}

}  // namespace

std::string readFile(std::string const& path) {
  Impl::UniqueFd const fd = openOrThrow(path, O_RDONLY);
  std::string contents;
  char buffer[65536];
  for (;;) {
    ssize_t const n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throwSystemError("read", path, errno);
    if (n == 0)
      return contents;
    contents.append(buffer, static_cast<size_t>(n));
  }
}

void writeFile(std::string const& path, std::string_view contents, WriteOptions options) {
  std::string temporary;
  Impl::UniqueFd fd;
  for (int attempt = 0; !fd.valid(); ++attempt) {
    temporary = temporaryNameFor(path);
    int const raw =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, options.mode);
    if (raw >= 0)
      fd.reset(raw);
    else if ((errno != EEXIST && errno != EINTR) || attempt == 100)
      throwSystemError("create", temporary, errno);
  }
  try {
    writeAll(fd.get(), contents, temporary);
    if (options.fsync && ::fsync(fd.get()) != 0)
      throwSystemError("fsync", temporary, errno);
    // close reports late write errors on some file systems (NFS).
    if (::close(fd.release()) != 0)
      throwSystemError("close", temporary, errno);
    if (::rename(temporary.c_str(), path.c_str()) != 0)
      throwSystemError("rename to " + path, temporary, errno);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  if (options.fsync) {
    std::string const directory = directoryOf(path);
    Impl::UniqueFd const directoryFd = openOrThrow(directory, O_RDONLY | O_DIRECTORY);
    if (::fsync(directoryFd.get()) != 0)
      throwSystemError("fsync", directory, errno);
  }
}

void touch(std::string const& path) {
  if (::utimensat(AT_FDCWD, path.c_str(), nullptr, 0) == 0)
    return;
  if (errno != ENOENT)
    throwSystemError("touch", path, errno);
  openOrThrow(path, O_WRONLY | O_CREAT | O_NONBLOCK, 0666);
}

void truncate(std::string const& path, uint64_t size) {
  int result;
  do {
    result = ::truncate(path.c_str(), static_cast<off_t>(size));
  } while (result != 0 && errno == EINTR);
  if (result != 0)
    throwSystemError("truncate", path, errno);
}

bool remove(std::string const& path) {
  if (::remove(path.c_str()) == 0)
    return true;
  if (errno == ENOENT)
    return false;
  throwSystemError("remove", path, errno);
}

uint64_t fileSize(std::string const& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    throwSystemError("stat", path, errno);
  return static_cast<uint64_t>(status.st_size);
}

int mkpath(std::string const& givenPath, mode_t mode, bool existingIsOk) {
  std::string path = givenPath.empty() ? std::string(".") : givenPath;
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  // Parents first; one that exists as a file makes the next mkdir fail with
  // ENOTDIR, which is the error the caller should see.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/')
      continue;
    std::string const parent = path.substr(0, slash);
    if (::mkdir(parent.c_str(), mode) != 0 && errno != EEXIST)
      return -1;
  }
  if (::mkdir(path.c_str(), mode) == 0)
    return 0;
  if (errno != EEXIST)
    return -1;
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    return -1;
  if (!S_ISDIR(status.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  if (existingIsOk)
    return 0;
  errno = EEXIST;
  return -1;
}

std::string trimpath(std::string_view path) {
  bool const absolute = !path.empty() && path.front() == '/';
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    size_t const slash = path.find('/');
    std::string_view const part = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (part.empty() || part == ".")
      continue;
    if (part == ".." && !parts.empty() && parts.back() != "..")
      parts.pop_back();
    else if (part != ".." || !absolute)
      parts.push_back(part);
  }
  std::string cleaned = absolute ? "/" : "";
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0)
      cleaned += '/';
    cleaned += parts[i];
  }
  return cleaned.empty() ? "." : cleaned;
}

// ---- Lock holders ----

namespace {

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    size_t const start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos)
      break;
    line.remove_prefix(start);
    size_t const end = std::min(line.find_first_of(" \t"), line.size());
    words.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
  return words;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& value, int base = 10) {
  if (text.empty())
    return false;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size();
}

// "08:01:1234": major and minor in hex, inode in decimal.
bool parseDeviceInode(std::string_view text, unsigned& major, unsigned& minor, uint64_t& inode) {
  size_t const first = text.find(':');
  size_t const second = first == std::string_view::npos ? first : text.find(':', first + 1);
  if (second == std::string_view::npos)
    return false;
  return parseNumber(text.substr(0, first), major, 16) &&
         parseNumber(text.substr(first + 1, second - first - 1), minor, 16) &&
         parseNumber(text.substr(second + 1), inode);
}

bool sameFile(struct stat const& a, struct stat const& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Open-file-description locks carry no pid: look for the descriptor whose
// fdinfo lists a lock on the file. Processes that vanish meanwhile are
// skipped.
pid_t findOpenFileLockHolder(struct stat const& file) {
  std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  if (!proc)
    throwSystemError("opendir", "/proc", errno);
  while (dirent const* process = ::readdir(proc.get())) {
    pid_t pid;
    if (!parseNumber(std::string_view(process->d_name), pid))
      continue;
    std::string const fdDirectory = fmt::format("/proc/{}/fd", pid);
    std::unique_ptr<DIR, int (*)(DIR*)> fds(::opendir(fdDirectory.c_str()), ::closedir);
    if (!fds)
      continue;
    while (dirent const* fd = ::readdir(fds.get())) {
      struct stat target;
      if (fd->d_name[0] == '.' || ::fstatat(::dirfd(fds.get()), fd->d_name, &target, 0) != 0 ||
          !sameFile(target, file))
        continue;
      try {
        std::string const info = readFile(fmt::format("/proc/{}/fdinfo/{}", pid, fd->d_name));
        if (parseLockPid(info, major(file.st_dev), minor(file.st_dev), file.st_ino))
          return pid;
      } catch (Exception const&) {
        // closed or exited while we looked
      }
    }
  }
  return -1;
}

}  // namespace

std::optional<pid_t> parseLockPid(std::string_view locksText, unsigned major, unsigned minor,
                                  uint64_t inode) {
  while (!locksText.empty()) {
    size_t const newline = locksText.find('\n');
    std::string_view line = locksText.substr(0, newline);
    locksText.remove_prefix(newline == std::string_view::npos ? locksText.size() : newline + 1);
    if (line.starts_with("lock:"))
      line.remove_prefix(5);
    // "1: POSIX  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiter has "->"
    // after the number.
    std::vector<std::string_view> const words = wordsOf(line);
    if (words.size() < 6 || words[1] == "->")
      continue;
    pid_t pid;
    unsigned lineMajor, lineMinor;
    uint64_t lineInode;
    if (parseNumber(words[4], pid) && parseDeviceInode(words[5], lineMajor, lineMinor, lineInode) &&
        lineMajor == major && lineMinor == minor && lineInode == inode)
      return pid;
  }
  return std::nullopt;
}

pid_t readLockPid(std::string const& path) {
  struct stat file;
  if (::stat(path.c_str(), &file) != 0)
    throwSystemError("stat", path, errno);
  std::optional<pid_t> const pid =
      parseLockPid(readFile("/proc/locks"), major(file.st_dev), minor(file.st_dev), file.st_ino);
  if (!pid)
    return -1;
  // 0 is a holder outside this pid namespace or already gone.
  pid_t const holder = *pid > 0 ? *pid : findOpenFileLockHolder(file);
  TAMLO_TRACE(Impl::utilTrace(), 5, "lock on {} held by pid:{}", path, holder);
  return holder;
}

}  // namespace Tamlo::Util
