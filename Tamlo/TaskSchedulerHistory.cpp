#include <Tamlo/TaskSchedulerHistory.h>

#include <iostream>
#include <iterator>
#include <ostream>
#include <sstream>

#include <Tamlo/Assert.h>
#include <Tamlo/FdToStream.h>
#include <Tamlo/TaskScheduler.h>

namespace Tamlo {

namespace {

constexpr std::string_view kEventTypeDisplays[] = {
    "schedule",
    "unschedule",
    "run start",
    "run end",
    "timerStart",
    "timerStop",
    "suspendOn",
    "suspendOff",
    "scheduleSus",
    "frcYieldOn",
    "frcYieldOff",
    "idle",
    "busy",
    "create",
    "delete",
    "fdReadable",
    "fdWritable",
    "schedulerIdle",
    "schedulerRunnable",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
};
static_assert(std::size(kEventTypeDisplays) == size_t(TaskSchedulerHistory::lastEventType) + 1);

unsigned number(TaskSchedulerHistory::EventType type) {
  return static_cast<unsigned>(type);
}

}  // namespace

std::string_view TaskSchedulerHistory::eventTypeDisplay(EventType type) {
  TAMLO_ASSERT(type <= lastEventType, "unexpected eventType {}", number(type));
  return kEventTypeDisplays[number(type)];
}

std::string TaskSchedulerHistory::Event::display() const {
  return fmt::format("{:<12} {}", eventTypeDisplay(), name_.text());
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned int entries) : events_(entries) {}

TaskSchedulerHistory::~TaskSchedulerHistory() noexcept = default;

void TaskSchedulerHistory::insertTaskEvent(TaskTimePoint now, EventType type,
                                           ConstStringRef const& taskDisplayName) {
  TAMLO_ASSERT(type <= lastEventType, "unexpected eventType={}", number(type));
  TAMLO_ASSERT(type <= lastTaskEventType, "EventType: {}", number(type));
  pushFront(now, type, taskDisplayName);
}

void TaskSchedulerHistory::insertSchedulerEvent(TaskTimePoint now, EventType type,
                                                ConstStringRef const& schedulerName) {
  TAMLO_ASSERT(type <= lastEventType, "unexpected eventType={}", number(type));
  TAMLO_ASSERT(type > lastTaskEventType, "EventType: {}", number(type));
  pushFront(now, type, schedulerName);
}

void TaskSchedulerHistory::insert(TaskTimePoint now, EventType type, TaskImpl* task) {
  insertTaskEvent(now, type, task->taskDisplayNameRef());
}

void TaskSchedulerHistory::insert(TaskTimePoint now, EventType type, TaskScheduler* scheduler) {
  insertSchedulerEvent(now, type, scheduler->schedulerNameRef());
}

void TaskSchedulerHistory::pushFront(TaskTimePoint now, EventType type,
                                     ConstStringRef const& name) {
  // A full ring reuses its oldest slot: the event is moved into place and the
  // name it displaces is released, so nothing is allocated here.
  events_.push_front(Event(type, now, name));
  ++eventsRecorded_;
}

void TaskSchedulerHistory::entryCountIs(unsigned int entries) {
  if (entries == entryCount()) {
    return;
  }
  // The oldest events sit at the back, which is where set_capacity trims.
  events_.set_capacity(entries);
}

void TaskSchedulerHistory::renderTextForDebug(std::ostream& os) const {
  std::string const header = fmt::format(
      "Last {} scheduler events, absolute timestamp and relative to last event", entryCount());
  os << header << '\n' << std::string(header.size(), '-') << '\n';
  if (!events_.empty()) {
    int64_t const newest = events_.front().time().time_since_epoch().count();
    for (Event const& event : events_) {
      int64_t const at = event.time().time_since_epoch().count();
      os << fmt::format("{:>22} ns since boot {:>10} \u00b5s {}", at, (newest - at) / 1000,
                        event.display())
         << std::endl;
    }
  }
  os << '\n';
}

std::string TaskSchedulerHistory::renderTextForDebugToString() const {
  std::ostringstream os;
  renderTextForDebug(os);
  return std::move(os).str();
}

void TaskSchedulerHistory::renderTextForDebugStdErr() const {
  renderTextForDebug(std::cerr);
  std::cerr.flush();
}

bool TaskSchedulerHistory::renderTextForDebug(int fd) const {
  FdToStream out(fd, boost::iostreams::never_close_handle);
  renderTextForDebug(out);
  out.flush();
  bool const written = out.good();
  out.close();
  return written;
}

}  // namespace Tamlo
