// The small value types shared by the scheduler and its reports: priorities,
// keys, optional counters, status bits, statistics records, durations and
// interned names.
#include "Tamlo/TaskStat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "Tamlo/ConstStringCache.h"
#include "Tamlo/Exception.h"
#include "Tamlo/TaskKey.h"
#include "Tamlo/TaskMaybeU32.h"
#include "Tamlo/TaskPriority.h"
#include "Tamlo/TaskTime.h"
#include "TestSupport.h"

namespace Tamlo {
namespace {

using std::chrono::nanoseconds;
using testing::EndsWith;

using Tamlo::Test::assertionText;

// ---------------------------------------------------------------- priority

TEST(TaskPriority, NamesAndCharactersOfEveryValue) {
  struct Row {
    TaskPriority priority;
    char const* strep;
    char oneChar;
  };
  Row const rows[] = {
      {TaskPriority::absolute, "absolute", 'A'},
      {TaskPriority::high, "high", 'H'},
      {TaskPriority::normal, "normal", 'N'},
      {TaskPriority::low, "low", 'L'},
      {TaskPriority::scavenge, "scavenge", 'S'},
      {TaskPriority::oneBeyondLast, "oneBeyondLast", '-'},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.strep);
    EXPECT_EQ(row.priority.toStrep(), row.strep);
    EXPECT_EQ(row.priority.oneChar(), row.oneChar);
    EXPECT_EQ(row.priority.oneCharString(), std::string(1, row.oneChar));
    std::ostringstream os;
    os << row.priority;
    EXPECT_EQ(os.str(), row.strep);
    EXPECT_EQ(fmt::format("[{:>9}]", row.priority), fmt::format("[{:>9}]", row.strep));
  }
}

TEST(TaskPriority, RawValuesMatchTheNamedOnesAndOrderByUrgency) {
  EXPECT_EQ(TaskPriority(uint8_t{2}), TaskPriority::normal);
  EXPECT_EQ(TaskPriority(uint8_t{5}).oneChar(), '-');
  EXPECT_LT(TaskPriority(TaskPriority::absolute), TaskPriority::high);
  EXPECT_LT(TaskPriority(TaskPriority::low), TaskPriority::scavenge);
  EXPECT_EQ(TaskPriority(TaskPriority::scavenge).value(), 4);
}

TEST(TaskPriority, ValuesBeyondTheEndMarkerAreAssertionFailures) {
  EXPECT_THAT(assertionText([] { TaskPriority(uint8_t{6}).toStrep(); }),
              EndsWith("unexpected priority value 6"));
  EXPECT_THAT(assertionText([] { TaskPriority(uint8_t{6}).oneChar(); }),
              EndsWith("unexpected priority 6"));
  EXPECT_THAT(assertionText([] { TaskPriority(uint8_t{255}).oneCharString(); }),
              EndsWith("unexpected priority 255"));
  EXPECT_THAT(assertionText([] {
                std::ostringstream os;
                os << TaskPriority(uint8_t{200});
              }),
              EndsWith("unexpected priority value 200"));
}

// ---------------------------------------------------------------- key, maybe

TEST(TaskKey, PrintsTheAddressInDecimalAfterAnAt) {
  EXPECT_EQ(TaskKey().toStrep(), "@0");
  EXPECT_EQ(TaskKey(uint64_t{140737488355328}).toStrep(), "@140737488355328");
  int object = 0;
  TaskKey const key(&object);
  EXPECT_EQ(key.value(), reinterpret_cast<uintptr_t>(&object));
  EXPECT_EQ(key, TaskKey(static_cast<void const*>(&object)));
  EXPECT_NE(key, TaskKey());
}

TEST(TaskMaybeU32, AllOnesMeansNoValueAndIsNeverStoredAsOne) {
  TaskMaybeU32 maybe;
  EXPECT_FALSE(maybe.hasValue());
  EXPECT_EQ(maybe.raw(), 4294967295u);
  EXPECT_EQ(maybe.valueOr(7), 7u);
  EXPECT_THAT(assertionText([&] { maybe.value(); }), EndsWith("TaskMaybeU32 holds no value"));

  maybe.valueIs(0);
  EXPECT_TRUE(maybe.hasValue());
  EXPECT_EQ(maybe.value(), 0u);

  maybe.valueIs(4294967295u);
  EXPECT_TRUE(maybe.hasValue());
  EXPECT_EQ(maybe.value(), 4294967294u);
  EXPECT_EQ(TaskMaybeU32(4294967295u).value(), 4294967294u);

  maybe.clear();
  EXPECT_EQ(maybe, TaskMaybeU32());
}

// ---------------------------------------------------------------- status

TEST(TaskStatus, EachGetterOwnsItsBit) {
  using Status = TaskStat::TaskStatus;
  struct Row {
    char const* name;
    uint8_t mask;
    void (Status::*set)(bool);
    bool (Status::*get)() const;
  };
  Row const rows[] = {
      {"taskTimer", 0x01, &Status::taskTimerIs, &Status::taskTimer},
      {"taskTimerRunning", 0x02, &Status::taskTimerRunningIs, &Status::taskTimerRunning},
      {"taskOnRunQueue", 0x04, &Status::taskOnRunQueueIs, &Status::taskOnRunQueue},
      {"taskCurrentlyRunning", 0x08, &Status::taskCurrentlyRunningIs,
       &Status::taskCurrentlyRunning},
      {"taskSuspended", 0x10, &Status::taskSuspendedIs, &Status::taskSuspended},
      {"taskIsTaskGroup", 0x20, &Status::taskIsTaskGroupIs, &Status::taskIsTaskGroup},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    Status status;
    (status.*row.set)(true);
    EXPECT_EQ(status.bits(), row.mask);
    EXPECT_TRUE((status.*row.get)());

    Status all(0x3f);
    (all.*row.set)(false);
    EXPECT_EQ(all.bits(), 0x3f & ~row.mask);
    EXPECT_FALSE((all.*row.get)());
    (all.*row.set)(false);
    EXPECT_EQ(all.bits(), 0x3f & ~row.mask);
  }
}

TEST(TaskStatus, RawBitAccessAgreesWithTheNamedAccessors) {
  TaskStat::TaskStatus status;
  status.bitmaskSetBit(TaskStat::TaskStatus::taskSuspendedBit, true);
  EXPECT_TRUE(status.taskSuspended());
  EXPECT_TRUE(status.bitmaskHasBitSet(TaskStat::TaskStatus::taskSuspendedBit));
  EXPECT_FALSE(status.bitmaskHasBitSet(TaskStat::TaskStatus::taskTimerBit));
  status.bitmaskSetBit(TaskStat::TaskStatus::taskSuspendedBit, false);
  EXPECT_EQ(status, TaskStat::TaskStatus());
  EXPECT_THAT(
      assertionText([&] { status.bitmaskHasBitSet(static_cast<TaskStat::TaskStatus::Bit>(9)); }),
      EndsWith("status bit 9 out of range"));
}

TaskStat statWith(TaskPriority priority, uint8_t statusBits) {
  return TaskStat({}, TaskKey(), priority, 0, {}, 0, 0, {}, 0, {}, 0, 0, {}, {}, {},
                  TaskStat::TaskStatus(statusBits));
}

TEST(TaskStat, StatusStringShowsTheStrongestStateAndQueuedPriority) {
  constexpr uint8_t timer = 0x01, timerRunning = 0x02, queued = 0x04, running = 0x08,
                    suspended = 0x10, group = 0x20;
  struct Row {
    TaskPriority priority;
    uint8_t bits;
    char const* expected;
  };
  Row const rows[] = {
      {TaskPriority::normal, queued, " N"},
      {TaskPriority::normal, 0, " n"},
      {TaskPriority::absolute, 0, " a"},
      {TaskPriority::scavenge, queued, " S"},
      {TaskPriority::high, group, " h"},
      {TaskPriority::low, timer | timerRunning | queued, "TL"},
      {TaskPriority::low, timer, "tl"},
      // The running bit alone does not make a timer task.
      {TaskPriority::low, timerRunning, " l"},
      {TaskPriority::high, suspended | timer | timerRunning, "Sh"},
      {TaskPriority::high, running | suspended | timer | queued, "*H"},
      {TaskPriority::oneBeyondLast, 0, " -"},
      {TaskPriority::oneBeyondLast, queued, " -"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.expected);
    EXPECT_EQ(statWith(row.priority, row.bits).taskStatusString(), row.expected);
  }
  EXPECT_THAT(assertionText([] { statWith(TaskPriority(uint8_t{7}), 0).taskStatusString(); }),
              EndsWith("unexpected priority 7"));
}

// ---------------------------------------------------------------- record

TEST(TaskStat, DefaultRecordIsAllZeroWithANullName) {
  TaskStat const stat;
  EXPECT_TRUE(stat.taskNameRef().isNull());
  EXPECT_EQ(stat.taskName(), "");
  EXPECT_EQ(stat.taskKey(), TaskKey());
  EXPECT_EQ(stat.taskPriority(), TaskPriority::absolute);
  EXPECT_EQ(stat.taskStatus(), TaskStat::TaskStatus());
  EXPECT_EQ(stat.taskRunCount(), 0u);
  EXPECT_EQ(stat.taskTotalRunTime(), nanoseconds(0));
  EXPECT_EQ(stat.taskWorkCountTotal(), 0u);
  EXPECT_EQ(stat.taskWorkCountDecayingAvg(), 0.0f);
  EXPECT_EQ(stat.taskWorkCountHighWaterMark(), TaskMaybeU32(0));
  EXPECT_EQ(stat.taskWorkPending(), 0u);
  EXPECT_EQ(stat.taskWorkPendingHighWaterMark(), TaskMaybeU32(0));
  EXPECT_EQ(stat.taskQuantumViolation500(), 0u);
  EXPECT_EQ(stat.taskQuantumViolation200(), 0u);
  EXPECT_EQ(stat.taskRunTimeHighWaterMark(), nanoseconds(0));
  EXPECT_EQ(stat.taskLastSchedulingLatency(), nanoseconds(0));
  EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), nanoseconds(0));
  EXPECT_EQ(stat.taskCompletedCount(), 0u);
}

class TaskStatRecord : public testing::Test {
 protected:
  // Every field distinct, so a swapped argument or field shows.
  TaskStat record(std::string const& name, uint64_t base) {
    return TaskStat(cache_->intern(name), TaskKey(base), TaskPriority::low, base + 1,
                    nanoseconds(base + 2), base + 3, float(base + 4),
                    TaskMaybeU32(uint32_t(base + 5)), uint32_t(base + 6),
                    TaskMaybeU32(uint32_t(base + 7)), uint32_t(base + 8), uint32_t(base + 9),
                    nanoseconds(base + 10), nanoseconds(base + 11), nanoseconds(base + 12),
                    TaskStat::TaskStatus(uint8_t(base + 13)));
  }

  // Held by pointer: the cache's destructor may throw, which a fixture's
  // destructor may not.
  std::unique_ptr<ConstStringCache> cache_ = std::make_unique<ConstStringCache>();
};

TEST_F(TaskStatRecord, FullConstructorTakesFieldsInOrder) {
  TaskStat const stat = record("reader", 100);
  EXPECT_EQ(stat.taskName(), "reader");
  EXPECT_EQ(stat.taskKey(), TaskKey(uint64_t{100}));
  EXPECT_EQ(stat.taskPriority(), TaskPriority::low);
  EXPECT_EQ(stat.taskRunCount(), 101u);
  EXPECT_EQ(stat.taskTotalRunTime(), nanoseconds(102));
  EXPECT_EQ(stat.taskWorkCountTotal(), 103u);
  EXPECT_EQ(stat.taskWorkCountDecayingAvg(), 104.0f);
  EXPECT_EQ(stat.taskWorkCountHighWaterMark(), TaskMaybeU32(105));
  EXPECT_EQ(stat.taskWorkPending(), 106u);
  EXPECT_EQ(stat.taskWorkPendingHighWaterMark(), TaskMaybeU32(107));
  EXPECT_EQ(stat.taskQuantumViolation500(), 108u);
  EXPECT_EQ(stat.taskQuantumViolation200(), 109u);
  EXPECT_EQ(stat.taskRunTimeHighWaterMark(), nanoseconds(110));
  EXPECT_EQ(stat.taskLastSchedulingLatency(), nanoseconds(111));
  EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), nanoseconds(112));
  EXPECT_EQ(stat.taskStatus().bits(), 113);
  EXPECT_EQ(stat.taskCompletedCount(), 0u);
}

TEST_F(TaskStatRecord, CopiesShareTheNameAndCountAReference) {
  TaskStat stat = record("reader", 1);
  EXPECT_EQ(cache_->refCount("reader"), 1u);
  {
    TaskStat const copy = stat;
    EXPECT_EQ(cache_->refCount("reader"), 2u);
    EXPECT_EQ(copy.taskNameRef().elem(), stat.taskNameRef().elem());
    EXPECT_EQ(copy.taskRunCount(), 2u);
  }
  EXPECT_EQ(cache_->refCount("reader"), 1u);
  stat.taskNameIs(cache_->intern("writer"));
  EXPECT_EQ(cache_->refCount("reader"), 0u);
  EXPECT_EQ(stat.taskName(), "writer");
}

TEST_F(TaskStatRecord, SettersAndCounters) {
  TaskStat stat;
  stat.taskRunInc(3);
  stat.taskRunInc();
  stat.taskTotalRunTimeInc(nanoseconds(5));
  stat.taskTotalRunTimeInc(nanoseconds(6));
  stat.taskWorkCountTotalInc(7);
  stat.taskQuantumViolation500Inc(2);
  stat.taskQuantumViolation200Inc(3);
  stat.taskRunTimeHighWaterMarkIs(nanoseconds(8));
  stat.taskLastSchedulingLatencyIs(nanoseconds(9));
  stat.taskSchedulingLatencyHighWaterMarkIs(nanoseconds(10));
  stat.taskCompletedCountIs(4);
  stat.taskCompletedCountInc(2);
  TaskStat::TaskStatus suspended;
  suspended.taskSuspendedIs(true);
  stat.taskStatusIs(suspended);

  EXPECT_EQ(stat.taskRunCount(), 4u);
  EXPECT_EQ(stat.taskTotalRunTime(), nanoseconds(11));
  EXPECT_EQ(stat.taskWorkCountTotal(), 7u);
  EXPECT_EQ(stat.taskQuantumViolation500(), 2u);
  EXPECT_EQ(stat.taskQuantumViolation200(), 3u);
  EXPECT_EQ(stat.taskRunTimeHighWaterMark(), nanoseconds(8));
  EXPECT_EQ(stat.taskLastSchedulingLatency(), nanoseconds(9));
  EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), nanoseconds(10));
  EXPECT_EQ(stat.taskCompletedCount(), 6u);
  EXPECT_TRUE(stat.taskStatus().taskSuspended());
}

TEST_F(TaskStatRecord, AddingFollowsEachFieldsRule) {
  TaskStat sum = record("reader", 100);
  sum.taskCompletedCountIs(1);
  TaskStat later = record("reader", 10);
  later.taskCompletedCountIs(50);
  sum += later;

  // Counts add up.
  EXPECT_EQ(sum.taskRunCount(), 101u + 11u);
  EXPECT_EQ(sum.taskTotalRunTime(), nanoseconds(102 + 12));
  EXPECT_EQ(sum.taskWorkCountTotal(), 103u + 13u);
  EXPECT_EQ(sum.taskQuantumViolation500(), 108u + 18u);
  EXPECT_EQ(sum.taskQuantumViolation200(), 109u + 19u);
  // Current values follow the later record, even when smaller.
  EXPECT_EQ(sum.taskWorkCountDecayingAvg(), 14.0f);
  EXPECT_EQ(sum.taskWorkPending(), 16u);
  EXPECT_EQ(sum.taskLastSchedulingLatency(), nanoseconds(21));
  EXPECT_EQ(sum.taskStatus().bits(), 23);
  // High-water marks keep the larger.
  EXPECT_EQ(sum.taskWorkCountHighWaterMark(), TaskMaybeU32(105));
  EXPECT_EQ(sum.taskWorkPendingHighWaterMark(), TaskMaybeU32(107));
  EXPECT_EQ(sum.taskRunTimeHighWaterMark(), nanoseconds(110));
  EXPECT_EQ(sum.taskSchedulingLatencyHighWaterMark(), nanoseconds(112));
  // One more completed task, whatever the other had counted.
  EXPECT_EQ(sum.taskCompletedCount(), 2u);
  // Identity stays.
  EXPECT_EQ(sum.taskKey(), TaskKey(uint64_t{100}));
  EXPECT_EQ(sum.taskName(), "reader");

  TaskStat larger = record("reader", 1000);
  sum += larger;
  EXPECT_EQ(sum.taskWorkCountHighWaterMark(), TaskMaybeU32(1005));
  EXPECT_EQ(sum.taskWorkPendingHighWaterMark(), TaskMaybeU32(1007));
  EXPECT_EQ(sum.taskRunTimeHighWaterMark(), nanoseconds(1010));
  EXPECT_EQ(sum.taskSchedulingLatencyHighWaterMark(), nanoseconds(1012));
  EXPECT_EQ(sum.taskCompletedCount(), 3u);
}

TEST_F(TaskStatRecord, MarksWithoutAValueNeverReplaceOnes) {
  auto withMarks = [this](TaskMaybeU32 work, TaskMaybeU32 pending) {
    return TaskStat(cache_->intern("t"), TaskKey(), TaskPriority::normal, 0, {}, 0, 0, work, 0,
                    pending, 0, 0, {}, {}, {}, {});
  };
  TaskStat sum = withMarks(TaskMaybeU32(5), TaskMaybeU32(6));
  sum += withMarks(TaskMaybeU32(), TaskMaybeU32());
  EXPECT_EQ(sum.taskWorkCountHighWaterMark(), TaskMaybeU32(5));
  EXPECT_EQ(sum.taskWorkPendingHighWaterMark(), TaskMaybeU32(6));

  // An empty mark counts as 0: any real value above 0 replaces it...
  TaskStat empty = withMarks(TaskMaybeU32(), TaskMaybeU32());
  empty += withMarks(TaskMaybeU32(1), TaskMaybeU32(2));
  EXPECT_EQ(empty.taskWorkCountHighWaterMark(), TaskMaybeU32(1));
  EXPECT_EQ(empty.taskWorkPendingHighWaterMark(), TaskMaybeU32(2));

  // ...but 0 is not larger than it, so the mark stays empty.
  TaskStat stillEmpty = withMarks(TaskMaybeU32(), TaskMaybeU32());
  stillEmpty += withMarks(TaskMaybeU32(0), TaskMaybeU32(0));
  EXPECT_FALSE(stillEmpty.taskWorkCountHighWaterMark().hasValue());
  EXPECT_FALSE(stillEmpty.taskWorkPendingHighWaterMark().hasValue());
}

TEST_F(TaskStatRecord, AddingADifferentNameIsAnAssertionFailure) {
  TaskStat reader = record("reader", 1);
  TaskStat const writer = record("writer", 2);
  EXPECT_THAT(assertionText([&] { reader += writer; }), EndsWith("reader != writer"));
  EXPECT_EQ(reader.taskRunCount(), 2u);

  TaskStat unnamed;
  EXPECT_THAT(assertionText([&] { unnamed += writer; }), EndsWith(" != writer"));
  unnamed += TaskStat();
  EXPECT_EQ(unnamed.taskCompletedCount(), 1u);
}

// ---------------------------------------------------------------- time

TEST(TaskTime, SecondsBecomeNanosecondsTruncatedTowardZero) {
  EXPECT_EQ(time2Duration(0), nanoseconds(0));
  EXPECT_EQ(time2Duration(1.5), nanoseconds(1'500'000'000));
  EXPECT_EQ(time2Duration(2.5e-9), nanoseconds(2));
  EXPECT_EQ(time2Duration(1e-10), nanoseconds(0));
  EXPECT_EQ(time2Duration(86400.0 * 365), nanoseconds(31'536'000'000'000'000));
}

TEST(TaskTime, NegativeNanOrHugeSecondsAreAssertionFailures) {
  char const* negative = "t >= 0 && \"time2Duration() negative Time input\"";
  EXPECT_THAT(assertionText([] { time2Duration(-1e-9); }), EndsWith(negative));
  EXPECT_THAT(assertionText([] { time2Duration(std::numeric_limits<double>::quiet_NaN()); }),
              EndsWith(negative));
  EXPECT_THAT(assertionText([] { time2Duration(1e10); }),
              EndsWith("time2Duration() Time input 10000000000 out of range"));
}

TEST(TaskTime, DurationsPrintInTheLargestUnitPastEachThreshold) {
  struct Row {
    int64_t ns;
    char const* text;
  };
  Row const rows[] = {
      {-5'000'000'000, "-5000000000ns"},
      {-1, "-1ns"},
      {0, "0ns"},
      {999, "999ns"},
      {1000, "1\xc2\xb5s"},
      {1999, "1\xc2\xb5s"},
      {999'999, "999\xc2\xb5s"},
      {1'000'000, "1ms"},
      {5'000'000'000, "5000ms"},
      {59'999'999'999, "59999ms"},
      {60'000'000'000, "60s"},
      {3'599'999'999'999, "3599s"},
      {3'600'000'000'000, "60min"},
      {7'199'999'999'999, "119min"},
      {INT64_MAX, "153722867min"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.ns);
    EXPECT_EQ(durationToString(nanoseconds(row.ns)), row.text);
    std::ostringstream os;
    os << nanoseconds(row.ns);
    EXPECT_EQ(os.str(), row.text);
  }
}

// ---------------------------------------------------------------- names

TEST(ConstStringCache, InterningTheSameTextGivesTheSameElement) {
  ConstStringCache cache;
  ConstStringRef const a = cache.intern("reader");
  ConstStringRef const b = cache.intern(std::string("reader"));
  ConstStringRef const c = cache.intern("writer");
  EXPECT_EQ(a.elem(), b.elem());
  EXPECT_NE(a.elem(), c.elem());
  EXPECT_EQ(a.elem()->cache(), &cache);
  EXPECT_EQ(a, b);
  EXPECT_FALSE(a == c);
  EXPECT_EQ(cache.size(), 2u);
  EXPECT_EQ(cache.refCount("reader"), 2u);
  EXPECT_EQ(a.elem()->refCount(), 2u);
  EXPECT_EQ(std::hash<ConstStringRef>{}(a), std::hash<std::string>{}("reader"));
  EXPECT_EQ(fmt::format("<{}>", c), "<writer>");
}

TEST(ConstStringCache, ReferencesCountCopiesAndTheLastOneErases) {
  ConstStringCache cache;
  ConstStringRef ref = cache.intern("x");
  {
    ConstStringRef copy = ref;
    ConstStringRef assigned;
    assigned = copy;
    EXPECT_EQ(cache.refCount("x"), 3u);
    ConstStringRef moved = std::move(copy);
    EXPECT_TRUE(copy.isNull());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(cache.refCount("x"), 3u);
    moved = cache.intern("y");
    EXPECT_EQ(cache.refCount("x"), 2u);
    EXPECT_EQ(cache.refCount("y"), 1u);
  }
  EXPECT_EQ(cache.refCount("y"), 0u);
  EXPECT_EQ(cache.size(), 1u);

  ref = ref;  // self-assignment keeps the count
  EXPECT_EQ(cache.refCount("x"), 1u);
  ref = ConstStringRef();
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(ref.text(), "");

  // A text interned again after it left starts a fresh count.
  ConstStringRef const again = cache.intern("x");
  EXPECT_EQ(cache.refCount("x"), 1u);
}

TEST(ConstStringCache, NullReferencesAreEmptyAndEqualToTheEmptyText) {
  ConstStringCache cache;
  ConstStringRef const null;
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(null);
  EXPECT_EQ(null.text(), "");
  EXPECT_EQ(null, ConstStringRef());
  ConstStringRef const empty = cache.intern("");
  EXPECT_TRUE(empty);
  EXPECT_EQ(null, empty);
  std::ostringstream os;
  os << null << "|" << empty << "|" << cache.intern("z");
  EXPECT_EQ(os.str(), "||z");
}

TEST(ConstStringCache, DestroyingWithOpenReferencesFailsAndLeavesThemUsable) {
  // A plain delete: the smart pointers' reset() is noexcept and would end the
  // test at the throwing destructor.
  auto* cache = new ConstStringCache;
  ConstStringRef stray = cache->intern("stray");
  EXPECT_THAT(assertionText([&] { delete cache; }),
              EndsWith("Destroying ConstStringCache with open references"));
  EXPECT_EQ(stray.text(), "stray");
  EXPECT_EQ(stray.elem()->cache(), nullptr);
  ConstStringRef const copy = stray;
  EXPECT_EQ(stray.elem()->refCount(), 2u);
  stray = ConstStringRef();
}

}  // namespace
}  // namespace Tamlo
