#include <Tamlo/Util.h>

#include <Tamlo/HashMix.h>

namespace Tamlo::Util {

namespace {

template <typename T>
T hashBytes(void const* data, size_t length) {
  Impl::HashMix<T> mixer;
  mixer.mixInline(data, length);
  return mixer.value();
}

}  // namespace

// The string forms take the full size_t length: a string past 4 GiB is not
// silently cut short.
uint32_t hash(std::string const& text) {
  return hashBytes<uint32_t>(text.data(), text.size());
}

uint32_t hash(void const* data, unsigned length) {
  return hashBytes<uint32_t>(data, length);
}

uint64_t hash64(std::string const& text) {
  return hashBytes<uint64_t>(text.data(), text.size());
}

uint64_t hash64(void const* data, unsigned length) {
  return hashBytes<uint64_t>(data, length);
}

std::string base64Encode(unsigned value) {
  static constexpr char digits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  std::string text(6, '\0');
  for (char& c : text) {
    c = digits[value & 63u];
    value >>= 6;
  }
  return text;
}

}  // namespace Tamlo::Util
