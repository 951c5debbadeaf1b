// A well-behaved plugin: registers under the name it is loaded by.
#include <Tamlo/Plugin.h>

namespace {

struct GoodPlugin final : Tamlo::Platform::Plugin {
  GoodPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "PluginTestGood"; }
} plugin;

}  // namespace
