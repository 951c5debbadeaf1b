#include <Tamlo/RemoteTypeName.h>

#include <sys/uio.h>
#include <cerrno>

#include <fmt/format.h>

#include <Tamlo/ElfFile.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>
#include <Tamlo/Mappings.h>
#include <Tamlo/TypeName.h>

namespace Tamlo {

namespace {

uintptr_t readWord(pid_t pid, uintptr_t address) {
  uintptr_t word = 0;
  iovec local{&word, sizeof word};
  iovec remote{reinterpret_cast<void*>(address), sizeof word};
  ssize_t const got = ::process_vm_readv(pid, &local, 1, &remote, 1, 0);
  if (got == sizeof word)
    return word;
  // A short read stopped at an unmapped page.
  int const error = got < 0 ? errno : EFAULT;
  std::string const text =
      fmt::format("pid {}: cannot read the word at {:#x}: {}", pid, address, strerror(error));
  if (error == EFAULT)
    OutOfRangeException::throwException(text);
  if (error == EPERM || error == EACCES)
    NoPermissionException::throwException(text);
  RuntimeException::throwException(text);
}

[[noreturn]] void throwNotAVtable(pid_t pid, uintptr_t objectAddress, uintptr_t word,
                                  std::string const& why) {
  RuntimeException::throwException(
      fmt::format("pid {}: the word {:#x} at {:#x} is not a vtable pointer: {}", pid, word,
                  objectAddress, why));
}

}  // namespace

std::string remoteTypeName(pid_t pid, uintptr_t objectAddress) {
  return remoteTypeName(pid, objectAddress, Mappings::ofProcess(pid));
}

std::string remoteTypeName(pid_t pid, uintptr_t objectAddress, Mappings const& mappings) {
  uintptr_t const vtable = readWord(pid, objectAddress);
  Mapping const* const mapping = mappings.find(vtable);
  if (!mapping)
    throwNotAVtable(pid, objectAddress, vtable, "no mapping holds it");
  if (mapping->path.empty() || mapping->path.front() != '/')
    throwNotAVtable(pid, objectAddress, vtable,
                    fmt::format("it points into {}",
                                mapping->path.empty() ? "anonymous memory" : mapping->path));
  ElfFile const file(fmt::format("/proc/{}/root{}", pid, mapping->path));
  uint64_t const fileOffset = vtable - mapping->start + mapping->offset;
  std::optional<uint64_t> const address = file.addressOfFileOffset(fileOffset);
  if (!address)
    throwNotAVtable(
        pid, objectAddress, vtable,
        fmt::format("no segment of {} loads its offset {:#x}", mapping->path, fileOffset));
  std::optional<ElfFile::Symbol> const symbol = file.objectSymbolCovering(*address);
  if (!symbol || !symbol->name.starts_with("_ZTV"))
    throwNotAVtable(pid, objectAddress, vtable,
                    fmt::format("no vtable symbol of {} covers its address {:#x} there",
                                mapping->path, *address));
  // What follows the prefix is the mangled type, which the type demangler reads.
  return typeName(std::string(symbol->name.substr(4)).c_str());
}

}  // namespace Tamlo
