// Child process for the random-source tests: the seed is chosen once per
// process from QZTEST_RANDSEED, so each case needs a fresh process.
//   RandomHelper sequence  setSeed(), then the seed, five rand64() values and
//                          a 1000-character randomString() on stdout
//   RandomHelper implicit  the same without calling setSeed() first
#include <Tamlo/Exception.h>
#include <Tamlo/Random.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void printDraws() {
  std::printf("seed %u\n", Tamlo::Random::getSeed());
  for (int i = 0; i < 5; ++i)
    std::printf("%llu\n", static_cast<unsigned long long>(Tamlo::Random::rand64()));
  std::string const text = Tamlo::Random::randomString(1000);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2)
    return 2;
  try {
    if (std::strcmp(argv[1], "sequence") == 0) {
      Tamlo::Random::setSeed();
      printDraws();
    } else if (std::strcmp(argv[1], "implicit") == 0) {
      printDraws();
    } else {
      return 2;
    }
  } catch (Tamlo::Exception const& e) {
    std::printf("%s\n", e.msg().c_str());
    return 3;
  }
  return 0;
}
