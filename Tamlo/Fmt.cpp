#include <Tamlo/Fmt.h>

#include <cassert>
#include <cstdio>

#include <Tamlo/Debug.h>

namespace Tamlo {
namespace Fmt::Impl {
namespace {

void appendText(MessageBuffer& buffer, std::string_view text) {
  buffer.append(text.data(), text.data() + text.size());
}

// "Class::function() " when `withClass`, then the caller's message.
void appendMessage(MessageBuffer& buffer, bool withClass, char const* funcName,
                   char const* className, fmt::string_view format, fmt::format_args args) {
  buffer.reserve(128);
  if (withClass) {
    assert(funcName && className);
    appendText(buffer, className);
    appendText(buffer, "::");
    appendText(buffer, funcName);
    appendText(buffer, "() ");
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
void vprint(fmt::string_view format, fmt::format_args args) {
  fmt::vprint(format, args);
}
}  // namespace QzFmt::Impl

namespace Impl {
namespace {

using std::string_view;

// The name component that ends just before `end`, template arguments
// included: scanning back stops at "::", a blank, '*', '&' or '(' outside
// angle brackets.
string_view componentBefore(string_view text, size_t end) {
  size_t begin = end;
  int depth = 0;
  while (begin > 0) {
    char const c = text[begin - 1];
    if (c == '>')
      ++depth;
    else if (c == '<')
      --depth;
    else if (depth <= 0 && (c == ':' || c == ' ' || c == '*' || c == '&' || c == '('))
      break;
    --begin;
  }
  return text.substr(begin, end - begin);
}

bool scopedAt(string_view text, size_t at) {
  return at >= 2 && text[at - 1] == ':' && text[at - 2] == ':';
}

// The innermost named scope of the qualified name whose scope part ends at
// `at` (the position of its last "::"); anonymous namespaces are passed
// over, and a name with none but anonymous ones has no scope.
string_view scopeBefore(string_view text, size_t at) {
  while (scopedAt(text, at)) {
    string_view const scope = componentBefore(text, at - 2);
    if (scope != "{anonymous}")
      return scope;
    at = static_cast<size_t>(scope.data() - text.data());
  }
  return {};
}

struct ScopeParts {
  string_view scope;
  string_view function;
};

// A lambda's pretty name is its enclosing function's signature followed by
// "::<lambda(...)>", e.g. "C::f()::<lambda()>" or "tf<int>(int)::<lambda()>".
ScopeParts lambdaParts(string_view pretty, size_t lambdaAt) {
  string_view const enclosing = pretty.substr(0, lambdaAt >= 2 ? lambdaAt - 2 : 0);
  size_t const close = enclosing.rfind(')');
  if (close == string_view::npos)  // at namespace or class scope
    return {scopeBefore(pretty, lambdaAt), "operator()"};
  size_t open = close;
  for (int depth = 0; open-- > 0;) {
    if (enclosing[open] == ')')
      ++depth;
    else if (enclosing[open] == '(' && depth-- == 0)
      break;
  }
  if (open == string_view::npos)
    return {{}, "operator()"};
  // Operator names hold characters that a plain name never does ("<", " ").
  size_t nameBegin = enclosing.rfind("operator", open);
  if (nameBegin == string_view::npos || (nameBegin > 0 && enclosing[nameBegin - 1] != ':') ||
      enclosing.substr(nameBegin, open - nameBegin).find(':') != string_view::npos)
    nameBegin = static_cast<size_t>(componentBefore(enclosing, open).data() - enclosing.data());
  return {scopeBefore(enclosing, nameBegin), enclosing.substr(nameBegin, open - nameBegin)};
}

// The scope of `func` in `pretty`: the occurrence of `func` that is followed
// by its parameter list.
string_view functionScope(string_view pretty, string_view func) {
  for (size_t at = pretty.find(func); at != string_view::npos; at = pretty.find(func, at + 1)) {
    size_t const end = at + func.size();
    bool const named = at == 0 || pretty[at - 1] == ':' || pretty[at - 1] == ' ' ||
                       pretty[at - 1] == '*' || pretty[at - 1] == '&';
    if (named && end < pretty.size() && pretty[end] == '(')
      return scopeBefore(pretty, at);
  }
  return {};
}

// Copies `text` into `out` (always terminated), without template arguments
// unless it is an operator name, whose '<' and '>' are its own.
void copyName(string_view text, char* out, size_t capacity) {
  bool const keepBrackets = text.starts_with("operator");
  size_t n = 0;
  int depth = 0;
  for (char c : text) {
    if (!keepBrackets && c == '<')
      ++depth;
    else if (!keepBrackets && c == '>')
      depth = depth > 0 ? depth - 1 : 0;
    else if (depth == 0 && n + 1 < capacity)
      out[n++] = c;
  }
  out[n] = '\0';
}

}  // namespace

SourceScope::SourceScope(char const* prettyFunction, char const* func) noexcept : funcName_(func) {
  string_view pretty(prettyFunction);
  // Template arguments of a function template are listed at the end.
  pretty = pretty.substr(0, pretty.find(" [with "));
  size_t const lambdaAt = pretty.find("<lambda(");
  if (lambdaAt != string_view::npos && string_view(func) == "operator()") {
    ScopeParts const parts = lambdaParts(pretty, lambdaAt);
    copyName(parts.scope, className_, sizeof className_);
    copyName(parts.function, funcBuffer_, sizeof funcBuffer_);
    funcName_ = funcBuffer_;
    return;
  }
  funcBuffer_[0] = '\0';
  copyName(functionScope(pretty, func), className_, sizeof className_);
}

SourceScope::SourceScope(char const* className, char const* func, std::nullptr_t) noexcept
    : funcName_(func) {
  funcBuffer_[0] = '\0';
  copyName(className, className_, sizeof className_);
}

}  // namespace Impl
}  // namespace Tamlo
