// Optional features shipped as shared objects named lib<name>.so, loaded by
// name and registering themselves from their static initialisers.
#pragma once

namespace Tamlo::Platform {

// Defined by plugins. The registry uses only name(); further operations are
// a contract between a plugin and its users.
class Plugin {
 public:
  virtual char const* name() const = 0;
  virtual ~Plugin() = default;
};

// The plugin registered as `name`, loading lib<name>.so first if needed; null
// when the object cannot be loaded (the reason is traced at level 0). An
// object that loads but does not register `name` is an assertion failure.
Plugin* loadPlugin(char const* name);
// Adds `plugin` under plugin->name(); a second plugin of the same name is an
// assertion failure. Plugins are not owned and never removed.
void registerPlugin(Plugin* plugin);

}  // namespace Tamlo::Platform
