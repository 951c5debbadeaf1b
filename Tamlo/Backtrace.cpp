#include <Tamlo/Backtrace.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <algorithm>
#include <boost/circular_buffer.hpp>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>
#include <ostream>

#include <fmt/format.h>

#include <Tamlo/HeapCheck.h>
#include <Tamlo/Thread.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace Tamlo {

namespace {

#if defined(__SANITIZE_THREAD__)
#define TAMLO_STEP_UNWIND 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAMLO_STEP_UNWIND 1
#endif
#endif

// unw_backtrace() keeps a per-thread frame cache whose thread-exit destructor
// takes a mutex; under ThreadSanitizer that destructor runs after the
// sanitizer has retired the thread and crashes it. The step-by-step walk
// uses no per-thread cache, at some cost in speed, so ThreadSanitizer builds
// use it.
[[gnu::always_inline]] inline int walkStack(void** walked, int maxFrames) {
#ifdef TAMLO_STEP_UNWIND
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0)
    return 0;
  int count = 0;
  do {
    unw_word_t ip = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0 || ip == 0)
      break;
    walked[count++] = reinterpret_cast<void*>(ip);
  } while (count < maxFrames && unw_step(&cursor) > 0);
  return count;
#else
  return unw_backtrace(walked, maxFrames);
#endif
}

// libunwind sets itself up on the first walk behind an unsynchronised
// "done" flag, so two threads making their first walks at once race. One
// walk while the library loads, before the program can start threads,
// settles that set-up for good.
[[maybe_unused]] int const unwinderReady = [] {
  void* walked[2];
  return walkStack(walked, 2);
}();

// Inlined into each constructor so that frame 0 of the walk is always the
// constructor itself, whatever the optimiser does with helper calls.
[[gnu::always_inline]] inline void captureFrames(std::vector<void*>& frames, int skipFrames) {
  void* walked[Backtrace::maxFrames];
  int const count = walkStack(walked, Backtrace::maxFrames);
  int const first = 1 + (skipFrames > 0 ? skipFrames : 0);
  if (count > first)
    frames.assign(walked + first, walked + count);
}

std::string demangled(char const* symbol) {
  int status = 0;
  char* const text = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  std::string result = status == 0 && text ? text : symbol;
  std::free(text);
  return result;
}

struct FrameSymbol {
  std::string function = "??";
  uintptr_t offset = 0;
  char const* object = "??";
};

FrameSymbol symbolFor(void* frame) {
  FrameSymbol symbol;
  auto const pc = reinterpret_cast<uintptr_t>(frame);
  // Frames are return addresses; the call itself is the byte before, which
  // matters when a call is the last instruction of its function.
  uintptr_t const lookup = pc > 0 ? pc - 1 : pc;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(lookup), &info) == 0)
    return symbol;
  if (info.dli_fname && info.dli_fname[0] != '\0')
    symbol.object = info.dli_fname;
  if (info.dli_sname) {
    symbol.function = demangled(info.dli_sname);
    symbol.offset = pc - reinterpret_cast<uintptr_t>(info.dli_saddr);
    return symbol;
  }
  // Not in the dynamic symbol table (static functions, executables linked
  // without -rdynamic): libunwind reads the object's full symbol table.
  char name[512];
  unw_word_t offset = 0;
  unw_accessors_t* const accessors = unw_get_accessors(unw_local_addr_space);
  if (accessors && accessors->get_proc_name &&
      accessors->get_proc_name(unw_local_addr_space, lookup, name, sizeof name, &offset, nullptr) ==
          0) {
    symbol.function = demangled(name);
    symbol.offset = static_cast<uintptr_t>(offset) + (pc - lookup);
    return symbol;
  }
  symbol.offset = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
  return symbol;
}

}  // namespace

Backtrace::Backtrace(bool capture) {
  if (capture)
    captureFrames(frames_, 0);
}

Backtrace::Backtrace(bool capture, int skipFrames) {
  if (capture)
    captureFrames(frames_, skipFrames);
}

std::string Backtrace::pretty() const {
  std::string text;
  for (size_t i = 0; i < frames_.size(); ++i) {
    FrameSymbol const symbol = symbolFor(frames_[i]);
    if (i > 0)
      text.push_back('\n');
    fmt::format_to(std::back_inserter(text), "#{} 0x{:016x} {}+0x{:x} in {}", i,
                   reinterpret_cast<uintptr_t>(frames_[i]), symbol.function, symbol.offset,
                   symbol.object);
  }
  return text;
}

int Backtrace::verbosity() {
  static int const level = [] {
    char const* const value = std::getenv("TAMLO_BACKTRACE_VERBOSITY");
    if (!value)
      return 0;
    char const* const end = value + std::strlen(value);
    int parsed = 0;
    auto const [stop, error] = std::from_chars(value, end, parsed);
    return error == std::errc() && stop == end ? parsed : 0;
  }();
  return level;
}

namespace {

struct Tracked {
  std::mutex mutex;
  boost::circular_buffer<BacktraceTracker::Entry> ring{BacktraceTracker::defaultCapacity};
  uint64_t recorded = 0;
};

Tracked& tracked() {
  // Deliberately leaked: exceptions may be made during process exit, after
  // every static destructor has run.
  static Tracked* const instance = HeapCheck::keepForProcessLifetime(new Tracked);
  return *instance;
}

// "YYYY-mm-dd HH:MM:SS.uuuuuu" in local time, as trace lines show it.
std::string localTimeText(std::chrono::system_clock::time_point time) {
  auto const sinceEpoch = time.time_since_epoch();
  auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
  auto const micros = std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch - seconds);
  time_t const whole = static_cast<time_t>(seconds.count());
  tm parts{};
  char text[32];
  if (!localtime_r(&whole, &parts) || std::strftime(text, sizeof text, "%F %T", &parts) == 0)
    return fmt::format("{}.{:06} seconds since the epoch", whole, micros.count());
  return fmt::format("{}.{:06}", text, micros.count());
}

}  // namespace

void BacktraceTracker::backtraceIs(std::string const& message, Backtrace const& backtrace) {
  Entry entry{0, Tamlo::gettid(), std::chrono::system_clock::now(), message, backtrace};
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  if (t.ring.capacity() == 0)
    return;
  entry.sequence = ++t.recorded;
  t.ring.push_back(std::move(entry));
}

void BacktraceTracker::capacityIs(size_t capacity) {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  // rset_capacity drops from the front: the oldest entries go first.
  t.ring.rset_capacity(capacity);
}

size_t BacktraceTracker::capacity() {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  return t.ring.capacity();
}

std::vector<BacktraceTracker::Entry> BacktraceTracker::entries() {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  return {t.ring.begin(), t.ring.end()};
}

void BacktraceTracker::clear() {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  t.ring.clear();
}

void BacktraceTracker::render(std::ostream& out) {
  out << renderString();
}

std::string BacktraceTracker::renderString() {
  std::vector<Entry> kept;
  uint64_t recorded = 0;
  size_t capacity = 0;
  {
    Tracked& t = tracked();
    std::lock_guard<std::mutex> guard(t.mutex);
    kept.assign(t.ring.begin(), t.ring.end());
    recorded = t.recorded;
    capacity = t.ring.capacity();
  }
  std::string text = fmt::format("Tracked backtraces: {} kept of {} recorded, capacity {}\n",
                                 kept.size(), recorded, capacity);
  for (Entry const& entry : kept) {
    fmt::format_to(std::back_inserter(text), "[{}] {} thread {}: {}\n", entry.sequence,
                   localTimeText(entry.time), entry.threadId, entry.message);
    std::string const frames = entry.backtrace.pretty();
    for (size_t start = 0; start < frames.size();) {
      size_t const end = std::min(frames.find('\n', start), frames.size());
      text.append("  ").append(frames, start, end - start).push_back('\n');
      start = end + 1;
    }
  }
  return text;
}

}  // namespace Tamlo
