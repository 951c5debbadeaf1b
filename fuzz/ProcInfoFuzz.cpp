// The readers of /proc text fed arbitrary bytes: every parser is run on the
// whole input, and each answer is checked against a plain re-reading of the
// same text. A parser that accepts text must say what that text says; one
// that refuses it returns nothing, never a wrong number.
#include <charconv>
#include <string_view>
#include <vector>

#include <Tamlo/ProcInfo.h>

#include "FuzzSupport.h"

namespace {

namespace ProcInfo = Tamlo::ProcInfo;

// The whole of `text` as an unsigned decimal number, or nothing.
std::optional<uint64_t> decimal(std::string_view text) {
  uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return value;
}

void checkTitle(std::string_view text) {
  std::string const title = ProcInfo::parseTitle(text);
  bool const droppedNewline = title.size() + 1 == text.size() && text.back() == '\n';
  FUZZ_CHECK(title == text || droppedNewline, "title of {} bytes is {} bytes", text.size(),
             title.size());
  FUZZ_CHECK(text.starts_with(title), "title is not the start of the text");
}

void checkStartTicks(std::string_view text) {
  std::optional<uint64_t> const ticks = ProcInfo::parseStartTicks(text);
  size_t const titleEnd = text.rfind(')');
  std::optional<uint64_t> expected;
  if (titleEnd != std::string_view::npos) {
    // Fields are blank-separated after the last ')'; the start time is the
    // 20th of them (field 22 of the line).
    std::vector<std::string_view> fields;
    std::string_view rest = text.substr(titleEnd + 1);
    while (fields.size() < 20) {
      size_t const start = rest.find_first_not_of(' ');
      if (start == std::string_view::npos)
        break;
      rest.remove_prefix(start);
      size_t const end = std::min(rest.find(' '), rest.size());
      fields.push_back(rest.substr(0, end));
      rest.remove_prefix(end);
    }
    if (fields.size() == 20)
      expected = decimal(fields.back());
  }
  FUZZ_CHECK(ticks == expected, "start ticks {} where the text says {}",
             ticks ? fmt::to_string(*ticks) : "none",
             expected ? fmt::to_string(*expected) : "none");
}

void checkBootTime(std::string_view text) {
  std::optional<uint64_t> const bootTime = ProcInfo::parseBootTime(text);
  // The first line that starts with "btime " decides.
  std::optional<uint64_t> expected;
  for (std::string_view rest = text; !rest.empty();) {
    size_t const newline = rest.find('\n');
    std::string_view const line = rest.substr(0, newline);
    if (line.starts_with("btime ")) {
      expected = decimal(line.substr(6));
      break;
    }
    if (newline == std::string_view::npos)
      break;
    rest.remove_prefix(newline + 1);
  }
  FUZZ_CHECK(bootTime == expected, "boot time {} where the text says {}",
             bootTime ? fmt::to_string(*bootTime) : "none",
             expected ? fmt::to_string(*expected) : "none");
}

void checkCommandLine(std::string_view text) {
  std::vector<std::string> const arguments = ProcInfo::splitCommandLine(text);
  std::string joined;
  for (std::string const& argument : arguments) {
    FUZZ_CHECK(argument.find('\0') == std::string::npos, "argument holds a NUL");
    joined.append(argument);
    joined.push_back('\0');
  }
  // Joining them back gives the text, whose final NUL is optional.
  bool const same =
      joined == text || (!joined.empty() && text.back() != '\0' &&
                         std::string_view(joined).substr(0, joined.size() - 1) == text);
  FUZZ_CHECK(same, "{} arguments do not join back to the {} bytes", arguments.size(), text.size());
}

void checkSocketInode(std::string_view text) {
  std::optional<ino_t> const inode = ProcInfo::parseSocketInode(text);
  std::optional<uint64_t> expected;
  if (text.size() >= 9 && text.starts_with("socket:[") && text.ends_with(']'))
    expected = decimal(text.substr(8, text.size() - 9));
  FUZZ_CHECK(inode == expected, "inode {} where the text says {}",
             inode ? fmt::to_string(*inode) : "none",
             expected ? fmt::to_string(*expected) : "none");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  checkTitle(text);
  checkStartTicks(text);
  checkBootTime(text);
  checkCommandLine(text);
  checkSocketInode(text);
  return 0;
}
