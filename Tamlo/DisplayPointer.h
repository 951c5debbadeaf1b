// Prints a pointer the same way everywhere: "NULL", or "0x" and 16
// zero-padded hexadecimal digits, whatever the stream's current settings.
#pragma once

#include <iosfwd>
#include <string>

namespace Tamlo {

// Wraps a pointer for output; does not own or dereference it.
class DisplayPointer {
 public:
  explicit DisplayPointer(void const* pointer) : pointer_(pointer) {}

  void const* pointer() const { return pointer_; }
  std::string toString() const;

 private:
  void const* pointer_;
};

// Leaves the stream's flags and fill as they were; like any formatted output
// it uses up a width set before it: "NULL" is padded to it, other pointers
// are always 18 characters.
std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer);

}  // namespace Tamlo
