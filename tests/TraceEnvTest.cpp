// Tracing as configured by the environment at load time: TRACE, TRACEFORMAT
// and TRACEFILE, observed through the helper program in a child process.
#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "TestSupport.h"

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

// A scratch directory, removed with everything in it.
class TempDir {
 public:
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = [] {
    char pattern[] = "/tmp/TraceEnvTest.XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
};

std::string const dateTime = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.(?:0|[1-9]\d{0,5}) )";

// The default gives the library's handles levels 0 and 1. TRACE can only add:
// clearing-looking entries leave the default alone.
TEST(TraceEnvTest, TraceAddsToTheDefault) {
  struct Row {
    std::vector<std::string> env, levelsOf;
    char const* out;
  } const rows[] = {
      {{},
       {"levels", "Tamlo", "TamloUtil", "TamloLibevent", "MyApp", "Tam"},
       "Tamlo/01\nTamloUtil/01\nTamloLibevent/01\nMyApp/\nTam/\n"},
      {{"TRACE=Tamlo*/*"}, {"levels", "TamloUtil", "Other"}, "TamloUtil/*\nOther/\n"},
      {{"TRACE=MyApp/5,MyApp/7"}, {"levels", "MyApp", "MyAppX"}, "MyApp/57\nMyAppX/\n"},
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
// them, and none: TraceOutputTest). The main thread's id is the pid; level 2 is off by
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

// The flags printed are date, time, pid, tid, handle, level, line-info,
// func-name. A format with an unknown field changes nothing (its message:
// TraceOutputTest); empty fields are skipped.
TEST(TraceEnvTest, TraceFormatSetsTheFieldsAtLoad) {
  struct Row {
    char const* format;
    char const* flags;
    char const* err;  // its beginning
  } const rows[] = {
      {"TRACEFORMAT=date,bogus", "1 1 0 1 1 1 0 0\n", "bogus is"},
      {"TRACEFORMAT=Date", "1 1 0 1 1 1 0 0\n", "Date is"},  // names are exact
      {"TRACEFORMAT=help", "1 1 0 1 1 1 0 0\n",
       "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n"
       "  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n"},
      {"TRACEFORMAT=", "0 0 0 0 0 0 0 0\n", ""},
      {"TRACEFORMAT=,level,,tid,", "0 0 0 1 0 1 0 0\n", ""},
  };
  for (Row const& row : rows) {
    ChildResult const r = helper({"format"}, {row.format});
    EXPECT_EQ(r.out, row.flags) << row.format;
    EXPECT_EQ(r.err.rfind(row.err, 0), 0u) << row.format << ": " << r.err;
    EXPECT_EQ(*row.err == '\0', r.err.empty()) << row.format;
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

TEST(TraceEnvTest, UnopenableTraceFileFallsBackToStandardErrorUntilItOpens) {
  TempDir dir;
  std::string const path = dir.file("later") + "/trace.log";
  std::string const report =
      "Error opening TRACEFILE=" + path + "\nDefaulting to std::cerr for trace output.\n";
  ChildResult const r =
      helper({"retarget", path, dir.file("later")}, {"TRACEFILE=" + path, "TRACEFORMAT=handle"});
  EXPECT_EQ(r.exitCode, 0);
  // Once at load although it applies two settings strings, then at each setup
  // until the directory exists.
  EXPECT_EQ(r.err, report + "Tamlo before\n" + report);
  EXPECT_EQ(readFile(path), "Tamlo after\n");
}

TEST(TraceEnvTest, TraceFileIsTruncatedAndAChangedOneOpenedAtTheNextSetup) {
  TempDir dir;
  std::ofstream(dir.file("first.log")) << "left over from an earlier run\n";
  ChildResult const r = helper({"retarget", dir.file("second.log")},
                               {"TRACEFILE=" + dir.file("first.log"), "TRACEFORMAT=level"});
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(readFile(dir.file("first.log")), "0 before\n");
  EXPECT_EQ(readFile(dir.file("second.log")), "0 after\n");

  ChildResult const failed =
      helper({"retarget", "/nonexistent-dir/x.log"}, {"TRACEFILE=" + dir.file("third.log")});
  EXPECT_TRUE(
      std::regex_match(failed.err, std::regex("^Error opening TRACEFILE=/nonexistent-dir/x.log\n"
                                              "Defaulting to std::cerr for trace output.\n" +
                                              dateTime + "\\d+ Tamlo 0 after\n$")))
      << failed.err;
}

TEST(TraceEnvTest, LinesFromManyThreadsNeverInterleave) {
  TempDir dir;
  int const threads = 4, perThread = 2000;
  ChildResult const r = helper({"threads", std::to_string(threads), std::to_string(perThread)},
                               {"TRACEFILE=" + dir.file("threads.log")});
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err, "");

  std::regex const whole("^" + dateTime + R"((\d+) TamloThreads 1 <t(\d) n(\d+) x{400} t\2 n\3>$)");
  std::vector<std::string> const lines = linesOf(readFile(dir.file("threads.log")));
  ASSERT_EQ(lines.size(), static_cast<size_t>(threads * perThread));
  std::map<int, int> nextPerThread;
  // Each thread's lines appear whole, once, and in the order it wrote them.
  for (std::smatch m; std::string const& line : lines) {
    ASSERT_TRUE(std::regex_match(line, m, whole)) << line;
    EXPECT_EQ(std::stoi(m[3]), nextPerThread[std::stoi(m[2])]++);
  }
  for (int t = 0; t < threads; ++t)
    EXPECT_EQ(nextPerThread[t], perThread);
}

}  // namespace
