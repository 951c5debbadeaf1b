#include <Tamlo/EventBaseTimers.h>

#include <algorithm>
#include <vector>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/LibeventFactory.h>

namespace {

using Tamlo::Impl::timevalLess;
using Tamlo::Impl::timevalSubtract;

// libevent keeps the microseconds of a common-timeout expiry in the low 20
// bits of tv_usec and marks the queue in the bits above. A plain tv_usec
// (below 1000000) is unchanged by the mask.
constexpr suseconds_t microsecondsMask = 0x000fffff;

struct PendingTimer {
  event* ev;
  timeval expiry;  // decoded
  suseconds_t queueBits;
};

// Collected first: libevent forbids adding or deleting events from inside
// event_base_foreach_event.
int collectPendingTimer(event_base const*, event const* ev, void* arg) {
  short const flags = ev->ev_evcallback.evcb_flags;
  if ((flags & EVLIST_TIMEOUT) == 0 || (flags & (EVLIST_INTERNAL | EVLIST_FINALIZING)) != 0)
    return 0;
  timeval expiry = ev->ev_timeout;
  suseconds_t const queueBits = expiry.tv_usec & ~microsecondsMask;
  expiry.tv_usec &= microsecondsMask;
  static_cast<std::vector<PendingTimer>*>(arg)->push_back(
      PendingTimer{const_cast<event*>(ev), expiry, queueBits});
  return 0;
}

std::vector<PendingTimer> pendingTimers(event_base* base) {
  std::vector<PendingTimer> timers;
  event_base_foreach_event(base, collectPendingTimer, &timers);
  return timers;
}

void noCallback(evutil_socket_t, short, void*) {}

}  // namespace

namespace Tamlo::Impl {

void eventBaseNow(event_base* base, timeval* now) {
  event scratch;
  event_assign(&scratch, base, -1, 0, noCallback, nullptr);
  eventPrioritySet(&scratch, Platform::eventPriorityDefault);
  timeval const zero{0, 0};
  event_add(&scratch, &zero);
  *now = scratch.ev_timeout;
  event_del(&scratch);
}

}  // namespace Tamlo::Impl

extern "C" int event_base_get_first_timeout(event_base* base, timeval* out) {
  if (base == nullptr || out == nullptr)
    return -1;
  std::vector<PendingTimer> const timers = pendingTimers(base);
  if (timers.empty())
    return 1;
  *out = std::min_element(timers.begin(), timers.end(),
                          [](PendingTimer const& a, PendingTimer const& b) {
                            return timevalLess(a.expiry, b.expiry);
                          })
             ->expiry;
  return 0;
}

extern "C" int event_base_timeout_subtract_offset(event_base* base, timeval const* delta) {
  if (base == nullptr || delta == nullptr)
    return -1;
  // Re-adding reads the clock anew and would push every timer a little later.
  if (delta->tv_sec == 0 && delta->tv_usec == 0)
    return 0;
  std::vector<PendingTimer> timers = pendingTimers(base);
  // Re-added earliest first: each event_add reads the clock anew, so a timer
  // re-added later lands a little later, which then never reorders them.
  std::stable_sort(timers.begin(), timers.end(), [](PendingTimer const& a, PendingTimer const& b) {
    return timevalLess(a.expiry, b.expiry);
  });
  timeval now;
  Tamlo::Impl::eventBaseNow(base, &now);
  for (PendingTimer const& timer : timers) {
    // Relative to now, possibly negative: libevent then makes it due at once
    // with its expiry still in the past, so timers due together keep order.
    timeval relative = timevalSubtract(timevalSubtract(timer.expiry, *delta), now);
    relative.tv_usec |= timer.queueBits;
    // event_add stores a relative timeout as the interval of a persistent
    // event; the interval must survive the move. (For signal events the
    // union holds other fields, and event_add does not touch them.)
    bool const keepsInterval = (timer.ev->ev_events & EV_SIGNAL) == 0;
    timeval const interval = keepsInterval ? timer.ev->ev_.ev_io.ev_timeout : timeval{};
    if (event_add(timer.ev, &relative) != 0)
      TAMLO_TRACE(Tamlo::Impl::libeventDebugHandle(), 0, "Failed to move timer {} by {}",
                  fmt::ptr(timer.ev), *delta);
    if (keepsInterval)
      timer.ev->ev_.ev_io.ev_timeout = interval;
  }
  return static_cast<int>(timers.size());
}
