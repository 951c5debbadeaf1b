#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/Platform.h>

#include "TestSupport.h"

namespace {

using namespace Tamlo::Platform;
using ::testing::HasSubstr;

using Tamlo::Test::assertionText;

// Formatting goes through both the validity check and the names.
TEST(EventPriorityTest, FormatsTheNameOrTheInvalidNumber) {
  auto const invalid = static_cast<EventPriority>(2);
  EXPECT_EQ(fmt::format("{} {}", eventPriorityStrictHigh, eventPriorityDefault),
            "eventPriorityStrictHigh eventPriorityDefault");
  EXPECT_EQ(fmt::format("{}", invalid), "Invalid EventPriority=2");
  EXPECT_EQ(eventPriorityToString(invalid), "");
}

TEST(PlatformSwitchesTest, RefCountingIsNotAvailable) {
  EXPECT_THAT(assertionText([] { refCountingEnabledIs(true); }),
              HasSubstr("Tamlo::Platform::refCountingEnabledIs() not available in libTamlo.so"));
}

std::string renderPoint(void const* value) {
  auto const* const point = static_cast<int32_t const*>(value);
  return fmt::format("Point({}, {})", point[0], point[1]);
}
std::string renderNothing(void const*) {
  return "";
}

TEST(ValuePrinterTest, RegisteredRendererWinsOtherwiseHex) {
  int32_t const point[2] = {3, -1};
  Tamlo::IntrospectionMap::insert("PlatformTest::Point", renderPoint);
  Tamlo::IntrospectionMap::insert("PlatformTest::Silent", renderNothing);

  auto const printer = getValuePrinter("PlatformTest::Point", sizeof point);
  EXPECT_EQ(printer->toString(point), "Point(3, -1)");

  uint32_t const word = 0x12345678;
  auto const unknown = getValuePrinter("PlatformTest::Unknown", sizeof word);
  EXPECT_EQ(unknown->customToString(&word), "");
  EXPECT_EQ(unknown->toString(&word), "78 56 34 12");
  EXPECT_EQ(getValuePrinter("PlatformTest::Silent", 2)->toString(&word), "78 56");
  EXPECT_EQ(unknown->toString(nullptr), "NULL");
  Tamlo::IntrospectionMap::insert("PlatformTest::Point", nullptr);
  Tamlo::IntrospectionMap::insert("PlatformTest::Silent", nullptr);
  EXPECT_EQ(printer->toString(point), "03 00 00 00 ff ff ff ff");
}

}  // namespace
