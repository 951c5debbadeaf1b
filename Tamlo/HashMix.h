// Word-wise FNV-1a: the FNV-1a step applied to whole machine words rather than
// single bytes, which is several times faster on long keys. The values differ
// from byte-wise FNV-1a and are stored and compared by users, so the word
// layout below (including where a short tail goes) is part of the contract.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace Tamlo::Impl {

template <typename T>
struct HashMixConstants;

template <>
struct HashMixConstants<uint32_t> {
  static constexpr uint32_t prime = 16777619u;
  static constexpr uint32_t offsetBasis = 0x811c9dc5u;
};

template <>
struct HashMixConstants<uint64_t> {
  static constexpr uint64_t prime = 0x100000001b3ull;
  static constexpr uint64_t offsetBasis = 0xcbf29ce484222325ull;
};

// A running word-wise FNV-1a hash over 32- or 64-bit words. Each whole word of
// the input is read in the machine's byte order; a tail of r < sizeof(T)
// bytes is mixed as one more word holding those bytes in its top r bytes.
// Mixing nothing leaves the value unchanged. Not synchronised: one object per
// thread, or guard it.
template <typename T>
class HashMix {
  static_assert(std::is_same_v<T, uint32_t> || std::is_same_v<T, uint64_t>,
                "HashMix works on 32- or 64-bit unsigned words");
  // The tail layout and mixFixedLen's shifts are defined on little-endian
  // words; a big-endian port would have to decide what stored hashes mean.
  static_assert(std::endian::native == std::endian::little, "HashMix assumes little-endian");

 public:
  static constexpr T prime = HashMixConstants<T>::prime;
  static constexpr T offsetBasis = HashMixConstants<T>::offsetBasis;

  explicit HashMix(T initial = offsetBasis) : hash_(initial) {}

  T value() const { return hash_; }

  void mix(void const* data, size_t length) { mixInline(data, length); }
  void mix(std::string const& text) { mixInline(text.data(), text.size()); }

  // For hot paths that want the loop inlined at the call site.
  [[gnu::always_inline]] inline void mixInline(void const* data, size_t length) {
    auto const* bytes = static_cast<unsigned char const*>(data);
    for (; length >= sizeof(T); bytes += sizeof(T), length -= sizeof(T)) {
      T word;
      std::memcpy(&word, bytes, sizeof word);
      mixWord(word);
    }
    if (length > 0)
      mixWord(tailWord(bytes, length));
  }

  // Mixes one N-byte value (N = 1, 2, 4 or 8) read from `data`; the same as
  // mix(data, N), without the loop.
  template <size_t N>
  void mixFixedLen(void const* data) {
    static_assert(N == 1 || N == 2 || N == 4 || N == 8, "mixFixedLen takes 1, 2, 4 or 8 bytes");
    using Value = std::conditional_t<
        N == 1, uint8_t,
        std::conditional_t<N == 2, uint16_t, std::conditional_t<N == 4, uint32_t, uint64_t>>>;
    Value value;
    std::memcpy(&value, data, N);
    if constexpr (N > sizeof(T)) {
      // A 64-bit value into a 32-bit hash: low word first.
      mixWord(static_cast<T>(value));
      mixWord(static_cast<T>(value >> 32));
    } else {
      mixWord(static_cast<T>(static_cast<T>(value) << (8 * (sizeof(T) - N))));
    }
  }

 private:
  void mixWord(T word) { hash_ = (hash_ ^ word) * prime; }

  // The `length` bytes, first byte lowest, moved to the top of a zero word.
  static T tailWord(unsigned char const* bytes, size_t length) {
    T word = 0;
    for (size_t i = length; i-- > 0;)
      word = static_cast<T>(word << 8) | bytes[i];
    return static_cast<T>(word << (8 * (sizeof(T) - length)));
  }

  T hash_;
};

}  // namespace Tamlo::Impl
