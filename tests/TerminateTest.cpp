// What a process prints when it dies of a failure, run in a child process
// (tests/helpers/FoundationHelper.cpp).
#include <csignal>

#include "TestSupport.h"

namespace {

using namespace ::testing;

// Every variable that changes what the helper prints is unset or given.
Tamlo::Test::ChildResult runFailure(std::string const& mode,
                                    std::vector<std::string> const& env = {}) {
  return Tamlo::Test::runHelper("FoundationHelper", {mode}, env,
                                {"TRACE", "TRACEFILE", "TRACEFORMAT", "TAMLO_BACKTRACE_VERBOSITY"});
}

std::string const typeLine = "terminate called after throwing an instance of ";
std::string const stdHead = typeLine + "'std::runtime_error'\n  what(): disk full\n";

// Then the terminate handler reports the active exception.
TEST(FatalAssertTest, TracesThenPrintsTheReasonAndAborts) {
  auto const result = runFailure("assertInCatch", {"TRACEFORMAT=handle,level"});
  // The helper announces "file:line" of the failing assertion.
  std::string const text =
      result.out.substr(0, result.out.find('\n')) + ": Checker::check() value 9 out of range";
  EXPECT_EQ(result.err,
            "Tamlo 0 " + text + "\nTamlo::Assert aborting because: " + text + "\n" + stdHead);
  EXPECT_EQ(result.signal, SIGABRT);
}

// What the exception's type allows, then a backtrace: a library exception's
// own (once, at any verbosity, also on another thread), otherwise that of the
// terminating call at verbosity 1 only (a whole number: "1x" is not 1).
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
      {"runtime", "1", runtimeHead, "FailureProbe::throwRuntime()+0x"},
      {"thread", "0", runtimeHead, "FailureProbe::throwRuntime()+0x"},
      {"std", "0", stdHead, nullptr},
      {"std", "1", stdHead, "FailureProbe::throwStd()+0x"},
      {"std", "1x", stdHead, nullptr},
      {"int", "2", typeLine + "'int'\n", nullptr},
      {"terminate", "1", "", "#0 "},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(std::string(row.mode) + " " + row.verbosity);
    auto const result =
        runFailure(row.mode, {std::string("TAMLO_BACKTRACE_VERBOSITY=") + row.verbosity});
    EXPECT_EQ(result.signal, SIGABRT);
    ASSERT_THAT(result.err, StartsWith(row.head));
    std::string const rest = result.err.substr(row.head.size());
    EXPECT_EQ(Tamlo::Test::isBacktrace(rest), row.frame != nullptr) << rest;  // printed once
    EXPECT_THAT(rest, row.frame ? Matcher<std::string>(HasSubstr(row.frame)) : IsEmpty());
  }
}

// Preloaded, another library's flag comes first in dynamic lookup; the
// options keep AddressSanitizer from refusing the preload or its ODR breach.
TEST(CheckIncompatTest, FailsOnlyWhenAnotherLibraryDefinesTheFlag) {
  auto const alone = runFailure("checkIncompat");
  EXPECT_EQ(alone.out + alone.err, "flag 2\ncompatible\n");
  auto const result =
      runFailure("checkIncompat",
                 {std::string("LD_PRELOAD=") + TAMLO_PLUGIN_DIR + "/libFailureIncompatFlag.so",
                  "ASAN_OPTIONS=verify_asan_link_order=0:detect_odr_violation=0"});
  // The interposition happened, and the C assertion names the condition.
  EXPECT_EQ(result.out, "flag 1\n");
  EXPECT_THAT(result.err,
              EndsWith(": void Tamlo::checkIncompat(): Assertion `platformLibPresenceFlag == "
                       "Tamlo::PLATFORM_LIB_FLAG_TAMLO && \"a library incompatible with Tamlo "
                       "has been loaded\"' failed.\n"));
  EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
