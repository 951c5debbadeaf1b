// Where and how trace lines are written: the prefix fields chosen by
// TRACEFORMAT, the TRACEFILE destination, and the write of each line whole
// under the library lock.
#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include <Tamlo/Debug.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Fmt.h>
#include <Tamlo/HeapCheck.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Thread.h>

namespace Tamlo {
namespace Orv {
bool DebugControl::showDate_ = false;
bool DebugControl::showTime_ = false;
bool DebugControl::showPid_ = false;
bool DebugControl::showTid_ = false;
bool DebugControl::showHandleName_ = false;
bool DebugControl::showLevel_ = false;
bool DebugControl::showLineInfo_ = false;
bool DebugControl::showFuncName_ = false;
}  // namespace Orv

namespace {

using Orv::DebugControl;

constexpr std::string_view traceFields[] = {"date",   "time",  "pid",       "tid",
                                            "handle", "level", "line-info", "func-name"};
bool* const traceFlags[] = {&DebugControl::showDate_,       &DebugControl::showTime_,
                            &DebugControl::showPid_,        &DebugControl::showTid_,
                            &DebugControl::showHandleName_, &DebugControl::showLevel_,
                            &DebugControl::showLineInfo_,   &DebugControl::showFuncName_};
constexpr size_t fieldCount = std::size(traceFields);

// The flags are written under the library lock but read by every trace line
// before it takes the lock; relaxed atomic access keeps that race benign.
bool flag(bool& field) {
  return std::atomic_ref<bool>(field).load(std::memory_order_relaxed);
}
void flagIs(bool& field, bool on) {
  std::atomic_ref<bool>(field).store(on, std::memory_order_relaxed);
}

// The trace destination, guarded by the library lock: the name of the open
// TRACEFILE and its descriptor, or an empty name and -1 for standard error. A
// name that failed to open is forgotten, so the next setupTamloDebug tries it
// again (its directory may exist by then) and reports each failure.
int traceFileFd = -1;
// Whether a failed write to the trace file was reported: once per file, so
// that a full disk costs one line on standard error, not one per trace.
bool traceFileWriteFailureReported = false;
std::string& traceFileName() {
  static std::string* const name =
      HeapCheck::keepForProcessLifetime(new std::string);  // outlives static destructors
  return *name;
}

// Nowhere is left to report a failing trace destination, so errors other
// than interruption drop the rest of the line.
// The errno of a write that failed, 0 when everything was written.
int writeAll(int fd, iovec* parts, int count) {
  while (count > 0) {
    ssize_t written = ::writev(fd, parts, count);
    if (written < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    while (count > 0 && static_cast<size_t>(written) >= parts->iov_len) {
      written -= static_cast<ssize_t>(parts->iov_len);
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + written;
      parts->iov_len -= static_cast<size_t>(written);
    }
  }
  return 0;
}

void writeStderr(std::string_view text) {
  iovec part{const_cast<char*>(text.data()), text.size()};
  writeAll(STDERR_FILENO, &part, 1);
}

// What each thread keeps between its trace lines: the date and time text of
// the last second it traced in (so that most lines skip localtime_r and
// strftime), and its process and thread ids (reset in a forked child).
struct ThreadTraceCache {
  time_t second = -1;
  bool clockValid = false;
  char date[32] = {};
  size_t dateLength = 0;
  char time[32] = {};
  size_t timeLength = 0;
  pid_t pid = 0;
  pid_t tid = 0;
};
thread_local ThreadTraceCache threadCache;

void forgetIdsInChild() {
  threadCache.pid = 0;
  threadCache.tid = 0;
}
[[maybe_unused]] int const idsResetAtFork = pthread_atfork(nullptr, nullptr, forgetIdsInChild);

ThreadTraceCache& clockTextFor(time_t second) {
  ThreadTraceCache& cache = threadCache;
  if (cache.second != second) {
    tm parts;
    cache.second = second;
    cache.clockValid = localtime_r(&second, &parts) != nullptr;
    if (cache.clockValid) {
      cache.dateLength = strftime(cache.date, sizeof cache.date, "%Y-%m-%d ", &parts);
      cache.timeLength = strftime(cache.time, sizeof cache.time, "%H:%M:%S", &parts);
    }
  }
  return cache;
}

pid_t cachedPid() {
  if (threadCache.pid == 0)
    threadCache.pid = getpid();
  return threadCache.pid;
}

pid_t cachedTid() {
  if (threadCache.tid == 0)
    threadCache.tid = Tamlo::gettid();
  return threadCache.tid;
}

char const* baseName(char const* path) {
  char const* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// Room for the prefix and an ordinary message; longer lines grow on the heap.
using LineBuffer = fmt::basic_memory_buffer<char, 1024>;

void appendText(LineBuffer& prefix, std::string_view text) {
  prefix.append(text.data(), text.data() + text.size());
}

template <typename Integer>
void appendNumber(LineBuffer& prefix, Integer value) {
  fmt::format_int const digits(value);
  prefix.append(digits.data(), digits.data() + digits.size());
}

// The line prefix, each enabled field followed by one blank, always in the
// order of traceFields.
void composePrefix(LineBuffer& prefix, unsigned level, void const* handle, char const* fileName,
                   char const* funcName, int line) {
  bool const showDate = flag(DebugControl::showDate_);
  bool const showTime = flag(DebugControl::showTime_);
  if (showDate || showTime) {
    timeval now;
    gettimeofday(&now, nullptr);
    ThreadTraceCache const& clock = clockTextFor(now.tv_sec);
    if (clock.clockValid) {
      if (showDate)
        appendText(prefix, {clock.date, clock.dateLength});
      if (showTime) {
        // Microseconds as a plain number: 5 us reads ".5".
        appendText(prefix, {clock.time, clock.timeLength});
        prefix.push_back('.');
        appendNumber(prefix, now.tv_usec);
        prefix.push_back(' ');
      }
    }
  }
  if (flag(DebugControl::showPid_)) {
    appendNumber(prefix, cachedPid());
    prefix.push_back(' ');
  }
  if (flag(DebugControl::showTid_)) {
    appendNumber(prefix, cachedTid());
    prefix.push_back(' ');
  }
  if (flag(DebugControl::showHandleName_)) {
    auto const* named =
        dynamic_cast<Orv::DebugHandler const*>(static_cast<Platform::DebugHandler const*>(handle));
    if (named)
      appendText(prefix, named->name());
    prefix.push_back(' ');
  }
  if (flag(DebugControl::showLevel_)) {
    appendNumber(prefix, level);
    prefix.push_back(' ');
  }
  if (flag(DebugControl::showLineInfo_)) {
    appendText(prefix, fileName ? baseName(fileName) : "");
    prefix.push_back(':');
    appendNumber(prefix, line);
    prefix.push_back(' ');
  }
  if (flag(DebugControl::showFuncName_)) {
    appendText(prefix, funcName ? funcName : "");
    prefix.push_back(' ');
  }
}

}  // namespace

void Impl::openTraceFileFromEnvironment() {
  char const* const wanted = std::getenv("TRACEFILE");
  std::string& name = traceFileName();
  if (!wanted || name == wanted)
    return;
  if (traceFileFd >= 0)
    ::close(traceFileFd);
  name = wanted;
  traceFileWriteFailureReported = false;
  traceFileFd = ::open(wanted, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (traceFileFd < 0) {
    name.clear();
    writeStderr(fmt::format(
        "Error opening TRACEFILE={}\nDefaulting to std::cerr for trace output.\n", wanted));
  }
}

namespace Platform {

void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line) {
  // One contiguous line, one write: cheaper for the kernel than a gather.
  LineBuffer buffer;
  composePrefix(buffer, level, handle, fileName, funcName, line);
  if (length > 0)
    buffer.append(text, text + length);
  buffer.push_back('\n');
  iovec whole{buffer.data(), buffer.size()};
  LocoGuard guard;
  if (traceFileFd < 0) {
    writeAll(STDERR_FILENO, &whole, 1);
    return;
  }
  int const error = writeAll(traceFileFd, &whole, 1);
  if (error != 0 && !traceFileWriteFailureReported) [[unlikely]] {
    traceFileWriteFailureReported = true;
    writeStderr(fmt::format("Error writing TRACEFILE={}: {}; trace lines are lost\n",
                            traceFileName(), Tamlo::strerror(error)));
  }
}

void setTraceFormat(char const* spec) {
  if (!spec)
    spec = std::getenv("TRACEFORMAT");
  if (!spec)
    return;
  std::string_view const value(spec);
  if (value == "help") {
    std::string usage = "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n";
    for (std::string_view field : traceFields)
      usage.append("  ").append(field).append("\n");
    writeStderr(usage);
    return;
  }
  // Empty fields (",,", a trailing ',') are skipped, as empty TRACE entries
  // change nothing; so an empty value lists no field at all.
  bool wanted[fieldCount] = {};
  for (size_t start = 0; start < value.size();) {
    size_t const comma = std::min(value.find(',', start), value.size());
    std::string_view const field = value.substr(start, comma - start);
    start = comma + 1;
    if (field.empty())
      continue;
    size_t index = 0;
    while (index < fieldCount && traceFields[index] != field)
      ++index;
    if (index == fieldCount) {
      writeStderr(fmt::format(
          "{} is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n",
          field));
      return;
    }
    wanted[index] = true;
  }
  LocoGuard guard;
  for (size_t i = 0; i < fieldCount; ++i)
    flagIs(*traceFlags[i], wanted[i]);
}

void clearTraceFormat() {
  LocoGuard guard;
  for (bool* field : traceFlags)
    flagIs(*field, false);
}

void printAllTraceFormat() {
  std::string line;
  {
    LocoGuard guard;
    for (bool* field : traceFlags)
      line.append(line.empty() ? "" : " ").append(flag(*field) ? "1" : "0");
  }
  line.push_back('\n');
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

}  // namespace Platform
}  // namespace Tamlo
