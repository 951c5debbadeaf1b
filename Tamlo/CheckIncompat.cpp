#include <Tamlo/CheckIncompat.h>

#include <dlfcn.h>
#include <cassert>

extern "C" {
// Default visibility and a plain global, so the library reads it through the
// dynamic linker: an earlier definition elsewhere in the process wins.
int platformLibPresenceFlag = Tamlo::PLATFORM_LIB_FLAG_TAMLO;
}

namespace Tamlo {

void checkIncompat() {
  assert(platformLibPresenceFlag == Tamlo::PLATFORM_LIB_FLAG_TAMLO &&
         "a library incompatible with Tamlo has been loaded");
  // Opening ourselves again with RTLD_GLOBAL promotes the symbols of an
  // already-loaded copy (for example one dlopen()ed with RTLD_LOCAL) to global
  // scope. The handle is kept: the library stays loaded for the process's life.
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&checkIncompat), &info) != 0 && info.dli_fname)
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
}

}  // namespace Tamlo
