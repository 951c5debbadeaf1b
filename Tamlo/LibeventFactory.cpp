#include <Tamlo/LibeventFactory.h>

#include <fcntl.h>
#include <cassert>
#include <exception>
#include <limits>
#include <mutex>
#include <utility>

#include <event2/thread.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Thread.h>

namespace Tamlo {

thread_local event_base* ev_base = nullptr;

using Platform::EventPriority;
using Platform::eventPriorityDefault;

namespace Impl {

Platform::DebugHandler const* libeventDebugHandle() {
  static std::shared_ptr<Platform::DebugHandler> const handle =
      Platform::getDebugHandler("TamloLibevent");
  return handle.get();
}

}  // namespace Impl

namespace {

// Made at load, so that the handle exists before anything traces on it.
[[maybe_unused]] Platform::DebugHandler const* const loadTimeHandle = Impl::libeventDebugHandle();

Platform::DebugHandler const* trace() {
  return Impl::libeventDebugHandle();
}

// An exception that a handler did not claim, on its way out of the loop
// function. C++ exceptions must not unwind through libevent's C frames: the
// base would be left marked as running its loop and refuse every later
// dispatch. So the libevent callback parks the exception here, breaks the
// loop, and the loop function rethrows it once dispatch has returned.
thread_local std::exception_ptr escapedException_;
// Set while a loop function of this file runs the dispatch. A dispatch that
// client code runs directly has nobody to rethrow a parked exception, and a
// later loop call must not throw what an unrelated pass let escape.
thread_local bool libraryDispatching_ = false;
// What a handler's object needs until the exception it threw has been
// offered and parked, when the handler dropped the last reference to it.
thread_local std::shared_ptr<void> keptWhileUnwinding_;

void parkEscapedException(event_base* base) noexcept {
  keptWhileUnwinding_.reset();
  if (!libraryDispatching_) {
    TAMLO_TRACE(trace(), 0,
                "A handler exception escaped a dispatch run outside Tamlo's loop functions");
    std::terminate();  // inside the catch: the terminate handler names the exception
  }
  if (escapedException_)
    TAMLO_TRACE(trace(), 0, "A second handler exception in one loop pass is dropped");
  else
    escapedException_ = std::current_exception();
  event_base_loopbreak(base);
}

void rethrowEscapedException() {
  if (!escapedException_)
    return;
  std::exception_ptr const escaped = std::move(escapedException_);
  escapedException_ = nullptr;
  std::rethrow_exception(escaped);
}

// The body of every libevent callback of this file.
template <typename Deliver>
void deliverFromLibevent(event_base* base, Deliver const& deliver) noexcept {
  try {
    deliver();
  } catch (...) {
    parkEscapedException(base);
  }
}

void setNonBlocking(int fd) {
  int const flags = fcntl(fd, F_GETFL);
  assert(flags >= 0);
  if ((flags & O_NONBLOCK) != 0)
    return;
  [[maybe_unused]] int const result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  assert(result == 0);
}

}  // namespace

// ---- Base management ----

namespace {
struct ThreadBaseReleaser {
  bool armed = false;
  ~ThreadBaseReleaser() {
    if (armed)
      leFree();
  }
};
}  // namespace

event_base* leCreateBase() {
  static std::once_flag libeventSetUp;
  std::call_once(libeventSetUp, [] {
    int const result = evthread_use_pthreads();
    TAMLO_ASSERT_IN("LeInitializer", result == 0, "failed to set up libevent threading: {}",
                    result);
    event_set_fatal_callback(le_fatal_cb);
    event_set_log_callback(le_debug_cb);
  });

  event_config* const config = event_config_new();
  event_config_require_features(config, EV_FEATURE_ET);
  // See the header: the base's clock is CLOCK_MONOTONIC, read afresh by
  // every event_add, the clock of Tamlo::time().
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
  event_base* const base = event_base_new_with_config(config);
  event_config_free(config);
  TAMLO_ASSERT(base != nullptr, "Failed to create event_base");
  int const result = event_base_priority_init(base, 2);
  TAMLO_ASSERT(result == 0, "Failed to set up two priorities on {} rc {}", fmt::ptr(base), result);
  return base;
}

void leRegisterBase(event_base* base) {
  TAMLO_ASSERT(base != nullptr, "Tried to register a null base");
  TAMLO_ASSERT(ev_base == nullptr || ev_base == base,
               "Tried to register a base:{} but a thread_local  base already exists: {}",
               fmt::ptr(base), fmt::ptr(ev_base));
  ev_base = base;
  setMainThread();
  // A thread's base goes with the thread. Controls that outlive it find no
  // base and re-bind on their next use, as after an explicit leFree().
  thread_local ThreadBaseReleaser releaser;
  releaser.armed = true;
}

void leInit() {
  if (ev_base == nullptr) [[unlikely]]
    leRegisterBase(leCreateBase());
}

bool leInitialized() {
  return ev_base != nullptr;
}

void leFree() {
  if (ev_base == nullptr)
    return;
  event_base_free(ev_base);
  ev_base = nullptr;
}

void leForkReinit() {
  if (ev_base == nullptr) {
    leInit();
    return;
  }
  int const result = event_reinit(ev_base);
  TAMLO_ASSERT(result == 0, "event_reinit failed on {} rc {}", fmt::ptr(ev_base), result);
}

void eventPrioritySet(event* ev, EventPriority priority) {
  TAMLO_TRACE(trace(), 9, "Setting priority of {} to {}", fmt::ptr(ev), priority);
  int const result = event_priority_set(ev, priority);
  TAMLO_ASSERT(result == 0, "Failed to set priority on {} to {} rc {}", fmt::ptr(ev), priority,
               result);
}

// ---- Factories ----

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return makeShared<LibeventTimerControl>(handler, eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          EventPriority priority) {
  return makeShared<LibeventTimerControl>(handler, priority);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
  return makeShared<LibeventCallbackControl>(handler);
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return makeShared<LibeventFdControl>(handler);
}

// ---- Timer control ----

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler,
                                           EventPriority priority)
    : TimerControl(handler), priority_(priority), event_{} {
  bind();
}

LibeventTimerControl::~LibeventTimerControl() {
  delTimeout();
}

void LibeventTimerControl::bind() {
  leInit();
  event_assign(&event_, ev_base, -1, 0, handleTimeout, this);
  eventPrioritySet(&event_, priority_);
}

void LibeventTimerControl::setTimeout(double seconds) {
  TAMLO_TRACE(trace(), 9, "Timer {} set timeout {}", fmt::ptr(this), seconds);
  // A timer that never expires is an idle one.
  if (seconds == std::numeric_limits<double>::infinity()) {
    delTimeout();
    return;
  }
  timeval const delay = Impl::timevalFromSeconds(seconds);
  if (!boundToThreadBase()) [[unlikely]]
    bind();
  // Adding a pending event moves it: the old expiry is replaced, also when
  // it has already fired in this pass and waits for its call-back.
  int const result = event_add(&event_, &delay);
  TAMLO_ASSERT(result == 0, "Failed to arm timer {} for {} rc {}", fmt::ptr(this), seconds, result);
}

void LibeventTimerControl::delTimeout() {
  TAMLO_TRACE(trace(), 9, "Timer {} del timeout", fmt::ptr(this));
  // After leFree() the base that held the event is gone, and with it the
  // event's registration.
  if (boundToThreadBase())
    event_del(&event_);
}

bool LibeventTimerControl::armed() const {
  return boundToThreadBase() && event_pending(&event_, EV_TIMEOUT, nullptr) != 0;
}

double LibeventTimerControl::remainingTimeout() const {
  if (!armed())
    return std::numeric_limits<double>::infinity();
  // Both sides in the base's own time base. (event_pending would report the
  // expiry on the wall clock, which can be stepped.)
  timeval now;
  Impl::eventBaseNow(ev_base, &now);
  timeval const expiry = event_.ev_timeout;
  if (Impl::timevalLess(expiry, now))
    return 0;
  return Impl::secondsFromTimeval(Impl::timevalSubtract(expiry, now));
}

void LibeventTimerControl::handler() {
  TAMLO_TRACE(trace(), 9, "Timer {} expired", fmt::ptr(this));
  // Copied first: the handler may destroy this control.
  Platform::TimeoutHandler* const timeoutHandler = handler_;
  bool const handlerIsSelf = handlerIsSelf_;
  try {
    timeoutHandler->timeout();
  } catch (...) {
    // A call-back control's own handleTimeoutException() claims nothing.
    if (handlerIsSelf || !timeoutHandler->handleTimeoutException())
      throw;
    TAMLO_TRACE(trace(), 9, "Timeout notification exception was handled");
  }
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* arg) {
  auto* const control = static_cast<LibeventTimerControl*>(arg);
  deliverFromLibevent(event_get_base(&control->event_), [control] { control->handler(); });
}

// ---- Call-back control ----

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : CallbackControl(handler), LibeventTimerControl(static_cast<TimeoutHandler*>(this)) {
  handlerIsSelf_ = true;
}

LibeventCallbackControl::~LibeventCallbackControl() {
  cancelCallback();
}

void LibeventCallbackControl::requestCallback() {
  TAMLO_TRACE(trace(), 9, "Callback {} request", fmt::ptr(this));
  setTimeout(0.0);
}

void LibeventCallbackControl::cancelCallback() {
  TAMLO_TRACE(trace(), 9, "Callback {} cancel", fmt::ptr(this));
  delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
  return armed();
}

void LibeventCallbackControl::timeout() {
  TAMLO_TRACE(trace(), 9, "Callback {} execute", fmt::ptr(this));
  Platform::CallbackHandler* const callbackHandler = CallbackControl::handler_;
  try {
    callbackHandler->callback();
  } catch (...) {
    if (!callbackHandler->handleCallbackException())
      throw;
    TAMLO_TRACE(trace(), 9, "Callback notification exception was handled");
  }
}

// ---- Fd control ----

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler)
    : FdControl(handler), readEvent_{}, writeEvent_{} {
  leInit();
  event_assign(&readEvent_, ev_base, -1, 0, handleFdRead, this);
  eventPrioritySet(&readEvent_, eventPriorityDefault);
  event_assign(&writeEvent_, ev_base, -1, 0, handleFdWrite, this);
  eventPrioritySet(&writeEvent_, eventPriorityDefault);
}

LibeventFdControl::~LibeventFdControl() {
  delFd();
}

bool LibeventFdControl::armed(event const& ev) const {
  return event_get_base(&ev) == ev_base && event_pending(&ev, EV_READ | EV_WRITE, nullptr) != 0;
}

void LibeventFdControl::arm(event& ev, short what, event_callback_fn callback) {
  disarm(ev);
  leInit();
  event_assign(&ev, ev_base, fd_, what, callback, this);
  eventPrioritySet(&ev, eventPriorityDefault);
  int const result = event_add(&ev, nullptr);
  TAMLO_ASSERT(result == 0, "Failed to arm fd {} for events {:#x} rc {}", fd_, what, result);
}

void LibeventFdControl::disarm(event& ev) {
  if (event_get_base(&ev) == ev_base)
    event_del(&ev);
  ev.ev_fd = -1;
}

void LibeventFdControl::setReads(bool on) {
  if (on == reads_ && (fd_ < 0 || on == armed(readEvent_)))
    return;
  reads_ = on;
  if (fd_ < 0)
    return;
  if (on)
    arm(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  else
    disarm(readEvent_);
}

void LibeventFdControl::setWrites(bool on) {
  if (on == writes_ && (fd_ < 0 || on == armed(writeEvent_)))
    return;
  writes_ = on;
  if (fd_ < 0)
    return;
  if (on)
    arm(writeEvent_, EV_WRITE, handleFdWrite);
  else
    disarm(writeEvent_);
}

void LibeventFdControl::setFd(int fd) {
  if (fd == fd_ && armed(readEvent_) == reads_ && armed(writeEvent_) == writes_)
    return;
  clearEvents();
  fd_ = fd;
  setNonBlocking(fd);
  if (reads_)
    arm(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  if (writes_)
    arm(writeEvent_, EV_WRITE, handleFdWrite);
}

void LibeventFdControl::delFd() {
  clearEvents();
  fd_ = -1;
}

void LibeventFdControl::clearEvents() {
  disarm(readEvent_);
  disarm(writeEvent_);
}

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* arg) {
  auto* const control = static_cast<LibeventFdControl*>(arg);
  // Copied first: the handler may destroy this control.
  Platform::FdEventHandler* const handler = control->handler_;
  int const fd = control->fd_;
  deliverFromLibevent(event_get_base(&control->readEvent_), [handler, fd] {
    try {
      handler->readFdEvent(fd);
    } catch (...) {
      if (!handler->handleFdException(fd))
        throw;
    }
  });
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* arg) {
  auto* const control = static_cast<LibeventFdControl*>(arg);
  Platform::FdEventHandler* const handler = control->handler_;
  int const fd = control->fd_;
  deliverFromLibevent(event_get_base(&control->writeEvent_), [handler, fd] {
    try {
      handler->writeFdEvent(fd);
    } catch (...) {
      if (!handler->handleFdException(fd))
        throw;
    }
  });
}

// ---- Loop break and loops ----

EvLoopBreak::EvLoopBreak(timeval const& timeout) : event_{} {
  TAMLO_TRACE(trace(), 8, "{} timeout {}", fmt::ptr(this), timeout);
  leInit();
  event_assign(&event_, ev_base, -1, 0, handleBaseLoopBreak, this);
  eventPrioritySet(&event_, eventPriorityDefault);
  event_add(&event_, &timeout);
}

EvLoopBreak::~EvLoopBreak() {
  TAMLO_TRACE(trace(), 9, "{} removed", fmt::ptr(this));
  if (event_get_base(&event_) == ev_base)
    event_del(&event_);
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
  auto* const loopBreak = static_cast<EvLoopBreak*>(arg);
  event* const ev = &loopBreak->event_;
  if (!loopBreak->requeued_) {
    // Strict-high call-backs of this pass may have queued default-priority
    // events behind this one (libevent's common-timeout queues do so for
    // their timers): going to the back of the queue once lets them run in
    // the pass in which they became due.
    loopBreak->requeued_ = true;
    event_active(ev, EV_TIMEOUT, 1);
    return;
  }
  TAMLO_TRACE(trace(), 8, "{} breaks the loop", fmt::ptr(loopBreak));
  event_base_loopbreak(event_get_base(ev));
  event_del(ev);
}

namespace Impl {

void keepWhileUnwinding(std::shared_ptr<void> object) noexcept {
  keptWhileUnwinding_ = std::move(object);
}

void leDispatch() {
  struct Dispatching {
    bool const outer = std::exchange(libraryDispatching_, true);
    ~Dispatching() { libraryDispatching_ = outer; }
  } const dispatching;
  event_base_dispatch(ev_base);
  rethrowEscapedException();
}

}  // namespace Impl

void eventLoopTimeout(double timeout) {
  TAMLO_TRACE(trace(), 5, "timeout {}", timeout);
  leInit();
  EvLoopBreak const loopBreak(Impl::timevalFromSeconds(timeout));
  Impl::leDispatch();
}

void doLeEventLoop() {
  leInit();
  timeval delay;
  if (leFastForward() && fastForwardDelayToFirstTimer(&delay))
    applyFastForwardDelta(&delay);
  Impl::leDispatch();
}

void doLeEventLoop(double timeout) {
  TAMLO_TRACE(trace(), 5, "timeout {}", timeout);
  leInit();
  if (!leFastForward()) {
    eventLoopTimeout(timeout);
    return;
  }
  double now = time();
  double const deadline = now + timeout;
  do {
    eventLoopFastForwardToFirstTimer(deadline - now);
    now = time();
  } while (deadline > now);
}

void doLeEventLoopInWaitfor(double maxTimeout) {
  TAMLO_TRACE(trace(), 5, "maxTimeout {}", maxTimeout);
  leInit();
  if (leFastForward())
    eventLoopFastForwardToFirstTimer(maxTimeout);
  else
    eventLoopTimeout(maxTimeout);
}

// ---- libevent's log and fatal callbacks ----

void le_debug_cb(int severity, char const* msg) {
  unsigned level = 0;
  switch (severity) {
    case EVENT_LOG_DEBUG:
      level = 9;
      break;
    case EVENT_LOG_MSG:
      level = 5;
      break;
    case EVENT_LOG_WARN:
      level = 1;
      break;
    case EVENT_LOG_ERR:
      level = 0;
      break;
    default:
      TAMLO_ASSERT_FAIL("invalid libevent severity:{} msg:{}", severity, msg ? msg : "");
  }
  TAMLO_TRACE(trace(), level, "{}", msg ? msg : "");
}

void le_fatal_cb(int err) {
  TAMLO_ASSERT_FAIL("libevent fatal error:{}", err);
}

}  // namespace Tamlo
