// Timer wheel cases that need a process of their own:
//   armed   destroys a wheel timer control still armed (aborts)
//   dueNow  arms a timer for exactly now on a clock that stands still, runs one pass
#include <cstdio>
#include <cstring>

#include <Tamlo/Platform.h>
#include <Tamlo/TimerWheel.h>

namespace {

using namespace Tamlo::Platform;

int armedMode() {
  struct SilentTimer : TimeoutHandler {
    void timeout() override {}
  } handler;
  auto control = getTimerControl(&handler, Tamlo::getTimerWheel());
  control->setTimeout(10);
  control.reset();
  return 0;
}

int dueNowMode() {
  // Near 2^55 s a double holds only every eighth second, so the clock reads
  // the same across a pass.
  setFastForward(true);
  fastForwardBy(0x1p55);
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(eventPriorityDefault);
  struct CountingEvent : Tamlo::TimerWheelEvent {
    void timeout() override { ++delivered; }
    int delivered = 0;
  } event;
  // A pass crossing from one representable time to the next gives no
  // verdict; the next try does.
  for (int attempt = 0; attempt < 3; ++attempt) {
    double const now = Tamlo::time();
    wheel->timerStartAtForTest(&event, now);
    doEventLoopInWaitfor(0);
    wheel->timerStop(&event);
    if (Tamlo::time() == now) {
      std::puts(event.delivered == 1 ? "delivered in one pass" : "deferred");
      return 0;
    }
    event.delivered = 0;
  }
  return 4;
}

}  // namespace

int main(int argc, char** argv) {
  char const* const mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "armed") == 0)
    return armedMode();
  if (std::strcmp(mode, "dueNow") == 0)
    return dueNowMode();
  std::fprintf(stderr, "unknown mode '%s'\n", mode);
  return 2;
}
