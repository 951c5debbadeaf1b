#include <Tamlo/TypeName.h>

#include <cxxabi.h>
#include <cstdlib>

#include <Tamlo/Assert.h>

namespace Tamlo {

std::string typeName(char const* mangledName) {
  int status = 0;
  char* const demangled = abi::__cxa_demangle(mangledName, nullptr, nullptr, &status);
  if (status != 0)
    return mangledName;
  TAMLO_ASSERT(demangled, "unable to demangle type {} status:{}", mangledName, status);
  std::string name(demangled);
  std::free(demangled);
  return name;
}

}  // namespace Tamlo
