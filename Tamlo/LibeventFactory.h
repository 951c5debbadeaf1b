// The libevent backend of the platform controls: one event base per thread,
// created lazily, with two priorities and edge-triggered support; the timer,
// call-back and descriptor controls; the loop functions; and virtual time
// (a per-thread offset on top of the monotonic clock that tests can
// fast-forward to the next timer).
//
// Threads: a base and every control bound to it belong to one thread and
// take no lock. A thread other than the main one that used the platform
// calls leFree() before it exits, after its controls are gone.
//
// The base's clock is CLOCK_MONOTONIC read at each call (precise timer, no
// cached loop-pass time), the clock Tamlo::time() reads: a timer armed from
// inside a handler counts from the moment it is armed, and a deadline
// computed with Tamlo::time() agrees with its libevent expiry.
//
// Handler exceptions: an exception the handler does not claim stops the
// loop pass and is rethrown by the loop function that runs the base, which
// stays usable. (It is never unwound through libevent's own frames.)
#pragma once

#include <sys/time.h>
#include <atomic>
#include <memory>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <Tamlo/LibeventFactoryCpp.h>
#include <Tamlo/Platform.h>

namespace Tamlo {

// The calling thread's event base; null until one is registered.
extern thread_local event_base* ev_base;
// The process-wide fast-forward switch, written only by setLeFastForward on
// a main thread. Read it with leFastForward().
extern std::atomic<bool> fastForward;

// ---- Base management (all act on the calling thread's base) ----

// A new base configured as above; not registered. The first call in the
// process switches on libevent's pthread support and routes its log and
// fatal messages to the "TamloLibevent" trace handle.
event_base* leCreateBase();
// Makes `base` the thread's base and sets mainThread. Registering the base
// already registered is allowed; another one is an assertion failure.
void leRegisterBase(event_base* base);
// Creates and registers the thread's base unless it has one.
void leInit();
bool leInitialized();
// Frees the thread's base (libevent disarms every event still on it); the
// next leInit() creates a fresh one. Controls left over re-bind on next use.
void leFree();
// In a child after fork(), on the thread that owns the base, before the loop.
void leForkReinit();
void eventPrioritySet(event* ev, Platform::EventPriority priority);

// ---- Factories behind the platform ones ----

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority);
std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler);
std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);

// ---- Loop functions ----

// Until nothing is left or the loop is broken. With fast-forward, first
// jumps to the earliest timer.
void doLeEventLoop();
// For `timeout` seconds; with fast-forward, jumps from timer to timer until
// virtual time reaches the deadline.
void doLeEventLoop(double timeout);
// Without fast-forward, the loop for `maxTimeout` seconds; with it, one jump
// of at most `maxTimeout` to the first timer and one loop pass.
void doLeEventLoopInWaitfor(double maxTimeout);
// Runs the base under an EvLoopBreak of `timeout` seconds.
void eventLoopTimeout(double timeout);

// ---- Virtual time ----

// The calling thread's offset in seconds; it starts at zero and only grows.
double leVirtualTimeOffset();
// Moves the thread's virtual time forward by `delta`: every pending timer of
// its base becomes due `delta` earlier and the offset grows by `delta`.
// Callers check the switch.
void applyFastForwardDelta(timeval const* delta);
// How far to jump so that the earliest pending timer is strictly due (100 us
// beyond it); {0, 0} when it already is. False, leaving `out` alone, when
// no timer is pending. Requires fast-forward.
bool fastForwardDelayToFirstTimer(timeval* out);
// Jumps by `step`, then runs one loop pass.
void eventLoopFastForward(timeval const* step);
// Jumps to the first timer, but at most `maxTimeout` (the whole bound when
// there is no timer), then runs one loop pass. Requires fast-forward.
void eventLoopFastForwardToFirstTimer(double maxTimeout);
// Main thread only. A change calls every registered notifier once.
void setLeFastForward(bool on);
bool leFastForward();
// Notifiers are called in no defined order; registering one again does
// nothing. Thread-safe.
void leRegisterFastForwardChangeNotifier(void (*notifier)());
// WAITFOR_DEFAULT, read on the first call (as by std::stod); +infinity when
// unset or unparsable (the latter reported on standard error).
double waitForDefaultTimeout();

// ---- libevent's log and fatal callbacks ----

// Severity debug, msg, warn, err traces at level 9, 5, 1, 0 on
// "TamloLibevent"; any other severity is an assertion failure.
void le_debug_cb(int severity, char const* msg);
[[noreturn]] void le_fatal_cb(int err);

// ---- The controls ----

// A libevent timer at a fixed priority. Re-arming is one event_add on the
// already bound event.
class LibeventTimerControl : public Platform::TimerControl {
 public:
  explicit LibeventTimerControl(Platform::TimeoutHandler* handler,
                                Platform::EventPriority priority = Platform::eventPriorityDefault);
  ~LibeventTimerControl() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;

  // Delivers one expiry: the handler's timeout(), whose exception is offered
  // to handleTimeoutException().
  void handler();
  // Cheaper than asking remainingTimeout() for a finite value.
  bool armed() const;
  Platform::EventPriority priority() const { return priority_; }

 protected:
  // The handler is this object itself, which has offered its exception to its
  // own handler already and may be gone by the time the exception is caught.
  bool handlerIsSelf_ = false;

 private:
  static void handleTimeout(evutil_socket_t fd, short what, void* arg);
  // (Re)assigns the event to the thread's current base.
  void bind();
  bool boundToThreadBase() const { return event_get_base(&event_) == ev_base; }

  Platform::EventPriority priority_;
  event event_;
};

// A call-back is a zero-delay timer on itself: requests collapse because a
// second request re-arms the same timer.
class LibeventCallbackControl : public Platform::CallbackControl,
                                private Platform::TimeoutHandler,
                                private LibeventTimerControl {
 public:
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
  ~LibeventCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void timeout() override;
};

// A persistent read event and a one-shot write event on one descriptor.
// After a write-readiness call writes stay wanted but are no longer armed:
// the consumer re-arms them with setWrites(true). Setters that would change
// nothing (same wish, event already in that state) do nothing.
class LibeventFdControl : public Platform::FdControl {
 public:
  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  ~LibeventFdControl() override;

  // Before setFd() these only record the wish.
  void setReads(bool on) override;
  void setWrites(bool on) override;
  // Makes `fd` non-blocking (aborts when fcntl fails) and arms what is wanted.
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override { return fd_; }
  void clearEvents() override;

  bool reads() const { return reads_; }
  bool writes() const { return writes_; }
  bool readArmed() const { return armed(readEvent_); }
  bool writeArmed() const { return armed(writeEvent_); }

 private:
  static void handleFdRead(evutil_socket_t fd, short what, void* arg);
  static void handleFdWrite(evutil_socket_t fd, short what, void* arg);
  void arm(event& ev, short what, event_callback_fn callback);
  void disarm(event& ev);
  bool armed(event const& ev) const;

  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  event readEvent_;
  event writeEvent_;
};

// Ends the running dispatch of the thread's base after a timeout, at the end
// of the loop pass in which it expires; removes its event when the scope
// ends, also on unwinding. While it is pending the loop does not stop for
// want of events.
class EvLoopBreak {
 public:
  explicit EvLoopBreak(timeval const& timeout);
  ~EvLoopBreak();
  EvLoopBreak(EvLoopBreak const&) = delete;
  EvLoopBreak& operator=(EvLoopBreak const&) = delete;

 private:
  static void handleBaseLoopBreak(evutil_socket_t fd, short what, void* arg);

  event event_;
  bool requeued_ = false;
};

namespace Impl {
// The "TamloLibevent" trace handle.
Platform::DebugHandler const* libeventDebugHandle();
// event_base_dispatch on the thread's base, then rethrows the exception a
// handler let escape, if any. A handler exception that escapes a dispatch
// client code runs directly ends the process at once (std::terminate).
void leDispatch();
// Keeps `object` alive while the exception being thrown unwinds to the
// libevent callback that offered and parks it: for a handler's object whose
// last reference went during the notification that threw. Call only while
// that exception is in flight.
void keepWhileUnwinding(std::shared_ptr<void> object) noexcept;
}  // namespace Impl

}  // namespace Tamlo
