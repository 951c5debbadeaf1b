// A hook for counters kept by an optional plugin: when the shared object
// libVigorCountersPlugin.so is on the search path, counters handed to a
// Counters object are published through it; without it they are left alone.
#pragma once

#include <cstdint>

#include <Tamlo/Plugin.h>

namespace Tamlo {

// What the "VigorCountersPlugin" plugin implements. The plugin decides what
// a counter set is and how the counters are published; it must accept calls
// from any thread that makes or feeds a Counters object.
class CountersPlugin : public Platform::Plugin {
 public:
  ~CountersPlugin() override;
  // A Counters object named `counterSetName` was made.
  virtual void openCounterSet(char const* counterSetName) = 0;
  // `location` holds the live value of `counterName` and stays valid for as
  // long as its owner says; the plugin only reads it.
  virtual void addCounter(char const* counterName, uint64_t* location) = 0;
};

// A set of counters offered to the counters plugin, if there is one. Without
// the plugin every operation does nothing. Each object asks the plugin loader
// (Plugin.h), which loads the plugin once; while it is missing, every attempt
// traces the reason at level 0 on "TamloPlugin". Thread-safety is the
// plugin's: this class adds no state of its own after construction.
class Counters {
 public:
  static constexpr char const* pluginName = "VigorCountersPlugin";

  // Opens the set `name` in the plugin; a null name opens nothing.
  explicit Counters(char const* name);

  void counter(char const* counterName, uint64_t* location);
  // The plugin, or null without one.
  CountersPlugin* plugin() const { return plugin_; }

 private:
  CountersPlugin* plugin_;
};

}  // namespace Tamlo
