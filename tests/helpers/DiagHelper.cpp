// Child processes for the diagnostics tests. Usage: DiagHelper leak: uses the
// library's process-lifetime objects and leaks 4242 bytes.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <Tamlo/Debug.h>
#include <Tamlo/Exception.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Random.h>

namespace {

void* volatile leaked = nullptr;

[[gnu::noinline]] void leakOnPurpose() {
  leaked = std::malloc(4242);
  leaked = nullptr;
}

int leak() {
  { Tamlo::Platform::LocoGuard const guard; }
  auto const handle = Tamlo::Platform::getDebugHandler("DiagHelper");
  Tamlo::IntrospectionMap::insert("DiagHelper", nullptr);
  Tamlo::Random::rand64();
  try {
    Tamlo::RuntimeException::throwException("tracked");
  } catch (Tamlo::Exception const&) {
  }
  leakOnPurpose();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "leak")
    return leak();
  std::fprintf(stderr, "usage: DiagHelper leak\n");
  return 2;
}
