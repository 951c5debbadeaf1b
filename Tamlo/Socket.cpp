#include <Tamlo/Socket.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include <Tamlo/Assert.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/Util.h>

namespace Tamlo {

namespace {

// Opened at load, before the process can have moved a thread: the namespace
// that DEFAULT_NS names.
int const defaultNamespaceFd = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
int const defaultNamespaceError = defaultNamespaceFd < 0 ? errno : 0;

std::string namespacePath(std::string const& name) {
  if (name.find('/') != std::string::npos || name == "." || name == "..")
    OutOfRangeException::throwException(fmt::format("invalid network namespace name:{}", name));
  return "/run/netns/" + name;
}

Impl::UniqueFd openNamespace(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    Util::throwSystemError("open network namespace", path, errno);
  return Impl::UniqueFd(fd);
}

sockaddr_un abstractAddress(std::string const& name, socklen_t& length) {
  if (name.empty() || name.size() > abstractSocketNameMax)
    OutOfRangeException::throwException(
        fmt::format("abstract socket name of {} bytes, not 1 to {}: @{}", name.size(),
                    abstractSocketNameMax, name));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  // sun_path[0] stays NUL: that makes the name abstract.
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  return address;
}

Impl::UniqueFd unixSocket(int type, std::string const& name) {
  int const fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (fd < 0)
    Util::throwSystemError("socket for", "@" + name, errno);
  return Impl::UniqueFd(fd);
}

}  // namespace

void setnsByName(std::string const& name) {
  if (name == DEFAULT_NS) {
    if (defaultNamespaceFd < 0)
      Util::throwSystemError("open", "the default network namespace", defaultNamespaceError);
    if (::setns(defaultNamespaceFd, CLONE_NEWNET) != 0)
      Util::throwSystemError("setns", "the default network namespace", errno);
    TAMLO_TRACE(Impl::utilTrace(), 5, "thread in the default network namespace");
    return;
  }
  std::string const path = namespacePath(name);
  Impl::UniqueFd const target = openNamespace(path);
  if (::setns(target.get(), CLONE_NEWNET) != 0)
    Util::throwSystemError("setns", path, errno);
  TAMLO_TRACE(Impl::utilTrace(), 5, "thread in network namespace:{}", path);
}

NetNsGuard::NetNsGuard(std::string const& name)
    : name_(name), previous_(openNamespace("/proc/thread-self/ns/net")) {
  setnsByName(name);
}

NetNsGuard::~NetNsGuard() {
  TAMLO_ASSERT(::setns(previous_.get(), CLONE_NEWNET) == 0,
               "cannot return from network namespace:{}: {}", name_, Tamlo::strerror(errno));
}

int socketInNetNs(std::string const& name, int domain, int type, int protocol) {
  return inNetNs(name, [&] {
    int const fd = ::socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd < 0)
      Util::throwSystemError("socket in network namespace", name, errno);
    return fd;
  });
}

int listenAbstract(std::string const& name, int type, int backlog) {
  socklen_t length;
  sockaddr_un const address = abstractAddress(name, length);
  Impl::UniqueFd fd = unixSocket(type, name);
  if (::bind(fd.get(), reinterpret_cast<sockaddr const*>(&address), length) != 0)
    Util::throwSystemError("bind", "@" + name, errno);
  if (type != SOCK_DGRAM && ::listen(fd.get(), backlog) != 0)
    Util::throwSystemError("listen", "@" + name, errno);
  return fd.release();
}

int connectAbstract(std::string const& name, int type) {
  socklen_t length;
  sockaddr_un const address = abstractAddress(name, length);
  Impl::UniqueFd fd = unixSocket(type, name);
  int result;
  // A Unix connect interrupted while it waits for room in the backlog has
  // not connected and may simply be tried again.
  do {
    result = ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&address), length);
  } while (result != 0 && errno == EINTR);
  if (result != 0)
    Util::throwSystemError("connect", "@" + name, errno);
  return fd.release();
}

}  // namespace Tamlo
