#include <Tamlo/Errno.h>
#include <Tamlo/ProcInfo.h>
#include <Tamlo/Socket.h>

#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <cerrno>

#include "SysTestSupport.h"

namespace {

using Tamlo::Test::errorOf;

ino_t inodeOf(std::string const& path = "/proc/thread-self/ns/net") {
  struct stat status = {};
  ::stat(path.c_str(), &status);
  return status.st_ino;
}

std::string const prefix = "tamlo-test-" + std::to_string(::getpid());

TEST(SocketTest, AbstractSocketsConnectAndFailuresNameTheSocketOrNamespace) {
  std::string const name = prefix + "-svc";
  Tamlo::Impl::UniqueFd const server(Tamlo::listenAbstract(name));
  Tamlo::Impl::UniqueFd const client(Tamlo::connectAbstract(name));
  EXPECT_EQ(Tamlo::ProcInfo::socketOwner(Tamlo::ProcInfo::socketInode(client.get())), ::getpid());
  EXPECT_EQ(Tamlo::ProcInfo::socketOwner(0), -1);

  Tamlo::Impl::UniqueFd const directory(::open("/", O_RDONLY | O_CLOEXEC));
  ino_t const home = inodeOf();
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { Tamlo::connectAbstract(prefix + "-none"); },
       "RuntimeException: connect @" + prefix + "-none: Connection refused"},
      {[&] { Tamlo::connectAbstract(std::string(108, 'x')); },
       "OutOfRangeException: abstract socket name of 108 bytes, not 1 to 107: @" +
           std::string(108, 'x')},
      {[&] { Tamlo::setnsByName(prefix + "-absent"); },
       "RuntimeException: open network namespace /run/netns/" + prefix +
           "-absent: No such file or directory"},
      {[&] { Tamlo::setnsByName("../x"); },
       "OutOfRangeException: invalid network namespace name:../x"},
      {[&] { Tamlo::ProcInfo::socketInode(directory.get()); },
       "RuntimeException: socketInode fd:" + std::to_string(directory.get()) +
           ": Socket operation on non-socket"},
  };
  for (auto const& [call, message] : cases) {
    EXPECT_EQ(errorOf(call), "Tamlo::" + message);
    EXPECT_EQ(inodeOf(), home) << message;
  }
}

// A namespace made as `ip netns add` makes it: a thread's, bind-mounted under /run/netns.
class NetNsTest : public testing::Test {
 protected:
  void SetUp() override {
    int error = 0;
    std::thread([&] {
      bool const made =
          ::unshare(CLONE_NEWNET) == 0 && Tamlo::Util::mkpath("/run/netns", 0755, true) == 0 &&
          (Tamlo::Util::touch(path_),
           ::mount("/proc/thread-self/ns/net", path_.c_str(), nullptr, MS_BIND, nullptr) == 0);
      error = made ? 0 : errno;
    }).join();
    if (error != 0)
      GTEST_SKIP() << "cannot make a network namespace here: " << Tamlo::strerror(error);
  }
  void TearDown() override { ::umount2(path_.c_str(), MNT_DETACH), ::unlink(path_.c_str()); }
  std::string const name_ = prefix + "-ns";
  std::string const path_ = "/run/netns/" + name_;
};

TEST_F(NetNsTest, SocketsMadeInsideStayThereAndTheThreadAlwaysReturns) {
  ino_t const home = inodeOf();
  Tamlo::Impl::UniqueFd const server(
      Tamlo::inNetNs(name_, [&] { return Tamlo::listenAbstract(name_); }));
  EXPECT_THAT(errorOf([&] { Tamlo::connectAbstract(name_); }), testing::EndsWith("refused"));
  Tamlo::Impl::UniqueFd const client(
      Tamlo::inNetNs(name_, [&] { return Tamlo::connectAbstract(name_); }));
  EXPECT_THAT(errorOf([&] { Tamlo::inNetNs(name_, [] { return Tamlo::connectAbstract("x"); }); }),
              testing::EndsWith("@x: Connection refused"));
  EXPECT_EQ(inodeOf(), home);

  Tamlo::Impl::UniqueFd const inet(Tamlo::socketInNetNs(name_, AF_INET, SOCK_DGRAM));
  Tamlo::Impl::UniqueFd const socketNamespace(::ioctl(inet.get(), SIOCGSKNS));
  EXPECT_EQ(inodeOf("/proc/self/fd/" + std::to_string(socketNamespace.get())), inodeOf(path_));
  EXPECT_EQ(::fcntl(inet.get(), F_GETFD), FD_CLOEXEC);

  std::thread([&] {  // away and back by name
    EXPECT_EQ(errorOf([&] { Tamlo::setnsByName(name_), Tamlo::setnsByName(Tamlo::DEFAULT_NS); }),
              "(none)");
    EXPECT_EQ(inodeOf(), home);
  })
      .join();
}

}  // namespace
