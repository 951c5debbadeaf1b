#include <Tamlo/ForkHandler.h>
#include <Tamlo/Plugin.h>

#include "SysTestSupport.h"

namespace {

using Tamlo::Platform::loadPlugin;
using Tamlo::Platform::Plugin;
using Tamlo::Platform::registerPlugin;
using Tamlo::Test::assertionText;
using testing::EndsWith;

TEST(PluginTest, ConcurrentLoadsByNameRegisterOnceAndShareThePlugin) {
  // A second registration would be a fatal assertion.
  std::vector<Plugin*> loaded(4, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < loaded.size(); ++i)
    threads.emplace_back([&loaded, i] { loaded[i] = loadPlugin("PluginTestGood"); });
  for (auto& thread : threads)
    thread.join();
  Plugin* const again = loadPlugin("PluginTestGood");
  EXPECT_EQ(loaded, std::vector<Plugin*>(4, again));
  EXPECT_STREQ(again ? again->name() : "(null)", "PluginTestGood");
}

TEST(PluginTest, ObjectRegisteringAnotherNameFailsToLoad) {
  std::string const expected =
      " Platform::loadPlugin() Phooey -- plugin PluginTestMisnamed failed to register";
  // Again: the object stays loaded and its initialisers do not run a second time.
  for (int attempt = 0; attempt < 2; ++attempt)
    EXPECT_THAT(assertionText([] { loadPlugin("PluginTestMisnamed"); }), EndsWith(expected));
  EXPECT_NE(loadPlugin("PluginTestOtherName"), nullptr);
}

struct NamedPlugin final : Plugin {
  explicit NamedPlugin(std::string name) : name_(std::move(name)) {}
  char const* name() const override { return name_.c_str(); }
  std::string name_;
};

TEST(PluginTest, DuplicateOrNullRegistrationIsAnAssertion) {
  // Plugins live for the process; a fresh name keeps repeated runs apart.
  static int run = 0;
  std::string const name = "PluginTestDuplicate" + std::to_string(run++);
  auto* const original = new NamedPlugin(name);
  NamedPlugin impostor(name);
  registerPlugin(original);
  EXPECT_THAT(assertionText([&] { registerPlugin(&impostor); }),
              EndsWith("Platform::registerPlugin() Plugin " + name + " already registered"));
  EXPECT_EQ(loadPlugin(name.c_str()), original);  // registered plugins need no object
  EXPECT_THAT(assertionText([] { loadPlugin(nullptr); }), EndsWith("null plugin name"));
  EXPECT_THAT(assertionText([] { registerPlugin(nullptr); }), EndsWith("null plugin registered"));
}

// TimerTaskForkTest sees the mark in a child forked from the main thread.
TEST(PluginTest, ForkFromAnotherThreadMarksOnlyTheChildUntilCleared) {
  // The child's exit code: 1 if it saw isForkedChild(), +2 if forkedChildIs(false) cleared it.
  int report = -1;
  std::thread([&report] {
    report = Tamlo::Test::runInChild([] {
               int const marked = Tamlo::Platform::isForkedChild() ? 1 : 0;
               Tamlo::Platform::forkedChildIs(false);
               return marked | (Tamlo::Platform::isForkedChild() ? 0 : 2);
             }).exitCode;
  }).join();
  EXPECT_EQ(report, 3);
  EXPECT_FALSE(Tamlo::Platform::isForkedChild());
}

}  // namespace
