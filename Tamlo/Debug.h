// Named trace handles with ten levels, and the settings ("name/levels",
// "prefix*/levels") that switch them on. Settings come from TRACE at load and
// from setupTamloDebug()/clearTamloDebug() at run time; every live handle a
// setting covers follows it. All registries are guarded by the library lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
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
  virtual void enabledIs(unsigned level, bool on) = 0;
  virtual void dump(DebugStream& stream, unsigned level, char const* fileName, int line,
                    char const* funcName) const = 0;

  bool enabled(unsigned level) const { return (*levelsPtr_ >> level) & 1u; }
  uint16_t const* levelsPtr() const { return levelsPtr_; }

 protected:
  DebugHandler() = default;
  DebugHandler(DebugHandler const&) = delete;
  DebugHandler& operator=(DebugHandler const&) = delete;

  uint16_t const* levelsPtr_ = nullptr;
};

// A new handle named `name`, registered so that later settings reach it. A
// trailing '*' is ignored with a warning on standard error.
std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name);
void destroyDebugHandler(DebugHandler* handle);

// Applies "entry,entry,..." (entry = name[/levels] or prefix*[/levels]);
// null reads TRACE. Levels only accumulate. Also (re)opens TRACEFILE.
void setupTamloDebug(char const* spec);
// The same grammar, removing levels; null does nothing.
void clearTamloDebug(char const* spec);
// Prints every setting and every live handle to standard output.
void dumpTamloDebugMap();

// Writes one trace line: prefix per TRACEFORMAT, `length` bytes of `text`,
// newline; whole, under the library lock.
void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line);
// Null reads TRACEFORMAT; "help" prints the fields; all or nothing.
void setTraceFormat(char const* spec);
void clearTraceFormat();
void printAllTraceFormat();

}  // namespace Platform

namespace Orv {

// The one implementation of Platform::DebugHandler. Construct only under the
// library lock (getDebugHandler does); it registers itself by name.
class DebugHandler final : public Platform::DebugHandler {
 public:
  DebugHandler(std::string const& name, unsigned levels, bool fixedLevels);
  ~DebugHandler() override;

  void enabledIs(unsigned level, bool on) override;
  void dump(Platform::DebugStream& stream, unsigned level, char const* fileName, int line,
            char const* funcName) const override;

  std::string const& name() const { return name_; }
  uint16_t levels() const { return levels_; }
  bool fixedLevels() const { return fixedLevels_; }
  // Settings use these; they honour fixedLevels.
  void levelsAdd(uint16_t levels);
  void levelsRemove(uint16_t levels);
  // "name[+]/levels", as dumpTamloDebugMap prints it.
  std::string displayString() const;

 private:
  uint16_t levels_;
  std::string name_;
  bool fixedLevels_;
};

// One setting: a specific name or a wildcard prefix, with its levels. The
// static members hold the process-wide registries and trace format.
class DebugControl {
 public:
  static constexpr uint16_t allLevels = 1023;

  DebugControl(std::string const& name, uint16_t levels, bool wildcard);
  ~DebugControl();

  std::string const& name() const { return name_; }
  uint16_t levels() const { return levels_; }
  bool wildcard() const { return wildcard_; }
  std::string displayString() const;

  static void set(std::string const& name, std::string const& levels);
  static void clear(std::string const& name, std::string const& levels);
  static std::shared_ptr<Platform::DebugHandler> get(std::string const& name, bool flag);
  static std::string parseName(std::string const& text, bool& wildcard);
  static uint16_t parseLevels(std::string const& text);
  // The wildcard setting that governs `name`: the shortest matching prefix.
  // Caller holds the library lock.
  static DebugControl* findWildcard(std::string name);
  // "*" or the digits of the set levels in ascending order.
  static std::string levelsString(uint16_t levels);

  // The trace format: which prefix fields a line carries, in this order.
  static bool showDate_;
  static bool showTime_;
  static bool showPid_;
  static bool showTid_;
  static bool showHandleName_;
  static bool showLevel_;
  static bool showLineInfo_;
  static bool showFuncName_;

 private:
  friend class DebugHandler;
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
inline Platform::DebugHandler const* rawHandle(Platform::DebugHandler const* h) { return h; }
inline Platform::DebugHandler const* rawHandle(Platform::DebugHandler const& h) { return &h; }

// Closes the trace file when TRACEFILE names another one, then opens
// TRACEFILE (truncating) if no file is open. Caller holds the library lock.
void openTraceFileFromEnvironment();
}  // namespace Impl

}  // namespace Tamlo

// The library's default handle, "Tamlo": every assertion is traced on it.
extern std::shared_ptr<Tamlo::Platform::DebugHandler> TAMLO_DEFAULT_HANDLE;
