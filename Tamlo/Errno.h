#pragma once

namespace Tamlo {

// The system's text for `errnum`, in a thread-local buffer valid until this
// thread's next call. Leaves errno as it was.
char const* strerror(int errnum);

}  // namespace Tamlo
