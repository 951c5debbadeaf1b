// A stand-in for the counters plugin: records every call so that tests can
// check what Tamlo::Counters hands over.
#include <Tamlo/Counters.h>

#include "VigorCountersRecord.h"

namespace {

class RecordingCountersPlugin final : public Tamlo::CountersPlugin {
 public:
  RecordingCountersPlugin() { Tamlo::Platform::registerPlugin(this); }

  char const* name() const override { return "VigorCountersPlugin"; }
  void openCounterSet(char const* counterSetName) override {
    record_.openedSets.emplace_back(counterSetName);
  }
  void addCounter(char const* counterName, uint64_t* location) override {
    record_.counters.emplace_back(counterName, location);
  }

  Tamlo::Test::VigorCountersRecord* record() { return &record_; }

 private:
  Tamlo::Test::VigorCountersRecord record_;
};

RecordingCountersPlugin plugin;

}  // namespace

extern "C" Tamlo::Test::VigorCountersRecord* vigorCountersRecordForTest() {
  return plugin.record();
}
