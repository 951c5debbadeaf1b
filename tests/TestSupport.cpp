#include "TestSupport.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
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
  std::vector<std::string> dropped = unset;
  for (auto const& added : env)
    dropped.push_back(added.substr(0, added.find('=')));
  std::vector<std::string> result;
  for (char** e = environ; *e; ++e) {
    std::string const entry(*e);
    if (std::none_of(dropped.begin(), dropped.end(),
                     [&](auto const& name) { return entry.rfind(name + "=", 0) == 0; }))
      result.push_back(entry);
  }
  result.insert(result.end(), env.begin(), env.end());
  return result;
}

// Everything written to `fd` from its start; closes it.
std::string contents(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
    text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
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

  // Files rather than pipes: nothing to read while the child runs, and every
  // helper waits for any child of its own before it ends.
  int const out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
  if (out < 0 || err < 0)
    throw std::runtime_error("memfd_create failed");
  pid_t const pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execve(path.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ChildResult result;
  result.out = contents(out);
  result.err = contents(err);
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
