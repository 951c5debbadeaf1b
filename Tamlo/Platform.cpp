#include <Tamlo/Platform.h>

#include <time.h>

#include <Tamlo/Assert.h>
#include <Tamlo/LibeventFactory.h>

namespace Tamlo {

double time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 +
         leVirtualTimeOffset();
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
  return getLeTimerControl(handler);
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
  return getLeTimerControl(handler, priority);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
  return getLeCallbackControl(handler);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return getLeFdControl(handler);
}

void doEventLoop() {
  doLeEventLoop();
}
void doEventLoop(double timeout) {
  doLeEventLoop(timeout);
}
void doEventLoopInWaitfor(double maxTimeout) {
  doLeEventLoopInWaitfor(maxTimeout);
}

void setFastForward(bool on) {
  setLeFastForward(on);
}
bool fastForward() {
  return leFastForward();
}
void registerFastForwardChangeNotifier(void (*notifier)()) {
  leRegisterFastForwardChangeNotifier(notifier);
}

void fastForwardBy(double seconds) {
  TAMLO_ASSERT_IN("Tamlo::Platform", fastForward(), "fast-forwarding disabled");
  TAMLO_ASSERT_IN("Tamlo::Platform", seconds >= 0, "Cannot fast-forward by {} seconds", seconds);
  timeval const delta = Impl::timevalFromSeconds(seconds);
  applyFastForwardDelta(&delta);
}

bool releaseMode() {
  return false;
}

bool refCountingEnabled() {
  Impl::assertFailIn(__FILE__, __LINE__, "Tamlo::Platform", __func__,
                     "not available in libTamlo.so");
}

void refCountingEnabledIs(bool) {
  Impl::assertFailIn(__FILE__, __LINE__, "Tamlo::Platform", __func__,
                     "not available in libTamlo.so");
}

}  // namespace Platform
}  // namespace Tamlo
