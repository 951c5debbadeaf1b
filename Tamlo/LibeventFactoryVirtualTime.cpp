// Virtual time: the per-thread offset on top of the monotonic clock, the
// fast-forward switch and its notifiers, and the jumps that pull the base's
// timers earlier instead of sleeping until they are due.
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include <Tamlo/Assert.h>
#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Thread.h>

namespace Tamlo {

std::atomic<bool> fastForward{false};

namespace {

Platform::DebugHandler const* trace() {
  return Impl::libeventDebugHandle();
}

// Only ever grows; microseconds in 0..999999.
thread_local timeval virtualTimeOffset_{0, 0};

// The jump lands this far beyond the first timer, so that it is strictly due.
constexpr timeval extraDelay{0, 100};

// Guarded by the library lock: timer wheels on any thread register here.
std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

double parseWaitForDefault() {
  char const* const text = std::getenv("WAITFOR_DEFAULT");
  if (text == nullptr)
    return std::numeric_limits<double>::infinity();
  try {
    return std::stod(text);
  } catch (std::logic_error const&) {  // invalid_argument, out_of_range
    std::fputs("Parsing the WAITFOR_DEFAULT env. variable failed", stderr);
    std::fflush(stderr);
    return std::numeric_limits<double>::infinity();
  }
}

}  // namespace

double leVirtualTimeOffset() {
  return Impl::secondsFromTimeval(virtualTimeOffset_);
}

void applyFastForwardDelta(timeval const* delta) {
  TAMLO_ASSERT(delta->tv_sec >= 0 && delta->tv_usec >= 0 && delta->tv_usec <= 999999,
               "Invalid fast-forward delta {}.{}", delta->tv_sec, delta->tv_usec);
  leInit();
  event_base_timeout_subtract_offset(ev_base, delta);
  virtualTimeOffset_ = Impl::timevalAdd(virtualTimeOffset_, *delta);
  TAMLO_TRACE(trace(), 2, "Increasing virtual time offset by {} to {}", *delta, virtualTimeOffset_);
}

bool fastForwardDelayToFirstTimer(timeval* out) {
  TAMLO_ASSERT(leFastForward(), "Called without fast forward enabled");
  leInit();
  timeval first;
  if (event_base_get_first_timeout(ev_base, &first) != 0) {
    TAMLO_TRACE(trace(), 9, "no timers");
    return false;
  }
  timeval now;
  Impl::eventBaseNow(ev_base, &now);
  if (!Impl::timevalLess(now, first)) {
    TAMLO_TRACE(trace(), 9, "first timer expired at {} now {} return zero delta", first, now);
    *out = timeval{0, 0};
    return true;
  }
  timeval const delta = Impl::timevalSubtract(first, now);
  *out = Impl::timevalAdd(delta, extraDelay);
  TAMLO_TRACE(trace(), 9, "first timer will at {} now {} delta {} extraDelay {} return delta {}",
              first, now, delta, extraDelay, *out);
  return true;
}

void eventLoopFastForward(timeval const* step) {
  applyFastForwardDelta(step);
  // Everything that became due is older than this zero-delay break, so the
  // one pass that fires the break serves it all first.
  EvLoopBreak const loopBreak(timeval{0, 0});
  Impl::leDispatch();
}

void eventLoopFastForwardToFirstTimer(double maxTimeout) {
  TAMLO_TRACE(trace(), 5, "maxTimeout {}", maxTimeout);
  TAMLO_ASSERT(leFastForward(), "Called without fastForward enabled");
  timeval const max = Impl::timevalFromSeconds(maxTimeout);
  timeval delay;
  timeval step = max;
  if (fastForwardDelayToFirstTimer(&delay) && Impl::timevalLess(delay, max))
    step = delay;
  eventLoopFastForward(&step);
}

void setLeFastForward(bool on) {
  leInit();
  TAMLO_ASSERT(mainThread, "FastForward invoked from non-main thread");
  if (on == fastForward.load())
    return;
  fastForward.store(on);
  std::vector<void (*)()> notifiers;
  {
    Platform::LocoGuard const guard;
    notifiers.assign(fastForwardChangeNotifiers().begin(), fastForwardChangeNotifiers().end());
  }
  // Called outside the lock: a notifier may register another or trace.
  for (auto* const notifier : notifiers)
    notifier();
}

bool leFastForward() {
  return fastForward.load(std::memory_order_relaxed);
}

void leRegisterFastForwardChangeNotifier(void (*notifier)()) {
  TAMLO_ASSERT(notifier != nullptr, "Null fast-forward change notifier");
  Platform::LocoGuard const guard;
  fastForwardChangeNotifiers().insert(notifier);
}

double waitForDefaultTimeout() {
  // Read once; the first call may come from any thread.
  static double const timeout = parseWaitForDefault();
  return timeout;
}

}  // namespace Tamlo
