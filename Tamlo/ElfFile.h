// A read-only view of an ELF object file (an executable or a shared object)
// for naming addresses with its symbol tables.
//
// The file is mapped into memory, and every header, table and name is checked
// against the file's size before it is read, so a truncated or corrupt file
// gives a CorruptionDetectedException naming it, never a crash. Only 64-bit
// files in the machine's own byte order are read.
//
// Threads: an ElfFile never changes once made; its const operations may be
// called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tamlo {

class ElfFile {
 public:
  // Throws RuntimeException naming `path` and the system's reason when the
  // file cannot be opened or mapped (NoPermissionException when it may not
  // be read), CorruptionDetectedException when it is not an ELF file this
  // class reads.
  explicit ElfFile(std::string path);
  ~ElfFile();
  ElfFile(ElfFile const&) = delete;
  ElfFile& operator=(ElfFile const&) = delete;

  std::string const& path() const { return path_; }

  // The link-time address at which a loadable segment places the byte at
  // `fileOffset`, or nothing when no segment loads that byte from the file.
  std::optional<uint64_t> addressOfFileOffset(uint64_t fileOffset) const;

  struct Symbol {
    std::string_view name;  // points into the mapped file: valid while it lives
    uint64_t address = 0;
    uint64_t size = 0;
  };
  // The data object (STT_OBJECT) whose extent holds the link-time `address`,
  // looked up in the full symbol table (.symtab), then in the dynamic one
  // (.dynsym) that stripped files keep; nothing when no object holds it.
  std::optional<Symbol> objectSymbolCovering(uint64_t address) const;

 private:
  // Copies the T at `offset` of the file into `value`; false when it does
  // not lie wholly inside the file.
  template <typename T>
  bool readAt(uint64_t offset, T& value) const;
  [[noreturn]] void corrupt(std::string const& problem) const;

  std::string path_;
  unsigned char const* bytes_ = nullptr;
  size_t size_ = 0;
};

}  // namespace Tamlo
