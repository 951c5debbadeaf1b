// The reports of a scheduler tree: the exact text report, the JSON snapshot's
// shape, and the history as a Trace Event Format trace.
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <rapidjson/document.h>
#include <boost/format.hpp>

#include "SchedulerTestSupport.h"
#include "Tamlo/TaskSchedulerSnapshot.h"
#include "TestSupport.h"

namespace Tamlo::Test {
namespace {

using EventType = TaskSchedulerHistory::EventType;
using Json = rapidjson::Value;

template <typename... Args>
std::string f(char const* format, Args const&... args) {
  return (boost::format(format) % ... % args).str();
}

std::vector<std::string> keysOf(Json const& object) {
  std::vector<std::string> keys;
  for (auto const& member : object.GetObject())
    keys.emplace_back(member.name.GetString());
  return keys;
}

rapidjson::Document parse(std::string const& text) {
  rapidjson::Document document;
  document.Parse(text.c_str());
  EXPECT_FALSE(document.HasParseError()) << text;
  return document;
}

std::string renderedTo(auto render) {
  int const fd = ::memfd_create("report", MFD_CLOEXEC);
  render(fd);
  std::string text(size_t(::lseek(fd, 0, SEEK_CUR)), '\0');
  EXPECT_EQ(::pread(fd, text.data(), text.size(), 0), ssize_t(text.size()));
  ::close(fd);
  return text;
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
  TaskStat gone(cache.intern("gone"), TaskKey(uint64_t{5}), TaskPriority::low, 3,
                TaskTimeDuration(1'000'000'000), 0, 0, TaskMaybeU32(), 0, TaskMaybeU32(), 0, 0, {},
                {}, {}, TaskStat::TaskStatus());
  gone.taskCompletedCountIs(2);
  std::vector<TaskStat> const completed = {gone};
  TaskSchedulerQueueStats queues;
  for (uint8_t p = 0; p < 5; ++p)
    queues[TaskPriority(p)] = {TaskPriority(p), p, uint64_t{p} * 2, 1, uint64_t{p} << 40};

  struct Case {
    bool withCompleted;
    unsigned skipped;
    char const* skippedLine;
  } const cases[] = {{false, 0, ""},
                     {true, 1, "Skipped 1 task with no runs\n"},
                     {true, 2, "Skipped 2 tasks with no runs\n"}};
  for (Case const& c : cases) {
    std::string expected = f("%-8s %13s %13s %9s %15s\n", "Priority", "RunnableCount", "IdleCount",
                             "DoneCount", "TotalRunCount");
    for (auto const& [priority, s] : queues)
      expected += f("%-8s %13u %13u %9u %15lu\n", priority.toStrep(), s.runnableTasks, s.idleTasks,
                    s.completedTasks, s.totalRunCount);
    expected += "Maximum scheduler slip 0.001500 seconds\n\n";
    std::vector<std::pair<char const*, char const*>> legend = {
        {"SP", "= Task status and priority % two characters:"},
        {"   first", "  T/t for active/idle timers, * for running task or blank"},
        {"   second", "  priority and runnable status, upper case for runnable"},
        {"RunCount", "= Number of times task has run"},
        {"TotalSec", "= Total run time in seconds"},
        {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
        {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
        {"200% 500%", "= Number of times task used this percentage of quantum"},
        {"MaxMs", "= Maximum single run time in milliseconds"},
        {"TotalWorkCount", "= Counter of total work units processed"},
        {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
        {"MaxWorkCount", "=    high watermark of work units processed in one run"},
        {"LastWorkPending", "= Work units pending processing"},
        {"MaxWorkPending", "=    high watermark of work units pending processing"}};
    if (c.withCompleted)
      legend.insert(legend.begin() + 9,
                    {"Completed", "= Number of times a task with this name has completed"});
    for (auto const& [label, text] : legend)
      expected += f("%-17s %s\n", label, text);
    // Keys follow the names; the longest ("reader@11") sets the padding.
    expected += f("%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s\n", "TaskName", " ", "SP",
                  "RunCount", "TotalSec", "Last/Max-Delay", "200%", "500%", "MaxMs",
                  "Total/DecayA/Max-WorkCount", "Last/Max-WorkPending");
    char const* row = "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s\n";
    expected += f(row, "reader@11", "", " N", 7, 2.5, 0.0015, 0.004, 2, 1, 12, "40", "   5.5", "9",
                  "3", "4");
    expected +=
        f(row, "w@2", "      ", "Sh", 1, 0.25, 0.0, 0.0, 0, 0, 0, "0", "   0.0", "-", "0", "-");
    expected += c.skippedLine;
    if (c.withCompleted) {
      expected += f("%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s\n", "TaskName (completed)",
                    "", "SP", "RunCount", "TotalSec", "Last/Max-Delay", "200%", "500%", "MaxMs",
                    "Completed", "Total/DecayA/Max-WorkCount", "Last/Max-WorkPending");
      expected += f("%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s\n",
                    "gone", "", " l", 3, 1.0, 0.0, 0.0, 0, 0, 0, 2, "0", "   0.0", "-", "0", "-");
      expected += c.skippedLine;
    }
    std::ostringstream os;
    TaskSchedulerRoot::statsRenderTextImpl(os, queues, TaskTimeDuration(1'500'000), &tasks,
                                           c.skipped, c.withCompleted ? &completed : nullptr,
                                           c.skipped, true);
    EXPECT_EQ(os.str(), expected) << c.skipped;
  }
}

// A scheduler standing in for a task group: registered with the root, run by
// a parent task in the root that reports it as its group's scheduler.
class SubScheduler : public TaskScheduler {
 public:
  explicit SubScheduler(TaskSchedulerRoot* root) : TaskScheduler("group", root, root->history()) {
    root->registerScheduler(this);
  }
  ~SubScheduler() override {
    destroyResetStatsTask();
    root()->unregisterScheduler(this);
  }
  void requestSchedulerRun() override {}
  void handleTaskForceYieldInTest() override {}
};

class ParentTask : public FunctionTask {
 public:
  ParentTask(std::shared_ptr<TaskScheduler> parent, TaskScheduler* group)
      : FunctionTask(std::move(parent), TaskPriority::normal, "TaskGroup;group"), group_(group) {}
  TaskScheduler* taskGroupScheduler() const override { return group_; }
  TaskStat::TaskStatus taskStatus() const override {
    TaskStat::TaskStatus status = FunctionTask::taskStatus();
    status.taskIsTaskGroupIs(true);
    return status;
  }

 private:
  TaskScheduler* group_;
};

class StatsTree : public testing::Test {
 protected:
  StatsTree() {
    ran_->taskWorkCountInc(3);
    for (TaskImpl* task :
         std::initializer_list<TaskImpl*>{ran_.get(), inGroup_.get(), parent_.get(), done_.get()})
      task->taskRunFromTest();
    done_.reset();
  }

  std::shared_ptr<TaskSchedulerRoot> root_ = TaskSchedulerRoot::TaskSchedulerRootIs("stats");
  std::shared_ptr<SubScheduler> group_ = std::make_shared<SubScheduler>(root_.get());
  std::shared_ptr<FunctionTask> ran_ = makeTask(root_, TaskPriority::high, "ran");
  std::shared_ptr<FunctionTask> idle_ = makeTask(root_, TaskPriority::low, "idle");
  std::shared_ptr<FunctionTask> done_ = makeTask(root_, TaskPriority::low, "done");
  std::shared_ptr<FunctionTask> inGroup_ = makeTask(group_, TaskPriority::normal, "inGroup");
  std::shared_ptr<ParentTask> parent_ = makeShared<ParentTask>(root_, group_.get());
};

TEST_F(StatsTree, TextReportCoversEveryRegisteredSchedulerToEachDestination) {
  std::string const text = root_->statsRenderTextForDebugToString(false, false, true, false);
  EXPECT_EQ(
      renderedTo([&](int fd) { root_->statsRenderTextForDebug(fd, false, false, true, false); }),
      text);
  std::set<std::string> names;
  for (std::string const& line : linesOf(text))
    names.insert(line.substr(0, line.find(' ')));
  for (char const* name : {"ran", "inGroup", "TaskGroup;group", "done", "Skipped"})
    EXPECT_EQ(names.count(name), 1u) << name << "\n" << text;
  EXPECT_EQ(names.count("idle"), 0u);
  EXPECT_NE(text.find("Skipped 1 task with no runs\n"), std::string::npos);
  // includeAll lists the idle task and skips nothing.
  std::string const all = root_->statsRenderTextForDebugToString(true, false, false, false);
  EXPECT_NE(all.find("\nidle "), std::string::npos);
  EXPECT_EQ(all.find("Skipped"), std::string::npos);
}

TEST_F(StatsTree, JsonNestsGroupsAndWritesEachMemberUnderItsCondition) {
  std::string const text = root_->snapshot("named", false, true, true, 7).renderJsonToString();
  rapidjson::Document const doc = parse(text);
  EXPECT_EQ(keysOf(doc), (std::vector<std::string>{
                             "schedulerName", "displayOrder", "isRootScheduler", "priorityStats",
                             "maxSchedulerSlip", "tasks", "completedTasks", "subSchedulers",
                             "historyEntryCount", "history"}));
  EXPECT_STREQ(doc["schedulerName"].GetString(), "named");
  EXPECT_EQ(doc["displayOrder"].GetUint(), 7u);
  EXPECT_TRUE(doc["isRootScheduler"].GetBool());
  EXPECT_TRUE(doc["maxSchedulerSlip"].IsDouble());
  EXPECT_EQ(keysOf(doc["priorityStats"]),
            (std::vector<std::string>{"absolute", "high", "normal", "low", "scavenge"}));
  EXPECT_EQ(
      keysOf(doc["priorityStats"]["low"]),
      (std::vector<std::string>{"runnableTasks", "idleTasks", "completedTasks", "totalRunCount"}));
  EXPECT_EQ(doc["priorityStats"]["low"]["completedTasks"].GetUint64(), 1u);

  std::vector<std::string> const common = {"onRunQueue",
                                           "currentlyRunning",
                                           "suspended",
                                           "hasTimer",
                                           "timerRunning",
                                           "runCount",
                                           "totalRunTime",
                                           "lastSchedulingLatency",
                                           "schedulingLatencyHighWaterMark",
                                           "qv200",
                                           "qv500",
                                           "maxMs"};
  std::map<std::string, Json const*> tasks;
  for (Json const& task : doc["tasks"]["tasks"].GetArray())
    tasks[task["name"].GetString()] = &task;
  EXPECT_EQ(doc["tasks"]["skipped"].GetUint(), 1u);  // idle
  ASSERT_EQ(tasks.size(), 2u);
  std::vector<std::string> plain = {"name", "address", "priority"};
  plain.insert(plain.end(), common.begin(), common.end());
  EXPECT_EQ(keysOf(*tasks["TaskGroup;group"]).size(), plain.size() + 1);
  EXPECT_EQ(keysOf(*tasks["TaskGroup;group"])[3], "subScheduler");
  std::vector<std::string> withWork = plain;
  withWork.insert(withWork.end(), {"workCount", "workPending"});
  EXPECT_EQ(keysOf(*tasks["ran"]), withWork);
  EXPECT_EQ(keysOf((*tasks["ran"])["workCount"]),
            (std::vector<std::string>{"total", "decayingAvg", "highwater"}));
  EXPECT_EQ((*tasks["ran"])["workPending"]["highwater"].GetUint(), 0u);
  EXPECT_TRUE((*tasks["ran"])["totalRunTime"].IsDouble());

  Json const& gone = doc["completedTasks"]["tasks"][0];
  std::vector<std::string> completedKeys = {"name", "priority"};
  completedKeys.insert(completedKeys.end(), common.begin(), common.end());
  completedKeys.push_back("completedCount");
  EXPECT_EQ(keysOf(gone), completedKeys);
  EXPECT_EQ(gone["completedCount"].GetUint64(), 1u);

  std::string const key = (*tasks["TaskGroup;group"])["subScheduler"].GetString();
  EXPECT_EQ(key, TaskSchedulerSnapshot::subSchedulerKey(*group_));
  ASSERT_TRUE(doc["subSchedulers"].HasMember(key.c_str()));
  Json const& sub = doc["subSchedulers"][key.c_str()];
  EXPECT_EQ(keysOf(sub),
            (std::vector<std::string>{"schedulerName", "isRootScheduler", "priorityStats",
                                      "maxSchedulerSlip", "tasks", "subSchedulers"}));
  EXPECT_FALSE(sub["isRootScheduler"].GetBool());
  EXPECT_STREQ(sub["tasks"]["tasks"][0]["name"].GetString(), "inGroup");

  // History: oldest first, numbered among every event the root recorded.
  Json const& history = doc["history"];
  ASSERT_GT(history.Size(), 0u);
  EXPECT_EQ(doc["historyEntryCount"].GetUint(), root_->historyEntryCount());
  EXPECT_EQ(history[history.Size() - 1]["eventId"].GetUint64(),
            root_->history()->eventsRecorded() - 1);
  for (rapidjson::SizeType i = 1; i < history.Size(); ++i)
    EXPECT_EQ(history[i]["eventId"].GetUint64(), history[i - 1]["eventId"].GetUint64() + 1);
  EXPECT_EQ(keysOf(history[0]),
            (std::vector<std::string>{"eventId", "nsSinceBoot", "eventType", "name"}));

  // Without completed tables or history those members are absent.
  std::ostringstream os;
  root_->statsRenderJson(os, false, false, false);
  EXPECT_EQ(keysOf(parse(os.str())),
            (std::vector<std::string>{"schedulerName", "isRootScheduler", "priorityStats",
                                      "maxSchedulerSlip", "tasks", "subSchedulers"}));
}

struct TraceSlice {
  std::string track;
  double ts;
  double dur;
  std::string note;
  bool operator==(TraceSlice const&) const = default;
};

TEST(TraceEvents, RunsBecomeSlicesOnTheirTracksAndLostEndsAreClipped) {
  struct Event {
    EventType type;
    char const* name;
    int64_t ns;
  };
  struct Case {
    unsigned capacity;
    std::vector<Event> events;
    std::vector<TraceSlice> slices;
    std::vector<std::string> tracks;
    std::vector<std::string> instants;
  } const cases[] = {
      {10,
       {{EventType::runStart, "N x", 1000},
        {EventType::schedule, "H y", 1500},
        {EventType::runEnd, "N x", 3000},
        {EventType::schedulerIdle, "N x", 4000}},
       {{"N x", 1.0, 2.0, ""}},
       {"N x", "H y", "N x"},
       {"H y:schedule", "N x:schedulerIdle"}},
      {2,  // the ring dropped the run's start
       {{EventType::runStart, "N x", 1000},
        {EventType::schedule, "H y", 2000},
        {EventType::runEnd, "N x", 3500}},
       {{"N x", 2.0, 1.5, "startNotRecorded"}},
       {"H y", "N x"},
       {"H y:schedule"}},
      {10,  // still running at the newest event
       {{EventType::runStart, "N x", 1000}, {EventType::schedule, "H y", 4000}},
       {{"N x", 1.0, 3.0, "endNotRecorded"}},
       {"N x", "H y"},
       {"H y:schedule"}},
  };
  for (Case const& c : cases) {
    TaskSchedulerHistory history(c.capacity);
    for (Event const& e : c.events) {
      ConstStringRef const name = history.stringCache().intern(e.name);
      TaskTimePoint const at{TaskTimeDuration(e.ns)};
      if (e.type > TaskSchedulerHistory::lastTaskEventType)
        history.insertSchedulerEvent(at, e.type, name);
      else
        history.insertTaskEvent(at, e.type, name);
    }
    std::string const text = history.renderTraceEventsToString("proc", 42);
    EXPECT_EQ(renderedTo([&](int fd) { history.renderTraceEvents(fd, "proc", 42); }), text);
    rapidjson::Document const doc = parse(text);
    std::map<unsigned, std::string> trackNames;
    std::vector<std::string> tracks;
    std::vector<TraceSlice> slices;
    std::vector<std::string> instants;
    for (Json const& e : doc["traceEvents"].GetArray()) {
      EXPECT_EQ(e["pid"].GetInt64(), 42);
      std::string const phase = e["ph"].GetString();
      if (phase == "M") {
        std::string const name = e["args"]["name"].GetString();
        if (std::string(e["name"].GetString()) == "thread_name") {
          trackNames[e["tid"].GetUint()] = name;
          tracks.push_back(name);
        } else {
          EXPECT_EQ(name, "proc");
        }
        continue;
      }
      ASSERT_EQ(trackNames.count(e["tid"].GetUint()), 1u) << text;
      std::string const track = trackNames[e["tid"].GetUint()];
      if (phase == "X") {
        EXPECT_GE(e["dur"].GetDouble(), 0) << text;
        EXPECT_EQ(e["name"].GetString(), track);
        std::string const note =
            e.HasMember("args") ? e["args"].MemberBegin()->name.GetString() : "";
        slices.push_back({track, e["ts"].GetDouble(), e["dur"].GetDouble(), note});
      } else {
        EXPECT_EQ(phase, "i");
        instants.push_back(track + ":" + e["name"].GetString());
      }
    }
    EXPECT_EQ(slices, c.slices) << text;
    EXPECT_EQ(tracks, c.tracks) << text;
    EXPECT_EQ(instants, c.instants) << text;
  }
}

TEST_F(StatsTree, RootTraceNamesTheRootAndReachesADescriptor) {
  std::string const text = root_->historyRenderTraceEventsToString();
  EXPECT_EQ(renderedTo([&](int fd) { EXPECT_TRUE(root_->historyRenderTraceEvents(fd)); }), text);
  rapidjson::Document const doc = parse(text);
  Json const& first = doc["traceEvents"][0];
  EXPECT_STREQ(first["args"]["name"].GetString(), "stats");
  EXPECT_EQ(first["pid"].GetInt64(), ::getpid());
}

}  // namespace
}  // namespace Tamlo::Test
