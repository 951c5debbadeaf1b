// Named trace handles with ten levels (0 to 9), and the settings
// ("name/levels", "prefix*/levels") that switch them on. Settings come from
// TRACE at load and from setupTamloDebug()/clearTamloDebug() at run time;
// every live handle that a setting covers follows it.
//
// Thread-safety: settings, handles and the trace format and file are guarded
// by the library lock (Loco.h), which every public entry point takes itself.
// The level test of a trace call reads a handle's levels without the lock: a
// setting changed while a trace call runs may or may not affect that call.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

namespace Tamlo {
namespace Platform {

// Text composed with << for a trace line or an assertion; written out whole
// by DebugHandler::dump().
class DebugStream : public std::stringstream {};

// A named trace handle. Trace calls test one bit of its levels before
// formatting anything (see TAMLO_TRACE in FmtraceCpp.h).
class DebugHandler : public std::enable_shared_from_this<DebugHandler> {
 public:
  virtual ~DebugHandler() = default;
  // Sets or clears one level of this handle only, whatever the settings say.
  virtual void enabledIs(unsigned level, bool on) = 0;
  // Writes the stream's whole text as one trace line of this handle.
  virtual void dump(DebugStream& stream, unsigned level, char const* fileName, int line,
                    char const* funcName) const = 0;

  // The trace-call test: one load and one bit test, no lock.
  bool enabled(unsigned level) const { return (levels() >> (level % 32)) & 1u; }
  uint16_t levels() const {
    return std::atomic_ref<uint16_t>(const_cast<uint16_t&>(levels_))
        .load(std::memory_order_relaxed);
  }
  // The levels that trace calls test: always this handle's own.
  uint16_t const* levelsPtr() const { return &levels_; }

 protected:
  DebugHandler() = default;
  DebugHandler(DebugHandler const&) = delete;
  DebugHandler& operator=(DebugHandler const&) = delete;

  // Written under the library lock; a relaxed atomic store keeps the
  // lock-free test above from reading a torn or racy value.
  void levelsIs(uint16_t levels) {
    std::atomic_ref<uint16_t>(levels_).store(levels, std::memory_order_relaxed);
  }

 private:
  // Kept in the handle itself so that the test needs no second load.
  uint16_t levels_ = 0;
};

// A new handle named `name` holding the levels the settings give that name,
// registered so that later settings reach it. Every call makes a new handle.
// A trailing '*' is ignored with a warning on standard error.
std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name);
// Deletes `handle` under the library lock.
void destroyDebugHandler(DebugHandler* handle);

// Applies "entry,entry,..." (entry = name[/levels] or prefix*[/levels]) left
// to right; null reads TRACE (nothing when unset). Levels only accumulate.
// Also opens TRACEFILE unless that file is open already; a name that failed
// to open is tried again.
void setupTamloDebug(char const* spec);
// The same grammar, each entry removing levels; null does nothing.
void clearTamloDebug(char const* spec);
// Prints every setting and every live handle to standard output.
void dumpTamloDebugMap();

// Writes one trace line: the prefix chosen by the trace format, exactly
// `length` bytes of `text`, a newline. The line is written whole under the
// library lock, so lines of different threads never interleave. `handle` is
// a Platform::DebugHandler (or null).
void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line);
// "field,field,..." from date, time, pid, tid, handle, level, line-info,
// func-name; listed fields are shown, the others not, always in that order.
// Null reads TRACEFORMAT (nothing when unset); "help" prints the fields. An
// unknown field changes nothing. An empty list shows the message alone.
void setTraceFormat(char const* spec);
void clearTraceFormat();
// The eight fields as "0"/"1" separated by blanks, on one line of stdout.
void printAllTraceFormat();

}  // namespace Platform

namespace Orv {

// The one implementation of Platform::DebugHandler. Construct only under the
// library lock (getDebugHandler does); it registers itself by name and
// unregisters when destroyed. A handle with fixedLevels keeps its levels
// through every setting.
class DebugHandler final : public Platform::DebugHandler {
 public:
  DebugHandler(std::string const& name, unsigned levels, bool fixedLevels);
  ~DebugHandler() override;

  void enabledIs(unsigned level, bool on) override;
  void dump(Platform::DebugStream& stream, unsigned level, char const* fileName, int line,
            char const* funcName) const override;

  std::string const& name() const { return name_; }
  bool fixedLevels() const { return fixedLevels_; }
  // Settings use these under the library lock; they honour fixedLevels.
  void levelsAdd(uint16_t added);
  void levelsRemove(uint16_t removed);
  // "name[+]/levels", as dumpTamloDebugMap prints it.
  std::string displayString() const;

 private:
  std::string name_;
  bool fixedLevels_;
};

// One setting: a specific name, or a wildcard prefix (kept without its '*'),
// with its levels. The static members hold the process-wide registries and
// the trace format; all of them are guarded by the library lock.
class DebugControl {
 public:
  static constexpr uint16_t allLevels = 1023;

  DebugControl(std::string const& name, uint16_t levels, bool wildcard);
  ~DebugControl();
  DebugControl(DebugControl const&) = delete;
  DebugControl& operator=(DebugControl const&) = delete;

  std::string const& name() const { return name_; }
  uint16_t levels() const { return levels_; }
  bool wildcard() const { return wildcard_; }
  // "name[*]/levels": reads back as a valid settings entry.
  std::string displayString() const;

  // One settings entry. `set` only adds levels, `clear` only removes them.
  static void set(std::string const& name, std::string const& levels);
  static void clear(std::string const& name, std::string const& levels);
  // Behind getDebugHandler; `flag` does not change the result.
  static std::shared_ptr<Platform::DebugHandler> get(std::string const& name, bool flag);
  // A trailing '*' makes a wildcard; the name is returned without it.
  static std::string parseName(std::string const& text, bool& wildcard);
  // Digits set their level, '*' sets all ten; anything else is ignored.
  static uint16_t parseLevels(std::string const& text);
  // The wildcard setting that governs `name`: the first matching prefix in
  // ascending byte order, so the shortest of nested prefixes wins. Null when
  // none matches. Caller holds the library lock.
  static DebugControl* findWildcard(std::string name);
  // "*" when all ten levels are set, else the set levels' digits ascending.
  static std::string levelsString(uint16_t levels);

  // The trace format: which prefix fields a line carries, in this order.
  // Written under the library lock; trace lines read them lock-free.
  static bool showDate_;
  static bool showTime_;
  static bool showPid_;
  static bool showTid_;
  static bool showHandleName_;
  static bool showLevel_;
  static bool showLineInfo_;
  static bool showFuncName_;

 private:
  friend void Platform::dumpTamloDebugMap();
  static void initialize();

  std::string name_;
  uint16_t levels_;
  bool wildcard_;
};

}  // namespace Orv

// Base or member for objects that trace on a handle of their own.
class Debuggable {
 public:
  Debuggable() = default;
  explicit Debuggable(std::shared_ptr<Platform::DebugHandler>& handle) : debugHandle_(handle) {}
  // Throws std::bad_weak_ptr when `handle` is not owned by a shared pointer.
  explicit Debuggable(Platform::DebugHandler& handle) : debugHandle_(handle.shared_from_this()) {}
  explicit Debuggable(std::string const& name) : debugHandle_(Platform::getDebugHandler(name)) {}
  Debuggable(Debuggable const&) = default;
  Debuggable& operator=(Debuggable const&) = default;

  std::shared_ptr<Platform::DebugHandler> const& debugHandle() const { return debugHandle_; }

 protected:
  std::shared_ptr<Platform::DebugHandler> debugHandle_;
};

namespace Impl {
inline Platform::DebugHandler const* rawHandle(std::shared_ptr<Platform::DebugHandler> const& h) {
  return h.get();
}
inline Platform::DebugHandler const* rawHandle(Platform::DebugHandler const* h) {
  return h;
}
inline Platform::DebugHandler const* rawHandle(Platform::DebugHandler const& h) {
  return &h;
}

// Switches the trace destination to TRACEFILE (truncating it) when TRACEFILE
// is set and names another file than the open one; on failure reports on
// standard error, traces there and forgets the name, so the next call tries
// again. Caller holds the library lock.
void openTraceFileFromEnvironment();
// setupTamloDebug without the trace file: the load applies its default
// settings through this, so that a bad TRACEFILE is reported once at load.
void applyTraceSettings(char const* spec);
}  // namespace Impl

}  // namespace Tamlo

// The library's default handle, "Tamlo": every assertion is traced on it.
extern std::shared_ptr<Tamlo::Platform::DebugHandler> TAMLO_DEFAULT_HANDLE;
