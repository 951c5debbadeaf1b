#include <Tamlo/Debug.h>
#include <Tamlo/ForkHandler.h>
#include <Tamlo/Plugin.h>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TestSupport.h"

namespace {

using Tamlo::Platform::loadPlugin;
using Tamlo::Platform::Plugin;
using Tamlo::Platform::registerPlugin;
using Tamlo::Test::assertionText;
using testing::EndsWith;
using testing::HasSubstr;

TEST(PluginTest, LoadsByNameAndReturnsTheSamePluginAgain) {
  Tamlo::Platform::setupTamloDebug("TamloPlugin/0123");  // its detail levels, for this test
  testing::internal::CaptureStderr();
  Plugin* const first = loadPlugin("PluginTestGood");
  Plugin* const second = loadPlugin("PluginTestGood");
  std::string const trace = testing::internal::GetCapturedStderr();
  Tamlo::Platform::clearTamloDebug("TamloPlugin/23");

  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first->name(), "PluginTestGood");
  EXPECT_THAT(trace, HasSubstr("PluginTestGood already loaded\n"));
  // Registration and the load itself are traced only the first time in this
  // process; another test may have loaded the plugin already.
  if (trace.find("Yay!") != std::string::npos) {
    EXPECT_THAT(trace, HasSubstr("adding plugin PluginTestGood\n"));
    EXPECT_THAT(trace, HasSubstr("Yay!  Plugin PluginTestGood loaded\n"));
    EXPECT_LT(trace.find("adding plugin"), trace.find("Yay!"));
    EXPECT_LT(trace.find("Yay!"), trace.find("already loaded"));
  }
}

TEST(PluginTest, ConcurrentLoadsRegisterOnce) {
  // A second registration would be a fatal assertion, so agreeing on one
  // pointer here also shows the object was initialised once.
  std::vector<Plugin*> loaded(4, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < loaded.size(); ++i)
    threads.emplace_back([&loaded, i] { loaded[i] = loadPlugin("PluginTestGood"); });
  for (auto& thread : threads)
    thread.join();
  ASSERT_NE(loaded[0], nullptr);
  EXPECT_EQ(loaded, std::vector<Plugin*>(4, loaded[0]));
}

TEST(PluginTest, MissingPluginGivesNullAndTracesTheReason) {
  // The loader's own words for this file, independently obtained.
  EXPECT_EQ(dlopen("libPluginTestMissing.so", RTLD_NOW | RTLD_GLOBAL), nullptr);
  std::string const reason = dlerror();

  testing::internal::CaptureStderr();
  Plugin* const plugin = loadPlugin("PluginTestMissing");
  std::string const trace = testing::internal::GetCapturedStderr();
  EXPECT_EQ(plugin, nullptr);
  // Level 0 is on by default ("Tamlo*/01"); the line ends with the text.
  EXPECT_THAT(trace, EndsWith("Failed to load plugin PluginTestMissing: " + reason + "\n"));
  EXPECT_THAT(trace, HasSubstr("TamloPlugin"));
  EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 1);
}

TEST(PluginTest, ObjectRegisteringAnotherNameFailsToLoad) {
  std::string const expected =
      " Platform::loadPlugin() Phooey -- plugin PluginTestMisnamed failed to register";
  EXPECT_THAT(assertionText([] { loadPlugin("PluginTestMisnamed"); }), EndsWith(expected));

  // The object stays loaded; its initialisers do not run again, so it fails
  // the same way, while the name it did register is found.
  EXPECT_NE(dlopen("libPluginTestMisnamed.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_THAT(assertionText([] { loadPlugin("PluginTestMisnamed"); }), EndsWith(expected));
  Plugin* const other = loadPlugin("PluginTestOtherName");
  ASSERT_NE(other, nullptr);
  EXPECT_STREQ(other->name(), "PluginTestOtherName");
}

struct NamedPlugin final : Plugin {
  explicit NamedPlugin(std::string name) : name_(std::move(name)) {}
  char const* name() const override { return name_.c_str(); }
  std::string name_;
};

TEST(PluginTest, DuplicateRegistrationIsAnAssertion) {
  // Plugins live for the process; a fresh name keeps repeated runs apart.
  static int run = 0;
  std::string const name = "PluginTestDuplicate" + std::to_string(run++);
  auto* const original = new NamedPlugin(name);
  auto* const impostor = new NamedPlugin(name);

  registerPlugin(original);
  EXPECT_THAT(
      assertionText([impostor] { registerPlugin(impostor); }),
      EndsWith(" Tamlo::Platform::registerPlugin() Plugin " + name + " already registered"));
  EXPECT_EQ(loadPlugin(name.c_str()), original);  // registered plugins need no object
  delete impostor;
}

TEST(PluginTest, NullArgumentsAreAssertions) {
  EXPECT_THAT(assertionText([] { loadPlugin(nullptr); }), EndsWith("null plugin name"));
  EXPECT_THAT(assertionText([] { registerPlugin(nullptr); }), EndsWith("null plugin registered"));
}

// Exit status of a child forked from the calling thread: bit 0 set when the
// child saw isForkedChild(), bit 1 when forkedChildIs(false) cleared it.
int forkedChildReport() {
  pid_t const pid = fork();
  if (pid == 0) {
    int report = Tamlo::Platform::isForkedChild() ? 1 : 0;
    Tamlo::Platform::forkedChildIs(false);
    report |= Tamlo::Platform::isForkedChild() ? 0 : 2;
    _exit(report);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

// Whether the parent is marked or not, and from whichever thread it forks.
TEST(PluginTest, ForkMarksTheChildOnly) {
  for (bool parentMarked : {false, true}) {
    SCOPED_TRACE(parentMarked);
    Tamlo::Platform::forkedChildIs(parentMarked);
    EXPECT_EQ(forkedChildReport(), 3);
    int report = -1;
    std::thread([&report] { report = forkedChildReport(); }).join();
    EXPECT_EQ(report, 3);
    EXPECT_EQ(Tamlo::Platform::isForkedChild(), parentMarked);
  }
  Tamlo::Platform::forkedChildIs(false);
}

}  // namespace
