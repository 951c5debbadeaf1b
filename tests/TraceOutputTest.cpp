// Trace lines as written to standard error: level test, bytes, fields, format.
#include <unistd.h>
#include <cstdlib>
#include <regex>

#include <Tamlo/Debug.h>
#include <Tamlo/FmtraceCpp.h>

#include "TestSupport.h"

namespace {

using Tamlo::Platform::dumpDebugMsg;
using Tamlo::Platform::getDebugHandler;
using Tamlo::Platform::setTraceFormat;

class TraceOutputTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("TRACEFILE"))
      GTEST_SKIP() << "trace lines go to TRACEFILE";
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    if (!std::getenv("TRACEFILE"))
      (void)testing::internal::GetCapturedStderr();
    setTraceFormat("date,time,tid,handle,level");
  }
  // What went to standard error since the last call.
  std::string written() {
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
  }
  std::string format() {
    testing::internal::CaptureStdout();
    Tamlo::Platform::printAllTraceFormat();
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(TraceOutputTest, DisabledTraceFormatsNothing) {
  auto const handle = getDebugHandler("ToOff");
  int evaluated = 0;
  TAMLO_TRACE(handle, 4, "{}", ++evaluated);
  handle->enabledIs(4, true);
  TAMLO_TRACE(handle, 4, "{}", ++evaluated);
  TAMLO_TRACE(handle.get(), 5, "{}", ++evaluated);
  EXPECT_EQ(evaluated, 1);  // the enabled level only
}

TEST_F(TraceOutputTest, MessageBytesAreWrittenExactly) {
  Tamlo::Platform::clearTraceFormat();
  auto const handle = getDebugHandler("ToBytes");
  dumpDebugMsg(nullptr, 0, 4, handle.get(), nullptr, nullptr, 0);
  dumpDebugMsg("a\0b", 3, 1, handle.get(), nullptr, nullptr, 0);
  EXPECT_EQ(written(), std::string("\na\0b\n", 5));
  std::string const longText = std::string(5000, 'L') + "!";
  handle->enabledIs(1, true);
  TAMLO_TRACE(handle, 1, "{}", longText);
  EXPECT_TRUE(written() ==
              "TraceOutputTest_MessageBytesAreWrittenExactly_Test::TestBody() " + longText + "\n");
}

TEST_F(TraceOutputTest, EveryFieldInItsPlace) {
  setTraceFormat("func-name,line-info,level,handle,tid,pid,time,date");
  auto const handle = getDebugHandler("ToFields");
  dumpDebugMsg("msg", 3, 7, handle.get(), "/src/lib/Queue.cpp", "push", 42);
  std::string const pid = std::to_string(getpid()), line = written();  // the thread's id too
  std::string const dateTime = R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.(0|[1-9]\d{0,5}) )";
  std::regex const layout(dateTime + pid + " " + pid + R"( ToFields 7 Queue\.cpp:42 push msg\n$)");
  EXPECT_TRUE(std::regex_match(line, layout)) << line;

  // Missing names and handle print as empty fields.
  setTraceFormat("handle,line-info,func-name");
  dumpDebugMsg("m", 1, 0, nullptr, nullptr, nullptr, 9);
  dumpDebugMsg("m", 1, 0, handle.get(), "NoDirectory.cpp", "f", 9);
  EXPECT_EQ(written(), " :9  m\nToFields NoDirectory.cpp:9 f m\n");
  // A stream's text is one line, with the same fields.
  Tamlo::Platform::DebugStream stream;
  stream << "x=" << 5 << ' ' << 2.5;
  handle->dump(stream, 2, "/a/b/file.cpp", 7, "fn");
  EXPECT_EQ(written(), "ToFields file.cpp:7 fn x=5 2.5\n");
}

// An unknown field, a name in the wrong case or "help" leaves the fields as
// they were (known lists: fuzz/TraceFormatFuzz.cpp).
TEST_F(TraceOutputTest, FormatSetters) {
  for (char const* fields : {"tid,date,func-name", "level,nope,tid", "Date", "help"}) {
    setTraceFormat(fields);
    EXPECT_EQ(format(), "1 0 0 1 0 0 0 1\n") << fields;
  }
  std::string const more =
      " is an invalid field in TRACEFORMAT\n"
      "Set TRACEFORMAT=help for more information.\n";
  EXPECT_EQ(written(), "nope" + more + "Date" + more +
                           "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n"
                           "  date\n  time\n  pid\n  tid\n  handle\n  level\n  line-info\n"
                           "  func-name\n");
}

}  // namespace
