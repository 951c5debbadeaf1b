// What the library does when it is loaded, in this order: the terminate
// handler, the fork handler, the default trace setting "Tamlo*/01", the
// user's TRACE on top of it, the trace format, and the default handle.
#include <Tamlo/Debug.h>
#include <Tamlo/ForkHandler.h>
#include <Tamlo/Terminate.h>

std::shared_ptr<Tamlo::Platform::DebugHandler> TAMLO_DEFAULT_HANDLE;

namespace Tamlo::Impl {
namespace {

struct Startup {
  Startup() {
    installTerminateHandler();
    Platform::setupHandler();
    applyTraceSettings("Tamlo*/01");
    Platform::setupTamloDebug(nullptr);
    Platform::setTraceFormat("date,time,tid,handle,level");
    Platform::setTraceFormat(nullptr);
    TAMLO_DEFAULT_HANDLE = Platform::getDebugHandler("Tamlo");
  }
};

// Before every other static initialiser of the library, which may trace.
[[gnu::init_priority(101)]] Startup const startup;

}  // namespace
}  // namespace Tamlo::Impl
