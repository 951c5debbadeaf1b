// A plugin that loads as libPluginTestMisnamed.so but registers under
// another name, so loading it by its file name must fail.
#include <Tamlo/Plugin.h>

namespace {

class MisnamedPlugin final : public Tamlo::Platform::Plugin {
 public:
  MisnamedPlugin() { Tamlo::Platform::registerPlugin(this); }
  char const* name() const override { return "PluginTestOtherName"; }
};

MisnamedPlugin plugin;

}  // namespace
