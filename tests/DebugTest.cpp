// Trace settings and handles in one process: the settings grammar, how set
// and clear reach settings and handles, and the settings listing. Every test
// uses names of its own, since settings are process-wide.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Tamlo/Debug.h>
#include <Tamlo/Exception.h>
#include <Tamlo/Loco.h>

#include "TestSupport.h"

namespace {

using Tamlo::Orv::DebugControl;
using Tamlo::Platform::clearTamloDebug;
using Tamlo::Platform::DebugHandler;
using Tamlo::Platform::getDebugHandler;
using Tamlo::Platform::LocoGuard;
using Tamlo::Platform::setupTamloDebug;

std::string levelsOf(std::shared_ptr<DebugHandler> const& handle) {
  return DebugControl::levelsString(handle->levels());
}

// The lines of one section ("Specific:", "Wildcard:", "Handlers:") of the
// settings listing, without their indent.
struct Listing {
  std::vector<std::string> specific, wildcard, handlers;

  static Listing capture() {
    testing::internal::CaptureStdout();
    Tamlo::Platform::dumpTamloDebugMap();
    std::string const text = testing::internal::GetCapturedStdout();
    Listing listing;
    std::vector<std::string>* section = nullptr;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      if (line == "Specific:")
        section = &listing.specific;
      else if (line == "Wildcard:")
        section = &listing.wildcard;
      else if (line == "Handlers:")
        section = &listing.handlers;
      else if (section && line.rfind("    ", 0) == 0)
        section->push_back(line.substr(4));
    }
    return listing;
  }

  static bool has(std::vector<std::string> const& lines, std::string const& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  // Lines of `lines` for the entry `name` ("name/..." or "name+/...").
  static size_t countNamed(std::vector<std::string> const& lines, std::string const& name) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](auto const& line) {
      return line.rfind(name + "/", 0) == 0 || line.rfind(name + "+/", 0) == 0;
    }));
  }
};

TEST(DebugTest, ParseNameAndLevels) {
  bool wildcard = true;
  EXPECT_EQ(DebugControl::parseName("Foo", wildcard), "Foo");
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(DebugControl::parseName("Foo*", wildcard), "Foo");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("*", wildcard), "");
  EXPECT_TRUE(wildcard);
  // Only a trailing '*' makes a wildcard.
  EXPECT_EQ(DebugControl::parseName("F*o", wildcard), "F*o");
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(DebugControl::parseName("Foo**", wildcard), "Foo*");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("", wildcard), "");
  EXPECT_FALSE(wildcard);

  EXPECT_EQ(DebugControl::parseLevels("01"), 3);
  EXPECT_EQ(DebugControl::parseLevels("10"), 3);
  EXPECT_EQ(DebugControl::parseLevels("135"), 0b101010);
  EXPECT_EQ(DebugControl::parseLevels("*"), 1023);
  EXPECT_EQ(DebugControl::parseLevels("9*"), 1023);
  EXPECT_EQ(DebugControl::parseLevels("abc"), 0);
  EXPECT_EQ(DebugControl::parseLevels(""), 0);
  EXPECT_EQ(DebugControl::parseLevels("1a2/9"), 0b1000000110);

  EXPECT_EQ(DebugControl::levelsString(0), "");
  EXPECT_EQ(DebugControl::levelsString(1023), "*");
  EXPECT_EQ(DebugControl::levelsString(0b1000000001), "09");
  EXPECT_EQ(DebugControl::levelsString(1022), "123456789");
}

TEST(DebugTest, SettingsStringGrammar) {
  setupTamloDebug("");  // nothing
  setupTamloDebug("GrA/1,,GrB/2,GrC,GrD/3/4,");
  Listing const l = Listing::capture();
  EXPECT_TRUE(Listing::has(l.specific, "GrA/1"));
  EXPECT_TRUE(Listing::has(l.specific, "GrB/2"));
  // No '/' still makes the setting, with no levels.
  EXPECT_TRUE(Listing::has(l.specific, "GrC/"));
  // Only the first '/' splits; the second is an ignored level character.
  EXPECT_TRUE(Listing::has(l.specific, "GrD/34"));
  // The empty entry between commas is an empty name with no levels.
  EXPECT_TRUE(Listing::has(l.specific, "/"));
  EXPECT_EQ(Listing::countNamed(l.specific, ""), 1u);
  EXPECT_EQ(levelsOf(getDebugHandler("GrC")), "");
  EXPECT_EQ(levelsOf(getDebugHandler("GrD")), "34");
}

TEST(DebugTest, SpecificLevelsOnlyAccumulate) {
  auto const handle = getDebugHandler("AccApp");
  EXPECT_EQ(levelsOf(handle), "");
  setupTamloDebug("AccApp/5,AccApp/7");
  EXPECT_EQ(levelsOf(handle), "57");
  setupTamloDebug("AccApp/");
  EXPECT_EQ(levelsOf(handle), "57");
  EXPECT_EQ(levelsOf(getDebugHandler("AccApp")), "57");
  // A prefix of a name is another name.
  EXPECT_EQ(levelsOf(getDebugHandler("AccAp")), "");
}

TEST(DebugTest, NestedWildcardsInheritAndShortestPrefixGoverns) {
  auto const before = getDebugHandler("NwABC");
  setupTamloDebug("Nw*/1,NwAB*/2");
  Listing const l = Listing::capture();
  EXPECT_TRUE(Listing::has(l.wildcard, "Nw*/1"));
  EXPECT_TRUE(Listing::has(l.wildcard, "NwAB*/12"));
  EXPECT_EQ(levelsOf(before), "12");
  // A new handle is governed by the first prefix in ascending order: "Nw".
  EXPECT_EQ(levelsOf(getDebugHandler("NwABC")), "1");
  {
    LocoGuard guard;
    DebugControl const* governing = DebugControl::findWildcard("NwABC");
    ASSERT_NE(governing, nullptr);
    EXPECT_EQ(governing->name(), "Nw");
    EXPECT_TRUE(governing->wildcard());
    EXPECT_EQ(DebugControl::findWildcard("NoSuchPrefixAnywhere"), nullptr);
  }
  // A new specific setting starts from the governing wildcard.
  setupTamloDebug("NwABD/3");
  EXPECT_TRUE(Listing::has(Listing::capture().specific, "NwABD/13"));
}

TEST(DebugTest, WildcardReachesNarrowerSettingsAndHandles) {
  setupTamloDebug("WrX/4,WrXY*/5");
  auto const handle = getDebugHandler("WrXZ");
  auto const outside = getDebugHandler("Wq");
  setupTamloDebug("Wr*/1");
  Listing const l = Listing::capture();
  EXPECT_TRUE(Listing::has(l.specific, "WrX/14"));
  EXPECT_TRUE(Listing::has(l.wildcard, "WrXY*/15"));
  EXPECT_TRUE(Listing::has(l.wildcard, "Wr*/1"));
  EXPECT_EQ(levelsOf(handle), "1");
  EXPECT_EQ(levelsOf(outside), "");
  setupTamloDebug("Wr*/*");
  EXPECT_EQ(levelsOf(handle), "*");
  EXPECT_TRUE(Listing::has(Listing::capture().wildcard, "WrXY*/*"));
}

TEST(DebugTest, ClearWildcardRemovesLevelsAndEmptiedSettings) {
  setupTamloDebug("Cw*/12,CwX*/3,CwY/4");
  auto const handle = getDebugHandler("CwZ");
  auto const specificHandle = getDebugHandler("CwY");
  clearTamloDebug("Cw*/1");
  Listing l = Listing::capture();
  EXPECT_TRUE(Listing::has(l.wildcard, "Cw*/2"));
  EXPECT_TRUE(Listing::has(l.wildcard, "CwX*/23"));
  EXPECT_TRUE(Listing::has(l.specific, "CwY/24"));
  EXPECT_EQ(levelsOf(handle), "2");
  EXPECT_EQ(levelsOf(specificHandle), "24");

  clearTamloDebug("Cw*/*");
  l = Listing::capture();
  EXPECT_EQ(Listing::countNamed(l.wildcard, "Cw*"), 0u);
  EXPECT_EQ(Listing::countNamed(l.wildcard, "CwX*"), 0u);
  EXPECT_EQ(Listing::countNamed(l.specific, "CwY"), 0u);
  EXPECT_EQ(levelsOf(handle), "");
  EXPECT_EQ(levelsOf(getDebugHandler("CwZ")), "");
}

TEST(DebugTest, ClearSpecificWithItsOwnSetting) {
  setupTamloDebug("CsApp/13");
  auto const handle = getDebugHandler("CsApp");
  size_t const handles = Listing::countNamed(Listing::capture().handlers, "CsApp");
  clearTamloDebug("CsApp/1");
  EXPECT_TRUE(Listing::has(Listing::capture().specific, "CsApp/3"));
  EXPECT_EQ(levelsOf(handle), "3");
  clearTamloDebug("CsApp/3");
  Listing const l = Listing::capture();
  EXPECT_EQ(Listing::countNamed(l.specific, "CsApp"), 0u);
  EXPECT_EQ(Listing::countNamed(l.handlers, "CsApp"), handles);
  EXPECT_EQ(levelsOf(handle), "");
}

TEST(DebugTest, ClearOfWildcardCoveredNameAddsOneLastingHandle) {
  setupTamloDebug("CwcF*/1");
  auto first = getDebugHandler("CwcFoo");
  auto second = getDebugHandler("CwcFoo");
  ASSERT_EQ(levelsOf(first), "1");
  ASSERT_EQ(Listing::countNamed(Listing::capture().handlers, "CwcFoo"), 2u);

  clearTamloDebug("CwcFoo/1");
  EXPECT_EQ(levelsOf(first), "");
  EXPECT_EQ(levelsOf(second), "");
  Listing const l = Listing::capture();
  EXPECT_EQ(Listing::countNamed(l.handlers, "CwcFoo"), 3u);
  EXPECT_EQ(Listing::countNamed(l.specific, "CwcFoo"), 0u);
  EXPECT_TRUE(Listing::has(l.wildcard, "CwcF*/1"));
  // Handles obtained later start from the wildcard again.
  EXPECT_EQ(levelsOf(getDebugHandler("CwcFoo")), "1");

  // The extra handle outlives every handle the caller held.
  first.reset();
  second.reset();
  Listing const after = Listing::capture();
  EXPECT_EQ(Listing::countNamed(after.handlers, "CwcFoo"), 1u);
  EXPECT_TRUE(Listing::has(after.handlers, "CwcFoo/"));
}

TEST(DebugTest, ClearOfUncoveredNameOnlyTouchesItsHandles) {
  auto const handle = getDebugHandler("CuApp");
  handle->enabledIs(2, true);
  handle->enabledIs(3, true);
  clearTamloDebug("CuApp/2");
  EXPECT_EQ(levelsOf(handle), "3");
  Listing const l = Listing::capture();
  EXPECT_EQ(Listing::countNamed(l.handlers, "CuApp"), 1u);
  EXPECT_EQ(Listing::countNamed(l.specific, "CuApp"), 0u);
  clearTamloDebug(nullptr);  // does nothing, and does not read TRACE
  EXPECT_EQ(levelsOf(handle), "3");
}

TEST(DebugTest, EnabledIsChangesOneHandleOnly) {
  auto const a = getDebugHandler("EnApp");
  auto const b = getDebugHandler("EnApp");
  a->enabledIs(3, true);
  EXPECT_TRUE(a->enabled(3));
  EXPECT_FALSE(b->enabled(3));
  EXPECT_EQ(levelsOf(a), "3");
  a->enabledIs(3, false);
  EXPECT_EQ(levelsOf(a), "");
  // Levels beyond 9 exist on a handle but are not settings levels.
  a->enabledIs(12, true);
  EXPECT_TRUE(a->enabled(12));
  EXPECT_EQ(levelsOf(a), "");
}

TEST(DebugTest, FixedLevelsHandleIgnoresSettings) {
  std::shared_ptr<Tamlo::Orv::DebugHandler> fixed;
  {
    LocoGuard guard;
    fixed = std::make_shared<Tamlo::Orv::DebugHandler>("FxApp", 0b10000, true);
  }
  setupTamloDebug("FxApp/1,Fx*/2");
  clearTamloDebug("FxApp/4,Fx*/4");
  EXPECT_EQ(DebugControl::levelsString(fixed->levels()), "4");
  EXPECT_TRUE(Listing::has(Listing::capture().handlers, "FxApp+/4"));
  // enabledIs is the handle's own business, fixed or not.
  fixed->enabledIs(7, true);
  EXPECT_EQ(DebugControl::levelsString(fixed->levels()), "47");
}

TEST(DebugTest, WildcardNameInGetWarnsAndIsIgnored) {
  setupTamloDebug("StarApp/6");
  testing::internal::CaptureStderr();
  auto const handle = getDebugHandler("StarApp*");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tamlo::Debug - Warning - Wild card specifier ignored getting handler for StarApp* "
            "using StarApp\n");
  auto const* named = dynamic_cast<Tamlo::Orv::DebugHandler const*>(handle.get());
  ASSERT_NE(named, nullptr);
  EXPECT_EQ(named->name(), "StarApp");
  EXPECT_EQ(levelsOf(handle), "6");
}

TEST(DebugTest, HandlesLeaveTheListingWhenDestroyed) {
  auto handle = getDebugHandler("GoneApp");
  EXPECT_EQ(Listing::countNamed(Listing::capture().handlers, "GoneApp"), 1u);
  handle.reset();
  EXPECT_EQ(Listing::countNamed(Listing::capture().handlers, "GoneApp"), 0u);

  Tamlo::Orv::DebugHandler* raw;
  {
    LocoGuard guard;
    raw = new Tamlo::Orv::DebugHandler("GoneRaw", 1, false);
  }
  EXPECT_EQ(Listing::countNamed(Listing::capture().handlers, "GoneRaw"), 1u);
  Tamlo::Platform::destroyDebugHandler(raw);
  EXPECT_EQ(Listing::countNamed(Listing::capture().handlers, "GoneRaw"), 0u);
}

TEST(DebugTest, ListingLayout) {
  setupTamloDebug("LaZ/*,LaA/0,La*/9");
  testing::internal::CaptureStdout();
  Tamlo::Platform::dumpTamloDebugMap();
  std::string const text = testing::internal::GetCapturedStdout();
  EXPECT_EQ(text.rfind("\nSpecific:\n", 0), 0u) << text;
  size_t const wildcard = text.find("\nWildcard:\n");
  size_t const handlers = text.find("\nHandlers:\n");
  ASSERT_NE(wildcard, std::string::npos);
  ASSERT_NE(handlers, std::string::npos);
  EXPECT_LT(wildcard, handlers);
  // Specific settings are listed by name; wildcards by prefix.
  size_t const laA = text.find("\n    LaA/09\n");
  size_t const laZ = text.find("\n    LaZ/*\n");
  EXPECT_LT(laA, laZ);
  EXPECT_LT(laZ, wildcard);
  EXPECT_GT(text.find("\n    La*/9\n"), wildcard);
  EXPECT_EQ(text.back(), '\n');
}

TEST(DebugTest, DebuggableSharesOrObtainsHandles) {
  auto handle = getDebugHandler("DbgApp");
  Tamlo::Debuggable const byPointer(handle);
  Tamlo::Debuggable const byReference(*handle);
  EXPECT_EQ(byPointer.debugHandle(), handle);
  EXPECT_EQ(byReference.debugHandle(), handle);
  Tamlo::Debuggable const byName(std::string("DbgApp"));
  EXPECT_NE(byName.debugHandle(), handle);
  Tamlo::Debuggable copy;
  EXPECT_EQ(copy.debugHandle(), nullptr);
  copy = byName;
  EXPECT_EQ(copy.debugHandle(), byName.debugHandle());

  LocoGuard guard;
  Tamlo::Orv::DebugHandler unowned("DbgUnowned", 0, false);
  EXPECT_THROW(Tamlo::Debuggable{unowned}, std::bad_weak_ptr);
}

TEST(DebugTest, RegistryOperationsRequireTheLibraryLock) {
  Tamlo::Test::ThrowOnAssert throwing;
  auto expectAssert = [](auto&& operation, std::string const& ending) {
    testing::internal::CaptureStderr();
    try {
      operation();
      ADD_FAILURE() << "no assertion for " << ending;
    } catch (Tamlo::AssertException const& e) {
      std::string const text = e.msg();
      EXPECT_NE(text.find(ending + "\")"), std::string::npos) << text;
    }
    // The assertion is traced too.
    EXPECT_NE(testing::internal::GetCapturedStderr().find(ending), std::string::npos);
  };
  expectAssert([] { DebugControl::findWildcard("Any"); }, "DebugControl::findWildcard() no loco");
  expectAssert([] { Tamlo::Orv::DebugHandler("NoLoco", 0, false); },
               "DebugHandler::DebugHandler() no loco");
  expectAssert([] { DebugControl("NoLoco", 0, false); }, "DebugControl::DebugControl() no loco");
  EXPECT_EQ(Listing::countNamed(Listing::capture().handlers, "NoLoco"), 0u);
}

TEST(DebugTest, ConcurrentSettingsAndHandlesStayConsistent) {
  constexpr int threadCount = 4;
  constexpr int rounds = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t)
    threads.emplace_back([t] {
      std::string const name = "CcApp" + std::to_string(t);
      for (int i = 0; i < rounds; ++i) {
        auto const handle = getDebugHandler(name);
        setupTamloDebug((name + "/" + std::to_string(i % 10)).c_str());
        clearTamloDebug("CcApp*/9");
        (void)handle->enabled(i % 10);
      }
    });
  for (auto& thread : threads)
    thread.join();
  Listing const l = Listing::capture();
  for (int t = 0; t < threadCount; ++t) {
    std::string const name = "CcApp" + std::to_string(t);
    // Every handle was released; every setting kept what was not cleared.
    EXPECT_EQ(Listing::countNamed(l.handlers, name), 0u);
    EXPECT_TRUE(Listing::has(l.specific, name + "/012345678")) << name;
  }
}

}  // namespace
