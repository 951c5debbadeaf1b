// The JSON snapshot of a large tree (10,000 tasks in 10 task groups):
// rendering it into a string, against RapidJSON's writer writing a document
// of the same shape from plain structs; and writing it to a pipe through
// snapshotRenderJsonAsync while another thread drains the pipe, where what
// counts is the longest single task run on the loop meanwhile.
#include "RatioReporter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <Tamlo/Allocator.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Task.h>
#include <Tamlo/TaskGroup.h>
#include <Tamlo/TaskSchedulerSnapshot.h>

namespace {

constexpr int groupCount = 10;
constexpr int tasksPerGroup = 1000;

class IdleTask : public Tamlo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

struct Tree {
  std::shared_ptr<Tamlo::TaskSchedulerRoot> root =
      Tamlo::TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  std::vector<std::shared_ptr<Tamlo::TaskGroup>> groups;
  std::vector<std::shared_ptr<IdleTask>> tasks;
  Tree() {
    for (int g = 0; g < groupCount; ++g) {
      groups.push_back(Tamlo::TaskGroup::TaskGroupIs("group" + std::to_string(g),
                                                     Tamlo::TaskPriority::normal, false, root));
      for (int t = 0; t < tasksPerGroup; ++t)
        tasks.push_back(Tamlo::makeShared<IdleTask>(groups.back(), Tamlo::TaskPriority::normal,
                                                    "task" + std::to_string(t)));
    }
  }
};

Tree& tree() {
  static Tree theTree;
  return theTree;
}

void snapshotJsonToString(benchmark::State& state) {
  Tree& t = tree();
  for (auto _ : state)
    benchmark::DoNotOptimize(t.root->statsRenderJsonToString(true, false, false));
}
BENCHMARK(snapshotJsonToString)->Unit(benchmark::kMillisecond);

// The copy alone, without rendering: the part of the figure above that the
// plain-struct baseline does not pay.
void snapshotCopyOnly(benchmark::State& state) {
  Tree& t = tree();
  for (auto _ : state)
    benchmark::DoNotOptimize(
        t.root->snapshot("", true, false, false, Tamlo::TaskSchedulerSnapshot::noDisplayOrder));
}
BENCHMARK(snapshotCopyOnly)->Unit(benchmark::kMillisecond);

// The same members, from plain data: the floor any JSON rendering of this
// tree has to pay.
struct PlainTask {
  std::string name, address;
  bool flags[5];
  uint64_t runCount;
  double totalRunTime, lastLatency, maxLatency;
  uint32_t qv200, qv500;
  uint64_t maxMs;
};
struct PlainScheduler {
  std::string name;
  std::vector<PlainTask> tasks;
};

void writePlainScheduler(rapidjson::Writer<rapidjson::StringBuffer>& w, PlainScheduler const& s,
                         std::vector<PlainScheduler> const* subs) {
  w.StartObject();
  w.Key("schedulerName");
  w.String(s.name.c_str());
  w.Key("isRootScheduler");
  w.Bool(subs != nullptr);
  w.Key("priorityStats");
  w.StartObject();
  for (char const* p : {"A", "H", "N", "L", "S"}) {
    w.Key(p);
    w.StartObject();
    for (char const* k : {"runnableTasks", "idleTasks", "completedTasks", "totalRunCount"}) {
      w.Key(k);
      w.Uint64(7);
    }
    w.EndObject();
  }
  w.EndObject();
  w.Key("maxSchedulerSlip");
  w.Double(0.000123);
  w.Key("tasks");
  w.StartObject();
  w.Key("tasks");
  w.StartArray();
  static char const* const flagKeys[] = {"onRunQueue", "currentlyRunning", "suspended", "hasTimer",
                                         "timerRunning"};
  for (PlainTask const& task : s.tasks) {
    w.StartObject();
    w.Key("name");
    w.String(task.name.c_str(), rapidjson::SizeType(task.name.size()));
    w.Key("address");
    w.String(task.address.c_str(), rapidjson::SizeType(task.address.size()));
    w.Key("priority");
    w.String("N");
    for (int f = 0; f < 5; ++f) {
      w.Key(flagKeys[f]);
      w.Bool(task.flags[f]);
    }
    w.Key("runCount");
    w.Uint64(task.runCount);
    w.Key("totalRunTime");
    w.Double(task.totalRunTime);
    w.Key("lastSchedulingLatency");
    w.Double(task.lastLatency);
    w.Key("schedulingLatencyHighWaterMark");
    w.Double(task.maxLatency);
    w.Key("qv200");
    w.Uint(task.qv200);
    w.Key("qv500");
    w.Uint(task.qv500);
    w.Key("maxMs");
    w.Uint64(task.maxMs);
    w.EndObject();
  }
  w.EndArray();
  w.Key("skipped");
  w.Uint(0);
  w.EndObject();
  w.Key("subSchedulers");
  w.StartObject();
  if (subs != nullptr) {
    for (PlainScheduler const& sub : *subs) {
      w.Key(sub.name.c_str());
      writePlainScheduler(w, sub, nullptr);
    }
  }
  w.EndObject();
  w.EndObject();
}

void rapidJsonPlainStructs(benchmark::State& state) {
  PlainScheduler root{"bench", {}};
  std::vector<PlainScheduler> groups;
  for (int g = 0; g < groupCount; ++g) {
    groups.push_back({"group" + std::to_string(g) + "@0x7f0012345678", {}});
    root.tasks.push_back({"group" + std::to_string(g), "@0x7f0012345678", {}, 0, 0, 0, 0, 0, 0, 0});
    for (int t = 0; t < tasksPerGroup; ++t)
      groups.back().tasks.push_back({"task" + std::to_string(t),
                                     "@0x7f00123456" + std::to_string(t),
                                     {},
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0});
  }
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writePlainScheduler(writer, root, &groups);
    benchmark::DoNotOptimize(std::string(buffer.GetString(), buffer.GetSize()));
  }
}
BENCHMARK(rapidJsonPlainStructs)->Unit(benchmark::kMillisecond);

double longestRunMs = 0;
std::string longestRunTask;

void snapshotJsonAsyncToPipe(benchmark::State& state) {
  Tree& t = tree();
  for (auto _ : state) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
      state.SkipWithError("pipe");
    std::thread drain([fd = fds[0]] {
      char buffer[65536];
      while (::read(fd, buffer, sizeof buffer) > 0) {
      }
    });
    bool done = false;
    t.root->snapshotRenderJsonAsync(fds[1], true, false, false, [&](bool) {
      // The writing tasks still exist here: their high-water marks count.
      std::vector<Tamlo::TaskStat> stats;
      t.root->getTaskStats(&stats, true);
      for (Tamlo::TaskStat const& stat : stats)
        if (double(stat.taskRunTimeHighWaterMark().count()) / 1e6 > longestRunMs) {
          longestRunMs = double(stat.taskRunTimeHighWaterMark().count()) / 1e6;
          longestRunTask = stat.taskName();
        }
      done = true;
    });
    while (!done)
      Tamlo::Platform::doEventLoopInWaitfor(0.01);
    ::close(fds[1]);
    drain.join();
    ::close(fds[0]);
  }
}
BENCHMARK(snapshotJsonAsyncToPipe)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  Tamlo::Bench::RatioReporter reporter;
  if (!reporter.run(argc, argv, 5))
    return 1;
  std::printf("\n");
  reporter.printRatio("10,000-task snapshot:", "snapshotJsonToString", "rapidJsonPlainStructs",
                      1.3);
  reporter.printRatio("of which the copy:", "snapshotCopyOnly", "rapidJsonPlainStructs", 0);
  std::printf("%-24s longest task run while writing to a pipe: %.2f ms, %s (goal <= %.0f ms: %s)\n",
              "async snapshot:", longestRunMs, longestRunTask.c_str(), 20.0,
              longestRunMs <= 20.0 ? "met" : "MISSED");
  return 0;
}
