#include <Tamlo/CheckIncompat.h>

#include <cassert>
#include <dlfcn.h>

extern "C" {
int platformLibPresenceFlag = Tamlo::PLATFORM_LIB_FLAG_TAMLO;
}

namespace Tamlo {

void checkIncompat() {
  // Read through a volatile pointer so the check always sees the symbol the
  // dynamic linker bound, never a constant folded at compile time.
  int const* volatile flag = &platformLibPresenceFlag;
  assert(*flag == Tamlo::PLATFORM_LIB_FLAG_TAMLO &&
         "a library incompatible with Tamlo has been loaded");
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&checkIncompat), &info) && info.dli_fname)
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
}

}  // namespace Tamlo
