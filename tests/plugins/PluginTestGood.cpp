// A well-behaved plugin: registers under the name it is loaded by.
#include <Tamlo/Plugin.h>

namespace {

class GoodPlugin final : public Tamlo::Platform::Plugin {
 public:
  GoodPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "PluginTestGood"; }
};

GoodPlugin plugin;

}  // namespace
