// Shared helpers for the tests: running helper programs as child processes,
// assertion texts, output lines and backtraces.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What almost every test file uses, included once here.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Exception.h>

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

// `text` cut at newlines (a final newline ends the last line, adds none).
std::vector<std::string> linesOf(std::string const& text);

// True when `text` is nothing but backtrace frames, one a line, numbered from
// 0: "#<n> 0x<16 hex digits> <function>+0x<hex> in <object>".
bool isBacktrace(std::string const& text);

// The message of the assertion that `body` fails with (assertions throw for
// the call), or "(no assertion)" when it passes.
template <typename Body>
std::string assertionText(Body&& body) {
  ThrowOnAssert const throwing;
  try {
    body();
  } catch (AssertException const& e) {
    return e.message();
  }
  return "(no assertion)";
}

}  // namespace Tamlo::Test
