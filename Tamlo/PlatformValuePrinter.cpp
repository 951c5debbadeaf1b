// Platform::ValuePrinter: diagnostic text for a value known by type name.
#include <Tamlo/Allocator.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/Platform.h>

namespace Tamlo::Platform {

namespace {

// Bytes in memory order, two lower-case digits each, space-separated:
// "78 56 34 12" for a little-endian 0x12345678.
std::string hexDump(void const* value, int32_t size) {
  static constexpr char digits[] = "0123456789abcdef";
  auto const* const bytes = static_cast<unsigned char const*>(value);
  std::string text;
  for (int32_t i = 0; i < size; ++i) {
    if (i > 0)
      text += ' ';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0xf];
  }
  return text;
}

}  // namespace

std::string ValuePrinter::customToString(void const* value) const {
  IntrospectionMap::RenderFunction const render = IntrospectionMap::lookup(typeName_);
  return render ? render(value) : std::string();
}

std::string ValuePrinter::toString(void const* value) {
  if (value == nullptr)
    return "NULL";
  std::string text = customToString(value);
  return text.empty() ? hexDump(value, size_) : text;
}

std::shared_ptr<ValuePrinter> getValuePrinter(std::string const& typeName, int size) {
  return makeShared<ValuePrinter>(typeName, size);
}

}  // namespace Tamlo::Platform
