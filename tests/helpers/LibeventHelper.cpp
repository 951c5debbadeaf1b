// Child-process checks of the libevent backend and virtual time:
//   waitfor      prints waitForDefaultTimeout() before and after WAITFOR_DEFAULT changes
//   log          feeds libevent messages of each severity to the log callback
//   badfd        binds an fd control to a descriptor that is not open (aborts)
//   rawdispatch  a handler throws inside a direct event_base_dispatch (aborts there)
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Platform.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

namespace {

struct IgnoringFd : Tamlo::Platform::FdEventHandler {
  void readFdEvent(int) override {}
  void writeFdEvent(int) override {}
};

int waitForMode() {
  double const first = Tamlo::waitForDefaultTimeout();
  setenv("WAITFOR_DEFAULT", "99", 1);
  fmt::print("first {} second {}\n", first, Tamlo::waitForDefaultTimeout());
  return 0;
}

int logMode() {
  Tamlo::le_debug_cb(EVENT_LOG_DEBUG, "le-debug");
  Tamlo::le_debug_cb(EVENT_LOG_MSG, "le-msg");
  Tamlo::le_debug_cb(EVENT_LOG_WARN, "le-warn");
  Tamlo::le_debug_cb(EVENT_LOG_ERR, "le-err");
  return 0;
}

int rawDispatchMode() {
  struct ThrowingTimer : Tamlo::Platform::TimeoutHandler {
    void timeout() override { throw std::runtime_error("raw failed"); }
  } handler;
  auto const timer = Tamlo::Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  event_base_dispatch(Tamlo::ev_base);
  std::puts("dispatch returned");
  try {
    Tamlo::Platform::doEventLoop();
  } catch (...) {
    std::puts("a later loop threw");
  }
  return 0;
}

int badFdMode() {
  IgnoringFd handler;
  auto const control = Tamlo::Platform::getFdControl(&handler);
  control->setFd(-1);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  char const* const mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "waitfor") == 0)
    return waitForMode();
  if (std::strcmp(mode, "log") == 0)
    return logMode();
  if (std::strcmp(mode, "badfd") == 0)
    return badFdMode();
  if (std::strcmp(mode, "rawdispatch") == 0)
    return rawDispatchMode();
  std::fprintf(stderr, "unknown mode '%s'\n", mode);
  return 2;
}
