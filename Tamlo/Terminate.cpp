#include <Tamlo/Terminate.h>

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <string>

#include <Tamlo/Backtrace.h>
#include <Tamlo/Exception.h>
#include <Tamlo/TypeName.h>

namespace Tamlo {

namespace {
void writeStderr(std::string const& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}
}  // namespace

void terminateHandler() {
  std::string text;
  bool describedWithBacktrace = false;
  if (std::current_exception()) {
    char const* rawName = abi::__cxa_current_exception_type()->name();
    if (*rawName == '*')
      ++rawName;
    writeStderr("terminate called after throwing an instance of '" + typeName(rawName) + "'\n");
    try {
      throw;
    } catch (Exception const& e) {
      text = std::string("  what(): ") + e.what();  // what() already holds its backtrace
      describedWithBacktrace = true;
    } catch (std::exception const& e) {
      text = std::string("  what(): ") + e.what();
    } catch (...) {
    }
  }
  if (!describedWithBacktrace && Backtrace::verbosity() == 1)
    text += Backtrace(true).pretty();
  if (!text.empty())
    writeStderr(text + "\n");
  std::abort();
}

void installTerminateHandler() { std::set_terminate(terminateHandler); }

}  // namespace Tamlo
