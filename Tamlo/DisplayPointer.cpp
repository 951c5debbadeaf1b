#include <Tamlo/DisplayPointer.h>

#include <cstdint>
#include <ios>
#include <ostream>
#include <sstream>

namespace Tamlo {

std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer) {
  if (!pointer.pointer())
    return stream << "NULL";
  std::ios_base::fmtflags const flags = stream.flags();
  char const fill = stream.fill();
  // showbase with internal adjustment puts the zero padding between "0x" and
  // the digits: 2 + 16 characters.
  stream.flags(std::ios_base::hex | std::ios_base::showbase | std::ios_base::internal);
  stream.fill('0');
  stream.width(18);
  stream << reinterpret_cast<uintptr_t>(pointer.pointer());
  stream.flags(flags);
  stream.fill(fill);
  return stream;
}

std::string DisplayPointer::toString() const {
  std::ostringstream text;
  text << *this;
  return text.str();
}

}  // namespace Tamlo
