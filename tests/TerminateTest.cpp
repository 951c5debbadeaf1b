// What a process prints when it dies of a failure: fatal assertions, the
// terminate handler and the incompatible-library check, each run in a child
// process (tests/helpers/FoundationHelper.cpp).
#include <csignal>

#include "TestSupport.h"

namespace {

using namespace ::testing;

// Every variable that changes what the helper prints is unset or given, so
// that the outputs are exact.
Tamlo::Test::ChildResult runFailure(std::string const& mode,
                                    std::vector<std::string> const& env = {}) {
  return Tamlo::Test::runHelper("FoundationHelper", {mode}, env,
                                {"TRACE", "TRACEFILE", "TRACEFORMAT", "TAMLO_BACKTRACE_VERBOSITY"});
}

std::string const typeLine = "terminate called after throwing an instance of ";
std::string const stdHead = typeLine + "'std::runtime_error'\n  what(): disk full\n";

TEST(FatalAssertTest, TracesThenPrintsTheReasonAndAborts) {
  // An active exception is reported after the reason.
  for (auto const& [mode, value, tail] :
       {std::tuple<char const*, char const*, std::string>{"assert", "7", ""},
        {"assertInCatch", "9", stdHead}}) {
    auto const result = runFailure(mode, {"TRACEFORMAT=handle,level"});
    // The helper announces "file:line" of the failing assertion.
    std::string const text = result.out.substr(0, result.out.find('\n')) +
                             ": Checker::check() value " + value + " out of range";
    EXPECT_EQ(result.err,
              "Tamlo 0 " + text + "\nTamlo::Assert aborting because: " + text + "\n" + tail);
    EXPECT_EQ(result.signal, SIGABRT);
  }
}

// What the exception's type allows, then a backtrace: a library exception's
// own (once, at any verbosity, also on another thread), otherwise that of the
// terminating call at verbosity 1 only.
TEST(TerminateHandlerTest, PrintsTheTypeWhatItCanAndABacktrace) {
  std::string const runtimeHead = typeLine +
                                  "'Tamlo::RuntimeException'\n"
                                  "  what(): Tamlo::RuntimeException(\"socket closed\")\n";
  struct Row {
    char const* mode;
    char const* verbosity;
    std::string head;
    char const* frame;  // null: no backtrace
  } const rows[] = {
      {"runtime", "0", runtimeHead, "FailureProbe::throwRuntime()+0x"},
      {"runtime", "1", runtimeHead, "FailureProbe::throwRuntime()+0x"},
      {"thread", "0", runtimeHead, "FailureProbe::throwRuntime()+0x"},
      {"std", "0", stdHead, nullptr},
      {"std", "1", stdHead, "FailureProbe::throwStd()+0x"},
      {"int", "0", typeLine + "'int'\n", nullptr},
      {"int", "1", typeLine + "'int'\n", "FailureProbe::throwInt()+0x"},
      {"int", "2", typeLine + "'int'\n", nullptr},
      {"terminate", "0", "", nullptr},
      {"terminate", "1", "", "#0 "},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(std::string(row.mode) + " " + row.verbosity);
    auto const result =
        runFailure(row.mode, {std::string("TAMLO_BACKTRACE_VERBOSITY=") + row.verbosity});
    EXPECT_EQ(result.signal, SIGABRT);
    ASSERT_THAT(result.err, StartsWith(row.head));
    std::string const rest = result.err.substr(row.head.size());
    if (row.frame == nullptr) {
      EXPECT_EQ(rest, "");
    } else {
      EXPECT_TRUE(Tamlo::Test::isBacktrace(rest)) << rest;  // numbered from 0: printed once
      EXPECT_THAT(rest, HasSubstr(row.frame));
    }
  }
}

TEST(BacktraceVerbosityTest, ReadFromTheEnvironmentAsAWholeNumber) {
  EXPECT_EQ(runFailure("verbosity").out, "0\n");
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY=3"}).out, "3\n");
  // Anything but a whole number counts as unset.
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY=1x"}).out, "0\n");
}

TEST(CheckIncompatTest, PassesWithOnlyThisLibrary) {
  auto const result = runFailure("checkIncompat");
  EXPECT_EQ(result.out, "flag 2 from libTamlo.so.0\ncompatible\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

TEST(CheckIncompatTest, AnotherDefinitionOfTheFlagFailsTheCheck) {
  // The preloaded library's definition comes first in dynamic lookup. Under
  // AddressSanitizer the preload would otherwise be refused for coming before
  // the sanitizer's runtime, and the second definition reported as the ODR
  // violation it deliberately is.
  auto const result =
      runFailure("checkIncompat",
                 {std::string("LD_PRELOAD=") + TAMLO_PLUGIN_DIR + "/libFailureIncompatFlag.so",
                  "ASAN_OPTIONS=verify_asan_link_order=0:detect_odr_violation=0"});
  // The interposition really happened, and the library saw it: its C
  // assertion names the broken condition.
  EXPECT_EQ(result.out, "flag 1 from libFailureIncompatFlag.so\n");
  EXPECT_THAT(result.err, StartsWith("FoundationHelper: "));
  EXPECT_THAT(result.err, HasSubstr("/Tamlo/CheckIncompat.cpp:"));
  EXPECT_THAT(result.err,
              EndsWith(": void Tamlo::checkIncompat(): Assertion `platformLibPresenceFlag == "
                       "Tamlo::PLATFORM_LIB_FLAG_TAMLO && \"a library incompatible with Tamlo "
                       "has been loaded\"' failed.\n"));
  EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
