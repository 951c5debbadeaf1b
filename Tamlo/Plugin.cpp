#include <Tamlo/Plugin.h>

#include <dlfcn.h>
#include <string>
#include <unordered_map>

#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Loco.h>

namespace Tamlo::Platform {

namespace {

std::shared_ptr<DebugHandler> const pluginTrace = getDebugHandler("TamloPlugin");

// Guarded by the library lock; plugins stay loaded for the process's life.
std::unordered_map<std::string, Plugin*>& registry() {
  static auto* const plugins = new std::unordered_map<std::string, Plugin*>;
  return *plugins;
}

Plugin* findPlugin(std::string const& name) {
  auto const it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

}  // namespace

Plugin* loadPlugin(char const* name) {
  LocoGuard guard;
  if (Plugin* const loaded = findPlugin(name)) {
    TAMLO_TRACE(pluginTrace, 3, "{} already loaded", name);
    return loaded;
  }
  std::string const file = fmt::format("lib{}.so", name);
  // The object's static initialisers register it, on this thread, under the
  // recursive library lock we hold.
  if (!dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
    TAMLO_TRACE(pluginTrace, 0, "Failed to load plugin {}: {}", name, dlerror());
    return nullptr;
  }
  Plugin* const plugin = findPlugin(name);
  TAMLO_ASSERT(plugin, "Phooey -- plugin {} failed to register", name);
  TAMLO_TRACE(pluginTrace, 2, "Yay!  Plugin {} loaded", name);
  return plugin;
}

void registerPlugin(Plugin* plugin) {
  LocoGuard guard;
  std::string const name = plugin->name();
  TAMLO_ASSERT_IN("Tamlo::Platform", !findPlugin(name), "Plugin {} already registered", name);
  TAMLO_TRACE(pluginTrace, 2, "adding plugin {}", name);
  registry().emplace(name, plugin);
}

}  // namespace Tamlo::Platform
