// A plugin: a shared object that registers itself under its own name when it
// is loaded.
#include <Tamlo/Plugin.h>

namespace {

class DemoPlugin final : public Tamlo::Platform::Plugin {
 public:
  char const* name() const override { return "TamloDemoPlugin"; }
};

DemoPlugin plugin;

[[gnu::constructor]] void registerDemoPlugin() {
  Tamlo::Platform::registerPlugin(&plugin);
}

}  // namespace
