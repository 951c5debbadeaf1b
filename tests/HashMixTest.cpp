#include <Tamlo/HashMix.h>
#include <Tamlo/Util.h>

#include "TestSupport.h"

namespace {

using Tamlo::Impl::HashMix;

constexpr uint32_t basis32 = 0x811c9dc5u;
constexpr uint64_t basis64 = 0xcbf29ce484222325ull;

// A plain rendering of the word-wise algorithm; the tail's byte i of r lands at byte W - r + i.
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
  // Worked out by hand from the algorithm, independently of this code.
  std::tuple<char const*, uint32_t, uint64_t> const cases[] = {
      {"a", 0x920c5d1fu, 0x9c63bd4c8601b7dfull},
      {"abcde", 0x9f9c0244u, 0xccb757375901b7dfull},
      {"0123456789abcdef", 0xb5f86008u, 0x677356ce06b78095ull},
  };
  for (auto const& [text, hash32, hash64] : cases) {
    EXPECT_EQ(Tamlo::Util::hash(text), hash32) << text;
    EXPECT_EQ(Tamlo::Util::hash64(text), hash64) << text;
  }
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
  // Splitting on a word boundary changes nothing, inside a word it mixes two tails.
  HashMix<uint32_t> split;
  split.mix("abcd", 4);
  split.mix("e", 1);
  EXPECT_EQ(split.value(), Tamlo::Util::hash("abcde"));
  HashMix<uint32_t> unaligned;
  unaligned.mix("abc", 3);
  unaligned.mix("de", 2);
  EXPECT_EQ(unaligned.value(),
            referenceHash<uint32_t>({'d', 'e'}, referenceHash<uint32_t>({'a', 'b', 'c'})));
}

TEST(HashMixTest, FixedLengthEqualsMixOverTheSameBytes) {
  // Bytes with the high bit set catch a sign extension while assembling words.
  unsigned char const bytes[] = {0x80, 0x01, 0xff, 0xfe, 0x7f, 0x00, 0x81, 0xc3};
  auto const check = [&]<typename T, size_t N>() {
    HashMix<T> fixed(static_cast<T>(0x0123456789abcdefull)), general(fixed.value());
    fixed.template mixFixedLen<N>(bytes);
    general.mix(bytes, N);
    EXPECT_EQ(fixed.value(), general.value()) << "width " << sizeof(T) << " N " << N;
  };
  [&]<size_t... N>(std::index_sequence<N...>) {
    (check.template operator()<uint32_t, N>(), ...);
    (check.template operator()<uint64_t, N>(), ...);
  }
  (std::index_sequence<1, 2, 4, 8>());
}

}  // namespace
