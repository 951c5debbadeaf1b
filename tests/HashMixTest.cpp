#include <Tamlo/HashMix.h>
#include <Tamlo/Util.h>

#include "TestSupport.h"

namespace {

using Tamlo::Impl::HashMix;

constexpr uint32_t basis32 = 0x811c9dc5u;
constexpr uint64_t basis64 = 0xcbf29ce484222325ull;

// A second, deliberately plain rendering of the word-wise algorithm: words are
// assembled from bytes with shifts, the tail's byte i of r lands at byte
// (W - r + i) of the word.
template <typename T>
T referenceHash(std::vector<unsigned char> const& bytes,
                T hash = sizeof(T) == 4 ? basis32 : basis64) {
  T const prime = sizeof(T) == 4 ? 16777619u : 0x100000001b3ull;
  for (size_t i = 0; i < bytes.size(); i += sizeof(T)) {
    size_t const n = std::min(sizeof(T), bytes.size() - i);
    T word = 0;
    for (size_t b = 0; b < n; ++b)
      word |= static_cast<T>(bytes[i + b]) << (8 * (sizeof(T) - n + b));
    hash = static_cast<T>((hash ^ word) * prime);
  }
  return hash;
}

TEST(HashMixTest, KnownValues) {
  struct Case {
    char const* text;
    uint32_t hash32;
    uint64_t hash64;
  };
  // Worked out by hand from the algorithm, independently of this code.
  Case const cases[] = {
      {"", basis32, basis64},
      {"a", 0x920c5d1fu, 0x9c63bd4c8601b7dfull},
      {"abcd", 0xec7f6f2cu, 0x7736a1df8601b7dfull},
      {"abcde", 0x9f9c0244u, 0xccb757375901b7dfull},
      {"hello world", 0x645814f8u, 0xe9d6ea0229798955ull},
      {"Tamlo", 0xd03fb179u, 0xdc378b60aa01b7dfull},
      {"0123456789abcdef", 0xb5f86008u, 0x677356ce06b78095ull},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(Tamlo::Util::hash(c.text), c.hash32) << c.text;
    EXPECT_EQ(Tamlo::Util::hash64(c.text), c.hash64) << c.text;
  }
  EXPECT_EQ(Tamlo::Util::hash(nullptr, 0), basis32);
}

TEST(HashMixTest, EveryLengthAndAlignmentMatchesTheReference) {
  std::vector<unsigned char> all;
  for (unsigned i = 0; i < 64; ++i)
    all.push_back(static_cast<unsigned char>(i * 37 + 200));  // high bits set too
  // Start at odd offsets as well: words are read without alignment.
  for (size_t offset = 0; offset < 3; ++offset) {
    for (unsigned length = 0; length + offset <= 40; ++length) {
      SCOPED_TRACE(testing::Message() << "offset " << offset << " length " << length);
      std::vector<unsigned char> const bytes(all.begin() + offset, all.begin() + offset + length);
      EXPECT_EQ(Tamlo::Util::hash(all.data() + offset, length), referenceHash<uint32_t>(bytes));
      EXPECT_EQ(Tamlo::Util::hash64(all.data() + offset, length), referenceHash<uint64_t>(bytes));
    }
  }
}

TEST(HashMixTest, MixingContinuesFromTheCurrentValue) {
  // Splitting on a word boundary changes nothing...
  HashMix<uint32_t> split;
  split.mix("abcd", 4);
  split.mix("e", 1);
  EXPECT_EQ(split.value(), Tamlo::Util::hash("abcde"));
  // ...but a split inside a word mixes two tails, which is a different hash.
  HashMix<uint32_t> unaligned;
  unaligned.mix("abc", 3);
  unaligned.mix("de", 2);
  EXPECT_EQ(unaligned.value(),
            referenceHash<uint32_t>({'d', 'e'}, referenceHash<uint32_t>({'a', 'b', 'c'})));
  // Nothing mixed in: a seed stays as it is.
  HashMix<uint64_t> seeded(0xdeadbeefcafeull);
  seeded.mixInline("ignored", 0);
  EXPECT_EQ(seeded.value(), 0xdeadbeefcafeull);
}

// mixFixedLen<N> equals mix() over the same N bytes.
template <typename T, size_t N>
void expectFixedLenMatchesMix(unsigned char const* bytes) {
  HashMix<T> fixed(static_cast<T>(0x0123456789abcdefull)), general(fixed.value());
  fixed.template mixFixedLen<N>(bytes);
  general.mix(bytes, N);
  EXPECT_EQ(fixed.value(), general.value()) << "width " << sizeof(T) << " N " << N;
}

TEST(HashMixTest, FixedLengthEqualsMixOverTheSameBytes) {
  for (uint64_t value : {0ull, 1ull, 0x80ull, 0xffull, 0x8001ull, 0xfedcba98ull,
                         0x8000000000000001ull, 0xffffffffffffffffull, 0x0123456789abcdefull}) {
    SCOPED_TRACE(value);
    unsigned char bytes[8];
    for (size_t i = 0; i < 8; ++i)
      bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    [&]<size_t... N>(std::index_sequence<N...>) {
      (expectFixedLenMatchesMix<uint32_t, N>(bytes), ...);
      (expectFixedLenMatchesMix<uint64_t, N>(bytes), ...);
    }
    (std::index_sequence<1, 2, 4, 8>());
  }
}

}  // namespace
