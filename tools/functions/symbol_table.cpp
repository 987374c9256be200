// Nothing in the file is trusted. It is read, not mapped: were it cut while it is looked at, a read
// would come short where a mapping would end the host.
#include "tools/functions/symbol_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace varn {
namespace {

class File {
 public:
  explicit File(const char* path) : fd_(open(path, O_RDONLY | O_CLOEXEC)) {
    struct stat status;
    if (fd_ >= 0 && fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0)
      size_ = static_cast<std::size_t>(status.st_size);
  }
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // With a zero byte behind them. Never larger than the file.
  bool read_bytes(std::size_t offset, std::size_t size, Bytes& bytes) const {
    if (offset > size_ || size > size_ - offset) return false;
    std::free(bytes.data);
    bytes.size = 0;
    bytes.data = static_cast<char*>(std::malloc(size + 1));
    if (bytes.data == nullptr) return false;
    bytes.data[size] = '\0';
    for (std::size_t done = 0; done < size;) {
      const ssize_t n =
          pread(fd_, bytes.data + done, size - done, static_cast<off_t>(offset + done));
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    bytes.size = size;
    return true;
  }

 private:
  const int fd_;
  std::size_t size_ = 0;
};

template <typename T>
const T* as_array(const Bytes& bytes) {
  return reinterpret_cast<const T*>(bytes.data);
}

bool is_elf_of_ours(const ElfW(Ehdr) & header) {
  return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
         header.e_phentsize == sizeof(ElfW(Phdr)) && header.e_shentsize == sizeof(ElfW(Shdr));
}

// A file that was replaced since would give its names to other functions' addresses.
bool is_file_of(const LoadedObject& object, const File& file, const ElfW(Ehdr) & header) {
  Bytes segments;
  return header.e_phnum == object.dlpi_phnum &&
         file.read_bytes(header.e_phoff, header.e_phnum * sizeof(ElfW(Phdr)), segments) &&
         std::memcmp(segments.data, object.dlpi_phdr, segments.size) == 0;
}

// By type; null when there is none or it names no section with its texts.
const ElfW(Shdr) * find_table(const Bytes& sections, ElfW(Word) type) {
  const auto* const headers = as_array<ElfW(Shdr)>(sections);
  const std::size_t count = sections.size / sizeof *headers;
  for (std::size_t i = 0; i < count; ++i)
    if (headers[i].sh_type == type && headers[i].sh_entsize == sizeof(ElfW(Sym)) &&
        headers[i].sh_link < count && headers[headers[i].sh_link].sh_type == SHT_STRTAB)
      return &headers[i];
  return nullptr;
}

bool read_section(const File& file, const ElfW(Shdr) & section, Bytes& bytes) {
  return file.read_bytes(section.sh_offset, section.sh_size, bytes);
}

bool read_table(const File& file, const Bytes& sections, ElfW(Word) type, SymbolTable& table) {
  const ElfW(Shdr)* const symbols = find_table(sections, type);
  if (symbols == nullptr) return false;
  const ElfW(Shdr)& names = as_array<ElfW(Shdr)>(sections)[symbols->sh_link];
  return read_section(file, *symbols, table.symbols) && read_section(file, names, table.names);
}

}  // namespace

const char* SymbolTable::function_name(std::size_t index, ElfW(Addr) & value) const {
  const ElfW(Sym)& symbol = as_array<ElfW(Sym)>(symbols)[index];
  value = symbol.st_value;
  if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF) return nullptr;
  if (symbol.st_value == 0 || symbol.st_size == 0 || symbol.st_name >= names.size) return nullptr;
  const char* const name = names.data + symbol.st_name;
  return *name == '\0' ? nullptr : name;
}

bool read_symbol_table(const LoadedObject& object, SymbolTable& table) {
  const bool is_program = object.dlpi_name == nullptr || *object.dlpi_name == '\0';
  const File file(is_program ? "/proc/self/exe" : object.dlpi_name);
  Bytes start;
  if (!file.read_bytes(0, sizeof(ElfW(Ehdr)), start)) return false;
  const ElfW(Ehdr)& header = *as_array<ElfW(Ehdr)>(start);
  Bytes sections;
  if (!is_elf_of_ours(header) || !is_file_of(object, file, header) ||
      !file.read_bytes(header.e_shoff, header.e_shnum * sizeof(ElfW(Shdr)), sections))
    return false;
  return read_table(file, sections, SHT_SYMTAB, table) ||
         read_table(file, sections, SHT_DYNSYM, table);
}

}  // namespace varn
