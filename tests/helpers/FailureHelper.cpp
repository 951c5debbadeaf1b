// Ends its own process in the ways the failure tests look at: fatal
// assertions, uncaught exceptions of several kinds, a bare std::terminate()
// and the incompatible-library check. Usage: FailureHelper <mode>.
#include <dlfcn.h>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

#include <Tamlo/Assert.h>
#include <Tamlo/Backtrace.h>
#include <Tamlo/CheckIncompat.h>
#include <Tamlo/Exception.h>

namespace FailureProbe {

// Tells the test where the next line's assertion is, so that it can compare
// the whole text.
#define FAILURE_ANNOUNCE_NEXT_LINE() announceLine(__FILE__, __LINE__ + 1)

void announceLine(char const* file, int line) {
  std::printf("%s:%d\n", file, line);
  std::fflush(stdout);
}

class Checker {
 public:
  void check(int value) {
    FAILURE_ANNOUNCE_NEXT_LINE();
    TAMLO_ASSERT(value < 5, "value {} out of range", value);
  }
};

[[gnu::noinline]] void throwRuntime() {
  Tamlo::RuntimeException::throwException("socket closed");
}

[[gnu::noinline]] void throwStd() {
  throw std::runtime_error("disk full");
}

[[gnu::noinline]] void throwInt() {
  throw 42;
}

void assertInCatch() {
  try {
    throwStd();
  } catch (std::exception const&) {
    Checker().check(9);
  }
}

// Where the flag that the dynamic linker hands out comes from, and its value.
void describeFlag() {
  void* const flag = dlsym(RTLD_DEFAULT, "platformLibPresenceFlag");
  Dl_info info{};
  if (!flag || dladdr(flag, &info) == 0 || !info.dli_fname) {
    std::printf("flag not found\n");
  } else {
    char const* slash = std::strrchr(info.dli_fname, '/');
    std::printf("flag %d from %s\n", *static_cast<int*>(flag), slash ? slash + 1 : info.dli_fname);
  }
  std::fflush(stdout);
}

int run(std::string const& mode) {
  if (mode == "assert") {
    Checker().check(7);
  } else if (mode == "assertInCatch") {
    assertInCatch();
  } else if (mode == "runtime") {
    throwRuntime();
  } else if (mode == "std") {
    throwStd();
  } else if (mode == "int") {
    throwInt();
  } else if (mode == "terminate") {
    std::terminate();
  } else if (mode == "thread") {
    std::thread(throwRuntime).join();
  } else if (mode == "verbosity") {
    std::printf("%d\n", Tamlo::Backtrace::verbosity());
    return 0;
  } else if (mode == "checkIncompat") {
    describeFlag();
    Tamlo::checkIncompat();
    std::printf("compatible\n");
    return 0;
  }
  std::fprintf(stderr, "unknown mode: %s\n", mode.c_str());
  return 2;
}

}  // namespace FailureProbe

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: FailureHelper <mode>\n");
    return 2;
  }
  return FailureProbe::run(argv[1]);
}
