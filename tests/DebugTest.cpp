// Trace settings and handles in one process: the settings grammar, how set
// and clear reach settings and handles, and the settings listing. Settings
// are process-wide, so every test uses names of its own.
#include <algorithm>
#include <map>

#include <Tamlo/Debug.h>
#include <Tamlo/Loco.h>

#include "TestSupport.h"

namespace {

using Tamlo::Orv::DebugControl;
using Tamlo::Platform::clearTamloDebug;
using Tamlo::Platform::getDebugHandler;
using Tamlo::Platform::LocoGuard;
using Tamlo::Platform::setupTamloDebug;
using Lines = std::vector<std::string>;

std::string levelsOf(std::shared_ptr<Tamlo::Platform::DebugHandler> const& handle) {
  return DebugControl::levelsString(handle->levels());
}

std::string listingText() {
  testing::internal::CaptureStdout();
  Tamlo::Platform::dumpTamloDebugMap();
  return testing::internal::GetCapturedStdout();
}

// The settings listing by section, each line without its indent.
struct Listing {
  Lines specific, wildcard, handlers;
  Listing() {
    Lines* section = nullptr;
    for (std::string const& line : Tamlo::Test::linesOf(listingText()))
      if (line == "Specific:" || line == "Wildcard:" || line == "Handlers:")
        section = line[0] == 'S' ? &specific : line[0] == 'W' ? &wildcard : &handlers;
      else if (section && line.rfind("    ", 0) == 0)
        section->push_back(line.substr(4));
  }
};

bool has(Lines const& lines, std::string const& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Lines for the entry `name` ("name/..." or, fixed, "name+/...").
size_t count(Lines const& lines, std::string const& name) {
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](auto const& line) {
    return line.rfind(name + "/", 0) == 0 || line.rfind(name + "+/", 0) == 0;
  }));
}

TEST(DebugTest, ParseNameAndLevels) {
  struct {
    char const* text;
    char const* name;
    bool wildcard;
  } const names[] = {{"Foo", "Foo", false}, {"Foo*", "Foo", true},   {"*", "", true},
                     {"F*o", "F*o", false}, {"Foo**", "Foo*", true}, {"", "", false}};
  for (auto const& row : names) {
    bool wildcard = !row.wildcard;
    EXPECT_EQ(DebugControl::parseName(row.text, wildcard), row.name) << row.text;
    EXPECT_EQ(wildcard, row.wildcard) << row.text;
  }
  struct {
    char const* text;
    uint16_t levels;
  } const levels[] = {{"01", 3},    {"10", 3},  {"135", 0b101010}, {"*", 1023},
                      {"9*", 1023}, {"abc", 0}, {"", 0},           {"1a2/9", 0b1000000110}};
  for (auto const& row : levels)
    EXPECT_EQ(DebugControl::parseLevels(row.text), row.levels) << row.text;
  EXPECT_EQ(DebugControl::levelsString(0), "");
  EXPECT_EQ(DebugControl::levelsString(1023), "*");
  EXPECT_EQ(DebugControl::levelsString(0b1000000001), "09");
  EXPECT_EQ(DebugControl::levelsString(1022), "123456789");
}

// Steps of set and clear, each followed by what must hold: "S:line" or
// "W:line" in the specific or wildcard listing, "!S:name"/"!W:name" absent
// from it, "H:name=levels" for a handle held since the start, "N:..." for a
// handle obtained now.
TEST(DebugTest, SetAndClearReachSettingsAndHandles) {
  clearTamloDebug("AccApp/*,Nw*/*,Wr*/*,Cw*/*");  // settings outlive a test: repeatable
  std::map<std::string, std::shared_ptr<Tamlo::Platform::DebugHandler>> held;
  for (char const* name : {"AccApp", "NwABC", "WrXZ", "Wq", "CwZ", "CwY"})
    held[name] = getDebugHandler(name);
  struct Row {
    char const* setup;
    char const* clear;
    Lines expected;
  } const rows[] = {
      // No '/': a setting with no levels; only the first '/' splits; an empty
      // entry between commas.
      {"", nullptr, {}},
      {"GrA/1,,GrB/2,GrC,GrD/3/4,",
       nullptr,
       {"S:GrA/1", "S:GrB/2", "S:GrC/", "S:GrD/34", "S:/", "N:GrD=34"}},
      // Specific levels accumulate; clearing takes only what is named.
      {"AccApp/5,AccApp/7", nullptr, {}},
      {"AccApp/", nullptr, {"H:AccApp=57", "N:AccAp="}},  // a prefix is another name
      {nullptr, "AccApp/5", {"S:AccApp/7", "H:AccApp=7"}},
      {nullptr, "AccApp/7", {"!S:AccApp", "H:AccApp="}},
      // Nested wildcards inherit; a new handle follows the shortest prefix.
      {"Nw*/1,NwAB*/2", nullptr, {"W:Nw*/1", "W:NwAB*/12", "H:NwABC=12", "N:NwABC=1"}},
      {"NwABD/3", nullptr, {"S:NwABD/13"}},  // starts from the governing wildcard
      {"WrX/4,WrXY*/5", nullptr, {}},
      {"Wr*/1", nullptr, {"S:WrX/14", "W:WrXY*/15", "W:Wr*/1", "H:WrXZ=1", "H:Wq="}},
      {"Wr*/*", nullptr, {"W:WrXY*/*", "H:WrXZ=*"}},
      {"Cw*/12,CwX*/3,CwY/4", nullptr, {"H:CwZ=12"}},
      {nullptr, "Cw*/1", {"W:Cw*/2", "W:CwX*/23", "S:CwY/24", "H:CwZ=2", "H:CwY=24"}},
      {nullptr, "Cw*/*", {"!W:Cw*", "!W:CwX*", "!S:CwY", "H:CwZ=", "N:CwZ="}},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    if (rows[i].setup)
      setupTamloDebug(rows[i].setup);
    if (rows[i].clear)
      clearTamloDebug(rows[i].clear);
    Listing const l;
    for (std::string const& check : rows[i].expected) {
      bool const absent = check[0] == '!';
      std::string const what = check.substr(absent ? 3 : 2);
      char const kind = check[absent ? 1 : 0];
      size_t const equals = what.find('=');
      if (kind == 'H' || kind == 'N') {
        std::string const name = what.substr(0, equals);
        EXPECT_EQ(levelsOf(kind == 'H' ? held[name] : getDebugHandler(name)),
                  what.substr(equals + 1))
            << check;
      } else {
        Lines const& section = kind == 'S' ? l.specific : l.wildcard;
        EXPECT_EQ(absent ? count(section, what) == 0 : has(section, what), true) << check;
      }
    }
  }
  EXPECT_EQ(count(Listing().specific, ""), 1u);
  // A handle's own levels are its alone, beyond 9 too; clearing a name no
  // setting covers changes only its handles.
  held["AccApp"]->enabledIs(2, true);
  held["AccApp"]->enabledIs(3, true);
  held["AccApp"]->enabledIs(12, true);
  EXPECT_FALSE(getDebugHandler("AccApp")->enabled(3));
  clearTamloDebug("AccApp/2");
  EXPECT_EQ(levelsOf(held["AccApp"]), "3");
  EXPECT_TRUE(held["AccApp"]->enabled(12));
  EXPECT_EQ(count(Listing().specific, "AccApp"), 0u);
  clearTamloDebug(nullptr);  // does nothing, and does not read TRACE
  EXPECT_EQ(levelsOf(held["AccApp"]), "3");
}

TEST(DebugTest, ClearOfWildcardCoveredNameAddsOneLastingHandle) {
  static int runs = 0;  // the lasting handle outlives a test: a new name per run
  std::string const foo = "CwcFoo" + std::to_string(runs++);
  setupTamloDebug("CwcF*/1");
  auto first = getDebugHandler(foo);
  auto second = getDebugHandler(foo);
  ASSERT_EQ(levelsOf(first), "1");
  clearTamloDebug((foo + "/1").c_str());
  EXPECT_EQ(levelsOf(first) + levelsOf(second), "");
  Listing const l;
  EXPECT_EQ(count(l.handlers, foo), 3u);
  EXPECT_EQ(count(l.specific, foo), 0u);
  EXPECT_TRUE(has(l.wildcard, "CwcF*/1"));
  EXPECT_EQ(levelsOf(getDebugHandler(foo)), "1");  // later handles: the wildcard again

  // The extra handle outlives every handle the caller held.
  first.reset();
  second.reset();
  Lines const after = Listing().handlers;
  EXPECT_EQ(count(after, foo), 1u);
  EXPECT_TRUE(has(after, foo + "/"));
}

TEST(DebugTest, FixedLevelsHandleIgnoresSettings) {
  std::shared_ptr<Tamlo::Orv::DebugHandler> fixed;
  {
    LocoGuard guard;
    fixed = std::make_shared<Tamlo::Orv::DebugHandler>("FxApp", 0b10000, true);
  }
  setupTamloDebug("FxApp/1,Fx*/2");
  clearTamloDebug("FxApp/4,Fx*/4");
  EXPECT_EQ(levelsOf(fixed), "4");
  EXPECT_TRUE(has(Listing().handlers, "FxApp+/4"));
  fixed->enabledIs(7, true);  // the handle's own business, fixed or not
  EXPECT_EQ(levelsOf(fixed), "47");
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

TEST(DebugTest, HandlesLeaveTheListingWhenDestroyed) {
  Tamlo::Orv::DebugHandler* raw;
  {
    LocoGuard guard;
    raw = new Tamlo::Orv::DebugHandler("GoneRaw", 1, false);
  }
  EXPECT_EQ(count(Listing().handlers, "GoneRaw"), 1u);
  Tamlo::Platform::destroyDebugHandler(raw);
  EXPECT_EQ(count(Listing().handlers, "GoneRaw"), 0u);
}

// Specific settings are listed by name, wildcards by prefix, each section
// after its heading.
TEST(DebugTest, ListingLayout) {
  setupTamloDebug("LaZ/*,LaA/0,La*/9");
  std::string const text = listingText();
  size_t const positions[] = {text.find("\nSpecific:\n"),
                              text.find("\n    LaA/09\n"),
                              text.find("\n    LaZ/*\n"),
                              text.find("\nWildcard:\n"),
                              text.find("\n    La*/9\n"),
                              text.find("\nHandlers:\n"),
                              text.rfind('\n')};
  EXPECT_EQ(positions[0], 0u) << text;
  EXPECT_TRUE(std::is_sorted(std::begin(positions), std::end(positions))) << text;
  EXPECT_EQ(positions[6], text.size() - 1);
}

TEST(DebugTest, DebuggableSharesOrObtainsHandles) {
  auto handle = getDebugHandler("DbgApp");
  EXPECT_EQ(Tamlo::Debuggable(*handle).debugHandle(), handle);
  EXPECT_NE(Tamlo::Debuggable(std::string("DbgApp")).debugHandle(), handle);
  LocoGuard guard;
  Tamlo::Orv::DebugHandler unowned("DbgUnowned", 0, false);
  EXPECT_THROW(Tamlo::Debuggable{unowned}, std::bad_weak_ptr);
}

TEST(DebugTest, RegistryOperationsRequireTheLibraryLock) {
  using Tamlo::Test::assertionText;
  using testing::EndsWith;
  EXPECT_THAT(assertionText([] { DebugControl::findWildcard("Any"); }),
              EndsWith("DebugControl::findWildcard() no loco"));
  EXPECT_THAT(assertionText([] { Tamlo::Orv::DebugHandler("NoLoco", 0, false); }),
              EndsWith("DebugHandler::DebugHandler() no loco"));
  EXPECT_THAT(assertionText([] { DebugControl("NoLoco", 0, false); }),
              EndsWith("DebugControl::DebugControl() no loco"));
  EXPECT_EQ(count(Listing().handlers, "NoLoco"), 0u);
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
        (void)handle->enabled(i % 10);
      }
    });
  for (auto& thread : threads)
    thread.join();
  Listing const l;
  for (int t = 0; t < 4; ++t) {
    std::string const name = "CcApp" + std::to_string(t);
    // Every handle was released; every setting kept what was not cleared.
    EXPECT_EQ(count(l.handlers, name), 0u);
    EXPECT_TRUE(has(l.specific, name + "/012345678")) << name;
  }
}

}  // namespace
