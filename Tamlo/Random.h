// A seeded, repeatable random source for tests. setSeed() takes the seed from
// QZTEST_RANDSEED when set (else from the clock) and prints it on standard
// error, so a failing run can be repeated with the printed value.
#pragma once

#include <cstdint>
#include <string>

namespace Tamlo {

// Process-wide state: one seed, one MT19937-64 generator, and the C library's
// rand() for randomString. Every operation is thread-safe; concurrent callers
// each get distinct draws of the one sequence, in an unspecified interleaving.
// Only setSeed() chooses a seed and prints: before it, rand64() is the
// default-seeded MT19937-64 sequence, randomString() the unseeded rand()
// sequence and getSeed() is 0, so such a run is repeatable without a seed.
class Random {
 public:
  // The first call chooses the seed: QZTEST_RANDSEED (a decimal 32-bit value)
  // or else the nanoseconds of the monotonic clock. Every call prints
  // "Tamlo::Random::setSeed(), setting seed to <seed>" on standard error and
  // restarts both generators from the seed. Throws InvalidInitializeException
  // naming the value when QZTEST_RANDSEED is not a decimal 32-bit number.
  static void setSeed();
  static uint32_t getSeed();
  static uint64_t rand64();
  // `length` characters from "0-9A-Za-z" and, about once in 63, a zero byte:
  // the index is rand() % 63 into a 62-character table plus its terminator.
  // Users depend on this sequence, zero bytes included.
  static std::string randomString(unsigned length);
};

}  // namespace Tamlo
