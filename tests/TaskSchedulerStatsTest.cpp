// The text report, the JSON snapshot's shape, and the trace of the history.
#include <algorithm>

#include <rapidjson/document.h>

#include <Tamlo/TaskGroup.h>
#include <Tamlo/TaskSchedulerSnapshot.h>
#include "SchedulerTestSupport.h"

namespace Tamlo::Test {
namespace {

using EventType = TaskSchedulerHistory::EventType;
using Json = rapidjson::Value;
using testing::HasSubstr;

std::string keysOf(Json const& object) {
  std::string keys;
  for (auto const& member : object.GetObject())
    keys += (keys.empty() ? "" : ",") + std::string(member.name.GetString());
  return keys;
}

rapidjson::Document parse(std::string const& text) {
  rapidjson::Document document;
  document.Parse(text.c_str());
  EXPECT_FALSE(document.HasParseError()) << text;
  return document;
}

TEST(StatsText, ReportFromFixedRecordsIsExact) {
  ConstStringCache cache;
  std::vector<TaskStat> const tasks = {
      TaskStat(cache.intern("w"), TaskKey(uint64_t{2}), TaskPriority::high, 1,
               TaskTimeDuration(250'000'000), 0, 0, TaskMaybeU32(), 0, TaskMaybeU32(), 0, 0,
               TaskTimeDuration(999'999), {}, {}, TaskStat::TaskStatus(0x10)),
      TaskStat(cache.intern("reader"), TaskKey(uint64_t{11}), TaskPriority::normal, 7,
               TaskTimeDuration(2'500'000'000), 40, 5.5f, TaskMaybeU32(9), 3, TaskMaybeU32(4), 1, 2,
               TaskTimeDuration(12'345'678), TaskTimeDuration(1'500'000),
               TaskTimeDuration(4'000'000), TaskStat::TaskStatus(0x04))};
  std::vector<TaskStat> completed = {TaskStat(cache.intern("gone"), TaskKey(uint64_t{5}),
                                              TaskPriority::low, 3, TaskTimeDuration(1'000'000'000),
                                              0, 0, {}, 0, {}, 0, 0, {}, {}, {}, {})};
  completed[0].taskCompletedCountIs(2);
  TaskSchedulerQueueStats queues;
  for (uint8_t p = 0; p < 5; ++p)
    queues[TaskPriority(p)] = {TaskPriority(p), p, uint64_t{p} * 2, 1, uint64_t{p} << 40};
  // Keys follow the names; the longest ("reader@11") sets the padding.
  std::string const expected = R"(Priority RunnableCount     IdleCount DoneCount   TotalRunCount
absolute             0             0         1               0
high                 1             2         1   1099511627776
normal               2             4         1   2199023255552
low                  3             6         1   3298534883328
scavenge             4             8         1   4398046511104
Maximum scheduler slip 0.001500 seconds

SP                = Task status and priority % two characters:
   first            T/t for active/idle timers, * for running task or blank
   second           priority and runnable status, upper case for runnable
Completed         = Number of times a task with this name has completed
TotalWorkCount    = Counter of total work units processed
TaskName  SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending
reader@11  N          7         2.500  0.002   0.004    2    1    12         40      5.5      9         3          4
w@2       Sh          1         0.250  0.000   0.000    0    0     0          0      0.0      -         0          -
Skipped 1 task with no runs
TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed Total/DecayA/Max-WorkCount Last/Max-WorkPending
gone  l          3         1.000  0.000   0.000    0    0     0    2          0      0.0      -         0          -
Skipped 2 tasks with no runs
)";
  std::ostringstream os;
  TaskSchedulerRoot::statsRenderTextImpl(os, queues, TaskTimeDuration(1'500'000), &tasks, 1,
                                         &completed, 2, true);
  // The legend's other lines restate a table of the code.
  std::string text = os.str();
  for (auto [from, to] : {std::pair{"RunCount  ", "Completed  "}, {"DecayAvg", "TaskName"}})
    text.erase(text.find(from), text.find(to) - text.find(from));
  EXPECT_EQ(text, expected);
}

class StatsTree : public testing::Test {
 protected:
  StatsTree() {
    ran_->taskWorkCountInc(3);
    ran_->taskRunFromTest();
    inGroup_->taskRunFromTest();
    group_->taskGroupRunFromTest();
    done_->taskRunFromTest();
    done_.reset();
  }

  std::shared_ptr<TaskSchedulerRoot> root_ = TaskSchedulerRoot::TaskSchedulerRootIs("stats");
  std::shared_ptr<TaskGroup> group_ =
      TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root_);
  std::shared_ptr<FunctionTask> ran_ = makeTask(root_, TaskPriority::high, "ran");
  std::shared_ptr<FunctionTask> idle_ = makeTask(root_, TaskPriority::low, "idle");
  std::shared_ptr<FunctionTask> done_ = makeTask(root_, TaskPriority::low, "done");
  std::shared_ptr<FunctionTask> inGroup_ = makeTask(group_, TaskPriority::normal, "inGroup");
};

// Live rows come in order of measured run time, which the test can not control.
// History event ids count every event the root recorded.
TEST_F(StatsTree, TextListsEverySchedulerAndJsonNestsGroupsWritingMembersByCondition) {
  std::string const text = root_->statsRenderTextForDebugToString(false, false, true, false);
  std::vector<std::string> firstWords;
  for (std::string const& line : linesOf(text.substr(text.find("\nTaskName") + 1)))
    firstWords.push_back(line.substr(0, line.find(' ')));
  ASSERT_EQ(firstWords.size(), 7u) << text;
  std::sort(firstWords.begin() + 1, firstWords.begin() + 4);
  EXPECT_THAT(firstWords, testing::ElementsAre("TaskName", "TaskGroup;group", "inGroup", "ran",
                                               "Skipped", "TaskName", "done"))
      << text;
  std::string const all = root_->statsRenderTextForDebugToString(true, true, false, false);
  EXPECT_TRUE(all.find("\nidle@") != std::string::npos && all.find("Skipped") == std::string::npos);
  EXPECT_TRUE(all.find("SP                = ") != std::string::npos &&
              all.find("Completed ") == std::string::npos);

  rapidjson::Document const doc =
      parse(root_->snapshot("named", false, true, true, 7).renderJsonToString());
  EXPECT_EQ(keysOf(doc),
            "schedulerName,displayOrder,isRootScheduler,priorityStats,maxSchedulerSlip,tasks,"
            "completedTasks,subSchedulers,historyEntryCount,history");
  EXPECT_EQ(keysOf(doc["priorityStats"]["low"]),
            "runnableTasks,idleTasks,completedTasks,totalRunCount");
  Json const& tasks = doc["tasks"]["tasks"];
  ASSERT_EQ(tasks.Size(), 2u);
  EXPECT_EQ(doc["tasks"]["skipped"].GetUint(), 1u);
  bool const ranFirst = std::string(tasks[0]["name"].GetString()) == "ran";
  Json const &ran = tasks[ranFirst ? 0 : 1], &parent = tasks[ranFirst ? 1 : 0];
  std::string const status =
      "onRunQueue,currentlyRunning,suspended,hasTimer,timerRunning,runCount,totalRunTime,"
      "lastSchedulingLatency,schedulingLatencyHighWaterMark,qv200,qv500,maxMs";
  EXPECT_EQ(keysOf(ran), "name,address,priority," + status + ",workCount,workPending");
  EXPECT_EQ(keysOf(ran["workCount"]), "total,decayingAvg,highwater");
  EXPECT_EQ(keysOf(parent),
            "name,address,priority,subScheduler," + status + ",workCount,workPending");
  Json const& gone = doc["completedTasks"]["tasks"][0];
  EXPECT_EQ(keysOf(gone), "name,priority," + status + ",completedCount");
  EXPECT_EQ(gone["completedCount"].GetUint64(), 1u);

  std::string const key = parent["subScheduler"].GetString();
  EXPECT_EQ(key, TaskSchedulerSnapshot::subSchedulerKey(*group_));
  EXPECT_EQ(keysOf(doc["subSchedulers"]), key);
  Json const& sub = doc["subSchedulers"][key.c_str()];
  // A group's, or a root's without the snapshot's extras.
  std::string const plain =
      "schedulerName,isRootScheduler,priorityStats,maxSchedulerSlip,tasks,subSchedulers";
  EXPECT_EQ(keysOf(sub), plain);
  EXPECT_STREQ(sub["tasks"]["tasks"][0]["name"].GetString(), "inGroup");
  EXPECT_EQ(keysOf(parse(root_->statsRenderJsonToString(false, false, false))), plain);

  Json const& history = doc["history"];
  EXPECT_EQ(keysOf(history[0]), "eventId,nsSinceBoot,eventType,name");
  EXPECT_EQ(history[0]["eventId"].GetUint64(), root_->history()->eventsRecorded() - history.Size());
}

TEST_F(StatsTree, ReportsRefuseOtherThreads) {
  std::string texts;
  std::thread([&] {
    texts = assertionText([&] { root_->statsRenderTextForDebugToString(true, true, true, true); }) +
            assertionText([&] { root_->statsRenderJsonToString(true, true, true); });
  }).join();
  EXPECT_THAT(texts, testing::ContainsRegex("wrong thread.*wrong thread"));
}

// A ring of six drops the first start; a scheduler named like a task has its own track.
TEST(TraceEvents, RunsBecomeSlicesOnTheirTracksAndLostEndsAreClipped) {
  using enum EventType;
  TaskSchedulerHistory history(6);
  auto const insert = [&](EventType type, char const* name, int64_t ns) {
    history.insertTaskEvent(TaskTimePoint(TaskTimeDuration(ns)), type,
                            history.stringCache().intern(name));
  };
  insert(runStart, "N x", 500), insert(schedule, "H y", 1500), insert(runEnd, "N x", 3000);
  insert(runStart, "N x", 3200), insert(runEnd, "N x", 3400), insert(runStart, "H y", 3500);
  history.insertSchedulerEvent(TaskTimePoint(TaskTimeDuration(4250)), schedulerIdle,
                               history.stringCache().intern("N x"));
  std::string const text = history.renderTraceEventsToString("proc", 42);
  EXPECT_EQ(text,
            R"({"traceEvents":[{"name":"process_name","ph":"M","pid":42,"tid":0,"args":{"name":)"
            R"("proc"}},{"name":"thread_name","ph":"M","pid":42,"tid":1,"args":{"name":"H y"}},)"
            R"({"name":"thread_name","ph":"M","pid":42,"tid":2,"args":{"name":"N x"}},{"name":)"
            R"("thread_name","ph":"M","pid":42,"tid":3,"args":{"name":"N x"}},{"name":"schedule",)"
            R"("cat":"task","ph":"i","pid":42,"tid":1,"ts":1.5,"s":"t"},{"name":"N x","cat":"run",)"
            R"("ph":"X","pid":42,"tid":2,"ts":1.5,"dur":1.5,"args":{"startNotRecorded":true}},)"
            R"({"name":"N x","cat":"run","ph":"X","pid":42,"tid":2,"ts":3.2,"dur":0.2},{"name":)"
            R"("schedulerIdle","cat":"scheduler","ph":"i","pid":42,"tid":3,"ts":4.25,"s":"t"},)"
            R"({"name":"H y","cat":"run","ph":"X","pid":42,"tid":1,"ts":3.5,"dur":0.75,"args":)"
            R"({"endNotRecorded":true}}],"displayTimeUnit":"ns","otherData":)"
            R"({"historyEntryCount":6,"eventsRecorded":7}})");
  EXPECT_EQ(renderedTo([&](int fd) { history.renderTraceEvents(fd, "proc", 42); }), text);
}

}  // namespace
}  // namespace Tamlo::Test
