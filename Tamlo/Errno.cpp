#include <Tamlo/Errno.h>

#include <string.h>
#include <cerrno>

#include <Tamlo/Assert.h>

namespace Tamlo {

namespace {
constexpr size_t ERRNO_FORMATTED_BUFFER = 256;
thread_local char errnoText[ERRNO_FORMATTED_BUFFER];
}  // namespace

char const* strerror(int errnum) {
  int const saved = errno;
  errno = 0;
  // GNU strerror_r: returns the text, which may or may not be in our buffer.
  char const* const text = ::strerror_r(errnum, errnoText, sizeof errnoText);
  int const failure = errno;
  TAMLO_ASSERT(failure == 0, "Unable to format errno:{} error:{}", errnum, failure);
  errno = saved;
  return text;
}

}  // namespace Tamlo
