#pragma once

namespace Tamlo {

// Prints what was thrown (type, what() with its backtrace) before aborting;
// installed at load.
[[noreturn]] void terminateHandler();
void installTerminateHandler();

}  // namespace Tamlo
