#include <Tamlo/Random.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

using Tamlo::Random;
using Tamlo::Test::runHelper;
using namespace std::string_literals;

constexpr char characters[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

std::string seedLine(uint32_t seed) {
  return "Tamlo::Random::setSeed(), setting seed to " + std::to_string(seed) + "\n";
}

// What randomString must produce right after srand(seed): the table has 62
// characters and its terminating zero is index 62.
std::string expectedString(uint32_t seed, unsigned length) {
  std::srand(seed);
  std::string text;
  for (unsigned i = 0; i < length; ++i)
    text.push_back(characters[std::rand() % 63]);
  return text;
}

// The helper's stdout for `seed`, computed independently of the library.
std::string expectedDraws(uint32_t seed) {
  std::ostringstream out;
  out << "seed " << seed << "\n";
  std::mt19937_64 generator(seed);
  for (int i = 0; i < 5; ++i)
    out << generator() << "\n";
  out << expectedString(seed, 1000);
  return out.str();
}

void setSeedQuietly() {
  testing::internal::CaptureStderr();
  Random::setSeed();
  testing::internal::GetCapturedStderr();
}

TEST(RandomTest, SetSeedPrintsTheSeedAndRestartsTheSequence) {
  testing::internal::CaptureStderr();
  Random::setSeed();
  uint32_t const seed = Random::getSeed();
  std::vector<uint64_t> first;
  for (int i = 0; i < 4; ++i)
    first.push_back(Random::rand64());
  Random::setSeed();  // the same seed again, not a new one
  EXPECT_EQ(testing::internal::GetCapturedStderr(), seedLine(seed) + seedLine(seed));
  EXPECT_EQ(Random::getSeed(), seed);

  std::mt19937_64 reference(seed);
  for (uint64_t value : first)
    EXPECT_EQ(value, reference());
  reference.seed(seed);
  EXPECT_EQ(Random::rand64(), reference());
  EXPECT_EQ(Random::randomString(0), "");
}

TEST(RandomTest, ConcurrentDrawsShareOneSequenceWithoutLosses) {
  setSeedQuietly();
  constexpr int threads = 4;
  constexpr int perThread = 2000;
  std::vector<std::vector<uint64_t>> drawn(threads);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&drawn, t] {
      for (int i = 0; i < perThread; ++i)
        drawn[t].push_back(Random::rand64());
    });
  for (auto& worker : workers)
    worker.join();

  std::vector<uint64_t> all;
  for (auto const& values : drawn)
    all.insert(all.end(), values.begin(), values.end());
  std::vector<uint64_t> expected;
  std::mt19937_64 reference(Random::getSeed());
  for (int i = 0; i < threads * perThread; ++i)
    expected.push_back(reference());
  std::sort(all.begin(), all.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(all, expected);
}

// Each case in a process of its own: the seed is chosen once per process.
// The draws, strings included, are computed here independently of the library.
TEST(RandomTest, EnvironmentSeedRepeatsARun) {
  std::ostringstream unseeded;  // rand() before any srand() is srand(1)
  unseeded << "seed 0\n";
  std::mt19937_64 generator;
  for (int i = 0; i < 5; ++i)
    unseeded << generator() << "\n";
  unseeded << expectedString(1, 1000);
  struct Row {
    char const* mode;
    char const* seed;
    std::string out, err;
  } const rows[] = {
      {"sequence", "42", expectedDraws(42), seedLine(42)},
      {"sequence", "42", expectedDraws(42), seedLine(42)},  // again: the same run
      {"sequence", "4294967295", expectedDraws(4294967295u), seedLine(4294967295u)},
      {"implicit", "7", unseeded.str(), ""},  // without setSeed(): silent defaults
  };
  for (Row const& row : rows) {
    auto const run = runHelper("RandomHelper", {row.mode}, {"QZTEST_RANDSEED="s + row.seed});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, row.err);
    EXPECT_EQ(run.out, row.out);
  }
  // The intended zero bytes are really there (1000 draws at 1 in 63).
  EXPECT_NE(expectedDraws(42).find('\0'), std::string::npos);
}

TEST(RandomTest, WithoutTheVariableTheSeedComesFromTheClock) {
  auto const run = runHelper("RandomHelper", {"sequence"}, {}, {"QZTEST_RANDSEED"});
  ASSERT_EQ(run.exitCode, 0);
  std::string const prefix = "seed ";
  ASSERT_EQ(run.out.compare(0, prefix.size(), prefix), 0) << run.out;
  uint32_t const seed = static_cast<uint32_t>(std::stoul(run.out.substr(prefix.size())));
  EXPECT_LT(seed, 1000000000u);  // the nanoseconds field of a timespec
  EXPECT_EQ(run.err, seedLine(seed));
  EXPECT_EQ(run.out, expectedDraws(seed));
}

TEST(RandomTest, MalformedSeedIsRejectedWithTheValue) {
  for (std::string value : {"abc", "", "-1", "42x", " 42", "4294967296", "99999999999999999999"}) {
    SCOPED_TRACE(value);
    auto const run = runHelper("RandomHelper", {"sequence"}, {"QZTEST_RANDSEED=" + value});
    EXPECT_EQ(run.exitCode, 3);
    EXPECT_EQ(run.out, "Tamlo::InvalidInitializeException(\"QZTEST_RANDSEED='" + value +
                           "' is not a decimal number from 0 to 4294967295\")\n");
    EXPECT_EQ(run.err, "");
  }
}

}  // namespace
