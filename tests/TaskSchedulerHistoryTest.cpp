// The scheduler history: what the ring keeps, its exact rendering to each
// destination, capacity changes, and that recording never allocates.
#include "Tamlo/TaskSchedulerHistory.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>

#include "SchedulerTestSupport.h"
#include "Tamlo/Exception.h"

// Every allocation of this test program is counted, so a test can show that
// a stretch of code allocates nothing at all.
namespace {
std::atomic<size_t> allocationCount{0};

void* countedAllocation(std::size_t size) {
  allocationCount.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size))
    return memory;
  throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) {
  return countedAllocation(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace Tamlo {
namespace {

using EventType = TaskSchedulerHistory::EventType;
using std::chrono::nanoseconds;
using Tamlo::Test::assertionText;
using Tamlo::Test::renderedTo;
using testing::ElementsAre;
using testing::EndsWith;

TaskTimePoint at(int64_t ns) {
  return TaskTimePoint(nanoseconds(ns));
}

class TaskSchedulerHistoryTest : public testing::Test {
 protected:
  // Five events into a ring of four: the oldest, "create", is overwritten.
  void recordKnownSequence() {
    history_.insertTaskEvent(at(1'000'000'000'000), EventType::create, reader_);
    history_.insertTaskEvent(at(1'000'000'001'500), EventType::schedule, reader_);
    history_.insertSchedulerEvent(at(1'000'000'003'000), EventType::schedulerRunnable, main_);
    history_.insertTaskEvent(at(1'000'000'010'000), EventType::runStart, reader_);
    history_.insertTaskEvent(at(1'000'002'510'999), EventType::runEnd, reader_);
  }

  static constexpr char const* knownSequenceText =
      "Last 4 scheduler events, absolute timestamp and relative to last event\n"
      "----------------------------------------------------------------------\n"
      "         1000002510999 ns since boot          0 \xc2\xb5s run end      N reader\n"
      "         1000000010000 ns since boot       2500 \xc2\xb5s run start    N reader\n"
      "         1000000003000 ns since boot       2507 \xc2\xb5s schedulerRunnable main\n"
      "         1000000001500 ns since boot       2509 \xc2\xb5s schedule     N reader\n"
      "\n";

  // `count` events one microsecond apart, named "N t<i>".
  void insertNumbered(int count) {
    for (int i = 0; i < count; ++i) {
      ConstStringRef const name = history_.stringCache().intern("N t" + std::to_string(i));
      history_.insertTaskEvent(at(1'000'000 + i * 1000), EventType::schedule, name);
    }
  }

  std::vector<std::string> storedNames() const {
    std::vector<std::string> names;
    for (size_t i = 0; i < history_.eventCount(); ++i)
      names.push_back(history_.event(i).name().text());
    return names;
  }

  size_t refs(char const* name) { return history_.stringCache().refCount(name); }

  TaskSchedulerHistory history_{4};
  ConstStringRef reader_ = history_.stringCache().intern("N reader");
  ConstStringRef main_ = history_.stringCache().intern("main");
};

// The order, types and names of the kept events show in the rendering.
TEST_F(TaskSchedulerHistoryTest, KeepsTheNewestEventsAndTheirNamesUntilOverwrittenOrCleared) {
  EXPECT_EQ(history_.eventCount(), 0u);
  recordKnownSequence();
  ASSERT_EQ(history_.eventCount(), 4u);
  EXPECT_THROW(history_.event(4), std::out_of_range);
  // Ours plus the three reader events in the ring: the overwritten one let go.
  EXPECT_EQ(refs("N reader"), 4u);
  history_.clear();
  EXPECT_EQ(history_.eventCount(), 0u);
  EXPECT_EQ(history_.entryCount(), 4u);
  EXPECT_EQ(refs("N reader"), 1u);
}

TEST_F(TaskSchedulerHistoryTest, EveryEventTypeHasItsDisplayText) {
  std::string all;
  for (uint8_t type = 0; type < 26; ++type)
    all += std::string(TaskSchedulerHistory::eventTypeDisplay(EventType(type))) + ",";
  EXPECT_EQ(all,
            "schedule,unschedule,run start,run end,timerStart,timerStop,suspendOn,suspendOff,"
            "scheduleSus,frcYieldOn,frcYieldOff,idle,busy,create,delete,fdReadable,fdWritable,"
            "schedulerIdle,schedulerRunnable,schedulerSuspended,schedulerUnsuspended,"
            "schedulerRunIgnoredWhileSuspended,schedulerVirtualTimeOn,schedulerVirtualTimeOff,"
            "schedulerTestYieldRatioOn,schedulerTestYieldRatioOff,");
  EXPECT_THAT(assertionText([] { TaskSchedulerHistory::eventTypeDisplay(EventType(26)); }),
              EndsWith("unexpected eventType 26"));

  // Task event types are padded to twelve, as the rendering shows; a null name
  // leaves the padding.
  EXPECT_EQ(TaskSchedulerHistory::Event(EventType::busy, at(0), ConstStringRef()).display(),
            "busy         ");
}

TEST_F(TaskSchedulerHistoryTest, EventsOfTheWrongKindAreAssertionFailures) {
  struct Row {
    bool task;
    EventType type;
    char const* message;
  } const rows[] = {{true, EventType::schedulerIdle, "EventType: 17"},
                    {true, EventType(26), "unexpected eventType=26"},
                    {false, EventType::fdWritable, "EventType: 16"},
                    {false, EventType(200), "unexpected eventType=200"}};
  for (Row const& row : rows) {
    EXPECT_THAT(assertionText([&] {
                  if (row.task)
                    history_.insertTaskEvent(at(0), row.type, reader_);
                  else
                    history_.insertSchedulerEvent(at(0), row.type, main_);
                }),
                EndsWith(row.message));
  }
  EXPECT_EQ(history_.eventCount(), 0u);
}

// A ring of four holding `fill` numbered events is resized, then `refill`
// more (numbered from 0 again) are recorded.
TEST_F(TaskSchedulerHistoryTest, ResizingKeepsTheNewestThatFit) {
  struct Row {
    int fill;
    size_t capacity;
    int refill;
    std::vector<std::string> names;
  } const rows[] = {
      {4, 2, 1, {"N t0", "N t3"}},
      {3, 6, 4, {"N t3", "N t2", "N t1", "N t0", "N t2", "N t1"}},
      {3, 3, 0, {"N t2", "N t1", "N t0"}},
      {2, 0, 1, {}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.capacity);
    history_.entryCountIs(4);
    history_.clear();
    insertNumbered(row.fill);
    history_.entryCountIs(row.capacity);
    insertNumbered(row.refill);
    EXPECT_EQ(storedNames(), row.names);
    // Rendering follows the new capacity, even down to none.
    EXPECT_THAT(history_.renderTextForDebugToString(),
                testing::StartsWith(fmt::format("Last {} scheduler events,", row.capacity)));
    EXPECT_EQ(history_.stringCache().size(),
              2 + std::set(row.names.begin(), row.names.end()).size());
  }
}

TEST_F(TaskSchedulerHistoryTest, RendersExactlyToEachDestination) {
  recordKnownSequence();
  EXPECT_EQ(history_.renderTextForDebugToString(), knownSequenceText);
  std::ostringstream os;
  history_.renderTextForDebug(os);
  EXPECT_EQ(os.str(), knownSequenceText);
  testing::internal::CaptureStderr();
  history_.renderTextForDebugStdErr();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), knownSequenceText);

  // A descriptor is left open; one it cannot write to is reported.
  auto const toFd = [&](int fd) { EXPECT_TRUE(history_.renderTextForDebug(fd)); };
  EXPECT_EQ(renderedTo(toFd), knownSequenceText);
  EXPECT_FALSE(history_.renderTextForDebug(-1));

  // The relative column truncates toward zero, even for an earlier stamp.
  history_.clear();
  history_.insertTaskEvent(at(10'000), EventType::schedule, reader_);
  history_.insertTaskEvent(at(8'001), EventType::unschedule, reader_);
  EXPECT_THAT(history_.renderTextForDebugToString(),
              testing::HasSubstr("                 10000 ns since boot         -1 \xc2\xb5s "));

  // A full ring of a hundred, a text larger than one buffer, to a descriptor.
  history_.entryCountIs(100);
  insertNumbered(150);
  std::string expected =
      "Last 100 scheduler events, absolute timestamp and relative to last event\n" +
      std::string(72, '-') + "\n";
  for (int i = 149; i >= 50; --i) {
    expected += fmt::format("{:>22} ns since boot {:>10} \xc2\xb5s schedule     N t{}\n",
                            1'000'000 + i * 1000, 149 - i, i);
  }
  EXPECT_EQ(renderedTo(toFd), expected + "\n");
}

TEST_F(TaskSchedulerHistoryTest, RecordingAllocatesNothing) {
  TaskSchedulerHistory history(64);
  ConstStringRef const task = history.stringCache().intern("H a task with a long name, not SSO");
  ConstStringRef const scheduler = history.stringCache().intern("a scheduler with a long name");
  size_t const before = allocationCount.load();
  for (int i = 0; i < 64 * 5; ++i) {  // filling the ring, then wrapping around it
    history.insertTaskEvent(at(i), EventType::runStart, task);
    history.insertSchedulerEvent(at(i), EventType::schedulerIdle, scheduler);
  }
  size_t const after = allocationCount.load();
  EXPECT_EQ(after - before, 0u);
  history.renderTextForDebugToString();
  EXPECT_GT(allocationCount.load(), after);  // the counter does see allocations
}

}  // namespace
}  // namespace Tamlo
