// The timer wheel: very many one-shot timers served by one event-loop timer.
//
// A TimerWheel keeps its timers on a hierarchical timing wheel (Timeouts.h)
// at 100 ticks per second and arms a single platform timer, the master
// timer, for the earliest work. Because the wheel only knows whole ticks it
// may release a timer up to a tick early; released timers wait in a map
// sorted by their exact expiry, so a wheel timer never fires before its
// exact time. Clients normally see a wheel timer as a Platform::TimerControl
// (getTimerControl(handler, wheel)), indistinguishable from a libevent timer
// except by its cost: arming and stopping are O(1) however many are pending.
//
// Threads: none. A wheel, its timers and its master timer belong to the
// thread whose event loop runs the master timer; nothing here takes a lock.
// getTimerWheel() hands out one wheel per process, or one per thread on
// threads that use thread-local singletons.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include <fmt/format.h>

#include <Tamlo/Platform.h>
#include <Tamlo/Timeouts.h>

namespace Tamlo {

class TimerWheel;
class TimerWheelEvent;

// The event whose link() is `link`.
inline TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link);

// Where a TimerWheelEvent is. The only changes are from notLinked to one of
// the others and back.
enum class TimerWheelState : uint8_t {
  notLinked = 0,
  inTimerWheel = 1,
  // Released by the wheel, waiting in the map for its exact expiry.
  inTimersExpiryingSoon = 2,
};

// The state's name, or "unknownState" for a value that is not a state.
constexpr std::string_view timerWheelStateToString(TimerWheelState state) {
  switch (state) {
    case TimerWheelState::notLinked:
      return "notLinked";
    case TimerWheelState::inTimerWheel:
      return "inTimerWheel";
    case TimerWheelState::inTimersExpiryingSoon:
      return "inTimersExpiryingSoon";
  }
  return "unknownState";
}

// A timer that can sit on a wheel: its timeout record and its exact expiry.
// The state lives in the caller bits of the record's flags, so an event
// costs nothing beyond the record and one double. While the event waits in
// the expiring-soon map, the record's list links chain it there.
//
// Destroying an event that is not notLinked is a fatal assertion: stop it
// first. Not copyable; it is linked by address.
class TimerWheelEvent {
 public:
  TimerWheelEvent();
  // The expiry notification, called once per arming.
  virtual void timeout() = 0;
  virtual ~TimerWheelEvent();
  TimerWheelEvent(TimerWheelEvent const&) = delete;
  TimerWheelEvent& operator=(TimerWheelEvent const&) = delete;

  // Arm (or re-arm) on `wheel`, `seconds` from now; disarm.
  void setTimeout(std::shared_ptr<TimerWheel> const& wheel, double seconds);
  void delTimeout(std::shared_ptr<TimerWheel> const& wheel);
  // +infinity when not armed; 0 once due but not yet delivered.
  double remainingTimeout() const;
  // The absolute expiry on Tamlo::time()'s clock; +infinity when not armed.
  double expirationTime() const { return expirationTime_; }

  TimerWheelState state() const;
  // Assertion failure for a change between two linked states.
  void stateIs(TimerWheelState state);

  // The record that links the event into the wheel or the expiring-soon map.
  struct timeout* link() {
    return &link_;
  }
  struct timeout const* link() const {
    return &link_;
  }

 protected:
  struct timeout link_;
  double expirationTime_;

 private:
  friend class TimerWheel;

  // The wheel the event was last armed on: arming or stopping an armed event
  // on another wheel is an assertion failure, not a corrupted wheel.
  TimerWheel const* armedWheel_ = nullptr;
  friend TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link);

  static TimerWheelState timeoutFlagsToState(int flags);
  static int stateToTimeoutFlags(TimerWheelState state);
};

// One hierarchical timing wheel and its master timer. Created by the getters
// below through makeShared; keeps itself alive while it delivers, so a
// handler may drop the last reference to it.
//
// Exceptions thrown by a timer's handler leave timeout() and the event-loop
// call; the timers not yet delivered stay due, and the wheel arms its master
// timer again at the next timerStart() or setMasterTimer().
class TimerWheel : private Platform::TimeoutHandler,
                   public std::enable_shared_from_this<TimerWheel> {
 public:
  static constexpr double ticksPerSecond = 100;

  // A FIFO of events released by the wheel that share one exact expiry. The
  // events are chained through their own records, so the list allocates
  // nothing. Destroying a non-empty list is a fatal assertion.
  class TimersAtTimeout {
   public:
    TimersAtTimeout() = default;
    ~TimersAtTimeout();
    TimersAtTimeout(TimersAtTimeout const&) = delete;
    TimersAtTimeout& operator=(TimersAtTimeout const&) = delete;

    bool empty() const { return timeout_list_empty(&list_); }
    // Null when empty.
    TimerWheelEvent* first() const;
    // `event` must be on no list.
    void pushBack(TimerWheelEvent* event);
    // `event` must be on this list.
    void unlink(TimerWheelEvent* event);

   private:
    struct timeout_list list_ = {};
  };

  // The master timer is a libevent timer of `masterPriority`.
  explicit TimerWheel(Platform::EventPriority masterPriority = Platform::eventPriorityDefault);
  ~TimerWheel() override;
  TimerWheel(TimerWheel const&) = delete;
  TimerWheel& operator=(TimerWheel const&) = delete;

  // Arms `event` to expire `timeout` seconds from now, replacing an earlier
  // arming; the same absolute expiry again changes nothing. +infinity stops
  // it, as for every timer control. An expiry whose tick does not fit in 64
  // bits (about 5.8e9 years) is cut to the last one that does.
  void timerStart(TimerWheelEvent* event, double timeout);
  // Disarms `event`; harmless when it is not armed. An event armed on
  // another wheel is an assertion failure naming both wheels.
  void timerStop(TimerWheelEvent* event);
  // Delivers one expiry: the event becomes idle, then its timeout() runs.
  void timerExpired(TimerWheelEvent* event) const;
  // Arms the master timer for the earliest pending work, or disarms it.
  void setMasterTimer();
  // The master timer's expiry: releases what the wheel has due, delivers in
  // order of exact expiry what is due now, and re-arms the master timer.
  void timeout() override;

  // When the master timer is set to fire: +infinity when off, 0 when armed
  // with no delay for timers the wheel has already released.
  double masterExpiry() const { return masterExpiry_; }
  // Entries of the expiring-soon map, empty ones included.
  size_t timersExpiryingSoonSizeForTest() const { return timersExpiryingSoon_.size(); }
  // How many times the master timer has been armed (setTimeout) so far.
  uint64_t masterTimerArmCountForTest() const { return masterTimerArmCount_; }
  // timerStart() for the absolute expiry `expireAt`, which the clock never
  // lets two timerStart() calls share exactly.
  void timerStartAtForTest(TimerWheelEvent* event, double expireAt);

 private:
  void timerStart(TimerWheelEvent* event, double timeout, double expireAt);
  // Assertion failure unless the armed `event` is on this wheel.
  void checkArmedHere(TimerWheelEvent const* event) const;
  // Reads Tamlo::time(), moves the wheel to its tick and returns it.
  double updateCurrentTime();
  void timersExpiryingSoonRemove(TimerWheelEvent* event);
  void masterTimerSet(double delay);

  int32_t openError_ = 0;
  double masterExpiry_;
  std::shared_ptr<Platform::TimerControl> masterTimer_;
  struct timeouts* timeouts_ = nullptr;
  std::map<double, TimersAtTimeout> timersExpiryingSoon_;
  uint64_t masterTimerArmCount_ = 0;
};

// The wheel of this process, or of this thread when it uses thread-local
// singletons (hasThreadLocalSingletons()). The process's wheel is made once,
// thread-safely, and released at exit; a thread's at thread exit. Its master
// timer has eventPriorityDefault.
std::shared_ptr<TimerWheel> getTimerWheel();
// A new wheel on every call, whose master timer has `priority`.
std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority);

namespace Platform {
// A timer control for `handler` on `wheel`, which it keeps alive. Its owner
// must delTimeout() before dropping it while armed: destroying an armed wheel
// timer is a fatal assertion. An exception from the handler's timeout() is
// not offered to handleTimeoutException(); it leaves the event-loop call.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel);
}  // namespace Platform

}  // namespace Tamlo

template <>
struct fmt::formatter<Tamlo::TimerWheelState> : fmt::formatter<std::string_view> {
  auto format(Tamlo::TimerWheelState state, fmt::format_context& context) const {
    return fmt::formatter<std::string_view>::format(Tamlo::timerWheelStateToString(state), context);
  }
};

#include <Tamlo/TimerWheelCpp.h>
