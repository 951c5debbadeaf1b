// The memory mappings of a process as /proc/<pid>/maps lists them, and the
// lookup of the mapping that holds an address.
//
// parse() is a pure function of the file's text. It accepts exactly the
// kernel's line layout and throws CorruptionDetectedException naming the
// first line that departs from it, so it may be fed untrusted bytes: it reads
// nothing outside the text and makes one pass over it. ofProcess() reads and
// parses the file of a live process.
//
// Threads: a Mappings is a plain value that never changes once made; its
// const operations may be called from any thread.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tamlo {

// One line of /proc/<pid>/maps: the address range [start, end) and what is
// mapped there.
struct Mapping {
  uintptr_t start = 0;
  uintptr_t end = 0;
  // Four characters as the kernel writes them: 'r', 'w', 'x' or '-', then
  // 'p' (private) or 's' (shared).
  std::string permissions = "---p";
  // Where the range starts in the mapped file.
  uint64_t offset = 0;
  unsigned deviceMajor = 0;
  unsigned deviceMinor = 0;
  uint64_t inode = 0;
  // As the kernel writes it: a file path (with " (deleted)" appended when the
  // file is gone), a name such as "[heap]" or "[stack]", or empty for
  // anonymous memory.
  std::string path;

  bool contains(uintptr_t address) const { return start <= address && address < end; }
  bool readable() const { return permissions[0] == 'r'; }
  bool writable() const { return permissions[1] == 'w'; }
  bool executable() const { return permissions[2] == 'x'; }
  bool shared() const { return permissions[3] == 's'; }
  bool operator==(Mapping const&) const = default;
};

class Mappings {
 public:
  Mappings() = default;

  // The mappings listed in `text`, the contents of a maps file; `source`
  // names the text in error messages. Lines must come in ascending,
  // non-overlapping address order, as the kernel writes them. Throws
  // CorruptionDetectedException "<source>: line <n>: <problem>: \"<line>\""
  // (the line shortened and its unprintable bytes escaped) on the first line
  // that is not a mapping.
  static Mappings parse(std::string_view text, std::string_view source = "maps text");

  // The current mappings of process `pid`. Throws RuntimeException naming
  // the pid and the system's reason when there is no such process (or it
  // cannot be read), NoPermissionException when its mappings are not ours to
  // read. A process that has exited but not been reaped has none.
  static Mappings ofProcess(pid_t pid);
  // The calling process's own mappings.
  static Mappings ofSelf();

  // The mapping that holds `address`, or null when none does. O(log n).
  Mapping const* find(uintptr_t address) const;

  std::vector<Mapping> const& mappings() const { return mappings_; }
  size_t size() const { return mappings_.size(); }

 private:
  static Mappings ofFile(std::string const& path, std::string const& owner);

  std::vector<Mapping> mappings_;
  // The start of each mapping, apart from the rest so that lookups search a
  // dense array.
  std::vector<uintptr_t> starts_;
};

}  // namespace Tamlo
