#include <Tamlo/Assert.h>

#include <Tamlo/Exception.h>

namespace Tamlo {

namespace {
bool throwOnAssertFail_ = false;
}  // namespace

void throwOnAssertFailIs(bool throwOnAssertFail) {
  throwOnAssertFail_ = throwOnAssertFail;
}
bool throwOnAssertFail() {
  return throwOnAssertFail_;
}

namespace Impl {
namespace {

// Assertion texts are written whatever the handle's levels. A failure while
// tracing an assertion ends the process.
void traceAssertion(Platform::DebugHandler const* handle, std::string const& text,
                    char const* fileName, char const* funcName, int line) noexcept {
  Fmt::Impl::dumpDebugMsg(text.data(), text.size(), 0, handle, fileName, funcName, line);
}

}  // namespace

void vassertFail(char const* fileName, int line, SourceScope const& scope, fmt::string_view format,
                 fmt::format_args args) {
  std::string const text = Fmt::Impl::vformatstr(fileName, line, scope.hasClass(), scope.funcName(),
                                                 scope.className(), format, args);
  traceAssertion(TAMLO_DEFAULT_HANDLE.get(), text, fileName, scope.funcName(), line);
  AssertException::throwException(text);
}

}  // namespace Impl

void debugAndThrowAssertException(Platform::DebugHandler& handle, unsigned level,
                                  Platform::DebugStream& stream, char const* fileName,
                                  char const* funcName, int line) {
  Platform::DebugStream text;
  // Streaming a null char pointer sets the bad bit instead of printing.
  text << fileName << ":" << funcName << ":" << line << ": " << stream.str();
  handle.dump(text, level, fileName, line, funcName);
  AssertException::throwException(text.str());
}

}  // namespace Tamlo
