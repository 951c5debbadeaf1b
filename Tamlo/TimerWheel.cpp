#include <Tamlo/TimerWheel.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Thread.h>

namespace Tamlo {

using Platform::EventPriority;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// The latest expiry whose tick, floor(expiry × 100), still fits in 64 bits.
constexpr double maxExpiry = (0x1p64 - 0x1p14) / TimerWheel::ticksPerSecond;

Platform::DebugHandler const* trace() {
  static std::shared_ptr<Platform::DebugHandler> const handle =
      Platform::getDebugHandler("TamloTimerWheel");
  return handle.get();
}

// Made at load, so that TRACE settings reach the handle before any wheel
// exists and it outlives the process-wide wheel.
[[maybe_unused]] Platform::DebugHandler const* const loadTimeHandle = trace();

// A platform timer on a wheel. The handler is called straight from the
// wheel's delivery; the control keeps its wheel alive but does not stop
// itself when destroyed, so its owner must delTimeout() first.
class TimerWheelTimerControl final : public Platform::TimerControl, public TimerWheelEvent {
 public:
  TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
      : TimerControl(handler), wheel_(std::move(wheel)) {}

  void setTimeout(double seconds) override { wheel_->timerStart(this, seconds); }
  void delTimeout() override { wheel_->timerStop(this); }
  double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }
  void timeout() override { handler_->timeout(); }

 private:
  std::shared_ptr<TimerWheel> wheel_;
};

}  // namespace

// ---- TimerWheelEvent ----

TimerWheelEvent::TimerWheelEvent() : expirationTime_(infinity) {
  timeout_init(&link_, TIMEOUT_ABS | Impl::timerWheelNotLinkedFlag);
}

TimerWheelEvent::~TimerWheelEvent() {
  TimerWheelState const current = state();
  TAMLO_ASSERT_IN("TimerWheelEvent", current == TimerWheelState::notLinked,
                  "TimerWheelEvent {} destroyed while {}", fmt::ptr(this), current);
}

void TimerWheelEvent::setTimeout(std::shared_ptr<TimerWheel> const& wheel, double seconds) {
  wheel->timerStart(this, seconds);
}

void TimerWheelEvent::delTimeout(std::shared_ptr<TimerWheel> const& wheel) {
  wheel->timerStop(this);
}

// ---- TimerWheel::TimersAtTimeout ----

TimerWheel::TimersAtTimeout::~TimersAtTimeout() {
  TAMLO_ASSERT_IN("TimersAtTimeout", empty(), "Destroyed while non-empty");
}

// ---- TimerWheel ----

TimerWheel::TimerWheel(EventPriority masterPriority)
    : masterExpiry_(infinity), masterTimer_(Platform::getTimerControl(this, masterPriority)) {
  timeouts_ = timeouts_open(static_cast<timeout_t>(ticksPerSecond), &openError_);
  TAMLO_ASSERT_IN("TimerWheel", timeouts_ != nullptr, "Error code {}", openError_);
  updateCurrentTime();
}

TimerWheel::~TimerWheel() {
  // Events still on the wheel are taken off it; those in the map must have
  // been stopped, or the map's lists end the process as they go.
  timeouts_close(timeouts_);
  timersExpiryingSoon_.clear();
  masterTimer_.reset();
}

double TimerWheel::updateCurrentTime() {
  double const now = Tamlo::time();
  // Rounding up lets the wheel release a timer up to one tick early; the
  // expiring-soon map holds it until its exact time.
  auto const tick = static_cast<timeout_t>(std::ceil(now * ticksPerSecond));
  TAMLO_TRACE(trace(), 8, "advance time to {} tick {}", now, tick);
  timeouts_update(timeouts_, tick);
  return now;
}

void TimerWheel::masterTimerSet(double delay) {
  ++masterTimerArmCount_;
  masterTimer_->setTimeout(delay);
}

void TimerWheel::timerStart(TimerWheelEvent* event, double timeout) {
  TAMLO_ASSERT_IN("TimerWheel", !std::isnan(timeout), "Invalid timeout {}", timeout);
  // As for libevent timers: one that never expires is an idle one.
  if (timeout == infinity) {
    timerStop(event);
    return;
  }
  timerStart(event, timeout, std::min(Tamlo::time() + timeout, maxExpiry));
}

void TimerWheel::timerStartAtForTest(TimerWheelEvent* event, double expireAt) {
  timerStart(event, expireAt - Tamlo::time(), expireAt);
}

void TimerWheel::checkArmedHere(TimerWheelEvent const* event) const {
  TAMLO_ASSERT_IN("TimerWheel", event->armedWheel_ == this,
                  "timer {} is armed on wheel {}, not on wheel {}", fmt::ptr(event),
                  fmt::ptr(event->armedWheel_), fmt::ptr(this));
}

void TimerWheel::timerStart(TimerWheelEvent* event, double timeout, double expireAt) {
  if (event->expirationTime_ != infinity) {
    if (expireAt == event->expirationTime_) {
      checkArmedHere(event);
      return;
    }
    timerStop(event);
  }
  event->expirationTime_ = expireAt;
  event->armedWheel_ = this;
  // An expiry before the clock's start is simply due.
  auto const tick =
      expireAt > 0 ? static_cast<timeout_t>(std::floor(expireAt * ticksPerSecond)) : timeout_t{0};
  TAMLO_TRACE(trace(), 9, "timer {} set timeout {} expire at {} tick {}", fmt::ptr(event), timeout,
              expireAt, tick);
  timeouts_add(timeouts_, event->link(), tick);
  event->stateIs(TimerWheelState::inTimerWheel);
  if (expireAt < masterExpiry_)
    setMasterTimer();
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
  if (event->expirationTime_ == infinity) {
    TAMLO_TRACE(trace(), 9, "timer {} del timeout, not running", fmt::ptr(event));
    return;
  }
  TAMLO_TRACE(trace(), 9, "timer {} del timeout", fmt::ptr(event));
  switch (event->state()) {
    case TimerWheelState::inTimerWheel:
      checkArmedHere(event);
      timeouts_del(timeouts_, event->link());
      break;
    case TimerWheelState::notLinked:
      Impl::assertFailIn(__FILE__, __LINE__, "TimerWheel", __func__,
                         "Not linked but expirationTime={}", event->expirationTime_);
    default:
      timersExpiryingSoonRemove(event);
      break;
  }
  event->stateIs(TimerWheelState::notLinked);
  event->expirationTime_ = infinity;
}

// Leaves the map entry in place even when its list is now empty: the next
// delivery pass erases it, and setMasterTimer() skips it until then.
void TimerWheel::timersExpiryingSoonRemove(TimerWheelEvent* event) {
  TAMLO_ASSERT_IN("TimerWheel", event->state() == TimerWheelState::inTimersExpiryingSoon,
                  "Removing from timersExpiryingSoon in state {}", event->state());
  TAMLO_ASSERT_IN("TimerWheel", event->link()->pending != nullptr, "No timersAtTimeout");
  checkArmedHere(event);
  timeout_list_remove(event->link());
}

void TimerWheel::timerExpired(TimerWheelEvent* event) const {
  TAMLO_TRACE(trace(), 9, "timer {} expired", fmt::ptr(event));
  event->expirationTime_ = infinity;
  event->timeout();
}

void TimerWheel::setMasterTimer() {
  double const now = updateCurrentTime();
  // Timers the wheel has released come first: they are due no later than
  // anything still on the wheel.
  for (auto const& [expiry, timers] : timersExpiryingSoon_) {
    if (timers.empty())
      continue;
    if (expiry == infinity)
      break;
    if (expiry <= now) {
      TAMLO_TRACE(trace(), 8,
                  "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0",
                  expiry, now);
      masterTimerSet(0);
    } else {
      TAMLO_TRACE(trace(), 8,
                  "has scheduled timers, firstExpiryTime={} now={}, set master timer timeout {}",
                  expiry, now, expiry - now);
      masterTimerSet(expiry - now);
    }
    masterExpiry_ = expiry;
    return;
  }
  if (timeouts_expired(timeouts_)) {
    TAMLO_TRACE(trace(), 8, "has expired timers, set master timer timeout 0");
    masterTimerSet(0);
    masterExpiry_ = 0;
  } else if (!timeouts_pending(timeouts_)) {
    TAMLO_TRACE(trace(), 8, "has no timers, del master timer timeout");
    masterTimer_->delTimeout();
    masterExpiry_ = infinity;
  } else {
    timeout_t const ticks = timeouts_timeout(timeouts_);
    double const delay = static_cast<double>(ticks) / ticksPerSecond;
    TAMLO_TRACE(trace(), 8,
                "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}",
                ticks, delay);
    masterTimerSet(delay);
    masterExpiry_ = now + delay;
  }
}

void TimerWheel::timeout() {
  TAMLO_TRACE(trace(), 8, "master timer expired");
  // A handler may drop the last reference to this wheel.
  std::shared_ptr<TimerWheel> const keepAlive = weak_from_this().lock();
  double const now = updateCurrentTime();

  // Released records keep the order in which the wheel gave them out within
  // one exact expiry.
  while (struct timeout* const record = timeouts_get(timeouts_)) {
    TimerWheelEvent* const event = timeoutLink2TimerWheelEvent(record);
    event->stateIs(TimerWheelState::notLinked);
    TimersAtTimeout& timers =
        timersExpiryingSoon_.try_emplace(event->expirationTime_).first->second;
    event->stateIs(TimerWheelState::inTimersExpiryingSoon);
    timers.pushBack(event);
  }

  auto entry = timersExpiryingSoon_.begin();
  try {
    for (; entry != timersExpiryingSoon_.end() && entry->first <= now;
         entry = timersExpiryingSoon_.erase(entry)) {
      TimersAtTimeout& timers = entry->second;
      // The head is read again after every delivery: a handler may stop or
      // re-arm any event, this list's included.
      while (TimerWheelEvent* const event = timers.first()) {
        timers.unlink(event);
        event->stateIs(TimerWheelState::notLinked);
        timerExpired(event);
      }
    }
  } catch (...) {
    // The master timer has fired and this pass does not arm it again, so it
    // is off: the next timerStart() arms it for what is left.
    masterExpiry_ = infinity;
    // The master timer's delivery still offers the exception to this wheel.
    if (keepAlive.use_count() == 1)
      Impl::keepWhileUnwinding(keepAlive);
    throw;
  }
  if (entry != timersExpiryingSoon_.end())
    TAMLO_TRACE(trace(), 9, "Defer processing timers with expiry time {} > now {}", entry->first,
                now);
  setMasterTimer();
}

// ---- Getters ----

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (hasThreadLocalSingletons()) {
    thread_local std::shared_ptr<TimerWheel> const threadWheel =
        makeShared<TimerWheel>(Platform::eventPriorityDefault);
    return threadWheel;
  }
  static std::shared_ptr<TimerWheel> const processWheel =
      makeShared<TimerWheel>(Platform::eventPriorityDefault);
  return processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(EventPriority priority) {
  return makeShared<TimerWheel>(priority);
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel) {
  TAMLO_ASSERT_IN("Tamlo::Platform", wheel != nullptr, "No timer wheel for handler {}",
                  fmt::ptr(handler));
  return makeShared<TimerWheelTimerControl>(handler, std::move(wheel));
}

}  // namespace Platform

}  // namespace Tamlo
