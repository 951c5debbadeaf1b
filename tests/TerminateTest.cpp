// What a process prints when it dies of a failure: fatal assertions, the
// terminate handler and the incompatible-library check, each run in a child
// process (tests/helpers/FailureHelper.cpp).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <Tamlo/CheckIncompat.h>

#include "TestSupport.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Every variable that changes what the helper prints, unset so that the
// outputs are exact.
std::vector<std::string> const quiet = {"TRACE", "TRACEFILE", "TRACEFORMAT",
                                        "TAMLO_BACKTRACE_VERBOSITY"};

Tamlo::Test::ChildResult runFailure(std::string const& mode,
                                    std::vector<std::string> const& env = {}) {
  return Tamlo::Test::runHelper("FailureHelper", {mode}, env, quiet);
}

using Tamlo::Test::linesOf;

// True when `text` is nothing but backtrace frames "#0 ...", "#1 ...", each
// on its own line.
bool isBacktrace(std::string const& text) {
  static std::regex const frame(R"(#(\d+) 0x[0-9a-f]{16} .+\+0x[0-9a-f]+ in .+)");
  std::vector<std::string> const lines = linesOf(text);
  if (lines.empty() || text.back() != '\n')
    return false;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch match;
    if (!std::regex_match(lines[i], match, frame) || match[1] != std::to_string(i))
      return false;
  }
  return true;
}

size_t countOf(std::string const& text, std::string const& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

std::string const typeLine = "terminate called after throwing an instance of ";

}  // namespace

TEST(FatalAssertTest, TracesThenPrintsTheReasonAndAborts) {
  auto const result = runFailure("assert", {"TRACEFORMAT=handle,level"});
  // The helper announces "file:line" of the failing assertion.
  std::string const text =
      result.out.substr(0, result.out.find('\n')) + ": Checker::check() value 7 out of range";
  EXPECT_EQ(result.err, "Tamlo 0 " + text + "\nTamlo::Assert aborting because: " + text + "\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(FatalAssertTest, ActiveExceptionIsReportedAfterTheReason) {
  auto const result = runFailure("assertInCatch", {"TRACEFORMAT=handle,level"});
  std::string const text =
      result.out.substr(0, result.out.find('\n')) + ": Checker::check() value 9 out of range";
  EXPECT_EQ(result.err, "Tamlo 0 " + text + "\nTamlo::Assert aborting because: " + text + "\n" +
                            typeLine + "'std::runtime_error'\n  what(): disk full\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(TerminateHandlerTest, LibraryExceptionPrintsItsOwnBacktraceOnce) {
  for (char const* verbosity : {"0", "1"}) {
    SCOPED_TRACE(verbosity);
    auto const result =
        runFailure("runtime", {std::string("TAMLO_BACKTRACE_VERBOSITY=") + verbosity});
    std::string const head = typeLine +
                             "'Tamlo::RuntimeException'\n"
                             "  what(): Tamlo::RuntimeException(\"socket closed\")\n";
    ASSERT_THAT(result.err, StartsWith(head));
    std::string const backtrace = result.err.substr(head.size());
    EXPECT_TRUE(isBacktrace(backtrace)) << backtrace;
    EXPECT_EQ(countOf(backtrace, "#0 "), 1u);
    EXPECT_THAT(backtrace, HasSubstr("FailureProbe::throwRuntime()+0x"));
    EXPECT_EQ(result.signal, SIGABRT);
  }
}

TEST(TerminateHandlerTest, StandardExceptionPrintsWhat) {
  auto const result = runFailure("std");
  EXPECT_EQ(result.err, typeLine + "'std::runtime_error'\n  what(): disk full\n");
  EXPECT_EQ(result.signal, SIGABRT);

  auto const verbose = runFailure("std", {"TAMLO_BACKTRACE_VERBOSITY=1"});
  std::string const head = typeLine + "'std::runtime_error'\n  what(): disk full\n";
  ASSERT_THAT(verbose.err, StartsWith(head));
  EXPECT_TRUE(isBacktrace(verbose.err.substr(head.size()))) << verbose.err;
  EXPECT_THAT(verbose.err, HasSubstr("FailureProbe::throwStd()+0x"));
  EXPECT_EQ(verbose.signal, SIGABRT);
}

TEST(TerminateHandlerTest, OtherTypesPrintOnlyTheType) {
  auto const result = runFailure("int");
  EXPECT_EQ(result.err, typeLine + "'int'\n");
  EXPECT_EQ(result.signal, SIGABRT);

  auto const verbose = runFailure("int", {"TAMLO_BACKTRACE_VERBOSITY=1"});
  ASSERT_THAT(verbose.err, StartsWith(typeLine + "'int'\n"));
  EXPECT_TRUE(isBacktrace(verbose.err.substr(typeLine.size() + 6))) << verbose.err;
  EXPECT_THAT(verbose.err, HasSubstr("FailureProbe::throwInt()+0x"));
  EXPECT_EQ(verbose.signal, SIGABRT);

  // Other verbosities add nothing.
  EXPECT_EQ(runFailure("int", {"TAMLO_BACKTRACE_VERBOSITY=2"}).err, typeLine + "'int'\n");
}

TEST(TerminateHandlerTest, NothingThrownPrintsNothing) {
  auto const result = runFailure("terminate");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.signal, SIGABRT);

  auto const verbose = runFailure("terminate", {"TAMLO_BACKTRACE_VERBOSITY=1"});
  EXPECT_TRUE(isBacktrace(verbose.err)) << verbose.err;
  EXPECT_EQ(verbose.signal, SIGABRT);
}

TEST(TerminateHandlerTest, RunsOnTheThreadThatTerminates) {
  auto const result = runFailure("thread");
  EXPECT_THAT(result.err,
              StartsWith(typeLine + "'Tamlo::RuntimeException'\n"
                                    "  what(): Tamlo::RuntimeException(\"socket closed\")\n#0 "));
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(BacktraceVerbosityTest, ReadFromTheEnvironment) {
  EXPECT_EQ(runFailure("verbosity").out, "0\n");
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY=1"}).out, "1\n");
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY=3"}).out, "3\n");
  // Anything but a whole number counts as unset.
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY=1x"}).out, "0\n");
  EXPECT_EQ(runFailure("verbosity", {"TAMLO_BACKTRACE_VERBOSITY="}).out, "0\n");
}

TEST(CheckIncompatTest, PassesWithOnlyThisLibrary) {
  Tamlo::checkIncompat();
  EXPECT_EQ(platformLibPresenceFlag, Tamlo::PLATFORM_LIB_FLAG_TAMLO);

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
  // The interposition really happened...
  EXPECT_EQ(result.out, "flag 1 from libFailureIncompatFlag.so\n");
  // ...and the library saw it: its C assertion names the broken condition.
  EXPECT_THAT(result.err, StartsWith("FailureHelper: "));
  EXPECT_THAT(result.err, HasSubstr("/Tamlo/CheckIncompat.cpp:"));
  EXPECT_THAT(result.err,
              EndsWith(": void Tamlo::checkIncompat(): Assertion `platformLibPresenceFlag == "
                       "Tamlo::PLATFORM_LIB_FLAG_TAMLO && \"a library incompatible with Tamlo "
                       "has been loaded\"' failed.\n"));
  EXPECT_EQ(result.signal, SIGABRT);
}
