// A stand-in for the counters plugin, logging each call for vigorCountersLog().
#include <Tamlo/Counters.h>
#include <fmt/format.h>

namespace {

struct LoggingCountersPlugin final : Tamlo::CountersPlugin {
  LoggingCountersPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "VigorCountersPlugin"; }
  void openCounterSet(char const* name) override { log += fmt::format("open {}\n", name); }
  void addCounter(char const* name, uint64_t* at) override {
    log += fmt::format("add {} {}\n", name, static_cast<void*>(at));
  }
  std::string log;
} plugin;

}  // namespace

extern "C" std::string const& vigorCountersLog() {
  return plugin.log;
}
