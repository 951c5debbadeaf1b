// The trace-call macros. A disabled trace costs one load and one bit test of
// the handle's levels; nothing is formatted until that test passes.
#pragma once

#include <Tamlo/Debug.h>
#include <Tamlo/Fmt.h>

namespace Tamlo::Impl {

template <typename... Args>
[[gnu::noinline, gnu::cold]] void traceAt(Platform::DebugHandler const* handle, unsigned level,
                                          char const* fileName, int line,
                                          char const* prettyFunction, char const* func,
                                          fmt::format_string<Args...> format, Args&&... args) {
  SourceScope const scope(prettyFunction, func);
  Fmt::Impl::vfmtrace(handle, level, fileName, scope.hasClass(), scope.funcName(),
                      scope.className(), line, format, fmt::make_format_args(args...));
}

}  // namespace Tamlo::Impl

// TAMLO_TRACE(handle, level, "format {}", args...): handle is a
// std::shared_ptr<Platform::DebugHandler> or a raw pointer to one.
#define TAMLO_TRACE(handle, level, ...)                                                           \
  do {                                                                                            \
    ::Tamlo::Platform::DebugHandler const* tamloTraceHandle_ = ::Tamlo::Impl::rawHandle(handle);  \
    if (tamloTraceHandle_->enabled(level)) [[unlikely]]                                           \
      ::Tamlo::Impl::traceAt(tamloTraceHandle_, (level), __FILE__, __LINE__, __PRETTY_FUNCTION__, \
                             __func__, __VA_ARGS__);                                              \
  } while (0)
