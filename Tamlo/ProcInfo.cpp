#include <Tamlo/ProcInfo.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>

#include <fmt/format.h>

#include <Tamlo/Exception.h>
#include <Tamlo/Util.h>

namespace Tamlo::ProcInfo {

namespace {

template <typename Number>
std::optional<Number> numberOf(std::string_view text) {
  Number value;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return value;
}

std::string readProcessFile(pid_t pid, char const* leaf) {
  if (pid < 1)
    OutOfRangeException::throwException(fmt::format("invalid pid:{}", pid));
  try {
    return Util::readFile(fmt::format("/proc/{}/{}", pid, leaf));
  } catch (Exception const&) {
    if (::access(fmt::format("/proc/{}", pid).c_str(), F_OK) != 0)
      RuntimeException::throwException(fmt::format("no process with pid:{}", pid));
    throw;
  }
}

using DirPointer = std::unique_ptr<DIR, int (*)(DIR*)>;

DirPointer openDirectory(std::string const& path) {
  return DirPointer(::opendir(path.c_str()), ::closedir);
}

}  // namespace

std::string title(pid_t pid) {
  return parseTitle(readProcessFile(pid, "comm"));
}

std::string parseTitle(std::string_view commText) {
  if (commText.ends_with('\n'))
    commText.remove_suffix(1);
  return std::string(commText);
}

StartTime startTime(pid_t pid) {
  std::string const stat = readProcessFile(pid, "stat");
  std::optional<uint64_t> const ticks = parseStartTicks(stat);
  if (!ticks)
    CorruptionDetectedException::throwException(
        fmt::format("no start time in /proc/{}/stat: {}", pid, stat));
  std::string const systemStat = Util::readFile("/proc/stat");
  std::optional<uint64_t> const bootTime = parseBootTime(systemStat);
  if (!bootTime)
    CorruptionDetectedException::throwException("no btime line in /proc/stat");
  double const sinceBoot =
      static_cast<double>(*ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
  return {sinceBoot, static_cast<double>(*bootTime) + sinceBoot};
}

std::optional<uint64_t> parseStartTicks(std::string_view statText) {
  size_t const titleEnd = statText.rfind(')');
  if (titleEnd == std::string_view::npos)
    return std::nullopt;
  statText.remove_prefix(titleEnd + 1);
  // After the title come field 3 (state) onwards; starttime is field 22.
  for (int field = 3; field <= 22; ++field) {
    size_t const start = statText.find_first_not_of(' ');
    if (start == std::string_view::npos)
      return std::nullopt;
    statText.remove_prefix(start);
    size_t const end = std::min(statText.find(' '), statText.size());
    if (field == 22)
      return numberOf<uint64_t>(statText.substr(0, end));
    statText.remove_prefix(end);
  }
  return std::nullopt;
}

std::optional<uint64_t> parseBootTime(std::string_view procStatText) {
  constexpr std::string_view key = "btime ";
  for (size_t at = procStatText.find(key); at != std::string_view::npos;
       at = procStatText.find(key, at + 1)) {
    if (at != 0 && procStatText[at - 1] != '\n')
      continue;
    std::string_view rest = procStatText.substr(at + key.size());
    return numberOf<uint64_t>(rest.substr(0, rest.find('\n')));
  }
  return std::nullopt;
}

std::vector<std::string> commandLine(pid_t pid) {
  return splitCommandLine(readProcessFile(pid, "cmdline"));
}

std::vector<std::string> splitCommandLine(std::string_view cmdlineText) {
  std::vector<std::string> arguments;
  while (!cmdlineText.empty()) {
    size_t const end = cmdlineText.find('\0');
    arguments.emplace_back(cmdlineText.substr(0, end));
    cmdlineText.remove_prefix(end == std::string_view::npos ? cmdlineText.size() : end + 1);
  }
  return arguments;
}

ino_t socketInode(int fd) {
  struct stat status;
  if (::fstat(fd, &status) != 0)
    Util::throwSystemError("fstat", fmt::format("fd:{}", fd), errno);
  if (!S_ISSOCK(status.st_mode))
    Util::throwSystemError("socketInode", fmt::format("fd:{}", fd), ENOTSOCK);
  return status.st_ino;
}

pid_t socketOwner(ino_t inode) {
  DirPointer const proc = openDirectory("/proc");
  if (!proc)
    Util::throwSystemError("opendir", "/proc", errno);
  pid_t owner = -1;
  // Processes and descriptors that go away while we look are skipped.
  while (dirent const* process = ::readdir(proc.get())) {
    std::optional<pid_t> const pid = numberOf<pid_t>(process->d_name);
    if (!pid || (owner != -1 && *pid > owner))
      continue;
    DirPointer const fds = openDirectory(fmt::format("/proc/{}/fd", *pid));
    dirent const* descriptor;
    while (fds && (descriptor = ::readdir(fds.get())) != nullptr) {
      char link[64];
      ssize_t const n = ::readlinkat(::dirfd(fds.get()), descriptor->d_name, link, sizeof link);
      if (n > 0 && parseSocketInode(std::string_view(link, static_cast<size_t>(n))) == inode) {
        owner = *pid;
        break;
      }
    }
  }
  return owner;
}

std::optional<ino_t> parseSocketInode(std::string_view linkText) {
  constexpr std::string_view prefix = "socket:[";
  if (!linkText.starts_with(prefix) || !linkText.ends_with(']'))
    return std::nullopt;
  return numberOf<ino_t>(linkText.substr(prefix.size(), linkText.size() - prefix.size() - 1));
}

}  // namespace Tamlo::ProcInfo
