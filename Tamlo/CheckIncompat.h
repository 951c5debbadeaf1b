// Detection of an incompatible platform library in the same process.
#pragma once

// Exported and interposable: another library that defines it with another
// value is found by the dynamic linker first, which checkIncompat() detects.
extern "C" int platformLibPresenceFlag;

namespace Tamlo {

constexpr int PLATFORM_LIB_FLAG_TAMLO = 2;

// Fails a C assertion (aborting at once) when a library incompatible with this
// one has been loaded, then promotes this library's symbols to global scope.
// Clients call it early at start-up; the library never calls it itself.
void checkIncompat();

}  // namespace Tamlo
