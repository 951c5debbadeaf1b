#include <Tamlo/Terminate.h>

#include <cxxabi.h>
#include <cstdio>
#include <cstdlib>
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

// Anything thrown from here (an allocation failure while formatting) makes
// the runtime abort at once, which is what this handler ends in anyway.
void terminateHandler() {
  std::string text;
  bool carriesBacktrace = false;
  if (std::current_exception()) {
    char const* rawName = abi::__cxa_current_exception_type()->name();
    // Some runtimes mark pointer types with a leading '*'.
    if (*rawName == '*')
      ++rawName;
    writeStderr("terminate called after throwing an instance of '" + typeName(rawName) + "'\n");
    try {
      throw;
    } catch (Exception const& e) {
      text = std::string("  what(): ") + e.what();
      carriesBacktrace = true;
    } catch (std::exception const& e) {
      text = std::string("  what(): ") + e.what();
    } catch (...) {
    }
  }
  if (!carriesBacktrace && Backtrace::verbosity() == 1) {
    if (!text.empty())
      text.push_back('\n');
    text += Backtrace(true).pretty();
  }
  if (!text.empty())
    writeStderr(text + "\n");
  std::abort();
}

void installTerminateHandler() {
  std::set_terminate(terminateHandler);
}

}  // namespace Tamlo
