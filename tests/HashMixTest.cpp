#include <Tamlo/HashMix.h>
#include <Tamlo/Util.h>

#include "TestSupport.h"

namespace {

using Tamlo::Impl::HashMix;

// A plain rendering of the word-wise algorithm; the tail's byte i of r lands at byte W - r + i.
template <typename T>
T referenceHash(std::vector<unsigned char> const& bytes, T hash = HashMix<T>::offsetBasis) {
  for (size_t i = 0; i < bytes.size(); i += sizeof(T)) {
    size_t const n = std::min(sizeof(T), bytes.size() - i);
    T word = 0;
    for (size_t b = 0; b < n; ++b)
      word |= static_cast<T>(bytes[i + b]) << (8 * (sizeof(T) - n + b));
    hash = static_cast<T>((hash ^ word) * HashMix<T>::prime);
  }
  return hash;
}

TEST(HashMixTest, KnownValues) {
  // Worked out by hand from the algorithm, which pins the constants the reference borrows.
  std::tuple<char const*, uint32_t, uint64_t> const cases[] = {
      {"abcde", 0x9f9c0244u, 0xccb757375901b7dfull},
      {"0123456789abcdef", 0xb5f86008u, 0x677356ce06b78095ull},
  };
  for (auto const& [text, hash32, hash64] : cases)
    EXPECT_EQ(std::pair(Tamlo::Util::hash(text), Tamlo::Util::hash64(text)),
              std::pair(hash32, hash64));
}

TEST(HashMixTest, EveryLengthAndAlignmentMatchesTheReference) {
  std::vector<unsigned char> all;
  for (unsigned i = 0; i < 64; ++i)
    all.push_back(static_cast<unsigned char>(i * 37 + 200));  // high bits set too
  // Start at odd offsets as well: words are read without alignment.
  for (size_t offset = 0; offset < 3; ++offset)
    for (unsigned length = 0; length + offset <= 40; ++length) {
      SCOPED_TRACE(testing::Message() << "offset " << offset << " length " << length);
      std::vector<unsigned char> const bytes(all.begin() + offset, all.begin() + offset + length);
      EXPECT_EQ(Tamlo::Util::hash(all.data() + offset, length), referenceHash<uint32_t>(bytes));
      EXPECT_EQ(Tamlo::Util::hash64(all.data() + offset, length), referenceHash<uint64_t>(bytes));
    }
}

TEST(HashMixTest, MixingInsideAWordContinuesFromTheCurrentValueWithTwoTails) {
  HashMix<uint32_t> mix;
  mix.mix("abc", 3);
  mix.mix("de", 2);
  EXPECT_EQ(mix.value(),
            referenceHash<uint32_t>({'d', 'e'}, referenceHash<uint32_t>({'a', 'b', 'c'})));
}

TEST(HashMixTest, FixedLengthEqualsMixOverTheSameBytes) {
  // Bytes with the high bit set catch a sign extension while assembling words.
  unsigned char const bytes[] = {0x80, 0x01, 0xff, 0xfe, 0x7f, 0x00, 0x81, 0xc3};
  // One chain of each width: any length mixed wrongly changes the end value.
  auto const check = [&]<typename T, size_t... N>(T seed, std::index_sequence<N...>) {
    HashMix<T> fixed(seed), general(seed);
    (fixed.template mixFixedLen<N>(bytes), ...);
    (general.mix(bytes, N), ...);
    EXPECT_EQ(fixed.value(), general.value()) << "width " << sizeof(T);
  };
  check(uint32_t{0x89abcdef}, std::index_sequence<1, 2, 4, 8>());
  check(uint64_t{0x0123456789abcdef}, std::index_sequence<1, 2, 4, 8>());
}

}  // namespace
