// Tells code holding per-process resources (event bases, locks) that it runs
// in a child made by fork() after the library was loaded.
#pragma once

namespace Tamlo::Platform {

// Registers handleFork as the child-side pthread_atfork handler; called once
// at load. Prints the reason on standard error and aborts when registration
// fails.
void setupHandler();
// The child-side handler: marks this process as a forked child.
void handleFork();
// True in every child forked (through fork(), not vfork or posix_spawn)
// after load, until forkedChildIs(false). Any thread may read and set it.
bool isForkedChild();
void forkedChildIs(bool forkedChild);

}  // namespace Tamlo::Platform
