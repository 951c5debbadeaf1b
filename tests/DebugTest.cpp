// Trace settings, handles and the settings listing in one process. Settings
// are process-wide, so every test uses names of its own.
#include <Tamlo/Debug.h>
#include <Tamlo/Loco.h>

#include "TestSupport.h"

namespace {

using Tamlo::Orv::DebugControl;
using Tamlo::Platform::clearTamloDebug;
using Tamlo::Platform::getDebugHandler;
using Tamlo::Platform::setupTamloDebug;

std::string levelsOf(std::shared_ptr<Tamlo::Platform::DebugHandler> const& handle) {
  return DebugControl::levelsString(handle->levels());
}

std::string listingText() {
  testing::internal::CaptureStdout();
  Tamlo::Platform::dumpTamloDebugMap();
  return testing::internal::GetCapturedStdout();
}

// The listing's entries starting with `prefix` as "S:name/levels W:pre*/levels H:handle/levels".
std::string listed(std::string const& prefix) {
  std::string out;
  char section = '?';
  for (std::string const& line : Tamlo::Test::linesOf(listingText()))
    if (line.ends_with(':'))
      section = line[0];
    else if (line.rfind("    " + prefix, 0) == 0)
      out += (out.empty() ? "" : " ") + std::string(1, section) + ":" + line.substr(4);
  return out;
}

// Text, then the name and " *" if a wildcard; text, then its levels as shown.
TEST(DebugTest, ParseNameAndLevels) {
  std::pair<char const*, char const*> const names[] = {
      {"Foo", "Foo"}, {"Foo*", "Foo *"}, {"*", " *"}, {"F*o", "F*o"}, {"Foo**", "Foo* *"}};
  for (auto const& [text, expected] : names) {
    bool wildcard = true;  // overwritten either way
    std::string const name = DebugControl::parseName(text, wildcard);
    EXPECT_EQ(name + (wildcard ? " *" : ""), expected);
  }
  std::pair<char const*, char const*> const levels[] = {
      {"90", "09"}, {"9*", "*"}, {"abc", ""}, {"1a2/9", "129"}};
  for (auto const& [text, shown] : levels)
    EXPECT_EQ(DebugControl::levelsString(DebugControl::parseLevels(text)), shown) << text;
  EXPECT_EQ(DebugControl::levelsString(1022), "123456789");
}

// Per row: settings, clearings, the listing under a prefix, a new handle's
// levels. fuzz/TraceSettingsFuzz.cpp checks handles reached for any text.
TEST(DebugTest, SetAndClearReachSettingsAndHandles) {
  clearTamloDebug("Acc*/*,Nw*/*,W*/*,Cw*/*");  // settings outlive a test: repeatable
  std::vector<std::shared_ptr<Tamlo::Platform::DebugHandler>> held;
  for (char const* name : {"AccApp", "NwABC", "WrXZ", "Wq", "CwZ", "CwY"})
    held.push_back(getDebugHandler(name));
  {
    Tamlo::Platform::LocoGuard guard;  // settings never reach a handle of fixed levels
    held.push_back(std::make_shared<Tamlo::Orv::DebugHandler>("CwF", 0b10000, true));
  }
  struct Row {
    char const *setup, *clear, *prefix, *listed, *fresh, *freshLevels;
  } const rows[] = {
      // No '/': no levels; only the first '/' splits; an empty entry: empty name.
      {"GrA/1,,GrB/2,GrC,GrD/3/4,", nullptr, "Gr", "S:GrA/1 S:GrB/2 S:GrC/ S:GrD/34", "GrD", "34"},
      {nullptr, nullptr, "/", "S:/", "", ""},
      // Levels accumulate; clearing takes only what is named; a prefix is another name.
      {"AccApp/5,AccApp/7,AccApp/", nullptr, "Acc", "S:AccApp/57 H:AccApp/57", "AccAp", ""},
      {nullptr, "AccApp/5", "Acc", "S:AccApp/7 H:AccApp/7", "AccApp", "7"},
      // Nested wildcards inherit; new handles take the shortest prefix's, settings theirs.
      {"Nw*/1,NwAB*/2", nullptr, "Nw", "W:Nw*/1 W:NwAB*/12 H:NwABC/12", "NwABC", "1"},
      {"NwABD/3", nullptr, "NwABD", "S:NwABD/13", "NwABD", "13"},
      // A wildcard set or cleared reaches the narrower settings below it.
      {"WrX/4,WrXY*/5,Wr*/1", nullptr, "W", "S:WrX/14 W:Wr*/1 W:WrXY*/15 H:Wq/ H:WrXZ/1", "Wq", ""},
      {"Cw*/12,CwX*/3,CwY/4", nullptr, "Cw",
       "S:CwY/124 W:Cw*/12 W:CwX*/123 H:CwF+/4 H:CwY/124 H:CwZ/12", "CwZ", "12"},
      {nullptr, "Cw*/*", "Cw", "H:CwF+/4 H:CwY/ H:CwZ/", "CwZ", ""},
  };
  for (Row const& row : rows) {
    if (row.setup)
      setupTamloDebug(row.setup);
    if (row.clear)
      clearTamloDebug(row.clear);
    EXPECT_EQ(listed(row.prefix), row.listed) << row.prefix;
    EXPECT_EQ(levelsOf(getDebugHandler(row.fresh)), row.freshLevels) << row.fresh;
  }
  // A handle's own levels (beyond 9 too) are cleared only on its handles.
  for (unsigned level : {2, 3, 12})
    held[0]->enabledIs(level, true);
  clearTamloDebug("AccApp/27");  // empties the setting, which goes
  EXPECT_EQ(listed("Acc"), "H:AccApp/3");
  EXPECT_TRUE(held[0]->enabled(12));
  clearTamloDebug(nullptr);  // does nothing, and does not read TRACE
  EXPECT_EQ(levelsOf(held[0]), "3");
  EXPECT_EQ(listingText().rfind("\nSpecific:\n", 0), 0u);  // then Wildcard:, Handlers:
}

TEST(DebugTest, ClearOfWildcardCoveredNameAddsOneLastingHandle) {
  static int runs = 0;  // the lasting handle outlives a test: a new name per run
  std::string const foo = "LhFoo" + std::to_string(runs++) + "-";
  setupTamloDebug("LhF*/1");
  auto held = getDebugHandler(foo);
  clearTamloDebug((foo + "/1").c_str());
  EXPECT_EQ(levelsOf(held), "");
  EXPECT_EQ(listed("LhF*"), "W:LhF*/1");
  std::string const handle = "H:" + foo + "/";
  EXPECT_EQ(listed(foo), handle + " " + handle);
  EXPECT_EQ(levelsOf(getDebugHandler(foo)), "1");  // later handles: the wildcard again
  held.reset();
  EXPECT_EQ(listed(foo), handle);
}

TEST(DebugTest, WildcardNameInGetWarnsAndIsIgnored) {
  setupTamloDebug("StarApp/6");
  testing::internal::CaptureStderr();
  auto const handle = getDebugHandler("StarApp*");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tamlo::Debug - Warning - Wild card specifier ignored getting handler for StarApp* "
            "using StarApp\n");
  EXPECT_EQ(levelsOf(handle), "6");
}

TEST(DebugTest, RegistryOperationsRequireTheLibraryLock) {
  EXPECT_THAT(Tamlo::Test::assertionText([] { Tamlo::Orv::DebugHandler("NoLoco", 0, false); }),
              testing::EndsWith("DebugHandler::DebugHandler() no loco"));
}

TEST(DebugTest, ConcurrentSettingsAndHandlesStayConsistent) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      std::string const name = "CcApp" + std::to_string(t);
      for (int i = 0; i < 300; ++i) {
        auto const handle = getDebugHandler(name);
        setupTamloDebug((name + "/" + std::to_string(i % 10)).c_str());
        clearTamloDebug("CcApp*/9");
      }
    });
  for (auto& thread : threads)
    thread.join();
  // Every handle was released; every setting kept what was not cleared.
  EXPECT_EQ(listed("CcApp"),
            "S:CcApp0/012345678 S:CcApp1/012345678 S:CcApp2/012345678 S:CcApp3/012345678");
}

}  // namespace
