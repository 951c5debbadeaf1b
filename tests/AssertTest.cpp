#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <Tamlo/Assert.h>
#include <Tamlo/Debug.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>

#include "TestSupport.h"

// Call sites of every shape whose class and function the assertion text must
// name. Each records the line of its assertion in `failLine`.
int failLine = 0;

namespace AssertProbe {

class Widget {
 public:
  explicit Widget(int size) {
    failLine = __LINE__ + 1;
    TAMLO_ASSERT(size > 0, "size {} not positive", size);
  }
  void check(int value) const {
    failLine = __LINE__ + 1;
    TAMLO_ASSERT(value < 10, "value {} too big", value);
  }

  class Part {
   public:
    static void inspect() {
      failLine = __LINE__ + 1;
      TAMLO_ASSERT_FAIL("nested {}", "class");
    }
  };
};

template <typename T>
class Box {
 public:
  void put(T value) {
    failLine = __LINE__ + 1;
    TAMLO_ASSERT(value != T(), "empty value in a {}", "box");
  }
};

template <typename T>
T pick(T value) {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT(value > T(1), "picked {}", value);
  return value;
}

void freeFunction(int code) {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT(code == 0, "code {}", code);
}

namespace Inner {
void deeper() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT(false, "deep");
}
}  // namespace Inner

namespace {
void hidden() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT(false, "hidden {}", 1);
}
class Local {
 public:
  void run() {
    failLine = __LINE__ + 1;
    TAMLO_ASSERT(false, "local");
  }
};
}  // namespace

void explicitScope() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT_IN("Tamlo::Platform", false, "named {}", "scope");
}

}  // namespace AssertProbe

void globalFunction() {
  failLine = __LINE__ + 1;
  TAMLO_ASSERT(false, "at global scope");
}

namespace {

using Tamlo::Test::assertionText;

using ::testing::HasSubstr;

std::string at(int line) {
  return std::string(__FILE__) + ":" + std::to_string(line) + ": ";
}

// Trace lines as "<handle> <level> <text>" for the duration of a test; the
// lines written are collected from standard error.
class AssertTextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tamlo::Platform::setTraceFormat("handle,level");
    ::testing::internal::CaptureStderr();
  }
  void TearDown() override {
    if (!captured_)
      ::testing::internal::GetCapturedStderr();
    Tamlo::Platform::setTraceFormat("date,time,tid,handle,level");
  }
  std::string traced() {
    captured_ = true;
    return ::testing::internal::GetCapturedStderr();
  }

  // The text of the assertion that `body` ends in, with its "file:line: "
  // prefix removed once checked against the line recorded in failLine.
  template <typename Body>
  static std::string failureAt(Body body) {
    std::string const text = assertionText(body);
    std::string const location = at(failLine);
    EXPECT_EQ(text.substr(0, location.size()), location);
    return text.substr(0, location.size()) == location ? text.substr(location.size()) : text;
  }

 private:
  bool captured_ = false;
};

}  // namespace

TEST_F(AssertTextTest, MemberFunctionsNameTheirClass) {
  AssertProbe::Widget const widget(1);
  EXPECT_EQ(failureAt([&] { widget.check(12); }), "Widget::check() value 12 too big");
  EXPECT_EQ(failureAt([] { AssertProbe::Widget(0); }), "Widget::Widget() size 0 not positive");
  EXPECT_EQ(failureAt([] { AssertProbe::Widget::Part::inspect(); }),
            "Part::inspect() nested class");
}

TEST_F(AssertTextTest, TemplatesNameTheTemplateWithoutArguments) {
  EXPECT_EQ(failureAt([] { AssertProbe::Box<int>().put(0); }), "Box::put() empty value in a box");
  EXPECT_EQ(failureAt([] { AssertProbe::pick(1.0); }), "AssertProbe::pick() picked 1");
}

TEST_F(AssertTextTest, FreeFunctionsNameTheirNamespace) {
  EXPECT_EQ(failureAt([] { AssertProbe::freeFunction(3); }), "AssertProbe::freeFunction() code 3");
  EXPECT_EQ(failureAt([] { AssertProbe::Inner::deeper(); }), "Inner::deeper() deep");
  // An anonymous namespace is seen through to the namespace around it.
  EXPECT_EQ(failureAt([] { AssertProbe::hidden(); }), "AssertProbe::hidden() hidden 1");
  EXPECT_EQ(failureAt([] { AssertProbe::Local().run(); }), "Local::run() local");
  EXPECT_EQ(failureAt([] { AssertProbe::explicitScope(); }),
            "Tamlo::Platform::explicitScope() named scope");
  // Nothing encloses it: file, line and message only.
  EXPECT_EQ(failureAt([] { globalFunction(); }), "at global scope");
}

TEST_F(AssertTextTest, TracedOnceAtLevelZeroOnTheDefaultHandle) {
  std::string const text = assertionText([] { AssertProbe::freeFunction(5); });
  EXPECT_EQ(traced(), "Tamlo 0 " + text + "\n");
}

TEST_F(AssertTextTest, TracedEvenWhenTheDefaultHandleIsSilenced) {
  bool const level0 = TAMLO_DEFAULT_HANDLE->enabled(0);
  bool const level1 = TAMLO_DEFAULT_HANDLE->enabled(1);
  TAMLO_DEFAULT_HANDLE->enabledIs(0, false);
  TAMLO_DEFAULT_HANDLE->enabledIs(1, false);
  ASSERT_FALSE(TAMLO_DEFAULT_HANDLE->enabled(0));
  std::string const text = assertionText([] { AssertProbe::freeFunction(6); });
  TAMLO_DEFAULT_HANDLE->enabledIs(0, level0);
  TAMLO_DEFAULT_HANDLE->enabledIs(1, level1);
  EXPECT_EQ(traced(), "Tamlo 0 " + text + "\n");
}

TEST_F(AssertTextTest, ThrownExceptionCarriesTheTextAndABacktrace) {
  Tamlo::Test::ThrowOnAssert const throwOnAssert;
  try {
    AssertProbe::freeFunction(7);
    FAIL() << "no assertion";
  } catch (Tamlo::AssertException const& e) {
    EXPECT_EQ(e.msg(),
              "Tamlo::AssertException(\"" + at(failLine) + "AssertProbe::freeFunction() code 7\")");
    // freeFunction() itself may be inlined into the test.
    EXPECT_THAT(std::string(e.what()),
                HasSubstr("ThrownExceptionCarriesTheTextAndABacktrace_Test::TestBody()+0x"));
  }
}

TEST_F(AssertTextTest, StreamAssertionPrefixesFileFunctionAndLine) {
  auto const handle = Tamlo::Platform::getDebugHandler("AssertProbeStream");
  ASSERT_FALSE(handle->enabled(3));
  Tamlo::Platform::DebugStream stream;
  stream << "queue depth " << 42;
  std::string const text = assertionText(
      [&] { Tamlo::debugAndThrowAssertException(*handle, 3, stream, "Queue.cpp", "push", 17); });
  EXPECT_EQ(text, "Queue.cpp:push:17: queue depth 42");
  // On the caller's handle at the caller's level, whatever its levels.
  EXPECT_EQ(traced(), "AssertProbeStream 3 " + text + "\n");
}

TEST_F(AssertTextTest, StreamAssertionWithoutFileNameHasNoText) {
  auto const handle = Tamlo::Platform::getDebugHandler("AssertProbeStream");
  Tamlo::Platform::DebugStream stream;
  stream << "lost";
  // A null name sets the new stream's bad bit: nothing after it is written.
  EXPECT_EQ(assertionText([&] {
              Tamlo::debugAndThrowAssertException(*handle, 0, stream, nullptr, "push", 17);
            }),
            "");
}

TEST(StrerrorTest, SystemTextAndErrnoUntouched) {
  errno = ENOSPC;
  EXPECT_STREQ(Tamlo::strerror(EINVAL), "Invalid argument");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_STREQ(Tamlo::strerror(0), "Success");
  EXPECT_STREQ(Tamlo::strerror(98765), "Unknown error 98765");
  EXPECT_EQ(errno, ENOSPC);
}

TEST(StrerrorTest, EachThreadHasItsOwnBuffer) {
  char const* const mine = Tamlo::strerror(98765);
  std::thread([] { EXPECT_STREQ(Tamlo::strerror(-4321), "Unknown error -4321"); }).join();
  EXPECT_STREQ(mine, "Unknown error 98765");
}
