#include <Tamlo/Plugin.h>

#include <dlfcn.h>
#include <string>
#include <unordered_map>

#include <Tamlo/Assert.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/HeapCheck.h>
#include <Tamlo/Loco.h>

namespace Tamlo::Platform {

// Out of line so that Plugin's type information has one home, in the
// library, shared by every plugin object and its users.
Plugin::~Plugin() = default;

namespace {

// Made on first use: plugins may be loaded from other static initialisers.
DebugHandler const* pluginTrace() {
  static std::shared_ptr<DebugHandler> const* const handle = HeapCheck::keepForProcessLifetime(
      new std::shared_ptr<DebugHandler>(getDebugHandler("TamloPlugin")));
  return handle->get();
}

// Guarded by the library lock; plugins stay loaded for the process's life.
std::unordered_map<std::string, Plugin*>& registry() {
  static auto* const plugins =
      HeapCheck::keepForProcessLifetime(new std::unordered_map<std::string, Plugin*>);
  return *plugins;
}

Plugin* findPlugin(std::string const& name) {
  auto const it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

}  // namespace

Plugin* loadPlugin(char const* name) {
  TAMLO_ASSERT(name, "null plugin name");
  LocoGuard guard;
  if (Plugin* const loaded = findPlugin(name)) {
    TAMLO_TRACE(pluginTrace(), 3, "{} already loaded", name);
    return loaded;
  }
  std::string const file = fmt::format("lib{}.so", name);
  // The object's static initialisers register it, on this thread, under the
  // recursive library lock we hold. An object that loaded earlier without
  // registering is not initialised again, so it fails the check below again.
  if (!dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
    char const* const reason = dlerror();
    TAMLO_TRACE(pluginTrace(), 0, "Failed to load plugin {}: {}", name,
                reason ? reason : "unknown dlopen error");
    return nullptr;
  }
  Plugin* const plugin = findPlugin(name);
  TAMLO_ASSERT(plugin, "Phooey -- plugin {} failed to register", name);
  TAMLO_TRACE(pluginTrace(), 2, "Yay!  Plugin {} loaded", name);
  return plugin;
}

void registerPlugin(Plugin* plugin) {
  TAMLO_ASSERT_IN("Tamlo::Platform", plugin, "null plugin registered");
  LocoGuard guard;
  char const* const pluginName = plugin->name();
  TAMLO_ASSERT_IN("Tamlo::Platform", pluginName, "plugin with a null name registered");
  std::string const name = pluginName;
  TAMLO_ASSERT_IN("Tamlo::Platform", !findPlugin(name), "Plugin {} already registered", name);
  TAMLO_TRACE(pluginTrace(), 2, "adding plugin {}", name);
  registry().emplace(name, plugin);
}

}  // namespace Tamlo::Platform
