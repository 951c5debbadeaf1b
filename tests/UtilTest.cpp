#include <Tamlo/Counters.h>
#include <Tamlo/DisplayPointer.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/TypeName.h>

#include <iomanip>
#include <sstream>

#include "SysTestSupport.h"

namespace {

using Tamlo::IntrospectionMap;
using Tamlo::Test::errorOf;
namespace fs = std::filesystem;
namespace Util = Tamlo::Util;

TEST(UtilTest, Base64EncodeGivesSixCharactersLowGroupFirst) {
  // 1 << 30 places the sixth group, which holds the top two bits.
  std::pair<uint32_t, char const*> const cases[] = {
      {1, "BAAAAA"}, {63, "=AAAAA"}, {1u << 30, "AAAAAB"}, {0x12345678u, "4ZFNSA"}};
  for (auto const& [value, text] : cases)
    EXPECT_EQ(Tamlo::Util::base64Encode(value), text) << value;
}

TEST(UtilTest, DisplayPointerRestoresTheStreamsFormatting) {
  std::ostringstream out;
  out << std::uppercase << std::left << std::setfill('*');
  std::ios_base::fmtflags const flags = out.flags();
  out << Tamlo::DisplayPointer(reinterpret_cast<void const*>(uintptr_t{0xfedcba9876543210})) << " "
      << Tamlo::DisplayPointer(nullptr) << " " << 255 << " " << std::setw(4) << 7;
  EXPECT_EQ(out.flags(), flags);
  EXPECT_EQ(out.str(), "0xfedcba9876543210 NULL 255 7***");
}

TEST(UtilTest, IntrospectionMapInsertsReplacesAndRemovesFromManyThreads) {
  static std::string (*const second)(void const*) = [](void const*) { return std::string(); };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        std::string const name = fmt::format("UtilTest.{}.{}.", t, i);
        IntrospectionMap::insert(name, [](void const*) { return std::string("first"); });
        IntrospectionMap::insert(name, second);
        EXPECT_EQ(IntrospectionMap::lookup(name), second);
        EXPECT_EQ(IntrospectionMap::lookup(name.substr(0, name.size() - 1)), nullptr);
        IntrospectionMap::insert(name, nullptr);
        EXPECT_EQ(IntrospectionMap::lookup(name), nullptr);
      }
    });
  for (auto& thread : threads)
    thread.join();
}

// Demangling is checked with the exception names in ExceptionTest.
TEST(UtilTest, TypeNameReturnsWhatItCannotDemangle) {
  EXPECT_EQ(Tamlo::typeName("not a mangled name"), "not a mangled name");
}

TEST(UtilTest, CountersReachTheCountersPlugin) {
  testing::internal::CaptureStdout();
  Tamlo::Counters counters("serverStats");
  EXPECT_NE(counters.plugin(), nullptr);
  uint64_t requests = 0;
  counters.counter("requests", &requests);
  // A nameless set opens nothing, but still shares the one plugin.
  EXPECT_EQ(Tamlo::Counters(nullptr).plugin(), counters.plugin());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            fmt::format("open serverStats\nadd requests {}\n", static_cast<void*>(&requests)));
}

TEST(UtilTest, CountersWithoutThePluginDoNothing) {
  auto const run = Tamlo::Test::runHelper("DiagHelper", {"counters"}, {"TRACEFORMAT=handle,level"},
                                          {"LD_LIBRARY_PATH", "TRACE", "TRACEFILE"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out + run.err,
            "plugin null\nrequests 7\nTamloPlugin 0 Platform::loadPlugin() Failed to load plugin "
            "VigorCountersPlugin: libVigorCountersPlugin.so: cannot open shared object file: No "
            "such file or directory\n");
}

TEST(UtilFileTest, WriteReplacesAtomicallyAndTheOtherHelpersAct) {
  Tamlo::Test::ScratchDirectory const dir;
  std::string const file = dir / "f";
  Util::writeFile(file, "first", {.fsync = false, .mode = 0640});
  Util::writeFile(file, std::string(100000, 'x'), {.fsync = true, .mode = 0600});
  EXPECT_EQ(Util::readFile(file), std::string(100000, 'x'));
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  Util::truncate(file, 3);
  EXPECT_EQ(Util::fileSize(file), 3u);
  auto const hourAgo = fs::last_write_time(file) - std::chrono::hours(1);
  fs::last_write_time(file, hourAgo);
  Util::touch(file);
  EXPECT_GT(fs::last_write_time(file), hourAgo + std::chrono::minutes(59));
  EXPECT_EQ(Util::readFile(file), "xxx");
  EXPECT_EQ(Util::readLockPid(file), -1);  // unlocked
  EXPECT_TRUE(Util::remove(file) && !Util::remove(file));
  EXPECT_NE(Util::readFile("/proc/self/status").find("Pid:"), std::string::npos);  // no size
}

TEST(UtilFileTest, FailuresNameThePathAndTheErrorAndLeakNothing) {
  Tamlo::Test::ScratchDirectory const dir;
  std::string const d = dir.path();
  fs::create_directories(d + "/full/sub");
  std::string const none = d + "/none", missing = ": No such file or directory";
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { Util::readFile(none); }, "open " + none + missing},
      {[&] { Util::readFile(d); }, "read " + d + ": Is a directory"},
      {[&] { Util::writeFile(d + "/no/f", "x"); },
       "create " + d + "/no/f.tmp.[0-9]+.[0-9]+" + missing},
      {[&] { Util::writeFile(d + "/full", "x"); },
       "rename to " + d + "/full " + d + "/full.tmp.[0-9]+.[0-9]+: Is a directory"},
      {[&] { Util::remove(d + "/full"); }, "remove " + d + "/full: Directory not empty"},
  };
  for (auto const& [call, message] : cases)
    EXPECT_THAT(errorOf(call), testing::MatchesRegex("Tamlo::RuntimeException: " + message));
  EXPECT_EQ(std::distance(fs::directory_iterator(d), {}), 1);  // temporaries removed

  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to run a child as another user";
  Util::writeFile(d + "/secret", "x", {.mode = 0600});
  auto const asNobody = [&] {
    return errorOf([&] { Util::readFile(d + "/secret"); }) ==
           "Tamlo::NoPermissionException: open " + d + "/secret: Permission denied";
  };
  EXPECT_EQ(Tamlo::Test::runInChild(asNobody, true).exitCode, 1);
}

TEST(UtilFileTest, MkpathCreatesEveryMissingDirectoryAndReportsLikeMkdir) {
  Tamlo::Test::ScratchDirectory const dir;
  Util::touch(dir / "file");
  mode_t const oldMask = ::umask(022);
  std::tuple<std::string, bool, int> const cases[] = {
      {dir / "a/b/c", false, 0},     {dir / "a/b/c", false, EEXIST},
      {dir / "a/b/c", true, 0},      {dir / "a//b///d/", false, 0},
      {dir / "file", true, ENOTDIR}, {dir / "file/x", false, ENOTDIR},
      {"", false, EEXIST},
  };
  for (auto const& [path, existingIsOk, error] : cases) {
    int const result = Util::mkpath(path, 0777, existingIsOk);
    EXPECT_EQ(std::pair(result, result ? errno : 0), std::pair(error ? -1 : 0, error)) << path;
  }
  ::umask(oldMask);
  EXPECT_EQ(fs::status(dir / "a/b").permissions(), fs::perms(0755));
  EXPECT_TRUE(fs::is_directory(dir / "a/b/d"));
}

TEST(UtilFileTest, TrimpathCleansLexically) {
  std::string cleaned;
  for (char const* path :
       {"", "/", "a//b/./c/", "/../a/..", "../../a", "a/b/../../..", "/x/./y/../z"})
    cleaned += Util::trimpath(path) + " ";
  EXPECT_EQ(cleaned, ". / a/b/c / ../../a .. /x/z ");
}

// Reading /proc/locks for a real file is in FileLockTest.
TEST(UtilLockPidTest, ParsesHoldingLocksOfTheFileOnly) {
  // The holder of a lock another waits for; open file locks (pid -1) in either listing.
  std::pair<char const*, std::optional<pid_t>> const cases[] = {
      {"1: POSIX ADVISORY WRITE 5 fd:01:7 0 EOF\n1: -> POSIX ADVISORY WRITE 6 fd:01:7 0 EOF", 5},
      {"1: FLOCK ADVISORY WRITE 7 fd:01:70 0 EOF\n2: OFDLCK ADVISORY READ -1 fd:01:7 0 EOF", -1},
      {"pos:\t0\nlock:\t1: OFDLCK ADVISORY  WRITE -1 fd:01:7 0 EOF\n", -1},
      {"1: POSIX ADVISORY WRITE 5 fd:02:7 0 EOF\n1: POSIX ADVISORY WRITE x fd:01:7 0 EOF", {}},
      {"garbage\n\n: : : : : :\n1: LEASE ACTIVE READ 9 <none>:0 0 EOF", {}},
  };
  for (auto const& [text, pid] : cases)
    EXPECT_EQ(Util::parseLockPid(text, 0xfd, 1, 7), pid) << text;
}

}  // namespace
