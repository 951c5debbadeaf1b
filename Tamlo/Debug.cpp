#include <Tamlo/Debug.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/HeapCheck.h>
#include <Tamlo/Loco.h>

namespace Tamlo {
namespace Orv {
namespace {

// The three registries; created on first use and never freed, so that
// handles destroyed during process exit still find them.
struct Registries {
  // Specific settings by full name.
  std::unordered_map<std::string, DebugControl*> debugsMap_;
  // Wildcard settings by prefix, in ascending byte order (findWildcard
  // relies on that order).
  std::map<std::string, DebugControl*> wildCardDebugsMap_;
  // Every live handle; several may share a name.
  std::multimap<std::string, DebugHandler*> handlerMap_;
};
Registries* registries = nullptr;

// The failure text names the caller itself, so no scope is added to it.
void requireLoco(char const* what) {
  TAMLO_ASSERT_IN("", Platform::loco().owns_lock(), "{}", what);
}

Registries& reg() {
  requireLoco("no loco");
  if (!registries)
    registries = HeapCheck::keepForProcessLifetime(new Registries);
  return *registries;
}

bool startsWith(std::string const& text, std::string const& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Names beginning with `prefix` form one run in an ordered map, starting at
// lower_bound(prefix).
template <typename Map, typename Fn>
void forEachWithPrefix(Map& map, std::string const& prefix, Fn&& fn) {
  for (auto it = map.lower_bound(prefix); it != map.end() && startsWith(it->first, prefix); ++it)
    fn(it->second);
}

template <typename Fn>
void forEachHandlerNamed(std::string const& name, Fn&& fn) {
  auto [first, last] = reg().handlerMap_.equal_range(name);
  for (auto it = first; it != last; ++it)
    fn(it->second);
}

// Applies `fn(name, levels)` to each entry of a settings string cut at ','.
// An empty value does nothing; a ',' at the very end ends the list; an empty
// entry between commas is an empty name with no levels. The name is the part
// before the first '/', the levels the part after it (none without a '/').
template <typename Fn>
void forEachEntry(std::string const& spec, Fn&& fn) {
  size_t start = 0;
  while (start < spec.size()) {
    size_t const comma = std::min(spec.find(',', start), spec.size());
    std::string const entry = spec.substr(start, comma - start);
    size_t const slash = entry.find('/');
    if (slash == std::string::npos)
      fn(entry, std::string());
    else
      fn(entry.substr(0, slash), entry.substr(slash + 1));
    start = comma + 1;
  }
}

}  // namespace

DebugHandler::DebugHandler(std::string const& name, unsigned levels, bool fixedLevels)
    : name_(name), fixedLevels_(fixedLevels) {
  levelsIs(static_cast<uint16_t>(levels));
  requireLoco("DebugHandler::DebugHandler() no loco");
  reg().handlerMap_.emplace(name_, this);
}

DebugHandler::~DebugHandler() {
  Platform::LocoGuard guard;
  auto& handlers = reg().handlerMap_;
  auto [first, last] = handlers.equal_range(name_);
  for (auto it = first; it != last; ++it) {
    if (it->second == this) {
      handlers.erase(it);
      break;
    }
  }
}

void DebugHandler::enabledIs(unsigned level, bool on) {
  uint16_t const bit = static_cast<uint16_t>(1u << (level % 32));
  Platform::LocoGuard guard;
  levelsIs(on ? (levels() | bit) : (levels() & ~bit));
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, char const* fileName,
                        int line, char const* funcName) const {
  std::string const text = stream.str();
  Platform::dumpDebugMsg(text.data(), text.size(), level, this, fileName, funcName, line);
}

void DebugHandler::levelsAdd(uint16_t added) {
  if (!fixedLevels_)
    levelsIs(levels() | added);
}

void DebugHandler::levelsRemove(uint16_t removed) {
  if (!fixedLevels_)
    levelsIs(levels() & static_cast<uint16_t>(~removed));
}

std::string DebugHandler::displayString() const {
  return fmt::format("{}{}/{}", name_, fixedLevels_ ? "+" : "",
                     DebugControl::levelsString(levels()));
}

DebugControl::DebugControl(std::string const& name, uint16_t levels, bool wildcard)
    : name_(name), levels_(levels), wildcard_(wildcard) {
  requireLoco("DebugControl::DebugControl() no loco");
}

DebugControl::~DebugControl() {
  requireLoco("DebugControl::~DebugControl() no loco");
}

std::string DebugControl::displayString() const {
  return fmt::format("{}{}/{}", name_, wildcard_ ? "*" : "", levelsString(levels_));
}

std::string DebugControl::levelsString(uint16_t levels) {
  if ((levels & allLevels) == allLevels)
    return "*";
  std::string digits;
  for (unsigned level = 0; level < 10; ++level)
    if (levels & (1u << level))
      digits.push_back(static_cast<char>('0' + level));
  return digits;
}

void DebugControl::initialize() {
  requireLoco("DebugControl::initialize() no loco");
  reg();
}

std::string DebugControl::parseName(std::string const& text, bool& wildcard) {
  wildcard = !text.empty() && text.back() == '*';
  return wildcard ? text.substr(0, text.size() - 1) : text;
}

uint16_t DebugControl::parseLevels(std::string const& text) {
  uint16_t levels = 0;
  for (char c : text) {
    if (c >= '0' && c <= '9')
      levels |= static_cast<uint16_t>(1u << (c - '0'));
    else if (c == '*')
      levels = allLevels;
  }
  return levels;
}

DebugControl* DebugControl::findWildcard(std::string name) {
  requireLoco("DebugControl::findWildcard() no loco");
  for (auto const& [prefix, setting] : reg().wildCardDebugsMap_)
    if (startsWith(name, prefix))
      return setting;
  return nullptr;
}

void DebugControl::set(std::string const& rawName, std::string const& levelsText) {
  bool wildcard = false;
  std::string const name = parseName(rawName, wildcard);
  uint16_t const levels = parseLevels(levelsText);
  Platform::LocoGuard guard;
  initialize();
  Registries& r = reg();

  // A new setting starts from what already governed its name, so that
  // adding a narrower setting never takes levels away.
  auto inheritedLevels = [](std::string const& key) -> uint16_t {
    DebugControl const* governing = findWildcard(key);
    return governing ? governing->levels_ : 0;
  };

  if (!wildcard) {
    DebugControl* setting;
    if (auto it = r.debugsMap_.find(name); it != r.debugsMap_.end()) {
      setting = it->second;
      setting->levels_ |= levels;
    } else {
      setting = new DebugControl(name, levels | inheritedLevels(name), false);
      r.debugsMap_.emplace(name, setting);
    }
    uint16_t const settingLevels = setting->levels_;
    forEachHandlerNamed(name, [&](DebugHandler* h) { h->levelsAdd(settingLevels); });
    return;
  }

  DebugControl* setting;
  if (auto it = r.wildCardDebugsMap_.find(name); it != r.wildCardDebugsMap_.end()) {
    setting = it->second;
    setting->levels_ |= levels;
  } else {
    setting = new DebugControl(name, levels | inheritedLevels(name), true);
    r.wildCardDebugsMap_.emplace(name, setting);
  }
  uint16_t const covered = setting->levels_;
  forEachWithPrefix(r.wildCardDebugsMap_, name, [&](DebugControl* s) { s->levels_ |= covered; });
  for (auto& [specificName, s] : r.debugsMap_)
    if (startsWith(specificName, name))
      s->levels_ |= covered;
  forEachWithPrefix(r.handlerMap_, name, [&](DebugHandler* h) { h->levelsAdd(covered); });
}

void DebugControl::clear(std::string const& rawName, std::string const& levelsText) {
  bool wildcard = false;
  std::string const name = parseName(rawName, wildcard);
  uint16_t const levels = parseLevels(levelsText);
  uint16_t const keep = static_cast<uint16_t>(~levels);
  Platform::LocoGuard guard;
  initialize();
  Registries& r = reg();

  if (wildcard) {
    for (auto it = r.wildCardDebugsMap_.lower_bound(name);
         it != r.wildCardDebugsMap_.end() && startsWith(it->first, name);) {
      it->second->levels_ &= keep;
      if (it->second->levels_ == 0) {
        delete it->second;
        it = r.wildCardDebugsMap_.erase(it);
      } else {
        ++it;
      }
    }
    for (auto it = r.debugsMap_.begin(); it != r.debugsMap_.end();) {
      if (startsWith(it->first, name)) {
        it->second->levels_ &= keep;
        if (it->second->levels_ == 0) {
          delete it->second;
          it = r.debugsMap_.erase(it);
          continue;
        }
      }
      ++it;
    }
    forEachWithPrefix(r.handlerMap_, name, [&](DebugHandler* h) { h->levelsRemove(levels); });
    return;
  }

  if (auto it = r.debugsMap_.find(name); it != r.debugsMap_.end()) {
    it->second->levels_ &= keep;
    if (it->second->levels_ == 0) {
      delete it->second;
      r.debugsMap_.erase(it);
    }
  } else if (DebugControl const* governing = findWildcard(name)) {
    // Clearing never creates a setting. A name that only a wildcard covers
    // instead gets one more handle, holding the wildcard's levels less the
    // cleared ones, which is never freed; handles obtained later still start
    // from the wildcard's full levels.
    new DebugHandler(name, governing->levels_ & keep, false);
  }
  forEachHandlerNamed(name, [&](DebugHandler* h) { h->levelsRemove(levels); });
}

std::shared_ptr<Platform::DebugHandler> DebugControl::get(std::string const& rawName, bool) {
  bool wildcard = false;
  std::string const name = parseName(rawName, wildcard);
  Platform::LocoGuard guard;
  initialize();
  Registries& r = reg();
  if (wildcard) {
    std::string const warning = fmt::format(
        "Tamlo::Debug - Warning - Wild card specifier ignored getting handler for {} using {}\n",
        rawName, name);
    std::fputs(warning.c_str(), stderr);
  }
  uint16_t levels = 0;
  if (auto it = r.debugsMap_.find(name); it != r.debugsMap_.end())
    levels = it->second->levels_;
  else if (DebugControl const* governing = findWildcard(name))
    levels = governing->levels_;
  return std::allocate_shared<DebugHandler>(Allocator<DebugHandler>(), name, levels, false);
}

}  // namespace Orv

namespace Platform {

std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name) {
  return Orv::DebugControl::get(name, false);
}

void destroyDebugHandler(DebugHandler* handle) {
  LocoGuard guard;
  delete handle;
}

void setupTamloDebug(char const* spec) {
  LocoGuard guard;
  Impl::applyTraceSettings(spec ? spec : std::getenv("TRACE"));
  Impl::openTraceFileFromEnvironment();
}

void clearTamloDebug(char const* spec) {
  if (!spec)
    return;
  LocoGuard guard;
  Orv::forEachEntry(spec, [](std::string const& name, std::string const& levels) {
    Orv::DebugControl::clear(name, levels);
  });
}

void dumpTamloDebugMap() {
  std::string text = "\nSpecific:\n";
  {
    LocoGuard guard;
    Orv::DebugControl::initialize();
    Orv::Registries& r = Orv::reg();
    // Sorted so that the listing reads the same from run to run.
    std::vector<Orv::DebugControl const*> specific;
    for (auto const& [name, setting] : r.debugsMap_)
      specific.push_back(setting);
    std::sort(specific.begin(), specific.end(),
              [](auto const* a, auto const* b) { return a->name() < b->name(); });
    for (auto const* setting : specific)
      text += "    " + setting->displayString() + "\n";
    text += "Wildcard:\n";
    for (auto const& [prefix, setting] : r.wildCardDebugsMap_)
      text += "    " + setting->displayString() + "\n";
    text += "Handlers:\n";
    for (auto const& [name, handle] : r.handlerMap_)
      text += "    " + handle->displayString() + "\n";
  }
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

}  // namespace Platform

void Impl::applyTraceSettings(char const* spec) {
  if (!spec)
    return;
  Platform::LocoGuard guard;
  Orv::forEachEntry(spec, [](std::string const& name, std::string const& levels) {
    Orv::DebugControl::set(name, levels);
  });
}

}  // namespace Tamlo
