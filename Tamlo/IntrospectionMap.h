// A process-wide registry of text renderers by kind name, so that tools can
// show an object given only its address and the name of its kind.
#pragma once

#include <string>

namespace Tamlo {

// All operations hold the library lock and may be called from any thread.
// Renderers are plain functions; they are kept for the process's life.
class IntrospectionMap {
 public:
  using RenderFunction = std::string (*)(void const* object);

  // Sets the renderer for `name`, replacing any earlier one. A null
  // function makes lookup(name) return null again.
  static void insert(std::string const& name, RenderFunction render);
  // The renderer for `name`, or null.
  static RenderFunction lookup(std::string const& name);
};

}  // namespace Tamlo
