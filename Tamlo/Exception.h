// The library's exception family. Every error the library reports is one of
// these: the class is the category, the message the detail, and each carries
// the backtrace of the point where it was made.
#pragma once

#include <exception>
#include <string>

#include <Tamlo/Backtrace.h>

namespace Tamlo {

// The base of the family. A plain value; what() fills a cache on first call,
// so one exception object must not have its first what() raced by two
// threads.
class Exception : public std::exception {
 public:
  // Captures the backtrace of the caller when `backtraceFlag` is set, and
  // records (message, backtrace) with the BacktraceTracker.
  explicit Exception(std::string const& msg, bool backtraceFlag = true);
  ~Exception() override;

  // msg() + "\n" + the backtrace, built on the first call and then kept.
  // Ends the process if the text cannot be built.
  char const* what() const noexcept override;
  // The class's fixed name, for example "Tamlo::RuntimeException".
  virtual char const* name() const;
  // name() + "(\"" + message + "\")", for example
  // Tamlo::RuntimeException("socket closed").
  std::string msg() const;
  std::string const& message() const { return message_; }
  Tamlo::Backtrace const& backtrace() const { return backtrace_; }

  [[noreturn]] static void throwException(std::string const& msg);

 private:
  Tamlo::Backtrace backtrace_;
  std::string message_;
  mutable std::string whatText_;
};

#define TAMLO_DECLARE_EXCEPTION(Class, Base)                         \
  class Class : public Base {                                        \
   public:                                                           \
    explicit Class(std::string const& msg) : Base(msg) {}            \
    char const* name() const override { return "Tamlo::" #Class; }   \
    [[noreturn]] static void throwException(std::string const& msg); \
  }

TAMLO_DECLARE_EXCEPTION(MemoryResourceException, Exception);
TAMLO_DECLARE_EXCEPTION(NoPermissionException, Exception);
TAMLO_DECLARE_EXCEPTION(UnimplementedException, Exception);
TAMLO_DECLARE_EXCEPTION(InvalidInitializeException, Exception);
TAMLO_DECLARE_EXCEPTION(RuntimeException, Exception);
TAMLO_DECLARE_EXCEPTION(OutOfRangeException, Exception);
TAMLO_DECLARE_EXCEPTION(CorruptionDetectedException, Exception);
// A size error is a kind of corruption: a handler for corruption catches it.
TAMLO_DECLARE_EXCEPTION(InvalidSizeException, CorruptionDetectedException);
// The end of every assertion: throwException() throws this after
// throwOnAssertFailIs(true), and otherwise prints
// "Tamlo::Assert aborting because: <text>" and terminates.
TAMLO_DECLARE_EXCEPTION(AssertException, Exception);

#undef TAMLO_DECLARE_EXCEPTION

}  // namespace Tamlo
