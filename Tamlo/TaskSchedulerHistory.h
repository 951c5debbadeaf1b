// The debugging history of one scheduler root: a fixed-size ring of its most
// recent scheduling events (schedules, runs, suspensions, timers, fd events,
// scheduler state changes), newest first, each with its steady-clock time and
// the name of the task or scheduler concerned. The history also owns the
// cache in which the root's task and scheduler names are interned.
//
// Recording allocates nothing: the ring is allocated when its capacity is set
// and an event holds a counted reference to an already interned name.
//
// Not thread-safe: a history belongs to its root's thread, like the
// schedulers that share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include <boost/circular_buffer.hpp>

#include <Tamlo/ConstStringCache.h>
#include <Tamlo/TaskTime.h>

namespace Tamlo {

class TaskImpl;
class TaskScheduler;

class TaskSchedulerHistory {
 public:
  // Up to fdWritable an event concerns a task, from schedulerIdle on a
  // scheduler.
  enum class EventType : uint8_t {
    schedule = 0,
    unschedule = 1,
    runStart = 2,
    runEnd = 3,
    timerStart = 4,
    timerStop = 5,
    suspendOn = 6,
    suspendOff = 7,
    scheduleSus = 8,  // a suspended task refused a schedule
    frcYieldOn = 9,
    frcYieldOff = 10,
    idle = 11,
    busy = 12,
    create = 13,
    destroy = 14,  // displayed as "delete"
    fdReadable = 15,
    fdWritable = 16,
    schedulerIdle = 17,
    schedulerRunnable = 18,
    schedulerSuspended = 19,
    schedulerUnsuspended = 20,
    schedulerRunIgnoredWhileSuspended = 21,
    schedulerVirtualTimeOn = 22,
    schedulerVirtualTimeOff = 23,
    schedulerTestYieldRatioOn = 24,
    schedulerTestYieldRatioOff = 25,
  };
  static constexpr EventType lastTaskEventType = EventType::fdWritable;
  static constexpr EventType lastEventType = EventType::schedulerTestYieldRatioOff;

  // "schedule", "run start", "schedulerIdle"...; a value beyond the last type
  // fails with "unexpected eventType <n>".
  static std::string_view eventTypeDisplay(EventType type);

  // One recorded event.
  class Event {
   public:
    Event(EventType eventType, TaskTimePoint time, ConstStringRef name)
        : eventType_(eventType), time_(time), name_(std::move(name)) {}

    EventType eventType() const { return eventType_; }
    TaskTimePoint time() const { return time_; }
    // The task's display name ("N reader") or the scheduler's name.
    ConstStringRef const& name() const { return name_; }

    std::string_view eventTypeDisplay() const {
      return TaskSchedulerHistory::eventTypeDisplay(eventType_);
    }
    // The type's display padded to 12 characters, a blank, and the name.
    std::string display() const;

   private:
    EventType eventType_;
    TaskTimePoint time_;
    ConstStringRef name_;
  };

  // An empty ring of capacity `entries`; 0 records nothing.
  explicit TaskSchedulerHistory(unsigned int entries);
  TaskSchedulerHistory(TaskSchedulerHistory const&) = delete;
  TaskSchedulerHistory& operator=(TaskSchedulerHistory const&) = delete;
  // Names still referenced from outside (statistics records kept past their
  // root) are an assertion failure that ends the process.
  ~TaskSchedulerHistory() noexcept;

  // Where the root's task and scheduler names are interned.
  ConstStringCache& stringCache() { return stringCache_; }

  // Record a task event (schedule..fdWritable) under the task's display
  // name; a scheduler type fails with "EventType: <n>", an unknown one with
  // "unexpected eventType=<n>".
  void insert(TaskTimePoint now, EventType type, TaskImpl* task);
  // Record a scheduler event (schedulerIdle..schedulerTestYieldRatioOff)
  // under the scheduler's name; other types fail as for a task.
  void insert(TaskTimePoint now, EventType type, TaskScheduler* scheduler);
  // The same under a name already interned in stringCache(), for code that
  // holds the name but not the object (and for tests of the ring itself).
  void insertTaskEvent(TaskTimePoint now, EventType type, ConstStringRef const& taskDisplayName);
  void insertSchedulerEvent(TaskTimePoint now, EventType type, ConstStringRef const& schedulerName);

  // The capacity of the ring, not the number of events stored.
  unsigned int entryCount() const { return static_cast<unsigned int>(events_.capacity()); }
  // Changes the capacity, keeping the newest events that fit. Allocates.
  void entryCountIs(unsigned int entries);
  // Drops every event and keeps the capacity. Names that only events held
  // leave the string cache with them.
  void clear() { events_.clear(); }

  size_t eventCount() const { return events_.size(); }
  // 0 is the newest event.
  Event const& event(size_t index) const { return events_.at(index); }

  // The text dump: a header naming the capacity, a rule, one line per event
  // from newest to oldest with its absolute time in ns and its distance from
  // the newest in µs, and an empty line.
  void renderTextForDebug(std::ostream& os) const;
  std::string renderTextForDebugToString() const;
  void renderTextForDebugStdErr() const;
  // Writes to the open descriptor `fd`, which is left open. Returns false
  // when the text could not be written whole.
  bool renderTextForDebug(int fd) const;

  // Events recorded since construction, counting those the ring has dropped.
  // event(i) was number eventsRecorded() - 1 - i, counting from 0: a number
  // that stays with the event across renderings.
  uint64_t eventsRecorded() const { return eventsRecorded_; }

  // ---- Trace Event Format (TaskSchedulerTraceEvents.cpp) ----
  // The events as the JSON trace that Perfetto and chrome://tracing open:
  // process `pid` named `processName`, one track (tid) per task display name
  // and per scheduler name, numbered from 1 by first appearance; each run a
  // complete slice from "run start" to "run end", every other event an
  // instant on its track; times in microseconds of the steady clock. A run
  // whose start the ring has dropped starts at the oldest event, one still
  // open ends at the newest; both carry an argument saying so.
  void renderTraceEvents(std::ostream& os, std::string_view processName, int64_t pid) const;
  std::string renderTraceEventsToString(std::string_view processName, int64_t pid) const;
  // Leaves `fd` open; false when the trace could not be written whole.
  bool renderTraceEvents(int fd, std::string_view processName, int64_t pid) const;

 private:
  void pushFront(TaskTimePoint now, EventType type, ConstStringRef const& name);

  ConstStringCache stringCache_;
  // Newest at the front. Declared after the cache so that its names are
  // released before the cache goes.
  boost::circular_buffer<Event> events_;
  uint64_t eventsRecorded_ = 0;
};

}  // namespace Tamlo
