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
    EXPECT_EQ(r.out, row.out);
    EXPECT_EQ(r.err, "");
  }
}

// The fields appear in a fixed order whatever the order of the list (all of
// them: TraceOutputTest). The main thread's id is the pid; level 2 is off by
// default.
TEST(TraceEnvTest, LinesCarryTheFieldsTheFormatNames) {
  std::string const date = R"(\d{4}-\d\d-\d\d )";
  struct Row {
    std::vector<std::string> env;
    std::string lines;  // a regex; PID stands for the pid
  } const rows[] = {
      {{}, "^" + dateTime + "PID Tamlo 1 opened /tmp/x\n" + dateTime + "PID Tamlo 1 \n$"},
      {{"TRACEFORMAT=pid,date", "TRACE=Tamlo/2"},
       "^" + date + "PID opened /tmp/x\n" + date + "PID level two: opened /tmp/x\n" + date +
           "PID \n" + date + "PID level two: \n$"},
  };
  for (Row const& row : rows) {
    ChildResult const r = helper({"trace", "opened /tmp/x", ""}, row.env);
    ASSERT_EQ(r.exitCode, 0);
    std::string const pattern =
        std::regex_replace(row.lines, std::regex("PID"), linesOf(r.out).at(0));
    EXPECT_TRUE(std::regex_match(r.err, std::regex(pattern))) << r.err;
  }
}

// A trace file that refuses the lines (disk full) costs the lines and one
// report on standard error, nothing else: the program goes on.
TEST(TraceEnvTest, AFullTraceFileIsReportedOnceAndTheProgramGoesOn) {
  ChildResult const r = helper({"trace", "one", "two"}, {"TRACEFILE=/dev/full"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err,
            "Error writing TRACEFILE=/dev/full: No space left on device; trace lines are lost\n");
  EXPECT_EQ(linesOf(r.out).size(), 1u) << r.out;  // the pid, printed before the traces
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
  int const threads = 4, perThread = 2000;
  ChildResult const r = helper({"threads", std::to_string(threads), std::to_string(perThread)},
                               {"TRACEFILE=" + dir / "threads.log"});
  EXPECT_EQ(r.err, "");
  std::regex const whole("^" + dateTime + R"((\d+) TamloThreads 1 <t(\d) n(\d+) x{400} t\2 n\3>$)");
  std::vector<std::string> const lines = linesOf(readFile(dir / "threads.log"));
  ASSERT_EQ(lines.size(), static_cast<size_t>(threads * perThread));
  std::map<int, int> nextPerThread;
  // Each thread's lines appear whole, once, and in the order it wrote them.
  for (std::smatch m; std::string const& line : lines) {
    ASSERT_TRUE(std::regex_match(line, m, whole)) << line;
    EXPECT_EQ(std::stoi(m[3]), nextPerThread[std::stoi(m[2])]++);
  }
}

}  // namespace
