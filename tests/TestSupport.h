// Shared helpers for the tests: running helper programs as child processes.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Tamlo::Test {

struct ChildResult {
  int exitCode = -1;  // -1 when killed by a signal
  int signal = 0;
  std::string out;
  std::string err;
};

// Runs the helper program `name` (built from tests/helpers/) with `args`,
// with `env` entries ("NAME=value") added to, and `unset` names removed from,
// this process's environment.
ChildResult runHelper(std::string const& name, std::vector<std::string> const& args = {},
                      std::vector<std::string> const& env = {},
                      std::vector<std::string> const& unset = {});

std::string helperPath(std::string const& name);

// Throws assertion failures as AssertException for the test's duration.
class ThrowOnAssert {
 public:
  ThrowOnAssert();
  ~ThrowOnAssert();

 private:
  bool previous_;
};

}  // namespace Tamlo::Test
