// Assertions: a broken invariant is formatted as "file:line: Class::func() "
// plus the message, traced at level 0 on TAMLO_DEFAULT_HANDLE whatever its
// levels, and then either ends the process or, after throwOnAssertFailIs(true),
// throws Tamlo::AssertException.
#pragma once

#include <Tamlo/Debug.h>
#include <Tamlo/Fmt.h>

namespace Tamlo {

// Meant to be set once at start-up (test harnesses set it); not synchronised.
void throwOnAssertFailIs(bool throwOnAssertFail);
bool throwOnAssertFail();

// For failure texts composed with << on a DebugStream: prefixes
// "file:func:line: ", dumps the text on `handle` at `level`, then ends like
// every assertion.
[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler& handle, unsigned level,
                                               Platform::DebugStream& stream, char const* fileName,
                                               char const* funcName, int line);

namespace Impl {

[[noreturn]] void vassertFail(char const* fileName, int line, SourceScope const& scope,
                              fmt::string_view format, fmt::format_args args);

template <typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void assertFail(char const* fileName, int line,
                                                       char const* prettyFunction, char const* func,
                                                       fmt::format_string<Args...> format,
                                                       Args&&... args) {
  vassertFail(fileName, line, SourceScope(prettyFunction, func), format,
              fmt::make_format_args(args...));
}

template <typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void assertFailIn(char const* fileName, int line,
                                                         char const* scopeName, char const* func,
                                                         fmt::format_string<Args...> format,
                                                         Args&&... args) {
  vassertFail(fileName, line, SourceScope(scopeName, func, nullptr), format,
              fmt::make_format_args(args...));
}

}  // namespace Impl
}  // namespace Tamlo

// TAMLO_ASSERT(condition, "format {}", args...): the enclosing class and
// function are taken from the call site.
#define TAMLO_ASSERT(condition, ...)                                                             \
  do {                                                                                           \
    if (!(condition)) [[unlikely]]                                                               \
      ::Tamlo::Impl::assertFail(__FILE__, __LINE__, __PRETTY_FUNCTION__, __func__, __VA_ARGS__); \
  } while (0)

// Fails unconditionally; usable where a value is expected after it.
#define TAMLO_ASSERT_FAIL(...) \
  ::Tamlo::Impl::assertFail(__FILE__, __LINE__, __PRETTY_FUNCTION__, __func__, __VA_ARGS__)

// As TAMLO_ASSERT, attributing the failure to an explicit scope name.
#define TAMLO_ASSERT_IN(scopeName, condition, ...)                                       \
  do {                                                                                   \
    if (!(condition)) [[unlikely]]                                                       \
      ::Tamlo::Impl::assertFailIn(__FILE__, __LINE__, scopeName, __func__, __VA_ARGS__); \
  } while (0)
