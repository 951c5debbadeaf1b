// Where and how trace lines are written: the prefix fields chosen by
// TRACEFORMAT, the TRACEFILE destination, and the atomic write of each line.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <fmt/format.h>

#include <Tamlo/Debug.h>
#include <Tamlo/Fmt.h>
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

// The open TRACEFILE, guarded by the library lock.
int traceFileFd = -1;
std::string& traceFileName() {
  static std::string* const name = new std::string;  // outlives static destructors
  return *name;
}

void writeAll(int fd, iovec* parts, int count) {
  while (count > 0) {
    ssize_t written = ::writev(fd, parts, count);
    if (written < 0) {
      if (errno == EINTR)
        continue;
      return;  // Nowhere left to report a failing trace destination.
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
}

void writeStderr(std::string_view text) {
  iovec part{const_cast<char*>(text.data()), text.size()};
  writeAll(STDERR_FILENO, &part, 1);
}

// Date and time change once a second: each thread keeps the last second's
// text so that most lines skip localtime_r and strftime.
struct ClockText {
  time_t second = -1;
  bool valid = false;
  char date[16] = {};
  char time[16] = {};
};

ClockText const& clockTextFor(time_t second) {
  thread_local ClockText cache;
  if (cache.second != second) {
    tm parts;
    cache.second = second;
    cache.valid = localtime_r(&second, &parts) != nullptr;
    if (cache.valid) {
      strftime(cache.date, sizeof cache.date, "%Y-%m-%d ", &parts);
      strftime(cache.time, sizeof cache.time, "%H:%M:%S", &parts);
    }
  }
  return cache;
}

char const* baseName(char const* path) {
  char const* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

constexpr std::string_view traceFields[] = {"date",  "time",      "pid",      "tid",
                                            "handle", "level", "line-info", "func-name"};
bool* const traceFlags[] = {&DebugControl::showDate_,       &DebugControl::showTime_,
                            &DebugControl::showPid_,        &DebugControl::showTid_,
                            &DebugControl::showHandleName_, &DebugControl::showLevel_,
                            &DebugControl::showLineInfo_,   &DebugControl::showFuncName_};

}  // namespace

void Impl::openTraceFileFromEnvironment() {
  char const* const wanted = std::getenv("TRACEFILE");
  std::string& name = traceFileName();
  if (wanted && name != wanted && traceFileFd >= 0) {
    ::close(traceFileFd);
    traceFileFd = -1;
    name.clear();
  }
  if (wanted && traceFileFd < 0) {
    traceFileFd = ::open(wanted, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (traceFileFd < 0) {
      writeStderr(fmt::format("Error opening TRACEFILE={}\nDefaulting to std::cerr for trace output.\n",
                              wanted));
      name.clear();
    } else {
      name = wanted;
    }
  }
}

namespace Platform {

void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line) {
  // The format is read under the lock that its setters hold.
  LocoGuard guard;
  fmt::memory_buffer prefix;
  if (DebugControl::showDate_ || DebugControl::showTime_) {
    timeval now;
    gettimeofday(&now, nullptr);
    ClockText const& clock = clockTextFor(now.tv_sec);
    if (clock.valid) {
      if (DebugControl::showDate_)
        prefix.append(std::string_view(clock.date));
      if (DebugControl::showTime_)
        fmt::format_to(fmt::appender(prefix), "{}.{} ", clock.time, now.tv_usec);
    }
  }
  if (DebugControl::showPid_)
    fmt::format_to(fmt::appender(prefix), "{} ", getpid());
  if (DebugControl::showTid_)
    fmt::format_to(fmt::appender(prefix), "{} ", Tamlo::gettid());
  if (DebugControl::showHandleName_) {
    auto const* named = dynamic_cast<Orv::DebugHandler const*>(
        static_cast<Platform::DebugHandler const*>(handle));
    fmt::format_to(fmt::appender(prefix), "{} ", named ? named->name() : std::string());
  }
  if (DebugControl::showLevel_)
    fmt::format_to(fmt::appender(prefix), "{} ", level);
  if (DebugControl::showLineInfo_)
    fmt::format_to(fmt::appender(prefix), "{}:{} ", fileName ? baseName(fileName) : "", line);
  if (DebugControl::showFuncName_)
    fmt::format_to(fmt::appender(prefix), "{} ", funcName ? funcName : "");

  char newline = '\n';
  iovec parts[] = {{prefix.data(), prefix.size()},
                   {const_cast<char*>(text), length},
                   {&newline, 1}};
  writeAll(traceFileFd >= 0 ? traceFileFd : STDERR_FILENO, parts, 3);
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
  bool wanted[std::size(traceFields)] = {};
  size_t start = 0;
  while (start < value.size()) {
    size_t const comma = std::min(value.find(',', start), value.size());
    std::string_view const field = value.substr(start, comma - start);
    size_t index = 0;
    while (index < std::size(traceFields) && traceFields[index] != field)
      ++index;
    if (index == std::size(traceFields)) {
      writeStderr(fmt::format(
          "{} is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n",
          field));
      return;
    }
    wanted[index] = true;
    start = comma + 1;
  }
  LocoGuard guard;
  for (size_t i = 0; i < std::size(traceFields); ++i)
    *traceFlags[i] = wanted[i];
}

void clearTraceFormat() {
  LocoGuard guard;
  for (bool* flag : traceFlags)
    *flag = false;
}

void printAllTraceFormat() {
  std::string line;
  {
    LocoGuard guard;
    for (bool const* flag : traceFlags)
      line.append(line.empty() ? "" : " ").append(*flag ? "1" : "0");
  }
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

}  // namespace Platform
}  // namespace Tamlo
