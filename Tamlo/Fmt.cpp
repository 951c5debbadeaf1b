#include <Tamlo/Fmt.h>

#include <cassert>
#include <cstdio>

#include <Tamlo/Debug.h>

namespace Tamlo {
namespace Fmt::Impl {
namespace {

void appendMessage(MessageBuffer& buffer, bool withClass, char const* funcName,
                   char const* className, fmt::string_view format, fmt::format_args args) {
  buffer.reserve(128);
  if (withClass) {
    assert(funcName && className);
    fmt::format_to(fmt::appender(buffer), "{}::{}() ", className, funcName);
  }
  fmt::vformat_to(fmt::appender(buffer), format, args);
}

}  // namespace

void buildMessageBuffer(MessageBuffer& buffer, bool withClass, char const* funcName,
                        char const* className, fmt::string_view format, fmt::format_args args) {
  buffer.clear();
  appendMessage(buffer, withClass, funcName, className, format, args);
}

void buildDetailedMessageBuffer(MessageBuffer& buffer, char const* fileName, int line,
                                bool withClass, char const* funcName, char const* className,
                                fmt::string_view format, fmt::format_args args) {
  buffer.clear();
  buffer.reserve(128);
  fmt::format_to(fmt::appender(buffer), "{}:{}: ", fileName, line);
  appendMessage(buffer, withClass, funcName, className, format, args);
}

std::string vformatstr(bool withClass, char const* funcName, char const* className,
                       fmt::string_view format, fmt::format_args args) {
  MessageBuffer buffer;
  buildMessageBuffer(buffer, withClass, funcName, className, format, args);
  return fmt::to_string(buffer);
}

std::string vformatstr(char const* fileName, int line, bool withClass, char const* funcName,
                       char const* className, fmt::string_view format, fmt::format_args args) {
  MessageBuffer buffer;
  buildDetailedMessageBuffer(buffer, fileName, line, withClass, funcName, className, format, args);
  return fmt::to_string(buffer);
}

void vfmtrace(void const* handle, unsigned level, char const* fileName, bool withClass,
              char const* funcName, char const* className, int line, fmt::string_view format,
              fmt::format_args args) {
  MessageBuffer buffer;
  buildMessageBuffer(buffer, withClass, funcName, className, format, args);
  dumpDebugMsg(buffer.data(), buffer.size(), level, handle, fileName, funcName, line);
}

void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line) {
  Platform::dumpDebugMsg(text, length, level, handle, fileName, funcName, line);
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {
fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args) {
  return fmt::vformat_to(context.out(), format, args);
}
}  // namespace Fmtrace::Impl

namespace QzFmt::Impl {
void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args) {
  fmt::vprint(file, format, args);
}
void vprint(fmt::string_view format, fmt::format_args args) { fmt::vprint(format, args); }
}  // namespace QzFmt::Impl

namespace Impl {
namespace {

// The name component that ends just before `end` in a pretty function name,
// template arguments included: scanning back stops at "::", a blank, '*',
// '&' or '(' outside angle brackets.
std::string_view componentBefore(std::string_view pretty, size_t end) {
  size_t begin = end;
  int depth = 0;
  while (begin > 0) {
    char const c = pretty[begin - 1];
    if (c == '>')
      ++depth;
    else if (c == '<')
      --depth;
    else if (depth == 0 && (c == ':' || c == ' ' || c == '*' || c == '&' || c == '('))
      break;
    --begin;
  }
  return pretty.substr(begin, end - begin);
}

// The class or namespace enclosing `func` in `pretty`, or empty for a
// function at global scope.
std::string_view enclosingScope(std::string_view pretty, std::string_view func) {
  pretty = pretty.substr(0, pretty.find(" [with "));
  for (size_t at = pretty.find(func); at != std::string_view::npos;
       at = pretty.find(func, at + 1)) {
    size_t const end = at + func.size();
    if (end >= pretty.size() || pretty[end] != '(' || at < 2 || pretty[at - 1] != ':')
      continue;
    std::string_view scope = componentBefore(pretty, at - 2);
    // A function in an anonymous namespace is attributed to the namespace
    // around it.
    size_t const scopeBegin = static_cast<size_t>(scope.data() - pretty.data());
    if (scope == "{anonymous}" && scopeBegin >= 2 && pretty[scopeBegin - 1] == ':')
      scope = componentBefore(pretty, scopeBegin - 2);
    return scope;
  }
  return {};
}

// Copies `text` without template arguments into `out` (always terminated).
void copyWithoutTemplateArgs(std::string_view text, char* out, size_t capacity) {
  size_t n = 0;
  int depth = 0;
  for (char c : text) {
    if (c == '<')
      ++depth;
    else if (c == '>')
      depth = depth > 0 ? depth - 1 : 0;
    else if (depth == 0 && n + 1 < capacity)
      out[n++] = c;
  }
  out[n] = '\0';
}

}  // namespace

SourceScope::SourceScope(char const* prettyFunction, char const* func) noexcept
    : funcName_(func) {
  copyWithoutTemplateArgs(enclosingScope(prettyFunction, func), className_, sizeof className_);
}

SourceScope::SourceScope(char const* className, char const* func, std::nullptr_t) noexcept
    : funcName_(func) {
  copyWithoutTemplateArgs(className, className_, sizeof className_);
}

}  // namespace Impl
}  // namespace Tamlo
