// Inline parts of the timer wheel: the state bits of an event, the way back
// from a timeout record to its event, and the expiring-soon lists. They sit
// on the arming and delivery paths, so they are kept out of the library's
// exported calls.
#pragma once

#include <cstddef>
#include <limits>

#include <Tamlo/Assert.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Timeouts.h>
#include <Tamlo/TimerWheel.h>

namespace Tamlo {

namespace Impl {
// One caller bit of the timeout record per state; exactly one is set.
inline constexpr int timerWheelNotLinkedFlag = 0x04;
inline constexpr int timerWheelInTimerWheelFlag = 0x08;
inline constexpr int timerWheelInTimersExpiryingSoonFlag = 0x10;
static_assert((timerWheelNotLinkedFlag | timerWheelInTimerWheelFlag |
               timerWheelInTimersExpiryingSoonFlag) == TIMEOUT_CALLER_BITS);
}  // namespace Impl

inline TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link) {
  // The record is a member of a polymorphic class, for which offsetof is only
  // conditionally supported; GCC and Clang both give the member's offset.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  constexpr size_t linkOffset = offsetof(TimerWheelEvent, link_);
#pragma GCC diagnostic pop
  return reinterpret_cast<TimerWheelEvent*>(reinterpret_cast<char*>(link) - linkOffset);
}

inline TimerWheelState TimerWheelEvent::timeoutFlagsToState(int flags) {
  int const bits = flags & TIMEOUT_CALLER_BITS;
  switch (bits) {
    case Impl::timerWheelNotLinkedFlag:
      return TimerWheelState::notLinked;
    case Impl::timerWheelInTimerWheelFlag:
      return TimerWheelState::inTimerWheel;
    case Impl::timerWheelInTimersExpiryingSoonFlag:
      return TimerWheelState::inTimersExpiryingSoon;
  }
  Impl::assertFailIn(__FILE__, __LINE__, "TimerWheelEvent", __func__,
                     "None or multiple of our flags set {}", bits);
}

inline int TimerWheelEvent::stateToTimeoutFlags(TimerWheelState state) {
  switch (state) {
    case TimerWheelState::notLinked:
      return Impl::timerWheelNotLinkedFlag;
    case TimerWheelState::inTimerWheel:
      return Impl::timerWheelInTimerWheelFlag;
    case TimerWheelState::inTimersExpiryingSoon:
      return Impl::timerWheelInTimersExpiryingSoonFlag;
  }
  Impl::assertFailIn(__FILE__, __LINE__, "TimerWheelEvent", __func__, "invalid state {}",
                     static_cast<int>(state));
}

inline TimerWheelState TimerWheelEvent::state() const {
  return timeoutFlagsToState(link_.flags);
}

inline void TimerWheelEvent::stateIs(TimerWheelState state) {
  TimerWheelState const current = this->state();
  if (state == current)
    return;
  TAMLO_ASSERT_IN("TimerWheelEvent",
                  state == TimerWheelState::notLinked || current == TimerWheelState::notLinked,
                  "State change {} -> {} must go via {}", current, state,
                  TimerWheelState::notLinked);
  link_.flags = (link_.flags & ~TIMEOUT_CALLER_BITS) | stateToTimeoutFlags(state);
}

inline double TimerWheelEvent::remainingTimeout() const {
  if (expirationTime_ == std::numeric_limits<double>::infinity())
    return expirationTime_;
  double const remaining = expirationTime_ - Tamlo::time();
  return remaining > 0 ? remaining : 0;
}

inline TimerWheelEvent* TimerWheel::TimersAtTimeout::first() const {
  struct timeout* const record = timeout_list_first(&list_);
  return record != nullptr ? timeoutLink2TimerWheelEvent(record) : nullptr;
}

inline void TimerWheel::TimersAtTimeout::pushBack(TimerWheelEvent* event) {
  struct timeout* const record = event->link();
  TAMLO_ASSERT_IN("TimersAtTimeout", record->pending == nullptr, "pending set to {}",
                  fmt::ptr(record->pending));
  timeout_list_push_back(&list_, record);
}

inline void TimerWheel::TimersAtTimeout::unlink(TimerWheelEvent* event) {
  struct timeout* const record = event->link();
  TAMLO_ASSERT_IN("TimersAtTimeout", record->pending == &list_, "Event {} linked to {}",
                  fmt::ptr(event), fmt::ptr(record->pending));
  timeout_list_remove(record);
}

}  // namespace Tamlo
