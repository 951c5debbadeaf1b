#include <Tamlo/Exception.h>

#include <cstdio>

#include <Tamlo/Assert.h>

namespace Tamlo {

// The backtrace leaves this constructor out: it starts where the exception
// was made.
Exception::Exception(std::string const& msg, bool backtraceFlag)
    : backtrace_(backtraceFlag, 1), message_(msg) {
  BacktraceTracker::backtraceIs(message_, backtrace_);
}

Exception::~Exception() = default;

char const* Exception::name() const {
  return "Tamlo::Exception";
}

std::string Exception::msg() const {
  std::string text = name();
  text.append("(\"").append(message_).append("\")");
  return text;
}

char const* Exception::what() const noexcept {
  // noexcept: a failure while building the text ends the process. An empty
  // cache always means "not built yet": the built text is never empty.
  if (whatText_.empty())
    whatText_ = msg() + "\n" + backtrace_.pretty();
  return whatText_.c_str();
}

void Exception::throwException(std::string const& msg) {
  throw Exception(msg);
}

#define TAMLO_DEFINE_THROWER(Class)                    \
  void Class::throwException(std::string const& msg) { \
    throw Class(msg);                                  \
  }

TAMLO_DEFINE_THROWER(MemoryResourceException)
TAMLO_DEFINE_THROWER(NoPermissionException)
TAMLO_DEFINE_THROWER(UnimplementedException)
TAMLO_DEFINE_THROWER(InvalidInitializeException)
TAMLO_DEFINE_THROWER(RuntimeException)
TAMLO_DEFINE_THROWER(OutOfRangeException)
TAMLO_DEFINE_THROWER(CorruptionDetectedException)
TAMLO_DEFINE_THROWER(InvalidSizeException)

#undef TAMLO_DEFINE_THROWER

// An assertion ends here: thrown when the harness asked for it, otherwise
// fatal.
void AssertException::throwException(std::string const& msg) {
  if (throwOnAssertFail())
    throw AssertException(msg);
  std::string const line = "Tamlo::Assert aborting because: " + msg + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  std::terminate();
}

}  // namespace Tamlo
