#include <Tamlo/ElfFile.h>

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>

namespace Tamlo {

namespace {

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr unsigned char nativeByteOrder = ELFDATA2LSB;
#else
constexpr unsigned char nativeByteOrder = ELFDATA2MSB;
#endif

[[noreturn]] void throwSystemFailure(char const* what, std::string const& path, int error) {
  std::string const text = fmt::format("cannot {} ELF file {}: {}", what, path, strerror(error));
  if (error == EACCES || error == EPERM)
    NoPermissionException::throwException(text);
  RuntimeException::throwException(text);
}

// The file header, checked to be one this class reads.
Elf64_Ehdr readHeader(int fd, std::string const& path) {
  Elf64_Ehdr header;
  ssize_t got;
  do
    got = ::pread(fd, &header, sizeof header, 0);
  while (got < 0 && errno == EINTR);
  if (got < 0)
    throwSystemFailure("read", path, errno);
  char const* problem = nullptr;
  if (static_cast<size_t>(got) < sizeof header || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
    problem = "not an ELF file";
  else if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != nativeByteOrder)
    problem = "not a 64-bit ELF file in this machine's byte order";
  else if ((header.e_phnum > 0 && header.e_phentsize != sizeof(Elf64_Phdr)) ||
           (header.e_shnum > 0 && header.e_shentsize != sizeof(Elf64_Shdr)))
    problem = "unexpected header table entry sizes";
  if (problem)
    CorruptionDetectedException::throwException(fmt::format("ELF file {}: {}", path, problem));
  return header;
}

// Closes the descriptor it holds when it goes.
struct ClosingFd {
  int fd;
  ~ClosingFd() { ::close(fd); }
};

}  // namespace

ElfFile::ElfFile(std::string path) : path_(std::move(path)) {
  ClosingFd const file{::open(path_.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0)
    throwSystemFailure("open", path_, errno);
  struct stat status;
  if (::fstat(file.fd, &status) != 0)
    throwSystemFailure("examine", path_, errno);
  if (!S_ISREG(status.st_mode))
    CorruptionDetectedException::throwException(
        fmt::format("ELF file {}: not a regular file", path_));
  readHeader(file.fd, path_);
  size_ = static_cast<size_t>(status.st_size);
  void* const mapped = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file.fd, 0);
  if (mapped == MAP_FAILED)
    throwSystemFailure("map", path_, errno);
  bytes_ = static_cast<unsigned char const*>(mapped);
}

ElfFile::~ElfFile() {
  ::munmap(const_cast<unsigned char*>(bytes_), size_);
}

template <typename T>
bool ElfFile::readAt(uint64_t offset, T& value) const {
  if (offset > size_ || sizeof(T) > size_ - offset)
    return false;
  // Copied, not cast: a corrupt file may place tables at any alignment.
  std::memcpy(&value, bytes_ + offset, sizeof(T));
  return true;
}

void ElfFile::corrupt(std::string const& problem) const {
  CorruptionDetectedException::throwException(fmt::format("ELF file {}: {}", path_, problem));
}

std::optional<uint64_t> ElfFile::addressOfFileOffset(uint64_t fileOffset) const {
  Elf64_Ehdr header;
  readAt(0, header);
  for (uint64_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (header.e_phoff > size_ || !readAt(header.e_phoff + i * sizeof segment, segment))
      corrupt(fmt::format("program header {} lies outside the file", i));
    if (segment.p_type == PT_LOAD && segment.p_offset <= fileOffset &&
        fileOffset - segment.p_offset < segment.p_filesz)
      return segment.p_vaddr + (fileOffset - segment.p_offset);
  }
  return std::nullopt;
}

std::optional<ElfFile::Symbol> ElfFile::objectSymbolCovering(uint64_t address) const {
  Elf64_Ehdr header;
  readAt(0, header);
  auto section = [&](uint64_t index) {
    Elf64_Shdr shdr;
    if (index >= header.e_shnum || header.e_shoff > size_ ||
        !readAt(header.e_shoff + index * sizeof shdr, shdr))
      corrupt(fmt::format("section header {} lies outside the file", index));
    if (shdr.sh_type != SHT_NOBITS &&
        (shdr.sh_offset > size_ || shdr.sh_size > size_ - shdr.sh_offset))
      corrupt(fmt::format("section {} lies outside the file", index));
    return shdr;
  };
  for (uint32_t const tableType : {SHT_SYMTAB, SHT_DYNSYM}) {
    for (uint64_t i = 0; i < header.e_shnum; ++i) {
      Elf64_Shdr const table = section(i);
      if (table.sh_type != tableType)
        continue;
      if (table.sh_entsize != sizeof(Elf64_Sym))
        corrupt(fmt::format("symbol table {} has entries of {} bytes", i, table.sh_entsize));
      Elf64_Shdr const names = section(table.sh_link);
      char const* const nameBytes = reinterpret_cast<char const*>(bytes_ + names.sh_offset);
      for (uint64_t j = 0; j < table.sh_size / sizeof(Elf64_Sym); ++j) {
        Elf64_Sym symbol;
        readAt(table.sh_offset + j * sizeof symbol, symbol);
        if (ELF64_ST_TYPE(symbol.st_info) != STT_OBJECT || symbol.st_shndx == SHN_UNDEF ||
            address < symbol.st_value || address - symbol.st_value >= symbol.st_size)
          continue;
        if (names.sh_type == SHT_NOBITS || symbol.st_name >= names.sh_size)
          corrupt(fmt::format("symbol {} of table {} has its name outside the file", j, i));
        size_t const room = names.sh_size - symbol.st_name;
        void const* const nul = std::memchr(nameBytes + symbol.st_name, '\0', room);
        if (!nul)
          corrupt(fmt::format("symbol {} of table {} has an unterminated name", j, i));
        return Symbol{
            std::string_view(nameBytes + symbol.st_name,
                             static_cast<char const*>(nul) - (nameBytes + symbol.st_name)),
            symbol.st_value, symbol.st_size};
      }
    }
  }
  return std::nullopt;
}

}  // namespace Tamlo
