// Walks a directory tree: every entry under a root directory, with its type,
// in name order, a directory before its contents.
//
// Symlinks are reported as symlinks and not followed unless asked; when they
// are, an entry's type is that of its target (a dangling one stays a
// symlink, with an error), and a symlink back to a directory being walked (a
// loop) is reported as the error ELOOP instead of being walked again. An
// entry that cannot be examined or a directory that cannot be read is
// reported in errors() (and traced at level 2 on "TamloUtil"); the walk goes
// on with the rest. Only a root that cannot be read throws, as the file
// helpers of Util.h do. Descriptors are close-on-exec, and only one is open
// at a time whatever the depth.
//
// Threads: one walker belongs to one thread; distinct walkers are
// independent.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Tamlo {

enum class DirEntryType { file, directory, symlink, other };

// "file", "directory", "symlink" or "other".
char const* dirEntryTypeName(DirEntryType type);

struct DirEntry {
  std::string path;  // the root, '/' and the names down to the entry
  std::string name;
  DirEntryType type;
  unsigned depth;  // 0 for the root's own entries
};

struct DirError {
  std::string path;
  int error;  // the errno value
  // "{path}: {strerror(error)}"
  std::string message() const;
};

class DirNode {
 public:
  // Decides whether an entry is visited; a directory that is not is not
  // entered either.
  using Filter = std::function<bool(DirEntry const&)>;

  explicit DirNode(std::string root) : root_(std::move(root)) {}

  void recursiveIs(bool recursive) { recursive_ = recursive; }
  void followSymlinksIs(bool follow) { followSymlinks_ = follow; }
  void filterIs(Filter filter) { filter_ = std::move(filter); }

  // Calls `visit` for every entry that the filter accepts. Clears the errors
  // of an earlier walk first.
  void walk(std::function<void(DirEntry const&)> const& visit);
  // The entries walk() would visit, in its order.
  std::vector<DirEntry> entries();
  std::vector<DirError> const& errors() const { return errors_; }

 private:
  struct Directory {
    dev_t device;
    ino_t inode;
  };

  void walkDirectory(std::string const& path, unsigned depth, std::vector<Directory>& open,
                     std::function<void(DirEntry const&)> const& visit, bool isRoot);
  void errorIs(std::string const& path, int error);

  std::string root_;
  bool recursive_ = false;
  bool followSymlinks_ = false;
  Filter filter_;
  std::vector<DirError> errors_;
};

}  // namespace Tamlo
