// Memory mappings from /proc/<pid>/maps and the type names of objects in
// another process: the parser on good and malformed text, lookups, and the
// readers against a child holding objects of known types.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Exception.h>
#include <Tamlo/Mappings.h>
#include <Tamlo/RemoteTypeName.h>

#include "TestSupport.h"

extern char** environ;

namespace {

using Tamlo::Mapping;
using Tamlo::Mappings;
using ::testing::EndsWith;
using ::testing::HasSubstr;

// The message of the exception of type E that `body` throws.
template <typename E, typename Body>
std::string thrownMessage(Body&& body) {
  try {
    body();
  } catch (E const& e) {
    return e.message();
  } catch (Tamlo::Exception const& e) {
    return std::string("wrong class: ") + e.name() + ": " + e.message();
  }
  return "(nothing thrown)";
}

size_t openDescriptorCount() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// DiagHelper's "objects" run: a live process that has printed the address
// of each of its objects and waits for its standard input to close.
class ObjectsChild {
 public:
  ObjectsChild() {
    int toChild[2], fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    std::string const path = Tamlo::Test::helperPath("DiagHelper");
    char const* argv[] = {path.c_str(), "objects", nullptr};
    int const error = posix_spawn(&pid_, path.c_str(), &actions, nullptr,
                                  const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(toChild[0]);
    close(fromChild[1]);
    input_ = toChild[1];
    if (error != 0)
      throw std::runtime_error("posix_spawn failed");
    FILE* const output = fdopen(fromChild[0], "r");
    char line[128], label[64];
    void* address;
    while (std::fgets(line, sizeof line, output) && std::strcmp(line, "ready\n") != 0)
      if (std::sscanf(line, "%63s %p", label, &address) == 2)
        addresses_[label] = reinterpret_cast<uintptr_t>(address);
    std::fclose(output);
  }
  ~ObjectsChild() { finish(); }

  // Lets the child exit and reaps it: its pid is then gone.
  void finish() {
    if (input_ >= 0) {
      close(input_);
      input_ = -1;
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  uintptr_t address(std::string const& label) const { return addresses_.at(label); }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  std::map<std::string, uintptr_t> addresses_;
};

}  // namespace

TEST(MappingsParseTest, WellFormedLinesGiveEveryField) {
  struct Case {
    std::string line;
    Mapping expected;
  };
  std::vector<Case> const cases = {
      {"00400000-00452000 r-xp 00001000 08:02 173521      /usr/bin/dbus-daemon",
       {0x400000, 0x452000, "r-xp", 0x1000, 8, 2, 173521, "/usr/bin/dbus-daemon"}},
      // Anonymous memory: the kernel leaves a blank after the inode.
      {"7f040e1a0000-7f040e1c2000 rw-p 00000000 00:00 0 ",
       {0x7f040e1a0000, 0x7f040e1c2000, "rw-p", 0, 0, 0, 0, ""}},
      {"7f040e1a0000-7f040e1c2000 ---p 00000000 00:00 0",
       {0x7f040e1a0000, 0x7f040e1c2000, "---p", 0, 0, 0, 0, ""}},
      {"1000-2000 rw-s 0 00:05 7  /tmp/a file (deleted)",
       {0x1000, 0x2000, "rw-s", 0, 0, 5, 7, "/tmp/a file (deleted)"}},
      {"ffffffffff600000-ffffffffff601000 --xp 0000abcd 103:fffff 18446744073709551615 [vsyscall]",
       {0xffffffffff600000, 0xffffffffff601000, "--xp", 0xabcd, 0x103, 0xfffff, UINT64_MAX,
        "[vsyscall]"}},
  };
  for (Case const& row : cases) {
    SCOPED_TRACE(row.line);
    Mappings const parsed = Mappings::parse(row.line);
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed.mappings()[0], row.expected);
  }
}

TEST(MappingsParseTest, MalformedLinesAreNamedWithTheirProblem) {
  std::string const good = "1000-2000 r-xp 0 08:01 1 /lib/x\n";
  struct Case {
    std::string text;
    std::string message;
  };
  std::vector<Case> const cases = {
      {good + "\n", "maps text: line 2: empty line: \"\""},
      {"zz-2000 r-xp 0 0:0 0", "line 1: bad address range: \"zz-2000 r-xp 0 0:0 0\""},
      {"10000000000000000-2 r-xp 0 0:0 0", "line 1: bad address range"},
      {"1000-1000 r-xp 0 0:0 0", "line 1: range start not below its end"},
      {"1000-2000 rwxq 0 0:0 0", "line 1: bad permissions"},
      {"1000-2000  r-xp 0 0:0 0", "line 1: bad permissions"},
      {"1000-2000 r-xp g 0:0 0", "line 1: bad offset"},
      {"1000-2000 r-xp 0 08 0", "line 1: bad device"},
      {"1000-2000 r-xp 0 0:0 x", "line 1: bad inode"},
      {"1000-2000 r-xp 0 0:0 18446744073709551616", "line 1: bad inode"},
      {"1000-2000 r-xp 0 0:0 12/lib/x", "line 1: bad path separator"},
      {good + "1800-3000 r-xp 0 0:0 0", "line 2: overlaps or precedes the mapping before it"},
      // Quotes, backslashes and unprintable bytes are escaped, long lines cut.
      {std::string("\x01\xff\"\\\0", 5), "line 1: bad address range: \"\\x01\\xff\\\"\\\\\\x00\""},
      {std::string(100, 'q'), "bad address range: \"" + std::string(80, 'q') + "...\""},
  };
  for (Case const& row : cases) {
    SCOPED_TRACE(row.text);
    EXPECT_THAT(
        thrownMessage<Tamlo::CorruptionDetectedException>([&] { Mappings::parse(row.text); }),
        HasSubstr(row.message));
  }
  EXPECT_EQ(thrownMessage<Tamlo::CorruptionDetectedException>(
                [] { Mappings::parse("x", "/proc/7/maps"); }),
            "/proc/7/maps: line 1: bad address range: \"x\"");
}

TEST(MappingsFindTest, FindsTheMappingHoldingAnAddress) {
  Mappings const mappings =
      Mappings::parse("1000-2000 r--p 0 0:0 0\n2000-3000 r--p 0 0:0 0\n5000-6000 r--p 0 0:0 0");
  struct Case {
    uintptr_t address;
    int index;  // -1: none
  };
  std::vector<Case> const cases = {{0, -1},     {0xfff, -1},  {0x1000, 0},      {0x1fff, 0},
                                   {0x2000, 1}, {0x2fff, 1},  {0x3000, -1},     {0x4fff, -1},
                                   {0x5fff, 2}, {0x6000, -1}, {UINTPTR_MAX, -1}};
  for (Case const& row : cases) {
    SCOPED_TRACE(row.address);
    Mapping const* const found = mappings.find(row.address);
    EXPECT_EQ(found, row.index < 0 ? nullptr : &mappings.mappings()[row.index]);
  }
  EXPECT_EQ(Mappings::parse("").find(0x1000), nullptr);
  int onTheStack = 0;
  EXPECT_EQ(Mappings::ofSelf().find(reinterpret_cast<uintptr_t>(&onTheStack))->path, "[stack]");
}

TEST(RemoteTypeNameTest, NamesObjectsOfAChildProcess) {
  ObjectsChild child;
  Mappings const mappings = Mappings::ofProcess(child.pid());
  struct Case {
    char const* label;
    std::string typeName;
  };
  std::vector<Case> const cases = {
      // In the executable's full symbol table, placed by its load bias.
      {"circle", "diag::Circle"},
      {"box", "diag::Box<int>"},
      {"labelledAsNamed", "diag::Labelled"},
      // In the dynamic symbol tables of shared objects.
      {"libraryException", "Tamlo::RuntimeException"},
      {"standardException", "std::runtime_error"},
  };
  for (Case const& row : cases) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(Tamlo::remoteTypeName(child.pid(), child.address(row.label), mappings), row.typeName);
  }
}

TEST(RemoteTypeNameTest, WordsThatAreNoVtablePointersAreReported) {
  ObjectsChild child;
  pid_t const pid = child.pid();
  auto notAVtable = [&](char const* label) {
    return thrownMessage<Tamlo::RuntimeException>(
        [&] { Tamlo::remoteTypeName(pid, child.address(label)); });
  };
  EXPECT_EQ(
      notAVtable("plainNumber"),
      fmt::format("pid {}: the word 0x2a at {:#x} is not a vtable pointer: no mapping holds it",
                  pid, child.address("plainNumber")));
  // Counted after the first exception, whose backtrace opens the unwinder's
  // lasting descriptors.
  size_t descriptors = openDescriptorCount();
  EXPECT_THAT(notAVtable("stackPointer"),
              EndsWith("is not a vtable pointer: it points into [stack]"));
  EXPECT_THAT(notAVtable("functionPointer"),
              HasSubstr(fmt::format("is not a vtable pointer: no vtable symbol of {} covers",
                                    Tamlo::Test::helperPath("DiagHelper"))));
  EXPECT_EQ(thrownMessage<Tamlo::OutOfRangeException>([&] { Tamlo::remoteTypeName(pid, 8); }),
            fmt::format("pid {}: cannot read the word at 0x8: Bad address", pid));

  Mappings const mappings = Mappings::ofProcess(pid);
  child.finish();
  --descriptors;  // the child's input
  EXPECT_EQ(thrownMessage<Tamlo::RuntimeException>(
                [&] { Tamlo::remoteTypeName(pid, child.address("circle"), mappings); }),
            fmt::format("pid {}: cannot read the word at {:#x}: No such process", pid,
                        child.address("circle")));
  std::string const gone = fmt::format(
      "cannot read the mappings of pid {0}: /proc/{0}/maps: No such file or directory", pid);
  EXPECT_EQ(thrownMessage<Tamlo::RuntimeException>([&] { Mappings::ofProcess(pid); }), gone);
  EXPECT_EQ(thrownMessage<Tamlo::RuntimeException>(
                [&] { Tamlo::remoteTypeName(pid, child.address("circle")); }),
            gone);
  EXPECT_EQ(openDescriptorCount(), descriptors);
}
