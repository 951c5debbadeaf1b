#include <Tamlo/Counters.h>

#include <Tamlo/Assert.h>

namespace Tamlo {

// Out of line so that the class's type information lives in the library and
// plugins share it (dynamic_cast below relies on one copy).
CountersPlugin::~CountersPlugin() = default;

namespace {

CountersPlugin* loadCountersPlugin() {
  Platform::Plugin* const plugin = Platform::loadPlugin(Counters::pluginName);
  if (!plugin)
    return nullptr;
  auto* const counters = dynamic_cast<CountersPlugin*>(plugin);
  TAMLO_ASSERT(counters, "plugin {} is not a Tamlo::CountersPlugin", Counters::pluginName);
  return counters;
}

}  // namespace

Counters::Counters(char const* name) : plugin_(loadCountersPlugin()) {
  if (plugin_ && name)
    plugin_->openCounterSet(name);
}

void Counters::counter(char const* counterName, uint64_t* location) {
  if (plugin_)
    plugin_->addCounter(counterName, location);
}

}  // namespace Tamlo
