// The child leaks 4242 bytes; use_globals=0 stops statics hiding the library's singletons.

#include <Tamlo/HeapCheck.h>

#include "SysTestSupport.h"

TEST(HeapCheckTest, ProcessLifetimeObjectsLeaveOnlyRealLeaksReported) {
  if (!Tamlo::HeapCheck::leakCheckerPresent())
    GTEST_SKIP() << "built without LeakSanitizer (configure with -DTAMLO_SANITIZE=ON)";
  std::pair<std::vector<std::string>, bool> const cases[] = {
      // environment, whether the library's objects are reported
      {{}, true},
      {{"HEAPCHECK="}, true},
      {{"HEAPCHECK=normal", "HEAP_CHECK_TRACE_PYTHON_ARENAS=1"}, false},  // accepted, ignored
  };
  for (auto [env, libraryObjectsReported] : cases) {
    SCOPED_TRACE(testing::PrintToString(env));
    env.insert(env.end(), {"ASAN_OPTIONS=detect_leaks=1", "LSAN_OPTIONS=use_globals=0"});
    auto const result = Tamlo::Test::runHelper("DiagHelper", {"leak"}, env,
                                               {"HEAPCHECK", "HEAP_CHECK_TRACE_PYTHON_ARENAS"});
    EXPECT_THAT(result.err, testing::HasSubstr("Direct leak of 4242 byte(s) in 1 object(s)"));
    EXPECT_EQ(result.err.find("libTamlo.so") != std::string::npos, libraryObjectsReported);
  }
}
