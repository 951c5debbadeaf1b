#include "Tamlo/TaskSchedulerHistory.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "SchedulerTestSupport.h"

// Counts every allocation of this program.
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
using Tamlo::Test::assertionText;
using Tamlo::Test::renderedTo;
using testing::EndsWith;

TaskTimePoint at(int64_t ns) {
  return TaskTimePoint(std::chrono::nanoseconds(ns));
}

class TaskSchedulerHistoryTest : public testing::Test {
 protected:
  // `count` events one microsecond apart, named "N t<i>".
  void insertNumbered(int count) {
    for (int i = 0; i < count; ++i) {
      ConstStringRef const name = history_.stringCache().intern("N t" + std::to_string(i));
      history_.insertTaskEvent(at(1'000'000 + i * 1000), EventType::schedule, name);
    }
  }

  TaskSchedulerHistory history_{4};
  ConstStringRef reader_ = history_.stringCache().intern("N reader");
  ConstStringRef main_ = history_.stringCache().intern("main");
};

// Five events into a ring of four: the oldest is overwritten, its name let go.
TEST_F(TaskSchedulerHistoryTest, KeepsTheNewestEventsAndRendersThemExactly) {
  for (int i = 0; i < 5; ++i)
    history_.insertTaskEvent(at(i), EventType::schedule, reader_);
  ASSERT_EQ(history_.eventCount(), 4u);
  EXPECT_THROW(history_.event(4), std::out_of_range);
  EXPECT_EQ(history_.stringCache().refCount("N reader"), 5u);  // ours and the ring's four
  history_.clear();
  EXPECT_EQ(history_.eventCount(), 0u);
  EXPECT_EQ(history_.stringCache().refCount("N reader"), 1u);

  // The relative column truncates toward zero, even for an earlier stamp.
  history_.insertTaskEvent(at(10'000), EventType::schedule, reader_);
  history_.insertTaskEvent(at(8'001), EventType::unschedule, reader_);
  EXPECT_THAT(history_.renderTextForDebugToString(),
              testing::HasSubstr("                 10000 ns since boot         -1 \xc2\xb5s "));

  // To a descriptor, a text larger than one buffer.
  history_.entryCountIs(100);
  insertNumbered(150);
  std::string expected =
      "Last 100 scheduler events, absolute timestamp and relative to last event\n" +
      std::string(72, '-') + "\n";
  for (int i = 149; i >= 50; --i) {
    expected += fmt::format("{:>22} ns since boot {:>10} \xc2\xb5s schedule     N t{}\n",
                            1'000'000 + i * 1000, 149 - i, i);
  }
  EXPECT_EQ(renderedTo([&](int fd) { EXPECT_TRUE(history_.renderTextForDebug(fd)); }),
            expected + "\n");
  EXPECT_FALSE(history_.renderTextForDebug(-1));
}

TEST_F(TaskSchedulerHistoryTest, EventTypesHaveDisplayTextsAndWrongKindsAreAssertions) {
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
  EXPECT_THAT(
      assertionText([&] { history_.insertTaskEvent(at(0), EventType::schedulerIdle, reader_); }),
      EndsWith("EventType: 17"));
  for (auto [type, message] : {std::pair{EventType::fdWritable, "EventType: 16"},
                               {EventType(200), "unexpected eventType=200"}})
    EXPECT_THAT(assertionText([&] { history_.insertSchedulerEvent(at(0), type, main_); }),
                EndsWith(message));
  EXPECT_EQ(history_.eventCount(), 0u);
}

// `fill` numbered events, a resize, then `refill` more numbered from 0 again.
TEST_F(TaskSchedulerHistoryTest, ResizingKeepsTheNewestThatFit) {
  for (auto const& [fill, capacity, refill, kept, distinct] :
       {std::tuple{4, 2u, 1, "N t0,N t3", 2u},
        {3, 6u, 4, "N t3,N t2,N t1,N t0,N t2,N t1", 4u},
        {2, 0u, 1, "", 0u}}) {
    SCOPED_TRACE(capacity);
    history_.entryCountIs(4);
    history_.clear();
    insertNumbered(fill);
    history_.entryCountIs(capacity);
    insertNumbered(refill);
    std::string names;
    for (size_t i = 0; i < history_.eventCount(); ++i)
      names += (i == 0 ? "" : ",") + history_.event(i).name().text();
    EXPECT_EQ(names, kept);
    EXPECT_EQ(history_.stringCache().size(), 2 + distinct);
  }
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
  EXPECT_EQ(allocationCount.load(), before);
}

}  // namespace
}  // namespace Tamlo
