// Message builders, and the names a call site is attributed to.
#include <Tamlo/Assert.h>
#include <Tamlo/Fmt.h>

#include "TestSupport.h"

namespace {

using Tamlo::Impl::SourceScope;

std::string where(SourceScope const& scope) {
  std::string const func = scope.funcName();
  return scope.hasClass() ? std::string(scope.className()) + "::" + func : func;
}

}  // namespace

// "Class::function" as a trace or assertion from this call site names it.
#define WHERE() where(::Tamlo::Impl::SourceScope(__PRETTY_FUNCTION__, __func__))

namespace Probe {

std::string lastDestroyed;

struct Widget {
  // Outside any function: attributed to the class, as the lambda itself.
  std::string madeInLambda = [] { return WHERE(); }();
  std::string seen;

  Widget() : seen(WHERE()) {}
  ~Widget() { lastDestroyed = WHERE(); }
  std::string operator<(int) const {
    return WHERE() + " " + [] { return WHERE(); }();
  }
  explicit operator int() { return (seen = WHERE()).size(); }
};

template <typename T>
struct Box {
  std::string get() const { return WHERE(); }
};

template <typename T>
std::string freeTemplate(T) {
  return WHERE();
}

namespace {
std::string hidden() {
  return WHERE();
}
}  // namespace

}  // namespace Probe

namespace {

std::string anonymousOnly() {
  return WHERE();
}

// Members by class, lambdas by the function around them, templates without
// arguments, free functions by namespace bar anonymous ones, long names cut.
TEST(FmtTest, CallSitesAreNamedByClassOrNamespaceAndFunction) {
  Probe::Widget w;
  { Probe::Widget(); }
  std::pair<std::string, std::string> const rows[] = {
      {w.seen, "Widget::Widget"},
      {Probe::lastDestroyed, "Widget::~Widget"},
      {w.madeInLambda, "Widget::operator()"},
      {w < 1, "Widget::operator< Widget::operator<"},
      {(static_cast<void>(static_cast<int>(w)), w.seen), "Widget::operator int"},
      {Probe::Box<std::string>().get(), "Box::get"},
      {[] { return WHERE(); }(),
       "FmtTest_CallSitesAreNamedByClassOrNamespaceAndFunction_Test::TestBody"},
      {Probe::freeTemplate(3), "Probe::freeTemplate"},
      {Probe::hidden(), "Probe::hidden"},
      {anonymousOnly(), "anonymousOnly"},
      {where(SourceScope("", "loco", nullptr)), "loco"},
      {where(SourceScope("Box<int>", "get", nullptr)), "Box::get"},
      {SourceScope(std::string(300, 'n').c_str(), "f", nullptr).className(), std::string(127, 'n')},
  };
  for (auto const& [named, expected] : rows)
    EXPECT_EQ(named, expected);
}

// A class-scoped message puts "Class::function() " before the text, and
// needs both names; the buffer holds only the newest message, however long.
TEST(FmtTest, MessageBuilders) {
  using namespace Tamlo::Fmt::Impl;
  int const count = 3;
  MessageBuffer buffer;
  buildMessageBuffer(buffer, true, "f", "C", "queued {}", fmt::make_format_args(count));
  EXPECT_EQ(fmt::to_string(buffer), "C::f() queued 3");
  buildMessageBuffer(buffer, false, nullptr, nullptr, "queued {}", fmt::make_format_args(count));
  EXPECT_EQ(fmt::to_string(buffer), "queued 3");
  std::string const body = std::string(700, 'a') + "end";
  buildDetailedMessageBuffer(buffer, "src/C.cpp", 42, true, "g", "K", "<{}>",
                             fmt::make_format_args(body));
  EXPECT_EQ(fmt::to_string(buffer), "src/C.cpp:42: K::g() <" + body + ">");
  EXPECT_EQ(vformatstr("a.cpp", 7, false, nullptr, nullptr, "plain", fmt::make_format_args()),
            "a.cpp:7: plain");
  EXPECT_DEATH(buildMessageBuffer(buffer, true, nullptr, "C", "x", fmt::make_format_args()),
               "funcName && className");
}

}  // namespace
