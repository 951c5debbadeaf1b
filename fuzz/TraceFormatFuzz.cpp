// TRACEFORMAT field lists applied through setTraceFormat(), as a program does
// at run time, followed by one trace line in the resulting format. The first
// byte picks the format in force before; the rest is the field list.
//
// A list of known fields (empty ones skipped) switches on exactly those
// fields; "help" or any unknown field changes nothing at all.
#include <array>
#include <string_view>

#include <Tamlo/Debug.h>
#include <Tamlo/FmtraceCpp.h>

#include "FuzzSupport.h"

namespace {

using Tamlo::Orv::DebugControl;

constexpr std::array<std::string_view, 8> kFields = {"date",   "time",  "pid",       "tid",
                                                     "handle", "level", "line-info", "func-name"};

uint8_t formatInForce() {
  bool const flags[] = {DebugControl::showDate_,       DebugControl::showTime_,
                        DebugControl::showPid_,        DebugControl::showTid_,
                        DebugControl::showHandleName_, DebugControl::showLevel_,
                        DebugControl::showLineInfo_,   DebugControl::showFuncName_};
  uint8_t bits = 0;
  for (size_t i = 0; i < kFields.size(); ++i)
    bits |= static_cast<uint8_t>(flags[i] << i);
  return bits;
}

std::string fieldList(uint8_t bits) {
  std::string list;
  for (size_t i = 0; i < kFields.size(); ++i)
    if (bits & (1u << i))
      list.append(list.empty() ? "" : ",").append(kFields[i]);
  return list;
}

// The fields a list switches on, or -1 when the list must change nothing.
int expectedFormat(std::string_view list) {
  if (list == "help")
    return -1;
  int bits = 0;
  for (size_t start = 0; start < list.size();) {
    size_t const comma = std::min(list.find(',', start), list.size());
    std::string_view const field = list.substr(start, comma - start);
    start = comma + 1;
    if (field.empty())
      continue;
    size_t index = 0;
    while (index < kFields.size() && kFields[index] != field)
      ++index;
    if (index == kFields.size())
      return -1;
    bits |= 1 << index;
  }
  return bits;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Lines go nowhere: only their composition is under test.
  setenv("TRACEFILE", "/dev/null", 1);
  Tamlo::Platform::setupTamloDebug("TraceFormatFuzz/0");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size == 0)
    return 0;
  uint8_t const before = data[0];
  std::string const list = TamloFuzz::cString(data + 1, size - 1);
  Tamlo::Platform::setTraceFormat(fieldList(before).c_str());
  FUZZ_CHECK(formatInForce() == before, "'{}' gives {:#x}", fieldList(before), formatInForce());

  Tamlo::Platform::setTraceFormat(list.c_str());
  int const expected = expectedFormat(list);
  FUZZ_CHECK(formatInForce() == (expected < 0 ? before : expected), "'{}' over {:#x} gives {:#x}",
             list, before, formatInForce());

  static auto const handle = Tamlo::Platform::getDebugHandler("TraceFormatFuzz");
  TAMLO_TRACE(handle, 0, "{} fields", list.size());
  return 0;
}
