// Tells code holding per-process resources (event bases, locks) that it runs
// in a child made by fork() after the library was loaded.
#pragma once

namespace Tamlo::Platform {

// Registers handleFork as the child-side pthread_atfork handler; called once
// at load. Aborts when registration fails.
void setupHandler();
void handleFork();
bool isForkedChild();
void forkedChildIs(bool forkedChild);

}  // namespace Tamlo::Platform
