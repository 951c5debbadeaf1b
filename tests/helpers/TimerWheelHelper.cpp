// Ends its own process the ways a timer wheel does when it is misused, so
// that the tests can look at the message and the abort. Usage:
//   TimerWheelHelper armed        destroys a wheel timer control armed on the wheel
//   TimerWheelHelper expiringSoon destroys an event waiting in the expiring-soon map
//   TimerWheelHelper nonEmptyList destroys a TimersAtTimeout that still holds an event
//   TimerWheelHelper stopped      destroys controls stopped first (exits normally)
//   TimerWheelHelper dueNow       arms a timer for exactly now on a clock that stands
//                                 still, runs one pass, says whether it was delivered
// expiringSoon prints "event <pointer>" on standard output first, so that the
// test can match the message exactly.
#include <cstdio>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include <Tamlo/Platform.h>
#include <Tamlo/TimerWheel.h>

namespace {

using Tamlo::TimerWheel;
using Tamlo::TimerWheelEvent;
using Tamlo::TimerWheelState;

struct SilentTimer : Tamlo::Platform::TimeoutHandler {
  void timeout() override {}
};

struct SilentEvent : TimerWheelEvent {
  void timeout() override {}
};

void announce(TimerWheelEvent const* event) {
  fmt::print("event {}\n", fmt::ptr(event));
  std::fflush(stdout);
}

int armedMode() {
  SilentTimer handler;
  auto const wheel = Tamlo::getTimerWheel();
  auto control = Tamlo::Platform::getTimerControl(&handler, wheel);
  control->setTimeout(10);
  control.reset();
  return 0;
}

int expiringSoonMode() {
  Tamlo::Platform::setFastForward(true);
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityDefault);
  auto event = std::make_unique<SilentEvent>();
  announce(event.get());
  event->setTimeout(wheel, 1.0);
  // In virtual time the wheel releases the timer about a tick before its
  // exact expiry; stop the loop there.
  while (event->state() == TimerWheelState::inTimerWheel)
    Tamlo::Platform::doEventLoopInWaitfor(10);
  if (event->state() != TimerWheelState::inTimersExpiryingSoon)
    return 3;
  event.reset();
  return 0;
}

int nonEmptyListMode() {
  SilentEvent event;
  {
    TimerWheel::TimersAtTimeout timers;
    event.stateIs(TimerWheelState::inTimersExpiryingSoon);
    timers.pushBack(&event);
  }
  return 0;
}

int stoppedMode() {
  SilentTimer handler;
  auto const wheel = Tamlo::getTimerWheel();
  auto first = Tamlo::Platform::getTimerControl(&handler, wheel);
  auto second = Tamlo::Platform::getTimerControl(&handler, wheel);
  first->setTimeout(10);
  second->setTimeout(0.001);
  first->delTimeout();
  second->delTimeout();
  fmt::print("stopped\n");
  return 0;
}

int dueNowMode() {
  // Near 2^55 s a double holds only every eighth second, so the clock reads
  // the same across a pass.
  Tamlo::Platform::setFastForward(true);
  Tamlo::Platform::fastForwardBy(0x1p55);
  auto const wheel = Tamlo::getTimerWheelForTaskScheduler(Tamlo::Platform::eventPriorityDefault);
  struct CountingEvent : TimerWheelEvent {
    void timeout() override { ++delivered; }
    int delivered = 0;
  } event;
  // A pass crossing from one representable time to the next gives no
  // verdict; the next try does.
  for (int attempt = 0; attempt < 3; ++attempt) {
    double const now = Tamlo::time();
    wheel->timerStartAtForTest(&event, now);
    Tamlo::Platform::doEventLoopInWaitfor(0);
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
  if (std::strcmp(mode, "expiringSoon") == 0)
    return expiringSoonMode();
  if (std::strcmp(mode, "nonEmptyList") == 0)
    return nonEmptyListMode();
  if (std::strcmp(mode, "stopped") == 0)
    return stoppedMode();
  if (std::strcmp(mode, "dueNow") == 0)
    return dueNowMode();
  std::fprintf(stderr, "unknown mode '%s'\n", mode);
  return 2;
}
