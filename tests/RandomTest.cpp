#include <Tamlo/Random.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <sstream>

#include "TestSupport.h"

namespace {

using Tamlo::Random;
using Tamlo::Test::runHelper;

std::string seedLine(uint32_t seed) {
  return "Tamlo::Random::setSeed(), setting seed to " + std::to_string(seed) + "\n";
}

// The helper's stdout for `seed`, computed independently of the library. Unseeded,
// the seed reads 0, the generator has its default seed and rand() is as after srand(1).
std::string expectedDraws(uint32_t seed, bool unseeded = false) {
  std::ostringstream out;
  out << "seed " << (unseeded ? 0 : seed) << "\n";
  std::mt19937_64 generator;
  if (!unseeded)
    generator.seed(seed);
  for (int i = 0; i < 5; ++i)
    out << generator() << "\n";
  // A random string draws from 62 characters and the terminating zero.
  std::srand(unseeded ? 1 : seed);
  char const characters[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (int i = 0; i < 1000; ++i)
    out << characters[std::rand() % 63];
  return out.str();
}

TEST(RandomTest, SetSeedRestartsTheSequenceThatConcurrentDrawsShareWithoutLosses) {
  testing::internal::CaptureStderr();
  Random::setSeed();
  uint32_t const seed = Random::getSeed();
  (void)Random::rand64();
  Random::setSeed();  // the same seed again, not a new one
  EXPECT_EQ(testing::internal::GetCapturedStderr(), seedLine(seed) + seedLine(seed));
  std::vector<uint64_t> drawn[4], all, expected(4 * 2000);
  std::vector<std::thread> workers;
  for (auto& mine : drawn)
    workers.emplace_back(
        [&mine] { std::generate_n(std::back_inserter(mine), 2000, Random::rand64); });
  for (int t = 0; t < 4; ++t) {
    workers[t].join();
    all.insert(all.end(), drawn[t].begin(), drawn[t].end());
  }
  std::ranges::generate(expected, std::mt19937_64(seed));
  std::ranges::sort(all);
  std::ranges::sort(expected);
  EXPECT_EQ(all, expected);
}

// Each case in a process of its own: the seed is chosen once per process.
TEST(RandomTest, SeedFromTheEnvironmentOrTheClockRepeatsARunAndMalformedOnesAreRefused) {
  // mode, seed, exit code, out, err
  std::vector<std::tuple<char const*, std::string, int, std::string, std::string>> rows = {
      {"sequence", "42", 0, expectedDraws(42), seedLine(42)},
      {"implicit", "7", 0, expectedDraws(7, true), ""},  // without setSeed(): silent defaults
  };
  for (std::string value : {"42x", "4294967296"})  // trailing text, out of range
    rows.emplace_back("sequence", value, 3,
                      "Tamlo::InvalidInitializeException(\"QZTEST_RANDSEED='" + value +
                          "' is not a decimal number from 0 to 4294967295\")\n",
                      "");
  for (auto const& [mode, seed, exitCode, out, err] : rows) {
    auto const run = runHelper("FoundationHelper", {mode}, {"QZTEST_RANDSEED=" + seed});
    EXPECT_EQ(run.exitCode, exitCode) << seed;
    EXPECT_EQ(run.err, err);
    EXPECT_EQ(run.out, out);
  }
  // The zero bytes a wrong modulus would lose are there (1000 draws at 1 in 63).
  EXPECT_NE(expectedDraws(42).find('\0'), std::string::npos);

  auto const clock = runHelper("FoundationHelper", {"sequence"}, {}, {"QZTEST_RANDSEED"});
  uint32_t const seed = static_cast<uint32_t>(std::stoul(clock.out.substr(5)));
  EXPECT_LT(seed, 1000000000u);  // without the variable: the nanoseconds of a timespec
  EXPECT_EQ(clock.err + clock.out, seedLine(seed) + expectedDraws(seed));
}

}  // namespace
