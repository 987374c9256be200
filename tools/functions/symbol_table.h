// The functions that an object's file names.
#ifndef VARN_TOOLS_FUNCTIONS_SYMBOL_TABLE_H
#define VARN_TOOLS_FUNCTIONS_SYMBOL_TABLE_H

#include <cstddef>
#include <cstdlib>

#include "tools/functions/loaded_object.h"

namespace varn {

// Memory of malloc's: a host that has none left gets no names, and lives.
struct Bytes {
  char* data = nullptr;
  std::size_t size = 0;

  Bytes() = default;
  ~Bytes() { std::free(data); }
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
};

struct SymbolTable {
  Bytes symbols;
  Bytes names;  // a zero byte behind them

  std::size_t count() const { return symbols.size / sizeof(ElfW(Sym)); }
  // The symbol's name when it is a function that the object holds, else null.
  const char* function_name(std::size_t index, ElfW(Addr) & value) const;
};

// Reads the file that the object was loaded from: its full table, else the one of its exports.
// False, with an empty table, when there is none, or the file is damaged or another by now.
bool read_symbol_table(const LoadedObject& object, SymbolTable& table);

}  // namespace varn

#endif
