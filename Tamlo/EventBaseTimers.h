// Two event-base entry points that virtual time needs and stock libevent 2.1
// lacks, provided as a layer over its public API (event_base_foreach_event
// and event_add) and the documented layout in <event2/event_struct.h>.
//
// Every pending timer of a base counts, the library's own and those that
// client code adds directly with event_add/evtimer_add; libevent's internal
// events do not. Times are in the base's own time base, the one in which
// event_add computes an event's absolute ev_timeout (CLOCK_MONOTONIC for the
// library's bases). A timer on one of libevent's "common timeout" queues has
// its queue encoded in the high bits of ev_timeout.tv_usec; it is decoded
// here, and a moved timer stays on its queue.
//
// Cost: O(n log n) in the base's pending timers, plus one event_add each when
// moving. Call them on the thread that runs the base.
#pragma once

#include <sys/time.h>

struct event_base;

extern "C" {

// If a timer is pending on `base`, writes the absolute expiry of the earliest
// one to `out` and returns 0; otherwise returns 1 and leaves `out` alone.
int event_base_get_first_timeout(struct event_base* base, struct timeval* out);

// Makes every pending timer of `base` due `delta` earlier, keeping their
// order and the interval of persistent ones. A timer whose new expiry has
// passed is due at once. Each timer lands on its exact new expiry or later by
// the time the re-adding takes (microseconds), never earlier. A zero delta
// touches nothing. Returns the number of timers moved, or -1 for a null
// argument.
int event_base_timeout_subtract_offset(struct event_base* base, const struct timeval* delta);

}  // extern "C"

namespace Tamlo::Impl {
// The base's "now" in its timers' time base: the expiry that event_add gives
// a zero timeout at this moment (the time cached for the loop pass, on a base
// that caches it).
void eventBaseNow(event_base* base, timeval* now);
}  // namespace Tamlo::Impl
