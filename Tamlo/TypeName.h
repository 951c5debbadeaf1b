// Readable C++ type names.
#pragma once

#include <string>
#include <typeinfo>

namespace Tamlo {

// The demangled form of `mangledName`, or the input itself when it does not
// demangle.
std::string typeName(char const* mangledName);

template <typename T>
std::string typeName() {
  return typeName(typeid(T).name());
}
template <typename T>
std::string typeName(T const& object) {
  return typeName(typeid(object).name());
}

}  // namespace Tamlo
