// Exception texts and the backtrace an exception carries.
#include <Tamlo/Assert.h>
#include <Tamlo/Backtrace.h>
#include <Tamlo/TypeName.h>
#include <algorithm>

#include "TestSupport.h"

namespace {

using namespace ::testing;

[[gnu::noinline]] void throwFromNamedFunction() {
  Tamlo::OutOfRangeException::throwException("index 12 beyond 10");
}

TEST(ExceptionTest, EveryClassHasItsNameAndIsCaughtAsException) {
  Tamlo::Test::ThrowOnAssert const throwOnAssert;  // else AssertException ends the process
#define TAMLO_ROW(Class) {"Tamlo::" #Class, Tamlo::Class::throwException}
  std::pair<char const*, void (*)(std::string const&)> const throwers[] = {
      TAMLO_ROW(Exception),
      TAMLO_ROW(MemoryResourceException),
      TAMLO_ROW(NoPermissionException),
      TAMLO_ROW(UnimplementedException),
      TAMLO_ROW(InvalidInitializeException),
      TAMLO_ROW(RuntimeException),
      TAMLO_ROW(OutOfRangeException),
      TAMLO_ROW(CorruptionDetectedException),
      TAMLO_ROW(InvalidSizeException),
      TAMLO_ROW(AssertException)};
#undef TAMLO_ROW
  for (auto const& [name, throwException] : throwers) {
    try {
      throwException("boom");
      ADD_FAILURE() << name << " did not throw";
    } catch (Tamlo::Exception const& e) {
      EXPECT_STREQ(e.name(), name);
      EXPECT_EQ(e.msg(), std::string(name) + "(\"boom\")");
      EXPECT_EQ(Tamlo::typeName(e), name);
    }
  }
  EXPECT_THROW(Tamlo::InvalidSizeException::throwException("3"),
               Tamlo::CorruptionDetectedException);
}

// what() is msg(), a newline and the backtrace, built once. The message is
// kept verbatim: not a format string, quotes not escaped.
TEST(ExceptionTest, WhatIsMsgThenTheBacktraceBuiltOnce) {
  Tamlo::RuntimeException const e("socket closed");
  char const* const first = e.what();
  EXPECT_EQ(std::string(first), e.msg() + "\n" + e.backtrace().pretty());
  EXPECT_EQ(e.what(), first);  // the cached text itself, not a rebuilt copy
  EXPECT_STREQ(Tamlo::RuntimeException(e).what(), first);
  Tamlo::Exception const bare("{} \"x\" %s\n", false);
  EXPECT_EQ(std::string(bare.what()), "Tamlo::Exception(\"{} \"x\" %s\n\")\n");
}

// One frame a line from where the exception was made, each named from its
// object's symbols: this executable's local functions too.
TEST(BacktraceTest, ExceptionBacktraceStartsWhereItWasMade) {
  try {
    throwFromNamedFunction();
    FAIL() << "did not throw";
  } catch (Tamlo::Exception const& e) {
    std::string const text = e.backtrace().pretty();
    EXPECT_TRUE(Tamlo::Test::isBacktrace(text)) << text;
    std::vector<std::string> const lines = Tamlo::Test::linesOf(text);
    EXPECT_EQ(lines.size(), e.backtrace().frameCount());
    EXPECT_THAT(text, Not(HasSubstr("Tamlo::Exception::Exception")));
    // Unoptimised builds keep the derived class's constructor as a frame.
    auto const thrower = std::find_if(lines.begin(), lines.end(), [](std::string const& line) {
      return line.find("Tamlo::OutOfRangeException::throwException(") != std::string::npos;
    });
    ASSERT_LT(thrower - lines.begin(), 2) << text;
    EXPECT_THAT(*thrower, EndsWith("libTamlo.so.0"));
    ASSERT_NE(thrower + 1, lines.end());
    EXPECT_THAT(thrower[1], HasSubstr("throwFromNamedFunction()+0x"));
    EXPECT_THAT(thrower[1], EndsWith("ExceptionTest"));
  }
}

}  // namespace
