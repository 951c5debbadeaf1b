// Assertion texts and where they are traced; how call sites are named: FmtTest.
#include <cerrno>

#include <Tamlo/Assert.h>
#include <Tamlo/Debug.h>
#include <Tamlo/Errno.h>

#include "TestSupport.h"

// Each records the line of its assertion in `failLine`.
int failLine = 0;

namespace AssertProbe {

struct Widget {
  void check(int value) const {
    failLine = __LINE__ + 1;
    TAMLO_ASSERT(value < 10, "value {} too big", value);
  }
};

void explicitScope() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT_IN("Tamlo::Platform", false, "named {}", "scope");
}

}  // namespace AssertProbe

void globalFunction() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT_FAIL("at global scope");
}

namespace {

using Tamlo::Test::assertionText;

// The text `fail` asserts with, and the lines it traced as "<handle> <level> <text>".
std::pair<std::string, std::string> failAndTrace(std::function<void()> const& fail) {
  Tamlo::Platform::setTraceFormat("handle,level");
  testing::internal::CaptureStderr();
  std::string const text = assertionText(fail);
  std::pair<std::string, std::string> result{text, testing::internal::GetCapturedStderr()};
  Tamlo::Platform::setTraceFormat("date,time,tid,handle,level");
  return result;
}

// Traced once, at level 0 on the default handle, even when that is silenced.
TEST(AssertTextTest, TextIsFileLineScopeAndMessageAndIsTraced) {
  struct Row {
    void (*fail)();
    char const* text;
  } const rows[] = {
      {[] { AssertProbe::Widget().check(12); }, "Widget::check() value 12 too big"},
      {[] { AssertProbe::explicitScope(); }, "Tamlo::Platform::explicitScope() named scope"},
      {[] { globalFunction(); }, "at global scope"},  // nothing encloses it
  };
  bool const level0 = TAMLO_DEFAULT_HANDLE->enabled(0);
  TAMLO_DEFAULT_HANDLE->enabledIs(0, false);
  for (Row const& row : rows) {
    auto const [text, traced] = failAndTrace(row.fail);  // sets failLine
    EXPECT_EQ(text, __FILE__ ":" + std::to_string(failLine) + ": " + row.text);
    EXPECT_EQ(traced, "Tamlo 0 " + text + "\n");
  }
  TAMLO_DEFAULT_HANDLE->enabledIs(0, level0);
}

TEST(AssertTextTest, StreamAssertionPrefixesFileFunctionAndLine) {
  auto const handle = Tamlo::Platform::getDebugHandler("AssertProbeStream");  // no levels
  Tamlo::Platform::DebugStream stream;
  stream << "queue depth " << 42;
  auto const [text, traced] = failAndTrace(
      [&] { Tamlo::debugAndThrowAssertException(*handle, 3, stream, "Queue.cpp", "push", 17); });
  EXPECT_EQ(text, "Queue.cpp:push:17: queue depth 42");
  // On the caller's handle at the caller's level, whatever its levels.
  EXPECT_EQ(traced, "AssertProbeStream 3 " + text + "\n");
}

TEST(StrerrorTest, SystemTextErrnoUntouchedAndABufferPerThread) {
  errno = ENOSPC;
  char const* const mine = Tamlo::strerror(98765);
  EXPECT_EQ(errno, ENOSPC);
  std::thread([] { EXPECT_STREQ(Tamlo::strerror(-4321), "Unknown error -4321"); }).join();
  EXPECT_STREQ(mine, "Unknown error 98765");
}

}  // namespace
