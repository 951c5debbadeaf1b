#include <Tamlo/Exception.h>
#include <Tamlo/Platform.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using ::testing::HasSubstr;

template <typename Fn>
std::string assertionText(Fn&& fn) {
  try {
    fn();
  } catch (Tamlo::AssertException const& e) {
    return e.message();
  }
  return "(no assertion)";
}

TEST(EventPriorityTest, NamesAndValidity) {
  EXPECT_EQ(eventPriorityStrictHigh, 0);
  EXPECT_EQ(eventPriorityDefault, 1);
  EXPECT_EQ(sizeof(EventPriority), 1u);
  EXPECT_EQ(eventPriorityToString(eventPriorityStrictHigh), "eventPriorityStrictHigh");
  EXPECT_EQ(eventPriorityToString(eventPriorityDefault), "eventPriorityDefault");
  EXPECT_EQ(eventPriorityToString(static_cast<EventPriority>(2)), "");
  EXPECT_TRUE(isEventPriorityValid(eventPriorityStrictHigh));
  EXPECT_TRUE(isEventPriorityValid(eventPriorityDefault));
  EXPECT_FALSE(isEventPriorityValid(static_cast<EventPriority>(2)));
  EXPECT_FALSE(isEventPriorityValid(static_cast<EventPriority>(255)));
}

TEST(EventPriorityTest, FormatterPrintsNameOrInvalidNumber) {
  EXPECT_EQ(fmt::format("{}", eventPriorityDefault), "eventPriorityDefault");
  EXPECT_EQ(fmt::format("[{}]", eventPriorityStrictHigh), "[eventPriorityStrictHigh]");
  EXPECT_EQ(fmt::format("{}", static_cast<EventPriority>(7)), "Invalid EventPriority=7");
  EXPECT_EQ(fmt::format("{}", static_cast<EventPriority>(255)), "Invalid EventPriority=255");
}

TEST(PlatformSwitchesTest, ReleaseModeIsOffAndRefCountingIsNotAvailable) {
  EXPECT_FALSE(releaseMode());
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  EXPECT_THAT(assertionText([] { refCountingEnabled(); }),
              HasSubstr("Tamlo::Platform::refCountingEnabled() not available in libTamlo.so"));
  EXPECT_THAT(assertionText([] { refCountingEnabledIs(true); }),
              HasSubstr("Tamlo::Platform::refCountingEnabledIs() not available in libTamlo.so"));
}

TEST(PlatformClockTest, TimeIsMonotonicSecondsPlusTheOffset) {
  double const first = Tamlo::time();
  double const second = Tamlo::time();
  EXPECT_GE(second, first);
  EXPECT_GT(first, 0.0);
}

}  // namespace
