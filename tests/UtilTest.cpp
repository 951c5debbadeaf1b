#include <Tamlo/Counters.h>
#include <Tamlo/DisplayPointer.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/TypeName.h>
#include <Tamlo/Util.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "plugins/VigorCountersRecord.h"

namespace {

using Tamlo::DisplayPointer;
using Tamlo::IntrospectionMap;

TEST(UtilTest, Base64EncodeGivesSixCharactersLowGroupFirst) {
  using Tamlo::Util::base64Encode;
  EXPECT_EQ(base64Encode(0), "AAAAAA");
  EXPECT_EQ(base64Encode(63), "=AAAAA");
  EXPECT_EQ(base64Encode(62), "_AAAAA");
  EXPECT_EQ(base64Encode(1), "BAAAAA");
  EXPECT_EQ(base64Encode(26), "aAAAAA");
  EXPECT_EQ(base64Encode(52), "0AAAAA");
  EXPECT_EQ(base64Encode(64), "ABAAAA");
  EXPECT_EQ(base64Encode(1u << 30), "AAAAAB");  // the sixth group holds the top two bits
  EXPECT_EQ(base64Encode(0xffffffffu), "=====D");
  EXPECT_EQ(base64Encode(0x12345678u), "4ZFNSA");
}

TEST(UtilTest, DisplayPointerPrintsNullOrEighteenCharacters) {
  EXPECT_EQ(DisplayPointer(nullptr).toString(), "NULL");
  auto const* small = reinterpret_cast<void const*>(uintptr_t{0xabc});
  EXPECT_EQ(DisplayPointer(small).toString(), "0x0000000000000abc");
  auto const* large = reinterpret_cast<void const*>(uintptr_t{0xfedcba9876543210});
  EXPECT_EQ(DisplayPointer(large).toString(), "0xfedcba9876543210");
}

TEST(UtilTest, DisplayPointerRestoresTheStreamsFormatting) {
  auto const* pointer = reinterpret_cast<void const*>(uintptr_t{0x1f});
  for (void const* p : {static_cast<void const*>(nullptr), pointer}) {
    std::ostringstream out;
    out << std::uppercase << std::left << std::setfill('*') << std::dec;
    std::ios_base::fmtflags const flags = out.flags();
    out << DisplayPointer(p) << " " << 255 << " " << std::setw(4) << 7;
    EXPECT_EQ(out.flags(), flags);
    EXPECT_EQ(out.fill(), '*');
    EXPECT_EQ(out.str(), (p ? "0x000000000000001f" : std::string("NULL")) + " 255 7***");
  }
}

std::string renderInt(void const* object) {
  return "int " + std::to_string(*static_cast<int const*>(object));
}
std::string renderOther(void const*) {
  return "other";
}

TEST(UtilTest, IntrospectionMapInsertsReplacesAndLooksUp) {
  EXPECT_EQ(IntrospectionMap::lookup("UtilTest.unknown"), nullptr);
  IntrospectionMap::insert("UtilTest.int", renderInt);
  auto const render = IntrospectionMap::lookup("UtilTest.int");
  ASSERT_NE(render, nullptr);
  int const value = 42;
  EXPECT_EQ(render(&value), "int 42");

  IntrospectionMap::insert("UtilTest.int", renderOther);
  EXPECT_EQ(IntrospectionMap::lookup("UtilTest.int"), &renderOther);
  EXPECT_EQ(IntrospectionMap::lookup("UtilTest.in"), nullptr);  // exact names only

  IntrospectionMap::insert("UtilTest.int", nullptr);
  EXPECT_EQ(IntrospectionMap::lookup("UtilTest.int"), nullptr);
}

TEST(UtilTest, IntrospectionMapIsSafeFromManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) {
        std::string const name = "UtilTest.thread" + std::to_string(t) + "." + std::to_string(i);
        IntrospectionMap::insert(name, (i % 2) ? renderInt : renderOther);
        EXPECT_EQ(IntrospectionMap::lookup(name), (i % 2) ? &renderInt : &renderOther);
      }
    });
  for (auto& thread : threads)
    thread.join();
}

struct Base {
  virtual ~Base() = default;
};
struct Derived : Base {};

TEST(UtilTest, TypeNameDemanglesOrReturnsTheInput) {
  EXPECT_EQ(Tamlo::typeName<int>(), "int");
  EXPECT_EQ(Tamlo::typeName<Tamlo::DisplayPointer>(), "Tamlo::DisplayPointer");
  Derived const derived;
  Base const& base = derived;
  EXPECT_EQ(Tamlo::typeName(base), "(anonymous namespace)::Derived");
  EXPECT_EQ(Tamlo::typeName(typeid(std::vector<int>).name()),
            "std::vector<int, std::allocator<int> >");
  EXPECT_EQ(Tamlo::typeName("not a mangled name"), "not a mangled name");
  EXPECT_EQ(Tamlo::typeName(""), "");
}

Tamlo::Test::VigorCountersRecord* countersRecord() {
  auto const recordFunction = reinterpret_cast<Tamlo::Test::VigorCountersRecordFunction>(
      dlsym(RTLD_DEFAULT, "vigorCountersRecordForTest"));
  return recordFunction ? recordFunction() : nullptr;
}

TEST(UtilTest, CountersReachTheCountersPlugin) {
  Tamlo::Counters counters("serverStats");
  ASSERT_NE(counters.plugin(), nullptr);
  EXPECT_STREQ(counters.plugin()->name(), "VigorCountersPlugin");
  auto* const record = countersRecord();
  ASSERT_NE(record, nullptr);
  size_t const setsBefore = record->openedSets.size();
  size_t const countersBefore = record->counters.size();
  ASSERT_GE(setsBefore, 1u);
  EXPECT_EQ(record->openedSets.back(), "serverStats");

  uint64_t requests = 0;
  uint64_t errors = 0;
  counters.counter("requests", &requests);
  counters.counter("errors", &errors);
  ASSERT_EQ(record->counters.size(), countersBefore + 2);
  EXPECT_EQ(record->counters[countersBefore].first, "requests");
  EXPECT_EQ(record->counters[countersBefore].second, &requests);
  EXPECT_EQ(record->counters[countersBefore + 1].first, "errors");
  EXPECT_EQ(record->counters[countersBefore + 1].second, &errors);

  // A nameless set opens nothing, but still shares the one plugin.
  Tamlo::Counters unnamed(nullptr);
  EXPECT_EQ(unnamed.plugin(), counters.plugin());
  EXPECT_EQ(record->openedSets.size(), setsBefore);
}

TEST(UtilTest, CountersWithoutThePluginDoNothing) {
  auto const run = Tamlo::Test::runHelper("UtilHelper", {"counters"}, {"TRACEFORMAT=handle,level"},
                                          {"LD_LIBRARY_PATH", "TRACE", "TRACEFILE"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "plugin null\nrequests 7\n");
  EXPECT_EQ(run.err,
            "TamloPlugin 0 Platform::loadPlugin() Failed to load plugin VigorCountersPlugin: "
            "libVigorCountersPlugin.so: "
            "cannot open shared object file: No such file or directory\n");
}

}  // namespace
