// Child process for the small-helper tests that need a process of their own.
//   UtilHelper counters   uses Tamlo::Counters; run without the counters
//                         plugin on the library path
#include <Tamlo/Counters.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc != 2 || std::strcmp(argv[1], "counters") != 0)
    return 2;
  Tamlo::Counters counters("serverStats");
  uint64_t requests = 7;
  counters.counter("requests", &requests);
  std::printf("plugin %s\nrequests %llu\n", counters.plugin() ? "loaded" : "null",
              static_cast<unsigned long long>(requests));
  return 0;
}
