// Message building: the plain and detailed builders, their buffer, and the
// class and function names a call site is attributed to.
#include <cstdio>

#include <Tamlo/Assert.h>
#include <Tamlo/Fmt.h>

#include "TestSupport.h"

namespace {

using Tamlo::Fmt::Impl::MessageBuffer;
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
  std::string member() const { return WHERE(); }
  std::string operator()() const { return WHERE(); }
  bool operator<(Widget const&) {
    seen = WHERE() + " " + [] { return WHERE(); }();
    return false;
  }
  explicit operator int() {
    seen = WHERE();
    return 0;
  }
  std::string lambda() const {
    return [] { return WHERE(); }();
  }
  std::string nestedLambda() const {
    return [] { return [] { return WHERE(); }(); }();
  }
  std::string genericLambda() const {
    return [](auto) { return WHERE(); }(1.5);
  }
};

template <typename T>
struct Box {
  std::string get() const { return WHERE(); }
  std::string lambda() const {
    return [] { return WHERE(); }();
  }
};

struct Outer {
  struct Inner {
    std::string f() const { return WHERE(); }
  };
};

std::string freeFunction() {
  return WHERE();
}

template <typename T>
std::string freeTemplate(T) {
  return WHERE();
}

std::string withLocalClass() {
  struct Local {
    std::string g() const { return WHERE(); }
  };
  return Local().g();
}

namespace {
std::string hidden() {
  return WHERE();
}
struct Hidden {
  std::string f() const { return WHERE(); }
};
}  // namespace

}  // namespace Probe

static std::string globalFunction() {
  return WHERE();
}

namespace {

std::string anonymousOnly() {
  return WHERE();
}

// Members by their class, operators with their whole name, lambdas by the
// function around them, templates without their arguments, free functions by
// their namespace, passing over anonymous ones.
TEST(FmtTest, CallSitesAreNamedByClassOrNamespaceAndFunction) {
  {
    Probe::Widget w;
    EXPECT_EQ(w.seen, "Widget::Widget");
    EXPECT_EQ(w.madeInLambda, "Widget::operator()");
    EXPECT_EQ(w.member(), "Widget::member");
    EXPECT_EQ(w(), "Widget::operator()");
    (void)(w < w);
    EXPECT_EQ(w.seen, "Widget::operator< Widget::operator<");
    (void)static_cast<int>(w);
    EXPECT_EQ(w.seen, "Widget::operator int");
    EXPECT_EQ(w.lambda(), "Widget::lambda");
    EXPECT_EQ(w.nestedLambda(), "Widget::nestedLambda");
    EXPECT_EQ(w.genericLambda(), "Widget::genericLambda");
  }
  EXPECT_EQ(Probe::lastDestroyed, "Widget::~Widget");
  EXPECT_EQ(Probe::Outer::Inner().f(), "Inner::f");
  EXPECT_EQ(Probe::withLocalClass(), "Local::g");
  EXPECT_EQ(Probe::Box<int>().lambda(), "Box::lambda");
  EXPECT_EQ([] { return WHERE(); }(),
            "FmtTest_CallSitesAreNamedByClassOrNamespaceAndFunction_Test::TestBody");
  EXPECT_EQ(Probe::Box<std::string>().get(), "Box::get");
  EXPECT_EQ(Probe::freeFunction(), "Probe::freeFunction");
  EXPECT_EQ(Probe::freeTemplate(3), "Probe::freeTemplate");
  EXPECT_EQ(Probe::hidden(), "Probe::hidden");
  EXPECT_EQ(Probe::Hidden().f(), "Hidden::f");
  EXPECT_EQ(anonymousOnly(), "anonymousOnly");
  EXPECT_EQ(globalFunction(), "globalFunction");
}

TEST(FmtTest, ExplicitScope) {
  EXPECT_EQ(where(SourceScope("Platform", "loco", nullptr)), "Platform::loco");
  EXPECT_EQ(where(SourceScope("", "loco", nullptr)), "loco");
  EXPECT_EQ(where(SourceScope("Box<int>", "get", nullptr)), "Box::get");
  // Overlong names are cut, never overrun.
  std::string const longName(300, 'n');
  SourceScope const cut(longName.c_str(), "f", nullptr);
  EXPECT_EQ(std::string(cut.className()), std::string(127, 'n'));
}

TEST(FmtTest, MessageBuilders) {
  int const count = 3;
  MessageBuffer buffer;
  buffer.append(std::string_view("stale text"));
  Tamlo::Fmt::Impl::buildMessageBuffer(buffer, true, "f", "C", "queued {}",
                                       fmt::make_format_args(count));
  EXPECT_EQ(fmt::to_string(buffer), "C::f() queued 3");
  // Ordinary messages stay in the inline storage.
  EXPECT_EQ(buffer.capacity(), 500u);

  Tamlo::Fmt::Impl::buildMessageBuffer(buffer, false, nullptr, nullptr, "queued {}",
                                       fmt::make_format_args(count));
  EXPECT_EQ(fmt::to_string(buffer), "queued 3");

  Tamlo::Fmt::Impl::buildDetailedMessageBuffer(buffer, "src/C.cpp", 42, true, "f", "C", "queued {}",
                                               fmt::make_format_args(count));
  EXPECT_EQ(fmt::to_string(buffer), "src/C.cpp:42: C::f() queued 3");

  EXPECT_EQ(Tamlo::Fmt::Impl::vformatstr("a.cpp", 7, false, nullptr, nullptr, "plain",
                                         fmt::make_format_args()),
            "a.cpp:7: plain");

  // Long messages are built whole.
  std::string const body = std::string(700, 'a') + "end";
  Tamlo::Fmt::Impl::buildDetailedMessageBuffer(buffer, "f.cpp", 1, true, "g", "K", "<{}>",
                                               fmt::make_format_args(body));
  EXPECT_EQ(fmt::to_string(buffer), "f.cpp:1: K::g() <" + body + ">");
}

TEST(FmtTest, ClassWithoutNamesIsACAssertion) {
  MessageBuffer buffer;
  EXPECT_DEATH(Tamlo::Fmt::Impl::buildMessageBuffer(buffer, true, nullptr, "C", "x",
                                                    fmt::make_format_args()),
               "funcName && className");
}

struct Point {
  int x, y;
};

}  // namespace

template <>
struct fmt::formatter<Point> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  auto format(Point p, fmt::format_context& context) const {
    return Tamlo::Fmtrace::Impl::vformat_to(context, "({}, {})", fmt::make_format_args(p.x, p.y));
  }
};

namespace {

TEST(FmtTest, CustomFormattersAndPlainPrinting) {
  EXPECT_EQ(fmt::format("at {}", Point{1, -2}), "at (1, -2)");

  char* text = nullptr;
  size_t size = 0;
  std::FILE* file = open_memstream(&text, &size);
  int const n = 5;
  Tamlo::QzFmt::Impl::vprint(file, "n={}\n", fmt::make_format_args(n));
  std::fclose(file);
  EXPECT_EQ(std::string(text, size), "n=5\n");
  std::free(text);
}

}  // namespace
