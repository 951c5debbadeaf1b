#include <Tamlo/DirNode.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include <Tamlo/Errno.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/UniqueFd.h>
#include <Tamlo/Util.h>

namespace Tamlo {

namespace {

DirEntryType typeOf(mode_t mode) {
  if (S_ISREG(mode))
    return DirEntryType::file;
  if (S_ISDIR(mode))
    return DirEntryType::directory;
  if (S_ISLNK(mode))
    return DirEntryType::symlink;
  return DirEntryType::other;
}

}  // namespace

char const* dirEntryTypeName(DirEntryType type) {
  switch (type) {
    case DirEntryType::file:
      return "file";
    case DirEntryType::directory:
      return "directory";
    case DirEntryType::symlink:
      return "symlink";
    case DirEntryType::other:
      return "other";
  }
  return "other";
}

std::string DirError::message() const {
  return fmt::format("{}: {}", path, Tamlo::strerror(error));
}

void DirNode::walk(std::function<void(DirEntry const&)> const& visit) {
  errors_.clear();
  std::vector<Directory> open;
  walkDirectory(root_, 0, open, visit, true);
}

std::vector<DirEntry> DirNode::entries() {
  std::vector<DirEntry> found;
  walk([&found](DirEntry const& entry) { found.push_back(entry); });
  return found;
}

void DirNode::errorIs(std::string const& path, int error) {
  errors_.push_back({path, error});
  TAMLO_TRACE(Impl::utilTrace(), 2, "error: {}", errors_.back().message());
}

void DirNode::walkDirectory(std::string const& path, unsigned depth, std::vector<Directory>& open,
                            std::function<void(DirEntry const&)> const& visit, bool isRoot) {
  std::vector<std::string> names;
  struct stat directoryStatus;
  {
    int const fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      if (isRoot)
        Util::throwSystemError("opendir", path, errno);
      return errorIs(path, errno);
    }
    Impl::UniqueFd owner(fd);
    DIR* const directory = ::fstat(fd, &directoryStatus) == 0 ? ::fdopendir(fd) : nullptr;
    if (directory == nullptr) {
      if (isRoot)
        Util::throwSystemError("opendir", path, errno);
      return errorIs(path, errno);
    }
    owner.release();  // closedir closes it now
    errno = 0;
    while (dirent const* entry = ::readdir(directory)) {
      std::string_view const name = entry->d_name;
      if (name != "." && name != "..")
        names.emplace_back(name);
    }
    int const readError = errno;
    ::closedir(directory);
    if (readError != 0)
      errorIs(path, readError);
  }
  std::sort(names.begin(), names.end());

  // A symlink loop leads back to a directory still being walked.
  for (Directory const& ancestor : open)
    if (ancestor.device == directoryStatus.st_dev && ancestor.inode == directoryStatus.st_ino)
      return errorIs(path, ELOOP);
  open.push_back({directoryStatus.st_dev, directoryStatus.st_ino});

  std::string const prefix = path.ends_with('/') ? path : path + '/';
  for (std::string const& name : names) {
    DirEntry entry{prefix + name, name, DirEntryType::other, depth};
    struct stat status;
    int const flags = followSymlinks_ ? 0 : AT_SYMLINK_NOFOLLOW;
    if (::fstatat(AT_FDCWD, entry.path.c_str(), &status, flags) != 0) {
      int const error = errno;
      errorIs(entry.path, error);
      // A dangling symlink is still an entry, though it leads nowhere.
      if (!followSymlinks_ || ::lstat(entry.path.c_str(), &status) != 0)
        continue;
    }
    entry.type = typeOf(status.st_mode);
    if (filter_ && !filter_(entry))
      continue;
    visit(entry);
    if (recursive_ && entry.type == DirEntryType::directory)
      walkDirectory(entry.path, depth + 1, open, visit, false);
  }
  open.pop_back();
}

}  // namespace Tamlo
