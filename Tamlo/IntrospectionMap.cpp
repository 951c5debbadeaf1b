#include <Tamlo/IntrospectionMap.h>

#include <unordered_map>

#include <Tamlo/HeapCheck.h>
#include <Tamlo/Loco.h>

namespace Tamlo {

namespace {

// Guarded by the library lock. Never destroyed, so lookups during process
// exit still work.
std::unordered_map<std::string, IntrospectionMap::RenderFunction>& renderers() {
  static auto* const map = HeapCheck::keepForProcessLifetime(
      new std::unordered_map<std::string, IntrospectionMap::RenderFunction>);
  return *map;
}

}  // namespace

void IntrospectionMap::insert(std::string const& name, RenderFunction render) {
  Platform::LocoGuard guard;
  if (render)
    renderers()[name] = render;
  else
    renderers().erase(name);
}

IntrospectionMap::RenderFunction IntrospectionMap::lookup(std::string const& name) {
  Platform::LocoGuard guard;
  auto const it = renderers().find(name);
  return it == renderers().end() ? nullptr : it->second;
}

}  // namespace Tamlo
