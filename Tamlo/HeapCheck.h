// Hooks for a leak checker. The library makes a few objects on purpose for
// the whole life of the process and never frees them (the library lock, its
// registries and singletons, the interned names of dropped caches), so that
// code running during process exit still finds them. A checker that reports
// blocks still allocated at exit, or that does not count pointers held in
// static storage, would list them among the real leaks.
//
// Each such object is made through keepForProcessLifetime(). When the
// environment variable HEAPCHECK is set (to anything but the empty string)
// and LeakSanitizer runs in the process (AddressSanitizer builds, or a
// program linked with -fsanitize=leak), the object is handed to
// __lsan_ignore_object: neither it nor what it points to is then reported,
// and leak reports name only real leaks. Otherwise nothing happens.
//
// HEAP_CHECK_TRACE_PYTHON_ARENAS is accepted and ignored: it asks a heap
// checker embedded in a Python interpreter to trace the interpreter's
// arenas, and this library neither embeds one nor keeps arenas.
//
// Threads: any thread. HEAPCHECK is read once, at first use.
#pragma once

namespace Tamlo::HeapCheck {

// True when HEAPCHECK is set and a leak checker is present to be told.
bool enabled();
// True when LeakSanitizer runs in this process.
bool leakCheckerPresent();

// Tells the leak checker, when enabled(), that the heap block holding
// `object` lives until the process ends. Pointers to anything other than a
// heap block are ignored.
void processLifetimeObjectIs(void const* object);

// `object`, reported as above; for `static T* const x = keep...(new T)`.
template <typename T>
T* keepForProcessLifetime(T* object) {
  processLifetimeObjectIs(object);
  return object;
}

}  // namespace Tamlo::HeapCheck
