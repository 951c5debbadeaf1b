// Loads as libPluginTestMisnamed.so but registers under another name.
#include <Tamlo/Plugin.h>

namespace {

struct MisnamedPlugin final : Tamlo::Platform::Plugin {
  MisnamedPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "PluginTestOtherName"; }
} plugin;

}  // namespace
