// Child processes for the diagnostics tests:
//   DiagHelper [leak]    uses the library's process-lifetime objects, leaks 4242 bytes
//   DiagHelper counters  uses Tamlo::Counters (run without the counters plugin)
#include <cstdio>
#include <cstdlib>
#include <string>

#include <Tamlo/Counters.h>
#include <Tamlo/Debug.h>
#include <Tamlo/Exception.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Random.h>

void* volatile leaked = nullptr;

[[gnu::noinline]] void leakOnPurpose() {  // out of line: no register of main keeps the block
  leaked = std::malloc(4242);
  leaked = nullptr;
}

int main(int argc, char** argv) {
  std::string const mode = argc == 2 ? argv[1] : "";
  if (mode == "counters") {
    Tamlo::Counters counters("serverStats");
    uint64_t requests = 7;
    counters.counter("requests", &requests);
    std::printf("plugin %s\nrequests %llu\n", counters.plugin() ? "loaded" : "null",
                static_cast<unsigned long long>(requests));
    return 0;
  }
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
