#include <Tamlo/HeapCheck.h>

#include <cstdlib>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(leak_sanitizer)
#define TAMLO_LSAN_BUILD 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TAMLO_LSAN_BUILD 1
#endif

#if defined(TAMLO_LSAN_BUILD)
#include <sanitizer/lsan_interface.h>
#else
// Uninstrumented builds may still run under LeakSanitizer when the program
// is linked with it; the runtime then provides this, and otherwise the weak
// reference stays null.
extern "C" [[gnu::weak]] void __lsan_ignore_object(void const* object);
#endif

namespace Tamlo::HeapCheck {

bool leakCheckerPresent() {
#if defined(TAMLO_LSAN_BUILD)
  return true;
#else
  return &__lsan_ignore_object != nullptr;
#endif
}

bool enabled() {
  static bool const on = [] {
    char const* const value = std::getenv("HEAPCHECK");
    return value != nullptr && *value != '\0' && leakCheckerPresent();
  }();
  return on;
}

void processLifetimeObjectIs(void const* object) {
  if (object != nullptr && enabled())
    __lsan_ignore_object(object);
}

}  // namespace Tamlo::HeapCheck
