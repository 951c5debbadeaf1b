// Message building and trace-line output: every trace call and assertion text
// is formatted here with fmt into a small stack buffer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Tamlo {
namespace Fmt::Impl {

// 500 bytes inline: ordinary messages never touch the heap.
using MessageBuffer = fmt::basic_memory_buffer<char, 500>;

// Empties `buffer`, then writes "Class::func() " when `withClass`, then the
// caller's message.
void buildMessageBuffer(MessageBuffer& buffer, bool withClass, char const* funcName,
                        char const* className, fmt::string_view format, fmt::format_args args);
// As buildMessageBuffer, with "file:line: " in front.
void buildDetailedMessageBuffer(MessageBuffer& buffer, char const* fileName, int line,
                                bool withClass, char const* funcName, char const* className,
                                fmt::string_view format, fmt::format_args args);
std::string vformatstr(bool withClass, char const* funcName, char const* className,
                       fmt::string_view format, fmt::format_args args);
std::string vformatstr(char const* fileName, int line, bool withClass, char const* funcName,
                       char const* className, fmt::string_view format, fmt::format_args args);

// Builds the message and writes it as one trace line. Does not test the level:
// callers do, before formatting anything.
void vfmtrace(void const* handle, unsigned level, char const* fileName, bool withClass,
              char const* funcName, char const* className, int line, fmt::string_view format,
              fmt::format_args args);
void dumpDebugMsg(char const* text, size_t length, unsigned level, void const* handle,
                  char const* fileName, char const* funcName, int line);

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {
// For custom formatters that delegate to a format string.
fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args);
}  // namespace Fmtrace::Impl

namespace QzFmt::Impl {
void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args);
void vprint(fmt::string_view format, fmt::format_args args);
}  // namespace QzFmt::Impl

namespace Impl {

// The innermost enclosing class (or namespace) and function of a call site,
// recovered from __PRETTY_FUNCTION__ and __func__: "C" and "f" for a member
// f of class (or class template) C, the namespace for a free function in a
// namespace, no class for one at global scope. Anonymous namespaces are
// skipped; a lambda is attributed to the function it is written in. Only
// computed on paths that are about to write text, so its cost never lands on
// a disabled trace. Not copyable: funcName() may point into the object.
class SourceScope {
 public:
  SourceScope(char const* prettyFunction, char const* func) noexcept;
  // Names the scope explicitly ("Platform"); "" for none.
  SourceScope(char const* className, char const* func, std::nullptr_t) noexcept;
  SourceScope(SourceScope const&) = delete;
  SourceScope& operator=(SourceScope const&) = delete;

  bool hasClass() const { return className_[0] != '\0'; }
  char const* className() const { return className_; }
  char const* funcName() const { return funcName_; }

 private:
  // Longer names are cut; they only label a trace line.
  char className_[128];
  char funcBuffer_[128];
  char const* funcName_;
};

}  // namespace Impl
}  // namespace Tamlo
