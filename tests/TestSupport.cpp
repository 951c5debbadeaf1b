#include "TestSupport.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <Tamlo/Assert.h>

extern char** environ;

namespace Tamlo::Test {

std::string helperPath(std::string const& name) {
  return std::string(TAMLO_HELPER_DIR) + "/" + name;
}

namespace {

std::vector<std::string> childEnvironment(std::vector<std::string> const& env,
                                          std::vector<std::string> const& unset) {
  auto named = [](std::string const& entry, std::string const& name) {
    return entry.compare(0, name.size() + 1, name + "=") == 0;
  };
  std::vector<std::string> result;
  for (char** e = environ; *e; ++e) {
    std::string const entry(*e);
    bool drop = false;
    for (auto const& name : unset)
      drop = drop || named(entry, name);
    for (auto const& added : env)
      drop = drop || named(entry, added.substr(0, added.find('=')));
    if (!drop)
      result.push_back(entry);
  }
  result.insert(result.end(), env.begin(), env.end());
  return result;
}

void drain(int fd, std::string& into, bool& open) {
  char buffer[4096];
  ssize_t const n = ::read(fd, buffer, sizeof buffer);
  if (n > 0)
    into.append(buffer, static_cast<size_t>(n));
  else if (n == 0 || errno != EINTR)
    open = false;
}

}  // namespace

ChildResult runHelper(std::string const& name, std::vector<std::string> const& args,
                      std::vector<std::string> const& env, std::vector<std::string> const& unset) {
  std::string const path = helperPath(name);
  std::vector<std::string> const environment = childEnvironment(env, unset);
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (auto const& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto const& e : environment)
    envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0)
    throw std::runtime_error("pipe failed");
  pid_t const pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    close(out[0]);
    close(err[0]);
    close(out[1]);
    close(err[1]);
    execve(path.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  ChildResult result;
  bool outOpen = true, errOpen = true;
  while (outOpen || errOpen) {
    pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR)
      break;
    if (fds[0].revents)
      drain(out[0], result.out, outOpen);
    if (fds[1].revents)
      drain(err[0], result.err, errOpen);
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status))
    result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status))
    result.signal = WTERMSIG(status);
  return result;
}

std::vector<std::string> linesOf(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

bool isBacktrace(std::string const& text) {
  static std::regex const frame(R"(#(\d+) 0x[0-9a-f]{16} .+\+0x[0-9a-f]+ in .+)");
  std::vector<std::string> const lines = linesOf(text);
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch match;
    if (!std::regex_match(lines[i], match, frame) || match[1] != std::to_string(i))
      return false;
  }
  return !lines.empty();
}

ThrowOnAssert::ThrowOnAssert() : previous_(throwOnAssertFail()) {
  throwOnAssertFailIs(true);
}
ThrowOnAssert::~ThrowOnAssert() {
  throwOnAssertFailIs(previous_);
}

}  // namespace Tamlo::Test
