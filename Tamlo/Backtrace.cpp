#include <Tamlo/Backtrace.h>

#include <boost/circular_buffer.hpp>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <mutex>

#include <fmt/format.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace Tamlo {

Backtrace::Backtrace(bool capture) {
  if (!capture)
    return;
  void* frames[maxFrames];
  int const count = unw_backtrace(frames, maxFrames);
  // The first frame is this constructor: not worth showing.
  if (count > 1)
    frames_.assign(frames + 1, frames + count);
}

std::string Backtrace::pretty() const {
  std::string text;
  for (size_t i = 0; i < frames_.size(); ++i) {
    auto const pc = reinterpret_cast<uintptr_t>(frames_[i]);
    Dl_info info{};
    bool const found = dladdr(frames_[i], &info) != 0;
    std::string function = "??";
    uintptr_t offset = 0;
    if (found && info.dli_sname) {
      int status = 0;
      char* const demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
      function = status == 0 && demangled ? demangled : info.dli_sname;
      std::free(demangled);
      offset = pc - reinterpret_cast<uintptr_t>(info.dli_saddr);
    } else if (found) {
      offset = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
    }
    char const* object = found && info.dli_fname ? info.dli_fname : "??";
    fmt::format_to(std::back_inserter(text), "#{} 0x{:016x} {}+0x{:x} in {}\n", i, pc, function,
                   offset, object);
  }
  return text;
}

int Backtrace::verbosity() {
  static int const level = [] {
    char const* value = std::getenv("TAMLO_BACKTRACE_VERBOSITY");
    return value ? std::atoi(value) : 0;
  }();
  return level;
}

namespace {

struct Tracked {
  std::mutex mutex;
  boost::circular_buffer<BacktraceTracker::Entry> ring{BacktraceTracker::defaultCapacity};
};

Tracked& tracked() {
  static Tracked* const instance = new Tracked;  // exceptions may be made during exit
  return *instance;
}

}  // namespace

void BacktraceTracker::backtraceIs(std::string const& message, Backtrace const& backtrace) {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  if (t.ring.capacity() > 0)
    t.ring.push_back(Entry(message, backtrace));
}

void BacktraceTracker::capacityIs(size_t capacity) {
  Tracked& t = tracked();
  std::lock_guard<std::mutex> guard(t.mutex);
  // set_capacity keeps the oldest; the newest are the ones worth keeping.
  while (t.ring.size() > capacity)
    t.ring.pop_front();
  t.ring.set_capacity(capacity);
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

}  // namespace Tamlo
