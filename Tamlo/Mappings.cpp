#include <Tamlo/Mappings.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>

namespace Tamlo {

static_assert(sizeof(uintptr_t) == sizeof(uint64_t), "addresses are parsed as 64-bit numbers");

namespace {

// Consumes the fields of one line from left to right. Each read returns
// false, consuming nothing useful, when the expected field is not next.
class FieldReader {
 public:
  explicit FieldReader(std::string_view line) : rest_(line) {}

  bool hex(uint64_t& value, size_t maxDigits) {
    size_t digits = 0;
    value = 0;
    while (digits < rest_.size()) {
      int const digit = hexDigit(rest_[digits]);
      if (digit < 0)
        break;
      if (++digits > maxDigits)
        return false;
      value = value << 4 | static_cast<unsigned>(digit);
    }
    rest_.remove_prefix(digits);
    return digits > 0;
  }

  bool decimal(uint64_t& value) {
    size_t digits = 0;
    value = 0;
    while (digits < rest_.size() && rest_[digits] >= '0' && rest_[digits] <= '9') {
      unsigned const digit = static_cast<unsigned>(rest_[digits] - '0');
      if (value > (UINT64_MAX - digit) / 10)
        return false;
      value = value * 10 + digit;
      ++digits;
    }
    rest_.remove_prefix(digits);
    return digits > 0;
  }

  bool literal(char expected) {
    if (rest_.empty() || rest_.front() != expected)
      return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool permissions(std::string& into) {
    if (rest_.size() < 4 || !oneOf(rest_[0], 'r') || !oneOf(rest_[1], 'w') ||
        !oneOf(rest_[2], 'x') || (rest_[3] != 'p' && rest_[3] != 's'))
      return false;
    into.assign(rest_.substr(0, 4));
    rest_.remove_prefix(4);
    return true;
  }

  // Whatever follows the inode: nothing, or blanks and then the path.
  bool path(std::string& into) {
    if (rest_.empty())
      return true;
    if (rest_.front() != ' ')
      return false;
    size_t const blanks = rest_.find_first_not_of(' ');
    into.assign(blanks == std::string_view::npos ? std::string_view() : rest_.substr(blanks));
    return true;
  }

 private:
  static int hexDigit(char c) {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    return -1;
  }
  static bool oneOf(char c, char allowed) { return c == allowed || c == '-'; }

  std::string_view rest_;
};

// The line as it may be quoted in a message: at most 80 bytes, quotes,
// backslashes and unprintable bytes escaped.
std::string quoted(std::string_view line) {
  constexpr size_t shown = 80;
  std::string text;
  for (char const c : line.substr(0, shown)) {
    auto const byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\')
      text.append({'\\', c});
    else if (byte >= 0x20 && byte < 0x7f)
      text.push_back(c);
    else
      fmt::format_to(std::back_inserter(text), "\\x{:02x}", byte);
  }
  if (line.size() > shown)
    text.append("...");
  return text;
}

// Null when `line` is a well-formed mapping, stored in `mapping`; otherwise
// what is wrong with it.
char const* parseLine(std::string_view line, Mapping& mapping) {
  FieldReader fields(line);
  uint64_t start = 0, end = 0, offset = 0, major = 0, minor = 0, inode = 0;
  if (!fields.hex(start, 16) || !fields.literal('-') || !fields.hex(end, 16))
    return "bad address range";
  if (start >= end)
    return "range start not below its end";
  if (!fields.literal(' ') || !fields.permissions(mapping.permissions))
    return "bad permissions";
  if (!fields.literal(' ') || !fields.hex(offset, 16))
    return "bad offset";
  if (!fields.literal(' ') || !fields.hex(major, 8) || !fields.literal(':') ||
      !fields.hex(minor, 8))
    return "bad device";
  if (!fields.literal(' ') || !fields.decimal(inode))
    return "bad inode";
  if (!fields.path(mapping.path))
    return "bad path separator";
  mapping.start = start;
  mapping.end = end;
  mapping.offset = offset;
  mapping.deviceMajor = static_cast<unsigned>(major);
  mapping.deviceMinor = static_cast<unsigned>(minor);
  mapping.inode = inode;
  return nullptr;
}

// Closes the descriptor it holds when it goes.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor const&) = delete;
  FileDescriptor& operator=(FileDescriptor const&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

[[noreturn]] void throwReadFailure(int error, std::string const& owner, std::string const& path) {
  std::string const text =
      fmt::format("cannot read the mappings of {}: {}: {}", owner, path, strerror(error));
  if (error == EACCES || error == EPERM)
    NoPermissionException::throwException(text);
  RuntimeException::throwException(text);
}

}  // namespace

Mappings Mappings::parse(std::string_view text, std::string_view source) {
  Mappings result;
  size_t lineNumber = 0;
  while (!text.empty()) {
    size_t const newline = text.find('\n');
    std::string_view const line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    ++lineNumber;

    Mapping mapping;
    char const* problem = line.empty() ? "empty line" : parseLine(line, mapping);
    if (!problem && !result.mappings_.empty() && mapping.start < result.mappings_.back().end)
      problem = "overlaps or precedes the mapping before it";
    if (problem)
      CorruptionDetectedException::throwException(
          fmt::format("{}: line {}: {}: \"{}\"", source, lineNumber, problem, quoted(line)));
    result.starts_.push_back(mapping.start);
    result.mappings_.push_back(std::move(mapping));
  }
  return result;
}

Mappings Mappings::ofFile(std::string const& path, std::string const& owner) {
  // The kernel writes the file a buffer at a time, so a process that maps or
  // unmaps while it is read can leave lines out of order; another read then
  // sees a settled list.
  constexpr int attempts = 3;
  for (int attempt = 1;; ++attempt) {
    FileDescriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
      throwReadFailure(errno, owner, path);
    std::string text;
    // Appended from the stack rather than read into a grown string: a large
    // transient block makes malloc grow and trim the heap on every call.
    char chunk[16384];
    for (;;) {
      ssize_t const got = ::read(file.get(), chunk, sizeof chunk);
      if (got < 0 && errno == EINTR)
        continue;
      if (got < 0)
        throwReadFailure(errno, owner, path);
      if (got == 0)
        break;
      text.append(chunk, static_cast<size_t>(got));
    }
    try {
      return parse(text, path);
    } catch (CorruptionDetectedException const&) {
      if (attempt == attempts)
        throw;
    }
  }
}

Mappings Mappings::ofProcess(pid_t pid) {
  return ofFile(fmt::format("/proc/{}/maps", pid), fmt::format("pid {}", pid));
}

Mappings Mappings::ofSelf() {
  return ofFile("/proc/self/maps", fmt::format("pid {}", ::getpid()));
}

Mapping const* Mappings::find(uintptr_t address) const {
  auto const after = std::upper_bound(starts_.begin(), starts_.end(), address);
  if (after == starts_.begin())
    return nullptr;
  Mapping const& candidate = mappings_[static_cast<size_t>(after - starts_.begin()) - 1];
  return candidate.contains(address) ? &candidate : nullptr;
}

}  // namespace Tamlo
