// The narrow waist between everything that wants to be woken up (schedulers,
// timers, descriptor readers, user code) and the event loop that wakes it:
// handler interfaces (what is called back), control interfaces (what arms and
// disarms the call-back), the two event priorities, the factories that bind a
// control to a handler, and the entry points that run the thread's loop.
//
// Threads: a control belongs to the thread that created it and must only be
// used there; each thread runs its own loop. The fast-forward switch is
// process-wide and may only be changed on the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace Tamlo {

// Monotonic seconds (CLOCK_MONOTONIC) plus the calling thread's virtual-time
// offset: the one clock for deadlines. Never the wall clock.
double time();

namespace Platform {

// Also the libevent priority index: lower numbers are served first.
enum EventPriority : uint8_t {
  // Served before every default-priority event ready in the same loop pass.
  eventPriorityStrictHigh = 0,
  // Everything else: fd events, loop breaks and call-backs use it.
  eventPriorityDefault = 1,
};

constexpr bool isEventPriorityValid(EventPriority priority) {
  return priority < 2;
}

// The value's name, or "" for a value that is not an EventPriority.
constexpr std::string_view eventPriorityToString(EventPriority priority) {
  switch (priority) {
    case eventPriorityStrictHigh:
      return "eventPriorityStrictHigh";
    case eventPriorityDefault:
      return "eventPriorityDefault";
  }
  return "";
}

// Handlers. A backend calls handle...Exception() from inside a catch-all
// while the exception thrown by the matching notification is in flight (it
// can be inspected with std::current_exception()). Returning true claims it
// and the backend swallows it; false, the default, lets it leave the
// event-loop call.

class TimeoutHandler {
 public:
  virtual ~TimeoutHandler() = default;
  virtual void timeout() = 0;
  virtual bool handleTimeoutException() { return false; }
};

class CallbackHandler {
 public:
  virtual ~CallbackHandler() = default;
  virtual void callback() = 0;
  virtual bool handleCallbackException() { return false; }
};

class FdEventHandler {
 public:
  virtual ~FdEventHandler() = default;
  virtual void readFdEvent(int fd) = 0;
  virtual void writeFdEvent(int fd) = 0;
  virtual bool handleFdException(int /*fd*/) { return false; }
};

// Controls. Each notifies one handler that it does not own: the handler must
// outlive the control. Every backend keeps the contracts below.

// A one-shot timer. setTimeout(s) makes the handler's timeout() run once, s
// seconds from now on the backend's clock (virtual offset included);
// re-arming replaces the old expiry. delTimeout() disarms, harmlessly when
// idle. remainingTimeout() is the seconds left: 0 once the expiry has passed
// but has not been delivered yet, +infinity when not armed. +infinity arms
// nothing. Every finite delay the backend can hold is kept: libevent timers
// cut delays to 2^62 seconds, wheel timers cut expiries to about 1.8e17
// seconds on the clock, where their 64-bit tick count at 100 Hz ends.
class TimerControl {
 public:
  explicit TimerControl(TimeoutHandler* handler) : handler_(handler) {}
  virtual ~TimerControl() = default;
  TimerControl(TimerControl const&) = delete;
  TimerControl& operator=(TimerControl const&) = delete;

  virtual void setTimeout(double seconds) = 0;
  virtual void delTimeout() = 0;
  virtual double remainingTimeout() const = 0;

 protected:
  TimeoutHandler* handler_;
};

// One call of the handler's callback() on the next loop pass. Requests made
// before the call collapse into one; cancelCallback() withdraws it;
// pendingCallback() tells whether a call is outstanding.
class CallbackControl {
 public:
  explicit CallbackControl(CallbackHandler* handler) : handler_(handler) {}
  virtual ~CallbackControl() = default;
  CallbackControl(CallbackControl const&) = delete;
  CallbackControl& operator=(CallbackControl const&) = delete;

  virtual void requestCallback() = 0;
  virtual void cancelCallback() = 0;
  virtual bool pendingCallback() const = 0;

 protected:
  CallbackHandler* handler_;
};

// Readiness of one descriptor. setReads/setWrites say which directions are
// wanted; setFd binds the descriptor and arms what is wanted; clearEvents()
// disarms both directions but keeps the descriptor; delFd() disarms and
// forgets it (getFd() is then -1). Nothing here closes the descriptor.
class FdControl {
 public:
  explicit FdControl(FdEventHandler* handler) : handler_(handler) {}
  virtual ~FdControl() = default;
  FdControl(FdControl const&) = delete;
  FdControl& operator=(FdControl const&) = delete;

  virtual void setReads(bool on) = 0;
  virtual void setWrites(bool on) = 0;
  virtual void setFd(int fd) = 0;
  virtual void delFd() = 0;
  virtual int getFd() const = 0;
  virtual void clearEvents() = 0;

 protected:
  FdEventHandler* handler_;
};

// Turns the bytes of a value of a named type into text for diagnostics: the
// renderer registered for the type name in the IntrospectionMap if there is
// one and it says something, else a hexadecimal dump of the value's bytes.
// Holds no state beyond its two fields; safe to share between threads.
class ValuePrinter {
 public:
  ValuePrinter(std::string typeName, int32_t size) : typeName_(std::move(typeName)), size_(size) {}
  // customToString(value), or the hex dump of `size` bytes when it is empty.
  virtual std::string toString(void const* value);
  virtual ~ValuePrinter() = default;

  // The registered renderer's text, or "" when none is registered.
  std::string customToString(void const* value) const;
  std::string const& typeName() const { return typeName_; }
  int32_t size() const { return size_; }

 private:
  std::string typeName_;
  int32_t size_;
};

// A new printer on every call; nothing is cached.
std::shared_ptr<ValuePrinter> getValuePrinter(std::string const& typeName, int size);

// Factories of the libevent backend. The first control made on a thread
// creates that thread's event base. Timer-wheel and task-backed overloads of
// getTimerControl and friends are declared beside those backends.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority);
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

// Runs the thread's loop until nothing is left or it is broken.
void doEventLoop();
// Runs the loop for `timeout` seconds of (virtual) time.
void doEventLoop(double timeout);
// One bounded loop pass, for loops that wait for a condition.
void doEventLoopInWaitfor(double maxTimeout);

// Fast-forward (virtual time): see LibeventFactory.h for the details.
void setFastForward(bool on);
bool fastForward();
// `notifier` runs after every change of the switch; registering it again
// does nothing.
void registerFastForwardChangeNotifier(void (*notifier)());
// Moves the calling thread's virtual time forward by `seconds` without
// running the loop; timers that became due fire at the next pass.
void fastForwardBy(double seconds);

// Always false in this library.
bool releaseMode();
// Not supported here: both are assertion failures.
bool refCountingEnabled();
void refCountingEnabledIs(bool enabled);

}  // namespace Platform
}  // namespace Tamlo

// Prints the name, or "Invalid EventPriority=<number>"; never throws.
template <>
struct fmt::formatter<Tamlo::Platform::EventPriority> : fmt::formatter<std::string_view> {
  auto format(Tamlo::Platform::EventPriority priority, fmt::format_context& context) const {
    if (Tamlo::Platform::isEventPriorityValid(priority))
      return fmt::formatter<std::string_view>::format(
          Tamlo::Platform::eventPriorityToString(priority), context);
    return fmt::format_to(context.out(), "Invalid EventPriority={}", static_cast<int>(priority));
  }
};
