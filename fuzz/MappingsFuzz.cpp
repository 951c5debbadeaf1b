// Mappings::parse fed arbitrary bytes. It either throws
// CorruptionDetectedException naming the source and a line, or returns
// mappings that keep its promises: one per line, each range non-empty, in
// ascending order without overlap, permissions as the kernel writes them,
// and find() answering for every address at and around each range.
#include <string_view>

#include <Tamlo/Exception.h>
#include <Tamlo/Mappings.h>

#include "FuzzSupport.h"

namespace {

size_t lineCount(std::string_view text) {
  size_t lines = 0;
  for (size_t at = 0; at < text.size(); ++lines) {
    size_t const newline = text.find('\n', at);
    at = newline == std::string_view::npos ? text.size() : newline + 1;
  }
  return lines;
}

bool kernelPermissions(std::string const& p) {
  return p.size() == 4 && (p[0] == 'r' || p[0] == '-') && (p[1] == 'w' || p[1] == '-') &&
         (p[2] == 'x' || p[2] == '-') && (p[3] == 'p' || p[3] == 's');
}

void checkAccepted(std::string_view text, Tamlo::Mappings const& result) {
  auto const& mappings = result.mappings();
  FUZZ_CHECK(mappings.size() == lineCount(text), "{} mappings from {} lines", mappings.size(),
             lineCount(text));
  for (size_t i = 0; i < mappings.size(); ++i) {
    Tamlo::Mapping const& m = mappings[i];
    FUZZ_CHECK(m.start < m.end, "mapping {} is [{:x}, {:x})", i, m.start, m.end);
    FUZZ_CHECK(i == 0 || mappings[i - 1].end <= m.start, "mapping {} overlaps the one before", i);
    FUZZ_CHECK(kernelPermissions(m.permissions), "mapping {} has permissions \"{}\"", i,
               m.permissions);
    FUZZ_CHECK(m.path.find('\n') == std::string::npos, "mapping {} path holds a newline", i);
    FUZZ_CHECK(result.find(m.start) == &m, "find(start) misses mapping {}", i);
    FUZZ_CHECK(result.find(m.end - 1) == &m, "find(end - 1) misses mapping {}", i);
    bool const gapBefore = i == 0 ? m.start > 0 : mappings[i - 1].end < m.start;
    if (gapBefore)
      FUZZ_CHECK(result.find(m.start - 1) == nullptr, "find() in the gap before mapping {}", i);
  }
  if (!mappings.empty() && mappings.back().end != 0)
    FUZZ_CHECK(result.find(mappings.back().end) == nullptr, "find() past the last mapping");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  try {
    checkAccepted(text, Tamlo::Mappings::parse(text, "fuzz"));
  } catch (Tamlo::CorruptionDetectedException const& e) {
    FUZZ_CHECK(e.message().starts_with("fuzz: line "), "message \"{}\"", e.message());
  }
  return 0;
}
