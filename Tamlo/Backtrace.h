// Stack backtraces: program counters are captured eagerly (cheap, so that
// exceptions are no performance trap) and symbolised only when printed.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Tamlo {

class Backtrace {
 public:
  static constexpr int maxFrames = 64;

  // Captures the caller's stack when `capture` is true; otherwise stays empty.
  explicit Backtrace(bool capture = true);

  size_t frameCount() const { return frames_.size(); }
  void* frame(size_t index) const { return frames_[index]; }
  // One line per frame: "#N 0x<pc> <function>+0x<offset> in <object>".
  std::string pretty() const;

  // TAMLO_BACKTRACE_VERBOSITY, read once; 0 when unset or not a number. At 1
  // the terminate handler prints a backtrace for non-library exceptions.
  static int verbosity();

 private:
  std::vector<void*> frames_;
};

// Keeps the most recent (message, backtrace) pairs, for example of every
// Tamlo::Exception made, in a ring whose capacity can change at run time.
// Thread-safe.
class BacktraceTracker {
 public:
  static constexpr size_t defaultCapacity = 16;
  using Entry = std::pair<std::string, Backtrace>;

  static void backtraceIs(std::string const& message, Backtrace const& backtrace);
  // Keeps the newest entries that fit.
  static void capacityIs(size_t capacity);
  static size_t capacity();
  // Oldest first.
  static std::vector<Entry> entries();
  static void clear();
};

}  // namespace Tamlo
