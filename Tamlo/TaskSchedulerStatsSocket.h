// A live view of a running server's scheduler: while a
// TaskSchedulerStatsSocket lives, it listens on an abstract Unix socket and
// answers each client that connects with one report of the thread's
// scheduler tree, chosen by the client's first line:
//
//   "text"   the text report (all tasks, completed tasks included)
//   "json"   the JSON snapshot envelope (TaskScheduler::snapshotRenderJsonAsync)
//   "trace"  the history as a Trace Event Format trace
//
// and then closes the connection. Anything else gets one line
// "error: unknown request "<line>"; send text, json or trace" (a line longer
// than requestMax bytes gets "error: request longer than 64 bytes"). From a
// shell: echo text | socat - ABSTRACT-CONNECT:myserver-stats
//
// Everything is done by fd tasks and a timer task of the root given at
// construction (the calling thread's by default), at low priority, with
// non-blocking, close-on-exec sockets: a slow, silent or vanishing client
// costs its own connection and nothing else. A connection that makes no
// progress (bytes read or written) for idleTimeout is closed: a client silent
// from the start after idleTimeout, one that stalls later within two (the
// timer wheel may round each check up by a tick).
// A client that goes away mid-answer ends its connection quietly (no SIGPIPE;
// the process's signal dispositions are left alone).
//
// Opt-in: nothing listens unless client code makes one, usually through
// TaskSchedulerRoot::statsSocketListen(). Destroying it stops listening and
// closes every open connection. Single-thread: build, use and destroy it on
// the root's thread, and not from inside one of its own tasks.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <Tamlo/TaskScheduler.h>
#include <Tamlo/UniqueFd.h>

namespace Tamlo {

class TaskSchedulerStatsSocket {
 public:
  static constexpr std::chrono::seconds idleTimeout{5};
  static constexpr size_t requestMax = 64;

  // `name` is the abstract name, without or with a leading "@" (the form ss
  // and lsof print). Errors of listenAbstract (Socket.h) propagate.
  explicit TaskSchedulerStatsSocket(std::string const& name,
                                    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTamlo());
  ~TaskSchedulerStatsSocket();
  TaskSchedulerStatsSocket(TaskSchedulerStatsSocket const&) = delete;
  TaskSchedulerStatsSocket& operator=(TaskSchedulerStatsSocket const&) = delete;

  // Without the "@".
  std::string const& name() const { return name_; }
  size_t connectionCount() const { return connections_.size(); }
  uint64_t acceptedCount() const { return acceptedCount_; }

 private:
  class Listener;
  class Connection;

  void acceptPending();
  void connectionDone(Connection* connection);

  std::string name_;
  std::shared_ptr<TaskSchedulerRoot> root_;
  // Declared before the tasks that watch it, so it is closed after them.
  Impl::UniqueFd listenFd_;
  std::shared_ptr<Listener> listener_;
  std::map<Connection*, std::unique_ptr<Connection>> connections_;
  uint64_t acceptedCount_ = 0;
};

}  // namespace Tamlo
