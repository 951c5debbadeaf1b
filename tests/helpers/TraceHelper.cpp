// Child process for the tests of tracing behaviour fixed at load time (TRACE,
// TRACEFORMAT, TRACEFILE are read by the library's static initialisers).
//
//   TraceHelper levels NAME...     prints "NAME/levels" of a new handle each
//   TraceHelper format             prints the eight trace format flags
//   TraceHelper trace TEXT...      prints its pid, then traces each TEXT on
//                                  handle "Tamlo" at level 1, then at level 2
//   TraceHelper reopen FILE        traces "before", switches TRACEFILE to
//                                  FILE, traces "after"
//   TraceHelper retry DIR          traces "before", sets up again, makes DIR,
//                                  sets up again, traces "after"
//   TraceHelper threads N LINES    N threads each trace LINES long lines
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <Tamlo/Debug.h>
#include <Tamlo/FmtraceCpp.h>

namespace {

using Tamlo::Platform::getDebugHandler;

int printLevels(int argc, char** argv) {
  for (int i = 2; i < argc; ++i) {
    auto const handle = getDebugHandler(argv[i]);
    std::printf("%s/%s\n", argv[i],
                Tamlo::Orv::DebugControl::levelsString(handle->levels()).c_str());
  }
  return 0;
}

int traceTexts(int argc, char** argv) {
  std::printf("%d\n", static_cast<int>(getpid()));
  std::fflush(stdout);
  auto const handle = getDebugHandler("Tamlo");
  for (int i = 2; i < argc; ++i) {
    TAMLO_TRACE(handle, 1, "{}", argv[i]);
    TAMLO_TRACE(handle, 2, "level two: {}", argv[i]);
  }
  return 0;
}

int reopen(char const* file) {
  auto const handle = getDebugHandler("Tamlo");
  TAMLO_TRACE(handle, 0, "before");
  setenv("TRACEFILE", file, 1);
  Tamlo::Platform::setupTamloDebug("");
  TAMLO_TRACE(handle, 0, "after");
  return 0;
}

int retry(char const* directory) {
  auto const handle = getDebugHandler("Tamlo");
  TAMLO_TRACE(handle, 0, "before");
  Tamlo::Platform::setupTamloDebug("");
  if (mkdir(directory, 0700) != 0)
    return 1;
  Tamlo::Platform::setupTamloDebug("");
  TAMLO_TRACE(handle, 0, "after");
  return 0;
}

// Each line carries its thread and sequence number around a long filler, so
// that a torn or interleaved line cannot pass for a whole one.
int traceFromThreads(int threadCount, int lineCount) {
  auto const handle = getDebugHandler("TamloThreads");
  handle->enabledIs(1, true);
  std::string const filler(400, 'x');
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t)
    threads.emplace_back([&, t] {
      for (int n = 0; n < lineCount; ++n)
        TAMLO_TRACE(handle, 1, "<t{} n{} {} t{} n{}>", t, n, filler, t, n);
    });
  for (auto& thread : threads)
    thread.join();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string const mode = argc > 1 ? argv[1] : "";
  if (mode == "levels")
    return printLevels(argc, argv);
  if (mode == "format") {
    Tamlo::Platform::printAllTraceFormat();
    return 0;
  }
  if (mode == "trace")
    return traceTexts(argc, argv);
  if (mode == "reopen" && argc == 3)
    return reopen(argv[2]);
  if (mode == "retry" && argc == 3)
    return retry(argv[2]);
  if (mode == "threads" && argc == 4)
    return traceFromThreads(std::atoi(argv[2]), std::atoi(argv[3]));
  std::fprintf(stderr, "usage: TraceHelper levels|format|trace|reopen|retry|threads ...\n");
  return 2;
}
