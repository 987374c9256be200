#include "tools/functions/loaded_object.h"

#include <cstring>

namespace varn {
namespace {

// Where the loader finds the object's symbols and what it has to bind.
struct Dynamic {
  ElfW(Addr) symbols = 0;
  ElfW(Addr) names = 0;
  ElfW(Xword) names_size = 0;
  struct {
    ElfW(Addr) address = 0;
    ElfW(Xword) size = 0;
  } relocations[2];  // of data, of calls
};

// Most objects hold addresses here by now, those that the loader may not write to hold offsets.
ElfW(Addr) address_in(const LoadedObject& object, ElfW(Addr) address) {
  return holds(object, address, 1) ? address : object.dlpi_addr + address;
}

void take(const LoadedObject& object, const ElfW(Dyn) & entry, Dynamic& dynamic) {
  switch (entry.d_tag) {
    case DT_SYMTAB:
      dynamic.symbols = address_in(object, entry.d_un.d_ptr);
      break;
    case DT_STRTAB:
      dynamic.names = address_in(object, entry.d_un.d_ptr);
      break;
    case DT_STRSZ:
      dynamic.names_size = entry.d_un.d_val;
      break;
    case DT_RELA:
      dynamic.relocations[0].address = address_in(object, entry.d_un.d_ptr);
      break;
    case DT_RELASZ:
      dynamic.relocations[0].size = entry.d_un.d_val;
      break;
    case DT_JMPREL:
      dynamic.relocations[1].address = address_in(object, entry.d_un.d_ptr);
      break;
    case DT_PLTRELSZ:
      dynamic.relocations[1].size = entry.d_un.d_val;
      break;
    default:
      break;
  }
}

Dynamic dynamic_of(const LoadedObject& object) {
  Dynamic dynamic;
  for (int i = 0; i < object.dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object.dlpi_phdr[i];
    const ElfW(Addr) address = object.dlpi_addr + segment.p_vaddr;
    if (segment.p_type != PT_DYNAMIC || !holds(object, address, segment.p_memsz)) continue;
    const auto* const entries = reinterpret_cast<const ElfW(Dyn)*>(address);
    const std::size_t count = segment.p_memsz / sizeof *entries;
    for (std::size_t n = 0; n < count && entries[n].d_tag != DT_NULL; ++n)
      take(object, entries[n], dynamic);
  }
  return dynamic;
}

bool is_import(const LoadedObject& object, const Dynamic& dynamic, ElfW(Xword) symbol_no,
               std::string_view function) {
  const ElfW(Addr) address = dynamic.symbols + symbol_no * sizeof(ElfW(Sym));
  if (symbol_no == 0 || !holds(object, address, sizeof(ElfW(Sym)))) return false;
  const auto& symbol = *reinterpret_cast<const ElfW(Sym)*>(address);
  if (symbol.st_shndx != SHN_UNDEF) return false;
  if (symbol.st_name >= dynamic.names_size ||
      dynamic.names_size - symbol.st_name <= function.size())
    return false;
  const char* const name = reinterpret_cast<const char*>(dynamic.names) + symbol.st_name;
  return std::memcmp(name, function.data(), function.size()) == 0 && name[function.size()] == '\0';
}

}  // namespace

bool holds(const LoadedObject& object, ElfW(Addr) address, ElfW(Xword) size) {
  for (int i = 0; i < object.dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object.dlpi_phdr[i];
    const ElfW(Addr) begin = object.dlpi_addr + segment.p_vaddr;
    if (segment.p_type == PT_LOAD && address >= begin && address - begin <= segment.p_memsz &&
        size <= segment.p_memsz - (address - begin))
      return true;
  }
  return false;
}

// What is imported and used has a relocation. The hash table cannot tell: an object that exports
// nothing has an empty one.
bool imports(const LoadedObject& object, std::string_view function) {
  const Dynamic dynamic = dynamic_of(object);
  if (!holds(object, dynamic.names, dynamic.names_size)) return false;
  for (const auto& table : dynamic.relocations) {
    if (!holds(object, table.address, table.size)) continue;
    const auto* const entries = reinterpret_cast<const ElfW(Rela)*>(table.address);
    const std::size_t count = table.size / sizeof *entries;
    for (std::size_t i = 0; i < count; ++i)
      if (is_import(object, dynamic, ELF64_R_SYM(entries[i].r_info), function)) return true;
  }
  return false;
}

}  // namespace varn
