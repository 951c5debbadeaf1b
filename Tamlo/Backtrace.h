// Stack backtraces: program counters are captured eagerly with libunwind
// (cheap, so that exceptions are no performance trap) and turned into
// function names, offsets and shared objects only when printed.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
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

// Keeps the most recent backtraces recorded with a message (every
// Tamlo::Exception made records its own), so that they can be listed after
// the fact. A ring: when full, a new entry drops the oldest. Thread-safe;
// usable during process exit.
class BacktraceTracker {
 public:
  static constexpr size_t defaultCapacity = 16;

  struct Entry {
    // 1 for the first entry recorded in the process; entries the ring has
    // dropped still count, so gaps show how many were lost.
    uint64_t sequence = 0;
    // Kernel id of the thread that recorded it.
    pid_t threadId = 0;
    std::chrono::system_clock::time_point time;
    std::string message;
    Backtrace backtrace;
  };

  static void backtraceIs(std::string const& message, Backtrace const& backtrace);
  // May be changed at any time; a smaller capacity keeps the newest entries.
  // 0 stops the tracking (nothing is recorded or counted).
  static void capacityIs(size_t capacity);
  static size_t capacity();
  // Oldest first.
  static std::vector<Entry> entries();
  // Empties the ring; the sequence numbers go on.
  static void clear();

  // The ring as text, one line ending in a newline each: the heading
  //   "Tracked backtraces: <kept> kept of <recorded> recorded, capacity <n>"
  // then, oldest first, for each entry
  //   "[<sequence>] <YYYY-mm-dd HH:MM:SS.uuuuuu local time> thread <id>: <message>"
  // followed by its frames as Backtrace::pretty() writes them, indented by
  // two blanks. Frames are named outside the tracker's lock.
  static void render(std::ostream& out);
  static std::string renderString();
};

}  // namespace Tamlo
