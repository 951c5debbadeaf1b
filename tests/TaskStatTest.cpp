// Statistics records and interned names; fuzz/TaskStringsFuzz.cpp checks their strings.
#include "Tamlo/TaskStat.h"

#include <optional>
#include <sstream>

#include "TestSupport.h"

namespace Tamlo {
namespace {

using std::chrono::nanoseconds;
using Tamlo::Test::assertionText;
using testing::EndsWith;

TEST(TaskStatTypes, ValuesOutOfRangeAreAssertionFailures) {
  EXPECT_THAT(assertionText([] { TaskMaybeU32().value(); }), EndsWith("holds no value"));
  EXPECT_THAT(assertionText([] { time2Duration(1e10); }),
              EndsWith("time2Duration() Time input 10000000000 out of range"));
}

// A field's value in record(.., 100), then plus record(.., 10), then plus record(.., 1000).
struct Field {
  char const* name;
  uint64_t (*get)(TaskStat const&);
  uint64_t built, added, addedLarger;
};
// clang-format off
#define FIELD(expr, ...) \
  Field{#expr, [](TaskStat const& s) { return uint64_t(s.expr); }, __VA_ARGS__}
// clang-format on
Field const fields[] = {
    FIELD(taskKey().value(), 100, 100, 100),
    FIELD(taskRunCount(), 101, 112, 1113),
    FIELD(taskTotalRunTime().count(), 102, 114, 1116),
    FIELD(taskWorkCountTotal(), 103, 116, 1119),
    FIELD(taskWorkCountDecayingAvg(), 104, 14, 1004),
    FIELD(taskWorkCountHighWaterMark().raw(), 105, 105, 1005),
    FIELD(taskWorkPending(), 106, 16, 1006),
    FIELD(taskWorkPendingHighWaterMark().raw(), 107, 107, 1007),
    FIELD(taskQuantumViolation500(), 108, 126, 1134),
    FIELD(taskQuantumViolation200(), 109, 128, 1137),
    FIELD(taskRunTimeHighWaterMark().count(), 110, 110, 1010),
    FIELD(taskLastSchedulingLatency().count(), 111, 21, 1011),
    FIELD(taskSchedulingLatencyHighWaterMark().count(), 112, 112, 1012),
    FIELD(taskStatus().bits(), 113, 23, uint8_t(1013)),
    FIELD(taskCompletedCount(), 0, 2, 3),
};
#undef FIELD

class TaskStatRecord : public testing::Test {
 protected:
  // Every field distinct, so a swapped argument shows; `marks` replaces both high-water marks.
  TaskStat record(std::string const& name, uint64_t base,
                  std::optional<TaskMaybeU32> marks = std::nullopt) {
    return TaskStat(cache_->intern(name), TaskKey(base), TaskPriority::low, base + 1,
                    nanoseconds(base + 2), base + 3, float(base + 4),
                    marks.value_or(TaskMaybeU32(uint32_t(base + 5))), uint32_t(base + 6),
                    marks.value_or(TaskMaybeU32(uint32_t(base + 7))), uint32_t(base + 8),
                    uint32_t(base + 9), nanoseconds(base + 10), nanoseconds(base + 11),
                    nanoseconds(base + 12), TaskStat::TaskStatus(uint8_t(base + 13)));
  }
  // By pointer: the cache's destructor may throw, a fixture's may not.
  std::unique_ptr<ConstStringCache> cache_ = std::make_unique<ConstStringCache>();
};

TEST_F(TaskStatRecord, ConstructionAndAddingFollowEachFieldsRule) {
  TaskStat const empty;
  EXPECT_TRUE(empty.taskNameRef().isNull());
  EXPECT_EQ(TaskKey(uint64_t{140737488355328}).toStrep(), "@140737488355328");
  TaskStat const built = record("reader", 100);
  EXPECT_EQ(built.taskPriority(), TaskPriority::low);
  TaskStat added = built;
  added.taskCompletedCountIs(1);
  TaskStat later = record("reader", 10);
  later.taskCompletedCountIs(50);  // ignored: one more completed task
  added += later;
  TaskStat addedLarger = added;
  addedLarger += record("reader", 1000);
  for (Field const& field : fields) {
    SCOPED_TRACE(field.name);
    EXPECT_EQ(field.get(empty), 0u);
    EXPECT_EQ(field.get(built), field.built);
    EXPECT_EQ(field.get(added), field.added);
    EXPECT_EQ(field.get(addedLarger), field.addedLarger);
  }
  EXPECT_THAT(assertionText([&] { added += record("writer", 2); }), EndsWith("reader != writer"));
  EXPECT_EQ(added.taskRunCount(), 112u);
}

TEST_F(TaskStatRecord, MarksWithoutAValueCountAsZeroAndNeverReplaceOnes) {
  TaskMaybeU32 const none;
  struct Row {
    TaskMaybeU32 have, add, expected;
  } const rows[] = {{TaskMaybeU32(5), none, TaskMaybeU32(5)},
                    {none, TaskMaybeU32(1), TaskMaybeU32(1)},
                    {none, TaskMaybeU32(0), none}};
  for (Row const& row : rows) {
    TaskStat sum = record("t", 0, row.have);
    sum += record("t", 0, row.add);
    EXPECT_EQ(sum.taskWorkCountHighWaterMark(), row.expected);
    EXPECT_EQ(sum.taskWorkPendingHighWaterMark(), row.expected);
  }
}

// Sharing and erasing entries show in TaskTest and the scheduler history's name references.
TEST(ConstStringCache, ReferencesCountCopiesAndNullEqualsEmpty) {
  ConstStringCache cache;
  ConstStringRef ref = cache.intern("x");
  ConstStringRef copy = ref;
  ConstStringRef const moved = std::move(copy);
  EXPECT_TRUE(copy.isNull());  // NOLINT(bugprone-use-after-move)
  ref = ref;                   // self-assignment keeps the count
  EXPECT_EQ(cache.refCount("x"), 2u);
  ref = ConstStringRef();
  EXPECT_TRUE(!ref && ref == cache.intern(""));
  std::ostringstream os;
  os << ref << "|" << moved;
  EXPECT_EQ(os.str(), "|x");
}

TEST(ConstStringCache, DestroyingWithOpenReferencesFailsAndLeavesThemUsable) {
  auto* cache = new ConstStringCache;  // not a smart pointer: its reset() is noexcept
  ConstStringRef stray = cache->intern("stray");
  EXPECT_THAT(assertionText([&] { delete cache; }),
              EndsWith("Destroying ConstStringCache with open references"));
  EXPECT_EQ(stray.text(), "stray");
}

}  // namespace
}  // namespace Tamlo
