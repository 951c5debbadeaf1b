// Child process for what is fixed at load time or ends the process: tracing from
// the environment, the random seed, fatal failures. Usage: FoundationHelper COMMAND ARG...
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <Tamlo/Assert.h>
#include <Tamlo/CheckIncompat.h>
#include <Tamlo/Debug.h>
#include <Tamlo/Exception.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Random.h>

namespace FailureProbe {

struct Checker {
  void check(int value) {
    std::printf("%s:%d\n", __FILE__, __LINE__ + 2);  // the assertion's line
    std::fflush(stdout);
    TAMLO_ASSERT(value < 5, "value {} out of range", value);
  }
};

// Named in the backtraces that the tests look for.
[[gnu::noinline]] void throwRuntime() {
  Tamlo::RuntimeException::throwException("socket closed");
}
[[gnu::noinline]] void throwStd() {
  throw std::runtime_error("disk full");
}

}  // namespace FailureProbe

// Outside any named namespace: trace lines carry no calling scope.
namespace {

using namespace FailureProbe;
using Tamlo::Platform::getDebugHandler;
using Args = std::vector<std::string>;

// The seed, five rand64() values and a 1000-character randomString().
void printDraws() {
  std::printf("seed %u\n", Tamlo::Random::getSeed());
  for (int i = 0; i < 5; ++i)
    std::printf("%llu\n", static_cast<unsigned long long>(Tamlo::Random::rand64()));
  std::string const text = Tamlo::Random::randomString(1000);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

std::pair<char const*, void (*)(Args const&)> const commands[] = {
    // "NAME/levels" of a new handle for each NAME.
    {"levels",
     [](Args const& names) {
       for (auto const& name : names)
         std::printf(
             "%s/%s\n", name.c_str(),
             Tamlo::Orv::DebugControl::levelsString(getDebugHandler(name)->levels()).c_str());
     }},
    // The pid, then each text traced on "Tamlo" at level 1, then at level 2.
    {"trace",
     [](Args const& texts) {
       std::printf("%d\n", static_cast<int>(getpid()));
       std::fflush(stdout);
       auto const handle = getDebugHandler("Tamlo");
       for (auto const& text : texts) {
         TAMLO_TRACE(handle, 1, "{}", text);
         TAMLO_TRACE(handle, 2, "level two: {}", text);
       }
     }},
    // "before", TRACEFILE set to FILE and set up again, then with a DIR made
    // and set up once more, "after".
    {"retarget",
     [](Args const& a) {
       auto const handle = getDebugHandler("Tamlo");
       TAMLO_TRACE(handle, 0, "before");
       setenv("TRACEFILE", a.at(0).c_str(), 1);
       Tamlo::Platform::setupTamloDebug("");
       if (mkdir(a.at(1).c_str(), 0700) == 0)
         Tamlo::Platform::setupTamloDebug("");
       TAMLO_TRACE(handle, 0, "after");
     }},
    // THREADS threads of LINES lines, numbers around a filler: torn lines show.
    {"threads",
     [](Args const& a) {
       auto const handle = getDebugHandler("TamloThreads");
       handle->enabledIs(1, true);
       std::vector<std::thread> threads;
       for (int t = 0; t < std::stoi(a.at(0)); ++t)
         threads.emplace_back([&, t] {
           for (int n = 0; n < std::stoi(a.at(1)); ++n)
             TAMLO_TRACE(handle, 1, "<t{} n{} {} t{} n{}>", t, n, std::string(400, 'x'), t, n);
         });
       for (auto& thread : threads)
         thread.join();
     }},
    {"sequence",
     [](Args const&) {
       Tamlo::Random::setSeed();
       printDraws();
     }},
    {"implicit", [](Args const&) { printDraws(); }},  // without setSeed()
    {"assertInCatch",
     [](Args const&) {
       try {
         throwStd();
       } catch (std::exception const&) {
         Checker().check(9);
       }
     }},
    {"runtime", [](Args const&) { throwRuntime(); }},
    {"std", [](Args const&) { throwStd(); }},
    {"int", [](Args const&) { throw 42; }},
    {"terminate", [](Args const&) { std::terminate(); }},
    {"thread", [](Args const&) { std::thread(throwRuntime).join(); }},
    // The value of the flag the dynamic linker hands out, before the check.
    {"checkIncompat",
     [](Args const&) {
       std::printf("flag %d\n", *static_cast<int*>(dlsym(RTLD_DEFAULT, "platformLibPresenceFlag")));
       std::fflush(stdout);
       Tamlo::checkIncompat();
       std::printf("compatible\n");
     }},
};

}  // namespace

int main(int argc, char** argv) {
  for (auto const& [name, run] : commands)
    if (argc > 1 && std::strcmp(argv[1], name) == 0) {
      try {
        run(Args(argv + 2, argv + argc));
        return 0;
      } catch (Tamlo::InvalidInitializeException const& e) {  // a bad QZTEST_RANDSEED
        std::printf("%s\n", e.msg().c_str());
        return 3;
      }
    }
  std::fprintf(stderr, "usage: FoundationHelper COMMAND ARG...\n");
  return 2;
}
