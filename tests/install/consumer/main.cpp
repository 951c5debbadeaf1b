#include <Tamlo/Tamlo.h>

#include <cstdio>

int main() {
  auto handle = Tamlo::Platform::getDebugHandler("Consumer");
  handle->enabledIs(2, true);
  TAMLO_TRACE(handle, 2, "consumer linked against {}", "libTamlo");
  try {
    Tamlo::RuntimeException::throwException("installed");
  } catch (Tamlo::Exception const& e) {
    std::printf("%s\n", e.msg().c_str());
  }
  return 0;
}
