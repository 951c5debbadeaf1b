#include <Tamlo/TaskSchedulerStatsSocket.h>

#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <utility>
#include <vector>

#include <Tamlo/Allocator.h>
#include <Tamlo/Errno.h>
#include <Tamlo/FdTextWriter.h>
#include <Tamlo/FileDescriptorTask.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Socket.h>
#include <Tamlo/TaskSchedulerRenderJson.h>
#include <Tamlo/TaskSchedulerSnapshot.h>
#include <Tamlo/TimerTask.h>

namespace Tamlo {

namespace {

Platform::DebugHandler const* const traceHandle = Impl::taskSchedulerDebugHandle();

std::string withoutAt(std::string const& name) {
  return !name.empty() && name.front() == '@' ? name.substr(1) : name;
}

// The request as it may be echoed in one line of an error.
std::string printable(std::string text) {
  for (char& c : text)
    if (!std::isprint(static_cast<unsigned char>(c)))
      c = '?';
  return text;
}

}  // namespace

// Watches the listening socket; each readable run accepts what is waiting.
class TaskSchedulerStatsSocket::Listener : public FileDescriptorTask {
 public:
  Listener(std::shared_ptr<TaskScheduler> scheduler, TaskSchedulerStatsSocket* server)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::low, "TaskSchedulerStatsSocket"),
        server_(server) {}
  void taskExecuteReadable() override { server_->acceptPending(); }
  void taskExecuteWritable() override {}

 private:
  TaskSchedulerStatsSocket* server_;
};

// One client: its request is read by `reader_`, its answer written by a
// writer made for it, and `timer_` both watches for a connection that makes
// no progress and, scheduled at once, ends the connection from a task of its
// own (so that no fd task is destroyed while it runs).
class TaskSchedulerStatsSocket::Connection {
 public:
  Connection(TaskSchedulerStatsSocket& server, int fd);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

 private:
  template <typename Owner, void (Owner::*handler)()>
  class Reader : public FileDescriptorTask {
   public:
    Reader(std::shared_ptr<TaskScheduler> scheduler, Owner* owner)
        : FileDescriptorTask(std::move(scheduler), TaskPriority::low,
                             "TaskSchedulerStatsSocket:client"),
          owner_(owner) {}
    void taskExecuteReadable() override { (owner_->*handler)(); }
    void taskExecuteWritable() override {}

   private:
    Owner* owner_;
  };
  class Timer : public TimerTask {
   public:
    Timer(std::shared_ptr<TaskScheduler> scheduler, Connection* owner)
        : TimerTask(std::move(scheduler), TaskPriority::low, "TaskSchedulerStatsSocket:timer"),
          owner_(owner) {}
    void taskExecute() override {
      if (owner_ != nullptr)
        owner_->timerRun();
    }
    void ownerIsGone() { owner_ = nullptr; }

   private:
    Connection* owner_;
  };

  void readRequest();
  void answer(std::string const& request);
  void answerText(std::string const& text);
  void end();
  void timerRun();
  uint64_t progress() const;

  TaskSchedulerStatsSocket& server_;
  // First, so that it is closed after every task that watches it.
  Impl::UniqueFd fd_;
  std::string request_;
  uint64_t bytesRead_ = 0;
  uint64_t progressAtCheck_ = 0;
  bool answering_ = false;
  bool ended_ = false;
  std::shared_ptr<Reader<Connection, &Connection::readRequest>> reader_;
  std::shared_ptr<Impl::FdTextWriter> writer_;
  std::unique_ptr<Impl::JsonRenderJob> json_;
  std::shared_ptr<Timer> timer_;
};

TaskSchedulerStatsSocket::Connection::Connection(TaskSchedulerStatsSocket& server, int fd)
    : server_(server), fd_(fd) {
  auto const scheduler = std::static_pointer_cast<TaskScheduler>(server_.root_);
  reader_ = makeShared<Reader<Connection, &Connection::readRequest>>(scheduler, this);
  reader_->taskWatchFdIs(fd);
  timer_ = makeShared<Timer>(scheduler, this);
  timer_->scheduleTaskDelay(std::chrono::nanoseconds(idleTimeout));
}

TaskSchedulerStatsSocket::Connection::~Connection() {
  timer_->ownerIsGone();
}

uint64_t TaskSchedulerStatsSocket::Connection::progress() const {
  uint64_t written = 0;
  if (writer_ != nullptr)
    written = writer_->writtenBytes();
  if (json_ != nullptr)
    written = json_->writer().writtenBytes();
  return bytesRead_ + written;
}

void TaskSchedulerStatsSocket::Connection::readRequest() {
  if (answering_)
    return;
  char buffer[requestMax + 1];
  for (;;) {
    ssize_t const count = ::recv(fd_.get(), buffer, sizeof buffer, 0);
    if (count < 0) {
      if (errno == EINTR)
        continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        TAMLO_TRACE(traceHandle, 2, "Stats socket {}: reading fd {}: {}", server_.name_, fd_.get(),
                    Tamlo::strerror(errno));
        end();
      }
      return;
    }
    if (count == 0) {
      // A request without its end of line still counts when the client has
      // shut down its side after it.
      if (request_.empty())
        end();
      else
        answer(request_);
      return;
    }
    bytesRead_ += size_t(count);
    request_.append(buffer, size_t(count));
    size_t const end = request_.find('\n');
    if (end != std::string::npos && end <= requestMax) {
      request_.resize(end);
      answer(request_);
      return;
    }
    if (request_.size() > requestMax) {
      answerText(fmt::format("error: request longer than {} bytes\n", requestMax));
      return;
    }
  }
}

void TaskSchedulerStatsSocket::Connection::answer(std::string const& line) {
  std::string request = line;
  if (!request.empty() && request.back() == '\r')
    request.pop_back();
  TAMLO_TRACE(traceHandle, 3, "Stats socket {}: fd {} asks for \"{}\"", server_.name_, fd_.get(),
              printable(request));
  TaskSchedulerRoot const& root = *server_.root_;
  if (request == "text") {
    answerText(root.statsRenderTextForDebugToString(true, false, true, false));
  } else if (request == "trace") {
    answerText(root.historyRenderTraceEventsToString());
  } else if (request == "json") {
    answering_ = true;
    reader_->taskWatchFdDel();
    std::vector<TaskSchedulerSnapshot> snapshots;
    snapshots.push_back(
        root.snapshot(std::string(), true, true, true, TaskSchedulerSnapshot::noDisplayOrder));
    json_ = std::make_unique<Impl::JsonRenderJob>(server_.root_, fd_.get(), std::move(snapshots),
                                                  true, [this](Impl::JsonRenderJob&) { end(); });
  } else {
    answerText(fmt::format("error: unknown request \"{}\"; send text, json or trace\n",
                           printable(request)));
  }
}

void TaskSchedulerStatsSocket::Connection::answerText(std::string const& text) {
  answering_ = true;
  reader_->taskWatchFdDel();
  writer_ = makeShared<Impl::FdTextWriter>(server_.root_, TaskPriority::low,
                                           "TaskSchedulerStatsSocket:answer", fd_.get(), [this] {
                                             if (writer_->ended())
                                               end();
                                           });
  writer_->append(text);
  writer_->finish();
}

void TaskSchedulerStatsSocket::Connection::end() {
  if (ended_)
    return;
  ended_ = true;
  timer_->scheduleTask();
}

void TaskSchedulerStatsSocket::Connection::timerRun() {
  if (!ended_) {
    uint64_t const now = progress();
    if (now != progressAtCheck_) {
      progressAtCheck_ = now;
      timer_->scheduleTaskDelay(std::chrono::nanoseconds(idleTimeout));
      return;
    }
    TAMLO_TRACE(traceHandle, 2, "Stats socket {}: fd {} made no progress for {} s, closing",
                server_.name_, fd_.get(), idleTimeout.count());
  }
  // Destroys this connection: nothing of it is touched afterwards.
  server_.connectionDone(this);
}

TaskSchedulerStatsSocket::TaskSchedulerStatsSocket(std::string const& name,
                                                   std::shared_ptr<TaskSchedulerRoot> root)
    : name_(withoutAt(name)), root_(std::move(root)), listenFd_(listenAbstract(name_)) {
  listener_ = makeShared<Listener>(std::static_pointer_cast<TaskScheduler>(root_), this);
  listener_->taskWatchFdIs(listenFd_.get());
  TAMLO_TRACE(traceHandle, 1, "Stats socket listening on @{}", name_);
}

TaskSchedulerStatsSocket::~TaskSchedulerStatsSocket() {
  connections_.clear();
  listener_->taskWatchFdDel();
  listener_.reset();
}

void TaskSchedulerStatsSocket::acceptPending() {
  for (;;) {
    int const fd = ::accept4(listenFd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED)
        continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK)
        TAMLO_TRACE(traceHandle, 1, "Stats socket {}: accept: {}", name_, Tamlo::strerror(errno));
      return;
    }
    ++acceptedCount_;
    auto connection = std::make_unique<Connection>(*this, fd);
    Connection* const key = connection.get();
    connections_.emplace(key, std::move(connection));
    if (listener_->taskShouldYield()) {
      // The rest waits for the next turn: readiness stays reported.
      return;
    }
  }
}

void TaskSchedulerStatsSocket::connectionDone(Connection* connection) {
  connections_.erase(connection);
}

std::unique_ptr<TaskSchedulerStatsSocket> TaskSchedulerRoot::statsSocketListen(
    std::string const& name) {
  sanityCheckCurrentRunningThread();
  return std::make_unique<TaskSchedulerStatsSocket>(
      name, std::static_pointer_cast<TaskSchedulerRoot>(
                std::static_pointer_cast<TaskScheduler>(shared_from_this())));
}

}  // namespace Tamlo
