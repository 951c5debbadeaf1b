// Sockets in named network namespaces, and abstract Unix sockets.
//
// A network namespace is named as `ip netns` names them: a file under
// /run/netns (bind-mounted from /proc/<pid>/ns/net). Switching namespace
// needs CAP_SYS_ADMIN and changes only the calling thread; a socket keeps the
// namespace it was created in for its whole life, so the usual pattern is to
// switch, create the socket and switch back at once (inNetNs,
// socketInNetNs). Abstract Unix socket names belong to a network namespace:
// the same name in two namespaces is two sockets.
//
// Errors throw as the file helpers of Util.h do (NoPermissionException for
// EACCES and EPERM, RuntimeException otherwise), naming the namespace or
// socket and the system's error text; a name that cannot be valid throws
// OutOfRangeException. Every descriptor is close-on-exec; those returned
// belong to the caller.
//
// Threads: every function acts on the calling thread only, and any thread
// may call them.
#pragma once

#include <sys/socket.h>

#include <string>
#include <utility>

#include <Tamlo/UniqueFd.h>

namespace Tamlo {

// The name of the default network namespace: the one the process was in when
// the library was loaded. The library keeps a descriptor (close-on-exec) open
// on it from then on.
inline constexpr char const DEFAULT_NS[] = "";

// Moves the calling thread into the network namespace `name` (a file under
// /run/netns), or into the default one for DEFAULT_NS.
void setnsByName(std::string const& name);

// While it lives, the calling thread is in the namespace `name`; the
// destructor always moves the thread back to the namespace it had before,
// and fails an assertion if the kernel refuses (the thread would otherwise
// stay in the wrong namespace). Lives on the stack of one thread.
class NetNsGuard {
 public:
  explicit NetNsGuard(std::string const& name);
  ~NetNsGuard();
  NetNsGuard(NetNsGuard const&) = delete;
  NetNsGuard& operator=(NetNsGuard const&) = delete;

 private:
  std::string name_;
  Impl::UniqueFd previous_;
};

// `action()` run with the calling thread in the namespace `name`; the thread
// is back in its own namespace afterwards, whether `action` returns or throws.
template <typename Action>
auto inNetNs(std::string const& name, Action&& action) {
  NetNsGuard const inside(name);
  return std::forward<Action>(action)();
}

// socket(domain, type, protocol) created inside the namespace `name`.
int socketInNetNs(std::string const& name, int domain, int type, int protocol = 0);

// The longest abstract name: sun_path less its leading NUL.
inline constexpr size_t abstractSocketNameMax = 107;

// A Unix socket of `type` bound to the abstract name `name` (given without
// the leading NUL, 1 to abstractSocketNameMax bytes) in the calling thread's
// namespace; stream and seqpacket sockets also listen with `backlog`.
int listenAbstract(std::string const& name, int type = SOCK_STREAM, int backlog = SOMAXCONN);
// A Unix socket of `type` connected to the abstract name `name`.
int connectAbstract(std::string const& name, int type = SOCK_STREAM);

}  // namespace Tamlo
