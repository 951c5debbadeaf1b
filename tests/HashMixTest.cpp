#include <Tamlo/HashMix.h>
#include <Tamlo/Util.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Tamlo::Impl::HashMix;

constexpr uint32_t prime32 = 16777619u;
constexpr uint32_t basis32 = 0x811c9dc5u;
constexpr uint64_t prime64 = 0x100000001b3ull;
constexpr uint64_t basis64 = 0xcbf29ce484222325ull;

// A second, deliberately plain rendering of the word-wise algorithm: words are
// assembled from bytes with shifts, the tail's byte i lands at byte
// (W - r + i) of the word.
template <typename T>
T referenceHash(std::vector<unsigned char> const& bytes, T hash, T prime) {
  size_t const width = sizeof(T);
  size_t i = 0;
  for (; i + width <= bytes.size(); i += width) {
    T word = 0;
    for (size_t b = 0; b < width; ++b)
      word |= static_cast<T>(bytes[i + b]) << (8 * b);
    hash = static_cast<T>((hash ^ word) * prime);
  }
  size_t const rest = bytes.size() - i;
  if (rest > 0) {
    T word = 0;
    for (size_t b = 0; b < rest; ++b)
      word |= static_cast<T>(bytes[i + b]) << (8 * (width - rest + b));
    hash = static_cast<T>((hash ^ word) * prime);
  }
  return hash;
}

std::vector<unsigned char> bytesOf(std::string const& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

TEST(HashMixTest, EmptyInputLeavesTheOffsetBasis) {
  EXPECT_EQ(Tamlo::Util::hash(nullptr, 0), basis32);
  EXPECT_EQ(Tamlo::Util::hash64(std::string()), basis64);
  HashMix<uint64_t> seeded64(0xdeadbeefcafeull);
  seeded64.mixInline("ignored", 0);
  EXPECT_EQ(seeded64.value(), 0xdeadbeefcafeull);
}

TEST(HashMixTest, KnownValues) {
  struct Case {
    char const* text;
    uint32_t hash32;
    uint64_t hash64;
  };
  // Worked out by hand from the algorithm, independently of this code.
  Case const cases[] = {
      {"a", 0x920c5d1fu, 0x9c63bd4c8601b7dfull},
      {"abcd", 0xec7f6f2cu, 0x7736a1df8601b7dfull},
      {"abcde", 0x9f9c0244u, 0xccb757375901b7dfull},
      {"hello world", 0x645814f8u, 0xe9d6ea0229798955ull},
      {"Tamlo", 0xd03fb179u, 0xdc378b60aa01b7dfull},
      {"0123456789abcdef", 0xb5f86008u, 0x677356ce06b78095ull},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Tamlo::Util::hash(c.text), c.hash32);
    EXPECT_EQ(Tamlo::Util::hash64(c.text), c.hash64);
  }
}

TEST(HashMixTest, EveryLengthAndAlignmentMatchesTheReference) {
  std::vector<unsigned char> all;
  for (unsigned i = 0; i < 64; ++i)
    all.push_back(static_cast<unsigned char>(i * 37 + 200));  // high bits set too
  // Start at odd offsets as well: words are read without alignment.
  for (size_t offset = 0; offset < 3; ++offset) {
    for (size_t length = 0; length + offset <= 40; ++length) {
      SCOPED_TRACE(testing::Message() << "offset " << offset << " length " << length);
      std::vector<unsigned char> const bytes(all.begin() + offset, all.begin() + offset + length);
      unsigned const len = static_cast<unsigned>(length);
      EXPECT_EQ(Tamlo::Util::hash(all.data() + offset, len),
                referenceHash<uint32_t>(bytes, basis32, prime32));
      EXPECT_EQ(Tamlo::Util::hash64(all.data() + offset, len),
                referenceHash<uint64_t>(bytes, basis64, prime64));
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
            referenceHash<uint32_t>(
                bytesOf("de"), referenceHash<uint32_t>(bytesOf("abc"), basis32, prime32), prime32));
}

template <typename T, size_t N>
void expectFixedLenMatchesMix(uint64_t value) {
  unsigned char bytes[8];
  for (size_t i = 0; i < 8; ++i)
    bytes[i] = static_cast<unsigned char>(value >> (8 * i));
  HashMix<T> fixed(static_cast<T>(0x0123456789abcdefull));
  fixed.template mixFixedLen<N>(bytes);
  HashMix<T> general(static_cast<T>(0x0123456789abcdefull));
  general.mix(bytes, N);
  EXPECT_EQ(fixed.value(), general.value())
      << "width " << sizeof(T) << " N " << N << " value 0x" << std::hex << value;
}

TEST(HashMixTest, FixedLengthEqualsMixOverTheSameBytes) {
  for (uint64_t value : {0ull, 1ull, 0x80ull, 0xffull, 0x8001ull, 0xfedcba98ull,
                         0x8000000000000001ull, 0xffffffffffffffffull, 0x0123456789abcdefull}) {
    expectFixedLenMatchesMix<uint32_t, 1>(value);
    expectFixedLenMatchesMix<uint32_t, 2>(value);
    expectFixedLenMatchesMix<uint32_t, 4>(value);
    expectFixedLenMatchesMix<uint32_t, 8>(value);
    expectFixedLenMatchesMix<uint64_t, 1>(value);
    expectFixedLenMatchesMix<uint64_t, 2>(value);
    expectFixedLenMatchesMix<uint64_t, 4>(value);
    expectFixedLenMatchesMix<uint64_t, 8>(value);
  }
}

}  // namespace
