#include <Tamlo/Random.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <random>
#include <string_view>

#include <fmt/format.h>

#include <Tamlo/Exception.h>
#include <Tamlo/HeapCheck.h>

namespace Tamlo {

namespace {

struct RandomState {
  std::mutex mutex;
  bool seedChosen = false;
  uint32_t seed = 0;
  std::mt19937_64 generator;
};

// Never destroyed: threads still drawing during exit keep a valid state.
RandomState& state() {
  static auto* const randomState = HeapCheck::keepForProcessLifetime(new RandomState);
  return *randomState;
}

uint32_t seedFromEnvironment(char const* text) {
  std::string_view const value(text);
  uint32_t seed = 0;
  auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), seed, 10);
  if (value.empty() || error != std::errc() || end != value.data() + value.size())
    InvalidInitializeException::throwException(
        fmt::format("QZTEST_RANDSEED='{}' is not a decimal number from 0 to 4294967295", value));
  return seed;
}

uint32_t seedFromClock() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_nsec);
}

// Caller holds state().mutex.
void setSeedLocked(RandomState& random) {
  if (!random.seedChosen) {
    char const* const fromEnvironment = std::getenv("QZTEST_RANDSEED");
    random.seed = fromEnvironment ? seedFromEnvironment(fromEnvironment) : seedFromClock();
    random.seedChosen = true;
  }
  std::string const line =
      fmt::format("Tamlo::Random::setSeed(), setting seed to {}\n", random.seed);
  std::fputs(line.c_str(), stderr);
  std::srand(random.seed);
  random.generator.seed(random.seed);
}

}  // namespace

void Random::setSeed() {
  std::lock_guard<std::mutex> guard(state().mutex);
  setSeedLocked(state());
}

uint32_t Random::getSeed() {
  std::lock_guard<std::mutex> guard(state().mutex);
  return state().seed;
}

uint64_t Random::rand64() {
  std::lock_guard<std::mutex> guard(state().mutex);
  return state().generator();
}

std::string Random::randomString(unsigned length) {
  // The terminating zero of the table is index 62 and is drawn on purpose.
  static constexpr char characters[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  static_assert(sizeof characters == 63);
  std::lock_guard<std::mutex> guard(state().mutex);
  std::string text(length, '\0');
  for (char& c : text)
    c = characters[std::rand() % 63];
  return text;
}

}  // namespace Tamlo
