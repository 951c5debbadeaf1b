// The process's terminate handler: before aborting it reports what was
// thrown, so that a server dying of an uncaught exception leaves its cause on
// standard error.
#pragma once

namespace Tamlo {

// Writes "terminate called after throwing an instance of '<type>'" when an
// exception is active, then "  what(): <text>" for a std::exception (a
// Tamlo::Exception's text already holds its backtrace), adds a fresh backtrace
// for anything else when Backtrace::verbosity() is 1, and aborts. Runs on
// whichever thread terminates.
[[noreturn]] void terminateHandler();
// Installed by the library when it is loaded.
void installTerminateHandler();

}  // namespace Tamlo
