// The history as a Trace Event Format file, the JSON that Perfetto's UI and
// chrome://tracing open: {"traceEvents": [...]}. Metadata events name the
// process and one track per task or scheduler; each run of a task becomes a
// complete ("X") slice, every other event an instant ("i") on its track.
#include <Tamlo/TaskSchedulerHistory.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <sstream>
#include <utility>
#include <vector>

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/writer.h>

#include <Tamlo/FdToStream.h>

namespace Tamlo {

namespace {

using EventType = TaskSchedulerHistory::EventType;
using Writer = rapidjson::Writer<rapidjson::OStreamWrapper>;

struct Track {
  uint32_t tid;
  bool scheduler;
  std::string_view name;
  // Start times of the runs begun and not yet ended, innermost last: a task
  // run from another task's run (taskRunFromTest) nests on the same track
  // when both share a display name.
  std::vector<int64_t> openRuns;
};

int64_t nanoseconds(TaskTimePoint time) {
  return time.time_since_epoch().count();
}

double microseconds(int64_t ns) {
  return static_cast<double>(ns) / 1000.0;
}

void writeString(Writer& writer, std::string_view text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeCommon(Writer& writer, char const* phase, std::string_view name, char const* category,
                 int64_t pid, uint32_t tid) {
  writer.Key("name");
  writeString(writer, name);
  writer.Key("cat");
  writer.String(category);
  writer.Key("ph");
  writer.String(phase);
  writer.Key("pid");
  writer.Int64(pid);
  writer.Key("tid");
  writer.Uint(tid);
}

void writeMetadata(Writer& writer, char const* kind, std::string_view name, int64_t pid,
                   uint32_t tid) {
  writer.StartObject();
  writer.Key("name");
  writer.String(kind);
  writer.Key("ph");
  writer.String("M");
  writer.Key("pid");
  writer.Int64(pid);
  writer.Key("tid");
  writer.Uint(tid);
  writer.Key("args");
  writer.StartObject();
  writer.Key("name");
  writeString(writer, name);
  writer.EndObject();
  writer.EndObject();
}

// `note` names the end that the ring did not keep, if any.
void writeRun(Writer& writer, Track const& track, int64_t pid, int64_t start, int64_t end,
              char const* note) {
  writer.StartObject();
  writeCommon(writer, "X", track.name, "run", pid, track.tid);
  writer.Key("ts");
  writer.Double(microseconds(start));
  writer.Key("dur");
  writer.Double(microseconds(std::max<int64_t>(end - start, 0)));
  if (note != nullptr) {
    writer.Key("args");
    writer.StartObject();
    writer.Key(note);
    writer.Bool(true);
    writer.EndObject();
  }
  writer.EndObject();
}

void writeInstant(Writer& writer, Track const& track, int64_t pid,
                  TaskSchedulerHistory::Event const& event) {
  writer.StartObject();
  writeCommon(writer, "i", event.eventTypeDisplay(), track.scheduler ? "scheduler" : "task", pid,
              track.tid);
  writer.Key("ts");
  writer.Double(microseconds(nanoseconds(event.time())));
  writer.Key("s");
  writer.String("t");
  writer.EndObject();
}

}  // namespace

void TaskSchedulerHistory::renderTraceEvents(std::ostream& os, std::string_view processName,
                                             int64_t pid) const {
  // Tracks are keyed by kind and name: the history knows tasks only by their
  // display names, so tasks sharing one share a track.
  std::map<std::pair<bool, std::string_view>, Track> tracks;
  std::vector<Track*> trackOrder;
  int64_t windowStart = 0;
  int64_t windowEnd = 0;
  for (auto it = events_.rbegin(); it != events_.rend(); ++it) {
    bool const scheduler = it->eventType() > lastTaskEventType;
    std::string_view const name = it->name().text();
    auto [entry, inserted] = tracks.try_emplace({scheduler, name});
    if (inserted) {
      entry->second = Track{uint32_t(trackOrder.size() + 1), scheduler, name, {}};
      trackOrder.push_back(&entry->second);
    }
    int64_t const at = nanoseconds(it->time());
    windowStart = it == events_.rbegin() ? at : std::min(windowStart, at);
    windowEnd = it == events_.rbegin() ? at : std::max(windowEnd, at);
  }

  rapidjson::OStreamWrapper stream(os);
  Writer writer(stream);
  writer.StartObject();
  writer.Key("traceEvents");
  writer.StartArray();
  writeMetadata(writer, "process_name", processName, pid, 0);
  for (Track const* track : trackOrder)
    writeMetadata(writer, "thread_name", track->name, pid, track->tid);

  for (auto it = events_.rbegin(); it != events_.rend(); ++it) {
    bool const scheduler = it->eventType() > lastTaskEventType;
    Track& track = tracks.at({scheduler, it->name().text()});
    int64_t const at = nanoseconds(it->time());
    if (it->eventType() == EventType::runStart) {
      track.openRuns.push_back(at);
    } else if (it->eventType() == EventType::runEnd) {
      if (track.openRuns.empty()) {
        // Begun before the oldest event the ring kept.
        writeRun(writer, track, pid, windowStart, at, "startNotRecorded");
      } else {
        writeRun(writer, track, pid, track.openRuns.back(), at, nullptr);
        track.openRuns.pop_back();
      }
    } else {
      writeInstant(writer, track, pid, *it);
    }
  }
  // Runs still going at the newest event (a rendering from inside a task).
  for (Track* track : trackOrder) {
    while (!track->openRuns.empty()) {
      writeRun(writer, *track, pid, track->openRuns.back(), windowEnd, "endNotRecorded");
      track->openRuns.pop_back();
    }
  }
  writer.EndArray();
  writer.Key("displayTimeUnit");
  writer.String("ns");
  writer.Key("otherData");
  writer.StartObject();
  writer.Key("historyEntryCount");
  writer.Uint(entryCount());
  writer.Key("eventsRecorded");
  writer.Uint64(eventsRecorded_);
  writer.EndObject();
  writer.EndObject();
  os.flush();
}

std::string TaskSchedulerHistory::renderTraceEventsToString(std::string_view processName,
                                                            int64_t pid) const {
  std::ostringstream os;
  renderTraceEvents(os, processName, pid);
  return std::move(os).str();
}

bool TaskSchedulerHistory::renderTraceEvents(int fd, std::string_view processName,
                                             int64_t pid) const {
  FdToStream out(fd, boost::iostreams::never_close_handle);
  renderTraceEvents(out, processName, pid);
  out.flush();
  bool const written = out.good();
  out.close();
  return written;
}

}  // namespace Tamlo
