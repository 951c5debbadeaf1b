// The trace-call macro. A disabled trace costs one load and one bit test of
// the handle's levels; nothing is formatted until that test passes.
#pragma once

#include <Tamlo/Debug.h>
#include <Tamlo/Fmt.h>

namespace Tamlo::Impl {

template <typename... Args>
[[gnu::noinline, gnu::cold]] void traceAt(Platform::DebugHandler const* handle, unsigned level,
                                          char const* fileName, int line, SourceScope const& scope,
                                          fmt::format_string<Args...> format, Args&&... args) {
  Fmt::Impl::vfmtrace(handle, level, fileName, scope.hasClass(), scope.funcName(),
                      scope.className(), line, format, fmt::make_format_args(args...));
}

}  // namespace Tamlo::Impl

// TAMLO_TRACE(handle, level, "format {}", args...): handle is a
// std::shared_ptr<Platform::DebugHandler> or a raw pointer to one, evaluated
// once; the arguments are evaluated only when the level is enabled. Each call
// site works out its class and function names once, at its first enabled
// trace.
#define TAMLO_TRACE(handle, level, ...)                                                          \
  do {                                                                                           \
    ::Tamlo::Platform::DebugHandler const* tamloTraceHandle_ = ::Tamlo::Impl::rawHandle(handle); \
    if (tamloTraceHandle_->enabled(level)) [[unlikely]] {                                        \
      static ::Tamlo::Impl::SourceScope const tamloTraceScope_(__PRETTY_FUNCTION__, __func__);   \
      ::Tamlo::Impl::traceAt(tamloTraceHandle_, (level), __FILE__, __LINE__, tamloTraceScope_,   \
                             __VA_ARGS__);                                                       \
    }                                                                                            \
  } while (0)
