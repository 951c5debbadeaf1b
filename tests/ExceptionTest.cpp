#include <atomic>

#include <Tamlo/Assert.h>
#include <Tamlo/Backtrace.h>
#include <Tamlo/TypeName.h>

#include "TestSupport.h"

namespace {

using namespace ::testing;

// Restores the tracker's capacity and contents around a test.
class TrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tamlo::BacktraceTracker::clear();
    Tamlo::BacktraceTracker::capacityIs(Tamlo::BacktraceTracker::defaultCapacity);
  }
  void TearDown() override { SetUp(); }

  static std::vector<std::string> trackedMessages() {
    std::vector<std::string> messages;
    for (auto const& entry : Tamlo::BacktraceTracker::entries())
      messages.push_back(entry.message);
    return messages;
  }
};

[[gnu::noinline]] void throwFromNamedFunction() {
  Tamlo::OutOfRangeException::throwException("index 12 beyond 10");
}

[[gnu::noinline]] Tamlo::Backtrace captureHere() {
  return Tamlo::Backtrace(true);
}

}  // namespace

TEST(ExceptionTest, EveryClassHasItsNameAndIsCaughtAsException) {
  // Without it AssertException::throwException() ends the process.
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  struct {
    char const* name;
    void (*throwException)(std::string const&);
  } const throwers[] = {
      {"Tamlo::Exception", Tamlo::Exception::throwException},
      {"Tamlo::MemoryResourceException", Tamlo::MemoryResourceException::throwException},
      {"Tamlo::NoPermissionException", Tamlo::NoPermissionException::throwException},
      {"Tamlo::UnimplementedException", Tamlo::UnimplementedException::throwException},
      {"Tamlo::InvalidInitializeException", Tamlo::InvalidInitializeException::throwException},
      {"Tamlo::RuntimeException", Tamlo::RuntimeException::throwException},
      {"Tamlo::OutOfRangeException", Tamlo::OutOfRangeException::throwException},
      {"Tamlo::CorruptionDetectedException", Tamlo::CorruptionDetectedException::throwException},
      {"Tamlo::InvalidSizeException", Tamlo::InvalidSizeException::throwException},
      {"Tamlo::AssertException", Tamlo::AssertException::throwException},
  };
  for (auto const& thrower : throwers) {
    SCOPED_TRACE(thrower.name);
    try {
      thrower.throwException("boom");
      FAIL() << "did not throw";
    } catch (Tamlo::Exception const& e) {
      EXPECT_STREQ(e.name(), thrower.name);
      EXPECT_EQ(e.msg(), std::string(thrower.name) + "(\"boom\")");
      EXPECT_EQ(e.message(), "boom");
      EXPECT_EQ(Tamlo::typeName(e), thrower.name);
    }
  }
  EXPECT_THROW(Tamlo::InvalidSizeException::throwException("3"),
               Tamlo::CorruptionDetectedException);
}

TEST(ExceptionTest, WhatIsMsgThenBacktraceBuiltOnce) {
  Tamlo::RuntimeException const e("socket closed");
  char const* const first = e.what();
  EXPECT_EQ(std::string(first), e.msg() + "\n" + e.backtrace().pretty());
  EXPECT_EQ(e.what(), first);  // the cached text itself, not a rebuilt copy
  EXPECT_STREQ(Tamlo::RuntimeException(e).what(), first);
}

// The message is kept verbatim: not a format string, quotes not escaped.
TEST(ExceptionTest, WithoutBacktraceWhatIsMsgAndNewline) {
  Tamlo::Exception const e("{} \"x\" %s\n", false);
  EXPECT_EQ(e.backtrace().frameCount(), 0u);
  EXPECT_EQ(std::string(e.what()), "Tamlo::Exception(\"{} \"x\" %s\n\")\n");
}

TEST(BacktraceTest, StartsAtTheCallerOneFramePerLine) {
  Tamlo::Backtrace const backtrace = captureHere();
  ASSERT_GE(backtrace.frameCount(), 2u);
  EXPECT_TRUE(Tamlo::Test::isBacktrace(backtrace.pretty())) << backtrace.pretty();
  std::vector<std::string> const lines = Tamlo::Test::linesOf(backtrace.pretty());
  ASSERT_EQ(lines.size(), backtrace.frameCount());
  // Not in the dynamic symbol table: named from the executable's own symbols.
  EXPECT_THAT(lines[0], HasSubstr("captureHere()+0x"));
  EXPECT_THAT(lines[0], EndsWith("ExceptionTest"));
  EXPECT_THAT(backtrace.pretty(), Not(HasSubstr("Tamlo::Backtrace::Backtrace")));
  EXPECT_NE(backtrace.pretty().back(), '\n');
}

TEST(BacktraceTest, ExceptionBacktraceStartsWhereItWasMade) {
  try {
    throwFromNamedFunction();
    FAIL() << "did not throw";
  } catch (Tamlo::Exception const& e) {
    std::string const text = e.backtrace().pretty();
    EXPECT_THAT(text, Not(HasSubstr("Tamlo::Exception::Exception")));
    EXPECT_THAT(text, HasSubstr("Tamlo::OutOfRangeException::throwException("));
    EXPECT_THAT(text, HasSubstr("libTamlo.so"));
    // The thrower is reached before the function that called it.
    EXPECT_LT(text.find("throwException("), text.find("throwFromNamedFunction()"));
    EXPECT_THAT(std::string(e.what()),
                StartsWith("Tamlo::OutOfRangeException(\"index 12 beyond 10\")\n#0 0x"));
  }
}

TEST_F(TrackerTest, RecordsEveryExceptionInOrder) {
  Tamlo::RuntimeException const first("first");
  Tamlo::Exception const second("second", false);
  auto const entries = Tamlo::BacktraceTracker::entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].message, "first");
  EXPECT_EQ(entries[0].backtrace.pretty(), first.backtrace().pretty());
  EXPECT_EQ(entries[1].message, "second");
  EXPECT_EQ(entries[1].backtrace.frameCount(), 0u);
}

TEST_F(TrackerTest, RingKeepsTheNewestWhenFullAndWhenShrunk) {
  Tamlo::BacktraceTracker::capacityIs(3);
  for (char const* message : {"a", "b", "c", "d", "e"})
    Tamlo::RuntimeException const e(message);
  EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"c", "d", "e"}));
  Tamlo::BacktraceTracker::capacityIs(2);
  EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"d", "e"}));

  // Growing keeps what is there and makes room for more.
  Tamlo::BacktraceTracker::capacityIs(4);
  for (char const* message : {"f", "g", "h"})
    Tamlo::RuntimeException const e(message);
  EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"e", "f", "g", "h"}));

  // Capacity zero stops tracking.
  Tamlo::BacktraceTracker::capacityIs(0);
  Tamlo::RuntimeException const during("during");
  EXPECT_TRUE(trackedMessages().empty());
}

TEST_F(TrackerTest, ConcurrentExceptionsAndResizes) {
  std::atomic<bool> stop{false};
  std::thread resizer([&] {
    for (size_t capacity = 1; !stop.load(); capacity = capacity % 8 + 1)
      Tamlo::BacktraceTracker::capacityIs(capacity);
  });
  std::vector<std::thread> throwers;
  for (int t = 0; t < 4; ++t)
    throwers.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        try {
          Tamlo::RuntimeException::throwException(std::to_string(t));
        } catch (Tamlo::Exception const& e) {
          ASSERT_EQ(e.message(), std::to_string(t));
        }
      }
    });
  for (auto& thrower : throwers)
    thrower.join();
  stop = true;
  resizer.join();

  Tamlo::BacktraceTracker::capacityIs(5);
  for (int i = 0; i < 5; ++i)
    Tamlo::RuntimeException const e("last");
  EXPECT_EQ(trackedMessages(), std::vector<std::string>(5, "last"));
}
