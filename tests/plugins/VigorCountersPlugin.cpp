// A stand-in for the counters plugin, printing each call.
#include <Tamlo/Counters.h>

#include <cstdio>

namespace {

struct PrintingCountersPlugin final : Tamlo::CountersPlugin {
  PrintingCountersPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "VigorCountersPlugin"; }
  void openCounterSet(char const* name) override { std::printf("open %s\n", name); }
  void addCounter(char const* name, uint64_t* at) override { std::printf("add %s %p\n", name, at); }
} plugin;

}  // namespace
