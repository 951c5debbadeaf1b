#include <Tamlo/Loco.h>

#include <Tamlo/HeapCheck.h>

namespace Tamlo::Platform {

Loco& loco() {
  // Deliberately leaked: traces and assertions may run during process exit,
  // after every static destructor.
  static Loco* const theLoco = HeapCheck::keepForProcessLifetime(new Tamlo::Loco);
  return *theLoco;
}

}  // namespace Tamlo::Platform
