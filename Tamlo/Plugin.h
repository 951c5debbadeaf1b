// Optional features shipped as shared objects named lib<name>.so, loaded by
// name and registering themselves from their static initialisers. The
// registry is process-wide, guarded by the library lock, and only grows:
// plugins are never removed and their objects never closed.
#pragma once

namespace Tamlo::Platform {

// Defined by plugins. The registry uses only name(); further operations are
// a contract between a plugin and its users. A plugin object must live until
// the process ends.
class Plugin {
 public:
  virtual char const* name() const = 0;
  virtual ~Plugin();
};

// The plugin registered as `name`, loading lib<name>.so (RTLD_NOW |
// RTLD_GLOBAL) first if needed; null when the object cannot be loaded (the
// reason is traced at level 0 on "TamloPlugin"). An object that loads but
// does not register `name` is an assertion failure. Any thread.
Plugin* loadPlugin(char const* name);
// Adds `plugin` under plugin->name(); a second plugin of the same name is an
// assertion failure. Plugins are not owned. Any thread, including from a
// plugin's static initialiser while loadPlugin runs.
void registerPlugin(Plugin* plugin);

}  // namespace Tamlo::Platform
