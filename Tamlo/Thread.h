// Per-thread facilities: kernel thread id, main-thread test, a cached thread
// name, thread id text, and the per-thread choice between process-wide and
// thread-local singletons. Everything here is per thread and takes no lock.
#pragma once

#include <sys/types.h>
#include <string>
#include <thread>

#include <fmt/format.h>

namespace Tamlo {

// Set by setMainThread() on the thread that registers an event base.
extern thread_local bool mainThread;

pid_t gettid();
// gettid() == getpid(), computed on every call.
bool isMainThread();
void setMainThread();

// Names a thread other than the main one, whose name is the process name and
// is left alone. At most 15 characters: longer names are refused by the
// system and end in an assertion.
void threadNameIs(char const* name);
// The name given by threadNameIs(), else the system's name for the thread
// (read once and cached). Valid for the calling thread's lifetime.
char const* threadName();

// The native handle as a decimal number, or
// "thread::id of a non-executing thread" for the default id.
std::string toThreadIdString(std::thread::id id);

// Call first thing on a new thread whose per-loop objects (timer wheel...)
// must be its own rather than the process's.
void useThreadLocalSingletons();
// Fixes this thread's choice and returns it; singleton getters call it.
bool hasThreadLocalSingletons();

}  // namespace Tamlo

// Thread ids print through toThreadIdString(). Do not combine with
// <fmt/std.h>, which brings its own formatter for std::thread::id.
template <>
struct fmt::formatter<std::thread::id> : fmt::formatter<std::string_view> {
  auto format(std::thread::id id, fmt::format_context& context) const {
    return fmt::formatter<std::string_view>::format(Tamlo::toThreadIdString(id), context);
  }
};
