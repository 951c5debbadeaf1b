// Stack backtraces: program counters are captured eagerly with libunwind
// (cheap, so that exceptions are no performance trap) and turned into
// function names, offsets and shared objects only when printed.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Tamlo {

// The call stack of the point where it was made, innermost caller first. A
// plain value: copies share nothing, and a const one may be printed from any
// thread.
class Backtrace {
 public:
  static constexpr int maxFrames = 64;

  // Captures the stack of the caller when `capture` is true (the constructor
  // itself is left out, so frame 0 is the code that made the backtrace);
  // otherwise stays empty.
  explicit Backtrace(bool capture = true);
  // As above, also leaving out the `skipFrames` callers nearest to the
  // constructor: capture machinery such as an exception's constructor.
  Backtrace(bool capture, int skipFrames);

  size_t frameCount() const { return frames_.size(); }
  void* frame(size_t index) const { return frames_[index]; }

  // One line per frame, without a newline after the last:
  //   "#<n> 0x<pc> <function>+0x<offset> in <shared object>"
  // Unknown functions or objects print as "??". Resolves names on every call.
  std::string pretty() const;

  // TAMLO_BACKTRACE_VERBOSITY, read once at first call; 0 when unset or not a
  // whole number. At 1 the terminate handler adds a backtrace to reports of
  // exceptions that do not carry their own.
  static int verbosity();

 private:
  std::vector<void*> frames_;
};

// Keeps the most recent (message, backtrace) pairs, for example of every
// Tamlo::Exception made, so they can be listed after the fact. A ring: when
// full, a new entry drops the oldest. Thread-safe; usable during process exit.
class BacktraceTracker {
 public:
  static constexpr size_t defaultCapacity = 16;
  using Entry = std::pair<std::string, Backtrace>;

  static void backtraceIs(std::string const& message, Backtrace const& backtrace);
  // May be changed at any time; a smaller capacity keeps the newest entries.
  // 0 stops the tracking.
  static void capacityIs(size_t capacity);
  static size_t capacity();
  // Oldest first.
  static std::vector<Entry> entries();
  static void clear();
};

}  // namespace Tamlo
