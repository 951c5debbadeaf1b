#include <Tamlo/Mappings.h>
#include <Tamlo/RemoteTypeName.h>

#include "SysTestSupport.h"

// Vtables kept only in the executable's full symbol table, placed by its load bias.
namespace diag {

struct Named {
  virtual ~Named() = default;
};
// Its Named part starts with a pointer into the middle of its vtable group.
struct Labelled : std::exception, Named {};

}  // namespace diag

namespace {

using Tamlo::Mappings;
using Tamlo::Test::errorOf;
using ::testing::HasSubstr;

uintptr_t at(void const* object) {
  return reinterpret_cast<uintptr_t>(object);
}

struct Objects {
  diag::Labelled labelled;
  Tamlo::RuntimeException libraryException{"made in the test"};
  uintptr_t plainNumber = 42, stackPointer = at(__builtin_frame_address(0)),
            functionPointer = reinterpret_cast<uintptr_t>(&at);
};

}  // namespace

TEST(MappingsParseTest, WellFormedLinesGiveEveryField) {
  std::pair<std::string, Tamlo::Mapping> const cases[] = {
      // Anonymous memory: the kernel leaves a blank after the inode.
      {"7f040e1a0000-7f040e1c2000 rw-p 00000000 00:00 0 ",
       {0x7f040e1a0000, 0x7f040e1c2000, "rw-p", 0, 0, 0, 0, ""}},
      {"1000-2000 rw-s 00001000 08:05 7  /tmp/a file (deleted)",
       {0x1000, 0x2000, "rw-s", 0x1000, 8, 5, 7, "/tmp/a file (deleted)"}},
      {"ffffffffff600000-ffffffffff601000 --xp 0000abcd 103:fffff "
       "18446744073709551615 [vsyscall]",
       {0xffffffffff600000, 0xffffffffff601000, "--xp", 0xabcd, 0x103, 0xfffff, UINT64_MAX,
        "[vsyscall]"}},
  };
  for (auto const& [line, expected] : cases)
    EXPECT_EQ(Mappings::parse(line).mappings(), std::vector{expected}) << line;
}

TEST(MappingsParseTest, MalformedLinesAreNamedWithTheirProblem) {
  std::string const good = "1000-2000 r-xp 0 08:01 1 /lib/x\n";
  std::pair<std::string, std::string> const cases[] = {
      {good + "\n", "maps text: line 2: empty line: \"\""},
      {"zz-2000 r-xp 0 0:0 0", "line 1: bad address range: \"zz-2000 r-xp 0 0:0 0\""},
      {"1000-1000 r-xp 0 0:0 0", "line 1: range start not below its end"},
      {"1000-2000 rwxq 0 0:0 0", "line 1: bad permissions"},
      {"1000-2000 r-xp 0 08 0", "line 1: bad device"},
      {"1000-2000 r-xp 0 0:0 12/lib/x", "line 1: bad path separator"},
      {good + "1800-3000 r-xp 0 0:0 0", "line 2: overlaps or precedes the mapping before it"},
      // Quotes, backslashes and unprintable bytes are escaped, long lines cut.
      {std::string("\x01\xff\"\\\0", 5), "line 1: bad address range: \"\\x01\\xff\\\"\\\\\\x00\""},
      {std::string(100, 'q'), "bad address range: \"" + std::string(80, 'q') + "...\""},
  };
  for (auto const& [text, message] : cases)
    EXPECT_THAT(errorOf([&] { Mappings::parse(text); }),
                AllOf(testing::StartsWith("Tamlo::CorruptionDetectedException: maps text: line "),
                      HasSubstr(message)))
        << text;
}

TEST(MappingsFindTest, FindsTheMappingHoldingAnAddress) {
  Mappings const maps = Mappings::parse("1000-2000 r--p 0 0:0 0\n2000-3000 r--p 0 0:0 0");
  EXPECT_EQ(maps.find(0x1fff), &maps.mappings()[0]);
  EXPECT_EQ(maps.find(0x2000), &maps.mappings()[1]);  // where one ends, the next starts
  EXPECT_EQ(maps.find(0x3000), nullptr);
  int onTheStack = 0;
  EXPECT_EQ(Mappings::ofSelf().find(at(&onTheStack))->path, "[stack]");
}

TEST(RemoteTypeNameTest, NamesObjectsOfAChildAndReportsWordsThatAreNoVtablePointers) {
  static Objects const o;  // made before the fork: the child holds them at the same addresses
  auto child = std::make_optional<Tamlo::Test::LiveChild>([] {});
  pid_t const pid = child->pid();
  Mappings const mappings = Mappings::ofProcess(pid);
  std::pair<void const*, char const*> const cases[] = {
      {static_cast<diag::Named const*>(&o.labelled), "diag::Labelled"},
      {&o.libraryException, "Tamlo::RuntimeException"},  // a shared object's dynamic symbols
  };
  for (auto const& [object, typeName] : cases)
    EXPECT_EQ(Tamlo::remoteTypeName(pid, at(object), mappings), typeName) << typeName;

  std::string const exe = std::filesystem::read_symlink("/proc/self/exe");
  uintptr_t const number = at(&o.plainNumber);
  std::pair<uintptr_t, std::string> const notTyped[] = {
      {number, fmt::format("0x2a at {:#x} is not a vtable pointer: no mapping holds it", number)},
      {at(&o.stackPointer), "is not a vtable pointer: it points into [stack]"},
      {at(&o.functionPointer), "is not a vtable pointer: no vtable symbol of " + exe + " covers"},
      {8, "OutOfRangeException: pid " + std::to_string(pid) + ": cannot read the word at 0x8: Bad"},
  };
  for (auto const& [address, message] : notTyped)
    EXPECT_THAT(errorOf([&] { Tamlo::remoteTypeName(pid, address); }), HasSubstr(message));

  child.reset();  // a word of a process gone, then its mappings
  EXPECT_THAT(
      errorOf([&] { Tamlo::remoteTypeName(pid, at(&o.labelled), mappings); }),
      testing::EndsWith(fmt::format("the word at {:#x}: No such process", at(&o.labelled))));
  EXPECT_EQ(errorOf([&] { Tamlo::remoteTypeName(pid, at(&o.labelled)); }),
            fmt::format("Tamlo::RuntimeException: cannot read the mappings of pid {0}: "
                        "/proc/{0}/maps: No such file or directory",
                        pid));
}
