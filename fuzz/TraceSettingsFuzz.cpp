// TRACE settings strings ("name/levels,prefix*/levels,...") applied through
// setupTamloDebug() and then cleared through clearTamloDebug(), as a program
// does at run time. The input is the setting text, then a newline, then the
// text to clear.
//
// Whatever the text, every live handle an entry names (exactly, or by
// prefix for "prefix*") holds at least the entry's levels after setting, and
// none of them after clearing; levels never leave the ten that exist; and a
// level set reads back from its display form.
#include <memory>
#include <string_view>
#include <vector>

#include <Tamlo/Debug.h>

#include "FuzzSupport.h"

namespace {

using Tamlo::Orv::DebugControl;

struct Entry {
  std::string name;
  bool wildcard = false;
  uint16_t levels = 0;

  bool covers(std::string const& handleName) const {
    return wildcard ? handleName.starts_with(name) : handleName == name;
  }
};

// Cut as the settings grammar is: entries at ',', the name before the first
// '/', one trailing '*' marking a prefix.
std::vector<Entry> entriesOf(std::string const& text) {
  std::vector<Entry> entries;
  for (size_t start = 0; start < text.size();) {
    size_t const comma = std::min(text.find(',', start), text.size());
    std::string const entry = text.substr(start, comma - start);
    start = comma + 1;
    size_t const slash = entry.find('/');
    Entry parsed;
    parsed.name = entry.substr(0, slash);
    parsed.levels =
        slash == std::string::npos ? 0 : DebugControl::parseLevels(entry.substr(slash + 1));
    if (!parsed.name.empty() && parsed.name.back() == '*') {
      parsed.wildcard = true;
      parsed.name.pop_back();
    }
    entries.push_back(std::move(parsed));
  }
  return entries;
}

constexpr uint16_t kAllLevels = 0x3FF;

}  // namespace

// Clearing a level that only a wildcard gives a name leaves one handle behind
// for good, by design, and a run that allocates more than it frees makes
// libFuzzer scan the whole heap for leaks: that would cut the rate of runs
// more than tenfold. Leaks still fail the run, by LeakSanitizer's check at
// exit, only without the input that caused them.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static std::vector<char*> arguments(*argv, *argv + *argc);
  static char noLeakScanPerRun[] = "-detect_leaks=0";
  arguments.insert(arguments.begin() + 1, noLeakScanPerRun);
  arguments.push_back(nullptr);
  *argc = static_cast<int>(arguments.size() - 1);
  *argv = arguments.data();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const input = TamloFuzz::cString(data, size);
  size_t const newline = input.find('\n');
  std::string const setText = input.substr(0, newline);
  std::string const clearText = newline == std::string::npos ? "" : input.substr(newline + 1);
  std::vector<Entry> const setEntries = entriesOf(setText);
  std::vector<Entry> const clearEntries = entriesOf(clearText);

  // Handles for every name the entries mention, and one more below each
  // prefix, taken before the settings so that both ways of getting levels
  // (at creation, and by update of a live handle) are exercised.
  struct Held {
    std::string name;
    std::shared_ptr<Tamlo::Platform::DebugHandler> handle;
  };
  std::vector<Held> handles;
  auto const hold = [&](std::string const& name) {
    handles.push_back({name, Tamlo::Platform::getDebugHandler(name)});
  };
  for (auto const* entries : {&setEntries, &clearEntries})
    for (Entry const& entry : *entries) {
      if (entry.name.ends_with('*'))  // would be asked for as a prefix
        continue;
      hold(entry.name);
      if (entry.wildcard)
        hold(entry.name + "x");
    }

  Tamlo::Platform::setupTamloDebug(setText.c_str());
  for (auto const& [name, handle] : handles) {
    FUZZ_CHECK((handle->levels() & ~kAllLevels) == 0, "'{}' has levels {:#x}", name,
               handle->levels());
    for (Entry const& entry : setEntries)
      FUZZ_CHECK(!entry.covers(name) || (handle->levels() & entry.levels) == entry.levels,
                 "after setting '{}', '{}' has levels {:#x}", setText, name, handle->levels());
  }
  for (Entry const& entry : setEntries)
    FUZZ_CHECK(DebugControl::parseLevels(DebugControl::levelsString(entry.levels)) == entry.levels,
               "levels {:#x} display as '{}'", entry.levels,
               DebugControl::levelsString(entry.levels));

  Tamlo::Platform::clearTamloDebug(clearText.c_str());
  for (auto const& [name, handle] : handles)
    for (Entry const& entry : clearEntries)
      FUZZ_CHECK(!entry.covers(name) || (handle->levels() & entry.levels) == 0,
                 "after clearing '{}', '{}' has levels {:#x}", clearText, name, handle->levels());

  // Back to the settings at load, so that runs do not depend on each other.
  Tamlo::Platform::clearTamloDebug("*/*");
  Tamlo::Platform::setupTamloDebug("Tamlo*/01");
  return 0;
}
