#include <Tamlo/DirNode.h>

#include "SysTestSupport.h"

namespace {

using Tamlo::DirEntry;
using Tamlo::DirNode;
namespace fs = std::filesystem;

// Each entry as "relative-path:type:depth ", then each error as "| path: text ".
std::string walkOf(DirNode& walker, std::string const& root) {
  std::string text;
  walker.walk([&](DirEntry const& entry) {
    text += fmt::format("{}:{}:{} ", entry.path.substr(root.size() + 1),
                        Tamlo::dirEntryTypeName(entry.type), entry.depth);
  });
  for (auto const& error : walker.errors())
    text += "| " + error.message().substr(root.size() + 1) + " ";
  return text;
}

TEST(DirNodeTest, WalksInNameOrderFollowingItsSwitchesAndReportsWhatItCannotOpen) {
  Tamlo::Test::ScratchDirectory const scratch;
  fs::create_directories(scratch / "sub/inner");
  Tamlo::Util::touch(scratch / "a.txt");
  Tamlo::Util::touch(scratch / "sub/deep.txt");
  fs::create_directory_symlink("sub", scratch / "link");
  fs::create_symlink("missing", scratch / "dangling");
  fs::create_directory_symlink(".", scratch / "loop");
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  std::string const top = "a.txt:file:0 dangling:symlink:0 fifo:other:0 ";
  std::string const links = top + "link:symlink:0 loop:symlink:0 ";
  std::string const sub = "sub:directory:0 sub/deep.txt:file:1 sub/inner:directory:1 ";
  std::tuple<bool, bool, bool, std::string> const cases[] = {
      // recursive, follow symlinks, filter "sub" out
      {false, false, false, links + "sub:directory:0 "},
      {true, false, true, links},
      {true, false, false, links + sub},
      {true, true, false,
       top + "link:directory:0 link/deep.txt:file:1 link/inner:directory:1 loop:directory:0 " +
           sub +
           "| dangling: No such file or directory | loop: Too many levels of symbolic links "},
  };
  for (auto const& [recursive, follow, skipSub, walk] : cases) {
    DirNode walker(scratch.path());
    walker.recursiveIs(recursive);
    walker.followSymlinksIs(follow);
    if (skipSub)
      walker.filterIs([](DirEntry const& entry) { return entry.name != "sub"; });
    int const descriptors = Tamlo::Test::openDescriptorCount();
    EXPECT_EQ(walkOf(walker, scratch.path()), walk) << recursive << follow << skipSub;
    EXPECT_EQ(Tamlo::Test::openDescriptorCount(), descriptors);
  }
  for (std::string const error : {"none: No such file or directory", "a.txt: Not a directory"})
    EXPECT_EQ(Tamlo::Test::errorOf(
                  [&] { DirNode(scratch / error.substr(0, error.find(':'))).entries(); }),
              "Tamlo::RuntimeException: opendir " + scratch / error);

  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to run a child as another user";
  fs::permissions(scratch / "sub/inner", fs::perms::owner_all);
  auto const asNobody = [&] {  // an unreadable directory below the root
    DirNode walker(scratch / "sub");
    walker.recursiveIs(true);
    return walkOf(walker, scratch / "sub") ==
           "deep.txt:file:0 inner:directory:0 | inner: Permission denied ";
  };
  EXPECT_EQ(Tamlo::Test::runInChild(asNobody, true).exitCode, 1);
}

}  // namespace
