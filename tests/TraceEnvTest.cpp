// Tracing as TRACE, TRACEFORMAT and TRACEFILE set it up at load, in a child process.
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "SysTestSupport.h"

namespace {

using Tamlo::Test::ChildResult;
using Tamlo::Test::linesOf;
// Runs the helper with exactly the trace variables in `env` set.
ChildResult helper(std::vector<std::string> const& args, std::vector<std::string> const& env = {}) {
  return Tamlo::Test::runHelper("FoundationHelper", args, env,
                                {"TRACE", "TRACEFORMAT", "TRACEFILE"});
}

std::string readFile(std::string const& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

std::string const dateTime = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.(?:0|[1-9]\d{0,5}) )";

// The default gives the library's handles levels 0 and 1. TRACE can only add:
// clearing-looking entries leave the default alone.
TEST(TraceEnvTest, TraceAddsToTheDefault) {
  struct Row {
    std::vector<std::string> env, levelsOf;
    char const* out;
  } const rows[] = {
      {{}, {"levels", "Tamlo", "TamloUtil", "Tam"}, "Tamlo/01\nTamloUtil/01\nTam/\n"},
      {{"TRACE=Tamlo*/*"}, {"levels", "TamloUtil", "Other"}, "TamloUtil/*\nOther/\n"},
      {{"TRACE=Tamlo/,Tamlo*/"}, {"levels", "Tamlo"}, "Tamlo/01\n"},
      {{"TRACE=Tamlo/9"}, {"levels", "Tamlo"}, "Tamlo/019\n"},
  };
  for (Row const& row : rows) {
    ChildResult const r = helper(row.levelsOf, row.env);
    EXPECT_EQ(r.out + r.err, row.out);
  }
}

// Fields in a fixed order whatever the list's (all: TraceOutputTest; the
// default: the threads' lines below); the main thread's id is the pid.
TEST(TraceEnvTest, LinesCarryTheFieldsTheFormatNames) {
  ChildResult const r =
      helper({"trace", "opened /tmp/x"}, {"TRACEFORMAT=pid,date", "TRACE=Tamlo/2"});
  std::string const head = R"(\d{4}-\d\d-\d\d )" + linesOf(r.out).at(0) + " ";  // out: the pid
  std::regex const lines("^" + head + "opened /tmp/x\n" + head + "level two: opened /tmp/x\n$");
  EXPECT_TRUE(std::regex_match(r.err, lines)) << r.err;
}

// A trace file that refuses the lines (disk full) costs the lines and one
// report on standard error, nothing else: the program goes on.
TEST(TraceEnvTest, AFullTraceFileIsReportedOnceAndTheProgramGoesOn) {
  ChildResult const r = helper({"trace", "one", "two"}, {"TRACEFILE=/dev/full"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err,
            "Error writing TRACEFILE=/dev/full: No space left on device; trace lines are lost\n");
}

// Opened truncated at load, and a changed TRACEFILE at the next setup. One
// that does not open is reported, sends the lines to standard error, and is
// tried again at each setup until its directory exists.
TEST(TraceEnvTest, TraceFileIsTruncatedReopenedWhenChangedAndFallsBackToStandardError) {
  Tamlo::Test::ScratchDirectory const dir;
  auto const report = [](std::string const& path) {
    return "Error opening TRACEFILE=" + path + "\nDefaulting to std::cerr for trace output.\n";
  };
  std::ofstream(dir / "first.log") << "left over from an earlier run\n";
  ChildResult const r = helper({"retarget", dir / "a/second.log", dir / "a"},
                               {"TRACEFILE=" + dir / "first.log", "TRACEFORMAT=level"});
  EXPECT_EQ(r.err, report(dir / "a/second.log"));
  EXPECT_EQ(readFile(dir / "first.log"), "0 before\n");
  EXPECT_EQ(readFile(dir / "a/second.log"), "0 after\n");

  // Reported once at load although two settings strings apply there.
  std::string const path = dir / "b/trace.log";
  ChildResult const late =
      helper({"retarget", path, dir / "b"}, {"TRACEFILE=" + path, "TRACEFORMAT=handle"});
  EXPECT_EQ(late.err, report(path) + "Tamlo before\n" + report(path));
  EXPECT_EQ(readFile(path), "Tamlo after\n");
}

TEST(TraceEnvTest, LinesFromManyThreadsNeverInterleave) {
  Tamlo::Test::ScratchDirectory const dir;
  ChildResult const r = helper({"threads", "4", "2000"}, {"TRACEFILE=" + dir / "threads.log"});
  EXPECT_EQ(r.err, "");
  std::regex const whole("^" + dateTime + R"((\d+) TamloThreads 1 <t(\d) n(\d+) x{400} t\2 n\3>$)");
  std::vector<std::string> const lines = linesOf(readFile(dir / "threads.log"));
  ASSERT_EQ(lines.size(), 4u * 2000);
  std::map<int, int> nextPerThread;
  // Each thread's lines appear whole, once, and in the order it wrote them.
  for (std::smatch m; std::string const& line : lines) {
    ASSERT_TRUE(std::regex_match(line, m, whole)) << line;
    EXPECT_EQ(std::stoi(m[3]), nextPerThread[std::stoi(m[2])]++);
  }
}

}  // namespace
